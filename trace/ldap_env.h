// Guarded access to the process environment: every getenv/putenv of the library runs under
// the syscall mutex, because the C library's environment functions are not thread-safe.
#ifndef WZR_TRACE_LDAP_ENV_H
#define WZR_TRACE_LDAP_ENV_H

#include <cstddef>

char *ldap_getenv(const char *name); // allocated copy (lber_free) or nullptr
int ldap_chkenv(const char *name);   // strlen(value) + 1 when set, else 0
int ldap_putenv(char *assignment);   // the string passes into the environment
// Copies the value into the caller's buffer (cut to size - 1, always terminated) without
// allocating, for settings read where a failed allocation must not change the outcome.
// Returns the full length of the value, or -1 when the variable is not set.
int ldap_getenv_buf(const char *name, char *buffer, size_t size);
[[nodiscard]] int ldap_change_env_var(int mode, const char *name, char separator,
                                      const char *value);
int ldap_env_contains(char separator, const char *list, const char *item);
int lock_syscall_mutex();
int unlock_syscall_mutex();
// A yes/no switch: 0 when unset, 1 for "YES" in any letter case, 2 for any other value.
int ldap_env_yes_setting(const char *name);
int ldap_use_openldap_pwdpolicy();

#endif
