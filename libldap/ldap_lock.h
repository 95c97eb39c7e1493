// Mutex guards that report a failed lock as 129, and the four process-wide mutexes.
//
// Lock order (the only nestings allowed anywhere in the library):
//   table lock -> queue lock                      (draining the queue into rows)
//   syscall mutex -> trace mutex                  (only to trace the syscall mutex's own failure)
//   write lock -> handle mutex                    (a connection being opened reads option 70)
//   handle mutex -> in-flight registry lock       (an unbind looks for operations in progress)
//   config lock -> (a plug-in's entry point)      (the configuration file and plug-in registry
//                                                 lock is held across dlopen and the entry
//                                                 point, which may only use its block's
//                                                 services; those take no library lock)
//   write lock -> ssl mutex                       (a secure connection attaching to the
//                                                  toolkit environment while it is opened)
//   write lock -> read lock -> ssl mutex          (StartTLS: no reader or writer may touch the
//                                                  connection during the handshake)
// Each of these is taken alone, with no other library lock held:
//   handle mutex (except as above), error lock, connection lock, conn_mutex, read lock, write lock,
//   resolver lock, the four process-wide mutexes, the trace mutex.
// No table lock is ever held across socket I/O; the read and write locks are held across I/O.
// Two table locks never nest: referral chasing and URL search take the lock of a parent row's
// table and that of its child row's (often another connection's) one after the other.
#ifndef WZR_LIBLDAP_LDAP_LOCK_H
#define WZR_LIBLDAP_LDAP_LOCK_H

#include <atomic>
#include <pthread.h>

#include "ldap_deadline.h"

// A wake-up for one sleeping thread that needs no mutex of its own: the sleeper drops the
// lock it holds, sleeps on the event and takes the lock again as anyone would. (A condition
// variable retakes its mutex marked as contended, and every later unlock of it is a futex call.)
struct LDAPEvent {
    std::atomic<int> state;           // 0 quiet, 1 posted, 2 its thread sleeps on it
    std::atomic<int> posts_in_flight; // posts raised and not yet delivered
};
void ldap_event_reset(LDAPEvent *e); // before sleeping, under the lock that guards the sleep
// Sleeps until the event is posted or the deadline passes: 0, or ETIMEDOUT (a post racing the
// time-out may then still land; the caller's own flag, read under its lock, decides).
[[nodiscard]] int ldap_event_wait(LDAPEvent *e, const LDAPDeadline &until);
// Posted when this thread releases `lock` (or before it sleeps itself): woken at once, the
// sleeper would find the poster still holding the lock and sleep again on the mutex. A thread
// defers posts for one lock at a time.
void ldap_event_post_after_unlock(LDAPEvent *e, const pthread_mutex_t *lock);
void ldap_event_retire(LDAPEvent *e); // waits until no post is on its way to it
void ldap_deliver_posts_slow();
extern constinit thread_local const pthread_mutex_t *ldap_posts_wait_for
    __attribute__((tls_model("initial-exec")));
inline void ldap_deliver_posts_on_unlock(const pthread_mutex_t *unlocked)
{
    if (ldap_posts_wait_for == unlocked)
        ldap_deliver_posts_slow();
}

// Locks on construction; a failed lock is traced with module and line and remembered, and
// the destructor then does not unlock. Unlock failures are traced only.
class LockGuard {
public:
    LockGuard(pthread_mutex_t *mutex, const char *module, int line);
    // Gives up when the deadline passes first: then rc() is LDAP_TIMEOUT (85).
    LockGuard(pthread_mutex_t *mutex, const LDAPDeadline &until, const char *module, int line);
    ~LockGuard();
    LockGuard(const LockGuard &) = delete;
    LockGuard &operator=(const LockGuard &) = delete;

    [[nodiscard]] bool locked() const { return held_; }
    [[nodiscard]] int rc() const { return rc_; } // 0, or LDAP_LOCK_ERROR when the lock failed
    void unlock();                               // early release; the destructor then does nothing
    [[nodiscard]] int relock();                  // take it again after unlock(); 0 or 129

private:
    pthread_mutex_t *mutex_;
    const char *module_;
    int line_;
    bool held_ = false;
    int rc_ = 0;
};

#define LDAP_LOCK(guard, mutex, module) LockGuard guard((mutex), (module), __LINE__)

// Traces a failed pthread_mutex_lock / unlock with the module name and line.
void ldap_trace_lock_failure(const char *module, int line, int err);
void ldap_trace_unlock_failure(const char *module, int line, int err);

// Plain lock/unlock with the same tracing, for places a guard does not fit (conditions).
[[nodiscard]] int ldap_mutex_lock(pthread_mutex_t *m, const char *module, int line);
void ldap_mutex_unlock(pthread_mutex_t *m, const char *module, int line);

// The process-wide mutexes, created on first use in the order config, defaults, ssl, charset.
void ldap_init_all_mutex_once();
// The configuration lock (configuration file and plug-in registry), created if need be, for
// a LockGuard.
pthread_mutex_t *ldap_config_mutex();
void ldap_lock_config();
void ldap_unlock_config();
void ldap_lock_defaults();
void ldap_unlock_defaults();
void ldap_lock_ssl();
void ldap_unlock_ssl();
pthread_mutex_t *ldap_ssl_mutex(); // created on first use, for a LockGuard
void ldap_lock_charset();
void ldap_unlock_charset();

#endif
