// The process-wide toolkit environment: its set-up by the public initialisation calls (key
// database, password or stash file, FIPS, protocols and suites, the library's I/O callbacks),
// the references secure connections hold on it, and ldap_ssl_start.
#include "ldap_ssl.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <strings.h>
#include <unistd.h>

#include "../trace/ldap_env.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_load.h"
#include "ldap_lock.h"

namespace {

constexpr const char *MODULE = "libldap/ldap_ssl";
constexpr const char *DEFAULT_KEYRING = "ldapkey.kdb";
constexpr int REASON_CBC_PADDING = 702;

// The secure-environment lock, except suiteb_mode (atomic: its setter is public).
WzrEnvRef *current_ref = nullptr;
int successful_inits = 0;
int suiteb_mode = 0;
bool suiteb_read = false;

void freeWzrEnvRef(WzrEnvRef *ref)
{
    if (ref == nullptr)
        return;
    if (ref->env != nullptr && wzr_fn.environment_close != nullptr) {
        int code = wzr_fn.environment_close(&ref->env);
        if (code != 0)
            LDAP_TRACE(LDAP_TRC_ERROR, "freeWzrEnvRef: wzr_environment_close() rc=%d %s\n", code,
                       ldap_ssl_strerror(code));
    }
    lber_free(ref);
}

// Makes `ref` current; a former current one nobody holds any more goes now.
void publish(WzrEnvRef *ref)
{
    if (current_ref != nullptr && current_ref->count == 0) {
        LDAP_TRACE(LDAP_TRC_SSL, "createWzrEnvRef: freeing unused environment %p\n",
                   static_cast<void *>(current_ref));
        freeWzrEnvRef(current_ref);
    }
    current_ref = ref;
}

int fail_with(int *reason, int code, int rc)
{
    if (reason != nullptr)
        *reason = code;
    return rc;
}

// One toolkit call of the set-up: a failure is traced with its text and ends the set-up.
bool set_ok(int code, const char *what, int *reason)
{
    if (code == 0)
        return true;
    LDAP_TRACE(LDAP_TRC_ERROR, "prepare_wzr_init_data: %s rc=%d %s\n", what, code,
               ldap_ssl_strerror(code));
    (void)fail_with(reason, code, 0);
    return false;
}

bool set_string(void *env, int attr, const char *value, const char *what, int *reason)
{
    return set_ok(wzr_fn.attribute_set_buffer(env, attr, value, 0), what, reason);
}

// The stash file of a key database: its name cut at the last "." (a "." in a directory part
// counts too, as it always has) with ".sth" appended.
char *stash_name(const char *keyring)
{
    const char *dot = strrchr(keyring, '.');
    size_t stem = dot != nullptr ? static_cast<size_t>(dot - keyring) : strlen(keyring);
    auto *name = static_cast<char *>(lber_malloc(stem + 5));
    if (name != nullptr) {
        memcpy(name, keyring, stem);
        memcpy(name + stem, ".sth", 5);
    }
    return name;
}

// The key database: the caller's, else one set already, else the default when it exists.
// Without any the toolkit trusts the system's certificate store.
bool set_keyring(void *env, const char *keyring, const char **chosen, int *reason)
{
    if (keyring == nullptr || keyring[0] == '\0') {
        const char *current = nullptr;
        int len = 0;
        if (wzr_fn.attribute_get_buffer(env, WZR_KEYRING_FILE, &current, &len) == 0 && len > 0) {
            *chosen = current;
            return true;
        }
        if (access(DEFAULT_KEYRING, R_OK) != 0) {
            LDAP_TRACE(LDAP_TRC_SSL, "prepare_wzr_init_data: no key database, trusting the "
                                     "system's certificate store\n");
            return true;
        }
        LDAP_TRACE(LDAP_TRC_SSL,
                   "prepare_wzr_init_data: set key database filename to default=[%s]\n",
                   DEFAULT_KEYRING);
        keyring = DEFAULT_KEYRING;
    }
    *chosen = keyring;
    return set_string(env, WZR_KEYRING_FILE, keyring, "key database", reason);
}

// 0, 90, or 113 when the toolkit refuses the value.
int set_password_or_stash(void *env, const char *keyring, const char *pw, int *reason)
{
    bool ok = true;
    if (pw != nullptr && pw[0] != '\0') {
        ok = set_string(env, WZR_KEYRING_PW, pw, "password", reason);
    } else if (keyring != nullptr) {
        char *stash = stash_name(keyring);
        if (stash == nullptr)
            return LDAP_NO_MEMORY;
        ok = set_string(env, WZR_KEYRING_STASH_FILE, stash, "stash file", reason);
        lber_free(stash);
    }
    return ok ? 0 : LDAP_SSL_INITIALIZE_FAILED;
}

const wzr_io_callbacks CLIENT_CALLBACKS = {client_ssl_read, client_ssl_write};

// What the PKCS#11 forms of the initialisation add: the token and how it is used.
struct Pkcs11Data {
    const char *library, *token, *token_pw;
    int key_storage, accel_mode;
};

bool set_pkcs11(void *env, const Pkcs11Data &p, int *reason)
{
    return set_string(env, WZR_PKCS11_LIBRARY, p.library, "PKCS#11 library", reason) &&
           set_string(env, WZR_PKCS11_TOKEN_LABEL, p.token, "PKCS#11 token label", reason) &&
           set_string(env, WZR_PKCS11_TOKEN_PW, p.token_pw, "PKCS#11 token password", reason) &&
           set_ok(wzr_fn.attribute_set_numeric_value(env, WZR_PKCS11_KEY_STORAGE, p.key_storage),
                  "PKCS#11 key storage", reason) &&
           set_ok(wzr_fn.attribute_set_numeric_value(env, WZR_PKCS11_ACCEL_MODE, p.accel_mode),
                  "PKCS#11 accelerator mode", reason);
}

int prepare_wzr_init_data(void *env, const char *keyring, const char *pw, int *reason,
                          const Pkcs11Data *p11)
{
    const char *chosen = nullptr;
    int fips = ssl_controls.fips == 1 ? WZR_FIPS_MODE_PROCESSING_ON : WZR_FIPS_MODE_PROCESSING_OFF;
    if (!set_keyring(env, keyring, &chosen, reason))
        return LDAP_SSL_INITIALIZE_FAILED;
    if (int rc = set_password_or_stash(env, chosen, pw, reason); rc != 0)
        return rc;
    if (!set_ok(wzr_fn.attribute_set_enum(env, WZR_FIPS_MODE, fips), "FIPS mode", reason) ||
        !set_ok(wzr_fn.attribute_set_callback(env, WZR_IO_CALLBACK, &CLIENT_CALLBACKS),
                "I/O callbacks", reason))
        return LDAP_SSL_INITIALIZE_FAILED;
    LDAP_TRACE(LDAP_TRC_SSL, "prepare_wzr_init_data(): disabling SSLV2 Hello\n");
    if (!set_ok(wzr_fn.attribute_set_enum(env, WZR_SSLV2, WZR_SSLV2_OFF), "SSLV2 off", reason) ||
        (p11 != nullptr && !set_pkcs11(env, *p11, reason)))
        return LDAP_SSL_INITIALIZE_FAILED;
    return 0;
}

// OpenSSL always checks CBC padding strictly; the settings can only ask for that.
int check_cbc_padding()
{
    for (const char *name : {"WZR_STRICTCHECK_CBCPADBYTES", "WZR_STRICTCHECK_CBCPADBYTES_SSL"}) {
        char value[16];
        bool off = ldap_ssl_env_value(name, value, sizeof value) > 0 &&
                   strcmp(value, "WZR_FALSE") == 0;
        if (off) {
            LDAP_TRACE(LDAP_TRC_ERROR, "ldap_ssl_client_init_setup: %s=WZR_FALSE is not supported"
                                       " by this toolkit\n", name);
            return -1;
        }
    }
    return 0;
}

int setClientCipherSpecs(void *target)
{
    const struct {
        int attr;
        const char *list;
    } lists[] = {{WZR_V3_CIPHER_SPECS, ssl_controls.v3_ciphers},
                 {WZR_TLS11_CIPHER_SPECS, ssl_controls.tls11_ciphers},
                 {WZR_TLS12_CIPHER_SPECS, ssl_controls.tls12_ciphers}};
    for (const auto &s : lists) {
        if (s.list == nullptr)
            continue;
        int code = wzr_fn.attribute_set_buffer(target, s.attr, s.list, 0);
        if (code != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR, "setClientCipherSpecs: cipher list [%s] rc=%d %s\n",
                       s.list, code, ldap_ssl_strerror(code));
            return code;
        }
    }
    return 0;
}

