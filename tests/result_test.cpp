// Result retrieval against the fake server: filing out of order, entries then the final
// result, the two modes and their time-outs, partial PDUs, the notice of disconnection,
// broken streams, unreachable servers and the write time-out choice.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_queue.h"
#include "libldap/ldap_request.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"
#include "support/fake_server.h"

using namespace wzrtest;
using namespace std::chrono_literals;

namespace {

using Result = EngineTest;

struct timeval tv(long sec, long usec = 0) { return {sec, usec}; }

} // namespace

// The turn that reads the first response also files the two that came with it in the same
// segment, before the waiting threads are woken: no further read is needed for them.
TEST_F(Result, OneTurnFilesEveryResponseThatArrivedTogether)
{
    std::vector<int> ids = {send(), send(), send()};
    ASSERT_TRUE(server_.wait_for_requests(3));
    std::string together;
    for (int id : ids)
        together += extended_response_pdu(id, 0, "", "answer " + std::to_string(id));
    server_.connection(0)->send(together);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(ld_, ids[0], LDAP_MSG_ONE, nullptr, &res), LDAP_RES_EXTENDED);
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_EXTENDED);

    pthread_mutex_lock(&table_->table_lock);
    bool filed = table_->rows[ids[1]].first != nullptr && table_->rows[ids[2]].first != nullptr;
    pthread_mutex_unlock(&table_->table_lock);
    EXPECT_TRUE(filed);
    EXPECT_EQ(sockbuf_buffered(&ld_->ld_defconn->sb), 0);
    for (int id : {ids[1], ids[2]}) {
        struct timeval none = tv(0);
        ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, &none, &res), LDAP_RES_EXTENDED);
        EXPECT_EQ(ldap_msgid(res), id);
        EXPECT_EQ(ldap_msgfree(res), LDAP_RES_EXTENDED);
    }
}

// A broken PDU behind good ones in the same segment: the good ones are still delivered, then
// the connection is dead.
TEST_F(Result, ResponsesBeforeABrokenPduInTheSameSegmentAreDelivered)
{
    std::vector<int> ids = {send(), send()};
    ASSERT_TRUE(server_.wait_for_requests(2));
    std::string together = extended_response_pdu(ids[0], 0, "", "") +
                           extended_response_pdu(ids[1], 0, "", "") + std::string("\x30\x00", 2);
    server_.connection(0)->send(together);
    for (int id : ids) {
        LDAPMessage *res = nullptr;
        ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), LDAP_RES_EXTENDED) << id;
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
         m = ldap_next_message(ld_, m), ++i) {
        char *dn = nullptr;
        BerElement *cur = ber_dup(m->lm_ber);
        ASSERT_NE(fber_scanf(cur, "{a", &dn), LBER_ERROR);
        EXPECT_EQ(std::string(dn), "cn=e" + std::to_string(i));
        lber_free(dn);
        ber_free(cur, 0);
    }
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
    for (struct timeval wait : {tv(0, 50), tv(0, 20000)}) {
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
        ASSERT_GT(id, 0);
        server_.wait_for_requests(static_cast<size_t>(mode == 1 ? 1 : mode == 2 ? 2 : 3));
        server_.connection(0)->send(search_entry_pdu(id, "cn=a", {}) +
                                    search_entry_pdu(id, "cn=b", {}) +
                                    ldap_result_pdu(id, 0x65, 0));
        LDAPMessage *res = nullptr;
        ASSERT_EQ(ldap_result(ld_, id, mode, nullptr, &res), LDAP_RES_SEARCH_RESULT) << mode;
        EXPECT_EQ(ldap_count_messages(ld_, res), 3);
        EXPECT_EQ(ldap_msgtype(res), LDAP_RES_SEARCH_ENTRY);
        LDAPMessage *second = ldap_next_message(ld_, res);
        ASSERT_NE(second, nullptr);
        EXPECT_EQ(ldap_msgtype(ldap_next_message(ld_, second)), LDAP_RES_SEARCH_RESULT);
        EXPECT_EQ(ldap_msgfree(res), LDAP_RES_SEARCH_RESULT); // the chain's final type
        EXPECT_EQ(free_rows(), 256);
    }
}

TEST_F(Result, TimeOutsRecord85AndTheAllModeLosesNothing)
{
    int id = send();
    LDAPMessage *res = nullptr;
    struct timeval zero = tv(0);
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, &zero, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(thread_error(ld_), LDAP_TIMEOUT);
    server_.wait_for_requests(1);
    FakeConnection *c = server_.connection(0);
    c->send(search_entry_pdu(id, "cn=a", {}) + search_entry_pdu(id, "cn=b", {}));
    struct timeval wait = tv(0, 200000);
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ALL, &wait, &res), 0);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(thread_error(ld_), LDAP_TIMEOUT);
    c->send(ldap_result_pdu(id, 0x65, 0));
    ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ALL, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    ASSERT_EQ(ldap_count_messages(ld_, res), 3); // starts again from the first entry
    char *dn = nullptr;
    BerElement *cur = ber_dup(res->lm_ber);
    ASSERT_NE(fber_scanf(cur, "{a", &dn), LBER_ERROR);
    EXPECT_STREQ(dn, "cn=a");
    lber_free(dn);
    ber_free(cur, 0);
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
    struct timeval wait = tv(0, 150000);
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

