// Transactions: a transaction groups updates that the server applies together or not at all.
// The start and end extended operations frame it, and each update inside it carries the
// transaction's identifier in the transaction control.
#include "ldap_ctrl.h"

#include <initializer_list>

#include "ldap_error.h"
#include "ldap_extended.h"
#include "ldap_message.h"
#include "ldap_ops.h"

namespace {

constexpr ber_tag_t TAG_INTEGER = 0x02;
constexpr ber_tag_t TAG_SEQUENCE = 0x30;

// An identifier may be empty (a server that keeps one transaction per connection hands out
// an empty one), but it must be there.
bool usable_txnid(const struct berval *id)
{
    return id != nullptr && (id->bv_val != nullptr || id->bv_len == 0);
}

//   txnEndRes ::= SEQUENCE { messageID MessageID OPTIONAL,
//       updatesControls SEQUENCE OF updateControls SEQUENCE { messageID MessageID,
//                                                              controls Controls } OPTIONAL }
// The update controls are stepped over: the library has no use for them yet.
int read_txn_end_response(BerElement *r, int *failed_msgid)
{
    ber_len_t len;
    if (fber_skip_tag(r, &len) != TAG_SEQUENCE)
        return LDAP_DECODING_ERROR;
    if (!ldap_control_value_done(r) && fber_peek_tag(r, &len) == TAG_INTEGER) {
        int64_t id = 0;
        if (fber_get_int(r, &id) == LBER_ERROR || id < 0 || id > 0x7fffffff)
            return LDAP_DECODING_ERROR;
        *failed_msgid = static_cast<int>(id);
    }
    if (!ldap_control_value_done(r) &&
        (fber_peek_tag(r, &len) != TAG_SEQUENCE || fber_skip_element(r) != 0))
        return LDAP_DECODING_ERROR;
    return ldap_control_value_done(r) ? 0 : LDAP_DECODING_ERROR;
}

// ExtendedResponse ::= [APPLICATION 24] SEQUENCE { COMPONENTS OF LDAPResult,
//     responseName [10] LDAPOID OPTIONAL, responseValue [11] OCTET STRING OPTIONAL }
// The value whatever the result code (a refused end names the refused update in it); null
// when there is none or it cannot be read.
struct berval *response_value(LDAPMessage *res)
{
    BerElement *c = ber_dup(res->lm_ber);
    if (c == nullptr)
        return nullptr;
    struct berval *value = nullptr;
    ber_len_t len;
    int code = 0;
    bool ok = fber_scanf(c, "{ixx", &code) != LBER_ERROR;
    for (ber_tag_t skip : {LDAP_TAG_REFERRAL, LDAP_TAG_EXOP_RES_OID})
        ok = ok && (fber_peek_tag(c, &len) != skip || fber_skip_element(c) == 0);
    if (ok && fber_peek_tag(c, &len) == LDAP_TAG_EXOP_RES_VALUE &&
        fber_get_stringal(c, &value) == LBER_ERROR)
        value = nullptr;
    ber_free(c, 0);
    return value;
}

// Waits for one transaction request's response: its code, and its value when asked for.
int txn_exchange(LDAP *ld, const char *oid, const struct berval *value, LDAPControl **sctrls,
                 LDAPControl **cctrls, struct berval **retvalue)
{
    auto start = [&](const LDAPDeadline &, int *idp) {
        return ldap_extended_operation(ld, oid, value, sctrls, cctrls, idp);
    };
    static constexpr OpSyncTraces traces = {"INVALID: ldap_txn_s invalid ld:%p\n", nullptr,
                                            nullptr};
    LDAPMessage *res = nullptr;
    int rc = ldap_op_ext_s(ld, traces, nullptr, start, &res);
    if (res != nullptr && retvalue != nullptr)
        *retvalue = response_value(res);
    ldap_msgfree(res);
    return rc;
}

} // namespace

int ldap_txn_start(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_txn_start\n");
    return ldap_extended_operation(ld, LDAP_EXOP_TXN_START, nullptr, sctrls, cctrls, msgidp);
}

