// Conversion of strings between the local code page and UTF-8, on the C library's iconv, and
// the translator handed to the BER codec. The local code page is settled once: "LDAP_USE_UNICODE"
// starting with y or Y says the application's strings are UTF-8 already; else "LDAP_CODEPAGE"
// names the code page, else "NLX_CODESET" unless it says "OS", else the locale's codeset. UTF-8
// and plain ASCII pass bytes through without any conversion call. "LDAP_BACKSLASH" YES keeps
// byte 0x5C a backslash on the wire in code pages that read it as another sign.
#include "ldap_charset.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iconv.h>
#include <langinfo.h>
#include <strings.h>

#include "../liblber/ber_memory.h"
#include "../liblber/ber_xlate.h"
#include "../trace/ldap_env.h"
#include "../trace/ldap_trace.h"
#include "ldap_lock.h"
#include "wzrldap.h"

namespace {

enum Mode : int { UNSETTLED = 0, PASS_THROUGH = 1, CONVERT = 2 };

const iconv_t NO_ICONV = reinterpret_cast<iconv_t>(-1);

std::atomic<int> mode{UNSETTLED};
// Guarded by the charset lock: iconv descriptors carry shift state and are not reentrant.
iconv_t to_utf8 = NO_ICONV;
iconv_t from_utf8 = NO_ICONV;
// With "LDAP_BACKSLASH" YES, what the local code page makes of byte 0x5C (the yen sign of the
// Japanese code pages) goes on the wire as a backslash, so DN and filter escapes survive.
// Empty when the setting is off or the code page keeps 0x5C a backslash. Guarded by the
// charset lock, like the descriptors.
char backslash_as[8] = "";

// "UTF-8", "utf8", ... compare equal once case and dashes are ignored.
bool same_codeset(const char *a, const char *b)
{
    for (;;) {
        while (*a == '-' || *a == '_')
            ++a;
        while (*b == '-' || *b == '_')
            ++b;
        if (*a == '\0' || *b == '\0')
            return *a == *b;
        if ((*a | 0x20) != (*b | 0x20))
            return false;
        ++a;
        ++b;
    }
}

// UTF-8 needs no conversion; neither does a process left in the C/POSIX locale, whose strings
// are taken as UTF-8 so that binary values reach the caller byte for byte.
bool needs_no_conversion(const char *cs)
{
    static const char *const same[] = {"UTF-8", "ANSI_X3.4-1968", "ASCII", "US-ASCII", "C",
                                       "POSIX"};
    for (const char *s : same)
        if (same_codeset(cs, s))
            return true;
    return false;
}

void close_descriptors(iconv_t &a, iconv_t &b)
{
    if (a != NO_ICONV)
        iconv_close(a);
    if (b != NO_ICONV)
        iconv_close(b);
    a = b = NO_ICONV;
}

bool wants_unicode()
{
    char v[8];
    return ldap_getenv_buf("LDAP_USE_UNICODE", v, sizeof v) > 0 && (v[0] == 'y' || v[0] == 'Y');
}

// The local code set and the setting it came from.
const char *chosen_codeset(char *name, size_t size, const char **from)
{
    if (wants_unicode()) {
        *from = "LDAP_USE_UNICODE";
        return "UTF-8";
    }
    *from = "LDAP_CODEPAGE";
    if (ldap_getenv_buf("LDAP_CODEPAGE", name, size) > 0)
        return name;
    *from = "NLX_CODESET";
    if (ldap_getenv_buf("NLX_CODESET", name, size) > 0 && strcasecmp(name, "OS") != 0)
        return name;
    *from = "locale";
    const char *cs = nl_langinfo(CODESET);
    return cs != nullptr && *cs != '\0' ? cs : "ANSI_X3.4-1968";
}

bool backslash_wanted()
{
    char v[8];
    return ldap_getenv_buf("LDAP_BACKSLASH", v, sizeof v) > 0 && strcasecmp(v, "YES") == 0;
}

// The UTF-8 form of local byte 0x5C when it is not a backslash; left empty otherwise.
void remapped_backslash(iconv_t to, char *out)
{
    char in[] = "\\";
    char *src = in;
    size_t left = 1;
    char *dst = out;
    size_t room = sizeof backslash_as - 1;
    iconv(to, nullptr, nullptr, nullptr, nullptr);
    if (iconv(to, &src, &left, &dst, &room) == static_cast<size_t>(-1) || dst - out == 1)
        dst = out;
    *dst = '\0';
}

// Turns every occurrence of backslash_as in the converted text back into a backslash.
void restore_backslashes(char *text, size_t *len)
{
    size_t n = strlen(backslash_as);
    size_t w = 0;
    for (size_t r = 0; r < *len;) {
        bool hit = r + n <= *len && memcmp(text + r, backslash_as, n) == 0;
        text[w++] = hit ? '\\' : text[r];
        r += hit ? n : 1;
    }
    text[w] = '\0';
    *len = w;
}

// Reads the settings and opens the descriptors outside the lock (environment reads and traces
// take locks of their own); the first thread to finish installs its result.
int settle()
{
    char name[64];
    const char *from = nullptr;
    const char *cs = chosen_codeset(name, sizeof name, &from);

    int want = PASS_THROUGH;
    iconv_t to = NO_ICONV;
    iconv_t back = NO_ICONV;
    if (!needs_no_conversion(cs)) {
        to = iconv_open("UTF-8", cs);
        back = iconv_open(cs, "UTF-8");
        if (to == NO_ICONV || back == NO_ICONV) {
            LDAP_TRACE(LDAP_TRC_CODEPAGE,
                       "ldap_charset_init: no conversion between %s and UTF-8 (errno %d); "
                       "strings pass unchanged\n",
                       cs, errno);
            close_descriptors(to, back);
        } else {
            want = CONVERT;
        }
    }
    LDAP_TRACE(LDAP_TRC_CODEPAGE, "ldap_charset_init: local code page %s (from %s)%s\n", cs, from,
               want == PASS_THROUGH ? ", strings pass unchanged" : "");
    char backslash[sizeof backslash_as] = "";
    if (want == CONVERT && backslash_wanted())
        remapped_backslash(to, backslash);

    ldap_lock_charset();
    int now = mode.load();
    if (now == UNSETTLED) {
        to_utf8 = to;
        from_utf8 = back;
        memcpy(backslash_as, backslash, sizeof backslash_as);
        mode.store(want, std::memory_order_release);
        now = want;
    } else {
        close_descriptors(to, back);
    }
    ldap_unlock_charset();
    return now;
}

inline int current_mode()
{
    int m = mode.load(std::memory_order_acquire);
    return m != UNSETTLED ? m : settle();
}

// iconv says EILSEQ both for bytes that are no character and for a character the target lacks;
// from UTF-8, valid input means the second.
int refused_code(bool towards_utf8, const char *in, size_t inlen)
{
    return !towards_utf8 && ldap_utf8_valid(in, inlen) ? LDAP_XLATE_NO_MAPPING
                                                        : LDAP_XLATE_BAD_CHARACTER;
}

// Runs the whole input through `cd` (reset first, flushed last) into a buffer that grows on
// demand. Called with the charset lock held.
[[nodiscard]] int run_iconv(iconv_t cd, bool towards_utf8, const char *in, size_t inlen, char **out,
                            size_t *outlen)
{
    if (inlen > (SIZE_MAX - 16) / 2)
        return LDAP_NO_MEMORY;
    size_t cap = inlen + inlen / 2 + 16;
    auto *buf = static_cast<char *>(lber_malloc(cap + 1));
    if (buf == nullptr)
        return LDAP_NO_MEMORY;
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    char *src = const_cast<char *>(in);
    size_t left = inlen;
    size_t used = 0;
    bool flushing = false;
    for (;;) {
        char *dst = buf + used;
        size_t room = cap - used;
        size_t r = flushing ? iconv(cd, nullptr, nullptr, &dst, &room)
                            : iconv(cd, &src, &left, &dst, &room);
        int err = errno;
        used = static_cast<size_t>(dst - buf);
        if (r != static_cast<size_t>(-1)) {
            if (flushing)
                break;
            flushing = true;
            continue;
        }
        if (err != E2BIG || cap > SIZE_MAX / 4) {
            lber_free(buf);
            return err == EINVAL ? LDAP_XLATE_INPUT_TRUNCATED
                                 : refused_code(towards_utf8, in, inlen);
        }
        cap *= 2;
        auto *bigger = static_cast<char *>(lber_realloc(buf, cap + 1));
        if (bigger == nullptr) {
            lber_free(buf);
            return LDAP_NO_MEMORY;
        }
        buf = bigger;
    }
    buf[used] = '\0';
    *out = buf;
    *outlen = used;
    return 0;
}

int convert(bool towards_utf8, const char *in, size_t inlen, char **out, size_t *outlen)
{
    *out = nullptr;
    *outlen = inlen;
    if (inlen == 0 || current_mode() != CONVERT)
        return 0;
    if (in == nullptr)
        return LDAP_PARAM_ERROR;
    ldap_lock_charset();
    iconv_t cd = towards_utf8 ? to_utf8 : from_utf8;
    int rc = cd == NO_ICONV ? 0 : run_iconv(cd, towards_utf8, in, inlen, out, outlen);
    if (rc == 0 && *out != nullptr && towards_utf8 && backslash_as[0] != '\0' &&
        memchr(in, '\\', inlen) != nullptr)
        restore_backslashes(*out, outlen);
    ldap_unlock_charset();
    if (rc != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: cannot convert a value of %lu bytes, rc=%d\n",
                   towards_utf8 ? "ldap_xlate_local_to_utf8" : "ldap_xlate_utf8_to_local",
                   static_cast<unsigned long>(inlen), rc);
    return rc;
}

} // namespace

