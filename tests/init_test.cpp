// Handle creation and teardown: ldap_init's host rules, NLXDIR, ldap_open's version rule and
// its connection over a host list, the operation bracket, the validity check and the freed
// eyecatcher, connection records and the handle's FBER allocator; the host-name helpers
// against this machine's loopback names, and the local-port probe.
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
#include "libldap/ldap_free.h"
#include "libldap/ldap_hostname.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_table.h"
#include "support/handle_util.h"
#include "support/loopback_listener.h"
#include "support/test_util.h"

// Reading a freed handle's bytes: lber_free is wrapped for this program (tests/CMakeLists.txt),
// and the wrapper keeps back the one block the test watches, which it releases itself later.
namespace {
std::atomic<void *> kept_block{nullptr};
std::atomic<int> kept_frees{0};
} // namespace
extern "C" void __real__Z9lber_freePv(void *p);
extern "C" void __wrap__Z9lber_freePv(void *p)
{
    if (p != nullptr && p == kept_block.load())
        kept_frees.fetch_add(1);
    else
        __real__Z9lber_freePv(p);
}

namespace {

std::string this_host()
{
    char name[257] = {};
    EXPECT_EQ(gethostname(name, sizeof name - 1), 0);
    return name;
}

// A port on which nothing listens (a listener's, closed again).
int dead_port() { return wzrtest::LoopbackListener().port(); }

} // namespace

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
