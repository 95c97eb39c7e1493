// LDAPS and StartTLS against a real slapd through the toolkit built here: trust and names, toolkit
// loading, time-outs, hostile peers, key databases, the system's store and a PKCS#11 token. Each
// test runs in a process of its own: the toolkit's environment and settings are process-wide.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_load.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_ssl.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/fake_server.h"
#include "support/loopback_listener.h"
#include "support/ops_client.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"

namespace {

using wzrtest::SlapdFixture;
using wzrtest::tls_slapd;

// The toolkit built here is found by its bare names through the library path.
const int local_install = setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 0);

struct Handle {
    LDAP *ld = nullptr;
    explicit Handle(const std::string &url) : ld(ldap_init(url.c_str(), 0)) {}
    ~Handle() { ldap_unbind(ld); }
    int bind(const std::string &dn = "", const std::string &pw = "")
    {
        return ldap_simple_bind_s(ld, dn.empty() ? nullptr : dn.c_str(),
                                  pw.empty() ? nullptr : pw.c_str());
    }
    std::string error() const { return wzrtest::recorded_message(ld); }
    bool secure() const { return ld->ld_defconn->sb.sb_secure != nullptr; }
};

std::string ldaps(int port, const char *host = "localhost")
{
    return "ldaps://" + std::string(host) + ":" + std::to_string(port);
}

std::string plain(const SlapdFixture &s) { return "localhost:" + std::to_string(s.port()); }

int count_people(LDAP *ld, const std::string &base)
{
    LDAPMessage *res = nullptr;
    int rc = ldap_search_s(ld, base.c_str(), LDAP_SCOPE_ONELEVEL,
                           "(uid=user00*)", nullptr, 0, &res);
    int n = rc == 0 ? ldap_count_entries(ld, res) : -rc;
    ldap_msgfree(res);
    return n;
}

int init_trusting(const SlapdFixture &s, const std::string &ca = "ca.pem")
{
    int reason = -1;
    return ldap_ssl_client_init((s.tls_dir() + "/" + ca).c_str(), nullptr, 0, &reason);
}

// What `body` returns, as the exit status of a child: settings are read once per process.
int in_child(const std::function<int()> &body)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid ? WEXITSTATUS(status) : -1;
}

// An add over LDAPS; a referral to a plain URL is reported, not followed, from an LDAPS handle
// (a plain handle follows it).
TEST(Ldaps, UpdatesOverAVerifiedChainAndNeverFollowsAPlainReferral)
{
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    ASSERT_EQ(init_trusting(s), 0);
    Handle secure(ldaps(s.ldaps_port()));
    ASSERT_EQ(secure.bind(s.manager_dn(), s.manager_pw()), 0) << secure.error();
    EXPECT_TRUE(secure.secure());
    EXPECT_EQ(count_people(secure.ld, "ou=people," + s.base()), 9);
    std::string dn = "ou=plainref," + s.base(), url = s.uri() + "/ou=people," + s.base();
    wzrtest::Mods ref{{LDAP_MOD_ADD, "objectClass", {"referral", "extensibleObject"}},
                      {LDAP_MOD_ADD, "ou", {"plainref"}}, {LDAP_MOD_ADD, "ref", {url}}};
    ASSERT_EQ(ldap_add_s(secure.ld, dn.c_str(), ref), 0);
    LDAPMessage *res = nullptr;
    EXPECT_NE(ldap_search_s(secure.ld, dn.c_str(), LDAP_SCOPE_ONELEVEL, "(uid=user00*)", nullptr, 0, &res), 0);
    char **referrals = nullptr;
    int code = -1;
    EXPECT_EQ(ldap_count_entries(secure.ld, res), 0);
    ASSERT_EQ(ldap_parse_result(secure.ld, res, &code, nullptr, nullptr, &referrals, nullptr, 1), 0);
    ASSERT_NE(referrals, nullptr);
    EXPECT_NE(std::string(referrals[0]).find(s.uri()), std::string::npos) << referrals[0];
    ldap_value_free(referrals);
    Handle followed(s.uri());
    EXPECT_EQ(count_people(followed.ld, dn), 9);
    int reason = -1;
    EXPECT_EQ(ldap_ssl_client_init(nullptr, nullptr, 0, &reason), LDAP_SSL_ALREADY_INITIALIZED);
    EXPECT_EQ(reason, 0);
}

