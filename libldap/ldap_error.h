// Result-code texts and the per-thread error records of a handle.
#ifndef WZR_LIBLDAP_LDAP_ERROR_H
#define WZR_LIBLDAP_LDAP_ERROR_H

#include "ldap_int.h"

const char *ldap_err2string(int code);
const char *ldap_pwdpolicy_err2string(int code);

// The one place an error is recorded: the calling thread's record of the handle.
int ldap_set_lderrno_direct(LDAP *ld, int code, const char *matched, const char *errmsg);
int ldap_set_lderrno(LDAP *ld, int code, const char *matched, const char *errmsg);
int ldap_set_ext_error(LDAP *ld, int ext);
int ldap_get_errno_direct(LDAP *ld);
int ldap_get_errno(LDAP *ld);
int ldap_get_ext_error_direct(LDAP *ld);
int ldap_get_ext_error(LDAP *ld);
int ldap_get_lderrno_direct(LDAP *ld, char **matched, char **errmsg);
int ldap_get_lderrno(LDAP *ld, char **matched, char **errmsg);
void ldap_perror(LDAP *ld, const char *prefix);
int ldap_result2error(LDAP *ld, LDAPMessage *res, int freeit);
// ldap_result2error for a chain whose final result the caller holds already (`last`; null: it
// is found by walking the chain).
int ldap_result2error_at(LDAP *ld, LDAPMessage *res, LDAPMessage *last, int freeit);
void ldap_free_error_records(LDAPErrorRec *head);

// The calling thread's record without judging it: its code and ext error (0 without a record)
// and copies of its strings for each non-null out pointer. Returns 0, 89 (null handle),
// 90 (nothing handed out) or 129.
int ldap_read_error_record(LDAP *ld, int *code, int *ext, char **matched, char **errmsg);

// Whether the calling thread's record of `ld` holds no code and no strings. Read without the
// error lock: a record's code and strings are written only by its own thread.
bool ldap_lderrno_is_clear(LDAP *ld);

// A clean slate for the calling thread, as every public call starts with; the record is
// nearly always clear already, which costs only the look.
inline void ldap_clear_lderrno(LDAP *ld)
{
    if (ld != nullptr && !ldap_lderrno_is_clear(ld))
        (void)ldap_set_lderrno_direct(ld, 0, nullptr, nullptr); // nothing to undo if it fails
}

// Records code (no matched DN, no message) and returns it: `return ldap_fail(ld, 89);`
inline int ldap_fail(LDAP *ld, int code)
{
    (void)ldap_set_lderrno_direct(ld, code, nullptr, nullptr);
    return code;
}

// The code of a failure on `ber`: 90 when memory ran out (ber_out_of_memory), else `code`
// (0 stays 0). Whatever a decoder, an encoder or the PDU reader failed on, a lack of memory is
// reported as such: a "decoding error", "bad filter" or "server down" would send the caller
// after a fault that is not there.
inline int ldap_ber_failure(const BerElement *ber, int code)
{
    return code != 0 && ber_out_of_memory(ber) ? LDAP_NO_MEMORY : code;
}

// Records the code of a failure on `ber` (above) and returns it.
inline int ldap_fail(LDAP *ld, int code, const BerElement *ber)
{
    return ldap_fail(ld, ldap_ber_failure(ber, code));
}

// Records code like ldap_fail unless the thread's record holds that code already, so that a
// message recorded with it where the failure was seen (a handshake's reason) survives the
// layers the failure passes on its way out.
inline int ldap_fail_once(LDAP *ld, int code)
{
    int have = 0, ext = 0;
    if (ldap_read_error_record(ld, &have, &ext, nullptr, nullptr) == 0 && have == code)
        return code;
    return ldap_fail(ld, code);
}

#endif
