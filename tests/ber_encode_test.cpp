// The BER encoder, byte for byte: FBER patched lengths and non-minimal integers, plain BER
// minimal and DER forms, multi-byte tags, the nesting limit, growth of both kinds, the element
// life functions, and every allocation failure on the way.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "liblber/ber_int.h"
#include "liblber/ber_memory.h"
#include "liblber/lber.h"
#include "support/lber_test.h"
#include "trace/ldap_trace.h"

namespace
{

using wzrtest::Bytes;
using wzrtest::Fber;
using wzrtest::Plain;
using wzrtest::written;

Bytes bytes_of(const std::string &s) { return Bytes(s.begin(), s.end()); }

TEST(FberEncode, RequestShapeHasPatchedFourByteLengths)
{
    Fber ber(fber_alloc());
    ASSERT_NE(ber, nullptr);
    ASSERT_EQ(fber_printf(ber.get(), "{it{s{so}}", 5, 0x6EUL, "cn=a", "x", "yy", 2), 0);
    ASSERT_EQ(fber_printf(ber.get(), "}"), 0);
    Bytes expect = {0x30, 0x84, 0x00, 0x00, 0x00, 0x1C, // message
                    0x02, 0x01, 0x05,                   // id 5
                    0x6E, 0x84, 0x00, 0x00, 0x00, 0x13, // tagged operation
                    0x04, 0x04, 'c',  'n',  '=',  'a',  // s
                    0x30, 0x84, 0x00, 0x00, 0x00, 0x07, // inner sequence
                    0x04, 0x01, 'x',  0x04, 0x02, 'y',  'y'};
    EXPECT_EQ(written(ber.get()), expect);
}

TEST(FberEncode, IntegersAreOneByteUpTo127ElseFourBytes)
{
    Fber ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "iiiie", 127, 128, -1, 200, 0), 0);
    Bytes expect = {0x02, 0x01, 0x7F, 0x02, 0x04, 0x00, 0x00, 0x00, 0x80, 0x02, 0x04, 0xFF,
                    0xFF, 0xFF, 0xFF, 0x02, 0x04, 0x00, 0x00, 0x00, 0xC8, 0x0A, 0x01, 0x00};
    EXPECT_EQ(written(ber.get()), expect);
}

TEST(PlainEncode, IntegersAreMinimalTwosComplement)
{
    struct Case {
        int value;
        Bytes bytes;
    } cases[] = {{128, {0x02, 0x02, 0x00, 0x80}},
                 {-1, {0x02, 0x01, 0xFF}},
                 {0, {0x02, 0x01, 0x00}},
                 {127, {0x02, 0x01, 0x7F}},
                 {-128, {0x02, 0x01, 0x80}},
                 {-129, {0x02, 0x02, 0xFF, 0x7F}},
                 {256, {0x02, 0x02, 0x01, 0x00}},
                 {65535, {0x02, 0x03, 0x00, 0xFF, 0xFF}},
                 {INT32_MIN, {0x02, 0x04, 0x80, 0x00, 0x00, 0x00}}};
    for (const Case &c : cases) {
        Plain ber(ber_alloc());
        ASSERT_NE(ber, nullptr);
        EXPECT_EQ(ber_printf(ber.get(), "i", c.value), static_cast<int>(c.bytes.size()));
        EXPECT_EQ(written(ber.get()), c.bytes) << c.value;
    }
}

TEST(BerEncode, EveryPrimitiveLetterOfBothKinds)
{
    static const unsigned char bits[] = {0xA5, 0xC0};
    char s1[] = "a", s2[] = "bc";
    char *strs[] = {s1, s2, nullptr};
    struct berval b1 = {2, const_cast<char *>("\x00\x01")};
    struct berval *bvs[] = {&b1, nullptr};
    Bytes expect = {0x01, 0x01, 0xFF, 0x01, 0x01, 0x00,      // b b
                    0x05, 0x00,                              // n
                    0x03, 0x03, 0x06, 0xA5, 0xC0,            // B: 10 bits, 6 unused
                    0x04, 0x03, 'x',  0x00, 'y',             // o keeps a NUL
                    0x04, 0x01, 'a',  0x04, 0x02, 'b',  'c', // v
                    0x04, 0x02, 0x00, 0x01};                 // V
    Fber f(fber_alloc());
    ASSERT_EQ(fber_printf(f.get(), "bbnBovV", 7, 0, bits, 10, "x\0y", 3, strs, bvs), 0);
    EXPECT_EQ(written(f.get()), expect);
    Plain p(ber_alloc());
    EXPECT_EQ(ber_printf(p.get(), "bbnBovV", 7, 0, bits, 10, "x\0y", 3, strs, bvs), 4);
    EXPECT_EQ(written(p.get()), expect);
}

