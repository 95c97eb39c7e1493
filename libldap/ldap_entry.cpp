// Walking search results: entries and references along a response chain, the attributes of an
// entry through a cursor handed to the caller, the values of a named attribute, and the release
// functions for what these hand out. The entry's own BerElement never moves: every read works
// on a copy that shares its buffer.
#include "ldap_entry.h"

#include <cstdint>
#include <cstring>

#include "../liblber/ber_int.h"
#include "ldap_attr_index.h"
#include "ldap_error.h"
#include "ldap_init.h"

namespace {
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
    ldap_clear_lderrno(ld);
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
    ldap_clear_lderrno(ld);
    int n = count_of_type(chain, type);
    LDAP_TRACE(LDAP_TRC_API, "%s: returning (%d)\n", fn, n);
    return n;
}

// Whether `cursor` reads the entry's own bytes (it was handed out for this entry).
bool reads_entry(const BerElement *cursor, const LDAPMessage *entry)
{
    const BerElement *e = entry->lm_ber;
    return e != nullptr && cursor->ber_buf == e->ber_buf && cursor->ber_end == e->ber_end;
}

// The index serves untranslated names only (they are handed out and compared as they lie), and
// not while tracing, so that a trace always shows the decoding.
LDAPAttrIndex *usable_index(LDAPMessage *entry, bool xlate)
{
    return xlate || ldap_debug_enabled() ? nullptr : ldap_attr_index(entry);
}

// The type of the indexed attribute the cursor stands on, copied into a fresh 401-byte buffer;
// the cursor moves to where reading the attribute leaves it.
char *take_indexed_name(const LDAPAttrIndex *index, int k, BerElement *cursor, int *code)
{
    auto name = static_cast<char *>(lber_malloc(LDAP_ATTR_NAME_BUF));
    if (name == nullptr) {
        *code = LDAP_NO_MEMORY;
        return nullptr;
    }
    const LDAPAttrSlot &slot = index->slot[k];
    memcpy(name, cursor->ber_buf + slot.type, slot.type_len);
    name[slot.type_len] = '\0';
    cursor->ber_nomem = false;
    cursor->ber_ptr = cursor->ber_buf +
                      (static_cast<uint32_t>(k) + 1 < index->count ? index->slot[k + 1].at : index->end);
    return name;
}

// The next attribute's type from the cursor into a fresh 401-byte buffer, skipping its values:
//   PartialAttribute ::= SEQUENCE { type AttributeDescription, vals SET OF value }   ("{sx}")
// Null with *code 0 at the normal end (no data left, or the entry's controls follow).
char *read_attribute_name(LDAPMessage *entry, BerElement *cursor, int *code)
{
    *code = 0;
    bool xlate = fber_xlate_wanted(cursor);
    LDAPAttrIndex *index;
    if (reads_entry(cursor, entry) && cursor->ber_ptr >= cursor->ber_buf &&
        (index = usable_index(entry, xlate)) != nullptr) {
        int k = ldap_attr_index_find(index, static_cast<size_t>(cursor->ber_ptr - cursor->ber_buf));
        if (k >= 0)
            return take_indexed_name(index, k, cursor, code);
    }
    ber_len_t len;
    if (cursor->ber_ptr >= cursor->ber_end || fber_peek_tag(cursor, &len) == LDAP_TAG_CONTROLS)
        return nullptr;
    auto name = static_cast<char *>(lber_malloc(LDAP_ATTR_NAME_BUF));
    if (name == nullptr) {
        *code = LDAP_NO_MEMORY;
        return nullptr;
    }
    ber_len_t name_len = LDAP_ATTR_NAME_BUF;
    if (!fber_scan_begin(cursor, "{sx}") || fber_skip_tag(cursor, &len) == LBER_ERROR ||
        fber_get_stringb_as(cursor, xlate, name, &name_len) == LBER_ERROR ||
        fber_skip_contents(cursor) == LBER_ERROR) {
        lber_free(name);
        *code = ldap_ber_failure(cursor, LDAP_DECODING_ERROR);
        return nullptr;
    }
    return name;
}

unsigned char ascii_fold(unsigned char ch) { return ch >= 'A' && ch <= 'Z' ? ch + ('a' - 'A') : ch; }

// The first `len` bytes of both, compared as strcasecmp does in ASCII. Compared from the end,
// where types sharing a long prefix (numeric or language suffixes) differ first.
bool same_letters(const char *name, const char *type, size_t len)
{
    if (memcmp(name, type, len) == 0)
        return true; // the usual case: the caller asks by the name it was handed
    for (size_t i = len; i-- > 0;) {
        if (ascii_fold(static_cast<unsigned char>(name[i])) !=
            ascii_fold(static_cast<unsigned char>(type[i])))
            return false;
    }
    return true;
}

// Attribute types compare as C strings: `name` (decoded length `len`) matches only when its
// string length is that of `type`, an embedded NUL included. The length test, which most types
// of an entry fail, is inline in every lookup.
[[gnu::always_inline]] inline bool same_type(const char *name, size_t len, const char *type,
                                             size_t type_len)
{
    return (len == type_len || (len > type_len && name[type_len] == '\0')) &&
           same_letters(name, type, type_len);
}

// The type a lookup by name asks for.
struct WantedType {
    const char *type;
    size_t len;
    bool xlate; // names are translated before they are compared
};

enum class NameRead { Error, Other, Match };

