// Modify, add, delete, rename and compare requests byte for byte against the fake server, the
// argument checks and control handling of their _ext layers, and their failure paths.
#include <gtest/gtest.h>

#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/fber_bytes.h"
#include "support/ops_client.h"
#include "support/request_test.h"
#include "support/test_util.h"

namespace {

using namespace wzrtest::fber;

struct UpdateTest : wzrtest::RequestTest {};

char *s(const char *text) { return const_cast<char *>(text); }

TEST_F(UpdateTest, ModifyWithBervalReplaceStringAddDeleteOrNothing)
{
    struct berval v1 = {3, s("a\0b")};
    struct berval v2 = {0, s("")};
    struct berval *bvals[] = {&v1, &v2, nullptr};
    LDAPMod replace = {0x82, s("jpegPhoto"), {}};
    replace.mod_bvalues = bvals;
    char *mails[] = {s("x@example.com"), nullptr};
    LDAPMod add = {LDAP_MOD_ADD, s("mail"), {mails}};
    LDAPMod del = {LDAP_MOD_DELETE, s("description"), {nullptr}};
    LDAPMod *mods[] = {&replace, &add, &del, nullptr};
    ASSERT_EQ(ldap_modify_s(ld, "cn=x,dc=example", mods), 0);
    expect_request(0x66, cons(0x66, str("cn=x,dc=example") +
                                         seq(seq(enumerated(2) +
                                                 seq(str("jpegPhoto") +
                                                     set(str(Bytes("a\0b", 3)) + str("")))) +
                                             seq(enumerated(0) +
                                                 seq(str("mail") + set(str("x@example.com")))) +
                                             seq(enumerated(1) + seq(str("description") + set(""))))));
    ASSERT_EQ(ldap_modify_s(ld, "cn=x", nullptr), 0); // no modifications: an empty list
    expect_request(0x66, cons(0x66, str("cn=x") + seq("")));
}

TEST_F(UpdateTest, AddIgnoresTheOperationPart)
{
    char *oc[] = {s("person"), s("top"), nullptr};
    struct berval photo = {2, s("\xff\x00")};
    struct berval *photos[] = {&photo, nullptr};
    LDAPMod m_oc = {LDAP_MOD_REPLACE, s("objectClass"), {oc}};
    LDAPMod m_photo = {LDAP_MOD_DELETE | LDAP_MOD_BVALUES, s("jpegPhoto"), {}};
    m_photo.mod_bvalues = photos;
    LDAPMod *attrs[] = {&m_oc, &m_photo, nullptr};
    ASSERT_EQ(ldap_add_s(ld, "cn=new,dc=example", attrs), 0);
    expect_request(0x68, cons(0x68, str("cn=new,dc=example") +
                                         seq(seq(str("objectClass") + set(str("person") + str("top"))) +
                                             seq(str("jpegPhoto") + set(str(Bytes("\xff\0", 2)))))));
}

TEST_F(UpdateTest, DeleteIsThePrimitiveDnAndRenameHasAnOptionalNewSuperior)
{
    ASSERT_EQ(ldap_delete_s(ld, "cn=gone,dc=example"), 0);
    expect_request(0x4a, prim(0x4a, "cn=gone,dc=example"));
    ASSERT_EQ(ldap_modrdn_s(ld, "cn=a,dc=example", "cn=b", 1), 0);
    expect_request(0x6c, cons(0x6c, str("cn=a,dc=example") + str("cn=b") + boolean(true)));
    ASSERT_EQ(ldap_rename_s(ld, "cn=b,dc=example", "cn=c", "ou=other,dc=example", 0, nullptr,
                            nullptr),
              0);
    expect_request(0x6c, cons(0x6c, str("cn=b,dc=example") + str("cn=c") + boolean(false) +
                                         prim(0x80, "ou=other,dc=example")));
}

TEST_F(UpdateTest, CompareOfAnEmptyValueAndServerResultCodes)
{
    EXPECT_EQ(ldap_compare_s(ld, "cn=a", "description", ""), LDAP_COMPARE_TRUE);
    expect_request(0x6e, cons(0x6e, str("cn=a") + seq(str("description") + str(""))));
    struct berval empty = {0, nullptr};
    EXPECT_EQ(ldap_compare_ext_s(ld, "cn=a", "description", &empty, nullptr, nullptr),
              LDAP_COMPARE_TRUE);
    expect_request(0x6e, cons(0x6e, str("cn=a") + seq(str("description") + str(""))));
    server.answer_with(0x6e, LDAP_COMPARE_FALSE);
    EXPECT_EQ(ldap_compare_s(ld, "cn=a", "sn", "x"), LDAP_COMPARE_FALSE);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_COMPARE_FALSE);
    // Other operations return and record the server's code too.
    server.answer_with(0x68, LDAP_ALREADY_EXISTS);
    EXPECT_EQ(ldap_add_s(ld, "cn=dup", nullptr), LDAP_ALREADY_EXISTS);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_ALREADY_EXISTS);
    server.answer_with(0x4a, LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(ldap_delete_s(ld, "cn=none"), LDAP_NO_SUCH_OBJECT);
}

