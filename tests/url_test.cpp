// LDAP URL parsing: defaults, the tolerated forms, percent-decoding, every refusal, and the
// release of partial descriptors when an allocation fails.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "liblber/ber_memory.h"
#include "libldap/ldap_url.h"
#include "support/test_util.h"
#include "trace/ldap_trace.h"

namespace {

// A parsed URL, released at the end of the test.
class Parsed {
public:
    explicit Parsed(const char *url, bool internal = false)
    {
        lud_ = reinterpret_cast<LDAPURLDesc *>(&rc_); // must be reset by the parse
        rc_ = internal ? ldap_url_parse_internal(url, &lud_) : ldap_url_parse(url, &lud_);
    }
    ~Parsed() { ldap_free_urldesc(lud_); }
    Parsed(const Parsed &) = delete;
    Parsed &operator=(const Parsed &) = delete;

    int rc() const { return rc_; }
    const LDAPURLDesc *operator->() const { return lud_; }
    const LDAPURLDesc *get() const { return lud_; }
    std::optional<std::string> host() const { return opt(lud_->lud_host); }
    std::optional<std::string> dn() const { return opt(lud_->lud_dn); }
    std::optional<std::string> filter() const { return opt(lud_->lud_filter); }
    std::optional<std::vector<std::string>> attrs() const
    {
        if (lud_->lud_attrs == nullptr)
            return std::nullopt;
        std::vector<std::string> v;
        for (char **a = lud_->lud_attrs; *a != nullptr; ++a)
            v.emplace_back(*a);
        return v;
    }

private:
    static std::optional<std::string> opt(const char *s)
    {
        return s != nullptr ? std::optional<std::string>(s) : std::nullopt;
    }
    int rc_ = -1;
    LDAPURLDesc *lud_ = nullptr;
};

using Attrs = std::vector<std::string>;

TEST(UrlParse, BareHostTakesEveryDefault)
{
    Parsed u("ldap://host");
    ASSERT_EQ(u.rc(), 0);
    EXPECT_STREQ(u->lud_scheme, "ldap");
    EXPECT_EQ(u.host(), "host");
    EXPECT_EQ(u->lud_port, 389);
    EXPECT_EQ(u->lud_scope, LDAP_SCOPE_BASE);
    EXPECT_EQ(u.dn(), std::nullopt);
    EXPECT_EQ(u.attrs(), std::nullopt);
    EXPECT_EQ(u.filter(), "(objectClass=*)");
    EXPECT_EQ(u->lud_string, nullptr) << "the working copy is released";

    Parsed s("ldaps://host/");
    ASSERT_EQ(s.rc(), 0);
    EXPECT_EQ(s->lud_port, 636);
    EXPECT_STREQ(s->lud_scheme, "ldaps");
}

TEST(UrlParse, FullUrlKeepsTheSchemeAsWritten)
{
    Parsed u("LDAPS://host:1636/o=x?cn,sn?sub?(cn=a)");
    ASSERT_EQ(u.rc(), 0);
    EXPECT_STREQ(u->lud_scheme, "LDAPS");
    EXPECT_EQ(u.host(), "host");
    EXPECT_EQ(u->lud_port, 1636);
    EXPECT_EQ(u.dn(), "o=x");
    EXPECT_EQ(u.attrs(), (Attrs{"cn", "sn"}));
    EXPECT_EQ(u->lud_scope, LDAP_SCOPE_SUBTREE);
    EXPECT_EQ(u.filter(), "(cn=a)");

    Parsed mixed("LdAp://h/o=x??OnE");
    ASSERT_EQ(mixed.rc(), 0);
    EXPECT_STREQ(mixed->lud_scheme, "LdAp");
    EXPECT_EQ(mixed->lud_scope, LDAP_SCOPE_ONELEVEL);
    EXPECT_EQ(Parsed("ldap://h/o=x??BASE")->lud_scope, LDAP_SCOPE_BASE);
    EXPECT_EQ(Parsed("ldap://h/o=x??Sub")->lud_scope, LDAP_SCOPE_SUBTREE);
}

TEST(UrlParse, RefusalsLeaveNoDescriptor)
{
    struct Case {
        const char *url;
        int rc;
    };
    const Case cases[] = {
        {"ldap://host:abc", LDAP_INVALID_SYNTAX},
        {"ldap://host:38a9/o=x", LDAP_INVALID_SYNTAX},
        {"ldap://host:-1", LDAP_INVALID_SYNTAX},
        {"ldap://a:1:2", LDAP_INVALID_SYNTAX},
        {"ldap://[::1]:x/", LDAP_INVALID_SYNTAX},
        {"ldap://host/o=x??bogus", LDAP_URL_ERR_BADSCOPE},
        {"ldap://host/o=x??subtree?(a=b)", LDAP_URL_ERR_BADSCOPE},
        {"http://host/o=x", LDAP_URL_ERR_NOTLDAP},
        {"ldap:/host", LDAP_URL_ERR_NOTLDAP},
        {"ldapx://host", LDAP_URL_ERR_NOTLDAP},
        {" ldap://host", LDAP_URL_ERR_NOTLDAP},
        {"<<ldap://host>", LDAP_URL_ERR_NOTLDAP},
        {"URL:", LDAP_URL_ERR_NOTLDAP},
        {"", LDAP_URL_ERR_NOTLDAP},
        {nullptr, LDAP_URL_ERR_NOTLDAP},
    };
    long live = lber_live_blocks();
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url != nullptr ? c.url : "(null)");
        for (bool internal : {false, true}) {
            Parsed u(c.url, internal);
            EXPECT_EQ(u.rc(), c.rc);
            EXPECT_EQ(u.get(), nullptr);
        }
    }
    EXPECT_EQ(lber_live_blocks(), live);
    EXPECT_EQ(ldap_url_parse("ldap://h", nullptr), LDAP_PARAM_ERROR);
    ldap_free_urldesc(nullptr);
}

