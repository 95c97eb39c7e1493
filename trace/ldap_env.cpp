// Environment access for the whole library: reads, checks and writes of variables, all under the
// syscall mutex, the list-valued variable update, and the once-read password-policy setting. The
// syscall mutex also serialises host-address look-ups elsewhere.
#include "ldap_env.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <strings.h>

#include "../include/wzrldap.h"
#include "../liblber/ber_memory.h"
#include "ldap_trace.h"

namespace {

pthread_mutex_t syscall_mutex;
pthread_once_t syscall_once = PTHREAD_ONCE_INIT;

void syscall_mutex_init()
{
    pthread_mutex_init(&syscall_mutex, nullptr);
    LDAP_TRACE(LDAP_TRC_MUTEX, "MUTEX %p %s %d\n", static_cast<void *>(&syscall_mutex), "syscall",
               __LINE__);
}

bool empty(const char *s) { return s == nullptr || *s == '\0'; }

// Reads a variable under the syscall mutex into an allocated copy. Returns 0 (with *value null when
// unset), LDAP_NO_MEMORY when the copy fails, LDAP_LOCK_ERROR when the lock does.
int env_copy(const char *name, char **value)
{
    *value = nullptr;
    if (lock_syscall_mutex() != 0)
        return LDAP_LOCK_ERROR;
    const char *v = getenv(name);
    char *copy = v != nullptr ? lber_strdup(v) : nullptr;
    (void)unlock_syscall_mutex();
    if (v != nullptr && copy == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - ldap_getenv: strdup failed for %s value\n", name);
        return LDAP_NO_MEMORY;
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_getenv: %s=%s\n", name, copy != nullptr ? copy : "NULL");
    *value = copy;
    return 0;
}

// Upper case, and "\" as "/", so that path lists compare without regard to either.
char fold(char c)
{
    return c == '\\' ? '/' : static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

void fold_all(char *s)
{
    for (; *s != '\0'; ++s)
        *s = fold(*s);
}

// An occurrence of `item` counts when it starts the list or follows a separator, and is followed by
// a separator, white space or the end.
bool list_has(char sep, const char *list, const char *item)
{
    size_t n = strlen(item);
    for (const char *p = strstr(list, item); p != nullptr;
         p = *p != '\0' ? strstr(p + 1, item) : nullptr) {
        char after = p[n];
        bool starts = p == list || p[-1] == sep;
        bool ends = after == sep || after == '\0' || isspace(static_cast<unsigned char>(after));
        if (starts && ends)
            return true;
    }
    return false;
}

int pwdpolicy_setting = 0;
pthread_once_t pwdpolicy_once = PTHREAD_ONCE_INIT;

void read_pwdpolicy_setting()
{
    pwdpolicy_setting = ldap_env_yes_setting("USE_OPENLDAP_PWDPOLICY_CONTROL");
}

} // namespace

int lock_syscall_mutex()
{
    pthread_once(&syscall_once, syscall_mutex_init);
    int err = pthread_mutex_lock(&syscall_mutex);
    if (err != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "lock_syscall_mutex: Failed to lock. errno=%d\n", err);
    return err;
}

int unlock_syscall_mutex()
{
    int err = pthread_mutex_unlock(&syscall_mutex);
    if (err != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "unlock_syscall_mutex: Failed to lock. errno=%d\n", err);
    return err;
}

char *ldap_getenv(const char *name)
{
    if (empty(name)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - ldap_getenv: no variable name given\n");
        return nullptr;
    }
    char *value = nullptr;
    (void)env_copy(name,
                   &value); // every failure is traced there and reads as unset
    return value;
}

int ldap_getenv_buf(const char *name, char *buffer, size_t size)
{
    if (empty(name) || buffer == nullptr || size == 0)
        return -1;
    if (lock_syscall_mutex() != 0)
        return -1;
    const char *v = getenv(name);
    int len = -1;
    if (v != nullptr) {
        size_t n = strlen(v);
        size_t keep = n < size ? n : size - 1;
        memcpy(buffer, v, keep);
        buffer[keep] = '\0';
        len = static_cast<int>(n);
    }
    (void)unlock_syscall_mutex();
    LDAP_TRACE(LDAP_TRC_API, "ldap_getenv: %s=%s\n", name, len >= 0 ? buffer : "NULL");
    return len;
}

int ldap_chkenv(const char *name)
{
    if (empty(name)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - ldap_chkenv: no variable name given\n");
        return 0;
    }
    if (lock_syscall_mutex() != 0)
        return 0;
    const char *v = getenv(name);
    int result = v != nullptr ? static_cast<int>(strlen(v)) + 1 : 0;
    (void)unlock_syscall_mutex();
    LDAP_TRACE(LDAP_TRC_API, "ldap_chkenv: environment variable \"%s\" %s\n", name,
               result != 0 ? "is set" : "is NOT set");
    return result;
}

int ldap_putenv(char *assignment)
{
    if (empty(assignment)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - ldap_putenv: no assignment given\n");
        return 0;
    }
    if (lock_syscall_mutex() != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - ldap_putenv: lock failed\n");
        return 0;
    }
    int rc = putenv(assignment);
    int err = errno;
    (void)unlock_syscall_mutex();
    if (rc != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - ldap_putenv: putenv failed for %s, errno=%d\n",
                   assignment, err);
    else
        LDAP_TRACE(LDAP_TRC_API, "ldap_putenv: %s\n", assignment);
    return rc;
}

int ldap_change_env_var(int mode, const char *name, char separator, const char *value)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_change_env_var: %s\n", name != nullptr ? name : "NULL");
    if (empty(name) || empty(value))
        return LDAP_PARAM_ERROR;

    char *current = nullptr;
    int rc = env_copy(name, &current);
    if (rc != 0)
        return rc;
    if (current != nullptr) {
        rc = ldap_env_contains(separator, current, value);
        if (rc != 0) {
            lber_free(current);
            return rc == 1 ? 0 : rc;
        }
    }

    size_t cur_len = current != nullptr ? strlen(current) : 0;
    size_t size = strlen(name) + strlen(value) + cur_len + 5;
    char *assignment = static_cast<char *>(lber_malloc(size));
    if (assignment == nullptr) {
        lber_free(current);
        return LDAP_NO_MEMORY;
    }
    if (cur_len == 0)
        snprintf(assignment, size, "%s=%s", name, value);
    else if (mode == 1)
        snprintf(assignment, size, "%s=%s%c%s", name, current, separator, value);
    else
        snprintf(assignment, size, "%s=%s%c%s", name, value, separator, current);
    lber_free(current);

    // On success the string belongs to the environment from now on and is never freed.
    if (ldap_putenv(assignment) != 0) {
        lber_free(assignment); // putenv refused it, so the environment does not hold it
        return LDAP_PARAM_ERROR;
    }
    return 0;
}

int ldap_env_contains(char separator, const char *list, const char *item)
{
    if (list == nullptr || item == nullptr)
        return 0;
    char *l = lber_strdup(list);
    char *i = lber_strdup(item);
    if (l == nullptr || i == nullptr) {
        lber_free(l);
        lber_free(i);
        return LDAP_NO_MEMORY;
    }
    fold_all(l);
    fold_all(i);
    int found = list_has(fold(separator), l, i) ? 1 : 0;
    lber_free(l);
    lber_free(i);
    return found;
}

int ldap_env_yes_setting(const char *name)
{
    // A fixed buffer: the answer must not depend on whether an allocation succeeds.
    char value[8];
    int len = ldap_getenv_buf(name, value, sizeof value);
    if (len < 0)
        return 0;
    return len == 3 && strcasecmp(value, "YES") == 0 ? 1 : 2;
}

int ldap_use_openldap_pwdpolicy()
{
    pthread_once(&pwdpolicy_once, read_pwdpolicy_setting);
    return pwdpolicy_setting;
}
