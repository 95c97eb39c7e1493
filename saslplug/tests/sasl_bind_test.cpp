// The Cyrus SASL plug-in against a real slapd (every mechanism, refusals, a chased referral),
// against hostile challenges, and through the tool.
#include <gtest/gtest.h>

#include <sasl/sasl.h>
#include <string>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_config.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_plugin.h"
#include "libldap/ldap_referrals.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "support/fake_server.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"
#include "wzrsasl.h"

// Cyrus's GSSAPI mechanism keeps what gss_acquire_cred_from gives it past sasl_dispose. The
// plug-in makes no GSS-API call itself, so those Kerberos blocks are not its to free.
extern "C" const char *__lsan_default_suppressions()
{
    return "leak:libgssapi_krb5.so\nleak:libkrb5.so\n";
}

namespace {

bool have_kdc() { return access("/usr/sbin/krb5kdc", X_OK) == 0; }

wzrtest::SlapdFixture &sasl_slapd() { return wzrtest::program_slapd({.kerberos = have_kdc()}); }

struct SaslBindTest : ::testing::Test {
    wzrtest::TempDir dir;
    wzrtest::ScopedEnv env{"QRVLDAP_CONF", dir.path()};
    LDAP *ld = nullptr;

    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(sasl_slapd());
        std::string conf;
        for (const char *mech : {"PLAIN", "DIGEST-MD5", "SCRAM-SHA-1", "SCRAM-SHA-256", "GSSAPI"})
            conf += std::string("plugin sasl ") + mech + " " + WZR_SASL_PLUGIN + "\n";
        wzrtest::write_file(dir.file("qrvldap.conf"), conf);
        ldap_conf_reset();
    }
    void TearDown() override
    {
        if (ld != nullptr)
            ldap_unbind(ld);
        ldap_conf_reset();
    }
    // A fresh handle (the previous one unbound) and its synchronous SASL bind.
    int bind(const std::string &host, const char *dn, const char *mech, const char *password)
    {
        if (ld != nullptr)
            ldap_unbind(ld);
        ld = ldap_init(host.c_str(), 0);
        EXPECT_NE(ld, nullptr);
        struct berval pw = {password != nullptr ? strlen(password) : 0,
                            const_cast<char *>(password)};
        return ldap_sasl_bind_s(ld, dn, mech, password != nullptr ? &pw : nullptr, nullptr,
                                nullptr, nullptr);
    }
    std::string errmsg() { return wzrtest::recorded_message(ld); }
};

// GSSAPI takes its identity from the Kerberos ticket the fixture took for alice.
TEST_F(SaslBindTest, EveryMechanismBindsAsTheUsersEntry)
{
    wzrtest::SlapdFixture &s = sasl_slapd();
    const std::string localhost = "localhost:" + std::to_string(s.port());
    struct Case { const char *mech; std::string host; const char *dn, *password; };
    std::vector<Case> cases = {
        {"PLAIN", s.ldapi_path(), "alice", s.user_pw().c_str()},
        {"DIGEST-MD5", localhost, "authcid=alice realm=example", s.user_pw().c_str()},
        {"SCRAM-SHA-1", s.host_port(), "alice", s.user_pw().c_str()},
        {"SCRAM-SHA-256", s.host_port(), "authcid=alice", s.user_pw().c_str()},
    };
    if (have_kdc())
        cases.push_back({"GSSAPI", localhost, nullptr, nullptr});
    for (const Case &c : cases) {
        ASSERT_EQ(bind(c.host, c.dn, c.mech, c.password), 0) << c.mech << ": " << errmsg();
        EXPECT_EQ(wzrtest::whoami(ld), "dn:" + s.user_dn()) << c.mech;
    }
}

TEST_F(SaslBindTest, RefusalsKeepTheServersCodeAndText)
{
    wzrtest::SlapdFixture &s = sasl_slapd();
    EXPECT_EQ(bind(s.host_port(), "alice", "SCRAM-SHA-256", "wrong"), LDAP_INVALID_CREDENTIALS);
    EXPECT_NE(errmsg().find("SASL"), std::string::npos) << errmsg();
    // PLAIN is not offered on a connection without protection.
    EXPECT_EQ(bind(s.host_port(), "alice", "PLAIN", "alice-secret"), LDAP_INAPPROPRIATE_AUTH);
    EXPECT_NE(errmsg().find("mechanism"), std::string::npos) << errmsg();
    // A mechanism with no plug-in goes out as a plain request, which the server refuses.
    EXPECT_EQ(bind(s.host_port(), nullptr, "X-UNKNOWN", nullptr), LDAP_STRONG_AUTH_NOT_SUPPORTED);
    // The plug-in refuses before sending when the mechanism needs a user it was not given.
    EXPECT_EQ(bind(s.host_port(), nullptr, "SCRAM-SHA-1", "x"), LDAP_PARAM_ERROR);
}