int ldap_xlate_local_to_utf8(const char *in, size_t inlen, char **out, size_t *outlen)
{
    return convert(true, in, inlen, out, outlen);
}

int ldap_xlate_utf8_to_local(const char *in, size_t inlen, char **out, size_t *outlen)
{
    return convert(false, in, inlen, out, outlen);
}

bool ldap_xlate_is_passthrough() { return current_mode() == PASS_THROUGH; }

const BerTranslator *ldap_charset_translator()
{
    static const BerTranslator translator{ldap_xlate_local_to_utf8, ldap_xlate_utf8_to_local,
                                          ldap_xlate_is_passthrough};
    return &translator;
}

bool ldap_utf8_valid(const char *s, size_t len)
{
    const auto *p = reinterpret_cast<const unsigned char *>(s);
    for (size_t i = 0; i < len;) {
        unsigned char c = p[i];
        size_t follow = c < 0x80                ? 0
                        : c >= 0xC2 && c < 0xE0 ? 1
                        : (c & 0xF0) == 0xE0    ? 2
                        : c >= 0xF0 && c < 0xF5 ? 3
                                                : SIZE_MAX;
        if (follow == SIZE_MAX || follow >= len - i)
            return false;
        for (size_t k = 1; k <= follow; ++k)
            if ((p[i + k] & 0xC0) != 0x80)
                return false;
        i += follow + 1;
    }
    return true;
}

