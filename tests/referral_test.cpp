// The library's operations against real slapd servers where the tool (wzrldap_tool_test) does not
// take them: referral chasing and URL search (also against scripted servers), extended operations,
// asynchronous updates, transactions, one connection shared by threads, and the fixture itself.
#include <gtest/gtest.h>

#include <csignal>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libldap/ldap_abandon.h"
#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_extended.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_referrals.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "libldap/ldap_usearch.h"
#include "support/engine_client.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"
#include "support/ops_client.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"

using namespace wzrtest;
namespace f = wzrtest::fber;

namespace {

const std::string BASE = "dc=example,dc=com";
const std::string PARTNERS = "ou=partners," + BASE;

struct Handle {
    LDAP *ld;
    explicit Handle(int port, int hops = -1, int version = LDAP_VERSION3) : ld(ldap_init("127.0.0.1", port))
    {
        (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
        (void)(hops >= 0 && ldap_set_option(ld, LDAP_OPT_REFHOPLIMIT, &hops));
    }
    ~Handle() { ldap_unbind(ld); }
};

// What a search gave, and the rows still in use in the handle's tables (none may stay behind).
struct Outcome {
    int rc = -1, code = -1, rows = 0;
    std::set<std::string> dns;
    std::vector<std::string> referrals;
};

int rows_in_use(LDAP *ld)
{
    int n = 0;
    pthread_mutex_lock(&ld->ld_connlock); // other threads may be at work on the handle
    for (LDAPConn *lc = ld->ld_servers; lc != nullptr; lc = lc->next) {
        pthread_mutex_lock(&lc->table->table_lock);
        for (uint32_t i = 1; i < lc->table->row_count; ++i)
            n += (lc->table->rows[i].flags & ROW_IN_USE) != 0 ? 1 : 0;
        pthread_mutex_unlock(&lc->table->table_lock);
    }
    pthread_mutex_unlock(&ld->ld_connlock);
    return n;
}

Outcome outcome(LDAP *ld, int rc, LDAPMessage *res)
{
    Outcome o;
    o.rc = rc;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
        char *dn = ldap_get_dn(ld, e);
        o.dns.insert(dn != nullptr ? dn : "");
        ldap_memfree(dn);
    }
    char **refs = nullptr;
    if (res != nullptr &&
        ldap_parse_result(ld, res, &o.code, nullptr, nullptr, &refs, nullptr, 0) == 0)
        for (char **r = refs; r != nullptr && *r != nullptr; ++r)
            o.referrals.emplace_back(*r);
    ldap_value_free(refs);
    ldap_msgfree(res);
    o.rows = rows_in_use(ld);
    return o;
}

Outcome search(LDAP *ld, const std::string &base, int scope, const std::string &filter,
               struct timeval *timeout = nullptr, LDAPControl **ctrls = nullptr)
{
    LDAPMessage *res = nullptr;
    int rc = ldap_search_ext_s(ld, base.c_str(), scope, filter.c_str(), nullptr, 0, ctrls,
                               nullptr, timeout, 0, &res);
    return outcome(ld, rc, res);
}

std::string partner(int i) { return "uid=partner" + std::to_string(i) + "," + PARTNERS; }

std::string partner_ldif(int n)
{
    std::string out = "dn: " + PARTNERS + "\nobjectClass: organizationalUnit\nou: partners\n\n";
    for (int i = 1; i <= n; ++i)
        out += "dn: " + partner(i) + "\nobjectClass: inetOrgPerson\nuid: partner" +
               std::to_string(i) + "\ncn: Partner\nsn: P\n\n";
    return out;
}

std::string referral_ldif(const std::string &ou, const std::string &url)
{
    return "dn: ou=" + ou + "," + BASE + "\nobjectClass: referral\nobjectClass: extensibleObject\n"
           "ou: " + ou + "\nref: " + url + "\n\n";
}

// The second server holds ou=partners, which the first refers to, with a dead server and a
// loop: the second's ou=loop refers to a URL without server, which means the handle's own.
const std::string LOOP = "/ou=loop," + BASE;
SlapdFixture &second()
{
    return program_slapd({.extra_ldif = partner_ldif(8) + referral_ldif("loop", "ldap://" + LOOP)});
}
SlapdFixture &first()
{
    const std::string to = second().uri();
    return program_slapd({.extra_ldif = referral_ldif("partners", to + "/" + PARTNERS) +
                                        referral_ldif("dead", "ldap://127.0.0.1:1/ou=dead," + BASE) +
                                        referral_ldif("loop", to + LOOP),
                          .default_referral = to});
}

class Referrals : public ::testing::Test {
protected:
    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(second());
        WZR_REQUIRE_SLAPD(first());
    }
};

