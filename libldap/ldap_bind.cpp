// Simple and SASL binds, asynchronous and synchronous, and the bind parameters a handle keeps
// (under its mutex) so that referral chasing can bind again elsewhere. Passwords and
// credentials never reach a trace line.
#include "ldap_bind.h"

#include <cstring>
#include <strings.h>

#include "ldap_controls.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_ops.h"
#include "ldap_options.h"
#include "ldap_parse.h"
#include "ldap_result.h"

namespace {

constexpr const char *MODULE = "libldap/ldap_bind";
constexpr ber_tag_t AUTH_SIMPLE_TAG = 0x80;
constexpr ber_tag_t AUTH_SASL_TAG = 0xa3;
constexpr const char *MECH_EXTERNAL = "EXTERNAL";
// Plug-in answers that mean "bind without me": none configured, or it declined.
constexpr int NO_PLUGIN = LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
constexpr int PLUGIN_DECLINED = LDAP_PLUGIN_CONF_NOT_OPENED;

const char *or_null(const char *s) { return s != nullptr ? s : "(null)"; }
unsigned hex_ptr(const void *p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

bool is_external(const char *mechanism) { return strcasecmp(mechanism, MECH_EXTERNAL) == 0; }

// BindRequest ::= [APPLICATION 0] SEQUENCE { version INTEGER, name LDAPDN,
//     authentication CHOICE { simple [0] OCTET STRING, sasl [3] SaslCredentials } }
// SaslCredentials ::= SEQUENCE { mechanism LDAPString, credentials OCTET STRING OPTIONAL }
// `mechanism` null is a simple bind with `cred` as the password (absent: empty).
int send_bind_request(LDAP *ld, LDAPConn *lc, const char *no_conn, const char *dn,
                      const char *mechanism, const struct berval *cred,
                      LDAPControl **serverctrls, int *msgidp)
{
    *msgidp = -1;
    OpRequest op;
    int rc = ldap_op_begin(ld, lc, no_conn, &op);
    if (rc != 0)
        return rc;
    int version = LDAP_VERSION3;
    rc = ldap_get_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    if (rc != 0)
        return ldap_op_abort(&op, rc);
    bool has_cred = cred != nullptr && cred->bv_val != nullptr;
    const char *bytes = has_cred ? cred->bv_val : "";
    int len = has_cred ? static_cast<int>(cred->bv_len) : 0;
    const char *name = dn != nullptr ? dn : "";
    if (mechanism == nullptr)
        rc = fber_printf(op.ber, "{it{isto}", op.msgid, LDAP_REQ_BIND, version, name,
                         AUTH_SIMPLE_TAG, bytes, len);
    else if (fber_printf(op.ber, "{it{ist{s", op.msgid, LDAP_REQ_BIND, version, name,
                         AUTH_SASL_TAG, mechanism) == -1 ||
             (has_cred && fber_printf(op.ber, "o", bytes, len) == -1))
        rc = -1;
    else
        rc = fber_printf(op.ber, "}}");
    if (rc == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    return ldap_op_finish(&op, LDAP_REQ_BIND, serverctrls, {}, msgidp);
}

// Frees what the handle kept of its last bind; ld_mutex held.
void clear_bind_params(LDAP *ld)
{
    lber_free(ld->ld_bind_mech);
    lber_free(ld->ld_bind_dn);
    lber_free(ld->ld_bind_cred.bv_val);
    ldap_controls_free(ld->ld_bind_sctrls);
    ldap_controls_free(ld->ld_bind_cctrls);
    ld->ld_bind_mech = nullptr;
    ld->ld_bind_dn = nullptr;
    ld->ld_bind_cred = {0, nullptr};
    ld->ld_bind_sctrls = nullptr;
    ld->ld_bind_cctrls = nullptr;
}

// Keeps a bind's parameters in the handle for rebinding on referral servers. A simple bind
// keeps its method and DN only: its password is not kept. SASL credentials are kept as a
// terminated string (a zero byte inside cuts them). 0, 90 or 129, recorded.
int record_bind_params(LDAP *ld, int method, const char *dn, const char *mechanism,
                       const struct berval *cred, LDAPControl **sctrls, LDAPControl **cctrls)
{
    char *dn_copy = dn != nullptr ? lber_strdup(dn) : nullptr;
    char *mech_copy = mechanism != nullptr ? lber_strdup(mechanism) : nullptr;
    char *cred_copy = nullptr;
    if (cred != nullptr && cred->bv_val != nullptr)
        cred_copy = lber_strndup(cred->bv_val, cred->bv_len);
    LDAPControl **sc = nullptr;
    LDAPControl **cc = nullptr;
    bool copied = (dn == nullptr || dn_copy != nullptr) &&
                  (mechanism == nullptr || mech_copy != nullptr) &&
                  (cred == nullptr || cred->bv_val == nullptr || cred_copy != nullptr) &&
                  ldap_copy_controls(&sc, sctrls) == 0 && ldap_copy_controls(&cc, cctrls) == 0;
    int rc = copied ? 0 : LDAP_NO_MEMORY;
    if (copied) {
        LDAP_LOCK(guard, &ld->ld_mutex, MODULE);
        rc = guard.rc();
        if (rc == 0) {
            clear_bind_params(ld);
            ld->ld_authmethod = method;
            ld->ld_bind_dn = dn_copy;
            ld->ld_bind_mech = mech_copy;
            ld->ld_bind_cred = {cred_copy != nullptr ? strlen(cred_copy) : 0, cred_copy};
            ld->ld_bind_sctrls = sc;
            ld->ld_bind_cctrls = cc;
            return 0;
        }
    }
    lber_free(dn_copy);
    lber_free(mech_copy);
    lber_free(cred_copy);
    ldap_controls_free(sc);
    ldap_controls_free(cc);
    return ldap_fail(ld, rc);
}

// Authentication methods as kept in the handle.
constexpr int KEPT_SIMPLE = LDAP_AUTH_SIMPLE;
constexpr int KEPT_SASL = LDAP_AUTH_KEPT_SASL;

// Keeps the response controls of a bind on its connection, where ldap_get_bind_controls finds
// them (the password-policy controls among them).
void keep_bind_controls(LDAP *ld, LDAPConn *lc, LDAPMessage *res)
{
    int code = 0;
    LDAPControl **ctrls = nullptr;
    int rc = ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 0);
    if (rc != 0) {
        LDAP_TRACE(LDAP_TRC_WARN,
                   "ldap_sasl_bind_s_int: couldn't parse result for controls. rc = %d\n", rc);
        return;
    }
    LDAP_LOCK(guard, &lc->conn_mutex, MODULE);
    if (guard.rc() != 0) {
        ldap_controls_free(ctrls);
        return;
    }
    ldap_controls_free(lc->bind_ctrls);
    lc->bind_ctrls = ctrls;
}

// Waits (within `until`) for the bind response of `msgid` sent on `lc` (null: the default
// connection) and returns its result code, recorded with the server's message; with
// `servercredp` the server's SASL credentials are handed out.
int wait_bind_result(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until, int msgid,
                     struct berval **servercredp)
{
    LDAPMessage *res = nullptr;
    int type = lc == nullptr ? ldap_result_until(ld, msgid, LDAP_MSG_ALL, until, &res)
                             : ldap_get_result(ld, msgid, LDAP_MSG_ALL, until, &res, lc->table);
    if (type <= 0 || res == nullptr) {
        int rc = ldap_get_errno_direct(ld);
        return rc != 0 ? rc : ldap_fail(ld, type == 0 ? LDAP_TIMEOUT : LDAP_LOCAL_ERROR);
    }
    if (LDAPConn *kept = lc != nullptr ? lc : ld->ld_defconn)
        keep_bind_controls(ld, kept, res);
    // The credentials first; then the code, recorded with the server's text, which a SASL
    // exchange needs to report why it failed.
    if (servercredp != nullptr) {
        int rc = ldap_parse_sasl_bind_result_direct(ld, res, servercredp, 0);
        if (rc == LDAP_NO_MEMORY || rc == LDAP_DECODING_ERROR) {
            ldap_msgfree(res);
            return rc;
        }
    }
    return ldap_result2error(ld, res, 1);
}

// A simple bind whose password is the bytes of `cred` (absent: empty).
int send_simple_bind(LDAP *ld, const char *dn, const struct berval *cred,
                     LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    int rc = send_bind_request(ld, lc, "ldap_simple_bind_direct: found NULL server\n", dn, nullptr,
                               cred, serverctrls, msgidp);
    LDAP_TRACE(LDAP_TRC_API, "ldap_simple_bind_direct: returning rc=%d, error=%s\n", rc,
               ldap_err2string(rc));
    return rc;
}

} // namespace

int ldap_simple_bind_direct(LDAP *ld, const char *dn, const char *passwd,
                            LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    struct berval pw = {passwd != nullptr ? strlen(passwd) : 0, const_cast<char *>(passwd)};
    return send_simple_bind(ld, dn, &pw, serverctrls, msgidp, lc);
}

int ldap_sasl_bind_encode_and_send(LDAP *ld, const char *dn, const char *mechanism,
                                   const struct berval *cred, LDAPControl **serverctrls,
                                   int *msgidp, LDAPConn *lc)
{
    return send_bind_request(ld, lc, "ldap_sasl_bind_encode_and_send: NULL server connection\n",
                             dn, mechanism, cred, serverctrls, msgidp);
}

int ldap_sasl_bind_direct(LDAP *ld, const char *dn, const char *mechanism,
                          const struct berval *cred, LDAPControl **serverctrls, int *msgidp,
                          LDAPConn *lc)
{
    *msgidp = -1;
    int flag = 0;
    int rc = ldap_get_option_direct(ld, LDAP_OPT_BIND_FLAG, &flag);
    if (rc != 0)
        return rc;
    if (mechanism == nullptr || *mechanism == '\0')
        return send_simple_bind(ld, dn, cred, serverctrls, msgidp, lc);
    if (!is_external(mechanism))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    if (cred != nullptr && cred->bv_len != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_sasl_bind_direct: credentials given for external bind\n");
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    return ldap_sasl_bind_encode_and_send(ld, dn, MECH_EXTERNAL, nullptr, serverctrls, msgidp, lc);
}

int ldap_sasl_bind_step(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until, const char *dn,
                        const char *mechanism, const struct berval *cred,
                        LDAPControl **serverctrls, struct berval **servercredp, char **errmsg)
{
    *errmsg = nullptr;
    int msgid = -1;
    int rc = ldap_sasl_bind_encode_and_send(ld, dn, mechanism, cred, serverctrls, &msgid, lc);
    if (rc == 0)
        rc = wait_bind_result(ld, lc, until, msgid, servercredp);
    int code = 0, ext = 0;
    (void)ldap_read_error_record(ld, &code, &ext, nullptr, errmsg); // no text is fine
    return rc;
}

namespace {

// A synchronous EXTERNAL bind on `lc` (null: the default connection). A server that wants the
// (empty) EXTERNAL response answers "in progress" to a request without credentials: it gets
// the empty response, and its answer to that is the result.
int external_bind_s(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until,
                    LDAPControl **serverctrls, struct berval **servercredp)
{
    int msgid = -1;
    int rc = ldap_sasl_bind_encode_and_send(ld, nullptr, MECH_EXTERNAL, nullptr, serverctrls,
                                            &msgid, lc);
    if (rc == 0)
        rc = wait_bind_result(ld, lc, until, msgid, nullptr);
    if (rc != LDAP_SASL_BIND_IN_PROGRESS)
        return rc;
    struct berval empty = {0, const_cast<char *>("")};
    rc = ldap_sasl_bind_encode_and_send(ld, nullptr, MECH_EXTERNAL, &empty, serverctrls, &msgid,
                                        lc);
    return rc != 0 ? rc : wait_bind_result(ld, lc, until, msgid, servercredp);
}

// A synchronous bind with any other mechanism on `lc` (null: the default connection): carried
// out by the mechanism's plug-in when one serves it, else sent as one plain SASL request.
int plugin_or_plain_bind_s(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until, const char *dn,
                           const char *mechanism, const struct berval *cred,
                           LDAPControl **serverctrls, LDAPControl **clientctrls,
                           struct berval **servercredp, int flag)
{
    int rc = ldap_sasl_bind_call_plugin(ld, dn, mechanism, cred, serverctrls, clientctrls,
                                        servercredp, flag, 0, nullptr, lc, until);
    if (rc != NO_PLUGIN && rc != PLUGIN_DECLINED)
        return rc; // the plug-in's own answer, recorded by the call
    LDAP_TRACE(LDAP_TRC_API, "ldap_sasl_bind_int: ldap_sasl_bind_call_plugin() returns rc = %d\n",
               rc);
    LDAP_TRACE(LDAP_TRC_API, "ldap_sasl_bind_int: Attempting to bind with "
                             "ldap_sasl_bind_s_direct() instead\n");
    int msgid = -1;
    rc = ldap_sasl_bind_encode_and_send(ld, dn, mechanism, cred, serverctrls, &msgid, lc);
    return rc != 0 ? rc : wait_bind_result(ld, lc, until, msgid, servercredp);
}

} // namespace

int ldap_sasl_bind_int(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                       LDAPControl **serverctrls, LDAPControl **clientctrls,
                       struct berval **servercredp, int async, int *msgidp)
{
    if (async && msgidp == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    if (msgidp != nullptr)
        *msgidp = -1;
    int flag = 0;
    int rc = ldap_get_option_direct(ld, LDAP_OPT_BIND_FLAG, &flag);
    if (rc != 0)
        return rc;
    int msgid = -1;
    if (mechanism == nullptr || *mechanism == '\0') {
        rc = record_bind_params(ld, KEPT_SIMPLE, dn, nullptr, nullptr, serverctrls, clientctrls);
        if (rc == 0)
            rc = ldap_sasl_bind_direct(ld, dn, "", cred, serverctrls, &msgid, nullptr);
    } else {
        bool external = is_external(mechanism);
        if (external && ((dn != nullptr && *dn != '\0') || (cred != nullptr && cred->bv_len != 0)))
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        if (external)
            rc = record_bind_params(ld, KEPT_SASL, nullptr, MECH_EXTERNAL, nullptr, serverctrls,
                                    clientctrls);
        else
            rc = record_bind_params(ld, KEPT_SASL, dn, mechanism, cred, serverctrls, clientctrls);
        if (rc == 0 && !async)
            return external ? external_bind_s(ld, nullptr, {}, serverctrls, servercredp)
                            : plugin_or_plain_bind_s(ld, nullptr, {}, dn, mechanism, cred,
                                                     serverctrls, clientctrls, servercredp, flag);
        if (rc == 0) // an asynchronous bind never goes through a plug-in
            rc = ldap_sasl_bind_encode_and_send(ld, external ? nullptr : dn,
                                                external ? MECH_EXTERNAL : mechanism,
                                                external ? nullptr : cred, serverctrls, &msgid,
                                                nullptr);
    }
    if (rc != 0)
        return rc;
    if (async) {
        *msgidp = msgid;
        return 0;
    }
    return wait_bind_result(ld, nullptr, {}, msgid, servercredp);
}

int ldap_sasl_rebind_s(LDAP *ld, LDAPConn *lc, const char *dn, const char *mechanism,
                       const struct berval *cred, LDAPControl **serverctrls,
                       LDAPControl **clientctrls, const LDAPDeadline &until)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_sasl_rebind_s: mechanism(%s) lc(%p)\n", mechanism,
               static_cast<void *>(lc));
    if (is_external(mechanism))
        return external_bind_s(ld, lc, until, nullptr, nullptr);
    int flag = 0;
    int rc = ldap_get_option_direct(ld, LDAP_OPT_BIND_FLAG, &flag);
    if (rc != 0)
        return rc;
    return plugin_or_plain_bind_s(ld, lc, until, dn, mechanism, cred, serverctrls, clientctrls,
                                  nullptr, flag);
}

int ldap_sasl_bind_s_direct(LDAP *ld, const char *dn, const char *mechanism,
                            const struct berval *cred, LDAPControl **serverctrls,
                            struct berval **servercredp)
{
    int msgid = -1;
    int rc = ldap_sasl_bind_encode_and_send(ld, dn, mechanism, cred, serverctrls, &msgid, nullptr);
    return rc != 0 ? rc : wait_bind_result(ld, nullptr, {}, msgid, servercredp);
}

/* ---- public forms ---- */

// The public SASL forms: bracket, default controls merged, then the shared inner step.
static int sasl_bind_public(LDAP *ld, const char *dn, const char *mechanism,
                            const struct berval *cred, LDAPControl **serverctrls,
                            LDAPControl **clientctrls, struct berval **servercredp, int async,
                            int *msgidp)
{
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return LDAP_PARAM_ERROR;
    if (async && msgidp == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_sasl_bind: bad parameters ld(%x) msgidp(%x)\n",
                   hex_ptr(ld), hex_ptr(msgidp));
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // clearing may fail; the op goes on
    LDAPControl **merged = nullptr;
    int rc = ldap_merge_default_controls(ld, serverctrls, &merged);
    if (rc != 0)
        return ldap_fail(ld, rc);
    rc = ldap_sasl_bind_int(ld, dn, mechanism, cred, merged, clientctrls, servercredp, async,
                            msgidp);
    ldap_free_merged_controls(merged);
    return rc;
}

int ldap_sasl_bind(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                   LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    return sasl_bind_public(ld, dn, mechanism, cred, serverctrls, clientctrls, nullptr, 1, msgidp);
}

int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                     LDAPControl **serverctrls, LDAPControl **clientctrls,
                     struct berval **servercredp)
{
    if (servercredp != nullptr)
        *servercredp = nullptr;
    return sasl_bind_public(ld, dn, mechanism, cred, serverctrls, clientctrls, servercredp, 0,
                            nullptr);
}

