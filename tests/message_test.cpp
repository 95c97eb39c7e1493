// Message records: the eyecatcher discipline, freeing single records and chains with the
// types they report and the id release, and the chain walkers.
#include <gtest/gtest.h>

#include <cstring>

#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_queue.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"

using namespace wzrtest;

namespace {

class Messages : public ::testing::Test {
protected:
    void SetUp() override
    {
        ld_ = ldap_init("127.0.0.1:9", 0);
        ASSERT_NE(ld_, nullptr);
        lc_ = ld_->ld_defconn;
        table_ = lc_->table;
    }
    void TearDown() override { EXPECT_EQ(ldap_unbind(ld_), 0); }

    // An outstanding id whose row holds entry, entry, result; returns the three records.
    int search_row(LDAPMessage *out[3])
    {
        int id = ldap_msg_table_get_next_msgid(table_);
        LDAPMessage *req = ldap_msginit(lc_);
        req->lm_msgid = id;
        table_->rows[id].request = req;
        const int types[3] = {LDAP_RES_SEARCH_ENTRY, LDAP_RES_SEARCH_ENTRY,
                              LDAP_RES_SEARCH_RESULT};
        for (int i = 0; i < 3; ++i) {
            out[i] = ldap_msginit(lc_);
            out[i]->lm_msgid = id;
            out[i]->lm_msgtype = types[i];
            EXPECT_EQ(put_msg_in_table(table_, out[i]), 0);
        }
        return id;
    }

    LDAP *ld_ = nullptr;
    LDAPConn *lc_ = nullptr;
    LDAPMsgTable *table_ = nullptr;
};

} // namespace

TEST_F(Messages, FreshRecordIsAliveAndFreedRecordIsRefused)
{
    LDAPMessage *m = ldap_msginit(lc_);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->lm_msgtype, 48);
    EXPECT_EQ(m->lm_msgid, 0);
    EXPECT_EQ(m->lm_conn, lc_);
    EXPECT_EQ(memcmp(m->lm_eyecatcher, "EYEALIVE", 8), 0);
    EXPECT_EQ(ldap_msg_valid(m), 1);
    EXPECT_EQ(ldap_msg_valid(nullptr), 0);
    EXPECT_EQ(ldap_msgid(nullptr), -1);
    free_msg(m, 0);

    // A record whose eyecatcher reads dead is refused everywhere, without crashing.
    LDAPMessage dead = {};
    memcpy(dead.lm_eyecatcher, "EYEDEADE", 8);
    TraceCapture trace;
    EXPECT_EQ(ldap_msg_valid(&dead), 0);
    EXPECT_EQ(ldap_msgfree(&dead), 0);
    EXPECT_TRUE(trace.contains("INVALID: ldap_msgfree invalid parm: "));
    EXPECT_EQ(ldap_next_message(ld_, &dead), nullptr);
    EXPECT_EQ(ldap_operations_in_progress(ld_), 0u); // the walker ended its operation even so
    EXPECT_EQ(ldap_msgfree(nullptr), 0);
}

TEST_F(Messages, LastMessageRule)
{
    LDAPMessage m = {};
    for (int t : {0x61, 0x65, 0x67, 0x69, 0x6b, 0x6d, 0x6f, 0x78}) {
        m.lm_msgtype = t;
        EXPECT_EQ(is_last_msg(&m), 1) << t;
    }
    for (int t : {0x64, 0x73, 0x79, 48}) {
        m.lm_msgtype = t;
        EXPECT_EQ(is_last_msg(&m), 0) << t;
    }
}

TEST_F(Messages, DeliveredRecordsLeaveTheRowAndTheFinalOneReleasesTheId)
{
    LDAPMessage *r[3];
    int id = search_row(r);
    int free_before = table_->free_rows;
    for (int i = 0; i < 3; ++i) {
        LDAPMessage *got = nullptr;
        ASSERT_EQ(ldap_msg_table_get_message(ld_, table_, &id, {}, &got), r[i]->lm_msgtype);
        ASSERT_EQ(got, r[i]);
        got->lm_flags |= LDAP_MSG_SINGLE;
        EXPECT_EQ(got->lm_chain, nullptr);
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

TEST_F(Messages, ChainFreesEverythingAndReportsTheFinalType)
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

TEST_F(Messages, ReleaseMsgidOfARequestFreesItWithTheRow)
{
    int id = ldap_msg_table_get_next_msgid(table_);
    LDAPMessage *req = ldap_msginit(lc_);
    req->lm_msgid = id;
    table_->rows[id].request = req;
    int free_before = table_->free_rows;
    ldap_msg_release_msgid(req);
    EXPECT_EQ(table_->free_rows, free_before + 1);
    EXPECT_EQ(table_->rows[id].request, nullptr);
    ldap_msg_release_msgid(nullptr);
}
