// Search throughput against a local slapd holding 10,000 bulk entries of about ten attributes:
// one subtree search returning them all, every DN, attribute and value walked, measured as
// client CPU and wall time per entry, side by side with the same walk through OpenLDAP's
// client library (peer_search.cpp); the same over LDAPS, and the cost of one LDAPS handshake
// and bind. The same walk over a paged listing of 100,000 entries (pages of 500) from a second
// server. Also filter encoding and DN parsing per second.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <sys/resource.h>
#include <unistd.h>

#include "liblber/ber_memory.h"
#include "libldap/ldap_bind.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_filter.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_ssl.h"
#include "libldap/ldap_unbind.h"
#include "peer_search.h"
#include "support/slapd_fixture.h"

namespace {

constexpr int BULK_ENTRIES = 10000;
constexpr int PAGED_ENTRIES = 100000;
constexpr int PAGE_SIZE = 500;
wzrtest::SlapdFixture *slapd = nullptr;
wzrtest::SlapdFixture *paged_slapd = nullptr; // PAGED_ENTRIES, the control-serving overlays

std::string bulk_base() { return "ou=bulk," + slapd->base(); }

double process_cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The server's CPU (user and system) from /proc: on a small machine the client and slapd share
// the cores, so a rate is only understood together with what the server spent.
double server_cpu_seconds()
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(slapd->pid()));
    FILE *f = fopen(path, "r");
    if (f == nullptr)
        return 0;
    char buf[1024];
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    buf[n] = '\0';
    const char *p = strrchr(buf, ')'); // the command name may hold spaces
    unsigned long utime = 0, stime = 0;
    if (p == nullptr || sscanf(p + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
                               &utime, &stime) != 2)
        return 0;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Minor page faults of this process: freeing a large result lets the allocator give pages back,
// and the next result pays for them again.
long minor_faults()
{
    struct rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    return ru.ru_minflt;
}

double wall_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Per-entry client CPU and wall time over the whole run, next to Google Benchmark's own.
void report(benchmark::State &state, long entries, long values, double cpu, double wall)
{
    double n = static_cast<double>(entries);
    state.counters["entries"] = n / static_cast<double>(state.iterations());
    state.counters["values"] = static_cast<double>(values) / static_cast<double>(state.iterations());
    state.counters["cpu_ns_per_entry"] = n > 0 ? cpu * 1e9 / n : 0;
    state.counters["wall_ns_per_entry"] = n > 0 ? wall * 1e9 / n : 0;
    state.SetItemsProcessed(entries);
}

// Runs `walk` (filling the totals, false on failure) once per iteration, then reports client
// CPU and wall time per entry.
template <typename Walk> void measure_walks(benchmark::State &state, Walk walk)
{
    peer::WalkTotals totals;
    double cpu0 = process_cpu_seconds(), wall0 = wall_seconds();
    long faults0 = minor_faults();
    for (auto _ : state) {
        if (!walk(&totals)) {
            state.SkipWithError("search failed");
            break;
        }
    }
    state.counters["faults_per_walk"] = static_cast<double>(minor_faults() - faults0) /
                                        static_cast<double>(state.iterations());
    report(state, totals.entries, totals.values, process_cpu_seconds() - cpu0,
           wall_seconds() - wall0);
}

// Every DN, attribute and value of a result chain.
void walk_chain(LDAP *ld, LDAPMessage *res, peer::WalkTotals *t)
{
    for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
        ++t->entries;
        ldap_memfree(ldap_get_dn(ld, e));
        BerElement *cursor = nullptr;
        for (char *a = ldap_first_attribute(ld, e, &cursor); a != nullptr;
             a = ldap_next_attribute(ld, e, cursor)) {
            ++t->attributes;
            struct berval **vals = ldap_get_values_len(ld, e, a);
            for (int i = 0; vals != nullptr && vals[i] != nullptr; ++i) {
                ++t->values;
                t->bytes += static_cast<long>(vals[i]->bv_len);
            }
            ldap_value_free_len(vals);
            ldap_memfree(a);
        }
        ldap_ber_free(cursor, 0);
    }
}

LDAP *open_manager(const wzrtest::SlapdFixture &s)
{
    LDAP *ld = ldap_init("127.0.0.1", s.port());
    if (ld != nullptr &&
        ldap_simple_bind_s(ld, s.manager_dn().c_str(), s.manager_pw().c_str()) != 0) {
        ldap_unbind(ld);
        ld = nullptr;
    }
    return ld;
}

std::string ldaps_uri() { return "ldaps://127.0.0.1:" + std::to_string(slapd->ldaps_port()); }

