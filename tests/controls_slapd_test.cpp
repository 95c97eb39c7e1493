// Each control end to end against a slapd that serves it, read back through the parsers; against
// scripted servers, paged results whose cookie repeats and the choice of password policy control.
#include <gtest/gtest.h>

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
#include "search_ext.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"
#include "support/slapd_fixture.h"

namespace {

namespace fb = wzrtest::fber;

constexpr int kBulk = 1200;
const std::string kBase = "dc=example,dc=com", kPeople = "ou=people," + kBase;
const std::string kAlice = "uid=alice," + kPeople;

// Two users under the 30-day policy whose passwords changed a day ago: one warned, one locked out.
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

wzrtest::SlapdFixture &server()
{
    static const std::string extra = policy_users(); // the same options on every call
    return wzrtest::program_slapd({.bulk_entries = kBulk, .extra_ldif = extra, .controls = true});
}

std::vector<std::string> users(int from, int to) // "userNNN" from `from` to `to`, either way
{
    std::vector<std::string> out;
    for (int i = from; i != to + (from < to ? 1 : -1); i += from < to ? 1 : -1)
        out.push_back("user0" + std::to_string(i / 10) + std::to_string(i % 10));
    return out;
}

// The answers in a result's controls, "sort R vlv POS COUNT CODE", and in its first entry's,
// "deref" and the first value each followed DN brought.
std::string answers(LDAP *ld, LDAPMessage *res)
{
    unsigned long result = 0, pos = 0, count = 0;
    int code = 0;
    LDAPControl **ctrls = nullptr, **entry = nullptr;
    LDAPDerefRes *deref = nullptr;
    std::string out;
    EXPECT_EQ(ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 0), 0);
    if (ldap_parse_sort_control(ld, ctrls, &result, nullptr) == 0)
        out.append("sort ").append(std::to_string(result));
    if (ldap_parse_vlv_control(ld, ctrls, &pos, &count, nullptr, &code) == 0)
        out += " vlv " + std::to_string(pos) + " " + std::to_string(count) + " " +
               std::to_string(code);
    if (ldap_get_entry_controls(ld, ldap_first_entry(ld, res), &entry) == 0 &&
        ldap_parse_deref_control(ld, entry, &deref) == 0)
        out += "deref";
    for (LDAPDerefRes *m = deref; m != nullptr; m = m->next)
        out.append(" ").append(m->attrVals->vals[0]->bv_val);
    ldap_derefresponse_free(deref);
    ldap_controls_free(entry);
    ldap_controls_free(ctrls);
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

struct SearchCase {
    std::vector<std::string> ext; // as the tool takes them: "-E sss=cn", "-e mv=(cn=x)"
    std::string base;
    const char *filter, *attr;
    int code;
    std::vector<std::string> values; // of `attr`, entry after entry
    std::string answers;
};

TEST_F(ControlsSlapd, EachControlChangesWhatTheSearchReturns)
{
    const std::string sort = "-E sss=uid:caseIgnoreOrderingMatch", p = kPeople, a = kAlice;
    std::string members = "deref";
    for (const std::string &u : users(1, 20))
        members += " " + u;
    const char *all = "(objectClass=*)", *u0 = "(uid=user0*)", *mail = "mail", *pw = "userPassword";
    const char *alice_mail = "alice@example.com", *org = "alice.example@example.org";
    const SearchCase cases[] = {
        {{"-E sss=-uid:caseIgnoreOrderingMatch"}, p, u0, "uid", 0, users(99, 1), "sort 0"},
        {{sort, "-E vlv=1/2/10/0"}, p, u0, "uid", 0, users(9, 12), "sort 0 vlv 10 99 0"},
        {{sort, "-E vlv=0/1:user0505"}, p, u0, "uid", 0, users(51, 52), "sort 0 vlv 51 99 0"},
        {{"-e assert=(uid=alice)"}, a, all, mail, 0, {alice_mail, org}, ""},
        {{"-e assert=(&(uid=alice)(sn=No))"}, a, all, mail, LDAP_ASSERTION_FAILED, {}, ""},
        {{"-e mv=(mail=*.org)"}, a, all, mail, 0, {org}, ""},
        {{}, a, all, pw, 0, {}, ""}, // the proxy's own rights
        {{"-e authzid=dn:" + kAlice}, a, all, pw, 0, {"alice-secret"}, ""},
        {{"-E deref=member:uid"}, "cn=staff,ou=groups," + kBase, all, "cn", 0, {"staff"}, members},
        // slapd reads a control it knows even when not critical, and refuses a malformed one (2).
        {{"-e sessiontracking=alice"}, a, all, "uid", 0, {"alice"}, ""},
    };
    ASSERT_EQ(bind("uid=proxy," + kPeople, "proxy-secret", nullptr), 0);
    for (const SearchCase &c : cases) {
        SCOPED_TRACE(c.ext.empty() ? "" : c.ext.back());
        wzrext::Extensions x;
        for (const std::string &e : c.ext)
            ASSERT_EQ(wzrext::parse(e.substr(3), e[1] == 'E', &x), 0);
        std::vector<LDAPControl *> ctrls;
        ASSERT_EQ(wzrext::make_controls(ld, x, &ctrls), 0);
        ctrls.push_back(nullptr);
        char *attrs[] = {const_cast<char *>(c.attr), nullptr};
        LDAPMessage *res = nullptr;
        EXPECT_EQ(ldap_search_ext_s(ld, c.base.c_str(), LDAP_SCOPE_SUBTREE, c.filter, attrs, 0,
                                    ctrls.data(), nullptr, nullptr, 0, &res),
                  c.code);
        std::vector<std::string> values;
        for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
            struct berval **vals = ldap_get_values_len(ld, e, c.attr);
            for (int i = 0; vals != nullptr && vals[i] != nullptr; i++)
                values.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
            ldap_value_free_len(vals);
        }
        EXPECT_EQ(values, c.values);
        EXPECT_EQ(answers(ld, res), c.answers);
        ldap_msgfree(res);
        for (LDAPControl *ctrl : ctrls)
            ldap_control_free(ctrl);
    }
}