// Every allocation of the toolkit set-up and of an LDAPS bind failed in turn: clean, no leaks.
TEST(Ldaps, EveryFailedAllocationFailsCleanlyAndLeaksNothing)
{
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    std::string ca = s.tls_dir() + "/ca.pem";
    int reason = 0;
    ASSERT_EQ(ldap_ssl_environment_init(ca.c_str(), nullptr, 0, &reason), 0);
    SCOPED_TRACE("environment set-up");
    EXPECT_GT(wzrtest::walk_alloc_failures([&] {
        return ldap_ssl_environment_init(ca.c_str(), nullptr, 0, &reason) == 0;
    }), 1);
    auto connect_bind_unbind = [&] {
        LDAP *ld = ldap_init(ldaps(s.ldaps_port()).c_str(), 0);
        bool ok = ld != nullptr && ldap_simple_bind_s(ld, nullptr, nullptr) == 0;
        if (ld != nullptr)
            ok = ldap_unbind(ld) == 0 && ok;
        return ok;
    };
    ASSERT_TRUE(connect_bind_unbind()); // the process-wide settings (NLXDIR) are made once
    SCOPED_TRACE("connection");
    // A bind may absorb a failure (its response controls are an optional copy): leaks only.
    EXPECT_GT(wzrtest::walk_alloc_failures(connect_bind_unbind, false), 1);
}

// Each failed check ends the handshake with 116, the toolkit's code as the reason and a text
// saying what was wrong; a failed StartTLS leaves the connection plain.
TEST(Ldaps, UntrustedChainAndWrongNameFailWith116AndTheReason)
{
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    ASSERT_EQ(init_trusting(s, "other-ca.pem"), 0);
    Handle untrusted(ldaps(s.ldaps_port()));
    EXPECT_EQ(untrusted.bind(), LDAP_SSL_HANDSHAKE_FAILED);
    // slapd sends its CA along, so the chain ends in a self-signed certificate nobody trusts.
    EXPECT_EQ(untrusted.ld->ld_ssl_reason, WZR_ERR_SELF_SIGNED);
    Handle start_tls(plain(s));
    EXPECT_EQ(ldap_start_tls_s_np(start_tls.ld, nullptr), LDAP_SSL_HANDSHAKE_FAILED);
    EXPECT_NE(start_tls.error().find("not trusted"), std::string::npos) << start_tls.error();
    EXPECT_FALSE(start_tls.secure());
    EXPECT_EQ(start_tls.ld->ld_defconn->ssl_ref, nullptr) << "the environment reference was given back";

    int reason = -1;
    ASSERT_EQ(ldap_ssl_environment_init((s.tls_dir() + "/ca.pem").c_str(), nullptr, 0, &reason), 0);
    // 2130706433 is 127.0.0.1 to the resolver, but no name the certificate carries.
    Handle wrong_name(ldaps(s.ldaps_port(), "2130706433"));
    EXPECT_EQ(wrong_name.bind(), LDAP_SSL_HANDSHAKE_FAILED);
    EXPECT_EQ(wrong_name.ld->ld_ssl_reason, WZR_ERR_BAD_PEER);
    EXPECT_NE(wrong_name.error().find("does not name 2130706433"), std::string::npos)
        << wrong_name.error();
    Handle by_address(ldaps(s.ldaps_port(), "127.0.0.1"));
    EXPECT_EQ(by_address.bind(), 0) << by_address.error();
}