// A handle bound as the manager, over LDAPS or in the clear; nullptr when that fails.
LDAP *open_bound(bool secure)
{
    LDAP *ld = secure ? ldap_init(ldaps_uri().c_str(), 0) : ldap_init("127.0.0.1", slapd->port());
    if (ld != nullptr &&
        ldap_simple_bind_s(ld, slapd->manager_dn().c_str(), slapd->manager_pw().c_str()) != 0) {
        ldap_unbind(ld);
        return nullptr;
    }
    return ld;
}

void subtree_walk_wzr(benchmark::State &state, bool secure)
{
    LDAP *ld = open_bound(secure);
    if (ld == nullptr) {
        state.SkipWithError("bind failed");
        return;
    }
    std::string base = bulk_base();
    measure_walks(state, [&](peer::WalkTotals *totals) {
        LDAPMessage *res = nullptr;
        int rc = ldap_search_s(ld, base.c_str(), LDAP_SCOPE_SUBTREE, "(objectClass=*)", nullptr, 0,
                               &res);
        if (rc == 0)
            walk_chain(ld, res, totals);
        ldap_msgfree(res);
        return rc == 0;
    });
    ldap_unbind(ld);
}

int walk_page(void *arg, LDAP *ld, LDAPMessage *page)
{
    walk_chain(ld, page, static_cast<peer::WalkTotals *>(arg));
    ldap_msgfree(page);
    return 0;
}

void BM_PagedListing_Wzr(benchmark::State &state)
{
    LDAP *ld = open_manager(*paged_slapd);
    if (ld == nullptr) {
        state.SkipWithError("bind failed");
        return;
    }
    std::string base = "ou=bulk," + paged_slapd->base();
    measure_walks(state, [&](peer::WalkTotals *totals) {
        return ldap_search_paged_np(ld, base.c_str(), LDAP_SCOPE_SUBTREE, "(objectClass=*)",
                                    nullptr, 0, nullptr, PAGE_SIZE, nullptr, walk_page,
                                    totals) == 0;
    });
    ldap_unbind(ld);
}
BENCHMARK(BM_PagedListing_Wzr)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_PagedListing_OpenLDAP(benchmark::State &state)
{
    void *ld = peer::open_bound(paged_slapd->uri().c_str(), paged_slapd->manager_dn().c_str(),
                                paged_slapd->manager_pw().c_str());
    if (ld == nullptr) {
        state.SkipWithError("bind failed");
        return;
    }
    std::string base = "ou=bulk," + paged_slapd->base();
    measure_walks(state, [&](peer::WalkTotals *totals) {
        return peer::paged_walk(ld, base.c_str(), "(objectClass=*)", PAGE_SIZE, totals);
    });
    peer::close(ld);
}
BENCHMARK(BM_PagedListing_OpenLDAP)->Unit(benchmark::kMillisecond)->Iterations(3);

void subtree_walk_peer(benchmark::State &state, const std::string &uri)
{
    void *ld = peer::open_bound(uri.c_str(), slapd->manager_dn().c_str(),
                                slapd->manager_pw().c_str());
    if (ld == nullptr) {
        state.SkipWithError("bind failed");
        return;
    }
    std::string base = bulk_base();
    measure_walks(state, [&](peer::WalkTotals *totals) {
        return peer::search_walk(ld, base.c_str(), "(objectClass=*)", totals);
    });
    peer::close(ld);
}

void BM_SubtreeWalk_Wzr(benchmark::State &state) { subtree_walk_wzr(state, false); }
void BM_SubtreeWalk_OpenLDAP(benchmark::State &state) { subtree_walk_peer(state, slapd->uri()); }
void BM_SubtreeWalkLdaps_Wzr(benchmark::State &state) { subtree_walk_wzr(state, true); }
void BM_SubtreeWalkLdaps_OpenLDAP(benchmark::State &state) { subtree_walk_peer(state, ldaps_uri()); }
BENCHMARK(BM_SubtreeWalk_Wzr)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_SubtreeWalk_OpenLDAP)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_SubtreeWalkLdaps_Wzr)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_SubtreeWalkLdaps_OpenLDAP)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// One LDAPS connection: TCP connect, handshake with chain and name checks, bind, unbind.
void BM_LdapsHandshakeAndBind_Wzr(benchmark::State &state)
{
    for (auto _ : state) {
        LDAP *ld = open_bound(true);
        if (ld == nullptr) {
            state.SkipWithError("LDAPS bind failed");
            break;
        }
        ldap_unbind(ld);
    }
}
void BM_LdapsHandshakeAndBind_OpenLDAP(benchmark::State &state)
{
    for (auto _ : state) {
        void *ld = peer::open_bound(ldaps_uri().c_str(), slapd->manager_dn().c_str(),
                                    slapd->manager_pw().c_str());
        if (ld == nullptr) {
            state.SkipWithError("LDAPS bind failed");
            break;
        }
        peer::close(ld);
    }
}
BENCHMARK(BM_LdapsHandshakeAndBind_Wzr)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_LdapsHandshakeAndBind_OpenLDAP)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Small searches (one bulk entry by uid, two attributes) from 1, 4 and 16 threads sharing one
// handle, side by side with OpenLDAP's client library sharing one handle the same way:
// searches per second (real time) and client CPU per search.
constexpr int SMALL_SEARCH_THREADS[] = {1, 4, 16};
char *small_attrs[] = {const_cast<char *>("cn"), const_cast<char *>("mail"), nullptr};
void *shared_handle = nullptr;
double small_cpu0 = 0, small_server_cpu0 = 0;

