// The search request byte for byte against the fake server: limits, the time-out rule,
// attrs-only, attribute lists, controls, malformed filters, and the row of a timed-out
// synchronous search.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/fber_bytes.h"
#include "support/ops_client.h"
#include "support/request_test.h"
#include "support/test_util.h"

namespace {

using namespace wzrtest::fber;

constexpr unsigned SEARCH = 0x63;

struct SearchTest : wzrtest::RequestTest {
    void expect_search(const Bytes &body, const Bytes &controls = "")
    {
        expect_request(SEARCH, cons(0x63, body), controls);
    }
};

// The fixed part of a SearchRequest up to the filter.
Bytes head(const char *base, int scope, int deref, int size, int time, bool attrsonly)
{
    return str(base) + enumerated(scope) + enumerated(deref) + integer(size) + integer(time) +
           boolean(attrsonly);
}

Bytes eq(const char *a, const char *v) { return cons(0xa3, str(a) + str(v)); }

TEST_F(SearchTest, ExtendedFormEncodesEveryField)
{
    char *attrs[] = {const_cast<char *>("cn;binary"), const_cast<char *>("+"),
                     const_cast<char *>("@person"), nullptr};
    LDAPControl **ctrls = wzrtest::control_list({{"1.2.840.113556.1.4.319", true, "page"}});
    struct timeval tv = {30, 0};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_ext_s(ld, "dc=example,dc=com", LDAP_SCOPE_SUBTREE, "(cn=Babs Jensen)",
                                attrs, 1, ctrls, nullptr, &tv, 200, &res),
              0);
    ldap_controls_free(ctrls);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(ldap_msgtype(res), LDAP_RES_SEARCH_RESULT);
    ldap_msgfree(res);
    expect_search(head("dc=example,dc=com", 2, 0, 200, 30, true) + eq("cn", "Babs Jensen") +
                      seq(str("cn;binary") + str("+") + str("@person")),
                  cons(0xa0, seq(str("1.2.840.113556.1.4.319") + boolean(true) + str("page"))));
}

