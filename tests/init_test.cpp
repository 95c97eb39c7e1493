// Handle creation and teardown: ldap_init's host rules, NLXDIR, ldap_open's version rule and
// its connection over a host list, the operation bracket, the validity check and the freed
// eyecatcher, connection records and the handle's FBER allocator; the host-name helpers
// against this machine's loopback names, and the local-port probe. Handle options: the
// accepted ranges, the setter's version-dependent dereferencing, read-only options, copies
// of control lists and strings, and the global default handle.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <fcntl.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "liblber/ber_memory.h"
#include "libldap/ldap_connect.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_free.h"
#include "libldap/ldap_hostname.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_table.h"
#include "support/handle_util.h"
#include "support/loopback_listener.h"
#include "support/ops_client.h"
#include "support/test_util.h"

// Reading a freed handle's bytes: lber_free is wrapped for this program (tests/CMakeLists.txt),
// and the wrapper keeps back the one block the test watches, which it releases itself later.
extern "C" void __real__Z9lber_freePv(void *p);
extern "C" void __wrap__Z9lber_freePv(void *p);

namespace {

std::atomic<void *> kept_block{nullptr};
std::atomic<int> kept_frees{0};

std::string this_host()
{
    char name[257] = {};
    EXPECT_EQ(gethostname(name, sizeof name - 1), 0);
    return name;
}

// A port on which nothing listens (a listener's, closed again).
int dead_port() { return wzrtest::LoopbackListener().port(); }

int set_int(LDAP *ld, int option, int value) { return ldap_set_option(ld, option, &value); }

int get_int(LDAP *ld, int option)
{
    int value = -12345;
    EXPECT_EQ(ldap_get_option(ld, option, &value), 0) << "option " << option;
    return value;
}

const void *as_value(intptr_t v) { return reinterpret_cast<const void *>(v); }

// The caller's copy of a control list option: its first OID, or "" for none.
std::string first_control(LDAP *ld, int option)
{
    LDAPControl **got = nullptr;
    EXPECT_EQ(ldap_get_option(ld, option, &got), 0);
    std::string oid = got != nullptr ? got[0]->ldctl_oid : "";
    ldap_controls_free(got);
    return oid;
}

class Options : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(h.ld, nullptr); }
    wzrtest::Handle h;
};

} // namespace

void __wrap__Z9lber_freePv(void *p)
{
    if (p != nullptr && p == kept_block.load())
        kept_frees.fetch_add(1);
    else
        __real__Z9lber_freePv(p);
}

// A URL (its scheme in any case) gives host and port, its default port winning over the
// argument; a host list is kept as given; no host is this machine; bad arguments give none.
TEST(InitHost, HostArgumentForms)
{
    const struct {
        const char *host;
        int port;
        std::optional<std::string> defhost; // nullopt: refused
        int defport;
    } cases[] = {
        {"", 389, std::nullopt, 0},
        {"localhost", -1, std::nullopt, 0},
        {"ldap:///dc=example,dc=com", 0, std::nullopt, 0}, // would need DNS server location
        {"ldap://host:12x/", 0, std::nullopt, 0},          // the URL does not parse
        {nullptr, 0, this_host(), 389},
        {"somehost", 2389, "somehost", 2389},
        {"LDAPS://h:1636", 0, "h", 1636},
        {"ldap://server.example/dc=example", 2000, "server.example", 389},
        {"a b:1389 [::1]:1390", 0, "a b:1389 [::1]:1390", 389},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.host != nullptr ? c.host : "(null)");
        LDAP *ld = ldap_init(c.host, c.port);
        ASSERT_EQ(ld != nullptr, c.defhost.has_value());
        if (ld == nullptr)
            continue;
        EXPECT_EQ(ld->ld_defhost, *c.defhost);
        EXPECT_EQ(ld->ld_defport, c.defport);
        ASSERT_NE(ld->ld_defconn, nullptr);
        EXPECT_TRUE(ld->ld_servers == ld->ld_defconn && ld->ld_defconn->ld == ld);
        EXPECT_EQ(ld->ld_defconn->host, *c.defhost);
        EXPECT_NE(ld->ld_defconn->host, ld->ld_defhost) << "each owns its copy";
        EXPECT_EQ(ld->ld_defconn->port, c.defport);
        EXPECT_EQ(ld->ld_defconn->connected, 0) << "ldap_init does not connect";
        EXPECT_EQ(ldap_unbind(ld), 0);
    }
}

