// Bind, search, update and compare against a real slapd: results read back through the entry
// walk and compared with what the server holds and with what ldapsearch reports.
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/ops_client.h"
#include "support/slapd_fixture.h"

namespace {

using wzrtest::canonical_dn;
using wzrtest::EntryMap;
using wzrtest::shared_slapd;

// A handle, unbound at the end of the scope.
struct Handle {
    LDAP *ld = nullptr;
    ~Handle()
    {
        if (ld != nullptr)
            ldap_unbind(ld);
    }
};

// Every test works on the shared server through its own handle.
class OpsSlapd : public ::testing::Test {
protected:
    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(s);
        h.ld = ldap_init("127.0.0.1", s.port());
        ASSERT_NE(h.ld, nullptr);
    }
    void bind_manager()
    {
        ASSERT_EQ(ldap_simple_bind_s(h.ld, s.manager_dn().c_str(), s.manager_pw().c_str()), 0);
    }
    wzrtest::SlapdFixture &s = shared_slapd();
    Handle h;
};

std::string quote(const std::string &s) { return "'" + s + "'"; }

// ldapsearch's view of the same search, as the manager.
EntryMap ldapsearch(const wzrtest::SlapdFixture &s, const std::string &base, const char *scope,
                    const std::string &filter)
{
    std::string out;
    std::string cmd = "ldapsearch -x -LLL -o ldif-wrap=no -H " + quote(s.uri()) + " -D " +
                      quote(s.manager_dn()) + " -w " + quote(s.manager_pw()) + " -b " +
                      quote(base) + " -s " + scope + " " + quote(filter);
    EXPECT_EQ(wzrtest::run_capture(cmd, &out), 0) << cmd;
    return wzrtest::parse_ldif(out);
}

std::string people(const wzrtest::SlapdFixture &s) { return "ou=people," + s.base(); }

// The values of one attribute of one entry, read with a base search.
std::vector<std::string> values_of(LDAP *ld, const std::string &dn, const char *attr)
{
    LDAPMessage *res = nullptr;
    char *attrs[] = {const_cast<char *>(attr), nullptr};
    int rc = ldap_search_s(ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 0, &res);
    std::vector<std::string> out;
    if (rc == LDAP_SUCCESS) {
        EntryMap m = wzrtest::read_entries(ld, res);
        std::string key = attr;
        for (char &c : key)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        if (!m.empty())
            out = m.begin()->second[key];
    }
    ldap_msgfree(res);
    return out;
}

bool exists(LDAP *ld, const std::string &dn)
{
    LDAPMessage *res = nullptr;
    int rc = ldap_search_s(ld, dn.c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 1, &res);
    ldap_msgfree(res);
    return rc == LDAP_SUCCESS;
}

TEST_F(OpsSlapd, SimpleBindsAsManagerAndUser)
{
    EXPECT_EQ(ldap_simple_bind_s(h.ld, s.manager_dn().c_str(), s.manager_pw().c_str()), 0);
    EXPECT_EQ(ldap_simple_bind_s(h.ld, s.user_dn().c_str(), s.user_pw().c_str()), 0);
    EXPECT_EQ(ldap_simple_bind_s(h.ld, s.user_dn().c_str(), "not-the-password"),
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_bind_s(h.ld, s.user_dn().c_str(), s.user_pw().c_str(), LDAP_AUTH_SIMPLE), 0);
    EXPECT_EQ(ldap_bind_s(h.ld, s.user_dn().c_str(), s.user_pw().c_str(), LDAP_AUTH_SASL),
              LDAP_AUTH_UNKNOWN);
    // The empty mechanism is a simple bind with the credentials as the password.
    struct berval pw = {s.manager_pw().size(), const_cast<char *>(s.manager_pw().data())};
    EXPECT_EQ(ldap_sasl_bind_s(h.ld, s.manager_dn().c_str(), "", &pw, nullptr, nullptr, nullptr),
              0);
    // Anonymous.
    EXPECT_EQ(ldap_simple_bind_s(h.ld, nullptr, nullptr), 0);

    // The asynchronous form hands out an id whose result is the bind response.
    int id = ldap_simple_bind(h.ld, s.user_dn().c_str(), s.user_pw().c_str());
    ASSERT_GT(id, 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(h.ld, id, 1, nullptr, &res), LDAP_RES_BIND);
    EXPECT_EQ(ldap_result2error(h.ld, res, 1), 0);
}

