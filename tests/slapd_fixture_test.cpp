// Proves the slapd fixture: the sample tree is served over TCP and ldapi, the user and the
// local peer can authenticate, options add entries, and stop() leaves no process behind.
#include "support/slapd_fixture.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <unistd.h>

namespace {

using wzrtest::run_capture;
using wzrtest::SlapdFixture;

bool have_ldap_utils() { return access("/usr/bin/ldapsearch", X_OK) == 0; }

// Client tools must not pick up a user's ldap.conf or ~/.ldaprc.
std::string tool(const std::string &args) { return "LDAPNOINIT=1 " + args + " 2>&1"; }

int count_lines_starting(const std::string &text, const std::string &prefix)
{
    int n = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos)
            end = text.size();
        if (text.compare(pos, prefix.size(), prefix) == 0)
            n++;
        pos = end + 1;
    }
    return n;
}

bool process_gone(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!in || !std::getline(in, stat))
        return true;
    size_t paren = stat.rfind(')');
    return stat.at(paren + 2) == 'Z';
}

#define REQUIRE_TOOLS()                                                                   \
    do {                                                                                  \
        if (!SlapdFixture::available() || !have_ldap_utils())                             \
            GTEST_SKIP() << "slapd or ldap-utils not installed";                          \
    } while (0)

TEST(SlapdFixture, ServesTheSampleTreeOverTcp)
{
    REQUIRE_TOOLS();
    SlapdFixture &s = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(s);
    EXPECT_EQ(s.uri(), "ldap://127.0.0.1:" + std::to_string(s.port()));
    EXPECT_EQ(s.host_port(), "127.0.0.1:" + std::to_string(s.port()));
    EXPECT_GT(s.port(), 0);

    std::string out;
    ASSERT_EQ(run_capture(tool("ldapsearch -x -H " + s.uri() + " -b " + s.base() + " -LLL dn"),
                          &out), 0) << out;
    int entries = count_lines_starting(out, "dn:");
    EXPECT_GE(entries, 300) << out.substr(0, 500);
    EXPECT_LE(entries, 400);

    // The escaped names resolve to exactly one entry each (searched by DN, compared by meaning).
    for (const char *rdn : {"cn=Smith\\, John", "cn=a\\+b", "cn=\\#hash", "cn=trailing\\ ",
                            "cn=J\xc3\xbcrgen M\xc3\xbcller", "cn=x+sn=y", "uid=carol"}) {
        std::string dn = std::string(rdn) + ",ou=people," + s.base();
        out.clear();
        int rc = run_capture(tool("ldapsearch -x -H " + s.uri() + " -s base -LLL -b \"" + dn +
                                  "\" 1.1"), &out);
        EXPECT_EQ(rc, 0) << dn << ": " << out;
        EXPECT_EQ(count_lines_starting(out, "dn"), 1) << dn << ": " << out;
    }

    // Binary values arrive intact: the photo holds every byte 0x00-0xFF.
    out.clear();
    ASSERT_EQ(run_capture(tool("ldapsearch -x -H " + s.uri() + " -LLL -o ldif-wrap=no -s base" +
                               " -b uid=carol,ou=people," + s.base() + " jpegPhoto"), &out), 0)
        << out;
    EXPECT_NE(out.find("jpegPhoto:: AAECAwQFBgcICQoLDA0ODxAREhMU"), std::string::npos) << out;
    EXPECT_NE(out.find("/P3+/w==\n"), std::string::npos) << out;
}