TEST(BerEncode, TagAppliesToOneLetterThenReverts)
{
    Fber ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "t{s}s", 0xA0UL, "a", "b"), 0);
    Bytes expect = {0xA0, 0x84, 0x00, 0x00, 0x00, 0x03, 0x04, 0x01, 'a', 0x04, 0x01, 'b'};
    EXPECT_EQ(written(ber.get()), expect);
    EXPECT_EQ(ber->ber_tag, LBER_DEFAULT);

    Fber b2(fber_alloc());
    ASSERT_EQ(fber_printf(b2.get(), "tii", 0x80UL, 1, 2), 0);
    EXPECT_EQ(written(b2.get()), (Bytes{0x80, 0x01, 0x01, 0x02, 0x01, 0x02}));
}

TEST(FberEncode, NestingStopsAtOneHundredAndCloseNeedsAnOpen)
{
    Fber ber(fber_alloc());
    EXPECT_EQ(fber_printf(ber.get(), "}"), -1);
    for (int i = 0; i < FBER_MAX_NESTING; ++i)
        ASSERT_EQ(fber_printf(ber.get(), "{"), 0) << i;
    EXPECT_EQ(fber_printf(ber.get(), "["), -1);
    for (int i = 0; i < FBER_MAX_NESTING; ++i)
        ASSERT_EQ(fber_printf(ber.get(), "]"), 0) << i;
    EXPECT_EQ(fber_printf(ber.get(), "}"), -1);
    // The outermost holds 99 empty-bodied headers of 6 bytes each.
    EXPECT_EQ(written(ber.get()).size(), 600u);
    EXPECT_EQ(Bytes(ber->ber_buf, ber->ber_buf + 6), (Bytes{0x30, 0x84, 0, 0, 0x02, 0x52}));
    Plain p(ber_alloc()); // a plain element too
    EXPECT_EQ(ber_printf(p.get(), "}"), -1);
    EXPECT_EQ(ber_printf(p.get(), "{}]"), -1);
}

TEST(BerEncode, MissingArraysWriteNothingAndSucceed)
{
    Fber f(fber_alloc());
    EXPECT_EQ(fber_printf(f.get(), "{vV}", static_cast<char **>(nullptr),
                          static_cast<struct berval **>(nullptr)),
              0);
    EXPECT_EQ(written(f.get()), (Bytes{0x30, 0x84, 0, 0, 0, 0}));
    Plain p(ber_alloc());
    EXPECT_NE(ber_printf(p.get(), "{v}", static_cast<char **>(nullptr)), -1);
    EXPECT_EQ(written(p.get()), (Bytes{0x30, 0x84, 0, 0, 0, 0}));
}

TEST(BerEncode, UnknownLettersFailAndAreTraced)
{
    wzrtest::TraceFile trace;
    Fber f(fber_alloc());
    EXPECT_EQ(fber_printf(f.get(), "i a", 1), -1);
    Plain p(ber_alloc());
    EXPECT_EQ(ber_printf(p.get(), "x"), -1);
    EXPECT_EQ(fber_printf(p.get(), "i", 1), -1); // a plain element is no FBER
    EXPECT_GE(trace.count("unknown fmt  \n"), 1) << trace.text();
    EXPECT_GE(trace.count("unknown fmt x\n"), 1);
    EXPECT_GE(trace.count("is not an FBER!!!\n"), 1);
    EXPECT_EQ(fber_printf(f.get(), ""), 0);
    EXPECT_EQ(ber_printf(p.get(), ""), 0);
}

