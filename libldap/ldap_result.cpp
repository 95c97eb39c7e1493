// Result retrieval: ldap_result in its one-message and all-messages modes, the read of one
// PDU from a connection (resumable across time-outs, the partial PDU kept in the table), its
// envelope decoding, and the notice of disconnection. There is no reader thread: each waiting
// thread reads in its turn and files what it read through the table's queue.
#include "ldap_result.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_options.h"
#include "ldap_queue.h"
#include "ldap_referrals.h"
#include "ldap_request.h"
#include "ldap_table.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_result";
constexpr ber_tag_t TAG_SEQUENCE = 0x30;
constexpr ber_tag_t TAG_INTEGER = 0x02;
constexpr int NOTICE_RESULT_CODE = LDAP_PROTOCOL_ERROR;
constexpr int WAIT_WOKEN = -5; // wait_for_message: woken because a row was released
constexpr int READ_NO_MEMORY = -6; // read_one_pdu: memory ran out, the stream is in step

bool is_connected(const LDAPConn *lc)
{
    return __atomic_load_n(&lc->connected, __ATOMIC_ACQUIRE) != 0;
}

// A server sends only responses; any other protocolOp means the stream is out of step (and a
// type such as 0 would read as a time-out to every caller).
bool is_response_tag(ber_tag_t tag)
{
    switch (tag) {
    case LDAP_RES_BIND:
    case LDAP_RES_SEARCH_ENTRY:
    case LDAP_RES_SEARCH_RESULT:
    case LDAP_RES_MODIFY:
    case LDAP_RES_ADD:
    case LDAP_RES_DELETE:
    case LDAP_RES_MODDN:
    case LDAP_RES_COMPARE:
    case LDAP_RES_SEARCH_REFERENCE:
    case LDAP_RES_EXTENDED:
    case LDAP_RES_INTERMEDIATE:
        return true;
    default:
        return false;
    }
}

// LDAPMessage ::= SEQUENCE { messageID INTEGER, protocolOp CHOICE {...}, controls [0] OPT }
// The stream reader has taken the outer header off; the contents start at the id. (A buffer
// that still holds the outer SEQUENCE header is accepted as well.) Leaves the read position
// at the protocolOp, whose tag becomes lm_msgtype.
int decode_envelope(LDAPMessage *msg)
{
    BerElement *ber = msg->lm_ber;
    if (ber->ber_tag != TAG_SEQUENCE)
        return -1;
    ber_len_t len = 0;
    ber_tag_t tag = fber_peek_tag(ber, &len);
    if (tag == TAG_SEQUENCE && fber_skip_tag(ber, &len) == LBER_ERROR)
        return -1;
    else if (tag != TAG_SEQUENCE && tag != TAG_INTEGER)
        return -1;
    int64_t id = 0;
    if (fber_get_int(ber, &id) == LBER_ERROR || id < 0 || id > INT32_MAX)
        return -1;
    tag = fber_peek_tag(ber, &len);
    if (!is_response_tag(tag))
        return -1;
    msg->lm_msgid = static_cast<int32_t>(id);
    msg->lm_msgtype = static_cast<int32_t>(tag);
    return 0;
}

// ExtendedResponse ::= [APPLICATION 24] SEQUENCE { resultCode, matchedDN, errorMessage,
//     referral [3] OPTIONAL, responseName [10] OPTIONAL, responseValue [11] OPTIONAL }
// True (and the error recorded, the record freed) for the notice of disconnection.
bool take_disconnect_notice(LDAP *ld, LDAPMessage *msg)
{
    BerElement *c = ber_dup(msg->lm_ber);
    if (c == nullptr)
        return false;
    int code = 0;
    char *matched = nullptr;
    char *text = nullptr;
    char *name = nullptr;
    bool notice = false;
    if (fber_scanf(c, "{iaa", &code, &matched, &text) == LBER_ERROR) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_msg: error in fber_scanf.\n");
    } else {
        ber_len_t len = 0;
        ber_tag_t tag;
        while ((tag = fber_peek_tag(c, &len)) != LBER_ERROR && tag != LDAP_TAG_EXOP_RES_OID)
            if (fber_skip_element(c) != 0)
                break;
        if (tag == LDAP_TAG_EXOP_RES_OID && fber_get_stringa(c, &name) == LBER_ERROR)
            LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_msg: error in fber_scanf.\n");
        notice = code == NOTICE_RESULT_CODE && name != nullptr &&
                 strcmp(name, LDAP_NOTICE_OF_DISCONNECTION) == 0;
    }
    if (notice) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_msg: %s\n", text != nullptr ? text : "");
        (void)ldap_set_lderrno_direct(ld, NOTICE_RESULT_CODE, nullptr, text);
        free_msg(msg, 0);
    }
    lber_free(matched);
    lber_free(text);
    lber_free(name);
    ber_free(c, 0);
    return notice;
}

