// Each control end to end against a slapd that serves it: paged results past the size limit,
// sorting, virtual list views, assertion, matched values, proxied authorisation and password
// policy, read back through the parsers.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
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
#include "support/ops_client.h"
#include "support/slapd_fixture.h"

namespace {

using wzrtest::SlapdFixture;

constexpr int kBulk = 1200;
const std::string kBase = "dc=example,dc=com";
const std::string kPeople = "ou=people," + kBase;
const std::string kAlice = "uid=alice," + kPeople;

std::string generalized_time(time_t t)
{
    char buf[32];
    struct tm tm{};
    strftime(buf, sizeof buf, "%Y%m%d%H%M%SZ", gmtime_r(&t, &tm));
    return buf;
}

// Two users under the default policy: one whose password is a day old (it expires within
// the warning period), one to be locked out.
std::string policy_users()
{
    std::string out;
    for (const char *uid : {"pwold", "pwlock"}) {
        out += "dn: uid=" + std::string(uid) + "," + kPeople + "\nobjectClass: inetOrgPerson\n" +
               "uid: " + uid + "\ncn: " + uid + "\nsn: " + uid + "\nuserPassword: secret\n" +
               "pwdChangedTime: " + generalized_time(time(nullptr) - 86400) + "\n\n";
    }
    return out;
}

// One server for the program, stopped at exit.
SlapdFixture &server()
{
    struct Started {
        SlapdFixture fixture;
        Started()
        {
            if (SlapdFixture::available())
                fixture.start({kBulk, policy_users(), true});
        }
    };
    static Started s;
    return s.fixture;
}

struct Handle {
    LDAP *ld = nullptr;
    ~Handle() { ldap_unbind(ld); }
};

class ControlsSlapd : public ::testing::Test {
protected:
    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(server());
        h.ld = ldap_init("127.0.0.1", server().port());
        ASSERT_NE(h.ld, nullptr);
        int v3 = LDAP_VERSION3;
        ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_PROTOCOL_VERSION, &v3), 0);
    }
    // Binds with `ctrls` and returns the bind's code; the response controls go to *resp.
    int bind(const std::string &dn, const std::string &pw, LDAPControl **ctrls,
             LDAPControl ***resp = nullptr)
    {
        struct berval cred{pw.size(), const_cast<char *>(pw.data())};
        int rc = ldap_sasl_bind_s(h.ld, dn.c_str(), nullptr, &cred, ctrls, nullptr, nullptr);
        if (resp != nullptr) {
            EXPECT_EQ(ldap_get_bind_controls(h.ld, resp), 0);
        }
        return rc;
    }
    // Searches with `ctrl` (may be null): the code, the values of `attr` entry by entry in the
    // order they came, and the response controls.
    int search(const std::string &base, int scope, const char *filter, const char *attr,
               LDAPControl *ctrl, std::vector<std::string> *values,
               LDAPControl ***resp = nullptr, LDAPControl *second = nullptr)
    {
        LDAPControl *list[] = {ctrl, second, nullptr};
        char *attrs[] = {const_cast<char *>(attr), nullptr};
        LDAPMessage *res = nullptr;
        int rc = ldap_search_ext_s(h.ld, base.c_str(), scope, filter, attrs, 0, list, nullptr,
                                   nullptr, 0, &res);
        for (LDAPMessage *e = ldap_first_entry(h.ld, res); e != nullptr;
             e = ldap_next_entry(h.ld, e)) {
            struct berval **vals = ldap_get_values_len(h.ld, e, attr);
            for (int i = 0; vals != nullptr && vals[i] != nullptr; i++)
                values->emplace_back(vals[i]->bv_val, vals[i]->bv_len);
            ldap_value_free_len(vals);
        }
        int code = 0;
        if (resp != nullptr) {
            EXPECT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, nullptr, resp, 0), 0);
        }
        ldap_msgfree(res);
        ldap_control_free(ctrl);
        ldap_control_free(second);
        return rc;
    }
    Handle h;
};

int count_page(void *arg, LDAP *ld, LDAPMessage *page)
{
    auto *pages = static_cast<std::vector<int> *>(arg);
    pages->push_back(ldap_count_entries(ld, page));
    ldap_msgfree(page);
    return 0;
}

