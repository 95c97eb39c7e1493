// Connecting on loopback and local sockets: resolution, the address walk, the connect time-out,
// socket modes, and the lookup and creation of a handle's extra connections.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "libldap/ldap_connect.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_free.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"
#include "support/loopback_listener.h"

namespace {

using wzrtest::TraceFile;

int open_fd_count()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    while (d != nullptr && readdir(d) != nullptr)
        ++n;
    if (d != nullptr)
        closedir(d);
    return n;
}

int net(int port) { return htons(static_cast<uint16_t>(port)); }

sockaddr_in loopback4(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

// A loopback port that refuses, or queues connects that nobody accepts (descriptor counts stay exact).
struct Port {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int port = 0;
    explicit Port(bool refusing = false, int backlog = 8)
    {
        sockaddr_in a = loopback4(0);
        socklen_t len = sizeof a;
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 && (refusing || listen(fd, backlog) == 0) &&
            getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0)
            port = ntohs(a.sin_port);
    }
    ~Port() { close(fd); }
};

int peer_port(int sd)
{
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (getpeername(sd, reinterpret_cast<sockaddr *>(&ss), &len) != 0)
        return -1;
    return ntohs(ss.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port
                                          : reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
}

// A hand-built address list, so that the walk's order is the test's choice.
struct AddressList {
    std::vector<sockaddr_in> addrs;
    std::vector<addrinfo> infos;
    explicit AddressList(const std::vector<int> &ports, bool bad_family_first = false)
    {
        addrs.reserve(ports.size());
        if (bad_family_first)
            infos.push_back({0, 12345, SOCK_STREAM, 0, 0, nullptr, nullptr, nullptr}); // socket() fails
        for (int p : ports) {
            addrs.push_back(loopback4(p));
            infos.push_back({0, AF_INET, SOCK_STREAM, IPPROTO_TCP, sizeof(sockaddr_in),
                             reinterpret_cast<sockaddr *>(&addrs.back()), nullptr, nullptr});
        }
        for (size_t i = 0; i + 1 < infos.size(); ++i)
            infos[i].ai_next = &infos[i + 1];
    }
    const addrinfo *head() const { return infos.empty() ? nullptr : &infos[0]; }
};

/* ---- resolution ---- */

TEST(Resolver, ResolvesNumericAndScopedHostsAndRefusesUnknownOnes)
{
    addrinfo *res = nullptr;
    ASSERT_EQ(opx_getaddrinfo("127.0.0.1", net(389), &res), 0);
    EXPECT_EQ(res->ai_family, AF_INET);
    EXPECT_EQ(reinterpret_cast<sockaddr_in *>(res->ai_addr)->sin_port, htons(389));
    EXPECT_EQ(res->ai_socktype, SOCK_STREAM);
    freeaddrinfo(res);
    ASSERT_EQ(opx_getaddrinfo(nullptr, net(1389), &res), 0) << "no host: the loopback address";
    freeaddrinfo(res);
    unsigned lo = if_nametoindex("lo");
    if (lo != 0 && opx_getaddrinfo("fe80::1%lo", net(389), &res) == 0) {
        EXPECT_EQ(reinterpret_cast<sockaddr_in6 *>(res->ai_addr)->sin6_scope_id, lo);
        freeaddrinfo(res);
    }

    {
        TraceFile trace;
        res = nullptr;
        errno = 0;
        EXPECT_EQ(opx_getaddrinfo("no-such-host.invalid", net(389), &res), LDAP_SERVER_DOWN);
        EXPECT_EQ(errno, EHOSTUNREACH);
        EXPECT_EQ(res, nullptr);
        EXPECT_TRUE(trace.contains("getaddrinfo failed. \n"));
        EXPECT_TRUE(trace.contains("opx_getaddrinfo: host(no-such-host.invalid), port(389), res("));
    }
    // A name beyond 511 bytes is cut, not overrun.
    EXPECT_EQ(opx_getaddrinfo(std::string(600, 'a').c_str(), net(389), &res), LDAP_SERVER_DOWN);
}

/* ---- connecting ---- */

TEST(OpenConnection, ConnectsToALoopbackListenerWithKeepAlive)
{
    TraceFile trace;
    for (bool ipv6 : {false, true}) {
        wzrtest::LoopbackListener listener(ipv6);
        if (!listener.ok()) {
            ASSERT_TRUE(ipv6) << "IPv4 loopback listener failed";
            continue; // no IPv6 loopback here
        }
        struct timeval limit = {5, 0};
        for (struct timeval *timeout : {static_cast<struct timeval *>(nullptr), &limit}) {
            Sockbuf sb = {-1, nullptr, 0, 0, -1};
            ASSERT_EQ(open_connection(&sb, ipv6 ? "::1" : "127.0.0.1", net(listener.port()), nullptr, 0, timeout), 0);
            EXPECT_EQ(peer_port(sb.sb_sd), listener.port());
            int keepalive = 0;
            socklen_t len = sizeof keepalive;
            ASSERT_EQ(getsockopt(sb.sb_sd, SOL_SOCKET, SO_KEEPALIVE, &keepalive, &len), 0);
            EXPECT_EQ(keepalive, 1);
            EXPECT_EQ(get_socket_flags_sd(sb.sb_sd) & O_NONBLOCK, 0) << "left blocking";
            close(sb.sb_sd);
        }
        EXPECT_TRUE(listener.wait_accepted(2));
    }
    EXPECT_TRUE(trace.contains("open_connect: connect successful\n"));
    EXPECT_TRUE(trace.contains("open_connection: returning rc=0\n"));
    EXPECT_TRUE(trace.contains(", port="));
}

// The first address that accepts wins, failed sockets are closed; when all fail, the last failure counts.
TEST(OpenConnection, AddressWalkClosesFailedSocketsAndGivesTheLastFailure)
{
    Port refusing(true), other_refusing(true), listener;
    ASSERT_GT(listener.port, 0);
    int before = open_fd_count();
    int sd = -1;
    {
        TraceFile trace;
        int traced = open_fd_count();
        ASSERT_EQ(connect_first_address(AddressList({refusing.port, listener.port}).head(), nullptr, &sd), 0);
        EXPECT_EQ(peer_port(sd), listener.port);
        EXPECT_EQ(open_fd_count(), traced + 1) << "the refused socket was closed";
        EXPECT_TRUE(trace.contains("open_connection: [2]connect failed 111\n"));
        close(sd);
    }

    sd = 7;
    EXPECT_EQ(connect_first_address(AddressList({refusing.port, other_refusing.port}).head(), nullptr, &sd),
              LDAP_SERVER_DOWN);
    EXPECT_EQ(sd, -1);
    EXPECT_EQ(connect_first_address(nullptr, nullptr, &sd), LDAP_SERVER_DOWN) << "empty list";
    EXPECT_EQ(connect_first_address(AddressList({}, true).head(), nullptr, &sd), LDAP_CONNECT_ERROR)
        << "no socket for the only address";
    EXPECT_EQ(connect_first_address(AddressList({refusing.port}, true).head(), nullptr, &sd), LDAP_SERVER_DOWN)
        << "the last failure counts";
    EXPECT_EQ(open_fd_count(), before) << "every failed socket closed";

    Sockbuf sb = {-1, nullptr, 0, 0, -1};
    EXPECT_EQ(open_connection(&sb, "127.0.0.1", net(refusing.port), nullptr, 0, nullptr), LDAP_SERVER_DOWN);
    EXPECT_EQ(sb.sb_sd, -1);
    EXPECT_EQ(open_connection(&sb, nullptr, net(389), nullptr, 0, nullptr), LDAP_SERVER_DOWN);
    EXPECT_EQ(open_connection(&sb, "no-such-host.invalid", net(389), nullptr, 0, nullptr), LDAP_SERVER_DOWN);
}

// A full backlog-0 queue drops further SYNs: a connect neither succeeds nor fails until the time-out.
TEST(OpenConnection, ConnectTimesOutAgainstAPeerThatNeverAccepts)
{
    Port full_queue(false, 0);
    sockaddr_in a = loopback4(full_queue.port);
    std::vector<int> fillers;
    bool full = false;
    for (int i = 0; i < 16 && !full; ++i) {
        int c = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
        fillers.push_back(c);
        (void)connect(c, reinterpret_cast<sockaddr *>(&a), sizeof a);
        // The first connect always fits; a later one left pending shows the queue is full.
        pollfd p = {c, POLLOUT, 0};
        full = poll(&p, 1, i == 0 ? 2000 : 500) == 0 && i > 0;
    }
    if (full) {
        TraceFile trace;
        int sd = socket(AF_INET, SOCK_STREAM, 0);
        struct timeval short_limit = {0, 300000};
        EXPECT_EQ(rqx_connect(sd, reinterpret_cast<sockaddr *>(&a), sizeof a, &short_limit), -1);
        EXPECT_EQ(get_socket_flags_sd(sd) & O_NONBLOCK, 0) << "set back to blocking";
        close(sd);
        EXPECT_TRUE(trace.contains("rqx_connect: select timed out\n"));
        Sockbuf sb = {-1, nullptr, 0, 0, -1};
        struct timeval one_second = {1, 0};
        EXPECT_EQ(open_connection(&sb, "127.0.0.1", net(full_queue.port), nullptr, 0, &one_second), LDAP_SERVER_DOWN);
        EXPECT_EQ(sb.sb_sd, -1);
    }
    for (int c : fillers)
        close(c);
    if (!full)
        GTEST_SKIP() << "this system accepts every connection into the queue";
}

TEST(OpenConnection, LocalDomainPathConnectsAndAMissingPathIsConnectError)
{
    wzrtest::TempDir dir;
    std::string path = dir.file("ldapi.sock");
    int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    std::strncpy(un.sun_path, path.c_str(), sizeof un.sun_path - 1);
    ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&un), sizeof un), 0);
    ASSERT_EQ(listen(lfd, 4), 0);
    struct timeval limit = {2, 0};
    for (struct timeval *timeout : {static_cast<struct timeval *>(nullptr), &limit}) {
        Sockbuf sb = {-1, nullptr, 0, 0, -1};
        ASSERT_EQ(open_connection(&sb, path.c_str(), 0, nullptr, 0, timeout), 0);
        int peer = accept(lfd, nullptr, nullptr);
        ASSERT_EQ(write(sb.sb_sd, "ok", 2), 2);
        char got[2];
        EXPECT_EQ(read(peer, got, 2), 2);
        close(peer);
        close(sb.sb_sd);
    }
    Sockbuf sb = {-1, nullptr, 0, 0, -1};
    EXPECT_EQ(open_connection(&sb, dir.file("missing.sock").c_str(), 0, nullptr, 0, nullptr), LDAP_CONNECT_ERROR);
    EXPECT_EQ(sb.sb_sd, -1) << "a failed local connect stores nothing";
    std::string too_long = "/" + std::string(200, 'p');
    EXPECT_EQ(open_connection(&sb, too_long.c_str(), 0, nullptr, 0, nullptr), LDAP_CONNECT_ERROR);
    EXPECT_EQ(open_connection(nullptr, path.c_str(), 0, nullptr, 0, nullptr), LDAP_PARAM_ERROR);
    close(lfd);
}

