// The message engine against hostile servers and hostile timing: cut and dripping PDUs,
// results kept past abandon, time-outs and unbind, ids of operations that never end, a flood
// of unsolicited messages, secrets in dumps, failed local connects; and many threads on one
// handle, each collecting only its own responses while the server answers in shuffled order.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>
#include <unistd.h>
#include <thread>

#include "liblber/ber_int.h"
#include "liblber/ber_memory.h"
#include "libldap/ldap_abandon.h"
#include "libldap/ldap_bind.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/engine_client.h"
#include "support/fake_server.h"
#include "support/ops_client.h"

using namespace wzrtest;
using namespace std::chrono_literals;

namespace {

constexpr unsigned SEARCH = 0x63;

int modify(LDAP *ld)
{
    char *values[] = {const_cast<char *>("v"), nullptr};
    LDAPMod mod = {LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}};
    LDAPMod *mods[] = {&mod, nullptr};
    return ldap_modify_s(ld, "cn=x", mods);
}

std::string two_entries(int msgid)
{
    return search_entry_pdu(msgid, "cn=1", {}) + search_entry_pdu(msgid, "cn=2", {});
}

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

// No response that ended early is decoded, wherever it was cut: the outcome is unknown, and
// the call says so with 81 instead of reporting the zero-filled bytes as success.
TEST(EngineFaults, ResponseCutShortIsServerDownNeverSuccess)
{
    const std::string answer = ldap_result_pdu(1, 0x67, 0);
    const std::string cuts[] = {answer.substr(0, 7), answer.substr(0, 1), answer.substr(0, 3),
                                answer.substr(0, answer.size() - 1)};
    for (const std::string &cut : cuts) {
        FakeServer server;
        server.queue_reply({Action::send(cut), Action::pause_for(20ms), Action::close()});
        LDAP *ld = ldap_init("127.0.0.1", server.port());
        EXPECT_EQ(modify(ld), LDAP_SERVER_DOWN) << cut.size() << " bytes";
        EXPECT_EQ(modify(ld), LDAP_SERVER_DOWN); // and the connection stays dead
        ldap_unbind(ld);
    }
}

// Every poll for a PDU in pieces waits only for what is left of the one deadline.
TEST(EngineFaults, DrippingServerCannotStretchTheTimeOut)
{
    FakeServer server;
    Script drip; // the first six bytes of an entry, one every 300 ms
    for (char c : search_entry_pdu(1, "cn=slow", {}).substr(0, 6))
        drip.insert(drip.end(), {Action::send(std::string(1, c)), Action::pause_for(300ms)});
    server.queue_reply(drip);
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    struct timeval tv = {1, 0};
    LDAPMessage *res = nullptr;
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ldap_search_st(ld, "o=x", 2, "(cn=slow)", nullptr, 0, &tv, &res), LDAP_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms); // 1 s, the abandon, a slow CI
    EXPECT_EQ(res, nullptr);
    ldap_unbind(ld);
}

// Three times the table's size of searches that time out against a server that never answers:
// each is abandoned and gives its id back, nothing piles up, and the handle still works.
TEST(EngineFaults, TimedOutSearchesGiveTheirIdsBack)
{
    AnsweringServer server;
    server.server().keep_requests(false);
    server.hold(SEARCH);
    LDAP *ld = server.open();
    struct timeval tv = {0, 1};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_st(ld, "o=x", 2, "(cn=a)", nullptr, 0, &tv, &res), LDAP_TIMEOUT);
    const long blocks = lber_live_blocks();
    for (int i = 0; i < 3 * 65536; ++i)
        ASSERT_EQ(ldap_search_st(ld, "o=x", 2, "(cn=a)", nullptr, 0, &tv, &res), LDAP_TIMEOUT);
    EXPECT_LE(lber_live_blocks(), blocks + 2); // a read-ahead may come to exist
    EXPECT_EQ(ld->ld_defconn->table->row_count, LDAP_TABLE_INITIAL_ROWS);
    server.hold(SEARCH, false);
    EXPECT_EQ(ldap_search_st(ld, "o=x", 2, "(cn=a)", nullptr, 0, nullptr, &res), 0);
    ldap_msgfree(res);
    ldap_unbind(ld);
}

// A request cut short by its time-out leaves its tail to the next writer: the stream stays in
// step and the connection usable.
TEST(EngineFaults, RequestCutByItsTimeOutIsFinishedByTheNextWriter)
{
    AnsweringServer server;
    server.hold(SEARCH);
    server.server().pause_reading(true);
    LDAP *ld = server.open();
    const std::string filter = "(cn=" + std::string(16 << 20, 'a') + ")";
    struct timeval tv = {0, 200000};
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_st(ld, "o=x", 2, filter.c_str(), nullptr, 0, &tv, &res), LDAP_TIMEOUT);
    server.server().pause_reading(false);
    EXPECT_EQ(ldap_delete_s(ld, "cn=x"), 0);
    EXPECT_EQ(server.count(SEARCH), 1u);
    ldap_unbind(ld);
}

