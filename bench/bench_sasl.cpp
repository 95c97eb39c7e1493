// A SCRAM-SHA-256 bind (connect, the three-message exchange, unbind) through the library and
// its Cyrus SASL plug-in, beside the same bind through OpenLDAP's client library, against one
// local slapd. CPU time is the client's: the server runs in its own process.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_unbind.h"
#include "peer_sasl.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"

namespace {

wzrtest::SlapdFixture *slapd = nullptr;
constexpr const char *MECH = "SCRAM-SHA-256";

void BM_ScramBind_Wzr(benchmark::State &state)
{
    struct berval pw = {slapd->user_pw().size(), const_cast<char *>(slapd->user_pw().c_str())};
    for (auto _ : state) {
        LDAP *ld = ldap_init(slapd->host_port().c_str(), 0);
        if (ld == nullptr ||
            ldap_sasl_bind_s(ld, "alice", MECH, &pw, nullptr, nullptr, nullptr) != 0) {
            state.SkipWithError("bind failed");
            break;
        }
        ldap_unbind(ld);
    }
}
BENCHMARK(BM_ScramBind_Wzr)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ScramBind_OpenLDAP(benchmark::State &state)
{
    for (auto _ : state) {
        if (!peer::sasl_bind_once(slapd->uri().c_str(), MECH, "alice", slapd->user_pw().c_str())) {
            state.SkipWithError("bind failed");
            break;
        }
    }
}
BENCHMARK(BM_ScramBind_OpenLDAP)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    wzrtest::SlapdFixture server;
    if (!wzrtest::SlapdFixture::available() || !server.start()) {
        fprintf(stderr, "bench_sasl: slapd did not start: %s\n", server.error().c_str());
        return 1;
    }
    slapd = &server;
    wzrtest::TempDir dir;
    wzrtest::write_file(dir.file("qrvldap.conf"),
                        std::string("plugin sasl ") + MECH + " " + WZR_SASL_PLUGIN + "\n");
    setenv("QRVLDAP_CONF", dir.path().c_str(), 1);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
