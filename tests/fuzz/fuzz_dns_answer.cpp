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
    for (const LDAPDnsRecord *r = ans.records; r != ans.records + ans.count; ++r)
        if (strlen(r->owner) + strlen(r->target) > 2 * LDAP_DNS_NAME_MAX - 2 ||
            (r->text != nullptr) != (r->type == LDAP_DNS_T_TXT))
            abort();
    if (rc == 0)
        ldap_locate_order_srv(ans.records, ans.count);
    ldap_dns_free_answer(&ans);
    return 0;
}
