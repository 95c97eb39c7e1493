// The response-control parsers summarised as text (see control_parse.h).
#include "support/control_parse.h"

#include <sstream>

#include "libldap/ldap_ctrl.h"

namespace wzrtest {

namespace {

template <class... T> std::string summary(int rc, bool handed_out, T... outputs)
{
    std::ostringstream out;
    out << rc;
    if (rc == 0)
        ((out << ' ' << outputs), ...);
    else if (handed_out)
        out << " leaked";
    return out.str();
}

// A string handed out, freed.
std::string take(struct berval *bv, char *s)
{
    std::string t = bv != nullptr ? std::string(bv->bv_val, bv->bv_len) : s != nullptr ? s : "-";
    ber_bvfree(bv);
    lber_free(s);
    return t;
}

} // namespace

std::string parse_control(ControlParser which, LDAPControl **list)
{
    int count = -1, warning = -1, error = -1, rc;
    unsigned long result = 0, pos = 0, n = 0;
    long value = -1;
    struct berval *bv = nullptr;
    char *attr = nullptr;
    LDAPDerefRes *res = nullptr;
    bool leaked = false;
    switch (which) {
    case ControlParser::Page:
        rc = ldap_parse_page_control(nullptr, list, &count, &bv);
        leaked = rc != 0 && bv != nullptr;
        return summary(rc, leaked, count, take(bv, nullptr));
    case ControlParser::Deref:
        rc = ldap_parse_deref_control(nullptr, list, &res);
        leaked = rc != 0 && res != nullptr;
        ldap_derefresponse_free(res);
        return summary(rc, leaked);
    case ControlParser::Policy:
        rc = ldap_parse_passwordpolicy_control(nullptr, list, &warning, &value, &error);
        return summary(rc, false, warning, value, error);
    default:
        rc = ldap_parse_sort_control(nullptr, list, &result, &attr);
        leaked = rc != 0 && attr != nullptr;
        if (rc != LDAP_CONTROL_NOT_FOUND)
            return summary(rc, leaked, result, take(nullptr, attr));
        rc = ldap_parse_vlv_control(nullptr, list, &pos, &n, &bv, &error);
        leaked = rc != 0 && bv != nullptr;
        return summary(rc, leaked, pos, n, error, take(bv, nullptr));
    }
}

} // namespace wzrtest
