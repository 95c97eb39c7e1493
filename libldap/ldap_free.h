// Releasing handles and connection records.
#ifndef WZR_LIBLDAP_LDAP_FREE_H
#define WZR_LIBLDAP_LDAP_FREE_H

#include "ldap_int.h"

void ldap_ld_free(LDAP *ld);
void ldap_lc_free(LDAPConn *lc); // the whole chain from lc

// Everything the handle owns except its mutexes, its condition and the record itself: for
// ldap_ld_free and for ldap_init's way out before the synchronisation objects exist.
void ldap_ld_free_owned(LDAP *ld);

// Destroys one mutex or condition; a failure is traced and does not stop the teardown.
void ldap_destroy_mutex_traced(pthread_mutex_t *mutex, int line);
void ldap_destroy_cond_traced(pthread_cond_t *cond, int line);

#endif
