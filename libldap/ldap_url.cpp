// LDAP URL parsing into an LDAPURLDesc, its release, and the test whether a string is an
// LDAP URL. The parse works on a private copy that it cuts in place with strchr; it is
// tolerant by design (enclosed form, any letter case, unchecked percent-decoding).
#include "ldap_url.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace {

constexpr const char *DEFAULT_FILTER = "(objectClass=*)";
constexpr int PORT_UNSET_LDAP = -1;
constexpr int PORT_UNSET_LDAPS = -2;
constexpr int SCOPE_UNSET = -1;

// What the prefix test found: where the scheme starts, how long it is, and the text after
// "://".
struct UrlPrefix {
    const char *scheme;
    size_t scheme_len;
    bool secure;
    bool enclosed;
    const char *rest;
};

// "<" (enclosed), then "URL:" in any case, then "ldap://" or "ldaps://" in any case.
bool parse_prefix(const char *url, UrlPrefix *p)
{
    if (url == nullptr)
        return false;
    p->enclosed = *url == '<';
    if (p->enclosed)
        ++url;
    if (strncasecmp(url, "URL:", 4) == 0)
        url += 4;
    p->scheme = url;
    if (strncasecmp(url, "ldap://", 7) == 0) {
        p->scheme_len = 4;
        p->secure = false;
        p->rest = url + 7;
    } else if (strncasecmp(url, "ldaps://", 8) == 0) {
        p->scheme_len = 5;
        p->secure = true;
        p->rest = url + 8;
    } else {
        return false;
    }
    return true;
}

// Hexadecimal value of a digit; other characters go through the same arithmetic unchecked,
// so a malformed escape yields some byte rather than an error.
unsigned hex_value(unsigned char c)
{
    if (c <= '9')
        return c - '0';
    if (c <= 'F')
        return c - 'A' + 10;
    return c - 'a' + 10;
}

// Decodes "%XY" escapes in place. A "%" with fewer than two characters left consumes what
// there is (a missing digit counts as zero) and never reads past the terminator.
void percent_decode(char *s)
{
    char *out = s;
    while (*s != '\0') {
        if (*s != '%') {
            *out++ = *s++;
            continue;
        }
        unsigned hi = s[1] != '\0' ? hex_value(static_cast<unsigned char>(s[1])) : 0;
        unsigned lo =
            s[1] != '\0' && s[2] != '\0' ? hex_value(static_cast<unsigned char>(s[2])) : 0;
        *out++ = static_cast<char>((hi * 16 + lo) & 0xff);
        if (s[1] == '\0')
            s += 1;
        else if (s[2] == '\0')
            s += 2;
        else
            s += 3;
    }
    *out = '\0';
}

bool all_digits(const char *s)
{
    for (; *s != '\0'; ++s)
        if (*s < '0' || *s > '9')
            return false;
    return true;
}

// Cuts `s` at the first `c` and returns what follows it, or null when there is none.
char *split_at(char *s, char c)
{
    if (s == nullptr)
        return nullptr;
    char *at = strchr(s, c);
    if (at == nullptr)
        return nullptr;
    *at = '\0';
    return at + 1;
}

// Port text after ":": all digits (none at all gives 0) or the URL is refused.
int port_of(const char *text, int *port)
{
    if (!all_digits(text)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: bad port=%s\n", text);
        return LDAP_INVALID_SYNTAX;
    }
    *port = atoi(text);
    return 0;
}

// Host part: "[v6literal]:port" or "name:port", the port optional. Returns the host text
// (cut in place) through *host.
int parse_host_port(char *hostpart, bool secure, char **host, int *port)
{
    *port = secure ? PORT_UNSET_LDAPS : PORT_UNSET_LDAP;
    *host = hostpart;
    char *after;
    if (char *close = strchr(hostpart, ']'); close != nullptr) {
        *close = '\0';
        after = close + 1;
        if (strchr(hostpart, '[') != nullptr)
            *host = hostpart + 1;
        if (*after != ':')
            return 0;
        ++after;
    } else {
        after = split_at(hostpart, ':');
        if (after == nullptr)
            return 0;
    }
    return port_of(after, port);
}

