// Per-handle options and the process-wide default handle.
#ifndef WZR_LIBLDAP_LDAP_OPTIONS_H
#define WZR_LIBLDAP_LDAP_OPTIONS_H

#include "ldap_int.h"

// Set: int-valued options take their value in the pointer argument of the direct form (the
// public form dereferences for version-3 handles). Get: `out` points to the value's type.
int ldap_set_option(LDAP *ld, int option, const void *value);
int ldap_get_option(LDAP *ld, int option, void *out);
int ldap_set_option_direct(LDAP *ld, int option, const void *value);
int ldap_get_option_direct(LDAP *ld, int option, void *out);
LDAP *ld_set_global_default(); // created once, never freed; nullptr on failure

// Option 20: what this library implements. The caller sets ldapai_info_version; a different
// version is answered with the supported one and 89. Release with ldap_api_info_free.
inline constexpr int LDAP_API_INFO_VERSION = 1;
inline constexpr int LDAP_API_VERSION = 3001;
inline constexpr int LDAP_VENDOR_VERSION = 90000; // 9.0.0
inline constexpr const char *LDAP_VENDOR_NAME = "wzrldap";
struct LDAPAPIInfo {
    int ldapai_info_version;     // in and out
    int ldapai_api_version;      // out
    int ldapai_protocol_version; // out: highest protocol version spoken
    char **ldapai_extensions;    // out: null-terminated feature names, the caller's
    char *ldapai_vendor_name;    // out: the caller's
    int ldapai_vendor_version;   // out
};
void ldap_api_info_free(LDAPAPIInfo *info); // frees the two owned members, not the record

// Option 21: the version of one named feature; an unknown name gives 89.
inline constexpr int LDAP_FEATURE_INFO_VERSION = 1;
inline constexpr int LDAP_API_FEATURE_VIRTUAL_LIST_VIEW = 1;
inline constexpr const char *LDAP_FEATURE_VIRTUAL_LIST_VIEW = "VIRTUAL_LIST_VIEW";
struct LDAPAPIFeatureInfo {
    int ldapaif_info_version; // in and out
    const char *ldapaif_name; // in
    int ldapaif_version;      // out
};

#endif
