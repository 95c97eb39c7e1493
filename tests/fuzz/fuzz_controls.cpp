// Feeds any bytes to the control parsers as a server's response control: the first byte picks
// the parser, the rest is the control value. Each must answer 0, 84, 90 or 93, hand out nothing
// on failure, and never crash or leak; so must the transaction-end response reader.
#include <cstddef>
#include <cstdint>
#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "support/control_parse.h"

namespace {

using wzrtest::ControlParser;

struct Target {
    const char *oid;
    ControlParser parser;
};
const Target TARGETS[] = {{LDAP_CONTROL_PAGEDRESULTS, ControlParser::Page},
                          {LDAP_CONTROL_SORTRESPONSE, ControlParser::SortOrVlv},
                          {LDAP_CONTROL_VLVRESPONSE, ControlParser::SortOrVlv},
                          {LDAP_CONTROL_DEREF, ControlParser::Deref},
                          {LDAP_CONTROL_PASSWORDPOLICY, ControlParser::Policy},
                          {LDAP_CONTROL_PWEXPIRING, ControlParser::Policy}};
constexpr size_t NTARGETS = sizeof TARGETS / sizeof TARGETS[0];

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    struct berval value{size - 1, const_cast<char *>(reinterpret_cast<const char *>(data + 1))};
    int failed = 0, rc = ldap_parse_txn_end_response_value(nullptr, &value, &failed);
    if (rc != 0 && rc != LDAP_DECODING_ERROR && rc != LDAP_NO_MEMORY)
        __builtin_trap();
    const Target &t = TARGETS[data[0] % NTARGETS];
    LDAPControl *ctrl = nullptr;
    if (ldap_control_create(t.oid, 0, &value, &ctrl) != 0)
        return 0;
    LDAPControl *list[] = {ctrl, nullptr};
    std::string summary = wzrtest::parse_control(t.parser, list);
    ldap_control_free(ctrl);
    bool known = summary == "84" || summary == "90" || summary == "93" || summary[0] == '0';
    if (!known)
        __builtin_trap();
    return 0;
}
