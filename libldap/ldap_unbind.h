// Ending a handle: wait for running operations, then free it. Sends nothing to the server.
#ifndef WZR_LIBLDAP_LDAP_UNBIND_H
#define WZR_LIBLDAP_LDAP_UNBIND_H

#include "ldap_int.h"

int ldap_unbind(LDAP *ld);
int ldap_unbind_ext(LDAP *ld);
int ldap_unbind_s(LDAP *ld);

#endif
