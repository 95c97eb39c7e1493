// Taking responses apart: the LDAPResult of a final response (code, matched DN, message,
// referrals, response controls), extended and SASL bind results, the controls kept from the last
// bind, and search references. Every decoder here reads a private cursor unless it says not.
#include "ldap_parse.h"

#include "ldap_controls.h"
#include "ldap_entry.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_parse";

// A result code equal to the tag of LDAPResult's referral field ([3], 0xA3) is followed by
// one element that these parsers step over. Real servers never send it; the comparison is
// kept as the library has always made it.
constexpr int RESULT_CODE_REFERRAL_TAG = 163;

// A record built outside any connection belongs to no row, so there is no table to leave and
// no id to release: it is freed on its own.
void release_message(LDAPMessage *msg)
{
    if (msg->lm_conn == nullptr)
        free_msg(msg, 1);
    else
        (void)ldap_msgfree(msg); // the freed type is of no interest here
}

// The controls of a response follow its protocolOp element, whatever fields the caller chose
// to decode: read them from a cursor of their own, started at the operation.
int read_response_controls(BerElement *at_op, LDAPControl ***ctrlsp)
{
    BerElement *c = ber_dup(at_op);
    if (c == nullptr)
        return LDAP_NO_MEMORY;
    int rc = fber_skip_element(c) == 0 ? get_ctrls_from_ber(c, ctrlsp) : LDAP_DECODING_ERROR;
    ber_free(c, 0);
    return rc;
}

struct ResultParts {
    int code = 0;
    char *matched = nullptr;
    char *errmsg = nullptr;
    char **referrals = nullptr;
    LDAPControl **ctrls = nullptr;

    void release()
    {
        lber_free(matched);
        lber_free(errmsg);
        ldap_value_free(referrals);
        ldap_controls_free(ctrls);
        *this = ResultParts{};
    }
};

// The first record of the chain that is neither an entry nor a reference.
LDAPMessage *final_message(LDAPMessage *res)
{
    LDAPMessage *m = res;
    while (m != nullptr &&
           (m->lm_msgtype == LDAP_RES_SEARCH_ENTRY || m->lm_msgtype == LDAP_RES_SEARCH_REFERENCE))
        m = ldap_chain_next(m);
    return m;
}

//   LDAPResult ::= SEQUENCE { resultCode ENUMERATED, matchedDN LDAPDN,
//                             diagnosticMessage LDAPString, referral [3] Referral OPTIONAL }
// followed, after the protocolOp, by controls [0].
int decode_result(LDAPMessage *m, bool want_refs, bool want_ctrls, ResultParts *p)
{
    if (m->lm_ber == nullptr)
        return LDAP_DECODING_ERROR;
    BerElement *c = ber_dup(m->lm_ber);
    if (c == nullptr)
        return LDAP_NO_MEMORY;
    int rc = 0;
    if (fber_scanf(c, "{iaa", &p->code, &p->matched, &p->errmsg) == LBER_ERROR) {
        rc = ldap_ber_failure(c, LDAP_DECODING_ERROR);
    } else {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_parse_result: msgid=%d, resulttype=%d, resultcode=%d\n",
                   m->lm_msgid, m->lm_msgtype, p->code);
        // A result that reports referrals the library could not follow carries them with
        // the failure's code, so the field is read whatever the code.
        ber_len_t len = 0;
        if (p->code == LDAP_REFERRAL || fber_peek_tag(c, &len) == LDAP_TAG_REFERRAL) {
            bool ok = want_refs ? fber_scanf(c, "{v}", &p->referrals) != LBER_ERROR
                                : fber_skip_element(c) == 0;
            rc = ok ? 0 : ldap_ber_failure(c, LDAP_DECODING_ERROR);
        }
        if (rc == 0 && want_ctrls)
            rc = read_response_controls(m->lm_ber, &p->ctrls);
    }
    ber_free(c, 0);
    return rc;
}

