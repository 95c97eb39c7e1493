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
    if (id < 0 || static_cast<uint32_t>(id) >= table->row_count) {
        LDAP_TRACE(LDAP_TRC_ERROR, "put_msg_in_table: BAD Msg (%d), throw it.\n", id);
        return LDAP_OTHER;
    }
    LDAPMsgRow &row = table->rows[id];
    if ((row.flags & ROW_ABANDONED) != 0) {
        LDAP_TRACE(LDAP_TRC_API,
                   "put_msg_in_table: Cant store msg since abandon issued for msgid %d\n", id);
        // The server answered the abandoned operation to its end after all: nothing more can
        // come for this id, so it may be handed out again.
        if (id != 0 && is_last_msg(msg) && row.child == nullptr)
            ldap_msg_table_release_msgid_direct(table, id);
        return LDAP_OTHER;
    }
    if (id != 0 && row.request == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "put_msg_in_table: No corresponding request msg found.\n");
        return LDAP_OTHER;
    }
    if (id != 0 && (row.flags & ROW_COMPLETE) != 0) {
        // The chain may already be in a caller's hands; nothing may be linked behind its end.
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "put_msg_in_table: msgid %d already has its final result, throw it.\n", id);
        return LDAP_OTHER;
    }
    append_to_row(row, msg);
    if (id != 0 && is_last_msg(msg)) {
        row.flags |= ROW_COMPLETE;
        if ((row.flags & ROW_RELEASE_WHEN_DONE) != 0)
            ldap_msg_table_release_msgid_direct(table, id);
    }
    return 0;
}
