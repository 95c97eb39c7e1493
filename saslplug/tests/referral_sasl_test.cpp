// A handle bound with SCRAM-SHA-256 through the plug-in chases a referral to a second slapd and
// is bound there as the same user: it reads alice's password, which only she may read (an
// anonymous chase, all a rebind was before, does not).
#include <gtest/gtest.h>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_config.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_referrals.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"

TEST(ReferralSasl, ChasedReferralIsBoundWithTheHandlesSaslMechanismAndCredentials)
{
    if (!wzrtest::SlapdFixture::available())
        GTEST_SKIP() << "slapd is not installed";
    wzrtest::SlapdFixture second, first; // the first refers ou=partners to the second's people
    wzrtest::SlapdOptions one;
    ASSERT_TRUE(second.start()) << second.error();
    one.extra_ldif = "dn: ou=partners,dc=example,dc=com\nobjectClass: referral\nobjectClass: "
                     "extensibleObject\nou: partners\nref: " +
                     second.uri() + "/ou=people,dc=example,dc=com\n";
    ASSERT_TRUE(first.start(one)) << first.error();
    wzrtest::TempDir dir;
    wzrtest::ScopedEnv env{"QRVLDAP_CONF", dir.path()};
    wzrtest::write_file(dir.file("qrvldap.conf"), "plugin sasl SCRAM-SHA-256 " WZR_SASL_PLUGIN);
    ldap_conf_reset();
    LDAP *ld = ldap_init(first.host_port().c_str(), 0);
    struct berval pw = {first.user_pw().size(), const_cast<char *>(first.user_pw().c_str())};
    ASSERT_EQ(ldap_sasl_bind_s(ld, "alice", "SCRAM-SHA-256", &pw, nullptr, nullptr, nullptr), 0);
    // The procedure only consents: it names no one, and the handle's SASL bind is repeated.
    LDAPRebindProc consent = [](LDAP *, char **, char **, int *method, int) {
        return *method = LDAP_AUTH_SASL, 0;
    };
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_REBIND_FN, reinterpret_cast<void *>(consent)), 0);
    char *attrs[] = {const_cast<char *>("userPassword"), nullptr};
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_ext_s(ld, "ou=partners,dc=example,dc=com", LDAP_SCOPE_SUBTREE,
                                "(uid=alice)", attrs, 0, nullptr, nullptr, nullptr, 0, &res), 0);
    char **vals = ldap_get_values(ld, ldap_first_entry(ld, res), attrs[0]);
    EXPECT_EQ(vals != nullptr ? vals[0] : "(not shown)", second.user_pw());
    ldap_value_free(vals);
    ldap_msgfree(res);
    ldap_unbind(ld);
    ldap_conf_reset();
}
