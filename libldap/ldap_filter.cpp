// The string filter encoder: parenthesised prefix notation (cn=Babs*, (&(a=b)(!(c>=d))), ...)
// parsed and written element by element into a request's FBER. Works in place on one private
// copy of the filter; every filter RFC 4515 does not allow answers -1, which the search turns
// into 87, so that nothing is sent for it.
#include "ldap_filter.h"

#include <cstddef>
#include <cstring>
#include <strings.h>

#include "ldap_attrdesc.h"
#include "ldap_charset.h"

namespace {

// Filter ::= CHOICE { and [0] SET OF Filter, or [1] SET OF Filter, not [2] Filter,
//     equalityMatch [3], substrings [4], greaterOrEqual [5], lessOrEqual [6] AttributeValueAssertion,
//     present [7] AttributeDescription, approxMatch [8], extensibleMatch [9] }
constexpr ber_tag_t FILTER_AND = 0xa0;
constexpr ber_tag_t FILTER_OR = 0xa1;
constexpr ber_tag_t FILTER_NOT = 0xa2;
constexpr ber_tag_t FILTER_EQUALITY = 0xa3;
constexpr ber_tag_t FILTER_SUBSTRINGS = 0xa4;
constexpr ber_tag_t FILTER_GE = 0xa5;
constexpr ber_tag_t FILTER_LE = 0xa6;
constexpr ber_tag_t FILTER_PRESENT = 0x87;
constexpr ber_tag_t FILTER_APPROX = 0xa8;
constexpr ber_tag_t FILTER_EXTENSIBLE = 0xa9;

constexpr ber_tag_t SUBSTRING_INITIAL = 0x80;
constexpr ber_tag_t SUBSTRING_ANY = 0x81;
constexpr ber_tag_t SUBSTRING_FINAL = 0x82;

constexpr ber_tag_t MATCH_RULE = 0x81;
constexpr ber_tag_t MATCH_TYPE = 0x82;
constexpr ber_tag_t MATCH_VALUE = 0x83;
constexpr ber_tag_t MATCH_DNATTRS = 0x84;

// ASCII white space only, whatever the locale: the text is UTF-8 by now.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

char *skip_space(char *s)
{
    while (is_space(*s))
        ++s;
    return s;
}

int hex_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The end of a simple item starting at `s`: its first parenthesis or the end of the string,
// a backslash making the next character literal; null for a backslash with nothing after it.
// An item holds no parenthesis of its own, so whatever stops the scan must be the ")" that
// closes it (or, without parentheses, the end).
char *simple_item_end(char *s)
{
    for (; *s != '\0' && *s != '(' && *s != ')'; ++s) {
        if (*s == '\\' && *++s == '\0')
            return nullptr;
    }
    return s;
}

// Whether `s` holds an asterisk not escaped by a backslash.
bool has_wildcard(const char *s)
{
    for (; *s != '\0'; ++s) {
        if (*s == '*')
            return true;
        if (*s == '\\' && s[1] != '\0')
            ++s;
    }
    return false;
}

// Cuts trailing white space off `s` (whose end is `end`), keeping a space that a backslash
// escapes.
void trim_right(char *s, char *end)
{
    while (end > s && is_space(end[-1]) && !(end - 1 > s && end[-2] == '\\'))
        --end;
    *end = '\0';
}

[[nodiscard]] char *put_parenthesised(BerElement *ber, char *str);

// SET OF Filter: parenthesised filters up to the ")" that closes the list, which is returned
// (null for anything else); `count` gets the number of filters.
[[nodiscard]] char *put_filter_list(BerElement *ber, char *str, int *count)
{
    for (*count = 0;; ++*count) {
        str = skip_space(str);
        if (*str != '(')
            return *str == ')' ? str : nullptr;
        str = put_parenthesised(ber, str + 1);
        if (str == nullptr)
            return nullptr;
    }
}

// SubstringFilter ::= SEQUENCE { type AttributeDescription, substrings SEQUENCE OF CHOICE {
//     initial [0] AssertionValue, any [1] AssertionValue, final [2] AssertionValue } }
// Only the first and the last part may be empty: "a**b" names no part between its stars.
[[nodiscard]] int put_substring_filter(BerElement *ber, const char *type, char *value)
{
    if (fber_printf_raw(ber, "t{s{", FILTER_SUBSTRINGS, type) == -1)
        return -1;
    bool first = true;
    for (char *part = value;; first = false) {
        char *star = strchr(part, '*');
        if (star != nullptr)
            *star = '\0';
        ber_tag_t tag = first ? SUBSTRING_INITIAL : star == nullptr ? SUBSTRING_FINAL : SUBSTRING_ANY;
        int rc = 0;
        if (*part != '\0') {
            long len = compress_hex(part);
            rc = len < 0 ? -1 : fber_printf_raw(ber, "to", tag, part, static_cast<int>(len));
        } else if (tag == SUBSTRING_ANY) {
            rc = -1;
        }
        if (star != nullptr)
            *star = '*';
        if (rc == -1)
            return -1;
        if (star == nullptr)
            break;
        part = star + 1;
    }
    return fber_printf_raw(ber, "}}") == -1 ? -1 : 0;
}

// The shared attribute description scanners, on this encoder's writable text.
char *attr_desc_end(char *p, const char *end)
{
    return p + (wzr_attrdesc::attr_desc_end(p, end) - p);
}

char *oid_end(char *p, const char *end) { return p + (wzr_attrdesc::oid_end(p, end) - p); }

// What stands between an extensible item's type and its value: [":dn"] [":" rule] ":=".
struct ExtensibleMarkers {
    bool dnattrs = false;
    char *rule = nullptr; // null when absent
    char *rule_end = nullptr;
    char *value = nullptr; // after ":=", null when the markers are malformed
};

// `p` is on the ":" that ends the type.
ExtensibleMarkers read_extensible_markers(char *p, const char *end)
{
    ExtensibleMarkers m;
    if (end - p >= 4 && strncasecmp(p, ":dn:", 4) == 0) {
        m.dnattrs = true;
        p += 3;
    }
    if (p[1] != '=') {
        m.rule = p + 1;
        m.rule_end = oid_end(m.rule, end);
        if (m.rule_end == m.rule)
            return m;
        p = m.rule_end;
    }
    if (*p == ':' && p[1] == '=')
        m.value = p + 2;
    return m;
}

// MatchingRuleAssertion ::= SEQUENCE { matchingRule [1] MatchingRuleId OPTIONAL,
//     type [2] AttributeDescription OPTIONAL, matchValue [3] AssertionValue,
//     dnAttributes [4] BOOLEAN DEFAULT FALSE }
//   SimpleMatchingAssertion ::= the same without dnAttributes (`simple`: a values-return item)
// `item` is the whole item, its type (possibly empty) ends at `type_end`, on a ":". A bare
// "type:=" (neither dn nor rule) is refused on purpose, and so is a match with neither type
// nor rule. The value is sent as written, but may hold no unescaped wildcard.
[[nodiscard]] int put_extensible_filter(BerElement *ber, char *item, char *type_end, char *end,
                                        bool simple)
{
    ExtensibleMarkers m = read_extensible_markers(type_end, end);
    bool has_type = type_end != item;
    if (m.value == nullptr || (m.rule == nullptr && !(m.dnattrs && has_type)) ||
        (simple && m.dnattrs))
        return -1;
    char *value = skip_space(m.value);
    trim_right(value, end);
    if (has_wildcard(value))
        return -1;
    *type_end = '\0';
    if (m.rule != nullptr)
        *m.rule_end = '\0';
    if (fber_printf_raw(ber, "t{", FILTER_EXTENSIBLE) == -1)
        return -1;
    if (m.rule != nullptr && fber_printf_raw(ber, "ts", MATCH_RULE, m.rule) == -1)
        return -1;
    if (has_type && fber_printf_raw(ber, "ts", MATCH_TYPE, item) == -1)
        return -1;
    int len = static_cast<int>(strlen(value));
    if (simple)
        return fber_printf_raw(ber, "to}", MATCH_VALUE, value, len) == -1 ? -1 : 0;
    int dnattrs = m.dnattrs ? 1 : 0;
    if (fber_printf_raw(ber, "totb}", MATCH_VALUE, value, len, MATCH_DNATTRS, dnattrs) == -1)
        return -1;
    return 0;
}

// The filter type written after an attribute description, and where its value starts.
[[nodiscard]] ber_tag_t read_operator(char *p, char **value)
{
    ber_tag_t tag = 0;
    switch (*p) {
    case '=': *value = p + 1; return FILTER_EQUALITY;
    case '<': tag = FILTER_LE; break;
    case '>': tag = FILTER_GE; break;
    case '~': tag = FILTER_APPROX; break;
    default: return 0;
    }
    *value = p + 2;
    return p[1] == '=' ? tag : 0;
}

// One item without its parentheses: attribute description, filter type, value. The item is
// read by the grammar of these three rather than split at its first "=": split there,
// "((uid=x))" asked about an attribute named "(uid" and "(uid =x)" about one named "uid ",
// a different question from the one written, so such items fail before anything is sent.
[[nodiscard]] int put_simple_filter(BerElement *ber, char *item, bool simple = false)
{
    char *end = item + strlen(item);
    char *type_end = attr_desc_end(item, end);
    if (*type_end == ':')
        return put_extensible_filter(ber, item, type_end, end, simple);
    char *value = nullptr;
    ber_tag_t tag = read_operator(type_end, &value);
    if (type_end == item || tag == 0)
        return -1;
    *type_end = '\0';
    value = skip_space(value);
    trim_right(value, end);

    if (tag == FILTER_EQUALITY) {
        if (strcmp(value, "*") == 0)
            return fber_printf_raw(ber, "ts", FILTER_PRESENT, item) == -1 ? -1 : 0;
        if (strchr(value, '*') != nullptr)
            return put_substring_filter(ber, item, value);
    } else if (strchr(value, '*') != nullptr) {
        return -1; // an ordering or approximate value names no wildcard
    }
    // AttributeValueAssertion ::= SEQUENCE { attributeDesc, assertionValue OCTET STRING }
    long len = compress_hex(value);
    if (len < 0)
        return -1;
    return fber_printf_raw(ber, "t{so}", tag, item, value, static_cast<int>(len)) == -1 ? -1 : 0;
}

// AND and OR take any number of filters (none: absolute true and false), NOT exactly one.
// The ")" that closes the list, or null.
[[nodiscard]] char *put_composite_filter(BerElement *ber, ber_tag_t tag, char *list)
{
    if (fber_printf_raw(ber, "t{", tag) == -1)
        return nullptr;
    int count = 0;
    char *close = put_filter_list(ber, list, &count);
    if (close == nullptr || (tag == FILTER_NOT && count != 1) || fber_printf_raw(ber, "}") == -1)
        return nullptr;
    return close;
}

// A simple item up to its first parenthesis, which must be the ")" that closes it and is
// returned (null on failure). Any character other than an operator after "(" starts such an
// item: "((uid=x))" is not an item wrapped twice but an item beginning with "(", refused.
[[nodiscard]] char *put_parenthesised_item(BerElement *ber, char *str, bool simple = false)
{
    char *close = simple_item_end(str);
    if (close == nullptr || *close != ')')
        return nullptr;
    *close = '\0';
    int rc = put_simple_filter(ber, str, simple);
    *close = ')';
    return rc == 0 ? close : nullptr;
}

// "(" has been read and `str` follows it: one AND, OR, NOT or simple item through its ")".
// Where the text goes on after that ")", or null.
char *put_parenthesised(BerElement *ber, char *str)
{
    str = skip_space(str);
    ber_tag_t tag = 0;
    switch (*str) {
    case '&': tag = FILTER_AND; LDAP_TRACE(LDAP_TRC_API, "put_filter: AND\n"); break;
    case '|': tag = FILTER_OR; LDAP_TRACE(LDAP_TRC_API, "put_filter: OR\n"); break;
    case '!': tag = FILTER_NOT; LDAP_TRACE(LDAP_TRC_API, "put_filter: NOT\n"); break;
    default: LDAP_TRACE(LDAP_TRC_API, "put_filter: simple\n"); break;
    }
    char *close =
        tag != 0 ? put_composite_filter(ber, tag, str + 1) : put_parenthesised_item(ber, str);
    return close != nullptr ? close + 1 : nullptr;
}

// An item without parentheses (cn=abc), trimmed at both ends.
[[nodiscard]] int put_unparenthesised(BerElement *ber, char *str)
{
    LDAP_TRACE(LDAP_TRC_API, "put_filter: default\n");
    char *end = simple_item_end(str);
    if (end == nullptr || *end != '\0')
        return -1;
    trim_right(str, end);
    return put_simple_filter(ber, str);
}

// One filter text (already UTF-8, private and writable): exactly one filter, white space
// around it allowed. Whatever follows the first filter is refused rather than encoded behind
// it: a request carries one filter, and the server would answer the first one alone.
[[nodiscard]] int put_filter_text(BerElement *ber, char *str)
{
    str = skip_space(str);
    if (*str != '\0' && *str != '(' && *str != ')')
        return put_unparenthesised(ber, str);
    if (*str == '(') {
        str = put_parenthesised(ber, str + 1);
        if (str == nullptr)
            return -1;
        str = skip_space(str);
    }
    if (*str == ')') {
        LDAP_TRACE(LDAP_TRC_API, "put_filter: end\n");
        return -1;
    }
    return *str == '\0' ? 0 : -1;
}

//   ValuesReturnFilter ::= SEQUENCE OF SimpleFilterItem
// Written "(item)" for one item or "((item)(item)...)" for several.
[[nodiscard]] int put_vrfilter_text(BerElement *ber, char *str)
{
    str = skip_space(str);
    if (*str != '(' || fber_printf_raw(ber, "{") == -1)
        return -1;
    str = skip_space(str + 1);
    bool list = *str == '(';
    do {
        if (list)
            str = skip_space(str + 1);
        char *close = put_parenthesised_item(ber, str, true);
        if (close == nullptr)
            return -1;
        str = skip_space(close + 1);
    } while (list && *str == '(');
    if (list && *str++ != ')')
        return -1;
    return *skip_space(str) == '\0' && fber_printf_raw(ber, "}") != -1 ? 0 : -1;
}

// A private, writable UTF-8 copy of a caller's filter text (converted from the local code
// page unless `converted` or the FBER says it is UTF-8 already); null on failure, with the
// FBER marked when memory ran out, so that the request reports that and not a bad filter.
char *filter_text_copy(BerElement *ber, const char *filter, int converted)
{
    size_t len = strlen(filter);
    bool utf8 = ber->ber_utf8_flag != nullptr && *ber->ber_utf8_flag != 0;
    char *text = nullptr;
    int rc = 0;
    if (converted == 0 && !utf8) {
        size_t outlen = 0;
        rc = ldap_xlate_local_to_utf8(filter, len, &text, &outlen);
    }
    if (rc == 0 && text == nullptr) // already UTF-8, or a code page that passes through
        rc = (text = lber_strndup(filter, len)) != nullptr ? 0 : LDAP_NO_MEMORY;
    if (rc == LDAP_NO_MEMORY)
        ber_note_out_of_memory(ber);
    return rc == 0 ? text : nullptr;
}

} // namespace

