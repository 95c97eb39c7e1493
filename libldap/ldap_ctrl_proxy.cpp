// Proxied authorisation: the operation runs with the rights of another identity. Version 2
// names it by an authorisation identity, version 1 (older servers) by a DN.
//
// The version 2 value is the authorisation identity itself. Some older clients sent it wrapped
// in a BER OCTET STRING instead, and the servers written for them expect that form; the
// environment switch read by ldap_proxied_auth_encoding_mode selects it:
//   mode 0 (unset)             the identity as it stands, the standard form;
//   mode 1 ("YES", any case)   the identity wrapped in an OCTET STRING;
//   mode 2 (any other value)   switched off explicitly: the standard form, as mode 0.
#include "ldap_ctrl.h"

#include <cstring>
#include <strings.h>

#include "ldap_controls.h"
#include "ldap_error.h"

namespace {

// "dn:<DN>", "u:<user>" or the empty string (anonymous), as the authorisation identity
// grammar writes them.
bool authzid_valid(const char *id)
{
    return *id == '\0' || strncasecmp(id, "dn:", 3) == 0 || strncasecmp(id, "u:", 2) == 0;
}

} // namespace

//   controlValue ::= authzId   (mode 1: OCTET STRING authzId)
int ldap_create_proxied_authorization_control(LDAP *ld, const char *authzid, LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_proxied_authorization_control\n");
    if (ctrlp == nullptr || authzid == nullptr || !authzid_valid(authzid))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    if (ldap_proxied_auth_encoding_mode() == 1)
        return ldap_fail(ld, ldap_control_encode(LDAP_CONTROL_PROXY_AUTHZ, 1, ctrlp, "s", authzid));
    struct berval value{strlen(authzid), const_cast<char *>(authzid)};
    return ldap_fail(ld, ldap_control_create(LDAP_CONTROL_PROXY_AUTHZ, 1, &value, ctrlp));
}

//   ProxyAuthValue ::= SEQUENCE { proxyDN LDAPDN }
int ldap_create_proxyauth_control(LDAP *ld, const char *dn, char iscritical, LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_proxyauth_control\n");
    if (ctrlp == nullptr || dn == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    return ldap_fail(ld, ldap_control_encode(LDAP_CONTROL_PROXYAUTH_V1, iscritical, ctrlp, "{s}",
                                             dn));
}
