// Many threads on one handle: each collects only its own responses while the waiting threads
// take turns reading, the server answers in a shuffled order, and the table drains.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "libldap/ldap_abandon.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"
#include "support/fake_server.h"

using namespace wzrtest;
using namespace std::chrono_literals;

namespace {

// Answers every request with an extended response naming its id, holding each read's batch
// back and sending it shuffled, so that responses overtake each other.
void answer_shuffled(FakeServer &server)
{
    auto pending = std::make_shared<std::vector<int>>();
    auto rng = std::make_shared<std::mt19937>(12345);
    server.on_request([pending](const ReceivedRequest &req, FakeConnection &) {
        pending->push_back(req.msgid); // only the connection's own thread touches it
    });
    server.on_idle([pending, rng](FakeConnection &conn) {
        std::shuffle(pending->begin(), pending->end(), *rng);
        std::string out;
        for (int id : *pending)
            out += extended_response_pdu(id, 0, "", "for " + std::to_string(id));
        pending->clear();
        conn.send(out);
    });
}

std::string text_of(LDAPMessage *res)
{
    BerElement *c = ber_dup(res->lm_ber);
    int code = -1;
    char *matched = nullptr;
    char *text = nullptr;
    std::string out;
    if (fber_scanf(c, "{iaa", &code, &matched, &text) != LBER_ERROR && text != nullptr)
        out = text;
    lber_free(matched);
    lber_free(text);
    ber_free(c, 0);
    return out;
}

using EngineThreads = EngineTest;

} // namespace

