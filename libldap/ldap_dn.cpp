// Distinguished names: an entry's DN (ldap_get_dn), the parse of DN strings into RDNs of
// attribute-value pairs by two character-level state machines (type, value) and an unescaper,
// and the strings rebuilt from the tree: normalized forms, exploded DN and RDN arrays, the
// user-friendly form. The state machines trace their transitions at the DN class.
#include "ldap_dn.h"

#include <cctype>
#include <cstring>
#include <strings.h>

#include "../liblber/ber_int.h"
#include "ldap_entry.h"
#include "ldap_error.h"
#include "ldap_init.h"

namespace {

bool is_blank(int ch) { return ch == ' ' || ch == '\n' || ch == '\t'; }
bool is_rdn_separator(int ch) { return ch == ',' || ch == ';'; }
bool is_separator(int ch) { return is_rdn_separator(ch) || ch == '+'; }
bool is_special(int ch)
{
    return ch == '\\' || ch == '"' || ch == '>' || ch == '<' || ch == '=' || is_separator(ch);
}
bool is_digit(int ch) { return isdigit(static_cast<unsigned char>(ch)) != 0; }
bool is_alpha(int ch) { return isalpha(static_cast<unsigned char>(ch)) != 0; }
bool is_xdigit(int ch) { return isxdigit(static_cast<unsigned char>(ch)) != 0; }
int hex_value(int ch) { return is_digit(ch) ? ch - '0' : (tolower(ch) - 'a' + 10); }

// ---- attribute type --------------------------------------------------------------------------

enum class TypeState { B4TYPE, INOIDDIGIT, INDIGITS, INIDENT, AFTERTYPE, TYPEDONE, INVALID };

const char *type_state_name(TypeState s)
{
    switch (s) {
    case TypeState::B4TYPE: return "B4TYPE";
    case TypeState::INOIDDIGIT: return "INOIDDIGIT";
    case TypeState::INDIGITS: return "INDIGITS";
    case TypeState::INIDENT: return "INIDENT";
    case TypeState::AFTERTYPE: return "AFTERTYPE";
    case TypeState::TYPEDONE: return "TYPEDONE";
    case TypeState::INVALID: return "INVALID";
    }
    return "?";
}

void type_goto(TypeState *state, TypeState next)
{
    LDAP_TRACE(LDAP_TRC_DN, "State tx %s -> %s.\n", type_state_name(*state), type_state_name(next));
    *state = next;
}

// "oid." or "OID." (any case) opens a dotted type; the prefix stays part of it.
bool at_oid_prefix(const char *p)
{
    return (p[0] == 'o' || p[0] == 'O') && (p[1] == 'i' || p[1] == 'I') &&
           (p[2] == 'd' || p[2] == 'D') && p[3] == '.';
}

struct TypeScan {
    char *start = nullptr; // first character of the type
    char *last = nullptr;  // its last character
    char *stop = nullptr;  // the "=" on success, else where the scan ended
};

// Scans "  type  =" from p. Returns 0, 1 (bad type, no "="), 7 (a dot not followed by a digit)
// or 8 (internal state error). A character that ends a type other than "=" is looked at again
// in AFTERTYPE, which lets only blanks stand before the "=".
int scan_type(char *p, TypeScan *ts)
{
    LDAP_TRACE(LDAP_TRC_DN, "Start in state B4TYPE.\n");
    TypeState st = TypeState::B4TYPE;
    int code = 0;
    for (;;) {
        char ch = *p;
        if (ch == '\0') {
            ts->stop = p;
            return 1;
        }
        bool again = false;
        switch (st) {
        case TypeState::B4TYPE:
            if (is_blank(ch))
                break;
            if (is_digit(ch)) {
                ts->start = p;
                type_goto(&st, TypeState::INDIGITS);
            } else if (at_oid_prefix(p)) {
                ts->start = p;
                p += 3; // onto the "."
                type_goto(&st, TypeState::INOIDDIGIT);
            } else if (is_alpha(ch)) {
                ts->start = p;
                type_goto(&st, TypeState::INIDENT);
            } else {
                code = 1;
                type_goto(&st, TypeState::INVALID);
            }
            break;
        case TypeState::INOIDDIGIT:
            if (is_digit(ch)) {
                type_goto(&st, TypeState::INDIGITS);
            } else {
                LDAP_TRACE(LDAP_TRC_DN, "Found bad type spec, bad oid %c not digit.\n", ch);
                code = 7;
                type_goto(&st, TypeState::INVALID);
            }
            break;
        case TypeState::INDIGITS:
        case TypeState::INIDENT:
            if (is_digit(ch) || (st == TypeState::INIDENT && (is_alpha(ch) || ch == '-')))
                break;
            if (st == TypeState::INDIGITS && ch == '.') {
                type_goto(&st, TypeState::INOIDDIGIT);
                break;
            }
            ts->last = p - 1;
            if (ch == '=') {
                type_goto(&st, TypeState::TYPEDONE);
            } else {
                type_goto(&st, TypeState::AFTERTYPE);
                again = true;
            }
            break;
        case TypeState::AFTERTYPE:
            if (ch == '=') {
                type_goto(&st, TypeState::TYPEDONE);
            } else if (!is_blank(ch)) {
                LDAP_TRACE(LDAP_TRC_DN, "Found bad type spec, bad char %c after type.\n", ch);
                code = 1;
                type_goto(&st, TypeState::INVALID);
            }
            break;
        case TypeState::TYPEDONE:
            LDAP_TRACE(LDAP_TRC_WARN, "In state TYPEDONE, shouldn't be here!\n");
            code = 8;
            st = TypeState::INVALID;
            break;
        case TypeState::INVALID:
            LDAP_TRACE(LDAP_TRC_WARN, "In state INVALID, shouldn't be here!\n");
            code = 8;
            break;
        default:
            LDAP_TRACE(LDAP_TRC_WARN, "Undefined state!  Tx -> INVALID\n");
            code = 8;
            st = TypeState::INVALID;
            break;
        }
        if (st == TypeState::TYPEDONE) {
            ts->stop = p;
            return 0;
        }
        if (st == TypeState::INVALID) {
            ts->stop = p + 1;
            return code;
        }
        if (!again)
            ++p;
    }
}

// ---- attribute value: extent -----------------------------------------------------------------

enum class ValueState { B4VALUE, INQUOTE, AFTERQUOTE, INHEX, INVALUE, ESCAPE, HEX2 };

const char *value_state_name(ValueState s)
{
    switch (s) {
    case ValueState::B4VALUE: return "B4VALUE";
    case ValueState::INQUOTE: return "INQUOTE";
    case ValueState::AFTERQUOTE: return "AFTERQUOTE";
    case ValueState::INHEX: return "INHEX";
    case ValueState::INVALUE: return "INVALUE";
    case ValueState::ESCAPE: return "ESCAPE";
    case ValueState::HEX2: return "HEX2";
    }
    return "?";
}

void value_goto(ValueState *state, ValueState next)
{
    LDAP_TRACE(LDAP_TRC_DN, "State vx %s -> %s.\n", value_state_name(*state),
               value_state_name(next));
    *state = next;
}

struct ValueScan {
    char *start = nullptr; // first character of the value as written
    char *last = nullptr;  // its last character, trailing unescaped blanks trimmed
    char *stop = nullptr;  // the separator or the end of the string (or the offending character)
};

// Finds the extent of the value that starts at p. Returns 0, -1 (no value), 2 (bad character
// after a backslash), 3 (bad second hex digit), 4 (non-hex in a "#" value), 6 (unescaped
// special) or 9 (garbage after a closing quote). The end of the string ends the scan with the
// code it has, so an unterminated quote passes here.
int scan_value(char *p, ValueScan *vs)
{
    LDAP_TRACE(LDAP_TRC_DN, "Start in state B4Value.\n");
    ValueState st = ValueState::B4VALUE;
    ValueState ret = ValueState::INVALUE; // where ESCAPE and HEX2 go back to
    int code = 0;
    bool done = false;
    for (; *p != '\0' && !done; ++p) {
        char ch = *p;
        switch (st) {
        case ValueState::B4VALUE:
            if (is_blank(ch))
                break;
            if (is_special(ch) && ch != '\\' && ch != '"') {
                code = 6;
                done = true;
                break;
            }
            vs->start = vs->last = p;
            if (ch == '"') {
                value_goto(&st, ValueState::INQUOTE);
            } else if (ch == '#') {
                value_goto(&st, ValueState::INHEX);
            } else if (ch == '\\') {
                ret = ValueState::INVALUE;
                value_goto(&st, ValueState::ESCAPE);
            } else {
                value_goto(&st, ValueState::INVALUE);
            }
            break;
        case ValueState::INQUOTE:
            vs->last = p;
            if (ch == '\\') {
                ret = ValueState::INQUOTE;
                value_goto(&st, ValueState::ESCAPE);
            } else if (ch == '"') {
                value_goto(&st, ValueState::AFTERQUOTE);
            }
            break;
        case ValueState::AFTERQUOTE:
            if (is_separator(ch)) {
                done = true;
            } else if (!is_blank(ch)) {
                code = 9;
                done = true;
            }
            break;
        case ValueState::INHEX:
            if (is_separator(ch) || is_blank(ch)) {
                if (p - vs->start == 1 || is_separator(ch))
                    done = true; // a lone "#" is left for the unescape to refuse
                else
                    value_goto(&st, ValueState::AFTERQUOTE);
            } else if (is_xdigit(ch)) {
                vs->last = p;
                ret = ValueState::INHEX;
                value_goto(&st, ValueState::HEX2);
            } else {
                code = 4;
                done = true;
            }
            break;
        case ValueState::INVALUE:
            if (ch == '\\') {
                vs->last = p;
                ret = ValueState::INVALUE;
                value_goto(&st, ValueState::ESCAPE);
            } else if (is_separator(ch)) {
                done = true;
            } else if (is_special(ch)) {
                code = 6;
                done = true;
            } else {
                vs->last = p;
            }
            break;
        case ValueState::ESCAPE:
            if (is_xdigit(ch)) {
                vs->last = p;
                value_goto(&st, ValueState::HEX2);
            } else if (is_special(ch) || is_blank(ch) || ch == '#') {
                vs->last = p;
                value_goto(&st, ret);
            } else {
                code = 2;
                done = true;
            }
            break;
        case ValueState::HEX2:
            if (is_xdigit(ch)) {
                vs->last = p;
                value_goto(&st, ret);
            } else {
                code = 3;
                done = true;
            }
            break;
        }
        if (done)
            break;
    }
    vs->stop = p;
    if (code == 0 && vs->start == nullptr)
        code = -1;
    if (code != 0)
        return code;
    while (vs->last > vs->start && is_blank(*vs->last) && vs->last[-1] != '\\')
        --vs->last;
    return 0;
}

// ---- attribute value: unescape ---------------------------------------------------------------

// "#04" LL [long-form length octets] content pairs: a BER OCTET STRING written in hex. Tag and
// length are not checked against the content.
int unhex_value(const char *p, char *out)
{
    if (strncmp(p, "#04", 3) != 0)
        return 1;
    p += 3;
    if (!is_xdigit(p[0]) || !is_xdigit(p[1]))
        return 1;
    int len_octet = hex_value(p[0]) * 16 + hex_value(p[1]);
    p += 2;
    if ((len_octet & 0x80) != 0) {
        int n = len_octet & 0x7F;
        if (n > 8)
            return 1;
        for (int i = 0; i < n; ++i, p += 2) {
            if (!is_xdigit(p[0]) || !is_xdigit(p[1]))
                return 1;
        }
    }
    for (; p[0] != '\0'; p += 2) {
        if (!is_xdigit(p[0]))
            return 1;
        if (p[1] == '\0')
            break; // the end of the input ends the value
        if (!is_xdigit(p[1]))
            return 1;
        *out++ = static_cast<char>(hex_value(p[0]) * 16 + hex_value(p[1]));
    }
    return 0;
}

// Turns a scanned value (NUL-terminated at its last character) into its stored bytes:
// quotes removed, escapes and hex pairs resolved. 0, 1 (malformed) or 90; *out is owned.
int unescape_value(const char *in, char **out)
{
    size_t n = strlen(in);
    auto buf = static_cast<char *>(lber_calloc(n + 4, 1));
    if (buf == nullptr)
        return LDAP_NO_MEMORY;
    char *o = buf;
    ValueState st = ValueState::B4VALUE;
    ValueState ret = ValueState::INVALUE;
    int high = 0;
    int code = 0;
    bool done = false;
    for (const char *p = in; *p != '\0' && code == 0 && !done; ++p) {
        char ch = *p;
        switch (st) {
        case ValueState::B4VALUE:
            if (is_blank(ch))
                break;
            if (ch == '"') {
                st = ValueState::INQUOTE;
            } else if (ch == '#') {
                code = unhex_value(p, buf); // the hex form is the whole value
                done = true;
            } else {
                st = ValueState::INVALUE;
                --p; // read this character again in INVALUE
            }
            break;
        case ValueState::INQUOTE:
            if (ch == '\\') {
                ret = ValueState::INQUOTE;
                st = ValueState::ESCAPE;
            } else if (ch == '"') {
                st = ValueState::AFTERQUOTE;
            } else {
                *o++ = ch;
            }
            break;
        case ValueState::AFTERQUOTE:
            if (is_separator(ch))
                done = true;
            else if (!is_blank(ch))
                code = 1;
            break;
        case ValueState::INVALUE:
            if (ch == '\\') {
                ret = ValueState::INVALUE;
                st = ValueState::ESCAPE;
            } else if (is_separator(ch)) {
                done = true;
            } else if (is_special(ch)) {
                code = 1;
            } else {
                *o++ = ch;
            }
            break;
        case ValueState::ESCAPE:
            if (is_xdigit(ch)) {
                high = hex_value(ch);
                st = ValueState::HEX2;
            } else if (is_special(ch) || ch == '#') {
                *o++ = ch;
                st = ret;
            } else if (is_blank(ch) && (o == buf || p[1] == '\0')) {
                *o++ = ch; // only a leading or a final blank needs its backslash
                st = ret;
            } else {
                code = 1;
            }
            break;
        case ValueState::HEX2:
            if (is_xdigit(ch)) {
                *o++ = static_cast<char>(high * 16 + hex_value(ch));
                st = ret;
            } else {
                code = 1;
            }
            break;
        case ValueState::INHEX:
            code = 1; // not entered: "#" values are decoded by unhex_value
            break;
        }
    }
    if (code != 0) {
        lber_free(buf);
        return code;
    }
    *out = buf;
    return 0;
}

// ---- the tree ---------------------------------------------------------------------------------

int compare_pairs(const LDAPAVAPair *a, const LDAPAVAPair *b)
{
    int c = strcasecmp(a->type, b->type);
    return c != 0 ? c : strcasecmp(a->value, b->value);
}

// Adds (type, value) to the RDN; takes `value` in every case. 0 or 90.
int add_pair(LDAPRDN *rdn, const char *type, char *value, int mode)
{
    auto pair = static_cast<LDAPAVAPair *>(lber_calloc(1, sizeof(LDAPAVAPair)));
    auto ava = static_cast<LDAPAVA *>(lber_calloc(1, sizeof(LDAPAVA)));
    char *type_copy = lber_strdup(type);
    if (pair == nullptr || ava == nullptr || type_copy == nullptr) {
        lber_free(pair);
        lber_free(ava);
        lber_free(type_copy);
        lber_free(value);
        return LDAP_NO_MEMORY;
    }
    pair->type = type_copy;
    pair->value = value;
    ava->pair = pair;
    LDAPAVA **link = &rdn->avas;
    if (mode == LDAP_DN_BUILD_SORTED) {
        // Before the first pair that is greater: equal pairs keep their order of arrival.
        while (*link != nullptr && compare_pairs((*link)->pair, pair) <= 0)
            link = &(*link)->next;
    } else {
        while (*link != nullptr)
            link = &(*link)->next;
    }
    ava->next = *link;
    *link = ava;
    return 0;
}

void free_rdn(LDAPRDN *rdn)
{
    LDAPAVA *ava = rdn->avas;
    while (ava != nullptr) {
        LDAPAVA *next = ava->next;
        lber_free(ava->pair->type);
        lber_free(ava->pair->value);
        lber_free(ava->pair);
        lber_free(ava);
        ava = next;
    }
    lber_free(rdn);
}

// Parses the pairs of one RDN ("type=value+type=value") from p, in the string's own buffer.
// *stop is where parsing stopped: a "," or ";", the end of the string, or the error.
int parse_rdn(char *p, LDAPRDN *rdn, int mode, char **stop)
{
    for (;;) {
        TypeScan ts;
        int code = scan_type(p, &ts);
        if (code != 0) {
            LDAP_TRACE(LDAP_TRC_DN, "BAD RDN type, code=%d.\n", code);
            *stop = ts.stop;
            return code;
        }
        ts.last[1] = '\0';
        if (ts.last - ts.start + 1 == 16 && strcasecmp(ts.start, "qrv-kerberosname") == 0)
            memcpy(ts.start, "qrv-kn", sizeof("qrv-kn"));

        ValueScan vs;
        code = scan_value(ts.stop + 1, &vs);
        if (code != 0) {
            LDAP_TRACE(LDAP_TRC_DN, "BAD RDN value, code=%d.\n", code);
            *stop = vs.stop;
            return code;
        }
        char stop_char = *vs.stop;
        vs.last[1] = '\0';
        char *value = nullptr;
        code = unescape_value(vs.start, &value);
        if (code == 0)
            code = add_pair(rdn, ts.start, value, mode);
        *vs.stop = stop_char;
        *stop = vs.stop;
        if (code != 0)
            return code;
        ++rdn->count;
        if (stop_char != '+')
            return 0;
        p = vs.stop + 1;
    }
}

// ---- strings rebuilt from the tree ------------------------------------------------------------

// A value is written with a backslash before every special character, before a leading blank
// or "#", and before a final blank, so that it reads back as the same bytes. An empty value
// is written as "" (an unquoted empty value does not parse).
bool needs_backslash(const char *v, size_t i, size_t n)
{
    char ch = v[i];
    return is_special(ch) || (i == 0 && (is_blank(ch) || ch == '#')) ||
           (i == n - 1 && is_blank(ch));
}

size_t value_length(const char *v)
{
    size_t n = strlen(v);
    if (n == 0)
        return 2;
    size_t len = n;
    for (size_t i = 0; i < n; ++i)
        len += needs_backslash(v, i, n) ? 1 : 0;
    return len;
}

char *write_value(char *o, const char *v)
{
    size_t n = strlen(v);
    if (n == 0) {
        *o++ = '"';
        *o++ = '"';
        return o;
    }
    for (size_t i = 0; i < n; ++i) {
        if (needs_backslash(v, i, n))
            *o++ = '\\';
        *o++ = v[i];
    }
    return o;
}

// Length of the RDN as written ("type=value+type=value", or values only).
size_t rdn_length(const LDAPRDN *rdn, bool types)
{
    size_t len = 0;
    for (const LDAPAVA *a = rdn->avas; a != nullptr; a = a->next) {
        if (a != rdn->avas)
            ++len; // "+"
        if (types)
            len += strlen(a->pair->type) + 1;
        len += value_length(a->pair->value);
    }
    return len;
}

char *write_rdn(char *o, const LDAPRDN *rdn, bool types)
{
    for (const LDAPAVA *a = rdn->avas; a != nullptr; a = a->next) {
        if (a != rdn->avas)
            *o++ = '+';
        if (types) {
            size_t tl = strlen(a->pair->type);
            memcpy(o, a->pair->type, tl);
            o += tl;
            *o++ = '=';
        }
        o = write_value(o, a->pair->value);
    }
    return o;
}

// The RDNs from `first` up to (not including) `end` joined by ","; nullptr when out of memory.
char *rdns_to_string(const LDAPRDN *first, const LDAPRDN *end, bool types)
{
    size_t len = 1;
    for (const LDAPRDN *r = first; r != end; r = r->next)
        len += rdn_length(r, types) + (r != first ? 1 : 0);
    auto s = static_cast<char *>(lber_malloc(len));
    if (s == nullptr)
        return nullptr;
    char *o = s;
    for (const LDAPRDN *r = first; r != end; r = r->next) {
        if (r != first)
            *o++ = ',';
        o = write_rdn(o, r, types);
    }
    *o = '\0';
    return s;
}

int build_normalized(LDAPDN *dn)
{
    dn->normalized = rdns_to_string(dn->rdns, nullptr, true);
    if (dn->normalized == nullptr)
        return LDAP_NO_MEMORY;
    dn->normalized_upper = lber_strdup(dn->normalized);
    if (dn->normalized_upper == nullptr)
        return LDAP_NO_MEMORY;
    for (char *p = dn->normalized_upper; *p != '\0'; ++p)
        *p = static_cast<char>(toupper(static_cast<unsigned char>(*p)));
    return 0;
}

// Parses every RDN of `copy` into `dn`; the first error stops the walk.
int parse_rdns(LDAPDN *dn, char *copy, int mode)
{
    LDAPRDN **tail = &dn->rdns;
    char *p = copy;
    while (*p != '\0') {
        auto rdn = static_cast<LDAPRDN *>(lber_calloc(1, sizeof(LDAPRDN)));
        if (rdn == nullptr)
            return LDAP_NO_MEMORY;
        char *stop = p;
        int code = parse_rdn(p, rdn, mode, &stop);
        if (code == 0 && is_rdn_separator(*stop)) {
            LDAP_TRACE(LDAP_TRC_DN, "End of DN component, found %c.\n", *stop);
            ++stop;
        }
        if (code != 0) {
            free_rdn(rdn);
            return code;
        }
        LDAP_TRACE(LDAP_TRC_DN, "Parsed DN element %d.\n", static_cast<int>(dn->count));
        *tail = rdn;
        tail = &rdn->next;
        ++dn->count;
        p = stop;
    }
    return 0;
}

// A name without "=" and "," is taken as a DNS or Kerberos style name.
bool is_plain_name(const char *s)
{
    return *s != '\0' && strchr(s, '=') == nullptr && strchr(s, ',') == nullptr;
}

// A parsed tree with at least one RDN, or nullptr (parse error, empty DN, no memory).
LDAPDN *parse_nonempty(const char *dn)
{
    int err = 0;
    LDAPDN *tree = parse_dn(dn, LDAP_DN_BUILD_IN_ORDER, &err);
    if (tree != nullptr && (err != 0 || tree->count == 0)) {
        ldap_free_dn(tree);
        tree = nullptr;
    }
    return tree;
}

// Releases an array being filled (null-terminated behind its last filled slot).
char **free_partial(char **array)
{
    ldap_value_free(array);
    return nullptr;
}
} // namespace

