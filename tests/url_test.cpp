// LDAP URL parsing: defaults, the tolerated forms, percent-decoding, every refusal, and the
// release of partial descriptors when an allocation fails.
#include <gtest/gtest.h>

#include <string>

#include "liblber/ber_memory.h"
#include "libldap/ldap_url.h"
#include "support/test_util.h"
#include "trace/ldap_trace.h"

namespace {

// Parses `url` and renders the descriptor as "scheme|host|port|dn|attrs|scope|filter", with
// "-" for a missing piece and the attributes as "[a,b]"; a refusal renders as "rc=N".
std::string parsed(const char *url, bool internal = false)
{
    LDAPURLDesc *lud = reinterpret_cast<LDAPURLDesc *>(&internal); // must be reset by the parse
    int rc = internal ? ldap_url_parse_internal(url, &lud) : ldap_url_parse(url, &lud);
    if (rc != 0) {
        EXPECT_EQ(lud, nullptr) << "a refusal leaves no descriptor";
        return "rc=" + std::to_string(rc);
    }
    auto opt = [](const char *s) { return std::string(s != nullptr ? s : "-"); };
    std::string attrs = "-";
    for (char **a = lud->lud_attrs; a != nullptr && *a != nullptr; ++a)
        attrs = (a == lud->lud_attrs ? "[" : attrs + ",") + *a;
    if (lud->lud_attrs != nullptr)
        attrs = lud->lud_attrs[0] == nullptr ? "[]" : attrs + "]";
    EXPECT_EQ(lud->lud_string, nullptr) << "the working copy is released";
    std::string out = opt(lud->lud_scheme) + "|" + opt(lud->lud_host) + "|" +
                      std::to_string(lud->lud_port) + "|" + opt(lud->lud_dn) + "|" + attrs + "|" +
                      std::to_string(lud->lud_scope) + "|" + opt(lud->lud_filter);
    ldap_free_urldesc(lud);
    return out;
}

std::string rc(int code) { return "rc=" + std::to_string(code); }

TEST(UrlParse, FormsDefaultsAndDecoding)
{
    const std::string dflt = "|-|0|(objectClass=*)"; // no attributes, base scope, default filter
    const struct {
        const char *url;
        std::string want;
        bool internal = false;
    } cases[] = {
        {"ldap://host", "ldap|host|389|-" + dflt},
        {"ldaps://host/", "ldaps|host|636|-" + dflt},
        {"LDAPS://host:1636/o=x?cn,sn?sub?(cn=a)", "LDAPS|host|1636|o=x|[cn,sn]|2|(cn=a)"},
        {"LdAp://h/o=x??OnE", "LdAp|h|389|o=x|-|1|(objectClass=*)"},
        {"ldap://h/o=x??BASE", "ldap|h|389|o=x" + dflt},
        {"ldap://h/o=x??Sub", "ldap|h|389|o=x|-|2|(objectClass=*)"},
        {"<URL:ldap://host:1389/o=x?cn?one?(a=b)>", "ldap|host|1389|o=x|[cn]|1|(a=b)"},
        {"<url:ldap://host:1389/o=x?cn?one?(a=b)>", "ldap|host|1389|o=x|[cn]|1|(a=b)"},
        {"URL:ldap://host:1389/o=x?cn?one?(a=b)", "ldap|host|1389|o=x|[cn]|1|(a=b)"},
        {"<ldap://host:1389/o=x?cn?one?(a=b)>", "ldap|host|1389|o=x|[cn]|1|(a=b)"},
        {"<URL:ldap://host:1389/o=x?cn?one?(a=b)", "ldap|host|1389|o=x|[cn]|1|(a=b)"},
        // Only an enclosed URL loses a final ">".
        {"ldap://h/o=x>", "ldap|h|389|o=x>" + dflt},
        {"<ldap://h/o=x>>", "ldap|h|389|o=x>" + dflt},
        {"<ldap://h>", "ldap|h|389|-" + dflt},
        {"ldap://[::1]:389/", "ldap|::1|389|-" + dflt},
        {"ldaps://[fe80::1%25eth0]:1636", "ldaps|fe80::1%25eth0|1636|-" + dflt},
        {"ldap://[::1]:", "ldap|::1|0|-" + dflt},
        {"ldap://host:/o=x", "ldap|host|0|o=x" + dflt}, // empty port: digits
        {"ldap:///o=x", "ldap|-|389|o=x" + dflt},
        {"ldap://:1389/o=x", "ldap|-|1389|o=x" + dflt},
        {"ldap://ho%73t.example", "ldap|host.example|389|-" + dflt},
        {"ldap://h%3a1:7", "ldap|h:1|7|-" + dflt}, // decoded after the port split
        {"ldap://host:000389", "ldap|host|389|-" + dflt},
        {"ldap://host/o=a%20b", "ldap|host|389|o=a b" + dflt},
        {"ldap://host/?cn", "ldap|host|389|-|[cn]|0|(objectClass=*)"},
        {"ldap://h/cn=a%2fb%2Cc,o=x", "ldap|h|389|cn=a/b,c,o=x" + dflt},
        {"ldap://h/o=x?cn?sub?(cn=a?b)?ext", "ldap|h|389|o=x|[cn]|2|(cn=a?b)?ext"},
        {"ldap://h/o=x??" "?(cn=a%2ab)", "ldap|h|389|o=x|-|0|(cn=a*b)"},
        {"ldap://h/o=x?,cn,,s%6e,?base", "ldap|h|389|o=x|[,cn,,sn,]|0|(objectClass=*)"},
        // Escapes are decoded by arithmetic alone, never reading past the string's end.
        {"ldap://h/o=%zz", "ldap|h|389|o=S" + dflt}, // ('z'-'a'+10)*17 = 0x253
        {"ldap://h/o=%4", "ldap|h|389|o=@" + dflt},
        {"ldap://h/o=x%", "ldap|h|389|o=x" + dflt},
        {"ldap://h/o=%00x", "ldap|h|389|o=" + dflt}, // a decoded NUL ends it
        {"ldap://h/o=%4a%4A", "ldap|h|389|o=JJ" + dflt},
        {"ldap://h/o=x??sub?%", "ldap|h|389|o=x|-|2|(objectClass=*)"},
        {"ldap://h/o=x??sub?a%2", "ldap|h|389|o=x|-|2|a "},
        {"ldap://h%", "ldap|h|389|-" + dflt},
        {"ldap://h/o=x?c%", "ldap|h|389|o=x|[c]|0|(objectClass=*)"},
        {"ldap://h/o=x?%,%4", "ldap|h|389|o=x|[,@]|0|(objectClass=*)"},
        // The outer parse fills in the defaults the internal one leaves missing.
        {"ldap://host/o=x???", "ldap|host|389|o=x" + dflt},
        {"ldap://host/o=x???", "ldap|host|-1|o=x|-|-1|-", true},
        {"LDAPS://host", "LDAPS|host|-2|-|-|-1|-", true},
        {"ldaps://host:389", "ldaps|host|389|-|-|-1|-", true},
        {"ldaps://[::1]/o=x", "ldaps|::1|-2|o=x|-|-1|-", true},
        {"ldap://[::1]junk/", "ldap|::1|-1|-|-|-1|-", true}, // no ":" after "]"
    };
    for (const auto &c : cases)
        EXPECT_EQ(parsed(c.url, c.internal), c.want) << c.url << (c.internal ? " internal" : "");
}

TEST(UrlParse, RefusalsLeaveNoDescriptor)
{
    const struct {
        const char *url;
        int rc;
    } cases[] = {
        {"ldap://host:abc", LDAP_INVALID_SYNTAX},     {"ldap://host:38a9/o=x", LDAP_INVALID_SYNTAX},
        {"ldap://host:-1", LDAP_INVALID_SYNTAX},      {"ldap://a:1:2", LDAP_INVALID_SYNTAX},
        {"ldap://[::1]:x/", LDAP_INVALID_SYNTAX},     {"ldap://host/o=x??bogus", LDAP_URL_ERR_BADSCOPE},
        {"ldap://host/o=x??subtree?(a=b)", LDAP_URL_ERR_BADSCOPE},
        {"http://host/o=x", LDAP_URL_ERR_NOTLDAP},    {"ldap:/host", LDAP_URL_ERR_NOTLDAP},
        {"ldapx://host", LDAP_URL_ERR_NOTLDAP},       {" ldap://host", LDAP_URL_ERR_NOTLDAP},
        {"<<ldap://host>", LDAP_URL_ERR_NOTLDAP},     {"URL:", LDAP_URL_ERR_NOTLDAP},
        {"", LDAP_URL_ERR_NOTLDAP},                   {nullptr, LDAP_URL_ERR_NOTLDAP},
    };
    long live = lber_live_blocks();
    for (const auto &c : cases)
        for (bool internal : {false, true})
            EXPECT_EQ(parsed(c.url, internal), rc(c.rc)) << (c.url != nullptr ? c.url : "(null)");
    EXPECT_EQ(lber_live_blocks(), live);
    EXPECT_EQ(ldap_url_parse("ldap://h", nullptr), LDAP_PARAM_ERROR);
    ldap_free_urldesc(nullptr);
    for (const char *yes : {"ldap://", "LDAPS://x", "<URL:ldap://x>", "URL:ldap://", "<ldaps://",
                            "ldap://h:bad/o=x??bogus"})
        EXPECT_EQ(ldap_is_ldap_url(yes), 1) << yes; // only the prefix counts
    for (const char *no : {"ldap:/", "ldapx://", "", "<URL:", "<", "URL:URL:ldap://", "ldap",
                           static_cast<const char *>(nullptr)})
        EXPECT_EQ(ldap_is_ldap_url(no), 0) << (no != nullptr ? no : "(null)");
}

// Every failed allocation gives LDAP_URL_ERR_MEM and no descriptor; the counts pin each step.
TEST(UrlParse, EveryAllocationFailureGivesNinetyNineAndLeaksNothing)
{
    const char *full = "ldaps://host.example.com:1636/ou=people,o=x?cn,s%6e,mail?one?(uid=a%2ab)";
    const std::string full_want = "ldaps|host.example.com|1636|ou=people,o=x|[cn,sn,mail]|1|(uid=a*b)";
    const struct {
        const char *url;
        bool internal;
        std::string want;
        int steps;
    } cases[] = {
        // descriptor, scheme, copy, attribute array, three attributes, DN, filter, host
        {full, false, full_want, 10},
        {full, true, full_want, 10},
        // descriptor, scheme, copy, DN, host, and the default filter last
        {"ldap://h/o=x", false, "ldap|h|389|o=x|-|0|(objectClass=*)", 6},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.url) + (c.internal ? " internal" : ""));
        EXPECT_EQ(wzrtest::walk_alloc_failures([&] {
                      std::string got = parsed(c.url, c.internal);
                      bool refused = got.rfind("rc=", 0) == 0;
                      EXPECT_EQ(got, refused ? rc(LDAP_URL_ERR_MEM) : c.want);
                      return !refused;
                  }),
                  c.steps);
    }
}