TEST(InitHost, HostListSplitsAsTheOpenerSeesIt)
{
    using Entries = std::vector<std::pair<std::string, int>>;
    auto split = [](const char *list, int defport) {
        std::string copy = list;
        char *cursor = copy.data();
        int seen_ipv6 = 0;
        LDAPHostEntry entry;
        Entries out;
        while (ldap_next_host_entry(&cursor, &seen_ipv6, defport, &entry))
            out.emplace_back(entry.host, entry.port);
        return out;
    };
    EXPECT_EQ(split("   a b:1389 [::1]:1390 ", 389), (Entries{{"a", 389}, {"b", 1389}, {"::1", 389}}));
    // After an IPv6 entry no entry is split at ':' any more.
    EXPECT_EQ(split("[fe80::1%eth0]:1390 c:5", 636), (Entries{{"fe80::1%eth0", 636}, {"c:5", 636}}));
    EXPECT_EQ(split("::1 [::2]", 10), (Entries{{"::1", 10}, {"::2", 10}}));
    EXPECT_EQ(split("h:abc", 389), (Entries{{"h", 0}})) << "atoi decides";
    EXPECT_EQ(split("    ", 389), Entries{});
}

// Each case runs in a child process: the library hands its NLXDIR string to the environment
// for good, and the test must not leave that behind in (or take it out of) this process.
TEST(InitEnvironmentDeathTest, NlxdirIsSetOnlyWhenMissing)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char *cases[][3] = {{nullptr, "/srv/ldap-home", "/srv/ldap-home"},
                              {nullptr, nullptr, "/opt/qrv/ldap/V6.3.1"},
                              {nullptr, "", "/opt/qrv/ldap/V6.3.1"},
                              {"", "/srv/other", ""}};
    for (const auto &[nlxdir, home, expected] : cases)
        EXPECT_EXIT(
            {
                nlxdir != nullptr ? setenv("NLXDIR", nlxdir, 1) : unsetenv("NLXDIR");
                home != nullptr ? setenv("OPX_LDAP_HOME", home, 1) : unsetenv("OPX_LDAP_HOME");
                LDAP *ld = ldap_init("localhost", 0);
                const char *now = getenv("NLXDIR");
                bool ok = ld != nullptr && now != nullptr && strcmp(now, expected) == 0;
                (void)ldap_unbind(ld);
                _exit(ok ? 0 : 1);
            },
            testing::ExitedWithCode(0), "")
            << expected;
}

TEST(InitAllocation, EveryFailureGivesNoHandleAndLeaksNothing)
{
    // One-time work (trace set-up, NLXDIR handed to the environment) happens outside the walk.
    ASSERT_EQ(ldap_unbind(ldap_init("warm", 0)), 0);
    for (const char *host : {"h1 h2:1389 [::1]:1390", "LDAP://urlhost:4389/dc=x"}) {
        int walked = wzrtest::walk_alloc_failures([host] {
            LDAP *ld = ldap_init(host, 0);
            return ld != nullptr && ldap_unbind(ld) == 0;
        });
        EXPECT_GE(walked, 5);
    }
    EXPECT_GE(wzrtest::walk_alloc_failures([] {
        LDAPConn *made = ldap_lc_init("a b", 389, 256);
        ldap_lc_free(made);
        return made != nullptr;
    }), 3);
    LDAPConn *lc = ldap_lc_init(nullptr, 636, 256);
    ASSERT_NE(lc, nullptr);
    EXPECT_STREQ(lc->host, "localhost");
    EXPECT_EQ(lc->table->owner, lc);
    ldap_lc_free(lc);
}

