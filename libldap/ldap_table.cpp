// The per-connection message table: message id allocation (growth and wrap-around), row
// ownership and release, referral parent/child links, filing requests for sending, and the
// delivery loop in which waiting threads take turns reading the connection.
// Rows are addressed by index under the table lock only: growth moves the array.
#include "ldap_table.h"

#include <cerrno>
#include <ctime>
#include <sys/eventfd.h>
#include <unistd.h>

#include "ldap_error.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_queue.h"
#include "ldap_request.h"
#include "ldap_result.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_table";

bool unowned(const LDAPMsgRow &row) { return row.owner == 0; }


bool owned_by_me(const LDAPMsgRow &row) { return pthread_equal(row.owner, pthread_self()) != 0; }

// Takes a free row for a new id: in use, hop limit not yet known. Returns the row's index.
int take_row(LDAPMsgTable *table, uint32_t index)
{
    LDAPMsgRow &row = table->rows[index];
    row.flags |= ROW_IN_USE;
    row.hop_limit = -1;
    table->free_rows -= 1;
    return static_cast<int>(index);
}

int row_id(uint32_t index, const LDAPMsgRow &row)
{
    return static_cast<int>(index | (row.generation << LDAP_MSGID_ROW_BITS));
}

// Adds LDAP_TABLE_GROWTH rows: 0, -1 at the size limit, LDAP_MSGID_NO_MEMORY. On failure the
// old array stays as it was.
int grow_rows(LDAPMsgTable *table)
{
    uint32_t count = table->row_count + LDAP_TABLE_GROWTH;
    if (count > LDAP_MAX_TBL_SIZE) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_msg_table_get_next_msgid: cannot grow beyond LDAP_MAX_TBL_SIZE==%d rows!\n",
                   static_cast<int>(LDAP_MAX_TBL_SIZE));
        return -1;
    }
    auto *rows = static_cast<LDAPMsgRow *>(lber_calloc(count, sizeof(LDAPMsgRow)));
    if (rows == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_msg_table_get_next_msgid: NO_MEMORY to allocate table w/ %d rows x %d "
                   "bytes!\n",
                   static_cast<int>(count), static_cast<int>(sizeof(LDAPMsgRow)));
        return LDAP_MSGID_NO_MEMORY;
    }
    for (uint32_t i = 0; i < table->row_count; ++i)
        rows[i] = table->rows[i];
    lber_free(table->rows);
    table->rows = rows;
    table->row_count = count;
    table->free_rows += static_cast<int32_t>(LDAP_TABLE_GROWTH);
    return 0;
}

// Forward from the last id handed out, then wrapped from 1: ids grow monotonically and a
// freed id is not reused until the scan wraps.
int scan_for_free_row(LDAPMsgTable *table)
{
    uint32_t candidate = static_cast<uint32_t>(table->last_msgid + 1);
    while (candidate < table->row_count && (table->rows[candidate].flags & ROW_IN_USE) != 0)
        ++candidate;
    if (candidate < table->row_count)
        return take_row(table, candidate);
    int last = table->last_msgid;
    if (last <= 1)
        return static_cast<int>(table->row_count); // only with a wrong free count; refused later
    for (int id = 1; id <= last; ++id)
        if ((table->rows[id].flags & ROW_IN_USE) == 0)
            return take_row(table, static_cast<uint32_t>(id));
    return last + 1; // likewise impossible while free rows >= 2
}

// A complete row with nothing left to deliver may still hold a result that referral chasing
// put aside (its referral request has ended); it is handed out. Folding the referrals that
// could not be followed into it belongs to referral chasing.
int take_put_aside_result(LDAP *ld, LDAPMsgRow &row, LDAPMessage **result)
{
    if (row.saved_result == nullptr)
        return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
    LDAPMessage *saved = row.saved_result;
    row.saved_result = nullptr;
    saved->lm_chain = nullptr;
    saved->lm_prev = nullptr;
    saved->lm_conn = nullptr;
    *result = saved;
    return saved->lm_msgtype;
}