void read_suiteb_once()
{
    if (suiteb_read)
        return;
    suiteb_read = true;
    char value[16];
    if (ldap_ssl_env_value("LDAP_OPT_SUITEB_MODE", value, sizeof value) > 0)
        (void)ldap_ssl_set_suiteb_mode(atoi(value));
}

// The body of both initialisation calls; the caller holds the secure-environment lock.
int init_setup_locked(const char *keyring, const char *pw, int *reason, bool client,
                      const Pkcs11Data *p11)
{
    const char *name = client ? "ldap_ssl_client_init_setup" : "ldap_ssl_environment_init_setup";
    if (loadClientControlEnvVars() != 0)
        return client ? LDAP_SSL_INITIALIZE_FAILED : -1;
    if (client && successful_inits > 0) {
        LDAP_TRACE(LDAP_TRC_SSL, "ldap_ssl_client_init_setup: Multiple calls have been made.  "
                                 "Attempt %d.\n", successful_inits + 1);
        return LDAP_SSL_ALREADY_INITIALIZED;
    }
    int rc = loadSkitShared();
    if (rc != 0)
        return rc;
    auto *ref = static_cast<WzrEnvRef *>(lber_calloc(1, sizeof(WzrEnvRef)));
    if (ref == nullptr)
        return LDAP_NO_MEMORY;
    int code = wzr_fn.environment_open(&ref->env);
    if (code == 0 && (rc = prepare_wzr_init_data(ref->env, keyring, pw, reason, p11)) == 0) {
        if (client && check_cbc_padding() != 0)
            rc = fail_with(reason, REASON_CBC_PADDING, LDAP_SSL_INITIALIZE_FAILED);
        else if ((code = setClientProtocols(ref->env, true, 2, nullptr)) == 0)
            code = wzr_fn.environment_init(ref->env);
    }
    if (code != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - %s: wzr_environment_init() returns rc=%d %s\n", name,
                   code, ldap_ssl_strerror(code));
        rc = fail_with(reason, code, LDAP_SSL_INITIALIZE_FAILED);
    }
    if (rc != 0) {
        freeWzrEnvRef(ref);
        return rc;
    }
    publish(ref);
    ++successful_inits;
    return 0;
}

