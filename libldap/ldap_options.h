// Per-handle options and the process-wide default handle.
#ifndef WZR_LIBLDAP_LDAP_OPTIONS_H
#define WZR_LIBLDAP_LDAP_OPTIONS_H

#include "ldap_int.h"

int ldap_set_option(LDAP *ld, int option, const void *value);
int ldap_get_option(LDAP *ld, int option, void *out);
int ldap_set_option_direct(LDAP *ld, int option, const void *value);
int ldap_get_option_direct(LDAP *ld, int option, void *out);
LDAP *ld_set_global_default(); // created once, never freed; nullptr on failure

#endif
