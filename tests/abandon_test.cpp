// Abandon against the fake server: argument refusals, the request on the wire, discarding
// unread responses, and responses that arrive after the abandon.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "libldap/ldap_abandon.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_queue.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"

using namespace wzrtest;
using namespace std::chrono_literals;

namespace {

using Abandon = EngineTest;

} // namespace

TEST_F(Abandon, ZeroOrNegativeIdIsRefusedWithoutTouchingTheTable)
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

TEST_F(Abandon, TheRequestGoesOutByteForByteAndItsOwnIdIsReleased)
{
    int id = send_extended(ld_);
    ASSERT_EQ(id, 1);
    int before = free_rows();
    ASSERT_EQ(ldap_abandon(ld_, id), 0);
    ASSERT_TRUE(server_.wait_for_requests(2));
    ReceivedRequest req = server_.requests()[1];
    EXPECT_EQ(req.op, 0x50u);
    EXPECT_EQ(req.msgid, 2);
    // SEQUENCE (four length bytes, as every constructed element here) { id 2, [APP 16] 1 }
    EXPECT_EQ(fber::hex(req.bytes), fber::hex(std::string("\x30\x84\x00\x00\x00\x06\x02\x01\x02\x50\x01\x01",
                                              12)));
    // Both ids went back at once: the abandon's, and the abandoned operation's, without
    // waiting for a response the server need not send.
    EXPECT_EQ(free_rows(), before + 1);
    EXPECT_EQ(table_->rows[id].flags, 0u);

    TraceCapture trace;
    EXPECT_EQ(ldap_abandon(ld_, id), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR);
    EXPECT_TRUE(trace.contains("abandon_table_row: No outstanding request for given msgid=1\n"));
}

TEST_F(Abandon, ServerControlsFollowTheRequest)
{
    int id = send_extended(ld_);
    char oid[] = "1.2.840.113556.1.4.805";
    LDAPControl ctrl = {oid, {0, nullptr}, 1};
    LDAPControl *list[] = {&ctrl, nullptr};
    ASSERT_EQ(ldap_abandon_ext(ld_, id, list, nullptr), 0);
    ASSERT_TRUE(server_.wait_for_requests(2));
    std::string bytes = server_.requests()[1].bytes;
    std::string tail = std::string("\x50\x01", 2) + static_cast<char>(id) + "\xa0";
    EXPECT_NE(bytes.find(tail), std::string::npos) << fber::hex(bytes);
    EXPECT_NE(bytes.find(oid), std::string::npos);
}

TEST_F(Abandon, ResultArrivedWithEntriesUnreadDiscardsThemAndSendsNothing)
{
    int id = send_extended(ld_);
    server_.wait_for_requests(1);
    server_.connection(0)->send(search_entry_pdu(id, "cn=a", {}) +
                                search_entry_pdu(id, "cn=b", {}) + ldap_result_pdu(id, 0x65, 0));
    LDAPMessage *first = nullptr;
    ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &first), LDAP_RES_SEARCH_ENTRY);
    LDAPMessage *peek = nullptr;
    ASSERT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &peek), LDAP_RES_SEARCH_ENTRY);
    // Have the final result filed without handing it out: the turn that read the entries
    // filed it too when it came in the same segment, otherwise read it now.
    pthread_mutex_lock(&table_->table_lock);
    flush_queue(table_);
    bool filed = (table_->rows[id].flags & ROW_COMPLETE) != 0;
    pthread_mutex_unlock(&table_->table_lock);
    if (!filed) {
        struct timeval wait = {5, 0};
        ASSERT_EQ(ldap_get_msg(ld_, ld_->ld_defconn, ldap_deadline_after(&wait)), 1);
        pthread_mutex_lock(&table_->table_lock);
        flush_queue(table_);
        pthread_mutex_unlock(&table_->table_lock);
    }
    ASSERT_NE(table_->rows[id].flags & ROW_COMPLETE, 0u);
    ASSERT_EQ(ldap_abandon(ld_, id), 0);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(server_.request_count(), 1u); // nothing sent
    // The unread result went with the row; the delivered entries stay the caller's.
    EXPECT_EQ(table_->rows[id].flags, 0u);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld_, id, LDAP_MSG_ONE, nullptr, &res), -1);
    EXPECT_EQ(thread_error(ld_), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_msgfree(peek), LDAP_RES_SEARCH_ENTRY);
    EXPECT_EQ(ldap_msgfree(first), LDAP_RES_SEARCH_ENTRY);
}

TEST_F(Abandon, WaiterOnAnAbandonedIdIsReleased)
{
    int id = send_extended(ld_);
    server_.wait_for_requests(1);
    std::atomic<int> type{-2};
    std::atomic<int> err{0};
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
