// Server location: the host list of the LDAP servers of a domain, found through DNS (SRV
// records, TXT records holding LDAP URLs, CNAMEs followed) and kept in the server cache file.
#ifndef WZR_LIBLDAP_LDAP_LOCATE_H
#define WZR_LIBLDAP_LDAP_LOCATE_H

#include <cstddef>
#include <cstdint>

#include "ldap_dns.h"

// At most this many servers go into one host list.
inline constexpr unsigned LDAP_LOCATE_MAX_SERVERS = 64;

// The servers for the domain named by the dc= components of `dn` (else "LOCALDOMAIN", else the
// resolver configuration's domain or first search entry), secure ones ("_ldaps._tcp") when
// `secure` is non-zero. 0 with *hosts an allocated host list ("host:port host:port ...", IPv6
// addresses bracketed, SRV records in RFC 2782 order); else LDAP_DNS_RESOLVE_ERROR (no domain,
// or no nameserver answered), LDAP_DNS_CONF_FILE_ERROR (the resolver cannot be set up),
// LDAP_DNS_TRUNCATED, LDAP_DNS_INVALID_DATA, LDAP_NO_RESULTS_RETURNED (the domain names no
// LDAP server), LDAP_NO_MEMORY.
[[nodiscard]] int ldap_locate_servers(const char *dn, int secure, char **hosts);

// The domain of the dc= components of a DN ("dc=example,dc=com" gives "example.com"); false
// when it has none.
bool ldap_locate_domain_from_dn(const char *dn, char *domain, size_t size);

// Puts SRV records in the order RFC 2782 prescribes: ascending priority and, within one
// priority, a weighted random order (a record's chance to come next is proportional to its
// weight; records of weight 0 have a small chance only).
void ldap_locate_order_srv(LDAPDnsRecord *records, unsigned count);

#endif