TEST(StartTls, SecuresThePlainConnectionOnceAndRefusesASecondTime)
{
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    {
        // The server has agreed by then and waits for a handshake: that handle is spent.
        Handle early(plain(s));
        EXPECT_EQ(ldap_start_tls_s_np(early.ld, nullptr), LDAP_SSL_CLIENT_INIT_NOT_CALLED);
        EXPECT_FALSE(early.secure());
    }
    ASSERT_EQ(init_trusting(s), 0);
    Handle h(plain(s));
    ASSERT_EQ(ldap_start_tls_s_np(h.ld, nullptr), 0) << h.error();
    EXPECT_TRUE(h.secure());
    ASSERT_EQ(h.bind(s.user_dn(), s.user_pw()), 0);
    EXPECT_EQ(count_people(h.ld, "ou=people," + s.base()), 9);
    // slapd refuses a second StartTLS itself; one that agreed would meet the library's refusal.
    EXPECT_EQ(ldap_start_tls_s_np(h.ld, nullptr), LDAP_OPERATIONS_ERROR);
    EXPECT_EQ(ldap_start_tls_handshake(h.ld), LDAP_SSL_ALREADY_INITIALIZED);
    EXPECT_EQ(count_people(h.ld, "ou=people," + s.base()), 9) << "the connection still works";
}

TEST(ClientCertificate, SelectedByLabelGivesItsIdentityToExternalBind)
{
    SlapdFixture &s = tls_slapd("demand");
    WZR_REQUIRE_SLAPD(s);
    // No password: the stash file next to the key database (client.sth) holds it.
    Handle h(ldaps(s.ldaps_port()));
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SSL_KEYRING, (s.tls_dir() + "/client.p12").c_str()), 0);
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SSL_CERT_LABEL, "operator"), 0);
    ASSERT_EQ(ldap_sasl_bind_s(h.ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0)
        << h.error();
    const char *label = nullptr, *names = nullptr;
    ASSERT_EQ(getSSLClientLabel(&h.ld->ld_defconn->sb, &label), 0);
    EXPECT_STREQ(label, "operator");
    ASSERT_EQ(getSSLCertAltName(&h.ld->ld_defconn->sb, &names), 0);
    EXPECT_STREQ(names, "DNS:localhost,IP:127.0.0.1");
    // Only the operator may read passwords.
    LDAPMessage *res = nullptr;
    char pw[] = "userPassword";
    char *attrs[] = {pw, nullptr};
    ASSERT_EQ(ldap_search_s(h.ld, s.user_dn().c_str(), LDAP_SCOPE_BASE, "(objectClass=*)", attrs,
                            0, &res), 0);
    char **got = ldap_get_values(h.ld, ldap_first_entry(h.ld, res), pw);
    EXPECT_NE(got, nullptr);
    ldap_value_free(got);
    ldap_msgfree(res);
}

// Bad key databases and passwords fail the set-up, an unknown label the handshake, each with its code.
TEST(KeyDatabase, BadFilesPasswordsAndLabelsFailWithTheirCodes)
{
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    std::string p12 = s.tls_dir() + "/client.p12", cut = s.tls_dir() + "/cut.p12";
    std::string all = wzrtest::read_file(p12);
    wzrtest::write_file(cut, all.substr(0, all.size() / 2));
    const struct {
        std::string keydb, pw;
        int reason;
    } cases[] = {{p12, "wrong", WZR_ERR_BAD_PASSWORD},
                 {cut, s.keydb_pw(), WZR_ERR_KEYFILE_FORMAT},
                 {s.tls_dir() + "/client.sth", "x", WZR_ERR_KEYFILE_FORMAT},
                 {s.tls_dir() + "/missing.p12", "x", WZR_ERR_KEYRING_OPEN}};
    int reason = -1;
    for (const auto &c : cases) {
        EXPECT_EQ(ldap_ssl_environment_init(c.keydb.c_str(), c.pw.c_str(), 0, &reason),
                  LDAP_SSL_INITIALIZE_FAILED) << c.keydb;
        EXPECT_EQ(reason, c.reason) << c.keydb;
    }
    Handle h(plain(s));
    ASSERT_EQ(ldap_ssl_client_init(p12.c_str(), s.keydb_pw().c_str(), 0, &reason), 0);
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SSL_CERT_LABEL, "nobody"), 0);
    EXPECT_EQ(ldap_start_tls_s_np(h.ld, nullptr), WZR_ERR_LABEL_NOT_FOUND);
    EXPECT_EQ(h.ld->ld_ssl_reason, 407);
}

