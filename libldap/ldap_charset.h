// Code-page translation between the local code page and UTF-8 for strings on the wire.
// When the local code page is UTF-8 (or the process is still in the C/POSIX locale) the
// translation is a pass-through: *out is left null and the caller uses its input as is.
#ifndef WZR_LIBLDAP_LDAP_CHARSET_H
#define WZR_LIBLDAP_LDAP_CHARSET_H

#include <cstddef>

struct BerTranslator;

// 0 on success (with *out null for pass-through, else an allocated, NUL-terminated copy and
// its length in *outlen); else LDAP_XLATE_INPUT_TRUNCATED (a multi-byte character cut off at
// the end), LDAP_XLATE_BAD_CHARACTER (bytes that are no character of the source code set),
// LDAP_XLATE_NO_MAPPING (a valid character the target code set lacks) or LDAP_NO_MEMORY.
[[nodiscard]] int ldap_xlate_local_to_utf8(const char *in, size_t inlen, char **out,
                                           size_t *outlen);
[[nodiscard]] int ldap_xlate_utf8_to_local(const char *in, size_t inlen, char **out,
                                           size_t *outlen);
bool ldap_xlate_is_passthrough();

// The local code page to and from UCS-2 (big-endian, two bytes a character: the BMP only), into
// a caller's buffer of `size` bytes: 0 with *outlen set (the result is not NUL-terminated), or
// LDAP_XLATE_OUTPUT_OVERFLOW when it does not fit, LDAP_XLATE_NO_MAPPING for a character
// outside the BMP or missing from the local code page, LDAP_XLATE_INPUT_TRUNCATED for an odd
// byte count, LDAP_XLATE_BAD_CHARACTER for a lone surrogate or bytes that are no character.
[[nodiscard]] int ldap_xlate_local_to_ucs2(const char *in, size_t inlen, char *out, size_t size,
                                           size_t *outlen);
[[nodiscard]] int ldap_xlate_ucs2_to_local(const char *in, size_t inlen, char *out, size_t size,
                                           size_t *outlen);
// Whether `len` bytes are well-formed UTF-8 (lead and continuation bytes, no cut-off character).
bool ldap_utf8_valid(const char *s, size_t len);
// The translator the BER codec uses for strings on the wire (installed by ldap_alloc_fber).
const BerTranslator *ldap_charset_translator();
void ldap_charset_reset_for_tests(); // forget the cached code page (LDAP_CODEPAGE re-read)

#endif
