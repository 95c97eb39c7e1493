// Simple and SASL binds, synchronous and asynchronous; bind parameters kept for rebinding.
#ifndef WZR_LIBLDAP_LDAP_BIND_H
#define WZR_LIBLDAP_LDAP_BIND_H

#include "ldap_int.h"

inline constexpr int LDAP_AUTH_SIMPLE = 0x80;
inline constexpr int LDAP_AUTH_SASL = 0xa3;

int ldap_simple_bind(LDAP *ld, const char *dn, const char *passwd);
int ldap_simple_bind_s(LDAP *ld, const char *dn, const char *passwd);
int ldap_bind(LDAP *ld, const char *dn, const char *cred, int method);
int ldap_bind_s(LDAP *ld, const char *dn, const char *cred, int method);
int ldap_sasl_bind(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                   LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
int ldap_sasl_bind_s(LDAP *ld, const char *dn, const char *mechanism, const struct berval *cred,
                     LDAPControl **serverctrls, LDAPControl **clientctrls,
                     struct berval **servercredp);
[[nodiscard]] int ldap_simple_bind_direct(LDAP *ld, const char *dn, const char *passwd,
                                          LDAPControl **serverctrls, int *msgidp, LDAPConn *lc);
[[nodiscard]] int ldap_sasl_bind_direct(LDAP *ld, const char *dn, const char *mechanism,
                                        const struct berval *cred, LDAPControl **serverctrls,
                                        int *msgidp, LDAPConn *lc);
[[nodiscard]] int ldap_sasl_bind_call_plugin(LDAP *ld, const char *dn, const char *mechanism,
                                             const struct berval *cred, LDAPControl **serverctrls,
                                             LDAPControl **clientctrls,
                                             struct berval **servercredp, int option224,
                                             int async, int *msgidp);

#endif
