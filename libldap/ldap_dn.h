// DN parsing into RDNs and attribute-value pairs, and the string forms rebuilt from them.
#ifndef WZR_LIBLDAP_LDAP_DN_H
#define WZR_LIBLDAP_LDAP_DN_H

#include "ldap_int.h"

struct LDAPAVAPair {
    char *type;
    char *value; // unescaped
};
struct LDAPAVA {
    LDAPAVAPair *pair;
    LDAPAVA *next;
};
struct LDAPRDN {
    LDAPAVA *avas;
    long count;
    LDAPRDN *next;
};
struct LDAPDN {
    LDAPRDN *rdns;
    int64_t count;
    void *reserved1;
    void *reserved2;
    char *normalized;
    char *normalized_upper;
};

inline constexpr int LDAP_DN_BUILD_IN_ORDER = 98;
inline constexpr int LDAP_DN_BUILD_SORTED = 99;

char *ldap_get_dn(LDAP *ld, LDAPMessage *entry);
char **ldap_explode_dn(const char *dn, int notypes);
char **ldap_explode_rdn(const char *dn, int notypes);
char *ldap_dn2ufn(const char *dn);
char **ldap_explode_dns(const char *name);
LDAPDN *parse_dn(const char *dn, int mode, int *err);
void ldap_free_dn(LDAPDN *dn);

#endif