LDAPDN *parse_dn(const char *dn, int mode, int *err)
{
    int ignored;
    if (err == nullptr)
        err = &ignored;
    *err = 0;
    auto tree = static_cast<LDAPDN *>(lber_calloc(1, sizeof(LDAPDN)));
    if (tree == nullptr) {
        *err = LDAP_NO_MEMORY;
        return nullptr;
    }
    int code = 0;
    if (dn == nullptr || *dn == '\0') {
        LDAP_TRACE(LDAP_TRC_DN, "NULL DN value.\n");
    } else {
        char *copy = lber_strdup(dn); // the parse terminates pieces in place
        code = copy != nullptr ? parse_rdns(tree, copy, mode) : LDAP_NO_MEMORY;
        lber_free(copy);
        if (code != 0)
            LDAP_TRACE(LDAP_TRC_WARN, "Bad DN %s.\n", dn);
    }
    int built = build_normalized(tree);
    *err = code != 0 ? code : built;
    return tree;
}

void ldap_free_dn(LDAPDN *dn)
{
    if (dn == nullptr)
        return;
    LDAPRDN *rdn = dn->rdns;
    while (rdn != nullptr) {
        LDAPRDN *next = rdn->next;
        free_rdn(rdn);
        rdn = next;
    }
    lber_free(dn->normalized);
    lber_free(dn->normalized_upper);
    lber_free(dn);
}

