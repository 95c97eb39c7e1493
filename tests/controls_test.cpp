// Control lists: wire encoding (byte-exact), decoding of response and entry controls, copies,
// merging, release, the default-control merge of the _ext layers and the client-control check.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_unbind.h"
#include "support/msg_builder.h"
#include "support/test_util.h"

namespace {

using wzrtest::make_control;
using wzrtest::make_control_list;

struct Handle {
    LDAP *ld = ldap_init("localhost", 0);
    ~Handle() { (void)ldap_unbind(ld); }
};

std::string flatten(BerElement *ber)
{
    struct berval *bv = nullptr;
    EXPECT_EQ(ber_is_fber(ber) ? fber_flatten(ber, &bv) : ber_flatten(ber, &bv), 0);
    std::string out(bv->bv_val != nullptr ? bv->bv_val : "", bv->bv_len);
    ber_bvfree(bv);
    return out;
}

std::string bytes(std::initializer_list<int> b)
{
    std::string s;
    for (int c : b)
        s.push_back(static_cast<char>(c));
    return s;
}

// A decoder positioned at the start of `pdu`.
struct Reader {
    BerElement *ber;
    explicit Reader(const std::string &pdu)
    {
        struct berval bv = {pdu.size(), const_cast<char *>(pdu.data())};
        ber = fber_init(&bv);
    }
    ~Reader() { fber_free(ber); }
};

TEST(ControlEncoding, OneControlWithoutValueIsOidAndFalse)
{
    LDAPControl **list = make_control_list({make_control("1.2.3", false)});
    BerElement *ber = fber_alloc();
    ASSERT_EQ(put_ctrls_into_ber(ber, list), 0);
    // Every FBER constructed length is 0x84 and four bytes.
    EXPECT_EQ(flatten(ber), bytes({0xA0, 0x84, 0, 0, 0, 0x10, 0x30, 0x84, 0, 0, 0, 0x0A, 0x04, 5,
                                   '1', '.', '2', '.', '3', 0x01, 0x01, 0x00}));
    fber_free(ber);

    // The older encoder writes the same elements; with DER lengths they are minimal.
    BerElement *der = der_alloc();
    ASSERT_EQ(put_ctrls_into_ber_old(der, list), 0);
    EXPECT_EQ(flatten(der), bytes({0xA0, 0x0C, 0x30, 0x0A, 0x04, 5, '1', '.', '2', '.', '3',
                                   0x01, 0x01, 0x00}));
    ber_free(der, 1);
    ldap_controls_free(list);
}

TEST(ControlEncoding, ValueAndCriticalityAreWrittenInListOrder)
{
    LDAPControl **list = make_control_list(
        {make_control("1.1", true, "\x00\xFF", 2), make_control("1.2", false, "", 0)});
    BerElement *der = der_alloc();
    ASSERT_EQ(put_ctrls_into_ber_old(der, list), 0);
    // The empty value is present (its pointer is set), so it is written as an empty string.
    EXPECT_EQ(flatten(der),
              bytes({0xA0, 0x1A, 0x30, 0x0C, 0x04, 3, '1', '.', '1', 0x01, 0x01, 0xFF, 0x04, 2,
                     0x00, 0xFF, 0x30, 0x0A, 0x04, 3, '1', '.', '2', 0x01, 0x01, 0x00, 0x04, 0}));
    ber_free(der, 1);
    ldap_controls_free(list);
}

TEST(ControlEncoding, EmptyListsWriteNothingAndAControlWithoutOidIs83)
{
    BerElement *ber = fber_alloc();
    LDAPControl *none[] = {nullptr};
    EXPECT_EQ(put_ctrls_into_ber(ber, nullptr), 0);
    EXPECT_EQ(put_ctrls_into_ber(ber, none), 0);
    EXPECT_EQ(put_ctrls_into_ber_old(ber, none), 0);
    EXPECT_EQ(flatten(ber), "");
    LDAPControl **list = make_control_list({make_control("1.1", false)});
    lber_free(list[0]->ldctl_oid);
    list[0]->ldctl_oid = nullptr;
    EXPECT_EQ(put_ctrls_into_ber(ber, list), LDAP_ENCODING_ERROR);
    fber_free(ber);
    ldap_controls_free(list);
}

TEST(ControlDecoding, RoundTripKeepsOidCriticalityAndValue)
{
    LDAPControl **sent = make_control_list({make_control("1.2.840.1", true, "abc", 3),
                                            make_control("1.3", false),
                                            make_control("1.4", false, "", 0)});
    std::string pdu = wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, 0, "", "", {}, sent);
    LDAPMessage *msg = wzrtest::make_msg(pdu);
    ASSERT_NE(msg, nullptr);
    BerElement *c = ber_dup(msg->lm_ber);
    ASSERT_EQ(fber_skip_element(c), 0);
    LDAPControl **got = nullptr;
    ASSERT_EQ(get_ctrls_from_ber(c, &got), 0);
    ber_free(c, 0);
    ASSERT_NE(got, nullptr);
    ASSERT_NE(got[0], nullptr);
    EXPECT_STREQ(got[0]->ldctl_oid, "1.2.840.1");
    EXPECT_EQ(got[0]->ldctl_iscritical, 1);
    EXPECT_EQ(std::string(got[0]->ldctl_value.bv_val, got[0]->ldctl_value.bv_len), "abc");
    EXPECT_STREQ(got[1]->ldctl_oid, "1.3");
    EXPECT_EQ(got[1]->ldctl_iscritical, 0);
    EXPECT_EQ(got[1]->ldctl_value.bv_val, nullptr);
    EXPECT_STREQ(got[2]->ldctl_oid, "1.4");
    EXPECT_NE(got[2]->ldctl_value.bv_val, nullptr);
    EXPECT_EQ(got[2]->ldctl_value.bv_len, 0u);
    EXPECT_EQ(got[3], nullptr);
    ldap_controls_free(got);
    ldap_controls_free(sent);
    wzrtest::free_msgs(msg);
}

