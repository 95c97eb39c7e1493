// Server location: from a DN or the resolver configuration to a domain, from the domain through
// DNS (SRV, else TXT records holding LDAP URLs; CNAMEs followed) to an ordered host list, with
// the server cache file in front. The resolver state is private to each call, so nothing here
// takes a library lock; DNS answers are read by the byte-fed parser of ldap_dns.
#include "ldap_locate.h"

#include <algorithm>
#include <arpa/nameser.h>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <resolv.h>
#include <strings.h>
#include <unistd.h>

#include "../liblber/ber_memory.h"
#include "../trace/ldap_env.h"
#include "../trace/ldap_trace.h"
#include "ldap_dn.h"
#include "ldap_entry.h"
#include "ldap_srvcache.h"
#include "ldap_url.h"
#include "wzrldap.h"

namespace {

constexpr int MAX_CNAME_HOPS = 8;
constexpr size_t ANSWER_MAX = 65536;
constexpr size_t HOST_ENTRY_MAX = LDAP_DNS_NAME_MAX + 16; // "[name]:65535 "

// A thread's own generator for the weighted order; no lock, and good enough to spread load.
uint32_t next_random()
{
    thread_local uint64_t state = 0;
    if (state == 0)
        state = (static_cast<uint64_t>(time(nullptr)) << 20) ^
                reinterpret_cast<uintptr_t>(&state) ^ static_cast<uint64_t>(getpid()) ^
                0x9E3779B97F4A7C15ull;
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return static_cast<uint32_t>(state >> 32);
}

void lower_copy(char *out, size_t size, const char *in)
{
    size_t n = 0;
    for (; n + 1 < size && in[n] != '\0'; ++n)
        out[n] = (in[n] >= 'A' && in[n] <= 'Z') ? char(in[n] | 0x20) : in[n];
    out[n] = '\0';
    if (n > 0 && out[n - 1] == '.')
        out[n - 1] = '\0'; // an absolute name's final dot
}

bool set_domain(const char *name, char *domain, size_t size)
{
    if (name == nullptr || strlen(name) >= size)
        return false;
    lower_copy(domain, size, name);
    return ldap_dns_host_name_ok(domain);
}

// "LOCALDOMAIN" (its first word), else the resolver's domain or first search entry.
bool default_domain(res_state st, char *domain, size_t size)
{
    char env[LDAP_DNS_NAME_MAX + 1];
    int n = ldap_getenv_buf("LOCALDOMAIN", env, sizeof env);
    if (n > 0 && static_cast<size_t>(n) < sizeof env) {
        env[strcspn(env, " \t")] = '\0';
        return set_domain(env, domain, size);
    }
    if (st->dnsrch[0] != nullptr && set_domain(st->dnsrch[0], domain, size))
        return true;
    return set_domain(st->defdname, domain, size);
}

// One question to the configured nameservers; the parsed answer goes to *ans.
[[nodiscard]] int query(res_state st, const char *name, uint16_t type, unsigned char *buf,
                        LDAPDnsAnswer *ans)
{
    int n = res_nquery(st, name, ns_c_in, type, buf, static_cast<int>(ANSWER_MAX));
    if (n < 0) {
        int herr = st->res_h_errno;
        LDAP_TRACE(LDAP_TRC_API, "ldap_locate_servers: no answer for %s type %u, h_errno=%d\n",
                   name, static_cast<unsigned>(type), herr);
        return herr == HOST_NOT_FOUND || herr == NO_DATA ? LDAP_NO_RESULTS_RETURNED
                                                         : LDAP_DNS_RESOLVE_ERROR;
    }
    if (static_cast<size_t>(n) > ANSWER_MAX)
        return LDAP_DNS_TRUNCATED;
    int rc = ldap_dns_parse_answer(buf, static_cast<size_t>(n), ans);
    if (rc == 0 && ans->truncated)
        rc = LDAP_DNS_TRUNCATED;
    if (rc != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_locate_servers: answer for %s refused, rc=%d\n", name,
                   rc);
    return rc;
}

// Moves `name` along the CNAME records of the answer; true when it moved.
bool follow_cnames(const LDAPDnsAnswer *ans, char *name)
{
    bool moved = false;
    for (unsigned hop = 0; hop < ans->count; ++hop) {
        const LDAPDnsRecord *alias = nullptr;
        for (unsigned i = 0; i < ans->count && alias == nullptr; ++i)
            if (ans->records[i].type == LDAP_DNS_T_CNAME &&
                strcmp(ans->records[i].owner, name) == 0)
                alias = &ans->records[i];
        if (alias == nullptr)
            break;
        memmove(name, alias->target, strlen(alias->target) + 1);
        moved = true;
    }
    return moved;
}

bool has_records(const LDAPDnsAnswer *ans, uint16_t type, const char *owner)
{
    for (unsigned i = 0; i < ans->count; ++i)
        if (ans->records[i].type == type && strcmp(ans->records[i].owner, owner) == 0)
            return true;
    return false;
}

// The records of `type` for `name`, CNAMEs followed (within an answer and by asking again);
// *owner ends as the name that holds them.
[[nodiscard]] int lookup(res_state st, const char *name, uint16_t type, unsigned char *buf,
                         LDAPDnsAnswer *ans, char *owner)
{
    lower_copy(owner, LDAP_DNS_NAME_MAX, name);
    for (int hop = 0; hop <= MAX_CNAME_HOPS; ++hop) {
        ldap_dns_free_answer(ans);
        int rc = query(st, owner, type, buf, ans);
        if (rc != 0)
            return rc;
        bool moved = follow_cnames(ans, owner);
        if (has_records(ans, type, owner))
            return 0;
        if (!moved)
            return LDAP_NO_RESULTS_RETURNED;
    }
    LDAP_TRACE(LDAP_TRC_ERROR, "ldap_locate_servers: CNAME chain of %s too long\n", name);
    return LDAP_DNS_INVALID_DATA;
}

// The host list under construction, with the smallest TTL of the records in it.
struct HostList {
    char *text = nullptr;
    size_t used = 0;
    unsigned entries = 0;
    uint32_t ttl = UINT32_MAX;

