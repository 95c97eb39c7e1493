// Extended operations: the ExtendedRequest in its direct, asynchronous and synchronous forms,
// the request-value builders of the directory's own operations (password-policy bind, locate
// entry, online backup, get file, resume role), backup and restore, and transactions.
#include "ldap_extended.h"

#include <cstring>

#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_message.h"
#include "ldap_ops.h"
#include "ldap_parse.h"

namespace {
constexpr ber_tag_t TAG_EXOP_REQ_OID = 0x80;
constexpr ber_tag_t TAG_EXOP_REQ_VALUE = 0x81;
constexpr int BACKUP = 1;
constexpr int RESTORE = 2;

// Encodes one request value with a fresh FBER and flattens it; null (traced with the builder's
// name in front) on any failure.
template <typename... Args>
struct berval *build_value(const char *who, const char *fmt, Args... args)
{
    BerElement *ber = fber_alloc();
    if (ber == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: fber_alloc() failed\n", who);
        return nullptr;
    }
    struct berval *bv = nullptr;
    if (fber_printf(ber, fmt, args...) == -1) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: fber_printf failed\n", who);
    } else if (fber_flatten(ber, &bv) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: fber_flatten failed\n", who);
        bv = nullptr;
    }
    fber_free(ber);
    return bv;
}

const char *or_empty(const char *s) { return s != nullptr ? s : ""; }

int backup_or_restore(LDAP *ld, int which, const char *name, int *op_result)
{
    struct berval *value = build_value(name, "{e}", which);
    char *oid = nullptr;
    struct berval *data = nullptr;
    int rc = value == nullptr ? LDAP_NO_MEMORY
                              : ldap_extended_operation_s(ld, LDAP_BACKUP_RESTORE_OID, value,
                                                          nullptr, nullptr, &oid, &data);
    ber_bvfree(value);
    lber_free(oid);
    if (rc == LDAP_NO_MEMORY || rc == LDAP_SERVER_DOWN || rc == LDAP_ENCODING_ERROR) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - %s: failed - no call to the server made.\n", name);
        ber_bvfree(data);
        return LDAP_OTHER;
    }
    if (rc == 0 && op_result != nullptr)
        rc = decode_backup_restore_result(data, op_result);
    ber_bvfree(data);
    return rc;
}

// Sends a transaction request whose value was built from `id` (or failed to be, when the
// request needs one: `needs_value`).
int send_transaction(LDAP *ld, const char *oid, const struct berval *id, struct berval *value,
                     bool needs_value, struct berval **retdata)
{
    if (needs_value && value == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "createTransIDReqVal failed. No call to the server made.\n");
        return ldap_fail(ld, id == nullptr || id->bv_val == nullptr ? LDAP_PARAM_ERROR
                                                                    : LDAP_NO_MEMORY);
    }
    char *retoid = nullptr;
    int rc = ldap_extended_operation_s(ld, oid, value, nullptr, nullptr, &retoid, retdata);
    lber_free(retoid);
    ber_bvfree(value);
    return rc;
}
} // namespace

