// The configuration file parser (lines, comments, fields, limits, hostile bytes), the plug-in
// registry with small test plug-ins (every refusal code, one entry per mechanism, snapshots),
// and SASL binds routed through a configured plug-in.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <string>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_config.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_plugin.h"
#include "libldap/ldap_unbind.h"
#include "support/request_test.h"
#include "support/test_util.h"

namespace {

using Fields = std::vector<std::string>;

// Parses `text` fed in pieces of `chunk` bytes; the entries' fields, "~" for an absent one.
std::vector<Fields> parse(const std::string &text, size_t chunk = 7)
{
    LDAPConfParser p;
    ldap_conf_parser_init(&p);
    for (size_t i = 0; i < text.size(); i += chunk)
        EXPECT_EQ(ldap_conf_feed(&p, text.data() + i, std::min(chunk, text.size() - i)), 0);
    LDAPConfEntry *list = nullptr;
    EXPECT_EQ(ldap_conf_finish(&p, &list), 0);
    std::vector<Fields> out;
    for (LDAPConfEntry *e = list; e != nullptr; e = e->next) {
        Fields f;
        for (char *s : e->field)
            f.push_back(s != nullptr ? s : "~");
        out.push_back(f);
    }
    ldap_conf_free(list);
    return out;
}

TEST(ConfigParser, LinesBecomeSixFieldEntries)
{
    struct Case {
        std::string text;
        std::vector<Fields> want;
    } cases[] = {
        {"plugin sasl FOO /lib/foo.so\n", {{"plugin", "sasl", "FOO", "/lib/foo.so", "~", "~"}}},
        {"plugin sasl FOO\n", {}},
        {"# plugin sasl FOO /lib/foo.so\n", {}},
        {" # sasl FOO /p\n", {{"#", "sasl", "FOO", "/p", "~", "~"}}},
        {"plugin\tsasl  X /p init  a=1 b c\tignored\nplugin sasl Y /q",
         {{"plugin", "sasl", "X", "/p", "init", "a=1 b c"},
          {"plugin", "sasl", "Y", "/q", "~", "~"}}},
        // A line of 511 characters ends there: the rest is the next line.
        {"plugin sasl L /p e " + std::string(492, 'x') + "plugin sasl M /q\n",
         {{"plugin", "sasl", "L", "/p", "e", std::string(492, 'x')},
          {"plugin", "sasl", "M", "/q", "~", "~"}}},
        // A zero byte ends the line's text, as it would for a C string.
        {std::string("plugin sasl Z /p\0 tail\n", 23), {{"plugin", "sasl", "Z", "/p", "~", "~"}}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(parse(c.text), c.want) << c.text;
        EXPECT_EQ(parse(c.text, 1000), c.want) << c.text;
    }
}

TEST(ConfigParser, HostileFilesEndWithEntriesAndNoLeak)
{
    long live = lber_live_blocks();
    std::string many;
    for (int i = 0; i < 100000; i++)
        many += "plugin sasl M" + std::to_string(i % 10) + " /p\n";
    EXPECT_EQ(parse(many, 4096).size(), 100000u);
    // 10,000-character lines are cut every 511 characters; each piece is a line of its own.
    EXPECT_EQ(parse(std::string(10000, 'a') + "\n" + std::string(10000, ' ') + "\n").size(), 0u);
    std::string binary;
    for (int i = 0; i < 20000; i++)
        binary += static_cast<char>((i * 7919) & 0xff);
    (void)parse(binary, 333);
    EXPECT_EQ(lber_live_blocks(), live);
    wzrtest::walk_alloc_failures([] {
        LDAPConfParser p;
        ldap_conf_parser_init(&p);
        const char text[] = "plugin sasl A /a e x y\nplugin sasl B /b\n";
        LDAPConfEntry *list = nullptr;
        int rc = ldap_conf_feed(&p, text, sizeof text - 1);
        if (rc == 0)
            rc = ldap_conf_finish(&p, &list);
        ldap_conf_parser_free(&p);
        ldap_conf_free(list);
        EXPECT_TRUE(rc == 0 || rc == LDAP_NO_MEMORY);
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
    struct Case {
        std::string path;
        int want;
    } cases[] = {
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

TEST(PluginRegistry, RegisteringTwiceKeepsOneEntryWithTheNewData)
{
    ASSERT_EQ(register_as("TWICE", plugin_path("good"), "first"), 0);
    ASSERT_EQ(register_as("TWICE", plugin_path("good"), "second"), 0);
    EXPECT_EQ(snapshot_count("TWICE"), 1);
    LDAPPluginRef ref{};
    ASSERT_EQ(ldap_find_plugin("sasl", "TWICE", &ref), 0);
    EXPECT_STREQ(ref.args, "second");
}

// The configuration file of the bind tests; the process list is read again for each.
struct PluginBindTest : wzrtest::RequestTest {
    wzrtest::TempDir dir;
    wzrtest::ScopedEnv env{"QRVLDAP_CONF", dir.path()};
    void SetUp() override
    {
        wzrtest::write_file(dir.file("qrvldap.conf"),
                            "# test plug-ins\n"
                            "plugin sasl X-ECHO " + plugin_path("good") + " ldap_plugin_init realm=R\n"
                            "plugin sasl X-NONSENSE " + plugin_path("good") + " ldap_plugin_init mode=nonsense\n"
                            "plugin sasl X-STEP " + plugin_path("good") + " ldap_plugin_init mode=step\n"
                            "plugin sasl X-BROKEN " + plugin_path("fails") + "\n");
        ldap_conf_reset();
        RequestTest::SetUp();
    }
    void TearDown() override
    {
        RequestTest::TearDown();
        ldap_conf_reset();
    }
    std::string errmsg()
    {
        char *m = nullptr;
        (void)ldap_get_lderrno(ld, nullptr, &m);
        std::string s = m != nullptr ? m : "";
        lber_free(m);
        return s;
    }
};

TEST_F(PluginBindTest, PluginGetsTheBindsParametersAndItsTextIsRecorded)
{
    struct berval pw = {6, const_cast<char *>("secret")};
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=u", "X-ECHO", &pw, nullptr, nullptr, nullptr), LDAP_OTHER);
    EXPECT_EQ(errmsg(), "dn=cn=u mech=X-ECHO args=realm=R host=127.0.0.1 cred=6 set106=89");
    EXPECT_EQ(server.count(0x60), 0u) << "the plug-in sent nothing";
}

TEST_F(PluginBindTest, StepServiceCarriesTheExchangeAndAnswersAreChecked)
{
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=u", "X-STEP", nullptr, nullptr, nullptr, nullptr), 0);
    expect_request(0x60, wzrtest::fber::cons(0x60, wzrtest::fber::integer(3) +
                                                     wzrtest::fber::str("cn=u") +
                                                     wzrtest::fber::cons(0xa3, wzrtest::fber::str("X-STEP"))));
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-NONSENSE", nullptr, nullptr, nullptr, nullptr),
              LDAP_PLUGIN_BIND_FAILED);
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-BROKEN", nullptr, nullptr, nullptr, nullptr),
              LDAP_PLUGIN_NOT_INITIALIZED);
    // Not configured, and then no file at all: both go out as plain SASL requests.
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=v", "X-NONE", nullptr, nullptr, nullptr, nullptr), 0);
    wzrtest::ScopedEnv nowhere("QRVLDAP_CONF", dir.path() + "/none");
    ldap_conf_reset();
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=w", "X-NONE", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(server.count(0x60), 3u);
}

TEST_F(PluginBindTest, CleanUpRunsWhenTheHandleIsFreed)
{
    auto *cleanups = static_cast<int *>(dlsym(RTLD_DEFAULT, "testplug_cleanups"));
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-ECHO", nullptr, nullptr, nullptr, nullptr),
              LDAP_OTHER);
    ASSERT_NE(cleanups, nullptr);
    int before = *cleanups;
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-ECHO", nullptr, nullptr, nullptr, nullptr),
              LDAP_OTHER);
    EXPECT_EQ(*cleanups, before + 1) << "the first bind's record was replaced";
    ldap_unbind(ld);
    ld = nullptr;
    EXPECT_EQ(*cleanups, before + 2);
}

// Runs last in this program: it fills the registry past what a snapshot may hold.
TEST(PluginRegistryZ, SnapshotsHoldAtMost63AndFailingCopiesAreHandedBack)
{
    plugin_info **list = nullptr;
    for (int i = 0; snapshot_count("none") == 0 && i < 70; i++) {
        ASSERT_EQ(ldap_plugin_snapshot(&list), 0);
        int n = 0;
        while (list[n] != nullptr)
            n++;
        ldap_plugin_snapshot_free(list);
        if (n == 63)
            break;
        ASSERT_EQ(register_as(("FILL" + std::to_string(i)).c_str(), plugin_path("good")), 0);
    }
    long live = lber_live_blocks();
    lber_fail_nth_alloc(10); // the array, then four blocks a record
    EXPECT_EQ(ldap_plugin_snapshot(&list), LDAP_NO_MEMORY);
    lber_fail_nth_alloc(0);
    ASSERT_NE(list, nullptr);
    EXPECT_NE(list[0], nullptr);
    ldap_plugin_snapshot_free(list);
    EXPECT_EQ(lber_live_blocks(), live);
    ASSERT_EQ(register_as("FILL-LAST", plugin_path("good")), 0);
    EXPECT_EQ(ldap_plugin_snapshot(&list), LDAP_PARAM_ERROR);
    EXPECT_EQ(list, nullptr);
}

} // namespace