TEST(SlapdFixture, AuthenticatesUserAndLocalPeer)
{
    REQUIRE_TOOLS();
    SlapdFixture &s = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(s);

    std::string out;
    ASSERT_EQ(run_capture(tool("ldapwhoami -x -H " + s.uri() + " -D " + s.user_dn() + " -w " +
                               s.user_pw()), &out), 0) << out;
    EXPECT_NE(out.find("dn:" + s.user_dn()), std::string::npos) << out;

    out.clear();
    EXPECT_EQ(run_capture(tool("ldapwhoami -x -H " + s.uri() + " -D " + s.user_dn() +
                               " -w wrong-password"), &out), 49) << out;

    out.clear();
    ASSERT_EQ(run_capture(tool("ldapwhoami -x -H " + s.uri() + " -D " + s.manager_dn() + " -w " +
                               s.manager_pw()), &out), 0) << out;
    EXPECT_NE(out.find("dn:" + s.manager_dn()), std::string::npos) << out;

    EXPECT_LT(s.ldapi_path().size(), 108u);
    EXPECT_EQ(s.ldapi_uri().rfind("ldapi://%2F", 0), 0u) << s.ldapi_uri();
    out.clear();
    ASSERT_EQ(run_capture(tool("ldapwhoami -Q -Y EXTERNAL -H " + s.ldapi_uri()), &out), 0) << out;
    EXPECT_NE(out.find("dn:" + s.external_dn()), std::string::npos) << out;
}

TEST(SlapdFixture, LoadsBulkAndExtraEntriesAndStopsByPid)
{
    REQUIRE_TOOLS();
    SlapdFixture s;
    wzrtest::SlapdOptions opts;
    opts.bulk_entries = 250;
    opts.extra_ldif = "dn: cn=extra,ou=devices,dc=example,dc=com\n"
                      "objectClass: device\ncn: extra\n";
    ASSERT_TRUE(s.start(opts)) << s.error();
    EXPECT_NE(s.port(), wzrtest::shared_slapd().port());

    std::string out;
    ASSERT_EQ(run_capture(tool("ldapsearch -x -H " + s.uri() + " -LLL -s one -b ou=bulk," +
                               s.base() + " 1.1"), &out), 0) << out;
    EXPECT_EQ(count_lines_starting(out, "dn:"), 250);
    out.clear();
    ASSERT_EQ(run_capture(tool("ldapsearch -x -H " + s.uri() + " -LLL -s base" +
                               " -b cn=extra,ou=devices," + s.base() + " cn"), &out), 0) << out;
    EXPECT_NE(out.find("cn: extra"), std::string::npos) << out;
    EXPECT_NE(s.loaded_ldif().find("uid=bulk000250,ou=bulk"), std::string::npos);

    // The manager may write, and the write sticks.
    out.clear();
    std::string change = "dn: cn=extra,ou=devices," + s.base() + "\\nchangetype: delete\\n";
    ASSERT_EQ(run_capture("printf '" + change + "' | " +
                              tool("ldapmodify -x -H " + s.uri() + " -D " + s.manager_dn() +
                                   " -w " + s.manager_pw()), &out), 0) << out;
    out.clear();
    EXPECT_EQ(run_capture(tool("ldapsearch -x -H " + s.uri() + " -LLL -s base" +
                               " -b cn=extra,ou=devices," + s.base() + " cn"), &out), 32) << out;

    pid_t pid = s.pid();
    std::string dir = s.dir();
    int port = s.port();
    ASSERT_GT(pid, 0);
    s.stop();
    EXPECT_FALSE(s.running());
    EXPECT_TRUE(process_gone(pid));
    out.clear();
    EXPECT_NE(run_capture(tool("ldapsearch -x -H ldap://127.0.0.1:" + std::to_string(port) +
                               " -LLL -s base -b \"\" 1.1"), &out), 0) << out;
    // The directory stays for inspection until the fixture is destroyed.
    EXPECT_EQ(access(dir.c_str(), F_OK), 0);
}

TEST(SlapdFixture, RestartsWithFreshDataAndSharedInstanceIsSingle)
{
    REQUIRE_TOOLS();
    SlapdFixture &a = wzrtest::shared_slapd();
    SlapdFixture &b = wzrtest::shared_slapd();
    EXPECT_EQ(&a, &b);

    SlapdFixture s;
    ASSERT_TRUE(s.start()) << s.error();
    std::string first_dir = s.dir();
    s.stop();
    ASSERT_TRUE(s.start()) << s.error();
    EXPECT_NE(s.dir(), first_dir);
    EXPECT_NE(access(first_dir.c_str(), F_OK), 0) << "old directory left behind";
    std::string out;
    EXPECT_EQ(run_capture(tool("ldapsearch -x -H " + s.uri() + " -LLL -s base -b " + s.base() +
                               " dc"), &out), 0) << out;
}

} // namespace