// 64 threads mixing waits, time-outs and abandons on one handle: each thread gets only its
// own responses, every late one is dropped, every id comes back, and an unbind that comes
// while operations are in flight waits for them.
TEST_F(EngineThreads, WaitsTimeOutsAndAbandonsMixedOnSixtyFourThreads)
{
    FakeServer &server = server_;
    answer_shuffled(server);
    LDAP *ld = ld_;
    std::atomic<int> wrong{0}, received{0}, waits{0}; // wrong: a full wait without its own answer
    std::vector<std::thread> threads;
    for (int t = 0; t < 64; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(static_cast<unsigned>(t));
            for (int i = 0; i < 1563; ++i) { // 10^5 operations in all
                int id = send_extended(ld);
                LDAPMessage *res = nullptr;
                struct timeval wait = {20, 0}, brief = {0, 1};
                int kind = static_cast<int>(rng() % 3);
                waits += kind == 0;
                int type = kind == 2 ? 0 : ldap_result(ld, id, 0, kind == 0 ? &wait : &brief, &res);
                if (type == LDAP_RES_EXTENDED) {
                    received++;
                    wrong += ldap_msgid(res) != id || text_of(res) != "for " + std::to_string(id);
                    ldap_msgfree(res);
                } else if (type != 0 || kind == 0 || ldap_abandon(ld, id) != 0) {
                    wrong++;
                }
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(wrong.load(), 0);
    // Every full wait is answered; whether a 1 us wait catches its answer is up to the clock.
    EXPECT_GE(received.load(), waits.load());
    EXPECT_GT(waits.load(), 64 * 1563 / 4);
    EXPECT_EQ(free_rows(), static_cast<int>(table_->row_count));
    EXPECT_EQ(table_->queue_head, nullptr);
    server.on_request([](const ReceivedRequest &, FakeConnection &) {}); // answers no more
    std::atomic<int> started{0}, finished{0};
    std::vector<std::thread> in_flight;
    for (int t = 0; t < 8; ++t) {
        in_flight.emplace_back([&] {
            OperationBracket op(ld); // counted before the unbind can begin
            started++;
            LDAPMessage *res = nullptr;
            struct timeval wait = {0, 300000};
            (void)ldap_result(ld, send_extended(ld), 0, &wait, &res);
            finished++;
        });
    }
    while (started.load() < 8)
        std::this_thread::yield();
    EXPECT_EQ(ldap_unbind(ld), 0);
    ld_ = nullptr;
    EXPECT_EQ(finished.load(), 8);
    for (std::thread &t : in_flight)
        t.join();
}

// While 64 threads wait, the server answers an id nobody waits for, answers one request twice
// and an abandoned one, then sends the notice of disconnection and closes: the answered thread
// gets its response, every other returns at once with the code of what it saw.
TEST_F(EngineThreads, HostileAnswersWhileSixtyFourThreadsWaitEndEveryWait)
{
    FakeServer &server = server_;
    LDAP *ld = ld_;
    int abandoned = send_extended(ld);
    ASSERT_EQ(ldap_abandon(ld, abandoned), 0);
    std::vector<int> ids(64), types(64, -2), codes(64, -2);
    std::atomic<int> sent{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 64; ++t) {
        threads.emplace_back([&, t] {
            ids[t] = send_extended(ld);
            sent++;
            LDAPMessage *res = nullptr;
            struct timeval wait = {20, 0};
            types[t] = ldap_result(ld, ids[t], LDAP_MSG_ONE, &wait, &res);
            codes[t] = thread_error(ld);
            ldap_msgfree(res);
        });
    }
    while (sent.load() < 64)
        std::this_thread::yield();
    ASSERT_TRUE(server.wait_for_requests(66)); // the abandoned request, its abandon, 64 more
    std::this_thread::sleep_for(100ms);        // let every thread fall asleep
    FakeConnection *c = server.connection(0);
    std::string reply = extended_response_pdu(ids[0], 0, "", "once");
    c->send(extended_response_pdu(30000, 0, "", "nobody's") + reply + reply +
            extended_response_pdu(abandoned, 0, "", "too late") +
            notice_of_disconnection_pdu("going away"));
    c->close();
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(types[0], LDAP_RES_EXTENDED);
    int notices = 0;
    for (int t = 1; t < 64; ++t) {
        EXPECT_EQ(types[t], -1) << t;
        EXPECT_TRUE(codes[t] == LDAP_SERVER_DOWN || codes[t] == LDAP_PROTOCOL_ERROR) << codes[t];
        notices += codes[t] == LDAP_PROTOCOL_ERROR;
    }
    EXPECT_LE(notices, 1); // only the thread that read the notice reports it
}

TEST_F(EngineThreads, WaiterGetsItsResponseAndKeepsItsTimeOutWhileAnotherThreadReads)
{
    FakeServer &server = server_;
    LDAP *ld = ld_;
    int first = send_extended(ld);
    ASSERT_GT(first, 0);
    std::atomic<int> first_type{-2};
    std::thread blocked([&] {
        LDAPMessage *res = nullptr;
        first_type = ldap_result(ld, first, LDAP_MSG_ONE, nullptr, &res); // no time limit
        ldap_msgfree(res);
    });
    std::this_thread::sleep_for(100ms); // the blocked thread holds the reading turn by now
    int second = send_extended(ld);
    ASSERT_GT(second, 0);
    ASSERT_TRUE(server.wait_for_requests(2));
    // A short time-out is kept while the blocked thread reads without limit.
    LDAPMessage *res = nullptr;
    struct timeval wait = {0, 200000};
    EXPECT_EQ(ldap_result(ld, second, LDAP_MSG_ONE, &wait, &res), 0);
    EXPECT_EQ(thread_error(ld), LDAP_TIMEOUT);
    server.connection(0)->send(extended_response_pdu(second, 0, "", "second"));
    // The reply for `second` is read by the blocked thread and must reach this one.
    wait = {10, 0};
    ASSERT_EQ(ldap_result(ld, second, LDAP_MSG_ONE, &wait, &res), LDAP_RES_EXTENDED);
    EXPECT_EQ(ldap_msgid(res), second);
    ldap_msgfree(res);
    EXPECT_EQ(first_type.load(), -2); // still waiting for its own
    server.connection(0)->send(extended_response_pdu(first, 0, "", "first"));
    blocked.join();
    EXPECT_EQ(first_type.load(), LDAP_RES_EXTENDED);
}

TEST_F(EngineThreads, AnyWaitersShareTheOutstandingOperations)
{
    FakeServer &server = server_;
    answer_shuffled(server);
    LDAP *ld = ld_;
    constexpr int COUNT = 64;
    for (int i = 0; i < COUNT; ++i)
        ASSERT_GT(send_extended(ld), 0);
    ASSERT_TRUE(server.wait_for_requests(COUNT));
    std::atomic<int> got{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (;;) {
                LDAPMessage *res = nullptr;
                struct timeval wait = {0, 300000};
                int type = ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, &wait, &res);
                if (type <= 0)
                    return;
                if (ldap_msgid(res) > 0)
                    got++;
                ldap_msgfree(res);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(got.load(), COUNT);
    EXPECT_EQ(free_rows(), 256);
}