TEST(ControlDecoding, NoControlsGiveANullListAndZero)
{
    Reader r(bytes({0x30, 0x03, 0x02, 0x01, 0x05}));
    LDAPControl **got = make_control_list({});
    LDAPControl **before = got;
    ASSERT_EQ(fber_skip_element(r.ber), 0); // now at the end of the data
    EXPECT_EQ(get_ctrls_from_ber(r.ber, &got), 0);
    EXPECT_EQ(got, nullptr);
    lber_free(before);

    Reader other(bytes({0x04, 0x01, 'x'})); // something else follows
    got = nullptr;
    EXPECT_EQ(get_ctrls_from_ber(other.ber, &got), 0);
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(get_ctrls_from_ber(other.ber, nullptr), 0);
}

TEST(ControlDecoding, MisplacedRepeatedOrUnknownFieldsFailWith84)
{
    const std::string cases[] = {
        // value before criticality
        bytes({0xA0, 0x0D, 0x30, 0x0B, 0x04, 3, '1', '.', '2', 0x04, 1, 'x', 0x01, 1, 0xFF}),
        // two values
        bytes({0xA0, 0x0D, 0x30, 0x0B, 0x04, 3, '1', '.', '2', 0x04, 1, 'x', 0x04, 1, 'y'}),
        // two criticalities
        bytes({0xA0, 0x0D, 0x30, 0x0B, 0x04, 3, '1', '.', '2', 0x01, 1, 0, 0x01, 1, 0}),
        // an INTEGER where no field of that kind exists
        bytes({0xA0, 0x0A, 0x30, 0x08, 0x04, 3, '1', '.', '2', 0x02, 1, 0}),
        // the OID cannot be read
        bytes({0xA0, 0x04, 0x30, 0x02, 0x1F, 0x00}),
    };
    for (const std::string &pdu : cases) {
        Reader r(pdu);
        LDAPControl **got = make_control_list({});
        LDAPControl **before = got;
        EXPECT_EQ(get_ctrls_from_ber(r.ber, &got), LDAP_DECODING_ERROR);
        EXPECT_EQ(got, nullptr) << "a partial list reached the caller";
        lber_free(before);
    }
}