std::string bulk_filter(long i)
{
    char filter[32];
    snprintf(filter, sizeof filter, "(uid=bulk%06ld)", i % BULK_ENTRIES);
    return filter;
}

template <typename Open, typename Search, typename Close>
void small_searches(benchmark::State &state, Open open, Search search, Close close)
{
    std::string base = bulk_base();
    if (state.thread_index() == 0) {
        shared_handle = open();
        // Untimed searches over the whole tree first, so that neither library is measured while
        // slapd still maps the entries in or settles after the benchmark before it.
        for (long w = 0; shared_handle != nullptr && w < BULK_ENTRIES; ++w)
            (void)search(shared_handle, base, bulk_filter(w));
        small_cpu0 = process_cpu_seconds();
        small_server_cpu0 = server_cpu_seconds();
    }
    long i = state.thread_index() * 1000;
    for (auto _ : state) {
        if (shared_handle == nullptr || !search(shared_handle, base, bulk_filter(i++))) {
            state.SkipWithError("search failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        double searches = static_cast<double>(state.iterations()) * state.threads();
        state.counters["cpu_us_per_search"] = (process_cpu_seconds() - small_cpu0) * 1e6 / searches;
        state.counters["server_cpu_us_per_search"] =
            (server_cpu_seconds() - small_server_cpu0) * 1e6 / searches;
        close(shared_handle);
        shared_handle = nullptr;
    }
}

void BM_SmallSearches_Wzr(benchmark::State &state)
{
    auto open = [] { return static_cast<void *>(open_manager(*slapd)); };
    auto search = [](void *h, const std::string &base, const std::string &filter) {
        LDAPMessage *res = nullptr;
        int rc = ldap_search_s(static_cast<LDAP *>(h), base.c_str(), LDAP_SCOPE_SUBTREE,
                               filter.c_str(), small_attrs, 0, &res);
        ldap_msgfree(res);
        return rc == 0;
    };
    small_searches(state, open, search, [](void *h) { ldap_unbind(static_cast<LDAP *>(h)); });
}

void BM_SmallSearches_OpenLDAP(benchmark::State &state)
{
    auto open = [] {
        return peer::open_bound(slapd->uri().c_str(), slapd->manager_dn().c_str(),
                                slapd->manager_pw().c_str());
    };
    auto search = [](void *h, const std::string &base, const std::string &filter) {
        return peer::search_small(h, base.c_str(), filter.c_str(), small_attrs);
    };
    small_searches(state, open, search, peer::close);
}

void register_small_searches()
{
    for (int threads : SMALL_SEARCH_THREADS) {
        benchmark::RegisterBenchmark("BM_SmallSearches_Wzr", BM_SmallSearches_Wzr)
            ->Threads(threads)->Iterations(8000 / threads)->UseRealTime();
        benchmark::RegisterBenchmark("BM_SmallSearches_OpenLDAP", BM_SmallSearches_OpenLDAP)
            ->Threads(threads)->Iterations(8000 / threads)->UseRealTime();
    }
}

// The same small searches from one thread that keeps 16 of them outstanding on its handle. No
// thread waits to be woken here, so beside the 16-thread run this shows what the hand-offs
// between waiting threads cost, and what one connection to this slapd carries without them.
void BM_PipelinedSearches_Wzr(benchmark::State &state)
{
    constexpr int WINDOW = 16;
    LDAP *ld = open_manager(*slapd);
    std::string base = bulk_base();
    long sent = 0, done = 0;
    auto send = [&] {
        return ld != nullptr && ldap_search(ld, base.c_str(), LDAP_SCOPE_SUBTREE,
                                            bulk_filter(sent++).c_str(), small_attrs, 0) > 0;
    };
    for (int i = 0; i < WINDOW; ++i)
        if (!send())
            state.SkipWithError("search failed");
    double cpu0 = process_cpu_seconds(), server0 = server_cpu_seconds();
    for (auto _ : state) {
        LDAPMessage *res = nullptr;
        int type = ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ALL, nullptr, &res);
        ldap_msgfree(res);
        if (type != LDAP_RES_SEARCH_RESULT || !send()) {
            state.SkipWithError("search failed");
            break;
        }
        ++done;
    }
    state.SetItemsProcessed(done);
    state.counters["cpu_us_per_search"] = (process_cpu_seconds() - cpu0) * 1e6 / done;
    state.counters["server_cpu_us_per_search"] = (server_cpu_seconds() - server0) * 1e6 / done;
    ldap_unbind(ld); // the searches still out are abandoned with the handle
}
BENCHMARK(BM_PipelinedSearches_Wzr)->Iterations(8000)->UseRealTime();

void BM_FilterEncode(benchmark::State &state)
{
    static const char *const filters[] = {
        "(cn=Babs Jensen)",
        "(&(objectClass=inetOrgPerson)(|(sn=Jensen)(cn=Babs J*))(!(mail=*@example.org)))",
        "(o=univ*of*mich*)",
        "(cn:dn:2.4.6.8.10:=Barney)",
        "(&(uid=bulk00*)(description=\\28generated\\29)(telephoneNumber>=555))",
    };
    BerElement *ber = fber_alloc();
    long encoded = 0;
    for (auto _ : state) {
        for (const char *f : filters) {
            ber->ber_ptr = ber->ber_buf;
            if (put_filter(ber, f, 0) != 0) {
                state.SkipWithError("filter failed");
                break;
            }
            ++encoded;
        }
    }
    fber_free(ber);
    state.SetItemsProcessed(encoded);
}
BENCHMARK(BM_FilterEncode);

void BM_DnParse(benchmark::State &state)
{
    static const char *const dns[] = {
        "uid=bulk004711,ou=bulk,dc=example,dc=com",
        "cn=Smith\\, John,ou=people,dc=example,dc=com",
        "cn=x+sn=y,ou=people,dc=example,dc=com",
        "cn=J\\C3\\BCrgen M\\C3\\BCller,ou=people,dc=example,dc=com",
    };
    long parsed = 0;
    for (auto _ : state) {
        for (const char *dn : dns) {
            int err = 0;
            LDAPDN *parsed_dn = parse_dn(dn, LDAP_DN_BUILD_IN_ORDER, &err);
            if (parsed_dn == nullptr) {
                state.SkipWithError("parse_dn failed");
                break;
            }
            ldap_free_dn(parsed_dn);
            ++parsed;
        }
    }
    state.SetItemsProcessed(parsed);
}
BENCHMARK(BM_DnParse);

void BM_DnExplode(benchmark::State &state)
{
    const char *dn = "cn=Smith\\, John,ou=people,dc=example,dc=com";
    long parsed = 0;
    for (auto _ : state) {
        char **parts = ldap_explode_dn(dn, 0);
        benchmark::DoNotOptimize(parts);
        ldap_value_free(parts);
        ++parsed;
    }
    state.SetItemsProcessed(parsed);
}
BENCHMARK(BM_DnExplode);

} // namespace

