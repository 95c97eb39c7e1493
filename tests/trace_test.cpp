// The trace facility (class table, mask from the environment, output switch, line prefix, every
// timestamp form, hex dump) and environment access (reads, list updates, traces, threads).
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "liblber/ber_memory.h"
#include "support/lber_test.h"
#include "support/test_util.h"
#include "trace/ldap_env.h"
#include "trace/ldap_trace.h"
#include "wzrldap.h"

namespace {

using Lines = std::vector<std::string>;
using wzrtest::ScopedEnv;

std::string thread_tag() { return std::string("T").append(std::to_string(static_cast<int>(pthread_self()))); }

// Whether `text` has the given shape: "#" stands for any decimal digit, all else for itself.
bool fits(const std::string &text, const std::string &shape)
{
    if (text.size() != shape.size())
        return false;
    for (size_t i = 0; i < text.size(); ++i)
        if (shape[i] == '#' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != shape[i])
            return false;
    return true;
}

Lines lines_of(const std::string &text)
{
    Lines out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

constexpr time_t MAR_05_123456 = 1709642096; // 2024-03-05 12:34:56 UTC

// Each test gets its own trace file and leaves the trace silent, and the zone as it was.
class Trace : public ::testing::Test {
protected:
    void SetUp() override
    {
        ldap_debug_init();
        ASSERT_EQ(ldap_set_debug_file(path_.c_str()), 0);
        ldap_set_debug_mask(0xffff);
    }
    void TearDown() override
    {
        tz_.reset();
        tzset();
        ldap_debug_reset_for_tests(); // timestamps on again, format read afresh
        ldap_set_debug_mask(0);
        (void)ldap_set_debug_file("stderr");
    }
    std::string output() const { return wzrtest::read_file(path_); }
    void to_new_file(const std::string &name)
    {
        path_ = dir_.file(name);
        ASSERT_EQ(ldap_set_debug_file(path_.c_str()), 0);
    }
    void zone(const char *tz)
    {
        tz_.emplace("TZ", std::string(tz));
        tzset();
    }
    std::string stamp(int format, time_t secs, long usec, int size = 33)
    {
        struct timeval tv = {secs, usec};
        char buf[64];
        memset(buf, 'x', sizeof buf);
        char *got = ldap_format_timestamp(format, &tv, buf, size);
        EXPECT_EQ(got, buf);
        return got;
    }
    // ldap_debug_init traces its own read of LDAP_DEBUG_TIME; keep that out of the file.
    static void debug_init_quietly(const char *debug_time)
    {
        ScopedEnv t("LDAP_DEBUG_TIME", std::string(debug_time));
        unsigned mask = ldap_debug_enabled();
        ldap_set_debug_mask(0);
        ldap_debug_init();
        ldap_set_debug_mask(mask);
    }
    // Writes one line per class of the table (0..18) and returns the indexes that came out.
    std::vector<unsigned> classes_written()
    {
        for (unsigned i = 0; i < 19; ++i)
            ldap_debug_print(0xc8010000u + (i << 16), "class %02u written\n", i);
        std::vector<unsigned> seen;
        std::string text = output();
        for (unsigned i = 0; i < 19; ++i)
            if (text.find("class " + std::string(i < 10 ? "0" : "") + std::to_string(i) +
                          " written\n") != std::string::npos)
                seen.push_back(i);
        return seen;
    }

    wzrtest::TempDir dir_;
    std::string path_ = dir_.file("trace.out");
    std::optional<ScopedEnv> tz_;
};

TEST_F(Trace, MaskSelectsClassesThroughTheBitTableAndIgnoresUnknownOnes)
{
    ldap_set_debug_mask(1); // ordinary flow, which code-page set-up shares, and warnings
    EXPECT_EQ(classes_written(), (std::vector<unsigned>{0, 4, 18}));
    ldap_set_debug_mask(0x8000);
    EXPECT_TRUE(ldap_debug_class_on(LDAP_TRC_ERROR));
    EXPECT_TRUE(ldap_debug_class_on(LDAP_TRC_WARN));
    EXPECT_FALSE(ldap_debug_class_on(LDAP_TRC_API));
    EXPECT_FALSE(ldap_debug_class_on(LDAP_TRC_BER));
    ldap_set_debug_mask(0xffff);
    EXPECT_FALSE(ldap_debug_class_on(0xc8140000u));
    ldap_debug_print(0xc8140000u, "beyond the table\n");
    ldap_debug_print(0x00010000u, "below the table\n");
    EXPECT_EQ(output().find("the table"), std::string::npos) << output();
}

// LDAP_DEBUG as the first initialisation of a process reads it; the reset hook re-runs it.
TEST_F(Trace, LdapDebugVariableSetsTheMask)
{
    std::vector<unsigned> all;
    for (unsigned i = 0; i <= 18; ++i)
        all.push_back(i);
    const struct { const char *value; unsigned mask; int flag; std::vector<unsigned> classes; }
        cases[] = {
        {"32768", 0x8000, 1, {16, 17, 18}}, {"-1", 0xffffffffu, 1, all},
        {"0x8000", 0, 1, {}}, /* atoi */    {"abc", 0, 0, {}},     {"12a", 0, 0, {}},
        {"", 0, 1, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.value);
        path_ = dir_.file(std::string("env") + c.value + ".out");
        ScopedEnv dbg("LDAP_DEBUG", std::string(c.value));
        ScopedEnv out("LDAP_DEBUG_FILE", path_);
        ldap_debug_reset_for_tests();
        EXPECT_EQ(ldap_debug_enabled(), c.mask);
        EXPECT_EQ(ldap_debug_env_flag(), c.flag);
        ASSERT_STREQ(ldap_get_debug_file(), path_.c_str());
        EXPECT_EQ(classes_written(), c.classes);
    }
    ScopedEnv dbg("LDAP_DEBUG", std::nullopt);
    ScopedEnv out("LDAP_DEBUG_FILE", std::nullopt);
    ldap_debug_reset_for_tests(); // the reset itself puts the mask to 0 first
    EXPECT_EQ(ldap_debug_enabled(), 0u);
    EXPECT_STREQ(ldap_get_debug_file(), "stderr");
    ldap_set_debug_mask(0x0200);
    ldap_debug_init(); // later initialisations leave the mask alone
    EXPECT_EQ(ldap_debug_enabled(), 0x0200u);
    EXPECT_EQ(ldap_set_debug_file("stdout"), 0);
    EXPECT_STREQ(ldap_get_debug_file(), "stdout");
}

// A switch closes the old file and appends to the new; with no stream every trace call (print,
// dump, the environment functions) is silently a no-op.
TEST_F(Trace, OutputSwitchAppendsAndAnUnopenableFileSilencesTheTrace)
{
    std::string second = dir_.file("second.out"), missing = dir_.file("no/such/dir/trace.out");
    wzrtest::write_file(second, "kept\n");
    ldap_debug_print(LDAP_TRC_API, "%s", "first");
    ASSERT_EQ(ldap_set_debug_file(second.c_str()), 0);
    ldap_debug_print(LDAP_TRC_API, "%s", "second");
    EXPECT_EQ(output(), "first");
    EXPECT_EQ(wzrtest::read_file(second), "kept\nsecond");
    EXPECT_STREQ(ldap_get_debug_file(), second.c_str());
    {
        ScopedEnv dbg("LDAP_DEBUG", std::string("65535"));
        ScopedEnv out("LDAP_DEBUG_FILE", missing);
        ldap_debug_reset_for_tests();
        EXPECT_EQ(ldap_debug_enabled(), 0xffffu);
        EXPECT_EQ(ldap_get_debug_file(), nullptr);
        EXPECT_FALSE(ldap_debug_class_on(LDAP_TRC_ERROR));
        ldap_debug_print(LDAP_TRC_ERROR, "nobody sees this %d\n", 1);
        unsigned char bytes[4] = {1, 2, 3, 4};
        ldap_debug_hexdump(bytes, 4, "quiet");
        ScopedEnv v("WZR_TRACE_TEST_VAR", std::string("value"));
        char *got = ldap_getenv("WZR_TRACE_TEST_VAR");
        EXPECT_STREQ(got, "value");
        lber_free(got);
        EXPECT_EQ(ldap_chkenv("WZR_TRACE_TEST_VAR"), 6);
    }
    EXPECT_EQ(ldap_set_debug_file(missing.c_str()), ENOENT);
    EXPECT_EQ(ldap_set_debug_file(nullptr), EINVAL);
    EXPECT_EQ(ldap_set_debug_file(""), EINVAL);
    EXPECT_EQ(ldap_get_debug_file(), nullptr);
    EXPECT_EQ(output(), "first");
    EXPECT_EQ(wzrtest::read_file(second), "kept\nsecond");
    EXPECT_NE(access(dir_.file("no").c_str(), F_OK), 0) << "nothing was created";
}

// Only "FALSE" (in capitals) drops the timestamp, and nothing turns it back on.
TEST_F(Trace, ShortFormatsGetNoPrefixAndOnlyFalseDropsTheTimestamp)
{
    ScopedEnv fmt("OPXQ_TIMESTAMP_FORMAT", std::string("Epoch"));
    ldap_get_timestamp_format(1);
    debug_init_quietly("false");
    ldap_debug_print(LDAP_TRC_API, "stamped\n");
    EXPECT_TRUE(fits(output(), "##########.###### " + thread_tag() + " stamped\n")) << output();
    debug_init_quietly("FALSE");
    debug_init_quietly("TRUE");
    to_new_file("two.out");
    ldap_debug_print(LDAP_TRC_API, "\n");
    ldap_debug_print(LDAP_TRC_API, "%s", "ab");
    ldap_debug_print(LDAP_TRC_API, "1234\n");  // five characters: a continuation
    ldap_debug_print(LDAP_TRC_API, "12345\n"); // six: a new line with its prefix
    va_list *none = nullptr;
    ldap_debug_vprint(LDAP_TRC_API, "plain %d text\n", none); // written as it stands
    EXPECT_EQ(output(),
              "\nab1234\n" + thread_tag() + " 12345\n" + thread_tag() + " plain %d text\n");
}

// Every form, zone offsets east and west, across the day, month and year ends, and summer time.
TEST_F(Trace, EveryTimestampFormatOffsetAndDaylightSavingTime)
{
    constexpr time_t JUL_01_163456 = 1719851696; // 2024-07-01 16:34:56 UTC
    const char *dst = "EST5EDT,M3.2.0,M11.1.0";
    const struct { const char *tz; int format; time_t secs; long usec; const char *want; } cases[] = {
        {"EST5", 2, MAR_05_123456, 789012, "1709642096.789012"},
        {"EST5", 3, MAR_05_123456, 789012, "20240305123456.789012Z"},
        {"EST5", 4, MAR_05_123456, 789012, "2024-03-05T12:34:56.789012Z"},
        {"EST5", 6, MAR_05_123456, 789012, "2024-03-05T07:34:56.789012-5:00"},
        {"EST5", 0, MAR_05_123456, 789012, "2024-03-05T07:34:56.789012-5:00"},
        {"EST5", 5, MAR_05_123456, 789012, "2024-03-05-07:34:56.789-5:00"},
        {"UTC0", 6, MAR_05_123456, 1, "2024-03-05T12:34:56.000001+0:00"},
        {"IST-5:30", 6, MAR_05_123456, 1, "2024-03-05T18:04:56.000001+5:30"},
        {"ZZZ-12", 6, MAR_05_123456, 1, "2024-03-06T00:34:56.000001+12:00"},
        {"EST5", 6, 1704074400, 5, "2023-12-31T21:00:00.000005-5:00"},  // 2024-01-01 02:00 UTC
        {"XXX-3", 6, 1706734800, 5, "2024-02-01T00:00:00.000005+3:00"}, // 2024-01-31 21:00 UTC
        {dst, 5, JUL_01_163456, 789012, "2024-07-01-12:34:56.789-4:00DST"},
        {dst, 5, MAR_05_123456, 789012, "2024-03-05-07:34:56.789-5:00"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.tz) + " format " + std::to_string(c.format));
        zone(c.tz);
        EXPECT_EQ(stamp(c.format, c.secs, c.usec), c.want);
    }
}

TEST_F(Trace, TimestampBufferSizesAllocationAndTheCurrentTime)
{
    zone("UTC0");
    struct timeval tv = {MAR_05_123456, 789012};
    const int smallest[] = {0, 0, 18, 23, 28, 33, 33};
    for (int format = 2; format <= 6; ++format) {
        SCOPED_TRACE(format);
        char *got = ldap_format_timestamp(format, &tv, nullptr, 0);
        ASSERT_NE(got, nullptr);
        std::string text = got;
        lber_free(got);
        EXPECT_EQ(stamp(format, MAR_05_123456, 789012, smallest[format]), text);
        if (format == 5 || format == 6)
            continue; // their default size leaves room for the longest zone offset
        EXPECT_EQ(stamp(format, MAR_05_123456, 789012, smallest[format] - 1), "")
            << "a caller's buffer that is too small comes back empty";
        long live = lber_live_blocks();
        EXPECT_EQ(ldap_format_timestamp(format, &tv, nullptr, smallest[format] - 1), nullptr);
        EXPECT_EQ(lber_live_blocks(), live);
    }
    struct timeval zero = {0, 0};
    char buf[33];
    time_t before = time(nullptr);
    ASSERT_EQ(ldap_format_timestamp(2, &zero, buf, sizeof buf), buf);
    EXPECT_GE(zero.tv_sec, before) << "a zeroed time is filled in with the current one";
    EXPECT_EQ(std::string(buf).substr(0, 10), std::to_string(zero.tv_sec));
    ASSERT_EQ(ldap_format_timestamp(4, nullptr, buf, sizeof buf), buf);
    EXPECT_TRUE(fits(buf, "####-##-##T##:##:##.######Z")) << buf;
}

// The format setting is read without case and kept until asked to read again; the line prefix
// takes the form it names.
TEST_F(Trace, TimestampFormatSettingIsReadCaseInsensitivelyAndNamesThePrefix)
{
    zone("EST5");
    const struct { const char *setting; int code; std::string prefix; } cases[] = {
        {"epoch", 2, ""}, {"GT", 3, ""}, {"General", 3, ""}, {"GeneralTime", 3, ""}, {"Gener", 6, ""},
        {"utc", 4, ""}, {"Local", 6, ""}, {"AUDIT", 5, ""}, {"bogus", 6, ""}, {"", 6, ""},
        {"Default", 1, "####-##-##T##:##:##.######-5:00"}, {"Legacy", 0, "###:##:##:##"},
        {"general-anything", 3, "##############.######Z"},
        {"Audit", 5, "####-##-##-##:##:##.###-5:00"}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.setting);
        ScopedEnv fmt("OPXQ_TIMESTAMP_FORMAT", std::string(c.setting));
        EXPECT_EQ(ldap_get_timestamp_format(1), c.code);
        if (c.prefix.empty())
            continue;
        to_new_file(std::string(c.setting) + ".out");
        ldap_debug_print(LDAP_TRC_ERROR, "Error - %s: %d\n", "fn", 7);
        EXPECT_TRUE(fits(output(), c.prefix + " " + thread_tag() + " Error - fn: 7\n")) << output();
    }
    {
        ScopedEnv fmt("OPXQ_TIMESTAMP_FORMAT", std::nullopt);
        EXPECT_EQ(ldap_get_timestamp_format(1), 6);
    }
    ScopedEnv fmt("OPXQ_TIMESTAMP_FORMAT", std::string("UTC"));
    EXPECT_EQ(ldap_get_timestamp_format(1), 4);
    setenv("OPXQ_TIMESTAMP_FORMAT", "Epoch", 1);
    EXPECT_EQ(ldap_get_timestamp_format(0), 4) << "cached until asked to read again";
    EXPECT_EQ(ldap_get_timestamp_format(1), 2);
}