TEST_F(Referrals, SubtreeSearchReturnsTheReferredEntriesAndReportsTheDeadReferral)
{
    Handle h(first().port());
    Outcome o = search(h.ld, BASE, LDAP_SCOPE_SUBTREE, "(uid=partner1)");
    EXPECT_EQ(o.dns, std::set<std::string>{partner(1)});
    // The dead server's reference and the loop's come back with the first failure's code.
    EXPECT_TRUE(o.code == LDAP_SERVER_DOWN || o.code == LDAP_REFERRAL_LIMIT_EXCEEDED) << o.code;
    ASSERT_EQ(o.referrals.size(), 2u);
    EXPECT_EQ(o.referrals[0].rfind("ldap://127.0.0.1:1/ou=dead," + BASE, 0), 0u); // + "??sub"
    EXPECT_EQ(o.rows, 0);
}

TEST_F(Referrals, UpdatesBelowTheReferralAreReencodedForTheSecondServer)
{
    Handle h(first().port());
    // slapd refuses anonymous updates before it looks for referrals.
    ASSERT_EQ(ldap_simple_bind_s(h.ld, first().manager_dn().c_str(), "manager-secret"), 0);
    // Without a rebind procedure the second server sees an anonymous request and refuses it.
    const std::string dn = "cn=newcomer," + PARTNERS;
    EXPECT_EQ(ldap_delete_s(h.ld, partner(8).c_str()), LDAP_STRONG_AUTH_REQUIRED);
    LDAPRebindProc proc = [](LDAP *, char **dnp, char **pwp, int *method, int freeit) {
        if (freeit == 0) { // the second server's manager
            *dnp = const_cast<char *>(second().manager_dn().c_str());
            *pwp = const_cast<char *>(second().manager_pw().c_str());
            *method = 128;
        }
        return 0;
    };
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(proc)), 0);
    ASSERT_EQ(ldap_add_s(h.ld, dn.c_str(), Mods{{LDAP_MOD_ADD, "objectClass", {"device"}},
                                                {LDAP_MOD_ADD, "cn", {"newcomer"}}}), 0);
    EXPECT_EQ(search(Handle(second().port()).ld, dn, LDAP_SCOPE_BASE, "(cn=*)").rc, 0);
    // Adds a value it has: the second server's refusal.
    EXPECT_EQ(ldap_modify_s(h.ld, dn.c_str(), Mods{{LDAP_MOD_ADD, "cn", {"newcomer"}}}),
              LDAP_TYPE_OR_VALUE_EXISTS);
    EXPECT_EQ(ldap_compare_s(h.ld, dn.c_str(), "cn", "newcomer"), LDAP_COMPARE_TRUE);
    // Renamed under its own parent: the delete of the new name below proves where it went.
    const std::string renamed = "cn=renamed," + PARTNERS;
    EXPECT_EQ(ldap_rename_s(h.ld, dn.c_str(), "cn=renamed", PARTNERS.c_str(), 1, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_delete_s(h.ld, renamed.c_str()), 0);
    EXPECT_EQ(search(Handle(second().port()).ld, renamed, 0, "(cn=*)").rc, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, ResultReferralsFollowedWithinTheHopLimitAndLoopsEndThere)
{
    const std::string dn = partner(2);
    Outcome o = search(Handle(first().port()).ld, dn, LDAP_SCOPE_BASE, "(objectClass=*)");
    EXPECT_EQ(o.dns, std::set<std::string>{dn});
    Handle zero(first().port(), 0);
    o = search(zero.ld, dn, LDAP_SCOPE_BASE, "(objectClass=*)");
    EXPECT_EQ(o.code, LDAP_REFERRAL_LIMIT_EXCEEDED);
    ASSERT_EQ(o.referrals.size(), 1u);
    EXPECT_NE(o.referrals[0].find(second().host_port()), std::string::npos);
    EXPECT_EQ(o.rows, 0);
    // The second server's default is nothing: its own answer comes back for a foreign DN.
    EXPECT_EQ(search(zero.ld, "dc=elsewhere", LDAP_SCOPE_BASE, "(cn=*)").code,
              LDAP_REFERRAL_LIMIT_EXCEEDED);
    Handle one(first().port(), 1);
    EXPECT_EQ(search(one.ld, "dc=elsewhere", LDAP_SCOPE_BASE, "(cn=*)").code, LDAP_NO_SUCH_OBJECT);
    Handle five(first().port(), 5); // the loop between the servers
    o = search(five.ld, "ou=loop," + BASE, LDAP_SCOPE_SUBTREE, "(cn=*)");
    EXPECT_EQ(o.code, LDAP_REFERRAL_LIMIT_EXCEEDED);
    EXPECT_EQ(o.rows, 0);
}

TEST_F(Referrals, AbandonAfterTheFirstReferredEntryReleasesEveryRow)
{
    Handle h(first().port());
    int id = ldap_search(h.ld, PARTNERS.c_str(), LDAP_SCOPE_SUBTREE, "(uid=*)", nullptr, 0);
    LDAPMessage *m = nullptr; // one-message mode: the child's entry under the initial id
    ASSERT_EQ(ldap_result(h.ld, id, 0, nullptr, &m), static_cast<int>(LDAP_RES_SEARCH_ENTRY));
    EXPECT_EQ(ldap_msgid(m), id);
    ldap_msgfree(m);
    EXPECT_EQ(ldap_abandon(h.ld, id), 0);
    EXPECT_EQ(rows_in_use(h.ld), 0);
    EXPECT_EQ(ldap_result(h.ld, id, 1, nullptr, &m), -1);
}

class ReferralThreads : public Referrals {}; // the suite name puts it in the thread stage

TEST_F(ReferralThreads, EightSearchingAcrossTheReferralEachGetTheirOwnEntry)
{
    Handle h(first().port());
    std::vector<std::set<std::string>> got(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            std::string f = "(uid=partner" + std::to_string(t + 1) + ")";
            for (int round = 0; round < 5; ++round)
                got[t].merge(search(h.ld, BASE, LDAP_SCOPE_SUBTREE, f).dns);
        });
    for (auto &t : threads)
        t.join();
    for (int t = 0; t < 8; ++t)
        EXPECT_EQ(got[t], std::set<std::string>{partner(t + 1)});
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, UrlSearchOnTheSecondServerAnswersUnderAnIdOfTheFirstsTable)
{
    Handle h(first().port());
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF), 0); // not needed for it
    const std::string url = second().uri() + "/" + PARTNERS + "??one?(uid=partner3)";
    int id = ldap_url_search(h.ld, url.c_str(), 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(h.ld, id, 1, nullptr, &res), static_cast<int>(LDAP_RES_SEARCH_RESULT));
    Outcome o = outcome(h.ld, 0, res);
    EXPECT_EQ(o.dns, std::set<std::string>{partner(3)});
    EXPECT_EQ(o.code, 0);
    // On the handle's own server the search goes there directly.
    ASSERT_EQ(ldap_url_search_s(h.ld, (first().uri() + "/" + BASE + "??base").c_str(), 1, &res), 0);
    o = outcome(h.ld, 0, res);
    EXPECT_EQ(o.dns.size(), 1u);
    EXPECT_EQ(o.rows, 0);
}

