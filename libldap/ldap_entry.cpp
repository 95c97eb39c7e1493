// Walking search results: entries and references along a response chain, the attributes of an
// entry through a cursor handed to the caller, the values of a named attribute, and the release
// functions for what these hand out. The entry's own BerElement never moves: every read works
// on a copy that shares its buffer.
#include "ldap_entry.h"

#include <cstring>

#include "ldap_error.h"
#include "ldap_init.h"

namespace {
// Public operations start with a clean slate for the calling thread.
void clear_error(LDAP *ld)
{
    (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // nothing to undo if it fails
}

LDAPMessage *first_of_type(LDAPMessage *m, int type)
{
    while (m != nullptr && m->lm_msgtype != type)
        m = ldap_chain_next(m);
    return m;
}

int count_of_type(LDAPMessage *m, int type)
{
    int n = 0;
    for (; m != nullptr; m = ldap_chain_next(m)) {
        if (m->lm_msgtype == type)
            ++n;
    }
    return n;
}

// The bracketed chain search shared by the entry and reference walkers.
LDAPMessage *find_traced(const char *fn, LDAP *ld, LDAPMessage *from, bool after, int type)
{
    LDAP_TRACE(LDAP_TRC_API, "%s: ld(%p) msg(%p)\n", fn, static_cast<void *>(ld),
               static_cast<void *>(from));
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    clear_error(ld);
    LDAPMessage *start = from != nullptr && after ? ldap_chain_next(from) : from;
    LDAPMessage *found = first_of_type(start, type);
    LDAP_TRACE(LDAP_TRC_API, "%s: returning (%p)\n", fn, static_cast<void *>(found));
    return found;
}

int count_traced(const char *fn, LDAP *ld, LDAPMessage *chain, int type)
{
    LDAP_TRACE(LDAP_TRC_API, "%s: ld(%p) msg(%p)\n", fn, static_cast<void *>(ld),
               static_cast<void *>(chain));
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    clear_error(ld);
    int n = count_of_type(chain, type);
    LDAP_TRACE(LDAP_TRC_API, "%s: returning (%d)\n", fn, n);
    return n;
}

//   SearchResultEntry ::= [APPLICATION 4] SEQUENCE { objectName LDAPDN,
//                           attributes SEQUENCE OF SEQUENCE { type, vals SET OF value } }
// Enters the entry, skips the name and enters the attribute list.
bool enter_attribute_list(BerElement *c) { return fber_scanf(c, "{x{") != LBER_ERROR; }

// The next attribute's type from the cursor into a fresh 401-byte buffer, skipping its values.
// Null with *code 0 at the normal end (no data left, or the entry's controls follow).
char *read_attribute_name(BerElement *cursor, int *code)
{
    *code = 0;
    ber_len_t len;
    if (cursor->ber_ptr >= cursor->ber_end || fber_peek_tag(cursor, &len) == LDAP_TAG_CONTROLS)
        return nullptr;
    auto name = static_cast<char *>(lber_malloc(LDAP_ATTR_NAME_BUF));
    if (name == nullptr) {
        *code = LDAP_NO_MEMORY;
        return nullptr;
    }
    len = LDAP_ATTR_NAME_BUF;
    if (fber_scanf(cursor, "{sx}", name, &len) == LBER_ERROR) {
        lber_free(name);
        *code = LDAP_DECODING_ERROR;
        return nullptr;
    }
    return name;
}

unsigned char ascii_fold(unsigned char ch) { return ch >= 'A' && ch <= 'Z' ? ch + ('a' - 'A') : ch; }

// Attribute types compare as strcasecmp does in ASCII, as C strings: `name` (decoded length
// `len`) matches only when its string length is that of `type`, an embedded NUL included.
// Compared from the end, where types sharing a long prefix (numeric or language suffixes)
// differ first.
bool same_type(const char *name, size_t len, const char *type, size_t type_len)
{
    if (len != type_len && !(len > type_len && name[type_len] == '\0'))
        return false;
    for (size_t i = type_len; i-- > 0;) {
        if (ascii_fold(static_cast<unsigned char>(name[i])) !=
            ascii_fold(static_cast<unsigned char>(type[i])))
            return false;
    }
    return true;
}

// Positions `c` (a copy of the entry's element) at the value set of the attribute named
// `type`. A missing attribute reads as a decoding failure.
bool seek_attribute(BerElement *c, const char *type)
{
    size_t type_len = strlen(type);
    char name[LDAP_ATTR_NAME_BUF];
    ber_len_t len = sizeof(name);
    if (fber_scanf(c, "{x{{s", name, &len) == LBER_ERROR)
        return false;
    while (!same_type(name, len, type, type_len)) {
        len = sizeof(name);
        if (fber_scanf(c, "x}{s", name, &len) == LBER_ERROR)
            return false;
    }
    return true;
}

// One body for ldap_get_values ("[v]": strings) and ldap_get_values_len ("[V]": bervals).
template <typename Value>
Value **get_values(LDAP *ld, LDAPMessage *entry, const char *type, const char *set_format)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    clear_error(ld);
    if (entry == nullptr || type == nullptr || entry->lm_ber == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return nullptr;
    }
    BerElement c = ldap_read_cursor(entry->lm_ber);
    Value **values = nullptr;
    bool ok = seek_attribute(&c, type) && fber_scanf(&c, set_format, &values) != LBER_ERROR;
    if (!ok) {
        (void)ldap_fail(ld, LDAP_DECODING_ERROR);
        return nullptr;
    }
    return values;
}
} // namespace