// Hex dump lines are "T<thread>:\t" and 59 characters of frame. Empty, null-address and
// negative-length dumps stop after the heading, with no closing border; full and partial lines;
// a title centred, and cut to the frame.
TEST_F(Trace, HexDumpFramesFullAndPartialLinesAndTitles)
{
    int dumps = 0;
    auto dump = [&](const void *p, int length, const char *title) {
        to_new_file("dump" + std::to_string(++dumps) + ".out");
        ldap_debug_hexdump(p, length, title);
        Lines out;
        const std::string head = thread_tag() + ":\t";
        for (const std::string &line : lines_of(output())) {
            EXPECT_EQ(line.compare(0, head.size(), head), 0) << line;
            out.push_back(line.substr(head.size()));
            EXPECT_EQ(out.back().size(), 59u) << out.back();
        }
        return out;
    };
    auto heading = [](const void *p, int length) {
        char h[80];
        snprintf(h, sizeof h, "|OSet| Address = %08X  Length = %04X |     ASCII      |",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)), length & 0xffff);
        return std::string(h);
    };
    const std::string border = "+" + std::string(57, '-') + "+";
    unsigned char b[4] = {};
    EXPECT_EQ(dump(b, 0, nullptr), (Lines{border, heading(b, 0), border}));
    EXPECT_EQ(dump(nullptr, 5, ""), (Lines{border, heading(nullptr, 5), border}));
    EXPECT_EQ(dump(b, 0x8000, nullptr), (Lines{border, heading(b, 0x8000), border}));
    const unsigned char hello[16] = {'H', 'e', 'l', 'l', 'o',  '^',  'W', 'o',
                                     'r', 'l', 'd', 0,   0x7f, 0x80, ' ', '~'};
    EXPECT_EQ(dump(hello, 16, nullptr),
              (Lines{border, heading(hello, 16), border,
                     "|0000|48656C6C 6F5E576F 726C6400 7F80207E|Hello.World... ~|", border}));
    const char *digits = "0123456789:;<=>?@";
    std::string title = "|" + std::string(27, ' ') + "BER" + std::string(27, ' ') + "|";
    EXPECT_EQ(dump(digits, 17, "BER"),
              (Lines{border, title, border, heading(digits, 17), border,
                     "|0000|30313233 34353637 38393A3B 3C3D3E3F|0123456789:;<=>?|",
                     "|0010|40" + std::string(33, ' ') + "|@" + std::string(15, ' ') + "|",
                     border}));
    std::string longer = "abc" + std::string(67, 'x');
    Lines got = dump("A", 1, longer.c_str());
    ASSERT_EQ(got.size(), 7u);
    EXPECT_EQ(got[1], "|" + longer.substr(0, 57) + "|");
    EXPECT_EQ(got[5], "|0000|41" + std::string(33, ' ') + "|A" + std::string(15, ' ') + "|");
}

