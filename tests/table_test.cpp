// The message table and its records: id allocation with growth, wrap-around and the size
// limit, row verification, the rotation of "any" waiters, filing and releasing; the records'
// eyecatcher discipline, freeing single records and chains, the chain walkers.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_queue.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"

using namespace wzrtest;

namespace {

using TablePtr = std::unique_ptr<LDAPMsgTable, decltype(&ldap_msg_table_free)>;
TablePtr make_table(unsigned rows = LDAP_TABLE_INITIAL_ROWS)
{
    return TablePtr(ldap_msg_table_init(rows), ldap_msg_table_free);
}

// A response record for id `msgid` of type `type`, without a BER element.
LDAPMessage *response(LDAPConn *lc, int msgid, int type)
{
    LDAPMessage *m = ldap_msginit(lc);
    m->lm_msgid = msgid;
    m->lm_msgtype = type;
    return m;
}

// Table rows filled by hand on a handle that has not connected.
class Rows : public EngineTest {
protected:
    // Takes an id and files a request record in its row, as sending does.
    int outstanding(unsigned flags = 0)
    {
        int id = ldap_msg_table_get_next_msgid(table_);
        LDAPMessage *req = ldap_msginit(lc_);
        req->lm_msgid = id;
        table_->rows[id & LDAP_MSGID_ROW_MASK].request = req;
        table_->rows[id & LDAP_MSGID_ROW_MASK].flags |= flags;
        return id;
    }
    int file(int msgid, int type)
    {
        LDAPMessage *m = response(lc_, msgid, type);
        pthread_mutex_lock(&table_->table_lock);
        int rc = put_msg_in_table(table_, m);
        if (rc != 0)
            free_msg(m, 0);
        pthread_mutex_unlock(&table_->table_lock);
        return rc;
    }
    int verify(int msgid, int all = 0) { return verify_msgid_n_acquire_row(ld_, table_, &msgid, all); }
    // An outstanding id whose row holds entry, entry, result; returns the three records.
    int search_row(LDAPMessage *out[3])
    {
        int id = outstanding();
        const int types[3] = {LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_RESULT};
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(put_msg_in_table(table_, out[i] = response(lc_, id, types[i])), 0);
        return id;
    }
};

} // namespace

// Ids start at 1; when all 255 are out the lowest free row is reused with the row's next
// generation (a late response for the old operation cannot be taken for the new one's);
// a full table grows at 256, up to 65536 rows; a failed growth leaves the table as it was.
TEST(TableIds, WrapsToTheLowestFreeIdAndGrowsWhenFull)
{
    TablePtr t = make_table();
    for (int expect = 1; expect <= 255; ++expect)
        ASSERT_EQ(ldap_msg_table_get_next_msgid(t.get()), expect);
    EXPECT_EQ(t->rows[255].hop_limit, -1);
    for (int id : {7, 3, 3}) // a second release of a free row changes nothing
        ldap_msg_table_release_msgid(t.get(), id);
    EXPECT_EQ(t->free_rows, 3); // row 0 counts as free
    EXPECT_EQ(ldap_msg_table_get_next_msgid(t.get()), (1 << 16) | 3);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(t.get()), (1 << 16) | 7); // forward again from 4
    lber_fail_nth_alloc(1);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(t.get()), LDAP_MSGID_NO_MEMORY);
    lber_fail_nth_alloc(0);
    EXPECT_EQ(t->free_rows, 1);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(t.get()), 256); // full: grows
    EXPECT_EQ(t->free_rows, 256);
    EXPECT_EQ(ldap_msg_table_get_next_msgid(nullptr), -1);

    t = make_table(LDAP_MAX_TBL_SIZE);
    for (int i = 1; i < 65536; ++i)
        ASSERT_EQ(ldap_msg_table_get_next_msgid(t.get()), i);
    TraceFile trace;
    EXPECT_EQ(ldap_msg_table_get_next_msgid(t.get()), -1);
    EXPECT_TRUE(trace.contains("cannot grow beyond LDAP_MAX_TBL_SIZE==65536 rows!\n"));
    EXPECT_EQ(walk_alloc_failures([] {
                  LDAPMsgTable *table = ldap_msg_table_init(256);
                  ldap_msg_table_free(table);
                  return table != nullptr;
              }),
              2);
}

