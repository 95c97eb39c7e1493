// Each control end to end against a slapd that serves it: paged results past the size limit
// (through the library and the tool), sorting, virtual list views, assertion, matched values,
// proxied authorisation and password policy, read back through the parsers.
#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "support/slapd_fixture.h"

namespace {

constexpr int kBulk = 1200;
const std::string kPeople = "ou=people,dc=example,dc=com";
const std::string kAlice = "uid=alice," + kPeople;

// Two users under the default 30-day policy whose passwords changed a day ago: one to be
// warned, one to be locked out.
std::string policy_users()
{
    char changed[32];
    time_t t = time(nullptr) - 86400;
    struct tm tm{};
    strftime(changed, sizeof changed, "%Y%m%d%H%M%SZ", gmtime_r(&t, &tm));
    std::string out;
    for (std::string uid : {"pwold", "pwlock"})
        out += "dn: uid=" + uid + "," + kPeople + "\nobjectClass: inetOrgPerson\nuid: " + uid +
               "\ncn: x\nsn: x\nuserPassword: secret\npwdChangedTime: " + changed + "\n\n";
    return out;
}

wzrtest::SlapdFixture &server() // one for the program, stopped at exit
{
    struct Started {
        wzrtest::SlapdFixture fixture;
        Started()
        {
            if (wzrtest::SlapdFixture::available())
                fixture.start({kBulk, policy_users(), true});
        }
    };
    static Started s;
    return s.fixture;
}

std::vector<std::string> users(int from, int to) // "userNNN" from `from` to `to`, either way
{
    std::vector<std::string> out;
    for (int i = from; i != to + (from < to ? 1 : -1); i += from < to ? 1 : -1)
        out.push_back("user0" + std::to_string(i / 10) + std::to_string(i % 10));
    return out;
}

// The sort and window answers of a result's controls: "sort R vlv POS COUNT CODE".
std::string answers(LDAP *ld, LDAPControl **ctrls)
{
    unsigned long result = 0, pos = 0, count = 0;
    int code = 0;
    std::string out;
    if (ldap_parse_sort_control(ld, ctrls, &result, nullptr) == 0)
        out += "sort " + std::to_string(result);
    if (ldap_parse_vlv_control(ld, ctrls, &pos, &count, nullptr, &code) == 0)
        out += " vlv " + std::to_string(pos) + " " + std::to_string(count) + " " + std::to_string(code);
    return out;
}

class ControlsSlapd : public ::testing::Test {
protected:
    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(server());
        ld = ldap_init("127.0.0.1", server().port());
        ASSERT_NE(ld, nullptr);
        int v3 = LDAP_VERSION3;
        ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &v3), 0);
    }
    void TearDown() override { ldap_unbind(ld); }
    int bind(const std::string &dn, std::string pw, LDAPControl **ctrls)
    {
        struct berval cred{pw.size(), pw.data()};
        return ldap_sasl_bind_s(ld, dn.c_str(), nullptr, &cred, ctrls, nullptr, nullptr);
    }
    LDAP *ld = nullptr;
};

using MakeControls = std::function<int(LDAP *, LDAPControl **)>;

MakeControls sorted(const char *keys, LDAPVLVInfo vlv = {}, const char *value = nullptr)
{
    return [=](LDAP *ld, LDAPControl **c) mutable {
        LDAPSortKey **list = nullptr;
        struct berval v{value != nullptr ? strlen(value) : 0, const_cast<char *>(value)};
        vlv.ldvlv_attrvalue = value != nullptr ? &v : nullptr;
        int rc = ldap_create_sort_keylist(&list, keys);
        rc = rc != 0 ? rc : ldap_create_sort_control(ld, list, 1, &c[0]);
        ldap_free_sort_keylist(list);
        return rc != 0 || vlv.ldvlv_version == 0 ? rc : ldap_create_vlv_control(ld, &vlv, &c[1]);
    };
}

struct SearchCase {
    const char *name;
    MakeControls make;
    std::string base;
    const char *filter, *attr;
    int code;
    std::vector<std::string> values; // of `attr`, entry after entry
    std::string answers;
};