//   ExtendedResponse ::= [APPLICATION 24] SEQUENCE { COMPONENTS OF LDAPResult,
//                          responseName [10] LDAPOID OPTIONAL, responseValue [11] OCTET STRING
//                          OPTIONAL }
// Reads the optional name and value from `ber`, standing behind the LDAPResult fields. Whether
// they are there or not, the parse succeeds (0), unless memory ran out reading one of them or
// the controls (90); the controls are read only when the last field asked for was decoded.
int decode_extended_fields(BerElement *ber, char **oidp, struct berval **datap,
                           BerElement *op_start, LDAPControl ***ctrlsp)
{
    bool last_ok = true;
    ber_len_t len;
    if (oidp != nullptr) {
        last_ok = fber_peek_tag(ber, &len) == LDAP_TAG_EXOP_RES_OID &&
                  fber_get_stringa(ber, oidp) != LBER_ERROR;
        if (!last_ok)
            LDAP_TRACE(LDAP_TRC_API,
                       "ldap_parse_extended_result_direct: No optional oid returned\n");
    }
    if (datap != nullptr) {
        last_ok = fber_peek_tag(ber, &len) == LDAP_TAG_EXOP_RES_VALUE &&
                  fber_get_stringal(ber, datap) != LBER_ERROR;
        if (!last_ok)
            LDAP_TRACE(LDAP_TRC_API,
                       "ldap_parse_extended_result_direct: No optional data returned\n");
    }
    if (ber_out_of_memory(ber))
        return LDAP_NO_MEMORY;
    // Controls are optional extras here: only a lack of memory fails the parse.
    if (ctrlsp != nullptr && last_ok && op_start != nullptr &&
        read_response_controls(op_start, ctrlsp) == LDAP_NO_MEMORY)
        return LDAP_NO_MEMORY;
    return 0;
}

// Takes back what decode_extended_fields handed out.
void release_extended_fields(char **oidp, struct berval **datap, LDAPControl ***ctrlsp)
{
    if (oidp != nullptr)
        lber_free(*oidp), *oidp = nullptr;
    if (datap != nullptr)
        ber_bvfree(*datap), *datap = nullptr;
    if (ctrlsp != nullptr)
        ldap_controls_free(*ctrlsp), *ctrlsp = nullptr;
}

int copy_bind_controls(LDAP *ld, LDAPControl ***ctrlsp)
{
    if (ctrlsp == nullptr)
        return LDAP_PARAM_ERROR;
    *ctrlsp = nullptr;
    LDAPConn *lc = ld->ld_defconn;
    if (lc == nullptr)
        return 0; // never bound: no controls
    LDAP_LOCK(guard, &lc->conn_mutex, MODULE);
    if (!guard.locked())
        return guard.rc();
    return ldap_copy_controls(ctrlsp, lc->bind_ctrls);
}

//   SearchResultReference ::= [APPLICATION 19] SEQUENCE SIZE (1..MAX) OF uri URI
int decode_reference(LDAPMessage *ref, char ***refs, LDAPControl ***ctrls)
{
    if (ref == nullptr || ref->lm_msgtype != LDAP_RES_SEARCH_REFERENCE || ref->lm_ber == nullptr)
        return LDAP_PARAM_ERROR;
    BerElement *c = ber_dup(ref->lm_ber);
    if (c == nullptr)
        return LDAP_NO_MEMORY;
    bool ok = refs != nullptr ? fber_scanf(c, "{v}", refs) != LBER_ERROR
                              : fber_skip_element(c) == 0;
    int rc = ok ? 0 : ldap_ber_failure(c, LDAP_DECODING_ERROR);
    if (rc == 0 && ctrls != nullptr)
        rc = get_ctrls_from_ber(c, ctrls);
    ber_free(c, 0);
    return rc;
}
} // namespace