// Reads the next attribute type (`s` into a 401-byte buffer) and compares it with the wanted one.
// Untranslated names are compared where they lie: the buffer would only receive a copy.
NameRead read_and_match_name(BerElement *c, const WantedType &want)
{
    if (!want.xlate) {
        const char *name;
        ber_len_t len;
        if (fber_get_string_view(c, &name, &len) == LBER_ERROR || len >= LDAP_ATTR_NAME_BUF)
            return NameRead::Error;
        return same_type(name, len, want.type, want.len) ? NameRead::Match : NameRead::Other;
    }
    char name[LDAP_ATTR_NAME_BUF];
    ber_len_t len = sizeof(name);
    if (fber_get_stringb_as(c, true, name, &len) == LBER_ERROR)
        return NameRead::Error;
    return same_type(name, len, want.type, want.len) ? NameRead::Match : NameRead::Other;
}

// From `c` standing on an attribute's SEQUENCE: "{s", then "x}{s" past each attribute of another
// name, leaving `c` at the value set of the first attribute named `want`. Running off the list,
// and any type that cannot be read on the way, is a decoding failure (an absent attribute too).
bool scan_for_attribute(BerElement *c, const WantedType &want)
{
    ber_len_t len;
    if (fber_skip_tag(c, &len) == LBER_ERROR)
        return false;
    for (;;) {
        NameRead r = read_and_match_name(c, want);
        if (r != NameRead::Other)
            return r == NameRead::Match;
        if (!fber_scan_begin(c, "x}{s") || fber_skip_contents(c) == LBER_ERROR || fber_skip_tag(c, &len) == LBER_ERROR)
            return false;
    }
}

// Positions `c` (a copy of the entry's element) at the value set of the first attribute named
// `want`, as the scan "{x{{s" would: through the index where the entry has one, comparing the
// indexed types in order and going on with the scan where the index stops.
bool seek_attribute(LDAPMessage *entry, BerElement *c, const WantedType &want)
{
    const LDAPAttrIndex *index = usable_index(entry, want.xlate);
    if (index == nullptr)
        return fber_scan_begin(c, "{x{{s") && ldap_enter_attribute_list(c) && scan_for_attribute(c, want);
    for (uint32_t k = 0; k < index->count; ++k) {
        const LDAPAttrSlot &slot = index->slot[k];
        const char *name = reinterpret_cast<const char *>(c->ber_buf + slot.type);
        if (same_type(name, slot.type_len, want.type, want.len)) {
            c->ber_ptr = c->ber_buf + slot.type + slot.type_len;
            return true;
        }
    }
    c->ber_ptr = c->ber_buf + index->end;
    return scan_for_attribute(c, want);
}

// The value set as strings ("[v]"), or as bervals ("[V]") in one block: a caller walks and
// releases the whole set at once, so one allocation serves where one per value would.
FberList read_value_set(BerElement *c, bool xlate, char ***out)
{
    return fber_scan_begin(c, "[v]") ? fber_get_string_list(c, xlate, out) : FberList::Error;
}

FberList read_value_set(BerElement *c, bool xlate, struct berval ***out)
{
    return fber_scan_begin(c, "[V]") ? fber_get_berval_block(c, xlate, out) : FberList::Error;
}

// One body for ldap_get_values and ldap_get_values_len. An empty value set hands out no array
// and is no error.
template <typename Value>
Value **get_values(LDAP *ld, LDAPMessage *entry, const char *type)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    ldap_clear_lderrno(ld);
    if (entry == nullptr || type == nullptr || entry->lm_ber == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return nullptr;
    }
    BerElement c = ldap_read_cursor(entry->lm_ber);
    bool xlate = fber_xlate_wanted(&c);
    WantedType want{type, strlen(type), xlate};
    Value **values = nullptr;
    if (!seek_attribute(entry, &c, want) || read_value_set(&c, xlate, &values) == FberList::Error) {
        (void)ldap_fail(ld, LDAP_DECODING_ERROR, &c);
        return nullptr;
    }
    return values;
}
} // namespace

bool ldap_enter_attribute_list(BerElement *c)
{
    ber_len_t len;
    return fber_skip_tag(c, &len) != LBER_ERROR && fber_skip_contents(c) != LBER_ERROR &&
           fber_skip_tag(c, &len) != LBER_ERROR;
}

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
    ldap_clear_lderrno(ld);
    if (entry == nullptr || entry->lm_ber == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return 0;
    }
    BerElement c = ldap_read_cursor(entry->lm_ber);
    int n = 0;
    if (!fber_scan_begin(&c, "{x{") || !ldap_enter_attribute_list(&c)) {
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
    ldap_clear_lderrno(ld);
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
    if (fber_scan_begin(c, "{x{") && ldap_enter_attribute_list(c))
        name = read_attribute_name(entry, c, &code);
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
    ldap_clear_lderrno(ld);
    if (cursor == nullptr || entry == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return nullptr;
    }
    int code;
    char *name = read_attribute_name(entry, cursor, &code);
    if (code != 0)
        (void)ldap_fail(ld, code);
    return name;
}

char **ldap_get_values(LDAP *ld, LDAPMessage *entry, const char *type)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_values\n");
    return get_values<char>(ld, entry, type);
}

struct berval **ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *type)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_values_len\n");
    return get_values<struct berval>(ld, entry, type);
}

void ldap_value_free(char **values)
{
    if (values == nullptr)
        return;
    for (char **v = values; *v != nullptr; ++v)
        lber_free(*v);
    lber_free(values);
}

// The array, its bervals and their values are one block (see read_value_set).
void ldap_value_free_len(struct berval **values)
{
    if (values != nullptr)
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