long compress_hex(char *value)
{
    char *in = strchr(value, '\\');
    if (in == nullptr) {
        long len = static_cast<long>(strlen(value));
        LDAP_TRACE(LDAP_TRC_API, "> nothing to do, len = %ld\n", len);
        return len;
    }
    char *out = in;
    while (*in != '\0') {
        if (*in != '\\') {
            *out++ = *in++;
            continue;
        }
        int hi = hex_value(in[1]);
        int lo = hi < 0 ? -1 : hex_value(in[2]);
        if (lo < 0)
            return -1;
        *out++ = static_cast<char>(hi << 4 | lo);
        in += 3;
    }
    *out = '\0';
    return static_cast<long>(out - value);
}

int put_filter(BerElement *ber, const char *filter, int converted)
{
    if (ber == nullptr || filter == nullptr)
        return -1;
    char *text = filter_text_copy(ber, filter, converted);
    if (text == nullptr)
        return -1;
    // A filter that encodes nothing would leave the request without its Filter element.
    ptrdiff_t start = ber->ber_ptr - ber->ber_buf;
    int rc = put_filter_text(ber, text);
    if (rc == 0 && converted == 0 && ber->ber_ptr - ber->ber_buf == start)
        rc = -1;
    lber_free(text);
    return rc;
}

int put_vrfilter(BerElement *ber, const char *filter)
{
    if (ber == nullptr || filter == nullptr)
        return -1;
    char *text = filter_text_copy(ber, filter, 0);
    if (text == nullptr)
        return -1;
    int rc = put_vrfilter_text(ber, text);
    lber_free(text);
    return rc;
}
