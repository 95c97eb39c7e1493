// Handle options: the table of what each option accepts, the public setter's rule for when its
// pointer argument is dereferenced, the getter, and the process-wide default handle that a
// NULL handle stands for.
#include "ldap_options.h"

#include <cstdint>
#include <cstring>
#include <strings.h>

#include "ldap_controls.h"
#include "ldap_error.h"
#include "ldap_lock.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_options";
constexpr intptr_t SSL_TIMEOUT_MAX = 86400;
constexpr intptr_t DEBUG_MASK_LIMIT = 0x10000;

LDAP *global_default = nullptr; // ldap_lock_defaults

bool valid_handle(LDAP *ld)
{
    return memcmp(ld->ld_eyecatcher, LDAP_EYE_HANDLE, sizeof LDAP_EYE_HANDLE) == 0;
}

int no_memory(const char *where)
{
    LDAP_TRACE(LDAP_TRC_ERROR, "%s: Memory error!!!\n", where);
    return LDAP_NO_MEMORY;
}

// ---- set side -----------------------------------------------------------------------------

int set_int(int32_t *field, intptr_t value, intptr_t low, intptr_t high)
{
    if (value < low || value > high)
        return LDAP_PARAM_ERROR;
    *field = static_cast<int32_t>(value);
    return 0;
}

int set_string(char **field, const void *value)
{
    char *copy = nullptr;
    if (value != nullptr && (copy = lber_strdup(static_cast<const char *>(value))) == nullptr)
        return no_memory("ldap_set_option_direct");
    lber_free(*field);
    *field = copy;
    return 0;
}

int set_controls(LDAPControl ***field, const void *value)
{
    auto *list = static_cast<LDAPControl **>(const_cast<void *>(value));
    LDAPControl **copy = nullptr;
    int rc = ldap_copy_controls(&copy, list);
    if (rc == LDAP_NO_MEMORY)
        return no_memory("ldap_set_option_direct");
    if (rc != 0)
        return rc;
    ldap_controls_free(*field);
    *field = copy;
    return 0;
}

int set_timeout(LDAP *ld, const void *value)
{
    const auto *given = static_cast<const struct timeval *>(value);
    struct timeval *copy = nullptr;
    if (given != nullptr) {
        if (given->tv_sec < 0 || given->tv_usec < 0 || given->tv_usec >= 1000000)
            return LDAP_PARAM_ERROR;
        copy = static_cast<struct timeval *>(lber_malloc(sizeof *copy));
        if (copy == nullptr)
            return no_memory("ldap_set_option_direct");
        *copy = *given;
    }
    lber_free(ld->ld_connect_timeout);
    ld->ld_connect_timeout = copy;
    return 0;
}

// One option, its value already in the form the direct setter takes; records nothing.
int apply_option(LDAP *ld, int option, const void *value)
{
    const intptr_t v = reinterpret_cast<intptr_t>(value);
    switch (option) {
    case LDAP_OPT_SIZELIMIT:
        return set_int(&ld->ld_sizelimit, v, 0, INT32_MAX);
    case LDAP_OPT_TIMELIMIT:
        return set_int(&ld->ld_timelimit, v, 0, INT32_MAX);
    case LDAP_OPT_REFERRALS:
        return set_int(&ld->ld_referrals, v, 0, 1);
    case LDAP_OPT_DEREF:
        return set_int(&ld->ld_deref, v, LDAP_DEREF_NEVER, LDAP_DEREF_ALWAYS);
    case LDAP_OPT_RESTART:
        return set_int(&ld->ld_restart, v, 0, 1);
    case LDAP_OPT_REFHOPLIMIT:
    case LDAP_OPT_REFERRAL_HOP_LIMIT:
        return set_int(&ld->ld_hoplimit, v, 0, INT32_MAX);
    case LDAP_OPT_DEBUG:
        // The trace mask is process-wide; the handle only carries the request.
        if (v < 0 || v >= DEBUG_MASK_LIMIT)
            return LDAP_PARAM_ERROR;
        ldap_set_debug_mask(static_cast<unsigned>(v));
        return 0;
    case LDAP_OPT_SSL_KEYRING:
        return set_string(&ld->ld_ssl_keyring, value);
    case LDAP_OPT_SSL_TIMEOUT:
        return set_int(&ld->ld_ssl_timeout, v, 0, SSL_TIMEOUT_MAX);
    case LDAP_OPT_REBIND_FN:
        ld->ld_rebind_proc = const_cast<void *>(value);
        return 0;
    case LDAP_OPT_PROTOCOL_VERSION:
        return set_int(&ld->ld_version, v, LDAP_VERSION2, LDAP_VERSION3);
    case LDAP_OPT_SERVER_CONTROLS:
        return set_controls(&ld->ld_sctrls, value);
    case LDAP_OPT_CLIENT_CONTROLS: {
        // No client control is understood, so a critical one can never be honoured.
        int rc = ldap_check_client_controls(
            static_cast<LDAPControl **>(const_cast<void *>(value)));
        return rc != 0 ? rc : set_controls(&ld->ld_cctrls, value);
    }
    case LDAP_OPT_UTF8_IO:
        return set_int(&ld->ld_utf8_io, v, 0, 1);
    case LDAP_OPT_SASL_KRB_VERSION:
        return set_int(&ld->ld_krb_version, v, 2, 3);
    case LDAP_OPT_CONNECT_TIMEOUT:
        return set_timeout(ld, value);
    case LDAP_OPT_SSL_KEYRING_PW:
        return set_string(&ld->ld_ssl_keyring_pw, value);
    case LDAP_OPT_SSL_CERT_LABEL:
        return set_string(&ld->ld_ssl_label, value);
    case LDAP_OPT_BIND_FLAG:
        return set_int(&ld->ld_bind_flag, v, 0, 1);
    default: // read-only (10, 11, 20, 21, 48-51) and unknown options
        return LDAP_PARAM_ERROR;
    }
}

