// Walking search results: entries and references along a response chain, the attributes of an
// entry through a cursor handed to the caller, the values of a named attribute, and the release
// functions for what these hand out. The entry's own BerElement never moves: every read works
// on a copy that shares its buffer.
#include "ldap_entry.h"

#include <atomic>
#include <cstdint>
#include <cstring>

#include "../liblber/ber_int.h"
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
// "{x{": enters the entry, skips the name and enters the attribute list. The caller has begun
// the scan (fber_scan_begin) with the format it stands for.
bool enter_attribute_list(BerElement *c)
{
    ber_len_t len;
    return fber_skip_tag(c, &len) != LBER_ERROR && fber_skip_contents(c) != LBER_ERROR &&
           fber_skip_tag(c, &len) != LBER_ERROR;
}

/* ---- the remembered attribute ----
 * Callers read an entry as "next_attribute, then the values of the type it returned". Each
 * successful read through a cursor of the entry remembers where that attribute begins, so that
 * the lookup by name can start there instead of scanning from the top of the entry. Only a
 * position a cursor of this entry reached is remembered: one of the attribute boundaries the
 * scan passes, in the same order, with every type before it readable. Taking the attribute there
 * gives what the scan gives when its type is the wanted one and no earlier type compares equal,
 * which the entry's distinct types (worked out once) guarantee. */

// Whether `cursor` reads the entry's own bytes (it was handed out for this entry).
bool reads_entry(const BerElement *cursor, const LDAPMessage *entry)
{
    const BerElement *e = entry->lm_ber;
    return e != nullptr && cursor->ber_buf == e->ber_buf && cursor->ber_end == e->ber_end;
}

void remember_attribute(LDAPMessage *entry, const BerElement *cursor, const unsigned char *at)
{
    size_t offset = static_cast<size_t>(at - cursor->ber_buf);
    if (reads_entry(cursor, entry) && offset < UINT32_MAX)
        std::atomic_ref<uint32_t>(entry->lm_attr_hint)
            .store(static_cast<uint32_t>(offset + 1), std::memory_order_relaxed);
}

// The next attribute's type from the cursor into a fresh 401-byte buffer, skipping its values:
//   PartialAttribute ::= SEQUENCE { type AttributeDescription, vals SET OF value }   ("{sx}")
// Null with *code 0 at the normal end (no data left, or the entry's controls follow).
char *read_attribute_name(LDAPMessage *entry, BerElement *cursor, int *code)
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
    bool xlate = fber_xlate_wanted(cursor);
    const unsigned char *at = cursor->ber_ptr;
    ber_len_t name_len = LDAP_ATTR_NAME_BUF;
    if (!fber_scan_begin(cursor, "{sx}") || fber_skip_tag(cursor, &len) == LBER_ERROR ||
        fber_get_stringb_as(cursor, xlate, name, &name_len) == LBER_ERROR ||
        fber_skip_contents(cursor) == LBER_ERROR) {
        lber_free(name);
        *code = ldap_ber_failure(cursor, LDAP_DECODING_ERROR);
        return nullptr;
    }
    remember_attribute(entry, cursor, at);
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
    if (memcmp(name, type, type_len) == 0)
        return true; // the usual case: the caller asks by the name it was handed
    for (size_t i = type_len; i-- > 0;) {
        if (ascii_fold(static_cast<unsigned char>(name[i])) !=
            ascii_fold(static_cast<unsigned char>(type[i])))
            return false;
    }
    return true;
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

// Positions `c` (a copy of the entry's element) at the value set of the first attribute named
// `want`: "{x{{s", then "x}{s" past each attribute of another name. Running off the list, and
// any type that cannot be read on the way, is a decoding failure (an absent attribute too).
bool seek_attribute(BerElement *c, const WantedType &want)
{
    ber_len_t len;
    if (!fber_scan_begin(c, "{x{{s") || !enter_attribute_list(c) || fber_skip_tag(c, &len) == LBER_ERROR)
        return false;
    for (;;) {
        NameRead r = read_and_match_name(c, want);
        if (r != NameRead::Other)
            return r == NameRead::Match;
        if (!fber_scan_begin(c, "x}{s") || fber_skip_contents(c) == LBER_ERROR || fber_skip_tag(c, &len) == LBER_ERROR)
            return false;
    }
}

