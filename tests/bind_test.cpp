// Simple and SASL bind requests byte for byte against the fake server, the mechanisms' paths,
// the bind parameters a handle keeps, response controls and credentials, and the password's
// absence from the trace.
#include <gtest/gtest.h>

#include <string>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_unbind.h"
#include "support/fber_bytes.h"
#include "support/ops_client.h"
#include "support/request_test.h"
#include "support/test_util.h"

namespace {

using namespace wzrtest::fber;

constexpr unsigned BIND = 0x60;

struct BindTest : wzrtest::RequestTest {
    void expect_bind(const Bytes &body, const Bytes &controls = "")
    {
        expect_request(BIND, cons(0x60, body), controls);
    }
};

Bytes sasl(const char *mech) { return cons(0xa3, str(mech)); }

TEST_F(BindTest, SimpleBindCarriesVersionDnAndPassword)
{
    ASSERT_EQ(ldap_simple_bind_s(ld, "cn=Manager,dc=example", "secret"), 0);
    expect_bind(integer(3) + str("cn=Manager,dc=example") + prim(0x80, "secret"));
    ASSERT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
    expect_bind(integer(3) + str("") + prim(0x80, ""));
    int two = 2;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
    ASSERT_EQ(ldap_bind_s(ld, "cn=v2", "pw", LDAP_AUTH_SIMPLE), 0);
    expect_bind(integer(2) + str("cn=v2") + prim(0x80, "pw"));
    EXPECT_EQ(ld->ld_authmethod, LDAP_AUTH_SIMPLE);
    ASSERT_NE(ld->ld_bind_dn, nullptr);
    EXPECT_STREQ(ld->ld_bind_dn, "cn=v2");
    EXPECT_EQ(ld->ld_bind_cred.bv_val, nullptr) << "a simple password is not kept";
}

TEST_F(BindTest, OtherMethodsOfTheOldInterfaceAreRefused)
{
    EXPECT_EQ(ldap_bind_s(ld, "cn=x", "pw", LDAP_AUTH_SASL), LDAP_AUTH_UNKNOWN);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_AUTH_UNKNOWN);
    EXPECT_EQ(ldap_bind(ld, "cn=x", "pw", 0x81), -1);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_AUTH_UNKNOWN);
    EXPECT_EQ(server.count(BIND), 0u);
}

TEST_F(BindTest, UnknownMechanismIsSentAsPlainSaslBind)
{
    struct berval cred = {5, const_cast<char *>("tok\0n")};
    LDAPControl **ctrls = wzrtest::control_list({{"1.9", false}});
    ASSERT_EQ(ldap_sasl_bind_s(ld, "cn=u", "X-MECH", &cred, ctrls, nullptr, nullptr), 0);
    expect_bind(integer(3) + str("cn=u") + cons(0xa3, str("X-MECH") + str(Bytes("tok\0n", 5))),
                cons(0xa0, seq(str("1.9") + boolean(false))));
    // Kept for rebinding: SASL method, mechanism, the credentials cut at their zero byte, and
    // a copy of the controls.
    EXPECT_EQ(ld->ld_authmethod, 2);
    EXPECT_STREQ(ld->ld_bind_mech, "X-MECH");
    EXPECT_STREQ(ld->ld_bind_dn, "cn=u");
    EXPECT_EQ(ld->ld_bind_cred.bv_len, 3u);
    EXPECT_STREQ(ld->ld_bind_cred.bv_val, "tok");
    ASSERT_NE(ld->ld_bind_sctrls, nullptr);
    EXPECT_STREQ(ld->ld_bind_sctrls[0]->ldctl_oid, "1.9");
    EXPECT_NE(ld->ld_bind_sctrls, ctrls);
    ldap_controls_free(ctrls);
    // No credentials: the optional element is left out.
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-OTHER", nullptr, nullptr, nullptr, nullptr), 0);
    expect_bind(integer(3) + str("") + sasl("X-OTHER"));
    EXPECT_EQ(ld->ld_bind_cred.bv_val, nullptr);
}

TEST_F(BindTest, ExternalInAnyCaseWithoutDnOrCredentials)
{
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "external", nullptr, nullptr, nullptr, nullptr), 0);
    expect_bind(integer(3) + str("") + sasl("EXTERNAL"));
    EXPECT_STREQ(ld->ld_bind_mech, "EXTERNAL");
    size_t sent = server.count(BIND);
    struct berval cred = {1, const_cast<char *>("x")};
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", &cred, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=x", "ExTeRnAl", nullptr, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(server.count(BIND), sent);
    // The direct form refuses mechanisms it does not carry.
    int id = 0;
    EXPECT_EQ(ldap_sasl_bind_direct(ld, nullptr, "DIGEST-MD5", nullptr, nullptr, &id, nullptr),
              LDAP_PARAM_ERROR);
}

TEST_F(BindTest, ExternalAnsweredInProgressGetsTheEmptyResponse)
{
    server.server().on_request([](const wzrtest::ReceivedRequest &req, wzrtest::FakeConnection &c) {
        if (req.op != BIND)
            return;
        // The first request has no credentials element: ask for the (empty) response.
        bool has_creds = req.bytes.find(std::string("EXTERNAL") + '\x04') != std::string::npos;
        c.send(wzrtest::ldap_result_pdu(req.msgid, 0x61, has_creds ? 0 : 14));
    });
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(server.count(BIND), 2u);
    expect_bind(integer(3) + str("") + cons(0xa3, str("EXTERNAL") + str("")));
}