TEST_F(ControlsSlapd, PagesAddUpToEveryEntryPastTheSizeLimit)
{
    std::vector<std::string> uids;
    EXPECT_EQ(search("ou=bulk," + kBase, LDAP_SCOPE_ONELEVEL, "(uid=*)", "uid", nullptr, &uids),
              LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(uids.size(), 500u);
    std::vector<int> pages;
    ASSERT_EQ(ldap_search_paged_np(h.ld, ("ou=bulk," + kBase).c_str(), LDAP_SCOPE_ONELEVEL,
                                   "(uid=*)", nullptr, 1, nullptr, 250, nullptr, count_page,
                                   &pages),
              0);
    EXPECT_EQ(pages, (std::vector<int>{250, 250, 250, 250, 200}));
}

TEST_F(ControlsSlapd, SortsAndWindowsTheList)
{
    struct Case {
        const char *keys;
        int before, after, offset;
        const char *value; // VLV target by value instead of offset
        std::vector<std::string> expected;
        unsigned long position;
    };
    const Case cases[] = {
        {"uid:caseIgnoreOrderingMatch", 0, 0, 0, nullptr, {}, 0},
        {"-uid:caseIgnoreOrderingMatch", 0, 0, 0, nullptr, {}, 0},
        {"uid:caseIgnoreOrderingMatch", 1, 2, 10, nullptr, {"user009", "user010", "user011", "user012"}, 10},
        {"uid:caseIgnoreOrderingMatch", 0, 1, 0, "user0505", {"user051", "user052"}, 51},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.keys + std::to_string(c.offset));
        LDAPSortKey **keys = nullptr;
        ASSERT_EQ(ldap_create_sort_keylist(&keys, c.keys), 0);
        LDAPControl *sort = nullptr, *vlv = nullptr;
        ASSERT_EQ(ldap_create_sort_control(h.ld, keys, 1, &sort), 0);
        ldap_free_sort_keylist(keys);
        bool window = c.offset != 0 || c.value != nullptr;
        struct berval value{c.value != nullptr ? strlen(c.value) : 0, const_cast<char *>(c.value)};
        LDAPVLVInfo info{1, ulong(c.before), ulong(c.after), ulong(c.offset), 0,
                         c.value != nullptr ? &value : nullptr, nullptr, nullptr};
        if (window) {
            ASSERT_EQ(ldap_create_vlv_control(h.ld, &info, &vlv), 0);
        }
        std::vector<std::string> uids;
        LDAPControl **resp = nullptr;
        ASSERT_EQ(search(kPeople, LDAP_SCOPE_ONELEVEL, "(uid=user0*)", "uid", sort, &uids, &resp,
                         vlv),
                  0);
        unsigned long result = 99, pos = 0, count = 0;
        EXPECT_EQ(ldap_parse_sort_control(h.ld, resp, &result, nullptr), 0);
        EXPECT_EQ(result, 0u);
        if (window) {
            int err = -1;
            EXPECT_EQ(ldap_parse_vlv_control(h.ld, resp, &pos, &count, nullptr, &err), 0);
            EXPECT_EQ(uids, c.expected);
            EXPECT_EQ(pos, c.position);
            EXPECT_EQ(count, 99u);
            EXPECT_EQ(err, 0);
        } else {
            std::vector<std::string> sorted = uids;
            std::sort(sorted.begin(), sorted.end());
            if (c.keys[0] == '-')
                std::reverse(sorted.begin(), sorted.end());
            EXPECT_EQ(uids.size(), 99u);
            EXPECT_EQ(uids, sorted);
        }
        EXPECT_EQ(ldap_parse_vlv_control(h.ld, window ? nullptr : resp, &pos, &count, nullptr,
                                         nullptr),
                  LDAP_CONTROL_NOT_FOUND);
        ldap_controls_free(resp);
    }
}

