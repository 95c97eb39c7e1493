// The SASL side of the wzrldap tool: the -Y, -U, -X and -R flags and the bind they ask for,
// carried out by the library and the plug-in qrvldap.conf names for the mechanism.
#ifndef WZR_TOOLS_SASL_BIND_H
#define WZR_TOOLS_SASL_BIND_H

#include <string>

#include "wzrldap.h"

namespace wzrsasl_tool {

struct SaslOptions {
    std::string mech, authcid, authzid, realm;
};

inline constexpr char kFlags[] = "Y:U:X:R:";
inline constexpr char kHelp[] =
    "  -Y MECH     SASL bind with MECH, through the plug-in qrvldap.conf names for it\n"
    "  -U NAME     SASL authentication identity (default: -D's value)\n"
    "  -X ID       SASL authorisation identity (dn:... or u:...)\n"
    "  -R REALM    SASL realm\n";

// Takes one of the flags above; false for any other.
bool parse_flag(int flag, const char *value, SaslOptions *o);
// Binds `ld` as the options say, with `password` as the credentials; on failure reports the
// code and the server's text on standard error. Returns the result code.
int bind(LDAP *ld, const SaslOptions &o, const std::string &binddn, const char *password);

} // namespace wzrsasl_tool

#endif