char *ldap_get_dn(LDAP *ld, LDAPMessage *entry)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_dn\n");
    OperationBracket op(ld);
    if (op.rc() != 0)
        return nullptr;
    ldap_clear_lderrno(ld);
    if (entry == nullptr || entry->lm_ber == nullptr) {
        (void)ldap_fail(ld, LDAP_PARAM_ERROR);
        return nullptr;
    }
    // SearchResultEntry ::= [APPLICATION 4] SEQUENCE { objectName LDAPDN, ... }
    BerElement c = ldap_read_cursor(entry->lm_ber);
    char *dn = nullptr;
    ber_len_t len;
    if (!fber_scan_begin(&c, "{a") || fber_skip_tag(&c, &len) == LBER_ERROR ||
        fber_get_stringa_as(&c, fber_xlate_wanted(&c), &dn) == LBER_ERROR) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_get_dn: fber_scanf failed\n");
        lber_free(dn);
        dn = nullptr;
        (void)ldap_fail(ld, LDAP_DECODING_ERROR, &c);
    }
    return dn;
}

char **ldap_explode_dn(const char *dn, int notypes)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_explode_dn\n");
    if (dn == nullptr)
        return nullptr;
    if (is_plain_name(dn))
        return ldap_explode_dns(dn);
    LDAPDN *tree = parse_nonempty(dn);
    if (tree == nullptr)
        return nullptr;
    auto out = static_cast<char **>(lber_calloc(tree->count + 1, sizeof(char *)));
    long i = 0;
    for (const LDAPRDN *r = tree->rdns; r != nullptr && out != nullptr; r = r->next, ++i) {
        if ((out[i] = rdns_to_string(r, r->next, notypes == 0)) == nullptr)
            out = free_partial(out);
    }
    ldap_free_dn(tree);
    return out;
}

