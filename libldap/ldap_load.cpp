// Loading the secure-socket toolkit: its four files by major version and install mode, the 18
// entry points resolved from its ssl file, the secure settings read once from the environment,
// and the texts of the toolkit's return codes.
#include "ldap_load.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <initializer_list>
#include <strings.h>

#include "../trace/ldap_env.h"
#include "ldap_int.h"

WzrkitFunctions wzr_fn = {};
SslControls ssl_controls = {0, WZRKIT_MAJOR, nullptr, nullptr, nullptr, nullptr, nullptr, -1};

namespace {

constexpr size_t LIB_NAME_MAX = 1024;
constexpr const char *SYSTEM_DIR = "/usr/lib64/";
constexpr const char *DEFAULT_PROTOCOLS = "SSLV3,TLS10,TLS11,TLS12";
constexpr const char *DEFAULT_V3_CIPHERS = "352F0A";
constexpr const char *DEFAULT_TLS11_CIPHERS =
    "TLS_RSA_WITH_3DES_EDE_CBC_SHA,TLS_RSA_WITH_AES_128_CBC_SHA,TLS_RSA_WITH_AES_256_CBC_SHA";
constexpr const char *DEFAULT_TLS12_CIPHERS =
    "TLS_RSA_WITH_AES_128_GCM_SHA256,TLS_RSA_WITH_AES_256_GCM_SHA384,"
    "TLS_RSA_WITH_AES_128_CBC_SHA256,TLS_RSA_WITH_AES_256_CBC_SHA256,"
    "TLS_RSA_WITH_AES_128_CBC_SHA,TLS_RSA_WITH_AES_256_CBC_SHA,TLS_RSA_WITH_3DES_EDE_CBC_SHA,"
    "TLS_ECDHE_ECDSA_WITH_AES_128_CBC_SHA,TLS_ECDHE_ECDSA_WITH_AES_256_CBC_SHA,"
    "TLS_ECDHE_ECDSA_WITH_AES_128_CBC_SHA256,TLS_ECDHE_ECDSA_WITH_AES_256_CBC_SHA384,"
    "TLS_ECDHE_RSA_WITH_AES_128_CBC_SHA256,TLS_ECDHE_RSA_WITH_AES_256_CBC_SHA384,"
    "TLS_ECDHE_ECDSA_WITH_AES_128_GCM_SHA256,TLS_ECDHE_ECDSA_WITH_AES_256_GCM_SHA384,"
    "TLS_ECDHE_RSA_WITH_AES_128_GCM_SHA256,TLS_ECDHE_RSA_WITH_AES_256_GCM_SHA384";

// The four files, in the order they are loaded. The ssl one doubles as the loaded flag.
enum { LIB_SYS, LIB_CMS, LIB_SSL, LIB_ICCS, LIB_COUNT };
void *skit_lib[LIB_COUNT] = {};

struct Entry {
    const char *name;
    void **slot;
};

template <class F> void **slot(F *f) { return reinterpret_cast<void **>(f); }

const Entry ENTRIES[] = {
    {"wzr_environment_open", slot(&wzr_fn.environment_open)},
    {"wzr_environment_close", slot(&wzr_fn.environment_close)},
    {"wzr_environment_init", slot(&wzr_fn.environment_init)},
    {"wzr_secure_soc_open", slot(&wzr_fn.secure_soc_open)},
    {"wzr_secure_soc_init", slot(&wzr_fn.secure_soc_init)},
    {"wzr_secure_soc_close", slot(&wzr_fn.secure_soc_close)},
    {"wzr_secure_soc_read", slot(&wzr_fn.secure_soc_read)},
    {"wzr_secure_soc_write", slot(&wzr_fn.secure_soc_write)},
    {"wzr_attribute_set_buffer", slot(&wzr_fn.attribute_set_buffer)},
    {"wzr_attribute_get_buffer", slot(&wzr_fn.attribute_get_buffer)},
    {"wzr_attribute_set_callback", slot(&wzr_fn.attribute_set_callback)},
    {"wzr_attribute_get_cert_info", slot(&wzr_fn.attribute_get_cert_info)},
    {"wzr_attribute_set_numeric_value", slot(&wzr_fn.attribute_set_numeric_value)},
    {"wzr_attribute_get_numeric_value", slot(&wzr_fn.attribute_get_numeric_value)},
    {"wzr_attribute_set_enum", slot(&wzr_fn.attribute_set_enum)},
    {"wzr_attribute_get_enum", slot(&wzr_fn.attribute_get_enum)},
    {"wzr_strerror", slot(&wzr_fn.strerror)},
    {"wzr_get_cert_by_label", slot(&wzr_fn.get_cert_by_label)},
};

constexpr size_t SETTING_MAX = 32; // longer values of short settings are cut and so invalid

bool shipped_icc_refused()
{
    char value[SETTING_MAX];
    return ldap_ssl_env_value("WZRKIT_SHIPPED_ICC", value, sizeof value) > 0 &&
           strcasecmp(value, "TRUE") == 0;
}

// Loads one file (with the system directory unless the local install mode is set).
void *load_one(const char *name, bool local)
{
    char path[LIB_NAME_MAX + 16];
    snprintf(path, sizeof path, "%s%s", local ? "" : SYSTEM_DIR, name);
    void *h = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    if (h == nullptr) {
        const char *why = dlerror();
        LDAP_TRACE(LDAP_TRC_ERROR, "dlopen(%s,%d) failed at %d in %s with error: %s\n", path,
                   RTLD_NOW | RTLD_GLOBAL, __LINE__, "libldap/ldap_load", why != nullptr ? why : "");
    }
    return h;
}

int resolve_entries()
{
    for (const Entry &e : ENTRIES) {
        void *f = dlsym(skit_lib[LIB_SSL], e.name);
        if (f == nullptr)
            return clearLoadSkit(&skit_lib[LIB_SSL], e.name);
        *e.slot = f;
    }
    wzr_skit.secure_soc_read = wzr_fn.secure_soc_read;
    wzr_skit.secure_soc_write = wzr_fn.secure_soc_write;
    wzr_skit.strerror = wzr_fn.strerror;
    return 0;
}

// The setting's copy, else a copy of the fallback; nullptr without memory for either.
char *strdup_or(const char *env_name, const char *fallback)
{
    char *value = nullptr;
    if (ldap_ssl_env_copy(env_name, &value) != 0)
        return nullptr;
    return value != nullptr ? value : lber_strdup(fallback);
}

char *protocol_setting()
{
    char *value = nullptr;
    if (ldap_ssl_env_copy("OPX_SSL_CLIENT_SECURITY_PROTOCOL", &value) != 0)
        return nullptr;
    return value != nullptr ? value : strdup_or("LDAP_OPT_SECURITY_PROTOCOL", DEFAULT_PROTOCOLS);
}

void read_major()
{
    char value[SETTING_MAX];
    if (ldap_ssl_env_value("WZRKIT_CLIENT_VERSION", value, sizeof value) == 0) {
        LDAP_TRACE(LDAP_TRC_SSL,
                   "loadClientControlEnvVars: WZRKIT_CLIENT_VERSION is not set assuming Wzrkit 8\n");
        ssl_controls.major = WZRKIT_MAJOR;
        return;
    }
    ssl_controls.major = atoi(value);
}

void read_fips()
{
    char value[SETTING_MAX];
    if (ldap_ssl_env_value("LDAP_OPT_SSL_FIPS_PROCCESSING_MODE", value, sizeof value) > 0)
        ssl_controls.fips = strcasecmp(value, "ON") == 0 ? 1 : 0;
}

// One name of the protocol list: recognised as a whole entry, or only inside a longer word.
int count_name(const char *list, const char *name, const char *traced_as)
{
    if (ldap_ssl_isValue(list, name))
        return 1;
    if (strstr(list, name) != nullptr)
        LDAP_TRACE(LDAP_TRC_SSL, "ldap_ssl_isValidProtocolList %s partially exists in [%s]\n",
                   traced_as, list);
    return 0;
}

struct CodeText {
    int code;
    const char *text;
};
const CodeText SKIT_TEXTS[] = {
    {-1, "The LDAP client is not SSL/TLS enabled."}, {0, "Success"}, {1, "Invalid handle"},
    {2, "API not available"}, {3, "Internal error"}, {4, "Insufficient storage"},
    {5, "Invalid state"}, {6, "Key label not found"}, {7, "Certificate not available"},
    {8, "Error validating certificate"}, {9, "Error encrypting/decrypting"},
    {10, "ASN encoding error"}, {11, "LDAP error"}, {12, "Unknown error"},
    {101, "Open cipher error"}, {102, "Keyfile I/O error"}, {103, "Keyfile invalid format"},
    {104, "Keyfile duplicate key"}, {105, "Keyfile duplicate label"},
    {106, "Bad format or invalid password"}, {107, "Keyfile certificate expired"},
    {108, "Error loading LDAP library"}, {109, "Pending close error"},
    {201, "No password nor stash file"}, {202, "Keyring file open error"},
    {203, "RSA temporary key pair"}, {204, "LDAP no such object"},
    {205, "LDAP invalid credentials"}, {206, "Bad index"}, {301, "Close failed"},
    {401, "Bad date"}, {402, "No ciphers"}, {403, "No certificate"}, {404, "Bad certificate"},
    {405, "Unsupported certificate type"}, {406, "I/O error"}, {407, "Bad keyfile label"},
    {408, "Bad keyfile password"}, {409, "Bad key length for export"}, {410, "Bad message"},
    {411, "Bad MAC"}, {412, "Unsupported"}, {413, "Bad certificate signature"},
    {414, "Bad certificate"}, {415, "Bad peer"}, {416, "Permission denied"},
    {417, "Self-signed error"}, {418, "No read function"}, {419, "No write function"},
    {420, "Socket closed"}, {421, "Bad V2 cipher"}, {422, "Bad V3 cipher"},
    {423, "Bad security type"}, {424, "Bad security type combination"},
    {425, "Handle creation failed"}, {426, "Initialization failed"},
    {427, "LDAP not available"}, {428, "No private key"}, {429, "PKCS11 library not loaded"},
    {430, "PKCS11 token label mismatch"}, {431, "PKCS11 token not present"},
    {432, "PKCS11 token bad password"}, {433, "Invalid V2 header"},
    {501, "Invalid buffer size"}, {502, "Would block"}, {601, "Not SSL V3"},
    {602, "Miscellaneous invalid ID"}, {701, "Invalid attribute"}, {702, "Invalid length"},
    {703, "Invalid enumeration"}, {704, "Invalid session ID (SID) cache"},
    {705, "Invalid numeric value"}, {706, "Invalid setting"},
};

} // namespace

