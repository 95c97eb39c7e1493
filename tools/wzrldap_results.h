// What the exported interface cannot reach, for the wzrldap tool: the server's matched DN and
// text on errors, referral chasing on or off with the references printed, and a rename that
// moves an entry under a new superior.
#ifndef WZR_TOOLS_WZRLDAP_RESULTS_H
#define WZR_TOOLS_WZRLDAP_RESULTS_H

#include <string>

#include "ldif.h"
#include "wzrldap.h"

namespace wzrtool {

// The matched DN and the server's text of the calling thread's last error on `ld`, as
// indented lines for standard error (empty when the server sent neither).
std::string server_error_lines(LDAP *ld);
// The same from a final result message, with the URLs of any referral the result reports.
std::string result_error_lines(LDAP *ld, LDAPMessage *res);

// Referral chasing (on by default in the library) switched off; 0 or the code.
int stop_following_referrals(LDAP *ld);

// Prints every search reference of `res` and the referral URLs of its final result as LDIF
// comments, "# ref" followed by the URL, so that LDIF readers pass over them.
void print_referrals(LDAP *ld, LDAPMessage *res);

// A modrdn record, moved under its new superior when it names one.
int rename_entry(LDAP *ld, const wzrldif::Record &r);

} // namespace wzrtool

#endif
