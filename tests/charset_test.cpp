// Code-page translation: the conversion service on iconv (pass-through for UTF-8 and the C
// locale), and how the BER encoder and decoder apply it: protocol version, the element's UTF-8
// word, the legacy switch, raw letters, failures that leave nothing behind.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "liblber/ber_int.h"
#include "liblber/ber_memory.h"
#include "liblber/ber_xlate.h"
#include "libldap/ldap_charset.h"
#include "support/lber_test.h"

namespace
{

const std::string LATIN1 = "J\xFCrgen";
const std::string UTF8 = "J\xC3\xBCrgen";

std::string xlate(bool to_utf8, const std::string &in, int *rc = nullptr)
{
    char *out = nullptr;
    size_t outlen = 0;
    int r = to_utf8 ? ldap_xlate_local_to_utf8(in.data(), in.size(), &out, &outlen)
                    : ldap_xlate_utf8_to_local(in.data(), in.size(), &out, &outlen);
    if (rc != nullptr)
        *rc = r;
    if (r != 0)
        return "<failed>";
    std::string s = out != nullptr ? std::string(out, outlen) : in;
    EXPECT_TRUE(out == nullptr || out[outlen] == '\0');
    lber_free(out);
    return s;
}

// Gives an element its own version and UTF-8 words, as a handle's elements have; on a failed
// allocation the element is freed and none is returned.
BerElement *with_words(BerElement *ber, int version, int utf8)
{
    if (ber == nullptr)
        return nullptr;
    ber->ber_version = static_cast<int32_t *>(lber_malloc(sizeof(int32_t)));
    ber->ber_utf8_flag = static_cast<int32_t *>(lber_malloc(sizeof(int32_t)));
    if (ber->ber_version == nullptr || ber->ber_utf8_flag == nullptr) {
        fber_free(ber);
        return nullptr;
    }
    *ber->ber_version = version;
    *ber->ber_utf8_flag = utf8;
    return ber;
}

BerElement *handle_fber(int version, int utf8) { return with_words(fber_alloc(), version, utf8); }

std::string written(const BerElement *ber)
{
    return std::string(reinterpret_cast<const char *>(ber->ber_buf),
                       static_cast<size_t>(ber->ber_ptr - ber->ber_buf));
}

// The text of a string the library allocated, which it frees.
std::string take(char *p)
{
    std::string s = p != nullptr ? p : "<null>";
    lber_free(p);
    return s;
}

std::string octets(const std::string &s) { return std::string(1, '\x04') + static_cast<char>(s.size()) + s; }

// A received element holding `wire`, carrying the given version and UTF-8 words.
BerElement *received(const std::string &wire, int version = 3, int utf8 = 0)
{
    struct berval bv = {wire.size(), const_cast<char *>(wire.data())};
    return with_words(fber_init(&bv), version, utf8);
}

// Each test picks its code page; the cached one is forgotten before and after.
class Charset : public ::testing::Test
{
protected:
    void use(const char *codepage)
    {
        env_.emplace("LDAP_CODEPAGE",
                     codepage != nullptr ? std::optional<std::string>(codepage) : std::nullopt);
        ldap_charset_reset_for_tests();
    }
    void SetUp() override
    {
        legacy_.emplace("LDAP_LEGACY_UTF8_XLATE_MODE", std::nullopt);
        ber_xlate_reset_for_tests();
        ber_set_translator(ldap_charset_translator()); // as the handle's first element does
    }
    void TearDown() override
    {
        env_.reset();
        legacy_.reset();
        ldap_charset_reset_for_tests();
        ber_xlate_reset_for_tests();
    }
    std::optional<wzrtest::ScopedEnv> env_;
    std::optional<wzrtest::ScopedEnv> legacy_;
};

// Both ways, larger than the first output guess (the buffer grows), and what cannot be
// converted fails with its own code.
TEST_F(Charset, Latin1RoundTripsThroughUtf8AndBadSequencesFail)
{
    use("ISO-8859-1");
    EXPECT_FALSE(ldap_xlate_is_passthrough());
    EXPECT_EQ(xlate(true, LATIN1), UTF8);
    EXPECT_EQ(xlate(false, UTF8), LATIN1);
    std::string many(1000, '\xFC');
    std::string twice = xlate(true, many);
    EXPECT_EQ(twice.size(), 2000u);
    EXPECT_EQ(xlate(false, twice), many);
    const std::pair<const char *, int> bad[] = {{"a\xC3\x28", LDAP_XLATE_BAD_CHARACTER},
                                                {"\xE2\x82\xAC", LDAP_XLATE_NO_MAPPING}, // euro
                                                {"ab\xC3", LDAP_XLATE_INPUT_TRUNCATED}};
    for (const auto &[in, code] : bad) {
        int rc = 0;
        xlate(false, in, &rc);
        EXPECT_EQ(rc, code) << in;
    }
}

TEST_F(Charset, SwitchesChooseTheCodePageAndTheMeaningOfByte5C)
{
    const std::string sjis = "a\\b\x95\x5C"; // a, 0x5C, b and a kanji whose second byte is 0x5C
    const struct {
        const char *var, *value;
        std::string expect;
    } cases[] = {
        {"LDAP_BACKSLASH", nullptr, "a\xC2\xA5" "b\xE8\xA1\xA8"}, // the code page's yen sign
        {"LDAP_BACKSLASH", "yes", "a\\b\xE8\xA1\xA8"},
        {"LDAP_USE_UNICODE", "Y", sjis}, // the application speaks UTF-8: nothing converted
    };
    for (const auto &c : cases) {
        wzrtest::ScopedEnv env(c.var, c.value != nullptr ? std::optional<std::string>(c.value)
                                                         : std::nullopt);
        use("SHIFT_JIS");
        EXPECT_EQ(xlate(true, sjis), c.expect) << c.var;
    }
    wzrtest::ScopedEnv nlx("NLX_CODESET", "ISO-8859-1"); // used when LDAP_CODEPAGE is unset
    use(nullptr);
    EXPECT_EQ(xlate(true, LATIN1), UTF8);
}

TEST_F(Charset, Ucs2GoesIntoTheCallersBufferAndEachFailureHasItsCode)
{
    use("ISO-8859-1");
    char out[16], back[16];
    size_t n = 0;
    ASSERT_EQ(ldap_xlate_local_to_ucs2(LATIN1.data(), LATIN1.size(), out, sizeof out, &n), 0);
    EXPECT_EQ(std::string(out, n), std::string("\0J\0\xFC\0r\0g\0e\0n", 12));
    ASSERT_EQ(ldap_xlate_ucs2_to_local(out, n, back, sizeof back, &n), 0);
    EXPECT_EQ(std::string(back, n), LATIN1);
    EXPECT_EQ(ldap_xlate_local_to_ucs2(LATIN1.data(), 6, out, 11, &n), LDAP_XLATE_OUTPUT_OVERFLOW);
    EXPECT_EQ(ldap_xlate_ucs2_to_local("\0J\0", 3, back, 16, &n), LDAP_XLATE_INPUT_TRUNCATED);
    EXPECT_EQ(ldap_xlate_ucs2_to_local("\xD8\0", 2, back, 16, &n), LDAP_XLATE_BAD_CHARACTER);
    EXPECT_EQ(ldap_xlate_ucs2_to_local("\x20\xAC", 2, back, 16, &n), LDAP_XLATE_NO_MAPPING);
}

TEST_F(Charset, Utf8AndTheCLocalePassThroughWithoutCopies)
{
    for (const char *cp : {"utf8", "ANSI_X3.4-1968", static_cast<const char *>(nullptr), "NO-SUCH"}) {
        use(cp);
        EXPECT_TRUE(ldap_xlate_is_passthrough()) << (cp ? cp : "locale");
        char *out = reinterpret_cast<char *>(1);
        size_t outlen = 0;
        long calls = lber_alloc_calls();
        EXPECT_EQ(ldap_xlate_utf8_to_local("\xFF\xFE\x00\xC3", 4, &out, &outlen), 0);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(lber_alloc_calls(), calls);
    }
}

// Translation needs version 3 and no UTF-8 word; raw and plain printfs never translate, the
// plain element's xlate branch does; the legacy switch (traced once per side) turns it off.
TEST_F(Charset, EncoderTranslatesOnlyAtVersionThreeWithoutTheUtf8Word)
{
    use("ISO-8859-1");
    const struct {
        int version, utf8;
        bool translated;
    } cases[] = {{3, 0, true}, {2, 0, false}, {3, 1, false}};
    for (const auto &c : cases) {
        BerElement *ber = handle_fber(c.version, c.utf8);
        char *vals[] = {const_cast<char *>(LATIN1.c_str()), nullptr};
        struct berval bv = {LATIN1.size(), const_cast<char *>(LATIN1.data())};
        struct berval *bvs[] = {&bv, nullptr};
        ASSERT_EQ(fber_printf(ber, "sovVs", LATIN1.c_str(), LATIN1.data(),
                              static_cast<int>(LATIN1.size()), vals, bvs, ""),
                  0);
        const std::string v = octets(c.translated ? UTF8 : LATIN1);
        EXPECT_EQ(written(ber), v + v + v + v + octets("")) << c.version << "/" << c.utf8;
        fber_free(ber);
    }
    BerElement *f = handle_fber(3, 0);
    ASSERT_EQ(fber_printf_raw(f, "s", LATIN1.c_str()), 0);
    ASSERT_EQ(ber_printf(f, "s", LATIN1.c_str()), 0);
    ASSERT_EQ(ber_printf_xlate(f, "s", LATIN1.c_str()), 0);
    EXPECT_EQ(written(f), octets(LATIN1) + octets(LATIN1) + octets(LATIN1));
    fber_free(f);
    wzrtest::Plain p(ber_alloc());
    int32_t version = 3;
    p->ber_version = &version;
    ASSERT_NE(ber_printf(p.get(), "s", LATIN1.c_str()), -1);
    ASSERT_NE(ber_printf_xlate(p.get(), "s", LATIN1.c_str()), -1);
    EXPECT_EQ(written(p.get()), octets(LATIN1) + octets(UTF8));
    p->ber_version = nullptr;
    wzrtest::Fber bare(fber_alloc()); // no version word: unchanged
    ASSERT_EQ(fber_printf(bare.get(), "s", LATIN1.c_str()), 0);
    EXPECT_EQ(written(bare.get()), octets(LATIN1));

    wzrtest::TraceFile trace;
    legacy_.emplace("LDAP_LEGACY_UTF8_XLATE_MODE", "");
    ber_xlate_reset_for_tests();
    for (int round = 0; round < 2; ++round) {
        wzrtest::Fber out(handle_fber(3, 0));
        ASSERT_EQ(fber_printf(out.get(), "s", LATIN1.c_str()), 0);
        EXPECT_EQ(written(out.get()), octets(LATIN1));
        wzrtest::Fber in(received(octets(UTF8)));
        char *s = nullptr;
        EXPECT_EQ(fber_scanf(in.get(), "a", &s), 0x04u);
        EXPECT_EQ(take(s), UTF8);
    }
    EXPECT_EQ(trace.count("LDAP_LEGACY_UTF8_XLATE_MODE = true\n"), 2) << trace.text();
}

TEST_F(Charset, DecoderTranslatesStringLettersButNotRawOctets)
{
    use("ISO-8859-1");
    std::string wire = "\x30\x84" + std::string("\x00\x00\x00", 3) +
                       static_cast<char>(6 * 9 + 2 * 2) + octets(UTF8) + octets(UTF8) +
                       octets(UTF8) + octets(UTF8) + "\x31\x09" + octets(UTF8) + "\x31\x09" +
                       octets(UTF8);
    wzrtest::Fber ber(received(wire));
    char *a = nullptr;
    char buf[8];
    ber_len_t len = sizeof buf;
    struct berval *O = nullptr;
    struct berval o = {0, nullptr};
    char **v = nullptr;
    struct berval **V = nullptr;
    EXPECT_EQ(fber_scanf(ber.get(), "{asOo{v}[V]}", &a, buf, &len, &O, &o, &v, &V), 0x31u);
    EXPECT_EQ(take(a), LATIN1);
    EXPECT_EQ(std::string(buf, len), LATIN1);
    EXPECT_EQ(std::string(O->bv_val, O->bv_len), LATIN1);
    EXPECT_EQ(std::string(o.bv_val, o.bv_len), UTF8);
    EXPECT_EQ(take(v[0]), LATIN1);
    EXPECT_EQ(std::string(V[0]->bv_val, V[0]->bv_len), LATIN1);
    ber_bvfree(O);
    lber_free(o.bv_val);
    lber_free(v);
    ber_bvfree(V[0]);
    lber_free(V);

    // The UTF-8 word, or version 2, leave the bytes as they came.
    for (auto [version, utf8] : {std::pair{3, 1}, std::pair{2, 0}}) {
        wzrtest::Fber raw(received(octets(UTF8), version, utf8));
        char *s = nullptr;
        EXPECT_EQ(fber_scanf(raw.get(), "a", &s), 0x04u);
        EXPECT_EQ(take(s), UTF8);
    }
    // The converted value must fit the caller's buffer: 7 would hold the wire bytes only.
    wzrtest::Fber fit(received(octets(UTF8)));
    len = 7;
    EXPECT_EQ(fber_scanf(fit.get(), "s", buf, &len), LBER_ERROR);
    len = 8;
    EXPECT_EQ(fber_scanf(fit.get(), "s", buf, &len), 0x04u);
    EXPECT_EQ(len, 6u);
    EXPECT_STREQ(buf, LATIN1.c_str());
}

TEST_F(Charset, AnInvalidSequenceFromTheWireFailsTheElementCleanly)
{
    use("ISO-8859-1");
    std::string bad = octets("ok\xC3\x28");
    long live = lber_live_blocks();
    for (char letter : {'a', 'O', 's', 'v'}) {
        std::string set = octets("fine") + bad;
        std::string wire =
            letter == 'v' ? "\x31" + std::string(1, static_cast<char>(set.size())) + set : bad;
        BerElement *ber = received(wire);
        long before = lber_live_blocks();
        char *a = reinterpret_cast<char *>(1);
        struct berval *O = reinterpret_cast<struct berval *>(1);
        char **v = reinterpret_cast<char **>(1);
        char buf[16];
        ber_len_t len = sizeof buf;
        ber_tag_t rc = letter == 'a'   ? fber_scanf(ber, "a", &a)
                       : letter == 'O' ? fber_scanf(ber, "O", &O)
                       : letter == 's' ? fber_scanf(ber, "s", buf, &len)
                                       : fber_scanf(ber, "{v}", &v);
        EXPECT_EQ(rc, LBER_ERROR) << letter;
        EXPECT_EQ(lber_live_blocks(), before) << letter;
        EXPECT_EQ(a, letter == 'a' ? nullptr : reinterpret_cast<char *>(1));
        EXPECT_EQ(O, letter == 'O' ? nullptr : reinterpret_cast<struct berval *>(1));
        EXPECT_EQ(v, letter == 'v' ? nullptr : reinterpret_cast<char **>(1));
        fber_free(ber);
    }
    EXPECT_EQ(lber_live_blocks(), live);
    // A value set in one block fails whole and leaves the read position alone.
    BerElement *set = received("\x31\x09" + octets("ok") + octets("\xE2\x82\xAC"));
    unsigned char *at = set->ber_ptr;
    struct berval **v = nullptr;
    EXPECT_EQ(fber_get_berval_block(set, true, &v), FberList::Error); // no Latin-1 euro sign
    EXPECT_EQ(v, nullptr);
    EXPECT_EQ(set->ber_ptr, at);
    fber_free(set);
}

// Encoding, decoding and the one-block value set (each value with its translated length and
// NUL) through every failed allocation leave nothing behind.
TEST_F(Charset, TranslationAllocationFailuresLeaveNothingBehind)
{
    use("ISO-8859-1");
    (void)ldap_xlate_is_passthrough(); // settle the code page outside the walk
    std::string wire = "\x30\x0F" + octets(UTF8) + "\x31\x04" + octets("\xC3\xA4");
    wzrtest::walk_alloc_failures([&] {
        BerElement *out = handle_fber(3, 0);
        BerElement *in = received(wire);
        char *a = nullptr;
        char **v = nullptr;
        bool ok = out != nullptr && in != nullptr && fber_printf(out, "s", LATIN1.c_str()) == 0 &&
                  fber_scanf(in, "{a{v}}", &a, &v) == 0x31u;
        ok = ok && std::string(a) == LATIN1 && std::string(v[0]) == "\xE4";
        lber_free(a);
        if (v != nullptr)
            lber_free(v[0]);
        lber_free(v);
        fber_free(out);
        fber_free(in);
        return ok;
    });
    std::string set = "\x31\x0F" + octets(UTF8) + octets("") + octets("\xC3\xA4");
    wzrtest::walk_alloc_failures([&] {
        BerElement *in = received(set);
        struct berval **v = nullptr;
        bool ok = in != nullptr && fber_get_berval_block(in, true, &v) == FberList::Members;
        if (ok) {
            EXPECT_EQ(std::string(v[0]->bv_val, v[0]->bv_len + 1), LATIN1 + '\0');
            EXPECT_EQ(std::string(v[1]->bv_val, v[1]->bv_len + 1), std::string(1, '\0'));
            EXPECT_STREQ(v[2]->bv_val, "\xE4");
            EXPECT_EQ(v[3], nullptr);
        }
        lber_free(v);
        fber_free(in);
        return ok;
    });
}

TEST(CharsetThreads, ConcurrentConversionsShareTheDescriptors)
{
    wzrtest::ScopedEnv cp("LDAP_CODEPAGE", "ISO-8859-1");
    ldap_charset_reset_for_tests();
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &failures] {
            for (int i = 0; i < 2000; ++i) {
                bool forward = (i + t) % 2 == 0;
                if (xlate(forward, forward ? LATIN1 : UTF8) != (forward ? UTF8 : LATIN1))
                    ++failures[static_cast<size_t>(t)];
            }
        });
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
    ldap_charset_reset_for_tests();
}

} // namespace
