// Handle options: the accepted ranges, the setter's version-dependent dereferencing, read-only
// options, copies of control lists and strings, and the global default handle.
#include <gtest/gtest.h>

#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_options.h"
#include "support/handle_util.h"
#include "support/ops_client.h"
#include "support/test_util.h"

namespace {

int set_int(LDAP *ld, int option, int value) { return ldap_set_option(ld, option, &value); }

int get_int(LDAP *ld, int option)
{
    int value = -12345;
    EXPECT_EQ(ldap_get_option(ld, option, &value), 0) << "option " << option;
    return value;
}

const void *as_value(intptr_t v) { return reinterpret_cast<const void *>(v); }

// The caller's copy of a control list option: its first OID, or "" for none.
std::string first_control(LDAP *ld, int option)
{
    LDAPControl **got = nullptr;
    EXPECT_EQ(ldap_get_option(ld, option, &got), 0);
    std::string oid = got != nullptr ? got[0]->ldctl_oid : "";
    ldap_controls_free(got);
    return oid;
}

class Options : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(h.ld, nullptr); }
    wzrtest::Handle h;
};

} // namespace

TEST_F(Options, EveryIntegerOptionChecksItsRange)
{
    const struct {
        int option, low, high; // high INT32_MAX: no upper bound
    } ranges[] = {{LDAP_OPT_SIZELIMIT, 0, INT32_MAX},          {LDAP_OPT_TIMELIMIT, 0, INT32_MAX},
                  {LDAP_OPT_DEREF, 0, 3},                      {LDAP_OPT_RESTART, 0, 1},
                  {LDAP_OPT_REFHOPLIMIT, 0, INT32_MAX},        {LDAP_OPT_SSL_TIMEOUT, 0, 86400},
                  {LDAP_OPT_REFERRAL_HOP_LIMIT, 0, INT32_MAX}, {LDAP_OPT_SASL_KRB_VERSION, 2, 3},
                  {LDAP_OPT_PROTOCOL_VERSION, 2, 3}};
    for (const auto &r : ranges) {
        SCOPED_TRACE(r.option);
        EXPECT_EQ(set_int(h.ld, r.option, r.low - 1), LDAP_PARAM_ERROR);
        EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR) << "a refusal is recorded";
        EXPECT_EQ(set_int(h.ld, r.option, r.low), 0);
        EXPECT_EQ(get_int(h.ld, r.option), r.low);
        EXPECT_EQ(ldap_get_errno(h.ld), 0);
        if (r.high != INT32_MAX) {
            EXPECT_EQ(set_int(h.ld, r.option, r.high + 1), LDAP_PARAM_ERROR);
            EXPECT_EQ(get_int(h.ld, r.option), r.low) << "a refused value changes nothing";
        }
        EXPECT_EQ(set_int(h.ld, r.option, r.high), 0);
        EXPECT_EQ(get_int(h.ld, r.option), r.high);
    }
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_REFHOPLIMIT, 7), 0); // options 5 and 53 are one field
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_REFERRAL_HOP_LIMIT), 7);
    // Flags take their value in the pointer itself.
    for (int option : {LDAP_OPT_REFERRALS, LDAP_OPT_UTF8_IO, LDAP_OPT_BIND_FLAG}) {
        SCOPED_TRACE(option);
        EXPECT_EQ(ldap_set_option(h.ld, option, LDAP_OPT_OFF), 0);
        EXPECT_EQ(get_int(h.ld, option), 0);
        EXPECT_EQ(ldap_set_option(h.ld, option, LDAP_OPT_ON), 0);
        EXPECT_EQ(ldap_set_option(h.ld, option, as_value(2)), LDAP_PARAM_ERROR);
        EXPECT_EQ(get_int(h.ld, option), 1);
    }
    // The trace mask is process-wide and 16 bits wide.
    unsigned before = ldap_debug_enabled();
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_DEBUG, 0x10000), LDAP_PARAM_ERROR);
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_DEBUG, -1), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_debug_enabled(), before);
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_DEBUG, 0), 0);
    EXPECT_EQ(ldap_debug_enabled() + get_int(h.ld, LDAP_OPT_DEBUG), 0u);
    ldap_set_debug_mask(before);
}

TEST_F(Options, ReadOnlyAndUnknownOptionsAndBadHandlesAreRefused)
{
    int value = 1;
    for (int option : {10, 11, 20, 21, 48, 49, 50, 51, 12, 16, 55, 999, -3}) {
        SCOPED_TRACE(option);
        EXPECT_EQ(ldap_set_option(h.ld, option, &value), LDAP_PARAM_ERROR);
        EXPECT_EQ(ldap_set_option_direct(h.ld, option, &value), LDAP_PARAM_ERROR);
    }
    EXPECT_EQ(ldap_set_option(h.ld, -3, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(h.ld, 999, &value), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_ERROR_STRING, nullptr), LDAP_PARAM_ERROR);
    wzrtest::BareHandle bad("EYEDEADL");
    EXPECT_EQ(ldap_set_option(&bad.ld, LDAP_OPT_SIZELIMIT, &value), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_option(&bad.ld, LDAP_OPT_SIZELIMIT, &value), LDAP_PARAM_ERROR);
}

