// The per-connection message table: id allocation, row ownership, release, child/parent
// links, and filing requests for sending.
#ifndef WZR_LIBLDAP_LDAP_TABLE_H
#define WZR_LIBLDAP_LDAP_TABLE_H

#include "ldap_deadline.h"
#include "ldap_int.h"

// Offers the table's reading turn to a sleeper, unless a thread reads (takes the table lock).
void ldap_msg_table_offer_turn(LDAPMsgTable *table);

// Wakes every thread waiting on the table, the one reading the socket included, so that each
// looks at its row again (table lock held).
void ldap_msg_table_wake_waiters(LDAPMsgTable *table);
// Wakes the thread waiting for `msgid`'s responses, if one sleeps (table lock held).
void ldap_msg_table_wake_row(LDAPMsgTable *table, int msgid);

// Held by a thread while it collects a whole result message by message: it keeps the reading
// turn between its calls, and offers it to a sleeper once it is done.
class LDAPMsgTableCollecting {
public:
    explicit LDAPMsgTableCollecting(LDAPMsgTable *table);
    ~LDAPMsgTableCollecting();
    LDAPMsgTableCollecting(const LDAPMsgTableCollecting &) = delete;
    LDAPMsgTableCollecting &operator=(const LDAPMsgTableCollecting &) = delete;

private:
    LDAPMsgTable *table_;
};

// Records `code` for the functions whose failure value is -1, and returns -1.
int ldap_fail_minus_one(LDAP *ld, int code);

LDAPMsgTable *ldap_msg_table_init(unsigned count);
void ldap_msg_table_free(LDAPMsgTable *table);
// A fresh message id: -1 when none can be had, LDAP_MSGID_NO_MEMORY when the table could not
// grow for want of memory.
int ldap_msg_table_get_next_msgid(LDAPMsgTable *table);
inline constexpr int LDAP_MSGID_NO_MEMORY = -2;
// The code that a failed ldap_msg_table_get_next_msgid stands for: 90 or 82.
inline int ldap_msgid_failure(int id)
{
    return id == LDAP_MSGID_NO_MEMORY ? LDAP_NO_MEMORY : LDAP_LOCAL_ERROR;
}
[[nodiscard]] int ldap_msg_table_send_message(LDAPMsgTable *table, LDAP *ld, LDAPMessage *request,
                                              int *stored, const LDAPDeadline &until);
// Hands out the next response of the id's row; the record leaves the row (and the row is
// released once its final result is out).
int ldap_msg_table_get_message(LDAP *ld, LDAPMsgTable *table, int *msgid,
                               const LDAPDeadline &until, LDAPMessage **result);
[[nodiscard]] int verify_msgid_n_acquire_row(LDAP *ld, LDAPMsgTable *table, int *msgid, int all);
// 0, or the code it recorded (82 for another thread's or an already collected row, 89).
[[nodiscard]] int verify_acquire_row(LDAP *ld, LDAPMsgRow *row, int msgid, int all);
[[nodiscard]] int ldap_get_msg_any(LDAP *ld, LDAPMsgTable *table, int *msgid, int all);
void ldap_msg_table_release_msgid(LDAPMsgTable *table, int msgid);
void ldap_msg_table_release_msgid_direct(LDAPMsgTable *table, int msgid); // table lock held
int ldap_msg_table_release_if_done(LDAPMsgTable *table, int msgid);
void ldap_msg_table_release_child(LDAP *ld, LDAPMsgTable *table, int msgid);
void ldap_msg_table_mark_rows(LDAP *ld, int msgid, uint32_t bits);
void ldap_msg_table_unlink_response(LDAPMessage *msg);
// Takes the row's next response out of the row for a caller: 1, or 0 when none is left.
int ldap_msg_table_take_next(LDAPMsgRow *row, LDAPMessage **result);
// Puts responses a caller's wait took but did not hand out back at the front of the row.
void ldap_msg_table_put_back(LDAPMsgRow *row, LDAPMessage *chain);
void ldap_msg_table_clear_row(LDAPMsgRow *row); // table lock held; moves the generation on
// The row `msgid` names while that id is the one the row carries (id 0: row 0), else null.
// Table lock held.
LDAPMsgRow *ldap_msg_table_row(LDAPMsgTable *table, int msgid);

#endif
