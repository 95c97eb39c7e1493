// The test DNS server: one thread polls a UDP socket and a TCP listener on 127.0.0.1 and
// answers each question from the records set by the test.
#include "support/dns_responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace wzrtest {
namespace {

std::string u16(unsigned v) { return {char(v >> 8), char(v & 0xFF)}; }
std::string u32(uint32_t v) { return u16(v >> 16) + u16(v & 0xFFFF); }

int bound(int type, uint16_t port)
{
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
                    (type == SOCK_STREAM && listen(fd, 8) != 0))) {
        close(fd);
        return -1;
    }
    return fd;
}

} // namespace

DnsResponder::DnsResponder(uint16_t port)
    : udp_(bound(SOCK_DGRAM, port)), tcp_(bound(SOCK_STREAM, port))
{
    if (ok() && pipe(wake_) == 0)
        thread_ = std::thread([this] { serve(); });
}

DnsResponder::~DnsResponder()
{
    if (thread_.joinable()) {
        (void)!write(wake_[1], "x", 1);
        thread_.join();
    }
    for (int fd : {udp_, tcp_, wake_[0], wake_[1]})
        if (fd >= 0)
            close(fd);
}

std::string DnsResponder::key(const std::string &name)
{
    std::string k;
    for (char c : name)
        k += static_cast<char>(c >= 'A' && c <= 'Z' ? c | 0x20 : c);
    return k;
}

std::string DnsResponder::encode_name(const std::string &name)
{
    std::string out;
    size_t start = 0;
    while (start < name.size()) {
        size_t dot = name.find('.', start);
        dot = dot == std::string::npos ? name.size() : dot;
        out += static_cast<char>(dot - start) + name.substr(start, dot - start);
        start = dot + 1;
    }
    return out + '\0';
}

void DnsResponder::add(const std::string &name, uint16_t type, uint32_t ttl,
                       const std::string &rdata)
{
    std::lock_guard<std::mutex> hold(mutex_);
    records_[key(name)].push_back({type, ttl, rdata});
}

void DnsResponder::srv(const std::string &name, int prio, int weight, int port,
                       const std::string &target, uint32_t ttl)
{
    add(name, 33, ttl, u16(prio) + u16(weight) + u16(port) + encode_name(target));
}

void DnsResponder::txt(const std::string &name, const std::string &text, uint32_t ttl)
{
    add(name, 16, ttl, static_cast<char>(text.size()) + text);
}

void DnsResponder::cname(const std::string &name, const std::string &target, uint32_t ttl)
{
    add(name, 5, ttl, encode_name(target));
}

// Header and question copied from the query; answers point back at the question's name.
std::string DnsResponder::answer(const std::string &query)
{
    ++questions_;
    size_t end = 12;
    std::string name;
    while (end < query.size() && query[end] != 0) {
        size_t n = static_cast<unsigned char>(query[end]);
        name += (name.empty() ? "" : ".") + query.substr(end + 1, n);
        end += n + 1;
    }
    if (end + 5 > query.size())
        return {};
    unsigned qtype = static_cast<unsigned char>(query[end + 1]) << 8 | static_cast<unsigned char>(query[end + 2]);
    std::lock_guard<std::mutex> hold(mutex_);
    std::string k = key(name), body;
    unsigned count = 0;
    for (const Rr &r : records_[k])
        if (r.type == qtype || r.type == 5) {
            body += u16(0xC00C) + u16(r.type) + u16(1) + u32(r.ttl) + u16(r.rdata.size()) + r.rdata;
            ++count;
        }
    if (raw_.count(k) != 0)
        std::tie(count, body) = raw_[k];
    unsigned flags = 0x8180 | (truncated_[k] ? 0x0200 : 0) | (records_[k].empty() && raw_.count(k) == 0 ? 3 : 0);
    return query.substr(0, 2) + u16(flags) + u16(1) + u16(count) + u16(0) + u16(0) +
           query.substr(12, end + 5 - 12) + body;
}

void DnsResponder::serve_tcp()
{
    int fd = accept4(tcp_, nullptr, nullptr, SOCK_CLOEXEC);
    unsigned char len[2];
    std::string q(65535, '\0');
    if (fd >= 0 && recv(fd, len, 2, MSG_WAITALL) == 2) {
        size_t n = len[0] << 8 | len[1];
        if (recv(fd, q.data(), n, MSG_WAITALL) == static_cast<ssize_t>(n)) {
            std::string a = answer(q.substr(0, n));
            a = u16(a.size()) + a;
            (void)!send(fd, a.data(), a.size(), MSG_NOSIGNAL);
        }
    }
    if (fd >= 0)
        close(fd);
}

void DnsResponder::serve()
{
    pollfd fds[3] = {{udp_, POLLIN, 0}, {tcp_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    std::string buf(65535, '\0');
    while (poll(fds, 3, -1) >= 0 && fds[2].revents == 0) {
        if (fds[0].revents != 0) {
            sockaddr_storage from{};
            socklen_t fl = sizeof from;
            ssize_t n = recvfrom(udp_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr *>(&from), &fl);
            std::string a = n > 0 ? answer(buf.substr(0, static_cast<size_t>(n))) : "";
            if (!a.empty())
                sendto(udp_, a.data(), a.size(), 0, reinterpret_cast<sockaddr *>(&from), fl);
        }
        if (fds[1].revents != 0)
            serve_tcp();
    }
}

} // namespace wzrtest