TEST_F(Result, GarbageKillsTheConnectionAndEverythingAfterAnswers81)
{
    int id = send();
    server_.wait_for_requests(1);
    server_.connection(0)->send(std::string("\x1f\xff\x00\x01", 4));
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_SERVER_DOWN);
    EXPECT_NE(ld_->ld_defconn->dead, 0);
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_SERVER_DOWN);
    int rc = 0;
    EXPECT_EQ(send_extended(ld_, WHOAMI_OID, &rc), -1);
    EXPECT_EQ(rc, LDAP_SERVER_DOWN);
    EXPECT_EQ(server_.request_count(), 1u); // nothing more was written
}

TEST_F(Result, WellFramedButUndecodableMessageKillsTheConnection)
{
    int id = send();
    server_.wait_for_requests(1);
    server_.connection(0)->send(ber_seq(ber_str("not an id") + ber_seq("", 0x65)));
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_SERVER_DOWN);
}

TEST_F(Result, ArgumentAndOwnershipChecks)
{
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld_, 256, LDAP_MSG_ONE, nullptr, &res), -1); // >= row count
    EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_result(ld_, 0, LDAP_MSG_ALL, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_result(ld_, -2, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(ldap_result(ld_, 1, LDAP_MSG_ONE, nullptr, nullptr), -1);
    EXPECT_EQ(ldap_result(nullptr, 1, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(ldap_result(ld_, 9, LDAP_MSG_ONE, nullptr, &res), -1); // never sent
    EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR);

    int id = send();
    struct timeval zero = tv(0);
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, &zero, &res), 0); // this thread owns it now
    int other_rc = 0;
    int other_err = 0;
    std::thread other([&] {
        LDAPMessage *r = nullptr;
        other_rc = ldap_result(ld_, id, LDAP_MSG_ONE, &zero, &r);
        other_err = thread_error(ld_);
    });
    other.join();
    EXPECT_EQ(other_rc, -1);
    EXPECT_EQ(other_err, LDAP_LOCAL_ERROR);
    EXPECT_EQ(ldap_get_result(ld_, send(), 5, {}, &res, table_), -1); // mode neither 0 nor 1
}

TEST(ResultUnreachable, FirstSendFailsToConnectAndTheSecondFailsAtOnce)
{
    LDAP *ld = ldap_init("127.0.0.1:9", 0); // nothing listens
    ASSERT_NE(ld, nullptr);
    int rc = 0;
    EXPECT_EQ(send_extended(ld, WHOAMI_OID, &rc), -1);
    EXPECT_TRUE(rc == LDAP_CONNECT_ERROR || rc == LDAP_SERVER_DOWN) << rc;
    EXPECT_EQ(ld->ld_defconn->table->free_rows, 256); // the failed request's id went back
    {
        TraceCapture trace;
        EXPECT_EQ(send_extended(ld, WHOAMI_OID, &rc), -1);
        EXPECT_EQ(rc, LDAP_SERVER_DOWN);
        EXPECT_TRUE(trace.contains("ldap_write_msg: Socket connection was closed earlier\n"));
    }
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld), LDAP_SERVER_DOWN);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(WriteTimeout, TheSettingOverridesTheCallerAndOnlyPositiveValuesCount)
{
    EXPECT_EQ(ldap_parse_write_timeout("5"), 5);
    EXPECT_EQ(ldap_parse_write_timeout("0"), -1);
    EXPECT_EQ(ldap_parse_write_timeout("-3"), -1);
    EXPECT_EQ(ldap_parse_write_timeout("soon"), -1);
    EXPECT_EQ(ldap_parse_write_timeout(nullptr), -1);

    struct timeval caller = {60, 0};
    struct timeval buffer = {};
    struct timeval *chosen = ldap_write_wait_timeout(5, &caller, &buffer);
    ASSERT_NE(chosen, nullptr);
    EXPECT_EQ(chosen->tv_sec, 5);
    EXPECT_EQ(chosen->tv_usec, 0);
    chosen = ldap_write_wait_timeout(-1, &caller, &buffer);
    ASSERT_NE(chosen, nullptr);
    EXPECT_EQ(chosen->tv_sec, 60);
    EXPECT_EQ(ldap_write_wait_timeout(-1, nullptr, &buffer), nullptr); // unlimited
    EXPECT_EQ(ldap_write_wait_timeout(5, nullptr, &buffer)->tv_sec, 5);
}

TEST(WriteTimeout, ReadOncePerProcess)
{
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
    if (high < 0)
        GTEST_SKIP() << "descriptor limit too low";
    struct timeval wait = {1, 0};
    EXPECT_EQ(waitOnSocket(high, &wait), 1);
    EXPECT_EQ(waitOnSocket(70000, &wait), -1);
    close(high);
    close(sv[0]);
    close(sv[1]);
}

