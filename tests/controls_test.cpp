// Controls without a server: list encoding and decoding (byte-exact), copies, merges, entry
// controls, the default-control merge and the client-control check; then each control value's
// constructor and parser.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_unbind.h"
#include "support/control_parse.h"
#include "support/fber_bytes.h"
#include "support/msg_builder.h"
#include "support/test_util.h"

namespace {

namespace fb = wzrtest::fber;
using wzrtest::make_control;
using wzrtest::make_control_list;

std::string unhex(const char *text)
{
    std::string out;
    for (std::istringstream in(text); in >> std::ws && !in.eof();) {
        std::string byte(2, '\0');
        in.read(byte.data(), 2);
        out += static_cast<char>(std::stoi(byte, nullptr, 16));
    }
    return out;
}

std::string flatten(BerElement *ber)
{
    struct berval *bv = nullptr;
    EXPECT_EQ(ber_is_fber(ber) ? fber_flatten(ber, &bv) : ber_flatten(ber, &bv), 0);
    std::string out(bv->bv_val != nullptr ? bv->bv_val : "", bv->bv_len);
    ber_bvfree(bv);
    return fb::hex(out);
}

// "OID CRITICAL VALUE" for each control ("-": no value), joined by "|"; "null" for no list.
std::string describe(LDAPControl **list)
{
    if (list == nullptr)
        return "null";
    std::string out;
    for (; *list != nullptr; ++list) {
        const berval &v = (*list)->ldctl_value;
        out += (out.empty() ? "" : "|") + std::string((*list)->ldctl_oid) + " " +
               std::to_string((*list)->ldctl_iscritical) + " " +
               (v.bv_val != nullptr ? std::string(v.bv_val, v.bv_len) : "-");
    }
    return out;
}

TEST(ControlEncoding, ListsAreWrittenInOrderWithCriticalityAndValue)
{
    LDAPControl **one = make_control_list({make_control("1.2.3", false)});
    LDAPControl **two = make_control_list(
        {make_control("1.1", true, "\x00\xFF", 2), make_control("1.2", false, "", 0)});
    BerElement *ber = fber_alloc();
    LDAPControl *none[] = {nullptr};
    EXPECT_EQ(put_ctrls_into_ber(ber, nullptr), 0); // empty lists write nothing
    EXPECT_EQ(put_ctrls_into_ber(ber, none), 0);
    EXPECT_EQ(put_ctrls_into_ber_old(ber, none), 0);
    ASSERT_EQ(put_ctrls_into_ber(ber, one), 0);
    EXPECT_EQ(flatten(ber), fb::hex(fb::cons(0xa0, fb::seq(fb::str("1.2.3") + fb::boolean(false)))));
    fber_free(ber);
    // The older encoder writes the same elements with minimal DER lengths; an empty value is
    // present (its pointer is set), so it is written as an empty string.
    BerElement *der = der_alloc();
    ASSERT_EQ(put_ctrls_into_ber_old(der, two), 0);
    EXPECT_EQ(flatten(der), fb::hex(unhex("a0 1a 30 0c 04 03 31 2e 31 01 01 ff 04 02 00 ff "
                                          "30 0a 04 03 31 2e 32 01 01 00 04 00")));
    ber_free(der, 1);
    lber_free(one[0]->ldctl_oid);
    one[0]->ldctl_oid = nullptr;
    ber = fber_alloc();
    EXPECT_EQ(put_ctrls_into_ber(ber, one), LDAP_ENCODING_ERROR);
    fber_free(ber);
    ldap_controls_free(one);
    ldap_controls_free(two);
}

// Each case follows an INTEGER the reader skips first, as a message's controls follow its
// operation. A failure hands the caller nothing, not even a partial list.
TEST(ControlDecoding, ListsAreReadWholeOrNotAtAll)
{
    const std::string full = fb::cons(0xa0, fb::seq(fb::str("1.2.840.1") + fb::boolean(true) +
                                                    fb::str("abc")) +
                                                fb::seq(fb::str("1.3")) +
                                                fb::seq(fb::str("1.4") + fb::str("")));
    const struct {
        std::string bytes;
        int rc;
        const char *want;
    } cases[] = {
        {full, 0, "1.2.840.1 1 abc|1.3 0 -|1.4 0 "},
        {"", 0, "null"},                 // at the end of the data
        {unhex("04 01 78"), 0, "null"},  // something else follows
        {unhex("a0 7f 30 05 04 03 31 2e 32"), 0, "1.2 0 -"}, // the list claims more than there is
        {unhex("a0 09 30 07 04 05 31 2e"), LDAP_DECODING_ERROR, "null"}, // the OID is cut
        // value before criticality, two values, two criticalities, an unknown INTEGER field
        {unhex("a0 0d 30 0b 04 03 31 2e 32 04 01 78 01 01 ff"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 0d 30 0b 04 03 31 2e 32 04 01 78 04 01 79"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 0d 30 0b 04 03 31 2e 32 01 01 00 01 01 00"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 0a 30 08 04 03 31 2e 32 02 01 00"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 04 30 02 1f 00"), LDAP_DECODING_ERROR, "null"}, // an unreadable OID
    };
    auto decode = [](const std::string &bytes, LDAPControl ***got) {
        std::string pdu = unhex("02 01 05") + bytes;
        struct berval bv = {pdu.size(), pdu.data()};
        BerElement *ber = fber_init(&bv);
        if (ber == nullptr)
            return LDAP_NO_MEMORY;
        int rc = fber_skip_element(ber) == 0 ? get_ctrls_from_ber(ber, got) : -1;
        fber_free(ber);
        return rc;
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(fb::hex(c.bytes));
        LDAPControl **got = make_control_list({}), **before = got;
        EXPECT_EQ(decode(c.bytes, &got), c.rc);
        EXPECT_EQ(describe(got), c.want);
        ldap_controls_free(got);
        lber_free(before);
    }
    EXPECT_EQ(decode(full, nullptr), 0);
    EXPECT_GT(wzrtest::walk_alloc_failures([&] {
        LDAPControl **got = nullptr;
        int rc = decode(full, &got);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_NO_MEMORY);
            EXPECT_EQ(got, nullptr);
        }
        ldap_controls_free(got);
        return rc == 0;
    }), 4);
}