TEST_F(ControlsSlapd, PagesAddUpToEveryEntryPastTheSizeLimit)
{
    LDAPMessage *res = nullptr;
    const char *bulk = "ou=bulk,dc=example,dc=com";
    EXPECT_EQ(ldap_search_s(ld, bulk, LDAP_SCOPE_ONELEVEL, "(uid=*)", nullptr, 1, &res),
              LDAP_SIZELIMIT_EXCEEDED);
    EXPECT_EQ(ldap_count_entries(ld, res), 500);
    ldap_msgfree(res);
    std::vector<int> pages;
    auto count_page = [](void *arg, LDAP *h, LDAPMessage *page) {
        static_cast<std::vector<int> *>(arg)->push_back(ldap_count_entries(h, page));
        ldap_msgfree(page);
        return 0;
    };
    ASSERT_EQ(ldap_search_paged_np(ld, bulk, LDAP_SCOPE_ONELEVEL, "(uid=*)", nullptr, 1, nullptr,
                                   250, nullptr, count_page, &pages),
              0);
    EXPECT_EQ(pages, (std::vector<int>{250, 250, 250, 250, 200}));
    // Through the tool: every entry; an unknown critical extension is refused.
    std::string out, tool = std::string(WZR_TOOL_BIN) + " search -H " + server().uri() +
                                " -b ou=bulk,dc=example,dc=com -s one ";
    std::string paged = "-E pr=300/noprompt '(uid=*)' uid 2>/dev/null | grep -c ^dn:";
    EXPECT_EQ(wzrtest::run_capture(tool + paged, &out), 0);
    EXPECT_EQ(out, std::to_string(kBulk) + "\n");
    EXPECT_EQ(wzrtest::run_capture(tool + "-E '!frob=1' 2>/dev/null", nullptr), LDAP_PARAM_ERROR);
}