int init_setup(const char *keyring, const char *pw, int *reason, bool client,
               const Pkcs11Data *p11 = nullptr)
{
    ldap_debug_init();
    if (reason != nullptr)
        *reason = 0;
    LDAP_LOCK(guard, ldap_ssl_mutex(), MODULE);
    if (!guard.locked())
        return guard.rc();
    return init_setup_locked(keyring, pw, reason, client, p11);
}

// The PKCS#11 forms: their arguments checked, then the set-up with the token's data.
int pkcs11_init(const char *name, const char *keyring, const char *pw, int *reason,
                const Pkcs11Data &p11, bool client)
{
    ldap_debug_init();
    if (reason != nullptr)
        *reason = 0;
    if (p11.library == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: PKCS#11 Library path is NULL\n", name);
        return LDAP_PARAM_ERROR;
    }
    if (p11.token == nullptr || p11.token_pw == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: PKCS#11 Token Label is NULL\n", name);
        return LDAP_PARAM_ERROR;
    }
    if (p11.accel_mode < 0 || p11.accel_mode > 7) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: Accelerator mode (0-7) not set to appropriate value: %d\n",
                   name, p11.accel_mode);
        return LDAP_PARAM_ERROR;
    }
    if (p11.key_storage != 0 && p11.key_storage != 1) {
        LDAP_TRACE(LDAP_TRC_ERROR, "%s: PKCS#11 Keystorage must be [0/1]\n", name);
        return LDAP_PARAM_ERROR;
    }
    if (p11.key_storage == 0 && p11.accel_mode == 0) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "prepare_wzr_init_data: Need to set PKCS#11 Keystorage or Acceleration mode\n");
        return LDAP_PARAM_ERROR;
    }
    return init_setup(keyring, pw, reason, client, &p11);
}

} // namespace

