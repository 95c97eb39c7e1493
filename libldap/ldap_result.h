// Result retrieval: every waiting thread reads the socket itself and files what it read.
#ifndef WZR_LIBLDAP_LDAP_RESULT_H
#define WZR_LIBLDAP_LDAP_RESULT_H

#include "ldap_deadline.h"
#include "ldap_int.h"

int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result);
// ldap_result within a deadline set by the caller's own entry point. In all-mode, *last (when
// asked for) receives the chain's final result, which a long chain would be walked to find.
int ldap_result_until(LDAP *ld, int msgid, int all, const LDAPDeadline &until,
                      LDAPMessage **result, LDAPMessage **last = nullptr);
int ldap_get_result(LDAP *ld, int msgid, int all, const LDAPDeadline &until,
                    LDAPMessage **result, LDAPMsgTable *table);
// One message of the row in one-message mode, with the row's referral policy: chasing on,
// referrals are followed `hops` levels deep at most. A type, 0 on a time-out, -1.
int ldap_return_one_msg(LDAP *ld, int msgid, const LDAPDeadline &until, LDAPMessage **result,
                        LDAPMsgTable *table, int chase, int hops);
int ldap_get_msg(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until);
int wait_for_message(LDAPConn *lc, BerElement *ber, uint32_t *progress,
                     const LDAPDeadline &until);

#endif
