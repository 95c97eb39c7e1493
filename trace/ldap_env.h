// Guarded access to the process environment: every getenv/putenv of the library runs under
// the syscall mutex, because the C library's environment functions are not thread-safe.
#ifndef WZR_TRACE_LDAP_ENV_H
#define WZR_TRACE_LDAP_ENV_H

char *ldap_getenv(const char *name); // allocated copy (lber_free) or nullptr
int ldap_chkenv(const char *name);   // strlen(value) + 1 when set, else 0
int ldap_putenv(char *assignment);   // the string passes into the environment
[[nodiscard]] int ldap_change_env_var(int mode, const char *name, char separator,
                                      const char *value);
int ldap_env_contains(char separator, const char *list, const char *item);
int lock_syscall_mutex();
int unlock_syscall_mutex();
int ldap_use_openldap_pwdpolicy();

#endif