class TraceThreads : public Trace {};

// Lines and dumps from many threads never interleave: every line is whole.
TEST_F(TraceThreads, LinesAndDumpsFromManyThreadsStayWhole)
{
    debug_init_quietly("FALSE");
    constexpr int THREADS = 4;
    constexpr int LINES = 200;
    std::string tags[THREADS];
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([t, &tags] {
            tags[t] = thread_tag();
            for (int i = 0; i < LINES; ++i) {
                ldap_debug_print(LDAP_TRC_API, "writer %d line %03d %s\n", t, i,
                                 "padding-padding-padding");
                if (i % 50 == 0) {
                    unsigned char b[20] = {};
                    ldap_debug_hexdump(b, 20, nullptr);
                }
            }
        });
    for (std::thread &th : threads)
        th.join();
    std::set<std::string> writes, dump_heads;
    for (int t = 0; t < THREADS; ++t) {
        dump_heads.insert(tags[t] + ":\t");
        for (int i = 0; i < LINES; ++i) {
            char text[80];
            snprintf(text, sizeof text, " writer %d line %03d padding-padding-padding", t, i);
            writes.insert(tags[t] + text);
        }
    }
    size_t dump_lines = 0;
    for (const std::string &l : lines_of(output())) {
        if (writes.erase(l) == 1)
            continue;
        size_t tab = l.find(":\t");
        ASSERT_NE(tab, std::string::npos) << l;
        EXPECT_EQ(dump_heads.count(l.substr(0, tab + 2)), 1u) << l;
        std::string body = l.substr(tab + 2);
        ASSERT_EQ(body.size(), 59u) << l;
        EXPECT_TRUE(body.front() == body.back() && (body.front() == '+' || body.front() == '|'))
            << l;
        ++dump_lines;
    }
    EXPECT_TRUE(writes.empty()) << writes.size() << " lines missing or torn";
    // Four dumps per thread: border, heading, border, two data lines, border.
    EXPECT_EQ(dump_lines, static_cast<size_t>(THREADS * 4 * 6));
}