int scope_of(const char *text, int *scope)
{
    if (*text == '\0')
        return 0; // stays unset
    if (strcasecmp(text, "base") == 0)
        *scope = LDAP_SCOPE_BASE;
    else if (strcasecmp(text, "one") == 0)
        *scope = LDAP_SCOPE_ONELEVEL;
    else if (strcasecmp(text, "sub") == 0)
        *scope = LDAP_SCOPE_SUBTREE;
    else {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: bad scope=%s\n", text);
        return LDAP_URL_ERR_BADSCOPE;
    }
    return 0;
}

// "a,b,,c": one decoded copy per comma-separated piece, empty pieces included.
int parse_attrs(const char *text, char ***attrs)
{
    size_t count = 1;
    for (const char *p = text; *p != '\0'; ++p)
        count += *p == ',';
    char **list = static_cast<char **>(lber_calloc(count + 1, sizeof(char *)));
    if (list == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: No memory for attrs array\n");
        return LDAP_URL_ERR_MEM;
    }
    *attrs = list; // released with the descriptor on any failure below
    const char *piece = text;
    for (size_t i = 0; i < count; ++i) {
        const char *end = strchr(piece, ',');
        size_t len = end != nullptr ? static_cast<size_t>(end - piece) : strlen(piece);
        list[i] = lber_strndup(piece, len);
        if (list[i] == nullptr) {
            LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: No memory for lud_attrs[%d]\n",
                       static_cast<int>(i));
            return LDAP_URL_ERR_MEM;
        }
        percent_decode(list[i]);
        piece = end != nullptr ? end + 1 : piece + len;
    }
    return 0;
}

// Stores a copy of `text` (null stays null) in *field.
int copy_field(const char *text, char **field, const char *what)
{
    if (text == nullptr)
        return 0;
    *field = lber_strdup(text);
    if (*field == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: strdup for %s failed\n", what);
        return LDAP_URL_ERR_MEM;
    }
    return 0;
}

// The pieces of the path "dn?attrs?scope?filter", cut in place in the working copy.
struct UrlPath {
    char *dn = nullptr;
    char *attrs = nullptr;
    char *scope = nullptr;
    char *filter = nullptr;
};

UrlPath split_path(char *path)
{
    UrlPath p;
    p.dn = path;
    p.attrs = split_at(p.dn, '?');
    p.scope = split_at(p.attrs, '?');
    p.filter = split_at(p.scope, '?'); // the rest, further "?" included
    return p;
}

// Fills `lud` from the working copy; every failure leaves what was allocated in `lud`.
int parse_into(LDAPURLDesc *lud, const UrlPrefix &prefix)
{
    lud->lud_scheme = lber_strndup(prefix.scheme, prefix.scheme_len);
    if (lud->lud_scheme == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: No memory for scheme\n");
        return LDAP_URL_ERR_MEM;
    }
    lud->lud_string = lber_strdup(prefix.rest);
    if (lud->lud_string == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: No memory for copy of url\n");
        return LDAP_URL_ERR_MEM;
    }
    char *work = lud->lud_string;
    size_t len = strlen(work);
    if (prefix.enclosed && len > 0 && work[len - 1] == '>')
        work[len - 1] = '\0';
    lud->lud_scope = SCOPE_UNSET;

    char *path = split_at(work, '/');
    char *host = nullptr;
    int rc = parse_host_port(work, prefix.secure, &host, &lud->lud_port);
    if (rc != 0)
        return rc;
    if (*host == '\0')
        host = nullptr;
    else if (strchr(host, ':') == nullptr)
        percent_decode(host); // an IPv6 literal is kept as written

    UrlPath parts = split_path(path);
    if (parts.scope != nullptr && (rc = scope_of(parts.scope, &lud->lud_scope)) != 0)
        return rc;
    if (parts.dn != nullptr && *parts.dn == '\0')
        parts.dn = nullptr;
    if (parts.dn != nullptr)
        percent_decode(parts.dn);
    if (parts.attrs != nullptr && *parts.attrs != '\0' &&
        (rc = parse_attrs(parts.attrs, &lud->lud_attrs)) != 0)
        return rc;
    if (parts.filter != nullptr) {
        percent_decode(parts.filter);
        if (*parts.filter == '\0')
            parts.filter = nullptr;
    }

    if ((rc = copy_field(parts.dn, &lud->lud_dn, "lud_dn")) != 0 ||
        (rc = copy_field(parts.filter, &lud->lud_filter, "lud_filter")) != 0 ||
        (rc = copy_field(host, &lud->lud_host, "lud_host")) != 0)
        return rc;
    lber_free(lud->lud_string);
    lud->lud_string = nullptr;
    return 0;
}

} // namespace

