// A handle bound with SCRAM-SHA-256 through the plug-in chases a referral to a second slapd and
// is bound there as the same user: alice's userPassword, which only alice herself may read,
// comes back from the second server; anonymous chasing does not see it, and a password the
// second server does not know makes the chase fail with 49.
#include <gtest/gtest.h>

#include <string>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_config.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_referrals.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"

namespace {

using wzrtest::SlapdFixture;

// The first server refers ou=partners to the second's people.
struct TwoServers {
    SlapdFixture second, first;
    TwoServers()
    {
        if (!SlapdFixture::available() || !second.start())
            return;
        wzrtest::SlapdOptions one;
        one.extra_ldif = "dn: ou=partners,dc=example,dc=com\nobjectClass: referral\n"
                         "objectClass: extensibleObject\nou: partners\nref: " +
                         second.uri() + "/ou=people,dc=example,dc=com\n\n";
        (void)first.start(one);
    }
};

// Consents to rebinding without naming anyone: the handle's own SASL bind is repeated.
int rebind_as_before(LDAP *, char **, char **, int *method, int freeit)
{
    if (freeit == 0)
        *method = LDAP_AUTH_SASL;
    return 0;
}

// alice's password as the search through the referral shows it ("" when not shown); the
// search's code into *rc.
std::string password_seen(LDAP *ld, int *rc)
{
    char attr[] = "userPassword";
    char *attrs[] = {attr, nullptr};
    LDAPMessage *res = nullptr;
    *rc = ldap_search_ext_s(ld, "ou=partners,dc=example,dc=com", LDAP_SCOPE_SUBTREE,
                            "(uid=alice)", attrs, 0, nullptr, nullptr, nullptr, 0, &res);
    std::string seen;
    LDAPMessage *e = ldap_first_entry(ld, res);
    char **vals = e != nullptr ? ldap_get_values(ld, e, attr) : nullptr;
    if (vals != nullptr && vals[0] != nullptr)
        seen = vals[0];
    ldap_value_free(vals);
    ldap_msgfree(res);
    return seen;
}

TEST(ReferralSasl, ChasedReferralIsBoundWithTheHandlesSaslMechanismAndCredentials)
{
    static TwoServers s;
    WZR_REQUIRE_SLAPD(s.second);
    WZR_REQUIRE_SLAPD(s.first);
    wzrtest::TempDir dir;
    wzrtest::ScopedEnv env{"QRVLDAP_CONF", dir.path()};
    wzrtest::write_file(dir.file("qrvldap.conf"),
                        std::string("plugin sasl SCRAM-SHA-256 ") + WZR_SASL_PLUGIN + "\n");
    ldap_conf_reset();
    LDAP *ld = ldap_init(s.first.host_port().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    struct berval pw = {s.first.user_pw().size(), const_cast<char *>(s.first.user_pw().c_str())};
    ASSERT_EQ(ldap_sasl_bind_s(ld, "alice", "SCRAM-SHA-256", &pw, nullptr, nullptr, nullptr), 0)
        << wzrtest::recorded_message(ld);
    int rc = -1;
    EXPECT_EQ(password_seen(ld, &rc), "") << "chased anonymously, without a rebind procedure";
    EXPECT_EQ(rc, 0);
    LDAPRebindProc proc = rebind_as_before;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(proc)), 0);
    EXPECT_EQ(password_seen(ld, &rc), s.second.user_pw());
    EXPECT_EQ(rc, 0) << wzrtest::recorded_message(ld);

    // The second server now knows another password: the rebind, and so the chase, fails.
    LDAP *admin = ldap_init(s.second.host_port().c_str(), 0);
    ASSERT_EQ(ldap_simple_bind_s(admin, s.second.manager_dn().c_str(),
                                 s.second.manager_pw().c_str()), 0);
    char changed[] = "changed-secret";
    char *vals[] = {changed, nullptr};
    LDAPMod mod = {LDAP_MOD_REPLACE, const_cast<char *>("userPassword"), {vals}};
    LDAPMod *mods[] = {&mod, nullptr};
    ASSERT_EQ(ldap_modify_s(admin, s.second.user_dn().c_str(), mods), 0);
    ldap_unbind(admin);
    EXPECT_EQ(password_seen(ld, &rc), "");
    EXPECT_EQ(rc, LDAP_INVALID_CREDENTIALS);
    ldap_unbind(ld);
    ldap_conf_reset();
}

} // namespace