TEST(UrlParse, FailuresAreTracedAtTheErrorClass)
{
    wzrtest::TempDir dir;
    std::string file = dir.file("url.trace");
    ASSERT_EQ(ldap_set_debug_file(file.c_str()), 0);
    ldap_set_debug_mask(0x8000);
    EXPECT_EQ(parsed("http://x"), rc(LDAP_URL_ERR_NOTLDAP));
    EXPECT_EQ(parsed("ldap://x/o=x??deep"), rc(LDAP_URL_ERR_BADSCOPE));
    EXPECT_EQ(parsed("ldap://x/o=x").rfind("rc=", 0), std::string::npos);
    std::string errors = wzrtest::read_file(file);
    ldap_set_debug_mask(1);
    EXPECT_EQ(parsed("ldap://y").rfind("rc=", 0), std::string::npos);
    std::string all = wzrtest::read_file(file).substr(errors.size());
    ldap_set_debug_mask(0);
    (void)ldap_set_debug_file("stderr");
    EXPECT_NE(errors.find("ldap_url_parse_internal: Not an LDAP URL\n"), std::string::npos);
    EXPECT_NE(errors.find("ldap_url_parse_internal: bad scope=deep\n"), std::string::npos);
    EXPECT_EQ(errors.find("SUCCESS"), std::string::npos) << errors;
    for (const char *line : {"ldap_url_parse(ldap://y)\n", "ldap_url_parse_internal(ldap://y)\n",
                             "ldap_url_parse_internal: return(SUCCESS)\n"})
        EXPECT_NE(all.find(line), std::string::npos) << all;
}

} // namespace