char **ldap_explode_rdn(const char *dn, int notypes)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_explode_rdn\n");
    if (dn == nullptr)
        return nullptr;
    LDAPDN *tree = parse_nonempty(dn);
    if (tree == nullptr)
        return nullptr;
    const LDAPRDN *rdn = tree->rdns;
    auto out = static_cast<char **>(lber_calloc(rdn->count + 1, sizeof(char *)));
    long i = 0;
    // Values as stored (unescaped). An empty string is left out rather than leaving a null
    // slot in the middle, where it would end the array early and hide what follows.
    for (const LDAPAVA *a = rdn->avas; a != nullptr && out != nullptr; a = a->next) {
        const LDAPAVAPair *pair = a->pair;
        size_t tl = notypes ? 0 : strlen(pair->type) + 1;
        size_t vl = strlen(pair->value);
        if (tl + vl == 0)
            continue;
        auto s = static_cast<char *>(lber_malloc(tl + vl + 1));
        if (s == nullptr) {
            out = free_partial(out);
            break;
        }
        if (tl != 0) {
            memcpy(s, pair->type, tl - 1);
            s[tl - 1] = '=';
        }
        memcpy(s + tl, pair->value, vl + 1);
        out[i++] = s;
    }
    ldap_free_dn(tree);
    return out;
}