int ldap_parse_result(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp,
                      char **errmsgp, char ***referralsp, LDAPControl ***serverctrlsp, int freeit)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_result: ld(%p) res(%p) freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(res), freeit);
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    if (matcheddnp != nullptr)
        *matcheddnp = nullptr;
    if (errmsgp != nullptr)
        *errmsgp = nullptr;
    if (referralsp != nullptr)
        *referralsp = nullptr;
    if (serverctrlsp != nullptr)
        *serverctrlsp = nullptr;

    ResultParts parts;
    int rc;
    LDAPMessage *m = final_message(res);
    if (m == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_parse_result: NULLMSG passed\n");
        rc = 1; // no result in the chain: deliberately not a parameter error
    } else {
        rc = decode_result(m, referralsp != nullptr, serverctrlsp != nullptr, &parts);
    }
    if (freeit && res != nullptr)
        release_message(res);
    if (rc != 0) {
        parts.release();
        return rc;
    }
    // The server's result goes to the out-arguments only; the error record is not touched.
    if (errcodep != nullptr)
        *errcodep = parts.code;
    if (matcheddnp != nullptr)
        *matcheddnp = parts.matched, parts.matched = nullptr;
    if (errmsgp != nullptr)
        *errmsgp = parts.errmsg, parts.errmsg = nullptr;
    if (referralsp != nullptr)
        *referralsp = parts.referrals, parts.referrals = nullptr;
    if (serverctrlsp != nullptr)
        *serverctrlsp = parts.ctrls, parts.ctrls = nullptr;
    parts.release();
    return 0;
}