TEST(UrlParse, EnclosedFormParsesLikeTheBareUrl)
{
    for (const char *url :
         {"<URL:ldap://host:1389/o=x?cn?one?(a=b)>", "<url:ldap://host:1389/o=x?cn?one?(a=b)>",
          "URL:ldap://host:1389/o=x?cn?one?(a=b)", "<ldap://host:1389/o=x?cn?one?(a=b)>",
          "<URL:ldap://host:1389/o=x?cn?one?(a=b)"}) {
        SCOPED_TRACE(url);
        Parsed u(url);
        ASSERT_EQ(u.rc(), 0);
        EXPECT_STREQ(u->lud_scheme, "ldap");
        EXPECT_EQ(u.host(), "host");
        EXPECT_EQ(u->lud_port, 1389);
        EXPECT_EQ(u.dn(), "o=x");
        EXPECT_EQ(u.attrs(), (Attrs{"cn"}));
        EXPECT_EQ(u->lud_scope, LDAP_SCOPE_ONELEVEL);
        EXPECT_EQ(u.filter(), "(a=b)");
    }
    // Only an enclosed URL loses a final ">".
    EXPECT_EQ(Parsed("ldap://h/o=x>").dn(), "o=x>");
    EXPECT_EQ(Parsed("<ldap://h/o=x>>").dn(), "o=x>");
    EXPECT_EQ(Parsed("<ldap://h>").host(), "h");
}

TEST(UrlParse, HostAndPortForms)
{
    Parsed v6("ldap://[::1]:389/");
    ASSERT_EQ(v6.rc(), 0);
    EXPECT_EQ(v6.host(), "::1");
    EXPECT_EQ(v6->lud_port, 389);
    EXPECT_EQ(v6.dn(), std::nullopt);

    Parsed zone("ldaps://[fe80::1%25eth0]:1636");
    ASSERT_EQ(zone.rc(), 0);
    EXPECT_EQ(zone.host(), "fe80::1%25eth0") << "an IPv6 literal is not decoded";
    EXPECT_EQ(zone->lud_port, 1636);

    Parsed v6_noport("ldaps://[::1]/o=x", true);
    ASSERT_EQ(v6_noport.rc(), 0);
    EXPECT_EQ(v6_noport.host(), "::1");
    EXPECT_EQ(v6_noport->lud_port, -2);
    EXPECT_EQ(Parsed("ldap://[::1]junk/", true)->lud_port, -1) << "no \":\" after \"]\"";
    EXPECT_EQ(Parsed("ldap://[::1]:").get()->lud_port, 0);
    EXPECT_EQ(Parsed("ldap://host:/o=x")->lud_port, 0) << "an empty port counts as digits";

    Parsed nohost("ldap:///o=x");
    ASSERT_EQ(nohost.rc(), 0);
    EXPECT_EQ(nohost.host(), std::nullopt);
    EXPECT_EQ(nohost.dn(), "o=x");
    EXPECT_EQ(nohost->lud_port, 389);
    Parsed portonly("ldap://:1389/o=x");
    EXPECT_EQ(portonly.host(), std::nullopt);
    EXPECT_EQ(portonly->lud_port, 1389);

    EXPECT_EQ(Parsed("ldap://ho%73t.example").host(), "host.example");
    EXPECT_EQ(Parsed("ldap://h%3a1:7").host(), "h:1") << "decoded after the port was split off";
    EXPECT_EQ(Parsed("ldap://host:000389")->lud_port, 389);
}

