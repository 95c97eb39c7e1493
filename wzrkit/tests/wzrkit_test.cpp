// The toolkit on its own: attribute checks, suite lists, labels from PEM and PKCS#12 key
// databases, and a secure socket to slapd's LDAPS port carrying one LDAP exchange.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>
#include <unistd.h>

#include "support/slapd_fixture.h"
#include "wzrkit.h"
#include "wzrkit_int.h"

namespace {

struct Env {
    wzr_handle h = nullptr;
    Env() { EXPECT_EQ(wzr_environment_open(&h), WZR_OK); }
    ~Env() { (void)wzr_environment_close(&h); }
    int set(int attr, const std::string &v) { return wzr_attribute_set_buffer(h, attr, v.c_str(), 0); }
};

TEST(WzrkitEnvironment, RefusesWrongHandlesAttributesValuesAndSuites)
{
    Env env;
    int value = 0, len = 0, dummy = 0;
    const char *buf = nullptr;
    EXPECT_EQ(wzr_attribute_set_enum(env.h, WZR_TLSV10, 12345), WZR_ERR_INVALID_ENUM);
    EXPECT_EQ(wzr_attribute_set_enum(env.h, 9999, 1), WZR_ERR_INVALID_ENUM);
    EXPECT_EQ(wzr_attribute_set_buffer(env.h, 9999, "x", 0), WZR_ERR_INVALID_ATTRIBUTE);
    EXPECT_EQ(wzr_attribute_set_numeric_value(env.h, WZR_FD, 3), WZR_ERR_INVALID_ATTRIBUTE);
    EXPECT_EQ(env.set(WZR_KEYRING_PW, "secret"), WZR_OK);
    EXPECT_EQ(wzr_attribute_get_buffer(env.h, WZR_KEYRING_PW, &buf, &len),
              WZR_ERR_INVALID_ATTRIBUTE) << "a password is never read back";
    EXPECT_EQ(wzr_attribute_get_enum(&dummy, WZR_TLSV12, &value), WZR_ERR_INVALID_HANDLE);
    wzr_handle soc = nullptr;
    EXPECT_EQ(wzr_secure_soc_open(env.h, &soc), WZR_ERR_INVALID_STATE) << "not initialised";
    EXPECT_STREQ(wzr_strerror(WZR_ERR_BAD_PEER), "Bad peer");
    // Suite names map to OpenSSL's; unknown ones are skipped, and none left is an error.
    EXPECT_EQ(wzrkit_cipher_list("2F", "", "TLS_NO_SUCH_SUITE,TLS_RSA_WITH_AES_256_GCM_SHA384"),
              "AES256-GCM-SHA384:AES128-SHA");
    EXPECT_EQ(wzrkit_cipher_list("zz", "", "TLS_NO_SUCH_SUITE"), "");
    EXPECT_EQ(env.set(WZR_TLS12_CIPHER_SPECS, "TLS_NO_SUCH_SUITE"), WZR_OK);
    EXPECT_EQ(wzr_environment_init(env.h), WZR_ERR_NO_CIPHERS);
}

TEST(WzrkitKeyDatabase, LabelsComeFromPkcs12AndPemKeepsTrustOnly)
{
    wzrtest::SlapdFixture &s = wzrtest::tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    Env p12, pem;
    ASSERT_EQ(p12.set(WZR_KEYRING_FILE, s.tls_dir() + "/client.p12"), WZR_OK);
    ASSERT_EQ(p12.set(WZR_KEYRING_STASH_FILE, s.tls_dir() + "/client.sth"), WZR_OK);
    ASSERT_EQ(wzr_environment_init(p12.h), WZR_OK);
    const char *subject = nullptr;
    ASSERT_EQ(wzr_get_cert_by_label(p12.h, "operator", &subject), WZR_OK);
    EXPECT_STREQ(subject, "UID=operator,OU=people,DC=example,DC=com");
    EXPECT_EQ(wzr_get_cert_by_label(p12.h, "ca", nullptr), WZR_ERR_LABEL_NOT_FOUND);
    ASSERT_EQ(pem.set(WZR_KEYRING_FILE, s.tls_dir() + "/ca.pem"), WZR_OK);
    ASSERT_EQ(wzr_environment_init(pem.h), WZR_OK);
    EXPECT_EQ(wzr_get_cert_by_label(pem.h, "wzrldap sandbox CA", nullptr), WZR_ERR_LABEL_NOT_FOUND);
}

// Raw descriptor I/O (no callbacks installed): an anonymous bind and its response.
TEST(WzrkitSocket, CarriesAnLdapExchangeAndReportsThePeer)
{
    wzrtest::SlapdFixture &s = wzrtest::tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    Env env;
    ASSERT_EQ(env.set(WZR_KEYRING_FILE, s.tls_dir() + "/ca.pem"), WZR_OK);
    ASSERT_EQ(wzr_environment_init(env.h), WZR_OK);
    wzr_handle soc = nullptr;
    ASSERT_EQ(wzr_secure_soc_open(env.h, &soc), WZR_OK);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{AF_INET, htons(static_cast<uint16_t>(s.ldaps_port())), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
    ASSERT_EQ(wzr_attribute_set_numeric_value(soc, WZR_FD, fd), WZR_OK);
    ASSERT_EQ(wzr_attribute_set_buffer(soc, WZR_PEER_NAME, "localhost", 0), WZR_OK);
    ASSERT_EQ(wzr_secure_soc_init(soc), WZR_OK);
    const char *names = nullptr, *protocol = nullptr;
    int len = 0;
    ASSERT_EQ(wzr_attribute_get_cert_info(soc, WZR_PEER_ALT_NAMES, &names), WZR_OK);
    EXPECT_STREQ(names, "DNS:localhost,IP:127.0.0.1");
    ASSERT_EQ(wzr_attribute_get_buffer(soc, WZR_NEGOTIATED_PROTOCOL, &protocol, &len), WZR_OK);
    EXPECT_TRUE(std::string(protocol) == "TLSv1.3" || std::string(protocol) == "TLSv1.2") << protocol;

    const unsigned char bind[] = {0x30, 0x0c, 0x02, 0x01, 0x01, 0x60, 0x07, 0x02,
                                  0x01, 0x03, 0x04, 0x00, 0x80, 0x00};
    int count = 0, rc;
    ASSERT_EQ(wzr_secure_soc_write(soc, bind, sizeof bind, &count), WZR_OK);
    EXPECT_EQ(count, static_cast<int>(sizeof bind));
    unsigned char reply[64];
    do
        rc = wzr_secure_soc_read(soc, reply, sizeof reply, &count);
    while (rc == WZR_ERR_WOULD_BLOCK); // after a TLS 1.3 ticket, which carries no data
    ASSERT_EQ(rc, WZR_OK);
    ASSERT_GE(count, 10);
    EXPECT_EQ(reply[5], 0x61) << "a bind response";
    EXPECT_EQ(reply[9], 0x00) << "success";
    EXPECT_EQ(wzr_secure_soc_close(&soc), WZR_OK);
    close(fd);
}

} // namespace
