// Control values: each constructor's bytes once (and what it refuses), the parsers on
// well-formed, malformed and missing values, and every allocation failure on the way.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_unbind.h"
#include "support/control_parse.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"
#include "support/test_util.h"

namespace {

namespace fb = wzrtest::fber;

std::string unhex(const char *text)
{
    std::string out;
    for (std::istringstream in(text); in >> std::ws && !in.eof();) {
        std::string byte(2, '\0');
        in.read(byte.data(), 2);
        out += static_cast<char>(std::stoi(byte, nullptr, 16));
    }
    return out;
}

using Out = LDAPControl **;

struct EncodingCase {
    const char *name;
    std::function<int(LDAPControl **)> make;
    int rc;
    std::string value; // "(none)": the control carries no value
};

TEST(ControlValues, EachConstructorWritesItsValueOrRefusesItsArguments)
{
    // The proxied-authorisation switch is read once: set before its first use here, the older
    // clients' wrapped form is what this program sends (the slapd test sends the standard one).
    wzrtest::ScopedEnv java("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "yes");
    struct berval cookie{2, const_cast<char *>("ab")}, id{1, const_cast<char *>("T")};
    LDAPSortKey **keys = nullptr;
    ASSERT_EQ(ldap_create_sort_keylist(&keys, " -cn:caseExactOrderingMatch  sn "), 0);
    LDAPVLVInfo window{1, 1, 2, 10, 0, nullptr, &id, nullptr};
    char *uid[] = {const_cast<char *>("uid"), nullptr};
    LDAPDerefSpec derefs[] = {{const_cast<char *>("member"), uid}, {nullptr, nullptr}};
    auto mv = [](const char *f) {
        return [f](Out c) { return ldap_create_matchedvalues_control(nullptr, f, 1, c); };
    };
    auto authz = [](const char *id) {
        return [id](Out c) {
            return ldap_create_proxied_authorization_control(nullptr, id, c);
        };
    };
    const EncodingCase cases[] = {
        {"page", [&](Out c) { return ldap_create_page_control(nullptr, 500, &cookie, 0, c); },
         0, unhex("30 08 02 02 01 f4 04 02 61 62")},
        {"sort", [&](Out c) { return ldap_create_sort_control(nullptr, keys, 1, c); }, 0,
         unhex("30 27 30 1f 04 02 63 6e 80 16") + "caseExactOrderingMatch" +
             unhex("81 01 ff 30 04 04 02 73 6e")},
        {"vlv", [&](Out c) { return ldap_create_vlv_control(nullptr, &window, c); }, 0,
         unhex("30 11 02 01 01 02 01 02 a0 06 02 01 0a 02 01 00 04 01 54")},
        {"assertion",
         [](Out c) { return ldap_create_assertion_control(nullptr, "(!(cn=x))", 1, c); },
         0, fb::cons(0xa2, fb::cons(0xa3, fb::str("cn") + fb::str("x")))},
        {"matched values", mv("((mail=*.org)(:caseIgnoreMatch:=x))"), 0,
         fb::seq(fb::cons(0xa4, fb::str("mail") + fb::seq(fb::prim(0x82, ".org"))) +
                 fb::cons(0xa9, fb::prim(0x81, "caseIgnoreMatch") + fb::prim(0x83, "x")))},
        {"proxy v2", authz("u:al"), 0, unhex("04 04 75 3a 61 6c")},
        {"proxy v1", [](Out c) { return ldap_create_proxyauth_control(nullptr, "o=x", 1, c); },
         0, unhex("30 05 04 03 6f 3d 78")},
        {"password policy",
         [](Out c) { return ldap_create_passwordpolicy_control(nullptr, c); }, 0, "(none)"},
        {"deref", [&](Out c) { return ldap_create_deref_control(nullptr, derefs, 0, c); },
         0, unhex("30 11 30 0f 04 06") + "member" + unhex("30 05 04 03") + "uid"},
        {"transaction", [&](Out c) { return ldap_create_txn_spec_control(nullptr, &id, c); },
         0, "T"},
        {"chaining", [](Out c) {
             return ldap_create_chaining_control(nullptr, LDAP_CHAINING_REQUIRED,
                                                 LDAP_REFERRALS_PREFERRED, 0, c);
         }, 0, unhex("30 06 0a 01 01 0a 01 02")},
        {"session tracking",
         [&](Out c) {
             return ldap_create_session_tracking_control(nullptr, "::1", nullptr, "1.2", &id, c);
         },
         0, unhex("30 0f 04 03 3a 3a 31 04 00 04 03 31 2e 32 04 01 54")},
        {"dn marker in values filter", mv("(cn:dn:rule:=x)"), LDAP_FILTER_ERROR, ""},
        {"authzid", authz("cn=x"), LDAP_PARAM_ERROR, ""},
    };
    for (const EncodingCase &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(c.make(&ctrl), c.rc);
        ASSERT_EQ(ctrl != nullptr, c.rc == 0);
        if (ctrl != nullptr) {
            const berval &v = ctrl->ldctl_value;
            EXPECT_EQ(fb::hex(v.bv_val != nullptr ? std::string(v.bv_val, v.bv_len) : "(none)"),
                      fb::hex(c.value));
        }
        ldap_control_free(ctrl);
    }
    ldap_free_sort_keylist(keys);
    for (const char *bad : {"", "  ", "-", "cn:", ":rule", "cn: sn"})
        EXPECT_EQ(ldap_create_sort_keylist(&keys, bad), LDAP_PARAM_ERROR) << bad;
    struct berval *end = nullptr;
    ASSERT_EQ(ldap_txn_end_request_value(nullptr, 0, &id, &end), 0);
    EXPECT_EQ(fb::hex(std::string(end->bv_val, end->bv_len)),
              fb::hex(unhex("30 06 01 01 00 04 01 54")));
    ber_bvfree(end);
}

using wzrtest::ControlParser;

struct ParseCase {
    ControlParser parse;
    const char *oid;
    const char *value; // hex
    const char *expected;
};

TEST(ControlValues, ParsersReadWhatServersSendAndRefuseTheRest)
{
    using P = ControlParser;
    const char *page = LDAP_CONTROL_PAGEDRESULTS, *sort = LDAP_CONTROL_SORTRESPONSE,
               *vlv = LDAP_CONTROL_VLVRESPONSE, *deref = LDAP_CONTROL_DEREF,
               *pp = LDAP_CONTROL_PASSWORDPOLICY;
    const ParseCase cases[] = {
        {P::Page, page, "30 05 02 01 0a 04 02", "84"},
        {P::Page, "1.2.3", "30 05 02 01 00 04 00", "93"},
        {P::SortOrVlv, sort, "30 07 0a 01 10 80 02 63 6e", "0 16 cn"},
        {P::SortOrVlv, sort, "30 07 0a 01 10 04 02 63 6e", "84"},
        {P::SortOrVlv, vlv, "30 0c 02 01 05 02 01 63 0a 01 3d 04 01 43", "0 5 99 61 C"},
        {P::SortOrVlv, vlv, "30 06 02 01 05 02 01 63", "84"},
        {P::Deref, deref, "30 0c 30 0a 04 01 6d 04 03 6f 3d 78 04 00", "84"},
        {P::Deref, deref, "30 0d 30 0b 04 01 6d 04 03 6f 3d 78 a0 01 30", "84"},
        {P::Policy, pp, "30 08 a0 03 81 01 02 81 01 00", "0 2 2 3"},
        {P::Policy, pp, "30 03 81 01 08", "0 0 0 11"},
        {P::Policy, pp, "30 03 81 01 09", "84"},
        {P::Policy, pp, "30 08 81 01 00 a0 03 80 01 3c", "84"},
        {P::Policy, LDAP_CONTROL_PWEXPIRING, "38 36 34 30 30", "0 1 86400 0"},
        {P::Policy, "1.2.3", "30 00", "93"},
    };
    for (const ParseCase &c : cases) {
        SCOPED_TRACE(std::string(c.oid) + " " + c.value);
        std::string raw = unhex(c.value);
        struct berval v{raw.size(), raw.data()};
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(ldap_control_create(c.oid, 0, &v, &ctrl), 0);
        LDAPControl *list[] = {ctrl, nullptr};
        EXPECT_EQ(wzrtest::parse_control(c.parse, list), c.expected);
        ldap_control_free(ctrl);
    }
    int failed = 0;
    std::string end = unhex("30 0a 02 01 07 30 05 30 03 02 01 07");
    struct berval v{end.size(), end.data()};
    EXPECT_EQ(ldap_parse_txn_end_response_value(nullptr, &v, &failed), 0);
    EXPECT_EQ(failed, 7);
}

TEST(ControlValues, NoMemoryAnywhereGivesNinetyAndLeaksNothing)
{
    wzrtest::walk_alloc_failures([] {
        LDAPSortKey **keys = nullptr;
        LDAPControl *sort = nullptr, *pc = nullptr;
        bool ok = ldap_create_sort_keylist(&keys, "-cn:rule sn") == 0 &&
                  ldap_create_sort_control(nullptr, keys, 1, &sort) == 0 &&
                  ldap_create_page_control(nullptr, 5, nullptr, 0, &pc) == 0;
        // A request value has the response's shape: the parser reads it back.
        LDAPControl *list[] = {pc, nullptr};
        ok = ok && wzrtest::parse_control(ControlParser::Page, list) == "0 5 ";
        ldap_free_sort_keylist(keys);
        ldap_control_free(sort);
        ldap_control_free(pc);
        return ok;
    });
}

// Each page's request carries, not critical, the page size and the cookie of the page before;
// a server that hands the same cookie back makes no progress, and the walk stops with 84
// instead of fetching that page for ever.
TEST(ControlValues, PagedSearchSendsTheCookieBackAndStopsWhenItRepeats)
{
    wzrtest::FakeServer server;
    std::string page = wzrtest::ber_seq(wzrtest::ber_int(0) + wzrtest::ber_str("ab"));
    server.on_request([&](const wzrtest::ReceivedRequest &req, wzrtest::FakeConnection &c) {
        std::string ctrl = wzrtest::ber_seq(wzrtest::ber_str(LDAP_CONTROL_PAGEDRESULTS) +
                                            wzrtest::ber_str(page));
        c.send(wzrtest::search_entry_pdu(req.msgid, "cn=x", {}) +
               wzrtest::ldap_message(req.msgid, wzrtest::ber_seq(wzrtest::ber_int(0, 0x0a) +
                                     wzrtest::ber_str("") + wzrtest::ber_str(""), 0x65),
                                     wzrtest::ber_seq(ctrl, 0xa0)));
    });
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    int pages = 0;
    auto count = [](void *arg, LDAP *, LDAPMessage *res) {
        ++*static_cast<int *>(arg);
        ldap_msgfree(res);
        return 0;
    };
    EXPECT_EQ(ldap_search_paged_np(ld, "o=x", 2, "(cn=*)", nullptr, 0, nullptr, 7, nullptr, count,
                                   &pages),
              LDAP_DECODING_ERROR);
    EXPECT_EQ(pages, 2);
    std::vector<wzrtest::ReceivedRequest> sent = server.requests();
    ASSERT_EQ(sent.size(), 2u);
    std::string first = fb::seq(fb::str(LDAP_CONTROL_PAGEDRESULTS) + fb::boolean(false) +
                                fb::str(unhex("30 05 02 01 07 04 00")));
    EXPECT_NE(sent[0].bytes.find(first), std::string::npos);
    EXPECT_NE(sent[1].bytes.find(unhex("30 07 02 01 07 04 02 61 62")), std::string::npos);
    ldap_unbind(ld);
}

} // namespace