// The partly read PDU of the connection, made fresh when none is pending (read lock held).
LDAPMessage *read_state(LDAP *ld, LDAPConn *lc)
{
    LDAPMsgTable *table = lc->table;
    if (table->read_state != nullptr)
        return table->read_state;
    // A PDU that lies whole in the read-ahead is sized before it is read (the read-ahead
    // bounds it, so a hostile length costs nothing).
    LDAPMessage *msg = ldap_msginit_received(ld, lc, sockbuf_buffered_pdu_size(&lc->sb));
    if (msg == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_msg: Failed with memory error\n");
        return nullptr;
    }
    table->read_state = msg;
    table->read_progress = 0;
    return msg;
}

// The protocolOp tag of a complete PDU, read without moving its position (0 when the
// envelope does not look like one; decode_envelope judges it later).
ber_tag_t peek_op_tag(const BerElement *ber)
{
    BerElement c = *ber; // a private position over the same bytes
    ber_len_t len = 0;
    int64_t id = 0;
    if (fber_peek_tag(&c, &len) == TAG_SEQUENCE && fber_skip_tag(&c, &len) == LBER_ERROR)
        return 0;
    if (fber_get_int(&c, &id) == LBER_ERROR)
        return 0;
    ber_tag_t tag = fber_peek_tag(&c, &len);
    return tag == LBER_ERROR ? 0 : tag;
}

// Counts the entries and references read in a row: the sign of a search result streaming in.
void note_stream(LDAPConn *lc, const BerElement *ber)
{
    ber_tag_t tag = peek_op_tag(ber);
    if (tag != LDAP_RES_SEARCH_ENTRY && tag != LDAP_RES_SEARCH_REFERENCE) {
        lc->stream_run = 0;
        return;
    }
    if (lc->stream_run++ == 0) { // a stream starts: its pace is measured from here
        lc->stream_mark_ns = ldap_monotonic_ns();
        lc->stream_mark_run = 0;
        lc->stream_last_pause_ns = 0;
    }
}

// Reads from the connection until one PDU is complete: 1, -2 time-out, -1 error, or
// READ_NO_MEMORY (not recorded). A reader that ran out of memory lost no byte: like a
// time-out, it leaves the partial PDU to the next reader, and the connection stays usable.
// Read lock held.
int read_one_pdu(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until, LDAPMessage **out)
{
    LDAPMessage *msg = read_state(ld, lc);
    if (msg == nullptr)
        return READ_NO_MEMORY;
    LDAPMsgTable *table = lc->table;
    int rc = wait_for_message(lc, msg->lm_ber, &table->read_progress, until);
    if (rc == -1 && ber_out_of_memory(msg->lm_ber))
        rc = READ_NO_MEMORY;
    if (rc != -2 && rc != WAIT_WOKEN && rc != READ_NO_MEMORY) { // else the PDU stays
        table->read_state = nullptr;
        table->read_progress = 0;
        if (rc == 1) {
            note_stream(lc, msg->lm_ber);
            *out = msg;
        } else {
            free_msg(msg, 0);
        }
    }
    return rc;
}

// One PDU as read_one_pdu, then every further PDU that already lies whole in the read-ahead:
// those cost no system call and cannot wait, and filing them in the same turn lets the
// waiting threads be woken once for all of them. *out gets the chain (linked by lm_chain).
// Returns what the first read returned, or -1 when a later read found the stream broken
// (the chain then holds what came before). Takes the read lock.
int read_pdus(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until, LDAPMessage **out)
{
    LDAP_LOCK(guard, &lc->read_lock, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc()), -4;
    lc->reader = pthread_self();
    int rc = read_one_pdu(ld, lc, until, out);
    if (rc == READ_NO_MEMORY)
        rc = (ldap_fail(ld, LDAP_NO_MEMORY), -4);
    for (LDAPMessage **tail = out; rc == 1 && sockbuf_buffered_pdu_size(&lc->sb) != 0;) {
        // These reads are a bonus: without memory for one, the PDU waits for the next turn,
        // and nothing is recorded against this turn's success.
        tail = &(*tail)->lm_chain;
        int more = read_one_pdu(ld, lc, until, tail);
        if (more == -1)
            rc = -1;
        if (more != 1)
            break;
    }
    lc->reader = 0;
    return rc;
}

