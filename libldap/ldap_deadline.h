// Deadlines: a caller's time-out becomes one point on the monotonic clock at the entry point
// of a call, and every wait inside the call (connecting, taking a lock, polling for a PDU in
// pieces, the reading turn) uses what is left of it, so the call keeps to its time-out
// whatever the server does.
#ifndef WZR_LIBLDAP_LDAP_DEADLINE_H
#define WZR_LIBLDAP_LDAP_DEADLINE_H

#include <pthread.h>
#include <sys/time.h>
#include <cstdint>
#include <ctime>

// Not limited for a NULL time-out (and by default).
struct LDAPDeadline {
    bool limited = false;
    struct timespec at {};
};

LDAPDeadline ldap_deadline_after(const struct timeval *timeout);
bool ldap_time_left(const LDAPDeadline &d, struct timeval *left); // false (and 0) once passed
// What is left as a time-out for a wait: NULL when not limited, else `buffer` (0 once passed).
struct timeval *ldap_deadline_wait(const LDAPDeadline &d, struct timeval *buffer);
// Now on the monotonic clock, in nanoseconds.
int64_t ldap_monotonic_ns();
// The earlier of the two.
LDAPDeadline ldap_deadline_min(const LDAPDeadline &a, const LDAPDeadline &b);

// Locks `mutex` unless the deadline passes first: 0, LDAP_TIMEOUT (85), or 129 for a failed
// lock (traced with module and line).
[[nodiscard]] int ldap_mutex_lock_until(pthread_mutex_t *mutex, const LDAPDeadline &d,
                                        const char *module, int line);

// The deadline of the call this thread is making, for code the call reaches only through a
// third party's callback: the secure-socket toolkit calls the library's raw I/O on the calling
// thread but hands it nothing of the call. In force while the scope lives; scopes nest.
class LDAPCallDeadlineScope {
public:
    explicit LDAPCallDeadlineScope(const LDAPDeadline &until);
    ~LDAPCallDeadlineScope();
    LDAPCallDeadlineScope(const LDAPCallDeadlineScope &) = delete;
    LDAPCallDeadlineScope &operator=(const LDAPCallDeadlineScope &) = delete;

private:
    LDAPDeadline outer_;
};
// The innermost scope's deadline on this thread; not limited outside every scope.
LDAPDeadline ldap_call_deadline();

#endif
