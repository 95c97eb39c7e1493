// Feeds any bytes to the control parsers as a server's response control: the first byte picks
// the parser (and so the OID), the rest is the control value. A parser must answer 0, 84 or
// 93 (90 only when memory runs out), hand out nothing on failure, and never crash or leak;
// the same bytes as text go to the matched-values filter reader, which must fail cleanly or
// produce a control.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"

namespace {

const char *const OIDS[] = {LDAP_CONTROL_PAGEDRESULTS, LDAP_CONTROL_SORTRESPONSE,
                            LDAP_CONTROL_VLVRESPONSE,  LDAP_CONTROL_PASSWORDPOLICY,
                            LDAP_CONTROL_PWEXPIRING,   LDAP_CONTROL_TXN_SPEC};
constexpr size_t NOIDS = sizeof OIDS / sizeof OIDS[0];

bool acceptable(int rc)
{
    return rc == 0 || rc == LDAP_DECODING_ERROR || rc == LDAP_CONTROL_NOT_FOUND ||
           rc == LDAP_NO_MEMORY;
}

void parse(size_t which, LDAPControl **list, const struct berval *value)
{
    int rc = 0;
    switch (which) {
    case 0: {
        struct berval *cookie = nullptr;
        int count = 0;
        rc = ldap_parse_page_control(nullptr, list, &count, &cookie);
        if (rc != 0 && cookie != nullptr)
            __builtin_trap();
        ber_bvfree(cookie);
        break;
    }
    case 1: {
        unsigned long result = 0;
        char *attr = nullptr;
        rc = ldap_parse_sort_control(nullptr, list, &result, &attr);
        if (rc != 0 && attr != nullptr)
            __builtin_trap();
        lber_free(attr);
        break;
    }
    case 2: {
        unsigned long pos = 0, count = 0;
        int err = 0;
        struct berval *context = nullptr;
        rc = ldap_parse_vlv_control(nullptr, list, &pos, &count, &context, &err);
        if (rc != 0 && context != nullptr)
            __builtin_trap();
        ber_bvfree(context);
        break;
    }
    case 3:
    case 4: {
        int warning = 0, error = 0;
        long v = 0;
        rc = ldap_parse_passwordpolicy_control(nullptr, list, &warning, &v, &error);
        if (rc == 0 && (warning < 0 || warning > 2 || error < 0 || error > 11))
            __builtin_trap();
        break;
    }
    default: {
        int failed = 0;
        rc = ldap_parse_txn_end_response_value(nullptr, value, &failed);
        break;
    }
    }
    if (!acceptable(rc))
        __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    size_t which = data[0] % NOIDS;
    struct berval value{size - 1, const_cast<char *>(reinterpret_cast<const char *>(data + 1))};
    LDAPControl *ctrl = nullptr;
    if (ldap_control_create(OIDS[which], 0, &value, &ctrl) != 0)
        return 0;
    LDAPControl *list[] = {ctrl, nullptr};
    parse(which, list, &value);
    ldap_control_free(ctrl);

    char *text = static_cast<char *>(lber_malloc(size));
    if (text == nullptr)
        return 0;
    memcpy(text, data + 1, size - 1);
    text[size - 1] = '\0';
    LDAPControl *mv = nullptr;
    int rc = ldap_create_matchedvalues_control(nullptr, text, 0, &mv);
    if ((rc == 0) != (mv != nullptr))
        __builtin_trap();
    ldap_control_free(mv);
    lber_free(text);
    return 0;
}
