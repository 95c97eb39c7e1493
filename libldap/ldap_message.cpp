// LDAPMessage records: creation with the trailing eyecatcher, the validity check, freeing
// (alone or down a chain), the public chain walkers, and ldap_msgfree, which unlinks a record
// from its row and releases the message id once the row has nothing left to hand out.
#include "ldap_message.h"

#include <cstdlib>
#include <cstring>

#include "../trace/ldap_env.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_table.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_message";

pthread_once_t msg_level_once = PTHREAD_ONCE_INIT;
int msg_invalid_level = 0;

// The reaction to an invalid record, read once per process and cached on its own.
void read_msg_invalid_level() { msg_invalid_level = ldap_invalid_level_from_env(); }

bool eyecatcher_alive(const LDAPMessage *msg)
{
    return memcmp(msg->lm_eyecatcher, LDAP_EYE_ALIVE, sizeof LDAP_EYE_ALIVE) == 0;
}

// Frees one valid record: its element, then the record with its eyecatcher marked dead.
void free_one(LDAPMessage *msg)
{
    if (msg->lm_ber != nullptr)
        ber_free(msg->lm_ber, 1);
    memcpy(msg->lm_eyecatcher, LDAP_EYE_DEAD, sizeof LDAP_EYE_DEAD);
    lber_free(msg);
}

bool msg_in_chain(const LDAPMessage *from, const LDAPMessage *wanted)
{
    for (const LDAPMessage *m = from; m != nullptr; m = m->lm_chain)
        if (m == wanted)
            return true;
    return false;
}

// Takes `msg` out of its row's chain (table lock held) and says which type the caller freed:
// a single record is cut out alone; a record handed out as a chain takes everything after it
// with it, and the type reported is that of the chain's last record (the final result).
int unlink_from_row(LDAPMsgRow *row, LDAPMessage *msg)
{
    const bool single = (msg->lm_flags & LDAP_MSG_SINGLE) != 0;
    if (single) {
        LDAPMessage *next = msg->lm_chain;
        LDAPMessage *prev = msg->lm_prev;
        if (row->first == msg)
            row->first = next;
        else if (prev != nullptr)
            prev->lm_chain = next;
        if (next != nullptr)
            next->lm_prev = prev;
        if (row->last == msg)
            row->last = prev;
        if (row->next_undelivered == msg)
            row->next_undelivered = next;
        msg->lm_chain = nullptr;
        msg->lm_prev = nullptr;
        return msg->lm_msgtype;
    }
    int type = row->last != nullptr ? row->last->lm_msgtype : msg->lm_msgtype;
    if (row->next_undelivered != nullptr && msg_in_chain(msg, row->next_undelivered))
        row->next_undelivered = nullptr; // everything from msg on is freed with it
    if (row->first == msg) {
        row->first = nullptr;
        row->last = nullptr;
    } else {
        row->last = msg->lm_prev;
        msg->lm_prev->lm_chain = nullptr;
        msg->lm_prev = nullptr;
    }
    return type;
}

// True when `msg` is linked in `row`: it heads the chain or has a predecessor there.
bool linked_in_row(const LDAPMsgRow *row, const LDAPMessage *msg)
{
    return row->first == msg || (msg->lm_prev != nullptr && msg->lm_prev->lm_chain == msg);
}
} // namespace

LDAPMessage *ldap_msginit(LDAPConn *lc)
{
    auto *msg = static_cast<LDAPMessage *>(lber_malloc(sizeof(LDAPMessage)));
    if (msg == nullptr)
        return nullptr;
    if (eyecatcher_alive(msg))
        LDAP_TRACE(LDAP_TRC_WARN, "ldap_msginit: Reusing freed LDAPMessage  structure");
    memset(msg, 0, sizeof *msg);
    msg->lm_msgtype = 48;
    msg->lm_conn = lc;
    memcpy(msg->lm_eyecatcher, LDAP_EYE_ALIVE, sizeof LDAP_EYE_ALIVE);
    return msg;
}

int ldap_msg_valid(LDAPMessage *msg)
{
    if (msg == nullptr)
        return 0;
    if (eyecatcher_alive(msg))
        return 1;
    unsigned long first8;
    memcpy(&first8, msg->lm_eyecatcher, sizeof first8);
    LDAP_TRACE(LDAP_TRC_ERROR, "ERROR: EYECATCHER INVALID msg(%p)  [%lX]\n",
               static_cast<void *>(msg), first8);
    pthread_once(&msg_level_once, read_msg_invalid_level);
    if (msg_invalid_level > 0)
        abort();
    return 0;
}

void free_msg(LDAPMessage *msg, int all)
{
    if (msg == nullptr)
        return;
    if (!ldap_msg_valid(msg)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: free_msg invalid parm: %p\n",
                   static_cast<void *>(msg));
        return;
    }
    LDAPMessage *next = msg->lm_chain;
    free_one(msg);
    while (all && next != nullptr) {
        if (!ldap_msg_valid(next)) {
            LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_msgfree:2 invalid msg in list: %p\n",
                       static_cast<void *>(next));
            return;
        }
        LDAPMessage *after = next->lm_chain;
        free_one(next);
        next = after;
    }
}

