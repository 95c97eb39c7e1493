// The string filter encoder, byte for byte: every filter form, escapes, the unparenthesised
// form, and the malformed filters that must fail.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "libldap/ldap_filter.h"
#include "support/fber_bytes.h"
#include "support/test_util.h"

namespace {

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

struct Encoded {
    int rc;
    Bytes bytes;
};

Encoded encode(const char *filter)
{
    BerElement *ber = fber_alloc();
    EXPECT_NE(ber, nullptr);
    if (ber == nullptr)
        return {-2, {}};
    int rc = put_filter(ber, filter, 0);
    Bytes out(reinterpret_cast<char *>(ber->ber_buf), ber->ber_ptr - ber->ber_buf);
    fber_free(ber);
    return {rc, out};
}

void expect_encoding(const std::string &filter, const Bytes &want)
{
    Encoded got = encode(filter.c_str());
    EXPECT_EQ(got.rc, 0) << filter;
    EXPECT_EQ(hex(got.bytes), hex(want)) << filter;
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
        expect_encoding(filter, want);
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
        EXPECT_EQ(encode(bad).rc, -1) << "[" << bad << "]";
}

TEST(FilterEncoding, DeepNestingFailsInsteadOfOverflowing)
{
    std::string deep, ok;
    for (int i = 0; i < 150; ++i)
        deep = "(!" + deep + ")";
    for (int i = 0; i < 50; ++i)
        ok = "(!" + ok + ")";
    deep.insert(150 * 2, "(cn=x)");
    ok.insert(50 * 2, "(cn=x)");
    EXPECT_EQ(encode(deep.c_str()).rc, -1);
    Bytes want = ava(0xa3, "cn", "x");
    for (int i = 0; i < 50; ++i)
        want = cons(0xa2, want);
    expect_encoding(ok, want);
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

} // namespace
