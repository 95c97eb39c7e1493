// Server location end to end against a DNS responder of the test's own (in private namespaces,
// see tests/support/dns_sandbox.sh), and the DNS answer parser on hostile bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "liblber/ber_memory.h"
#include "libldap/ldap_dns.h"
#include "libldap/ldap_locate.h"
#include "libldap/ldap_srvcache.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"
#include "wzrldap.h"

namespace {

// A small DNS server: answers questions from records the test sets (a name's records of the
// asked type and its CNAMEs; NXDOMAIN for a name without any; names compare exactly, and the
// library asks in lower case), over UDP and TCP on 127.0.0.1 port 53 (the namespace's own),
// truncated when asked. One thread polls both sockets.
class DnsResponder {
public:
    DnsResponder() : udp_(bound(SOCK_DGRAM)), tcp_(bound(SOCK_STREAM))
    {
        if (udp_ >= 0 && tcp_ >= 0 && pipe(wake_) == 0)
            thread_ = std::thread([this] { serve(); });
    }
    ~DnsResponder()
    {
        if (thread_.joinable()) {
            (void)!write(wake_[1], "x", 1);
            thread_.join();
        }
        for (int fd : {udp_, tcp_, wake_[0], wake_[1]})
            if (fd >= 0)
                close(fd);
    }
    bool ok() const { return thread_.joinable(); }
    void srv(const std::string &name, int prio, int weight, int port, const std::string &target,
             uint32_t ttl = 300)
    {
        add(name, 33, ttl, u16(prio) + u16(weight) + u16(port) + encode_name(target));
    }
    void txt(const std::string &name, const std::string &text)
    {
        add(name, 16, 300, static_cast<char>(text.size()) + text);
    }
    void cname(const std::string &name, const std::string &target) { add(name, 5, 300, encode_name(target)); }
    void truncate(const std::string &name) // its answers carry TC
    {
        std::lock_guard<std::mutex> hold(mutex_);
        names_[name].truncated = true;
    }
    int questions() const { return questions_; }
    static std::string encode_name(const std::string &name)
    {
        std::string out;
        for (size_t start = 0, dot; start < name.size(); start = dot + 1) {
            dot = std::min(name.find('.', start), name.size());
            out += static_cast<char>(dot - start) + name.substr(start, dot - start);
        }
        return out + '\0';
    }
    static std::string u16(unsigned v) { return {char(v >> 8), char(v & 0xFF)}; }

private:
    struct Name {
        std::string rrs[256]; // encoded records by type (below 256 only)
        unsigned count[256] = {};
        bool truncated = false;
    };
    static int bound(int type)
    {
        int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0), one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
            (type == SOCK_DGRAM || listen(fd, 8) == 0))
            return fd;
        close(fd);
        return -1;
    }
    // Owner: a pointer to the question's name; class IN.
    void add(const std::string &name, uint16_t type, uint32_t ttl, const std::string &rdata)
    {
        std::lock_guard<std::mutex> hold(mutex_);
        Name &n = names_[name];
        n.rrs[type] += u16(0xC00C) + u16(type) + u16(1) + u16(ttl >> 16) + u16(ttl & 0xFFFF) +
                       u16(static_cast<unsigned>(rdata.size())) + rdata;
        ++n.count[type];
    }
    // Header and question copied from the query, then the records.
    std::string answer(const std::string &query)
    {
        ++questions_;
        std::string name;
        size_t end = 12;
        for (size_t n; end < query.size() && (n = static_cast<unsigned char>(query[end])) != 0; end += n + 1)
            name.append(name.empty() ? "" : ".").append(query, end + 1, n);
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
    void serve_tcp()
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
    void serve()
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

    int udp_ = -1, tcp_ = -1, wake_[2] = {-1, -1};
    std::mutex mutex_;
    std::map<std::string, Name> names_;
    std::atomic<int> questions_{0};
    std::thread thread_;
};

class Locate : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (getenv("WZR_DNS_SANDBOX") == nullptr) // tests/support/dns_sandbox.sh could not run
            GTEST_SKIP() << "no private namespaces here";
        ASSERT_TRUE(dns.ok());
    }
    std::string find(const char *dn, int secure = 0) // the host list, or "rc=N"
    {
        char *hosts = nullptr;
        int rc = ldap_locate_servers(dn, secure, &hosts);
        std::unique_ptr<char, void (*)(void *)> hold(hosts, lber_free);
        return rc == 0 ? hosts : "rc=" + std::to_string(rc);
    }
    wzrtest::TempDir cache;
    wzrtest::ScopedEnv cache_env{"XDG_CACHE_HOME", cache.path()};
    wzrtest::ScopedEnv local{"LOCALDOMAIN", std::nullopt};
    DnsResponder dns;
};