// Once its final result is out and nothing is left to hand out, a row has done its work and
// its id comes back at once: nothing the caller holds lives in the row any more. A row that
// chases referrals stays until chasing has looked at its final result (which may refer
// elsewhere, and then the row waits for its child).
void release_if_collected(LDAPMsgTable *table, int id, const LDAPMsgRow &row)
{
    if (id != 0 && (row.flags & ROW_COMPLETE) != 0 && (row.flags & ROW_CHASE) == 0 &&
        row.first == nullptr &&
        row.child == nullptr && row.saved_result == nullptr && row.pending_referral == nullptr)
        ldap_msg_table_release_msgid_direct(table, id);
}

// The row of `id` if this thread still collects it.
LDAPMsgRow *my_row(LDAPMsgTable *table, int id)
{
    LDAPMsgRow *row = ldap_msg_table_row(table, id);
    return row != nullptr && (id == 0 || owned_by_me(*row)) ? row : nullptr;
}

// This thread's wait record. A post may still be on its way to it when the thread ends.
LDAPWaiter *this_thread_waiter()
{
    struct Holder {
        LDAPWaiter waiter{};
        ~Holder() { ldap_event_retire(&waiter.event); }
    };
    thread_local Holder holder;
    return &holder.waiter;
}

// The post goes out when the waker releases the table lock, which the sleeper needs first.
void wake(LDAPMsgTable *table, LDAPWaiter *w)
{
    w->woken = 1;
    ldap_event_post_after_unlock(&w->event, &table->table_lock);
}

void link_waiter(LDAPMsgTable *table, LDAPWaiter *w)
{
    w->next = nullptr;
    w->prev = table->waiters_tail;
    if (w->prev != nullptr)
        w->prev->next = w;
    else
        table->waiters = w;
    table->waiters_tail = w;
}

void unlink_waiter(LDAPMsgTable *table, LDAPWaiter *w)
{
    (w->prev != nullptr ? w->prev->next : table->waiters) = w->next;
    (w->next != nullptr ? w->next->prev : table->waiters_tail) = w->prev;
    w->prev = w->next = nullptr;
    if (table->heir == w)
        table->heir = nullptr;
}

// Sleeps (table lock held, and held again on return) until this thread is woken or the
// deadline passes: 0, or 129 when the lock cannot be taken again. A post that comes late, for
// an earlier sleep, finds `woken` still 0 and the thread sleeps on.
[[nodiscard]] int sleep_on_table(LDAPMsgTable *table, LockGuard &guard, int id,
                                 const LDAPDeadline &until)
{
    LDAPWaiter *me = this_thread_waiter();
    me->msgid = id;
    me->woken = 0;
    ldap_event_reset(&me->event);
    link_waiter(table, me);
    while (me->woken == 0) {
        guard.unlock(); // also delivers what this thread posted
        int err = ldap_event_wait(&me->event, until);
        if (guard.relock() != 0)
            return LDAP_LOCK_ERROR; // a broken table lock: the record stays linked
        if (err == ETIMEDOUT)
            break;
        if (me->woken == 0)
            ldap_event_reset(&me->event);
    }
    unlink_waiter(table, me);
    return 0;
}

// Offers the reading turn to the oldest sleeper still waiting for its responses, unless a
// thread reads or the turn is already on offer (table lock held).
void offer_turn(LDAPMsgTable *table)
{
    if (table->reader_active || table->heir != nullptr)
        return;
    for (LDAPWaiter *w = table->waiters; w != nullptr; w = w->next) {
        if (w->woken == 0) {
            table->heir = w;
            wake(table, w);
            return;
        }
    }
}

// While a thread collects a whole result it comes straight back for the next message, so
// it keeps the reading turn between its calls and offers it when it is done. Only that of the
// table it collects from: a referral child's table, read on the way, is left as usual.
thread_local int keep_turn_depth = 0;
thread_local LDAPMsgTable *keep_turn_table = nullptr;

// Offers the turn on every way out of ldap_msg_table_get_message, unless the thread collects.
class OfferTurnOnExit {
public:
    OfferTurnOnExit(LDAPMsgTable *table, const LockGuard &guard) : table_(table), guard_(guard) {}
    ~OfferTurnOnExit()
    {
        if (guard_.locked() && (keep_turn_depth == 0 || keep_turn_table != table_))
            offer_turn(table_);
    }
    OfferTurnOnExit(const OfferTurnOnExit &) = delete;
    OfferTurnOnExit &operator=(const OfferTurnOnExit &) = delete;

private:
    LDAPMsgTable *table_;
    const LockGuard &guard_;
};

