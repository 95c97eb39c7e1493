// Result retrieval: every waiting thread reads the socket itself and files what it read.
#ifndef WZR_LIBLDAP_LDAP_RESULT_H
#define WZR_LIBLDAP_LDAP_RESULT_H

#include "ldap_int.h"

int ldap_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result);
int ldap_get_result(LDAP *ld, int msgid, int all, struct timeval *timeout, LDAPMessage **result,
                    LDAPMsgTable *table);
int ldap_get_msg(LDAP *ld, LDAPConn *lc, struct timeval *timeout);
int wait_for_message(LDAPConn *lc, BerElement *ber, uint32_t *progress, struct timeval *timeout);

#endif