/* ---- scripted servers ---- */

std::string referral_result(int msgid, int code, const std::vector<std::string> &urls)
{
    std::string list;
    for (const std::string &u : urls)
        list += ber_str(u);
    return ldap_message(msgid, ber_seq(ber_int(code, 0x0a) + ber_str("") + ber_str("") +
                                           ber_seq(list, 0xa3),
                                       0x65));
}

// Answers every search with `reply(msgid)` and every bind with success.
void answer(FakeServer &s, std::function<std::string(int)> reply)
{
    s.on_request([reply](const ReceivedRequest &r, FakeConnection &c) {
        if (r.op == 0x63)
            c.send(reply(r.msgid));
        else if (r.op == 0x60)
            c.send(ldap_result_pdu(r.msgid, 0x61, 0));
    });
}

std::string one_entry(int id)
{
    return search_entry_pdu(id, "cn=far,o=x", {}) + ldap_result_pdu(id, 0x65, 0);
}

std::string url_of(const FakeServer &s) { return "ldap://" + s.host_port() + "/o=x"; }

Outcome search_fake(const FakeServer &first, int version, struct timeval *timeout = nullptr,
                    LDAPControl **ctrls = nullptr)
{
    return search(Handle(first.port(), -1, version).ld, "o=x", 2, "(cn=*)", timeout, ctrls);
}