// Ids out of range, never handed out, or owned by another thread: Result.ArgumentAndOwnershipChecks.
TEST_F(Rows, VerificationRefusesBadIdsAndSecondCollectors)
{
    int id = outstanding();
    EXPECT_EQ(verify(0, LDAP_MSG_ONE), 0);
    EXPECT_EQ(verify(id), 0);
    EXPECT_EQ(verify(id), 0); // the owner again
    ASSERT_EQ(file(id, LDAP_RES_EXTENDED), 0);
    EXPECT_EQ(verify(id), 0); // complete, one still undelivered
    LDAPMessage *got = nullptr;
    ASSERT_EQ(ldap_msg_table_take_next(&table_->rows[id], &got), 1);
    free_msg(got, 0); // a record taken is the taker's
    EXPECT_EQ(verify(id), LDAP_LOCAL_ERROR); // the result was collected already
    EXPECT_EQ(verify(outstanding(ROW_ABANDONED)), LDAP_PARAM_ERROR);
}

TEST_F(Rows, AnyWaitersRotateOverUnclaimedRows)
{
    int msgid = -1;
    EXPECT_EQ(verify_msgid_n_acquire_row(ld_, table_, &msgid, LDAP_MSG_ONE), 0);
    EXPECT_EQ(msgid, 0); // nothing outstanding: row 0
    EXPECT_EQ(verify(-1, LDAP_MSG_ALL), LDAP_PARAM_ERROR);
    int a = outstanding(), b = outstanding(), c = outstanding();
    // Thread ids of finished threads are reused: each claim is handed to a stand-in owner
    // afterwards, so that the next thread is a stranger to every claimed row.
    auto any_from_new_thread = [&] {
        int m = -1;
        std::thread([&] { EXPECT_EQ(ldap_get_msg_any(ld_, table_, &m, 0), 0); }).join();
        if (m > 0)
            table_->rows[m].owner = static_cast<pthread_t>(1);
        return m;
    };
    EXPECT_EQ(any_from_new_thread(), a);
    EXPECT_EQ(any_from_new_thread(), b);
    // The rotation goes on past the last shared row, not back to the lowest unclaimed id.
    table_->rows[b].owner = 0;
    table_->last_shared_row = b;
    EXPECT_EQ(any_from_new_thread(), c);
    table_->last_shared_row = c;
    EXPECT_EQ(any_from_new_thread(), b); // nothing above c: the first candidate
    // A thread that owns an unfinished row is given that row.
    int mine = outstanding();
    table_->rows[mine].owner = pthread_self();
    EXPECT_EQ(ldap_get_msg_any(ld_, table_, &msgid, 0), 0);
    EXPECT_EQ(msgid, mine);
}

TEST_F(Rows, FilingRefusesWhatNobodyCanCollect)
{
    for (int id : {300, 256, 5}) // outside, the row count, no request
        EXPECT_EQ(file(id, LDAP_RES_SEARCH_RESULT), LDAP_OTHER) << id;
    EXPECT_EQ(file(0, LDAP_RES_EXTENDED), 0); // unsolicited: row 0, which it does not complete
    EXPECT_EQ(table_->rows[0].flags & ROW_COMPLETE, 0u);
    int id = outstanding();
    ASSERT_EQ(file(id, LDAP_RES_SEARCH_ENTRY), 0);
    ASSERT_EQ(file(id, LDAP_RES_SEARCH_RESULT), 0);
    EXPECT_EQ(file(id, LDAP_RES_SEARCH_ENTRY), LDAP_OTHER); // behind the end

    int abandoned = outstanding(ROW_ABANDONED);
    {
        TraceFile trace;
        EXPECT_EQ(file(abandoned, LDAP_RES_SEARCH_ENTRY), LDAP_OTHER);
        EXPECT_TRUE(trace.contains("put_msg_in_table: Cant store msg since abandon issued for msgid " +
                                   std::to_string(abandoned)));
    }
    EXPECT_EQ(table_->rows[abandoned].first, nullptr);
    // Released and handed out again: the old id names the row no more.
    ldap_msg_table_release_msgid(table_, abandoned);
    table_->last_msgid = abandoned - 1;
    int reused = outstanding();
    ASSERT_EQ(reused, abandoned | (1 << 16));
    EXPECT_EQ(file(abandoned, LDAP_RES_SEARCH_RESULT), LDAP_OTHER);
    EXPECT_EQ(table_->rows[abandoned].first, nullptr);
    EXPECT_EQ(file(reused, LDAP_RES_SEARCH_RESULT), 0);

    int unattended = outstanding(ROW_RELEASE_WHEN_DONE);
    int before = table_->free_rows;
    EXPECT_EQ(file(unattended, LDAP_RES_SEARCH_RESULT), 0);
    EXPECT_EQ(table_->free_rows, before + 1);
    EXPECT_EQ(table_->rows[unattended].flags, 0u);
}

