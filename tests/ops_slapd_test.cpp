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
using Values = std::vector<std::string>;

// Every test works on the shared server through its own handle.
class OpsSlapd : public ::testing::Test {
protected:
    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(s);
        ld = ldap_init("127.0.0.1", s.port());
        ASSERT_NE(ld, nullptr);
    }
    void TearDown() override
    {
        if (ld != nullptr)
            ldap_unbind(ld);
    }
    void bind_manager()
    {
        ASSERT_EQ(ldap_simple_bind_s(ld, s.manager_dn().c_str(), s.manager_pw().c_str()), 0);
    }
    // ldapsearch's view of the same search, as the manager.
    EntryMap ldapsearch(const std::string &base, const char *scope, const std::string &filter)
    {
        std::string out, cmd = "ldapsearch -x -LLL -o ldif-wrap=no -H '" + s.uri() + "' -D '" +
                                   s.manager_dn() + "' -w '" + s.manager_pw() + "' -b '" + base +
                                   "' -s " + scope + " '" + filter + "'";
        EXPECT_EQ(wzrtest::run_capture(cmd, &out), 0) << cmd;
        return wzrtest::parse_ldif(out);
    }
    // Our view: the search's code, and its entries in *got.
    int search(const std::string &base, int scope, const char *filter, EntryMap *got,
               char **attrs = nullptr, int attrsonly = 0)
    {
        LDAPMessage *res = nullptr;
        int rc = ldap_search_s(ld, base.c_str(), scope, filter, attrs, attrsonly, &res);
        *got = wzrtest::read_entries(ld, res);
        EXPECT_EQ(ldap_count_entries(ld, res), static_cast<int>(got->size()));
        ldap_msgfree(res);
        return rc;
    }
    // The values of one attribute of one entry, read with a base search.
    Values values_of(const std::string &dn, const char *attr)
    {
        EntryMap m;
        char *attrs[] = {const_cast<char *>(attr), nullptr};
        std::string key = attr;
        for (char &c : key)
            c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        return search(dn, LDAP_SCOPE_BASE, "(objectClass=*)", &m, attrs) == 0 && !m.empty()
                   ? m.begin()->second[key]
                   : Values{};
    }
    bool exists(const std::string &dn)
    {
        EntryMap m;
        return search(dn, LDAP_SCOPE_BASE, "(objectClass=*)", &m) == 0;
    }
    // The code of the result of request `id`, whose response type is checked.
    int collect(int id, int type)
    {
        EXPECT_GT(id, 0);
        LDAPMessage *res = nullptr;
        EXPECT_EQ(ldap_result(ld, id, 1, nullptr, &res), type);
        return ldap_result2error(ld, res, 1);
    }
    std::string people() const { return "ou=people," + s.base(); }
    wzrtest::SlapdFixture &s = wzrtest::shared_slapd();
    LDAP *ld = nullptr;
};

// An LDAPMod over string values (or, with `binary`, one berval), kept alive by the object.
struct Mod {
    std::vector<std::string> values;
    std::vector<char *> ptrs;
    struct berval bv{};
    struct berval *bvs[2] = {&bv, nullptr};
    LDAPMod mod{};
    Mod(int op, const char *type, Values v, bool binary = false) : values(std::move(v))
    {
        for (std::string &x : values)
            ptrs.push_back(x.data());
        ptrs.push_back(nullptr);
        mod.mod_op = op | (binary ? LDAP_MOD_BVALUES : 0);
        mod.mod_type = const_cast<char *>(type);
        if (binary)
            bv = {values.at(0).size(), values[0].data()}, mod.mod_bvalues = bvs;
        else
            mod.mod_values = values.empty() ? nullptr : ptrs.data();
    }
};

TEST_F(OpsSlapd, SimpleExternalAndUnknownBinds)
{
    EXPECT_EQ(ldap_simple_bind_s(ld, s.manager_dn().c_str(), s.manager_pw().c_str()), 0);
    EXPECT_EQ(ldap_simple_bind_s(ld, s.user_dn().c_str(), s.user_pw().c_str()), 0);
    EXPECT_EQ(ldap_simple_bind_s(ld, s.user_dn().c_str(), "not-the-password"),
              LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_bind_s(ld, s.user_dn().c_str(), s.user_pw().c_str(), LDAP_AUTH_SIMPLE), 0);
    EXPECT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0); // anonymous
    // The asynchronous form hands out an id whose result is the bind response.
    EXPECT_EQ(collect(ldap_simple_bind(ld, s.user_dn().c_str(), s.user_pw().c_str()), LDAP_RES_BIND), 0);
    // No plug-in: sent as a plain SASL bind, which the server refuses with its own code.
    int rc = ldap_sasl_bind_s(ld, nullptr, "NO-SUCH-MECH", nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(rc == LDAP_AUTH_UNKNOWN || rc == LDAP_STRONG_AUTH_NOT_SUPPORTED ||
                rc == LDAP_INAPPROPRIATE_AUTH || rc == LDAP_OTHER) << rc;
    EXPECT_LT(rc, 81) << "the code must come from the server";

    ldap_unbind(ld); // EXTERNAL goes over the local socket; lower case is the same mechanism
    ld = ldap_init(s.ldapi_path().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "external", nullptr, nullptr, nullptr, nullptr), 0);
    // The mapped identity may compare its own entry.
    EXPECT_EQ(ldap_compare_s(ld, s.external_dn().c_str(), "uid", "operator"), LDAP_COMPARE_TRUE);
}

