// Secure connections with no key database trust the system's certificate store, and keep to
// the caller's time-out whatever the peer does (a handshake that never comes, a record cut in
// half). Each test runs in a process of its own: the settings are process-wide.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_ssl.h"
#include "libldap/ldap_unbind.h"
#include "support/fake_server.h"
#include "support/loopback_listener.h"
#include "support/slapd_fixture.h"
#include "wzrkit/wzrkit.h"

namespace {

using wzrtest::SlapdFixture;
using wzrtest::tls_slapd;

const int local_install = setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 0);

// A TLS peer on OpenSSL with the fixture's server certificate: completes the handshake, reads
// one request, sends the first half of the record that carries its answer, and stalls until
// the client leaves.
void serve_half_a_record(int listen_fd, const std::string &dir, std::atomic<bool> *sent)
{
    int fd = accept(listen_fd, nullptr, nullptr);
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_num_tickets(ctx, 0); // nothing after the handshake but the cut record
    SSL_CTX_use_certificate_file(ctx, (dir + "/server.pem").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(ctx, (dir + "/server.key").c_str(), SSL_FILETYPE_PEM);
    SSL *ssl = SSL_new(ctx);
    char buf[4096];
    if (fd >= 0 && SSL_set_fd(ssl, fd) == 1 && SSL_accept(ssl) == 1 && SSL_read(ssl, buf, 100) > 0) {
        BIO *record = BIO_new(BIO_s_mem());
        SSL_set0_wbio(ssl, record);
        std::string answer = wzrtest::ldap_result_pdu(1, 0x65, 0);
        SSL_write(ssl, answer.data(), static_cast<int>(answer.size()));
        char *bytes = nullptr;
        long half = BIO_get_mem_data(record, &bytes) / 2;
        *sent = send(fd, bytes, static_cast<size_t>(half), 0) == half;
        while (recv(fd, buf, sizeof buf, 0) > 0) {
        }
    }
    SSL_free(ssl);
    SSL_CTX_free(ctx);
    if (fd >= 0)
        close(fd);
}

// A fresh environment with no key database, then a search of the root DSE: its result, or -2
// when it came back more than 4 s after its time-out; *reason gets the handshake's reason.
int search_trusting_store(const std::string &store, int port, long timeout_ms, int *reason)
{
    setenv("SSL_CERT_FILE", store.c_str(), 1);
    if (ldap_ssl_environment_init(nullptr, nullptr, 0, reason) != 0)
        return -1;
    LDAP *ld = ldap_init(("ldaps://localhost:" + std::to_string(port)).c_str(), 0);
    struct timeval tv = {timeout_ms / 1000, timeout_ms % 1000 * 1000};
    LDAPMessage *res = nullptr;
    auto start = std::chrono::steady_clock::now();
    int rc = ldap_search_st(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, &tv, &res);
    bool in_time = std::chrono::steady_clock::now() - start <
                   std::chrono::milliseconds(timeout_ms) + std::chrono::seconds(4);
    *reason = ld->ld_ssl_reason;
    ldap_msgfree(res);
    ldap_unbind(ld);
    return in_time ? rc : -2;
}

// OpenSSL's SSL_CERT_FILE and SSL_CERT_DIR stand in for the machine's store, which stays
// untouched; the working directory holds no default key database.
void use_test_store(const SlapdFixture &s)
{
    std::string empty = s.dir() + "/no-keydb";
    mkdir(empty.c_str(), 0700);
    ASSERT_EQ(chdir(empty.c_str()), 0);
    setenv("SSL_CERT_DIR", empty.c_str(), 1);
}

TEST(SystemStore, TrustedWhenNoKeyDatabaseIsNamed)
{
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    use_test_store(s);
    int reason = -1;
    EXPECT_EQ(search_trusting_store(s.tls_dir() + "/ca.pem", s.ldaps_port(), 30000, &reason), 0);
    EXPECT_EQ(search_trusting_store(s.tls_dir() + "/other-ca.pem", s.ldaps_port(), 30000, &reason),
              LDAP_SSL_HANDSHAKE_FAILED);
    EXPECT_EQ(reason, WZR_ERR_SELF_SIGNED); // the chain ends in a CA the store does not hold
}

// The toolkit's own waits are set far beyond the call's 300 ms time-out.
TEST(SecureDeadline, StalledHandshakeOrRecordEndsTheCallAtItsTimeOut)
{
    setenv("OPX_SSL_DATA_TIMEOUT", "60", 1);
    setenv("OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT", "60", 1);
    SlapdFixture &s = tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    use_test_store(s);
    wzrtest::LoopbackListener silent;
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    ASSERT_TRUE(bind(fd, reinterpret_cast<sockaddr *>(&a), len) == 0 && listen(fd, 1) == 0 &&
                getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0);
    std::atomic<bool> sent{false};
    std::thread peer(serve_half_a_record, fd, s.tls_dir(), &sent);
    int reason = -1;
    std::string ca = s.tls_dir() + "/ca.pem";
    EXPECT_EQ(search_trusting_store(ca, ntohs(a.sin_port), 300, &reason), LDAP_TIMEOUT);
    EXPECT_TRUE(sent.load()) << "half a record went out";
    EXPECT_EQ(search_trusting_store(ca, silent.port(), 300, &reason), LDAP_SSL_HANDSHAKE_FAILED);
    EXPECT_EQ(reason, WZR_ERR_IO);
    shutdown(fd, SHUT_RDWR);
    peer.join();
    close(fd);
}

} // namespace