int setClientProtocols(void *target, bool env_level, int port_kind, const char *protocols)
{
    LDAP_TRACE(LDAP_TRC_SSL, "setClientProtocols: level %s, port %s, protocols [%s]\n",
               env_level ? "environment" : "socket",
               port_kind == 1 ? "TLS nonSSL port" : "SSL/TLS over SSL port",
               protocols != nullptr ? protocols : "(process list)");
    if (env_level && protocols == nullptr)
        protocols = ssl_controls.protocols != nullptr ? ssl_controls.protocols
                    : ssl_controls.major == 7 ? "SSLV3,TLS10"
                                              : "SSLV3,TLS10,TLS11,TLS12";
    if (protocols == nullptr)
        return 0;
    if (env_level) {
        if (int code = setClientCipherSpecs(target); code != 0)
            return code;
    }
    bool sslv3 = ssl_controls.fips != 1 && port_kind != 1 && ldap_ssl_isValue(protocols, "SSLV3");
    struct Switch {
        int attr, value;
    } switches[4] = {{WZR_SSLV3, sslv3 ? WZR_SSLV3_ON : WZR_SSLV3_OFF},
                     {WZR_TLSV10, ldap_ssl_isValue(protocols, "TLS10") ? WZR_TLSV10_ON
                                                                       : WZR_TLSV10_OFF},
                     {WZR_TLSV11, ldap_ssl_isValue(protocols, "TLS11") ? 1 : 0},
                     {WZR_TLSV12, ldap_ssl_isValue(protocols, "TLS12") ? 1 : 0}};
    int count = ssl_controls.major == 7 ? 2 : 4;
    if (count == 4)
        read_suiteb_once();
    for (int i = 0; i < count; ++i) {
        int code = wzr_fn.attribute_set_enum(target, switches[i].attr, switches[i].value);
        if (code != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR, "setClientProtocols: attribute %d value %d rc=%d %s\n",
                       switches[i].attr, switches[i].value, code, ldap_ssl_strerror(code));
            return code;
        }
    }
    return 0;
}

int ldap_ssl_client_init(const char *keyring, const char *keyring_pw, int /*ssl_timeout*/,
                         int *reason)
{
    return init_setup(keyring, keyring_pw, reason, true);
}

int ldap_ssl_environment_init(const char *keyring, const char *keyring_pw, int /*ssl_timeout*/,
                              int *reason)
{
    return init_setup(keyring, keyring_pw, reason, false);
}

int ldap_ssl_pkcs11_client_init(const char *keyring, const char *keyring_pw, int /*ssl_timeout*/,
                                int *reason, const char *lib, const char *token,
                                const char *token_pw, int storage, int accel)
{
    return pkcs11_init("ldap_ssl_pkcs11_client_init", keyring, keyring_pw, reason,
                       {lib, token, token_pw, storage, accel}, true);
}

int ldap_ssl_pkcs11_environment_init(const char *keyring, const char *keyring_pw,
                                     int /*ssl_timeout*/, int *reason, const char *lib,
                                     const char *token, const char *token_pw, int storage,
                                     int accel)
{
    return pkcs11_init("ldap_ssl_pkcs11_environment_init", keyring, keyring_pw, reason,
                       {lib, token, token_pw, storage, accel}, false);
}

int ldap_ssl_set_fips_mode_np(int mode)
{
    LDAP_LOCK(guard, ldap_ssl_mutex(), MODULE);
    if (!guard.locked())
        return guard.rc();
    char env[16];
    if (ldap_ssl_env_value("LDAP_OPT_SSL_FIPS_PROCCESSING_MODE", env, sizeof env) > 0) {
        int env_mode = strcasecmp(env, "ON") == 0 ? 1 : 0;
        LDAP_TRACE(LDAP_TRC_SSL, "ldap_ssl_set_fips_mode_np: ignoring FIPS mode=%d using env Var "
                                 "mode=%d", mode, env_mode);
        ssl_controls.fips = env_mode;
        return 0;
    }
    ssl_controls.fips = mode != 0 ? 1 : 0;
    return 0;
}

int ldap_ssl_set_suiteb_mode(int mode)
{
    if (mode != 0 && mode != 128 && mode != 192)
        return LDAP_PARAM_ERROR;
    __atomic_store_n(&suiteb_mode, mode, __ATOMIC_RELAXED); // set before connections open
    return 0;
}