// Entries with more types than this are never judged distinct: they are always scanned.
constexpr int MAX_DISTINCT_TYPES = 64;

struct TypeView {
    const char *name;
    ber_len_t len;
};

bool types_distinct(const TypeView *types, int n)
{
    for (int i = 0; i < n; ++i) {
        if (memchr(types[i].name, '\0', types[i].len) != nullptr)
            return false; // compares as a shorter string: not worth judging
        for (int j = 0; j < i; ++j) {
            if (types[j].len == types[i].len &&
                same_type(types[j].name, types[j].len, types[i].name, types[i].len))
                return false;
        }
    }
    return true;
}

// Reads every type of the entry the way a cursor walks them from `c` (a fresh copy of the
// entry's element) and judges whether they are all distinct. Only an entry whose every type
// reads cleanly is judged at all, so the shortcut never passes over a type the scan would stop at.
bool walk_types_distinct(BerElement c)
{
    TypeView types[MAX_DISTINCT_TYPES];
    int n = 0;
    ber_len_t len;
    if (!enter_attribute_list(&c))
        return false;
    while (c.ber_ptr < c.ber_end && fber_peek_tag(&c, &len) != LDAP_TAG_CONTROLS) {
        TypeView t;
        if (n == MAX_DISTINCT_TYPES || fber_skip_tag(&c, &len) == LBER_ERROR ||
            fber_get_string_view(&c, &t.name, &t.len) == LBER_ERROR ||
            t.len >= LDAP_ATTR_NAME_BUF || fber_skip_contents(&c) == LBER_ERROR)
            return false;
        types[n++] = t;
    }
    return types_distinct(types, n);
}

bool entry_types_distinct(LDAPMessage *entry, const BerElement &c)
{
    std::atomic_ref<int32_t> known(entry->lm_attr_unique);
    int32_t v = known.load(std::memory_order_relaxed);
    if (v == 0) {
        v = walk_types_distinct(c) ? 1 : -1;
        known.store(v, std::memory_order_relaxed);
    }
    return v > 0;
}

// Positions `c` (a fresh copy of the entry's element) at the value set of the remembered
// attribute when that is where the scan would stop. Untranslated names only (they are compared
// where they lie), and not while tracing, so that a trace always shows the scan.
bool seek_remembered(LDAPMessage *entry, BerElement *c, const WantedType &want)
{
    uint32_t hint = std::atomic_ref<uint32_t>(entry->lm_attr_hint).load(std::memory_order_relaxed);
    size_t from = static_cast<size_t>(c->ber_ptr - c->ber_buf);
    size_t end = static_cast<size_t>(c->ber_end - c->ber_buf);
    if (hint == 0 || want.xlate || ldap_debug_enabled() || !ber_is_fber(c) || hint - 1 < from ||
        hint - 1 >= end)
        return false;
    BerElement at = *c;
    at.ber_ptr = c->ber_buf + (hint - 1);
    ber_len_t len;
    if (fber_skip_tag(&at, &len) == LBER_ERROR || read_and_match_name(&at, want) != NameRead::Match ||
        !entry_types_distinct(entry, *c))
        return false;
    *c = at;
    return true;
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
    clear_error(ld);
    if (entry == nullptr || type == nullptr || entry->lm_ber == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return nullptr;
    }
    BerElement c = ldap_read_cursor(entry->lm_ber);
    bool xlate = fber_xlate_wanted(&c);
    WantedType want{type, strlen(type), xlate};
    Value **values = nullptr;
    bool found = seek_remembered(entry, &c, want) || seek_attribute(&c, want);
    if (!found || read_value_set(&c, xlate, &values) == FberList::Error) {
        (void)ldap_fail(ld, LDAP_DECODING_ERROR, &c);
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
    if (!fber_scan_begin(&c, "{x{") || !enter_attribute_list(&c)) {
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
    if (fber_scan_begin(c, "{x{") && enter_attribute_list(c))
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
    clear_error(ld);
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
