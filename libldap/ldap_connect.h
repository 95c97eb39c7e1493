// Name resolution, connect with time-out, socket modes and connection lookup.
#ifndef WZR_LIBLDAP_LDAP_CONNECT_H
#define WZR_LIBLDAP_LDAP_CONNECT_H

#include <netdb.h>
#include <sys/socket.h>

#include "ldap_int.h"

// port in network byte order
[[nodiscard]] int open_connection(Sockbuf *sb, const char *host, int port, char **unused_out,
                                  int unused_flag, struct timeval *timeout);
[[nodiscard]] int opx_getaddrinfo(const char *host, int port, struct addrinfo **res);
int rqx_connect(int sd, const struct sockaddr *addr, socklen_t addrlen, struct timeval *timeout);
int set_socket_nb_sd(int sd);
int set_socket_blocking_sd(int sd);
int get_socket_flags_sd(int sd);
LDAPConn *ldap_find_conn(LDAP *ld, const char *host, int port, int create, int *rc, int scope);
LDAPConn *get_default_connection(LDAP *ld);

#endif
