// The DNS answer parser of server location: byte-fed, no I/O. It reads one response message
// and keeps the answer records server location uses (SRV, TXT, CNAME), rejecting anything that
// runs past the message, loops through name compression or names a host unfit for a host list.
#ifndef WZR_LIBLDAP_LDAP_DNS_H
#define WZR_LIBLDAP_LDAP_DNS_H

#include <cstddef>
#include <cstdint>

inline constexpr uint16_t LDAP_DNS_T_CNAME = 5;
inline constexpr uint16_t LDAP_DNS_T_TXT = 16;
inline constexpr uint16_t LDAP_DNS_T_SRV = 33;
// Text form of a domain name: at most 253 characters and the NUL.
inline constexpr size_t LDAP_DNS_NAME_MAX = 254;
// More answer records than this are ignored: no real domain lists that many servers, and a
// hostile answer must not make the host list grow without bound.
inline constexpr unsigned LDAP_DNS_MAX_RECORDS = 256;

struct LDAPDnsRecord {
    uint16_t type;
    uint32_t ttl;
    uint16_t priority; // SRV only
    uint16_t weight;   // SRV only
    uint16_t port;     // SRV only
    char owner[LDAP_DNS_NAME_MAX];
    char target[LDAP_DNS_NAME_MAX]; // SRV target or CNAME alias, lower case, no final dot
    char *text;                     // TXT: the character-strings joined, NUL-terminated (owned)
};

struct LDAPDnsAnswer {
    bool truncated;        // the server set TC: the answer is incomplete
    unsigned rcode;        // the header's response code
    unsigned count;        // records kept in `records`
    LDAPDnsRecord *records; // owned, lber allocator
};

// Parses one DNS response. 0 with *answer filled (release it with ldap_dns_free_answer even on
// failure), LDAP_DNS_INVALID_DATA for a message that is malformed (cut short, bad compression,
// not a response), LDAP_NO_MEMORY. Records of other types and records whose names cannot be
// host names (SRV target ".", unusual bytes) are skipped, not errors.
[[nodiscard]] int ldap_dns_parse_answer(const unsigned char *msg, size_t len,
                                        LDAPDnsAnswer *answer);
void ldap_dns_free_answer(LDAPDnsAnswer *answer);

// Whether `name` is usable as a host name in a host list (letters, digits, '-', '_', '.').
bool ldap_dns_host_name_ok(const char *name);

#endif
