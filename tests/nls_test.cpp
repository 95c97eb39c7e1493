// Code pages and message texts. The conversion service on iconv (pass-through for UTF-8 and
// the C locale) and how the BER encoder and decoder apply it: protocol version, the element's
// UTF-8 word, the legacy switch, raw letters, failures that leave nothing behind. Result-code
// texts and the message catalogues chosen by the locale variables (the English one built from
// the library's own tables), the formatter with positional arguments, the per-thread error
// records of a handle, ldap_result2error and ldap_perror.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "liblber/ber_int.h"
#include "liblber/ber_memory.h"
#include "liblber/ber_xlate.h"
#include "libldap/ldap_charset.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_nls.h"
#include "support/handle_util.h"
#include "support/lber_test.h"
#include "support/test_util.h"

using wzrtest::BareHandle;
using wzrtest::Handle;

namespace {

// A received message over `pdu` (read position at the protocolOp), filed under no row.
LDAPMessage *make_message(LDAP *ld, const std::string &pdu, int type)
{
    LDAPMessage *msg = ldap_msginit(ld->ld_defconn);
    auto *bytes = static_cast<char *>(lber_malloc(pdu.size()));
    memcpy(bytes, pdu.data(), pdu.size());
    struct berval bv = {pdu.size(), bytes};
    msg->lm_ber = fber_init2(&bv);
    msg->lm_msgtype = type;
    msg->lm_msgid = 1000; // beyond the table: belongs to no row
    return msg;
}

// searchResDone { resultCode 32, matchedDN "dc=x", diagnosticMessage "gone" }; the cut one's
// last string claims one byte more than it has and lacks its last two.
const std::string NO_SUCH_OBJECT_DONE("\x65\x0d\x0a\x01\x20\x04\x04" "dc=x\x04\x04gone", 17);
const std::string CUT_DONE("\x65\x0d\x0a\x01\x20\x04\x04" "dc=x\x04\x05go", 15);
const std::string ENTRY("\x64\x08\x04\x04" "cn=a\x30\x00", 10); // searchResEntry { "cn=a", {} }

// A string the library handed out, freed; "(null)" for none.
std::string take(char *s)
{
    std::string out = s != nullptr ? s : "(null)";
    lber_free(s);
    return out;
}

std::string perror_text(LDAP *ld)
{
    testing::internal::CaptureStderr();
    ldap_perror(ld, "search");
    return testing::internal::GetCapturedStderr();
}

using Env = std::optional<std::string>;

class Nls : public ::testing::Test {
protected:
    // Chooses again with these settings (NLSPATH points at the build's catalogues).
    void use(Env lc_all, Env lang)
    {
        lc_all_.emplace("LC_ALL", lc_all);
        lang_.emplace("LANG", lang);
        ldap_nls_reset_for_tests();
    }
    ~Nls() override { ldap_nls_reset_for_tests(); } // the next choice reads the settings again
    wzrtest::ScopedEnv path_{"NLSPATH", "/nonexistent/%N:" WZR_NLS_DIR "/%l/%N.cat"};
    wzrtest::ScopedEnv messages_{"LC_MESSAGES", std::nullopt};
    std::optional<wzrtest::ScopedEnv> lc_all_, lang_;
};

TEST_F(Nls, LocaleVariablesChooseTheCatalogueAndMissingTextsFallBack)
{
    const struct {
        Env lc_all, lang;
        int code;
        const char *text;
    } cases[] = {
        {std::nullopt, "de_DE.UTF-8", LDAP_SERVER_DOWN, "Keine Verbindung zum LDAP-Server"},
        {std::nullopt, "de_DE.UTF-8", 15, "Unbekannter Fehler"},           // no row: as 80
        {std::nullopt, "de_DE.UTF-8", LDAP_LOCK_ERROR, "Could not obtain lock"}, // untranslated
        {"C", "de_DE.UTF-8", LDAP_SERVER_DOWN, "Can't contact LDAP server"},    // LC_ALL first
        {std::nullopt, "en_GB", LDAP_SERVER_DOWN, "Can't contact LDAP server"}, // from the table
    };
    for (const auto &c : cases) {
        use(c.lc_all, c.lang);
        EXPECT_STREQ(ldap_err2string(c.code), c.text) << c.lang.value_or("");
        EXPECT_EQ(ldap_nls_text(LDAP_NLS_SET_PERROR, 2, nullptr) != nullptr,
                  !c.lc_all) << "catalogue opened";
    }
}

TEST(NlsFormat, PositionalArgumentsMayComeInAnyOrder)
{
    const char *args[] = {"one", "two"};
    const struct {
        const char *fmt, *out;
        size_t size;
    } cases[] = {
        {"%2$s (%1$s)", "two (one)", 64},
        {"%s: %s 100%%", "one: two 100%", 64},
        {"[%3$s]%d", "[]%d", 64},
        {"%1$s-%2$s", "one-", 5}, // cut; the whole length is still told
    };
    char buf[64];
    for (const auto &c : cases) {
        EXPECT_EQ(ldap_nls_format(buf, c.size, c.fmt, 2, args), c.size == 5 ? 7 : strlen(c.out));
        EXPECT_STREQ(buf, c.out);
    }
}

// The lookup at the table's edges and gaps; every published code has a text of its own.
TEST(ErrorTexts, ResultCodeTableHasExactAndDistinctTexts)
{
    const std::pair<int, const char *> rows[] = {
        {0, "Success"}, {15, "Unknown error"}, {-5, "Unknown error"}, {80, "Unknown error"},
        {122, "The assertion filter evalues to false or undefined"}, {99, "can't allocate memory space"},
        {208, "gss_init_sec_context failed"}, {209, "Unknown error"}, {-1, "Unknown error"}};
    for (const auto &[code, text] : rows)
        EXPECT_STREQ(ldap_err2string(code), text) << code;
    std::set<std::string> seen;
    for (int code : {1,   2,   3,   4,   5,   6,   7,   8,   9,   10,  11,  12,  13,  14,  16,  17,
                     18,  19,  20,  21,  32,  33,  34,  35,  36,  48,  49,  50,  51,  52,  53,  54,
                     60,  61,  64,  65,  66,  67,  68,  69,  70,  71,  81,  82,  83,  84,  85,  86,
                     87,  88,  89,  90,  91,  92,  93,  94,  95,  96,  97,  98,  99,  100, 101, 112,
                     113, 114, 115, 116, 117, 118, 119, 120, 122, 128, 129, 133, 134, 135, 136, 137,
                     160, 161, 162, 163, 176, 177, 178, 192, 193, 194, 195, 196, 208}) {
        EXPECT_NE(ldap_err2string(code), std::string("Unknown error")) << code;
        EXPECT_TRUE(seen.insert(ldap_err2string(code)).second) << "duplicate text for " << code;
    }
    const std::pair<int, const char *> pwd[] = {
        {0, "Success"}, {11, "Error, Password in History"}, {12, "Unknown error"}, {-1, "Unknown error"}};
    for (const auto &[code, text] : pwd)
        EXPECT_STREQ(ldap_pwdpolicy_err2string(code), text) << code;
}

// Copies handed out; a later record replaces both strings, null included, and keeps the
// extended error, which a record without a thread cannot give.
TEST(ErrorRecords, RecordAndReadBackWithCopies)
{
    BareHandle h;
    EXPECT_EQ(ldap_get_errno_direct(&h.ld), 0) << "no record reads as success";
    char *matched = reinterpret_cast<char *>(1), *msg = reinterpret_cast<char *>(1);
    EXPECT_EQ(ldap_get_lderrno_direct(&h.ld, &matched, &msg), 0);
    EXPECT_TRUE(matched == nullptr && msg == nullptr);
    ASSERT_EQ(ldap_set_lderrno_direct(&h.ld, 32, "dc=example", "no such entry"), 0);
    EXPECT_EQ(ldap_get_errno(&h.ld), 32);
    EXPECT_EQ(ldap_get_lderrno(&h.ld, &matched, &msg), 32);
    ASSERT_NE(matched, h.ld.ld_errors->matched) << "the caller gets a copy";
    EXPECT_EQ(take(matched) + "|" + take(msg), "dc=example|no such entry");
    ASSERT_EQ(ldap_set_ext_error(&h.ld, 406), 0);
    ASSERT_EQ(ldap_set_lderrno_direct(&h.ld, 49, nullptr, "bad password"), 0);
    EXPECT_EQ(ldap_get_lderrno_direct(&h.ld, &matched, &msg), 49);
    EXPECT_EQ(take(matched) + "|" + take(msg), "(null)|bad password");
    EXPECT_EQ(ldap_get_ext_error_direct(&h.ld), 406);
    EXPECT_EQ(ldap_get_ext_error(&h.ld), 406);
    EXPECT_EQ(h.ld.ld_errors->next, nullptr) << "one thread, one record";
    BareHandle early;
    ASSERT_EQ(ldap_set_ext_error(&early.ld, 7), 0);
    EXPECT_EQ(ldap_get_ext_error_direct(&early.ld), 0) << "the record has no thread";
    ASSERT_EQ(ldap_set_lderrno_direct(&early.ld, 1, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_get_ext_error_direct(&early.ld), 0);
}

TEST(ErrorRecords, ValidatingFormsRefuseABadHandle)
{
    BareHandle h("EYEDEADL");
    char *matched = reinterpret_cast<char *>(1);
    EXPECT_EQ(ldap_set_lderrno(&h.ld, 3, nullptr, nullptr), -1);
    EXPECT_EQ(ldap_get_errno(&h.ld), -1);
    EXPECT_EQ(ldap_get_ext_error(&h.ld), -1);
    EXPECT_EQ(ldap_get_lderrno(&h.ld, &matched, nullptr), -1);
    EXPECT_EQ(matched, nullptr);
    EXPECT_EQ(ldap_get_errno(nullptr), -1);
    EXPECT_EQ(h.ld.ld_errors, nullptr) << "nothing was recorded";
    EXPECT_EQ(ldap_set_lderrno_direct(nullptr, 1, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_result2error(&h.ld, nullptr, 0), -1);
    LDAPMessage dummy{};
    EXPECT_EQ(ldap_result2error(&h.ld, &dummy, 0), LDAP_PARAM_ERROR) << "no operation starts";
    EXPECT_EQ(perror_text(&h.ld), "") << "no operation, no output";
}

// A thread's first record (the record and both copies), then a replacement whose failed
// copy keeps what the record held.
TEST(ErrorRecords, NoMemoryLeavesTheOldRecordAndLeaksNothing)
{
    for (bool replace : {false, true}) {
        int walked = wzrtest::walk_alloc_failures([replace] {
            BareHandle h;
            if (replace && ldap_set_lderrno_direct(&h.ld, 1, nullptr, nullptr) != 0)
                return false;
            int rc = ldap_set_lderrno_direct(&h.ld, 53, "dc=a", "busy");
            if (rc == 0)
                return ldap_get_errno_direct(&h.ld) == 53;
            EXPECT_EQ(rc, LDAP_NO_MEMORY);
            EXPECT_EQ(ldap_get_errno_direct(&h.ld), replace ? 1 : 0);
            EXPECT_EQ(h.ld.ld_errors == nullptr, !replace);
            EXPECT_TRUE(!replace || h.ld.ld_errors->matched == nullptr);
            return false;
        });
        EXPECT_EQ(walked, 3);
    }
}

// Each thread reads back its own code and text, also after all have recorded and while the
// others keep recording.
TEST(ErrorRecordThreads, EachThreadReadsBackItsOwnRecord)
{
    Handle h;
    ASSERT_NE(h.ld, nullptr);
    constexpr int THREADS = 8;
    std::atomic<int> ready{0}, mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.emplace_back([&, t] {
            std::string text = "thread " + std::to_string(t);
            ASSERT_EQ(ldap_set_lderrno_direct(h.ld, 32 + t, nullptr, text.c_str()), 0);
            ready.fetch_add(1);
            while (ready.load() < THREADS) // all have recorded before any reads
                std::this_thread::yield();
            char *msg = nullptr;
            EXPECT_EQ(ldap_get_lderrno(h.ld, nullptr, &msg), 32 + t);
            EXPECT_EQ(take(msg), text);
            for (int i = 0; i < 200; ++i) {
                int code = 1 + (t * 200 + i) % 80;
                if (ldap_set_lderrno_direct(h.ld, code, "dc=x", nullptr) != 0 ||
                    ldap_get_errno(h.ld) != code)
                    mismatches.fetch_add(1);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(mismatches.load(), 0);
}

// The final result is decoded and recorded (the message itself not moved, so a second reading
// gives the same); an entry or reference last is refused (and still freed with freeit); a cut
// result fails to decode after its code and matched DN were read and leaves no partial string.
TEST(ResultToError, DecodesAndRecordsTheFinalResultAndRefusesTheRest)
{
    Handle h;
    ASSERT_NE(h.ld, nullptr);
    ASSERT_EQ(ldap_set_lderrno_direct(h.ld, 0, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_result2error(h.ld, nullptr, 0), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_set_lderrno_direct(h.ld, 32, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_result2error(h.ld, nullptr, 1), 32) << "no result: the thread's code";

    long live = lber_live_blocks();
    LDAPMessage *entry = make_message(h.ld, ENTRY, LDAP_RES_SEARCH_ENTRY);
    LDAPMessage *done = make_message(h.ld, NO_SUCH_OBJECT_DONE, LDAP_RES_SEARCH_RESULT);
    entry->lm_chain = done;
    EXPECT_EQ(ldap_result2error(h.ld, entry, 0), LDAP_NO_SUCH_OBJECT);
    char *matched = nullptr, *msg = nullptr;
    EXPECT_EQ(ldap_get_lderrno(h.ld, &matched, &msg), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(take(matched) + "|" + take(msg), "dc=x|gone");
    EXPECT_EQ(perror_text(h.ld), "search: No such object\nsearch: matched: dc=x\n"
                                 "search: additional info: gone\n");
    EXPECT_EQ(ldap_result2error(h.ld, done, 1), LDAP_NO_SUCH_OBJECT);
    entry->lm_chain = nullptr;
    EXPECT_EQ(ldap_result2error(h.ld, entry, 1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_set_lderrno_direct(h.ld, 0, nullptr, nullptr), 0); // drop the strings
    EXPECT_EQ(lber_live_blocks(), live) << "freeit released the messages";
    ASSERT_EQ(ldap_set_lderrno_direct(h.ld, 32, "", ""), 0);
    EXPECT_EQ(perror_text(h.ld), "search: No such object\n") << "empty strings print nothing";

    LDAPMessage *ref =
        make_message(h.ld, std::string("\x73\x02\x04\x00", 4), LDAP_RES_SEARCH_REFERENCE);
    EXPECT_EQ(ldap_result2error(h.ld, ref, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_msgfree(ref), LDAP_RES_SEARCH_REFERENCE);
    done = make_message(h.ld, CUT_DONE, LDAP_RES_SEARCH_RESULT);
    live = lber_live_blocks();
    EXPECT_EQ(ldap_result2error(h.ld, done, 0), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(lber_live_blocks(), live) << "partial strings were freed";
    ldap_msgfree(done);
}

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
            letter == 'v' ? std::string{'\x31', static_cast<char>(set.size())} + set : bad;
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