// The simple forms: async returns the message id (-1 on failure), sync the result code.
static int simple_bind_public(LDAP *ld, const char *dn, const char *passwd, bool async)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_simple_bind: entering with ld(%x) dn(%s) pw(***)\n",
               hex_ptr(ld), or_null(dn));
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return async ? -1 : bracket.rc();
    (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // clearing may fail; the op goes on
    int msgid = -1;
    int rc = record_bind_params(ld, KEPT_SIMPLE, dn, nullptr, nullptr, nullptr, nullptr);
    if (rc == 0)
        rc = ldap_simple_bind_direct(ld, dn, passwd, nullptr, &msgid, nullptr);
    if (async) {
        msgid = rc == 0 ? msgid : -1;
        LDAP_TRACE(LDAP_TRC_API, "ldap_simple_bind: returning msgid=%d\n", msgid);
        return msgid;
    }
    return rc != 0 ? rc : wait_bind_result(ld, nullptr, {}, msgid, nullptr);
}

int ldap_simple_bind(LDAP *ld, const char *dn, const char *passwd)
{
    return simple_bind_public(ld, dn, passwd, true);
}

int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd)
{
    return simple_bind_public(ld, dn, passwd, false);
}

// Only simple authentication goes through the old interface; anything else is 86.
static int refuse_method(LDAP *ld, int method)
{
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return bracket.rc();
    LDAP_TRACE(LDAP_TRC_ERROR, "ldap_bind: unknown authentication method %d\n", method);
    return ldap_fail(ld, LDAP_AUTH_UNKNOWN);
}

int ldap_bind(LDAP *ld, const char *dn, const char *cred, int method)
{
    if (method != LDAP_AUTH_SIMPLE) {
        (void)refuse_method(ld, method); // the old interface answers -1; the code is recorded
        return -1;
    }
    return ldap_simple_bind(ld, dn, cred);
}

int ldap_bind_s(LDAP *ld, const char *dn, const char *cred, int method)
{
    if (method != LDAP_AUTH_SIMPLE)
        return refuse_method(ld, method);
    return ldap_simple_bind_s(ld, dn, cred);
}