TEST(SocketMode, HelpersSetAndClearNonBlockingAndReportErrno)
{
    TraceFile trace;
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    EXPECT_EQ(set_socket_nb_sd(sv[0]), 0);
    EXPECT_NE(get_socket_flags_sd(sv[0]) & O_NONBLOCK, 0);
    EXPECT_EQ(set_socket_blocking_sd(sv[0]), 0);
    EXPECT_EQ(get_socket_flags_sd(sv[0]) & O_NONBLOCK, 0);
    EXPECT_NE(get_socket_flags_sd(sv[0]) & O_RDWR, 0);
    close(sv[0]);
    close(sv[1]);
    EXPECT_EQ(set_socket_nb_sd(-1), EBADF);
    EXPECT_EQ(set_socket_blocking_sd(-1), EBADF);
    EXPECT_EQ(get_socket_flags_sd(-1), 0);
    EXPECT_TRUE(trace.contains("set_socket_nb_sd: failed to set socket non-blocking, errno=9\n"));
    EXPECT_TRUE(trace.contains("set_socket_blocking_sd: failed to set socket non-blocking, errno=9\n"));
    EXPECT_TRUE(trace.contains("get_socket_flags_sd: failed to get socket state. rc: -1\n"));
}

/* ---- connection lookup ---- */