int ldap_parse_extended_result_direct(LDAP *ld, LDAPMessage *res, char **resultoidp,
                                      struct berval **resultdata, int freeit,
                                      LDAPControl ***serverctrlsp)
{
    if (serverctrlsp != nullptr)
        *serverctrlsp = nullptr;
    if (resultoidp != nullptr)
        *resultoidp = nullptr;
    if (resultdata != nullptr)
        *resultdata = nullptr;
    (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // clearing may fail harmlessly
    if (res == nullptr || res->lm_msgtype != LDAP_RES_EXTENDED || res->lm_ber == nullptr)
        return LDAP_PARAM_ERROR; // the thread's code deliberately stays 0

    // The message's own element is read, so a record can be parsed this way once. A cursor
    // kept at the operation finds the controls behind it.
    BerElement *ber = res->lm_ber;
    BerElement *op_start = serverctrlsp != nullptr ? ber_dup(ber) : nullptr;
    int code = 0;
    char *matched = nullptr;
    char *errmsg = nullptr;
    int rc;
    if (fber_scanf(ber, "{iaa", &code, &matched, &errmsg) == LBER_ERROR) {
        rc = ldap_ber_failure(ber, -1);
    } else if (code == 0) {
        rc = decode_extended_fields(ber, resultoidp, resultdata, op_start, serverctrlsp);
        if (rc != 0)
            release_extended_fields(resultoidp, resultdata, serverctrlsp);
    } else if (code == RESULT_CODE_REFERRAL_TAG) {
        rc = fber_skip_element(ber) == 0 ? code : -1;
    } else {
        rc = code;
    }
    lber_free(matched);
    lber_free(errmsg);
    ber_free(op_start, 0);
    if (freeit == 1)
        release_message(res);
    return ldap_fail(ld, rc);
}

int ldap_parse_extended_result(LDAP *ld, LDAPMessage *res, char **resultoidp,
                               struct berval **resultdata, int freeit)
{
    return ldap_parse_extended_result_ctrls(ld, res, resultoidp, resultdata, nullptr, freeit);
}

int ldap_parse_extended_result_ctrls(LDAP *ld, LDAPMessage *res, char **resultoidp,
                                     struct berval **resultdata, LDAPControl ***serverctrlsp,
                                     int freeit)
{
    LDAP_TRACE(LDAP_TRC_API,
               "ldap_parse_extended_result: ld(%p), res(%p), resultoidp(%p), resultdata(%p), "
               "freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(res), static_cast<void *>(resultoidp),
               static_cast<void *>(resultdata), freeit);
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    return ldap_parse_extended_result_direct(ld, res, resultoidp, resultdata, freeit,
                                             serverctrlsp);
}

//   BindResponse ::= [APPLICATION 1] SEQUENCE { COMPONENTS OF LDAPResult,
//                                               serverSaslCreds [7] OCTET STRING OPTIONAL }
int ldap_parse_sasl_bind_result_direct(LDAP *ld, LDAPMessage *res, struct berval **servercredp,
                                       int freeit)
{
    LDAP_TRACE(LDAP_TRC_WARN, "ldap_parse_sasl_bind_result_direct \n");
    (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // clearing may fail harmlessly
    if (servercredp != nullptr)
        *servercredp = nullptr;
    if (res == nullptr || res->lm_msgtype != LDAP_RES_BIND || res->lm_ber == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);

    int code = 0;
    char *matched = nullptr;
    char *errmsg = nullptr;
    bool decoded = false;
    BerElement *c = ber_dup(res->lm_ber);
    int failure = LDAP_NO_MEMORY; // no cursor
    if (c != nullptr) {
        decoded = fber_scanf(c, "{iaa", &code, &matched, &errmsg) != LBER_ERROR;
        bool ok = decoded;
        if (ok && code == RESULT_CODE_REFERRAL_TAG)
            ok = fber_skip_element(c) == 0;
        ber_len_t len;
        if (ok && servercredp != nullptr &&
            (fber_peek_tag(c, &len) != LDAP_TAG_SASL_RES_CREDS ||
             fber_scanf(c, "O}", servercredp) == LBER_ERROR))
            LDAP_TRACE(LDAP_TRC_API, "ldap_parse_sasl_bind_result_direct: No credentials were "
                                     "returned from the server for the sasl_bind\n");
        // Credentials lost to a lack of memory are no answer without credentials.
        failure = ldap_ber_failure(c, LDAP_DECODING_ERROR);
        decoded = decoded && failure != LDAP_NO_MEMORY;
        ber_free(c, 0);
    }
    lber_free(matched);
    lber_free(errmsg);
    if (freeit == 1)
        release_message(res);

    int rc;
    if (!decoded) {
        rc = failure;
    } else {
        rc = code;
        if (rc != 0)
            LDAP_TRACE(LDAP_TRC_API,
                       "ldap_parse_sasl_bind_result_direct: msgrc in ldap_sasl_bind returned "
                       "non-zero value of 0x%x \n",
                       rc);
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_sasl_bind_result_direct: rc=%d\n", rc);
    return ldap_fail(ld, rc);
}

int ldap_parse_sasl_bind_result(LDAP *ld, LDAPMessage *res, struct berval **servercredp,
                                int freeit)
{
    LDAP_TRACE(LDAP_TRC_API,
               "ldap_parse_sasl_bind_result: ld(%p) res(%p)servercredp(%p) freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(res),
               static_cast<void *>(servercredp), freeit);
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    return ldap_parse_sasl_bind_result_direct(ld, res, servercredp, freeit);
}

int ldap_get_bind_controls(LDAP *ld, LDAPControl ***ctrlsp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_bind_controls\n");
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    int rc = copy_bind_controls(ld, ctrlsp);
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_bind_controls: returning rc=%d\n", rc);
    return ldap_fail(ld, rc);
}

int ldap_parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp,
                         LDAPControl ***serverctrlsp, int freeit)
{
    LDAP_TRACE(LDAP_TRC_API,
               "ldap_parse_reference: ld(%p) ref(%p) referralsp(%p) serverctrlsp(%p) freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(ref), static_cast<void *>(referralsp),
               static_cast<void *>(serverctrlsp), freeit);
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    if (referralsp != nullptr)
        *referralsp = nullptr;
    if (serverctrlsp != nullptr)
        *serverctrlsp = nullptr;
    char **refs = nullptr;
    LDAPControl **ctrls = nullptr;
    int rc = decode_reference(ref, referralsp != nullptr ? &refs : nullptr,
                              serverctrlsp != nullptr ? &ctrls : nullptr);
    if (freeit && ref != nullptr)
        release_message(ref);
    if (rc != 0) {
        ldap_value_free(refs);
        ldap_controls_free(ctrls);
    } else {
        if (referralsp != nullptr)
            *referralsp = refs;
        if (serverctrlsp != nullptr)
            *serverctrlsp = ctrls;
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_reference: returning (%d)\n", rc);
    return ldap_fail(ld, rc);
}

int ldap_parse_reference_np(LDAP *ld, LDAPMessage *ref, char ***referralsp,
                            LDAPControl ***serverctrlsp, int freeit)
{
    LDAP_TRACE(LDAP_TRC_API,
               "ldap_parse_reference_np: ld(%p) ref(%p) referralsp(%p) serverctrlsp(%p) "
               "freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(ref), static_cast<void *>(referralsp),
               static_cast<void *>(serverctrlsp), freeit);
    int rc = ldap_parse_reference(ld, ref, referralsp, serverctrlsp, freeit);
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_reference_np: returning rc=%d\n", rc);
    return rc;
}
