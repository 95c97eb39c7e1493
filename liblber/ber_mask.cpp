// Secrets in dumped PDUs: a walk over the BER elements of an LDAP message that finds every
// password value (of any attribute named as a password, in any case and with any options,
// wherever it stands: add, modify, compare, filters, entries), the credentials of a bind
// request, the server's SASL credentials and the value of a password-modify request, and
// stars them over in the copy that is dumped.
#include <cstring>
#include <strings.h>

#include "ber_int.h"

namespace {

constexpr int MAX_DEPTH = 32; // deeper nesting is not LDAP; hostile input must not recurse on
constexpr unsigned char TAG_OCTET_STRING = 0x04;
constexpr unsigned char TAG_SEQUENCE = 0x30;
constexpr unsigned char TAG_SET = 0x31;
constexpr unsigned char TAG_COMPARE_REQUEST = 0x6E;
constexpr unsigned char TAG_FILTER_EQUALITY = 0xA3;
constexpr unsigned char TAG_FILTER_SUBSTRINGS = 0xA4;
constexpr unsigned char TAG_FILTER_GREATER = 0xA5;
constexpr unsigned char TAG_FILTER_LESS = 0xA6;
constexpr unsigned char TAG_FILTER_APPROX = 0xA8;
constexpr unsigned char TAG_FILTER_EXTENSIBLE = 0xA9;
constexpr unsigned char TAG_MRA_TYPE = 0x82; // the type of an extensible-match filter
constexpr unsigned char TAG_BIND_REQUEST = 0x60;
constexpr unsigned char TAG_BIND_RESPONSE = 0x61;
constexpr unsigned char TAG_SIMPLE_CREDENTIALS = 0x80;
constexpr unsigned char TAG_SASL_CREDENTIALS = 0xA3;
constexpr unsigned char TAG_SERVER_SASL_CREDS = 0x87;
constexpr unsigned char TAG_EXTENDED_REQUEST = 0x77;
constexpr unsigned char TAG_EXOP_NAME = 0x80;
constexpr unsigned char TAG_EXOP_VALUE = 0x81;
constexpr const char *PASSWORD_MODIFY_OID = "1.3.6.1.4.1.4203.1.11.1";
constexpr const char *PASSWORD_ATTRIBUTES[] = {"userPassword", "authPassword", "unicodePwd"};

// One element inside p[0, n): its tag, where its contents start and end (clipped to n, so a
// length running past the bytes at hand still masks what is there).
struct Element {
    unsigned char tag;
    size_t body;
    size_t end;
    bool constructed() const { return (tag & 0x20) != 0; }
};

bool read_element(const unsigned char *p, size_t n, size_t at, Element *e)
{
    if (at + 2 > n || (p[at] & 0x1f) == 0x1f)
        return false;
    e->tag = p[at];
    size_t len = p[at + 1];
    e->body = at + 2;
    if ((len & 0x80) != 0) {
        size_t k = len & 0x7f;
        if (k == 0 || k > 4 || e->body + k > n)
            return false;
        len = 0;
        for (size_t i = 0; i < k; ++i)
            len = (len << 8) | p[e->body++];
    }
    e->end = len < n - e->body ? e->body + len : n;
    return true;
}

// The children of `parent`, at most `max`; returns how many were read.
size_t children(const unsigned char *p, const Element &parent, Element *out, size_t max)
{
    size_t count = 0;
    for (size_t at = parent.body; count < max && read_element(p, parent.end, at, &out[count]);
         at = out[count++].end) {
    }
    return count;
}

bool contents_equal(const unsigned char *p, const Element &e, const char *text)
{
    size_t len = strlen(text);
    return e.end - e.body == len && memcmp(p + e.body, text, len) == 0;
}

bool names_password(const unsigned char *p, const Element &e)
{
    return (e.tag == TAG_OCTET_STRING || e.tag == TAG_MRA_TYPE) &&
           ber_is_password_attribute(reinterpret_cast<const char *>(p + e.body), e.end - e.body);
}

struct Walk {
    const unsigned char *p;
    unsigned char *copy; // the dumped bytes: pdu[skip, skip + shown)
    size_t skip;
    size_t shown;