TEST(ControlCopy, CopiesAreDeepAndBadControlsAre89)
{
    LDAPControl **from = make_control_list(
        {make_control("1.1", true, "xyz", 3), make_control("1.2", false, "", 0)});
    LDAPControl **to = nullptr;
    ASSERT_EQ(ldap_copy_controls(&to, from), 0);
    EXPECT_EQ(describe(to), "1.1 1 xyz|1.2 0 -"); // a zero-length value is left null
    EXPECT_NE(to[0]->ldctl_oid, from[0]->ldctl_oid);
    EXPECT_NE(to[0]->ldctl_value.bv_val, from[0]->ldctl_value.bv_val);
    ldap_controls_free(to);
    to = reinterpret_cast<LDAPControl **>(&to); // must be overwritten
    EXPECT_EQ(ldap_copy_controls(&to, nullptr), 0);
    EXPECT_EQ(to, nullptr);
    EXPECT_EQ(ldap_copy_controls(nullptr, from), LDAP_PARAM_ERROR);
    ldap_controls_free(from);

    // The second control is bad: the copy of the first is undone.
    LDAPControl **sentinel = reinterpret_cast<LDAPControl **>(0x1);
    LDAPControl **bad = make_control_list({make_control("1.1", false), make_control("x", 1, "a", 1)});
    to = sentinel;
    bad[1]->ldctl_value.bv_len = static_cast<unsigned long>(-5L);
    EXPECT_EQ(ldap_copy_controls(&to, bad), LDAP_PARAM_ERROR); // a negative length
    bad[1]->ldctl_value.bv_len = 1;
    lber_free(bad[1]->ldctl_oid);
    bad[1]->ldctl_oid = nullptr;
    EXPECT_EQ(ldap_copy_controls(&to, bad), LDAP_PARAM_ERROR); // no OID
    EXPECT_EQ(to, sentinel) << "the target is left alone";
    ldap_controls_free(bad);

    from = make_control_list(
        {make_control("1.1", true, "xyz", 3), make_control("1.2", false), make_control("1.3", 0)});
    EXPECT_EQ(wzrtest::walk_alloc_failures([&] {
        LDAPControl **copy = nullptr;
        int rc = ldap_copy_controls(&copy, from);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_NO_MEMORY);
            EXPECT_EQ(copy, nullptr);
        }
        ldap_controls_free(copy);
        return rc == 0;
    }), 1 + 3 + 3 + 1); // array, three records, three OIDs, one value
    ldap_controls_free(from);
}

