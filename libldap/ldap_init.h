// Handle creation (ldap_init, ldap_open), connection records, the operation bracket and
// the handle-level FBER allocator.
#ifndef WZR_LIBLDAP_LDAP_INIT_H
#define WZR_LIBLDAP_LDAP_INIT_H

#include "ldap_deadline.h"
#include "ldap_int.h"

LDAP *ldap_init(const char *host, int port);
LDAP *ldap_open(const char *host, int port);
LDAPConn *ldap_lc_init(const char *host, int port, unsigned table_rows);
// Write lock of lc held. Keeps to the connect time-out (option 70) and to `until`.
[[nodiscard]] int open_ldap_connection(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until = {});

[[nodiscard]] int ldap_start_operation(LDAP *ld); // 0, 89 or 129
void ldap_end_operation(LDAP *ld);
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