TEST_F(OpsSlapd, SearchesMatchLdapsearchValueForValue)
{
    ASSERT_NO_FATAL_FAILURE(bind_manager());
    const struct {
        std::string base;
        int scope;
        const char *name, *filter;
    } cases[] = {
        {people(), LDAP_SCOPE_BASE, "base", "(objectClass=*)"},
        {people(), LDAP_SCOPE_ONELEVEL, "one", "(objectClass=*)"},
        {s.base(), LDAP_SCOPE_SUBTREE, "sub", "(objectClass=*)"},
        {s.base(), LDAP_SCOPE_SUBTREE, "sub", "(&(objectClass=inetOrgPerson)(|(sn=Cert)(cn=Alice*)(cn=*Jo*)))"},
        {s.base(), LDAP_SCOPE_SUBTREE, "sub", "(!(objectClass=inetOrgPerson))"},
        {s.base(), LDAP_SCOPE_SUBTREE, "sub", "(|(cn=Smith\\2c John)(cn=a\\2bb)(cn=\\23hash))"},
        {s.base(), LDAP_SCOPE_SUBTREE, "sub", "(&(ou:dn:=people)(createTimestamp>=19700101000000Z)(mail=*))"},
    };
    EntryMap all;
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + c.filter);
        EntryMap ours;
        ASSERT_EQ(search(c.base, c.scope, c.filter, &ours), 0);
        EntryMap theirs = ldapsearch(c.base, c.name, c.filter);
        EXPECT_FALSE(theirs.empty());
        EXPECT_EQ(ours, theirs);
        if (all.size() < ours.size())
            all = ours;
    }
    ASSERT_GT(all.size(), 300u);
    // The entries with binary values and escaped names arrived intact.
    const std::string &photo = all[canonical_dn("uid=carol," + people())]["jpegphoto"].at(0);
    ASSERT_EQ(photo.size(), 256u);
    for (int i = 0; i < 256; ++i)
        EXPECT_EQ(static_cast<unsigned char>(photo[i]), i);
    EXPECT_EQ(all.count(canonical_dn("cn=Smith\\, John," + people())), 1u);
    EXPECT_EQ(all.count(canonical_dn("cn=a\\+b," + people())), 1u);
}

TEST_F(OpsSlapd, LimitsAttributeSelectionAndAbsentBase)
{
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_ext_s(ld, people().c_str(), LDAP_SCOPE_SUBTREE, "(uid=user*)", nullptr,
                                0, nullptr, nullptr, nullptr, 7, &res),
              LDAP_SIZELIMIT_EXCEEDED); // the entries that arrived are kept
    EXPECT_EQ(ldap_count_entries(ld, res), 7);
    ldap_msgfree(res);
    int limit = 3; // the handle's size-limit option drives the classic asynchronous form
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &limit), 0);
    int id = ldap_search(ld, people().c_str(), LDAP_SCOPE_ONELEVEL, "(uid=user*)", nullptr, 0);
    ASSERT_EQ(ldap_result(ld, id, 1, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ldap_count_entries(ld, res), 3);
    EXPECT_EQ(ldap_result2error(ld, res, 1), LDAP_SIZELIMIT_EXCEEDED);

    // Microseconds alone ask the server for one second, not for "no limit" nor for zero.
    struct timeval tv = {0, 500000};
    char *attrs[] = {const_cast<char *>("cn"), const_cast<char *>("mail"), nullptr};
    for (int attrsonly : {0, 1}) {
        ASSERT_EQ(ldap_search_ext_s(ld, people().c_str(), LDAP_SCOPE_ONELEVEL, "(uid=alice)", attrs,
                                    attrsonly, nullptr, nullptr, &tv, 0, &res), 0);
        EntryMap got = wzrtest::read_entries(ld, res);
        ldap_msgfree(res);
        ASSERT_EQ(got.size(), 1u);
        const auto &alice = got.begin()->second;
        EXPECT_EQ(alice.size(), 2u);
        EXPECT_EQ(alice.at("mail").size(), attrsonly ? 0u : 2u); // attrs-only: no values
        EXPECT_TRUE(alice.at("cn").empty() == (attrsonly == 1));
    }
    ASSERT_EQ(ldap_search_st(ld, people().c_str(), LDAP_SCOPE_ONELEVEL, "(uid=alice)", attrs, 0,
                             &tv, &res), 0);
    EXPECT_EQ(ldap_count_entries(ld, res), 1);
    ldap_msgfree(res);
    EXPECT_EQ(ldap_search_s(ld, ("ou=nowhere," + s.base()).c_str(), LDAP_SCOPE_BASE,
                            "(objectClass=*)", nullptr, 0, &res), LDAP_NO_SUCH_OBJECT);
    ldap_msgfree(res);
}