int ldap_ssl_env_value(const char *name, char *buf, size_t size)
{
    int len = ldap_getenv_buf(name, buf, size);
    return len > 0 ? len : 0;
}

int ldap_ssl_env_copy(const char *name, char **value)
{
    *value = nullptr;
    if (ldap_chkenv(name) <= 1) // unset or empty
        return 0;
    *value = ldap_getenv(name);
    return *value != nullptr ? 0 : LDAP_NO_MEMORY;
}

bool ldap_skit_loaded() { return __atomic_load_n(&skit_lib[LIB_SSL], __ATOMIC_ACQUIRE) != nullptr; }

int getWZRLibrary(char **ssl, char **sys, char **cms, char **iccs)
{
    if (ssl == nullptr || sys == nullptr || cms == nullptr || iccs == nullptr)
        return LDAP_PARAM_ERROR;
    char **const out[] = {ssl, sys, cms, iccs};
    const char *const suffix[] = {"ssl_64.so", "sys_64.so", "cms_64.so", "iccs_64.so"};
    char version[16];
    snprintf(version, sizeof version, "%d", ssl_controls.major);
    for (int i = 0; i < 4; ++i) {
        *out[i] = static_cast<char *>(lber_malloc(LIB_NAME_MAX));
        if (*out[i] == nullptr) {
            for (int j = 0; j < i; ++j) {
                lber_free(*out[j]);
                *out[j] = nullptr;
            }
            return LDAP_NO_MEMORY;
        }
        int n = snprintf(*out[i], LIB_NAME_MAX, "%s%s%s", "libwzr", version, suffix[i]);
        if (n < 0 || static_cast<size_t>(n) >= LIB_NAME_MAX)
            return 1;
    }
    return 0;
}