// Only LDAP_VERSION exactly "3" asks ldap_open for version 3; ldap_init keeps 3 always.
TEST(OpenConnection, LdapOpenGivesVersion2UnlessAskedFor3AndWalksTheHostList)
{
    wzrtest::LoopbackListener server;
    ASSERT_TRUE(server.ok());
    const std::pair<std::optional<std::string>, int> cases[] = {
        {std::nullopt, 2}, {"3", 3}, {"3.0", 2}};
    for (const auto &[env, version] : cases) {
        SCOPED_TRACE(env.value_or("(unset)"));
        wzrtest::ScopedEnv var("LDAP_VERSION", env);
        LDAP *ld = ldap_open("127.0.0.1", server.port());
        ASSERT_NE(ld, nullptr);
        EXPECT_EQ(ld->ld_version, version);
        EXPECT_EQ(ld->ld_defconn->connected, 1);
        int sd = -2;
        ASSERT_EQ(ldap_get_option(ld, LDAP_OPT_DESC, &sd), 0);
        EXPECT_EQ(sd, ld->ld_defconn->sb.sb_sd);
        EXPECT_NE(fcntl(sd, F_GETFL) & O_NONBLOCK, 0) << "the reader expects a non-blocking socket";
        EXPECT_EQ(ldap_unbind(ld), 0);
    }
    EXPECT_TRUE(server.wait_accepted(3));
    wzrtest::Handle h;
    EXPECT_EQ(h.ld->ld_version, 3);
    // A host list is walked to the first server that answers.
    std::string list = "127.0.0.1:" + std::to_string(dead_port()) + " 127.0.0.1:" +
                       std::to_string(server.port());
    LDAP *ld = ldap_open(list.c_str(), 0);
    ASSERT_NE(ld, nullptr);
    EXPECT_TRUE(server.wait_accepted(4));
    EXPECT_STREQ(ld->ld_defconn->resolved, "127.0.0.1");
    EXPECT_EQ(ldap_unbind(ld), 0);
    EXPECT_TRUE(server.wait_closed(4)) << "unbind closes the socket";
    EXPECT_EQ(ldap_open("127.0.0.1", dead_port()), nullptr) << "nobody answers";

    wzrtest::LoopbackListener server6(true);
    if (!server6.ok())
        return; // no IPv6 loopback here
    // The port after the bracket is not used: the connection goes to the default port.
    list = "[::1]:" + std::to_string(dead_port());
    ld = ldap_open(list.c_str(), server6.port());
    ASSERT_NE(ld, nullptr);
    EXPECT_TRUE(server6.wait_accepted(1));
    EXPECT_STREQ(ld->ld_defconn->resolved, "::1");
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// A connect time-out is used as a copy; a secure handle without a toolkit fails with 118
// after opening the plain socket, and closes it.
TEST(OpenConnection, TimeoutIsACopyAndASecureHandleFailsWith118)
{
    for (int secure : {0, 1}) {
        wzrtest::LoopbackListener server;
        ASSERT_TRUE(server.ok());
        LDAP *ld = ldap_init("127.0.0.1", server.port());
        ASSERT_NE(ld, nullptr);
        struct timeval tv = {5, 0};
        ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &tv), 0);
        ld->ld_ssl_in_use = secure;
        LDAPConn *lc = ld->ld_defconn;
        pthread_mutex_lock(&lc->write_lock);
        EXPECT_EQ(open_ldap_connection(ld, lc), secure ? LDAP_SSL_NOT_AVAILABLE : 0);
        pthread_mutex_unlock(&lc->write_lock);
        EXPECT_EQ(lc->connected, !secure);
        EXPECT_EQ(lc->sb.sb_sd == -1, secure == 1);
        EXPECT_EQ(ld->ld_connect_timeout->tv_sec, 5) << "the handle's setting is left alone";
        EXPECT_TRUE(secure ? server.wait_closed(1) : server.wait_accepted(1));
        EXPECT_EQ(server.bytes_received(), 0);
        EXPECT_EQ(ldap_unbind(ld), 0);
    }
}

TEST(OperationBracket, CountsAndRefusals)
{
    wzrtest::Handle h;
    LDAP *ld = h.ld;
    EXPECT_EQ(ldap_start_operation(nullptr), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_start_operation(ld), 0);
    {
        OperationBracket op(ld);
        ASSERT_EQ(op.rc(), 0);
        EXPECT_EQ(ldap_operations_in_progress(ld), 2u);
    }
    EXPECT_EQ(ldap_operations_in_progress(ld), 1u);
    ldap_end_operation(ld);
    ldap_end_operation(ld); // never below zero
    EXPECT_EQ(ldap_operations_in_progress(ld), 0u);
    ld->ld_unbind_started = 1;
    EXPECT_EQ(OperationBracket(ld).rc(), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_operations_in_progress(ld), 0u) << "a refused bracket ends nothing";
    ld->ld_unbind_started = 0;
}

