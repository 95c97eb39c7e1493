// The BER decoder: header limits of both kinds, the integer and `l` differences between them,
// every scanf letter, the list readers' growth, in-place strings, hostile bytes, and the
// allocation failures of every allocating letter.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "liblber/ber_memory.h"
#include "liblber/lber.h"
#include "support/lber_test.h"
#include "trace/ldap_trace.h"

namespace
{

using wzrtest::Bytes;
using wzrtest::Fber;
using wzrtest::fber_of;
using wzrtest::Plain;
using wzrtest::plain_of;

Bytes octets(unsigned char tag, const std::string &s)
{
    Bytes out{tag};
    if (s.size() < 128) {
        out.push_back(static_cast<unsigned char>(s.size()));
    } else {
        out.insert(out.end(), {0x84, static_cast<unsigned char>(s.size() >> 24),
                               static_cast<unsigned char>(s.size() >> 16),
                               static_cast<unsigned char>(s.size() >> 8),
                               static_cast<unsigned char>(s.size())});
    }
    out.insert(out.end(), s.begin(), s.end());
    return out;
}

Bytes wrap(unsigned char tag, const Bytes &inner)
{
    Bytes out{tag,
              0x84,
              static_cast<unsigned char>(inner.size() >> 24),
              static_cast<unsigned char>(inner.size() >> 16),
              static_cast<unsigned char>(inner.size() >> 8),
              static_cast<unsigned char>(inner.size())};
    out.insert(out.end(), inner.begin(), inner.end());
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

void free_strings(char **v)
{
    for (char **p = v; p != nullptr && *p != nullptr; ++p)
        lber_free(*p);
    lber_free(v);
}

void free_bervals(struct berval **v)
{
    for (struct berval **p = v; p != nullptr && *p != nullptr; ++p)
        ber_bvfree(*p);
    lber_free(v);
}

TEST(BerDecodeHeader, HighTagFormIsRefusedByFberAndReadByPlain)
{
    for (unsigned char t : {0x1F, 0xBF}) {
        Bytes b{t, 0x05, 0x01, 0x00};
        ber_len_t len;
        EXPECT_EQ(fber_skip_tag(fber_of(b).get(), &len), LBER_ERROR);
    }
    Plain p = plain_of({0xBF, 0x81, 0x05, 0x01, 0xAA});
    ber_len_t len = 0;
    EXPECT_EQ(ber_skip_tag(p.get(), &len), 0xBF8105UL);
    EXPECT_EQ(len, 1u);
    // A ninth tag byte is too many; a tag cut short by the data end fails.
    Bytes nine{0x1F, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x01, 0x00};
    EXPECT_EQ(ber_skip_tag(plain_of(nine).get(), &len), LBER_ERROR);
    Bytes eight{0x1F, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x07, 0x00};
    EXPECT_EQ(ber_skip_tag(plain_of(eight).get(), &len), 0x1F81828384858607UL);
    EXPECT_EQ(ber_skip_tag(plain_of({0x1F, 0x81}).get(), &len), LBER_ERROR);

    // The plain encoder's multi-byte tags come back through the plain decoder.
    Plain enc(ber_alloc());
    ASSERT_NE(ber_printf(enc.get(), "t{ti}", 0x3F8105UL, 0x9F20UL, 7), -1);
    struct berval *flat = nullptr;
    ASSERT_EQ(ber_flatten(enc.get(), &flat), 0);
    Plain dec(ber_init(flat));
    ber_bvfree(flat);
    uint32_t outer = 0, inner = 0;
    int v = 0;
    EXPECT_EQ(ber_scanf(dec.get(), "Tti", &outer, &inner, &v), 0x9F20UL); // the tag i read
    EXPECT_EQ(outer, 0x3F8105u);
    EXPECT_EQ(inner, 0x9F20u);
    EXPECT_EQ(v, 7);
}

TEST(BerDecodeHeader, LengthLimits)
{
    ber_len_t len;
    // Nine length bytes are refused even with the data present.
    Bytes b89{0x04, 0x89, 0, 0, 0, 0, 0, 0, 0, 0, 1, 'x'};
    EXPECT_EQ(fber_skip_tag(fber_of(b89).get(), &len), LBER_ERROR);
    EXPECT_EQ(ber_skip_tag(plain_of(b89).get(), &len), LBER_ERROR);
    // A length beyond the data: the FBER header reads, a reader of contents refuses it.
    Bytes longer{0x04, 0x84, 0x00, 0x00, 0x10, 0x00, 'a', 'b'};
    EXPECT_EQ(fber_skip_tag(fber_of(longer).get(), &len), 0x04u);
    EXPECT_EQ(len, 0x1000u);
    char *s = reinterpret_cast<char *>(1);
    EXPECT_EQ(fber_get_stringa(fber_of(longer).get(), &s), LBER_ERROR);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(ber_skip_tag(plain_of(longer).get(), &len), LBER_ERROR);
    // Lengths near 2^64 and length bytes cut short.
    Bytes huge{0x04, 0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0, 'a'};
    EXPECT_EQ(fber_scanf(fber_of(huge).get(), "x"), LBER_ERROR);
    EXPECT_EQ(fber_skip_element(fber_of(huge).get()), 0);
    Bytes cut{0x04, 0x84, 0x00, 0x00};
    EXPECT_EQ(fber_skip_tag(fber_of(cut).get(), &len), LBER_ERROR);
    EXPECT_EQ(fber_skip_tag(fber_of({0x04}).get(), &len), LBER_ERROR);
    EXPECT_EQ(fber_skip_tag(fber_of({}).get(), &len), LBER_ERROR);
    // A length just above the largest accepted contents.
    Bytes toolong{0x04, 0x84, 0x7F, 0xFF, 0xFF, 0xF0};
    EXPECT_EQ(fber_scanf(fber_of(toolong).get(), "x"), LBER_ERROR);
}

TEST(BerDecodeHeader, PeekFirstNextAndSkip)
{
    Bytes set = wrap(0x31, cat({octets(0x04, "a"), octets(0x04, "bc")}));
    Fber f = fber_of(cat({set, Bytes{0x05, 0x00}}));
    ber_len_t len = 0;
    EXPECT_EQ(fber_peek_tag(f.get(), &len), 0x31u);
    EXPECT_EQ(f->ber_ptr, f->ber_buf);
    unsigned char *last = nullptr;
    EXPECT_EQ(fber_first_element(f.get(), &len, &last), 0x04u);
    EXPECT_EQ(last, f->ber_buf + set.size());
    EXPECT_EQ(fber_skip_element(f.get()), 0);
    EXPECT_EQ(fber_next_element(f.get(), &len, last), 0x04u);
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(fber_skip_element(f.get()), 0);
    EXPECT_EQ(fber_next_element(f.get(), &len, last), LBER_ERROR);
    EXPECT_EQ(fber_get_null(f.get()), 0x05u);
    EXPECT_EQ(fber_skip_element(f.get()), -1);
    // An empty set has no first element.
    EXPECT_EQ(fber_first_element(fber_of({0x30, 0x00}).get(), &len, &last), LBER_ERROR);
    // A skip past the data end stops at the end.
    Fber g = fber_of({0x04, 0x10, 'a', 'b'});
    EXPECT_EQ(fber_skip_element(g.get()), 0);
    EXPECT_EQ(g->ber_ptr, g->ber_end);
}

TEST(BerDecodeInt, FberDoesNotSignExtendLongerIntegersPlainDoes)
{
    Bytes ffff{0x02, 0x02, 0xFF, 0xFF};
    Bytes m1{0x02, 0x04, 0xFF, 0xFF, 0xFF, 0xFF};
    int v = 0;
    EXPECT_EQ(fber_scanf(fber_of(ffff).get(), "i", &v), 0x02u);
    EXPECT_EQ(v, 65535);
    EXPECT_EQ(fber_scanf(fber_of(m1).get(), "i", &v), 0x02u);
    EXPECT_EQ(v, -1);
    EXPECT_EQ(ber_scanf(plain_of(ffff).get(), "i", &v), 0x02u);
    EXPECT_EQ(v, -1);
    EXPECT_EQ(ber_scanf(plain_of(m1).get(), "i", &v), 0x02u);
    EXPECT_EQ(v, -1);

    int64_t n = 0;
    EXPECT_EQ(fber_get_int(fber_of({0x02, 0x01, 0x80}).get(), &n), 0x02u);
    EXPECT_EQ(n, -128);
    EXPECT_EQ(fber_get_int(fber_of({0x02, 0x00}).get(), &n), 0x02u);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(fber_get_int(fber_of({0x02, 0x08, 0xFF, 0, 0, 0, 0, 0, 0, 1}).get(), &n), 0x02u);
    EXPECT_EQ(n, static_cast<int64_t>(0xFF00000000000001ULL));
    EXPECT_EQ(ber_get_int(plain_of({0x02, 0x03, 0xFF, 0x7F, 0xFF}).get(), &n), 0x02u);
    EXPECT_EQ(n, -32769);
    EXPECT_EQ(fber_get_int(fber_of({0x02, 0x09, 0, 0, 0, 0, 0, 0, 0, 0, 1}).get(), &n), LBER_ERROR);
    EXPECT_EQ(fber_get_int(fber_of({0x02, 0x02, 0x01}).get(), &n), LBER_ERROR);

    // Round trip of the FBER encoder's forms.
    Fber enc(fber_alloc());
    ASSERT_EQ(fber_printf(enc.get(), "iebi", -5, 300, 1, INT32_MIN), 0);
    ber_reset(enc.get(), 1);
    int a = 0, e = 0, b = 0, m = 0;
    EXPECT_EQ(fber_scanf(enc.get(), "iebi", &a, &e, &b, &m), 0x02u);
    EXPECT_EQ(a, -5);
    EXPECT_EQ(e, 300);
    EXPECT_EQ(b, -1); // 0xFF read as one sign-extended byte
    EXPECT_EQ(m, INT32_MIN);
}

TEST(BerDecodeString, BufferMustHoldTheNul)
{
    Bytes b = octets(0x04, "abcd");
    char buf[8];
    ber_len_t len = 4;
    EXPECT_EQ(fber_scanf(fber_of(b).get(), "s", buf, &len), LBER_ERROR);
    len = 5;
    EXPECT_EQ(fber_scanf(fber_of(b).get(), "s", buf, &len), 0x04u);
    EXPECT_EQ(len, 4u);
    EXPECT_STREQ(buf, "abcd");
    len = 0;
    EXPECT_EQ(ber_scanf(plain_of(b).get(), "s", buf, &len), LBER_ERROR);
}

TEST(BerDecodeString, AllocatingLettersCopyAndTerminate)
{
    std::string bin("a\0b", 3);
    Bytes msg = wrap(0x30, cat({octets(0x04, "one"), octets(0x04, bin), octets(0x80, "xyz"),
                                Bytes{0x03, 0x03, 0x04, 0xAB, 0xC0}, Bytes{0x05, 0x00}}));
    for (bool fber : {true, false}) {
        Fber f;
        Plain p;
        BerElement *ber;
        if (fber) {
            f = fber_of(msg);
            ber = f.get();
        } else {
            p = plain_of(msg);
            ber = p.get();
        }
        char *a = nullptr;
        struct berval *O = nullptr;
        struct berval o = {99, nullptr};
        char *bits = nullptr;
        ber_len_t nbits = 0;
        ber_tag_t rc = fber ? fber_scanf(ber, "{aOoBn}", &a, &O, &o, &bits, &nbits)
                            : ber_scanf(ber, "{aOoBn}", &a, &O, &o, &bits, &nbits);
        EXPECT_EQ(rc, 0x05u);
        EXPECT_STREQ(a, "one");
        ASSERT_NE(O, nullptr);
        EXPECT_EQ(std::string(O->bv_val, O->bv_len), bin);
        EXPECT_EQ(O->bv_val[3], '\0');
        EXPECT_EQ(std::string(o.bv_val, o.bv_len), "xyz");
        EXPECT_EQ(o.bv_val[3], '\0');
        EXPECT_EQ(nbits, 12u);
        EXPECT_EQ(static_cast<unsigned char>(bits[0]), 0xAB);
        lber_free(a);
        ber_bvfree(O);
        lber_free(o.bv_val);
        lber_free(bits);
    }
}

TEST(BerDecodeScanf, TagLettersAndSkips)
{
    Bytes msg = wrap(0x30, cat({Bytes{0x02, 0x01, 0x07},
                                wrap(0x64, cat({octets(0x04, "cn=x"), wrap(0x30, {})}))}));
    Fber f = fber_of(msg);
    int id = 0;
    uint32_t peeked = 0, taken = 0;
    EXPECT_EQ(fber_scanf(f.get(), "{it", &id, &peeked), 0x64u);
    EXPECT_EQ(id, 7);
    EXPECT_EQ(peeked, 0x64u);
    EXPECT_EQ(fber_scanf(f.get(), "Tx", &taken), 0x04u);
    EXPECT_EQ(taken, 0x64u);
    ber_len_t len = 0;
    EXPECT_EQ(fber_peek_tag(f.get(), &len), 0x30u);
    EXPECT_EQ(fber_scanf(f.get(), ""), 0u);
    EXPECT_EQ(fber_scanf(f.get(), "}]"), 0u);
    EXPECT_EQ(fber_scanf(f.get(), "q"), LBER_ERROR);
    EXPECT_EQ(fber_scanf(nullptr, "i", &id), LBER_ERROR);
    // An FBER reader refuses a plain element.
    EXPECT_EQ(fber_scanf(plain_of(msg).get(), "{i", &id), LBER_ERROR);
}

TEST(BerDecodeScanf, LengthLetterIsStoredOnlyByThePlainDecoder)
{
    Bytes b = octets(0x04, "hello");
    ber_len_t len = 12345;
    EXPECT_EQ(fber_scanf(fber_of(b).get(), "l", &len), 0x04u);
    EXPECT_EQ(len, 12345u);
    EXPECT_EQ(ber_scanf(plain_of(b).get(), "l", &len), 0x04u);
    EXPECT_EQ(len, 5u);
    // The argument is consumed all the same: the next letter gets the next pointer.
    char *s = nullptr;
    EXPECT_EQ(fber_scanf(fber_of(b).get(), "la", &len, &s), 0x04u);
    EXPECT_STREQ(s, "hello");
    lber_free(s);
}

TEST(BerDecodeList, EmptySetYieldsNoArrayAndTheFormatGoesOn)
{
    Bytes msg = cat({Bytes{0x31, 0x00}, Bytes{0x02, 0x01, 0x09}});
    char **v = reinterpret_cast<char **>(1);
    int n = 0;
    EXPECT_EQ(fber_scanf(fber_of(msg).get(), "{v}i", &v, &n), 0x02u);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(n, 9);
    struct berval **V = reinterpret_cast<struct berval **>(1);
    EXPECT_EQ(ber_scanf(plain_of(msg).get(), "[V]i", &V, &n), 0x02u);
    EXPECT_EQ(V, nullptr);
    // Only the empty set's own letter is skipped: the result is the previous letter's.
    Bytes after_int = cat({Bytes{0x02, 0x01, 0x03}, Bytes{0x30, 0x00}});
    EXPECT_EQ(fber_scanf(fber_of(after_int).get(), "i{v}", &n, &v), 0x02u);
}

TEST(BerDecodeList, StringsAndBervalsAcrossTheGrowthSteps)
{
    for (size_t count : {1u, 2u, 3u, 1023u, 1024u, 2500u}) {
        Bytes members;
        for (size_t i = 0; i < count; ++i) {
            Bytes m = octets(0x04, std::to_string(i));
            members.insert(members.end(), m.begin(), m.end());
        }
        Bytes msg = wrap(0x31, members);
        char **v = nullptr;
        EXPECT_EQ(fber_scanf(fber_of(msg).get(), "{v}", &v), 0x31u);
        size_t got = 0;
        while (v[got] != nullptr)
            ++got;
        EXPECT_EQ(got, count);
        EXPECT_STREQ(v[count - 1], std::to_string(count - 1).c_str());
        free_strings(v);
        struct berval **V = nullptr;
        EXPECT_EQ(ber_scanf(plain_of(msg).get(), "[V]", &V), 0x31u);
        EXPECT_EQ(V[count - 1]->bv_len, std::to_string(count - 1).size());
        EXPECT_EQ(V[count], nullptr);
        free_bervals(V);
    }
}

TEST(BerDecodeList, AFailingMemberFreesTheWholeArray)
{
    long live = lber_live_blocks();
    // The third member claims more bytes than there are.
    Bytes msg = wrap(0x31, cat({octets(0x04, "a"), octets(0x04, "b"), Bytes{0x04, 0x05, 'c'}}));
    char **v = reinterpret_cast<char **>(1);
    EXPECT_EQ(fber_scanf(fber_of(msg).get(), "{v}", &v), LBER_ERROR);
    EXPECT_EQ(v, nullptr);
    struct berval **V = reinterpret_cast<struct berval **>(1);
    EXPECT_EQ(fber_scanf(fber_of(msg).get(), "[V]", &V), LBER_ERROR);
    EXPECT_EQ(V, nullptr);
    // Garbage between members ends the list as a failure too.
    Bytes junk = wrap(0x31, cat({octets(0x04, "a"), Bytes{0x1F}}));
    EXPECT_EQ(fber_scanf(fber_of(junk).get(), "{v}", &v), LBER_ERROR);
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(BerDecodeInplace, ValuesAreTerminatedWithoutCopies)
{
    Bytes msg = cat({octets(0x04, "first"),
                     wrap(0x31, cat({octets(0x04, "x"), octets(0x04, "yy"), octets(0x04, "zzz")})),
                     octets(0x04, "last")});
    Fber f = fber_of(msg);
    long calls = lber_alloc_calls();
    char *first = nullptr;
    EXPECT_EQ(fber_get_string_inplace(f.get(), &first), 0x04u);
    EXPECT_EQ(first, reinterpret_cast<char *>(f->ber_buf) + 2);
    char **list = nullptr;
    EXPECT_EQ(fber_get_stringlist_inplace(f.get(), &list), 0);
    EXPECT_EQ(lber_alloc_calls() - calls, 1); // the pointer array only, sized once
    char *last = nullptr;
    EXPECT_EQ(fber_get_string_inplace(f.get(), &last), 0x04u);
    fber_finish_inplace(f.get());
    EXPECT_EQ(f->ber_pending_nul, nullptr);
    EXPECT_STREQ(first, "first");
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list[0], "x");
    EXPECT_STREQ(list[1], "yy");
    EXPECT_STREQ(list[2], "zzz");
    EXPECT_EQ(list[3], nullptr);
    EXPECT_STREQ(last, "last");
    lber_free(list);

    char **none = reinterpret_cast<char **>(1);
    EXPECT_EQ(fber_get_stringlist_inplace(fber_of({0x30, 0x00}).get(), &none), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(fber_get_stringlist_inplace(fber_of({0x30, 0x03, 0x04}).get(), &none), -1);
    EXPECT_EQ(none, nullptr);
}

TEST(BerDecodeCursor, DupReadsOnItsOwnAndLeavesTheOriginal)
{
    Bytes msg = wrap(0x30, cat({Bytes{0x02, 0x01, 0x01}, octets(0x04, "v")}));
    Fber f = fber_of(msg);
    long live = lber_live_blocks();
    for (int round = 0; round < 2; ++round) {
        BerElement *c = ber_dup(f.get());
        int id = 0;
        char buf[4];
        ber_len_t len = sizeof buf;
        EXPECT_EQ(fber_scanf(c, "{is}", &id, buf, &len), 0x04u);
        EXPECT_STREQ(buf, "v");
        ber_free(c, 0);
    }
    EXPECT_EQ(f->ber_ptr, f->ber_buf);
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(BerDecodeTrace, ScanfTracesItsFormatAndPosition)
{
    wzrtest::TraceFile trace;
    Fber f = fber_of({0x02, 0x01, 0x01, 0x02, 0x01, 0x02});
    int a = 0;
    (void)fber_scanf(f.get(), "i", &a);
    (void)fber_scanf(f.get(), "i", &a);
    Plain p = plain_of({0x02, 0x01, 0x01});
    (void)ber_scanf(p.get(), "i", &a);
    (void)ber_scanf_w(p.get(), "x");
    EXPECT_GE(trace.count("fber_scanf fmt (i) ber:\n"), 1) << trace.text();
    EXPECT_GE(trace.count("fber_scanf fmt (i) offset=3 length=6\n"), 1);
    EXPECT_EQ(trace.count("ber_scanf fmt (i) ber:\n"), 2)
        << "the plain line, also inside the FBER one";
    EXPECT_GE(trace.count("ber_scanf_w fmt (x) offset=3 length=3\n"), 1);
}

TEST(BerDecodeHostile, TruncationsAndDeepNestingNeverCrash)
{
    Bytes full = wrap(
        0x30,
        cat({Bytes{0x02, 0x01, 0x05},
             wrap(0x64, cat({octets(0x04, "cn=a"),
                             wrap(0x30, wrap(0x30, cat({octets(0x04, "cn"),
                                                        wrap(0x31, octets(0x04, "v"))})))}))}));
    long live = lber_live_blocks();
    for (size_t cut = 0; cut <= full.size(); ++cut) {
        Bytes part(full.begin(), full.begin() + static_cast<long>(cut));
        int id;
        char *dn = nullptr;
        char **vals = nullptr;
        char type[32];
        ber_len_t tlen = sizeof type;
        ber_tag_t rc =
            fber_scanf(fber_of(part).get(), "{i{a{{s[v]}}}}", &id, &dn, type, &tlen, &vals);
        if (cut == full.size()) {
            EXPECT_EQ(rc, 0x31u);
            EXPECT_STREQ(vals[0], "v");
        } else {
            EXPECT_TRUE(rc == LBER_ERROR || vals == nullptr) << cut;
        }
        lber_free(dn);
        free_strings(vals);
    }
    EXPECT_EQ(lber_live_blocks(), live);

    Bytes deep;
    for (int i = 0; i < 5000; ++i)
        deep.insert(deep.end(), {0x30, 0x80});
    std::string fmt(6000, '{');
    EXPECT_EQ(fber_scanf(fber_of(deep).get(), fmt.c_str()), LBER_ERROR);
}

TEST(BerDecodeAllocFailures, EveryAllocatingLetterReleasesOnFailure)
{
    Bytes msg =
        wrap(0x30, cat({octets(0x04, "dn"), octets(0x04, "bv"), octets(0x04, "o"),
                        wrap(0x31, cat({octets(0x04, "1"), octets(0x04, "2"), octets(0x04, "3")})),
                        wrap(0x31, cat({octets(0x04, "4"), octets(0x04, "5"), octets(0x04, "6"),
                                        octets(0x04, "7")})),
                        Bytes{0x03, 0x02, 0x00, 0xFF}}));
    struct berval src = {msg.size(), reinterpret_cast<char *>(msg.data())};
    for (bool fber : {true, false}) {
        int steps = wzrtest::walk_alloc_failures([&] {
            BerElement *ber = fber ? fber_init(&src) : ber_init(&src);
            if (ber == nullptr)
                return false;
            char *a = nullptr, *bits = nullptr;
            struct berval *O = nullptr;
            struct berval o = {0, nullptr};
            char **v = nullptr;
            struct berval **V = nullptr;
            ber_len_t nbits = 0;
            ber_tag_t rc = fber ? fber_scanf(ber, "{aOo{v}[V]B}", &a, &O, &o, &v, &V, &bits, &nbits)
                                : ber_scanf(ber, "{aOo{v}[V]B}", &a, &O, &o, &v, &V, &bits, &nbits);
            bool ok = rc == 0x03u && v != nullptr && V != nullptr && nbits == 8;
            lber_free(a);
            ber_bvfree(O);
            lber_free(o.bv_val);
            free_strings(v);
            free_bervals(V);
            lber_free(bits);
            ber_free(ber, 1);
            return ok;
        });
        EXPECT_GE(steps, 10);
    }
}

} // namespace
