// Which threads are inside an operation on which handle, noted without an atomic
// read-modify-write: the bookkeeping behind ldap_start_operation/ldap_end_operation.
#ifndef WZR_LIBLDAP_LDAP_INFLIGHT_H
#define WZR_LIBLDAP_LDAP_INFLIGHT_H

#include <cstdint>

struct ldap;

// Notes that this thread is inside an operation on `ld`. False when it cannot be noted here
// (no process-wide barrier on this kernel, or operations nested too deep): the caller then
// counts the operation on the handle instead.
bool ldap_inflight_enter(struct ldap *ld);
// Takes back this thread's innermost note if it is of `ld`; false when there is none.
bool ldap_inflight_leave(struct ldap *ld);
// Makes every thread of the process pass a full memory barrier. After it, a note made before
// that thread's last look at an unbind flag is visible here, and a thread that had not looked
// yet sees the flag.
void ldap_inflight_barrier();
// How many notes of `ld` the threads hold.
uint32_t ldap_inflight_count(const struct ldap *ld);

#endif
