// The search request in all its layers.
#ifndef WZR_LIBLDAP_LDAP_SEARCH_H
#define WZR_LIBLDAP_LDAP_SEARCH_H

#include "ldap_deadline.h"
#include "ldap_int.h"

[[nodiscard]] int ldap_search_ext_direct(LDAP *ld, const char *base, int scope, const char *filter,
                                         char **attrs, int attrsonly, LDAPControl **serverctrls,
                                         int sizelimit, struct timeval *timeout, int *msgidp,
                                         LDAPConn *lc, const LDAPDeadline &until);
int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                    int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                    struct timeval *timeout, int sizelimit, int *msgidp);
int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                      int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                      struct timeval *timeout, int sizelimit, LDAPMessage **res);
int ldap_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                int attrsonly);
int ldap_search_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                  int attrsonly, LDAPMessage **res);
int ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                   int attrsonly, struct timeval *timeout, LDAPMessage **res);

#endif