TEST(ControlDecoding, TruncatedAndOversizedLengthsDoNotReadPastTheData)
{
    // The control list claims more than there is; the control itself is complete.
    Reader r(bytes({0xA0, 0x7F, 0x30, 0x05, 0x04, 3, '1', '.', '2'}));
    LDAPControl **got = nullptr;
    EXPECT_EQ(get_ctrls_from_ber(r.ber, &got), 0);
    ASSERT_NE(got, nullptr);
    EXPECT_STREQ(got[0]->ldctl_oid, "1.2");
    EXPECT_EQ(got[1], nullptr);
    ldap_controls_free(got);

    Reader cut(bytes({0xA0, 0x09, 0x30, 0x07, 0x04, 5, '1', '.'}));
    got = nullptr;
    EXPECT_EQ(get_ctrls_from_ber(cut.ber, &got), LDAP_DECODING_ERROR);
    EXPECT_EQ(got, nullptr);
}

TEST(ControlDecoding, EveryFailedAllocationIsReportedWithoutLeaks)
{
    LDAPControl **sent =
        make_control_list({make_control("1.2.3", true, "val", 3), make_control("1.4", false)});
    std::string pdu = wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, 0, "", "", {}, sent);
    ldap_controls_free(sent);
    LDAPMessage *msg = wzrtest::make_msg(pdu);
    ASSERT_NE(msg, nullptr);
    BerElement *c = ber_dup(msg->lm_ber);
    ASSERT_EQ(fber_skip_element(c), 0);
    int walked = wzrtest::walk_alloc_failures([&] {
        BerElement *r = ber_dup(c);
        if (r == nullptr)
            return false;
        LDAPControl **got = nullptr;
        int rc = get_ctrls_from_ber(r, &got);
        ber_free(r, 0);
        bool ok = rc == 0 && got != nullptr && got[1] != nullptr;
        if (rc != 0) {
            EXPECT_TRUE(rc == LDAP_NO_MEMORY || rc == LDAP_DECODING_ERROR) << rc;
        }
        ldap_controls_free(got);
        return ok;
    });
    EXPECT_GT(walked, 4);
    ber_free(c, 0);
    wzrtest::free_msgs(msg);
}

TEST(ControlCopy, DeepCopyWithZeroLengthValueLeftNull)
{
    LDAPControl **from =
        make_control_list({make_control("1.1", true, "xyz", 3), make_control("1.2", false, "", 0)});
    LDAPControl **to = nullptr;
    ASSERT_EQ(ldap_copy_controls(&to, from), 0);
    ASSERT_NE(to, nullptr);
    EXPECT_NE(to[0], from[0]);
    EXPECT_NE(to[0]->ldctl_oid, from[0]->ldctl_oid);
    EXPECT_STREQ(to[0]->ldctl_oid, "1.1");
    EXPECT_EQ(to[0]->ldctl_iscritical, 1);
    ASSERT_EQ(to[0]->ldctl_value.bv_len, 3u);
    EXPECT_NE(to[0]->ldctl_value.bv_val, from[0]->ldctl_value.bv_val);
    EXPECT_EQ(memcmp(to[0]->ldctl_value.bv_val, "xyz", 3), 0);
    EXPECT_EQ(to[1]->ldctl_value.bv_len, 0u);
    EXPECT_EQ(to[1]->ldctl_value.bv_val, nullptr);
    EXPECT_EQ(to[2], nullptr);
    ldap_controls_free(to);

    to = reinterpret_cast<LDAPControl **>(&to); // must be overwritten
    EXPECT_EQ(ldap_copy_controls(&to, nullptr), 0);
    EXPECT_EQ(to, nullptr);
    EXPECT_EQ(ldap_copy_controls(nullptr, from), LDAP_PARAM_ERROR);
    ldap_controls_free(from);
}

TEST(ControlCopy, BadControlsFailWith89AndLeaveTheTargetAlone)
{
    LDAPControl **no_oid = make_control_list({make_control("1.1", false), make_control("x", true)});
    lber_free(no_oid[1]->ldctl_oid);
    no_oid[1]->ldctl_oid = nullptr;
    LDAPControl **to = nullptr;
    LDAPControl **sentinel = reinterpret_cast<LDAPControl **>(0x1);
    to = sentinel;
    EXPECT_EQ(ldap_copy_controls(&to, no_oid), LDAP_PARAM_ERROR);
    EXPECT_EQ(to, sentinel);
    ldap_controls_free(no_oid);

    LDAPControl **negative = make_control_list({make_control("1.1", false, "a", 1)});
    negative[0]->ldctl_value.bv_len = static_cast<unsigned long>(-5L);
    EXPECT_EQ(ldap_copy_controls(&to, negative), LDAP_PARAM_ERROR);
    EXPECT_EQ(to, sentinel);
    negative[0]->ldctl_value.bv_len = 1;
    ldap_controls_free(negative);
}