TEST_F(SearchTest, TimeLimitComesFromTheTimeoutOrTheHandle)
{
    LDAPMessage *res = nullptr;
    struct timeval micro = {0, 900000};
    ASSERT_EQ(ldap_search_ext_s(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, nullptr,
                                nullptr, &micro, 0, &res),
              0);
    ldap_msgfree(res);
    Bytes present = prim(0x87, "objectClass");
    // Seconds raised to 1 when only microseconds were given; no attributes: an empty list.
    expect_search(head("", 0, 0, 0, 1, false) + present + seq(""));

    int size = 5, time = 7, deref = LDAP_DEREF_ALWAYS;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &size), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &time), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_DEREF, &deref), 0);
    int id = ldap_search(ld, "o=x", LDAP_SCOPE_ONELEVEL, "(objectClass=*)", nullptr, 0);
    ASSERT_GT(id, 0);
    ASSERT_EQ(ldap_result(ld, id, 1, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    ldap_msgfree(res);
    expect_search(head("o=x", 1, 3, 5, 7, false) + present + seq(""));

    // The synchronous classic form sends no size limit and the handle's time limit.
    ASSERT_EQ(ldap_search_s(ld, "o=x", LDAP_SCOPE_BASE, "cn=abc", nullptr, 0, &res), 0);
    ldap_msgfree(res);
    expect_search(head("o=x", 0, 3, 0, 7, false) + eq("cn", "abc") + seq(""));

    // A large limit takes the four-byte integer form.
    struct timeval big = {3600, 0};
    ASSERT_EQ(ldap_search_ext_s(ld, "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, nullptr, nullptr,
                                &big, 1000, &res),
              0);
    ldap_msgfree(res);
    expect_search(head("o=x", 0, 3, 1000, 3600, false) + eq("cn", "a") + seq(""));
}

TEST_F(SearchTest, ParameterAndFilterErrorsSendNothing)
{
    LDAPMessage *res = reinterpret_cast<LDAPMessage *>(1);
    EXPECT_EQ(ldap_search_s(ld, "o=x", 3, "(cn=a)", nullptr, 0, &res), LDAP_PARAM_ERROR);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_search(ld, "o=x", 3, "(cn=a)", nullptr, 0), -1);
    EXPECT_EQ(ldap_search(ld, "o=x", 0, nullptr, nullptr, 0), -1);
    int id = 9;
    EXPECT_EQ(ldap_search_ext(ld, "o=x", 0, "(cn=a)", nullptr, 0, nullptr, nullptr, nullptr, 0,
                              nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_search_ext(ld, "o=x", -1, "(cn=a)", nullptr, 0, nullptr, nullptr, nullptr, 0,
                              &id),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(id, -1);
    for (const char *bad : {"(cn=abc))", "(cn:=x)", "(cn=a\\zz)", "", "(&(cn=a)", "((cn=a))",
                            "(cn=a)(cn=b)"}) {
        EXPECT_EQ(ldap_search_s(ld, "o=x", 2, bad, nullptr, 0, &res), LDAP_FILTER_ERROR) << bad;
        EXPECT_EQ(ldap_get_errno(ld), LDAP_FILTER_ERROR) << bad;
    }
    char *bad_attrs[] = {const_cast<char *>("cn"), const_cast<char *>("mail "), nullptr};
    EXPECT_EQ(ldap_search_s(ld, "o=x", 2, "(cn=a)", bad_attrs, 0, &res), LDAP_PARAM_ERROR);
    EXPECT_EQ(server.count(SEARCH), 0u);
    // The ids the failures took were all given back: the next request still succeeds.
    ASSERT_EQ(ldap_search_s(ld, "o=x", 0, "(cn=a)", nullptr, 0, &res), 0);
    ldap_msgfree(res);
}

TEST_F(SearchTest, EntriesAndTheFinalCodeArrive)
{
    server.server().on_request([](const wzrtest::ReceivedRequest &req, wzrtest::FakeConnection &c) {
        if (req.op != SEARCH)
            return;
        for (int i = 0; i < 3; ++i)
            c.send(wzrtest::search_entry_pdu(req.msgid, "cn=e" + std::to_string(i) + ",o=x",
                                             {{"cn", {"e" + std::to_string(i)}}}));
        c.send(wzrtest::ldap_result_pdu(req.msgid, 0x65, LDAP_SIZELIMIT_EXCEEDED));
    });
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_ext_s(ld, "o=x", 2, "(cn=*)", nullptr, 0, nullptr, nullptr, nullptr, 3,
                                &res),
              LDAP_SIZELIMIT_EXCEEDED);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(ldap_count_entries(ld, res), 3);
    wzrtest::EntryMap got = wzrtest::read_entries(ld, res);
    EXPECT_EQ(got.size(), 3u);
    EXPECT_EQ(got["cn=e1,o=x"]["cn"], std::vector<std::string>{"e1"});
    ldap_msgfree(res);
}

TEST_F(SearchTest, TimedOutSynchronousSearchIsAbandonedAndItsRowReleasedAtOnce)
{
    server.hold(SEARCH);
    LDAPMessage *res = nullptr;
    struct timeval tv = {0, 200000};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ldap_search_st(ld, "o=x", 2, "(cn=slow)", nullptr, 0, &tv, &res), LDAP_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_TIMEOUT);
    wzrtest::ReceivedRequest slow = server.last(SEARCH);
    ASSERT_GT(slow.msgid, 0);
    LDAPMsgTable *table = ld->ld_defconn->table;
    EXPECT_EQ(table->rows[slow.msgid].flags & ROW_IN_USE, 0u);
    ASSERT_TRUE(server.server().wait_for_requests(2));
    wzrtest::ReceivedRequest abandon = server.server().requests().back();
    EXPECT_EQ(abandon.op, 0x50u);
    EXPECT_NE(abandon.bytes.find(std::string("\x50\x01", 2) + static_cast<char>(slow.msgid)),
              std::string::npos);

    // A late answer is dropped by the next operation, which succeeds.
    wzrtest::FakeConnection *conn = server.server().connection(slow.connection);
    ASSERT_NE(conn, nullptr);
    conn->send(wzrtest::search_entry_pdu(slow.msgid, "cn=late", {}));
    conn->send(wzrtest::ldap_result_pdu(slow.msgid, 0x65, 0));
    EXPECT_EQ(ldap_delete_s(ld, "cn=after"), 0);
}

} // namespace
