// Result-code texts and the message catalogues chosen by the locale variables (the English one
// built from the library's own tables), the formatter with positional arguments, the
// per-thread error records of a handle, ldap_result2error and ldap_perror.
#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libldap/ldap_message.h"
#include "libldap/ldap_nls.h"
#include "support/handle_util.h"
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

} // namespace

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
