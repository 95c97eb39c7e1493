// Code-page translation between the local code page and UTF-8 for strings on the wire.
// When the local code page is UTF-8 (or the process is still in the C/POSIX locale) the
// translation is a pass-through: *out is left null and the caller uses its input as is.
#ifndef WZR_LIBLDAP_LDAP_CHARSET_H
#define WZR_LIBLDAP_LDAP_CHARSET_H

#include <cstddef>

// 0 on success (with *out null for pass-through, else an allocated, NUL-terminated copy and
// its length in *outlen); -1 when a byte sequence cannot be converted or memory runs out.
[[nodiscard]] int ldap_xlate_local_to_utf8(const char *in, size_t inlen, char **out,
                                           size_t *outlen);
[[nodiscard]] int ldap_xlate_utf8_to_local(const char *in, size_t inlen, char **out,
                                           size_t *outlen);
bool ldap_xlate_is_passthrough();
void ldap_charset_reset_for_tests(); // forget the cached code page (LDAP_CODEPAGE re-read)

#endif
