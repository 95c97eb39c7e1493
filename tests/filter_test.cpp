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

// Encodes `filter` into a fresh FBER; the bytes, or nullopt-like failure flag.
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

void expect_encoding(const char *filter, const Bytes &want)
{
    Encoded got = encode(filter);
    EXPECT_EQ(got.rc, 0) << filter;
    EXPECT_EQ(hex(got.bytes), hex(want)) << filter;
}

TEST(FilterEncoding, EqualityAndNot)
{
    expect_encoding("(cn=Babs Jensen)", ava(0xa3, "cn", "Babs Jensen"));
    expect_encoding("(!(cn=Plitri))", cons(0xa2, ava(0xa3, "cn", "Plitri")));
}

TEST(FilterEncoding, NestedAndOrWithInitialSubstring)
{
    Bytes substr = cons(0xa4, str("cn") + cons(0x30, prim(0x80, "Babs J")));
    Bytes want = cons(0xa0, ava(0xa3, "objectClass", "Person") +
                                cons(0xa1, ava(0xa3, "sn", "Jensen") + substr));
    expect_encoding("(&(objectClass=Person)(|(sn=Jensen)(cn=Babs J*)))", want);
    // White space between the items and around the operators changes nothing.
    expect_encoding("( & (objectClass=Person) ( | (sn=Jensen) (cn=Babs J*) ) )", want);
}

TEST(FilterEncoding, SubstringParts)
{
    expect_encoding("(o=univ*of*mich*)",
                    cons(0xa4, str("o") + cons(0x30, prim(0x80, "univ") + prim(0x81, "of") +
                                                         prim(0x81, "mich"))));
    expect_encoding("(cn=*x)", cons(0xa4, str("cn") + cons(0x30, prim(0x82, "x"))));
    expect_encoding("(cn=a*b)",
                    cons(0xa4, str("cn") + cons(0x30, prim(0x80, "a") + prim(0x82, "b"))));
    expect_encoding("(cn=*mid*)", cons(0xa4, str("cn") + cons(0x30, prim(0x81, "mid"))));
    // An escaped asterisk inside a part is a literal byte of that part.
    expect_encoding("(cn=a\\2a*b)",
                    cons(0xa4, str("cn") + cons(0x30, prim(0x80, "a*") + prim(0x82, "b"))));
    EXPECT_EQ(encode("(cn=a*\\zz)").rc, -1);
}

TEST(FilterEncoding, PresenceOrderingApproxEmptySetsAndLongValues)
{
    expect_encoding("(cn=*)", prim(0x87, "cn"));
    expect_encoding("(cn= * )", prim(0x87, "cn"));
    expect_encoding("(age<=42)", ava(0xa6, "age", "42"));
    expect_encoding("(age>=42)", ava(0xa5, "age", "42"));
    expect_encoding("(sn~=jensen)", ava(0xa8, "sn", "jensen"));
    expect_encoding("(&)", cons(0xa0, "")); // an empty set
    expect_encoding("(|)", cons(0xa1, ""));
    std::string value(300, 'v'); // long values take the long length form
    expect_encoding(("(description=" + value + ")").c_str(), ava(0xa3, "description", value));
}

TEST(FilterEncoding, ExtensibleMatches)
{
    expect_encoding("(cn:dn:2.4.6.8.10:=Barney)",
                    cons(0xa9, prim(0x81, "2.4.6.8.10") + prim(0x82, "cn") + prim(0x83, "Barney") +
                                   prim(0x84, Bytes(1, '\xff'))));
    expect_encoding("(cn:2.5.13.2:=x)",
                    cons(0xa9, prim(0x81, "2.5.13.2") + prim(0x82, "cn") + prim(0x83, "x") +
                                   prim(0x84, Bytes(1, '\0'))));
    expect_encoding("(:1.2.3:=v)",
                    cons(0xa9, prim(0x81, "1.2.3") + prim(0x83, "v") + prim(0x84, Bytes(1, '\0'))));
    expect_encoding("(ou:dn:=People)",
                    cons(0xa9, prim(0x82, "ou") + prim(0x83, "People") +
                                   prim(0x84, Bytes(1, '\xff'))));
    // Extensible values are taken as they stand.
    expect_encoding("(cn:1.2:=a\\2a)",
                    cons(0xa9, prim(0x81, "1.2") + prim(0x82, "cn") + prim(0x83, "a\\2a") +
                                   prim(0x84, Bytes(1, '\0'))));
    for (const char *bad : {"(cn:=x)", "(cn::=x)", "(:dn:=x)", "(cn:dn::=x)", "(cn::1.2:=x)"})
        EXPECT_EQ(encode(bad).rc, -1) << bad;
}