TEST(LdapsThreads, SixteenShareOneHandle)
{
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    ASSERT_EQ(init_trusting(s), 0);
    Handle h(ldaps(s.ldaps_port()));
    ASSERT_EQ(h.bind(), 0) << h.error();
    std::vector<int> found(16, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 16; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i)
                found[t] += count_people(h.ld, "ou=people," + s.base()) == 9;
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(found, std::vector<int>(16, 10));
}

// Without a toolkit secure requests fail with 118; plain connections are unaffected.
TEST(Toolkit, AbsentToolkitGives118AndPlainStillWorks)
{
    unsetenv("WZRKIT_LOCAL_INSTALL_MODE"); // look in /usr/lib64, where no toolkit is
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    int reason = -1;
    EXPECT_EQ(ldap_ssl_client_init(nullptr, nullptr, 0, &reason), LDAP_SSL_NOT_AVAILABLE);
    Handle secure(ldaps(s.ldaps_port()));
    EXPECT_EQ(secure.bind(), LDAP_SSL_NOT_AVAILABLE);
    Handle plain(s.uri());
    EXPECT_EQ(plain.bind(), 0);
    EXPECT_STREQ(ldap_ssl_strerror(0), "Wzrkit not loaded");
}

// Which toolkit files load (refused, another version, lacking an entry), and the handshake time-out.
TEST(Toolkit, SettingsSelectTheFilesAndTheHandshakeTimeOut)
{
    const struct {
        const char *var, *value;
        int expected;
        int64_t sec = -1, usec = 0;
    } cases[] = {{"WZRKIT_CLIENT_VERSION", "9", LDAP_SSL_NOT_AVAILABLE}, // no libwzr9*_64.so
                 {"WZRKIT_CLIENT_VERSION", "6", LDAP_SSL_NOT_AVAILABLE}, // lacks an entry
                 {"WZRKIT_SHIPPED_ICC", "true", LDAP_SSL_NOT_AVAILABLE},
                 {"WZRKIT_CLIENT_VERSION", "8", 0},
                 {"OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT_MILLISECS", "2500", 0, 2, 500000},
                 {"OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT_MILLISECS", "-1", 0, 0, 0}, // unlimited
                 {"OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT", "7", 0, 7, 0},
                 {"OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT", "", 0, 5, 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(in_child([&] {
            setenv(c.var, c.value, 1);
            int reason = -1;
            if (c.sec < 0)
                return ldap_ssl_client_init(nullptr, nullptr, 0, &reason);
            WzrUserData ud;
            initWzrUserData(&ud, WZR_CONN_CLIENT);
            return ud.io_sec == c.sec && ud.io_usec == c.usec && ud.key == -1 ? 0 : 1;
        }), c.expected) << c.var << "=" << c.value;
    }
    const struct {
        const char *list;
        int major, recognised;
    } lists[] = {{"TLS12", 7, 0}, {"TLS12", 8, 1}, {"TLS10,FOO", 8, 1},
                 {"XTLS12,TLS11X", 8, 0}, {"SSLV3,TLS10,TLS11,TLS12", 8, 4}};
    for (const auto &c : lists)
        EXPECT_EQ(ldap_ssl_isValidProtocolList(c.list, c.major), c.recognised) << c.list;
}

// With a data time-out of 0 the data phase never waits: an empty socket reads as would-block.
TEST(Handshake, ZeroDataTimeOutNeverWaits)
{
    setenv("OPX_SSL_DATA_TIMEOUT", "0", 1);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, sv), 0);
    WzrUserData ud;
    initWzrUserData(&ud, WZR_CONN_CLIENT);
    ud.state = WZR_STATE_READ_WRITE;
    char buf[16];
    int done = -1;
    errno = 0;
    EXPECT_EQ(ssl_read(sv[0], buf, sizeof buf, &ud, &done), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(done, 0);
    ASSERT_EQ(write(sv[1], "abc", 3), 3);
    EXPECT_EQ(client_ssl_read(sv[0], buf, sizeof buf, &ud), 3) << "what is there is returned";
    close(sv[0]);
    close(sv[1]);
}

