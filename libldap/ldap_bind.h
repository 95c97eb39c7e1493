// Simple and SASL binds, synchronous and asynchronous; bind parameters kept for rebinding.
#ifndef WZR_LIBLDAP_LDAP_BIND_H
#define WZR_LIBLDAP_LDAP_BIND_H

#include "ldap_deadline.h"
#include "ldap_int.h"

inline constexpr int LDAP_AUTH_SIMPLE = 0x80;
inline constexpr int LDAP_AUTH_SASL = 0xa3;
// The handle's ld_authmethod after a SASL bind (a simple bind keeps LDAP_AUTH_SIMPLE).
inline constexpr int LDAP_AUTH_KEPT_SASL = 2;

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
// Encodes and sends a SASL bind request (mechanism and optional credentials) on `lc` (null:
// the default connection); 0 with *msgidp set, or the recorded code.
[[nodiscard]] int ldap_sasl_bind_encode_and_send(LDAP *ld, const char *dn, const char *mechanism,
                                                 const struct berval *cred,
                                                 LDAPControl **serverctrls, int *msgidp,
                                                 LDAPConn *lc);
// The bind shared by ldap_sasl_bind (async 1: *msgidp set) and ldap_sasl_bind_s (async 0:
// waits and returns the result code, server credentials into *servercredp when given).
[[nodiscard]] int ldap_sasl_bind_int(LDAP *ld, const char *dn, const char *mechanism,
                                     const struct berval *cred, LDAPControl **serverctrls,
                                     LDAPControl **clientctrls, struct berval **servercredp,
                                     int async, int *msgidp);
// Sends a SASL bind request and waits for its result.
[[nodiscard]] int ldap_sasl_bind_s_direct(LDAP *ld, const char *dn, const char *mechanism,
                                          const struct berval *cred, LDAPControl **serverctrls,
                                          struct berval **servercredp);
// Carries a synchronous SASL bind out through the mechanism's plug-in (ldap_bind_plugin.cpp)
// on `lc` (null: the default connection), its exchanges waiting within `until`: the plug-in's
// result, recorded; 12 when no plug-in serves the mechanism and 192 without a configuration
// file (the caller then sends a plain request).
[[nodiscard]] int ldap_sasl_bind_call_plugin(LDAP *ld, const char *dn, const char *mechanism,
                                             const struct berval *cred, LDAPControl **serverctrls,
                                             LDAPControl **clientctrls,
                                             struct berval **servercredp, int option224,
                                             int async, int *msgidp, LDAPConn *lc,
                                             const LDAPDeadline &until);
// Binds a referral's connection `lc` again with the SASL mechanism and credentials the handle
// kept from its last bind, as that bind did (plug-in or plain request, or EXTERNAL without
// name, credentials or controls), waiting within `until`. Keeps no bind parameters: the
// handle's own bind is unchanged. The result code, recorded.
[[nodiscard]] int ldap_sasl_rebind_s(LDAP *ld, LDAPConn *lc, const char *dn,
                                     const char *mechanism, const struct berval *cred,
                                     LDAPControl **serverctrls, LDAPControl **clientctrls,
                                     const LDAPDeadline &until);
// Runs the clean-up of the plug-in record on `lc` (function 302) and frees the record.
void ldap_plugin_release_record(LDAPConn *lc);
// One request and response of a plug-in's SASL exchange on `lc` (null: the default
// connection), waiting within `until`: the result code, the server's credentials into
// *servercredp and a copy of its diagnostic text into *errmsg (null when none).
[[nodiscard]] int ldap_sasl_bind_step(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until,
                                      const char *dn, const char *mechanism,
                                      const struct berval *cred, LDAPControl **serverctrls,
                                      struct berval **servercredp, char **errmsg);

#endif