// Decodes the envelopes of the chain read in one turn and queues the messages in order:
// 0, -1 for an undecodable message, -3 for a notice of disconnection (recorded). What follows
// either of those is dropped, as the connection ends there.
int queue_messages(LDAP *ld, LDAPConn *lc, LDAPMessage *chain)
{
    int rc = 0;
    while (chain != nullptr && rc == 0) {
        LDAPMessage *msg = chain;
        chain = msg->lm_chain;
        msg->lm_chain = nullptr;
        if (decode_envelope(msg) != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "ldap_get_msg: undecodable message, connection closed\n");
            free_msg(msg, 0);
            rc = -1;
        } else if (msg->lm_msgid == 0 &&
                   msg->lm_msgtype == static_cast<int>(LDAP_RES_EXTENDED) &&
                   take_disconnect_notice(ld, msg)) {
            rc = -3;
        } else {
            put_msg_in_queue(lc->table, msg);
        }
    }
    free_msg(chain, 1);
    return rc;
}

// The one decision of referral chasing: entries and bind responses are always delivered;
// any other message of a row that chases referrals (search references included) goes to
// referral chasing, which replaces a referral by what the referred servers answered.
LDAPMessage *deliver_or_chase_referral(LDAP *ld, LDAPMsgTable *table, int msgid,
                                       LDAPMessage *msg, int chase, int hops,
                                       const LDAPDeadline &until, int *err)
{
    *err = 0;
    if (!chase || msg->lm_msgtype == LDAP_RES_SEARCH_ENTRY || msg->lm_msgtype == LDAP_RES_BIND)
        return msg;
    return look_for_referrals(ld, table, msgid, msg, hops, until, err);
}

// Reads the row's own next message and passes it through referral chasing.
int return_own_msg(LDAP *ld, int msgid, const LDAPDeadline &until, LDAPMessage **result,
                   LDAPMsgTable *table, int chase, int hops)
{
    int type = ldap_get_result(ld, msgid, LDAP_MSG_ONE, until, result, table);
    if (type == -1) {
        if (ldap_get_errno_direct(ld) == LDAP_PARAM_ERROR)
            ldap_msg_table_release_child(ld, table, msgid);
        return -1;
    }
    if (type == 0)
        return 0;
    int err = 0;
    LDAPMessage *delivered =
        deliver_or_chase_referral(ld, table, msgid, *result, chase, hops, until, &err);
    *result = delivered;
    if (delivered != nullptr)
        return delivered->lm_msgtype;
    if (err != 0)
        return -1; // a response that could not be read: recorded
    LDAP_TRACE(LDAP_TRC_API, "ldap_return_one_msg: error at referral chasing. Continue with "
                             "next referral (if any)\n");
    return LDAP_REFERRAL_AGAIN;
}
} // namespace

// A row with a child link has a referral request in progress: its next responses are the
// child's, in the referral's place.
int ldap_return_one_msg(LDAP *ld, int msgid, const LDAPDeadline &until, LDAPMessage **result,
                        LDAPMsgTable *table, int chase, int hops)
{
    for (;;) {
        // A URL search links a child even when the handle does not chase referrals.
        *result = nullptr;
        int type = ldap_referral_from_child(ld, table, msgid, until, result, chase, hops);
        if (type == LDAP_REFERRAL_NO_CHILD)
            type = return_own_msg(ld, msgid, until, result, table, chase, hops);
        if (type == LDAP_REFERRAL_AGAIN)
            continue;
        if (type > 0 && is_last_msg(*result)) {
            *result = ldap_referral_finish(ld, table, msgid, *result);
            type = (*result)->lm_msgtype;
        }
        return type;
    }
}