// Row 0 keeps the newest 64 unsolicited messages however many the server sends.
TEST(EngineFaults, UnsolicitedMessagesAreBounded)
{
    AnsweringServer server;
    server.server().on_connect([](FakeConnection &c) {
        std::string flood;
        for (int i = 0; i < 100; ++i)
            flood += extended_response_pdu(0, 0, "", std::string("n").append(std::to_string(i)),
                                           "1.2.3");
        c.send(flood);
    });
    LDAP *ld = server.open();
    TraceFile trace;
    ASSERT_EQ(ldap_delete_s(ld, "cn=x"), 0);
    int kept = 0;
    LDAPMessage *res = nullptr;
    struct timeval none = {0, 0};
    while (ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, &none, &res) > 0) {
        ++kept;
        ldap_msgfree(res);
    }
    EXPECT_EQ(kept, 64);
    EXPECT_TRUE(trace.contains("unsolicited message of type 0x78 dropped, 64 kept"));
    ldap_unbind(ld);
}

// An entry handed out one at a time stays the caller's through abandon, the late final
// result the server still sends, and another operation's read that meets it.
TEST(EngineFaults, EntryHeldAcrossAbandonAndLateResultStaysValid)
{
    FakeServer server;
    server.on_request([](const ReceivedRequest &req, FakeConnection &c) {
        if (req.op == SEARCH)
            c.send(search_entry_pdu(req.msgid, "cn=kept", {{"cn", {"kept"}}}));
        else if (req.op == 0x50) // the late end of the abandoned search, then the modify's
            c.send(ldap_result_pdu(1, 0x65, 0) + search_entry_pdu(1, "cn=late", {}));
        else
            c.send(ldap_result_pdu(req.msgid, 0x67, 0));
    });
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    int id = ldap_search(ld, "o=x", 2, "(cn=*)", nullptr, 0);
    LDAPMessage *entry = nullptr;
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ONE, nullptr, &entry), LDAP_RES_SEARCH_ENTRY);
    ASSERT_EQ(ldap_abandon(ld, id), 0);
    EXPECT_EQ(modify(ld), 0);
    char *dn = ldap_get_dn(ld, entry);
    EXPECT_STREQ(dn, "cn=kept");
    ldap_memfree(dn);
    EXPECT_EQ(ldap_msgfree(entry), LDAP_RES_SEARCH_ENTRY);
    ldap_unbind(ld);
}

// All-messages after one-message on one id hands out only what the first call did not, and
// both outlive the handle.
TEST(EngineFaults, AllAfterOneHandsOutOnlyTheRest)
{
    FakeServer server;
    server.on_request([](const ReceivedRequest &req, FakeConnection &c) {
        c.send(two_entries(req.msgid) + ldap_result_pdu(req.msgid, 0x65, 0));
    });
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    int id = ldap_search(ld, "o=x", 2, "(cn=*)", nullptr, 0);
    LDAPMessage *first = nullptr, *rest = nullptr;
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ONE, nullptr, &first), LDAP_RES_SEARCH_ENTRY);
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &rest), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ldap_count_messages(ld, rest), 2);
    ldap_unbind(ld);
    EXPECT_EQ(ldap_msgfree(rest), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ldap_msgfree(first), LDAP_RES_SEARCH_ENTRY);
}

// A caller's all-messages wait that took some entries when another thread abandons the
// operation frees only what it took, and nothing the caller holds is touched.
TEST(AbandonThreads, AbandonDuringAnAllMessagesWaitEndsItCleanly)
{
    FakeServer server;
    server.on_request([](const ReceivedRequest &req, FakeConnection &c) {
        if (req.op == SEARCH) // and nothing after the abandon: the waiter must not wait on
            c.send(two_entries(req.msgid));
    });
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    int id = ldap_search(ld, "o=x", 2, "(cn=*)", nullptr, 0);
    int type = 1, error = 0;
    std::thread waiter([&] {
        struct timeval tv = {10, 0};
        LDAPMessage *res = nullptr;
        type = ldap_result(ld, id, LDAP_MSG_ALL, &tv, &res);
        error = thread_error(ld);
    });
    std::this_thread::sleep_for(200ms);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ldap_abandon(ld, id), 0);
    waiter.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s); // not its 10-second time-out
    EXPECT_EQ(type, -1);
    EXPECT_EQ(error, LDAP_PARAM_ERROR);
    ldap_unbind(ld);
}

