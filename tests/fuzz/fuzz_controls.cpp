// Feeds any bytes to the control parsers as a server's response control: the first byte picks
// the parser, the rest is the control value. Each must answer 0, 84, 90 or 93, hand out nothing
// on failure, and never crash or leak. The same bytes as text go to the matched-values reader.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"

namespace {

// One parser run over `list`; *out is what it handed out (freed here, null after a failure).
int parse(uint8_t which, LDAPControl **list, const struct berval *value, void **out)
{
    unsigned long a = 0, b = 0;
    int i = 0, j = 0;
    long l = 0;
    switch (which % 7) {
    case 0: return ldap_parse_page_control(nullptr, list, &i, reinterpret_cast<berval **>(out));
    case 1: return ldap_parse_sort_control(nullptr, list, &a, reinterpret_cast<char **>(out));
    case 2:
        return ldap_parse_vlv_control(nullptr, list, &a, &b, reinterpret_cast<berval **>(out), &i);
    case 3:
    case 4: return ldap_parse_passwordpolicy_control(nullptr, list, &i, &l, &j);
    case 5: return ldap_parse_deref_control(nullptr, list, reinterpret_cast<LDAPDerefRes **>(out));
    default: return ldap_parse_txn_end_response_value(nullptr, value, &i);
    }
}

const char *const OIDS[] = {LDAP_CONTROL_PAGEDRESULTS, LDAP_CONTROL_SORTRESPONSE,
                            LDAP_CONTROL_VLVRESPONSE,  LDAP_CONTROL_PASSWORDPOLICY,
                            LDAP_CONTROL_PWEXPIRING,   LDAP_CONTROL_DEREF,
                            LDAP_CONTROL_TXN_SPEC};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    struct berval value{size - 1, const_cast<char *>(reinterpret_cast<const char *>(data + 1))};
    LDAPControl *ctrl = nullptr;
    if (ldap_control_create(OIDS[data[0] % 7], 0, &value, &ctrl) != 0)
        return 0;
    LDAPControl *list[] = {ctrl, nullptr};
    void *out = nullptr;
    int rc = parse(data[0], list, &value, &out);
    bool known = rc == 0 || rc == LDAP_DECODING_ERROR || rc == LDAP_CONTROL_NOT_FOUND ||
                 rc == LDAP_NO_MEMORY;
    if (!known || (rc != 0 && out != nullptr))
        __builtin_trap();
    if (data[0] % 7 == 1)
        lber_free(out);
    else if (data[0] % 7 == 5)
        ldap_derefresponse_free(static_cast<LDAPDerefRes *>(out));
    else
        ber_bvfree(static_cast<berval *>(out));
    ldap_control_free(ctrl);

    char *text = static_cast<char *>(lber_malloc(size));
    if (text == nullptr)
        return 0;
    memcpy(text, data + 1, size - 1);
    text[size - 1] = '\0';
    rc = ldap_create_matchedvalues_control(nullptr, text, 0, &ctrl);
    if ((rc == 0) != (ctrl != nullptr))
        __builtin_trap();
    ldap_control_free(ctrl);
    lber_free(text);
    return 0;
}
