// Result retrieval, abandon and unbind against the fake server: the two modes and their
// time-outs, partial PDUs, disconnection notices, broken streams, unreachable servers, the write
// time-out choice; abandon's refusals and request; unbind's wait and its silence on the wire.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "libldap/ldap_abandon.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_request.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"
#include "support/fber_bytes.h"
#include "support/loopback_listener.h"

using namespace wzrtest;
using namespace std::chrono_literals;

namespace {

using Result = EngineTest;
using Abandon = EngineTest;

std::string entry_dn(LDAP *ld, LDAPMessage *m)
{
    char *dn = ldap_get_dn(ld, m);
    std::string out = dn != nullptr ? dn : "(undecodable)";
    ldap_memfree(dn);
    return out;
}

} // namespace

// A broken PDU behind good ones in the same segment: the good ones are still delivered, then
// the connection is dead.
TEST_F(Result, ResponsesBeforeABrokenPduInTheSameSegmentAreDelivered)
{
    int ids[] = {send(), send()};
    ASSERT_TRUE(server_.wait_for_requests(2));
    server_.connection(0)->send(extended_response_pdu(ids[0], 0, "", "") + extended_response_pdu(ids[1], 0, "", "") +
                                std::string("\x30\x00", 2));
    for (int id : ids) {
        LDAPMessage *res = nullptr;
        ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), LDAP_RES_EXTENDED) << id;
        EXPECT_EQ(ldap_msgid(res), id);
        EXPECT_EQ(ldap_msgfree(res), LDAP_RES_EXTENDED);
    }
    EXPECT_TRUE(ldap_conn_is_dead(ld_->ld_defconn));
}

// A long result arriving one entry at a time: once entries come in a row the reader pauses
// before waiting so that several gather per read. Every entry still arrives, in order, and a
// wait with a short time-out in the middle of such a stream still ends as a time-out.
TEST_F(Result, EntriesStreamingInOneByOneAllArriveAndShortTimeOutsStillEnd)
{
    constexpr int ENTRIES = 40;
    int id = send();
    server_.wait_for_requests(1);
    FakeConnection *c = server_.connection(0);
    std::thread sender([c, id] {
        for (int i = 0; i < ENTRIES; ++i) {
            c->send(search_entry_pdu(id, "cn=e" + std::to_string(i), {}));
            std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
        c->send(ldap_result_pdu(id, 0x65, 0));
    });
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ALL, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    sender.join();
    ASSERT_EQ(ldap_count_messages(ld_, res), ENTRIES + 1);
    int i = 0;
    for (LDAPMessage *m = res; m != nullptr && ldap_msgtype(m) == LDAP_RES_SEARCH_ENTRY;
         m = ldap_next_message(ld_, m), ++i)
        EXPECT_EQ(entry_dn(ld_, m), "cn=e" + std::to_string(i));
    EXPECT_EQ(i, ENTRIES);
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_SEARCH_RESULT);

    // In the middle of a stream (entries read in a row, no result yet) short waits time out.
    id = send();
    server_.wait_for_requests(2);
    std::string burst;
    for (int k = 0; k < 10; ++k)
        burst += search_entry_pdu(id, "cn=f" + std::to_string(k), {});
    c->send(burst);
    for (int k = 0; k < 10; ++k) {
        ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), LDAP_RES_SEARCH_ENTRY);
        ldap_msgfree(res);
    }
    EXPECT_GE(ld_->ld_defconn->stream_run, 10);
    for (struct timeval wait : {timeval{0, 50}, timeval{0, 20000}}) {
        EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, &wait, &res), 0);
        EXPECT_EQ(thread_error(ld_), LDAP_TIMEOUT);
    }
    c->send(ldap_result_pdu(id, 0x65, 0));
    ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    ldap_msgfree(res);
    EXPECT_EQ(ld_->ld_defconn->stream_run, 0) << "a final result ends the stream";
}

TEST_F(Result, AllModeReturnsTheWholeChainAndAnyNonZeroModeActsLikeIt)
{
    for (int mode : {1, 2, 7}) {
        int id = send();
        server_.wait_for_requests(static_cast<size_t>(mode == 1 ? 1 : mode == 2 ? 2 : 3));
        server_.connection(0)->send(search_entry_pdu(id, "cn=a", {}) + search_entry_pdu(id, "cn=b", {}) +
                                    ldap_result_pdu(id, 0x65, 0));
        LDAPMessage *res = nullptr;
        ASSERT_EQ(ldap_result(ld_, id, mode, nullptr, &res), LDAP_RES_SEARCH_RESULT) << mode;
        EXPECT_EQ(ldap_count_messages(ld_, res), 3);
        EXPECT_EQ(ldap_msgtype(res), LDAP_RES_SEARCH_ENTRY);
        EXPECT_EQ(ldap_msgtype(ldap_next_message(ld_, ldap_next_message(ld_, res))), LDAP_RES_SEARCH_RESULT);
        EXPECT_EQ(ldap_msgfree(res), LDAP_RES_SEARCH_RESULT); // the chain's final type
        EXPECT_EQ(free_rows(), 256);
    }
}