TEST(PlainEncode, PrimitiveLengthsAreMinimalLongForm)
{
    std::string big(300, 'q');
    Plain ber(ber_alloc());
    EXPECT_EQ(ber_printf(ber.get(), "s", big.c_str()), 304);
    Bytes out = written(ber.get());
    ASSERT_EQ(out.size(), 304u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 4), (Bytes{0x04, 0x82, 0x01, 0x2C}));

    Fber f(fber_alloc());
    ASSERT_EQ(fber_printf(f.get(), "s", big.c_str()), 0);
    Bytes fout = written(f.get());
    EXPECT_EQ(Bytes(fout.begin(), fout.begin() + 6), (Bytes{0x04, 0x84, 0x00, 0x00, 0x01, 0x2C}));
}

// Plain BER sequences keep five length bytes; DER ones are minimal, their contents moved down.
TEST(PlainEncode, SequenceLengthsAreFiveBytesUnlessDer)
{
    Plain ber(ber_alloc());
    ASSERT_NE(ber_printf(ber.get(), "{s{i}}", "ab", 1), -1);
    EXPECT_EQ(written(ber.get()), (Bytes{0x30, 0x84, 0, 0, 0, 0x0D, 0x04, 0x02, 'a', 'b', 0x30,
                                         0x84, 0, 0, 0, 0x03, 0x02, 0x01, 0x01}));
    Plain der(der_alloc());
    ASSERT_NE(ber_printf(der.get(), "{s{i}}", "ab", 1), -1);
    EXPECT_EQ(written(der.get()),
              (Bytes{0x30, 0x09, 0x04, 0x02, 'a', 'b', 0x30, 0x03, 0x02, 0x01, 0x01}));

    // Each DER length width, for a sequence holding one string of m bytes.
    struct Case {
        size_t m;
        Bytes head;
        size_t total;
    } cases[] = {{2, {0x30, 0x04}, 2 + 4},
                 {150, {0x30, 0x81, 0x99}, 3 + 153},
                 {300, {0x30, 0x82, 0x01, 0x30}, 4 + 304},
                 {70000, {0x30, 0x83, 0x01, 0x11, 0x75}, 5 + 70005}};
    for (const Case &c : cases) {
        Plain d(der_alloc());
        std::string payload(c.m, 'z');
        ASSERT_NE(ber_printf(d.get(), "{s}", payload.c_str()), -1);
        Bytes out = written(d.get());
        ASSERT_EQ(out.size(), c.total) << c.m;
        EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<long>(c.head.size())), c.head);
        EXPECT_EQ(out[c.head.size()], 0x04);
        EXPECT_EQ(out.back(), 'z');
    }
}

TEST(PlainEncode, MultiByteTagsAreWrittenByTheirSignificantBytes)
{
    Plain ber(ber_alloc());
    ASSERT_NE(ber_printf(ber.get(), "t{ti}", 0x3F8105UL, 0x9F20UL, 7), -1);
    EXPECT_EQ(written(ber.get()),
              (Bytes{0x3F, 0x81, 0x05, 0x84, 0, 0, 0, 0x04, 0x9F, 0x20, 0x01, 0x07}));
    // FBER tags are the low byte only.
    Fber f(fber_alloc());
    ASSERT_EQ(fber_printf(f.get(), "ti", 0x3F8105UL, 7), 0);
    EXPECT_EQ(written(f.get()), (Bytes{0x05, 0x01, 0x07}));
}

TEST(PlainEncode, ReturnsTheSizeOfTheLastElement)
{
    Plain ber(ber_alloc());
    EXPECT_EQ(ber_printf(ber.get(), "is", 1, "abc"), 5);
    EXPECT_EQ(ber_printf(ber.get(), "{s}", "abc"), 11);
    EXPECT_EQ(ber_printf(ber.get(), "n"), 2);
}

TEST(FberEncode, GrowthPastTheInlineBufferKeepsOpenOffsets)
{
    Fber ber(fber_alloc_t(16));
    ASSERT_NE(ber, nullptr);
    unsigned char *inline_buf = ber->ber_buf;
    std::string big(5000, 'k');
    ASSERT_EQ(fber_printf(ber.get(), "{i{s}s", 3, "small", big.c_str()), 0);
    EXPECT_NE(ber->ber_buf, inline_buf);
    EXPECT_EQ(ber->ber_heapbuf, ber->ber_buf);
    ASSERT_EQ(fber_printf(ber.get(), "}"), 0);
    Bytes out = written(ber.get());
    ASSERT_EQ(out.size(), 6u + 3 + 6 + 7 + 6 + 5000);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 6), (Bytes{0x30, 0x84, 0x00, 0x00, 0x13, 0x9E}));
    EXPECT_EQ(Bytes(out.begin() + 9, out.begin() + 15), (Bytes{0x30, 0x84, 0, 0, 0, 7}));
    EXPECT_EQ(out.back(), 'k');
}