TEST_F(ControlsSlapd, EachControlChangesWhatTheSearchReturns)
{
    const char *ord = "uid:caseIgnoreOrderingMatch";
    auto assertion = [](const char *f) {
        return [f](LDAP *ld, LDAPControl **c) { return ldap_create_assertion_control(ld, f, 1, c); };
    };
    auto matched = [](const char *f) {
        return [f](LDAP *ld, LDAPControl **c) { return ldap_create_matchedvalues_control(ld, f, 1, c); };
    };
    auto proxied = [](const char *id) {
        return [id](LDAP *ld, LDAPControl **c) {
            return *id != '\0' ? ldap_create_proxied_authorization_control(ld, id, c) : 0;
        };
    };
    const char *mails = "mail", *pw = "userPassword";
    const SearchCase cases[] = {
        {"descending", sorted("-uid:caseIgnoreOrderingMatch"), kPeople, "(uid=user0*)", "uid", 0,
         users(99, 1), "sort 0"},
        {"window at an offset", sorted(ord, {1, 1, 2, 10, 0, nullptr, nullptr, nullptr}), kPeople,
         "(uid=user0*)", "uid", 0, users(9, 12), "sort 0 vlv 10 99 0"},
        {"window at a value", sorted(ord, {1, 0, 1, 0, 0, nullptr, nullptr, nullptr}, "user0505"),
         kPeople, "(uid=user0*)", "uid", 0, users(51, 52), "sort 0 vlv 51 99 0"},
        {"assertion holds", assertion("(uid=alice)"), kAlice, "(objectClass=*)", mails, 0,
         {"alice@example.com", "alice.example@example.org"}, ""},
        {"assertion fails", assertion("(&(uid=alice)(sn=No))"), kAlice, "(objectClass=*)", mails,
         LDAP_ASSERTION_FAILED, {}, ""},
        {"matched values", matched("(mail=*.org)"), kAlice, "(objectClass=*)", mails, 0,
         {"alice.example@example.org"}, ""},
        {"as the proxy", proxied(""), kAlice, "(objectClass=*)", pw, 0, {}, ""},
        {"as alice by DN", proxied("dn:uid=alice,ou=people,dc=example,dc=com"), kAlice,
         "(objectClass=*)", pw, 0, {"alice-secret"}, ""},
        {"as alice by name", proxied("u:alice"), kAlice, "(objectClass=*)", pw, 0, {"alice-secret"}, ""},
    };
    ASSERT_EQ(bind("uid=proxy," + kPeople, "proxy-secret", nullptr), 0);
    for (const SearchCase &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPControl *ctrls[3] = {};
        ASSERT_EQ(c.make(ld, ctrls), 0);
        char *attrs[] = {const_cast<char *>(c.attr), nullptr};
        LDAPMessage *res = nullptr;
        EXPECT_EQ(ldap_search_ext_s(ld, c.base.c_str(), LDAP_SCOPE_SUBTREE, c.filter, attrs, 0,
                                    ctrls, nullptr, nullptr, 0, &res),
                  c.code);
        std::vector<std::string> values;
        for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
            struct berval **vals = ldap_get_values_len(ld, e, c.attr);
            for (int i = 0; vals != nullptr && vals[i] != nullptr; i++)
                values.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
            ldap_value_free_len(vals);
        }
        EXPECT_EQ(values, c.values);
        LDAPControl **resp = nullptr;
        int code = 0;
        EXPECT_EQ(ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &resp, 1), 0);
        EXPECT_EQ(answers(ld, resp), c.answers);
        ldap_controls_free(resp);
        ldap_control_free(ctrls[0]);
        ldap_control_free(ctrls[1]);
    }
}

