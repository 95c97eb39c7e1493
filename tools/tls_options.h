// The command-line client's secure-transport options: -Z / -ZZ (StartTLS, the second form
// refusing to go on in clear text), the key database, its password and the certificate label.
// LDAPS itself needs nothing but an ldaps:// URL given to -H.
#ifndef WZR_TOOLS_TLS_OPTIONS_H
#define WZR_TOOLS_TLS_OPTIONS_H

#include <getopt.h>
#include <string>

#include "wzrldap.h"

namespace wzrtls {

struct TlsOptions {
    int starttls = 0; // 1 for -Z, 2 for -ZZ
    std::string keydb, keydb_pw, label;
};

// Long options (--keydb FILE, --keydb-pw PASSWORD, --cert-label LABEL), for getopt_long.
enum { kOptKeydb = 0x1001, kOptKeydbPw, kOptLabel };
#define WZRTLS_LONG_OPTIONS                                                                 \
    {"keydb", required_argument, nullptr, ::wzrtls::kOptKeydb},                             \
        {"keydb-pw", required_argument, nullptr, ::wzrtls::kOptKeydbPw},                    \
        {"cert-label", required_argument, nullptr, ::wzrtls::kOptLabel}

extern const char kHelp[];

// Takes one of the options above (or 'Z'); false when `c` is not one of them.
bool parse_option(int c, const char *arg, TlsOptions *o);

// Before the bind: hands the key database, password and label to the handle and, with -Z,
// runs StartTLS. 0 to go on (after a warning when -Z failed), else the result to exit with.
int secure_session(LDAP *ld, const TlsOptions &o);

} // namespace wzrtls

#endif
