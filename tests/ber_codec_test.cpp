// The BER codec byte for byte: FBER, plain BER and DER forms, tags, nesting, growth, the element
// life functions; the decoder's limits, every scanf letter, lists, in-place strings, hostile
// bytes, and the allocation failures of every allocating letter on both sides.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <type_traits>

#include "liblber/ber_int.h"
#include "liblber/ber_memory.h"
#include "liblber/lber.h"
#include "support/fber_bytes.h"
#include "support/lber_test.h"

namespace {

using namespace wzrtest;
namespace F = wzrtest::fber;

Bytes B(const std::string &s) { return Bytes(s.begin(), s.end()); }
Fber fber_s(const std::string &s) { return fber_of(B(s)); }
Plain plain_s(const std::string &s) { return plain_of(B(s)); }

// Frees a NULL-terminated array of strings or bervals and the array.
template <class T> void free_array(T **v)
{
    for (T **p = v; p != nullptr && *p != nullptr; ++p)
        if constexpr (std::is_same_v<T, char>)
            lber_free(*p);
        else
            ber_bvfree(*p);
    lber_free(v);
}

TEST(PlainEncode, IntegersAreMinimalTwosComplement)
{
    const struct { int value; Bytes bytes; } cases[] = {
        {128, {0x02, 0x02, 0x00, 0x80}}, {-1, {0x02, 0x01, 0xFF}},       {0, {0x02, 0x01, 0x00}},
        {127, {0x02, 0x01, 0x7F}},       {-128, {0x02, 0x01, 0x80}},     {-129, {0x02, 0x02, 0xFF, 0x7F}},
        {256, {0x02, 0x02, 0x01, 0x00}}, {65535, {0x02, 0x03, 0x00, 0xFF, 0xFF}},
        {INT32_MIN, {0x02, 0x04, 0x80, 0x00, 0x00, 0x00}}};
    for (const auto &c : cases) {
        Plain ber(ber_alloc());
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

// Missing arrays write nothing; unknown letters, a plain element given to the FBER encoder and
// values too long or negative fail.
TEST(BerEncode, MissingArraysUnknownLettersAndBadValues)
{
    TraceFile trace;
    Fber f(fber_alloc());
    EXPECT_EQ(fber_printf(f.get(), "{vV}", static_cast<char **>(nullptr), static_cast<struct berval **>(nullptr)), 0);
    EXPECT_EQ(written(f.get()), B(F::seq("")));
    Plain p(ber_alloc());
    EXPECT_NE(ber_printf(p.get(), "{v}", static_cast<char **>(nullptr)), -1);
    EXPECT_EQ(written(p.get()), B(F::seq("")));
    EXPECT_EQ(fber_printf(f.get(), "i a", 1), -1);
    EXPECT_EQ(ber_printf(p.get(), "x"), -1);
    EXPECT_EQ(fber_printf(p.get(), "i", 1), -1);
    EXPECT_GE(trace.count("unknown fmt  \n"), 1) << trace.text();
    EXPECT_GE(trace.count("unknown fmt x\n"), 1);
    EXPECT_GE(trace.count("is not an FBER!!!\n"), 1);
    EXPECT_EQ(fber_printf(f.get(), ""), 0);
    EXPECT_EQ(ber_printf(p.get(), ""), 0);

    Fber g(fber_alloc());
    EXPECT_EQ(fber_printf(g.get(), "o", "abc", -1), -1);
    EXPECT_EQ(fber_printf(g.get(), "B", "abc", -3), -1);
    EXPECT_EQ(fber_printf(g.get(), "s", static_cast<char *>(nullptr)), -1);
    EXPECT_EQ(fber_printf(g.get(), "o", static_cast<char *>(nullptr), 0), 0);
    EXPECT_EQ(written(g.get()), (Bytes{0x04, 0x00}));
}

// Plain BER primitives have minimal long lengths and sequences five length bytes; DER
// sequences are minimal, their contents moved down; each call returns its last element's size.
TEST(PlainEncode, LengthFormsOfPlainDerAndFber)
{
    std::string big(300, 'q');
    Plain ber(ber_alloc());
    EXPECT_EQ(ber_printf(ber.get(), "s", big.c_str()), 304);
    EXPECT_EQ(Bytes(ber->ber_buf, ber->ber_buf + 4), (Bytes{0x04, 0x82, 0x01, 0x2C}));
    Fber f(fber_alloc());
    ASSERT_EQ(fber_printf(f.get(), "s", big.c_str()), 0);
    EXPECT_EQ(Bytes(f->ber_buf, f->ber_buf + 6), (Bytes{0x04, 0x84, 0x00, 0x00, 0x01, 0x2C}));

    Plain seq(ber_alloc());
    ASSERT_NE(ber_printf(seq.get(), "{s{i}}", "ab", 1), -1);
    EXPECT_EQ(written(seq.get()), B(F::seq(F::str("ab") + F::seq(F::integer(1)))));
    Plain der(der_alloc());
    ASSERT_NE(ber_printf(der.get(), "{s{i}}", "ab", 1), -1);
    EXPECT_EQ(written(der.get()), (Bytes{0x30, 0x09, 0x04, 0x02, 'a', 'b', 0x30, 0x03, 0x02, 0x01, 0x01}));
    // Each DER length width, for a sequence holding one string of m bytes.
    const struct { size_t m; Bytes head; size_t total; } cases[] = {
        {2, {0x30, 0x04}, 2 + 4}, {150, {0x30, 0x81, 0x99}, 3 + 153}, {300, {0x30, 0x82, 0x01, 0x30}, 4 + 304},
        {70000, {0x30, 0x83, 0x01, 0x11, 0x75}, 5 + 70005}};
    for (const auto &c : cases) {
        Plain d(der_alloc());
        ASSERT_NE(ber_printf(d.get(), "{s}", std::string(c.m, 'z').c_str()), -1);
        Bytes out = written(d.get());
        ASSERT_EQ(out.size(), c.total) << c.m;
        EXPECT_EQ(Bytes(out.begin(), out.begin() + static_cast<long>(c.head.size())), c.head);
        EXPECT_EQ(out[c.head.size()], 0x04);
    }
    Plain sizes(ber_alloc());
    EXPECT_EQ(ber_printf(sizes.get(), "is", 1, "abc"), 5);
    EXPECT_EQ(ber_printf(sizes.get(), "{s}", "abc"), 11);
    EXPECT_EQ(ber_printf(sizes.get(), "n"), 2);
}

// Plain multi-byte tags are written by their significant bytes and read back by the plain
// decoder, FBER tags are the low byte only and the FBER reader refuses the high-tag form.
TEST(PlainEncode, MultiByteTagsRoundTripThroughThePlainDecoder)
{
    Plain ber(ber_alloc());
    ASSERT_NE(ber_printf(ber.get(), "t{ti}", 0x3F8105UL, 0x9F20UL, 7), -1);
    EXPECT_EQ(written(ber.get()), (Bytes{0x3F, 0x81, 0x05, 0x84, 0, 0, 0, 0x04, 0x9F, 0x20, 0x01, 0x07}));
    struct berval *flat = nullptr;
    ASSERT_EQ(ber_flatten(ber.get(), &flat), 0);
    Plain dec(ber_init(flat));
    ber_bvfree(flat);
    uint32_t outer = 0, inner = 0;
    int v = 0;
    EXPECT_EQ(ber_scanf(dec.get(), "Tti", &outer, &inner, &v), 0x9F20UL); // the tag i read
    EXPECT_EQ(std::tie(outer, inner, v), std::make_tuple(0x3F8105u, 0x9F20u, 7));
    Fber f(fber_alloc());
    ASSERT_EQ(fber_printf(f.get(), "ti", 0x3F8105UL, 7), 0);
    EXPECT_EQ(written(f.get()), (Bytes{0x05, 0x01, 0x07}));

    ber_len_t len;
    EXPECT_EQ(fber_skip_tag(fber_of({0xBF, 0x05, 0x01, 0x00}).get(), &len), LBER_ERROR);
    EXPECT_EQ(ber_skip_tag(plain_of({0xBF, 0x81, 0x05, 0x01, 0xAA}).get(), &len), 0xBF8105UL);
    EXPECT_EQ(len, 1u);
    // A ninth tag byte is too many; a tag cut short by the data end fails.
    EXPECT_EQ(ber_skip_tag(plain_of({0x1F, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x01, 0x00}).get(), &len),
              LBER_ERROR);
    EXPECT_EQ(ber_skip_tag(plain_of({0x1F, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x07, 0x00}).get(), &len),
              0x1F81828384858607UL);
    EXPECT_EQ(ber_skip_tag(plain_of({0x1F, 0x81}).get(), &len), LBER_ERROR);
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
    EXPECT_EQ(written(f.get()), B("abcde"));
    EXPECT_EQ(fber_write(ber.get(), "x", 1), -1);
}

TEST(BerElementLife, FlattenAllocAndInitSetTheRecordUp)
{
    Fber ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "{s}", "hi"), 0);
    struct berval *bv = nullptr;
    ASSERT_EQ(fber_flatten(ber.get(), &bv), 0);
    EXPECT_EQ(Bytes(bv->bv_val, bv->bv_val + bv->bv_len + 1), B(F::seq(F::str("hi")) + '\0'));
    ber_bvfree(bv);
    struct berval *empty = nullptr;
    ASSERT_EQ(ber_flatten(nullptr, &empty), 0);
    EXPECT_EQ(empty->bv_len, 0u);
    EXPECT_EQ(empty->bv_val, nullptr);
    ber_bvfree(empty);
    EXPECT_EQ(fber_flatten(ber.get(), nullptr), -1);
    ber_bvfree(nullptr);

    EXPECT_TRUE(ber_is_fber(Fber(fber_alloc_t(-5)).get()));
    EXPECT_EQ(ber->ber_inline_size, FBER_DEFAULT_SIZE);
    EXPECT_FALSE(ber_is_fber(Plain(der_alloc()).get()));

    std::string data("\x02\x01\x09", 3);
    struct berval dbv = {data.size(), data.data()};
    Fber fi(fber_init(&dbv));
    EXPECT_EQ(Bytes(fi->ber_ptr, fi->ber_end), B(data));
    EXPECT_NE(reinterpret_cast<char *>(fi->ber_buf), data.data());
    Plain pi = plain_s(data);
    EXPECT_EQ(Bytes(pi->ber_ptr, pi->ber_end), B(data));
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
    EXPECT_EQ(Bytes(g->ber_ptr, g->ber_end), B(big));
    ber_reset(g.get(), 0);
    EXPECT_EQ(g->ber_ptr, g->ber_end);
}

// A dup is a cursor over the original's record: freeing it, even fully, leaves the original's
// buffer and words alone; a plain element frees its open sequences.
TEST(BerElementLife, DupIsARecordOnlyCursor)
{
    Fber ber(fber_alloc_t(4));
    ber->ber_version = static_cast<int32_t *>(lber_malloc(4));
    ber->ber_utf8_flag = static_cast<int32_t *>(lber_calloc(1, 4));
    *ber->ber_version = 3;
    ASSERT_EQ(fber_printf(ber.get(), "s", std::string(100, 'g').c_str()), 0); // heap buffer
    long live = lber_live_blocks();
    BerElement *c = ber_dup(ber.get());
    EXPECT_EQ(lber_live_blocks(), live + 1);
    EXPECT_EQ(c->ber_buf, ber->ber_buf);
    EXPECT_EQ(c->ber_version, ber->ber_version);
    EXPECT_EQ(c->ber_utf8_flag, ber->ber_utf8_flag);
    EXPECT_TRUE(ber_is_fber(c));
    ber_free(c, 0);
    c = ber_dup(ber.get());
    fber_free(c);
    EXPECT_EQ(lber_live_blocks(), live);
    EXPECT_EQ(ber->ber_buf[0], 0x04);
    EXPECT_EQ(*ber->ber_version, 3);
    EXPECT_EQ(ber_dup(nullptr), nullptr);
    // Open sequences are released with a plain element.
    Plain p(ber_alloc());
    ASSERT_NE(ber_printf(p.get(), "{{s", "x"), -1);
    p.reset();
    EXPECT_EQ(lber_live_blocks(), live);
    fber_free(nullptr);
    ber_free(nullptr, 1);
}

// A request under the inline size is one allocation; growth is used plus the larger of used
// and needed.
TEST(FberEncode, OneAllocationUnderTheInlineSizeAndGrowthByUsedOrNeeded)
{
    char a1[] = "cn", a2[] = "mail", a3[] = "objectClass";
    char *attrs[] = {a1, a2, a3, nullptr};
    long calls = lber_alloc_calls();
    Fber ber(fber_alloc());
    ASSERT_EQ(fber_printf(ber.get(), "{it{seeiib", 7, 0x63UL, "ou=people,dc=example,dc=com", 2, 0, 0, 0, 0), 0);
    ASSERT_EQ(fber_printf_raw(ber.get(), "t{so}", 0xA3UL, "uid", "jdoe", 4), 0);
    ASSERT_EQ(fber_printf(ber.get(), "{v}}}", attrs), 0);
    EXPECT_EQ(lber_alloc_calls() - calls, 1);
    EXPECT_EQ(ber->ber_heapbuf, nullptr);
    Fber small(fber_alloc_t(8));
    ASSERT_EQ(fber_printf(small.get(), "i", 5), 0);                           // 3 used
    ASSERT_EQ(fber_printf(small.get(), "s", std::string(20, 'a').c_str()), 0); // needs 22: 3 + 22
    EXPECT_EQ(small->ber_end - small->ber_buf, 25);
    ASSERT_EQ(fber_printf(small.get(), "s", "bb"), 0); // needs 4 with 0 left: 25 + 25
    EXPECT_EQ(small->ber_end - small->ber_buf, 50);
}

TEST(BerEncodeAllocFailures, GrowthOfBothKindsAndFlatten)
{
    std::string big(3000, 'w');
    EXPECT_GE(walk_alloc_failures([&] {
                  BerElement *f = fber_alloc_t(32);
                  bool ok = f != nullptr && fber_printf(f, "{s{s}", big.c_str(), big.c_str()) == 0 &&
                            fber_printf(f, "s}", big.c_str()) == 0;
                  struct berval *bv = nullptr;
                  ok = ok && fber_flatten(f, &bv) == 0 && bv->bv_len == 9000u + 3 * 6 + 2 * 6;
                  ber_bvfree(bv);
                  fber_free(f);
                  return ok;
              }),
              4);
    EXPECT_GE(walk_alloc_failures([&] {
                  BerElement *p = der_alloc();
                  bool ok = p != nullptr && ber_printf(p, "{s{s", big.c_str(), big.c_str()) != -1 &&
                            ber_printf(p, "}s}", big.c_str()) != -1;
                  struct berval *bv = nullptr;
                  ok = ok && ber_flatten(p, &bv) == 0 && bv->bv_len == 9000u + 3 * 4 + 2 * 4;
                  ber_bvfree(bv);
                  ber_free(p, 1);
                  return ok;
              }),
              6);
    struct berval src = {big.size(), big.data()};
    walk_alloc_failures([&] {
        BerElement *f = fber_init(&src);
        BerElement *p = ber_init(&src);
        bool ok = f != nullptr && p != nullptr;
        fber_free(f);
        ber_free(p, 1);
        return ok;
    });
}

TEST(BerDecodeHeader, LengthLimitsPeekFirstNextAndSkip)
{
    ber_len_t len;
    // Nine length bytes (even with the data present), length bytes cut short, no bytes at all.
    Bytes b89{0x04, 0x89, 0, 0, 0, 0, 0, 0, 0, 0, 1, 'x'};
    for (const Bytes &b : {b89, Bytes{0x04, 0x84, 0x00, 0x00}, Bytes{0x04}, Bytes{}})
        EXPECT_EQ(fber_skip_tag(fber_of(b).get(), &len), LBER_ERROR) << b.size();
    EXPECT_EQ(ber_skip_tag(plain_of(b89).get(), &len), LBER_ERROR);
    // A length beyond the data: the FBER header reads, a reader of contents refuses it.
    Bytes longer{0x04, 0x84, 0x00, 0x00, 0x10, 0x00, 'a', 'b'};
    EXPECT_EQ(fber_skip_tag(fber_of(longer).get(), &len), 0x04u);
    EXPECT_EQ(len, 0x1000u);
    char *s = reinterpret_cast<char *>(1);
    EXPECT_EQ(fber_get_stringa(fber_of(longer).get(), &s), LBER_ERROR);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(ber_skip_tag(plain_of(longer).get(), &len), LBER_ERROR);
    // Lengths near 2^64, a length just above the largest contents.
    Bytes huge{0x04, 0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xF0, 'a'};
    EXPECT_EQ(fber_scanf(fber_of(huge).get(), "x"), LBER_ERROR);
    EXPECT_EQ(fber_skip_element(fber_of(huge).get()), 0);
    EXPECT_EQ(fber_scanf(fber_of({0x04, 0x84, 0x7F, 0xFF, 0xFF, 0xF0}).get(), "x"), LBER_ERROR);
    // Peeking, the first and next elements of a set, skipping.
    std::string set = F::set(F::str("a") + F::str("bc"));
    Fber f = fber_s(set + F::prim(0x05, ""));
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
    EXPECT_EQ(fber_first_element(fber_of({0x30, 0x00}).get(), &len, &last), LBER_ERROR); // empty
    Fber g = fber_of({0x04, 0x10, 'a', 'b'}); // a skip past the data end stops at the end
    EXPECT_EQ(fber_skip_element(g.get()), 0);
    EXPECT_EQ(g->ber_ptr, g->ber_end);
}

TEST(BerDecodeInt, FberDoesNotSignExtendLongerIntegersPlainDoes)
{
    const struct { bool fber; Bytes bytes; ber_tag_t tag; int64_t value; } cases[] = {
        {true, {0x02, 0x02, 0xFF, 0xFF}, 0x02, 65535},
        {false, {0x02, 0x02, 0xFF, 0xFF}, 0x02, -1},
        {true, {0x02, 0x04, 0xFF, 0xFF, 0xFF, 0xFF}, 0x02, 0xFFFFFFFF}, // -1 as an int
        {false, {0x02, 0x04, 0xFF, 0xFF, 0xFF, 0xFF}, 0x02, -1},
        {true, {0x02, 0x01, 0x80}, 0x02, -128},
        {true, {0x02, 0x00}, 0x02, 0},
        {true, {0x02, 0x08, 0xFF, 0, 0, 0, 0, 0, 0, 1}, 0x02, static_cast<int64_t>(0xFF00000000000001ULL)},
        {false, {0x02, 0x03, 0xFF, 0x7F, 0xFF}, 0x02, -32769},
        {true, {0x02, 0x09, 0, 0, 0, 0, 0, 0, 0, 0, 1}, LBER_ERROR, 0},
        {true, {0x02, 0x02, 0x01}, LBER_ERROR, 0}};
    for (const auto &c : cases) {
        int64_t n = 0;
        int v = 0;
        EXPECT_EQ(c.fber ? fber_get_int(fber_of(c.bytes).get(), &n) : ber_get_int(plain_of(c.bytes).get(), &n), c.tag);
        EXPECT_EQ(c.fber ? fber_scanf(fber_of(c.bytes).get(), "i", &v) : ber_scanf(plain_of(c.bytes).get(), "i", &v), c.tag);
        if (c.tag != LBER_ERROR) {
            EXPECT_EQ(n, c.value) << c.bytes.size();
            EXPECT_EQ(v, static_cast<int>(c.value));
        }
    }
    // Round trip of the FBER encoder's forms.
    Fber enc(fber_alloc());
    ASSERT_EQ(fber_printf(enc.get(), "iebi", -5, 300, 1, INT32_MIN), 0);
    ber_reset(enc.get(), 1);
    int a = 0, e = 0, b = 0, m = 0;
    EXPECT_EQ(fber_scanf(enc.get(), "iebi", &a, &e, &b, &m), 0x02u);
    EXPECT_EQ(std::tie(a, e, b, m), std::make_tuple(-5, 300, -1, INT32_MIN)); // b: 0xFF sign-extended
}

TEST(BerDecodeString, AllocatingLettersCopyAndTerminate)
{
    std::string bin("a\0b", 3);
    std::string msg = F::seq(F::str("one") + F::str(bin) + F::prim(0x80, "xyz") + "\x03\x03\x04\xAB\xC0" + F::prim(5, ""));
    for (bool fber : {true, false}) {
        Fber f = fber_s(msg);
        Plain p = plain_s(msg);
        char *a = nullptr, *bits = nullptr;
        struct berval *O = nullptr;
        struct berval o = {99, nullptr};
        ber_len_t nbits = 0;
        EXPECT_EQ(fber ? fber_scanf(f.get(), "{aOoBn}", &a, &O, &o, &bits, &nbits)
                       : ber_scanf(p.get(), "{aOoBn}", &a, &O, &o, &bits, &nbits),
                  0x05u);
        EXPECT_EQ(std::string(a, 4) + std::string(O->bv_val, O->bv_len + 1) + std::string(o.bv_val, o.bv_len + 1),
                  std::string("one\0", 4) + bin + '\0' + std::string("xyz", 4));
        EXPECT_EQ(std::make_tuple(nbits, static_cast<unsigned char>(bits[0])), std::make_tuple(ber_len_t{12}, (unsigned char)0xAB));
        lber_free(a);
        ber_bvfree(O);
        lber_free(o.bv_val);
        lber_free(bits);
    }
}

// Tag letters, skips, the `l` letter (stored only by the plain decoder, its argument consumed
// by both), unknown letters and a plain element given to the FBER reader.
TEST(BerDecodeScanf, TagLengthAndSkipLettersAndTheirTrace)
{
    Fber f = fber_s(F::seq(F::integer(7) + F::cons(0x64, F::str("cn=x") + F::seq(""))));
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
    EXPECT_EQ(fber_scanf(plain_s(F::seq(F::integer(7))).get(), "{i", &id), LBER_ERROR);

    Bytes b = B(F::str("hello"));
    len = 12345;
    EXPECT_EQ(fber_scanf(fber_of(b).get(), "l", &len), 0x04u);
    EXPECT_EQ(len, 12345u);
    EXPECT_EQ(ber_scanf(plain_of(b).get(), "l", &len), 0x04u);
    EXPECT_EQ(len, 5u);
    char *s = nullptr;
    EXPECT_EQ(fber_scanf(fber_of(b).get(), "la", &len, &s), 0x04u);
    EXPECT_STREQ(s, "hello");
    lber_free(s);
    // The trace shows the format and the position.
    TraceFile trace;
    Fber ints = fber_of({0x02, 0x01, 0x01, 0x02, 0x01, 0x02});
    (void)fber_scanf(ints.get(), "i", &id);
    (void)fber_scanf(ints.get(), "i", &id);
    Plain p = plain_of({0x02, 0x01, 0x01});
    (void)ber_scanf(p.get(), "i", &id);
    (void)ber_scanf_w(p.get(), "x");
    EXPECT_GE(trace.count("fber_scanf fmt (i) ber:\n"), 1) << trace.text();
    EXPECT_GE(trace.count("fber_scanf fmt (i) offset=3 length=6\n"), 1);
    EXPECT_EQ(trace.count("ber_scanf fmt (i) ber:\n"), 2) << "the plain line, also inside the FBER one";
    EXPECT_GE(trace.count("ber_scanf_w fmt (x) offset=3 length=3\n"), 1);
}

TEST(BerDecodeList, StringsAndBervalsAcrossTheGrowthStepsAndAFailingMember)
{
    for (size_t count : {1u, 2u, 3u, 1023u, 1024u, 2500u}) {
        std::string members;
        for (size_t i = 0; i < count; ++i)
            members += F::str(std::to_string(i));
        std::string msg = F::set(members);
        char **v = nullptr;
        EXPECT_EQ(fber_scanf(fber_s(msg).get(), "{v}", &v), 0x31u);
        size_t got = 0;
        while (v[got] != nullptr)
            ++got;
        EXPECT_EQ(got, count);
        EXPECT_STREQ(v[count - 1], std::to_string(count - 1).c_str());
        free_array(v);
        struct berval **V = nullptr;
        EXPECT_EQ(ber_scanf(plain_s(msg).get(), "[V]", &V), 0x31u);
        EXPECT_EQ(V[count - 1]->bv_len, std::to_string(count - 1).size());
        EXPECT_EQ(V[count], nullptr);
        free_array(V);
    }
    long live = lber_live_blocks();
    // A failing member frees the whole array: the third member claims more bytes than there are; garbage between members fails too.
    for (const std::string &msg : {F::set(F::str("a") + F::str("b") + "\x04\x05" "c"), F::set(F::str("a") + "\x1f")}) {
        char **v = reinterpret_cast<char **>(1);
        EXPECT_EQ(fber_scanf(fber_s(msg).get(), "{v}", &v), LBER_ERROR);
        EXPECT_EQ(v, nullptr);
        struct berval **V = reinterpret_cast<struct berval **>(1);
        EXPECT_EQ(fber_scanf(fber_s(msg).get(), "[V]", &V), LBER_ERROR);
        EXPECT_EQ(V, nullptr);
    }
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(BerDecodeInplace, ValuesAreTerminatedWithoutCopies)
{
    Fber f = fber_s(F::str("first") + F::set(F::str("x") + F::str("yy") + F::str("zzz")) + F::str("last"));
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
    ASSERT_NE(list, nullptr);
    EXPECT_EQ((std::vector<std::string>{first, list[0], list[1], list[2], last}),
              (std::vector<std::string>{"first", "x", "yy", "zzz", "last"}));
    EXPECT_EQ(list[3], nullptr);
    lber_free(list);
    char **none = reinterpret_cast<char **>(1);
    EXPECT_EQ(fber_get_stringlist_inplace(fber_of({0x30, 0x00}).get(), &none), 0);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(fber_get_stringlist_inplace(fber_of({0x30, 0x03, 0x04}).get(), &none), -1);
    EXPECT_EQ(none, nullptr);
}

TEST(BerDecodeHostile, TruncationsAndDeepNestingNeverCrash)
{
    Bytes full = B(F::seq(F::integer(5) + F::cons(0x64, F::str("cn=a") + F::seq(F::seq(F::str("cn") + F::set(F::str("v")))))));
    long live = lber_live_blocks();
    for (size_t cut = 0; cut <= full.size(); ++cut) {
        Bytes part(full.begin(), full.begin() + static_cast<long>(cut));
        int id;
        char *dn = nullptr;
        char **vals = nullptr;
        char type[32];
        ber_len_t tlen = sizeof type;
        ber_tag_t rc = fber_scanf(fber_of(part).get(), "{i{a{{s[v]}}}}", &id, &dn, type, &tlen, &vals);
        if (cut == full.size()) {
            EXPECT_EQ(rc, 0x31u);
            EXPECT_STREQ(vals[0], "v");
        } else {
            EXPECT_TRUE(rc == LBER_ERROR || vals == nullptr) << cut;
        }
        lber_free(dn);
        free_array(vals);
    }
    EXPECT_EQ(lber_live_blocks(), live);
    Bytes deep;
    for (int i = 0; i < 5000; ++i)
        deep.insert(deep.end(), {0x30, 0x80});
    EXPECT_EQ(fber_scanf(fber_of(deep).get(), std::string(6000, '{').c_str()), LBER_ERROR);
}

TEST(BerDecodeAllocFailures, EveryAllocatingLetterReleasesOnFailure)
{
    std::string msg = F::seq(F::str("dn") + F::str("bv") + F::str("o") +
                             F::set(F::str("1") + F::str("2") + F::str("3")) +
                             F::set(F::str("4") + F::str("5") + F::str("6") + F::str("7")) + std::string("\x03\x02\x00\xFF", 4));
    struct berval src = {msg.size(), msg.data()};
    for (bool fber : {true, false}) {
        EXPECT_GE(walk_alloc_failures([&] {
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
                      free_array(v);
                      free_array(V);
                      lber_free(bits);
                      ber_free(ber, 1);
                      return ok;
                  }),
                  10);
    }
}

} // namespace