    [[nodiscard]] int add(const char *host, unsigned port, uint32_t record_ttl)
    {
        if (entries >= LDAP_LOCATE_MAX_SERVERS || strlen(host) >= LDAP_DNS_NAME_MAX)
            return 0; // a URL's host may be longer than any DNS name: skipped
        if (text == nullptr) {
            text = static_cast<char *>(lber_malloc(LDAP_LOCATE_MAX_SERVERS * HOST_ENTRY_MAX));
            if (text == nullptr)
                return LDAP_NO_MEMORY;
        }
        bool v6 = strchr(host, ':') != nullptr;
        used += static_cast<size_t>(snprintf(text + used, HOST_ENTRY_MAX, "%s%s%s%s:%u",
                                             used != 0 ? " " : "", v6 ? "[" : "", host,
                                             v6 ? "]" : "", port));
        ++entries;
        ttl = std::min(ttl, record_ttl);
        return 0;
    }
    // Hands the list out; LDAP_NO_RESULTS_RETURNED when nothing usable was found.
    int finish(char **hosts, uint32_t *min_ttl)
    {
        if (entries == 0) {
            lber_free(text);
            return LDAP_NO_RESULTS_RETURNED;
        }
        *hosts = text;
        *min_ttl = ttl;
        return 0;
    }
};

[[nodiscard]] int srv_hosts(LDAPDnsAnswer *ans, const char *owner, char **hosts, uint32_t *ttl)
{
    // Usable records to the front (swapped, so every record stays owned by the answer). A target
    // of "." says the service is not offered there; a port of 0 cannot be connected to.
    unsigned usable = 0;
    for (unsigned i = 0; i < ans->count; ++i) {
        const LDAPDnsRecord &r = ans->records[i];
        if (r.type == LDAP_DNS_T_SRV && strcmp(r.owner, owner) == 0 && r.port != 0 &&
            ldap_dns_host_name_ok(r.target))
            std::swap(ans->records[usable++], ans->records[i]);
    }
    ldap_locate_order_srv(ans->records, usable);
    HostList list;
    for (unsigned i = 0; i < usable; ++i) {
        int rc = list.add(ans->records[i].target, ans->records[i].port, ans->records[i].ttl);
        if (rc != 0) {
            lber_free(list.text);
            return rc;
        }
    }
    return list.finish(hosts, ttl);
}

// An IPv4 or IPv6 literal as a URL may carry it.
bool address_literal_ok(const char *host)
{
    return host[0] != '\0' && strspn(host, "0123456789abcdefABCDEF:.") == strlen(host) &&
           strchr(host, ':') != nullptr;
}

// One word of a TXT record: added when it is an LDAP URL of the wanted scheme with a usable
// host and port.
[[nodiscard]] int add_url_host(const char *word, int secure, uint32_t ttl, HostList &list)
{
    LDAPURLDesc *lud = nullptr;
    if (!ldap_is_ldap_url(word) || ldap_url_parse(word, &lud) != 0 || lud == nullptr)
        return 0;
    int rc = 0;
    bool scheme_ok = strcasecmp(lud->lud_scheme, secure ? "ldaps" : "ldap") == 0;
    const char *host = lud->lud_host;
    int port = lud->lud_port > 0 ? lud->lud_port : secure ? LDAPS_PORT : LDAP_PORT;
    if (scheme_ok && host != nullptr && port <= 65535 &&
        (ldap_dns_host_name_ok(host) || address_literal_ok(host)))
        rc = list.add(host, static_cast<unsigned>(port), ttl);
    ldap_free_urldesc(lud);
    return rc;
}

[[nodiscard]] int txt_hosts(const LDAPDnsAnswer *ans, const char *owner, int secure, char **hosts,
                            uint32_t *ttl)
{
    HostList list;
    for (unsigned i = 0; i < ans->count; ++i) {
        const LDAPDnsRecord &r = ans->records[i];
        if (r.type != LDAP_DNS_T_TXT || strcmp(r.owner, owner) != 0 || r.text == nullptr)
            continue;
        char *save = nullptr;
        for (char *w = strtok_r(r.text, " \t", &save); w != nullptr;
             w = strtok_r(nullptr, " \t", &save)) {
            int rc = add_url_host(w, secure, r.ttl, list);
            if (rc != 0) {
                lber_free(list.text);
                return rc;
            }
        }
    }
    return list.finish(hosts, ttl);
}

// SRV records of _ldap._tcp.<domain> (_ldaps for secure servers); TXT records of the domain
// when there are none.
[[nodiscard]] int ask_dns(res_state st, const char *domain, int secure, unsigned char *buf,
                          char **hosts, uint32_t *ttl)
{
    char name[LDAP_DNS_NAME_MAX + 16];
    char owner[LDAP_DNS_NAME_MAX];
    snprintf(name, sizeof name, "_%s._tcp.%s", secure ? "ldaps" : "ldap", domain);
    LDAPDnsAnswer ans{};
    int rc = lookup(st, name, LDAP_DNS_T_SRV, buf, &ans, owner);
    if (rc == 0) {
        rc = srv_hosts(&ans, owner, hosts, ttl);
    } else if (rc == LDAP_NO_RESULTS_RETURNED) {
        rc = lookup(st, domain, LDAP_DNS_T_TXT, buf, &ans, owner);
        if (rc == 0)
            rc = txt_hosts(&ans, owner, secure, hosts, ttl);
    }
    ldap_dns_free_answer(&ans);
    return rc;
}

// A fresh cache entry answers at once; otherwise DNS is asked and the entry replaced. When DNS
// cannot be reached an expired entry is still better than nothing.
[[nodiscard]] int locate_in_domain(res_state st, const char *domain, int secure, char **hosts)
{
    time_t now = time(nullptr);
    char *cached = nullptr;
    SrvCacheState state = ldap_srvcache_read(domain, secure, now, &cached);
    if (state == SrvCacheState::Fresh) {
        LDAP_TRACE(LDAP_TRC_API, "ldap_locate_servers: %s from the cache: %s\n", domain, cached);
        *hosts = cached;
        return 0;
    }
    auto *buf = static_cast<unsigned char *>(lber_malloc(ANSWER_MAX));
    uint32_t ttl = 0;
    int rc = buf != nullptr ? ask_dns(st, domain, secure, buf, hosts, &ttl) : LDAP_NO_MEMORY;
    lber_free(buf);
    if (rc == 0) {
        ldap_srvcache_write(domain, secure, now, ttl, *hosts);
    } else if (cached != nullptr && rc != LDAP_NO_MEMORY && rc != LDAP_NO_RESULTS_RETURNED) {
        LDAP_TRACE(LDAP_TRC_WARN, "ldap_locate_servers: DNS failed (rc=%d), using the expired "
                                  "cache entry of %s\n", rc, domain);
        *hosts = cached;
        return 0;
    }
    lber_free(cached);
    return rc;
}

// Within one priority, each place goes to a record drawn with a chance proportional to its
// weight. Records of weight 0 share one extra chance among them (the small chance RFC 2782
// gives them): one of them is put first, and a draw of 0 picks it. Without such records the
// draw starts at 1, so the first record gets no more than its weight's share.
void order_by_weight(LDAPDnsRecord *r, unsigned b, unsigned e)
{
    for (unsigned pos = b; pos + 1 < e; ++pos) {
        uint32_t sum = 0;
        bool zero = false;
        for (unsigned j = pos; j < e; ++j) {
            sum += r[j].weight;
            if (r[j].weight == 0 && !zero) {
                std::swap(r[pos], r[j]);
                zero = true;
            }
        }
        if (sum == 0)
            return; // only weight 0 left: the order they came in
        uint32_t pick = zero ? next_random() % (sum + 1) : 1 + next_random() % sum;
        uint32_t run = 0;
        for (unsigned j = pos; j < e; ++j) {
            run += r[j].weight;
            if (run >= pick) {
                std::swap(r[pos], r[j]);
                break;
            }
        }
    }
}

} // namespace

