// LDAP URL parsing: ldap[s]://host:port/dn?attrs?scope?filter.
#ifndef WZR_LIBLDAP_LDAP_URL_H
#define WZR_LIBLDAP_LDAP_URL_H

#include "ldap_int.h"

int ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
int ldap_url_parse_internal(const char *url, LDAPURLDesc **ludpp);
void ldap_free_urldesc(LDAPURLDesc *lud);
int ldap_is_ldap_url(const char *url);

#endif