int ldap_url_parse_internal(const char *url, LDAPURLDesc **ludpp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_parse_internal(%s)\n", url != nullptr ? url : "NULL");
    if (ludpp == nullptr)
        return LDAP_PARAM_ERROR;
    *ludpp = nullptr;
    auto *lud = static_cast<LDAPURLDesc *>(lber_calloc(1, sizeof(LDAPURLDesc)));
    if (lud == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: No memory for LDAPURLDesc\n");
        return LDAP_URL_ERR_MEM;
    }
    UrlPrefix prefix;
    if (!parse_prefix(url, &prefix)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse_internal: Not an LDAP URL\n");
        ldap_free_urldesc(lud);
        return LDAP_URL_ERR_NOTLDAP;
    }
    int rc = parse_into(lud, prefix);
    if (rc != 0) {
        ldap_free_urldesc(lud);
        return rc;
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_parse_internal: return(SUCCESS)\n");
    *ludpp = lud;
    return 0;
}

int ldap_url_parse(const char *url, LDAPURLDesc **ludpp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_url_parse(%s)\n", url != nullptr ? url : "NULL");
    int rc = ldap_url_parse_internal(url, ludpp);
    if (rc != 0)
        return rc;
    LDAPURLDesc *lud = *ludpp;
    if (lud->lud_port == PORT_UNSET_LDAP)
        lud->lud_port = LDAP_PORT;
    else if (lud->lud_port == PORT_UNSET_LDAPS)
        lud->lud_port = LDAPS_PORT;
    if (lud->lud_scope == SCOPE_UNSET)
        lud->lud_scope = LDAP_SCOPE_BASE;
    if (lud->lud_filter == nullptr) {
        lud->lud_filter = lber_strdup(DEFAULT_FILTER);
        if (lud->lud_filter == nullptr) {
            LDAP_TRACE(LDAP_TRC_ERROR, "ldap_url_parse: strdup for default filter failed\n");
            ldap_free_urldesc(lud);
            *ludpp = nullptr;
            return LDAP_URL_ERR_MEM;
        }
    }
    return 0;
}

void ldap_free_urldesc(LDAPURLDesc *lud)
{
    if (lud == nullptr)
        return;
    lber_free(lud->lud_scheme);
    lber_free(lud->lud_string);
    if (lud->lud_attrs != nullptr) {
        for (char **a = lud->lud_attrs; *a != nullptr; ++a)
            lber_free(*a);
        lber_free(lud->lud_attrs);
    }
    lber_free(lud->lud_filter);
    lber_free(lud->lud_dn);
    lber_free(lud->lud_host);
    lber_free(lud);
}

int ldap_is_ldap_url(const char *url)
{
    UrlPrefix prefix;
    return parse_prefix(url, &prefix) ? 1 : 0;
}
