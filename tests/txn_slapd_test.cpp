// Transactions against slapd (its mdb backend serves them): updates sent with the transaction
// control stay unseen until the end; a commit applies them all, an abort none, and a commit
// that one update spoils applies none and names that update.
#include <gtest/gtest.h>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/slapd_fixture.h"

TEST(TxnSlapd, CommitAppliesEveryUpdateAbortNoneAndASpoiledCommitNamesItsUpdate)
{
    wzrtest::SlapdFixture &s = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(s);
    LDAP *ld = ldap_init(s.host_port().c_str(), 0), *other = ldap_init(s.host_port().c_str(), 0);
    ASSERT_EQ(ldap_simple_bind_s(ld, s.manager_dn().c_str(), "manager-secret"), 0);
    auto dn = [&](const std::string &cn) { return "cn=" + cn + "," + s.base(); };
    char *oc[] = {const_cast<char *>("device"), nullptr}, *v[] = {nullptr, nullptr};
    LDAPMod m1 = {LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m2 = {LDAP_MOD_ADD, const_cast<char *>("cn"), {v}}, *mods[] = {&m1, &m2, nullptr};
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
            v[0] = const_cast<char *>(cn.c_str());
            LDAPMessage *res = nullptr;
            ASSERT_EQ(ldap_add_ext(ld, dn(cn).c_str(), mods, ctrls, nullptr, &msgid), 0);
            ASSERT_EQ(ldap_result(ld, msgid, 1, nullptr, &res), LDAP_RES_ADD);
            EXPECT_EQ(ldap_result2error(ld, res, 1), 0) << "queued, not refused: " << cn;
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
    ldap_unbind(ld);
    ldap_unbind(other);
}
