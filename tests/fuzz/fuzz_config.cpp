// Parses any bytes as a configuration file, once whole and once in pieces whose size the
// first byte picks, and checks the entries: the same either way, four fields at least, no
// separator inside fields 1-5, and nothing longer than a line.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libldap/ldap_config.h"

namespace {
LDAPConfEntry *parse(const uint8_t *data, size_t size, size_t chunk)
{
    LDAPConfParser p;
    ldap_conf_parser_init(&p);
    int rc = 0;
    for (size_t i = 0; rc == 0 && i < size; i += chunk)
        rc = ldap_conf_feed(&p, reinterpret_cast<const char *>(data) + i,
                            size - i < chunk ? size - i : chunk);
    LDAPConfEntry *list = nullptr;
    if (rc == 0)
        rc = ldap_conf_finish(&p, &list);
    ldap_conf_parser_free(&p);
    if (rc != 0)
        __builtin_trap(); // only a failed allocation may stop the parser
    return list;
}

void check(const LDAPConfEntry *e)
{
    for (int k = 0; k < 4; k++) {
        if (e->field[k] == nullptr)
            __builtin_trap();
    }
    for (int k = 0; k < 6; k++) {
        if (e->field[k] != nullptr &&
            (strlen(e->field[k]) >= LDAP_CONF_LINE_MAX ||
             (k < 5 && strpbrk(e->field[k], " \t\n") != nullptr)))
            __builtin_trap();
    }
}

bool same(const LDAPConfEntry *a, const LDAPConfEntry *b)
{
    for (; a != nullptr && b != nullptr; a = a->next, b = b->next) {
        for (int k = 0; k < 6; k++) {
            if ((a->field[k] == nullptr) != (b->field[k] == nullptr) ||
                (a->field[k] != nullptr && strcmp(a->field[k], b->field[k]) != 0))
                return false;
        }
    }
    return a == b;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    size_t chunk = size > 0 ? data[0] % 64 + 1 : 1;
    LDAPConfEntry *whole = parse(data, size, size > 0 ? size : 1);
    LDAPConfEntry *pieces = parse(data, size, chunk);
    for (const LDAPConfEntry *e = whole; e != nullptr; e = e->next)
        check(e);
    if (!same(whole, pieces))
        __builtin_trap();
    ldap_conf_free(whole);
    ldap_conf_free(pieces);
    return 0;
}