struct Handle {
    LDAP *ld = ldap_init("127.0.0.1", 389);
    ~Handle() { (void)ldap_unbind(ld); }
    int chain_length() const
    {
        int n = 0;
        for (LDAPConn *lc = ld->ld_servers; lc != nullptr; lc = lc->next)
            ++n;
        return n;
    }
};

TEST(FindConn, FindsOrCreatesConnectionsByHostIgnoringCaseAndByPortAndRecordsAFailedOpen)
{
    wzrtest::LoopbackListener listener;
    ASSERT_TRUE(listener.ok());
    Handle h;
    LDAP *ld = h.ld;
    int rc = -1;
    EXPECT_EQ(ldap_find_conn(ld, nullptr, 0, 0, &rc, 0), ld->ld_defconn);
    EXPECT_EQ(get_default_connection(ld), ld->ld_defconn);
    EXPECT_EQ(ldap_find_conn(ld, "127.0.0.1", 389, 0, &rc, 0), nullptr) << "scope 0: extra connections only";
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(ldap_find_conn(ld, "127.0.0.1", 389, 0, &rc, 1), ld->ld_defconn);
    EXPECT_EQ(ldap_find_conn(ld, "127.0.0.1", -1, 0, &rc, 1), ld->ld_defconn) << "-1 is 389";
    EXPECT_EQ(ldap_find_conn(ld, "127.0.0.1", -2, 0, &rc, 1), ld->ld_defconn) << "-2 is 389";

    LDAPConn *made = ldap_find_conn(ld, "localhost", listener.port(), 1, &rc, 0);
    ASSERT_NE(made, nullptr) << rc;
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(made->ld, ld);
    EXPECT_EQ(made->connected, 1);
    EXPECT_EQ(ld->ld_defconn->next, made) << "appended behind the default connection";
    EXPECT_TRUE(listener.wait_accepted(1));
    EXPECT_EQ(ldap_find_conn(ld, "LocalHost", listener.port(), 1, &rc, 0), made);
    EXPECT_EQ(ldap_find_conn(ld, "LOCALHOST", listener.port(), 0, &rc, 1), made);
    EXPECT_EQ(ldap_find_conn(ld, "localhost", listener.port() + 1, 0, &rc, 0), nullptr);
    EXPECT_EQ(h.chain_length(), 2);
    EXPECT_EQ(listener.accepted(), 1) << "a found connection is not opened again";
    LDAPConn *second = ldap_find_conn(ld, "127.0.0.1", listener.port(), 1, &rc, 0);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(made->next, second) << "appended at the end of the chain";
    ld->ld_ssl_in_use = 1;
    EXPECT_EQ(ldap_find_conn(ld, "127.0.0.1", -1, 0, &rc, 1), nullptr) << "-1 is 636 when secure";
    ld->ld_ssl_in_use = 0;

    // A failed open is recorded and leaves the chain alone.
    Port refusing(true);
    EXPECT_EQ(ldap_find_conn(ld, "127.0.0.1", refusing.port, 1, &rc, 0), nullptr);
    EXPECT_EQ(rc, LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_get_errno_direct(ld), LDAP_SERVER_DOWN);
    EXPECT_EQ(h.chain_length(), 3);
    EXPECT_EQ(ldap_find_conn(nullptr, "127.0.0.1", 389, 1, &rc, 0), nullptr);
    EXPECT_EQ(rc, LDAP_PARAM_ERROR);
}

