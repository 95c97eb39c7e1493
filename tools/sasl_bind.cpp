// wzrldap's SASL bind: the flags become the identity words of the SASL plug-in (authcid,
// authzid, realm) and the bind goes through the library's synchronous SASL bind.
#include "sasl_bind.h"

#include <cstring>
#include <iostream>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_error.h"

namespace wzrsasl_tool {

bool parse_flag(int flag, const char *value, SaslOptions *o)
{
    std::string *field = flag == 'Y'   ? &o->mech
                         : flag == 'U' ? &o->authcid
                         : flag == 'X' ? &o->authzid
                         : flag == 'R' ? &o->realm
                                       : nullptr;
    if (field != nullptr)
        *field = value;
    return field != nullptr;
}

namespace {
// The plug-in's identity words; -D alone is passed as it is (a user name or the words).
std::string identity(const SaslOptions &o, const std::string &binddn)
{
    if (o.authcid.empty() && o.authzid.empty() && o.realm.empty())
        return binddn;
    std::string words = "authcid=" + (o.authcid.empty() ? binddn : o.authcid);
    if (!o.authzid.empty())
        words += " authzid=" + o.authzid;
    if (!o.realm.empty())
        words += " realm=" + o.realm;
    return words;
}
} // namespace

int bind(LDAP *ld, const SaslOptions &o, const std::string &binddn, const char *password)
{
    std::string who = identity(o, binddn);
    // EXTERNAL takes its identity from the connection and carries no name.
    bool external = strcasecmp(o.mech.c_str(), "EXTERNAL") == 0;
    struct berval pw = {password != nullptr ? strlen(password) : 0, const_cast<char *>(password)};
    int rc = ldap_sasl_bind_s(ld, external || who.empty() ? nullptr : who.c_str(), o.mech.c_str(),
                              password != nullptr && !external ? &pw : nullptr, nullptr, nullptr,
                              nullptr);
    if (rc != LDAP_SUCCESS) {
        char *text = nullptr;
        (void)ldap_get_lderrno(ld, nullptr, &text);
        std::cerr << "wzrldap: SASL bind with " << o.mech << ": " << ldap_err2string(rc) << " ("
                  << rc << ")\n";
        if (text != nullptr && *text != '\0')
            std::cerr << "\tadditional info: " << text << '\n';
        lber_free(text);
    }
    return rc;
}

} // namespace wzrsasl_tool