LDAPMessage *ldap_first_entry(LDAP *ld, LDAPMessage *chain)
{
    return find_traced("ldap_first_entry", ld, chain, false, LDAP_RES_SEARCH_ENTRY);
}

LDAPMessage *ldap_next_entry(LDAP *ld, LDAPMessage *entry)
{
    return find_traced("ldap_next_entry", ld, entry, true, LDAP_RES_SEARCH_ENTRY);
}

int ldap_count_entries(LDAP *ld, LDAPMessage *chain)
{
    return count_traced("ldap_count_entries", ld, chain, LDAP_RES_SEARCH_ENTRY);
}

LDAPMessage *ldap_first_reference(LDAP *ld, LDAPMessage *chain)
{
    return find_traced("ldap_first_reference", ld, chain, false, LDAP_RES_SEARCH_REFERENCE);
}

// Starts at `ref` itself, like ldap_first_reference: callers that walk references advance the
// chain pointer themselves.
LDAPMessage *ldap_next_reference(LDAP *ld, LDAPMessage *ref)
{
    return find_traced("ldap_next_reference", ld, ref, false, LDAP_RES_SEARCH_REFERENCE);
}

int ldap_count_references(LDAP *ld, LDAPMessage *chain)
{
    return count_traced("ldap_count_references", ld, chain, LDAP_RES_SEARCH_REFERENCE);
}

int ldap_count_attributes(LDAP *ld, LDAPMessage *entry)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_count_attributes: ld(%p) msg(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(entry));
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    clear_error(ld);
    if (entry == nullptr || entry->lm_ber == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return 0;
    }
    BerElement c = ldap_read_cursor(entry->lm_ber);
    int n = 0;
    if (!enter_attribute_list(&c)) {
        (void)ldap_fail(ld, LDAP_DECODING_ERROR);
    } else {
        ber_len_t len;
        while (fber_peek_tag(&c, &len) != LDAP_TAG_CONTROLS && fber_skip_element(&c) == 0)
            ++n;
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_count_attributes: returning (%d)\n", n);
    return n;
}

char *ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursor)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_first_attribute: ld(%p) entry(%p) ber(%p)\n",
               static_cast<void *>(ld), static_cast<void *>(entry), static_cast<void *>(cursor));
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    clear_error(ld);
    if (cursor != nullptr)
        *cursor = nullptr;
    if (entry == nullptr || cursor == nullptr || entry->lm_ber == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return nullptr;
    }
    BerElement *c = ber_dup(entry->lm_ber);
    if (c == nullptr) {
        (void)ldap_fail(ld, LDAP_NO_MEMORY);
        return nullptr;
    }
    char *name = nullptr;
    int code = LDAP_DECODING_ERROR;
    if (enter_attribute_list(c))
        name = read_attribute_name(c, &code);
    if (name == nullptr && code != 0) {
        (void)ldap_fail(ld, code);
        ber_free(c, 0);
    } else {
        *cursor = c; // an entry without attributes still hands out its cursor
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_first_attribute: returning (%s)\n",
               name != nullptr ? name : "NULL");
    return name;
}

char *ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_next_attribute: ld(%p) entry(%p) ber(%p)\n",
               static_cast<void *>(ld), static_cast<void *>(entry), static_cast<void *>(cursor));
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    clear_error(ld);
    if (cursor == nullptr || entry == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return nullptr;
    }
    int code;
    char *name = read_attribute_name(cursor, &code);
    if (code != 0)
        (void)ldap_fail(ld, code);
    return name;
}

char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *type)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_values\n");
    return get_values<char>(ld, entry, type, "[v]");
}

struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *type)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_values_len\n");
    return get_values<struct berval>(ld, entry, type, "[V]");
}

void ldap_value_free(char **values)
{
    if (values == nullptr)
        return;
    for (char **v = values; *v != nullptr; ++v)
        lber_free(*v);
    lber_free(values);
}

void ldap_value_free_len(struct berval **values)
{
    if (values == nullptr)
        return;
    for (struct berval **v = values; *v != nullptr; ++v) {
        lber_free((*v)->bv_val);
        lber_free(*v);
    }
    lber_free(values);
}

void ldap_memfree(void *p)
{
    if (p != nullptr)
        lber_free(p);
}

// The cursor shares the entry's buffer, so only the record goes, whatever `freebuf` says.
void ldap_ber_free(BerElement *cursor, int freebuf)
{
    (void)freebuf;
    if (cursor != nullptr)
        ber_free(cursor, 0);
}