TEST_F(BindTest, EmptyMechanismIsASimpleBindWithTheCredentials)
{
    struct berval cred = {4, const_cast<char *>("p\0w!")};
    ASSERT_EQ(ldap_sasl_bind_s(ld, "cn=s", "", &cred, nullptr, nullptr, nullptr), 0);
    expect_bind(integer(3) + str("cn=s") + prim(0x80, Bytes("p\0w!", 4)));
    EXPECT_EQ(ld->ld_authmethod, LDAP_AUTH_SIMPLE);
}

TEST_F(BindTest, AsynchronousSaslBindNeedsItsIdPointer)
{
    EXPECT_EQ(ldap_sasl_bind(ld, nullptr, "X", nullptr, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    int id = -5;
    ASSERT_EQ(ldap_sasl_bind(ld, nullptr, "X", nullptr, nullptr, nullptr, &id), 0);
    ASSERT_GT(id, 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(ld, id, 1, nullptr, &res), LDAP_RES_BIND);
    EXPECT_EQ(ldap_result2error(ld, res, 1), 0);
    int simple = ldap_simple_bind(ld, "cn=a", "b");
    ASSERT_GT(simple, id);
    ASSERT_EQ(ldap_result(ld, simple, 1, nullptr, &res), LDAP_RES_BIND);
    EXPECT_EQ(ldap_result2error(ld, res, 1), 0);
}

TEST_F(BindTest, ServerCredentialsAndResponseControlsAreHandedOut)
{
    using namespace wzrtest;
    server.server().on_request([](const ReceivedRequest &req, FakeConnection &c) {
        if (req.op != BIND)
            return;
        std::string body = ber_int(14, 0x0a) + ber_str("") + ber_str("") + ber_str("chal", 0x87);
        std::string ctrls = ber_seq(ber_seq(ber_str("1.3.6.1.4.1.42.2.27.8.5.1")), 0xa0);
        c.send(ldap_message(req.msgid, ber_seq(body, 0x61), ctrls));
    });
    struct berval *creds = nullptr;
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-STEP", nullptr, nullptr, nullptr, &creds),
              LDAP_SASL_BIND_IN_PROGRESS);
    ASSERT_NE(creds, nullptr);
    EXPECT_EQ(std::string(creds->bv_val, creds->bv_len), "chal");
    ber_bvfree(creds);
    LDAPControl **kept = nullptr;
    ASSERT_EQ(ldap_get_bind_controls(ld, &kept), 0);
    ASSERT_NE(kept, nullptr);
    EXPECT_STREQ(kept[0]->ldctl_oid, "1.3.6.1.4.1.42.2.27.8.5.1");
    ldap_controls_free(kept);
    // The simple form returns the code with the server's message recorded.
    EXPECT_EQ(ldap_simple_bind_s(ld, "cn=a", "b"), LDAP_SASL_BIND_IN_PROGRESS);
}

TEST_F(BindTest, WrongPasswordCodeAndMessageAreRecorded)
{
    using namespace wzrtest;
    server.server().on_request([](const ReceivedRequest &req, FakeConnection &c) {
        if (req.op == BIND)
            c.send(ldap_result_pdu(req.msgid, 0x61, LDAP_INVALID_CREDENTIALS, "", "bad password"));
    });
    EXPECT_EQ(ldap_simple_bind_s(ld, "cn=a", "wrong"), LDAP_INVALID_CREDENTIALS);
    char *matched = nullptr;
    char *msg = nullptr;
    EXPECT_EQ(ldap_get_lderrno(ld, &matched, &msg), LDAP_INVALID_CREDENTIALS);
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(msg, "bad password");
    lber_free(matched);
    lber_free(msg);
}

TEST_F(BindTest, TraceShowsStarsNeverThePassword)
{
    wzrtest::TempDir dir;
    std::string path = dir.file("trace.log");
    ASSERT_EQ(ldap_set_debug_file(path.c_str()), 0);
    ldap_set_debug_mask(0xffff);
    const char *password = "Sup3rS3cretPw";
    // DNs of every length modulo 16, so that some request puts the password inside one line
    // of a sixteen-byte dump.
    int rc = 0;
    for (int pad = 0; pad < 16 && rc == 0; ++pad) {
        std::string dn = "cn=tracer" + std::string(static_cast<size_t>(pad), 'x');
        rc = ldap_simple_bind_s(ld, dn.c_str(), password);
    }
    int id = ldap_simple_bind(ld, "cn=tracer", password);
    ldap_set_debug_mask(0);
    (void)ldap_set_debug_file("stderr");
    EXPECT_EQ(rc, 0);
    EXPECT_GT(id, 0);
    std::string trace = wzrtest::read_file(path);
    EXPECT_NE(trace.find("ldap_simple_bind: entering with"), std::string::npos);
    EXPECT_NE(trace.find("dn(cn=tracer) pw(***)"), std::string::npos);
    size_t leak = trace.find(password);
    EXPECT_EQ(leak, std::string::npos)
        << "the password shows in the trace here:\n"
        << trace.substr(leak < 600 ? 0 : leak - 600, 700);
}

TEST(BindFailures, AllocationFailuresLeakNothing)
{
    wzrtest::AnsweringServer server;
    struct berval cred = {3, const_cast<char *>("abc")};
    auto attempt = [&] {
        LDAP *ld = server.open();
        if (ld == nullptr)
            return false;
        bool ok = ldap_sasl_bind_s(ld, "cn=u", "X-MECH", &cred, nullptr, nullptr, nullptr) == 0 &&
                  ldap_simple_bind_s(ld, "cn=u", "pw") == 0;
        ldap_unbind(ld);
        return ok;
    };
    // One clean run first: process-wide state made once (environment, caches) is not a leak.
    ASSERT_TRUE(attempt());
    // Parsing the response controls kept after a bind may fail without failing the bind.
    int walked = wzrtest::walk_alloc_failures(attempt, false);
    EXPECT_GT(walked, 5);
}

} // namespace
