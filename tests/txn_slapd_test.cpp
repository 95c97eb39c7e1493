// Transactions against slapd (whose mdb backend serves them): updates sent with the
// transaction control stay invisible until the end; a commit applies them all, an abort none,
// and a commit that one update spoils applies none and names that update.
#include <gtest/gtest.h>

#include <string>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/slapd_fixture.h"

namespace {

using wzrtest::SlapdFixture;

SlapdFixture &txn_slapd()
{
    static SlapdFixture fixture;
    static bool started = SlapdFixture::available() && fixture.start();
    (void)started;
    return fixture;
}

LDAP *manager()
{
    LDAP *ld = ldap_init(txn_slapd().host_port().c_str(), 0);
    EXPECT_EQ(ldap_simple_bind_s(ld, txn_slapd().manager_dn().c_str(),
                                 txn_slapd().manager_pw().c_str()), 0);
    return ld;
}

// How many entries match `filter`, seen by a handle outside the transaction.
int visible(const std::string &filter)
{
    LDAP *ld = manager();
    LDAPMessage *res = nullptr;
    (void)ldap_search_ext_s(ld, txn_slapd().base().c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(),
                            nullptr, 0, nullptr, nullptr, nullptr, 0, &res);
    int n = ldap_count_entries(ld, res);
    ldap_msgfree(res);
    ldap_unbind(ld);
    return n;
}

// Adds cn=NAME,BASE inside the transaction; the add's message id.
int add_in(LDAP *ld, LDAPControl *spec, const std::string &name)
{
    std::string dn = "cn=" + name + "," + txn_slapd().base();
    char *oc[] = {const_cast<char *>("device"), nullptr};
    char *cn[] = {const_cast<char *>(name.c_str()), nullptr};
    LDAPMod m1 = {LDAP_MOD_ADD, const_cast<char *>("objectClass"), {oc}};
    LDAPMod m2 = {LDAP_MOD_ADD, const_cast<char *>("cn"), {cn}};
    LDAPMod *attrs[] = {&m1, &m2, nullptr};
    LDAPControl *ctrls[] = {spec, nullptr};
    int msgid = -1;
    EXPECT_EQ(ldap_add_ext(ld, dn.c_str(), attrs, ctrls, nullptr, &msgid), 0);
    LDAPMessage *res = nullptr;
    EXPECT_EQ(ldap_result(ld, msgid, 1, nullptr, &res), LDAP_RES_ADD);
    EXPECT_EQ(ldap_result2error(ld, res, 1), 0) << name << " is queued, not refused";
    return msgid;
}

TEST(TxnSlapd, CommitAppliesEveryUpdateAbortNoneAndASpoiledCommitNamesItsUpdate)
{
    WZR_REQUIRE_SLAPD(txn_slapd());
    struct Case {
        const char *prefix;
        int commit;
        bool spoil; // the transaction's last add repeats its first
        int code, visible;
    } cases[] = {{"txcommit", 1, false, 0, 2}, {"txabort", 0, false, 0, 0},
                 {"txspoiled", 1, true, LDAP_ALREADY_EXISTS, 0}};
    for (const Case &c : cases) {
        LDAP *ld = manager();
        struct berval *txnid = nullptr;
        ASSERT_EQ(ldap_txn_start_s(ld, nullptr, nullptr, &txnid), 0) << c.prefix;
        LDAPControl *spec = nullptr;
        ASSERT_EQ(ldap_create_txn_spec_control(ld, txnid, &spec), 0);
        std::string p = c.prefix;
        (void)add_in(ld, spec, p + "1");
        int last = add_in(ld, spec, c.spoil ? p + "1" : p + "2");
        EXPECT_EQ(visible("(cn=" + p + "*)"), 0) << p << ": seen before the end";
        int failed = -2;
        EXPECT_EQ(ldap_txn_end_s(ld, c.commit, txnid, nullptr, nullptr, &failed), c.code) << p;
        EXPECT_EQ(failed, c.spoil ? last : -1) << p;
        EXPECT_EQ(visible("(cn=" + p + "*)"), c.visible) << p;
        ldap_control_free(spec);
        ber_bvfree(txnid);
        ldap_unbind(ld);
    }
}

} // namespace