/* ---- environment ---- */


constexpr const char *VAR = "WZR_ENV_TEST_LIST";

// Frees, after the tests restored the variables, the strings the library handed to putenv (so
// the leak checker sees none). Declare it first in a test: it must outlive the restores.
class Assignments {
public:
    ~Assignments()
    {
        for (char *s : strings_)
            lber_free(s);
    }
    // Records the assignment the library has just put in the environment for `name`.
    void record(const char *name)
    {
        ASSERT_EQ(lock_syscall_mutex(), 0);
        char *value = getenv(name);
        (void)unlock_syscall_mutex();
        ASSERT_NE(value, nullptr);
        std::lock_guard<std::mutex> hold(mutex_);
        strings_.push_back(value - strlen(name) - 1);
    }

private:
    std::mutex mutex_;
    std::vector<char *> strings_;
};

std::string env_now(const char *name)
{
    const char *v = getenv(name);
    return v != nullptr ? v : "<unset>";
}

TEST(EnvRead, GetenvCopiesChkenvCountsGetenvBufCutsSettingsAreReadOnce)
{
    ScopedEnv v(VAR, std::string("0123456789"));
    ScopedEnv empty("WZR_ENV_TEST_EMPTY", std::string(""));
    ScopedEnv unset("WZR_ENV_TEST_UNSET", std::nullopt);
    char *got = ldap_getenv(VAR);
    EXPECT_STREQ(got, "0123456789");
    EXPECT_NE(got, getenv(VAR)) << "an owned copy";
    lber_free(got);
    for (const char *none : {"WZR_ENV_TEST_UNSET", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(ldap_getenv(none), nullptr);
        EXPECT_EQ(ldap_chkenv(none), 0);
    }
    EXPECT_EQ(ldap_chkenv(VAR), 11) << "the value and its terminator";
    EXPECT_EQ(ldap_chkenv("WZR_ENV_TEST_EMPTY"), 1) << "an empty value is set";
    EXPECT_EQ(wzrtest::walk_alloc_failures([] {
                  char *value = ldap_getenv(VAR);
                  lber_free(value);
                  return value != nullptr;
              }),
              1);
    char buf[5];
    EXPECT_EQ(ldap_getenv_buf(VAR, buf, sizeof buf), 10) << "cut, but the full length told";
    EXPECT_STREQ(buf, "0123");
    char big[32];
    long calls = lber_alloc_calls();
    EXPECT_EQ(ldap_getenv_buf(VAR, big, sizeof big), 10);
    EXPECT_EQ(lber_alloc_calls(), calls) << "reads without allocating";
    EXPECT_STREQ(big, "0123456789");
    EXPECT_EQ(ldap_getenv_buf("WZR_ENV_TEST_UNSET", big, sizeof big), -1);
    EXPECT_EQ(ldap_getenv_buf(VAR, big, 0), -1);
    // Read once per process (no other test of this program asks): the first answer is kept.
    ScopedEnv pp("USE_OPENLDAP_PWDPOLICY_CONTROL", std::string("yEs"));
    EXPECT_EQ(ldap_use_openldap_pwdpolicy(), 1);
    setenv("USE_OPENLDAP_PWDPOLICY_CONTROL", "no", 1);
    EXPECT_EQ(ldap_use_openldap_pwdpolicy(), 1);
}

// Mode 1 appends, any other prepends; an element already there (any case, either slash)
// stays. ldap_putenv hands its string to the environment and ignores an empty one.
TEST(EnvWrite, ChangeEnvVarPrependsAppendsOrKeeps)
{
    Assignments made;
    const struct { const char *before; int mode; char sep; const char *item, *after; } cases[] = {
        {"/B:/c", 0, ':', "/b", "/B:/c"},     {"/c", 0, ':', "/a", "/a:/c"},
        {"/c", 1, ':', "/a", "/c:/a"},        {"/c", 7, ';', "/a", "/a;/c"},
        {nullptr, 1, ':', "/opt/x", "/opt/x"}, {"", 0, ':', "/opt/x", "/opt/x"}, // no separator
        {"C:\\Tools;D:\\x", 0, ';', "c:/tools", "C:\\Tools;D:\\x"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.before ? c.before : "(unset)") + " + " + c.item);
        ScopedEnv v(VAR, c.before ? std::optional<std::string>(c.before) : std::nullopt);
        EXPECT_EQ(ldap_change_env_var(c.mode, VAR, c.sep, c.item), 0);
        EXPECT_EQ(env_now(VAR), c.after);
        if (c.before == nullptr || strcmp(c.before, c.after) != 0)
            made.record(VAR);
    }
    for (auto [name, item] : {std::pair<const char *, const char *>{nullptr, "/a"}, {"", "/a"},
                              {VAR, nullptr}, {VAR, ""}})
        EXPECT_EQ(ldap_change_env_var(0, name, ':', item), LDAP_PARAM_ERROR);
    ScopedEnv guard(VAR, std::nullopt);
    static char assignment[] = "WZR_ENV_TEST_LIST=put", nothing[] = "";
    EXPECT_EQ(ldap_putenv(assignment), 0);
    EXPECT_EQ(ldap_putenv(nullptr), 0);
    EXPECT_EQ(ldap_putenv(nothing), 0);
    EXPECT_EQ(env_now(VAR), "put");
    // The value is already present: no assignment is made and nothing stays allocated.
    ScopedEnv v(VAR, std::string("/x:/y:/z"));
    int walked = wzrtest::walk_alloc_failures([] {
        int rc = ldap_change_env_var(0, VAR, ':', "/Y");
        EXPECT_TRUE(rc == 0 || rc == LDAP_NO_MEMORY) << rc;
        return rc == 0;
    });
    EXPECT_EQ(walked, 3); // the current value and the two folded copies
    EXPECT_EQ(env_now(VAR), "/x:/y:/z");
}

