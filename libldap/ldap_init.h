// Handle creation (ldap_init, ldap_open), connection records, the operation bracket and
// the handle-level FBER allocator.
#ifndef WZR_LIBLDAP_LDAP_INIT_H
#define WZR_LIBLDAP_LDAP_INIT_H

#include <cstring>

#include "ldap_deadline.h"
#include "ldap_inflight.h"
#include "ldap_int.h"

LDAP *ldap_init(const char *host, int port);
LDAP *ldap_open(const char *host, int port);
LDAPConn *ldap_lc_init(const char *host, int port, unsigned table_rows);
// Write lock of lc held. Keeps to the connect time-out (option 70) and to `until`.
[[nodiscard]] int open_ldap_connection(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until = {});

// The operation bracket: every public call on a handle runs inside one, so that an unbind never
// frees the handle under it. Inline, because a walk over one entry makes dozens of calls; the
// slow sides (an invalid handle, an unbind under way, a hold counted on the handle) are not.
inline bool ldap_handle_alive(const LDAP *ld)
{
    return ld != nullptr && memcmp(ld->ld_eyecatcher, LDAP_EYE_HANDLE, sizeof LDAP_EYE_HANDLE) == 0;
}
[[nodiscard]] int ldap_start_refused(LDAP *ld); // 89, with the hold taken back
void ldap_end_operation_slow(LDAP *ld);

// 0, or 89 for an invalid handle or one being unbound.
[[nodiscard]] inline int ldap_start_operation(LDAP *ld)
{
    if (!ldap_handle_alive(ld))
        return ldap_start_refused(ld);
    // The hold is taken before the unbind flag is read, and unbind sets the flag before it
    // looks for holds (after a barrier every thread passes, or in one total order with the
    // count): either this operation sees the flag and leaves, or the unbind sees the hold and
    // waits for it.
    if (!ldap_inflight_enter(ld))
        __atomic_add_fetch(&ld->ld_opcount, 1, __ATOMIC_SEQ_CST);
    if (__atomic_load_n(&ld->ld_unbind_started, __ATOMIC_SEQ_CST) != 0)
        return ldap_start_refused(ld);
    return 0;
}

inline void ldap_end_operation(LDAP *ld)
{
    // Once the hold is given up an unbind may free the handle, so the flag is read first.
    if (ldap_handle_alive(ld) && __atomic_load_n(&ld->ld_unbind_started, __ATOMIC_ACQUIRE) == 0 &&
        ldap_inflight_leave(ld))
        return;
    ldap_end_operation_slow(ld);
}
// Operations now bracketed on the handle, by every thread.
uint32_t ldap_operations_in_progress(const LDAP *ld);
int ldap_ld_valid(LDAP *ld); // 1 when the eyecatcher reads "LDAP HDL"
// QRVLDAP_HANDLE_INVALID_LEVEL as a level (unset, empty or negative: 0); callers cache it.
int ldap_invalid_level_from_env();

// One entry of a connection's host list as the opener reads it.
struct LDAPHostEntry {
    const char *host; // points into the list being walked
    int port;         // host order
};
// Cuts the next space-separated entry out of *cursor (writing NULs into the list) and splits
// it into host and port. An entry with two or more colons is an IPv6 address: the brackets
// are dropped and it always takes defport; once one has been seen (*seen_ipv6), later entries
// are not split at ':' either. Returns 1 for an entry, 0 at the end of the list.
int ldap_next_host_entry(char **cursor, int *seen_ipv6, int defport, LDAPHostEntry *entry);

// An FBER carrying the handle's protocol version and UTF-8 setting; small = inline size 0.
BerElement *ldap_alloc_fber(LDAP *ld, int small);
// Gives an element the handle's protocol version and UTF-8 setting, as ldap_alloc_fber does.
void ldap_fber_follow_handle(LDAP *ld, BerElement *ber);

// Scope guard for the operation bracket: ends the operation on every way out.
class OperationBracket {
public:
    explicit OperationBracket(LDAP *ld) : ld_(ld), rc_(ldap_start_operation(ld)) {}
    ~OperationBracket()
    {
        if (rc_ == 0)
            ldap_end_operation(ld_);
    }
    OperationBracket(const OperationBracket &) = delete;
    OperationBracket &operator=(const OperationBracket &) = delete;
    [[nodiscard]] int rc() const { return rc_; }

private:
    LDAP *ld_;
    int rc_;
};

#endif