TEST(UrlParse, PathPiecesAndDecoding)
{
    EXPECT_EQ(Parsed("ldap://host/o=a%20b").dn(), "o=a b");
    EXPECT_EQ(Parsed("ldap://host/").dn(), std::nullopt);
    EXPECT_EQ(Parsed("ldap://host/?cn").dn(), std::nullopt);
    EXPECT_EQ(Parsed("ldap://h/cn=a%2fb%2Cc,o=x").dn(), "cn=a/b,c,o=x");

    Parsed f("ldap://h/o=x?cn?sub?(cn=a?b)?ext");
    ASSERT_EQ(f.rc(), 0);
    EXPECT_EQ(f.filter(), "(cn=a?b)?ext") << "everything after the third \"?\"";
    EXPECT_EQ(Parsed("ldap://h/o=x??" "?(cn=a%2ab)").filter(), "(cn=a*b)");

    Parsed a("ldap://h/o=x?,cn,,s%6e,?base");
    ASSERT_EQ(a.rc(), 0);
    EXPECT_EQ(a.attrs(), (Attrs{"", "cn", "", "sn", ""})) << "empty pieces are kept";
    EXPECT_EQ(Parsed("ldap://h/o=x??one").attrs(), std::nullopt);
    EXPECT_EQ(Parsed("ldap://h/o=x?cn").attrs(), (Attrs{"cn"}));
}

TEST(UrlParse, MissingPiecesDifferBetweenParseAndInternalParse)
{
    Parsed outer("ldap://host/o=x???");
    ASSERT_EQ(outer.rc(), 0);
    EXPECT_EQ(outer->lud_scope, LDAP_SCOPE_BASE);
    EXPECT_EQ(outer.filter(), "(objectClass=*)");
    EXPECT_EQ(outer->lud_port, 389);

    Parsed inner("ldap://host/o=x???", true);
    ASSERT_EQ(inner.rc(), 0);
    EXPECT_EQ(inner->lud_scope, -1);
    EXPECT_EQ(inner.filter(), std::nullopt);
    EXPECT_EQ(inner->lud_port, -1);
    EXPECT_EQ(inner.dn(), "o=x");
    EXPECT_EQ(inner->lud_string, nullptr);

    Parsed secure("LDAPS://host", true);
    ASSERT_EQ(secure.rc(), 0);
    EXPECT_EQ(secure->lud_port, -2);
    EXPECT_EQ(Parsed("ldaps://host:389", true)->lud_port, 389);
}

// Escapes are decoded by arithmetic alone; none of these may read past the string's end.
TEST(UrlParse, MalformedEscapesDecodeWithoutChecks)
{
    EXPECT_EQ(Parsed("ldap://h/o=%zz").dn(), "o=S"); // ('z'-'a'+10) * 17 = 0x253 -> 0x53
    EXPECT_EQ(Parsed("ldap://h/o=%4").dn(), "o=@");  // one digit left: 0x40
    EXPECT_EQ(Parsed("ldap://h/o=x%").dn(), "o=x");  // a final "%" consumes the end
    EXPECT_EQ(Parsed("ldap://h/o=%00x").dn(), "o="); // a decoded NUL ends the string
    EXPECT_EQ(Parsed("ldap://h/o=%4a%4A").dn(), "o=JJ");
    EXPECT_EQ(Parsed("ldap://h/o=x??sub?%").filter(), "(objectClass=*)");
    EXPECT_EQ(Parsed("ldap://h/o=x??sub?a%2").filter(), "a ");
    EXPECT_EQ(Parsed("ldap://h%").host(), "h");
    EXPECT_EQ(Parsed("ldap://h/o=x?c%").attrs(), (Attrs{"c"}));
    EXPECT_EQ(Parsed("ldap://h/o=x?%,%4").attrs(), (Attrs{"", "@"}));
}

