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

namespace {

constexpr const char *WHOAMI = "1.3.6.1.4.1.4203.1.11.3";

struct Handle {
    LDAP *ld;
    explicit Handle(int port) : ld(ldap_init("127.0.0.1", port))
    {
        int v3 = LDAP_VERSION3;
        (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    }
    ~Handle() { ldap_unbind(ld); }
};

TEST(ExtendedSlapd, WhoAmIReturnsTheBoundIdentity)
{
    SlapdFixture &slapd = shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    Handle h(slapd.port());
    ASSERT_EQ(ldap_simple_bind_s(h.ld, slapd.user_dn().c_str(), slapd.user_pw().c_str()), 0);
    char *oid = nullptr;
    struct berval *data = nullptr;
    ASSERT_EQ(ldap_extended_operation_s(h.ld, WHOAMI, nullptr, nullptr, nullptr, &oid, &data), 0);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(data->bv_val, data->bv_len), "dn:" + slapd.user_dn());
    ber_bvfree(data);
    lber_free(oid);
}

TEST(ExtendedSlapd, UnknownOidReturnsTheServersProtocolErrorWithItsText)
{
    SlapdFixture &slapd = shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    Handle h(slapd.port());
    struct berval *data = nullptr;
    EXPECT_EQ(ldap_extended_operation_s(h.ld, "1.2.3.4.5.6.7", nullptr, nullptr, nullptr, nullptr,
                                        &data),
              LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(data, nullptr);
    char *text = nullptr;
    EXPECT_EQ(ldap_get_lderrno(h.ld, nullptr, &text), LDAP_PROTOCOL_ERROR);
    ASSERT_NE(text, nullptr);
    EXPECT_NE(std::string(text), "");
    lber_free(text);
}

namespace f = wzrtest::fber;

// The server answers every extended request with `value` as its responseValue.
void answer_extended(FakeServer &s, const std::string &value)
{
    s.on_request([value](const ReceivedRequest &r, FakeConnection &c) {
        if (r.op == 0x77)
            c.send(extended_response_pdu(r.msgid, 0, "", "", "", &value));
    });
}

TEST(ExtendedFake, RequestsCarryTheirValueOnlyWhenGiven)
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
    ASSERT_TRUE(server.wait_for_requests(2));
    auto sent = server.requests();
    // The backup value: ENUMERATED 1 in a SEQUENCE with a four-byte length.
    EXPECT_EQ(f::hex(sent[0].bytes),
              f::hex(f::message(sent[0].msgid,
                                f::cons(0x77, f::prim(0x80, LDAP_BACKUP_RESTORE_OID) +
                                                  f::prim(0x81, f::seq(f::enumerated(1)))))));
    EXPECT_EQ(f::hex(sent[1].bytes),
              f::hex(f::message(sent[1].msgid, f::cons(0x77, f::prim(0x80, "1.2.3")))));
}

TEST(ExtendedFake, TransactionValuesAreRawBytes)
{
    char abc[] = "abc";
    struct berval id = {3, abc};
    struct berval *end = createTransIDReqVal(&id, 1);
    ASSERT_NE(end, nullptr);
    EXPECT_EQ(std::string(end->bv_val, end->bv_len), std::string("\x01" "abc"));
    ber_bvfree(end);
    struct berval *copy = nullptr;
    EXPECT_EQ(ldap_get_tran_id(nullptr, &copy), LDAP_PARAM_ERROR);
    FakeServer server;
    answer_extended(server, "tx-42");
    Handle h(server.port());
    ASSERT_EQ(ldap_start_transaction_s(h.ld, &copy), 0);
    EXPECT_EQ(std::string(copy->bv_val, copy->bv_len), "tx-42");
    EXPECT_EQ(ldap_end_transaction_s(h.ld, nullptr, 1), LDAP_PARAM_ERROR); // nothing sent
    EXPECT_EQ(ldap_end_transaction_s(h.ld, copy, 0), 0);
    ber_bvfree(copy);
    ASSERT_TRUE(server.wait_for_requests(2));
    EXPECT_NE(server.requests()[1].bytes.find(std::string("\x81\x06\x00tx-42", 8)),
              std::string::npos);
}

} // namespace