TEST(ControlCopy, EveryFailedAllocationIs90WithoutLeaks)
{
    LDAPControl **from = make_control_list(
        {make_control("1.1", true, "xyz", 3), make_control("1.2", false), make_control("1.3", 0)});
    int walked = wzrtest::walk_alloc_failures([&] {
        LDAPControl **to = nullptr;
        int rc = ldap_copy_controls(&to, from);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_NO_MEMORY);
            EXPECT_EQ(to, nullptr);
        }
        ldap_controls_free(to);
        return rc == 0;
    });
    EXPECT_EQ(walked, 1 + 3 + 3 + 1); // array, three records, three OIDs, one value
    ldap_controls_free(from);
}

TEST(ControlMerge, TwoIntoThreeGiveFiveInputFirstAndMoved)
{
    LDAPControl *a = make_control("in.1", false);
    LDAPControl *b = make_control("in.2", false);
    LDAPControl *x = make_control("dest.1", false);
    LDAPControl *y = make_control("dest.2", false);
    LDAPControl *z = make_control("dest.3", true);
    LDAPControl **input = make_control_list({a, b});
    LDAPControl **dest = make_control_list({x, y, z});
    long live = lber_live_blocks();
    ASSERT_EQ(ldap_merge_control_lists(&dest, &input), 0);
    EXPECT_EQ(lber_live_blocks(), live - 1); // two arrays gone, one new
    LDAPControl *want[] = {a, b, x, y, z, nullptr};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(dest[i], want[i]) << i;
    ldap_controls_free(dest);

    // Nothing to merge: nothing changes.
    LDAPControl **keep = make_control_list({make_control("k", false)});
    LDAPControl **empty = nullptr;
    EXPECT_EQ(ldap_merge_control_lists(&keep, &empty), 0);
    EXPECT_EQ(ldap_merge_control_lists(&keep, nullptr), 0);
    EXPECT_EQ(ldap_merge_control_lists(nullptr, &keep), 0);
    EXPECT_STREQ(keep[0]->ldctl_oid, "k");

    // Into an empty destination.
    LDAPControl **none = nullptr;
    ASSERT_EQ(ldap_merge_control_lists(&none, &keep), 0);
    ASSERT_NE(none, nullptr);
    EXPECT_STREQ(none[0]->ldctl_oid, "k");
    EXPECT_EQ(none[1], nullptr);
    ldap_controls_free(none);
}

TEST(ControlRelease, NullsAreAccepted)
{
    ldap_control_free(nullptr);
    ldap_controls_free(nullptr);
    ldap_free_empty_control_list(nullptr);
    LDAPControl **none = nullptr;
    ldap_free_empty_control_list(&none);
    // The array alone goes; the control survives.
    LDAPControl *c = make_control("1.1", false);
    LDAPControl **list = make_control_list({c});
    ldap_free_empty_control_list(&list);
    EXPECT_STREQ(c->ldctl_oid, "1.1");
    ldap_control_free(c);
}

