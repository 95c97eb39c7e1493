// Deadlines on the monotonic clock, the time left before one, and locking within one.
#include "ldap_deadline.h"

#include <cerrno>

#include "ldap_lock.h"
#include "wzrldap.h"

#if defined(__SANITIZE_THREAD__)
#define WZR_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WZR_TSAN 1
#endif
#endif
#ifdef WZR_TSAN
#include <sanitizer/tsan_interface.h>
#define WZR_TSAN_PRE_LOCK(m) __tsan_mutex_pre_lock((m), __tsan_mutex_try_lock)
#define WZR_TSAN_POST_LOCK(m, ok) \
    __tsan_mutex_post_lock((m), (ok) ? __tsan_mutex_try_lock : __tsan_mutex_try_lock_failed, 0)
#else
#define WZR_TSAN_PRE_LOCK(m) (void)0
#define WZR_TSAN_POST_LOCK(m, ok) (void)0
#endif

LDAPDeadline ldap_deadline_after(const struct timeval *timeout)
{
    LDAPDeadline d;
    if (timeout == nullptr)
        return d;
    d.limited = true;
    clock_gettime(CLOCK_MONOTONIC, &d.at);
    // A negative part counts as nothing left; a time-out beyond a century as a century.
    constexpr long long MAX_SECONDS = 100LL * 365 * 24 * 3600;
    long long sec = timeout->tv_sec < 0 ? 0 : timeout->tv_sec;
    long long usec = timeout->tv_usec < 0 ? 0 : timeout->tv_usec;
    sec = sec + usec / 1000000 > MAX_SECONDS ? MAX_SECONDS : sec + usec / 1000000;
    long long ns = d.at.tv_nsec + (usec % 1000000) * 1000LL;
    d.at.tv_sec += static_cast<time_t>(sec + ns / 1000000000LL);
    d.at.tv_nsec = static_cast<long>(ns % 1000000000LL);
    return d;
}

bool ldap_time_left(const LDAPDeadline &d, struct timeval *left)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long ns = (static_cast<long long>(d.at.tv_sec) - now.tv_sec) * 1000000000LL +
                   (d.at.tv_nsec - now.tv_nsec);
    if (ns <= 0) {
        left->tv_sec = 0;
        left->tv_usec = 0;
        return false;
    }
    left->tv_sec = static_cast<time_t>(ns / 1000000000LL);
    left->tv_usec = static_cast<suseconds_t>((ns % 1000000000LL) / 1000);
    return true;
}

struct timeval *ldap_deadline_wait(const LDAPDeadline &d, struct timeval *buffer)
{
    if (!d.limited)
        return nullptr;
    (void)ldap_time_left(d, buffer);
    return buffer;
}

LDAPDeadline ldap_deadline_min(const LDAPDeadline &a, const LDAPDeadline &b)
{
    if (!a.limited)
        return b;
    if (!b.limited)
        return a;
    bool a_first = a.at.tv_sec != b.at.tv_sec ? a.at.tv_sec < b.at.tv_sec
                                              : a.at.tv_nsec < b.at.tv_nsec;
    return a_first ? a : b;
}

int ldap_mutex_lock_until(pthread_mutex_t *mutex, const LDAPDeadline &d, const char *module,
                          int line)
{
    if (!d.limited)
        return ldap_mutex_lock(mutex, module, line);
    // The thread checker does not intercept clock-based timed locks: it is told of this one,
    // or every write under a time-out would look like the unlock of a free mutex to it, and the
    // fields this lock guards would be checked as if unguarded.
    WZR_TSAN_PRE_LOCK(mutex);
    int err = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &d.at);
    WZR_TSAN_POST_LOCK(mutex, err == 0);
    if (err == 0)
        return 0;
    if (err == ETIMEDOUT)
        return LDAP_TIMEOUT;
    ldap_trace_lock_failure(module, line, err);
    return LDAP_LOCK_ERROR;
}

namespace {
thread_local LDAPDeadline call_deadline;
}

LDAPCallDeadlineScope::LDAPCallDeadlineScope(const LDAPDeadline &until) : outer_(call_deadline)
{
    call_deadline = until;
}

LDAPCallDeadlineScope::~LDAPCallDeadlineScope() { call_deadline = outer_; }

LDAPDeadline ldap_call_deadline() { return call_deadline; }

int64_t ldap_monotonic_ns()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}
