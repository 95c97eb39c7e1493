// Loading the secure-socket toolkit at run time: its four files, the table of its 18 entry
// points, the secure-connection settings read once from the environment, and the texts of
// the toolkit's return codes.
#ifndef WZR_LIBLDAP_LDAP_LOAD_H
#define WZR_LIBLDAP_LDAP_LOAD_H

#include <cstddef>

#include "../wzrkit/wzrkit.h"

// The entry points, in resolution order. Written only under the secure-environment lock while
// the toolkit is being loaded; read without it afterwards (they never change once loaded).
struct WzrkitFunctions {
    decltype(&wzr_environment_open) environment_open;
    decltype(&wzr_environment_close) environment_close;
    decltype(&wzr_environment_init) environment_init;
    decltype(&wzr_secure_soc_open) secure_soc_open;
    decltype(&wzr_secure_soc_init) secure_soc_init;
    decltype(&wzr_secure_soc_close) secure_soc_close;
    decltype(&wzr_secure_soc_read) secure_soc_read;
    decltype(&wzr_secure_soc_write) secure_soc_write;
    decltype(&wzr_attribute_set_buffer) attribute_set_buffer;
    decltype(&wzr_attribute_get_buffer) attribute_get_buffer;
    decltype(&wzr_attribute_set_callback) attribute_set_callback;
    decltype(&wzr_attribute_get_cert_info) attribute_get_cert_info;
    decltype(&wzr_attribute_set_numeric_value) attribute_set_numeric_value;
    decltype(&wzr_attribute_get_numeric_value) attribute_get_numeric_value;
    decltype(&wzr_attribute_set_enum) attribute_set_enum;
    decltype(&wzr_attribute_get_enum) attribute_get_enum;
    decltype(&wzr_strerror) strerror;
    decltype(&wzr_get_cert_by_label) get_cert_by_label;
};
extern WzrkitFunctions wzr_fn;

// The settings read once per process (secure-environment lock).
struct SslControls {
    int loaded;          // the variables have been read
    int major;           // toolkit major version, 8 unless WZRKIT_CLIENT_VERSION says
    char *protocols;     // enabled protocol names, comma-separated
    char *v3_ciphers;    // SSL V3 / TLS 1.0 suites, two hex digits each
    char *v3_ciphers_copy;
    char *tls11_ciphers;
    char *tls12_ciphers;
    int fips;            // -1 not set, 0 off, 1 on
};
extern SslControls ssl_controls;

// Each returns 0 or 118 (traced); the caller holds the secure-environment lock.
[[nodiscard]] int loadSkitShared();
bool ldap_skit_loaded();
// 0, 89 for a null argument, 90 without memory, 1 when formatting fails.
[[nodiscard]] int getWZRLibrary(char **ssl, char **sys, char **cms, char **iccs);
int clearLoadSkit(void **ssl_slot, const char *symbol);

// 0, or 1 for an invalid protocol list or no memory; reads the variables once.
[[nodiscard]] int loadClientControlEnvVars();
// How many names of `list` are recognised for the toolkit `major` (0: refuse the list).
int ldap_ssl_isValidProtocolList(const char *list, int major);
// Whether `name` occurs in the comma-separated `list` as a whole entry.
bool ldap_ssl_isValue(const char *list, const char *name);
// Secure settings treat an empty value as unset. A short setting is read into `buf` without
// allocating (so that no failure can turn a refusal into an acceptance): its length, or 0
// when unset. A list is an allocated copy in *value (nullptr when unset): 0, or 90.
int ldap_ssl_env_value(const char *name, char *buf, size_t size);
[[nodiscard]] int ldap_ssl_env_copy(const char *name, char **value);

// The text of a toolkit return code ("Wzrkit not loaded" while the toolkit is absent).
const char *ldap_ssl_strerror(int code);

#endif