// Options whose value the public setter reads through the pointer on a version-3 handle.
bool takes_int_pointer(int option)
{
    switch (option) {
    case LDAP_OPT_SIZELIMIT:
    case LDAP_OPT_TIMELIMIT:
    case LDAP_OPT_DEREF:
    case LDAP_OPT_RESTART:
    case LDAP_OPT_REFHOPLIMIT:
    case LDAP_OPT_DEBUG:
    case LDAP_OPT_SSL_TIMEOUT:
    case LDAP_OPT_REFERRAL_HOP_LIMIT:
    case LDAP_OPT_SASL_KRB_VERSION:
        return true;
    default:
        return option < 0;
    }
}

const void *int_as_value(const void *pointer)
{
    int value = *static_cast<const int *>(pointer);
    return reinterpret_cast<const void *>(static_cast<intptr_t>(value));
}

// The public setter's view of `value`, handle mutex held. Older callers pass integers in the
// pointer itself, and a handle still at version 2 is taken to be such a caller.
int set_option_locked(LDAP *ld, int option, const void *value)
{
    if (option == LDAP_OPT_PROTOCOL_VERSION) {
        if (value == nullptr)
            return LDAP_PARAM_ERROR;
        return apply_option(ld, option, int_as_value(value));
    }
    if (ld->ld_version < LDAP_VERSION3)
        return apply_option(ld, option, value);
    if (takes_int_pointer(option)) {
        if (value == nullptr)
            return LDAP_PARAM_ERROR;
        return apply_option(ld, option, int_as_value(value));
    }
    if (option == LDAP_OPT_API_INFO || option == LDAP_OPT_API_FEATURE_INFO)
        return LDAP_PARAM_ERROR;
    return apply_option(ld, option, value);
}

// ---- get side -----------------------------------------------------------------------------

int get_string(const char *field, void *out)
{
    char *copy = nullptr;
    if (field != nullptr && (copy = lber_strdup(field)) == nullptr)
        return no_memory("ldap_get_option_direct");
    *static_cast<char **>(out) = copy;
    return 0;
}

int get_controls(LDAPControl **field, void *out)
{
    int rc = ldap_copy_controls(static_cast<LDAPControl ***>(out), field);
    return rc == LDAP_NO_MEMORY ? no_memory("ldap_get_option_direct") : rc;
}

int get_timeout(const LDAP *ld, void *out)
{
    struct timeval *copy = nullptr;
    if (ld->ld_connect_timeout != nullptr) {
        copy = static_cast<struct timeval *>(lber_malloc(sizeof *copy));
        if (copy == nullptr)
            return no_memory("ldap_get_option_direct");
        *copy = *ld->ld_connect_timeout;
    }
    *static_cast<struct timeval **>(out) = copy;
    return 0;
}

int get_api_info(void *out)
{
    auto *info = static_cast<LDAPAPIInfo *>(out);
    if (info->ldapai_info_version != LDAP_API_INFO_VERSION) {
        info->ldapai_info_version = LDAP_API_INFO_VERSION;
        return LDAP_PARAM_ERROR;
    }
    auto **extensions = static_cast<char **>(lber_calloc(2, sizeof(char *)));
    char *vendor = lber_strdup(LDAP_VENDOR_NAME);
    if (extensions != nullptr)
        extensions[0] = lber_strdup(LDAP_FEATURE_VIRTUAL_LIST_VIEW);
    if (extensions == nullptr || extensions[0] == nullptr || vendor == nullptr) {
        if (extensions != nullptr)
            lber_free(extensions[0]);
        lber_free(extensions);
        lber_free(vendor);
        return no_memory("ldap_get_option_direct");
    }
    info->ldapai_api_version = LDAP_API_VERSION;
    info->ldapai_protocol_version = LDAP_VERSION3;
    info->ldapai_extensions = extensions;
    info->ldapai_vendor_name = vendor;
    info->ldapai_vendor_version = LDAP_VENDOR_VERSION;
    return 0;
}

