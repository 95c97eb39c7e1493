// Parses any bytes as an LDAP URL (cut at the first NUL, as a C caller would pass it), with
// both the defaulting and the internal parse, and releases what comes back.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "libldap/ldap_url.h"
#include "liblber/ber_memory.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *url = static_cast<char *>(lber_malloc(size + 1));
    if (url == nullptr)
        return 0;
    if (size != 0) // the empty input may come with a null pointer
        memcpy(url, data, size);
    url[size] = '\0';

    (void)ldap_is_ldap_url(url);
    LDAPURLDesc *lud = nullptr;
    if (ldap_url_parse(url, &lud) == 0) {
        // Touch every field so a dangling or unterminated one shows under the sanitizers.
        size_t total = strlen(lud->lud_scheme);
        for (const char *s : {lud->lud_host, lud->lud_dn, lud->lud_filter})
            total += s != nullptr ? strlen(s) : 0;
        for (char **a = lud->lud_attrs; a != nullptr && *a != nullptr; ++a)
            total += strlen(*a);
        // A parse that succeeds always has a scheme and a filter and no working copy left.
        if (total < 4 || lud->lud_filter == nullptr || lud->lud_string != nullptr)
            __builtin_trap();
    }
    ldap_free_urldesc(lud);
    lud = nullptr;
    if (ldap_url_parse_internal(url, &lud) == 0 && lud->lud_string != nullptr)
        __builtin_trap();
    ldap_free_urldesc(lud);
    lber_free(url);
    return 0;
}