TEST_F(Locate, UrlWithoutHostReachesSlapdThroughItsSrvRecord)
{
    wzrtest::SlapdFixture &slapd = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    dns.srv("_ldap._tcp.example.com", 0, 0, slapd.port(), "localhost");
    LDAP *ld = wzr_ldap_init("ldap:///dc=example,dc=com", 0);
    ASSERT_NE(ld, nullptr);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(wzr_ldap_search_st(ld, "dc=example,dc=com", LDAP_SCOPE_BASE, "(objectClass=*)",
                                 nullptr, 0, nullptr, &res), LDAP_SUCCESS);
    EXPECT_EQ(wzr_ldap_count_entries(ld, res), 1);
    wzr_ldap_msgfree(res);
    wzr_ldap_unbind(ld);
}

TEST_F(Locate, SrvRecordsComeByPriorityThenWeightedAtRandom)
{
    const std::string srv = "_ldap._tcp.spread.example";
    dns.srv(srv, 20, 100, 389, "last", 0); // TTL 0: never cached, so every lookup asks
    dns.srv(srv, 10, 1, 389, "light", 0);
    dns.srv(srv, 10, 3, 389, "heavy", 0);
    dns.srv(srv, 5, 0, 1389, "first", 0);
    const int runs = 400;
    int heavy_first = 0;
    const std::string heavy = "first:1389 heavy:389 light:389 last:389";
    for (int i = 0; i < runs; ++i) {
        std::string h = find("DC=spread,dc=example");
        heavy_first += h == heavy;
        ASSERT_TRUE(h == heavy || h == "first:1389 light:389 heavy:389 last:389") << h;
    }
    EXPECT_EQ(dns.questions(), runs);
    EXPECT_GT(heavy_first, runs * 6 / 10); // weight 3 against 1: three times in four
    EXPECT_LT(heavy_first, runs * 9 / 10);
}

TEST_F(Locate, EachKindOfAnswerGivesItsHostListOrCode)
{
    dns.cname("_ldap._tcp.alias.example", "_ldap._tcp.real.example");
    dns.srv("_ldap._tcp.real.example", 1, 1, 389, "ds.real.example");
    dns.txt("txt.example", "ldap://h1.txt.example:1389 ldaps://s.txt.example junk "
                           "ldap://[::1]:1390 ldap://bad.txt.example:65536 ldap://:389");
    dns.srv("_ldap._tcp.dead.example", 0, 0, 389, ".");
    dns.srv("_ldap._tcp.dead.example", 0, 0, 0, "zero.dead.example");
    dns.srv("_ldap._tcp.cut.example", 0, 0, 389, "ds.cut.example");
    dns.truncate("_ldap._tcp.cut.example");
    dns.srv("_ldap._tcp.corp.example", 0, 0, 389, "ds.corp.example");
    dns.srv("_ldaps._tcp.local.example", 0, 0, 636, "ds.local.example");
    const struct {
        const char *dn, *localdomain;
        int secure;
        std::string expect;
    } cases[] = {
        {"cn=x,dc=alias,dc=example", nullptr, 0, "ds.real.example:389"},
        {"dc=txt,dc=example", nullptr, 0, "h1.txt.example:1389 [::1]:1390"},
        {"dc=txt,dc=example", nullptr, 1, "s.txt.example:636"},
        {"dc=dead,dc=example", nullptr, 0, "rc=94"},
        {"dc=nowhere,dc=example", nullptr, 0, "rc=94"},
        {"dc=cut,dc=example", nullptr, 0, "rc=134"},
        {"o=no domain", nullptr, 0, "ds.corp.example:389"}, // the resolver's search entry
        {nullptr, "local.example other.example", 1, "ds.local.example:636"},
        {"o=no domain", "-bad", 0, "rc=136"},
    };
    for (const auto &c : cases) {
        wzrtest::ScopedEnv env("LOCALDOMAIN",
                               c.localdomain ? c.localdomain : std::optional<std::string>());
        EXPECT_EQ(find(c.dn, c.secure), c.expect) << (c.dn ? c.dn : "(null)");
    }
    for (int i = 0; i < 70; ++i)
        dns.srv("_ldap._tcp.many.example", 0, 0, 389,
                std::string("h").append(std::to_string(i)) + ".x");
    std::string many = find("dc=many,dc=example");
    EXPECT_EQ(std::count(many.begin(), many.end(), ' '), 63) << many; // 64 servers at most
}