int get_feature_info(void *out)
{
    auto *info = static_cast<LDAPAPIFeatureInfo *>(out);
    if (info->ldapaif_info_version != LDAP_FEATURE_INFO_VERSION) {
        info->ldapaif_info_version = LDAP_FEATURE_INFO_VERSION;
        return LDAP_PARAM_ERROR;
    }
    info->ldapaif_version = 0;
    if (info->ldapaif_name == nullptr ||
        strcasecmp(info->ldapaif_name, LDAP_FEATURE_VIRTUAL_LIST_VIEW) != 0)
        return LDAP_PARAM_ERROR;
    info->ldapaif_version = LDAP_API_FEATURE_VIRTUAL_LIST_VIEW;
    return 0;
}

int read_option(LDAP *ld, int option, void *out)
{
    auto put_int = [out](int value) {
        *static_cast<int *>(out) = value;
        return 0;
    };
    const LDAPConn *lc = ld->ld_defconn;
    switch (option) {
    case LDAP_OPT_SIZELIMIT:
        return put_int(ld->ld_sizelimit);
    case LDAP_OPT_TIMELIMIT:
        return put_int(ld->ld_timelimit);
    case LDAP_OPT_REFERRALS:
        return put_int(ld->ld_referrals);
    case LDAP_OPT_DEREF:
        return put_int(ld->ld_deref);
    case LDAP_OPT_RESTART:
        return put_int(ld->ld_restart);
    case LDAP_OPT_REFHOPLIMIT:
    case LDAP_OPT_REFERRAL_HOP_LIMIT:
        return put_int(ld->ld_hoplimit);
    case LDAP_OPT_DEBUG:
        return put_int(static_cast<int>(ldap_debug_enabled()));
    case LDAP_OPT_SSL_KEYRING:
        return get_string(ld->ld_ssl_keyring, out);
    case LDAP_OPT_SSL_TIMEOUT:
        return put_int(ld->ld_ssl_timeout);
    case LDAP_OPT_REBIND_FN:
        *static_cast<void **>(out) = ld->ld_rebind_proc;
        return 0;
    case LDAP_OPT_DESC:
        return put_int(lc != nullptr && lc->connected ? lc->sb.sb_sd : -1);
    case LDAP_OPT_PORT:
        return put_int(lc != nullptr ? lc->port : ld->ld_defport);
    case LDAP_OPT_PROTOCOL_VERSION:
        return put_int(ld->ld_version);
    case LDAP_OPT_SERVER_CONTROLS:
        return get_controls(ld->ld_sctrls, out);
    case LDAP_OPT_CLIENT_CONTROLS:
        return get_controls(ld->ld_cctrls, out);
    case LDAP_OPT_API_INFO:
        return get_api_info(out);
    case LDAP_OPT_API_FEATURE_INFO:
        return get_feature_info(out);
    case LDAP_OPT_HOST_NAME:
        return get_string(lc != nullptr ? lc->host : ld->ld_defhost, out);
    case LDAP_OPT_UTF8_IO:
        return put_int(ld->ld_utf8_io);
    case LDAP_OPT_SASL_KRB_VERSION:
        return put_int(ld->ld_krb_version);
    case LDAP_OPT_CONNECT_TIMEOUT:
        return get_timeout(ld, out);
    case LDAP_OPT_SSL_KEYRING_PW: // a password is never handed back
        return LDAP_PARAM_ERROR;
    case LDAP_OPT_SSL_CERT_LABEL:
        return get_string(ld->ld_ssl_label, out);
    case LDAP_OPT_BIND_FLAG:
        return put_int(ld->ld_bind_flag);
    default:
        return LDAP_PARAM_ERROR;
    }
}

bool reads_error_record(int option)
{
    return option == LDAP_OPT_ERROR_NUMBER || option == LDAP_OPT_ERROR_STRING ||
           option == LDAP_OPT_EXT_ERROR;
}

// Options 49-51 read the calling thread's error record. They record nothing themselves:
// reading the code must not replace it.
int read_error_option(LDAP *ld, int option, void *out)
{
    if (out == nullptr)
        return LDAP_PARAM_ERROR;
    int code;
    int ext;
    char *errmsg = nullptr;
    int rc = ldap_read_error_record(ld, &code, &ext, nullptr,
                                    option == LDAP_OPT_ERROR_STRING ? &errmsg : nullptr);
    if (rc == LDAP_NO_MEMORY)
        return no_memory("ldap_get_option_direct");
    if (rc != 0)
        return rc;
    if (option == LDAP_OPT_ERROR_STRING)
        *static_cast<char **>(out) = errmsg;
    else
        *static_cast<int *>(out) = option == LDAP_OPT_ERROR_NUMBER ? code : ext;
    return 0;
}