// One waiting thread takes the reading turn; the caller holds the table lock and gets it back.
// The turn reads one PDU and every further one already buffered whole and files them all,
// which wakes their owners. A turn that ends in a failure wakes everyone, since every waiter
// must learn of it. Returns what ldap_get_msg returned, or -1 (129 recorded) when the lock
// cannot be retaken.
int read_one_turn(LDAP *ld, LDAPMsgTable *table, LockGuard &guard, const LDAPDeadline &until)
{
    table->reader_active = 1;
    table->heir = nullptr;
    guard.unlock();
    int rc = ldap_get_msg(ld, table->owner, until);
    if (guard.relock() != 0) {
        (void)ldap_fail(ld, LDAP_LOCK_ERROR);
        return -1;
    }
    table->reader_active = 0;
    flush_queue(table);
    if (rc != 0 && rc != 1)
        ldap_msg_table_wake_waiters(table);
    return rc;
}
} // namespace

LDAPMsgTableCollecting::LDAPMsgTableCollecting(LDAPMsgTable *table) : table_(table)
{
    if (keep_turn_depth++ == 0)
        keep_turn_table = table;
}

LDAPMsgTableCollecting::~LDAPMsgTableCollecting()
{
    if (--keep_turn_depth != 0)
        return;
    keep_turn_table = nullptr;
    ldap_msg_table_offer_turn(table_);
}

void ldap_msg_table_offer_turn(LDAPMsgTable *table)
{
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (guard.locked())
        offer_turn(table);
}

void ldap_msg_table_wake_row(LDAPMsgTable *table, int msgid)
{
    for (LDAPWaiter *w = table->waiters; w != nullptr; w = w->next)
        if (w->msgid == msgid && w->woken == 0)
            wake(table, w);
}

void ldap_msg_table_wake_waiters(LDAPMsgTable *table)
{
    for (LDAPWaiter *w = table->waiters; w != nullptr; w = w->next)
        if (w->woken == 0)
            wake(table, w);
    if (table->reader_active && table->wake_fd >= 0) {
        uint64_t one = 1;
        ssize_t n = write(table->wake_fd, &one, sizeof one);
        (void)n; // a full counter is already a wake-up
    }
}

int ldap_fail_minus_one(LDAP *ld, int code)
{
    (void)ldap_set_lderrno_direct(ld, code, nullptr, nullptr);
    return -1;
}

LDAPMsgTable *ldap_msg_table_init(unsigned count)
{
    auto *table = static_cast<LDAPMsgTable *>(lber_calloc(1, sizeof(LDAPMsgTable)));
    if (table == nullptr)
        return nullptr;
    table->rows = static_cast<LDAPMsgRow *>(lber_calloc(count, sizeof(LDAPMsgRow)));
    if (table->rows == nullptr) {
        lber_free(table);
        return nullptr;
    }
    table->free_rows = static_cast<int32_t>(count);
    table->row_count = count;

    // Held for a few hundred instructions by many threads: a short spin before sleeping
    // saves a futex call whenever the holder runs on another core.
    pthread_mutexattr_t spin;
    pthread_mutexattr_init(&spin);
    pthread_mutexattr_settype(&spin, PTHREAD_MUTEX_ADAPTIVE_NP);
    int err = pthread_mutex_init(&table->table_lock, &spin);
    pthread_mutexattr_destroy(&spin);
    if (err != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_msg_table_init: pthread_mutex_init failed for table lock, errno %d\n", err);
    } else if ((err = pthread_mutex_init(&table->queue_lock, nullptr)) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_msg_table_init: pthread_mutex_init failed for queue lock, errno %d\n", err);
        pthread_mutex_destroy(&table->table_lock);
    } else if ((err = pthread_cond_init(&table->released, nullptr)) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_msg_table_init: pthread_cond_init failed, errno %d\n",
                   err);
        pthread_mutex_destroy(&table->queue_lock);
        pthread_mutex_destroy(&table->table_lock);
    } else {
        table->wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        return table;
    }
    lber_free(table->rows);
    lber_free(table);
    return nullptr;
}

