// Ending a handle: refuse new operations, wait until those in progress have ended, then free
// everything. Nothing is sent to the server; closing the socket is the server's notice.
#include "ldap_unbind.h"

#include <cerrno>
#include <ctime>

#include "ldap_error.h"
#include "ldap_free.h"
#include "ldap_inflight.h"
#include "ldap_init.h"
#include "ldap_lock.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_unbind";
}

int ldap_unbind(LDAP *ld)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_unbind: ld(%p)\n", static_cast<void *>(ld));
    if (ld == nullptr)
        return LDAP_PARAM_ERROR;
    if (!ldap_ld_valid(ld)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_unbind: bad ld provided ld(%p)\n",
                   static_cast<void *>(ld));
        return LDAP_PARAM_ERROR;
    }
    int rc = ldap_mutex_lock(&ld->ld_mutex, MODULE, __LINE__);
    if (rc != 0)
        return ldap_fail(ld, rc);
    // From here every ldap_start_operation gives 89; after the barrier every hold taken
    // before a thread's look at the flag is visible here (see ldap_start_operation).
    __atomic_store_n(&ld->ld_unbind_started, 1, __ATOMIC_SEQ_CST);
    ldap_inflight_barrier();
    while (ldap_operations_in_progress(ld) != 0) {
        // An operation that ended just as the flag went up may not wake this wait: look again
        // every millisecond.
        struct timespec at;
        clock_gettime(CLOCK_REALTIME, &at);
        at.tv_nsec += 1'000'000;
        if (at.tv_nsec >= 1'000'000'000) {
            at.tv_sec += 1;
            at.tv_nsec -= 1'000'000'000;
        }
        int err = pthread_cond_timedwait(&ld->ld_ops_ended, &ld->ld_mutex, &at);
        if (err != 0 && err != ETIMEDOUT) {
            // The mutex stays held: the handle is unusable, and freeing it under a thread
            // that may still run an operation would be worse than leaking it.
            LDAP_TRACE(LDAP_TRC_ERROR, "ldap_unbind: pthread_cond_wait failed. errno %d\n", err);
            return LDAP_LOCK_ERROR;
        }
    }
    ldap_mutex_unlock(&ld->ld_mutex, MODULE, __LINE__);
    ldap_ld_free(ld);
    return 0;
}

int ldap_unbind_ext(LDAP *ld)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_unbind_ext\n");
    return ldap_unbind(ld);
}

int ldap_unbind_s(LDAP *ld)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_unbind_s\n");
    return ldap_unbind(ld);
}