TEST(HandleValidity, WrongEyecatcherIsInvalid)
{
    wzrtest::ScopedEnv level("QRVLDAP_HANDLE_INVALID_LEVEL", std::nullopt);
    wzrtest::BareHandle fake("LDAP HDX");
    EXPECT_EQ(ldap_ld_valid(nullptr), 0);
    EXPECT_EQ(ldap_ld_valid(&fake.ld), 0);
    ldap_ld_free(&fake.ld); // refused without touching it
    EXPECT_EQ(memcmp(fake.ld.ld_eyecatcher, "LDAP HDX", 8), 0);
    EXPECT_EQ(ldap_unbind(&fake.ld), LDAP_PARAM_ERROR);
}

TEST(HandleValidityDeathTest, PositiveInvalidLevelAborts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a fresh process reads the level anew
    wzrtest::ScopedEnv level("QRVLDAP_HANDLE_INVALID_LEVEL", std::string("1"));
    wzrtest::BareHandle fake("EYEDEADL");
    EXPECT_DEATH((void)ldap_unbind(&fake.ld), "");
}

TEST(HandleFree, FreedHandleReadsEyedeadWithItsEighthByteLeft)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    kept_frees.store(0);
    kept_block.store(ld);
    ldap_ld_free(ld);
    kept_block.store(nullptr);
    EXPECT_EQ(kept_frees.load(), 1) << "the handle itself was released";
    EXPECT_EQ(std::string(reinterpret_cast<char *>(ld), 8), "EYEDEADL");
    // What is left is an invalid handle to everyone.
    EXPECT_EQ(ldap_ld_valid(ld), 0);
    EXPECT_EQ(ldap_start_operation(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_unbind(ld), LDAP_PARAM_ERROR);
    __real__Z9lber_freePv(ld);
}

TEST(HandleFber, CarriesACopyOfTheHandlesVersionAndUtf8Setting)
{
    wzrtest::Handle h;
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_UTF8_IO, LDAP_OPT_ON), 0);
    h.ld->ld_version = 2;
    for (int small : {0, 1}) {
        BerElement *ber = ldap_alloc_fber(h.ld, small);
        ASSERT_NE(ber, nullptr);
        EXPECT_TRUE(ber_is_fber(ber));
        EXPECT_EQ(ber->ber_inline_size, small ? 0 : FBER_DEFAULT_SIZE);
        h.ld->ld_version = 3; // a copy, not a view
        EXPECT_TRUE(*ber->ber_version == 2 && *ber->ber_utf8_flag == 1);
        h.ld->ld_version = 2;
        fber_free(ber);
    }
    EXPECT_EQ(wzrtest::walk_alloc_failures([&h] {
        BerElement *ber = ldap_alloc_fber(h.ld, 0);
        fber_free(ber);
        return ber != nullptr;
    }), 1); // the record; its two words live inside it
}

TEST(HostNames, LoopbackNamesAndAddressesComeBackInAllocatedBuffers)
{
    int err = 0;
    in_addr lo{htonl(INADDR_LOOPBACK)};
    hostent *h = opx_gethostbyaddr(&lo, sizeof lo, AF_INET, &err);
    ASSERT_NE(h, nullptr) << err;
    EXPECT_NE(std::string(h->h_name).find("localhost"), std::string::npos);
    opx_freehostent(h);
    EXPECT_TRUE(opx_gethostbyname("no-such-host.invalid", &err) == nullptr && err != 0);
    sockaddr_in sa{AF_INET, htons(389), lo, {}};
    wzrtest::walk_alloc_failures([&] {
        char *host = nullptr, *serv = nullptr;
        int rc = opx_getnameinfo(reinterpret_cast<sockaddr *>(&sa), sizeof sa, &host, &serv,
                                 NI_NUMERICHOST | NI_NUMERICSERV);
        bool ok = rc == 0 && std::string(host) == "127.0.0.1" && std::string(serv) == "389";
        lber_free(host);
        lber_free(serv);
        hostent *e = opx_gethostbyname("localhost", nullptr);
        opx_freehostent(e);
        return ok && e != nullptr;
    });
}

TEST(HostNames, PortIsFreeUntilAListenerHoldsIt)
{
    int sd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {}, {}};
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(sd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(sd, 1), 0);
    ASSERT_EQ(getsockname(sd, reinterpret_cast<sockaddr *>(&a), &len), 0);
    EXPECT_EQ(can_bind_to_port(ntohs(a.sin_port)), 0);
    close(sd);
    EXPECT_EQ(can_bind_to_port(ntohs(a.sin_port)), 1);
}

