// The string syntaxes a caller hands in: DNs (state machines, unescaping, build modes, rebuilt
// and exploded strings, DNS-style names, traces), filters (the encoder byte for byte, malformed
// filters) and LDAP URLs (defaults, tolerated forms, decoding, refusals, allocation failures).
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "liblber/ber_memory.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_filter.h"
#include "libldap/ldap_url.h"
#include "support/fber_bytes.h"
#include "support/lber_test.h"
#include "support/msg_builder.h"
#include "support/test_util.h"
#include "trace/ldap_trace.h"

namespace {

using Strings = std::vector<std::string>;
using wzrtest::take_strings;

std::string take(char *s)
{
    std::string out = s != nullptr ? s : "<null>";
    ldap_memfree(s);
    return out;
}

struct Parsed {
    int err = -100; // declared first: the parse sets it
    LDAPDN *dn;
    explicit Parsed(const char *s, int mode = LDAP_DN_BUILD_IN_ORDER) : dn(parse_dn(s, mode, &err)) {}
    ~Parsed() { ldap_free_dn(dn); }
    // "type=value" of every pair of RDN `i` (values as stored).
    Strings pairs(int i) const
    {
        const LDAPRDN *r = dn->rdns;
        for (; i > 0 && r != nullptr; --i)
            r = r->next;
        Strings out;
        for (const LDAPAVA *a = r != nullptr ? r->avas : nullptr; a != nullptr; a = a->next)
            out.push_back(std::string(a->pair->type) + "=" + a->pair->value);
        return out;
    }
};

// What each DN parses to: its first RDN's pairs and normalized form, or the parse's error code.
TEST(DnParse, TypesValuesEscapesAndErrorCodes)
{
    const struct { const char *dn; int err; Strings first_rdn; const char *normalized = nullptr; }
        cases[] = {
        {"cn=John Smith, o=Acme", 0, {"cn=John Smith"}, "cn=John Smith,o=Acme"},
        // Blanks around types and "=", trailing blanks of values, ";" between RDNs.
        {"  cn = a  ;\tou=b \n", 0, {"cn=a"}, "cn=a,ou=b"},
        {"OID.2.5.4.3=x", 0, {"OID.2.5.4.3=x"}},
        {"oid.2.5=y", 0, {"oid.2.5=y"}},
        {"2.5.4.3=x", 0, {"2.5.4.3=x"}},
        {"cn=a,", 0, {"cn=a"}}, // a trailing separator ends the DN
        {"QRV-KerberosName=alice@EXAMPLE,o=x", 0, {"qrv-kn=alice@EXAMPLE"},
         "qrv-kn=alice@EXAMPLE,o=x"},
        {"qrv-kerberosnames=a", 0, {"qrv-kerberosnames=a"}},
        {"cn=#04024869", 0, {"cn=Hi"}}, // hex values are BER OCTET STRINGs
        {"cn=#0481024869,o=x", 0, {"cn=Hi"}},
        {"cn=#04024869 ,o=x", 0, {"cn=Hi"}},
        {"cn=\\ a", 0, {"cn= a"}},
        {"cn=a\\ ,o=x", 0, {"cn=a "}},
        {"cn=a\\,b\\2Bc\\\\d\\#,o=x", 0, {"cn=a,b+c\\d#"}},
        {"cn=\"Smith, John\" ,o=x", 0, {"cn=Smith, John"}},
        {"cn=\"\"", 0, {"cn="}},
        {"2..5=x", 7, {}}, {"2.=x", 7, {}}, {"OID.x=1", 7, {}},
        {"2a=x", 1, {}}, // after the digits only blanks may come
        {"cn x=y", 1, {}}, {"c_n=y", 1, {}}, {"=x", 1, {}}, {"cn", 1, {}}, {"cn=a,x", 1, {}},
        {"cn=a+", 1, {}},
        {"cn=#05024869", 1, {}}, // not an OCTET STRING
        {"cn=#04894869", 1, {}}, // nine length octets
        {"cn=#", 1, {}}, {"cn=#g0", 4, {}}, {"cn=#0g", 3, {}}, {"cn=#04024869 x", 9, {}},
        {"cn=a\\ b", 1, {}}, // an escaped blank inside the value
        {"cn=\"a\"b", 9, {}}, {"cn=a=b", 6, {}}, {"cn=,o=x", 6, {}}, {"cn=a\"b", 6, {}},
        {"cn=", -1, {}}, {"cn=   ", -1, {}}, {"cn=\\zz", 2, {}}, {"cn=\\4z", 3, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dn);
        Parsed p(c.dn);
        EXPECT_EQ(p.err, c.err);
        if (c.err != 0)
            continue;
        EXPECT_EQ(p.pairs(0), c.first_rdn);
        if (c.normalized != nullptr) {
            EXPECT_STREQ(p.dn->normalized, c.normalized);
        }
    }
    EXPECT_EQ(std::string(Parsed("cn=#04024869").dn->rdns->avas->pair->value), "\x48\x69");
    Parsed p("cn=John Smith, o=Acme");
    EXPECT_EQ(p.dn->count, 2);
    EXPECT_STREQ(p.dn->normalized_upper, "CN=JOHN SMITH,O=ACME");
}

TEST(DnParse, MultiValuedRdnsSortOnRequestEmptyDnsAndPartialOnes)
{
    Parsed p("cn=a+sn=b,o=c");
    ASSERT_EQ(p.err, 0);
    ASSERT_EQ(p.dn->count, 2);
    EXPECT_EQ(p.dn->rdns->count, 2);
    EXPECT_EQ(p.dn->rdns->next->count, 1);
    EXPECT_EQ(p.pairs(0), (Strings{"cn=a", "sn=b"}));
    EXPECT_EQ(p.pairs(1), (Strings{"o=c"}));
    Parsed sorted("sn=b+cn=z+cn=a+CN=A+Cn=B,o=x", LDAP_DN_BUILD_SORTED);
    ASSERT_EQ(sorted.err, 0);
    // By type then value; equal pairs (cn=a, CN=A) keep their order of arrival.
    EXPECT_EQ(sorted.pairs(0), (Strings{"cn=a", "CN=A", "Cn=B", "cn=z", "sn=b"}));
    Parsed ordered("sn=b+cn=z+cn=a+CN=A+Cn=B,o=x", LDAP_DN_BUILD_IN_ORDER);
    EXPECT_EQ(ordered.pairs(0), (Strings{"sn=b", "cn=z", "cn=a", "CN=A", "Cn=B"}));
    for (const char *s : {"", static_cast<const char *>(nullptr)}) {
        Parsed empty(s);
        ASSERT_NE(empty.dn, nullptr);
        EXPECT_EQ(empty.err, 0);
        EXPECT_EQ(empty.dn->count, 0);
        EXPECT_EQ(empty.dn->rdns, nullptr);
        EXPECT_STREQ(empty.dn->normalized, "");
        EXPECT_STREQ(empty.dn->normalized_upper, "");
    }
    // A bad DN keeps the RDNs read before the error in its normalized form.
    Parsed partial("cn=a,ou=b,x");
    EXPECT_EQ(partial.err, 1);
    EXPECT_EQ(partial.dn->count, 2);
    EXPECT_STREQ(partial.dn->normalized, "cn=a,ou=b");
}

TEST(DnValues, RebuiltStringsEscapeWhatWouldNotReadBack)
{
    // mode 0/1: explode_dn with(out) types; 2/3: explode_rdn
    const struct { const char *dn; int mode; Strings want; } cases[] = {
        {"cn=John Smith, o=Acme", 0, {"cn=John Smith", "o=Acme"}},
        {"cn=John Smith, o=Acme", 1, {"John Smith", "Acme"}},
        {"cn=a+sn=b,o=c", 0, {"cn=a+sn=b", "o=c"}},
        {"cn=a+sn=b,o=c", 2, {"cn=a", "sn=b"}},
        {"cn=a+sn=b,o=c", 3, {"a", "b"}},
        {"cn=\\#x+sn=\\ y,o=\"a,b\",ou=c\\ ,l=\"\"", 0,
         {"cn=\\#x+sn=\\ y", "o=a\\,b", "ou=c\\ ", "l=\"\""}},
        {"cn=\"<a>=;+\\\\\"", 0, {"cn=\\<a\\>\\=\\;\\+\\\\"}},
        {"cn=a\\,b+sn=\"q\",o=x", 2, {"cn=a,b", "sn=q"}}, // RDN values come unescaped
        {"user@host.example", 0, {"user", "host", "example"}}, // DNS-style names
        {"", 0, {}}, {"", 2, {}}, {"cn=a,=b", 0, {}}, {"cn=a,=b", 2, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dn);
        char **got = c.mode < 2 ? ldap_explode_dn(c.dn, c.mode) : ldap_explode_rdn(c.dn, c.mode - 2);
        EXPECT_EQ(got == nullptr, c.want.empty());
        EXPECT_EQ(take_strings(got), c.want);
    }
    EXPECT_EQ(ldap_explode_dn(nullptr, 0), nullptr);
    EXPECT_EQ(take(ldap_dn2ufn("cn=John Smith, o=Acme")), "John Smith,Acme");
    EXPECT_EQ(take(ldap_dn2ufn("cn=a+sn=b,o=c\\,d")), "a+b,c\\,d");
    EXPECT_EQ(take(ldap_dn2ufn("")), "");
    EXPECT_EQ(take(ldap_dn2ufn("host.example")), "host.example");
    EXPECT_EQ(ldap_dn2ufn("cn=a,=b"), nullptr);
}

TEST(DnNames, DnsStyleNamesSplitAtAtSignsAndDots)
{
    EXPECT_EQ(take_strings(ldap_explode_dns("..a..b@@c.")), (Strings{"a", "b", "c"}));
    std::string many;
    Strings want;
    for (int i = 0; i < 40; ++i) {
        many.append(i ? "." : "").append(std::to_string(i));
        want.push_back(std::to_string(i));
    }
    EXPECT_EQ(take_strings(ldap_explode_dns(many.c_str())), want); // grown past 8, 16 and 32 slots
    char **none = ldap_explode_dns("@.");
    EXPECT_TRUE(none != nullptr && none[0] == nullptr);
    ldap_value_free(none);
    EXPECT_EQ(ldap_explode_dns(nullptr), nullptr);
}

template <typename T> bool made(T *p, void (*release)(T *))
{
    release(p);
    return p != nullptr;
}

TEST(DnMemory, EveryFailedAllocationIsReportedWithoutLeaks)
{
    const char *dn = "cn=a+sn=\\#b,o=#04024869,qrv-kerberosname=k";
    EXPECT_GT(wzrtest::walk_alloc_failures([&] {
                  int err = 0;
                  LDAPDN *tree = parse_dn(dn, LDAP_DN_BUILD_SORTED, &err);
                  bool ok = tree != nullptr && err == 0;
                  EXPECT_TRUE(ok || err == LDAP_NO_MEMORY);
                  ldap_free_dn(tree);
                  return ok;
              }),
              15);
    auto memfree = [](char *p) { ldap_memfree(p); };
    wzrtest::walk_alloc_failures([&] { return made(ldap_explode_dn(dn, 0), ldap_value_free); });
    wzrtest::walk_alloc_failures([&] { return made(ldap_explode_rdn(dn, 1), ldap_value_free); });
    wzrtest::walk_alloc_failures([&] { return made<char>(ldap_dn2ufn(dn), memfree); });
    wzrtest::walk_alloc_failures(
        [&] { return made(ldap_explode_dns("a.b.c.d.e.f.g.h.i.j@k"), ldap_value_free); });
}

/* ---- filters ---- */

using namespace wzrtest::fber;

Bytes ava(unsigned char tag, const Bytes &attr, const Bytes &value)
{
    return cons(tag, str(attr) + str(value));
}
Bytes substrings(const Bytes &attr, const Bytes &parts) { return cons(0xa4, str(attr) + cons(0x30, parts)); }
// Extensible match: rule, type, value, dnAttributes (each optional but the value).
Bytes extensible(const Bytes &rule, const Bytes &type, const Bytes &value, bool dn)
{
    return cons(0xa9, (rule.empty() ? "" : prim(0x81, rule)) + (type.empty() ? "" : prim(0x82, type)) +
                          prim(0x83, value) + prim(0x84, Bytes(1, dn ? '\xff' : '\0')));
}

// The filter's encoding in hex, or "rc=N" when it is refused.
std::string encode(const std::string &filter)
{
    BerElement *ber = fber_alloc();
    EXPECT_NE(ber, nullptr);
    int rc = ber != nullptr ? put_filter(ber, filter.c_str(), 0) : -2;
    std::string out = rc != 0 ? "rc=" + std::to_string(rc)
                              : hex(Bytes(reinterpret_cast<char *>(ber->ber_buf),
                                          ber->ber_ptr - ber->ber_buf));
    fber_free(ber);
    return out;
}

TEST(FilterEncoding, EveryFormEncodesByteForByte)
{
    const Bytes person = ava(0xa3, "objectClass", "Person");
    const Bytes nested = cons(0xa0, person + cons(0xa1, ava(0xa3, "sn", "Jensen") +
                                                            substrings("cn", prim(0x80, "Babs J"))));
    const std::string value(300, 'v'); // long values take the long length form
    const std::pair<std::string, Bytes> cases[] = {
        {"(cn=Babs Jensen)", ava(0xa3, "cn", "Babs Jensen")},
        {"(!(cn=Plitri))", cons(0xa2, ava(0xa3, "cn", "Plitri"))},
        {"(&(objectClass=Person)(|(sn=Jensen)(cn=Babs J*)))", nested},
        // White space between the items and around the operators changes nothing.
        {"( & (objectClass=Person) ( | (sn=Jensen) (cn=Babs J*) ) )", nested},
        {"(o=univ*of*mich*)", substrings("o", prim(0x80, "univ") + prim(0x81, "of") + prim(0x81, "mich"))},
        {"(cn=*x)", substrings("cn", prim(0x82, "x"))},
        {"(cn=a*b)", substrings("cn", prim(0x80, "a") + prim(0x82, "b"))},
        {"(cn=*mid*)", substrings("cn", prim(0x81, "mid"))},
        // An escaped asterisk inside a part is a literal byte of that part.
        {"(cn=a\\2a*b)", substrings("cn", prim(0x80, "a*") + prim(0x82, "b"))},
        {"(cn=*)", prim(0x87, "cn")},
        {"(cn= * )", prim(0x87, "cn")},
        {"(age<=42)", ava(0xa6, "age", "42")},
        {"(age>=42)", ava(0xa5, "age", "42")},
        {"(sn~=jensen)", ava(0xa8, "sn", "jensen")},
        {"(&)", cons(0xa0, "")}, // empty sets
        {"(|)", cons(0xa1, "")},
        {"(description=" + value + ")", ava(0xa3, "description", value)},
        {"(cn:dn:2.4.6.8.10:=Barney)", extensible("2.4.6.8.10", "cn", "Barney", true)},
        {"(cn:2.5.13.2:=x)", extensible("2.5.13.2", "cn", "x", false)},
        {"(:1.2.3:=v)", extensible("1.2.3", "", "v", false)},
        {"(ou:dn:=People)", extensible("", "ou", "People", true)},
        // Extensible values are taken as they stand, an escaped parenthesis included.
        {"(cn:1.2:=a\\2a)", extensible("1.2", "cn", "a\\2a", false)},
        {"(cn:1.2:=a\\)b)", extensible("1.2", "cn", "a\\)b", false)},
        {"(cn=a\\2ab)", ava(0xa3, "cn", "a*b")},
        {"(cn=\\28x\\29\\5c)", ava(0xa3, "cn", "(x)\\")},
        {"(cn=a\\00b)", ava(0xa3, "cn", Bytes("a\0b", 3))},
        {"(cn=\\C3\\A9)", ava(0xa3, "cn", "\xc3\xa9")},
        {"cn=abc", ava(0xa3, "cn", "abc")}, // unparenthesised, trimmed
        {"  cn=abc  ", ava(0xa3, "cn", "abc")},
        {"(cn=  spaced value  )", ava(0xa3, "cn", "spaced value")},
        {" ( cn;lang-en= x ) ", ava(0xa3, "cn;lang-en", "x")}, // options, numeric OIDs
        {"(2.5.4.0>=1)", ava(0xa5, "2.5.4.0", "1")},
        {"x-1~=y", ava(0xa8, "x-1", "y")},
        {"(! (cn;x:dn:=v) )", cons(0xa2, extensible("", "cn;x", "v", true))},
        {"(:DN:caseExactMatch:=v)", extensible("caseExactMatch", "", "v", true)},
    };
    for (const auto &[filter, want] : cases)
        EXPECT_EQ(encode(filter), hex(want)) << filter;
}

// Each of these would ask the server a question other than the one written, or none at all.
TEST(FilterEncoding, MalformedFiltersFail)
{
    for (const char *bad :
         {"(cn=a*\\zz)", "(cn:=x)", "(cn::=x)", "(:dn:=x)", "(cn:dn::=x)", "(cn::1.2:=x)",
          "(cn=a\\)b)", "(cn=a\\zz)", "(cn=a\\2)", "(cn=a\\)", "(cn<=\\g0)",
          "(cn=x\\ )", // the escaped trailing blank stays and is no hex escape
          "(cn=abc))", ")", "(cn=abc", "((cn=abc)", "(cn)", "(=x)", "(&(cn=a)", "(&cn=a)",
          "(|(cn=a)x)", "(<=x)", "", "   ", "(&(cn=a))(", "(cn=a\\", "(!(cn=a)",
          "((uid=x))", "(&((uid=x)))", "(uid=a)(uid=b)", "(uid=a) x=1", "cn=a(b=c)", "(uid =x)",
          "(u id=x)", "(u_d=x)", "(c\xc3\xa9=x)", "(2a=x)", "(1=x)", "(2.5.4.03=x)", "(cn;=x)",
          "(cn;a_b=x)", "()", "( )", "(cn:1.x:=x)", "(cn:1.2;o:=x)", "(cn=a(b)",
          "cn=a)b", "(cn:1.2:=a(b)", "(!)", "(!(a=1)(b=2))", "(cn=a**b)", "(cn>=a*)",
          "(cn:1.2:=a*)"})
        EXPECT_EQ(encode(bad), "rc=-1") << "[" << bad << "]";
}

TEST(FilterEncoding, DeepNestingFailsInsteadOfOverflowing)
{
    std::string deep = "(cn=x)", ok;
    Bytes want = ava(0xa3, "cn", "x");
    for (int i = 1; i <= 150; ++i) {
        deep = "(!" + deep + ")";
        ok = i == 50 ? deep : ok;
        want = i <= 50 ? cons(0xa2, want) : want;
    }
    EXPECT_EQ(encode(deep), "rc=-1");
    EXPECT_EQ(encode(ok), hex(want));
}

TEST(FilterEncoding, CompressHexInPlaceAndAllocationFailuresLeakNothing)
{
    char plain[] = "abc", escaped[] = "a\\41\\00z", bad[] = "a\\4";
    EXPECT_EQ(compress_hex(plain), 3);
    EXPECT_EQ(compress_hex(escaped), 4);
    EXPECT_EQ(std::string(escaped, 4), std::string("aA\0z", 4));
    EXPECT_EQ(compress_hex(bad), -1);
    EXPECT_GT(wzrtest::walk_alloc_failures([] {
                  BerElement *ber = fber_alloc_t(16); // small, so the filter makes it grow
                  if (ber == nullptr)
                      return false;
                  int rc = put_filter(ber, "(&(objectClass=person)(|(cn=a*b*c)(sn:dn:1.2:=x)))", 0);
                  fber_free(ber);
                  return rc == 0;
              }),
              1);
}


/* ---- URLs ---- */


std::string rc(int code) { return "rc=" + std::to_string(code); }

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


TEST(UrlParse, FormsDefaultsDecodingAndRefusals)
{
    const std::string dflt = "|-|0|(objectClass=*)"; // no attributes, base scope, default filter
    const std::string syntax = rc(LDAP_INVALID_SYNTAX), scope = rc(LDAP_URL_ERR_BADSCOPE),
                      notldap = rc(LDAP_URL_ERR_NOTLDAP);
    const struct { const char *url; std::string want; bool internal = false; } cases[] = {
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
        // Refusals, the same from both parses, leave no descriptor and nothing allocated.
        {"ldap://host:abc", syntax}, {"ldap://host:38a9/o=x", syntax}, {"ldap://host:-1", syntax},
        {"ldap://a:1:2", syntax}, {"ldap://[::1]:x/", syntax}, {"ldap://host/o=x??bogus", scope},
        {"ldap://host/o=x??subtree?(a=b)", scope}, {"http://host/o=x", notldap},
        {"ldap:/host", notldap}, {"ldapx://host", notldap}, {" ldap://host", notldap},
        {"<<ldap://host>", notldap}, {"URL:", notldap}, {"", notldap}, {nullptr, notldap},
    };
    long live = lber_live_blocks();
    for (const auto &c : cases)
        for (bool internal : {c.internal, !c.internal})
            if (internal == c.internal || c.want.rfind("rc=", 0) == 0) {
                EXPECT_EQ(parsed(c.url, internal), c.want) << (c.url ? c.url : "(null)") << internal;
            }
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
    auto walk = [](const char *url, bool internal, const std::string &want) {
        return wzrtest::walk_alloc_failures([&] {
            std::string got = parsed(url, internal);
            bool refused = got.rfind("rc=", 0) == 0;
            EXPECT_EQ(got, refused ? rc(LDAP_URL_ERR_MEM) : want) << url;
            return !refused;
        });
    };
    // descriptor, scheme, copy, attribute array, three attributes, DN, filter, host
    EXPECT_EQ(walk(full, false, full_want), 10);
    EXPECT_EQ(walk(full, true, full_want), 10);
    // descriptor, scheme, copy, DN, host, and the default filter last
    EXPECT_EQ(walk("ldap://h/o=x", false, "ldap|h|389|o=x|-|0|(objectClass=*)"), 6);
}

// DN transitions are traced at the DN class, URL failures at the error class, successes in flow.
TEST(SyntaxTrace, DnTransitionsAndUrlFailuresAreTracedAtTheirClasses)
{
    wzrtest::TraceFile trace;
    ldap_set_debug_mask(0x0800);
    Parsed p("cn=a,2..5=b");
    std::string dn = trace.text();
    for (const char *line :
         {"Start in state B4TYPE.\n", "State tx B4TYPE -> INIDENT.\n",
          "End of DN component, found ,.\n", "BAD RDN type, code=7.\n"})
        EXPECT_NE(dn.find(line), std::string::npos) << line;
    EXPECT_EQ(dn.find("ldap_"), std::string::npos) << "only DN lines at this mask";
    ldap_set_debug_mask(0x8000);
    EXPECT_EQ(parsed("http://x"), rc(LDAP_URL_ERR_NOTLDAP));
    EXPECT_EQ(parsed("ldap://x/o=x??deep"), rc(LDAP_URL_ERR_BADSCOPE));
    EXPECT_EQ(parsed("ldap://x/o=x").rfind("rc=", 0), std::string::npos);
    std::string errors = trace.text().substr(dn.size());
    ldap_set_debug_mask(1);
    EXPECT_EQ(parsed("ldap://y").rfind("rc=", 0), std::string::npos);
    std::string all = trace.text().substr(dn.size() + errors.size());
    EXPECT_NE(errors.find("ldap_url_parse_internal: Not an LDAP URL\n"), std::string::npos);
    EXPECT_NE(errors.find("ldap_url_parse_internal: bad scope=deep\n"), std::string::npos);
    EXPECT_EQ(errors.find("SUCCESS"), std::string::npos) << errors;
    for (const char *line : {"ldap_url_parse(ldap://y)\n", "ldap_url_parse_internal(ldap://y)\n",
                             "ldap_url_parse_internal: return(SUCCESS)\n"})
        EXPECT_NE(all.find(line), std::string::npos) << all;
}

} // namespace