// No secret reaches the trace, sent or received, whatever the attribute name's case, options or
// value length. Secrets are runs of Q: an unmasked one shows as QQQQ in the dump's text column.
TEST(EngineFaults, NoSecretReachesTheTrace)
{
    const std::string q(40, 'Q'), long_q(300, 'Q');
    FakeServer server;
    server.on_request([&](const ReceivedRequest &req, FakeConnection &c) {
        if (req.op == 0x60) // a bind response with the server's SASL credentials
            c.send(ldap_message(req.msgid, ber_seq(ber_int(0, 0x0a) + ber_str("") + ber_str("") +
                                                       ber_str(q, 0x87), 0x61)));
        else if (req.op == SEARCH)
            c.send(search_entry_pdu(req.msgid, "cn=x", {{"userPassword", {q, long_q}}}) +
                   ldap_result_pdu(req.msgid, 0x65, 0));
        else
            c.send(ldap_result_pdu(req.msgid, req.op + 1, 0));
    });
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    TraceFile trace;
    char *values[] = {const_cast<char *>(q.c_str()), const_cast<char *>(long_q.c_str()), nullptr};
    for (const char *type : {"userPassword", "USERPASSWORD", "userPassword;binary"}) {
        LDAPMod mod = {LDAP_MOD_ADD, const_cast<char *>(type), {values}};
        LDAPMod *mods[] = {&mod, nullptr};
        EXPECT_EQ(ldap_add_s(ld, "cn=x", mods), 0);
        EXPECT_EQ(ldap_modify_s(ld, "cn=x", mods), 0);
    }
    EXPECT_EQ(ldap_simple_bind_s(ld, "cn=x", q.c_str()), 0);
    const berval cred = {q.size(), const_cast<char *>(q.c_str())};
    EXPECT_EQ(ldap_sasl_bind_s(ld, "", "PLAIN", &cred, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(ldap_compare_ext_s(ld, "cn=x", "userpassword", &cred, nullptr, nullptr), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_search_s(ld, "cn=x", 0, ("(userPassword=" + q + ")").c_str(), nullptr, 0,
                            &res), 0);
    ldap_msgfree(res);
    ldap_unbind(ld);
    EXPECT_TRUE(trace.contains("fber_get_next_nb: tag 0x30")); // the dumps were written
    EXPECT_FALSE(trace.contains("QQQQ"));
}

// A failed local-socket connect leaves no descriptor behind.
TEST(EngineFaults, FailedLocalConnectClosesItsDescriptor)
{
    TempDir dir;
    int before = dup(0); // the lowest free descriptor: the next one a leak would take
    close(before);
    for (int i = 0; i < 20; ++i) {
        LDAP *ld = ldap_init(dir.file("no-server").c_str(), 0);
        ASSERT_NE(ld, nullptr);
        EXPECT_NE(modify(ld), 0);
        ldap_unbind(ld);
    }
    int after = dup(0);
    close(after);
    EXPECT_EQ(after, before);
}

// The connect time-out may be replaced while another thread opens a connection with it.
TEST(ConnectTimeoutThreads, ReplacingTheTimeOutWhileConnectingIsSafe)
{
    AnsweringServer server;
    for (int i = 0; i < 30; ++i) {
        LDAP *ld = server.open();
        std::atomic<bool> opened{false};
        std::thread setter([&] {
            struct timeval tv = {5, 0};
            while (!opened.load())
                (void)ldap_set_option(ld, LDAP_OPT_CONNECT_TIMEOUT, &tv);
        });
        EXPECT_EQ(modify(ld), 0);
        opened = true;
        setter.join();
        ldap_unbind(ld);
    }
}

// 64 threads mixing waits, time-outs and abandons on one handle: each thread gets only its
// own responses, every late one is dropped, every id comes back, and an unbind that comes
// while operations are in flight waits for them.
TEST_F(EngineThreads, WaitsTimeOutsAndAbandonsMixedOnSixtyFourThreads)
{
    answer_shuffled(server_);
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
    server_.on_request([](const ReceivedRequest &, FakeConnection &) {}); // answers no more
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
    ASSERT_TRUE(server_.wait_for_requests(66)); // the abandoned request, its abandon, 64 more
    std::this_thread::sleep_for(100ms);        // let every thread fall asleep
    FakeConnection *c = server_.connection(0);
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
    ASSERT_TRUE(server_.wait_for_requests(2));
    // A short time-out is kept while the blocked thread reads without limit.
    LDAPMessage *res = nullptr;
    struct timeval wait = {0, 200000};
    EXPECT_EQ(ldap_result(ld, second, LDAP_MSG_ONE, &wait, &res), 0);
    EXPECT_EQ(thread_error(ld), LDAP_TIMEOUT);
    server_.connection(0)->send(extended_response_pdu(second, 0, "", "second"));
    // The reply for `second` is read by the blocked thread and must reach this one.
    wait = {10, 0};
    ASSERT_EQ(ldap_result(ld, second, LDAP_MSG_ONE, &wait, &res), LDAP_RES_EXTENDED);
    EXPECT_EQ(ldap_msgid(res), second);
    ldap_msgfree(res);
    EXPECT_EQ(first_type.load(), -2); // still waiting for its own
    server_.connection(0)->send(extended_response_pdu(first, 0, "", "first"));
    blocked.join();
    EXPECT_EQ(first_type.load(), LDAP_RES_EXTENDED);
}

TEST_F(EngineThreads, AnyWaitersShareTheOutstandingOperations)
{
    answer_shuffled(server_);
    LDAP *ld = ld_;
    constexpr int COUNT = 64;
    for (int i = 0; i < COUNT; ++i)
        ASSERT_GT(send_extended(ld), 0);
    ASSERT_TRUE(server_.wait_for_requests(COUNT));
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