TEST_F(Options, EveryIntegerOptionChecksItsRange)
{
    const struct {
        int option, low, high; // high INT32_MAX: no upper bound
    } ranges[] = {{LDAP_OPT_SIZELIMIT, 0, INT32_MAX},          {LDAP_OPT_TIMELIMIT, 0, INT32_MAX},
                  {LDAP_OPT_DEREF, 0, 3},                      {LDAP_OPT_RESTART, 0, 1},
                  {LDAP_OPT_REFHOPLIMIT, 0, INT32_MAX},        {LDAP_OPT_SSL_TIMEOUT, 0, 86400},
                  {LDAP_OPT_REFERRAL_HOP_LIMIT, 0, INT32_MAX}, {LDAP_OPT_SASL_KRB_VERSION, 2, 3},
                  {LDAP_OPT_PROTOCOL_VERSION, 2, 3}};
    for (const auto &r : ranges) {
        SCOPED_TRACE(r.option);
        EXPECT_EQ(set_int(h.ld, r.option, r.low - 1), LDAP_PARAM_ERROR);
        EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR) << "a refusal is recorded";
        EXPECT_EQ(set_int(h.ld, r.option, r.low), 0);
        EXPECT_EQ(get_int(h.ld, r.option), r.low);
        EXPECT_EQ(ldap_get_errno(h.ld), 0);
        if (r.high != INT32_MAX) {
            EXPECT_EQ(set_int(h.ld, r.option, r.high + 1), LDAP_PARAM_ERROR);
            EXPECT_EQ(get_int(h.ld, r.option), r.low) << "a refused value changes nothing";
        }
        EXPECT_EQ(set_int(h.ld, r.option, r.high), 0);
        EXPECT_EQ(get_int(h.ld, r.option), r.high);
    }
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_REFHOPLIMIT, 7), 0); // options 5 and 53 are one field
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_REFERRAL_HOP_LIMIT), 7);
    // Flags take their value in the pointer itself.
    for (int option : {LDAP_OPT_REFERRALS, LDAP_OPT_UTF8_IO, LDAP_OPT_BIND_FLAG}) {
        SCOPED_TRACE(option);
        EXPECT_EQ(ldap_set_option(h.ld, option, LDAP_OPT_OFF), 0);
        EXPECT_EQ(get_int(h.ld, option), 0);
        EXPECT_EQ(ldap_set_option(h.ld, option, LDAP_OPT_ON), 0);
        EXPECT_EQ(ldap_set_option(h.ld, option, as_value(2)), LDAP_PARAM_ERROR);
        EXPECT_EQ(get_int(h.ld, option), 1);
    }
    // The trace mask is process-wide and 16 bits wide.
    unsigned before = ldap_debug_enabled();
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_DEBUG, 0x10000), LDAP_PARAM_ERROR);
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_DEBUG, -1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_debug_enabled(), before);
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_DEBUG, 0), 0);
    EXPECT_EQ(ldap_debug_enabled() + get_int(h.ld, LDAP_OPT_DEBUG), 0u);
    ldap_set_debug_mask(before);
}

TEST_F(Options, ReadOnlyAndUnknownOptionsAndBadHandlesAreRefused)
{
    int value = 1;
    for (int option : {10, 11, 20, 21, 48, 49, 50, 51, 12, 16, 55, 999, -3}) {
        SCOPED_TRACE(option);
        EXPECT_EQ(ldap_set_option(h.ld, option, &value), LDAP_PARAM_ERROR);
        EXPECT_EQ(ldap_set_option_direct(h.ld, option, &value), LDAP_PARAM_ERROR);
    }
    EXPECT_EQ(ldap_set_option(h.ld, -3, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(h.ld, 999, &value), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_ERROR_STRING, nullptr), LDAP_PARAM_ERROR);
    wzrtest::BareHandle bad("EYEDEADL");
    EXPECT_EQ(ldap_set_option(&bad.ld, LDAP_OPT_SIZELIMIT, &value), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(&bad.ld, LDAP_OPT_SIZELIMIT, &value), LDAP_PARAM_ERROR);
}