void ldap_msg_table_free(LDAPMsgTable *table)
{
    if (table == nullptr)
        return;
    for (uint32_t i = 0; i < table->row_count; ++i)
        if ((table->rows[i].flags & ROW_IN_USE) != 0 || i == 0)
            ldap_msg_table_clear_row(&table->rows[i]); // row 0 holds unsolicited messages
    free_msg(table->read_state, 0);
    table->read_state = nullptr;
    for (LDAPMessage *m = table->queue_head; m != nullptr;) {
        LDAPMessage *next = m->lm_chain;
        free_msg(m, 0);
        m = next;
    }
    lber_free(table->rows);
    if (table->wake_fd >= 0)
        close(table->wake_fd);
    int err;
    if ((err = pthread_mutex_destroy(&table->table_lock)) != 0)
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_msg_table_free: pthread_mutex_destroy failed for table lock, errno %d\n",
                   err);
    if ((err = pthread_mutex_destroy(&table->queue_lock)) != 0)
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_msg_table_free: pthread_mutex_destroy failed for queue lock, errno %d\n",
                   err);
    if ((err = pthread_cond_destroy(&table->released)) != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_msg_table_free: pthread_cond_destroy failed, errno %d\n",
                   err);
    lber_free(table);
}

int ldap_msg_table_get_next_msgid(LDAPMsgTable *table)
{
    if (table == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_msg_table_get_next_msgid: NULL table passed - Error.\n");
        return -1;
    }
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked()) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_msg_table_get_next_msgid: failed to lock table, rc=%d\n",
                   guard.rc());
        return -1;
    }
    if (table->free_rows < 2)
        if (int rc = grow_rows(table); rc != 0)
            return rc;
    int index = scan_for_free_row(table);
    table->last_msgid = index;
    if (static_cast<uint32_t>(index) >= table->row_count)
        return index; // only with a wrong free count; refused by every later look-up
    return row_id(static_cast<uint32_t>(index), table->rows[index]);
}

int ldap_msg_table_send_message(LDAPMsgTable *table, LDAP *ld, LDAPMessage *request, int *stored,
                                const LDAPDeadline &until)
{
    int kept = 0;
    int *storedp = stored != nullptr ? stored : &kept;
    *storedp = 0;
    LDAP_TRACE(LDAP_TRC_API, "ldap_msg_table_send_message entered: table=%p msg=%p msgid=%d\n",
               static_cast<void *>(table), static_cast<void *>(request),
               request != nullptr ? request->lm_msgid : -1);
    if (table == nullptr || request == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    (void)ldap_set_lderrno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    {
        LDAP_LOCK(guard, &table->table_lock, MODULE);
        if (!guard.locked())
            return ldap_fail(ld, guard.rc());
        // Only a row handed out by the allocator and still empty may take the request.
        LDAPMsgRow *row = request->lm_msgid > 0 ? ldap_msg_table_row(table, request->lm_msgid)
                                                : nullptr;
        if (row == nullptr || row->request != nullptr)
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        row->request = request;
        *storedp = 1;
    }
    int rc = ldap_write_msg(ld, request, until);
    if (rc != 0) {
        // The request stays filed: it is released with the row when the caller releases the id.
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_msg_table_send_message: failed to send request message, rc=%d, removing "
                   "request msg from table\n",
                   rc);
        return rc;
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_msg_table_send_message: returning rc=%d\n", rc);
    return 0;
}

int ldap_msg_table_get_message(LDAP *ld, LDAPMsgTable *table, int *msgid,
                               const LDAPDeadline &until, LDAPMessage **result)
{
    if (table == nullptr || result == nullptr || msgid == nullptr)
        return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
    (void)ldap_set_lderrno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return ldap_fail_minus_one(ld, guard.rc());
    const int id = *msgid;
    LDAPMsgRow *at_start = ldap_msg_table_row(table, id);
    if (at_start == nullptr)
        return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
    if ((at_start->flags & ROW_COMPLETE) != 0 && at_start->first == nullptr) {
        int type = take_put_aside_result(ld, *at_start, result);
        if (type > 0)
            release_if_collected(table, id, *at_start);
        return type;
    }
    // The row is looked up again after every wait: an abandon from another thread releases it,
    // and the id then names no row (or a newer one).
    const bool claimed = id != 0 && owned_by_me(*at_start);
    OfferTurnOnExit offer(table, guard);
    // Even a time-out that has run out (a poll) gets one look at the socket.
    for (bool looked = false;; looked = true) {
        flush_queue(table);
        LDAPMsgRow *row = claimed ? my_row(table, id) : ldap_msg_table_row(table, id);
        if (row == nullptr || (row->flags & ROW_ABANDONED) != 0)
            return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR); // nothing more will come for it
        if (ldap_msg_table_take_next(row, result)) {
            release_if_collected(table, id, *row);
            return (*result)->lm_msgtype;
        }
        struct timeval left;
        if (until.limited && !ldap_time_left(until, &left) && looked)
            return 0;
        if (table->reader_active) {
            if (sleep_on_table(table, guard, id, until) != 0)
                return ldap_fail_minus_one(ld, LDAP_LOCK_ERROR);
            continue; // and a look at what the reader filed
        }
        int rc = read_one_turn(ld, table, guard, until);
        if (!guard.locked())
            return -1;
        if (rc == 1 || rc == 0)
            continue;
        // One turn files every PDU that came in one piece; those before the failure are
        // delivered all the same.
        flush_queue(table);
        row = ldap_msg_table_row(table, id);
        if (row != nullptr && ldap_msg_table_take_next(row, result)) {
            release_if_collected(table, id, *row);
            return (*result)->lm_msgtype;
        }
        // The reader recorded why it failed: a broken stream (81), a notice of disconnection,
        // or a lock or memory failure, which leaves the connection usable and must not be
        // reported as a dead server.
        return -1;
    }
}

