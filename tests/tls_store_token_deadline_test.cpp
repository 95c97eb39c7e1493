// With no key database the system's store decides trust; client keys can live in a PKCS#11
// token; a peer stalling mid-handshake or mid-record holds a call no longer than its time-out.
#include <gtest/gtest.h>

#include <fstream>
#include <netinet/in.h>
#include <openssl/ssl.h>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_ssl.h"
#include "libldap/ldap_unbind.h"
#include "support/fake_server.h"
#include "support/loopback_listener.h"
#include "support/slapd_fixture.h"
#include "wzrkit/wzrkit.h"

namespace {

const int local_install = setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 0);

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
        LDAP *ld = ldap_init(("ldaps://localhost:" + std::to_string(c.port)).c_str(), 0);
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
    LDAP *ld = ldap_init(("ldaps://localhost:" + std::to_string(s.ldaps_port())).c_str(), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SSL_CERT_LABEL, "operator"), 0);
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0);
    ldap_unbind(ld);
}

} // namespace