TEST_F(ControlsSlapd, FilterControlsDecideWhatComesBack)
{
    struct Case {
        bool matched_values;
        const char *filter;
        int code;
        std::vector<std::string> mail;
    };
    const Case cases[] = {
        {false, "(uid=alice)", 0, {"alice@example.com", "alice.example@example.org"}},
        {false, "(&(uid=alice)(sn=Nobody))", LDAP_ASSERTION_FAILED, {}},
        {true, "(mail=*.org)", 0, {"alice.example@example.org"}},
        {true, "((mail=alice@example.com)(cn=*))", 0, {"alice@example.com"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.filter);
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(c.matched_values ? ldap_create_matchedvalues_control(h.ld, c.filter, 1, &ctrl)
                                   : ldap_create_assertion_control(h.ld, c.filter, 1, &ctrl),
                  0);
        std::vector<std::string> mail;
        EXPECT_EQ(search(kAlice, LDAP_SCOPE_BASE, "(objectClass=*)", "mail", ctrl, &mail), c.code);
        EXPECT_EQ(mail, c.mail);
    }
}

TEST_F(ControlsSlapd, ProxiedSearchSeesWhatTheProxiedUserSees)
{
    ASSERT_EQ(bind("uid=proxy," + kPeople, "proxy-secret", nullptr), 0);
    for (const char *authzid : {"", "dn:uid=alice,ou=people,dc=example,dc=com", "u:alice"}) {
        SCOPED_TRACE(authzid);
        LDAPControl *ctrl = nullptr;
        if (*authzid != '\0') {
            ASSERT_EQ(ldap_create_proxied_authorization_control(h.ld, authzid, &ctrl), 0);
        }
        std::vector<std::string> pw;
        EXPECT_EQ(search(kAlice, LDAP_SCOPE_BASE, "(objectClass=*)", "userPassword", ctrl, &pw), 0);
        // Only alice herself may read her password.
        EXPECT_EQ(pw, *authzid != '\0' ? std::vector<std::string>{"alice-secret"}
                                       : std::vector<std::string>{});
    }
}

TEST_F(ControlsSlapd, PasswordPolicyWarnsBeforeExpiryAndReportsALockedAccount)
{
    LDAPControl *pp = nullptr;
    ASSERT_EQ(ldap_create_passwordpolicy_control(h.ld, &pp), 0);
    LDAPControl *ctrls[] = {pp, nullptr};
    LDAPControl **resp = nullptr;
    int warning = -1, error = -1;
    long value = -1;
    ASSERT_EQ(bind("uid=pwold," + kPeople, "secret", ctrls, &resp), 0);
    ASSERT_EQ(ldap_parse_passwordpolicy_control(h.ld, resp, &warning, &value, &error), 0);
    ldap_controls_free(resp);
    EXPECT_EQ(warning, 1); // a 30-day password changed a day ago: 29 days left
    EXPECT_GT(value, 28 * 86400);
    EXPECT_LE(value, 29 * 86400);
    EXPECT_EQ(error, 0);

    const std::string locked = "uid=pwlock," + kPeople;
    EXPECT_EQ(bind(locked, "wrong", ctrls), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(bind(locked, "wrong", ctrls), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(bind(locked, "secret", ctrls, &resp), LDAP_INVALID_CREDENTIALS);
    ASSERT_EQ(ldap_parse_passwordpolicy_control(h.ld, resp, &warning, &value, &error), 0);
    ldap_controls_free(resp);
    EXPECT_EQ(warning, 0);
    EXPECT_STREQ(ldap_pwdpolicy_err2string(error), "Error, Account is locked");
    ldap_control_free(pp);
}

TEST_F(ControlsSlapd, ToolPagesPastTheSizeLimitAndRefusesUnknownCriticalExtensions)
{
    struct Case {
        const char *ext;
        int status;
        int entries;
    };
    const Case cases[] = {{"-E pr=300/noprompt", 0, kBulk},
                          {"", LDAP_SIZELIMIT_EXCEEDED, 500},
                          {"-e frob", 0, 1},
                          {"-E '!frob=1'", LDAP_PARAM_ERROR, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.ext);
        // "-e frob" is optional and left out; the single entry is the search base's.
        std::string scope = c.entries == 1 ? " -s base " : " -s one ";
        std::string out;
        std::string cmd = std::string(WZR_TOOL_BIN) + " search -H " + server().uri() + " -b ou=bulk," +
                          kBase + scope + c.ext + " '(objectClass=*)' uid 2>/dev/null";
        EXPECT_EQ(wzrtest::run_capture(cmd, &out), c.status);
        size_t n = 0;
        for (size_t at = out.find("dn: "); at != std::string::npos; at = out.find("\ndn: ", at + 1))
            ++n;
        EXPECT_EQ(n, size_t(c.entries));
    }
}

} // namespace