int verify_msgid_n_acquire_row(LDAP *ld, LDAPMsgTable *table, int *msgid, int all)
{
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc());
    if (*msgid < -1 ||
        (*msgid != -1 && (static_cast<uint32_t>(*msgid) & LDAP_MSGID_ROW_MASK) >= table->row_count)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "verify_msgid_n_acquire_row: Bad msgid %d\n", *msgid);
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    if (*msgid == -1) {
        if (ldap_get_msg_any(ld, table, msgid, all) != 0 || *msgid == -1) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "verify_msgid_n_acquire_row: No free row available for this thread\n");
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        }
    }
    LDAPMsgRow *row = ldap_msg_table_row(table, *msgid);
    if (row != nullptr && *msgid > 0 && (row->flags & ROW_ABANDONED) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "verify_msgid_n_acquire_row: Abandon initiated on this msgid\n");
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    // An id whose row was released (or handed out again since) names no row: as for a row
    // without a request, there is nothing to collect.
    LDAPMsgRow released{};
    int rc = verify_acquire_row(ld, row != nullptr ? row : &released, *msgid, all);
    if (rc != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "verify_msgid_n_acquire_row: Unable to lock the row\n");
        return rc;
    }
    return 0;
}

int verify_acquire_row(LDAP *ld, LDAPMsgRow *row, int msgid, int all)
{
    if (msgid != 0) {
        if (row->request == nullptr) {
            LDAP_TRACE(LDAP_TRC_ERROR, "verify_acquire_row: no request msg present and msgid is "
                                       "non-zero - Error\n");
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        }
        if (!unowned(*row) && !owned_by_me(*row))
            return ldap_fail(ld, LDAP_LOCAL_ERROR); // one collector per operation
        row->owner = pthread_self();
        if ((row->flags & ROW_COMPLETE) != 0 && row->next_undelivered == nullptr &&
            row->child == nullptr)
            return ldap_fail(ld, LDAP_LOCAL_ERROR); // its result was already collected
        return 0;
    }
    if (all == LDAP_MSG_ALL) {
        LDAP_TRACE(LDAP_TRC_ERROR, "verify_acquire_row: LDAP_MSG_ALL asked for msgid=0 - Error\n");
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    }
    return 0;
}

