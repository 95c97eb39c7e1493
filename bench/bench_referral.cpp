// The cost of following one search reference: a subtree search of the first server that
// meets a referral object and follows it to the second (anonymously: no rebind procedure),
// against the same entries searched on the second server directly, as client CPU and wall
// time per search; side by side with OpenLDAP's client library doing the same (it also
// follows the reference and binds anonymously there).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <string>

#include "liblber/ber_memory.h"
#include "libldap/ldap_bind.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "peer_search.h"
#include "support/slapd_fixture.h"

namespace {

constexpr int PARTNERS = 50;
wzrtest::SlapdFixture *first = nullptr;
wzrtest::SlapdFixture *second = nullptr;

double seconds(clockid_t clock)
{
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

std::string partners_base() { return "ou=partners," + first->base(); }

// Runs `search` (which returns the entries it walked, -1 on failure) on the server chosen by
// the benchmark's argument: 1 through the referral on the first, 0 directly on the second.
void measure(benchmark::State &state, const std::function<long(bool, const std::string &)> &search)
{
    const bool via_referral = state.range(0) == 1;
    const std::string base = via_referral ? first->base() : partners_base();
    long entries = 0;
    double cpu0 = seconds(CLOCK_PROCESS_CPUTIME_ID), wall0 = seconds(CLOCK_MONOTONIC);
    for (auto _ : state) {
        long n = search(via_referral, base);
        if (n != PARTNERS) {
            state.SkipWithError("search failed");
            return;
        }
        entries += n;
    }
    double it = static_cast<double>(state.iterations());
    state.counters["entries"] = static_cast<double>(entries) / it;
    state.counters["cpu_us_per_search"] = (seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu0) * 1e6 / it;
    state.counters["wall_us_per_search"] = (seconds(CLOCK_MONOTONIC) - wall0) * 1e6 / it;
}

void BM_ReferenceFollowed_Wzr(benchmark::State &state)
{
    LDAP *ld[2] = {ldap_init("127.0.0.1", second->port()), ldap_init("127.0.0.1", first->port())};
    for (LDAP *h : ld)
        (void)ldap_simple_bind_s(h, nullptr, nullptr); // anonymous, version 3
    measure(state, [&](bool via, const std::string &base) -> long {
        LDAPMessage *res = nullptr;
        if (ldap_search_s(ld[via], base.c_str(), LDAP_SCOPE_SUBTREE, "(uid=partner*)", nullptr, 0,
                          &res) != 0) {
            ldap_msgfree(res);
            return -1;
        }
        long n = 0; // every DN, attribute and value walked, as the peer does
        for (LDAPMessage *e = ldap_first_entry(ld[via], res); e != nullptr;
             e = ldap_next_entry(ld[via], e), ++n) {
            ldap_memfree(ldap_get_dn(ld[via], e));
            BerElement *cursor = nullptr;
            for (char *a = ldap_first_attribute(ld[via], e, &cursor); a != nullptr;
                 a = ldap_next_attribute(ld[via], e, cursor)) {
                ldap_value_free_len(ldap_get_values_len(ld[via], e, a));
                ldap_memfree(a);
            }
            ldap_ber_free(cursor, 0);
        }
        ldap_msgfree(res);
        return n;
    });
    ldap_unbind(ld[0]);
    ldap_unbind(ld[1]);
}
BENCHMARK(BM_ReferenceFollowed_Wzr)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(1.0)
    ->UseRealTime();

void BM_ReferenceFollowed_OpenLDAP(benchmark::State &state)
{
    void *ld[2] = {peer::open_bound(second->uri().c_str(), "", ""),
                   peer::open_bound(first->uri().c_str(), "", "")};
    measure(state, [&](bool via, const std::string &base) -> long {
        peer::WalkTotals totals;
        return peer::search_walk(ld[via], base.c_str(), "(uid=partner*)", &totals)
                   ? totals.entries
                   : -1;
    });
    peer::close(ld[0]);
    peer::close(ld[1]);
}
BENCHMARK(BM_ReferenceFollowed_OpenLDAP)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMicrosecond)
    ->MinTime(1.0)
    ->UseRealTime();

std::string partner_ldif(const std::string &base)
{
    std::string out = "dn: ou=partners," + base + "\nobjectClass: organizationalUnit\n\n";
    for (int i = 1; i <= PARTNERS; ++i)
        out += "dn: uid=partner" + std::to_string(i) + ",ou=partners," + base +
               "\nobjectClass: inetOrgPerson\nuid: partner" + std::to_string(i) +
               "\ncn: Partner\nsn: P\nmail: partner@example.com\n\n";
    return out;
}

} // namespace

int main(int argc, char **argv)
{
    lber_set_accounting(false); // as in a production process
    benchmark::Initialize(&argc, argv);
    wzrtest::SlapdFixture a, b;
    const std::string base = "dc=example,dc=com";
    wzrtest::SlapdOptions one, two;
    two.extra_ldif = partner_ldif(base);
    bool up = wzrtest::SlapdFixture::available() && b.start(two);
    one.extra_ldif = "dn: ou=partners," + base +
                     "\nobjectClass: referral\nobjectClass: extensibleObject\nou: partners\nref: " +
                     b.uri() + "/ou=partners," + base + "\n";
    up = up && a.start(one);
    if (!up) {
        fprintf(stderr, "bench_referral: slapd did not start: %s%s\n", a.error().c_str(),
                b.error().c_str());
        return 1;
    }
    first = &a;
    second = &b;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
