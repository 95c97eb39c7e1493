// Control values: each constructor's bytes once (and what it refuses), the parsers on
// well-formed, malformed and missing values, and every allocation failure on the way.
#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "support/fber_bytes.h"
#include "support/test_util.h"

namespace {

namespace fb = wzrtest::fber;

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

struct EncodingCase {
    const char *name;
    std::function<int(LDAPControl **)> make;
    int rc;
    std::string value; // "(none)": the control carries no value
};

TEST(ControlValues, EachConstructorWritesItsValueOrRefusesItsArguments)
{
    // The proxied-authorisation switch is read once: set before its first use here, the older
    // clients' wrapped form is what this program sends (the slapd test sends the standard one).
    wzrtest::ScopedEnv java("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "yes");
    struct berval cookie{2, const_cast<char *>("ab")}, id{1, const_cast<char *>("T")},
        target{1, const_cast<char *>("m")};
    LDAPSortKey **keys = nullptr;
    ASSERT_EQ(ldap_create_sort_keylist(&keys, " -cn:caseExactOrderingMatch  sn "), 0);
    LDAPVLVInfo by_offset{1, 1, 2, 10, 0, nullptr, &id, nullptr};
    LDAPVLVInfo by_value{1, 0, 3, 0, 0, &target, nullptr, nullptr};
    char *uid[] = {const_cast<char *>("uid"), nullptr};
    LDAPDerefSpec specs[] = {{const_cast<char *>("member"), uid}, {nullptr, nullptr}};
    auto mv = [](const char *f) {
        return [f](LDAPControl **c) { return ldap_create_matchedvalues_control(nullptr, f, 1, c); };
    };
    const EncodingCase cases[] = {
        {"page", [&](LDAPControl **c) { return ldap_create_page_control(nullptr, 500, &cookie, 0, c); },
         0, unhex("30 08 02 02 01 f4 04 02 61 62")},
        {"sort", [&](LDAPControl **c) { return ldap_create_sort_control(nullptr, keys, 1, c); }, 0,
         unhex("30 27 30 1f 04 02 63 6e 80 16") + "caseExactOrderingMatch" +
             unhex("81 01 ff 30 04 04 02 73 6e")},
        {"vlv offset", [&](LDAPControl **c) { return ldap_create_vlv_control(nullptr, &by_offset, c); },
         0, unhex("30 11 02 01 01 02 01 02 a0 06 02 01 0a 02 01 00 04 01 54")},
        {"vlv value", [&](LDAPControl **c) { return ldap_create_vlv_control(nullptr, &by_value, c); },
         0, unhex("30 09 02 01 00 02 01 03 81 01 6d")},
        {"assertion", [](LDAPControl **c) { return ldap_create_assertion_control(nullptr, "(!(cn=x))", 1, c); },
         0, fb::cons(0xa2, fb::cons(0xa3, fb::str("cn") + fb::str("x")))},
        {"matched values", mv("((mail=*.org)(:caseIgnoreMatch:=x))"), 0,
         fb::seq(fb::cons(0xa4, fb::str("mail") + fb::seq(fb::prim(0x82, ".org"))) +
                 fb::cons(0xa9, fb::prim(0x81, "caseIgnoreMatch") + fb::prim(0x83, "x")))},
        {"proxy v2", [](LDAPControl **c) { return ldap_create_proxied_authorization_control(nullptr, "u:al", c); },
         0, unhex("04 04 75 3a 61 6c")},
        {"proxy v1", [](LDAPControl **c) { return ldap_create_proxyauth_control(nullptr, "o=x", 1, c); },
         0, unhex("30 05 04 03 6f 3d 78")},
        {"password policy", [](LDAPControl **c) { return ldap_create_passwordpolicy_control(nullptr, c); },
         0, "(none)"},
        {"deref", [&](LDAPControl **c) { return ldap_create_deref_control(nullptr, specs, 0, c); }, 0,
         unhex("30 11 30 0f 04 06") + "member" + unhex("30 05 04 03") + "uid"},
        {"transaction", [&](LDAPControl **c) { return ldap_create_txn_spec_control(nullptr, &id, c); }, 0, "T"},
        {"chaining", [](LDAPControl **c) {
             return ldap_create_chaining_control(nullptr, LDAP_CHAINING_REQUIRED, LDAP_REFERRALS_PREFERRED, 0, c); },
         0, unhex("30 06 0a 01 01 0a 01 02")},
        {"two values filters", mv("(cn=x)(sn=y)"), LDAP_FILTER_ERROR, ""},
        {"AND in values filter", mv("((cn=x)(&(cn=x)))"), LDAP_FILTER_ERROR, ""},
        {"dn marker in values filter", mv("(cn:dn:rule:=x)"), LDAP_FILTER_ERROR, ""},
        {"authzid", [](LDAPControl **c) { return ldap_create_proxied_authorization_control(nullptr, "cn=x", c); },
         LDAP_PARAM_ERROR, ""},
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
    EXPECT_EQ(fb::hex(std::string(end->bv_val, end->bv_len)), fb::hex(unhex("30 06 01 01 00 04 01 54")));
    ber_bvfree(end);
}

// "rc" alone after a failure, "rc" and the outputs after success.
template <class... T> std::string summary(int rc, T... outputs)
{
    std::ostringstream out;
    out << rc;
    if (rc == 0)
        ((out << ' ' << outputs), ...);
    return out.str();
}

// Frees what a parser handed out, as text ("-" for nothing).
std::string text(struct berval *bv)
{
    std::string s = bv != nullptr ? std::string(bv->bv_val, bv->bv_len) : "-";
    ber_bvfree(bv);
    return s;
}
std::string text(char *s)
{
    std::string t = s != nullptr ? s : "-";
    lber_free(s);
    return t;
}

std::string parse_page(LDAPControl **list)
{
    int count = -1;
    struct berval *cookie = nullptr;
    int rc = ldap_parse_page_control(nullptr, list, &count, &cookie);
    return summary(rc, count, text(cookie));
}

std::string parse_sort_vlv(LDAPControl **list)
{
    unsigned long result = 0, pos = 0, count = 0;
    char *attr = nullptr;
    struct berval *context = nullptr;
    int err = -1;
    int rc = ldap_parse_sort_control(nullptr, list, &result, &attr);
    if (rc != LDAP_CONTROL_NOT_FOUND)
        return summary(rc, result, text(attr));
    rc = ldap_parse_vlv_control(nullptr, list, &pos, &count, &context, &err);
    return summary(rc, pos, count, err, text(context));
}

std::string parse_policy(LDAPControl **list)
{
    int warning = -1, error = -1;
    long value = -1;
    int rc = ldap_parse_passwordpolicy_control(nullptr, list, &warning, &value, &error);
    return summary(rc, warning, value, error);
}

// The first result: attribute, DN, and each attribute's type and value count.
std::string parse_deref(LDAPControl **list)
{
    LDAPDerefRes *res = nullptr;
    int rc = ldap_parse_deref_control(nullptr, list, &res);
    std::string vals;
    for (LDAPDerefVal *v = res != nullptr ? res->attrVals : nullptr; v != nullptr; v = v->next)
        vals += std::string(v->type) + "=" + std::to_string(v->vals != nullptr ? 1 : 0);
    std::string out = summary(rc, res != nullptr ? res->derefAttr : "", res != nullptr ? res->derefVal : "", vals);
    ldap_derefresponse_free(res);
    return out;
}

struct ParseCase {
    std::string (*parse)(LDAPControl **);
    const char *oid;
    const char *value; // hex; null: the control carries no value
    const char *expected;
};

TEST(ControlValues, ParsersReadWhatServersSendAndRefuseTheRest)
{
    const char *pp = LDAP_CONTROL_PASSWORDPOLICY;
    const ParseCase cases[] = {
        {parse_page, LDAP_CONTROL_PAGEDRESULTS, "30 07 02 01 0a 04 02 61 62", "0 10 ab"},
        {parse_page, LDAP_CONTROL_PAGEDRESULTS, "30 05 02 01 0a 04 02", "84"},
        {parse_page, LDAP_CONTROL_PAGEDRESULTS, "30 05 02 01 00 04 00 00", "84"},
        {parse_page, LDAP_CONTROL_PAGEDRESULTS, nullptr, "84"},
        {parse_page, "1.2.3", "30 05 02 01 00 04 00", "93"},
        {parse_sort_vlv, LDAP_CONTROL_SORTRESPONSE, "30 07 0a 01 10 80 02 63 6e", "0 16 cn"},
        {parse_sort_vlv, LDAP_CONTROL_SORTRESPONSE, "30 07 0a 01 10 04 02 63 6e", "84"},
        {parse_sort_vlv, LDAP_CONTROL_SORTRESPONSE, "30 03 0a 01 ff", "84"},
        {parse_sort_vlv, LDAP_CONTROL_VLVRESPONSE, "30 09 02 01 05 02 01 63 0a 01 00", "0 5 99 0 -"},
        {parse_sort_vlv, LDAP_CONTROL_VLVRESPONSE, "30 0c 02 01 05 02 01 63 0a 01 3d 04 01 43", "0 5 99 61 C"},
        {parse_sort_vlv, LDAP_CONTROL_VLVRESPONSE, "30 06 02 01 05 02 01 63", "84"},
        {parse_deref, LDAP_CONTROL_DEREF, "30 16 30 14 04 01 6d 04 03 6f 3d 78 a0 0a 30 08 04 01 75 31 03 04 01 78",
         "0 m o=x u=1"},
        {parse_deref, LDAP_CONTROL_DEREF, "30 0a 30 08 04 01 6d 04 03 6f 3d 78", "0 m o=x "},
        {parse_deref, LDAP_CONTROL_DEREF, "30 0c 30 0a 04 01 6d 04 03 6f 3d 78 04 00", "84"},
        {parse_deref, LDAP_CONTROL_DEREF, "30 0d 30 0b 04 01 6d 04 03 6f 3d 78 a0 01 30", "84"},
        {parse_policy, pp, "30 05 a0 03 80 01 3c", "0 1 60 0"},
        {parse_policy, pp, "30 08 a0 03 81 01 02 81 01 00", "0 2 2 3"},
        {parse_policy, pp, "30 03 81 01 08", "0 0 0 11"},
        {parse_policy, pp, "30 03 81 01 09", "84"},
        {parse_policy, pp, "30 08 81 01 00 a0 03 80 01 3c", "84"},
        {parse_policy, pp, "30 05 a0 03 82 01 3c", "84"},
        {parse_policy, LDAP_CONTROL_PWEXPIRING, "38 36 34 30 30", "0 1 86400 0"},
        {parse_policy, LDAP_CONTROL_PWEXPIRING, "2d 31", "84"},
        {parse_policy, "1.2.3", "30 00", "93"},
    };
    for (const ParseCase &c : cases) {
        SCOPED_TRACE(std::string(c.oid) + " " + (c.value != nullptr ? c.value : "(none)"));
        std::string raw = c.value != nullptr ? unhex(c.value) : "";
        struct berval v{raw.size(), raw.data()};
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(ldap_control_create(c.oid, 0, c.value != nullptr ? &v : nullptr, &ctrl), 0);
        LDAPControl *list[] = {ctrl, nullptr};
        EXPECT_EQ(c.parse(list), c.expected);
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
        LDAPControl *sort = nullptr, *mv = nullptr, *pc = nullptr;
        bool ok = ldap_create_sort_keylist(&keys, "-cn:rule sn") == 0 &&
                  ldap_create_sort_control(nullptr, keys, 1, &sort) == 0 &&
                  ldap_create_matchedvalues_control(nullptr, "((cn=a*)(sn=b))", 1, &mv) == 0 &&
                  ldap_create_page_control(nullptr, 5, nullptr, 0, &pc) == 0;
        // A request value has the response's shape: the parser reads it back.
        LDAPControl *list[] = {pc, nullptr};
        ok = ok && parse_page(list) == "0 5 ";
        ldap_free_sort_keylist(keys);
        ldap_control_free(sort);
        ldap_control_free(mv);
        ldap_control_free(pc);
        return ok;
    });
}

} // namespace