int ldap_msgfree(LDAPMessage *msg)
{
    if (msg == nullptr)
        return 0;
    if (!ldap_msg_valid(msg)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_msgfree invalid parm: %p\n",
                   static_cast<void *>(msg));
        return 0;
    }
    if (msg->lm_conn == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_msgfree: server pointer NULL\n");
        return 0;
    }
    LDAP *ld = msg->lm_conn->ld;
    if (ld == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_msgfree: ld pointer NULL\n");
        return 0;
    }
    OperationBracket op(ld);
    if (op.rc() != 0)
        return 0;
    return ldap_msgfree_direct(msg);
}

int ldap_msgfree_direct(LDAPMessage *msg)
{
    if (!ldap_msg_valid(msg))
        return 0;
    int type = msg->lm_msgtype;
    LDAPMsgTable *table = msg->lm_conn != nullptr ? msg->lm_conn->table : nullptr;
    if (table == nullptr) {
        free_msg(msg, (msg->lm_flags & LDAP_MSG_SINGLE) == 0);
        return type;
    }
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return 0; // the record stays where it is rather than be freed under another's feet
    int id = msg->lm_msgid;
    if (id >= 0 && static_cast<uint32_t>(id) < table->row_count &&
        linked_in_row(&table->rows[id], msg)) {
        LDAPMsgRow *row = &table->rows[id];
        type = unlink_from_row(row, msg);
        bool done = (row->flags & ROW_COMPLETE) != 0 && row->first == nullptr;
        if (id != 0 && (row->flags & ROW_IN_USE) != 0 && (done || row->referral_error != 0))
            ldap_msg_table_release_msgid_direct(table, id);
    }
    guard.unlock();
    // A single record was cut out alone; a chain takes its followers with it.
    free_msg(msg, (msg->lm_flags & LDAP_MSG_SINGLE) == 0);
    return type;
}

int ldap_msgid(LDAPMessage *msg)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_msgid: msg(%p)\n", static_cast<void *>(msg));
    return msg != nullptr ? msg->lm_msgid : -1;
}

int ldap_msgtype(LDAPMessage *msg) { return msg != nullptr ? msg->lm_msgtype : -1; }

LDAPMessage *ldap_first_message(LDAP *ld, LDAPMessage *res)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    (void)ldap_set_lderrno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    return res;
}

LDAPMessage *ldap_next_message(LDAP *ld, LDAPMessage *msg)
{
    if (!ldap_ld_valid(ld)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_next_message invalid ld: %p\n",
                   static_cast<void *>(ld));
        return nullptr;
    }
    // The bracket also ends the operation when the record is invalid, so that an unbind on
    // this handle never waits for an operation nobody will end.
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    (void)ldap_set_lderrno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    if (!ldap_msg_valid(msg)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_next_message invalid parm: %p\n",
                   static_cast<void *>(msg));
        return nullptr;
    }
    LDAPMessage *next = (msg->lm_flags & LDAP_MSG_SINGLE) != 0 ? nullptr : msg->lm_chain;
    LDAP_TRACE(LDAP_TRC_API, "ldap_next_message: returning (%p)\n", static_cast<void *>(next));
    return next;
}

int ldap_count_messages(LDAP *ld, LDAPMessage *res)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_count_messages: ld(%p) res(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(res));
    if (!ldap_ld_valid(ld))
        return -1;
    int count = 0;
    if (res != nullptr && (res->lm_flags & LDAP_MSG_SINGLE) != 0)
        count = 1;
    else
        for (LDAPMessage *m = res; m != nullptr; m = m->lm_chain)
            ++count;
    LDAP_TRACE(LDAP_TRC_API, "ldap_count_messages: returning (%d)\n", count);
    return count;
}

int is_last_msg(LDAPMessage *msg)
{
    switch (msg->lm_msgtype) {
    case LDAP_RES_BIND:
    case LDAP_RES_SEARCH_RESULT:
    case LDAP_RES_MODDN:
    case LDAP_RES_MODIFY:
    case LDAP_RES_ADD:
    case LDAP_RES_COMPARE:
    case LDAP_RES_DELETE:
    case LDAP_RES_EXTENDED:
        LDAP_TRACE(LDAP_TRC_API, "is_last_msg: returning TRUE, msgid=%d\n", msg->lm_msgid);
        return 1;
    default:
        LDAP_TRACE(LDAP_TRC_API, "is_last_msg: returning FALSE, msgid=%d\n", msg->lm_msgid);
        return 0;
    }
}

void ldap_msg_release_msgid(LDAPMessage *msg)
{
    if (msg != nullptr && msg->lm_conn != nullptr)
        ldap_msg_table_release_msgid(msg->lm_conn->table, msg->lm_msgid);
}