TEST_F(ControlsSlapd, GroupSearchReturnsItsMembersAttributes)
{
    char *uid[] = {const_cast<char *>("uid"), nullptr}, *none[] = {nullptr};
    LDAPDerefSpec specs[] = {{const_cast<char *>("member"), uid}, {nullptr, nullptr}};
    LDAPControl *deref = nullptr;
    ASSERT_EQ(ldap_create_deref_control(ld, specs, 1, &deref), 0);
    LDAPControl *ctrls[] = {deref, nullptr};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_ext_s(ld, "cn=staff,ou=groups,dc=example,dc=com", LDAP_SCOPE_BASE,
                                "(objectClass=*)", none, 0, ctrls, nullptr, nullptr, 0, &res),
              0);
    LDAPControl **entry_ctrls = nullptr;
    LDAPDerefRes *members = nullptr;
    ASSERT_EQ(ldap_get_entry_controls(ld, ldap_first_entry(ld, res), &entry_ctrls), 0);
    ASSERT_EQ(ldap_parse_deref_control(ld, entry_ctrls, &members), 0);
    std::vector<std::string> dns, uids;
    for (LDAPDerefRes *m = members; m != nullptr; m = m->next) {
        dns.push_back(m->derefVal);
        for (LDAPDerefVal *v = m->attrVals; v != nullptr; v = v->next)
            uids.emplace_back(v->vals[0]->bv_val, v->vals[0]->bv_len);
    }
    EXPECT_EQ(uids, users(1, 20));
    EXPECT_EQ(dns.front(), "uid=user001," + kPeople);
    ldap_derefresponse_free(members);
    ldap_controls_free(entry_ctrls);
    ldap_msgfree(res);
    ldap_control_free(deref);
}

int count_page(void *arg, LDAP *ld, LDAPMessage *page)
{
    static_cast<std::vector<int> *>(arg)->push_back(ldap_count_entries(ld, page));
    ldap_msgfree(page);
    return 0;
}

TEST_F(ControlsSlapd, PagesAddUpToEveryEntryPastTheSizeLimit)
{
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_s(ld, "ou=bulk,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(uid=*)", nullptr,
                            1, &res),
              LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(ldap_count_entries(ld, res), 500);
    ldap_msgfree(res);
    std::vector<int> pages;
    ASSERT_EQ(ldap_search_paged_np(ld, "ou=bulk,dc=example,dc=com", LDAP_SCOPE_ONELEVEL, "(uid=*)",
                                   nullptr, 1, nullptr, 250, nullptr, count_page, &pages),
              0);
    EXPECT_EQ(pages, (std::vector<int>{250, 250, 250, 250, 200}));
    // Through the tool: every entry; an unknown critical extension is refused.
    std::string out, tool = std::string(WZR_TOOL_BIN) + " search -H " + server().uri() +
                                " -b ou=bulk,dc=example,dc=com -s one ";
    EXPECT_EQ(wzrtest::run_capture(tool + "-E pr=300/noprompt '(uid=*)' uid 2>/dev/null | grep -c ^dn:", &out), 0);
    EXPECT_EQ(out, std::to_string(kBulk) + "\n");
    EXPECT_EQ(wzrtest::run_capture(tool + "-E '!frob=1' 2>/dev/null", nullptr), LDAP_PARAM_ERROR);
}

TEST_F(ControlsSlapd, PasswordPolicyWarnsBeforeExpiryAndReportsALockedAccount)
{
    LDAPControl *pp = nullptr;
    ASSERT_EQ(ldap_create_passwordpolicy_control(ld, &pp), 0);
    LDAPControl *ctrls[] = {pp, nullptr};
    const std::string locked = "uid=pwlock," + kPeople;
    EXPECT_EQ(bind(locked, "wrong", ctrls), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(bind(locked, "wrong", ctrls), LDAP_INVALID_CREDENTIALS);
    struct Case {
        std::string dn;
        int code, warning;
        long low, high;
        const char *error;
    } cases[] = {{"uid=pwold," + kPeople, 0, 1, 28 * 86400, 29 * 86400, "Success"},
                 {locked, LDAP_INVALID_CREDENTIALS, 0, 0, 0, "Error, Account is locked"}};
    for (const Case &c : cases) {
        EXPECT_EQ(bind(c.dn, "secret", ctrls), c.code);
        LDAPControl **resp = nullptr;
        int warning = -1, error = -1;
        long value = -1;
        ASSERT_EQ(ldap_get_bind_controls(ld, &resp), 0);
        ASSERT_EQ(ldap_parse_passwordpolicy_control(ld, resp, &warning, &value, &error), 0);
        ldap_controls_free(resp);
        EXPECT_EQ(warning, c.warning);
        EXPECT_GE(value, c.low); // a 30-day password changed a day ago: 29 days left
        EXPECT_LE(value, c.high);
        EXPECT_STREQ(ldap_pwdpolicy_err2string(error), c.error);
    }
    ldap_control_free(pp);
}

} // namespace
