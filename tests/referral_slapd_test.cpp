// Referral chasing against two real slapd servers: the first refers ou=partners (and every DN
// outside its suffix) to the second. Results come back in the referral's place, updates land
// on the second server, and failures (hop limit, dead server, loops) report their URLs.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_referrals.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_abandon.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "libldap/ldap_usearch.h"
#include "support/slapd_fixture.h"

using namespace wzrtest;

namespace {

const std::string BASE = "dc=example,dc=com";
const std::string PARTNERS = "ou=partners," + BASE;

std::string partner_ldif(int n)
{
    std::string out = "dn: " + PARTNERS + "\nobjectClass: organizationalUnit\nou: partners\n\n";
    for (int i = 1; i <= n; ++i)
        out += "dn: uid=partner" + std::to_string(i) + "," + PARTNERS +
               "\nobjectClass: inetOrgPerson\nuid: partner" + std::to_string(i) +
               "\ncn: Partner\nsn: P" + std::to_string(i) + "\n\n";
    return out;
}

struct Servers {
    SlapdFixture second, first;
    Servers()
    {
        if (!SlapdFixture::available() || !second.start({0, partner_ldif(8), ""}))
            return;
        std::string referral = "dn: " + PARTNERS +
                               "\nobjectClass: referral\nobjectClass: extensibleObject\nou: "
                               "partners\nref: " + second.uri() + "/" + PARTNERS + "\n\n";
        (void)first.start({0, referral, second.uri()});
    }
};

Servers &servers()
{
    static Servers s;
    return s;
}

struct Handle {
    LDAP *ld = nullptr;
    explicit Handle(const SlapdFixture &s, int hops = -1)
    {
        ld = ldap_init("127.0.0.1", s.port());
        int v3 = LDAP_VERSION3;
        (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3);
        if (hops >= 0)
            (void)ldap_set_option(ld, LDAP_OPT_REFHOPLIMIT, &hops);
    }
    // slapd refuses anonymous updates before it looks for referrals.
    void bind_manager(const SlapdFixture &s)
    {
        ASSERT_EQ(ldap_simple_bind_s(ld, s.manager_dn().c_str(), s.manager_pw().c_str()), 0);
    }
    ~Handle() { ldap_unbind(ld); }
};

std::set<std::string> dns_of(LDAP *ld, LDAPMessage *res)
{
    std::set<std::string> out;
    for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
        char *dn = ldap_get_dn(ld, e);
        out.insert(dn != nullptr ? dn : "");
        ldap_memfree(dn);
    }
    return out;
}

struct Final {
    int code = -1;
    std::vector<std::string> referrals;
};

Final final_of(LDAP *ld, LDAPMessage *res)
{
    Final f;
    char **refs = nullptr;
    EXPECT_EQ(ldap_parse_result(ld, res, &f.code, nullptr, nullptr, &refs, nullptr, 0), 0);
    for (char **r = refs; r != nullptr && *r != nullptr; ++r)
        f.referrals.emplace_back(*r);
    ldap_value_free(refs);
    return f;
}

// Rows still in use in every table of the handle: nothing may be left once results are out.
int rows_in_use(LDAP *ld)
{
    int n = 0;
    for (LDAPConn *lc = ld->ld_servers; lc != nullptr; lc = lc->next)
        for (uint32_t i = 1; i < lc->table->row_count; ++i)
            n += (lc->table->rows[i].flags & ROW_IN_USE) != 0 ? 1 : 0;
    return n;
}

class Referrals : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!SlapdFixture::available())
            GTEST_SKIP() << "slapd is not installed";
        ASSERT_TRUE(servers().second.running()) << servers().second.error();
        ASSERT_TRUE(servers().first.running()) << servers().first.error();
    }
    const SlapdFixture &first() { return servers().first; }
    const SlapdFixture &second() { return servers().second; }
};