TEST_F(Options, NullIsRefusedAtVersion3AndTakenAsZeroAtVersion2)
{
    ASSERT_EQ(get_int(h.ld, LDAP_OPT_PROTOCOL_VERSION), 3);
    ASSERT_EQ(set_int(h.ld, LDAP_OPT_SIZELIMIT, 50), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_SIZELIMIT), 50);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_API_INFO, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_PROTOCOL_VERSION, nullptr), LDAP_PARAM_ERROR);

    ASSERT_EQ(set_int(h.ld, LDAP_OPT_PROTOCOL_VERSION, 2), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_SIZELIMIT, nullptr), 0);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_SIZELIMIT), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_TIMELIMIT, as_value(25)), 0)
        << "an old caller's integer in the pointer";
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_TIMELIMIT), 25);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_DEREF, as_value(4)), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_PROTOCOL_VERSION, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_API_INFO, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_PROTOCOL_VERSION, 4), LDAP_PARAM_ERROR);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_PROTOCOL_VERSION), 2);
}

TEST_F(Options, ApiFeatureConnectionAndErrorRecordReads)
{
    LDAPAPIInfo info{};
    info.ldapai_info_version = 99;
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);
    EXPECT_EQ(info.ldapai_info_version, LDAP_API_INFO_VERSION) << "tells the version it speaks";
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_INFO, &info), 0);
    EXPECT_EQ(info.ldapai_protocol_version, 3);
    EXPECT_EQ(info.ldapai_vendor_version, LDAP_VENDOR_VERSION);
    EXPECT_STREQ(info.ldapai_vendor_name, "wzrldap");
    ASSERT_NE(info.ldapai_extensions, nullptr);
    EXPECT_STREQ(info.ldapai_extensions[0], "VIRTUAL_LIST_VIEW");
    EXPECT_EQ(info.ldapai_extensions[1], nullptr) << "one extension";
    ldap_api_info_free(&info);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);
    wzrtest::walk_alloc_failures([&] {
        LDAPAPIInfo walked{};
        walked.ldapai_info_version = LDAP_API_INFO_VERSION;
        int rc = ldap_get_option(h.ld, LDAP_OPT_API_INFO, &walked);
        ldap_api_info_free(&walked);
        return rc == 0;
    });
    LDAPAPIFeatureInfo feature{LDAP_FEATURE_INFO_VERSION, "VIRTUAL_LIST_VIEW", 0};
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_FEATURE_INFO, &feature), 0);
    EXPECT_EQ(feature.ldapaif_version, LDAP_API_FEATURE_VIRTUAL_LIST_VIEW);
    feature.ldapaif_name = "TIME_TRAVEL";
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_FEATURE_INFO, &feature), LDAP_PARAM_ERROR);
    EXPECT_EQ(feature.ldapaif_version, 0);

    EXPECT_EQ(get_int(h.ld, LDAP_OPT_DESC), -1) << "not connected yet";
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_PORT), 389);
    char *text = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_HOST_NAME, &text), 0);
    EXPECT_STREQ(text, "localhost");
    EXPECT_NE(text, h.ld->ld_defconn->host);
    lber_free(text);
    ASSERT_EQ(ldap_set_lderrno_direct(h.ld, 32, "dc=m", "not there"), 0);
    ASSERT_EQ(ldap_set_ext_error(h.ld, 406), 0);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_ERROR_NUMBER), 32);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_ERROR_NUMBER), 32) << "reading leaves the record alone";
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_ERROR_STRING, &text), 0);
    EXPECT_STREQ(text, "not there");
    lber_free(text);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_EXT_ERROR), 406);
}

TEST_F(Options, StringsAndTimeoutAreCopiedAndNullClears)
{
    for (int option : {LDAP_OPT_SSL_KEYRING, LDAP_OPT_SSL_CERT_LABEL}) {
        char given[] = "TLSv1.2";
        ASSERT_EQ(ldap_set_option(h.ld, option, given), 0);
        given[0] = 'X';
        char *got = nullptr;
        ASSERT_EQ(ldap_get_option(h.ld, option, &got), 0);
        EXPECT_STREQ(got, "TLSv1.2");
        lber_free(got);
        ASSERT_EQ(ldap_set_option(h.ld, option, nullptr), 0);
        ASSERT_EQ(ldap_get_option(h.ld, option, &got), 0);
        EXPECT_EQ(got, nullptr);
    }
    struct timeval tv = {3, 500};
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &tv), 0);
    tv.tv_sec = 99;
    struct timeval *got = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &got), 0);
    ASSERT_NE(got, nullptr);
    EXPECT_TRUE(got->tv_sec == 3 && got->tv_usec == 500);
    lber_free(got);
    struct timeval negative = {-1, 0};
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &negative), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, nullptr), 0);
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &got), 0);
    EXPECT_EQ(got, nullptr);
    int marker = 0;
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_REBIND_FN, &marker), 0);
    void *proc = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_REBIND_FN, &proc), 0);
    EXPECT_EQ(proc, &marker);
}

