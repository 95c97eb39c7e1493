// Writing a request on its connection: lazy open under the write lock, waiting for a
// writable socket, flushing in pieces.
#ifndef WZR_LIBLDAP_LDAP_REQUEST_H
#define WZR_LIBLDAP_LDAP_REQUEST_H

#include "ldap_int.h"

[[nodiscard]] int ldap_write_msg(LDAP *ld, LDAPMessage *request, struct timeval *timeout);
int waitOnSocket(int sd, struct timeval *timeout);
int ldap_get_write_timeout(); // seconds, -1 when not configured

// Encodes nothing: sends an already encoded request record through its connection's table,
// releasing the message id on failure. The common tail of every operation's _direct form.
[[nodiscard]] int ldap_send_request(LDAP *ld, LDAPConn *lc, LDAPMessage *request,
                                    struct timeval *timeout, int *msgidp);

#endif