TEST_F(Referrals, SubtreeSearchReturnsTheReferredServersEntriesInPlaceOfTheReference)
{
    Handle h(first());
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_s(h.ld, BASE.c_str(), LDAP_SCOPE_SUBTREE, "(uid=partner1)", nullptr, 0,
                            &res),
              0);
    EXPECT_EQ(dns_of(h.ld, res), std::set<std::string>{"uid=partner1," + PARTNERS});
    EXPECT_EQ(ldap_count_references(h.ld, res), 0);
    EXPECT_EQ(final_of(h.ld, res).code, 0);
    ldap_msgfree(res);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, OneMessageModeDeliversTheChildsResponsesUnderTheInitialId)
{
    Handle h(first());
    int id = ldap_search(h.ld, PARTNERS.c_str(), LDAP_SCOPE_ONELEVEL, "(uid=partner*)", nullptr, 0);
    ASSERT_GT(id, 0);
    int entries = 0;
    for (;;) {
        LDAPMessage *m = nullptr;
        int type = ldap_result(h.ld, id, 0, nullptr, &m);
        ASSERT_GT(type, 0);
        EXPECT_EQ(ldap_msgid(m), id);
        ldap_msgfree(m);
        if (type != LDAP_RES_SEARCH_ENTRY)
            break;
        ++entries;
    }
    EXPECT_EQ(entries, 8);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

int rebind_as_manager(LDAP *, char **dnp, char **pwp, int *method, int freeit)
{
    if (freeit == 0) {
        *dnp = const_cast<char *>(servers().second.manager_dn().c_str());
        *pwp = const_cast<char *>(servers().second.manager_pw().c_str());
        *method = 128;
    }
    return 0;
}

bool exists_on(const SlapdFixture &s, const std::string &dn)
{
    Handle h(s);
    LDAPMessage *res = nullptr;
    int rc = ldap_search_s(h.ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &res);
    ldap_msgfree(res);
    return rc == 0;
}

TEST_F(Referrals, UpdatesBelowTheReferralAreReencodedForTheSecondServer)
{
    Handle h(first());
    h.bind_manager(first());
    LDAPRebindProc proc = rebind_as_manager;
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(proc)), 0);
    const std::string dn = "uid=newcomer," + PARTNERS;
    char *oc[] = {const_cast<char *>("inetOrgPerson"), nullptr};
    char *sn[] = {const_cast<char *>("Newcomer"), nullptr};
    char *cn[] = {const_cast<char *>("New Comer"), nullptr};
    LDAPMod m1 = {LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m2 = {LDAP_MOD_ADD, const_cast<char *>("sn"), {sn}};
    LDAPMod m3 = {LDAP_MOD_ADD, const_cast<char *>("cn"), {cn}};
    LDAPMod *attrs[] = {&m1, &m2, &m3, nullptr};
    ASSERT_EQ(ldap_add_s(h.ld, dn.c_str(), attrs), 0);
    EXPECT_TRUE(exists_on(second(), dn));
    char *title[] = {const_cast<char *>("Referred"), nullptr};
    LDAPMod mt = {LDAP_MOD_REPLACE, const_cast<char *>("title"), {title}};
    LDAPMod *mods[] = {&mt, nullptr};
    EXPECT_EQ(ldap_modify_s(h.ld, dn.c_str(), mods), 0);
    EXPECT_EQ(ldap_compare_s(h.ld, dn.c_str(), "title", "Referred"), LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_rename_s(h.ld, dn.c_str(), "uid=renamed", PARTNERS.c_str(), 1, nullptr,
                            nullptr),
              0);
    const std::string renamed = "uid=renamed," + PARTNERS;
    EXPECT_TRUE(exists_on(second(), renamed));
    EXPECT_EQ(ldap_delete_s(h.ld, renamed.c_str()), 0);
    EXPECT_FALSE(exists_on(second(), renamed));
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, WithoutRebindProcedureTheUpdateGoesAnonymouslyAndIsRefused)
{
    Handle h(first());
    h.bind_manager(first());
    // slapd's refusal of an anonymous update.
    EXPECT_EQ(ldap_delete_s(h.ld, ("uid=partner8," + PARTNERS).c_str()),
              LDAP_STRONG_AUTH_REQUIRED);
    EXPECT_TRUE(exists_on(second(), "uid=partner8," + PARTNERS));
}

// A base search below the referral object: the first server answers with a result referral.
Final base_search(LDAP *ld, const std::string &dn, std::set<std::string> *dns = nullptr)
{
    LDAPMessage *res = nullptr;
    (void)ldap_search_s(ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &res);
    Final f = final_of(ld, res);
    if (dns != nullptr)
        *dns = dns_of(ld, res);
    ldap_msgfree(res);
    return f;
}