TEST_F(UpdateTest, ServerControlsFollowTheOperationDefaultsAfterTheCallers)
{
    LDAPControl **defaults = wzrtest::control_list({{"1.2.3", true}});
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults), 0);
    ldap_controls_free(defaults);
    LDAPControl **given = wzrtest::control_list({{"4.5", false, "v"}});
    ASSERT_EQ(ldap_delete_ext_s(ld, "cn=x", given, nullptr), 0);
    ldap_controls_free(given);
    expect_request(0x4a, prim(0x4a, "cn=x"),
                   cons(0xa0, seq(str("4.5") + boolean(false) + str("v")) +
                                  seq(str("1.2.3") + boolean(true))));
}

TEST_F(UpdateTest, ArgumentChecksSendNothing)
{
    int id = 7;
    EXPECT_EQ(ldap_delete_ext(ld, nullptr, nullptr, nullptr, &id), LDAP_PARAM_ERROR);
    EXPECT_EQ(id, -1);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_modify_ext(ld, "cn=x", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_rename(ld, "cn=x", nullptr, nullptr, 1, nullptr, nullptr, &id),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_compare_ext_s(ld, "cn=x", nullptr, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_delete(ld, nullptr), -1);
    // A critical client control is not understood: 12, nothing sent.
    LDAPControl **critical = wzrtest::control_list({{"9.9", true}});
    EXPECT_EQ(ldap_add_ext_s(ld, "cn=x", nullptr, nullptr, critical),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ldap_controls_free(critical);
    // An attribute without a type cannot be encoded.
    LDAPMod untyped = {LDAP_MOD_ADD, nullptr, {nullptr}};
    LDAPMod *bad[] = {&untyped, nullptr};
    EXPECT_EQ(ldap_add_s(ld, "cn=x", bad), LDAP_ENCODING_ERROR);
    EXPECT_EQ(server.server().request_count(), 0u);
    // An invalid handle is refused without being touched further.
    char junk[sizeof(LDAP)] = {};
    EXPECT_EQ(ldap_delete_s(reinterpret_cast<LDAP *>(junk), "cn=x"), LDAP_PARAM_ERROR);
}

TEST_F(UpdateTest, AsynchronousFormsHandOutIdsInOrder)
{
    int first = ldap_delete(ld, "cn=1");
    int second = ldap_compare(ld, "cn=2", "cn", "2");
    ASSERT_GT(first, 0);
    ASSERT_GT(second, first);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(ld, second, 1, nullptr, &res), LDAP_RES_COMPARE);
    EXPECT_EQ(ldap_result2error(ld, res, 1), LDAP_COMPARE_TRUE);
    ASSERT_EQ(ldap_result(ld, first, 1, nullptr, &res), LDAP_RES_DELETE);
    EXPECT_EQ(ldap_result2error(ld, res, 1), 0);
}

TEST(UpdateFailures, DeadServerIsReported)
{
    int port;
    {
        wzrtest::FakeServer gone;
        port = gone.port();
    }
    LDAP *ld = ldap_init("127.0.0.1", port);
    ASSERT_NE(ld, nullptr);
    int rc = ldap_delete_s(ld, "cn=x");
    EXPECT_TRUE(rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR) << rc;
    EXPECT_EQ(ldap_delete_s(ld, "cn=x"), LDAP_SERVER_DOWN);
    ldap_unbind(ld);
}

TEST(UpdateFailures, AllocationFailuresLeakNothing)
{
    wzrtest::AnsweringServer server;
    LDAPControl **ctrls = wzrtest::control_list({{"1.2", false}});
    auto attempt = [&] {
        LDAP *ld = server.open();
        if (ld == nullptr)
            return false;
        char *vals[] = {s("v1"), s("v2"), nullptr};
        LDAPMod mod = {LDAP_MOD_REPLACE, s("description"), {vals}};
        LDAPMod *mods[] = {&mod, nullptr};
        bool ok = ldap_modify_ext_s(ld, "cn=x", mods, ctrls, nullptr) == 0;
        ldap_unbind(ld);
        return ok;
    };
    // One clean run first: process-wide state made once (environment, caches) is not a leak.
    ASSERT_TRUE(attempt());
    int walked = wzrtest::walk_alloc_failures(attempt);
    ldap_controls_free(ctrls);
    EXPECT_GT(walked, 5);
}

} // namespace
