// Proves the slapd fixture itself (what the server serves is proved by the tests that use it):
// options add entries, stop() leaves no process behind, a restart starts from fresh data.
#include "support/slapd_fixture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <unistd.h>

namespace {

using wzrtest::run_capture;
using wzrtest::SlapdFixture;

// ldapsearch's exit status on `s` (`port` when given), its output in *out; never a user's
// ldap.conf or ~/.ldaprc.
int ldapsearch(const SlapdFixture &s, const std::string &args, std::string *out, int port = 0)
{
    out->clear();
    return run_capture("LDAPNOINIT=1 ldapsearch -x -LLL -H ldap://127.0.0.1:" +
                           std::to_string(port != 0 ? port : s.port()) + " " + args + " 2>&1",
                       out);
}

TEST(SlapdFixture, LoadsBulkAndExtraEntriesStopsByPidAndRestartsFresh)
{
    if (!SlapdFixture::available() || access("/usr/bin/ldapsearch", X_OK) != 0)
        GTEST_SKIP() << "slapd or ldap-utils not installed";
    EXPECT_EQ(&wzrtest::shared_slapd(), &wzrtest::shared_slapd());
    SlapdFixture s;
    wzrtest::SlapdOptions opts;
    opts.bulk_entries = 250;
    opts.extra_ldif = "dn: cn=extra,ou=devices,dc=example,dc=com\nobjectClass: device\ncn: extra\n";
    ASSERT_TRUE(s.start(opts)) << s.error();
    EXPECT_NE(s.port(), wzrtest::shared_slapd().port());
    EXPECT_EQ(s.uri(), "ldap://" + s.host_port());
    EXPECT_EQ(s.host_port(), "127.0.0.1:" + std::to_string(s.port()));
    EXPECT_LT(s.ldapi_path().size(), 108u);
    EXPECT_EQ(s.ldapi_uri().rfind("ldapi://%2F", 0), 0u) << s.ldapi_uri();
    std::string out;
    ASSERT_EQ(ldapsearch(s, "-s one -b ou=bulk," + s.base() + " 1.1", &out), 0) << out;
    size_t entries = 0;
    for (size_t at = out.find("dn:"); at != std::string::npos; at = out.find("\ndn:", at + 1))
        ++entries;
    EXPECT_EQ(entries, 250u);
    ASSERT_EQ(ldapsearch(s, "-s base -b cn=extra,ou=devices," + s.base() + " cn", &out), 0) << out;
    EXPECT_NE(out.find("cn: extra"), std::string::npos) << out;
    EXPECT_NE(s.loaded_ldif().find("uid=bulk000250,ou=bulk"), std::string::npos);

    pid_t pid = s.pid();
    std::string dir = s.dir();
    int port = s.port();
    ASSERT_GT(pid, 0);
    s.stop();
    EXPECT_FALSE(s.running());
    EXPECT_NE(kill(pid, 0), 0) << "the server was reaped";
    EXPECT_NE(ldapsearch(s, "-s base -b \"\" 1.1", &out, port), 0) << out;
    EXPECT_EQ(access(dir.c_str(), F_OK), 0) << "kept for inspection until destroyed";

    ASSERT_TRUE(s.start()) << s.error();
    EXPECT_NE(s.dir(), dir);
    EXPECT_NE(access(dir.c_str(), F_OK), 0) << "old directory left behind";
    EXPECT_EQ(ldapsearch(s, "-s base -b cn=extra,ou=devices," + s.base() + " cn", &out), 32) << out;
}

} // namespace
