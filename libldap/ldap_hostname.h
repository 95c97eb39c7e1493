// Host-name helpers: the reentrant system look-ups with their result buffers allocated (and
// grown as the answer needs) by the library, each failure traced.
#ifndef WZR_LIBLDAP_LDAP_HOSTNAME_H
#define WZR_LIBLDAP_LDAP_HOSTNAME_H

#include <netdb.h>
#include <sys/socket.h>

// A host entry in one allocation (record and everything it points at), freed with
// opx_freehostent; null on failure with *err the resolver's h_errno (NO_RECOVERY when memory
// ran out).
struct hostent *opx_gethostbyname(const char *name, int *err);
struct hostent *opx_gethostbyaddr(const void *addr, socklen_t len, int type, int *err);
void opx_freehostent(struct hostent *h);

// The host and service names of an address (either may be unwanted: pass null), each an
// allocated string the caller frees with lber_free. 0, an EAI_* code, or EAI_MEMORY.
[[nodiscard]] int opx_getnameinfo(const struct sockaddr *sa, socklen_t salen, char **host,
                                  char **serv, int flags);

#endif
