// The test DNS server: one thread polls a UDP socket and a TCP listener on 127.0.0.1 and
// answers each question from the records set by the test.
#include "support/dns_responder.h"

#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

namespace wzrtest {
namespace {

int bound(int type, uint16_t port)
{
    int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0), one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        (type == SOCK_DGRAM || listen(fd, 8) == 0))
        return fd;
    close(fd);
    return -1;
}

} // namespace

DnsResponder::DnsResponder(uint16_t port)
    : udp_(bound(SOCK_DGRAM, port)), tcp_(bound(SOCK_STREAM, port))
{
    if (udp_ >= 0 && tcp_ >= 0 && pipe(wake_) == 0)
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

std::string DnsResponder::encode_name(const std::string &name)
{
    std::string out;
    for (size_t start = 0, dot; start < name.size(); start = dot + 1) {
        dot = std::min(name.find('.', start), name.size());
        out += static_cast<char>(dot - start) + name.substr(start, dot - start);
    }
    return out + '\0';
}

// Owner: a pointer to the question's name; class IN.
void DnsResponder::add(const std::string &name, uint16_t type, uint32_t ttl,
                       const std::string &rdata)
{
    std::lock_guard<std::mutex> hold(mutex_);
    Name &n = names_[name];
    n.rrs[type] += u16(0xC00C) + u16(type) + u16(1) + u16(ttl >> 16) + u16(ttl & 0xFFFF) +
                   u16(static_cast<unsigned>(rdata.size())) + rdata;
    ++n.count[type];
}

void DnsResponder::truncate(const std::string &name)
{
    std::lock_guard<std::mutex> hold(mutex_);
    names_[name].truncated = true;
}

// Header and question copied from the query, then the records.
std::string DnsResponder::answer(const std::string &query)
{
    ++questions_;
    std::string name;
    size_t end = 12;
    for (size_t n; end < query.size() && (n = static_cast<unsigned char>(query[end])) != 0;
         end += n + 1)
        name += (name.empty() ? "" : ".") + query.substr(end + 1, n);
    if (end + 5 > query.size())
        return {};
    unsigned type = static_cast<unsigned char>(query[end + 2]);
    std::lock_guard<std::mutex> hold(mutex_);
    auto it = names_.find(name);
    Name none;
    const Name &n = it != names_.end() ? it->second : none;
    unsigned count = n.count[type] + (type != 5 ? n.count[5] : 0);
    std::string body = n.rrs[type] + (type != 5 ? n.rrs[5] : "");
    unsigned flags = 0x8180 | (n.truncated ? 0x0200 : 0) | (it == names_.end() ? 3 : 0);
    return query.substr(0, 2) + u16(flags) + u16(1) + u16(count) + u16(0) + u16(0) +
           query.substr(12, end + 5 - 12) + body;
}

void DnsResponder::serve_tcp()
{
    int fd = accept4(tcp_, nullptr, nullptr, SOCK_CLOEXEC);
    unsigned char len[2];
    std::string q(65535, '\0');
    if (fd >= 0 && recv(fd, len, 2, MSG_WAITALL) == 2 &&
        recv(fd, q.data(), len[0] << 8 | len[1], MSG_WAITALL) == (len[0] << 8 | len[1])) {
        std::string a = answer(q.substr(0, len[0] << 8 | len[1]));
        a = u16(static_cast<unsigned>(a.size())) + a;
        (void)!send(fd, a.data(), a.size(), MSG_NOSIGNAL);
    }
    if (fd >= 0)
        close(fd);
}

void DnsResponder::serve()
{
    pollfd fds[3] = {{udp_, POLLIN, 0}, {tcp_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    std::string buf(65535, '\0');
    while (poll(fds, 3, -1) >= 0 && fds[2].revents == 0) {
        sockaddr_storage from{};
        socklen_t fl = sizeof from;
        ssize_t n = fds[0].revents == 0 ? 0
                                        : recvfrom(udp_, buf.data(), buf.size(), 0,
                                                   reinterpret_cast<sockaddr *>(&from), &fl);
        std::string a = n > 0 ? answer(buf.substr(0, static_cast<size_t>(n))) : "";
        if (!a.empty())
            sendto(udp_, a.data(), a.size(), 0, reinterpret_cast<sockaddr *>(&from), fl);
        if (fds[1].revents != 0)
            serve_tcp();
    }
}

} // namespace wzrtest