    void mask(const Element &e) const
    {
        size_t from = e.body > skip ? e.body : skip;
        size_t to = e.end < skip + shown ? e.end : skip + shown;
        if (from < to)
            memset(copy + (from - skip), '*', to - from);
    }

    // Every primitive value inside `e` but the one named `except`.
    void mask_values(const Element &e, const Element *except, int depth) const
    {
        if (!e.constructed()) {
            if (except == nullptr || e.body != except->body)
                mask(e);
            return;
        }
        Element child;
        for (size_t at = e.body; depth < MAX_DEPTH && read_element(p, e.end, at, &child);
             at = child.end)
            mask_values(child, except, depth + 1);
    }

    void element(const Element &e, int depth, unsigned char parent = 0) const
    {
        if (!e.constructed() || depth >= MAX_DEPTH)
            return;
        Element kids[8];
        size_t n = children(p, e, kids, 8);
        if (e.tag == TAG_FILTER_EXTENSIBLE) {
            for (size_t i = 0; i + 1 < n; ++i)
                if (names_password(p, kids[i]))
                    mask_values(e, &kids[i], depth); // the rule, if any, is starred too
            return;
        }
        if (e.tag == TAG_BIND_REQUEST && n >= 3)
            bind_credentials(kids[2]);
        else if (e.tag == TAG_BIND_RESPONSE)
            for (size_t i = 0; i < n; ++i)
                if (kids[i].tag == TAG_SERVER_SASL_CREDS)
                    mask(kids[i]);
        if (e.tag == TAG_EXTENDED_REQUEST && n >= 2 && kids[0].tag == TAG_EXOP_NAME &&
            kids[1].tag == TAG_EXOP_VALUE && contents_equal(p, kids[0], PASSWORD_MODIFY_OID))
            mask(kids[1]);
        if (about_password(e, kids, n, parent)) {
            mask_values(e, &kids[0], depth);
            return;
        }
        all_children(e, depth);
    }

    // An attribute with its values, an assertion or a filter item whose attribute is a
    // password: the name comes first, the values after it.
    bool about_password(const Element &e, const Element *kids, size_t n,
                        unsigned char parent) const
    {
        if (n < 2 || !names_password(p, kids[0]))
            return false;
        switch (e.tag) {
        case TAG_SEQUENCE: // PartialAttribute { type, SET OF value }, or a compare's assertion
            return kids[1].tag == TAG_SET || parent == TAG_COMPARE_REQUEST;
        case TAG_FILTER_EQUALITY:
        case TAG_FILTER_SUBSTRINGS:
        case TAG_FILTER_GREATER:
        case TAG_FILTER_LESS:
        case TAG_FILTER_APPROX:
            return true;
        default:
            return false;
        }
    }

    void bind_credentials(const Element &auth) const
    {
        if (auth.tag == TAG_SIMPLE_CREDENTIALS) {
            mask(auth);
        } else if (auth.tag == TAG_SASL_CREDENTIALS) {
            Element sasl[2];
            if (children(p, auth, sasl, 2) == 2)
                mask(sasl[1]);
        }
    }

    void all_children(const Element &e, int depth) const
    {
        Element child;
        for (size_t at = e.body; read_element(p, e.end, at, &child); at = child.end)
            element(child, depth + 1, e.tag);
    }
};

} // namespace

// "userPassword", "USERPASSWORD;binary", ...: a password attribute with any options.
bool ber_is_password_attribute(const char *desc, size_t len)
{
    const auto *semi = static_cast<const char *>(memchr(desc, ';', len));
    if (semi != nullptr)
        len = static_cast<size_t>(semi - desc);
    for (const char *name : PASSWORD_ATTRIBUTES)
        if (strlen(name) == len && strncasecmp(desc, name, len) == 0)
            return true;
    return false;
}

void ber_mask_secrets(const unsigned char *pdu, size_t pdu_len, size_t skip, unsigned char *copy,
                      size_t shown)
{
    Walk walk{pdu, copy, skip, shown};
    // The bytes are a whole LDAPMessage or its contents (the reader dumps those): either way
    // a run of elements.
    Element top{TAG_SEQUENCE, 0, pdu_len};
    walk.all_children(top, 0);
}