namespace {
// Takes the messages of one row one by one, each leaving the row, until `done` says the
// operation is complete, then hands out what it took as one chain, all within one deadline.
// On a time-out what it took goes back to the front of the row, so the next call starts again
// from it and nothing is lost; should the row have been released meanwhile (abandoned from
// another thread), nobody can collect those messages any more and they are freed here.
// `on_error(took_some)` runs when a take fails; what was taken is freed.
template <typename Take, typename Done, typename OnError>
int collect_row(LDAP *ld, LDAPMsgTable *table, int msgid, const LDAPDeadline &until,
                LDAPMessage **result, Take take, Done done, OnError on_error,
                LDAPMessage **final = nullptr)
{
    *result = nullptr;
    LDAPMessage *head = nullptr;
    LDAPMessage *last = nullptr;
    LDAPMsgTableCollecting collecting(table);
    for (;;) {
        LDAPMessage *msg = nullptr;
        int type = take(until, &msg);
        if (type == -1) {
            on_error(head != nullptr);
            free_msg(head, 1);
            return -1;
        }
        if (type == 0) {
            LDAP_LOCK(guard, &table->table_lock, MODULE);
            LDAPMsgRow *row = guard.locked() ? ldap_msg_table_row(table, msgid) : nullptr;
            if (row != nullptr)
                ldap_msg_table_put_back(row, head);
            else
                free_msg(head, 1);
            return guard.locked() ? 0 : ldap_fail_minus_one(ld, guard.rc());
        }
        if (head == nullptr) {
            head = msg;
        } else {
            last->lm_chain = msg;
            msg->lm_prev = last;
        }
        last = msg;
        if (done(msg)) {
            *result = head;
            if (final != nullptr)
                *final = msg;
            return msg->lm_msgtype;
        }
    }
}

int ldap_return_all_msgs(LDAP *ld, int msgid, const LDAPDeadline &until, LDAPMessage **result,
                         LDAPMsgTable *table, int chase, int hops, LDAPMessage **last)
{
    auto take = [&](const LDAPDeadline &d, LDAPMessage **msg) {
        return ldap_return_one_msg(ld, msgid, d, msg, table, chase, hops);
    };
    auto done = [](LDAPMessage *msg) { return is_last_msg(msg) != 0; };
    auto on_error = [&](bool) { ldap_msg_table_release_child(ld, table, msgid); };
    return collect_row(ld, table, msgid, until, result, take, done, on_error, last);
}

// The row's referral policy is decided by its first retrieval and kept for its life.
int fix_referral_policy(LDAP *ld, LDAPMsgTable *table, int msgid, int *chase, int *hops)
{
    int referrals = 0;
    int hoplimit = 0;
    (void)ldap_get_option_direct(ld, LDAP_OPT_REFERRALS, &referrals);
    (void)ldap_get_option_direct(ld, LDAP_OPT_REFHOPLIMIT, &hoplimit);
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc());
    LDAPMsgRow *found = ldap_msg_table_row(table, msgid);
    if (found == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR); // released since it was verified
    LDAPMsgRow &row = *found;
    if ((row.flags & ROW_POLICY_SET) == 0) {
        if (referrals)
            row.flags |= ROW_CHASE;
        else
            row.flags &= ~ROW_CHASE;
        row.hop_limit = hoplimit;
        row.flags |= ROW_POLICY_SET;
    }
    *chase = (row.flags & ROW_CHASE) != 0;
    *hops = row.hop_limit;
    return 0;
}

void trace_result_entry(LDAP *ld, int msgid, int all, const struct timeval *timeout,
                        LDAPMessage **result)
{
    if (timeout != nullptr)
        LDAP_TRACE(LDAP_TRC_API,
                   "ldap_result entered ld(%p), msgid(%d), all (%d), timeout(tv_sec=%d, "
                   "tv_usec=%d), result(%p)\n",
                   static_cast<void *>(ld), msgid, all, static_cast<int>(timeout->tv_sec),
                   static_cast<int>(timeout->tv_usec), static_cast<void *>(result));
    else
        LDAP_TRACE(LDAP_TRC_API,
                   "ldap_result entered ld(%p), msgid(%d), all (%d), timeout(NULL), result(%p)\n",
                   static_cast<void *>(ld), msgid, all, static_cast<void *>(result));
}
} // namespace

int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result)
{
    trace_result_entry(ld, msgid, all, timeout, result);
    if (timeout != nullptr && timeout->tv_usec > 999999) // traced, and used as it is
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "wait_for_message: BAD TIMEOUT value received. tv_sec=%ld  tv_usec=%ld \n",
                   static_cast<long>(timeout->tv_sec), static_cast<long>(timeout->tv_usec));
    return ldap_result_until(ld, msgid, all, ldap_deadline_after(timeout), result);
}