TEST_F(Locate, CacheFileAnswersUntilItExpiresAndDamageOnlyCostsAQuery)
{
    dns.srv("_ldap._tcp.cached.example", 1, 1, 389, "ds.cached.example", 600);
    const std::string file = cache.path() + "/wzrldap/servers-cached.example.ldap";
    EXPECT_EQ(find("dc=cached,dc=example"), "ds.cached.example:389");
    EXPECT_EQ(find("dc=cached,dc=example"), "ds.cached.example:389");
    EXPECT_EQ(dns.questions(), 1);
    EXPECT_NE(wzrtest::read_file(file).find("\nhosts ds.cached.example:389\n"), std::string::npos);
    ldap_srvcache_write("x/y", 0, 0, 600, "h:389"); // a "/" would make the cache a directory
    EXPECT_NE(access((cache.path() + "/wzrldap/servers-x").c_str(), F_OK), 0);
    int asked = 1;
    for (const std::string &text : {std::string("wzrldap server cache 1\nexpires 5\nhosts old.example:389\n"), // expired
                                    std::string("wzrldap server cache 1\nexpires 99999999999\nhosts old.exa"), // cut short
                                    std::string("\x7f" "ELF\0\0\xff\n", 8)}) {
        wzrtest::write_file(file, text);
        EXPECT_EQ(find("dc=cached,dc=example"), "ds.cached.example:389");
        EXPECT_EQ(dns.questions(), ++asked);
    }
    ASSERT_EQ(remove(file.c_str()), 0);
    ASSERT_EQ(mkdir(file.c_str(), 0700), 0); // a directory where the file belongs
    EXPECT_EQ(find("dc=cached,dc=example"), "ds.cached.example:389");
}

// A response with one question ("a.example" SRV) and `count` answer records of `rrs`.
std::string message(unsigned count, const std::string &rrs)
{
    return std::string("\x12\x34\x81\x80\0\x01", 6) + char(count >> 8) + char(count & 0xFF) +
           std::string(4, '\0') + DnsResponder::encode_name("a.example") +
           std::string("\0\x21\0\x01", 4) + rrs;
}

int parse(const std::string &msg, LDAPDnsAnswer *ans)
{
    return ldap_dns_parse_answer(reinterpret_cast<const unsigned char *>(msg.data()), msg.size(), ans);
}

TEST(DnsAnswer, HostileAnswersAreRefusedOrCappedWithoutLeaks)
{
    // owner ptr, SRV, IN, TTL with the top bit set (counts as 0), 7 bytes: 0 0 389 "."
    const std::string srv("\xC0\x0C\0\x21\0\x01\x80\0\0\x01\0\x07\0\0\0\0\x01\x85\0", 19);
    const std::string txt("\xC0\x0C\0\x10\0\x01\0\0\0\1\0\x03\x02xy", 15);
    std::string many;
    for (int i = 0; i < 3000; ++i)
        many += srv;
    const struct {
        std::string msg;
        int rc, kept;
    } cases[] = {
        {message(1, srv), 0, 1},
        {message(10000, many), 0, LDAP_DNS_MAX_RECORDS},
        {message(1, std::string("\xC0\x1B\0\x21", 4)), LDAP_DNS_INVALID_DATA, 0}, // name loop
        {message(1, srv.substr(0, 18)), LDAP_DNS_INVALID_DATA, 0},                 // cut short
        {message(2, srv + txt.substr(0, 11) + "\x02\x05x"), LDAP_DNS_INVALID_DATA, 1}, // overrun
    };
    for (const auto &c : cases) {
        LDAPDnsAnswer ans;
        EXPECT_EQ(parse(c.msg, &ans), c.rc);
        ASSERT_EQ(ans.count, unsigned(c.kept));
        EXPECT_TRUE(c.kept == 0 || (ans.records[0].ttl == 0 && ans.records[0].target[0] == '\0' &&
                                    std::string(ans.records[0].owner) == "a.example"));
        ldap_dns_free_answer(&ans);
    }
    wzrtest::walk_alloc_failures([&] {
        LDAPDnsAnswer ans;
        int rc = parse(message(2, txt + srv), &ans);
        ldap_dns_free_answer(&ans);
        return rc == 0;
    });
}

} // namespace