// ExtendedRequest ::= [APPLICATION 23] SEQUENCE { requestName [0] LDAPOID,
//     requestValue [1] OCTET STRING OPTIONAL }
int ldap_extended_operation_direct(LDAP *ld, const char *reqoid, const struct berval *reqdata,
                                   LDAPControl **serverctrls, LDAPConn *lc, int *msgidp)
{
    *msgidp = -1;
    OpRequest op;
    int rc = ldap_op_begin(ld, lc, "ldap_extended_operation_direct: NULL server connection\n", &op);
    if (rc != 0)
        return rc;
    if (fber_printf(op.ber, "{it{ts", op.msgid, LDAP_REQ_EXTENDED, TAG_EXOP_REQ_OID, reqoid) == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    int put = reqdata != nullptr
                  ? fber_printf(op.ber, "to}", TAG_EXOP_REQ_VALUE, reqdata->bv_val,
                                static_cast<int>(reqdata->bv_len))
                  : fber_printf(op.ber, "}");
    if (put == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    rc = ldap_op_finish(&op, LDAP_REQ_EXTENDED, serverctrls, {}, msgidp);
    return rc != 0 ? rc : ldap_fail(ld, LDAP_SUCCESS);
}

int ldap_extended_operation(LDAP *ld, const char *reqoid, const struct berval *reqdata,
                            LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    if (ld == nullptr || reqoid == nullptr || msgidp == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_extended_operation: Bad parameters passed ld(%x) reqoid(%x) msgidp(%x)\n",
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(ld)),
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(reqoid)),
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(msgidp)));
        return ld != nullptr && ldap_ld_valid(ld) ? ldap_fail(ld, LDAP_PARAM_ERROR)
                                                  : LDAP_PARAM_ERROR;
    }
    auto send = [&](LDAPControl **sctrls, int *idp) {
        return ldap_extended_operation_direct(ld, reqoid, reqdata, sctrls, nullptr, idp);
    };
    return ldap_op_ext(ld, "INVALID: ldap_extended_operation invalid ld:%p\n", true, serverctrls,
                       clientctrls, msgidp, send);
}

int ldap_extended_operation_s(LDAP *ld, const char *reqoid, const struct berval *reqdata,
                              LDAPControl **serverctrls, LDAPControl **clientctrls,
                              char **retoidp, struct berval **retdatap)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_extended_operations_s\n");
    if (retoidp != nullptr)
        *retoidp = nullptr;
    if (retdatap != nullptr)
        *retdatap = nullptr;
    auto start = [&](const LDAPDeadline &, int *idp) {
        return ldap_extended_operation(ld, reqoid, reqdata, serverctrls, clientctrls, idp);
    };
    static constexpr OpSyncTraces traces = {"INVALID: ldap_extended_operation_s invalid ld:%p\n",
                                            nullptr, nullptr};
    LDAPMessage *res = nullptr;
    int rc = ldap_op_ext_s(ld, traces, nullptr, start, &res);
    if (res == nullptr)
        return rc;
    // A failed operation's error (with the server's text) stays the handle's error.
    if (rc != 0 || (retoidp == nullptr && retdatap == nullptr)) {
        ldap_msgfree(res);
        return rc;
    }
    // A server that answers with another kind of response misled us; the parser would refuse
    // the message without taking it, so it is released here.
    if (res->lm_msgtype != LDAP_RES_EXTENDED) {
        ldap_msgfree(res);
        return ldap_fail(ld, LDAP_DECODING_ERROR);
    }
    return ldap_parse_extended_result(ld, res, retoidp, retdatap, 1);
}

struct berval *ldap_create_password_policy_bind_init_request(const char *bind_dn)
{
    if (bind_dn == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_create_password_policy_bind_init_request: bind_dn cannot be null\n");
        return nullptr;
    }
    return build_value("ldap_create_password_policy_bind_init_request", "{s}", bind_dn);
}

struct berval *ldap_create_password_policy_bind_finalize_request(const char *bind_dn, int status)
{
    if (bind_dn == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_create_password_policy_bind_finalize_request: bind_dn cannot be null\n");
        return nullptr;
    }
    // The trace shows the format as "{si}", although the status goes out enumerated.
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_password_policy_bind_finalize_request: fmt {si}\n");
    return build_value("ldap_create_password_policy_bind_finalize_request", "{se}", bind_dn,
                       status);
}

struct berval *ldap_create_locate_entry_request(const char *dn)
{
    return build_value("ldap_create_locate_entry_request", "{s}", or_empty(dn));
}

struct berval *ldap_create_online_backup_request(const char *path)
{
    if (path == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_create_online_backup_request: no directory path given\n");
        return nullptr;
    }
    return build_value("ldap_create_online_backup_request", "{s}", path);
}