bool ldap_locate_domain_from_dn(const char *dn, char *domain, size_t size)
{
    if (dn == nullptr || *dn == '\0')
        return false;
    char **rdns = ldap_explode_dn(dn, 0);
    if (rdns == nullptr)
        return false;
    size_t used = 0;
    bool ok = true;
    for (char **r = rdns; *r != nullptr && ok; ++r) {
        if (strncasecmp(*r, "dc=", 3) != 0 || strchr(*r, '+') != nullptr)
            continue;
        const char *label = *r + 3;
        size_t n = strlen(label);
        ok = n > 0 && used + n + 2 <= size;
        if (ok) {
            if (used != 0)
                domain[used++] = '.';
            memcpy(domain + used, label, n);
            used += n;
        }
    }
    ldap_value_free(rdns);
    if (!ok || used == 0)
        return false;
    domain[used] = '\0';
    return set_domain(domain, domain, size);
}

void ldap_locate_order_srv(LDAPDnsRecord *r, unsigned n)
{
    // Insertion sort: stable, and no buffer outside the library's allocator (n is at most 256).
    for (unsigned i = 1; i < n; ++i)
        for (unsigned j = i; j > 0 && r[j - 1].priority > r[j].priority; --j)
            std::swap(r[j - 1], r[j]);
    for (unsigned b = 0, e; b < n; b = e) {
        for (e = b; e < n && r[e].priority == r[b].priority;)
            ++e;
        order_by_weight(r, b, e);
    }
}

int ldap_locate_servers(const char *dn, int secure, char **hosts)
{
    *hosts = nullptr;
    LDAP_TRACE(LDAP_TRC_API, "ldap_locate_servers: dn(%s) secure(%d)\n",
               dn != nullptr ? dn : "NULL", secure);
    struct __res_state st;
    memset(&st, 0, sizeof st);
    if (res_ninit(&st) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_locate_servers: resolver set-up failed\n");
        res_nclose(&st);
        return LDAP_DNS_CONF_FILE_ERROR;
    }
    char domain[LDAP_DNS_NAME_MAX];
    int rc = LDAP_DNS_RESOLVE_ERROR;
    if (ldap_locate_domain_from_dn(dn, domain, sizeof domain) ||
        default_domain(&st, domain, sizeof domain))
        rc = locate_in_domain(&st, domain, secure, hosts);
    else
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_locate_servers: no domain to search\n");
    res_nclose(&st);
    LDAP_TRACE(LDAP_TRC_API, "ldap_locate_servers: rc=%d hosts(%s)\n", rc,
               *hosts != nullptr ? *hosts : "");
    return rc;
}
