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

namespace {
constexpr int SLOTS = 8;

// One thread's notes, innermost last. The registry links every thread's record while the
// thread lives; records are read by other threads only under the registry lock.
struct Notes {
    std::atomic<const ldap *> held[SLOTS];
    int depth;   // this thread only
    bool linked; // this thread only
    Notes *prev; // registry_lock
    Notes *next; // registry_lock
};

pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;
Notes *registry = nullptr; // registry_lock

// Plain data in the initial TLS block: every call of the API reaches it, and the general TLS
// model would cost a lookup call each time.
__attribute__((tls_model("initial-exec"))) thread_local Notes my;

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
        (my.prev != nullptr ? my.prev->next : registry) = my.next;
        if (my.next != nullptr)
            my.next->prev = my.prev;
        my.linked = false;
        pthread_mutex_unlock(&registry_lock);
    }
};

// Links this thread's notes into the registry; null when that cannot be done.
Notes *link_my_notes()
{
    thread_local UnlinkAtExit unlinker;
    if (pthread_once(&setup_once, set_up) != 0 || !barrier_ready || unlinker.armed ||
        pthread_mutex_lock(&registry_lock) != 0)
        return nullptr; // an ending thread's notes are not linked again
    unlinker.armed = true;
    my.prev = nullptr;
    my.next = registry;
    if (registry != nullptr)
        registry->prev = &my;
    registry = &my;
    my.linked = true;
    pthread_mutex_unlock(&registry_lock);
    return &my;
}
// This thread's notes, linked on first use.
inline Notes *my_notes() { return my.linked ? &my : link_my_notes(); }
} // namespace

bool ldap_inflight_enter(ldap *ld)
{
    Notes *n = my_notes();
    if (n == nullptr || n->depth == SLOTS)
        return false;
    // A plain store: the unbind's barrier orders it against this thread's look at the flag.
    n->held[n->depth++].store(ld, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return true;
}

bool ldap_inflight_leave(ldap *ld)
{
    Notes *n = my_notes();
    if (n == nullptr || n->depth == 0 || n->held[n->depth - 1].load(std::memory_order_relaxed) != ld)
        return false;
    // Release: whatever the operation did to the handle happens before an unbind that reads
    // the cleared slot frees it.
    n->held[--n->depth].store(nullptr, std::memory_order_release);
    return true;
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
    for (const Notes *n = registry; n != nullptr; n = n->next)
        for (const auto &slot : n->held)
            count += slot.load(std::memory_order_acquire) == ld;
    pthread_mutex_unlock(&registry_lock);
    return count;
}