int clearLoadSkit(void **ssl_slot, const char *symbol)
{
    dlclose(*ssl_slot);
    __atomic_store_n(ssl_slot, nullptr, __ATOMIC_RELEASE);
    LDAP_TRACE(LDAP_TRC_ERROR, "clearLoadSkit: Failed to find symbol %s\n", symbol);
    return LDAP_SSL_NOT_AVAILABLE;
}

int loadSkitShared()
{
    if (shipped_icc_refused()) {
        LDAP_TRACE(LDAP_TRC_ERROR, "loadSkitShared: Error Check the supported version of WZRKIT "
                                   "in the install guide.\n");
        return LDAP_SSL_NOT_AVAILABLE;
    }
    if (ldap_skit_loaded()) {
        LDAP_TRACE(LDAP_TRC_SSL, "loadSkitShared: Wzrkit library has already loaded\n");
        return 0;
    }
    char *name[LIB_COUNT] = {};
    if (getWZRLibrary(&name[LIB_SSL], &name[LIB_SYS], &name[LIB_CMS], &name[LIB_ICCS]) != 0) {
        for (char *n : name)
            lber_free(n);
        LDAP_TRACE(LDAP_TRC_ERROR, "loadSkitShared: Missing Wzrkit library name\n");
        return LDAP_SSL_NOT_AVAILABLE;
    }
    bool local = ldap_chkenv("WZRKIT_LOCAL_INSTALL_MODE") != 0;
    bool all = true;
    void *loaded[LIB_COUNT] = {};
    for (int i = 0; i < LIB_COUNT; ++i) {
        loaded[i] = skit_lib[i] != nullptr ? skit_lib[i] : load_one(name[i], local);
        all = all && loaded[i] != nullptr;
    }
    for (int i = 0; i < LIB_COUNT; ++i)
        if (i != LIB_SSL)
            skit_lib[i] = loaded[i];
    if (!all)
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - loadSkitShared: Failed to load libraries %s %s %s and "
                                   "%s\n",
                   name[LIB_SSL], name[LIB_SYS], name[LIB_CMS], name[LIB_ICCS]);
    for (char *n : name)
        lber_free(n);
    if (!all) {
        if (loaded[LIB_SSL] != nullptr)
            dlclose(loaded[LIB_SSL]);
        return LDAP_SSL_NOT_AVAILABLE;
    }
    skit_lib[LIB_SSL] = loaded[LIB_SSL]; // not yet published as loaded: resolve first
    if (int rc = resolve_entries(); rc != 0)
        return rc;
    __atomic_store_n(&skit_lib[LIB_SSL], loaded[LIB_SSL], __ATOMIC_RELEASE);
    LDAP_TRACE(LDAP_TRC_SSL,
               "loadSkitShared: Successfully resolved the required Wzrkit function addresses\n");
    return 0;
}

