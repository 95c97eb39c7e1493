// The configuration file parser, the plug-in registry with small test plug-ins (every refusal
// code, one entry per mechanism, snapshots), and SASL binds through a configured plug-in.
#include <gtest/gtest.h>

#include <atomic>
#include <dlfcn.h>
#include <string>
#include <thread>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_config.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_plugin.h"
#include "libldap/ldap_unbind.h"
#include "support/request_test.h"
#include "support/test_util.h"

namespace {

// Parses `text` fed in pieces of `chunk` bytes; each entry's fields joined by "|", "~" for an
// absent one.
std::vector<std::string> parse(const std::string &text, size_t chunk = 7)
{
    LDAPConfParser p;
    ldap_conf_parser_init(&p);
    for (size_t i = 0; i < text.size(); i += chunk)
        EXPECT_EQ(ldap_conf_feed(&p, text.data() + i, std::min(chunk, text.size() - i)), 0);
    LDAPConfEntry *list = nullptr;
    EXPECT_EQ(ldap_conf_finish(&p, &list), 0);
    std::vector<std::string> out;
    for (LDAPConfEntry *e = list; e != nullptr; e = e->next) {
        std::string joined;
        for (char *f : e->field)
            joined.append(joined.empty() ? "" : "|").append(f != nullptr ? f : "~");
        out.push_back(joined);
    }
    ldap_conf_free(list);
    return out;
}

// Other piece sizes and binary bytes: the fuzz target.
TEST(ConfigParser, LinesBecomeSixFieldEntriesWhateverTheFile)
{
    const std::string x492(492, 'x');
    struct Case { std::string text; std::vector<std::string> want; } cases[] = {
        {"plugin sasl FOO /lib/foo.so\n", {"plugin|sasl|FOO|/lib/foo.so|~|~"}},
        {"plugin sasl FOO\n# plugin sasl FOO /lib/foo.so\n", {}},
        {" # sasl FOO /p\n", {"#|sasl|FOO|/p|~|~"}},
        {"plugin\tsasl  X /p init  a=1 b c\tignored\nplugin sasl Y /q",
         {"plugin|sasl|X|/p|init|a=1 b c", "plugin|sasl|Y|/q|~|~"}},
        // A line of 511 characters ends there: the rest is the next line.
        {"plugin sasl L /p e " + x492 + "plugin sasl M /q\n",
         {"plugin|sasl|L|/p|e|" + x492, "plugin|sasl|M|/q|~|~"}},
        // A zero byte ends the line's text, as it would for a C string.
        {std::string("plugin sasl Z /p\0 tail\n", 23), {"plugin|sasl|Z|/p|~|~"}},
        // 10,000-character lines are cut every 511 characters; each piece is a line of its own.
        {std::string(10000, 'a') + "\n" + std::string(10000, ' ') + "\n", {}},
    };
    long live = lber_live_blocks();
    for (const Case &c : cases)
        EXPECT_EQ(parse(c.text), c.want) << c.text.substr(0, 80);
    std::string many;
    for (int i = 0; i < 100000; i++)
        many += "plugin sasl M" + std::to_string(i % 10) + " /p\n";
    EXPECT_EQ(parse(many, 4096).size(), 100000u);
    EXPECT_EQ(lber_live_blocks(), live);
    wzrtest::walk_alloc_failures([] {
        const char text[] = "plugin sasl A /a e x y\nplugin sasl B /b\n";
        FILE *f = fmemopen(const_cast<char *>(text), sizeof text - 1, "r");
        LDAPConfEntry *list = nullptr;
        int rc = ldap_process_conf_data(f, &list);
        fclose(f);
        ldap_conf_free(list);
        return rc == 0;
    });
}

std::string plugin_path(const char *kind)
{
    return std::string(WZR_TEST_PLUGIN_DIR) + "/libtestplug_" + kind + ".so";
}

int register_as(const char *mech, const std::string &path, const char *args = nullptr)
{
    plugin_info pi = {const_cast<char *>("sasl"), const_cast<char *>(mech),
                      const_cast<char *>(path.c_str()), nullptr, const_cast<char *>(args)};
    return ldap_register_plugin(&pi);
}

int snapshot_count(const char *mech)
{
    plugin_info **list = nullptr;
    EXPECT_EQ(ldap_plugin_snapshot(&list), 0);
    int n = 0;
    for (plugin_info **p = list; p != nullptr && *p != nullptr; p++)
        n += std::string((*p)->pi_mechanism) == mech;
    ldap_plugin_snapshot_free(list);
    return n;
}

TEST(PluginRegistry, EachDefectHasItsCode)
{
    wzrtest::TempDir dir;
    wzrtest::write_file(dir.file("notalib.so"), "not an ELF file\n");
    struct Case { std::string path; int want; } cases[] = {
        {plugin_path("no_entry"), LDAP_PLUGIN_FUNC_NOT_RESOLVED},
        {plugin_path("fails"), LDAP_PLUGIN_NOT_INITIALIZED},
        {plugin_path("no_ops"), LDAP_OPERATIONS_ERROR},
        {plugin_path("future"), LDAP_PLUGIN_NOT_INITIALIZED},
        {dir.path() + "/missing.so", LDAP_PLUGIN_NOT_LOADED},
        {dir.file("notalib.so"), LDAP_PLUGIN_NOT_LOADED},
        {dir.path(), LDAP_PLUGIN_NOT_LOADED}, // a directory: "<dir>.so" does not load
        // The suffix is replaced: an archive's name loads the shared object beside it.
        {std::string(WZR_TEST_PLUGIN_DIR) + "/libtestplug_good.a", 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(register_as("DEFECT", c.path), c.want) << c.path;
        EXPECT_EQ(snapshot_count("DEFECT"), c.want == 0 ? 1 : 0) << c.path;
    }
    EXPECT_EQ(ldap_register_plugin(nullptr), LDAP_PARAM_ERROR);
}

TEST(PluginRegistry, RegisteringTwiceKeepsOneEntryAndSnapshotsCopyIt)
{
    ASSERT_EQ(register_as("TWICE", plugin_path("good"), "first"), 0);
    ASSERT_EQ(register_as("TWICE", plugin_path("good"), "second"), 0);
    EXPECT_EQ(snapshot_count("TWICE"), 1);
    LDAPPluginRef ref{};
    ASSERT_EQ(ldap_find_plugin("sasl", "TWICE", &ref), 0);
    EXPECT_STREQ(ref.args, "second");
    // A copy that runs out of memory is 90, and what it made is still the caller's to free.
    wzrtest::walk_alloc_failures([] {
        plugin_info **list = nullptr;
        int rc = ldap_plugin_snapshot(&list);
        ldap_plugin_snapshot_free(list);
        return rc == 0;
    });
}

// The configuration file of the bind tests; the process list is read again for each.
struct PluginBindTest : wzrtest::RequestTest {
    wzrtest::TempDir dir;
    wzrtest::ScopedEnv env{"QRVLDAP_CONF", dir.path()};
    void SetUp() override
    {
        std::string good = plugin_path("good") + " ldap_plugin_init ";
        wzrtest::write_file(dir.file("qrvldap.conf"),
                            "# test plug-ins\nplugin sasl X-ECHO " + good + "realm=R\n" +
                                "plugin sasl X-NONSENSE " + good + "mode=nonsense\n" +
                                "plugin sasl X-STEP " + good + "mode=step\n" +
                                "plugin sasl GSSAPI " + good + "mode=initfails\n" +
                                "plugin sasl X-BROKEN " + plugin_path("fails") + "\n");
        ldap_conf_reset();
        RequestTest::SetUp();
    }
    void TearDown() override { RequestTest::TearDown(), ldap_conf_reset(); }
    std::string errmsg() { return wzrtest::recorded_message(ld); }
    int sasl(const char *dn, const char *mech)
    {
        return ldap_sasl_bind_s(ld, dn, mech, nullptr, nullptr, nullptr, nullptr);
    }
};

TEST_F(PluginBindTest, PluginGetsTheBindsParametersAndItsCleanUpRunsWithTheHandle)
{
    struct berval pw = {6, const_cast<char *>("secret")};
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=u", "X-ECHO", &pw, nullptr, nullptr, nullptr), LDAP_OTHER);
    auto *cleanups = static_cast<int *>(dlsym(RTLD_DEFAULT, "testplug_cleanups"));
    EXPECT_EQ(errmsg(), "dn=cn=u mech=X-ECHO args=realm=R host=127.0.0.1 cred=6 set106=89");
    EXPECT_EQ(server.count(0x60), 0u) << "the plug-in sent nothing";
    ASSERT_NE(cleanups, nullptr);
    int before = *cleanups;
    EXPECT_EQ(sasl(nullptr, "X-ECHO"), LDAP_OTHER);
    EXPECT_EQ(*cleanups, before + 1) << "the first bind's record was replaced";
    ldap_unbind(ld);
    ld = nullptr;
    EXPECT_EQ(*cleanups, before + 2);
}

TEST_F(PluginBindTest, StepServiceCarriesTheExchangeAndAnswersAreChecked)
{
    using namespace wzrtest::fber;
    EXPECT_EQ(sasl("cn=u", "X-STEP"), 0);
    expect_request(0x60, cons(0x60, integer(3) + str("cn=u") + cons(0xa3, str("X-STEP"))));
    EXPECT_EQ(sasl(nullptr, "X-NONSENSE"), LDAP_PLUGIN_BIND_FAILED);
    EXPECT_EQ(sasl(nullptr, "X-BROKEN"), LDAP_PLUGIN_NOT_INITIALIZED);
    EXPECT_EQ(sasl(nullptr, "GSSAPI"), LDAP_PLUGIN_NOT_INITIALIZED);
    // Not configured, and then no file at all: both go out as plain SASL requests.
    EXPECT_EQ(sasl("cn=v", "X-NONE"), 0);
    wzrtest::ScopedEnv nowhere("QRVLDAP_CONF", dir.path() + "/none");
    ldap_conf_reset();
    EXPECT_EQ(sasl("cn=w", "X-NONE"), 0);
    EXPECT_EQ(server.count(0x60), 3u);
}

// Threads bind at once, the first ones racing to read the file and register the plug-in; two
// share a handle, so its plug-in record is replaced under them.
struct PluginBindThreads : PluginBindTest {};
TEST_F(PluginBindThreads, BindsRunAtOnceThroughOnePlugin)
{
    LDAP *other = server.open();
    std::vector<std::thread> threads;
    std::atomic<int> bound{0};
    for (LDAP *h : {ld, ld, other, other})
        threads.emplace_back([&, h] {
            for (int n = 0; n < 20; n++)
                bound += ldap_sasl_bind_s(h, "cn=t", "X-STEP", nullptr, nullptr, nullptr, 0) == 0;
        });
    for (std::thread &t : threads)
        t.join();
    ldap_unbind(other);
    EXPECT_EQ(bound.load(), 80);
}

// Runs last in this program: it fills the registry past what a snapshot may hold.
TEST(PluginRegistryZ, SnapshotsHoldAtMost63)
{
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(register_as(("FILL" + std::to_string(i)).c_str(), plugin_path("good")), 0);
    plugin_info **list = nullptr;
    EXPECT_EQ(ldap_plugin_snapshot(&list), LDAP_PARAM_ERROR);
    EXPECT_EQ(list, nullptr);
}

} // namespace
