// Environment access: reads and checks, list-valued updates that fold case and slashes,
// the once-read password-policy setting, the trace lines, and concurrent use.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "liblber/ber_memory.h"
#include "support/lber_test.h"
#include "trace/ldap_env.h"
#include "wzrldap.h"

namespace {

constexpr const char *VAR = "WZR_ENV_TEST_LIST";
using wzrtest::ScopedEnv;

// A string the library hands to putenv stays in the environment until the variable is set
// again. The tests restore every variable they touch and then free those strings here, so
// that the leak checker sees none. Declare it first in a test: it must outlive the restores.
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

TEST(EnvRead, GetenvCopiesChkenvCountsGetenvBufCuts)
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
}

// Mode 1 appends, any other prepends; an element already there (any case, either slash)
// stays. ldap_putenv hands its string to the environment and ignores an empty one.
TEST(EnvWrite, ChangeEnvVarPrependsAppendsOrKeeps)
{
    Assignments made;
    const struct {
        const char *before; // null: unset
        int mode;
        char sep;
        const char *item, *after;
    } cases[] = {
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
    EXPECT_EQ(ldap_change_env_var(0, nullptr, ':', "/a"), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_change_env_var(0, "", ':', "/a"), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_change_env_var(0, VAR, ':', nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_change_env_var(0, VAR, ':', ""), LDAP_PARAM_ERROR);
    ScopedEnv guard(VAR, std::nullopt);
    static char assignment[] = "WZR_ENV_TEST_LIST=put";
    static char nothing[] = "";
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
    const struct {
        char sep;
        const char *list, *item;
        int want;
    } cases[] = {
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

// Read once per process: the only test in this program that asks.
TEST(EnvSettings, PasswordPolicySettingIsReadOnce)
{
    {
        ScopedEnv v("USE_OPENLDAP_PWDPOLICY_CONTROL", std::string("yEs"));
        EXPECT_EQ(ldap_use_openldap_pwdpolicy(), 1);
    }
    ScopedEnv v("USE_OPENLDAP_PWDPOLICY_CONTROL", std::string("no"));
    EXPECT_EQ(ldap_use_openldap_pwdpolicy(), 1) << "the first answer is kept";
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

// Readers and writers of the environment from several threads, all through the library.
// Each thread extends its own variable, so no update can be lost to another's, and reads
// the others' variables meanwhile: every value read must be whole.
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