// Garbage, enormous or unverifiable challenges end the exchange with a code, leaking nothing.
TEST_F(SaslBindTest, HostileChallengesEndTheExchangeWithACode)
{
    struct Case { const char *mech; int code; std::string creds; } cases[] = { // code: 1st answer
        {"SCRAM-SHA-256", LDAP_SASL_BIND_IN_PROGRESS, "r=,s=\x01,i=-5"},
        {"SCRAM-SHA-1", LDAP_SASL_BIND_IN_PROGRESS, std::string(1 << 20, 'r')},
        {"DIGEST-MD5", LDAP_SASL_BIND_IN_PROGRESS, std::string("\0\xff\x80garbage", 10)},
        {"SCRAM-SHA-256", LDAP_SUCCESS, "v=bm90IHRoZSBzaWduYXR1cmU="},
    };
    // Only each case's second run is counted: the first sets up its plug-in and such.
    for (size_t run = 0; run < 2 * std::size(cases); run++) {
        const Case &c = cases[run / 2];
        wzrtest::FakeServer server;
        server.on_request([&](const wzrtest::ReceivedRequest &r, wzrtest::FakeConnection &conn) {
            std::string op = wzrtest::ber_int(c.code, 0x0a) + wzrtest::ber_str("") +
                             wzrtest::ber_str("") + wzrtest::ber_str(c.creds, 0x87);
            conn.send(wzrtest::ldap_message(r.msgid, wzrtest::ber_tlv(0x61, op)));
        });
        long live = lber_live_blocks();
        int rc = bind(server.host_port(), "alice", c.mech, "pw");
        EXPECT_TRUE(rc != 0 && rc != LDAP_SASL_BIND_IN_PROGRESS) << c.mech << ": " << rc;
        ldap_unbind(ld);
        ld = nullptr;
        EXPECT_TRUE(run % 2 == 0 || lber_live_blocks() == live) << c.mech;
    }
}

TEST_F(SaslBindTest, ToolBindsWithTheMechanismTheFlagsName)
{
    wzrtest::SlapdFixture &s = sasl_slapd();
    std::string tool = std::string(WZR_TOOL_BIN) + " search -H " + s.uri() + " -b " +
                       s.user_dn() + " -s base -Y SCRAM-SHA-256 -U alice -R example ";
    std::string out;
    ASSERT_EQ(wzrtest::run_capture(tool + "-w " + s.user_pw() + " '(uid=*)' uid 2>&1", &out), 0)
        << out;
    EXPECT_NE(out.find("uid: alice"), std::string::npos) << out;
    out.clear();
    EXPECT_EQ(wzrtest::run_capture(tool + "-w wrong uid 2>&1", &out), LDAP_INVALID_CREDENTIALS);
    EXPECT_NE(out.find("additional info: SASL"), std::string::npos) << out;
}

TEST(SaslIdentity, UnknownOrOverlongWordsAreRefused)
{
    wzrsasl_identity id;
    EXPECT_EQ(wzrsasl_bind_identity("nonsense", nullptr, &id), LDAP_PARAM_ERROR);
    std::string too_long = "authcid=" + std::string(300, 'x');
    EXPECT_EQ(wzrsasl_bind_identity(nullptr, too_long.c_str(), &id), LDAP_PARAM_ERROR);
}

// A referral is chased bound with the handle's SASL mechanism: alice reads her own password there.
TEST_F(SaslBindTest, ChasedReferralIsBoundWithTheHandlesSaslMechanismAndCredentials)
{
    wzrtest::SlapdFixture &second = sasl_slapd(), first; // ou=partners: the second's people
    wzrtest::SlapdOptions opts;
    opts.extra_ldif = "dn: ou=partners,dc=example,dc=com\nobjectClass: referral\nobjectClass: "
                      "extensibleObject\nou: partners\nref: " + second.uri() + "/ou=people,dc=example,dc=com\n";
    ASSERT_TRUE(first.start(opts)) << first.error();
    ASSERT_EQ(bind(first.host_port(), "alice", "SCRAM-SHA-256", first.user_pw().c_str()), 0);
    // The procedure only consents: it names no one, and the handle's SASL bind is repeated.
    LDAPRebindProc consent = [](LDAP *, char **, char **, int *method, int) {
        return *method = LDAP_AUTH_SASL, 0;
    };
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(consent)), 0);
    char *attrs[] = {const_cast<char *>("userPassword"), nullptr};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_ext_s(ld, "ou=partners,dc=example,dc=com", LDAP_SCOPE_SUBTREE,
                                "(uid=alice)", attrs, 0, nullptr, nullptr, nullptr, 0, &res), 0);
    char **vals = ldap_get_values(ld, ldap_first_entry(ld, res), attrs[0]);
    EXPECT_EQ(vals != nullptr ? vals[0] : "(not shown)", second.user_pw());
    ldap_value_free(vals);
    ldap_msgfree(res);
}

} // namespace