TEST(EnvContains, ElementsMatchWholeIgnoringCaseAndSlashDirection)
{
    const struct { char sep; const char *list, *item; int want; } cases[] = {
        {':', "/a:/b:/c", "/b", 1},     {':', "/a:/b:/c", "/A", 1},     {':', "/ab:/c", "/a", 0},
        {':', "x/a:/c", "/a", 0},       {':', "/a /b", "/a", 1},
        {';', "C:\\Dir;D:\\e", "c:/dir", 1}, {':', "x/a:/a", "/a", 1},  {':', "/a/b", "/a", 0},
        {':', "", "/a", 0},             {':', "/a", "", 0},             {':', ":", "", 1},
        {':', "/ab:/abc:/abcd", "/abc", 1},
    };
    for (const auto &c : cases)
        EXPECT_EQ(ldap_env_contains(c.sep, c.list, c.item), c.want) << c.list << " / " << c.item;
    EXPECT_EQ(ldap_env_contains(':', nullptr, "/a"), 0);
    EXPECT_EQ(ldap_env_contains(':', "/a", nullptr), 0);
    int walked = wzrtest::walk_alloc_failures([] {
        int rc = ldap_env_contains(':', "/A:/b", "/a");
        EXPECT_TRUE(rc == 1 || rc == LDAP_NO_MEMORY) << rc;
        return rc == 1;
    });
    EXPECT_EQ(walked, 2);
}