TEST_F(Result, TimeOutsRecord85AndTheAllModeLosesNothing)
{
    int id = send();
    LDAPMessage *res = nullptr;
    struct timeval zero = {0, 0};
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, &zero, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(thread_error(ld_), LDAP_TIMEOUT);
    server_.wait_for_requests(1);
    FakeConnection *c = server_.connection(0);
    c->send(search_entry_pdu(id, "cn=a", {}) + search_entry_pdu(id, "cn=b", {}));
    struct timeval wait = {0, 200000};
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ALL, &wait, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(thread_error(ld_), LDAP_TIMEOUT);
    c->send(ldap_result_pdu(id, 0x65, 0));
    ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ALL, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    ASSERT_EQ(ldap_count_messages(ld_, res), 3); // starts again from the first entry
    EXPECT_EQ(entry_dn(ld_, res), "cn=a");
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_SEARCH_RESULT);
}

TEST_F(Result, PduInPiecesWithPausesAndAStallContinueTheSameMessage)
{
    int id = send();
    server_.wait_for_requests(1);
    FakeConnection *c = server_.connection(0);
    std::string pdu = extended_response_pdu(id, 0, "", std::string(300, 'x'));
    // First a stall in the middle: the wait times out and the partial PDU is kept.
    c->send(pdu.substr(0, 7));
    LDAPMessage *res = nullptr;
    struct timeval wait = {0, 150000};
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, &wait, &res), 0);
    EXPECT_NE(table_->read_state, nullptr);
    // Then the rest in pieces, cut inside the length and the contents, with pauses.
    std::thread sender([&] { c->send_pieces(pdu.substr(7), {1, 2, 50, 120}, 30ms); });
    ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), LDAP_RES_EXTENDED);
    sender.join();
    EXPECT_EQ(ldap_msgid(res), id);
    EXPECT_EQ(table_->read_state, nullptr);
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_EXTENDED);
}

TEST_F(Result, NoticeOfDisconnectionFailsTheWaitWithTheServersText)
{
    int id = send();
    server_.wait_for_requests(1);
    server_.connection(0)->send(notice_of_disconnection_pdu("going away for maintenance"));
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_PROTOCOL_ERROR);
    EXPECT_EQ(thread_error_text(ld_), "going away for maintenance");
    // The notice was freed and is neither queued nor filed in row 0.
    EXPECT_EQ(table_->queue_head, nullptr);
    EXPECT_EQ(table_->rows[0].first, nullptr);
    // When the server then closes, the connection is dead.
    server_.connection(0)->close();
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_SERVER_DOWN);
}

// Garbage, or a well-framed message that does not decode, kills the connection: everything
// after answers 81 and nothing more is written.
TEST_F(Result, GarbageKillsTheConnectionAndEverythingAfterAnswers81)
{
    for (const std::string &garbage : {std::string("\x1f\xff\x00\x01", 4), ber_seq(ber_str("not an id") + ber_seq("", 0x65))}) {
        EngineTest::TearDown();
        EngineTest::SetUp();
        int id = send();
        server_.wait_for_requests(garbage.size() == 4 ? 1 : 2);
        server_.connection(garbage.size() == 4 ? 0 : 1)->send(garbage);
        LDAPMessage *res = nullptr;
        EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), -1);
        EXPECT_EQ(thread_error(ld_), LDAP_SERVER_DOWN);
        EXPECT_NE(ld_->ld_defconn->dead, 0);
    }
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld_, 1, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_SERVER_DOWN);
    int rc = 0;
    EXPECT_EQ(send_extended(ld_, WHOAMI_OID, &rc), -1);
    EXPECT_EQ(rc, LDAP_SERVER_DOWN);
    EXPECT_EQ(server_.request_count(), 2u); // nothing more was written
}

