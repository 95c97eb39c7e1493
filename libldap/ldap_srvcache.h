// The server cache file of server location: one small text file per domain and kind of server
// (plain or secure) holding the host list found in DNS and when it expires.
//
// Where: "$XDG_CACHE_HOME/wzrldap/", else "$HOME/.cache/wzrldap/" (created with mode 0700); no
// cache at all when neither variable is set. Name: "servers-<domain>.ldap" or
// "servers-<domain>.ldaps". Contents, three lines:
//   wzrldap server cache 1
//   expires <seconds since 1970>
//   hosts <host list as ldap_init takes it>
// Writers put a whole new file next to the old one and rename it over it, so processes and
// threads sharing the file only ever read a complete one. A file that is missing, unreadable,
// malformed, too large or not a regular file reads as no entry; a failed write is traced only.
#ifndef WZR_LIBLDAP_LDAP_SRVCACHE_H
#define WZR_LIBLDAP_LDAP_SRVCACHE_H

#include <cstdint>
#include <ctime>

enum class SrvCacheState { Missing, Expired, Fresh };

// Reads the entry of `domain`; for Fresh and Expired *hosts is an allocated copy of the list.
SrvCacheState ldap_srvcache_read(const char *domain, int secure, time_t now, char **hosts);
// Replaces the entry; a TTL of 0 stores nothing (the answer may not be kept).
void ldap_srvcache_write(const char *domain, int secure, time_t now, uint32_t ttl,
                         const char *hosts);

#endif