TEST(ControlMerge, InputComesFirstAndIsMovedNotCopied)
{
    LDAPControl *a = make_control("in.1", false), *b = make_control("in.2", false);
    LDAPControl *x = make_control("dest.1", false), *y = make_control("dest.2", true);
    LDAPControl **input = make_control_list({a, b}), **dest = make_control_list({x, y});
    long live = lber_live_blocks();
    ASSERT_EQ(ldap_merge_control_lists(&dest, &input), 0);
    EXPECT_EQ(lber_live_blocks(), live - 1); // two arrays gone, one new
    LDAPControl *want[] = {a, b, x, y, nullptr};
    EXPECT_TRUE(std::equal(want, want + 5, dest));
    ldap_controls_free(dest);

    LDAPControl **keep = make_control_list({make_control("k", false)}), **none = nullptr;
    EXPECT_EQ(ldap_merge_control_lists(&keep, &none), 0); // nothing to merge
    EXPECT_EQ(ldap_merge_control_lists(&keep, nullptr), 0);
    EXPECT_EQ(ldap_merge_control_lists(nullptr, &keep), 0);
    ASSERT_EQ(ldap_merge_control_lists(&none, &keep), 0); // into an empty destination
    EXPECT_EQ(describe(none), "k 0 -");
    ldap_controls_free(none);
    none = nullptr;

    ldap_control_free(nullptr);
    ldap_controls_free(nullptr);
    ldap_free_empty_control_list(nullptr);
    ldap_free_empty_control_list(&none);
    LDAPControl *c = make_control("1.1", false);
    LDAPControl **list = make_control_list({c});
    ldap_free_empty_control_list(&list); // the array alone goes
    EXPECT_STREQ(c->ldctl_oid, "1.1");
    ldap_control_free(c);
}

