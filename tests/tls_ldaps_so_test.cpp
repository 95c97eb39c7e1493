// LDAPS through the exported interface alone: an ldaps:// URL to wzr_ldap_init and the
// secure-transport options (key database, its password, certificate label) set with
// wzr_ldap_set_option are all a program needs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "support/slapd_fixture.h"
#include "wzrldap.h"

namespace {

const int local_install = setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 0);

// With every trace class on, neither the key database's password nor the bind password
// reaches the trace.
TEST(LdapsExported, UrlAndOptionsReachAVerifiedServerAndThePasswordStaysSecret)
{
    wzrtest::SlapdFixture &s = wzrtest::tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    std::string trace = s.dir() + "/trace.log", url = "ldaps://localhost:" + std::to_string(s.ldaps_port());
    setenv("LDAP_DEBUG_FILE", trace.c_str(), 1);
    setenv("LDAP_DEBUG", "2147483647", 1);
    auto search_people = [&](LDAP *ld) { // the entries found, or minus the code
        LDAPMessage *res = nullptr;
        struct timeval tv = {10, 0};
        int rc = wzr_ldap_search_st(ld, ("ou=people," + s.base()).c_str(), LDAP_SCOPE_ONELEVEL,
                                    "(uid=user00*)", nullptr, 0, &tv, &res);
        int n = rc == 0 ? wzr_ldap_count_entries(ld, res) : -rc;
        wzr_ldap_msgfree(res);
        return n;
    };
    LDAP *ld = wzr_ldap_init(url.c_str(), 0); // the key database holds the CA
    ASSERT_EQ(wzr_ldap_set_option(ld, LDAP_OPT_SSL_KEYRING, (s.tls_dir() + "/client.p12").c_str()), 0);
    ASSERT_EQ(wzr_ldap_set_option(ld, LDAP_OPT_SSL_KEYRING_PW, s.keydb_pw().c_str()), 0);
    ASSERT_EQ(wzr_ldap_set_option(ld, LDAP_OPT_SSL_CERT_LABEL, "operator"), 0);
    EXPECT_EQ(search_people(ld), 9); // connects and shakes hands under a deadline
    ASSERT_EQ(wzr_ldap_simple_bind_s(ld, s.user_dn().c_str(), s.user_pw().c_str()), 0);
    EXPECT_EQ(search_people(ld), 9);
    EXPECT_EQ(wzr_ldap_unbind(ld), 0);
    // A second handle shares the process's environment: no options needed any more.
    LDAP *again = wzr_ldap_init(url.c_str(), 0);
    EXPECT_EQ(search_people(again), 9);
    EXPECT_EQ(wzr_ldap_unbind(again), 0);
    std::ifstream in(trace);
    std::string all((std::istreambuf_iterator<char>(in)), {});
    EXPECT_NE(all.find("loadSkitShared"), std::string::npos) << "the trace was on";
    EXPECT_EQ(all.find(s.keydb_pw()), std::string::npos);
    EXPECT_EQ(all.find(s.user_pw()), std::string::npos) << "the bind password is masked too";
}

} // namespace