TEST(FindConn, EveryFailedAllocationWhileCreatingIsReportedAndLeaksNothing)
{
    wzrtest::LoopbackListener listener;
    ASSERT_TRUE(listener.ok());
    Handle h;
    LDAP *ld = h.ld;
    (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // this thread's record exists
    EXPECT_GT(wzrtest::walk_alloc_failures([&] {
                  int rc = -1;
                  LDAPConn *lc = ldap_find_conn(ld, "127.0.0.1", listener.port(), 1, &rc, 0);
                  if (lc == nullptr) {
                      EXPECT_EQ(rc, LDAP_NO_MEMORY);
                      EXPECT_EQ(ldap_get_errno_direct(ld), LDAP_NO_MEMORY);
                      return false;
                  }
                  ld->ld_defconn->next = nullptr; // take it out again so the walk starts afresh
                  ldap_lc_free(lc);
                  return true;
              }),
              1);
}

// Threads asking for the same new server at once share one connection (created under the lock).
TEST(FindConnThreads, ConcurrentLookupsOfANewServerCreateOneConnection)
{
    wzrtest::LoopbackListener listener;
    ASSERT_TRUE(listener.ok());
    Handle h;
    constexpr int THREADS = 8;
    LDAPConn *found[THREADS] = {};
    int codes[THREADS] = {};
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (ready.load() < THREADS) {
            }
            found[i] = ldap_find_conn(h.ld, "127.0.0.1", listener.port(), 1, &codes[i], 0);
        });
    }
    for (std::thread &t : threads)
        t.join();
    for (int i = 0; i < THREADS; ++i) {
        EXPECT_EQ(codes[i], 0);
        EXPECT_EQ(found[i], found[0]);
    }
    EXPECT_NE(found[0], nullptr);
    EXPECT_EQ(h.chain_length(), 2);
}

} // namespace
