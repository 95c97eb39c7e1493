// The response-control parsers run over a control list and summarised as text, for the value
// tests and the fuzz target alike.
#ifndef WZR_TESTS_SUPPORT_CONTROL_PARSE_H
#define WZR_TESTS_SUPPORT_CONTROL_PARSE_H

#include <string>

#include "libldap/ldap_int.h"

namespace wzrtest {

enum class ControlParser { Page, SortOrVlv, Deref, Policy, Count };

// "RC" after a failure ("RC leaked" when the parser handed something out anyway), "0 ..." with
// the outputs after success; everything handed out is freed.
std::string parse_control(ControlParser which, LDAPControl **list);

} // namespace wzrtest

#endif
