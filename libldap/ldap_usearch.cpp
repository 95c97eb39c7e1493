// URL search: runs the search an LDAP URL describes. On the default connection's server it is
// a plain search; on another server the request goes there and a placeholder row of the
// default table stands for it as the parent of a chased referral, so that the caller waits on
// a default-table id and the other server's responses come through referral chasing.
#include "ldap_usearch.h"

#include "ldap_abandon.h"
#include "ldap_connect.h"
#include "ldap_error.h"
#include "ldap_filter.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_ops.h"
#include "ldap_options.h"
#include "ldap_reencode.h"
#include "ldap_referrals.h"
#include "ldap_request.h"
#include "ldap_result.h"
#include "ldap_table.h"
#include "ldap_url.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_usearch";
constexpr const char *NO_CONN_TRACE = "ldap_url_search_direct: NULL server or table\n ";

// SearchRequest of the URL: "{it{seeiib" (id, tag, base, scope, deref, size and time limits
// from the handle, types-only), the URL's filter, "{v}}" around its attributes; the message
// is closed without controls at all: a URL names a search, not the handle's or a caller's
// extensions of it.
int encode_url_search(LDAP *ld, const LDAPURLDesc *lud, int msgid, int attrsonly,
                      BerElement *ber)
{
    int deref = 0;
    int sizelimit = 0;
    int timelimit = 0;
    (void)ldap_get_option_direct(ld, LDAP_OPT_DEREF, &deref);
    (void)ldap_get_option_direct(ld, LDAP_OPT_SIZELIMIT, &sizelimit);
    (void)ldap_get_option_direct(ld, LDAP_OPT_TIMELIMIT, &timelimit);
    if (fber_printf(ber, "{it{seeiib", msgid, LDAP_REQ_SEARCH,
                    lud->lud_dn != nullptr ? lud->lud_dn : "", lud->lud_scope, deref, sizelimit,
                    timelimit, attrsonly) == -1)
        return LDAP_ENCODING_ERROR;
    if (put_filter(ber, lud->lud_filter, 0) != 0)
        return LDAP_FILTER_ERROR;
    return fber_printf(ber, "{v}}", lud->lud_attrs) == -1 ? LDAP_ENCODING_ERROR : 0;
}

// A SearchResultDone with success, standing in the placeholder row until the other server's
// final result replaces it (or reports why it could not come).
LDAPMessage *placeholder_result(LDAP *ld, int msgid)
{
    BerElement *ber = ldap_alloc_fber(ld, 0);
    if (ber == nullptr)
        return nullptr;
    if (fber_printf_raw(ber, "{it{ess}}", msgid, LDAP_RES_SEARCH_RESULT, 0, "", "") == -1) {
        fber_free(ber);
        return nullptr;
    }
    return message_from_encoded(ber, msgid, LDAP_RES_SEARCH_RESULT);
}

// A request record holding a copy of the encoded bytes of `from`.
LDAPMessage *placeholder_request(LDAP *ld, LDAPConn *lc, const BerElement *from, int msgid)
{
    LDAPMessage *req = ldap_msginit(lc);
    BerElement *ber = req != nullptr ? ldap_alloc_fber(ld, 0) : nullptr;
    if (ber == nullptr ||
        fber_write(ber, reinterpret_cast<const char *>(from->ber_buf),
                   static_cast<ber_len_t>(from->ber_ptr - from->ber_buf)) < 0) {
        if (ber != nullptr)
            fber_free(ber);
        free_msg(req, 0);
        return nullptr;
    }
    req->lm_ber = ber;
    req->lm_msgid = msgid;
    req->lm_msgtype = static_cast<int32_t>(LDAP_REQ_SEARCH);
    return req;
}

// Fills the placeholder row of the default table: its request, complete, with the referral
// policy of the handle and one hop more than the row of the real request.
int fill_placeholder(LDAP *ld, LDAPMsgTable *table, int msgid, LDAPMessage *request, int chase)
{
    int hops = 0;
    (void)ldap_get_option_direct(ld, LDAP_OPT_REFHOPLIMIT, &hops);
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc());
    LDAPMsgRow *row = ldap_msg_table_row(table, msgid);
    if (row == nullptr)
        return ldap_fail(ld, LDAP_LOCAL_ERROR);
    row->request = request;
    row->flags |= ROW_POLICY_SET | ROW_COMPLETE;
    if (chase == 1)
        row->flags |= ROW_CHASE;
    else
        row->flags &= ~ROW_CHASE;
    row->hop_limit = hops + 1;
    return 0;
}