TEST_F(Result, ArgumentAndOwnershipChecks)
{
    LDAPMessage *res = nullptr;
    const struct { LDAP *ld; int id, mode; LDAPMessage **res; } refused[] = {
        {ld_, 256, LDAP_MSG_ONE, &res}, // >= row count
        {ld_, 0, LDAP_MSG_ALL, &res},
        {ld_, -2, LDAP_MSG_ONE, &res},
        {ld_, 1, LDAP_MSG_ONE, nullptr},
        {nullptr, 1, LDAP_MSG_ONE, &res},
        {ld_, 9, LDAP_MSG_ONE, &res}}; // never sent
    for (const auto &r : refused) {
        EXPECT_EQ(ldap_result(r.ld, r.id, r.mode, nullptr, r.res), -1) << r.id;
        if (r.ld != nullptr && r.res != nullptr && r.id != -2) {
            EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR) << r.id;
        }
    }
    int id = send();
    struct timeval zero = {0, 0};
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, &zero, &res), 0); // this thread owns it now
    int other_rc = 0, other_err = 0;
    std::thread([&] {
        LDAPMessage *r = nullptr;
        other_rc = ldap_result(ld_, id, LDAP_MSG_ONE, &zero, &r);
        other_err = thread_error(ld_);
    }).join();
    EXPECT_EQ(other_rc, -1);
    EXPECT_EQ(other_err, LDAP_LOCAL_ERROR);
    EXPECT_EQ(ldap_get_result(ld_, send(), 5, {}, &res, table_), -1); // mode neither 0 nor 1
}

TEST(ResultUnreachable, FirstSendFailsToConnectAndTheSecondFailsAtOnce)
{
    LDAP *ld = ldap_init("127.0.0.1:9", 0); // nothing listens
    int rc = 0;
    EXPECT_EQ(send_extended(ld, WHOAMI_OID, &rc), -1);
    EXPECT_TRUE(rc == LDAP_CONNECT_ERROR || rc == LDAP_SERVER_DOWN) << rc;
    EXPECT_EQ(ld->ld_defconn->table->free_rows, 256); // the failed request's id went back
    {
        TraceFile trace;
        EXPECT_EQ(send_extended(ld, WHOAMI_OID, &rc), -1);
        EXPECT_EQ(rc, LDAP_SERVER_DOWN);
        EXPECT_TRUE(trace.contains("ldap_write_msg: Socket connection was closed earlier\n"));
    }
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// The setting overrides the caller, only positive values count, and it is read once per process.
TEST(WriteTimeout, TheSettingOverridesTheCallerAndOnlyPositiveValuesCount)
{
    EXPECT_EQ(ldap_parse_write_timeout("5"), 5);
    for (const char *ignored : {"0", "-3", "soon", static_cast<const char *>(nullptr)})
        EXPECT_EQ(ldap_parse_write_timeout(ignored), -1) << (ignored != nullptr ? ignored : "(null)");
    struct timeval caller = {60, 0};
    struct timeval buffer = {};
    EXPECT_EQ(ldap_write_wait_timeout(5, &caller, &buffer)->tv_sec, 5);
    EXPECT_EQ(ldap_write_wait_timeout(-1, &caller, &buffer)->tv_sec, 60);
    EXPECT_EQ(ldap_write_wait_timeout(-1, nullptr, &buffer), nullptr); // unlimited
    EXPECT_EQ(ldap_write_wait_timeout(5, nullptr, &buffer)->tv_sec, 5);
    ScopedEnv first("LDAP_LIB_WRITE_TIMEOUT", std::string("7"));
    int seen = ldap_get_write_timeout();
    ScopedEnv later("LDAP_LIB_WRITE_TIMEOUT", std::string("9"));
    EXPECT_EQ(ldap_get_write_timeout(), seen); // a later change is not seen
}

TEST(WaitOnSocket, LargeDescriptorsAreSupported)
{
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    int high = fcntl(sv[0], F_DUPFD, 1500); // beyond the standard descriptor set
    struct timeval wait = {1, 0};
    if (high >= 0) {
        EXPECT_EQ(waitOnSocket(high, &wait), 1);
    }
    EXPECT_EQ(waitOnSocket(70000, &wait), -1);
    for (int fd : {high, sv[0], sv[1]})
        close(fd);
}

TEST_F(Abandon, BadIdsAreRefusedWithoutTouchingTheTable)
{
    int before = free_rows();
    for (int bad : {0, -1, -40}) {
        EXPECT_EQ(ldap_abandon(ld_, bad), -1);
        EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR);
        EXPECT_EQ(ldap_abandon_ext(ld_, bad, nullptr, nullptr), LDAP_PARAM_ERROR);
    }
    EXPECT_EQ(free_rows(), before);
    EXPECT_EQ(table_->last_msgid, 0);
    EXPECT_EQ(ldap_abandon_ext(ld_, 999, nullptr, nullptr), LDAP_PARAM_ERROR); // beyond the rows
    EXPECT_EQ(ldap_abandon_ext(ld_, 12, nullptr, nullptr), LDAP_PARAM_ERROR);  // not outstanding
    EXPECT_EQ(ldap_abandon(nullptr, 3), -1);
}