TEST(ReferralFake, V2ReferralTextIsCutAtTheMarkerAndItsUrlsTriedInOrder)
{
    FakeServer first, second;
    answer(second, one_entry);
    const std::string text = "partial\nreferral:\nldap://127.0.0.1:1/o=x\n" + url_of(second);
    answer(first, [&](int id) { return ldap_result_pdu(id, 0x65, 9, "", text); });
    Outcome o = search_fake(first, LDAP_VERSION2);
    EXPECT_EQ(o.rc, 0);
    EXPECT_EQ(o.dns.size(), 1u);
    EXPECT_EQ(o.rows, 0);
    EXPECT_EQ(second.requests().at(0).op, 0x60u); // version 2: an anonymous bind first
}


TEST(ReferralFake, HostileReferralsEndWithAClearCode)
{
    std::vector<std::string> many(10000, "ldap://127.0.0.1:1/o=x");
    struct Case {
        std::function<std::string(int)> reply;
        int code, urls, version = LDAP_VERSION3;
    } cases[] = {
        {[](int id) { return referral_result(id, 10, {"ldap://[::1", "http://x/", "%zz"}); },
         LDAP_SERVER_DOWN, 3},
        {[](int id) { return referral_result(id, 10, {}); }, LDAP_SERVER_DOWN, 0},
        {[&](int id) { return referral_result(id, 10, many); }, LDAP_PARAM_ERROR, 10000},
        {[](int id) { return search_reference_pdu(id, {}) + ldap_result_pdu(id, 0x65, 0); }, 0, 0},
        {[](int id) { return referral_result(id, 10, {"ldaps://127.0.0.1:1/o=x"}); },
         LDAP_SERVER_DOWN, 1},
        {[](int id) { return ldap_result_pdu(id, 0x65, 9, "", "Referral:\n\n\n"); },
         LDAP_SERVER_DOWN, 0, LDAP_VERSION2},
    };
    for (const Case &c : cases) {
        FakeServer first;
        answer(first, c.reply);
        Outcome o = search_fake(first, c.version);
        EXPECT_EQ(o.code, c.code) << &c - cases;
        EXPECT_EQ(o.referrals.size(), static_cast<size_t>(c.urls)) << &c - cases;
        EXPECT_EQ(o.rows, 0) << &c - cases;
    }
}

TEST(ReferralFake, ChildServerDyingMidStreamEndsWith81AndItsUrl)
{
    FakeServer first, second;
    second.on_request([](const ReceivedRequest &r, FakeConnection &c) {
        c.send(search_entry_pdu(r.msgid, "cn=far,o=x", {{"cn", {"far"}}}));
        c.reset();
    });
    answer(first, [&](int id) {
        return search_entry_pdu(id, "cn=near,o=x", {{"cn", {"near"}}}) +
               search_reference_pdu(id, {url_of(second)}) + ldap_result_pdu(id, 0x65, 0);
    });
    Outcome o = search_fake(first, LDAP_VERSION3);
    EXPECT_EQ(o.dns.size(), 2u);
    EXPECT_EQ(o.code, LDAP_SERVER_DOWN);
    EXPECT_EQ(o.referrals, std::vector<std::string>{url_of(second)});
    EXPECT_EQ(o.rows, 0);
}