LDAP *make_global_default()
{
    auto *ld = static_cast<LDAP *>(lber_calloc(1, sizeof(LDAP)));
    if (ld == nullptr)
        return nullptr;
    memcpy(ld->ld_eyecatcher, LDAP_EYE_HANDLE, sizeof LDAP_EYE_HANDLE);
    ld->ld_version = LDAP_VERSION3;
    ld->ld_referrals = 1;
    ld->ld_hoplimit = 10;
    ld->ld_default_field = 128;
    ld->ld_defport = LDAP_PORT;
    // The error lock and condition too: options record their results on this handle, and
    // ldap_get_errno brackets an operation on it.
    int err = pthread_mutex_init(&ld->ld_mutex, nullptr);
    if (err == 0) {
        err = pthread_mutex_init(&ld->ld_errlock, nullptr);
        if (err == 0) {
            err = pthread_cond_init(&ld->ld_ops_ended, nullptr);
            if (err == 0)
                return ld;
            pthread_mutex_destroy(&ld->ld_errlock);
        }
        pthread_mutex_destroy(&ld->ld_mutex);
    }
    LDAP_TRACE(LDAP_TRC_ERROR, "ld_set_global_default: pthread_mutex_init failed, errno %d\n", err);
    lber_free(ld);
    return nullptr;
}

// The handle an option call works on: NULL means the global default handle.
LDAP *option_target(LDAP *ld) { return ld != nullptr ? ld : ld_set_global_default(); }
} // namespace

LDAP *ld_set_global_default()
{
    ldap_lock_defaults();
    if (global_default == nullptr)
        global_default = make_global_default();
    LDAP *ld = global_default;
    ldap_unlock_defaults();
    return ld;
}

int ldap_set_option_direct(LDAP *ld, int option, const void *value)
{
    int rc = ldap_set_lderrno_direct(ld, 0, nullptr, nullptr);
    if (rc != 0)
        return rc;
    rc = apply_option(ld, option, value);
    return rc != 0 ? ldap_fail(ld, rc) : 0;
}

int ldap_get_option_direct(LDAP *ld, int option, void *out)
{
    if (reads_error_record(option))
        return read_error_option(ld, option, out);
    int rc = ldap_set_lderrno_direct(ld, 0, nullptr, nullptr);
    if (rc != 0)
        return rc;
    rc = out != nullptr ? read_option(ld, option, out) : LDAP_PARAM_ERROR;
    return rc != 0 ? ldap_fail(ld, rc) : 0;
}

// The error record is cleared before and written after the handle mutex is held, so the error
// lock is never taken inside it.
int ldap_set_option(LDAP *ld, int option, const void *value)
{
    ld = option_target(ld);
    if (ld == nullptr)
        return -1;
    if (!valid_handle(ld))
        return LDAP_PARAM_ERROR;
    int rc = ldap_set_lderrno_direct(ld, 0, nullptr, nullptr);
    if (rc != 0)
        return rc;
    rc = ldap_mutex_lock(&ld->ld_mutex, MODULE, __LINE__);
    if (rc != 0)
        return ldap_fail(ld, rc);
    rc = set_option_locked(ld, option, value);
    ldap_mutex_unlock(&ld->ld_mutex, MODULE, __LINE__);
    return rc != 0 ? ldap_fail(ld, rc) : 0;
}

int ldap_get_option(LDAP *ld, int option, void *out)
{
    ld = option_target(ld);
    if (ld == nullptr)
        return -1;
    if (!valid_handle(ld))
        return LDAP_PARAM_ERROR;
    if (reads_error_record(option))
        return read_error_option(ld, option, out);
    int rc = ldap_set_lderrno_direct(ld, 0, nullptr, nullptr);
    if (rc != 0)
        return rc;
    if (out == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    rc = ldap_mutex_lock(&ld->ld_mutex, MODULE, __LINE__);
    if (rc != 0)
        return ldap_fail(ld, rc);
    rc = read_option(ld, option, out);
    ldap_mutex_unlock(&ld->ld_mutex, MODULE, __LINE__);
    return rc != 0 ? ldap_fail(ld, rc) : 0;
}

void ldap_api_info_free(LDAPAPIInfo *info)
{
    if (info == nullptr)
        return;
    if (info->ldapai_extensions != nullptr) {
        for (char **name = info->ldapai_extensions; *name != nullptr; ++name)
            lber_free(*name);
        lber_free(info->ldapai_extensions);
    }
    lber_free(info->ldapai_vendor_name);
    info->ldapai_extensions = nullptr;
    info->ldapai_vendor_name = nullptr;
}
