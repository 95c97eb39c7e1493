// Per-thread notes of the handles a thread is inside an operation on. Every public call
// brackets its work so that an unbind never frees a handle under it, and a walk over one
// entry makes dozens of calls: two atomic read-modify-writes on the handle per call were a
// tenth of such a walk's CPU. So the common path writes a slot of the thread's own with plain
// stores, and the rare unbind pays: it raises its flag, makes every thread pass a full barrier
// (membarrier), then reads all the slots (ldap_unbind).
#include "ldap_inflight.h"

#include <atomic>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

constinit thread_local LDAPInflightNotes ldap_inflight_mine{};

namespace {
pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
LDAPInflightNotes *registry = nullptr; // registry_lock

pthread_once_t setup_once = PTHREAD_ONCE_INIT;
bool barrier_ready = false; // set once, before any note is made

void set_up()
{
    barrier_ready = syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

// Touched once per thread, when its notes are linked: its destructor unlinks them as the
// thread ends (a C++ thread-local, so that the library stays loaded until it has run).
struct UnlinkAtExit {
    bool armed = false;
    ~UnlinkAtExit()
    {
        if (!armed || pthread_mutex_lock(&registry_lock) != 0)
            return;
        LDAPInflightNotes &my = ldap_inflight_mine;
        (my.prev != nullptr ? my.prev->next : registry) = my.next;
        if (my.next != nullptr)
            my.next->prev = my.prev;
        my.linked = false;
        pthread_mutex_unlock(&registry_lock);
    }
};
} // namespace

LDAPInflightNotes *ldap_inflight_link()
{
    thread_local UnlinkAtExit unlinker;
    if (pthread_once(&setup_once, set_up) != 0 || !barrier_ready || unlinker.armed ||
        pthread_mutex_lock(&registry_lock) != 0)
        return nullptr; // an ending thread's notes are not linked again
    unlinker.armed = true;
    LDAPInflightNotes &my = ldap_inflight_mine;
    my.prev = nullptr;
    my.next = registry;
    if (registry != nullptr)
        registry->prev = &my;
    registry = &my;
    my.linked = true;
    pthread_mutex_unlock(&registry_lock);
    return &my;
}

void ldap_inflight_barrier()
{
    if (barrier_ready)
        (void)syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

uint32_t ldap_inflight_count(const ldap *ld)
{
    uint32_t count = 0;
    if (pthread_mutex_lock(&registry_lock) != 0)
        return 1; // cannot tell: count as busy, and look again later
    for (const LDAPInflightNotes *n = registry; n != nullptr; n = n->next)
        for (const auto &slot : n->held)
            count += slot.load(std::memory_order_acquire) == ld;
    pthread_mutex_unlock(&registry_lock);
    return count;
}
