// A small DNS server for the server-location tests: answers SRV, TXT and CNAME questions from
// records the test sets, over UDP and TCP on one loopback port, and can send truncated or
// hand-made (malformed) answers. Run inside tests/support/dns_sandbox.sh, port 53 is the
// private namespace's own and /etc/resolv.conf there points at it.
#ifndef WZR_TESTS_SUPPORT_DNS_RESPONDER_H
#define WZR_TESTS_SUPPORT_DNS_RESPONDER_H

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wzrtest {

class DnsResponder {
public:
    explicit DnsResponder(uint16_t port = 53);
    ~DnsResponder();
    bool ok() const { return udp_ >= 0 && tcp_ >= 0; }

    // Records of `name` (case-insensitive owner); the answer to a question holds the records of
    // its type and any CNAME of the name; a name without records gets NXDOMAIN.
    void srv(const std::string &name, int prio, int weight, int port, const std::string &target,
             uint32_t ttl = 300);
    void txt(const std::string &name, const std::string &text, uint32_t ttl = 300);
    void cname(const std::string &name, const std::string &target, uint32_t ttl = 300);
    // Answers for `name` set TC (on UDP and TCP alike).
    void truncate(const std::string &name) { truncated_[key(name)] = true; }
    // The answer section of `name` replaced by these bytes with this answer count.
    void raw(const std::string &name, uint16_t count, const std::string &bytes)
    {
        raw_[key(name)] = {count, bytes};
    }
    int questions() const { return questions_; }

    static std::string encode_name(const std::string &name);

private:
    struct Rr {
        uint16_t type;
        uint32_t ttl;
        std::string rdata;
    };
    static std::string key(const std::string &name);
    void add(const std::string &name, uint16_t type, uint32_t ttl, const std::string &rdata);
    std::string answer(const std::string &query);
    void serve();
    void serve_tcp();

    int udp_ = -1, tcp_ = -1, wake_[2] = {-1, -1};
    std::mutex mutex_;
    std::map<std::string, std::vector<Rr>> records_;
    std::map<std::string, bool> truncated_;
    std::map<std::string, std::pair<uint16_t, std::string>> raw_;
    std::atomic<int> questions_{0};
    std::thread thread_;
};

} // namespace wzrtest

#endif