TEST(ReferralFake, TimeOutsAbandonTheReferredRequestAndReleaseEveryRow)
{
    FakeServer first, silent;
    silent.on_request([](const ReceivedRequest &, FakeConnection &) {});
    answer(first, [&](int id) { return referral_result(id, 10, {url_of(silent)}); });
    struct timeval tv = {0, 200000};
    Outcome o = search_fake(first, LDAP_VERSION3, &tv);
    EXPECT_EQ(o.rc, LDAP_TIMEOUT);
    EXPECT_EQ(o.rows, 0);
    ASSERT_TRUE(silent.wait_for_requests(2));
    EXPECT_EQ(silent.requests()[1].op, 0x50u); // the abandon of the referred search
    // A URL search reports its time-out through the handle's error only.
    Handle h(first.port());
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_url_search_st(h.ld, url_of(silent).c_str(), 0, &tv, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_TIMEOUT);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

// The referred server receives the request under a new id with the URL's scope and filter,
// and without the paged-results control, whose cookie belonged to the first server.
TEST(ReferralFake, ReencodedSearchCarriesTheUrlsScopeAndFilterAndDropsThePagedControl)
{
    FakeServer first, second;
    answer(second, one_entry);
    const std::string url = "ldap://" + second.host_port() + "/ou=far??one?(sn=z)";
    answer(first, [&](int id) { return referral_result(id, 10, {url}); });
    char cookie[] = "cookie";
    LDAPControl paged = {const_cast<char *>("1.2.840.113556.1.4.319"), {6, cookie}, 0};
    LDAPControl other = {const_cast<char *>("1.2.3"), {0, nullptr}, 1};
    LDAPControl *ctrls[] = {&paged, &other, nullptr};
    EXPECT_EQ(search_fake(first, LDAP_VERSION3, nullptr, ctrls).dns.size(), 1u);
    ASSERT_TRUE(second.wait_for_requests(1));
    const std::string op =
        f::cons(0x63, f::str("ou=far") + f::enumerated(1) + f::enumerated(0) + f::integer(0) +
                          f::integer(0) + f::boolean(false) +
                          f::cons(0xa3, f::str("sn") + f::str("z")) + f::seq(""));
    const std::string ctrl = f::cons(0xa0, f::seq(f::str("1.2.3") + f::boolean(true)));
    EXPECT_EQ(f::hex(second.requests()[0].bytes),
              f::hex(f::message(second.requests()[0].msgid, op, ctrl)));
}

/* ---- extended operations ---- */

TEST_F(Referrals, WhoAmIGivesTheBoundIdentityAndAnUnknownOidTheServersError)
{
    Handle h(first().port());
    ASSERT_EQ(ldap_simple_bind_s(h.ld, first().user_dn().c_str(), first().user_pw().c_str()), 0);
    EXPECT_EQ(whoami(h.ld), "dn:" + first().user_dn());
    struct berval *data = nullptr;
    EXPECT_EQ(ldap_extended_operation_s(h.ld, "1.2.3.4.5.6.7", nullptr, nullptr, nullptr, nullptr,
                                        &data),
              LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(ldap_get_lderrno(h.ld, nullptr, nullptr), LDAP_PROTOCOL_ERROR);
    EXPECT_NE(recorded_message(h.ld), ""); // the server's own words
}

TEST(Extended, RequestValuesBackupResultAndTransactionId)
{
    FakeServer server;
    server.on_request([value = f::seq(f::integer(7))](const ReceivedRequest &r, FakeConnection &c) {
        c.send(extended_response_pdu(r.msgid, 0, "", "", "", &value));
    });
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

/* ---- updates, transactions and threads on the shared server ---- */

// Every test works on the shared server through its own handle, bound as the manager.
class OpsSlapd : public ::testing::Test {
protected:
    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(s);
        ld = ldap_init("127.0.0.1", s.port());
        ASSERT_EQ(collect(ldap_simple_bind(ld, s.manager_dn().c_str(), s.manager_pw().c_str()), LDAP_RES_BIND), 0);
    }
    void TearDown() override { ldap_unbind(ld); }
    // The code of the result of request `id`, whose response type is checked.
    int collect(int id, int type)
    {
        LDAPMessage *res = nullptr;
        EXPECT_EQ(ldap_result(ld, id, 1, nullptr, &res), type) << id;
        return ldap_result2error(ld, res, 1);
    }
    SlapdFixture &s = shared_slapd();
    LDAP *ld = nullptr;
};

// Each collected before the next is sent: the server may run one connection's requests in parallel.
TEST_F(OpsSlapd, AsynchronousUpdatesAndComparesAreAnsweredByTheirIds)
{
    const std::string dn = "cn=Ops Async,ou=people," + s.base(), renamed = "cn=Ops Async2,ou=people," + s.base();
    (void)ldap_delete_s(ld, dn.c_str()); // a leftover of an aborted run
    Mods add{{LDAP_MOD_ADD, "objectClass", {"person"}}, {LDAP_MOD_ADD, "sn", {"Async"}},
             {LDAP_MOD_ADD, "description", {"d"}}};
    Mods mods{{LDAP_MOD_REPLACE, "sn", {"Replaced"}}, {LDAP_MOD_DELETE, "description", {}}};
    EXPECT_EQ(collect(ldap_add(ld, dn.c_str(), add), LDAP_RES_ADD), 0);
    EXPECT_EQ(collect(ldap_compare(ld, dn.c_str(), "sn", "Async"), LDAP_RES_COMPARE), LDAP_COMPARE_TRUE);
    EXPECT_EQ(collect(ldap_modify(ld, dn.c_str(), mods), LDAP_RES_MODIFY), 0);
    struct berval bv = {8, const_cast<char *>("Replaced")};
    EXPECT_EQ(ldap_compare_ext_s(ld, dn.c_str(), "sn", &bv, nullptr, nullptr), LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_compare_s(ld, dn.c_str(), "description", "d"), LDAP_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(collect(ldap_modrdn(ld, dn.c_str(), "cn=Ops Async2", 1), LDAP_RES_MODDN), 0);
    EXPECT_EQ(ldap_compare_s(ld, renamed.c_str(), "cn", "Ops Async"), LDAP_COMPARE_FALSE); // removed
    EXPECT_EQ(collect(ldap_delete(ld, renamed.c_str()), LDAP_RES_DELETE), 0);
    EXPECT_EQ(ldap_compare_s(ld, renamed.c_str(), "cn", "Ops Async2"), LDAP_NO_SUCH_OBJECT);
}

// Updates sent with the transaction control stay unseen until the end; a commit applies them
// all, an abort none, and a commit that one update spoils applies none and names that update.
TEST_F(OpsSlapd, CommitAppliesEveryUpdateAbortNoneAndASpoiledCommitNamesItsUpdate)
{
    auto dn = [&](const std::string &cn) { return "cn=" + cn + "," + s.base(); };
    struct Case { std::string cn[2]; int commit, code, applied; } cases[] = {
        {{"txc1", "txc2"}, 1, 0, 2}, {{"txa1", "txa2"}, 0, 0, 0},
        {{"txs1", "txs1"}, 1, LDAP_ALREADY_EXISTS, 0}}; // the second add repeats the first
    struct Seen { int start = -1, adds[2] = {-1, -1}, before = -1, end = -1, failed = -2, last = -1, after = -1; };
    auto run = [&](const Case &c) {
        Seen o;
        LDAP *other = ldap_init(s.host_port().c_str(), 0);
        auto seen = [&] { // by a handle outside the transaction
            int n = 0;
            for (const std::string &cn : c.cn)
                n += ldap_compare_s(other, dn(cn).c_str(), "cn", cn.c_str()) == LDAP_COMPARE_TRUE;
            return n;
        };
        struct berval *txnid = nullptr;
        LDAPControl *in_txn = nullptr;
        if ((o.start = ldap_txn_start_s(ld, nullptr, nullptr, &txnid)) == 0 &&
            ldap_create_txn_spec_control(ld, txnid, &in_txn) == 0) {
            LDAPControl *ctrls[] = {in_txn, nullptr};
            for (int i = 0; i < 2; ++i) {
                Mods mods{{LDAP_MOD_ADD, "objectClass", {"device"}}, {LDAP_MOD_ADD, "cn", {c.cn[i]}}};
                if (ldap_add_ext(ld, dn(c.cn[i]).c_str(), mods, ctrls, nullptr, &o.last) == 0)
                    o.adds[i] = collect(o.last, LDAP_RES_ADD); // queued, not refused
            }
            o.before = seen();
            o.end = ldap_txn_end_s(ld, c.commit, txnid, nullptr, nullptr, &o.failed);
            o.after = seen();
        }
        for (int i = 0; i < o.after; ++i) // the shared server as it was
            (void)ldap_delete_s(ld, dn(c.cn[i]).c_str());
        ldap_control_free(in_txn);
        ber_bvfree(txnid);
        ldap_unbind(other);
        return o;
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.cn[0]);
        Seen o = run(c);
        // slapd 2.5 now and then crashes while ending a transaction (inside its own result
        // writer, with any client timing), and may be found dead only by the next case: a case
        // that lost the server runs once more on a fresh one.
        if (!s.alive() || o.start == LDAP_SERVER_DOWN || o.end == LDAP_SERVER_DOWN) {
            ldap_unbind(ld);
            s.stop();
            ASSERT_TRUE(s.start()) << s.error();
            SetUp();
            o = run(c);
        }
        EXPECT_EQ(o.start, 0);
        EXPECT_EQ(o.adds[0], 0);
        EXPECT_EQ(o.adds[1], 0);
        EXPECT_EQ(o.before, 0);
        EXPECT_EQ(o.end, c.code);
        EXPECT_EQ(o.failed, c.code != 0 ? o.last : -1);
        EXPECT_EQ(o.after, c.applied);
    }
}

// Requests sent through ldap_send_request by threads at once come back by id.
TEST(EngineSlapdThreads, ManyThreadsShareOneConnection)
{
    SlapdFixture &slapd = shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    LDAP *ld = ldap_init(slapd.host_port().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                int id = send_extended(ld);
                LDAPMessage *res = nullptr;
                struct timeval wait = {10, 0};
                ok += id > 0 && ldap_result(ld, id, LDAP_MSG_ONE, &wait, &res) == LDAP_RES_EXTENDED &&
                      ldap_msgid(res) == id;
                ldap_msgfree(res);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(ok.load(), 400);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// A private server is stopped by its pid, its directory kept until it starts again from fresh data.
TEST(SlapdFixture, StopsByPidAndRestartsFresh)
{
    if (!SlapdFixture::available())
        GTEST_SKIP() << "slapd is not installed";
    SlapdFixture s;
    ASSERT_TRUE(s.start({.extra_ldif = "dn: cn=extra,ou=devices," + BASE + "\nobjectClass: device\ncn: extra\n"}))
        << s.error();
    EXPECT_NE(s.port(), shared_slapd().port());
    auto extra = [&] {
        return run_capture("LDAPNOINIT=1 ldapsearch -x -H " + s.uri() + " -s base -b cn=extra,ou=devices," +
                           BASE + " 1.1 2>&1", nullptr);
    };
    EXPECT_EQ(extra(), 0);
    pid_t pid = s.pid();
    std::string dir = s.dir();
    s.stop();
    EXPECT_NE(kill(pid, 0), 0) << "the server was reaped";
    EXPECT_EQ(access(dir.c_str(), F_OK), 0) << "kept for inspection until destroyed";
    ASSERT_TRUE(s.start()) << s.error();
    EXPECT_NE(access(dir.c_str(), F_OK), 0) << "old directory left behind";
    EXPECT_EQ(extra(), LDAP_NO_SUCH_OBJECT);
}

} // namespace