int ldap_get_msg_any(LDAP *ld, LDAPMsgTable *table, int *msgid, int all)
{
    const uint32_t count = table->row_count;
    int candidate = 0;
    for (uint32_t i = 1; i < count; ++i) {
        const LDAPMsgRow &row = table->rows[i];
        if ((row.flags & ROW_IN_USE) == 0 || (row.flags & ROW_ABANDONED) != 0)
            continue;
        if (owned_by_me(row) &&
            ((row.flags & ROW_COMPLETE) == 0 || row.next_undelivered != nullptr)) {
            LDAP_TRACE(LDAP_TRC_API,
                       "ldap_get_msg_any: found a pre-occupied row for this thread, row-id = %d\n",
                       static_cast<int>(i));
            *msgid = row_id(i, row);
            return 0;
        }
        if (candidate == 0 && row.request != nullptr && unowned(row))
            candidate = static_cast<int>(i);
    }
    if (candidate == 0) {
        if (all == LDAP_MSG_ALL) {
            LDAP_TRACE(LDAP_TRC_ERROR, "Error - ldap_get_msg_any: No free row available in table "
                                       "for msgid=LDAP_RES_ANY\n");
            return ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
        }
        *msgid = 0;
        LDAP_TRACE(LDAP_TRC_API, "ldap_get_msg_any: returning msgid=0\n");
        return 0;
    }
    // Rotate "any" waiters over the unclaimed operations instead of always serving the lowest.
    int taken = candidate;
    int last = table->last_shared_row;
    if (last != 0 && static_cast<uint32_t>(last) != count - 1) {
        for (uint32_t i = static_cast<uint32_t>(last) + 1; i < count; ++i) {
            const LDAPMsgRow &row = table->rows[i];
            if ((row.flags & ROW_ABANDONED) == 0 && row.request != nullptr && unowned(row)) {
                taken = static_cast<int>(i);
                break;
            }
        }
    }
    table->last_shared_row = taken;
    table->rows[taken].owner = pthread_self();
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_msg_any: will take row-id = %d\n", taken);
    *msgid = row_id(static_cast<uint32_t>(taken), table->rows[taken]);
    return 0;
}

void ldap_msg_table_release_msgid(LDAPMsgTable *table, int msgid)
{
    if (table == nullptr)
        return;
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (guard.locked())
        ldap_msg_table_release_msgid_direct(table, msgid);
}

void ldap_msg_table_release_msgid_direct(LDAPMsgTable *table, int msgid)
{
    // An id that no longer names its row (released already, or handed out again) releases
    // nothing: a late release must never take a newer operation's row.
    LDAPMsgRow *row = msgid > 0 ? ldap_msg_table_row(table, msgid) : nullptr;
    if (row == nullptr)
        return;
    ldap_msg_table_clear_row(row);
    table->free_rows += 1;
    pthread_cond_broadcast(&table->released);
}

int ldap_msg_table_release_if_done(LDAPMsgTable *table, int msgid)
{
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return 0;
    const LDAPMsgRow *r = msgid > 0 ? ldap_msg_table_row(table, msgid) : nullptr;
    if (r == nullptr || (r->flags & ROW_COMPLETE) == 0 || r->first != nullptr ||
        r->child != nullptr)
        return 0;
    ldap_msg_table_release_msgid_direct(table, msgid);
    return 1;
}

void ldap_msg_table_release_child(LDAP *ld, LDAPMsgTable *table, int msgid)
{
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked()) {
        (void)ldap_fail(ld, guard.rc());
        return;
    }
    const LDAPMsgRow *r = ldap_msg_table_row(table, msgid);
    if (r == nullptr || !owned_by_me(*r) || r->parent == nullptr)
        return;
    LDAPRowLink parent = *r->parent;
    ldap_msg_table_release_msgid_direct(table, msgid);
    guard.unlock();

    LDAP_LOCK(parent_guard, &parent.table->table_lock, MODULE);
    if (!parent_guard.locked()) {
        (void)ldap_fail(ld, parent_guard.rc());
        return;
    }
    LDAPMsgRow *p = ldap_msg_table_row(parent.table, parent.row);
    if (p != nullptr) {
        lber_free(p->child);
        p->child = nullptr;
    }
    parent_guard.unlock();
    (void)ldap_set_lderrno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
}

