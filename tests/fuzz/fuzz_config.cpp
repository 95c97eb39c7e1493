// Parses any bytes as a configuration file, once whole and once in pieces whose size the
// first byte picks: the entries must be the same either way, have four fields at least and
// no separator inside fields 1-5.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libldap/ldap_config.h"

namespace {
LDAPConfEntry *parse(const uint8_t *data, size_t size, size_t chunk)
{
    LDAPConfParser p;
    ldap_conf_parser_init(&p);
    for (size_t i = 0; i < size; i += chunk) {
        if (ldap_conf_feed(&p, reinterpret_cast<const char *>(data) + i,
                           size - i < chunk ? size - i : chunk) != 0)
            __builtin_trap(); // only a failed allocation may stop the parser
    }
    LDAPConfEntry *list = nullptr;
    if (ldap_conf_finish(&p, &list) != 0)
        __builtin_trap();
    return list;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    LDAPConfEntry *whole = parse(data, size, size > 0 ? size : 1);
    LDAPConfEntry *pieces = parse(data, size, size > 0 ? data[0] % 64 + 1 : 1);
    const LDAPConfEntry *a = whole, *b = pieces;
    for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
        for (int k = 0; k < 6; k++) {
            const char *x = a->field[k], *y = b->field[k];
            bool ok = x == nullptr ? k >= 4 && y == nullptr
                                   : y != nullptr && strcmp(x, y) == 0 &&
                                         strlen(x) < LDAP_CONF_LINE_MAX &&
                                         (k == 5 || strpbrk(x, " \t\n") == nullptr);
            if (!ok)
                __builtin_trap();
        }
    }
    if (a != b)
        __builtin_trap();
    ldap_conf_free(whole);
    ldap_conf_free(pieces);
    return 0;
}
