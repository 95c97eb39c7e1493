// Key storage in a PKCS#11 token: a SoftHSM token made in the test's directory (SOFTHSM2_CONF
// names a private configuration, never the machine's) holds the client key; the key database
// holds only certificates. Runs in a process of its own: the environment is process-wide.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_ssl.h"
#include "libldap/ldap_unbind.h"
#include "support/slapd_fixture.h"
#include "wzrkit/wzrkit.h"

namespace {

const int local_install = setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 0);

// slapd demands a client certificate: the bind proves the handshake signed with the token's key.
TEST(Pkcs11, ClientKeyInATokenServesExternalBind)
{
    wzrtest::SlapdFixture &s = wzrtest::tls_slapd("demand");
    WZR_REQUIRE_SLAPD(s);
    const std::string dir = s.dir() + "/softhsm", tls = s.tls_dir(), keydb = dir + "/certs.pem";
    ASSERT_EQ(mkdir(dir.c_str(), 0700) | mkdir((dir + "/tokens").c_str(), 0700), 0);
    std::ofstream(dir + "/softhsm2.conf") << "directories.tokendir = " << dir << "/tokens\n";
    setenv("SOFTHSM2_CONF", (dir + "/softhsm2.conf").c_str(), 1);
    std::string make = "(softhsm2-util --init-token --free --label wzr --pin 1234 --so-pin 5678 &&"
                       " softhsm2-util --import " + tls + "/client.key --token wzr --label operator"
                       " --id 01 --pin 1234) > /dev/null && cat " + tls + "/ca.pem " + tls +
                       "/client.pem > " + keydb;
    ASSERT_EQ(system(make.c_str()), 0);
    const char *module = "/usr/lib/softhsm/libsofthsm2.so";
    const struct {
        const char *pin;
        int accel, reason;
    } refused[] = {{"4321", 0, WZR_ERR_PKCS11_BAD_PASSWORD}, {"1234", 3, WZR_ERR_UNSUPPORTED}};
    for (const auto &r : refused) {
        int reason = -1;
        EXPECT_EQ(ldap_ssl_pkcs11_environment_init(keydb.c_str(), nullptr, 0, &reason, module,
                                                   "wzr", r.pin, 1, r.accel),
                  LDAP_SSL_INITIALIZE_FAILED);
        EXPECT_EQ(reason, r.reason);
    }
    int reason = -1;
    ASSERT_EQ(ldap_ssl_pkcs11_client_init(keydb.c_str(), nullptr, 0, &reason, module, "wzr",
                                          "1234", 1, 0), 0) << reason;
    LDAP *ld = ldap_init(("ldaps://localhost:" + std::to_string(s.ldaps_port())).c_str(), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CERT_LABEL, "operator"), 0);
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0);
    ldap_unbind(ld);
}

} // namespace