void ldap_msg_table_mark_rows(LDAP *ld, int msgid, uint32_t bits)
{
    if (ld == nullptr || ld->ld_defconn == nullptr)
        return;
    LDAPRowLink at = {ld->ld_defconn->table, msgid, nullptr};
    while (at.table != nullptr) {
        LDAP_LOCK(guard, &at.table->table_lock, MODULE);
        if (!guard.locked()) {
            (void)ldap_fail(ld, guard.rc());
            return;
        }
        LDAPMsgRow *row = ldap_msg_table_row(at.table, at.row);
        if (row == nullptr)
            return;
        row->flags |= bits;
        at = row->child != nullptr ? *row->child : LDAPRowLink{nullptr, 0, nullptr};
    }
}

void ldap_msg_table_unlink_response(LDAPMessage *msg)
{
    if (msg == nullptr || msg->lm_conn == nullptr || msg->lm_conn->table == nullptr)
        return;
    LDAPMsgTable *table = msg->lm_conn->table;
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return;
    LDAPMsgRow *row = ldap_msg_table_row(table, msg->lm_msgid);
    if (row != nullptr) {
        LDAPMessage *next = msg->lm_chain;
        LDAPMessage *prev = msg->lm_prev;
        if (row->first == msg)
            row->first = next;
        else if (prev != nullptr && prev->lm_chain == msg)
            prev->lm_chain = next;
        if (next != nullptr && next->lm_prev == msg)
            next->lm_prev = prev;
        if (row->last == msg)
            row->last = prev;
        if (row->next_undelivered == msg)
            row->next_undelivered = next;
    }
    msg->lm_chain = nullptr;
    msg->lm_prev = nullptr;
}

int ldap_msg_table_take_next(LDAPMsgRow *row, LDAPMessage **result)
{
    LDAPMessage *next = row->first;
    if (next == nullptr)
        return 0;
    row->first = next->lm_chain;
    if (row->first != nullptr)
        row->first->lm_prev = nullptr;
    else
        row->last = nullptr;
    row->next_undelivered = row->first;
    // From here the record is the caller's alone: nothing in the library points at it, and it
    // points at nothing of the handle, so it outlives the handle and no abandon, late result
    // or release can free it.
    next->lm_chain = nullptr;
    next->lm_prev = nullptr;
    next->lm_conn = nullptr;
    next->lm_flags &= ~LDAP_MSG_PUT_BACK;
    *result = next;
    return 1;
}

void ldap_msg_table_put_back(LDAPMsgRow *row, LDAPMessage *chain)
{
    if (chain == nullptr)
        return;
    LDAPMessage *tail = chain;
    for (; tail->lm_chain != nullptr; tail = tail->lm_chain)
        tail->lm_flags |= LDAP_MSG_PUT_BACK;
    tail->lm_flags |= LDAP_MSG_PUT_BACK;
    tail->lm_chain = row->first;
    if (row->first != nullptr)
        row->first->lm_prev = tail;
    else
        row->last = tail;
    row->first = chain;
    row->next_undelivered = chain;
}

void ldap_msg_table_clear_row(LDAPMsgRow *row)
{
    free_msg(row->request, 0);
    free_msg(row->first, 1);
    free_msg(row->saved_result, 0);
    lber_free(row->parent);
    lber_free(row->child);
    lber_free(row->pending_referral);
    uint32_t next_generation = (row->generation + 1) % LDAP_MSGID_GENERATIONS;
    *row = LDAPMsgRow{};
    row->generation = next_generation;
}

LDAPMsgRow *ldap_msg_table_row(LDAPMsgTable *table, int msgid)
{
    if (msgid < 0)
        return nullptr;
    uint32_t index = static_cast<uint32_t>(msgid) & LDAP_MSGID_ROW_MASK;
    if (index >= table->row_count)
        return nullptr;
    LDAPMsgRow &row = table->rows[index];
    if (msgid == 0)
        return &row;
    if (index == 0 || (row.flags & ROW_IN_USE) == 0 || row_id(index, row) != msgid)
        return nullptr;
    return &row;
}
