// The message engine against hostile servers and hostile timing: cut and dripping PDUs,
// results kept past abandon, time-outs and unbind, ids of operations that never end, a flood
// of unsolicited messages, secrets in dumps, and failed local connects.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
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
            flood += extended_response_pdu(0, 0, "", "n" + std::to_string(i), "1.2.3");
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