TEST_F(Rows, ReleaseRulesAndLinks)
{
    int id = outstanding();
    EXPECT_EQ(ldap_msg_table_release_if_done(table_, id), 0); // not complete
    ASSERT_EQ(file(id, LDAP_RES_EXTENDED), 0);
    EXPECT_EQ(ldap_msg_table_release_if_done(table_, id), 0); // a response is still chained
    LDAPMessage *m = table_->rows[id].first;
    ldap_msg_table_unlink_response(m);
    EXPECT_EQ(table_->rows[id].last, nullptr);
    free_msg(m, 0);
    int before = table_->free_rows;
    EXPECT_EQ(ldap_msg_table_release_if_done(table_, id), 1);
    EXPECT_EQ(table_->free_rows, before + 1);
    // Releasing a request's id frees the request with the row.
    id = outstanding();
    ldap_msg_release_msgid(table_->rows[id].request);
    EXPECT_EQ(table_->free_rows, before + 1);
    EXPECT_EQ(table_->rows[id].request, nullptr);
    ldap_msg_release_msgid(nullptr);

    // mark_rows follows child links; release_child frees the parent's link.
    int parent = outstanding(), child = outstanding();
    auto *down = static_cast<LDAPRowLink *>(lber_malloc(sizeof(LDAPRowLink)));
    *down = {table_, child, nullptr};
    auto *up = static_cast<LDAPRowLink *>(lber_malloc(sizeof(LDAPRowLink)));
    *up = {table_, parent, nullptr};
    table_->rows[parent].child = down;
    table_->rows[child].parent = up;
    ldap_msg_table_mark_rows(ld_, parent, ROW_RELEASE_WHEN_DONE);
    EXPECT_NE(table_->rows[parent].flags & ROW_RELEASE_WHEN_DONE, 0u);
    EXPECT_NE(table_->rows[child].flags & ROW_RELEASE_WHEN_DONE, 0u);
    table_->rows[child].owner = pthread_self();
    before = table_->free_rows;
    ldap_msg_table_release_child(ld_, table_, child);
    EXPECT_EQ(table_->free_rows, before + 1);
    EXPECT_EQ(table_->rows[parent].child, nullptr);
    EXPECT_EQ(table_->rows[child].flags, 0u);
    EXPECT_EQ(thread_error(ld_), LDAP_SUCCESS);
}