TEST_F(ControlsSlapd, PasswordPolicyWarnsBeforeExpiryAndReportsALockedAccount)
{
    LDAPControl *pp = nullptr;
    ASSERT_EQ(ldap_create_passwordpolicy_control(ld, &pp), 0);
    LDAPControl *ctrls[] = {pp, nullptr};
    // "warning, its value in days, error text" from a bind with the request control.
    auto policy = [&](const char *uid, int code) {
        EXPECT_EQ(bind("uid=" + std::string(uid) + "," + kPeople, "secret", ctrls), code);
        LDAPControl **resp = nullptr;
        int warning = -1, error = -1;
        long value = -1;
        EXPECT_EQ(ldap_get_bind_controls(ld, &resp), 0);
        EXPECT_EQ(ldap_parse_passwordpolicy_control(ld, resp, &warning, &value, &error), 0);
        ldap_controls_free(resp);
        return std::to_string(warning) + " " + std::to_string((value + 43200) / 86400) + " " +
               ldap_pwdpolicy_err2string(error);
    };
    EXPECT_EQ(policy("pwold", 0), "1 29 Success"); // 30 days, changed a day ago
    EXPECT_EQ(bind("uid=pwlock," + kPeople, "wrong", ctrls), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(bind("uid=pwlock," + kPeople, "wrong", ctrls), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(policy("pwlock", LDAP_INVALID_CREDENTIALS), "0 0 Error, Account is locked");
    ldap_control_free(pp);
}

// A successful LDAPResult of the response `tag`, for a message that carries controls.
std::string success(unsigned tag)
{
    return wzrtest::ber_seq(wzrtest::ber_int(0, 0x0a) + wzrtest::ber_str("") + wzrtest::ber_str(""), tag);
}

// Each page's request carries the page size and the previous cookie; a repeated cookie ends the
// walk with 84 instead of fetching that page for ever.
TEST(ControlsFake, PagedSearchSendsTheCookieBackAndStopsWhenItRepeats)
{
    wzrtest::FakeServer server;
    std::string page = wzrtest::ber_seq(wzrtest::ber_int(0) + wzrtest::ber_str("ab"));
    server.on_request([&](const wzrtest::ReceivedRequest &req, wzrtest::FakeConnection &c) {
        std::string ctrl = wzrtest::ber_seq(wzrtest::ber_str(LDAP_CONTROL_PAGEDRESULTS) +
                                            wzrtest::ber_str(page));
        c.send(wzrtest::search_entry_pdu(req.msgid, "cn=x", {}) +
               wzrtest::ldap_message(req.msgid, success(0x65), wzrtest::ber_seq(ctrl, 0xa0)));
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
    // The one FBER check of a control list as a request carries it.
    std::string first = fb::seq(fb::str(LDAP_CONTROL_PAGEDRESULTS) + fb::boolean(false) +
                                fb::str(std::string("\x30\x05\x02\x01\x07\x04\x00", 7)));
    EXPECT_NE(sent[0].bytes.find(first), std::string::npos);
    EXPECT_NE(sent[1].bytes.find(std::string("\x30\x07\x02\x01\x07\x04\x02" "ab", 9)), std::string::npos);
    ldap_unbind(ld);
}

// USE_OPENLDAP_PWDPOLICY_CONTROL is read once per process: a child per setting checks the request
// it sends and the answer it believes, "locked" (4) in the draft's control, "expired" (3) natively.
int bind_once(const char *oid, int condition)
{
    wzrtest::FakeServer server;
    std::string answer = wzrtest::ber_seq(wzrtest::ber_str(LDAP_CONTROL_PASSWORDPOLICY_NATIVE) +
                                          wzrtest::ber_str(wzrtest::ber_seq(wzrtest::ber_int(0, 0x81)))) +
                         wzrtest::ber_seq(wzrtest::ber_str(LDAP_CONTROL_PASSWORDPOLICY) +
                                          wzrtest::ber_str(wzrtest::ber_seq(wzrtest::ber_int(1, 0x81))));
    server.queue_reply({wzrtest::Action::send(wzrtest::ldap_message(
        1, success(0x61), wzrtest::ber_seq(answer, 0xa0)))});
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    LDAPControl *pp = nullptr, **resp = nullptr;
    (void)ldap_create_passwordpolicy_control(ld, &pp);
    LDAPControl *ctrls[] = {pp, nullptr};
    struct berval pw = {2, const_cast<char *>("pw")};
    int got = -1;
    if (ldap_sasl_bind_s(ld, "cn=u", nullptr, &pw, ctrls, nullptr, nullptr) == 0 &&
        ldap_get_bind_controls(ld, &resp) == 0)
        (void)ldap_parse_passwordpolicy_control(ld, resp, nullptr, nullptr, &got);
    std::string want = fb::message(1, fb::cons(0x60, fb::integer(3) + fb::str("cn=u") + fb::prim(0x80, "pw")),
                                   fb::cons(0xa0, fb::seq(fb::str(oid) + fb::boolean(false))));
    std::string sent = server.requests().empty() ? "" : server.requests()[0].bytes;
    ldap_controls_free(resp);
    ldap_control_free(pp);
    ldap_unbind(ld);
    fprintf(stderr, "sent %s\nread %d\n", fb::hex(sent).c_str(), got);
    return sent == want && got == condition ? 0 : 1;
}

TEST(PasswordPolicySwitchDeathTest, SettingChoosesTheControlSentAndTheAnswersRead)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case { const char *setting, *sent; int condition; } cases[] = {
        {nullptr, LDAP_CONTROL_PASSWORDPOLICY, 4}, {"yes", LDAP_CONTROL_PASSWORDPOLICY, 4},
        {"no", LDAP_CONTROL_PASSWORDPOLICY_NATIVE, 3}};
    for (const Case &c : cases)
        EXPECT_EXIT(
            {
                c.setting != nullptr ? setenv("USE_OPENLDAP_PWDPOLICY_CONTROL", c.setting, 1)
                                     : unsetenv("USE_OPENLDAP_PWDPOLICY_CONTROL");
                _exit(bind_once(c.sent, c.condition));
            },
            testing::ExitedWithCode(0), "") << (c.setting != nullptr ? c.setting : "unset");
}

} // namespace