TEST(Handshake, SilentPeerFailsAfterTheHandshakeTimeOut)
{
    setenv("OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT_MILLISECS", "300", 1);
    wzrtest::LoopbackListener silent;
    ASSERT_TRUE(silent.ok());
    int reason = -1;
    ASSERT_EQ(ldap_ssl_client_init(nullptr, nullptr, 0, &reason), 0);
    Handle h(ldaps(silent.port(), "127.0.0.1"));
    EXPECT_EQ(h.bind(), LDAP_SSL_HANDSHAKE_FAILED);
    EXPECT_EQ(h.ld->ld_ssl_reason, WZR_ERR_IO);
}

// Hostile peers: garbage instead of a ServerHello, a close in the middle, a 16 MB message.
TEST(Handshake, HostilePeersFailWith116AndTheirReason)
{
    int reason = -1;
    ASSERT_EQ(ldap_ssl_client_init(nullptr, nullptr, 0, &reason), 0);
    // A ServerHello announcing 16 MB, then the first 16 KB of it.
    const std::string huge_hello = std::string("\x16\x03\x03\x40\x00\x02\xff\xff\xff", 9) +
                                   std::string(0x4000 - 4, 'A');
    const struct {
        std::string bytes;
        int reason;
    } cases[] = {{"HTTP/1.1 400 Bad Request\r\n\r\n", WZR_ERR_BAD_MESSAGE},
                 {"", WZR_ERR_SOCKET_CLOSED},
                 {huge_hello, WZR_ERR_BAD_MESSAGE}};
    for (const auto &c : cases) {
        wzrtest::FakeServer server;
        server.on_connect([&](wzrtest::FakeConnection &conn) {
            // Once the ClientHello is in, so that the close cannot meet the client's write.
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            if (!c.bytes.empty())
                conn.send(c.bytes);
            conn.close();
        });
        Handle h(ldaps(server.port(), "127.0.0.1"));
        EXPECT_EQ(h.bind(), LDAP_SSL_HANDSHAKE_FAILED);
        EXPECT_EQ(h.ld->ld_ssl_reason, c.reason) << h.error();
    }
}

