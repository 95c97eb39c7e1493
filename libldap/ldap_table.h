// The per-connection message table: id allocation, row ownership, release, child/parent
// links, and filing requests for sending.
#ifndef WZR_LIBLDAP_LDAP_TABLE_H
#define WZR_LIBLDAP_LDAP_TABLE_H

#include <ctime>

#include "ldap_int.h"

// A caller's time-out turned into a point on the monotonic clock, so that a wait spread over
// several reads and sleeps keeps to the one limit. Not limited for a NULL time-out.
struct LDAPDeadline {
    bool limited = false;
    struct timespec at {};
};
LDAPDeadline ldap_deadline_after(const struct timeval *timeout);
bool ldap_time_left(const LDAPDeadline &d, struct timeval *left); // false (and 0) once passed

// Records `code` for the functions whose failure value is -1, and returns -1.
int ldap_fail_minus_one(LDAP *ld, int code);

LDAPMsgTable *ldap_msg_table_init(unsigned count);
void ldap_msg_table_free(LDAPMsgTable *table);
int ldap_msg_table_get_next_msgid(LDAPMsgTable *table); // -1 when none
[[nodiscard]] int ldap_msg_table_send_message(LDAPMsgTable *table, LDAP *ld, LDAPMessage *request,
                                              int *stored, struct timeval *timeout);
int ldap_msg_table_get_message(LDAP *ld, LDAPMsgTable *table, int *msgid,
                               struct timeval *timeout, LDAPMessage **result);
[[nodiscard]] int verify_msgid_n_acquire_row(LDAP *ld, LDAPMsgTable *table, int *msgid, int all);
// 0, or the code it recorded (82 for another thread's or an already collected row, 89).
[[nodiscard]] int verify_acquire_row(LDAP *ld, LDAPMsgRow *row, int msgid, int all);
[[nodiscard]] int ldap_get_msg_any(LDAP *ld, LDAPMsgTable *table, int *msgid, int all);
void ldap_msg_table_release_msgid(LDAPMsgTable *table, int msgid);
void ldap_msg_table_release_msgid_direct(LDAPMsgTable *table, int msgid); // table lock held
int ldap_msg_table_release_if_done(LDAPMsgTable *table, int row);
void ldap_msg_table_release_child(LDAP *ld, LDAPMsgTable *table, int row);
void ldap_msg_table_mark_rows(LDAP *ld, int msgid, uint32_t bits);
void ldap_msg_table_unlink_response(LDAPMessage *msg);
int ldap_msg_table_take_next(LDAPMsgRow *row, LDAPMessage **result);
void ldap_msg_table_clear_row(LDAPMsgRow *row); // table lock held

#endif
