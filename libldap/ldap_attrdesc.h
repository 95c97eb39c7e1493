// The one test of what an attribute description may look like: a descriptor (a letter, then
// letters, digits and hyphens) or a numeric OID, followed by ";option"s. Header-only and free
// of library types, so that the filter encoder, search requests and the tool's LDIF share it.
#ifndef WZR_LIBLDAP_LDAP_ATTRDESC_H
#define WZR_LIBLDAP_LDAP_ATTRDESC_H

#include <string_view>

namespace wzr_attrdesc {

constexpr bool is_alpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }
constexpr bool is_keychar(char c) { return is_alpha(c) || is_digit(c) || c == '-'; }

constexpr const char *keychars_end(const char *p, const char *end)
{
    while (p != end && is_keychar(*p))
        ++p;
    return p;
}

// One arc of a numeric OID: "0" or digits without a leading zero.
constexpr const char *number_end(const char *p, const char *end)
{
    if (p == end || !is_digit(*p))
        return p;
    if (*p == '0')
        return p + 1;
    while (p != end && is_digit(*p))
        ++p;
    return p;
}

// The scanners below return where the longest well-formed text starting at `p` ends, `p`
// itself when none starts there; the caller decides what may follow.

// A descriptor, or a numeric OID of at least two arcs (a lone number is neither).
[[nodiscard]] constexpr const char *oid_end(const char *p, const char *end)
{
    if (p != end && is_alpha(*p))
        return keychars_end(p + 1, end);
    const char *q = number_end(p, end);
    if (q == p)
        return p;
    const char *last = p;
    while (q != end && *q == '.' && number_end(q + 1, end) != q + 1) {
        last = number_end(q + 1, end);
        q = last;
    }
    return last;
}

// An attribute type with its options; an empty option ends the description before its ";".
[[nodiscard]] constexpr const char *attr_desc_end(const char *p, const char *end)
{
    const char *q = oid_end(p, end);
    if (q == p)
        return p;
    while (q != end && *q == ';' && keychars_end(q + 1, end) != q + 1)
        q = keychars_end(q + 1, end);
    return q;
}

[[nodiscard]] constexpr bool is_oid(std::string_view s)
{
    return !s.empty() && oid_end(s.data(), s.data() + s.size()) == s.data() + s.size();
}

[[nodiscard]] constexpr bool is_attr_desc(std::string_view s)
{
    return !s.empty() && attr_desc_end(s.data(), s.data() + s.size()) == s.data() + s.size();
}

} // namespace wzr_attrdesc

#endif