// A TLS peer with the fixture's server certificate: after the handshake and one request it sends
// the first half of the record that carries its answer, and stalls until the client leaves.
void serve_half_a_record(int listen_fd, const std::string &dir, std::atomic<bool> *sent)
{
    int fd = accept(listen_fd, nullptr, nullptr);
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_num_tickets(ctx, 0); // nothing after the handshake but the cut record
    SSL_CTX_use_certificate_file(ctx, (dir + "/server.pem").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(ctx, (dir + "/server.key").c_str(), SSL_FILETYPE_PEM);
    SSL *ssl = SSL_new(ctx);
    char buf[4096];
    if (SSL_set_fd(ssl, fd) == 1 && SSL_accept(ssl) == 1 && SSL_read(ssl, buf, 100) > 0) {
        BIO *record = BIO_new(BIO_s_mem());
        SSL_set0_wbio(ssl, record);
        std::string answer = wzrtest::ldap_result_pdu(1, 0x65, 0);
        SSL_write(ssl, answer.data(), static_cast<int>(answer.size()));
        char *bytes = nullptr;
        long half = BIO_get_mem_data(record, &bytes) / 2;
        *sent = send(fd, bytes, static_cast<size_t>(half), 0) == half;
        while (recv(fd, buf, sizeof buf, 0) > 0) {}
    }
    SSL_free(ssl);
    SSL_CTX_free(ctx);
    close(fd);
}

// SSL_CERT_FILE and SSL_CERT_DIR stand in for the machine's store (left untouched); no default
// key database is in the working directory. Only the call's time-out ends the stalls in time.
TEST(SecureDeadline, SystemStoreDecidesTrustAndStallsEndAtTheCallsTimeOut)
{
    setenv("OPX_SSL_DATA_TIMEOUT", "60", 1);
    setenv("OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT", "60", 1);
    wzrtest::SlapdFixture &s = wzrtest::tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    ASSERT_EQ(chdir(s.tls_dir().c_str()), 0);
    setenv("SSL_CERT_DIR", (s.dir() + "/no-store").c_str(), 1);
    wzrtest::LoopbackListener silent;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    ASSERT_TRUE(bind(fd, reinterpret_cast<sockaddr *>(&a), len) == 0 && listen(fd, 1) == 0 &&
                getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0);
    std::atomic<bool> sent{false};
    std::thread peer(serve_half_a_record, fd, s.tls_dir(), &sent);
    const struct { const char *store; int port, ms, code, reason; } cases[] = {
        {"ca.pem", s.ldaps_port(), 30000, LDAP_SUCCESS, 0},
        {"other-ca.pem", s.ldaps_port(), 30000, LDAP_SSL_HANDSHAKE_FAILED, WZR_ERR_SELF_SIGNED},
        {"ca.pem", ntohs(a.sin_port), 300, LDAP_TIMEOUT, 0}, // half a record
        {"ca.pem", silent.port(), 300, LDAP_SSL_HANDSHAKE_FAILED, WZR_ERR_IO}};
    for (const auto &c : cases) {
        setenv("SSL_CERT_FILE", (s.tls_dir() + "/" + c.store).c_str(), 1);
        int reason = -1;
        EXPECT_EQ(ldap_ssl_environment_init(nullptr, nullptr, 0, &reason), 0) << reason;
        LDAP *ld = ldap_init(ldaps(c.port).c_str(), 0);
        struct timeval tv = {c.ms / 1000, c.ms % 1000 * 1000};
        LDAPMessage *res = nullptr;
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(ldap_search_st(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &tv, &res),
                  c.code) << c.store << " port " << c.port;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(c.ms + 4000));
        EXPECT_EQ(ld->ld_ssl_reason, c.reason) << c.port;
        ldap_msgfree(res);
        ldap_unbind(ld);
    }
    EXPECT_TRUE(sent.load()) << "half a record went out";
    shutdown(fd, SHUT_RDWR);
    peer.join();
    close(fd);
}

// A SoftHSM token made in the test's directory (SOFTHSM2_CONF, never the machine's) holds the
// client key, the key database only certificates: EXTERNAL binds once the token's key signed.
TEST(Pkcs11, ClientKeyInATokenServesExternalBind)
{
    wzrtest::SlapdFixture &s = wzrtest::tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    const std::string dir = s.dir() + "/softhsm", tls = s.tls_dir(), keydb = dir + "/certs.pem";
    std::ofstream(dir + ".conf") << "directories.tokendir = " << dir << "\n";
    setenv("SOFTHSM2_CONF", (dir + ".conf").c_str(), 1);
    std::string make = "mkdir " + dir + " && (softhsm2-util --init-token --free --label wzr --pin"
                       " 1234 --so-pin 5678 && softhsm2-util --import " + tls + "/client.key "
                       "--token wzr --label operator --id 01 --pin 1234) > /dev/null && cat " +
                       tls + "/ca.pem " + tls + "/client.pem > " + keydb;
    ASSERT_EQ(system(make.c_str()), 0);
    const struct { const char *pin; int accel, rc, reason; } cases[] = {
        {"4321", 0, LDAP_SSL_INITIALIZE_FAILED, WZR_ERR_PKCS11_BAD_PASSWORD},
        {"1234", 3, LDAP_SSL_INITIALIZE_FAILED, WZR_ERR_UNSUPPORTED},
        {"1234", 0, LDAP_SUCCESS, 0}};
    for (const auto &c : cases) {
        int reason = -1;
        EXPECT_EQ(ldap_ssl_pkcs11_environment_init(keydb.c_str(), nullptr, 0, &reason,
                                                   "/usr/lib/softhsm/libsofthsm2.so", "wzr",
                                                   c.pin, 1, c.accel), c.rc);
        EXPECT_EQ(reason, c.reason);
    }
    LDAP *ld = ldap_init(ldaps(s.ldaps_port()).c_str(), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CERT_LABEL, "operator"), 0);
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0);
    ldap_unbind(ld);
}

} // namespace