// The start response's value is the identifier itself.
int ldap_txn_start_s(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls,
                     struct berval **txnidp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_txn_start_s\n");
    if (txnidp == nullptr)
        return ld != nullptr ? ldap_fail(ld, LDAP_PARAM_ERROR) : LDAP_PARAM_ERROR;
    *txnidp = nullptr;
    int rc = txn_exchange(ld, LDAP_EXOP_TXN_START, nullptr, sctrls, cctrls, txnidp);
    if (rc == 0 && *txnidp == nullptr)
        rc = ldap_fail(ld, LDAP_DECODING_ERROR); // the server named no transaction
    if (rc != 0) {
        ber_bvfree(*txnidp);
        *txnidp = nullptr;
    }
    return rc;
}

int ldap_txn_end(LDAP *ld, int commit, const struct berval *txnid, LDAPControl **sctrls,
                 LDAPControl **cctrls, int *msgidp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_txn_end: commit(%d)\n", commit);
    struct berval *value = nullptr;
    int rc = ldap_txn_end_request_value(ld, commit, txnid, &value);
    if (rc == 0)
        rc = ldap_extended_operation(ld, LDAP_EXOP_TXN_END, value, sctrls, cctrls, msgidp);
    ber_bvfree(value);
    return rc;
}

int ldap_txn_end_s(LDAP *ld, int commit, const struct berval *txnid, LDAPControl **sctrls,
                   LDAPControl **cctrls, int *failed_msgidp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_txn_end_s: commit(%d)\n", commit);
    if (failed_msgidp != nullptr)
        *failed_msgidp = -1;
    struct berval *value = nullptr;
    int rc = ldap_txn_end_request_value(ld, commit, txnid, &value);
    struct berval *answer = nullptr;
    if (rc == 0)
        rc = txn_exchange(ld, LDAP_EXOP_TXN_END, value, sctrls, cctrls, &answer);
    ber_bvfree(value);
    // Read without recording: the end's own code and text stay the handle's error.
    BerElement *r = answer != nullptr && failed_msgidp != nullptr ? fber_init(answer) : nullptr;
    if (r != nullptr && read_txn_end_response(r, failed_msgidp) != 0)
        *failed_msgidp = -1;
    fber_free(r);
    ber_bvfree(answer);
    return rc;
}

//   controlValue ::= txnId (the identifier itself)
int ldap_create_txn_spec_control(LDAP *ld, const struct berval *txnid, LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_txn_spec_control\n");
    if (ctrlp == nullptr || !usable_txnid(txnid))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    // An empty identifier is still sent as a (present, empty) value.
    char none[] = "";
    struct berval id = {txnid->bv_len, txnid->bv_val != nullptr ? txnid->bv_val : none};
    return ldap_fail(ld, ldap_control_create(LDAP_CONTROL_TXN_SPEC, 1, &id, ctrlp));
}

//   txnEndReq ::= SEQUENCE { commit BOOLEAN DEFAULT TRUE, identifier OCTET STRING }
// The default is left out, as DER wants it.
int ldap_txn_end_request_value(LDAP *ld, int commit, const struct berval *txnid,
                               struct berval **valuep)
{
    if (valuep == nullptr || !usable_txnid(txnid))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *valuep = nullptr;
    BerElement *ber = der_alloc();
    if (ber == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int len = static_cast<int>(txnid->bv_len);
    const char *bytes = txnid->bv_val != nullptr ? txnid->bv_val : "";
    int written = commit != 0 ? ber_printf(ber, "{o}", bytes, len)
                              : ber_printf(ber, "{bo}", 0, bytes, len);
    int rc = written == -1 || ber_flatten(ber, valuep) != 0 ? LDAP_NO_MEMORY : 0;
    ber_free(ber, 1);
    return ldap_fail(ld, rc);
}

int ldap_parse_txn_end_response_value(LDAP *ld, const struct berval *value, int *failed_msgidp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_txn_end_response_value: value(%p)\n",
               static_cast<const void *>(value));
    if (failed_msgidp == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *failed_msgidp = -1;
    if (value == nullptr || value->bv_val == nullptr)
        return ldap_fail(ld, LDAP_DECODING_ERROR);
    BerElement *r = fber_init(value);
    if (r == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int rc = read_txn_end_response(r, failed_msgidp);
    fber_free(r);
    if (rc != 0)
        *failed_msgidp = -1;
    return ldap_fail(ld, rc);
}
