// Parses any bytes as a DNS response with the server-location parser, then runs what it kept
// through the SRV ordering, and releases everything. Every kept record must be well-formed.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "libldap/ldap_dns.h"
#include "libldap/ldap_locate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    LDAPDnsAnswer ans;
    int rc = ldap_dns_parse_answer(data, size, &ans);
    if (ans.count > LDAP_DNS_MAX_RECORDS)
        abort();
    for (unsigned i = 0; i < ans.count; ++i) {
        const LDAPDnsRecord &r = ans.records[i];
        if (strlen(r.owner) >= LDAP_DNS_NAME_MAX || strlen(r.target) >= LDAP_DNS_NAME_MAX ||
            (r.text != nullptr && r.type != LDAP_DNS_T_TXT))
            abort();
    }
    if (rc == 0)
        ldap_locate_order_srv(ans.records, ans.count);
    ldap_dns_free_answer(&ans);
    return 0;
}