bool ldap_ssl_isValue(const char *list, const char *name)
{
    if (list == nullptr || name == nullptr)
        return false;
    size_t n = strlen(name);
    for (const char *p = strstr(list, name); p != nullptr; p = strstr(p + 1, name)) {
        bool starts = p == list || p[-1] == ',' || p[-1] == ' ';
        bool ends = p[n] == '\0' || p[n] == ',' || p[n] == ' ';
        if (starts && ends)
            return true;
    }
    return false;
}

int ldap_ssl_isValidProtocolList(const char *list, int major)
{
    if (list == nullptr)
        return 0;
    int recognised = count_name(list, "TLS10", "TLS10") + count_name(list, "SSLV3", "SSLV3");
    if (major > 7) // the trace deliberately names TLS10 for these two as well
        recognised += count_name(list, "TLS11", "TLS10") + count_name(list, "TLS12", "TLS10");
    int candidates = 0;
    for (const char *p = list; *p != '\0'; ++p)
        candidates += *p == 'T';
    for (const char *p = strstr(list, "SSL"); p != nullptr; p = strstr(p + 1, "SSL"))
        ++candidates;
    if (recognised < candidates)
        LDAP_TRACE(LDAP_TRC_ERROR, "ERROR invalid protocols listed");
    return recognised;
}

int loadClientControlEnvVars()
{
    if (ssl_controls.loaded)
        return 0;
    read_major();
    char *protocols = protocol_setting();
    char *v3 = strdup_or("LDAP_OPT_SSL_CIPHER", DEFAULT_V3_CIPHERS);
    char *v3_copy = v3 != nullptr ? lber_strdup(v3) : nullptr;
    char *tls11 = strdup_or("LDAP_OPT_TLS11_CIPHER", DEFAULT_TLS11_CIPHERS);
    char *tls12 = strdup_or("LDAP_OPT_SSL_CIPHER_EX", DEFAULT_TLS12_CIPHERS);
    int rc = 0;
    if (protocols == nullptr || v3_copy == nullptr || tls11 == nullptr || tls12 == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "loadClientControlEnvVars: strdup failed\n");
        rc = 1;
    } else if (ldap_ssl_isValidProtocolList(protocols, ssl_controls.major) == 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "loadClientControlEnvVars: invalid protocols specified: %s\n",
                   protocols);
        rc = 1;
    }
    if (rc != 0) {
        for (char *p : {protocols, v3, v3_copy, tls11, tls12})
            lber_free(p);
        return rc;
    }
    ssl_controls = {1, ssl_controls.major, protocols, v3, v3_copy, tls11, tls12, ssl_controls.fips};
    read_fips();
    return 0;
}

const char *ldap_ssl_strerror(int code)
{
    if (!ldap_skit_loaded())
        return "Wzrkit not loaded";
    for (const CodeText &t : SKIT_TEXTS)
        if (t.code == code)
            return t.text;
    return "Unknown SSL error";
}
