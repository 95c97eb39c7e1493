// Parses any bytes as a DN (cut at the first NUL, as a C caller would pass it). A DN must parse
// or fail cleanly; the RDN strings exploded from a parsed DN, joined with ",", must parse again
// to the same normalized form. The other string forms run on the same input.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "liblber/ber_memory.h"

namespace {
// The exploded RDNs joined by ","; nullptr when there are none.
char *join_rdns(char **rdns)
{
    size_t len = 1;
    for (char **p = rdns; p != nullptr && *p != nullptr; ++p)
        len += strlen(*p) + 1;
    char *joined = static_cast<char *>(lber_calloc(len, 1));
    for (char **p = rdns; joined != nullptr && p != nullptr && *p != nullptr; ++p) {
        if (p != rdns)
            strcat(joined, ",");
        strcat(joined, *p);
    }
    return joined;
}

void check_reparse(const char *dn, const LDAPDN *tree)
{
    char **rdns = ldap_explode_dn(dn, 0);
    // Plain names (no "=" and no ",") are split as DNS names instead: nothing to re-parse.
    if (rdns == nullptr || strchr(dn, '=') == nullptr) {
        ldap_value_free(rdns);
        return;
    }
    char *joined = join_rdns(rdns);
    int err = 0;
    LDAPDN *again = parse_dn(joined, LDAP_DN_BUILD_IN_ORDER, &err);
    if (err != 0 || again == nullptr || again->count != tree->count ||
        strcmp(again->normalized, tree->normalized) != 0)
        __builtin_trap();
    ldap_free_dn(again);
    lber_free(joined);
    ldap_value_free(rdns);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *dn = static_cast<char *>(lber_malloc(size + 1));
    if (dn == nullptr)
        return 0;
    if (size != 0) // the empty input may come with a null pointer
        memcpy(dn, data, size);
    dn[size] = '\0';

    for (int mode : {LDAP_DN_BUILD_IN_ORDER, LDAP_DN_BUILD_SORTED}) {
        int err = 0;
        LDAPDN *tree = parse_dn(dn, mode, &err);
        if (tree == nullptr || tree->normalized == nullptr || tree->normalized_upper == nullptr)
            __builtin_trap(); // only a failed allocation may leave these out
        if (err == 0 && mode == LDAP_DN_BUILD_IN_ORDER && tree->count > 0)
            check_reparse(dn, tree);
        ldap_free_dn(tree);
    }
    ldap_value_free(ldap_explode_dn(dn, 1));
    ldap_value_free(ldap_explode_rdn(dn, 0));
    ldap_value_free(ldap_explode_rdn(dn, 1));
    ldap_memfree(ldap_dn2ufn(dn));
    ldap_value_free(ldap_explode_dns(dn));
    lber_free(dn);
    return 0;
}
