// Writing a request on its connection: lazy open under the write lock, waiting for a
// writable socket, flushing in pieces.
#ifndef WZR_LIBLDAP_LDAP_REQUEST_H
#define WZR_LIBLDAP_LDAP_REQUEST_H

#include "ldap_deadline.h"
#include "ldap_int.h"

// A connection dies once (a failed open, read or write) and is never reopened. Readers and
// writers test the flag without a common lock, hence atomic access.
void ldap_conn_mark_dead(LDAPConn *lc);
bool ldap_conn_is_dead(const LDAPConn *lc);

[[nodiscard]] int ldap_write_msg(LDAP *ld, LDAPMessage *request, const LDAPDeadline &until);
int waitOnSocket(int sd, struct timeval *timeout);
int ldap_get_write_timeout(); // seconds, -1 when not configured; read once per process

// The pieces of the write time-out, apart for testing: a setting's value (atoi; <= 0 or
// unparsable means not configured, -1), and the wait to use given the configured seconds
// and the caller's time-out (nullptr = no limit; `buffer` receives the chosen value).
int ldap_parse_write_timeout(const char *value);
struct timeval *ldap_write_wait_timeout(int configured, struct timeval *caller,
                                        struct timeval *buffer);

// Encodes nothing: sends an already encoded request record through its connection's table,
// releasing the message id on failure. The common tail of every operation's _direct form.
[[nodiscard]] int ldap_send_request(LDAP *ld, LDAPConn *lc, LDAPMessage *request,
                                    const LDAPDeadline &until, int *msgidp);

#endif