void deleteWzrEnvRef(WzrEnvRef *ref)
{
    if (ref == nullptr)
        return;
    LDAP_LOCK(guard, ldap_ssl_mutex(), MODULE);
    if (!guard.locked())
        return; // leaked rather than freed under another thread
    if (ref->count > 0)
        --ref->count;
    if (ref->count == 0 && ref != current_ref)
        freeWzrEnvRef(ref);
}

int ldap_ssl_attach(LDAPConn *lc)
{
    LDAP_LOCK(guard, ldap_ssl_mutex(), MODULE);
    if (!guard.locked())
        return guard.rc();
    if (current_ref == nullptr)
        return LDAP_SSL_CLIENT_INIT_NOT_CALLED;
    ++current_ref->count;
    lc->ssl_ref = current_ref;
    return 0;
}

int ldap_ssl_copy_label(LDAP *ld, char **label)
{
    *label = nullptr;
    LDAP_LOCK(guard, &ld->ld_mutex, MODULE);
    if (!guard.locked())
        return guard.rc();
    if (ld->ld_ssl_label == nullptr || ld->ld_ssl_label[0] == '\0')
        return 0;
    *label = lber_strdup(ld->ld_ssl_label);
    return *label != nullptr ? 0 : LDAP_NO_MEMORY;
}

int ldap_ssl_suiteb_mode() { return __atomic_load_n(&suiteb_mode, __ATOMIC_RELAXED); }

int ldap_ssl_attach_initialising(LDAP *ld, LDAPConn *lc)
{
    char *keyring = nullptr, *pw = nullptr;
    {
        LDAP_LOCK(guard, &ld->ld_mutex, MODULE);
        if (!guard.locked())
            return guard.rc();
        keyring = ld->ld_ssl_keyring != nullptr ? lber_strdup(ld->ld_ssl_keyring) : nullptr;
        pw = ld->ld_ssl_keyring_pw != nullptr ? lber_strdup(ld->ld_ssl_keyring_pw) : nullptr;
        if ((ld->ld_ssl_keyring != nullptr && keyring == nullptr) ||
            (ld->ld_ssl_keyring_pw != nullptr && pw == nullptr)) {
            lber_free(keyring);
            lber_free(pw);
            return LDAP_NO_MEMORY;
        }
    }
    int reason = 0;
    int rc = ldap_ssl_client_init(keyring, pw, 0, &reason);
    if (pw != nullptr)
        explicit_bzero(pw, strlen(pw));
    lber_free(keyring);
    lber_free(pw);
    if (rc != 0 && rc != LDAP_SSL_ALREADY_INITIALIZED) {
        __atomic_store_n(&ld->ld_ssl_reason, reason, __ATOMIC_RELAXED);
        return rc;
    }
    return ldap_ssl_attach(lc);
}

int ldap_ssl_start_direct(LDAP *ld, const char *keyring, const char *keyring_pw,
                          const char *label)
{
    if (ld == nullptr)
        return -1;
    int reason = 0;
    int rc = ldap_ssl_client_init(keyring, keyring_pw, ld->ld_ssl_timeout, &reason);
    if (rc != 0 && rc != LDAP_SSL_ALREADY_INITIALIZED)
        return rc;
    if (label != nullptr) {
        char *copy = lber_strdup(label);
        if (copy == nullptr)
            return LDAP_NO_MEMORY;
        LDAP_LOCK(guard, &ld->ld_mutex, MODULE);
        if (!guard.locked()) {
            lber_free(copy);
            return guard.rc();
        }
        lber_free(ld->ld_ssl_label);
        ld->ld_ssl_label = copy;
    }
    // The default connection opens lazily, and opens secure from now on.
    __atomic_store_n(&ld->ld_ssl_in_use, 1, __ATOMIC_RELEASE);
    return 0;
}

int ldap_ssl_start(LDAP *ld, const char *keyring, const char *keyring_pw, const char *label)
{
    LDAP_TRACE(LDAP_TRC_API, "In ldap_ssl_start(): this is a deprecated function.\n");
    if (!ldap_ld_valid(ld))
        return LDAP_PARAM_ERROR;
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return bracket.rc();
    return ldap_fail(ld, ldap_ssl_start_direct(ld, keyring, keyring_pw, label));
}
