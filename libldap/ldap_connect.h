// Name resolution, connect with time-out, socket modes and connection lookup.
#ifndef WZR_LIBLDAP_LDAP_CONNECT_H
#define WZR_LIBLDAP_LDAP_CONNECT_H

#include <netdb.h>
#include <sys/socket.h>

#include "ldap_deadline.h"
#include "ldap_int.h"

// Ports travel in network byte order between the opener and these two. A host beginning
// with "/" is a local-domain socket path. 0, 81, 89 (no Sockbuf), 90, 91, 129.
[[nodiscard]] int open_connection(Sockbuf *sb, const char *host, int port, char **unused_out,
                                  int unused_flag, struct timeval *timeout);
[[nodiscard]] int opx_getaddrinfo(const char *host, int port, struct addrinfo **res);

// The address walk of open_connection: tries every address in list order, closing each
// socket that fails. 0 with *sd set; else the last failure (91 no socket, 81 no connect), 81
// for an empty list.
[[nodiscard]] int connect_first_address(const struct addrinfo *list, struct timeval *timeout,
                                        int *sd);

// 0 or -1 (with a time-out), or the plain connect() result (without one).
int rqx_connect(int sd, const struct sockaddr *addr, socklen_t addrlen, struct timeval *timeout);
int set_socket_nb_sd(int sd);       // 0 or errno
int set_socket_blocking_sd(int sd); // 0 or errno
int get_socket_flags_sd(int sd);    // the file status flags, 0 on failure

// Port in host order; -1 and -2 mean 636 on a secure handle, else 389. scope 1 searches from
// the default connection, otherwise from the first extra one. rc (may be null) gets 0 or the
// code recorded in the handle. A connection opened here keeps to `until` as well.
LDAPConn *ldap_find_conn(LDAP *ld, const char *host, int port, int create, int *rc, int scope,
                         const LDAPDeadline &until = {});
LDAPConn *get_default_connection(LDAP *ld);
// 1 when a TCP socket can be bound to `port` (host order) on the wildcard address of both
// families, else 0.
int can_bind_to_port(int port);

#endif