TEST(FberEncode, GrowthSizeIsUsedPlusTheLargerOfUsedAndNeeded)
{
    Fber ber(fber_alloc_t(8));
    ASSERT_EQ(fber_printf(ber.get(), "i", 5), 0); // 3 used
    std::string s(20, 'a');
    ASSERT_EQ(fber_printf(ber.get(), "s", s.c_str()), 0); // needs 22: 3 + 22
    EXPECT_EQ(ber->ber_end - ber->ber_buf, 25);
    ASSERT_EQ(fber_printf(ber.get(), "s", "bb"), 0); // needs 4 with 0 left: 25 + 25
    EXPECT_EQ(ber->ber_end - ber->ber_buf, 50);
}

TEST(PlainEncode, GrowthInKilobyteUnitsMovesOpenSequences)
{
    Plain ber(der_alloc());
    std::string a(700, 'a'), b(1500, 'b');
    ASSERT_NE(ber_printf(ber.get(), "{{s", a.c_str()), -1);
    EXPECT_EQ(ber->ber_end - ber->ber_buf, 1024);
    ASSERT_NE(ber_printf(ber.get(), "s}", b.c_str()), -1);
    EXPECT_EQ(ber->ber_end - ber->ber_buf, 3072);
    ASSERT_NE(ber_printf(ber.get(), "}"), -1);
    Bytes out = written(ber.get());
    // 700 + 4 and 1500 + 4 inside two DER sequences of 3-byte lengths... and 4.
    size_t inner = 704 + 1504;
    ASSERT_EQ(out.size(), inner + 4 + 4);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 8),
              (Bytes{0x30, 0x82, 0x08, 0xA4, 0x30, 0x82, 0x08, 0xA0}));
    EXPECT_EQ(out[8], 0x04);
    EXPECT_EQ(out.back(), 'b');
}

TEST(BerWrite, RawAppendGoesIntoTheOpenSequenceUnlessBypassed)
{
    Plain ber(der_alloc());
    ASSERT_NE(ber_printf(ber.get(), "{"), -1);
    EXPECT_EQ(ber_write(ber.get(), "\x05\x00", 2, 0), 2);
    ASSERT_NE(ber_printf(ber.get(), "}"), -1);
    EXPECT_EQ(written(ber.get()), (Bytes{0x30, 0x02, 0x05, 0x00}));
    EXPECT_EQ(ber_write(ber.get(), "zz", 2, 1), 2);
    EXPECT_EQ(written(ber.get()).size(), 6u);

    Fber f(fber_alloc_t(0));
    EXPECT_EQ(fber_write(f.get(), "abc", 3), 3);
    EXPECT_EQ(ber_write(f.get(), "de", 2, 0), 2);
    EXPECT_EQ(written(f.get()), bytes_of("abcde"));
    EXPECT_EQ(fber_write(ber.get(), "x", 1), -1);
}

TEST(BerElementLife, FlattenCopiesAndTerminates)
{
    Fber ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "{s}", "hi"), 0);
    struct berval *bv = nullptr;
    ASSERT_EQ(fber_flatten(ber.get(), &bv), 0);
    ASSERT_NE(bv, nullptr);
    EXPECT_EQ(bv->bv_len, 10u);
    EXPECT_EQ(bv->bv_val[10], '\0');
    EXPECT_EQ(std::memcmp(bv->bv_val, ber->ber_buf, 10), 0);
    ber_bvfree(bv);

    struct berval *empty = nullptr;
    ASSERT_EQ(ber_flatten(nullptr, &empty), 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->bv_len, 0u);
    EXPECT_EQ(empty->bv_val, nullptr);
    ber_bvfree(empty);
    EXPECT_EQ(fber_flatten(ber.get(), nullptr), -1);
    ber_bvfree(nullptr);
}

