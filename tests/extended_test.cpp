// Extended operations: Who-am-I and an unknown OID against slapd; the request encoding, the
// backup value and its decoded result, and the transaction values against a scripted server.
#include <gtest/gtest.h>

#include <string>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_extended.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_unbind.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"
#include "support/slapd_fixture.h"

using namespace wzrtest;
namespace f = wzrtest::fber;

namespace {

struct Handle {
    LDAP *ld;
    explicit Handle(int port) : ld(ldap_init("127.0.0.1", port))
    {
        int v3 = LDAP_VERSION3;
        (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    }
    ~Handle() { ldap_unbind(ld); }
};

TEST(Extended, WhoAmIGivesTheBoundIdentityAndAnUnknownOidTheServersError)
{
    SlapdFixture &slapd = shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    Handle h(slapd.port());
    ASSERT_EQ(ldap_simple_bind_s(h.ld, slapd.user_dn().c_str(), slapd.user_pw().c_str()), 0);
    struct berval *data = nullptr;
    ASSERT_EQ(ldap_extended_operation_s(h.ld, "1.3.6.1.4.1.4203.1.11.3", nullptr, nullptr,
                                        nullptr, nullptr, &data),
              0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(data->bv_val, data->bv_len), "dn:" + slapd.user_dn());
    ber_bvfree(data);
    EXPECT_EQ(ldap_extended_operation_s(h.ld, "1.2.3.4.5.6.7", nullptr, nullptr, nullptr, nullptr,
                                        &data),
              LDAP_PROTOCOL_ERROR);
    char *text = nullptr;
    EXPECT_EQ(ldap_get_lderrno(h.ld, nullptr, &text), LDAP_PROTOCOL_ERROR);
    EXPECT_NE(std::string(text != nullptr ? text : ""), ""); // the server's own words
    lber_free(text);
}

void answer_extended(FakeServer &s, const std::string &value)
{
    s.on_request([value](const ReceivedRequest &r, FakeConnection &c) {
        c.send(extended_response_pdu(r.msgid, 0, "", "", "", &value));
    });
}

TEST(Extended, RequestValuesBackupResultAndTransactionId)
{
    FakeServer server;
    answer_extended(server, f::seq(f::integer(7)));
    Handle h(server.port());
    int result = -1;
    EXPECT_EQ(ldap_backup(h.ld, &result), 0);
    EXPECT_EQ(result, 7);
    EXPECT_EQ(ldap_extended_operation_s(h.ld, "1.2.3", nullptr, nullptr, nullptr, nullptr,
                                        nullptr),
              0);
    struct berval *id = nullptr; // the transaction id is the whole response value
    ASSERT_EQ(ldap_start_transaction_s(h.ld, &id), 0);
    EXPECT_EQ(ldap_end_transaction_s(h.ld, nullptr, 1), LDAP_PARAM_ERROR); // nothing sent
    EXPECT_EQ(ldap_end_transaction_s(h.ld, id, 1), 0);
    ber_bvfree(id);
    ASSERT_TRUE(server.wait_for_requests(4));
    auto sent = server.requests();
    EXPECT_EQ(f::hex(sent[0].bytes),
              f::hex(f::message(sent[0].msgid,
                                f::cons(0x77, f::prim(0x80, LDAP_BACKUP_RESTORE_OID) +
                                                  f::prim(0x81, f::seq(f::enumerated(1)))))));
    EXPECT_EQ(f::hex(sent[1].bytes),
              f::hex(f::message(sent[1].msgid, f::cons(0x77, f::prim(0x80, "1.2.3")))));
    // The end value: the commit byte, then the id's bytes.
    const std::string end = std::string("\x01", 1) + f::seq(f::integer(7));
    EXPECT_NE(sent[3].bytes.find(f::prim(0x81, end)), std::string::npos);
}

} // namespace