TEST(FilterEncoding, EscapesDecodeToBytes)
{
    expect_encoding("(cn=a\\2ab)", ava(0xa3, "cn", "a*b"));
    expect_encoding("(cn=\\28x\\29\\5c)", ava(0xa3, "cn", "(x)\\"));
    expect_encoding("(cn=a\\00b)", ava(0xa3, "cn", Bytes("a\0b", 3)));
    expect_encoding("(cn=\\C3\\A9)", ava(0xa3, "cn", "\xc3\xa9"));
    // An escaped parenthesis does not end the item (the extensible value keeps it as written;
    // elsewhere "\)" is no hex escape and fails).
    expect_encoding("(cn:1.2:=a\\)b)", cons(0xa9, prim(0x81, "1.2") + prim(0x82, "cn") +
                                                    prim(0x83, "a\\)b") +
                                                    prim(0x84, Bytes(1, '\0'))));
    EXPECT_EQ(encode("(cn=a\\)b)").rc, -1);
    for (const char *bad : {"(cn=a\\zz)", "(cn=a\\2)", "(cn=a\\)", "(cn<=\\g0)"})
        EXPECT_EQ(encode(bad).rc, -1) << bad;
}

TEST(FilterEncoding, UnparenthesisedAndTrimmed)
{
    expect_encoding("cn=abc", ava(0xa3, "cn", "abc"));
    expect_encoding("  cn=abc  ", ava(0xa3, "cn", "abc"));
    expect_encoding("(cn=  spaced value  )", ava(0xa3, "cn", "spaced value"));
    // A trailing space escaped by a backslash stays part of the value (and then fails the
    // hex check, as "\ " is not an escape).
    EXPECT_EQ(encode("(cn=x\\ )").rc, -1);
}

TEST(FilterEncoding, MalformedFiltersFail)
{
    for (const char *bad :
         {"(cn=abc))", ")", "(cn=abc", "((cn=abc)", "(cn)", "(=x)", "(&(cn=a)", "(&cn=a)",
          "(|(cn=a)x)", "(<=x)", "", "   ", "(&(cn=a))(", "(cn=a\\", "(!(cn=a)"}) {
        EXPECT_EQ(encode(bad).rc, -1) << "[" << bad << "]";
    }
}

// Each of these would ask the server a question other than the one written, or none at all:
// nesting, a second filter, descriptions, empty or incomplete items, stray parentheses and
// wildcards, and NOT over more or less than one filter.
TEST(FilterEncoding, FiltersTheStandardDoesNotAllowFail)
{
    for (const char *bad :
         {"((uid=x))", "(&((uid=x)))", "(uid=a)(uid=b)", "(uid=a) x=1", "cn=a(b=c)", "(uid =x)",
          "(u id=x)", "(u_d=x)", "(c\xc3\xa9=x)", "(2a=x)", "(1=x)", "(2.5.4.03=x)", "(cn;=x)",
          "(cn;a_b=x)", "()", "( )", "(:dn:=x)", "(cn:1.x:=x)", "(cn:1.2;o:=x)", "(cn=a(b)",
          "cn=a)b", "(cn:1.2:=a(b)", "(!)", "(!(a=1)(b=2))", "(cn=a**b)", "(cn>=a*)",
          "(cn:1.2:=a*)"})
        EXPECT_EQ(encode(bad).rc, -1) << "[" << bad << "]";
}

TEST(FilterEncoding, OptionsNumericOidsAndTheKeptConveniencesEncode)
{
    const Bytes dn(1, '\xff');
    const std::pair<const char *, Bytes> cases[] = {
        {" ( cn;lang-en= x ) ", ava(0xa3, "cn;lang-en", "x")},
        {"(2.5.4.0>=1)", ava(0xa5, "2.5.4.0", "1")},
        {"x-1~=y", ava(0xa8, "x-1", "y")},
        {"(! (cn;x:dn:=v) )",
         cons(0xa2, cons(0xa9, prim(0x82, "cn;x") + prim(0x83, "v") + prim(0x84, dn)))},
        {"(:DN:caseExactMatch:=v)",
         cons(0xa9, prim(0x81, "caseExactMatch") + prim(0x83, "v") + prim(0x84, dn))},
    };
    for (const auto &[filter, want] : cases)
        expect_encoding(filter, want);
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
    expect_encoding(ok.c_str(), want);
}

TEST(FilterEncoding, CompressHexInPlace)
{
    char plain[] = "abc";
    EXPECT_EQ(compress_hex(plain), 3);
    char escaped[] = "a\\41\\00z";
    EXPECT_EQ(compress_hex(escaped), 4);
    EXPECT_EQ(std::string(escaped, 4), std::string("aA\0z", 4));
    char bad[] = "a\\4";
    EXPECT_EQ(compress_hex(bad), -1);
}

TEST(FilterEncoding, AllocationFailuresLeakNothing)
{
    int walked = wzrtest::walk_alloc_failures([] {
        BerElement *ber = fber_alloc_t(16); // small, so the filter makes it grow
        if (ber == nullptr)
            return false;
        int rc = put_filter(ber, "(&(objectClass=person)(|(cn=a*b*c)(sn:dn:1.2:=x)))", 0);
        fber_free(ber);
        return rc == 0;
    });
    EXPECT_GT(walked, 1);
}

} // namespace
