// Round trips of small requests on one shared handle with 1, 4 and 16 threads. The answering
// server runs in a child process, so the CPU time measured (per client thread, on
// CLOCK_THREAD_CPUTIME_ID) is the library's and the benchmark's alone.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <ctime>
#include <string>

#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_request.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "support/fake_server.h"

namespace {

using wzrtest::ber_int;
using wzrtest::ber_tlv;

// Message id of a request: SEQUENCE header (any length form), then INTEGER.
long request_id(const std::string &pdu)
{
    size_t pos = 1;
    unsigned char first = static_cast<unsigned char>(pdu[pos]);
    pos += 1 + ((first & 0x80) ? (first & 0x7f) : 0);
    size_t len = static_cast<unsigned char>(pdu[pos + 1]);
    long id = 0;
    for (size_t i = 0; i < len; ++i)
        id = (id << 8) | static_cast<unsigned char>(pdu[pos + 2 + i]);
    return id;
}

// The child: answers each request on the one connection with a success extended response.
[[noreturn]] void serve(int listener)
{
    int fd = accept(listener, nullptr, nullptr);
    std::string buf;
    char chunk[65536];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0)
            _exit(0);
        buf.append(chunk, static_cast<size_t>(n));
        std::string out;
        long frame;
        while ((frame = wzrtest::ber_frame_length(buf)) > 0) {
            long id = request_id(buf);
            buf.erase(0, static_cast<size_t>(frame));
            std::string op = ber_int(0, 0x0a) + ber_tlv(0x04, "") + ber_tlv(0x04, "");
            out += ber_tlv(0x30, ber_int(id, 0x02) + ber_tlv(0x78, op));
        }
        for (size_t off = 0; off < out.size();) {
            ssize_t w = write(fd, out.data() + off, out.size() - off);
            if (w <= 0)
                _exit(0);
            off += static_cast<size_t>(w);
        }
    }
}

struct Peer {
    pid_t pid = -1;
    LDAP *ld = nullptr;

    Peer()
    {
        int listener = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in addr {};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        listen(listener, 4);
        getsockname(listener, reinterpret_cast<sockaddr *>(&addr), &len);
        pid = fork();
        if (pid == 0)
            serve(listener);
        close(listener);
        std::string host = "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
        ld = ldap_init(host.c_str(), 0);
    }
    ~Peer()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

Peer &peer()
{
    static Peer p;
    return p;
}

int send_small(LDAP *ld)
{
    LDAPConn *lc = ld->ld_defconn;
    LDAPMessage *req = ldap_msginit(lc);
    int id = ldap_msg_table_get_next_msgid(lc->table);
    req->lm_msgid = id;
    req->lm_ber = ldap_alloc_fber(ld, 0);
    fber_printf(req->lm_ber, "{it{ts}}", id, LDAP_REQ_EXTENDED, ber_tag_t{0x80},
                "1.3.6.1.4.1.4203.1.11.3");
    int msgid = -1;
    return ldap_send_request(ld, lc, req, {}, &msgid) == 0 ? msgid : -1;
}

double thread_cpu_seconds()
{
    struct timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void BM_RoundTrip(benchmark::State &state)
{
    LDAP *ld = peer().ld;
    double cpu_start = thread_cpu_seconds();
    for (auto _ : state) {
        int id = send_small(ld);
        LDAPMessage *res = nullptr;
        if (id < 0 || ldap_result(ld, id, 0, nullptr, &res) != 0x78) {
            state.SkipWithError("round trip failed");
            break;
        }
        ldap_msgfree(res);
    }
    double cpu = thread_cpu_seconds() - cpu_start;
    state.SetItemsProcessed(state.iterations());
    // Client CPU per response, averaged over the threads.
    state.counters["client_cpu_us"] = benchmark::Counter(
        cpu * 1e6 / static_cast<double>(state.iterations() > 0 ? state.iterations() : 1),
        benchmark::Counter::kAvgThreads);
}
BENCHMARK(BM_RoundTrip)->Threads(1)->Threads(4)->Threads(16)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
