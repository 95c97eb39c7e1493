// Referral chasing against scripted servers: version 2 referral texts, hostile referrals,
// a referred server that dies or stays silent, and the request the referred server receives.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "libldap/ldap_usearch.h"
#include "libldap/ldap_error.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"

using namespace wzrtest;

namespace {

constexpr unsigned SEARCH = 0x63;

std::string referral_result(int msgid, int code, const std::vector<std::string> &urls,
                            const std::string &text = "")
{
    std::string list;
    for (const std::string &u : urls)
        list += ber_str(u);
    return ldap_message(msgid, ber_seq(ber_int(code, 0x0a) + ber_str("") + ber_str(text) +
                                           ber_seq(list, 0xa3),
                                       0x65));
}

// A server answering every search with `reply(msgid)` and every bind with success.
void answer_searches(FakeServer &s, std::function<std::string(int)> reply)
{
    s.on_request([reply](const ReceivedRequest &r, FakeConnection &c) {
        if (r.op == SEARCH)
            c.send(reply(r.msgid));
        else if (r.op == 0x60)
            c.send(ldap_result_pdu(r.msgid, 0x61, 0));
    });
}

// The referred server: one entry, then success.
void serve_one_entry(FakeServer &s)
{
    answer_searches(s, [](int id) {
        return search_entry_pdu(id, "cn=far,o=x", {{"cn", {"far"}}}) +
               ldap_result_pdu(id, 0x65, 0);
    });
}

struct Outcome {
    int rc = -1;
    int entries = 0;
    int code = -1;
    std::vector<std::string> referrals;
    int rows = 0;
};

int rows_in_use(LDAP *ld)
{
    int n = 0;
    for (LDAPConn *lc = ld->ld_servers; lc != nullptr; lc = lc->next)
        for (uint32_t i = 1; i < lc->table->row_count; ++i)
            n += (lc->table->rows[i].flags & ROW_IN_USE) != 0 ? 1 : 0;
    return n;
}

Outcome search(const FakeServer &first, int version, struct timeval *timeout = nullptr,
               LDAPControl **ctrls = nullptr)
{
    Outcome o;
    LDAP *ld = ldap_init("127.0.0.1", first.port());
    (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    LDAPMessage *res = nullptr;
    o.rc = ldap_search_ext_s(ld, "o=x", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0, ctrls, nullptr,
                             timeout, 0, &res);
    o.entries = ldap_count_entries(ld, res);
    char **refs = nullptr;
    if (res != nullptr &&
        ldap_parse_result(ld, res, &o.code, nullptr, nullptr, &refs, nullptr, 0) == 0)
        for (char **r = refs; r != nullptr && *r != nullptr; ++r)
            o.referrals.emplace_back(*r);
    ldap_value_free(refs);
    ldap_msgfree(res);
    o.rows = rows_in_use(ld);
    ldap_unbind(ld);
    return o;
}

std::string url_of(const FakeServer &s) { return "ldap://" + s.host_port() + "/o=x"; }

TEST(ReferralFake, V2ReferralTextIsCutAtTheMarkerAndItsUrlsTriedInOrder)
{
    FakeServer first, second;
    serve_one_entry(second);
    const std::string text = "partial\nreferral:\nldap://127.0.0.1:1/o=x\n" + url_of(second);
    answer_searches(first, [&](int id) { return ldap_result_pdu(id, 0x65, 9, "", text); });
    Outcome o = search(first, LDAP_VERSION2);
    EXPECT_EQ(o.rc, 0);
    EXPECT_EQ(o.entries, 1);
    EXPECT_EQ(o.rows, 0);
    // Version 2: the referred server got an anonymous bind before the search.
    ASSERT_TRUE(second.wait_for_requests(2));
    EXPECT_EQ(second.requests()[0].op, 0x60u);
}

// Hostile or broken referrals: each ends with a clear code, nothing crashes or stays behind.
TEST(ReferralFake, HostileReferralsEndWithAClearCode)
{
    std::vector<std::string> many(10000, "ldap://127.0.0.1:1/o=x");
    struct Case {
        const char *name;
        std::function<std::string(int)> reply;
        int code;
        size_t urls;
        int version = LDAP_VERSION3;
    } cases[] = {
        {"unparsable urls are skipped",
         [](int id) { return referral_result(id, 10, {"ldap://[::1", "http://x/", "%zz"}); },
         LDAP_SERVER_DOWN, 3},
        {"an empty referral list",
         [](int id) { return referral_result(id, 10, {}); }, LDAP_SERVER_DOWN, 0},
        {"ten thousand urls",
         [&](int id) { return referral_result(id, 10, many); }, LDAP_PARAM_ERROR, 10000},
        {"a reference without url is ignored",
         [](int id) {
             return search_reference_pdu(id, {}) + ldap_result_pdu(id, 0x65, 0);
         },
         0, 0},
        {"a reference to a dead server",
         [](int id) {
             return search_reference_pdu(id, {"ldap://127.0.0.1:1/o=y"}) +
                    ldap_result_pdu(id, 0x65, 0);
         },
         LDAP_SERVER_DOWN, 1},
        {"an ldaps url on a plain handle",
         [](int id) { return referral_result(id, 10, {"ldaps://127.0.0.1:1/o=x"}); },
         LDAP_SERVER_DOWN, 1},
        {"a version 2 marker without urls",
         [](int id) { return ldap_result_pdu(id, 0x65, 9, "", "Referral:\n\n\n"); },
         LDAP_SERVER_DOWN, 0, LDAP_VERSION2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        FakeServer first;
        answer_searches(first, c.reply);
        Outcome o = search(first, c.version);
        EXPECT_EQ(o.code, c.code);
        EXPECT_EQ(o.referrals.size(), c.urls);
        EXPECT_EQ(o.rows, 0);
    }
}

TEST(ReferralFake, ChildServerDyingMidStreamEndsWith81AndItsUrl)
{
    FakeServer first, second;
    second.on_request([](const ReceivedRequest &r, FakeConnection &c) {
        if (r.op == SEARCH) {
            c.send(search_entry_pdu(r.msgid, "cn=far,o=x", {{"cn", {"far"}}}));
            c.reset();
        }
    });
    answer_searches(first, [&](int id) {
        return search_entry_pdu(id, "cn=near,o=x", {{"cn", {"near"}}}) +
               search_reference_pdu(id, {url_of(second)}) + ldap_result_pdu(id, 0x65, 0);
    });
    Outcome o = search(first, LDAP_VERSION3);
    EXPECT_EQ(o.entries, 2);
    EXPECT_EQ(o.code, LDAP_SERVER_DOWN);
    EXPECT_EQ(o.referrals, std::vector<std::string>{url_of(second)});
    EXPECT_EQ(o.rows, 0);
}

TEST(ReferralFake, TimeOutAbandonsTheReferredRequestAndReleasesEveryRow)
{
    FakeServer first, silent;
    silent.on_request([](const ReceivedRequest &, FakeConnection &) {});
    answer_searches(first, [&](int id) { return referral_result(id, 10, {url_of(silent)}); });
    struct timeval tv = {0, 300000};
    Outcome o = search(first, LDAP_VERSION3, &tv);
    EXPECT_EQ(o.rc, LDAP_TIMEOUT);
    EXPECT_EQ(o.rows, 0);
    ASSERT_TRUE(silent.wait_for_requests(2));
    EXPECT_EQ(silent.requests()[1].op, 0x50u); // the abandon of the referred search
}

TEST(ReferralFake, UrlSearchTimeOutIsReportedOnlyThroughTheHandlesError)
{
    FakeServer first, silent;
    silent.on_request([](const ReceivedRequest &, FakeConnection &) {});
    LDAP *ld = ldap_init("127.0.0.1", first.port());
    int v3 = LDAP_VERSION3;
    (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
    struct timeval tv = {0, 200000};
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_url_search_st(ld, url_of(silent).c_str(), 0, &tv, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_TIMEOUT);
    EXPECT_EQ(rows_in_use(ld), 0);
    ldap_unbind(ld);
}

// The referred server receives the request under a new id with the URL's scope and filter,
// and without the paged-results control, whose cookie belonged to the first server.
TEST(ReferralFake, ReencodedSearchCarriesTheUrlsScopeAndFilterAndDropsThePagedControl)
{
    FakeServer first, second;
    serve_one_entry(second);
    const std::string url = "ldap://" + second.host_port() + "/ou=far??one?(sn=z)";
    answer_searches(first, [&](int id) { return referral_result(id, 10, {url}); });
    char cookie[] = "cookie";
    LDAPControl paged = {const_cast<char *>("1.2.840.113556.1.4.319"), {6, cookie}, 0};
    LDAPControl other = {const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *ctrls[] = {&paged, &other, nullptr};
    Outcome o = search(first, LDAP_VERSION3, nullptr, ctrls);
    EXPECT_EQ(o.entries, 1);
    ASSERT_TRUE(second.wait_for_requests(1));
    namespace f = wzrtest::fber;
    const std::string op =
        f::cons(0x63, f::str("ou=far") + f::enumerated(1) + f::enumerated(0) + f::integer(0) +
                          f::integer(0) + f::boolean(false) +
                          f::cons(0xa3, f::str("sn") + f::str("z")) + f::seq(""));
    const std::string ctrl = f::cons(0xa0, f::seq(f::str("1.2.3") + f::boolean(true)));
    EXPECT_EQ(f::hex(second.requests()[0].bytes),
              f::hex(f::message(second.requests()[0].msgid, op, ctrl)));
}

} // namespace