TEST(EnvTrace, EachAccessIsTracedWithItsOwnText)
{
    Assignments made;
    wzrtest::TraceFile trace;
    {
        ScopedEnv set(VAR, std::string("/c"));
        ScopedEnv unset("WZR_ENV_TEST_UNSET", std::nullopt);
        for (const char *name : {VAR, "WZR_ENV_TEST_UNSET"}) {
            lber_free(ldap_getenv(name));
            (void)ldap_chkenv(name);
        }
        EXPECT_EQ(ldap_change_env_var(0, VAR, ':', "/a"), 0);
        made.record(VAR);
    }
    for (const char *line :
         {"ldap_getenv: WZR_ENV_TEST_LIST=/c\n", "ldap_getenv: WZR_ENV_TEST_UNSET=NULL\n",
          "ldap_chkenv: environment variable \"WZR_ENV_TEST_LIST\" is set\n",
          "ldap_chkenv: environment variable \"WZR_ENV_TEST_UNSET\" is NOT set\n",
          "ldap_change_env_var: WZR_ENV_TEST_LIST\n", "ldap_putenv: WZR_ENV_TEST_LIST=/a:/c\n"})
        EXPECT_GE(trace.count(line), 1) << line << "in\n" << trace.text();
}

// Each thread extends its own variable and reads the others' meanwhile: every value is whole.
TEST(EnvThreads, ConcurrentReadsAndUpdatesSeeWholeValues)
{
    Assignments made;
    constexpr int THREADS = 4;
    constexpr int ITEMS = 25;
    std::vector<std::string> names;
    std::vector<std::unique_ptr<ScopedEnv>> restore;
    for (int t = 0; t < THREADS; ++t) {
        names.push_back("WZR_ENV_TEST_THREAD" + std::to_string(t));
        restore.push_back(std::make_unique<ScopedEnv>(names[t].c_str(), "/base"));
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; ++t)
        threads.emplace_back([t, &names, &made] {
            const char *mine = names[t].c_str();
            const char *other = names[(t + 1) % THREADS].c_str();
            std::string expected = "/base";
            for (int i = 0; i < ITEMS; ++i) {
                std::string item = "/t" + std::to_string(t) + "i" + std::to_string(i);
                EXPECT_EQ(ldap_change_env_var(1, mine, ':', item.c_str()), 0);
                made.record(mine);
                expected += ":" + item;
                char *now = ldap_getenv(mine);
                EXPECT_EQ(std::string(now != nullptr ? now : ""), expected);
                lber_free(now);
                char *theirs = ldap_getenv(other);
                ASSERT_NE(theirs, nullptr);
                EXPECT_EQ(std::string(theirs).rfind("/base", 0), 0u) << theirs;
                // The other thread only ever extends its value, so a later look is no shorter.
                EXPECT_GE(ldap_chkenv(other), static_cast<int>(strlen(theirs)) + 1);
                lber_free(theirs);
            }
        });
    for (std::thread &th : threads)
        th.join();
    for (int t = 0; t < THREADS; ++t) // ":/tNiK" ten times and ":/tNiKK" fifteen
        EXPECT_EQ(env_now(names[t].c_str()).size(), 5u + 6u * 10 + 7u * 15);
}

} // namespace
