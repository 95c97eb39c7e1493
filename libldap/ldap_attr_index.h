// The attribute index of a search entry: where each attribute a cursor reads begins and where its
// type lies, worked out once per entry so that walking the attributes and looking values up by
// name decode no headers.
#ifndef WZR_LIBLDAP_LDAP_ATTR_INDEX_H
#define WZR_LIBLDAP_LDAP_ATTR_INDEX_H

#include <cstddef>
#include <cstdint>

#include "ldap_int.h"

// One attribute, as offsets from the entry's ber_buf: the SEQUENCE a cursor stands on before
// reading it, and the type's bytes; the value set follows the type directly.
struct LDAPAttrSlot {
    uint32_t at;
    uint32_t type;
    uint32_t type_len;
};

// The readable prefix of an entry's attribute list. `end` is where a cursor stands after the
// last slot: the end of the data, the entry's controls, or the first attribute that does not
// read cleanly (or whose type is too long to hand out), where the decoding paths take over.
struct LDAPAttrIndex {
    const unsigned char *buf; // the element it describes
    size_t size;
    uint32_t end;
    uint32_t count;
    uint32_t next; // the slot after the last one a cursor took: a hint, read and written relaxed
    LDAPAttrSlot slot[1]; // `count` of them (at least one allocated)
};

// The entry's index, built on first use and shared by every thread reading the entry; null when
// it cannot serve (not an FBER entry, an unreadable list start, no memory). Callers use it only
// for untranslated names and while tracing is off, so that a trace always shows the decoding.
LDAPAttrIndex *ldap_attr_index(LDAPMessage *entry);

// The slot a cursor at `offset` reads next; -1 when `offset` begins no slot. Cursors walk the
// slots in order, so the one after the last taken is tried first.
int ldap_attr_index_find(LDAPAttrIndex *index, size_t offset);

// Releases what an entry's record holds for its index.
void ldap_attr_index_free(LDAPMessage *entry);

#endif
