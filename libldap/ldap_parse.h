// Taking LDAPResult responses apart: result code, matched DN, message, referrals, response
// controls, extended and SASL bind results, search references.
#ifndef WZR_LIBLDAP_LDAP_PARSE_H
#define WZR_LIBLDAP_LDAP_PARSE_H

#include "ldap_int.h"

int ldap_parse_result(LDAP *ld, LDAPMessage *res, int *errcodep, char **matcheddnp,
                      char **errmsgp, char ***referralsp, LDAPControl ***serverctrlsp, int freeit);
int ldap_parse_extended_result(LDAP *ld, LDAPMessage *res, char **resultoidp,
                               struct berval **resultdata, int freeit);
int ldap_parse_extended_result_ctrls(LDAP *ld, LDAPMessage *res, char **resultoidp,
                                     struct berval **resultdata, LDAPControl ***serverctrlsp,
                                     int freeit);
int ldap_parse_extended_result_direct(LDAP *ld, LDAPMessage *res, char **resultoidp,
                                      struct berval **resultdata, int freeit,
                                      LDAPControl ***serverctrlsp);
int ldap_parse_sasl_bind_result(LDAP *ld, LDAPMessage *res, struct berval **servercredp,
                                int freeit);
int ldap_parse_sasl_bind_result_direct(LDAP *ld, LDAPMessage *res, struct berval **servercredp,
                                       int freeit);
int ldap_get_bind_controls(LDAP *ld, LDAPControl ***ctrlsp);
int ldap_parse_reference(LDAP *ld, LDAPMessage *ref, char ***referralsp,
                         LDAPControl ***serverctrlsp, int freeit);
int ldap_parse_reference_np(LDAP *ld, LDAPMessage *ref, char ***referralsp,
                            LDAPControl ***serverctrlsp, int freeit);

#endif
