// The library against the shared real slapd where the tool (wzrldap_tool_test) does not take it:
// the asynchronous updates and compares, transactions, one connection shared by threads; and
// the fixture itself (stopped by its pid, restarted fresh).
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/engine_client.h"
#include "support/ops_client.h"
#include "support/slapd_fixture.h"

namespace {

// Every test works on the shared server through its own handle, bound as the manager.
class OpsSlapd : public ::testing::Test {
protected:
    void SetUp() override
    {
        WZR_REQUIRE_SLAPD(s);
        ld = ldap_init("127.0.0.1", s.port());
        ASSERT_EQ(collect(ldap_simple_bind(ld, s.manager_dn().c_str(), s.manager_pw().c_str()), LDAP_RES_BIND), 0);
    }
    void TearDown() override { ldap_unbind(ld); }
    // The code of the result of request `id`, whose response type is checked.
    int collect(int id, int type)
    {
        LDAPMessage *res = nullptr;
        EXPECT_EQ(ldap_result(ld, id, 1, nullptr, &res), type) << id;
        return ldap_result2error(ld, res, 1);
    }
    wzrtest::SlapdFixture &s = wzrtest::shared_slapd();
    LDAP *ld = nullptr;
};

// The asynchronous forms, each collected before the next is sent (the server may run the
// requests of one connection in parallel), and read back with compares; the synchronous
// updates are the tool's, in wzrldap_tool_test.
TEST_F(OpsSlapd, AsynchronousUpdatesAndComparesAreAnsweredByTheirIds)
{
    const std::string dn = "cn=Ops Async,ou=people," + s.base(), renamed = "cn=Ops Async2,ou=people," + s.base();
    (void)ldap_delete_s(ld, dn.c_str()); // a leftover of an aborted run
    wzrtest::Mods add{{LDAP_MOD_ADD, "objectClass", {"person"}}, {LDAP_MOD_ADD, "sn", {"Async"}},
                      {LDAP_MOD_ADD, "description", {"d"}}};
    wzrtest::Mods mods{{LDAP_MOD_REPLACE, "sn", {"Replaced"}}, {LDAP_MOD_DELETE, "description", {}}};
    EXPECT_EQ(collect(ldap_add(ld, dn.c_str(), add), LDAP_RES_ADD), 0);
    EXPECT_EQ(collect(ldap_compare(ld, dn.c_str(), "sn", "Async"), LDAP_RES_COMPARE), LDAP_COMPARE_TRUE);
    EXPECT_EQ(collect(ldap_modify(ld, dn.c_str(), mods), LDAP_RES_MODIFY), 0);
    struct berval bv = {8, const_cast<char *>("Replaced")};
    EXPECT_EQ(ldap_compare_ext_s(ld, dn.c_str(), "sn", &bv, nullptr, nullptr), LDAP_COMPARE_TRUE);
    EXPECT_EQ(ldap_compare_s(ld, dn.c_str(), "description", "d"), LDAP_NO_SUCH_ATTRIBUTE);
    EXPECT_EQ(collect(ldap_modrdn(ld, dn.c_str(), "cn=Ops Async2", 1), LDAP_RES_MODDN), 0);
    EXPECT_EQ(ldap_compare_s(ld, renamed.c_str(), "cn", "Ops Async"), LDAP_COMPARE_FALSE); // removed
    EXPECT_EQ(collect(ldap_delete(ld, renamed.c_str()), LDAP_RES_DELETE), 0);
    EXPECT_EQ(ldap_compare_s(ld, renamed.c_str(), "cn", "Ops Async2"), LDAP_NO_SUCH_OBJECT);
}

// Updates sent with the transaction control stay unseen until the end; a commit applies them
// all, an abort none, and a commit that one update spoils applies none and names that update.
TEST_F(OpsSlapd, CommitAppliesEveryUpdateAbortNoneAndASpoiledCommitNamesItsUpdate)
{
    LDAP *other = ldap_init(s.host_port().c_str(), 0);
    auto dn = [&](const std::string &cn) { return "cn=" + cn + "," + s.base(); };
    struct Case { std::string cn[2]; int commit, code, applied; } cases[] = {
        {{"txc1", "txc2"}, 1, 0, 2}, {{"txa1", "txa2"}, 0, 0, 0},
        {{"txs1", "txs1"}, 1, LDAP_ALREADY_EXISTS, 0}}; // the second add repeats the first
    for (const Case &c : cases) {
        auto seen = [&] { // by a handle outside the transaction
            int n = 0;
            for (const std::string &cn : c.cn)
                n += ldap_compare_s(other, dn(cn).c_str(), "cn", cn.c_str()) == LDAP_COMPARE_TRUE;
            return n;
        };
        struct berval *txnid = nullptr;
        LDAPControl *in_txn = nullptr;
        ASSERT_EQ(ldap_txn_start_s(ld, nullptr, nullptr, &txnid), 0);
        ASSERT_EQ(ldap_create_txn_spec_control(ld, txnid, &in_txn), 0);
        LDAPControl *ctrls[] = {in_txn, nullptr};
        int msgid = -1;
        for (const std::string &cn : c.cn) {
            wzrtest::Mods mods{{LDAP_MOD_ADD, "objectClass", {"device"}}, {LDAP_MOD_ADD, "cn", {cn}}};
            ASSERT_EQ(ldap_add_ext(ld, dn(cn).c_str(), mods, ctrls, nullptr, &msgid), 0);
            EXPECT_EQ(collect(msgid, LDAP_RES_ADD), 0) << "queued, not refused: " << cn;
        }
        EXPECT_EQ(seen(), 0) << c.cn[0] << " before the end";
        int failed = -2;
        EXPECT_EQ(ldap_txn_end_s(ld, c.commit, txnid, nullptr, nullptr, &failed), c.code);
        EXPECT_EQ(failed, c.code != 0 ? msgid : -1) << c.cn[0];
        EXPECT_EQ(seen(), c.applied) << c.cn[0];
        for (int i = 0; i < c.applied; ++i) // the shared server as it was
            (void)ldap_delete_s(ld, dn(c.cn[i]).c_str());
        ldap_control_free(in_txn);
        ber_bvfree(txnid);
    }
    ldap_unbind(other);
}

// Requests sent through ldap_send_request by threads at once come back by id.
TEST(EngineSlapdThreads, ManyThreadsShareOneConnection)
{
    wzrtest::SlapdFixture &slapd = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    LDAP *ld = ldap_init(slapd.host_port().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                int id = wzrtest::send_extended(ld);
                LDAPMessage *res = nullptr;
                struct timeval wait = {10, 0};
                ok += id > 0 && ldap_result(ld, id, LDAP_MSG_ONE, &wait, &res) == LDAP_RES_EXTENDED &&
                      ldap_msgid(res) == id;
                ldap_msgfree(res);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(ok.load(), 400);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

// The fixture itself: a private server with an extra entry is stopped by its pid (reaped, its
// directory kept until the next start) and starts again from fresh data.
TEST(SlapdFixture, StopsByPidAndRestartsFresh)
{
    if (!wzrtest::SlapdFixture::available())
        GTEST_SKIP() << "slapd is not installed";
    wzrtest::SlapdFixture s;
    wzrtest::SlapdOptions opts;
    opts.extra_ldif = "dn: cn=extra,ou=devices,dc=example,dc=com\nobjectClass: device\ncn: extra\n";
    ASSERT_TRUE(s.start(opts)) << s.error();
    EXPECT_NE(s.port(), wzrtest::shared_slapd().port());
    auto extra = [&] {
        std::string out;
        return wzrtest::run_capture("LDAPNOINIT=1 ldapsearch -x -H " + s.uri() +
                                        " -s base -b cn=extra,ou=devices,dc=example,dc=com 1.1 2>&1", &out);
    };
    EXPECT_EQ(extra(), 0);
    pid_t pid = s.pid();
    std::string dir = s.dir();
    s.stop();
    EXPECT_NE(kill(pid, 0), 0) << "the server was reaped";
    EXPECT_EQ(access(dir.c_str(), F_OK), 0) << "kept for inspection until destroyed";
    ASSERT_TRUE(s.start()) << s.error();
    EXPECT_NE(access(dir.c_str(), F_OK), 0) << "old directory left behind";
    EXPECT_EQ(extra(), LDAP_NO_SUCH_OBJECT);
}

} // namespace
