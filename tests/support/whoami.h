// Who-am-I (1.3.6.1.4.1.4203.1.11.3) through the library's request skeleton, for tests that
// must see which identity a bind gave the connection, and the text a failed bind recorded.
#ifndef WZR_TESTS_SUPPORT_WHOAMI_H
#define WZR_TESTS_SUPPORT_WHOAMI_H

#include <string>

#include "libldap/ldap_int.h"

namespace wzrtest {

// The server's answer ("dn:..." or "" for anonymous), or "error N".
std::string whoami(LDAP *ld);
// The calling thread's recorded error message on `ld` ("" without one).
std::string recorded_message(LDAP *ld);

} // namespace wzrtest

#endif
