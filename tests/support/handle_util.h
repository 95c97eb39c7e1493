// Handles for tests of one handle's state: a real one on localhost (never connected) and a
// bare record with only its locks, so that allocation walks count one module's own blocks.
#ifndef WZR_TESTS_SUPPORT_HANDLE_UTIL_H
#define WZR_TESTS_SUPPORT_HANDLE_UTIL_H

#include <cstring>

#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_unbind.h"

namespace wzrtest {

struct Handle {
    LDAP *ld = ldap_init("localhost", 0);
    Handle() = default;
    Handle(const Handle &) = delete;
    Handle &operator=(const Handle &) = delete;
    ~Handle() { (void)ldap_unbind(ld); }
};

struct BareHandle {
    LDAP ld{};
    // `eye` other than the handle's own makes the record an invalid handle.
    explicit BareHandle(const char *eye = LDAP_EYE_HANDLE)
    {
        memcpy(ld.ld_eyecatcher, eye, sizeof ld.ld_eyecatcher);
        pthread_mutex_init(&ld.ld_mutex, nullptr);
        pthread_mutex_init(&ld.ld_errlock, nullptr);
        pthread_cond_init(&ld.ld_ops_ended, nullptr);
    }
    BareHandle(const BareHandle &) = delete;
    BareHandle &operator=(const BareHandle &) = delete;
    ~BareHandle()
    {
        ldap_free_error_records(ld.ld_errors);
        pthread_cond_destroy(&ld.ld_ops_ended);
        pthread_mutex_destroy(&ld.ld_errlock);
        pthread_mutex_destroy(&ld.ld_mutex);
    }
};

} // namespace wzrtest

#endif