TEST(UrlParse, IsLdapUrlTestsOnlyThePrefix)
{
    for (const char *yes : {"ldap://", "LDAPS://x", "<URL:ldap://x>", "URL:ldap://", "<ldaps://",
                            "ldap://h:bad/o=x??bogus"})
        EXPECT_EQ(ldap_is_ldap_url(yes), 1) << yes;
    for (const char *no : {"ldap:/", "ldapx://", "", "<URL:", "<", "URL:URL:ldap://", "ldap"})
        EXPECT_EQ(ldap_is_ldap_url(no), 0) << no;
    EXPECT_EQ(ldap_is_ldap_url(nullptr), 0);
}

TEST(UrlParse, EveryAllocationFailureGivesNinetyNineAndLeaksNothing)
{
    const char *url = "ldaps://host.example.com:1636/ou=people,o=x?cn,s%6e,mail?one?(uid=a%2ab)";
    for (bool internal : {false, true}) {
        SCOPED_TRACE(internal ? "internal" : "parse");
        int walked = wzrtest::walk_alloc_failures([&] {
            LDAPURLDesc *lud = reinterpret_cast<LDAPURLDesc *>(&internal);
            int rc = internal ? ldap_url_parse_internal(url, &lud) : ldap_url_parse(url, &lud);
            if (rc != 0) {
                EXPECT_EQ(rc, LDAP_URL_ERR_MEM);
                EXPECT_EQ(lud, nullptr);
                return false;
            }
            EXPECT_STREQ(lud->lud_host, "host.example.com");
            EXPECT_STREQ(lud->lud_attrs[1], "sn");
            EXPECT_STREQ(lud->lud_filter, "(uid=a*b)");
            ldap_free_urldesc(lud);
            return true;
        });
        // descriptor, scheme, copy, attribute array, three attributes, DN, filter, host
        EXPECT_EQ(walked, 10);
    }
    // The default filter is the last allocation of the outer parse.
    int walked = wzrtest::walk_alloc_failures([] {
        LDAPURLDesc *lud = nullptr;
        int rc = ldap_url_parse("ldap://h/o=x", &lud);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_URL_ERR_MEM);
            EXPECT_EQ(lud, nullptr);
            return false;
        }
        EXPECT_STREQ(lud->lud_filter, "(objectClass=*)");
        ldap_free_urldesc(lud);
        return true;
    });
    EXPECT_EQ(walked, 6); // descriptor, scheme, copy, DN, host, default filter
}

TEST(UrlParse, FailuresAreTracedAtTheErrorClass)
{
    wzrtest::TempDir dir;
    std::string file = dir.file("url.trace");
    ASSERT_EQ(ldap_set_debug_file(file.c_str()), 0);
    ldap_set_debug_mask(0x8000);
    EXPECT_EQ(Parsed("http://x").rc(), LDAP_URL_ERR_NOTLDAP);
    EXPECT_EQ(Parsed("ldap://x/o=x??deep").rc(), LDAP_URL_ERR_BADSCOPE);
    EXPECT_EQ(Parsed("ldap://x/o=x").rc(), 0);
    std::string errors = wzrtest::read_file(file);
    ldap_set_debug_mask(1);
    EXPECT_EQ(Parsed("ldap://y").rc(), 0);
    std::string all = wzrtest::read_file(file).substr(errors.size());
    ldap_set_debug_mask(0);
    (void)ldap_set_debug_file("stderr");

    EXPECT_NE(errors.find("ldap_url_parse_internal: Not an LDAP URL\n"), std::string::npos);
    EXPECT_NE(errors.find("ldap_url_parse_internal: bad scope=deep\n"), std::string::npos);
    EXPECT_EQ(errors.find("SUCCESS"), std::string::npos) << errors;
    EXPECT_NE(all.find("ldap_url_parse(ldap://y)\n"), std::string::npos) << all;
    EXPECT_NE(all.find("ldap_url_parse_internal(ldap://y)\n"), std::string::npos);
    EXPECT_NE(all.find("ldap_url_parse_internal: return(SUCCESS)\n"), std::string::npos);
}

} // namespace
