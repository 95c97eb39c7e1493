// Walking search results: entries, references, attributes and values, and their release.
#ifndef WZR_LIBLDAP_LDAP_ENTRY_H
#define WZR_LIBLDAP_LDAP_ENTRY_H

#include "ldap_int.h"

inline constexpr int LDAP_ATTR_NAME_BUF = 401;

LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *chain);
LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry);
int ldap_count_entries(LDAP *ld, LDAPMessage *chain);
LDAPMessage *ldap_first_reference(LDAP *ld, LDAPMessage *chain);
LDAPMessage *ldap_next_reference(LDAP *ld, LDAPMessage *ref);
int ldap_count_references(LDAP *ld, LDAPMessage *chain);
int ldap_count_attributes(LDAP *ld, LDAPMessage *entry);
char *ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursor);
char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor);
char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *type);
struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *type);
void ldap_value_free(char **values);
void ldap_value_free_len(struct berval **values);
void ldap_memfree(void *p);
void ldap_ber_free(BerElement *cursor, int freebuf);

#endif
