// Which threads are inside an operation on which handle, noted without an atomic
// read-modify-write: the bookkeeping behind ldap_start_operation/ldap_end_operation.
#ifndef WZR_LIBLDAP_LDAP_INFLIGHT_H
#define WZR_LIBLDAP_LDAP_INFLIGHT_H

#include <atomic>
#include <cstdint>

struct ldap;

inline constexpr int LDAP_INFLIGHT_SLOTS = 8;

// One thread's notes, innermost last. The registry links every thread's record while the
// thread lives; records are read by other threads only under the registry lock.
struct LDAPInflightNotes {
    std::atomic<const ldap *> held[LDAP_INFLIGHT_SLOTS];
    int depth;                // this thread only
    bool linked;              // this thread only
    LDAPInflightNotes *prev;  // registry lock
    LDAPInflightNotes *next;  // registry lock
};

// This thread's notes: plain data in the initial TLS block, constant-initialised, so that every
// call of the API reaches them without a lookup call or an initialisation check.
extern constinit thread_local LDAPInflightNotes ldap_inflight_mine
    __attribute__((tls_model("initial-exec")));

// Links this thread's notes into the registry; null when that cannot be done.
LDAPInflightNotes *ldap_inflight_link();

inline LDAPInflightNotes *ldap_inflight_notes()
{
    return ldap_inflight_mine.linked ? &ldap_inflight_mine : ldap_inflight_link();
}

// Notes that this thread is inside an operation on `ld`. False when it cannot be noted here
// (no process-wide barrier on this kernel, or operations nested too deep): the caller then
// counts the operation on the handle instead.
inline bool ldap_inflight_enter(struct ldap *ld)
{
    LDAPInflightNotes *n = ldap_inflight_notes();
    if (n == nullptr || n->depth == LDAP_INFLIGHT_SLOTS)
        return false;
    // A plain store: the unbind's barrier orders it against this thread's look at the flag.
    n->held[n->depth++].store(ld, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return true;
}

// Takes back this thread's innermost note if it is of `ld`; false when there is none.
inline bool ldap_inflight_leave(struct ldap *ld)
{
    LDAPInflightNotes *n = &ldap_inflight_mine;
    if (!n->linked || n->depth == 0 || n->held[n->depth - 1].load(std::memory_order_relaxed) != ld)
        return false;
    // Release: whatever the operation did to the handle happens before an unbind that reads
    // the cleared slot frees it.
    n->held[--n->depth].store(nullptr, std::memory_order_release);
    return true;
}

// Makes every thread of the process pass a full memory barrier. After it, a note made before
// that thread's last look at an unbind flag is visible here, and a thread that had not looked
// yet sees the flag.
void ldap_inflight_barrier();
// How many notes of `ld` the threads hold.
uint32_t ldap_inflight_count(const struct ldap *ld);

#endif
