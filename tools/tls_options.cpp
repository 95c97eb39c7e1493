// The command-line client's secure-transport options and StartTLS. StartTLS and the toolkit
// initialisation are not among the exported functions, so the tool reaches them through the
// library's internal interface (it is linked with the static library).
#include "tls_options.h"

#include <iostream>

#include "libldap/ldap_load.h"
#include "libldap/ldap_ssl.h"

namespace wzrtls {

const char kHelp[] =
    "  -Z          StartTLS before binding; go on in clear text when the server refuses\n"
    "  -ZZ         StartTLS, and stop when it fails\n"
    "  --keydb FILE        key database: PKCS#12 or PEM file of trusted certificates (and\n"
    "                      a client certificate); default ldapkey.kdb, else the system's store\n"
    "  --keydb-pw PASSWD   its password (default: read from the stash file, FILE.sth)\n"
    "  --cert-label LABEL  client certificate to present (its PKCS#12 friendly name)\n"
    "  Use -H ldaps://host:port for LDAPS.\n";

bool parse_option(int c, const char *arg, TlsOptions *o)
{
    switch (c) {
    case 'Z': ++o->starttls; return true;
    case kOptKeydb: o->keydb = arg; return true;
    case kOptKeydbPw: o->keydb_pw = arg; return true;
    case kOptLabel: o->label = arg; return true;
    default: return false;
    }
}

namespace {

const char *or_null(const std::string &s) { return s.empty() ? nullptr : s.c_str(); }

void say(const std::string &text) { std::cerr << "wzrldap: " << text << '\n'; }

int start_tls(LDAP *ld, const TlsOptions &o)
{
    int reason = 0;
    int rc = ldap_ssl_client_init(or_null(o.keydb), or_null(o.keydb_pw), 0, &reason);
    if (rc != 0 && rc != LDAP_SSL_ALREADY_INITIALIZED) {
        say("secure initialisation failed: " + std::string(wzr_ldap_err2string(rc)) +
            (reason != 0 ? " (" + std::string(ldap_ssl_strerror(reason)) + ")" : ""));
        return rc;
    }
    return ldap_start_tls_s_np(ld, nullptr);
}

} // namespace

int secure_session(LDAP *ld, const TlsOptions &o)
{
    const struct {
        int option;
        const std::string &value;
    } strings[] = {{LDAP_OPT_SSL_KEYRING, o.keydb},
                   {LDAP_OPT_SSL_KEYRING_PW, o.keydb_pw},
                   {LDAP_OPT_SSL_CERT_LABEL, o.label}};
    for (const auto &s : strings) {
        int rc = s.value.empty() ? 0 : wzr_ldap_set_option(ld, s.option, s.value.c_str());
        if (rc != 0)
            return rc;
    }
    if (o.starttls == 0)
        return 0;
    int rc = start_tls(ld, o);
    if (rc == 0)
        return 0;
    say(std::string("StartTLS failed: ") + wzr_ldap_err2string(rc));
    // Once the server has agreed, a failed handshake leaves nothing usable in clear text.
    bool refused_by_server = rc < LDAP_SERVER_DOWN;
    if (o.starttls >= 2 || !refused_by_server)
        return rc;
    say("going on without TLS");
    return 0;
}

} // namespace wzrtls
