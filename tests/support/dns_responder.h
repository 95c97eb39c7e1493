// A small DNS server for the server-location tests: answers questions from records the test
// sets (a name's records of the asked type and its CNAMEs; NXDOMAIN for a name without any;
// names compare exactly, and the library asks in lower case),
// over UDP and TCP on one loopback port, truncated when asked. Inside
// tests/support/dns_sandbox.sh port 53 is the private namespace's own.
#ifndef WZR_TESTS_SUPPORT_DNS_RESPONDER_H
#define WZR_TESTS_SUPPORT_DNS_RESPONDER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace wzrtest {

class DnsResponder {
public:
    explicit DnsResponder(uint16_t port = 53);
    ~DnsResponder();
    bool ok() const { return thread_.joinable(); }
    void srv(const std::string &name, int prio, int weight, int port, const std::string &target,
             uint32_t ttl = 300)
    {
        add(name, 33, ttl, u16(prio) + u16(weight) + u16(port) + encode_name(target));
    }
    void txt(const std::string &name, const std::string &text, uint32_t ttl = 300)
    {
        add(name, 16, ttl, static_cast<char>(text.size()) + text);
    }
    void cname(const std::string &name, const std::string &target, uint32_t ttl = 300)
    {
        add(name, 5, ttl, encode_name(target));
    }
    void truncate(const std::string &name); // its answers carry TC
    int questions() const { return questions_; }
    static std::string encode_name(const std::string &name);
    static std::string u16(unsigned v) { return {char(v >> 8), char(v & 0xFF)}; }

private:
    struct Name {
        std::string rrs[256]; // encoded records by type (below 256 only)
        unsigned count[256] = {};
        bool truncated = false;
    };
    void add(const std::string &name, uint16_t type, uint32_t ttl, const std::string &rdata);
    std::string answer(const std::string &query);
    void serve();
    void serve_tcp();

    int udp_ = -1, tcp_ = -1, wake_[2] = {-1, -1};
    std::mutex mutex_;
    std::map<std::string, Name> names_;
    std::atomic<int> questions_{0};
    std::thread thread_;
};

} // namespace wzrtest

#endif