TEST_F(Options, ControlListsAreCopiedBothWays)
{
    LDAPControl **given = wzrtest::control_list({{"1.2.3.4", false, "\x04\x03" "abc"},
                                                 {"2.16.840.1.113730.3.4.2", false}});
    LDAPControl **critical = wzrtest::control_list({{"1.2.3.4", false}, {"2.16.840.1", true}});
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SERVER_CONTROLS, given), 0);
    ASSERT_NE(h.ld->ld_sctrls, nullptr);
    EXPECT_NE(h.ld->ld_sctrls[0]->ldctl_oid, given[0]->ldctl_oid) << "the handle's own copy";
    LDAPControl **got = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_SERVER_CONTROLS, &got), 0);
    ASSERT_NE(got, nullptr);
    EXPECT_NE(got[0]->ldctl_oid, h.ld->ld_sctrls[0]->ldctl_oid) << "the caller's own copy";
    EXPECT_STREQ(got[0]->ldctl_oid, "1.2.3.4");
    EXPECT_EQ(std::string(got[0]->ldctl_value.bv_val, got[0]->ldctl_value.bv_len), "\x04\x03" "abc");
    EXPECT_STREQ(got[1]->ldctl_oid, "2.16.840.1.113730.3.4.2");
    EXPECT_EQ(got[2], nullptr);
    ldap_controls_free(got);

    // Client controls: a critical one cannot be honoured and is refused; the old list stays.
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_CLIENT_CONTROLS, given), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_CLIENT_CONTROLS, critical),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_CLIENT_CONTROLS, &got), 0);
    EXPECT_EQ(got[1]->ldctl_iscritical, 0);
    ldap_controls_free(got);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_SERVER_CONTROLS, critical), 0)
        << "server controls may be critical";
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SERVER_CONTROLS, nullptr), 0);
    EXPECT_EQ(first_control(h.ld, LDAP_OPT_SERVER_CONTROLS), "");

    // Every allocation of a new list can fail; the list held before stays whole.
    for (int option : {LDAP_OPT_SERVER_CONTROLS, LDAP_OPT_CLIENT_CONTROLS}) {
        SCOPED_TRACE(option);
        ASSERT_EQ(ldap_set_option(h.ld, option, given), 0);
        int walked = wzrtest::walk_alloc_failures([&] {
            int rc = ldap_set_option(h.ld, option, given);
            if (rc != 0) {
                EXPECT_EQ(rc, LDAP_NO_MEMORY);
                EXPECT_EQ(ldap_get_errno(h.ld), LDAP_NO_MEMORY);
                EXPECT_EQ(first_control(h.ld, option), "1.2.3.4");
            }
            return rc == 0;
        });
        EXPECT_GT(walked, 3);
        ASSERT_EQ(ldap_set_option(h.ld, option, nullptr), 0);
    }
    ldap_controls_free(given);
    ldap_controls_free(critical);
}

TEST(GlobalDefaults, NullHandleChangesOnlyTheGlobalDefault)
{
    LDAP *global = ld_set_global_default();
    ASSERT_NE(global, nullptr);
    EXPECT_EQ(ld_set_global_default(), global) << "created once";
    EXPECT_EQ(global->ld_bind_flag, 0) << "unlike a handle's";
    ASSERT_EQ(set_int(nullptr, LDAP_OPT_SIZELIMIT, 500), 0);
    ASSERT_EQ(set_int(nullptr, LDAP_OPT_TIMELIMIT, 30), 0);
    EXPECT_EQ(get_int(nullptr, LDAP_OPT_SIZELIMIT), 500);
    EXPECT_EQ(set_int(nullptr, LDAP_OPT_DEREF, 9), LDAP_PARAM_ERROR);
    wzrtest::Handle h;
    ASSERT_NE(h.ld, nullptr);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_SIZELIMIT), 0) << "new handles start from their own values";
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_TIMELIMIT), 0);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_BIND_FLAG), 1);
    ASSERT_EQ(set_int(nullptr, LDAP_OPT_SIZELIMIT, 0) + set_int(nullptr, LDAP_OPT_TIMELIMIT, 0), 0);
}