TEST(EntryControls, ReadFromBehindTheEntryAndRecorded)
{
    Handle h;
    ASSERT_NE(h.ld, nullptr);
    LDAPControl **sent = make_control_list({make_control("1.9", true, "v", 1)});
    LDAPMessage *entry =
        wzrtest::make_msg(wzrtest::entry_pdu("cn=a", {{"cn", {"a"}}}, 1, sent));
    LDAPMessage *plain = wzrtest::make_msg(wzrtest::entry_pdu("cn=b", {{"cn", {"b"}}}));
    LDAPMessage *done = wzrtest::make_msg(wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, 0, "", ""));
    ldap_controls_free(sent);
    ASSERT_TRUE(entry && plain && done);

    LDAPControl **got = nullptr;
    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, entry, &got), 0);
    ASSERT_NE(got, nullptr);
    EXPECT_STREQ(got[0]->ldctl_oid, "1.9");
    EXPECT_EQ(got[0]->ldctl_iscritical, 1);
    EXPECT_EQ(got[1], nullptr);
    ldap_controls_free(got);
    EXPECT_EQ(ldap_get_entry_controls(h.ld, entry, &got), 0);
    ldap_controls_free(got);

    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, plain, &got), 0);
    EXPECT_EQ(got, nullptr);

    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, done, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, nullptr, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, entry, nullptr), LDAP_PARAM_ERROR);

    LDAP bad{};
    memcpy(bad.ld_eyecatcher, "NOT HDL!", 8);
    EXPECT_EQ(ldap_get_entry_controls_np(&bad, entry, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_checked(&bad, entry, &got), -1);
    EXPECT_EQ(ldap_get_entry_controls_checked(h.ld, entry, &got), 0);
    ldap_controls_free(got);

    wzrtest::free_msgs(entry);
    wzrtest::free_msgs(plain);
    wzrtest::free_msgs(done);
}

TEST(DefaultControls, CallersFirstThenCopiesOfTheHandleDefaults)
{
    Handle h;
    ASSERT_NE(h.ld, nullptr);
    LDAPControl **given = make_control_list({make_control("given", true)});
    LDAPControl **merged = nullptr;

    // No defaults: a copy of the caller's.
    ASSERT_EQ(ldap_merge_default_controls(h.ld, given, &merged), 0);
    ASSERT_NE(merged, nullptr);
    EXPECT_NE(merged[0], given[0]);
    EXPECT_STREQ(merged[0]->ldctl_oid, "given");
    EXPECT_EQ(merged[1], nullptr);
    ldap_free_merged_controls(merged);

    // Nothing anywhere: nothing allocated.
    ASSERT_EQ(ldap_merge_default_controls(h.ld, nullptr, &merged), 0);
    EXPECT_EQ(merged, nullptr);

    LDAPControl **defaults =
        make_control_list({make_control("default.1", false), make_control("default.2", false)});
    LDAPControl **saved = h.ld->ld_sctrls;
    h.ld->ld_sctrls = defaults;
    ASSERT_EQ(ldap_merge_default_controls(h.ld, given, &merged), 0);
    ASSERT_NE(merged, nullptr);
    EXPECT_STREQ(merged[0]->ldctl_oid, "given");
    EXPECT_STREQ(merged[1]->ldctl_oid, "default.1");
    EXPECT_STREQ(merged[2]->ldctl_oid, "default.2");
    EXPECT_EQ(merged[3], nullptr);
    EXPECT_NE(merged[1], defaults[0]);
    ldap_free_merged_controls(merged);

    int walked = wzrtest::walk_alloc_failures([&] {
        LDAPControl **m = nullptr;
        int rc = ldap_merge_default_controls(h.ld, given, &m);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_NO_MEMORY);
            EXPECT_EQ(m, nullptr);
        }
        ldap_free_merged_controls(m);
        return rc == 0;
    });
    EXPECT_GT(walked, 6);
    h.ld->ld_sctrls = saved;
    ldap_controls_free(defaults);
    ldap_controls_free(given);
}

TEST(ClientControls, AnyCriticalOneIsRefusedWith12)
{
    EXPECT_EQ(ldap_check_client_controls(nullptr), 0);
    LDAPControl **soft = make_control_list({make_control("1.1", false), make_control("1.2", false)});
    EXPECT_EQ(ldap_check_client_controls(soft), 0);
    soft[1]->ldctl_iscritical = 1;
    EXPECT_EQ(ldap_check_client_controls(soft), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ldap_controls_free(soft);
}

// Read once per process, case-insensitively: the only test in this program that asks.
TEST(ProxiedAuthEncoding, ModeIsReadOnceAndCached)
{
    {
        wzrtest::ScopedEnv env("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "yEs");
        EXPECT_EQ(ldap_proxied_auth_encoding_mode(), 1);
    }
    wzrtest::ScopedEnv other("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "no");
    EXPECT_EQ(ldap_proxied_auth_encoding_mode(), 1);
}

} // namespace