TEST(EntryControls, ReadFromBehindTheEntryAndRecorded)
{
    LDAP *ld = ldap_init("localhost", 0);
    LDAPControl **sent = make_control_list({make_control("1.9", true, "v", 1)});
    LDAPMessage *entry = wzrtest::make_msg(wzrtest::entry_pdu("cn=a", {{"cn", {"a"}}}, 1, sent));
    LDAPMessage *plain = wzrtest::make_msg(wzrtest::entry_pdu("cn=b", {{"cn", {"b"}}}));
    LDAPMessage *done = wzrtest::make_msg(wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, 0, "", ""));
    ldap_controls_free(sent);
    ASSERT_TRUE(ld && entry && plain && done);
    LDAPControl **got = nullptr;
    EXPECT_EQ(ldap_get_entry_controls_np(ld, entry, &got), 0);
    EXPECT_EQ(describe(got), "1.9 1 v");
    ldap_controls_free(got);
    EXPECT_EQ(ldap_get_entry_controls(ld, entry, &got), 0);
    ldap_controls_free(got);
    EXPECT_EQ(ldap_get_entry_controls_np(ld, plain, &got), 0);
    EXPECT_EQ(got, nullptr);
    EXPECT_EQ(ldap_get_entry_controls_np(ld, done, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_np(ld, nullptr, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_np(ld, entry, nullptr), LDAP_PARAM_ERROR);
    LDAP bad{};
    memcpy(bad.ld_eyecatcher, "NOT HDL!", 8);
    EXPECT_EQ(ldap_get_entry_controls_np(&bad, entry, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_checked(&bad, entry, &got), -1);
    EXPECT_EQ(ldap_get_entry_controls_checked(ld, entry, &got), 0);
    ldap_controls_free(got);
    for (LDAPMessage *m : {entry, plain, done})
        wzrtest::free_msgs(m);
    ldap_unbind(ld);
}

// The caller's controls first, then copies of the handle's; a critical client control is 12.
TEST(DefaultControls, CallersFirstThenCopiesOfTheHandleDefaults)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    LDAPControl **given = make_control_list({make_control("given", true)}), **merged = nullptr;
    auto merge = [&](LDAPControl **in) {
        EXPECT_EQ(ldap_merge_default_controls(ld, in, &merged), 0);
        std::string out = describe(merged) + (merged && merged[0] == given[0] ? " (not copied)" : "");
        ldap_free_merged_controls(merged);
        return out;
    };
    EXPECT_EQ(merge(given), "given 1 -");
    EXPECT_EQ(merge(nullptr), "null");
    LDAPControl **defaults =
        make_control_list({make_control("default.1", false), make_control("default.2", false)});
    LDAPControl **saved = ld->ld_sctrls;
    ld->ld_sctrls = defaults;
    EXPECT_EQ(merge(given), "given 1 -|default.1 0 -|default.2 0 -");
    EXPECT_GT(wzrtest::walk_alloc_failures([&] {
        LDAPControl **m = nullptr;
        int rc = ldap_merge_default_controls(ld, given, &m);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_NO_MEMORY);
            EXPECT_EQ(m, nullptr);
        }
        ldap_free_merged_controls(m);
        return rc == 0;
    }), 6);
    ld->ld_sctrls = saved;
    EXPECT_EQ(ldap_check_client_controls(nullptr), 0);
    EXPECT_EQ(ldap_check_client_controls(defaults), 0);
    defaults[1]->ldctl_iscritical = 1;
    EXPECT_EQ(ldap_check_client_controls(defaults), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ldap_controls_free(defaults);
    ldap_controls_free(given);
    ldap_unbind(ld);
}

using Out = LDAPControl **;

struct EncodingCase {
    const char *name;
    std::function<int(LDAPControl **)> make;
    int rc;
    std::string value; // "(none)": the control carries no value
};