TEST_F(Options, NullIsRefusedAtVersion3AndTakenAsZeroAtVersion2)
{
    ASSERT_EQ(get_int(h.ld, LDAP_OPT_PROTOCOL_VERSION), 3);
    ASSERT_EQ(set_int(h.ld, LDAP_OPT_SIZELIMIT, 50), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_SIZELIMIT, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_SIZELIMIT), 50);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_API_INFO, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_PROTOCOL_VERSION, nullptr), LDAP_PARAM_ERROR);

    ASSERT_EQ(set_int(h.ld, LDAP_OPT_PROTOCOL_VERSION, 2), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_SIZELIMIT, nullptr), 0);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_SIZELIMIT), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_TIMELIMIT, as_value(25)), 0)
        << "an old caller's integer in the pointer";
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_TIMELIMIT), 25);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_DEREF, as_value(4)), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_PROTOCOL_VERSION, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_API_INFO, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(set_int(h.ld, LDAP_OPT_PROTOCOL_VERSION, 4), LDAP_PARAM_ERROR);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_PROTOCOL_VERSION), 2);
}

TEST_F(Options, ApiFeatureConnectionAndErrorRecordReads)
{
    LDAPAPIInfo info{};
    info.ldapai_info_version = 99;
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);
    EXPECT_EQ(info.ldapai_info_version, LDAP_API_INFO_VERSION) << "tells the version it speaks";
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_INFO, &info), 0);
    EXPECT_EQ(info.ldapai_protocol_version, 3);
    EXPECT_EQ(info.ldapai_vendor_version, LDAP_VENDOR_VERSION);
    EXPECT_STREQ(info.ldapai_vendor_name, "wzrldap");
    ASSERT_NE(info.ldapai_extensions, nullptr);
    EXPECT_STREQ(info.ldapai_extensions[0], "VIRTUAL_LIST_VIEW");
    EXPECT_EQ(info.ldapai_extensions[1], nullptr) << "one extension";
    ldap_api_info_free(&info);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_API_INFO, &info), LDAP_PARAM_ERROR);
    wzrtest::walk_alloc_failures([&] {
        LDAPAPIInfo walked{};
        walked.ldapai_info_version = LDAP_API_INFO_VERSION;
        int rc = ldap_get_option(h.ld, LDAP_OPT_API_INFO, &walked);
        ldap_api_info_free(&walked);
        return rc == 0;
    });
    LDAPAPIFeatureInfo feature{LDAP_FEATURE_INFO_VERSION, "VIRTUAL_LIST_VIEW", 0};
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_FEATURE_INFO, &feature), 0);
    EXPECT_EQ(feature.ldapaif_version, LDAP_API_FEATURE_VIRTUAL_LIST_VIEW);
    feature.ldapaif_name = "TIME_TRAVEL";
    EXPECT_EQ(ldap_get_option(h.ld, LDAP_OPT_API_FEATURE_INFO, &feature), LDAP_PARAM_ERROR);
    EXPECT_EQ(feature.ldapaif_version, 0);

    EXPECT_EQ(get_int(h.ld, LDAP_OPT_DESC), -1) << "not connected yet";
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_PORT), 389);
    char *text = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_HOST_NAME, &text), 0);
    EXPECT_STREQ(text, "localhost");
    EXPECT_NE(text, h.ld->ld_defconn->host);
    lber_free(text);
    ASSERT_EQ(ldap_set_lderrno_direct(h.ld, 32, "dc=m", "not there"), 0);
    ASSERT_EQ(ldap_set_ext_error(h.ld, 406), 0);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_ERROR_NUMBER), 32);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_ERROR_NUMBER), 32) << "reading leaves the record alone";
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_ERROR_STRING, &text), 0);
    EXPECT_STREQ(text, "not there");
    lber_free(text);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_EXT_ERROR), 406);
}

TEST_F(Options, StringsAndTimeoutAreCopiedAndNullClears)
{
    for (int option : {LDAP_OPT_SSL_KEYRING, LDAP_OPT_SSL_CERT_LABEL}) {
        char given[] = "TLSv1.2";
        ASSERT_EQ(ldap_set_option(h.ld, option, given), 0);
        given[0] = 'X';
        char *got = nullptr;
        ASSERT_EQ(ldap_get_option(h.ld, option, &got), 0);
        EXPECT_STREQ(got, "TLSv1.2");
        lber_free(got);
        ASSERT_EQ(ldap_set_option(h.ld, option, nullptr), 0);
        ASSERT_EQ(ldap_get_option(h.ld, option, &got), 0);
        EXPECT_EQ(got, nullptr);
    }
    struct timeval tv = {3, 500};
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &tv), 0);
    tv.tv_sec = 99;
    struct timeval *got = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &got), 0);
    ASSERT_NE(got, nullptr);
    EXPECT_TRUE(got->tv_sec == 3 && got->tv_usec == 500);
    lber_free(got);
    struct timeval negative = {-1, 0};
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &negative), LDAP_PARAM_ERROR);
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, nullptr), 0);
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_CONNECT_TIMEOUT, &got), 0);
    EXPECT_EQ(got, nullptr);
    int marker = 0;
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_REBIND_FN, &marker), 0);
    void *proc = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_REBIND_FN, &proc), 0);
    EXPECT_EQ(proc, &marker);
}