int ldap_result_until(LDAP *ld, int msgid, int all, const LDAPDeadline &until,
                      LDAPMessage **result, LDAPMessage **last)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    if (msgid < -1 || result == nullptr || ld->ld_servers == nullptr ||
        ld->ld_defconn == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_result: Invalid parameter - msgid(%d), ld(%p), result(%p), "
                   "ld->ld_servers(%p)\n",
                   msgid, static_cast<void *>(ld), static_cast<void *>(result),
                   static_cast<void *>(ld->ld_servers));
        return -1;
    }
    *result = nullptr;
    const int mode = all != 0 ? LDAP_MSG_ALL : LDAP_MSG_ONE; // every non-zero value means all
    LDAPMsgTable *table = ld->ld_defconn->table;
    int id = msgid;
    if (verify_msgid_n_acquire_row(ld, table, &id, mode) != 0)
        return -1;
    int chase = 0;
    int hops = 0;
    if (fix_referral_policy(ld, table, id, &chase, &hops) != 0)
        return -1;

    int type;
    if (mode == LDAP_MSG_ONE) {
        type = ldap_return_one_msg(ld, id, until, result, table, chase, hops);
        if (type > 0)
            (*result)->lm_flags |= LDAP_MSG_SINGLE;
    } else {
        type = ldap_return_all_msgs(ld, id, until, result, table, chase, hops, last);
    }
    if (type == 0)
        (void)ldap_set_lderrno_direct(ld, LDAP_TIMEOUT, nullptr, nullptr);
    LDAP_TRACE(LDAP_TRC_API, "ldap_result returning resulttype=%d\n", type);
    return type;
}

int ldap_get_result(LDAP *ld, int msgid, int all, const LDAPDeadline &until,
                    LDAPMessage **result, LDAPMsgTable *table)
{
    if (all == LDAP_MSG_ONE)
        return ldap_msg_table_get_message(ld, table, &msgid, until, result);
    if (all != LDAP_MSG_ALL) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_get_result: Error - all should be LDAP_MSG_ANY or LDAP_MSG_ALL\n");
        return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
    }
    auto take = [&](const LDAPDeadline &d, LDAPMessage **msg) {
        return ldap_msg_table_get_message(ld, table, &msgid, d, msg);
    };
    auto done = [](LDAPMessage *msg) {
        if (is_last_msg(msg) == 0)
            return false;
        LDAP_TRACE(LDAP_TRC_API, "ldap_get_result: got all results\n");
        return true;
    };
    auto on_error = [&](bool took_some) {
        LDAP_TRACE(LDAP_TRC_ERROR, took_some ? "ldap_get_result: partial results received due "
                                               "to socket error. Discarding with error.\n"
                                             : "ldap_get_result: error at first msg\n");
        ldap_msg_table_release_msgid(table, msgid);
    };
    return collect_row(ld, table, msgid, until, result, take, done, on_error);
}

