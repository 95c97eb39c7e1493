// Walking search results: entries, references, attributes and values, and their release.
#ifndef WZR_LIBLDAP_LDAP_ENTRY_H
#define WZR_LIBLDAP_LDAP_ENTRY_H

#include "ldap_int.h"

// Attribute names are handed out in buffers of this size: types of up to 400 characters.
inline constexpr int LDAP_ATTR_NAME_BUF = 401;

// A private read cursor over a message's element: a copy of the record that shares the buffer
// and keeps its own read position. It lives on the caller's stack and owns nothing, so the hot
// readers (values by name, the DN) pay no allocation for it.
inline BerElement ldap_read_cursor(const BerElement *ber)
{
    BerElement c = *ber;
    c.ber_heapbuf = nullptr;
    c.ber_nomem = false;
    return c;
}

//   SearchResultEntry ::= [APPLICATION 4] SEQUENCE { objectName LDAPDN,
//                           attributes SEQUENCE OF SEQUENCE { type, vals SET OF value } }
// "{x{": enters the entry, skips the name and enters the attribute list. The caller has begun
// the scan (fber_scan_begin) with the format it stands for, where a trace should show it.
[[nodiscard]] bool ldap_enter_attribute_list(BerElement *c);

// The next record of a response chain. A record that ldap_result handed out alone stays linked
// into its row, so its links are not the caller's to follow.
inline LDAPMessage *ldap_chain_next(const LDAPMessage *m)
{
    return (m->lm_flags & LDAP_MSG_SINGLE) != 0 ? nullptr : m->lm_chain;
}

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
void ldap_ber_free(BerElement *cursor, int freebuf); // frees the cursor record only

#endif