int main(int argc, char **argv)
{
    // The test support switches allocation accounting on; a production process has it off.
    lber_set_accounting(false);
    benchmark::Initialize(&argc, argv);
    register_small_searches();
    wzrtest::SlapdFixture server;
    wzrtest::SlapdOptions opts;
    opts.bulk_entries = BULK_ENTRIES;
    opts.tls = true;
    // slapd's default pool of 16 threads spends half of its CPU handing work between them on a
    // small machine and caps what one connection carries; a benchmark of clients needs a server
    // with room to spare, so both servers run a thread per core (slapd's minimum is two).
    opts.threads = std::max(2, static_cast<int>(std::thread::hardware_concurrency()));
    if (!wzrtest::SlapdFixture::available() || !server.start(opts)) {
        fprintf(stderr, "bench_search: slapd did not start: %s\n", server.error().c_str());
        return 1;
    }
    wzrtest::SlapdFixture paged;
    wzrtest::SlapdOptions paged_opts;
    paged_opts.bulk_entries = PAGED_ENTRIES;
    paged_opts.controls = true;
    paged_opts.threads = opts.threads;
    if (!paged.start(paged_opts)) {
        fprintf(stderr, "bench_search: the paging slapd did not start: %s\n",
                paged.error().c_str());
        return 1;
    }
    // Both clients trust the sandbox CA; ours finds the toolkit built here (run path).
    std::string ca = server.tls_dir() + "/ca.pem";
    setenv("LDAPTLS_CACERT", ca.c_str(), 1);
    setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 1);
    int reason = 0;
    if (ldap_ssl_client_init(ca.c_str(), nullptr, 0, &reason) != 0)
        fprintf(stderr, "bench_search: no secure transport (reason %d): LDAPS runs fail\n", reason);
    slapd = &server;
    paged_slapd = &paged;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    paged.stop();
    server.stop();
    return 0;
}