TEST(ControlValues, EachConstructorWritesItsValueOrRefusesItsArguments)
{
    // The proxied-authorisation switch is read once, case-insensitively: set before its first
    // use, the older clients' wrapped form is what this program sends (the slapd test sends
    // the standard one), and a later change is not seen.
    wzrtest::ScopedEnv java("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "yEs");
    struct berval cookie{2, const_cast<char *>("ab")}, id{1, const_cast<char *>("T")};
    LDAPSortKey **keys = nullptr;
    ASSERT_EQ(ldap_create_sort_keylist(&keys, " -cn:caseExactOrderingMatch  sn "), 0);
    LDAPVLVInfo window{1, 1, 2, 10, 0, nullptr, &id, nullptr};
    char *uid[] = {const_cast<char *>("uid"), nullptr};
    LDAPDerefSpec derefs[] = {{const_cast<char *>("member"), uid}, {nullptr, nullptr}};
    auto mv = [](const char *f) {
        return [f](Out c) { return ldap_create_matchedvalues_control(nullptr, f, 1, c); };
    };
    auto authz = [](const char *id) {
        return [id](Out c) {
            return ldap_create_proxied_authorization_control(nullptr, id, c);
        };
    };
    const EncodingCase cases[] = {
        {"page", [&](Out c) { return ldap_create_page_control(nullptr, 500, &cookie, 0, c); },
         0, unhex("30 08 02 02 01 f4 04 02 61 62")},
        {"sort", [&](Out c) { return ldap_create_sort_control(nullptr, keys, 1, c); }, 0,
         unhex("30 27 30 1f 04 02 63 6e 80 16") + "caseExactOrderingMatch" +
             unhex("81 01 ff 30 04 04 02 73 6e")},
        {"vlv", [&](Out c) { return ldap_create_vlv_control(nullptr, &window, c); }, 0,
         unhex("30 11 02 01 01 02 01 02 a0 06 02 01 0a 02 01 00 04 01 54")},
        {"assertion",
         [](Out c) { return ldap_create_assertion_control(nullptr, "(!(cn=x))", 1, c); },
         0, fb::cons(0xa2, fb::cons(0xa3, fb::str("cn") + fb::str("x")))},
        {"matched values", mv("((mail=*.org)(:caseIgnoreMatch:=x))"), 0,
         fb::seq(fb::cons(0xa4, fb::str("mail") + fb::seq(fb::prim(0x82, ".org"))) +
                 fb::cons(0xa9, fb::prim(0x81, "caseIgnoreMatch") + fb::prim(0x83, "x")))},
        {"proxy v2", authz("u:al"), 0, unhex("04 04 75 3a 61 6c")},
        {"proxy v1", [](Out c) { return ldap_create_proxyauth_control(nullptr, "o=x", 1, c); },
         0, unhex("30 05 04 03 6f 3d 78")},
        {"password policy",
         [](Out c) { return ldap_create_passwordpolicy_control(nullptr, c); }, 0, "(none)"},
        {"deref", [&](Out c) { return ldap_create_deref_control(nullptr, derefs, 0, c); },
         0, unhex("30 11 30 0f 04 06") + "member" + unhex("30 05 04 03") + "uid"},
        {"transaction", [&](Out c) { return ldap_create_txn_spec_control(nullptr, &id, c); },
         0, "T"},
        {"chaining", [](Out c) {
             return ldap_create_chaining_control(nullptr, LDAP_CHAINING_REQUIRED,
                                                 LDAP_REFERRALS_PREFERRED, 0, c);
         }, 0, unhex("30 06 0a 01 01 0a 01 02")},
        {"session tracking",
         [&](Out c) {
             return ldap_create_session_tracking_control(nullptr, "::1", nullptr, "1.2", &id, c);
         },
         0, unhex("30 0f 04 03 3a 3a 31 04 00 04 03 31 2e 32 04 01 54")},
        {"dn marker in values filter", mv("(cn:dn:rule:=x)"), LDAP_FILTER_ERROR, ""},
        {"authzid", authz("cn=x"), LDAP_PARAM_ERROR, ""},
    };
    for (const EncodingCase &c : cases) {
        SCOPED_TRACE(c.name);
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(c.make(&ctrl), c.rc);
        ASSERT_EQ(ctrl != nullptr, c.rc == 0);
        if (ctrl != nullptr) {
            const berval &v = ctrl->ldctl_value;
            EXPECT_EQ(fb::hex(v.bv_val != nullptr ? std::string(v.bv_val, v.bv_len) : "(none)"),
                      fb::hex(c.value));
        }
        ldap_control_free(ctrl);
    }
    ldap_free_sort_keylist(keys);
    for (const char *bad : {"", "  ", "-", "cn:", ":rule", "cn: sn"})
        EXPECT_EQ(ldap_create_sort_keylist(&keys, bad), LDAP_PARAM_ERROR) << bad;
    struct berval *end = nullptr;
    ASSERT_EQ(ldap_txn_end_request_value(nullptr, 0, &id, &end), 0);
    EXPECT_EQ(fb::hex(std::string(end->bv_val, end->bv_len)),
              fb::hex(unhex("30 06 01 01 00 04 01 54")));
    ber_bvfree(end);
    wzrtest::ScopedEnv no("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "no");
    EXPECT_EQ(ldap_proxied_auth_encoding_mode(), 1);
}

using wzrtest::ControlParser;

TEST(ControlValues, ParsersReadWhatServersSendAndRefuseTheRest)
{
    using P = ControlParser;
    const char *page = LDAP_CONTROL_PAGEDRESULTS, *sort = LDAP_CONTROL_SORTRESPONSE,
               *vlv = LDAP_CONTROL_VLVRESPONSE, *deref = LDAP_CONTROL_DEREF,
               *pp = LDAP_CONTROL_PASSWORDPOLICY;
    const struct {
        ControlParser parse;
        const char *oid, *value, *expected; // the value in hex
    } cases[] = {
        {P::Page, page, "30 05 02 01 0a 04 02", "84"},
        {P::Page, "1.2.3", "30 05 02 01 00 04 00", "93"},
        {P::SortOrVlv, sort, "30 07 0a 01 10 80 02 63 6e", "0 16 cn"},
        {P::SortOrVlv, sort, "30 07 0a 01 10 04 02 63 6e", "84"},
        {P::SortOrVlv, vlv, "30 0c 02 01 05 02 01 63 0a 01 3d 04 01 43", "0 5 99 61 C"},
        {P::SortOrVlv, vlv, "30 06 02 01 05 02 01 63", "84"},
        {P::Deref, deref, "30 0c 30 0a 04 01 6d 04 03 6f 3d 78 04 00", "84"},
        {P::Deref, deref, "30 0d 30 0b 04 01 6d 04 03 6f 3d 78 a0 01 30", "84"},
        {P::Policy, pp, "30 08 a0 03 81 01 02 81 01 00", "0 2 2 3"},
        {P::Policy, pp, "30 03 81 01 08", "0 0 0 11"},
        {P::Policy, pp, "30 03 81 01 09", "84"},
        {P::Policy, pp, "30 08 81 01 00 a0 03 80 01 3c", "84"},
        {P::Policy, LDAP_CONTROL_PWEXPIRING, "38 36 34 30 30", "0 1 86400 0"},
        {P::Policy, "1.2.3", "30 00", "93"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.oid) + " " + c.value);
        std::string raw = unhex(c.value);
        struct berval v{raw.size(), raw.data()};
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(ldap_control_create(c.oid, 0, &v, &ctrl), 0);
        LDAPControl *list[] = {ctrl, nullptr};
        EXPECT_EQ(wzrtest::parse_control(c.parse, list), c.expected);
        ldap_control_free(ctrl);
    }
    int failed = 0;
    std::string end = unhex("30 0a 02 01 07 30 05 30 03 02 01 07");
    struct berval v{end.size(), end.data()};
    EXPECT_EQ(ldap_parse_txn_end_response_value(nullptr, &v, &failed), 0);
    EXPECT_EQ(failed, 7);
}

TEST(ControlValues, NoMemoryAnywhereGivesNinetyAndLeaksNothing)
{
    wzrtest::walk_alloc_failures([] {
        LDAPSortKey **keys = nullptr;
        LDAPControl *sort = nullptr, *pc = nullptr;
        bool ok = ldap_create_sort_keylist(&keys, "-cn:rule sn") == 0 &&
                  ldap_create_sort_control(nullptr, keys, 1, &sort) == 0 &&
                  ldap_create_page_control(nullptr, 5, nullptr, 0, &pc) == 0;
        // A request value has the response's shape: the parser reads it back.
        LDAPControl *list[] = {pc, nullptr};
        ok = ok && wzrtest::parse_control(ControlParser::Page, list) == "0 5 ";
        ldap_free_sort_keylist(keys);
        ldap_control_free(sort);
        ldap_control_free(pc);
        return ok;
    });
}

} // namespace