namespace {

// UTF-8 (already checked well-formed) to UCS-2BE.
[[nodiscard]] int utf8_to_ucs2(const unsigned char *p, size_t len, char *out, size_t size,
                               size_t *outlen)
{
    size_t used = 0;
    for (size_t i = 0; i < len;) {
        unsigned c = p[i];
        size_t follow = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
        unsigned cp = follow == 0 ? c : c & (0x3F >> follow);
        for (size_t k = 1; k <= follow; ++k)
            cp = cp << 6 | (p[i + k] & 0x3F);
        if (cp > 0xFFFF)
            return LDAP_XLATE_NO_MAPPING;
        if (size - used < 2)
            return LDAP_XLATE_OUTPUT_OVERFLOW;
        out[used++] = static_cast<char>(cp >> 8);
        out[used++] = static_cast<char>(cp & 0xFF);
        i += follow + 1;
    }
    *outlen = used;
    return 0;
}

// UCS-2BE to UTF-8 into `out` (three bytes a character at most).
[[nodiscard]] int ucs2_to_utf8(const unsigned char *p, size_t len, char *out, size_t *outlen)
{
    if (len % 2 != 0)
        return LDAP_XLATE_INPUT_TRUNCATED;
    size_t used = 0;
    for (size_t i = 0; i < len; i += 2) {
        unsigned cp = p[i] << 8 | p[i + 1];
        if (cp >= 0xD800 && cp <= 0xDFFF)
            return LDAP_XLATE_BAD_CHARACTER;
        if (cp >= 0x800) {
            out[used++] = static_cast<char>(0xE0 | cp >> 12);
            out[used++] = static_cast<char>(0x80 | (cp >> 6 & 0x3F));
        } else if (cp >= 0x80) {
            out[used++] = static_cast<char>(0xC0 | cp >> 6);
        }
        out[used++] = static_cast<char>(cp < 0x80 ? cp : 0x80 | (cp & 0x3F));
    }
    *outlen = used;
    return 0;
}

// The result of a conversion that may have handed out a copy (or said: use the input as is).
const char *converted(const char *in, const char *copy) { return copy != nullptr ? copy : in; }

} // namespace

int ldap_xlate_local_to_ucs2(const char *in, size_t inlen, char *out, size_t size,
                             size_t *outlen)
{
    char *utf8 = nullptr;
    size_t n = 0;
    int rc = ldap_xlate_local_to_utf8(in, inlen, &utf8, &n);
    if (rc == 0) {
        const char *text = converted(in, utf8);
        rc = ldap_utf8_valid(text, n)
                 ? utf8_to_ucs2(reinterpret_cast<const unsigned char *>(text), n, out, size, outlen)
                 : LDAP_XLATE_BAD_CHARACTER;
    }
    lber_free(utf8);
    return rc;
}

int ldap_xlate_ucs2_to_local(const char *in, size_t inlen, char *out, size_t size,
                             size_t *outlen)
{
    auto *utf8 = static_cast<char *>(lber_malloc(inlen / 2 * 3 + 1));
    if (utf8 == nullptr)
        return LDAP_NO_MEMORY;
    size_t n = 0;
    char *local = nullptr;
    size_t local_len = 0;
    int rc = ucs2_to_utf8(reinterpret_cast<const unsigned char *>(in), inlen, utf8, &n);
    if (rc == 0)
        rc = ldap_xlate_utf8_to_local(utf8, n, &local, &local_len);
    if (rc == 0 && local_len > size)
        rc = LDAP_XLATE_OUTPUT_OVERFLOW;
    if (rc == 0) {
        memcpy(out, converted(utf8, local), local_len);
        *outlen = local_len;
    }
    lber_free(local);
    lber_free(utf8);
    return rc;
}

void ldap_charset_reset_for_tests()
{
    ldap_lock_charset();
    close_descriptors(to_utf8, from_utf8);
    backslash_as[0] = '\0';
    mode.store(UNSETTLED);
    ber_xlate_forget();
    ldap_unlock_charset();
}