TEST_F(OpsSlapd, ExternalBindOverLocalSocket)
{
    ldap_unbind(h.ld); // this one goes over the local socket
    h.ld = ldap_init(s.ldapi_path().c_str(), 0);
    ASSERT_NE(h.ld, nullptr);
    // Lower case is the same mechanism.
    ASSERT_EQ(ldap_sasl_bind_s(h.ld, nullptr, "external", nullptr, nullptr, nullptr, nullptr), 0);
    // The mapped identity may write: a compare on its own entry is allowed and true.
    EXPECT_EQ(ldap_compare_s(h.ld, s.external_dn().c_str(), "uid", "operator"),
              LDAP_COMPARE_TRUE);
    // The handle keeps the mechanism for rebinding.
    ASSERT_NE(h.ld->ld_bind_mech, nullptr);
    EXPECT_STREQ(h.ld->ld_bind_mech, "EXTERNAL");
    EXPECT_EQ(h.ld->ld_authmethod, 2);
    // A DN with EXTERNAL is refused before anything is sent.
    EXPECT_EQ(ldap_sasl_bind_s(h.ld, "cn=x", "EXTERNAL", nullptr, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR);
}

TEST_F(OpsSlapd, UnknownMechanismGoesToTheServer)
{
    // No plug-in: sent as a plain SASL bind, which the server refuses with its own code.
    int rc = ldap_sasl_bind_s(h.ld, nullptr, "NO-SUCH-MECH", nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(rc == LDAP_AUTH_UNKNOWN || rc == LDAP_STRONG_AUTH_NOT_SUPPORTED ||
                rc == LDAP_INAPPROPRIATE_AUTH || rc == LDAP_OTHER)
        << rc;
    EXPECT_LT(rc, 81) << "the code must come from the server";
}

TEST_F(OpsSlapd, SearchScopesOverTheSampleTree)
{
    ASSERT_NO_FATAL_FAILURE(bind_manager());
    struct Case {
        int scope;
        const char *name;
    } cases[] = {{LDAP_SCOPE_BASE, "base"}, {LDAP_SCOPE_ONELEVEL, "one"}, {LDAP_SCOPE_SUBTREE, "sub"}};
    for (const Case &c : cases) {
        LDAPMessage *res = nullptr;
        ASSERT_EQ(ldap_search_s(h.ld, people(s).c_str(), c.scope, "(objectClass=*)", nullptr, 0,
                                &res),
                  0)
            << c.name;
        EntryMap ours = wzrtest::read_entries(h.ld, res);
        EXPECT_EQ(ldap_count_entries(h.ld, res), static_cast<int>(ours.size()));
        ldap_msgfree(res);
        EntryMap theirs = ldapsearch(s, people(s), c.name, "(objectClass=*)");
        EXPECT_EQ(ours.size(), theirs.size()) << c.name;
        if (c.scope == LDAP_SCOPE_BASE)
            EXPECT_EQ(ours.size(), 1u);
        else
            EXPECT_GT(ours.size(), 300u) << c.name;
    }
}

TEST_F(OpsSlapd, SubtreeSearchMatchesLdapsearchValueForValue)
{
    ASSERT_NO_FATAL_FAILURE(bind_manager());
    LDAPMessage *res = nullptr;
    std::vector<std::string> raw;
    ASSERT_EQ(ldap_search_s(h.ld, s.base().c_str(), LDAP_SCOPE_SUBTREE, "(objectClass=*)", nullptr,
                            0, &res),
              0);
    EntryMap ours = wzrtest::read_entries(h.ld, res, &raw);
    ldap_msgfree(res);
    EntryMap theirs = ldapsearch(s, s.base(), "sub", "(objectClass=*)");
    ASSERT_GT(theirs.size(), 300u);
    EXPECT_EQ(ours.size(), theirs.size());
    for (const auto &[dn, attrs] : theirs) {
        auto it = ours.find(dn);
        ASSERT_NE(it, ours.end()) << "missing " << dn;
        EXPECT_EQ(it->second, attrs) << dn;
    }
    // The entries with binary values and escaped names arrived intact.
    std::string carol = canonical_dn("uid=carol,ou=people," + s.base());
    ASSERT_EQ(ours.count(carol), 1u);
    const std::string &photo = ours[carol]["jpegphoto"].at(0);
    ASSERT_EQ(photo.size(), 256u);
    for (int i = 0; i < 256; ++i)
        EXPECT_EQ(static_cast<unsigned char>(photo[i]), i);
    EXPECT_EQ(ours.count(canonical_dn("cn=Smith\\, John,ou=people," + s.base())), 1u);
    EXPECT_EQ(ours.count(canonical_dn("cn=a\\+b,ou=people," + s.base())), 1u);
}

TEST_F(OpsSlapd, FiltersSelectWhatTheServerMatches)
{
    ASSERT_NO_FATAL_FAILURE(bind_manager());
    for (const char *filter :
         {"(uid=alice)", "(&(objectClass=inetOrgPerson)(|(sn=Cert)(cn=Alice*)))", "(cn=*Jo*)",
          "(!(objectClass=inetOrgPerson))", "(cn=Smith\\2c John)", "(cn=a\\2bb)", "(cn:=x)",
          "(ou:dn:=people)", "(createTimestamp>=19700101000000Z)", "(mail=*)", "(cn=\\23hash)"}) {
        LDAPMessage *res = nullptr;
        int rc = ldap_search_s(h.ld, s.base().c_str(), LDAP_SCOPE_SUBTREE, filter, nullptr, 0, &res);
        if (std::string(filter) == "(cn:=x)") {
            EXPECT_EQ(rc, LDAP_FILTER_ERROR);
            EXPECT_EQ(ldap_get_errno(h.ld), LDAP_FILTER_ERROR);
            EXPECT_EQ(res, nullptr);
            continue;
        }
        ASSERT_EQ(rc, 0) << filter;
        EntryMap ours = wzrtest::read_entries(h.ld, res);
        ldap_msgfree(res);
        EntryMap theirs = ldapsearch(s, s.base(), "sub", filter);
        EXPECT_FALSE(theirs.empty()) << filter;
        EXPECT_EQ(ours.size(), theirs.size()) << filter;
        for (const auto &[dn, attrs] : theirs)
            EXPECT_EQ(ours.count(dn), 1u) << filter << " " << dn;
    }
}

TEST_F(OpsSlapd, SizeLimitKeepsTheEntriesThatArrived)
{
    LDAPMessage *res = nullptr;
    int rc = ldap_search_ext_s(h.ld, people(s).c_str(), LDAP_SCOPE_SUBTREE, "(uid=user*)", nullptr,
                               0, nullptr, nullptr, nullptr, 7, &res);
    EXPECT_EQ(rc, LDAP_SIZELIMIT_EXCEEDED);
    ASSERT_NE(res, nullptr);
    EXPECT_EQ(ldap_count_entries(h.ld, res), 7);
    ldap_msgfree(res);
    // The handle's size-limit option drives the classic asynchronous form.
    int limit = 3;
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SIZELIMIT, &limit), 0);
    int id = ldap_search(h.ld, people(s).c_str(), LDAP_SCOPE_ONELEVEL, "(uid=user*)", nullptr, 0);
    ASSERT_GT(id, 0);
    ASSERT_EQ(ldap_result(h.ld, id, 1, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ldap_count_entries(h.ld, res), 3);
    EXPECT_EQ(ldap_result2error(h.ld, res, 1), LDAP_SIZELIMIT_EXCEEDED);
}

TEST_F(OpsSlapd, TimeLimitsAndAttributeSelection)
{
    // Microseconds alone ask the server for one second, not for "no limit" nor for zero.
    struct timeval tv = {0, 500000};
    LDAPMessage *res = nullptr;
    char *attrs[] = {const_cast<char *>("cn"), const_cast<char *>("mail"), nullptr};
    ASSERT_EQ(ldap_search_st(h.ld, people(s).c_str(), LDAP_SCOPE_ONELEVEL, "(uid=alice)", attrs, 0,
                             &tv, &res),
              0);
    EntryMap got = wzrtest::read_entries(h.ld, res);
    ldap_msgfree(res);
    ASSERT_EQ(got.size(), 1u);
    const auto &alice = got.begin()->second;
    EXPECT_EQ(alice.size(), 2u);
    EXPECT_EQ(alice.at("mail").size(), 2u);
    // attrs-only: the types without values.
    ASSERT_EQ(ldap_search_ext_s(h.ld, people(s).c_str(), LDAP_SCOPE_ONELEVEL, "(uid=alice)", attrs,
                                1, nullptr, nullptr, &tv, 0, &res),
              0);
    got = wzrtest::read_entries(h.ld, res);
    ldap_msgfree(res);
    ASSERT_EQ(got.size(), 1u);
    for (const auto &[type, values] : got.begin()->second)
        EXPECT_TRUE(values.empty()) << type;
    // Scope 3 and a missing filter never reach the server.
    EXPECT_EQ(ldap_search_s(h.ld, s.base().c_str(), 3, "(cn=*)", nullptr, 0, &res),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_search(h.ld, s.base().c_str(), LDAP_SCOPE_BASE, nullptr, nullptr, 0), -1);
    EXPECT_EQ(ldap_search_s(h.ld, "ou=nowhere,dc=example,dc=com", LDAP_SCOPE_BASE,
                            "(objectClass=*)", nullptr, 0, &res),
              LDAP_NO_SUCH_OBJECT);
    ldap_msgfree(res);
}

TEST_F(OpsSlapd, UpdatesAreReadBack)
{
    ASSERT_NO_FATAL_FAILURE(bind_manager());
    const std::string dn = "cn=Ops Update\\, Test,ou=people," + s.base();
    (void)ldap_delete_s(h.ld, dn.c_str()); // a leftover of an aborted run

    char *oc[] = {const_cast<char *>("inetOrgPerson"), nullptr};
    char *cn[] = {const_cast<char *>("Ops Update, Test"), nullptr};
    char *sn[] = {const_cast<char *>("Update"), nullptr};
    std::string blob("\x00\x01\xfe\xff binary", 11);
    struct berval photo = {blob.size(), blob.data()};
    struct berval *photos[] = {&photo, nullptr};
    LDAPMod m_oc = {LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m_cn = {LDAP_MOD_ADD, const_cast<char *>("cn"), {cn}};
    LDAPMod m_sn = {LDAP_MOD_ADD, const_cast<char *>("sn"), {sn}};
    LDAPMod m_photo = {LDAP_MOD_ADD | LDAP_MOD_BVALUES, const_cast<char *>("jpegPhoto"), {}};
    m_photo.mod_bvalues = photos;
    LDAPMod *add[] = {&m_oc, &m_cn, &m_sn, &m_photo, nullptr};
    ASSERT_EQ(ldap_add_s(h.ld, dn.c_str(), add), 0);
    EXPECT_EQ(ldap_add_s(h.ld, dn.c_str(), add), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(values_of(h.ld, dn, "jpegPhoto"), std::vector<std::string>{blob});

    // Modify: add two mail values, replace sn, delete the photo.
    char *mails[] = {const_cast<char *>("a@example.com"), const_cast<char *>("b@example.com"),
                     nullptr};
    char *sn2[] = {const_cast<char *>("Replaced"), nullptr};
    LDAPMod add_mail = {LDAP_MOD_ADD, const_cast<char *>("mail"), {mails}};
    LDAPMod rep_sn = {LDAP_MOD_REPLACE, const_cast<char *>("sn"), {sn2}};
    LDAPMod del_photo = {LDAP_MOD_DELETE, const_cast<char *>("jpegPhoto"), {nullptr}};
    LDAPMod *mods[] = {&add_mail, &rep_sn, &del_photo, nullptr};
    ASSERT_EQ(ldap_modify_s(h.ld, dn.c_str(), mods), 0);
    EXPECT_EQ(values_of(h.ld, dn, "mail"),
              (std::vector<std::string>{"a@example.com", "b@example.com"}));
    EXPECT_EQ(values_of(h.ld, dn, "sn"), std::vector<std::string>{"Replaced"});
    EXPECT_TRUE(values_of(h.ld, dn, "jpegPhoto").empty());

    // Compare: true, false, and the berval form with an empty value.
    EXPECT_EQ(ldap_compare_s(h.ld, dn.c_str(), "sn", "Replaced"), LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_compare_s(h.ld, dn.c_str(), "sn", "Other"), LDAP_COMPARE_FALSE);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_COMPARE_FALSE);
    struct berval mail = {13, const_cast<char *>("b@example.com")};
    EXPECT_EQ(ldap_compare_ext_s(h.ld, dn.c_str(), "mail", &mail, nullptr, nullptr),
              LDAP_COMPARE_TRUE);

    // Rename in place (old RDN value removed), then under another parent.
    const std::string renamed = "cn=Ops Renamed,ou=people," + s.base();
    ASSERT_EQ(ldap_modrdn_s(h.ld, dn.c_str(), "cn=Ops Renamed", 1), 0);
    EXPECT_FALSE(exists(h.ld, dn));
    EXPECT_EQ(values_of(h.ld, renamed, "cn"), std::vector<std::string>{"Ops Renamed"});
    const std::string moved = "cn=Ops Moved,ou=devices," + s.base();
    ASSERT_EQ(ldap_rename_s(h.ld, renamed.c_str(), "cn=Ops Moved",
                            ("ou=devices," + s.base()).c_str(), 0, nullptr, nullptr),
              0);
    EXPECT_FALSE(exists(h.ld, renamed));
    // deleteoldrdn 0 keeps the old value next to the new one.
    std::vector<std::string> cns = values_of(h.ld, moved, "cn");
    EXPECT_EQ(cns.size(), 2u);

    // Delete, and the entry is gone.
    ASSERT_EQ(ldap_delete_s(h.ld, moved.c_str()), 0);
    EXPECT_FALSE(exists(h.ld, moved));
    EXPECT_EQ(ldap_delete_s(h.ld, moved.c_str()), LDAP_NO_SUCH_OBJECT);
}

TEST_F(OpsSlapd, AsynchronousUpdatesReturnTheirResponses)
{
    ASSERT_NO_FATAL_FAILURE(bind_manager());
    const std::string dn = "cn=Ops Async,ou=people," + s.base();
    (void)ldap_delete_s(h.ld, dn.c_str());
    char *oc[] = {const_cast<char *>("person"), nullptr};
    char *sn[] = {const_cast<char *>("Async"), nullptr};
    LDAPMod m_oc = {LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m_sn = {LDAP_MOD_ADD, const_cast<char *>("sn"), {sn}};
    LDAPMod *add[] = {&m_oc, &m_sn, nullptr};

    // Each request is collected before the next is sent: the server may run the requests of
    // one connection in parallel.
    auto collect = [&](int id, int type) {
        EXPECT_GT(id, 0);
        LDAPMessage *res = nullptr;
        EXPECT_EQ(ldap_result(h.ld, id, 1, nullptr, &res), type);
        return ldap_result2error(h.ld, res, 1);
    };
    EXPECT_EQ(collect(ldap_add(h.ld, dn.c_str(), add), LDAP_RES_ADD), 0);
    EXPECT_EQ(collect(ldap_compare(h.ld, dn.c_str(), "sn", "Async"), LDAP_RES_COMPARE),
              LDAP_COMPARE_TRUE);
    LDAPMod rep = {LDAP_MOD_REPLACE, const_cast<char *>("sn"), {sn}};
    LDAPMod *mods[] = {&rep, nullptr};
    EXPECT_EQ(collect(ldap_modify(h.ld, dn.c_str(), mods), LDAP_RES_MODIFY), 0);
    EXPECT_EQ(collect(ldap_modrdn(h.ld, dn.c_str(), "cn=Ops Async2", 1), LDAP_RES_MODDN), 0);
    const std::string dn2 = "cn=Ops Async2,ou=people," + s.base();
    EXPECT_EQ(collect(ldap_delete(h.ld, dn2.c_str()), LDAP_RES_DELETE), 0);
    EXPECT_FALSE(exists(h.ld, dn2));
}

} // namespace