TEST_F(Referrals, ResultReferralIsFollowedUnlessTheHopLimitIsZero)
{
    const std::string dn = "uid=partner2," + PARTNERS;
    {
        Handle h(first());
        std::set<std::string> dns;
        EXPECT_EQ(base_search(h.ld, dn, &dns).code, 0);
        EXPECT_EQ(dns, std::set<std::string>{dn});
        EXPECT_EQ(rows_in_use(h.ld), 0);
    }
    Handle h(first(), 0);
    Final f = base_search(h.ld, dn);
    EXPECT_EQ(f.code, LDAP_REFERRAL_LIMIT_EXCEEDED);
    ASSERT_EQ(f.referrals.size(), 1u);
    EXPECT_NE(f.referrals[0].find(second().host_port()), std::string::npos);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

// Adds a referral object named `rdn` under the base of `on`, pointing at `url`.
void add_referral_object(const SlapdFixture &on, const std::string &rdn, const std::string &url)
{
    Handle h(on);
    h.bind_manager(on);
    char *oc[] = {const_cast<char *>("referral"), const_cast<char *>("extensibleObject"), nullptr};
    char *ref[] = {const_cast<char *>(url.c_str()), nullptr};
    LDAPMod m1 = {LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m2 = {LDAP_MOD_ADD, const_cast<char *>("ref"), {ref}};
    LDAPMod *attrs[] = {&m1, &m2, nullptr};
    int rc = ldap_add_s(h.ld, (rdn + "," + BASE).c_str(), attrs);
    ASSERT_TRUE(rc == 0 || rc == LDAP_ALREADY_EXISTS) << rc;
}

TEST_F(Referrals, ReferralToADeadServerReports81WithItsUrl)
{
    const std::string url = "ldap://127.0.0.1:1/ou=dead," + BASE;
    add_referral_object(first(), "ou=dead", url);
    Handle h(first());
    Final f = base_search(h.ld, "ou=dead," + BASE);
    EXPECT_EQ(f.code, LDAP_SERVER_DOWN);
    ASSERT_EQ(f.referrals.size(), 1u);
    EXPECT_EQ(f.referrals[0].rfind(url, 0), 0u) << f.referrals[0]; // slapd adds the scope
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, ReferralLoopBetweenTheServersEndsAtTheHopLimit)
{
    add_referral_object(first(), "ou=loop", second().uri() + "/ou=loop," + BASE);
    add_referral_object(second(), "ou=loop", first().uri() + "/ou=loop," + BASE);
    Handle h(first(), 5);
    EXPECT_EQ(base_search(h.ld, "ou=loop," + BASE).code, LDAP_REFERRAL_LIMIT_EXCEEDED);
    LDAPMessage *res = nullptr;
    (void)ldap_search_s(h.ld, BASE.c_str(), LDAP_SCOPE_SUBTREE, "(ou=loop)", nullptr, 0, &res);
    Final f = final_of(h.ld, res); // the search also meets other tests' referral objects
    EXPECT_NE(f.code, 0);
    EXPECT_TRUE(std::any_of(f.referrals.begin(), f.referrals.end(), [](const std::string &u) {
        return u.find("ou=loop") != std::string::npos;
    })) << f.code << " " << (f.referrals.empty() ? "" : f.referrals[0]);
    ldap_msgfree(res);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, DefaultReferralSendsForeignDnsToTheSecondServer)
{
    Handle h(first());
    // The second server holds no such suffix either: its own answer comes back.
    EXPECT_EQ(base_search(h.ld, "dc=elsewhere").code, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, AbandonAfterTheFirstReferredEntryReleasesEveryRow)
{
    Handle h(first());
    int id = ldap_search(h.ld, BASE.c_str(), LDAP_SCOPE_SUBTREE, "(uid=partner*)", nullptr, 0);
    ASSERT_GT(id, 0);
    LDAPMessage *m = nullptr;
    ASSERT_EQ(ldap_result(h.ld, id, 0, nullptr, &m), static_cast<int>(LDAP_RES_SEARCH_ENTRY));
    ldap_msgfree(m);
    EXPECT_EQ(ldap_abandon(h.ld, id), 0);
    EXPECT_EQ(rows_in_use(h.ld), 0);
    EXPECT_EQ(ldap_result(h.ld, id, 1, nullptr, &m), -1);
}

TEST_F(Referrals, EightThreadsSearchingAcrossTheReferralEachGetTheirOwnEntry)
{
    Handle h(first());
    std::vector<std::set<std::string>> got(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 5; ++round) {
                LDAPMessage *res = nullptr;
                std::string f = "(uid=partner" + std::to_string(t + 1) + ")";
                int rc = ldap_search_s(h.ld, BASE.c_str(), LDAP_SCOPE_SUBTREE, f.c_str(),
                                       nullptr, 0, &res);
                // Other tests' referral objects may fail the search as a whole.
                EXPECT_TRUE(rc == 0 || rc == LDAP_SERVER_DOWN ||
                            rc == LDAP_REFERRAL_LIMIT_EXCEEDED) << rc;
                for (const std::string &dn : dns_of(h.ld, res))
                        got[t].insert(dn);
                ldap_msgfree(res);
            }
        });
    for (auto &t : threads)
        t.join();
    for (int t = 0; t < 8; ++t)
        EXPECT_EQ(got[t], std::set<std::string>{"uid=partner" + std::to_string(t + 1) + "," +
                                                PARTNERS});
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

TEST_F(Referrals, UrlSearchOnTheSecondServerAnswersUnderAnIdOfTheFirstsTable)
{
    Handle h(first());
    const std::string url = second().uri() + "/" + PARTNERS + "??one?(uid=partner3)";
    int id = ldap_url_search(h.ld, url.c_str(), 0);
    ASSERT_GT(id, 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(h.ld, id, 1, nullptr, &res), static_cast<int>(LDAP_RES_SEARCH_RESULT));
    EXPECT_EQ(dns_of(h.ld, res), std::set<std::string>{"uid=partner3," + PARTNERS});
    EXPECT_EQ(final_of(h.ld, res).code, 0);
    ldap_msgfree(res);
    // On the handle's own server the search goes there directly.
    const std::string own = first().uri() + "/" + BASE + "??base";
    ASSERT_EQ(ldap_url_search_s(h.ld, own.c_str(), 1, &res), 0);
    EXPECT_EQ(ldap_count_entries(h.ld, res), 1);
    ldap_msgfree(res);
    EXPECT_EQ(rows_in_use(h.ld), 0);
}

} // namespace
