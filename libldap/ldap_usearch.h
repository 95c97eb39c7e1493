// URL search: the search an LDAP URL describes, on the default connection or, for another
// server, through a placeholder row of the default table linked to the real request.
#ifndef WZR_LIBLDAP_LDAP_USEARCH_H
#define WZR_LIBLDAP_LDAP_USEARCH_H

#include "ldap_int.h"

int ldap_url_search_direct(LDAP *ld, const char *url, int attrsonly); // id, or -1 (recorded)
int ldap_url_search(LDAP *ld, const char *url, int attrsonly);
// 0 whatever the result's code (read it from *res); a time-out returns 0 with *res null and
// 85 as the handle's error only.
int ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout,
                       LDAPMessage **res);
int ldap_url_search_s(LDAP *ld, const char *url, int attrsonly, LDAPMessage **res);

#endif