// The search on another server: the placeholder row in the default table, the real request
// on `lc`, linked as parent and child. The placeholder's id, or -1 (recorded).
int search_elsewhere(LDAP *ld, LDAPConn *def, LDAPConn *lc, const char *url,
                     const LDAPURLDesc *lud, int attrsonly, const LDAPDeadline &until)
{
    int rc = send_referral_bind_request(ld, lc, until);
    if (rc == LDAP_SERVER_DOWN || rc == LDAP_NO_MEMORY)
        return ldap_fail_minus_one(ld, rc);
    if (rc != 0)
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_url_search_direct: Bind failed with error = %d. Ignoring.\n", rc);
    OpRequest op;
    if (ldap_op_begin(ld, lc, NO_CONN_TRACE, &op) != 0)
        return -1;
    int parent = ldap_msg_table_get_next_msgid(def->table);
    if (parent < 0 || ldap_msg_table_row(def->table, parent) == nullptr)
        return ldap_op_abort(&op, ldap_msgid_failure(parent)), -1;
    rc = encode_url_search(ld, lud, op.msgid, attrsonly, op.ber);
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_search_direct: URL pointing to non-default server\n");
    LDAPMessage *request = rc == 0 ? placeholder_request(ld, def, op.ber, parent) : nullptr;
    LDAPMessage *result = request != nullptr ? placeholder_result(ld, parent) : nullptr;
    if (rc == 0 && result == nullptr)
        rc = LDAP_NO_MEMORY;
    int chase = 0;
    (void)ldap_get_option_direct(ld, LDAP_OPT_REFERRALS, &chase);
    if (rc == 0)
        rc = fill_placeholder(ld, def->table, parent, request, chase);
    if (rc == 0)
        request = nullptr; // the row holds it now
    if (rc == 0)
        rc = set_parent_child_pointers(ld, def->table, parent, lc->table, op.msgid, url, result,
                                       chase == 1);
    if (rc != 0) {
        free_msg(request, 0);
        free_msg(result, 0);
        ldap_msg_table_release_msgid(def->table, parent);
        return ldap_op_abort(&op, rc), -1;
    }
    int sent = -1;
    if (ldap_op_finish(&op, LDAP_REQ_SEARCH, nullptr, until, &sent) != 0) {
        ldap_msg_table_release_msgid(def->table, parent); // frees the placeholder's records
        return -1;
    }
    return parent;
}

int url_search_until(LDAP *ld, const char *url, int attrsonly, const LDAPDeadline &until)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_search_direct: ld(%p), url(%s), attrsonly(%d)\n",
               static_cast<void *>(ld), url != nullptr ? url : "<NULL>", attrsonly);
    LDAPURLDesc *lud = nullptr;
    if (ldap_url_parse(url, &lud) != 0)
        return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
    int id = -1;
    LDAPConn *def = ld->ld_defconn;
    LDAPConn *lc = nullptr;
    if (def == nullptr || def->table == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_search_direct: NULL default server or table \n");
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
    } else if ((lc = ldap_find_conn(ld, lud->lud_host, lud->lud_port, 1, nullptr, 1, until)) ==
                   nullptr ||
               lc->table == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_search_direct: NULL server or table\n ");
        if (ldap_get_errno_direct(ld) == 0)
            (void)ldap_fail(ld, LDAP_SERVER_DOWN);
    } else if (lc != def) {
        id = search_elsewhere(ld, def, lc, url, lud, attrsonly, until);
    } else {
        OpRequest op;
        if (ldap_op_begin(ld, lc, NO_CONN_TRACE, &op) == 0) {
            int rc = encode_url_search(ld, lud, op.msgid, attrsonly, op.ber);
            if (rc != 0)
                (void)ldap_op_abort(&op, rc);
            else if (ldap_op_finish(&op, LDAP_REQ_SEARCH, nullptr, until, &id) != 0)
                id = -1;
        }
    }
    ldap_free_urldesc(lud);
    return id;
}
} // namespace

int ldap_url_search_direct(LDAP *ld, const char *url, int attrsonly)
{
    return url_search_until(ld, url, attrsonly, LDAPDeadline{});
}

int ldap_url_search(LDAP *ld, const char *url, int attrsonly)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_search: ld(%p) url(%s) attrsonly(%d)\n",
               static_cast<void *>(ld), url != nullptr ? url : "<NULL>", attrsonly);
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    int rc = url == nullptr ? ldap_fail_minus_one(ld, LDAP_PARAM_ERROR)
                            : ldap_url_search_direct(ld, url, attrsonly);
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_search: returning rc=%d\n", rc);
    return rc;
}

int ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout,
                       LDAPMessage **res)
{
    LDAP_TRACE(LDAP_TRC_API,
               "ldap_url_search_st: ld(%p), url(%s), attrsonly(%d) timeout(%p), res(%p)\n",
               static_cast<void *>(ld), url != nullptr ? url : "<NULL>", attrsonly,
               static_cast<void *>(timeout), static_cast<void *>(res));
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    if (url == nullptr || res == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *res = nullptr;
    // The time-out bounds the whole call, the bind and sending on another server included.
    bool limited = timeout != nullptr && (timeout->tv_sec != 0 || timeout->tv_usec != 0);
    const LDAPDeadline until = ldap_deadline_after(limited ? timeout : nullptr);
    int id = url_search_until(ld, url, attrsonly, until);
    int rc = 0;
    if (id < 0) {
        rc = ldap_get_errno_direct(ld);
    } else {
        int type = ldap_result_until(ld, id, LDAP_MSG_ALL, until, res);
        if (type == 0) {
            // Reported only through the handle's error; the search and its referred part are
            // abandoned, so no row waits for a result nobody will collect.
            (void)abandon_table_row(ld, ld->ld_defconn->table, id, nullptr, LDAPDeadline{});
            (void)ldap_set_lderrno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
        } else if (type == -1) {
            rc = ldap_get_errno_direct(ld);
        }
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_search_st: returning rc=%d\n", rc);
    return rc;
}

int ldap_url_search_s(LDAP *ld, const char *url, int attrsonly, LDAPMessage **res)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_search_s\n");
    return ldap_url_search_st(ld, url, attrsonly, nullptr, res);
}
