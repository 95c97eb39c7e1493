// The table's queue of received messages: a reader files what it read here holding only the
// queue lock, and the next holder of the table lock drains the queue into the rows.
#include "ldap_queue.h"

#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_table.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_queue";

void append_to_row(LDAPMsgRow &row, LDAPMessage *msg)
{
    msg->lm_chain = nullptr;
    msg->lm_prev = row.last;
    if (row.last != nullptr)
        row.last->lm_chain = msg;
    else
        row.first = msg;
    row.last = msg;
    if (row.next_undelivered == nullptr)
        row.next_undelivered = msg;
}

// Row 0 keeps only the newest unsolicited messages: a server that sends them unasked must not
// make the client hold them without bound when nobody asks for them.
constexpr int MAX_UNSOLICITED = 64;

void make_room_for_unsolicited(LDAPMsgRow &row)
{
    int kept = 0;
    for (const LDAPMessage *m = row.first; m != nullptr; m = m->lm_chain)
        ++kept;
    while (kept-- >= MAX_UNSOLICITED) {
        LDAPMessage *oldest = row.first;
        row.first = oldest->lm_chain;
        if (row.first != nullptr)
            row.first->lm_prev = nullptr;
        else
            row.last = nullptr;
        row.next_undelivered = row.first;
        LDAP_TRACE(LDAP_TRC_WARN,
                   "put_msg_in_table: unsolicited message of type 0x%x dropped, %d kept\n",
                   static_cast<unsigned>(oldest->lm_msgtype), MAX_UNSOLICITED);
        oldest->lm_chain = nullptr;
        free_msg(oldest, 0);
    }
}
} // namespace

void put_msg_in_queue(LDAPMsgTable *table, LDAPMessage *msg)
{
    LDAP_TRACE(LDAP_TRC_API, "put_msg_in_queue: storing msgid=%d in queue\n", msg->lm_msgid);
    LDAP_LOCK(guard, &table->queue_lock, MODULE);
    if (!guard.locked()) {
        LDAP_TRACE(LDAP_TRC_ERROR, "put_msg_in_queue: failed to lock queue, rc=%d\n", guard.rc());
        free_msg(msg, 0); // dropped: nobody could ever collect it
        return;
    }
    msg->lm_chain = nullptr;
    if (table->queue_tail != nullptr)
        table->queue_tail->lm_chain = msg;
    else
        table->queue_head = msg;
    table->queue_tail = msg;
}

void flush_queue(LDAPMsgTable *table)
{
    LDAPMessage *head;
    {
        LDAP_LOCK(guard, &table->queue_lock, MODULE);
        if (!guard.locked()) {
            LDAP_TRACE(LDAP_TRC_ERROR, "flush_queue: failed to lock queue!\n");
            return;
        }
        // Detach the whole queue: the rows are filed under the table lock alone, so a reader
        // queuing its next message does not wait for the filing.
        head = table->queue_head;
        table->queue_head = nullptr;
        table->queue_tail = nullptr;
    }
    while (head != nullptr) {
        LDAPMessage *next = head->lm_chain;
        if (put_msg_in_table(table, head) != 0)
            free_msg(head, 0);
        head = next;
    }
}

int put_msg_in_table(LDAPMsgTable *table, LDAPMessage *msg)
{
    const int id = msg->lm_msgid;
    LDAP_TRACE(LDAP_TRC_API, "put_msg_in_table: storing msgtype=0x%x, msgid=%d in table\n",
               static_cast<unsigned>(msg->lm_msgtype), id);
    if (id < 0 || (static_cast<uint32_t>(id) & LDAP_MSGID_ROW_MASK) >= table->row_count) {
        LDAP_TRACE(LDAP_TRC_ERROR, "put_msg_in_table: BAD Msg (%d), throw it.\n", id);
        return LDAP_OTHER;
    }
    // A response for an id that no longer names its row belongs to an operation that was
    // abandoned or timed out and released; it is never filed under the row's new operation.
    LDAPMsgRow *row = ldap_msg_table_row(table, id);
    if (row == nullptr || (id != 0 && row->request == nullptr)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "put_msg_in_table: No corresponding request msg found.\n");
        return LDAP_OTHER;
    }
    if ((row->flags & ROW_ABANDONED) != 0) {
        LDAP_TRACE(LDAP_TRC_API,
                   "put_msg_in_table: Cant store msg since abandon issued for msgid %d\n", id);
        return LDAP_OTHER;
    }
    if (id != 0 && (row->flags & ROW_COMPLETE) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "put_msg_in_table: msgid %d already has its final result, throw it.\n", id);
        return LDAP_OTHER;
    }
    if (id == 0)
        make_room_for_unsolicited(*row);
    append_to_row(*row, msg);
    ldap_msg_table_wake_row(table, id);
    if (id != 0 && is_last_msg(msg)) {
        row->flags |= ROW_COMPLETE;
        if ((row->flags & ROW_RELEASE_WHEN_DONE) != 0)
            ldap_msg_table_release_msgid_direct(table, id);
    }
    return 0;
}