// Both ids go back at once: the abandon's, and the abandoned operation's, without waiting for
// a response the server need not send.
TEST_F(Abandon, TheRequestGoesOutByteForByteAndItsOwnIdIsReleased)
{
    int id = send();
    ASSERT_EQ(id, 1);
    int before = free_rows();
    ASSERT_EQ(ldap_abandon(ld_, id), 0);
    ASSERT_TRUE(server_.wait_for_requests(2));
    EXPECT_EQ(fber::hex(server_.requests()[1].bytes), fber::hex(fber::message(2, fber::prim(0x50, "\x01"))));
    EXPECT_EQ(free_rows(), before + 1);
    EXPECT_EQ(table_->rows[id].flags, 0u);
    TraceFile trace;
    EXPECT_EQ(ldap_abandon(ld_, id), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR);
    EXPECT_TRUE(trace.contains("abandon_table_row: No outstanding request for given msgid=1\n"));
}

TEST_F(Abandon, WaiterOnAnAbandonedIdIsReleased)
{
    int id = send();
    server_.wait_for_requests(1);
    std::atomic<int> type{-2}, err{0};
    std::thread waiter([&] {
        LDAPMessage *res = nullptr;
        struct timeval wait = {10, 0};
        type = ldap_result(ld_, id, LDAP_MSG_ONE, &wait, &res);
        err = thread_error(ld_);
    });
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(ldap_abandon(ld_, id), 0);
    server_.wait_for_requests(2);
    // Whatever the server sends now wakes the waiter, which finds its row abandoned.
    server_.connection(0)->send(ldap_result_pdu(id, 0x65, 0));
    waiter.join();
    EXPECT_EQ(type.load(), -1);
    EXPECT_EQ(err.load(), LDAP_PARAM_ERROR);
}

// All three names free the handle completely, refuse a missing one and write nothing.
TEST(Unbind, AliasesFreeTheHandleWriteNothingAndRefuseAMissingOne)
{
    for (auto unbind : {ldap_unbind, ldap_unbind_ext, ldap_unbind_s})
        EXPECT_EQ(unbind(nullptr), LDAP_PARAM_ERROR);
    // The first handle of a process hands NLXDIR to the environment for good.
    ASSERT_EQ(ldap_unbind(ldap_init("warm", 0)), 0);
    long live = lber_live_blocks();
    EXPECT_EQ(ldap_unbind_ext(ldap_init("localhost", 0)), 0);
    EXPECT_EQ(ldap_unbind_s(ldap_init("localhost", 0)), 0);
    EXPECT_EQ(lber_live_blocks(), live);

    LoopbackListener server;
    LDAP *ld = ldap_open("127.0.0.1", server.port());
    ASSERT_NE(ld, nullptr);
    ASSERT_TRUE(server.wait_accepted(1));
    EXPECT_EQ(ldap_unbind(ld), 0);
    ASSERT_TRUE(server.wait_closed(1)) << "the socket is closed by unbind";
    EXPECT_EQ(server.bytes_received(), 0);
}

// Several threads: EngineThreads.WaitsTimeOutsAndAbandonsMixedOnSixtyFourThreads.
TEST(UnbindThreads, WaitsForTheOperationInProgressAndRefusesNewOnes)
{
    TraceFile trace(0x0001); // the API-flow class alone
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_EQ(ldap_start_operation(ld), 0); // an operation in progress on this thread
    std::atomic<bool> released{false}, unbound{false}, released_before_return{false};
    int unbind_rc = -1;
    std::thread unbinder([&] {
        unbind_rc = ldap_unbind(ld);
        released_before_return = released.load();
        unbound = true;
    });
    for (bool started = false; !started; std::this_thread::sleep_for(1ms)) {
        pthread_mutex_lock(&ld->ld_mutex);
        started = ld->ld_unbind_started != 0;
        pthread_mutex_unlock(&ld->ld_mutex);
    }
    // New operations are refused from now on, on any thread.
    EXPECT_EQ(ldap_start_operation(ld), LDAP_PARAM_ERROR);
    int other_rc = 0;
    std::thread([&] { other_rc = ldap_start_operation(ld); }).join();
    EXPECT_EQ(other_rc, LDAP_PARAM_ERROR);
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(unbound.load()) << "unbind must wait for the operation to end";
    released = true;
    ldap_end_operation(ld); // after this the handle belongs to the unbinder
    unbinder.join();
    EXPECT_EQ(unbind_rc, 0);
    EXPECT_TRUE(released_before_return.load());
    EXPECT_TRUE(trace.contains("ldap_start_operation: unbind started\n")) << trace.text();
    EXPECT_TRUE(trace.contains("ldap_unbind: ld("));
}