TEST(BerElementLife, AllocatorsSetTheRecordUp)
{
    Fber f(fber_alloc_t(-5));
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE(ber_is_fber(f.get()));
    EXPECT_LT(f->ber_options, 0);
    EXPECT_EQ(f->ber_buf, f->ber_end);
    EXPECT_EQ(f->ber_end, f->ber_sos);
    EXPECT_EQ(f->ber_tag, LBER_DEFAULT);
    EXPECT_EQ(static_cast<uint32_t *>(f->ber_sos)[0], 0u);

    Fber d(fber_alloc());
    EXPECT_EQ(d->ber_end - d->ber_buf, FBER_DEFAULT_SIZE);
    EXPECT_EQ(d->ber_inline_size, FBER_DEFAULT_SIZE);

    Plain p(der_alloc());
    EXPECT_FALSE(ber_is_fber(p.get()));
    EXPECT_EQ(p->ber_options, LBER_USE_DER);
    EXPECT_EQ(p->ber_buf, nullptr);
    EXPECT_EQ(p->ber_tag, LBER_DEFAULT);
}

TEST(BerElementLife, DupIsARecordOnlyCursor)
{
    Fber ber(fber_alloc_t(4));
    ber->ber_version = static_cast<int32_t *>(lber_malloc(4));
    ber->ber_utf8_flag = static_cast<int32_t *>(lber_calloc(1, 4));
    *ber->ber_version = 3;
    std::string big(100, 'g');
    ASSERT_EQ(fber_printf(ber.get(), "s", big.c_str()), 0); // buffer on the heap now
    long live = lber_live_blocks();
    BerElement *c = ber_dup(ber.get());
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(lber_live_blocks(), live + 1);
    EXPECT_EQ(c->ber_buf, ber->ber_buf);
    EXPECT_EQ(c->ber_version, ber->ber_version);
    EXPECT_EQ(c->ber_utf8_flag, ber->ber_utf8_flag);
    EXPECT_TRUE(ber_is_fber(c));
    ber_free(c, 0);
    EXPECT_EQ(lber_live_blocks(), live);
    // Even the full release of a cursor leaves the original's buffer and words alone.
    c = ber_dup(ber.get());
    fber_free(c);
    EXPECT_EQ(lber_live_blocks(), live);
    EXPECT_EQ(ber->ber_buf[0], 0x04);
    EXPECT_EQ(*ber->ber_version, 3);
    EXPECT_EQ(ber_dup(nullptr), nullptr);
}

TEST(BerElementLife, FreeReleasesTheHeapBufferNotTheFillCursor)
{
    long live = lber_live_blocks();
    BerElement *ber = fber_alloc_t(0);
    auto *heap = static_cast<unsigned char *>(lber_malloc(64));
    ber->ber_heapbuf = heap;
    ber->ber_buf = heap + 40; // a partly received PDU
    ber->ber_ptr = heap;
    ber->ber_end = heap + 63;
    fber_free(ber);
    EXPECT_EQ(lber_live_blocks(), live);

    Plain p(ber_alloc()); // open sequences are released with the element
    ASSERT_NE(ber_printf(p.get(), "{{s", "x"), -1);
    p.reset();
    EXPECT_EQ(lber_live_blocks(), live);
    fber_free(nullptr);
    ber_free(nullptr, 1);
}

TEST(BerElementLife, InitCopiesAndResetsForReading)
{
    std::string data("\x02\x01\x09", 3);
    struct berval bv = {data.size(), data.data()};
    Fber f(fber_init(&bv));
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->ber_ptr, f->ber_buf);
    EXPECT_EQ(f->ber_end - f->ber_buf, 3);
    EXPECT_NE(reinterpret_cast<char *>(f->ber_buf), data.data());
    Plain p(ber_init(&bv));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(Bytes(p->ber_ptr, p->ber_end), bytes_of(data));
    EXPECT_EQ(fber_init(nullptr), nullptr);
    EXPECT_EQ(ber_init(nullptr), nullptr);
    struct berval bad = {4, nullptr};
    EXPECT_EQ(fber_init(&bad), nullptr);

    // A value larger than the default inline size still costs one allocation.
    std::string big(10000, 'v');
    struct berval bigbv = {big.size(), big.data()};
    long calls = lber_alloc_calls();
    Fber g(fber_init(&bigbv));
    EXPECT_EQ(lber_alloc_calls() - calls, 1);
    EXPECT_EQ(Bytes(g->ber_ptr, g->ber_end), bytes_of(big));

    ber_reset(g.get(), 0);
    EXPECT_EQ(g->ber_ptr, g->ber_end);
}

