// Mutex guards with traced failures, the four process-wide mutexes (configuration, global
// defaults, secure environment, character sets), created once on first use, and the events a
// thread sleeps on while another reads for it.
#include "ldap_lock.h"

#include <cerrno>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ldap_int.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_lock";

pthread_mutex_t config_mutex;
pthread_mutex_t defaults_mutex;
pthread_mutex_t ssl_mutex;
pthread_mutex_t charset_mutex;
pthread_once_t all_mutex_once = PTHREAD_ONCE_INIT;

void ensure_process_mutexes() { pthread_once(&all_mutex_once, ldap_init_all_mutex_once); }

void lock_process_mutex(pthread_mutex_t *m, int line)
{
    ensure_process_mutexes();
    (void)ldap_mutex_lock(m, MODULE, line);
}

// A reader filing a batch wakes at most one thread per response; beyond this many, events
// are posted at once.
constexpr int MAX_DEFERRED_POSTS = 64;
constinit thread_local LDAPEvent *deferred[MAX_DEFERRED_POSTS] = {};
constinit thread_local int deferred_count = 0;

long futex(std::atomic<int> *word, int op, int value, const struct timespec *at)
{
    return syscall(SYS_futex, reinterpret_cast<int *>(word), op | FUTEX_PRIVATE_FLAG, value, at,
                   nullptr, FUTEX_BITSET_MATCH_ANY);
}

void post_now(LDAPEvent *e)
{
    if (e->state.exchange(1, std::memory_order_acq_rel) == 2)
        (void)futex(&e->state, FUTEX_WAKE_BITSET, 1, nullptr);
}
} // namespace

constinit thread_local const pthread_mutex_t *ldap_posts_wait_for = nullptr;

void ldap_event_reset(LDAPEvent *e) { e->state.store(0, std::memory_order_relaxed); }

int ldap_event_wait(LDAPEvent *e, const LDAPDeadline &until)
{
    for (;;) {
        int seen = 0;
        if (!e->state.compare_exchange_strong(seen, 2, std::memory_order_acquire) && seen == 1)
            return 0;
        // An absolute time on the monotonic clock, as the deadline is.
        if (futex(&e->state, FUTEX_WAIT_BITSET, 2, until.limited ? &until.at : nullptr) != 0 &&
            errno == ETIMEDOUT)
            return ETIMEDOUT;
    }
}

void ldap_event_post_after_unlock(LDAPEvent *e, const pthread_mutex_t *lock)
{
    if (ldap_posts_wait_for != lock && ldap_posts_wait_for != nullptr)
        ldap_deliver_posts_slow();
    if (deferred_count == MAX_DEFERRED_POSTS) {
        post_now(e);
        return;
    }
    e->posts_in_flight.fetch_add(1, std::memory_order_relaxed);
    deferred[deferred_count++] = e;
    ldap_posts_wait_for = lock;
}

void ldap_deliver_posts_slow()
{
    int n = deferred_count;
    deferred_count = 0;
    ldap_posts_wait_for = nullptr;
    for (int i = 0; i < n; ++i) {
        post_now(deferred[i]);
        deferred[i]->posts_in_flight.fetch_sub(1, std::memory_order_release);
    }
}

void ldap_event_retire(LDAPEvent *e)
{
    while (e->posts_in_flight.load(std::memory_order_acquire) != 0)
        sched_yield();
}

void ldap_trace_lock_failure(const char *module, int line, int err)
{
    LDAP_TRACE(LDAP_TRC_ERROR, "Error in pthread_mutex_lock at File %s, Line %d, errno %d\n", module,
               line, err);
}

void ldap_trace_unlock_failure(const char *module, int line, int err)
{
    LDAP_TRACE(LDAP_TRC_ERROR, "Error in pthread_mutex_unlock at File %s, Line %d, errno %d\n",
               module, line, err);
}

int ldap_mutex_lock(pthread_mutex_t *m, const char *module, int line)
{
    int err = pthread_mutex_lock(m);
    if (err != 0) {
        ldap_trace_lock_failure(module, line, err);
        return LDAP_LOCK_ERROR;
    }
    return 0;
}

void ldap_mutex_unlock(pthread_mutex_t *m, const char *module, int line)
{
    int err = pthread_mutex_unlock(m);
    if (err != 0)
        ldap_trace_unlock_failure(module, line, err);
    ldap_deliver_posts_on_unlock(m);
}

LockGuard::LockGuard(pthread_mutex_t *mutex, const char *module, int line)
    : mutex_(mutex), module_(module), line_(line)
{
    rc_ = ldap_mutex_lock(mutex_, module_, line_);
    held_ = rc_ == 0;
}

LockGuard::LockGuard(pthread_mutex_t *mutex, const LDAPDeadline &until, const char *module,
                     int line)
    : mutex_(mutex), module_(module), line_(line)
{
    rc_ = ldap_mutex_lock_until(mutex_, until, module_, line_);
    held_ = rc_ == 0;
}

LockGuard::~LockGuard() { unlock(); }

void LockGuard::unlock()
{
    if (held_) {
        held_ = false;
        ldap_mutex_unlock(mutex_, module_, line_);
    }
}

int LockGuard::relock()
{
    if (!held_) {
        rc_ = ldap_mutex_lock(mutex_, module_, line_);
        held_ = rc_ == 0;
    }
    return rc_;
}

void ldap_init_all_mutex_once()
{
    struct Named {
        pthread_mutex_t *m;
        const char *name;
    };
    const Named all[] = {{&config_mutex, "config"},
                         {&defaults_mutex, "defaults"},
                         {&ssl_mutex, "ssl"},
                         {&charset_mutex, "charset"}};
    for (const Named &n : all) {
        int err = pthread_mutex_init(n.m, nullptr);
        if (err != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "ldap_init_all_mutex_once: pthread_mutex_init failed at File %s, Line %d, "
                       "errno %d\n",
                       MODULE, __LINE__, err);
            return;
        }
        LDAP_TRACE(LDAP_TRC_MUTEX, "MUTEX %p %s %d\n", static_cast<void *>(n.m), n.name, __LINE__);
    }
}

pthread_mutex_t *ldap_config_mutex()
{
    ensure_process_mutexes();
    return &config_mutex;
}

void ldap_lock_config() { lock_process_mutex(&config_mutex, __LINE__); }
void ldap_unlock_config() { ldap_mutex_unlock(&config_mutex, MODULE, __LINE__); }
void ldap_lock_defaults() { lock_process_mutex(&defaults_mutex, __LINE__); }
void ldap_unlock_defaults() { ldap_mutex_unlock(&defaults_mutex, MODULE, __LINE__); }
void ldap_lock_ssl() { lock_process_mutex(&ssl_mutex, __LINE__); }
pthread_mutex_t *ldap_ssl_mutex()
{
    ensure_process_mutexes();
    return &ssl_mutex;
}
void ldap_unlock_ssl() { ldap_mutex_unlock(&ssl_mutex, MODULE, __LINE__); }
void ldap_lock_charset() { lock_process_mutex(&charset_mutex, __LINE__); }
void ldap_unlock_charset() { ldap_mutex_unlock(&charset_mutex, MODULE, __LINE__); }
