// The exported surface of libwzr9ldap_64.so: one-line forwarders to the internal API, the two
// identification records, and wzrldap_loaded_from. The version script keeps everything else
// local, so nothing here may add behaviour of its own.
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

#include "ldap_bind.h"
#include "ldap_dn.h"
#include "ldap_entry.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_message.h"
#include "ldap_options.h"
#include "ldap_search.h"
#include "ldap_unbind.h"
#include "ldap_update.h"
#include "ldap_url.h"
#include "ldap_usearch.h"

extern "C" {

const char wzr_ldap_version_ident[] =
    "@(#) wzrldap libwzr9ldap_64 version 9.0.0 (LDAP v2/v3 client)";
// No build date: two builds of the same sources give the same file.
const char wzr_ldap_build_ident[] = "@(#) wzrldap 9.0.0 build: linux x86-64, C++20, compiler "
                                    __VERSION__;

LDAP *wzr_ldap_init(const char *host, int port) { return ldap_init(host, port); }
int wzr_ldap_unbind(LDAP *ld) { return ldap_unbind(ld); }
int wzr_ldap_set_option(LDAP *ld, int option, const void *value)
{
    return ldap_set_option(ld, option, value);
}
const char *wzr_ldap_err2string(int code) { return ldap_err2string(code); }
int wzr_ldap_get_errno(LDAP *ld) { return ldap_get_errno(ld); }

// Strings from ldap_get_dn and the attribute iterators; the library allocator is null-tolerant.
void wzr_ldap_memfree(void *p) { lber_free(p); }
// The cursor of ldap_first_attribute owns no buffer, so the record alone is released and the
// second argument is deliberately ignored.
void wzr_ldap_ber_free(BerElement *cursor, int /*freebuf*/) { lber_free(cursor); }

int wzr_ldap_url_parse(const char *url, LDAPURLDesc **ludpp) { return ldap_url_parse(url, ludpp); }
void wzr_ldap_free_urldesc(LDAPURLDesc *lud) { ldap_free_urldesc(lud); }
int wzr_ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout,
                           LDAPMessage **res)
{
    return ldap_url_search_st(ld, url, attrsonly, timeout, res);
}
int wzr_ldap_msgfree(LDAPMessage *msg) { return ldap_msgfree(msg); }

int wzr_ldap_simple_bind_s(LDAP *ld, const char *dn, const char *password)
{
    return ldap_simple_bind_s(ld, dn, password);
}

int wzr_ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                       int attrsonly, struct timeval *timeout, LDAPMessage **result)
{
    return ldap_search_st(ld, base, scope, filter, attrs, attrsonly, timeout, result);
}

int wzr_ldap_count_entries(LDAP *ld, LDAPMessage *chain) { return ldap_count_entries(ld, chain); }
LDAPMessage *wzr_ldap_first_entry(LDAP *ld, LDAPMessage *chain)
{
    return ldap_first_entry(ld, chain);
}
LDAPMessage *wzr_ldap_next_entry(LDAP *ld, LDAPMessage *entry)
{
    return ldap_next_entry(ld, entry);
}
char *wzr_ldap_get_dn(LDAP *ld, LDAPMessage *entry) { return ldap_get_dn(ld, entry); }
char *wzr_ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursor)
{
    return ldap_first_attribute(ld, entry, cursor);
}
char *wzr_ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor)
{
    return ldap_next_attribute(ld, entry, cursor);
}
struct berval **wzr_ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr)
{
    return ldap_get_values_len(ld, entry, attr);
}
void wzr_ldap_value_free_len(struct berval **values) { ldap_value_free_len(values); }

int wzr_ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs) { return ldap_add_s(ld, dn, attrs); }
int wzr_ldap_delete_s(LDAP *ld, const char *dn) { return ldap_delete_s(ld, dn); }
int wzr_ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods)
{
    return ldap_modify_s(ld, dn, mods);
}
int wzr_ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn)
{
    return ldap_modrdn_s(ld, dn, newrdn, deleteoldrdn);
}

// The file this library was loaded from, canonicalised; malloc'd for the caller's free().
char *wzrldap_loaded_from(void)
{
    Dl_info info;
    if (dladdr(reinterpret_cast<void *>(&wzrldap_loaded_from), &info) == 0 ||
        info.dli_fname == nullptr)
        return nullptr;
    char path[4096];
    char canonical[4096];
    strncpy(path, info.dli_fname, sizeof path - 1);
    path[sizeof path - 1] = '\0';
    // Should canonicalising fail, the loader's own name is still the best answer there is.
    if (realpath(path, canonical) == nullptr)
        memcpy(canonical, path, sizeof canonical);
    size_t len = strlen(canonical);
    auto *result = static_cast<char *>(malloc(len + 1));
    if (result == nullptr)
        return nullptr;
    memcpy(result, canonical, len + 1);
    return result;
}

} // extern "C"