struct berval *ldap_create_get_file_request(int kind, const char *name)
{
    return build_value("ldap_create_get_file_request", "{es}", kind, or_empty(name));
}

struct berval *ldap_create_resume_role_request(int role, const char *first, const char *second)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_resume_role_request: fmt {iss}\n");
    return build_value("ldap_create_resume_role_request", "{ess}", role, or_empty(first),
                       or_empty(second));
}

int ldap_backup(LDAP *ld, int *op_result)
{
    return backup_or_restore(ld, BACKUP, "ldap_backup", op_result);
}

int ldap_restore(LDAP *ld, int *op_result)
{
    return backup_or_restore(ld, RESTORE, "ldap_restore", op_result);
}

// BackupRestoreResult ::= SEQUENCE { resultCode INTEGER, ... }
int decode_backup_restore_result(const struct berval *value, int *op_result)
{
    if (value == nullptr || value->bv_val == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - decode_backup_restore_result(): result is NULL\n");
        return LDAP_DECODING_ERROR;
    }
    BerElement *ber = fber_init(value);
    if (ber == nullptr)
        return LDAP_NO_MEMORY;
    int code = 0;
    int rc = fber_scanf(ber, "{i", &code) == LBER_ERROR ? LDAP_DECODING_ERROR : 0;
    fber_free(ber);
    if (rc == 0) {
        LDAP_TRACE(LDAP_TRC_API, "decode_backup_restore_result(): read operation result code %d\n",
                   code);
        *op_result = code;
    }
    return rc;
}

struct berval *createTransIDReqVal(const struct berval *tran_id, int flag)
{
    if (tran_id == nullptr || tran_id->bv_val == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "createTransIDReqVal: tran_id is null.\n");
        return nullptr;
    }
    const size_t lead = flag >= 0 ? 1 : 0;
    auto *bv = static_cast<struct berval *>(lber_calloc(1, sizeof(struct berval)));
    char *val = bv != nullptr ? static_cast<char *>(lber_malloc(tran_id->bv_len + lead + 1))
                              : nullptr;
    if (val == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "createTransIDReqVal: malloc of berval failed.\n");
        lber_free(bv);
        return nullptr;
    }
    if (lead != 0)
        val[0] = flag != 0 ? 1 : 0;
    memcpy(val + lead, tran_id->bv_val, tran_id->bv_len);
    val[tran_id->bv_len + lead] = '\0';
    bv->bv_val = val;
    bv->bv_len = tran_id->bv_len + lead;
    return bv;
}

int ldap_start_transaction_s(LDAP *ld, struct berval **tran_id)
{
    struct berval *data = nullptr;
    int rc = send_transaction(ld, LDAP_TRAN_START_OID, nullptr, nullptr, false, &data);
    if (rc == 0 && tran_id != nullptr)
        rc = ldap_get_tran_id(data, tran_id);
    ber_bvfree(data);
    return rc;
}

int ldap_end_transaction_s(LDAP *ld, const struct berval *tran_id, int commit)
{
    return send_transaction(ld, LDAP_TRAN_END_OID, tran_id,
                            createTransIDReqVal(tran_id, commit != 0), true, nullptr);
}

int ldap_transaction_id_request_s(LDAP *ld, const struct berval *tran_id)
{
    return send_transaction(ld, LDAP_TRAN_ID_OID, tran_id, createTransIDReqVal(tran_id, -1),
                            true, nullptr);
}

int ldap_get_tran_id(const struct berval *response_value, struct berval **tran_id)
{
    if (tran_id == nullptr || response_value == nullptr || response_value->bv_val == nullptr ||
        response_value->bv_len == 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_tran_id: invalid tran_id_bv passed in");
        return LDAP_PARAM_ERROR;
    }
    *tran_id = createTransIDReqVal(response_value, -1);
    return *tran_id != nullptr ? 0 : LDAP_NO_MEMORY;
}
