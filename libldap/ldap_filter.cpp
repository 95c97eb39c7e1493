// The string filter encoder: parenthesised prefix notation (cn=Babs*, (&(a=b)(!(c>=d))), ...)
// parsed and written element by element into a request's FBER. Works in place on one private
// copy of the filter; every malformed filter answers -1, which the search turns into 87.
#include "ldap_filter.h"

#include <cctype>
#include <cstddef>
#include <cstring>
#include <strings.h>

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

bool is_space(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

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

// The ")" that closes the parenthesis opened just before `s`, honouring nesting and
// backslash escapes; null when it is missing.
char *matching_paren(char *s)
{
    int depth = 1;
    for (; *s != '\0'; ++s) {
        if (*s == '\\') {
            if (*++s == '\0')
                return nullptr;
        } else if (*s == '(') {
            ++depth;
        } else if (*s == ')' && --depth == 0) {
            return s;
        }
    }
    return nullptr;
}

// Cuts trailing white space off `s` (whose end is `end`), keeping a space that a backslash
// escapes.
void trim_right(char *s, char *end)
{
    while (end > s && is_space(end[-1]) && !(end - 1 > s && end[-2] == '\\'))
        --end;
    *end = '\0';
}

int put_filter_text(BerElement *ber, char *str);

// SET OF Filter: each parenthesised item of `str` in turn; an empty list is an empty SET.
int put_filter_list(BerElement *ber, char *str)
{
    for (;;) {
        str = skip_space(str);
        if (*str == '\0')
            return 0;
        if (*str != '(')
            return -1;
        char *close = matching_paren(str + 1);
        if (close == nullptr)
            return -1;
        char saved = close[1];
        close[1] = '\0';
        int rc = put_filter_text(ber, str);
        close[1] = saved;
        if (rc != 0)
            return -1;
        str = close + 1;
    }
}

// SubstringFilter ::= SEQUENCE { type AttributeDescription, substrings SEQUENCE OF CHOICE {
//     initial [0] AssertionValue, any [1] AssertionValue, final [2] AssertionValue } }
int put_substring_filter(BerElement *ber, const char *type, char *value)
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

// MatchingRuleAssertion ::= SEQUENCE { matchingRule [1] MatchingRuleId OPTIONAL,
//     type [2] AttributeDescription OPTIONAL, matchValue [3] AssertionValue,
//     dnAttributes [4] BOOLEAN DEFAULT FALSE }
// `left` is what stood before ":=": type, then ":dn" and/or ":rule". A bare "type:" (neither
// dn nor rule) is refused, and so is a match with neither type nor rule.
int put_extensible_filter(BerElement *ber, char *left, const char *value)
{
    char *colon = strchr(left, ':');
    if (colon == nullptr)
        return -1;
    *colon = '\0';
    const char *type = left;
    char *rest = colon + 1;
    if (*rest == ':')
        return -1;
    int dnattrs = 0;
    if (strncasecmp(rest, "dn", 2) == 0 && (rest[2] == ':' || rest[2] == '\0')) {
        dnattrs = 1;
        rest += rest[2] == ':' ? 3 : 2;
        if (*rest == ':' || (rest[-1] == ':' && *rest == '\0'))
            return -1;
    } else if (*rest == '\0') {
        return -1;
    }
    const char *rule = rest;
    if (*type == '\0' && *rule == '\0')
        return -1;
    if (fber_printf_raw(ber, "t{", FILTER_EXTENSIBLE) == -1)
        return -1;
    if (*rule != '\0' && fber_printf_raw(ber, "ts", MATCH_RULE, rule) == -1)
        return -1;
    if (*type != '\0' && fber_printf_raw(ber, "ts", MATCH_TYPE, type) == -1)
        return -1;
    int len = static_cast<int>(strlen(value));
    if (fber_printf_raw(ber, "totb}", MATCH_VALUE, value, len, MATCH_DNATTRS, dnattrs) == -1)
        return -1;
    return 0;
}

// One item without its parentheses: type, operator, value.
int put_simple_filter(BerElement *ber, char *item)
{
    char *eq = strchr(item, '=');
    if (eq == nullptr || eq == item)
        return -1;
    *eq = '\0';
    char *value = skip_space(eq + 1);
    trim_right(value, value + strlen(value));

    ber_tag_t tag = FILTER_EQUALITY;
    char *type_end = eq;
    switch (eq[-1]) {
    case '<': tag = FILTER_LE; break;
    case '>': tag = FILTER_GE; break;
    case '~': tag = FILTER_APPROX; break;
    case ':': eq[-1] = '\0'; return put_extensible_filter(ber, item, value);
    default: break;
    }
    if (tag != FILTER_EQUALITY)
        --type_end;
    trim_right(item, type_end);
    if (*item == '\0')
        return -1;

    if (tag == FILTER_EQUALITY) {
        if (strcmp(value, "*") == 0)
            return fber_printf_raw(ber, "ts", FILTER_PRESENT, item) == -1 ? -1 : 0;
        if (strchr(value, '*') != nullptr)
            return put_substring_filter(ber, item, value);
    }
    // AttributeValueAssertion ::= SEQUENCE { attributeDesc, assertionValue OCTET STRING }
    long len = compress_hex(value);
    if (len < 0)
        return -1;
    return fber_printf_raw(ber, "t{so}", tag, item, value, static_cast<int>(len)) == -1 ? -1 : 0;
}

// The loop over one filter text (already UTF-8, private and writable).
int put_filter_text(BerElement *ber, char *str)
{
    str = skip_space(str);
    while (*str != '\0') {
        if (is_space(*str)) {
            ++str;
            continue;
        }
        if (*str == ')') {
            LDAP_TRACE(LDAP_TRC_API, "put_filter: end\n");
            return -1;
        }
        if (*str != '(') {
            LDAP_TRACE(LDAP_TRC_API, "put_filter: default\n");
            char *end = str + strlen(str);
            trim_right(str, end);
            return put_simple_filter(ber, str);
        }
        str = skip_space(str + 1);
        ber_tag_t tag = 0;
        switch (*str) {
        case '&': tag = FILTER_AND; LDAP_TRACE(LDAP_TRC_API, "put_filter: AND\n"); break;
        case '|': tag = FILTER_OR; LDAP_TRACE(LDAP_TRC_API, "put_filter: OR\n"); break;
        case '!': tag = FILTER_NOT; LDAP_TRACE(LDAP_TRC_API, "put_filter: NOT\n"); break;
        default: LDAP_TRACE(LDAP_TRC_API, "put_filter: simple\n"); break;
        }
        if (tag != 0)
            ++str;
        char *close = matching_paren(str);
        if (close == nullptr)
            return -1;
        *close = '\0';
        int rc;
        if (tag != 0) {
            rc = fber_printf_raw(ber, "t{", tag) == -1 || put_filter_list(ber, str) != 0 ||
                         fber_printf_raw(ber, "}") == -1
                     ? -1
                     : 0;
        } else {
            rc = put_simple_filter(ber, str);
        }
        *close = ')';
        if (rc != 0)
            return -1;
        str = close + 1;
    }
    return 0;
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
    size_t len = strlen(filter);
    char *text = nullptr;
    bool utf8 = ber->ber_utf8_flag != nullptr && *ber->ber_utf8_flag != 0;
    if (converted == 0 && !utf8) {
        size_t outlen = 0;
        if (ldap_xlate_local_to_utf8(filter, len, &text, &outlen) != 0)
            return -1;
    }
    if (text == nullptr) {
        text = lber_strndup(filter, len);
        if (text == nullptr)
            return -1;
    }
    // A filter that encodes nothing would leave the request without its Filter element.
    ptrdiff_t start = ber->ber_ptr - ber->ber_buf;
    int rc = put_filter_text(ber, text);
    if (rc == 0 && converted == 0 && ber->ber_ptr - ber->ber_buf == start)
        rc = -1;
    lber_free(text);
    return rc;
}