TEST_F(Options, ControlListsAreCopiedBothWays)
{
    LDAPControl **given = wzrtest::control_list({{"1.2.3.4", false, "\x04\x03" "abc"},
                                                 {"2.16.840.1.113730.3.4.2", false}});
    LDAPControl **critical = wzrtest::control_list({{"1.2.3.4", false}, {"2.16.840.1", true}});
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SERVER_CONTROLS, given), 0);
    ASSERT_NE(h.ld->ld_sctrls, nullptr);
    EXPECT_NE(h.ld->ld_sctrls[0]->ldctl_oid, given[0]->ldctl_oid) << "the handle's own copy";
    LDAPControl **got = nullptr;
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_SERVER_CONTROLS, &got), 0);
    ASSERT_NE(got, nullptr);
    EXPECT_NE(got[0]->ldctl_oid, h.ld->ld_sctrls[0]->ldctl_oid) << "the caller's own copy";
    EXPECT_STREQ(got[0]->ldctl_oid, "1.2.3.4");
    EXPECT_EQ(std::string(got[0]->ldctl_value.bv_val, got[0]->ldctl_value.bv_len), "\x04\x03" "abc");
    EXPECT_STREQ(got[1]->ldctl_oid, "2.16.840.1.113730.3.4.2");
    EXPECT_EQ(got[2], nullptr);
    ldap_controls_free(got);

    // Client controls: a critical one cannot be honoured and is refused; the old list stays.
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_CLIENT_CONTROLS, given), 0);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_CLIENT_CONTROLS, critical),
              LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ASSERT_EQ(ldap_get_option(h.ld, LDAP_OPT_CLIENT_CONTROLS, &got), 0);
    EXPECT_EQ(got[1]->ldctl_iscritical, 0);
    ldap_controls_free(got);
    EXPECT_EQ(ldap_set_option(h.ld, LDAP_OPT_SERVER_CONTROLS, critical), 0)
        << "server controls may be critical";
    ASSERT_EQ(ldap_set_option(h.ld, LDAP_OPT_SERVER_CONTROLS, nullptr), 0);
    EXPECT_EQ(first_control(h.ld, LDAP_OPT_SERVER_CONTROLS), "");

    // Every allocation of a new list can fail; the list held before stays whole.
    for (int option : {LDAP_OPT_SERVER_CONTROLS, LDAP_OPT_CLIENT_CONTROLS}) {
        SCOPED_TRACE(option);
        ASSERT_EQ(ldap_set_option(h.ld, option, given), 0);
        int walked = wzrtest::walk_alloc_failures([&] {
            int rc = ldap_set_option(h.ld, option, given);
            if (rc != 0) {
                EXPECT_EQ(rc, LDAP_NO_MEMORY);
                EXPECT_EQ(ldap_get_errno(h.ld), LDAP_NO_MEMORY);
                EXPECT_EQ(first_control(h.ld, option), "1.2.3.4");
            }
            return rc == 0;
        });
        EXPECT_GT(walked, 3);
        ASSERT_EQ(ldap_set_option(h.ld, option, nullptr), 0);
    }
    ldap_controls_free(given);
    ldap_controls_free(critical);
}

TEST(GlobalDefaults, NullHandleChangesOnlyTheGlobalDefault)
{
    LDAP *global = ld_set_global_default();
    ASSERT_NE(global, nullptr);
    EXPECT_EQ(ld_set_global_default(), global) << "created once";
    EXPECT_EQ(global->ld_bind_flag, 0) << "unlike a handle's";
    ASSERT_EQ(set_int(nullptr, LDAP_OPT_SIZELIMIT, 500), 0);
    ASSERT_EQ(set_int(nullptr, LDAP_OPT_TIMELIMIT, 30), 0);
    EXPECT_EQ(get_int(nullptr, LDAP_OPT_SIZELIMIT), 500);
    EXPECT_EQ(set_int(nullptr, LDAP_OPT_DEREF, 9), LDAP_PARAM_ERROR);
    wzrtest::Handle h;
    ASSERT_NE(h.ld, nullptr);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_SIZELIMIT), 0) << "new handles start from their own values";
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_TIMELIMIT), 0);
    EXPECT_EQ(get_int(h.ld, LDAP_OPT_BIND_FLAG), 1);
    ASSERT_EQ(set_int(nullptr, LDAP_OPT_SIZELIMIT, 0) + set_int(nullptr, LDAP_OPT_TIMELIMIT, 0), 0);
}