int ldap_get_msg(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until)
{
    if (lc == nullptr || lc->table == nullptr)
        return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
    if (ldap_conn_is_dead(lc)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_msg: Socket connection was closed earlier\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    if (!is_connected(lc)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_msg: FATAL ERROR - Socket is not yet created\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    LDAPMessage *chain = nullptr;
    int rc = read_pdus(ld, lc, until, &chain);
    if (rc == WAIT_WOKEN)
        return 1; // nothing read: the waiters look at their rows again
    if (rc < -2)
        return -1; // lock or memory failure, recorded
    if (rc == -2)
        return ldap_fail(ld, LDAP_TIMEOUT), 0; // the connection stays usable
    int queued = queue_messages(ld, lc, chain);
    if (rc == -1 || queued == -1) {
        ldap_conn_mark_dead(lc); // a stream out of step or broken cannot be trusted again
        if (queued != -3)
            return ldap_fail_minus_one(ld, LDAP_SERVER_DOWN);
    }
    return queued == -3 ? -3 : 1;
}

namespace {
// While a long search result streams in, the server sends one entry at a time, and a reader
// that reads whenever something is there is woken once per entry or two; in a client that
// keeps up, those wake-ups and reads are most of its CPU. So once STREAM_RUN_TO_COALESCE
// entries came in a row, a reader whose last read emptied the socket lets about STREAM_BATCH
// entries gather before it reads again: it pauses for as long as the server takes to send
// them, less the time it spent on the last batch. The pace is measured, not guessed: the
// entries read since the last such look over the time since (the socket ran dry, so the client
// kept up and that is the server's pace). A fast server gets short pauses, a slow one longer
// ones, never more than STREAM_PAUSE_MAX_NS; a pause too short to pay for the sleep is not
// taken. Short results and single responses never pause, bytes already read are never held
// back, and a wait with less time left than the pause does not pause.
constexpr int32_t STREAM_RUN_TO_COALESCE = 8;
constexpr int64_t STREAM_BATCH = 128;
constexpr int64_t STREAM_PAUSE_MIN_NS = 20'000;
constexpr int64_t STREAM_PAUSE_MAX_NS = 2'000'000;

// Folds the entries since the last look into the pace; the pause it calls for (0: none).
int64_t stream_pause_ns(LDAPConn *lc)
{
    int64_t now = ldap_monotonic_ns();
    int64_t since = now - lc->stream_mark_ns;
    int64_t pdus = lc->stream_run - lc->stream_mark_run;
    if (pdus > 0) {
        int64_t sample = since / pdus;
        lc->stream_pace_ns = lc->stream_pace_ns == 0 ? sample : (3 * lc->stream_pace_ns + sample) / 4;
    }
    int64_t busy = since - lc->stream_last_pause_ns; // reading and handing out the last batch
    int64_t pause = std::min(lc->stream_pace_ns * STREAM_BATCH - busy, STREAM_PAUSE_MAX_NS);
    if (pause < STREAM_PAUSE_MIN_NS)
        pause = 0;
    lc->stream_mark_ns = now;
    lc->stream_mark_run = lc->stream_run;
    lc->stream_last_pause_ns = pause;
    return pause;
}

// Pauses before the next read of a running stream whose socket ran dry, unless less than the
// pause is left of the deadline.
bool pause_for_stream(LDAPConn *lc, const LDAPDeadline &until)
{
    if (lc->stream_run < STREAM_RUN_TO_COALESCE || !lc->sb.sb_drained ||
        sockbuf_buffered(&lc->sb) != 0)
        return false;
    int64_t pause = stream_pause_ns(lc);
    if (pause == 0)
        return false;
    struct timeval left;
    if (until.limited && (!ldap_time_left(until, &left) ||
                          left.tv_sec * 1'000'000'000LL + left.tv_usec * 1000LL <= pause))
        return false;
    struct timespec ts = {0, static_cast<long>(pause)};
    nanosleep(&ts, nullptr);
    return true;
}
} // namespace

// Each poll waits only for what is left of the deadline: a server that sends a PDU in slow
// pieces cannot stretch the wait beyond the caller's time-out.
int wait_for_message(LDAPConn *lc, BerElement *ber, uint32_t *progress, const LDAPDeadline &until)
{
    if (lc == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ERROR: wait_for_message() lc == NULL!\n");
        return -1;
    }
    bool paused = false;
    // On a quiet connection the last read emptied the socket, and the response to a request
    // just sent (or the rest of a short result) is not there yet: a read now would only say
    // so. Waiting first makes one read per response. A result streaming in is read after its
    // pause instead, since its next entries are then in.
    bool wait_first = lc->stream_run < STREAM_RUN_TO_COALESCE && lc->sb.sb_drained &&
                      sockbuf_buffered(&lc->sb) == 0;
    LDAPCallDeadlineScope scope(until); // a secure read's wait for the rest of a record
    for (;;) {
        if (!wait_first) {
            if (!paused)
                paused = pause_for_stream(lc, until);
            long rc = fber_get_next_nb(&lc->sb, ber, progress);
            if (rc == -1)
                return -1;
            // 11 is "would block" unless the element is complete (a PDU whose tag byte is 11).
            if (rc != BER_WOULD_BLOCK || ber_pdu_complete(ber, *progress))
                return 1;
        }
        wait_first = false;
        struct timeval buffer;
        struct timeval *wait = ldap_deadline_wait(until, &buffer);
        int ready = fber_select(&lc->sb, wait, lc->table->wake_fd);
        if (ready == 0)
            return -2;
        if (ready == FBER_SELECT_WOKEN)
            return WAIT_WOKEN;
        if (ready < 0) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "wait_for_message: select 2 failed with socket error: rc=%d, errno=%d\n",
                       ready, errno);
            ber->ber_ptr = ber->ber_buf;
            return -1;
        }
    }
}
