// LDAPMessage records: creation with the trailing eyecatcher, the validity check, freeing
// (alone or down a chain), the public chain walkers, and ldap_msgfree, which frees what a
// caller was handed without needing the handle that produced it.
#include "ldap_message.h"

#include <cstdlib>
#include <cstring>

#include "../trace/ldap_env.h"
#include "ldap_attr_index.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_table.h"

namespace {

pthread_once_t msg_level_once = PTHREAD_ONCE_INIT;
int msg_invalid_level = 0;

// The reaction to an invalid record, read once per process and cached on its own.
void read_msg_invalid_level() { msg_invalid_level = ldap_invalid_level_from_env(); }

bool eyecatcher_alive(const LDAPMessage *msg)
{
    return memcmp(msg->lm_eyecatcher, LDAP_EYE_ALIVE, sizeof LDAP_EYE_ALIVE) == 0;
}

// A fresh record in `block` (nullptr when its allocation failed).
LDAPMessage *init_record(void *block, LDAPConn *lc)
{
    auto *msg = static_cast<LDAPMessage *>(block);
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

// A received message carries its element, and the PDU's contents when they fit, in its own
// allocation: an entry of a long result costs one allocation and one free instead of three.
constexpr size_t RECEIVED_RECORD_BYTES =
    (sizeof(LDAPMessage) + alignof(BerElement) - 1) & ~(alignof(BerElement) - 1);

// Frees one valid record: its element, then the record with its eyecatcher marked dead.
void free_one(LDAPMessage *msg)
{
    if (msg->lm_ber != nullptr)
        ber_free(msg->lm_ber, 1);
    ldap_attr_index_free(msg);
    memcpy(msg->lm_eyecatcher, LDAP_EYE_DEAD, sizeof LDAP_EYE_DEAD);
    lber_free(msg);
}

// The type a release reports: a single record's own, a chain's last (its final result).
int freed_type(const LDAPMessage *msg)
{
    if ((msg->lm_flags & LDAP_MSG_SINGLE) == 0)
        while (msg->lm_chain != nullptr)
            msg = msg->lm_chain;
    return msg->lm_msgtype;
}
} // namespace

LDAPMessage *ldap_msginit(LDAPConn *lc)
{
    return init_record(lber_malloc(sizeof(LDAPMessage)), lc);
}

LDAPMessage *ldap_msginit_received(LDAP *ld, LDAPConn *lc, size_t contents_room)
{
    void *block = lber_malloc(RECEIVED_RECORD_BYTES + fber_embedded_bytes(contents_room));
    LDAPMessage *msg = init_record(block, lc);
    if (msg == nullptr)
        return nullptr;
    msg->lm_ber = fber_embed(static_cast<char *>(block) + RECEIVED_RECORD_BYTES, contents_room);
    ldap_fber_follow_handle(ld, msg->lm_ber);
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
    if (!all) {
        free_one(msg);
        return;
    }
    // A chain is freed newest record first. The allocator then keeps the newest blocks, those
    // next to the top of the heap, in its per-thread cache, and the rest of the freed result
    // waits in the heap for the next one instead of going back to the kernel and being
    // faulted in again, page by page, when the next result arrives.
    LDAPMessage *newest = nullptr;
    for (LDAPMessage *next = msg; next != nullptr;) {
        if (next != msg && !ldap_msg_valid(next)) {
            LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_msgfree:2 invalid msg in list: %p\n",
                       static_cast<void *>(next));
            break;
        }
        LDAPMessage *after = next->lm_chain;
        next->lm_chain = newest;
        newest = next;
        next = after;
    }
    while (newest != nullptr) {
        LDAPMessage *older = newest->lm_chain;
        free_one(newest);
        newest = older;
    }
}

// A record handed to a caller has left its row and points at nothing of its handle, so it
// is freed here without the handle: results outlive the handle that produced them.
int ldap_msgfree(LDAPMessage *msg)
{
    if (msg == nullptr)
        return 0;
    if (!ldap_msg_valid(msg)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_msgfree invalid parm: %p\n",
                   static_cast<void *>(msg));
        return 0;
    }
    return ldap_msgfree_direct(msg);
}

int ldap_msgfree_direct(LDAPMessage *msg)
{
    if (!ldap_msg_valid(msg))
        return 0;
    int type = freed_type(msg);
    // A record inside a chain the caller holds takes the rest of the chain with it; the
    // records before it stay the caller's and their chain now ends before it.
    if (msg->lm_prev != nullptr && msg->lm_prev->lm_chain == msg)
        msg->lm_prev->lm_chain = nullptr;
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
    ldap_clear_lderrno(ld);
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
    ldap_clear_lderrno(ld);
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
