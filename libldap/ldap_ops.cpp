// The request skeleton shared by bind, search and the update operations: opening a request on
// a connection, closing and sending it, and the _ext / _ext_s layers with their argument
// checks, operation bracket, control merging, waiting and result conversion.
#include "ldap_ops.h"

#include "ldap_abandon.h"
#include "ldap_controls.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_request.h"
#include "ldap_result.h"
#include "ldap_table.h"

int ldap_op_begin(LDAP *ld, LDAPConn *lc, const char *no_conn_trace, OpRequest *op)
{
    *op = OpRequest{ld, lc != nullptr ? lc : ld->ld_defconn, nullptr, nullptr, -1};
    if (op->lc == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s", no_conn_trace);
        return ldap_fail(ld, LDAP_ENCODING_ERROR);
    }
    if (op->lc->table == nullptr)
        return ldap_fail(ld, LDAP_ENCODING_ERROR);
    op->msg = ldap_msginit(op->lc);
    if (op->msg == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    op->msgid = ldap_msg_table_get_next_msgid(op->lc->table);
    if (op->msgid < 0) {
        free_msg(op->msg, 0);
        op->msg = nullptr;
        return ldap_fail(ld, ldap_msgid_failure(op->msgid));
    }
    op->ber = ldap_alloc_fber(ld, 0);
    if (op->ber == nullptr)
        return ldap_op_abort(op, LDAP_NO_MEMORY);
    return 0;
}

int ldap_op_abort(OpRequest *op, int code)
{
    code = ldap_ber_failure(op->ber, code); // an encoder that ran out of memory says so
    if (op->ber != nullptr)
        fber_free(op->ber);
    op->ber = nullptr;
    if (op->msg != nullptr)
        free_msg(op->msg, 0);
    op->msg = nullptr;
    // The row never held the request, so releasing the id frees nothing else.
    if (op->msgid >= 0)
        ldap_msg_table_release_msgid(op->lc->table, op->msgid);
    op->msgid = -1;
    return ldap_fail(op->ld, code);
}

int ldap_op_finish(OpRequest *op, ber_tag_t msgtype, LDAPControl **sctrls,
                   const LDAPDeadline &until, int *msgidp)
{
    *msgidp = -1;
    if (sctrls != nullptr && sctrls[0] != nullptr && put_ctrls_into_ber(op->ber, sctrls) != 0)
        return ldap_op_abort(op, LDAP_ENCODING_ERROR);
    if (fber_printf(op->ber, "}") == -1)
        return ldap_op_abort(op, LDAP_ENCODING_ERROR);
    op->msg->lm_msgid = op->msgid;
    op->msg->lm_msgtype = static_cast<int32_t>(msgtype);
    op->msg->lm_ber = op->ber;
    op->ber = nullptr;
    LDAPMessage *msg = op->msg;
    op->msg = nullptr;
    // From here the engine owns the record and the id: it releases both when sending fails.
    return ldap_send_request(op->ld, op->lc, msg, until, msgidp);
}

int ldap_op_ext(LDAP *ld, const char *invalid_trace, bool args_ok, LDAPControl **sctrls,
                LDAPControl **cctrls, int *msgidp, OpSend send)
{
    if (msgidp != nullptr)
        *msgidp = -1;
    if (!ldap_ld_valid(ld)) {
        LDAP_TRACE(LDAP_TRC_ERROR, invalid_trace, static_cast<void *>(ld));
        return LDAP_PARAM_ERROR;
    }
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return bracket.rc();
    if (!args_ok || msgidp == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // clearing may fail; the op goes on
    int rc = ldap_check_client_controls(cctrls);
    if (rc != 0)
        return ldap_fail(ld, rc);
    LDAPControl **merged = nullptr;
    rc = ldap_merge_default_controls(ld, sctrls, &merged);
    if (rc != 0)
        return ldap_fail(ld, rc);
    rc = send(merged, msgidp);
    ldap_free_merged_controls(merged);
    return rc;
}

// How long the abandon of a timed-out operation may take to go out, beyond the caller's own
// time-out: a small request on a healthy connection needs far less.
constexpr long ABANDON_GRACE_USEC = 50000;

// A synchronous operation whose wait timed out is abandoned at once: the server stops working
// for nobody, and the id comes back now rather than when a result that may never come arrives.
// The caller still sees the time-out.
static void abandon_timed_out(LDAP *ld, int msgid)
{
    LDAPMsgTable *table = ld->ld_defconn != nullptr ? ld->ld_defconn->table : nullptr;
    if (table != nullptr) {
        struct timeval grace = {0, ABANDON_GRACE_USEC};
        (void)abandon_table_row(ld, table, msgid, nullptr, ldap_deadline_after(&grace));
    }
    (void)ldap_set_lderrno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
}

// The code a failed wait left behind; a failure that recorded nothing is a local error.
static int recorded_failure(LDAP *ld)
{
    int rc = ldap_get_errno_direct(ld);
    return rc != 0 ? rc : ldap_fail(ld, LDAP_LOCAL_ERROR);
}

int ldap_op_ext_s(LDAP *ld, const OpSyncTraces &traces, struct timeval *timeout, OpStart start,
                  LDAPMessage **res)
{
    if (res != nullptr)
        *res = nullptr;
    if (!ldap_ld_valid(ld)) {
        if (traces.invalid != nullptr)
            LDAP_TRACE(LDAP_TRC_ERROR, traces.invalid, static_cast<void *>(ld));
        return LDAP_PARAM_ERROR;
    }
    // Held across the wait so that an unbind cannot free the handle under it.
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return bracket.rc();
    bool limited = timeout != nullptr && (timeout->tv_sec != 0 || timeout->tv_usec != 0);
    const LDAPDeadline until = ldap_deadline_after(limited ? timeout : nullptr);
    int msgid = -1;
    int rc = start(until, &msgid);
    if (rc != 0) {
        if (traces.start_failed != nullptr)
            LDAP_TRACE(LDAP_TRC_ERROR, traces.start_failed, rc);
        return rc;
    }
    LDAPMessage *result = nullptr;
    LDAPMessage *last = nullptr;
    int type = ldap_result_until(ld, msgid, LDAP_MSG_ALL, until, &result, &last);
    if (type == 0) {
        abandon_timed_out(ld, msgid);
        return recorded_failure(ld);
    }
    if (type == -1 || result == nullptr) {
        rc = recorded_failure(ld);
        // Nobody will ask for this id again: its row, if the failure left one, goes now.
        if (ld->ld_defconn != nullptr)
            ldap_msg_table_release_msgid(ld->ld_defconn->table, msgid);
        if (traces.result_failed != nullptr)
            LDAP_TRACE(LDAP_TRC_ERROR, traces.result_failed, rc);
        return rc;
    }
    if (res == nullptr)
        return ldap_result2error_at(ld, result, last, 1);
    *res = result;
    return ldap_result2error_at(ld, result, last, 0);
}
