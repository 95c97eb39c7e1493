// Unbind: refusal of bad handles, waiting for the operation in progress on another thread
// (several threads: EngineThreads.WaitsTimeOutsAndAbandonsMixedOnSixtyFourThreads),
// refusing new ones meanwhile, and sending nothing to the server.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "libldap/ldap_init.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"
#include "support/loopback_listener.h"
#include "support/test_util.h"

namespace {

bool unbind_has_started(LDAP *ld)
{
    pthread_mutex_lock(&ld->ld_mutex);
    bool started = ld->ld_unbind_started != 0;
    pthread_mutex_unlock(&ld->ld_mutex);
    return started;
}

} // namespace

// All three names free the handle completely and refuse a missing one.
TEST(Unbind, AliasesFreeTheHandleAndRefuseAMissingOne)
{
    EXPECT_EQ(ldap_unbind(nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_unbind_ext(nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_unbind_s(nullptr), LDAP_PARAM_ERROR);
    // The first handle of a process hands NLXDIR to the environment for good.
    ASSERT_EQ(ldap_unbind(ldap_init("warm", 0)), 0);
    long live = lber_live_blocks();
    LDAP *a = ldap_init("localhost", 0);
    LDAP *b = ldap_init("localhost", 0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(ldap_unbind_ext(a), 0);
    EXPECT_EQ(ldap_unbind_s(b), 0);
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(Unbind, WritesNothingToTheServer)
{
    wzrtest::LoopbackListener server;
    ASSERT_TRUE(server.ok());
    LDAP *ld = ldap_open("127.0.0.1", server.port());
    ASSERT_NE(ld, nullptr);
    ASSERT_TRUE(server.wait_accepted(1));
    EXPECT_EQ(ldap_unbind(ld), 0);
    ASSERT_TRUE(server.wait_closed(1)) << "the socket is closed by unbind";
    EXPECT_EQ(server.bytes_received(), 0);
}

TEST(UnbindThreads, WaitsForTheOperationInProgressAndRefusesNewOnes)
{
    wzrtest::TraceCapture trace(0x0001); // the API-flow class alone
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_start_operation(ld), 0); // an operation in progress on this thread

    std::atomic<bool> released{false};
    std::atomic<bool> unbound{false};
    std::atomic<bool> released_before_return{false};
    int unbind_rc = -1;
    std::thread unbinder([&] {
        unbind_rc = ldap_unbind(ld);
        released_before_return = released.load();
        unbound = true;
    });

    while (!unbind_has_started(ld))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));

    // New operations are refused from now on, on any thread.
    EXPECT_EQ(ldap_start_operation(ld), LDAP_PARAM_ERROR);
    int other_rc = 0;
    std::thread other([&] { other_rc = ldap_start_operation(ld); });
    other.join();
    EXPECT_EQ(other_rc, LDAP_PARAM_ERROR);

    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(unbound.load()) << "unbind must wait for the operation to end";

    released = true;
    ldap_end_operation(ld); // after this the handle belongs to the unbinder
    unbinder.join();
    EXPECT_EQ(unbind_rc, 0);
    EXPECT_TRUE(released_before_return.load());

    std::string text = trace.text();
    EXPECT_NE(text.find("ldap_start_operation: unbind started\n"), std::string::npos) << text;
    EXPECT_NE(text.find("ldap_unbind: ld("), std::string::npos);
}

