// The host-name helpers against this machine's loopback names, and the local-port probe.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <unistd.h>

#include "liblber/ber_memory.h"
#include "libldap/ldap_connect.h"
#include "libldap/ldap_hostname.h"
#include "support/test_util.h"

namespace {

TEST(HostNames, LoopbackNamesAndAddressesComeBackInAllocatedBuffers)
{
    int err = 0;
    in_addr lo{htonl(INADDR_LOOPBACK)};
    hostent *h = opx_gethostbyaddr(&lo, sizeof lo, AF_INET, &err);
    ASSERT_NE(h, nullptr) << err;
    EXPECT_NE(std::string(h->h_name).find("localhost"), std::string::npos);
    opx_freehostent(h);
    EXPECT_TRUE(opx_gethostbyname("no-such-host.invalid", &err) == nullptr && err != 0);
    sockaddr_in sa{AF_INET, htons(389), lo, {}};
    wzrtest::walk_alloc_failures([&] {
        char *host = nullptr, *serv = nullptr;
        int rc = opx_getnameinfo(reinterpret_cast<sockaddr *>(&sa), sizeof sa, &host, &serv,
                                 NI_NUMERICHOST | NI_NUMERICSERV);
        bool ok = rc == 0 && std::string(host) == "127.0.0.1" && std::string(serv) == "389";
        lber_free(host);
        lber_free(serv);
        hostent *e = opx_gethostbyname("localhost", nullptr);
        opx_freehostent(e);
        return ok && e != nullptr;
    });
}

TEST(HostNames, PortIsFreeUntilAListenerHoldsIt)
{
    int sd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {}, {}};
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(sd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(listen(sd, 1), 0);
    ASSERT_EQ(getsockname(sd, reinterpret_cast<sockaddr *>(&a), &len), 0);
    EXPECT_EQ(can_bind_to_port(ntohs(a.sin_port)), 0);
    close(sd);
    EXPECT_EQ(can_bind_to_port(ntohs(a.sin_port)), 1);
}

} // namespace