char *ldap_dn2ufn(const char *dn)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_dn2ufn\n");
    if (dn == nullptr)
        return nullptr;
    if (is_plain_name(dn))
        return lber_strdup(dn);
    int err = 0;
    LDAPDN *tree = parse_dn(dn, LDAP_DN_BUILD_IN_ORDER, &err);
    char *ufn = nullptr;
    if (tree != nullptr && err == 0)
        ufn = rdns_to_string(tree->rdns, nullptr, false);
    ldap_free_dn(tree);
    return ufn;
}

char **ldap_explode_dns(const char *name)
{
    if (name == nullptr)
        return nullptr;
    long cap = 8;
    long n = 0;
    auto out = static_cast<char **>(lber_calloc(cap, sizeof(char *)));
    if (out == nullptr)
        return nullptr;
    for (const char *p = name; *p != '\0';) {
        size_t len = strcspn(p, "@.");
        if (len > 0) {
            if (n + 1 == cap) {
                auto grown = static_cast<char **>(lber_realloc(out, 2 * cap * sizeof(char *)));
                if (grown == nullptr)
                    return free_partial(out);
                out = grown;
                cap *= 2;
            }
            if ((out[n] = lber_strndup(p, len)) == nullptr)
                return free_partial(out);
            out[++n] = nullptr;
        }
        p += len;
        if (*p != '\0')
            ++p;
    }
    return out;
}
