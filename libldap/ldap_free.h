// Releasing handles and connection records.
#ifndef WZR_LIBLDAP_LDAP_FREE_H
#define WZR_LIBLDAP_LDAP_FREE_H

#include "ldap_int.h"

void ldap_ld_free(LDAP *ld);
void ldap_lc_free(LDAPConn *lc); // the whole chain from lc

#endif
