// Abandon: marks an operation's row so that nothing more is filed for it, drops what it has
// not yet delivered, tells the server, and does the same down the referral requests the
// operation spawned.
#include "ldap_abandon.h"

#include "ldap_controls.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_request.h"
#include "ldap_table.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_abandon";

// Encodes AbandonRequest ::= [APPLICATION 16] MessageID inside the LDAPMessage envelope:
// "{iti" id, 0x50, abandoned id, then the controls, then "}".
int encode_abandon(LDAP *ld, LDAPMessage *req, int abandoned, LDAPControl **serverctrls)
{
    BerElement *ber = ldap_alloc_fber(ld, 0);
    if (ber == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    req->lm_ber = ber;
    req->lm_msgtype = static_cast<int32_t>(LDAP_REQ_ABANDON);
    if (fber_printf(ber, "{iti", req->lm_msgid, LDAP_REQ_ABANDON, abandoned) == -1)
        return ldap_fail(ld, LDAP_ENCODING_ERROR);
    int rc = put_ctrls_into_ber(ber, serverctrls);
    if (rc != 0)
        return ldap_fail(ld, rc);
    if (fber_printf(ber, "}") == -1)
        return ldap_fail(ld, LDAP_ENCODING_ERROR);
    return 0;
}
} // namespace

int ldap_abandon(LDAP *ld, int msgid)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_abandon: ld(%p) msgid=%d\n", static_cast<void *>(ld), msgid);
    if (!ldap_ld_valid(ld))
        return -1;
    if (msgid <= 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_abandon: bad msgid\n");
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return -1;
    }
    int rc = ldap_abandon_ext(ld, msgid, nullptr, nullptr);
    LDAP_TRACE(LDAP_TRC_API, "ldap_abandon: rc=%d\n", rc);
    return rc == LDAP_SUCCESS ? 0 : -1;
}

int ldap_abandon_ext(LDAP *ld, int msgid, LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    LDAP_TRACE(LDAP_TRC_API,
               "ldap_abandon_ext ld(%p) msgid(%d) serverctrls(%p) clientctrls(%p)\n",
               static_cast<void *>(ld), msgid, static_cast<void *>(serverctrls),
               static_cast<void *>(clientctrls));
    OperationBracket op(ld);
    if (op.rc() != 0)
        return op.rc();
    int rc;
    if (msgid <= 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Bad msgid (%d)\n", msgid);
        rc = ldap_fail(ld, LDAP_PARAM_ERROR);
    } else if ((rc = ldap_check_client_controls(clientctrls)) != 0) {
        rc = ldap_fail(ld, rc);
    } else {
        LDAPControl **merged = nullptr;
        rc = ldap_merge_default_controls(ld, serverctrls, &merged);
        if (rc != 0)
            rc = ldap_fail(ld, rc);
        else
            rc = ldap_abandon_ext_direct(ld, msgid, merged);
        ldap_free_merged_controls(merged);
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_abandon_ext: returning rc=%d\n", rc);
    return rc;
}

int ldap_abandon_ext_direct(LDAP *ld, int msgid, LDAPControl **serverctrls)
{
    (void)ldap_set_lderrno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    LDAPConn *lc = ld->ld_defconn;
    if (lc == nullptr || lc->table == nullptr)
        return ldap_fail(ld, LDAP_ENCODING_ERROR);
    return abandon_table_row(ld, lc->table, msgid, serverctrls);
}

int abandon_table_row(LDAP *ld, LDAPMsgTable *table, int msgid, LDAPControl **serverctrls,
                      const LDAPDeadline &until)
{
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc());
    if (msgid < 0 || (static_cast<uint32_t>(msgid) & LDAP_MSGID_ROW_MASK) >= table->row_count) {
        LDAP_TRACE(LDAP_TRC_ERROR, "abandon_table_row: bad msgid. ld(%p) table(%p), msgid(%d)\n",
                   static_cast<void *>(ld), static_cast<void *>(table), msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    LDAPMsgRow *row = ldap_msg_table_row(table, msgid);
    if (row == nullptr || msgid == 0) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "abandon_table_row: No outstanding request for given msgid=%d\n", msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    if ((row->flags & ROW_ABANDONED) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "abandon_table_row: msgid=%d is already abandoned\n", msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    // A complete row whose referral request is still out goes on below: its child is abandoned.
    const bool server_done = (row->flags & ROW_COMPLETE) != 0;
    if (server_done && row->child == nullptr) {
        if (row->first == nullptr) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "abandon_table_row: All msgs are already returned for this msgid=%d\n",
                       msgid);
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        }
        // The server is done with it: drop the unread responses, send nothing.
        ldap_msg_table_release_msgid_direct(table, msgid);
        return ldap_fail(ld, LDAP_SUCCESS);
    }

    // From here on nothing more is filed for this id, whatever the server still sends.
    row->flags |= ROW_ABANDONED;
    guard.unlock(); // sending takes the table lock and writes on the socket
    int rc = server_done ? 0 : ldap_send_abandon_request(ld, table, msgid, serverctrls, until);
    // Whether or not the server heard the abandon, the row goes now rather than when a response
    // comes: after an abandon the server need not answer at all, and whatever it still sends
    // carries an id that names this row no more. Responses already handed out are the
    // caller's and stay valid; the undelivered ones go with the row.
    if (guard.relock() != 0)
        return ldap_fail(ld, guard.rc());
    row = ldap_msg_table_row(table, msgid);
    LDAPRowLink child = {nullptr, 0, nullptr};
    if (row != nullptr) {
        if (row->child != nullptr)
            child = *row->child;
        ldap_msg_table_release_msgid_direct(table, msgid);
        ldap_msg_table_wake_waiters(table); // its collector may wait for a response that never comes
    }
    guard.unlock();
    if (child.table != nullptr) {
        int child_rc = abandon_table_row(ld, child.table, child.row, serverctrls, until);
        if (rc == 0)
            rc = child_rc;
    }
    return rc != 0 ? rc : ldap_fail(ld, LDAP_SUCCESS);
}

int ldap_send_abandon_request(LDAP *ld, LDAPMsgTable *table, int msgid,
                              LDAPControl **serverctrls, const LDAPDeadline &until)
{
    LDAPMessage *req = ldap_msginit(table->owner);
    if (req == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int id = ldap_msg_table_get_next_msgid(table);
    if (id < 0 || (static_cast<uint32_t>(id) & LDAP_MSGID_ROW_MASK) >= table->row_count) {
        free_msg(req, 0);
        return ldap_fail(ld, ldap_msgid_failure(id));
    }
    req->lm_msgid = id;
    int rc = encode_abandon(ld, req, msgid, serverctrls);
    if (rc != 0) {
        free_msg(req, 0);
        ldap_msg_table_release_msgid(table, id);
        return rc;
    }
    int stored = 0;
    rc = ldap_msg_table_send_message(table, ld, req, &stored, until);
    // No response comes for an abandon: its id is done with either way, and a stored request
    // goes with its row.
    if (!stored)
        free_msg(req, 0);
    ldap_msg_table_release_msgid(table, id);
    return rc;
}