TEST(BerElementLife, Init2TakesTheBytesOver)
{
    long live = lber_live_blocks();
    auto *bytes = static_cast<char *>(lber_malloc(4));
    std::memcpy(bytes, "\x05\x00\x01", 4);
    struct berval bv = {3, bytes};
    BerElement *ber = fber_init2(&bv);
    ASSERT_NE(ber, nullptr);
    EXPECT_EQ(bv.bv_val, nullptr);
    EXPECT_EQ(bv.bv_len, 0u);
    EXPECT_EQ(reinterpret_cast<char *>(ber->ber_buf), bytes);
    EXPECT_EQ(ber->ber_end - ber->ber_ptr, 3);
    fber_free(ber);
    EXPECT_EQ(lber_live_blocks(), live);
}

// A search request as the search operation writes it, well under the inline size.
int encode_search(BerElement *ber)
{
    char a1[] = "cn", a2[] = "mail", a3[] = "objectClass";
    char *attrs[] = {a1, a2, a3, nullptr};
    if (fber_printf(ber, "{it{seeiib", 7, 0x63UL, "ou=people,dc=example,dc=com", 2, 0, 0, 0, 0) !=
        0)
        return -1;
    if (fber_printf_raw(ber, "t{so}", 0xA3UL, "uid", "jdoe", 4) != 0)
        return -1;
    if (fber_printf(ber, "{v}}", attrs) != 0)
        return -1;
    return fber_printf(ber, "}");
}

TEST(FberEncode, TheFberMustStayOneAllocationForRequestsUnderItsInlineSize)
{
    long calls = lber_alloc_calls();
    BerElement *ber = fber_alloc();
    ASSERT_NE(ber, nullptr);
    ASSERT_EQ(encode_search(ber), 0);
    EXPECT_EQ(lber_alloc_calls() - calls, 1);
    EXPECT_EQ(ber->ber_heapbuf, nullptr);
    fber_free(ber);
}

TEST(BerEncodeAllocFailures, GrowthOfBothKindsAndFlatten)
{
    std::string big(3000, 'w');
    int steps = wzrtest::walk_alloc_failures([&] {
        BerElement *f = fber_alloc_t(32);
        bool ok = f != nullptr && fber_printf(f, "{s{s}", big.c_str(), big.c_str()) == 0 &&
                  fber_printf(f, "s}", big.c_str()) == 0;
        struct berval *bv = nullptr;
        ok = ok && fber_flatten(f, &bv) == 0 && bv->bv_len == 9000u + 3 * 6 + 2 * 6;
        ber_bvfree(bv);
        fber_free(f);
        return ok;
    });
    EXPECT_GE(steps, 4);

    steps = wzrtest::walk_alloc_failures([&] {
        BerElement *p = der_alloc();
        bool ok = p != nullptr && ber_printf(p, "{s{s", big.c_str(), big.c_str()) != -1 &&
                  ber_printf(p, "}s}", big.c_str()) != -1;
        struct berval *bv = nullptr;
        ok = ok && ber_flatten(p, &bv) == 0 && bv->bv_len == 9000u + 3 * 4 + 2 * 4;
        ber_bvfree(bv);
        ber_free(p, 1);
        return ok;
    });
    EXPECT_GE(steps, 6);

    struct berval src = {big.size(), big.data()};
    wzrtest::walk_alloc_failures([&] {
        BerElement *f = fber_init(&src);
        BerElement *p = ber_init(&src);
        bool ok = f != nullptr && p != nullptr;
        fber_free(f);
        ber_free(p, 1);
        return ok;
    });
}

TEST(FberEncode, ValuesLongerThanFourLengthBytesOrNegativeFail)
{
    Fber f(fber_alloc());
    EXPECT_EQ(fber_printf(f.get(), "o", "abc", -1), -1);
    EXPECT_EQ(fber_printf(f.get(), "B", "abc", -3), -1);
    EXPECT_EQ(fber_printf(f.get(), "s", static_cast<char *>(nullptr)), -1);
    EXPECT_EQ(fber_printf(f.get(), "o", static_cast<char *>(nullptr), 0), 0);
    EXPECT_EQ(written(f.get()), (Bytes{0x04, 0x00}));
}

} // namespace