TEST_F(OpsSlapd, UpdatesAreReadBack)
{
    ASSERT_NO_FATAL_FAILURE(bind_manager());
    const std::string dn = "cn=Ops Update\\, Test," + people();
    (void)ldap_delete_s(ld, dn.c_str()); // a leftover of an aborted run
    const std::string blob("\x00\x01\xfe\xff binary", 11);
    Mod oc(LDAP_MOD_ADD, "objectClass", {"inetOrgPerson"}), cn(LDAP_MOD_ADD, "cn", {"Ops Update, Test"}),
        sn(LDAP_MOD_ADD, "sn", {"Update"}), photo(LDAP_MOD_ADD, "jpegPhoto", {blob}, true);
    LDAPMod *add[] = {&oc.mod, &cn.mod, &sn.mod, &photo.mod, nullptr};
    ASSERT_EQ(ldap_add_s(ld, dn.c_str(), add), 0);
    EXPECT_EQ(ldap_add_s(ld, dn.c_str(), add), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(values_of(dn, "jpegPhoto"), Values{blob});

    Mod mail(LDAP_MOD_ADD, "mail", {"a@example.com", "b@example.com"}),
        sn2(LDAP_MOD_REPLACE, "sn", {"Replaced"}), nophoto(LDAP_MOD_DELETE, "jpegPhoto", {});
    LDAPMod *mods[] = {&mail.mod, &sn2.mod, &nophoto.mod, nullptr};
    ASSERT_EQ(ldap_modify_s(ld, dn.c_str(), mods), 0);
    EXPECT_EQ(values_of(dn, "mail"), (Values{"a@example.com", "b@example.com"}));
    EXPECT_EQ(values_of(dn, "sn"), Values{"Replaced"});
    EXPECT_TRUE(values_of(dn, "jpegPhoto").empty());

    EXPECT_EQ(ldap_compare_s(ld, dn.c_str(), "sn", "Replaced"), LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_compare_s(ld, dn.c_str(), "sn", "Other"), LDAP_COMPARE_FALSE);
    struct berval bv = {13, const_cast<char *>("b@example.com")};
    EXPECT_EQ(ldap_compare_ext_s(ld, dn.c_str(), "mail", &bv, nullptr, nullptr), LDAP_COMPARE_TRUE);

    // Rename in place (old RDN value removed), then under another parent keeping the old value.
    const std::string renamed = "cn=Ops Renamed," + people(), moved = "cn=Ops Moved,ou=devices," + s.base();
    ASSERT_EQ(ldap_modrdn_s(ld, dn.c_str(), "cn=Ops Renamed", 1), 0);
    EXPECT_FALSE(exists(dn));
    EXPECT_EQ(values_of(renamed, "cn"), Values{"Ops Renamed"});
    ASSERT_EQ(ldap_rename_s(ld, renamed.c_str(), "cn=Ops Moved", ("ou=devices," + s.base()).c_str(),
                            0, nullptr, nullptr), 0);
    EXPECT_FALSE(exists(renamed));
    EXPECT_EQ(values_of(moved, "cn").size(), 2u);
    ASSERT_EQ(ldap_delete_s(ld, moved.c_str()), 0);
    EXPECT_FALSE(exists(moved));
    EXPECT_EQ(ldap_delete_s(ld, moved.c_str()), LDAP_NO_SUCH_OBJECT);

    // The asynchronous forms, each collected before the next is sent: the server may run the
    // requests of one connection in parallel.
    const std::string async = "cn=Ops Async," + people(), async2 = "cn=Ops Async2," + people();
    (void)ldap_delete_s(ld, async.c_str());
    Mod person(LDAP_MOD_ADD, "objectClass", {"person"}), asn(LDAP_MOD_ADD, "sn", {"Async"}),
        rep(LDAP_MOD_REPLACE, "sn", {"Async"});
    LDAPMod *add2[] = {&person.mod, &asn.mod, nullptr}, *mods2[] = {&rep.mod, nullptr};
    EXPECT_EQ(collect(ldap_add(ld, async.c_str(), add2), LDAP_RES_ADD), 0);
    EXPECT_EQ(collect(ldap_compare(ld, async.c_str(), "sn", "Async"), LDAP_RES_COMPARE), LDAP_COMPARE_TRUE);
    EXPECT_EQ(collect(ldap_modify(ld, async.c_str(), mods2), LDAP_RES_MODIFY), 0);
    EXPECT_EQ(collect(ldap_modrdn(ld, async.c_str(), "cn=Ops Async2", 1), LDAP_RES_MODDN), 0);
    EXPECT_EQ(collect(ldap_delete(ld, async2.c_str()), LDAP_RES_DELETE), 0);
    EXPECT_FALSE(exists(async2));
}

} // namespace