TEST(TableSend, SendingFilesTheRequestAndAFailedSendKeepsItUntilTheIdIsReleased)
{
    LDAP *ld = ldap_init("127.0.0.1:9", 0); // nothing listens
    ASSERT_NE(ld, nullptr);
    LDAPMsgTable *table = ld->ld_defconn->table;
    int stored = -1;
    EXPECT_EQ(ldap_msg_table_send_message(nullptr, ld, nullptr, &stored, {}), LDAP_PARAM_ERROR);
    EXPECT_EQ(stored, 0);
    EXPECT_EQ(thread_error(ld), LDAP_PARAM_ERROR);
    int id = ldap_msg_table_get_next_msgid(table);
    LDAPMessage *req = ldap_msginit(ld->ld_defconn);
    req->lm_msgid = id;
    req->lm_ber = ldap_alloc_fber(ld, 0);
    ASSERT_EQ(fber_printf(req->lm_ber, "{it{ts}}", id, LDAP_REQ_EXTENDED, ber_tag_t{0x80}, "1.2"), 0);
    int rc = ldap_msg_table_send_message(table, ld, req, &stored, {});
    EXPECT_TRUE(rc == LDAP_CONNECT_ERROR || rc == LDAP_SERVER_DOWN) << rc;
    EXPECT_EQ(stored, 1);
    EXPECT_EQ(table->rows[id].request, req);
    ldap_msg_table_release_msgid(table, id); // frees the request with the row
    EXPECT_EQ(table->rows[id].request, nullptr);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// A record whose eyecatcher reads dead is refused everywhere, without crashing.
TEST_F(Rows, FreshRecordIsAliveAndFreedRecordIsRefused)
{
    LDAPMessage *m = ldap_msginit(lc_);
    EXPECT_EQ(m->lm_conn, lc_);
    EXPECT_EQ(ldap_msg_valid(m), 1);
    EXPECT_EQ(ldap_msg_valid(nullptr), 0);
    EXPECT_EQ(ldap_msgid(nullptr), -1);
    free_msg(m, 0);
    LDAPMessage dead = {};
    memcpy(dead.lm_eyecatcher, "EYEDEADE", 8);
    TraceFile trace;
    EXPECT_EQ(ldap_msg_valid(&dead), 0);
    EXPECT_EQ(ldap_msgfree(&dead), 0);
    EXPECT_TRUE(trace.contains("INVALID: ldap_msgfree invalid parm: "));
    EXPECT_EQ(ldap_next_message(ld_, &dead), nullptr);
    EXPECT_EQ(ldap_operations_in_progress(ld_), 0u); // the walker ended its operation even so
    EXPECT_EQ(ldap_msgfree(nullptr), 0);
}

TEST_F(Rows, DeliveredRecordsLeaveTheRowAndTheFinalOneReleasesTheId)
{
    LDAPMessage *r[3];
    int id = search_row(r);
    int free_before = table_->free_rows;
    for (int i = 0; i < 3; ++i) {
        LDAPMessage *got = nullptr;
        ASSERT_EQ(ldap_msg_table_get_message(ld_, table_, &id, {}, &got), r[i]->lm_msgtype);
        ASSERT_EQ(got, r[i]);
        got->lm_flags |= LDAP_MSG_SINGLE;
        EXPECT_EQ(got->lm_conn, nullptr); // nothing leads from it back to the handle
        EXPECT_EQ(ldap_count_messages(ld_, got), 1);
        EXPECT_EQ(ldap_next_message(ld_, got), nullptr);
    }
    EXPECT_EQ(table_->free_rows, free_before + 1);
    EXPECT_EQ(table_->rows[id].flags, 0u);
    EXPECT_EQ(ldap_msgfree(r[1]), LDAP_RES_SEARCH_ENTRY);
    EXPECT_EQ(ldap_msgfree(r[2]), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ldap_msgfree(r[0]), LDAP_RES_SEARCH_ENTRY);
}

TEST_F(Rows, ChainFreesEverythingAndReportsTheFinalType)
{
    LDAPMessage *r[3];
    int id = search_row(r);
    LDAPMessage *chain = nullptr;
    ASSERT_EQ(ldap_get_result(ld_, id, LDAP_MSG_ALL, {}, &chain, table_), LDAP_RES_SEARCH_RESULT);
    ASSERT_EQ(chain, r[0]);
    EXPECT_EQ(ldap_count_messages(ld_, r[0]), 3);
    EXPECT_EQ(ldap_next_message(ld_, r[0]), r[1]);
    EXPECT_EQ(ldap_next_message(ld_, r[2]), nullptr);
    EXPECT_EQ(ldap_count_messages(nullptr, r[0]), -1);
    EXPECT_EQ(ldap_count_messages(ld_, nullptr), 0);
    // Freed from the middle: the rest goes with it, the head's chain ends before it.
    EXPECT_EQ(ldap_msgfree(r[1]), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ldap_count_messages(ld_, r[0]), 1);
    EXPECT_EQ(ldap_msgfree(r[0]), LDAP_RES_SEARCH_ENTRY);
}
