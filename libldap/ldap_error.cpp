// Result codes and their texts, the password-policy condition texts, and the per-thread error
// records of a handle: each thread that uses a handle sees only its own last code, matched DN,
// message and extended error.
#include "ldap_error.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_nls.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_error";

struct CodeText {
    int32_t code;
    const char *text;
};

// Row 0 must be code 0; the walk starts at row 1. Code 16 stands between 9 and 10 on purpose:
// lookups go by code, so the order is only kept stable for whoever dumps the table.
constexpr CodeText RESULT_TEXTS[] = {
    {0x00, "Success"},
    {0x01, "Operations error"},
    {0x02, "Protocol error"},
    {0x03, "Timelimit exceeded"},
    {0x04, "Sizelimit exceeded"},
    {0x05, "Compare false"},
    {0x06, "Compare true"},
    {0x07, "Strong authentication not supported"},
    {0x08, "Strong authentication required"},
    {0x09, "Partial results and referral received"},
    {0x10, "No such attribute"},
    {0x0a, "Referral returned"},
    {0x0b, "Administration limit exceeded"},
    {0x0c, "Critical extension not supported"},
    {0x0d, "Confidentiality is required"},
    {0x0e, "SASL Bind in progress"},
    {0x11, "Undefined attribute type"},
    {0x12, "Inappropriate matching"},
    {0x13, "Constraint violation"},
    {0x14, "Type or value exists"},
    {0x15, "Invalid syntax"},
    {0x20, "No such object"},
    {0x21, "Alias problem"},
    {0x22, "Invalid DN syntax"},
    {0x23, "Object is a leaf"},
    {0x24, "Alias dereferencing problem"},
    {0x30, "Inappropriate authentication"},
    {0x31, "Invalid credentials"},
    {0x32, "Insufficient access"},
    {0x33, "DSA is busy"},
    {0x34, "DSA is unavailable"},
    {0x35, "DSA is unwilling to perform"},
    {0x36, "Loop detected"},
    {0x3c, "Sort control missing"},
    {0x3d, "Index range error"},
    {0x40, "Naming violation"},
    {0x41, "Object class violation"},
    {0x42, "Operation not allowed on nonleaf"},
    {0x43, "Operation not allowed on RDN"},
    {0x44, "Already exists"},
    {0x45, "Cannot modify object class"},
    {0x46, "Results too large"},
    {0x47, "Affects multiple DSAS"},
    {0x50, "Unknown error"},
    {0x51, "Can't contact LDAP server"},
    {0x52, "Local error"},
    {0x53, "Encoding error"},
    {0x54, "Decoding error"},
    {0x55, "Timed out"},
    {0x56, "Unknown authentication method"},
    {0x57, "Bad search filter"},
    {0x58, "User cancelled operation"},
    {0x59, "Bad parameter to an ldap routine"},
    {0x5a, "Out of memory"},
    {0x5b, "Connection error"},
    {0x5c, "Not Supported"},
    {0x5d, "Control not found"},
    {0x5e, "No results returned"},
    {0x5f, "More result to return"},
    {0x60, "URL doesn't begin with ldap://"},
    {0x61, "URL has no DN (required)"},
    {0x62, "URL scope string is invalid"},
    {0x63, "can't allocate memory space"},
    {0x64, "Client loop"},
    {0x65, "Referral limit exceeded"},
    {0x70, "ldap_ssl_client_init successfully called previously in this process."},
    {0x71, "SSL initialization call failed"},
    {0x72, "Call ldap_ssl_client_init before attempting to use an ssl connection"},
    {0x73, "An invalid ssl parameter was previously specified."},
    {0x74, "Failed to connect to ssl server."},
    {0x75, "Failed to identify the maximum SSL encryption level for this host."},
    {0x76, "The SSL library cannot be loaded."},
    {0x77, "SSL Keyring file not found"},
    {0x78, "SSL password not specified"},
    {0x7a, "The assertion filter evalues to false or undefined"},
    {0x80, "No explicit owner found"},
    {0x81, "Could not obtain lock"},
    {0x85, "LDAP servers found"},
    {0x86, "Truncated DNS results"},
    {0x87, "Invalid DNS data"},
    {0x88, "Can't resolve system domain or nameserver"},
    {0x89, "DNS Configuration file error"},
    {0xa0, "Output buffer overflow"},
    {0xa1, "Input buffer truncated"},
    {0xa2, "Unusable input character"},
    {0xa3, "No codeset point to map to"},
    {0xb0, "NT Registry file not found"},
    {0xb1, "Cannot open NT Registry"},
    {0xb2, "Cannot find NT Registry entry"},
    {0xc0, "Plugin configuration file not opened"},
    {0xc1, "Plugin library not loaded"},
    {0xc2, "Plugin function not resolved"},
    {0xc3, "Plugin library not initialized"},
    {0xc4, "Plugin function could not bind"},
    {0xd0, "gss_init_sec_context failed"},
    {-1, nullptr},
};

// Codes 1 and 2 are the response control's warnings; 3-11 its error values 0-8 plus 3. The
// two warning texts keep their "%ld" for the caller to fill.
constexpr CodeText PWDPOLICY_TEXTS[] = {
    {0, "Success"},
    {1, "Warning, time before expiration is %ld"},
    {2, "Warning, %ld grace logins remain"},
    {3, "Error, Password has expired"},
    {4, "Error, Account is locked"},
    {5, "Error, Password must be changed after reset"},
    {6, "Error, Password may not be modified"},
    {7, "Error, Must supply old password"},
    {8, "Error, Invalid password syntax"},
    {9, "Error, Password too short"},
    {10, "Error, Password too young"},
    {11, "Error, Password in History"},
    {-1, nullptr},
};

constexpr const char *UNKNOWN_TEXT = "Unknown error";

const char *lookup_text(const CodeText *table, int code)
{
    if (code == 0)
        return table[0].text;
    for (const CodeText *row = table + 1; row->code != -1; ++row) {
        if (row->code == code)
            return row->text;
    }
    return UNKNOWN_TEXT;
}

// The list head, read without the error lock. Records are only ever pushed at the head (with
// their thread and next link set before the release store below) and freed only when the
// handle is, after its last operation, so a walk from an acquired head sees complete records.
LDAPErrorRec *error_list_head(LDAP *ld)
{
    return std::atomic_ref<LDAPErrorRec *>(ld->ld_errors).load(std::memory_order_acquire);
}

// Error lock held.
void push_error_record(LDAP *ld, LDAPErrorRec *rec)
{
    rec->next = ld->ld_errors;
    std::atomic_ref<LDAPErrorRec *>(ld->ld_errors).store(rec, std::memory_order_release);
}

// The calling thread's record. Safe with or without the error lock (see error_list_head).
LDAPErrorRec *own_record(LDAP *ld)
{
    pthread_t self = pthread_self();
    for (LDAPErrorRec *rec = error_list_head(ld); rec != nullptr; rec = rec->next) {
        if (pthread_equal(rec->thread, self))
            return rec;
    }
    return nullptr;
}

// Whether recording `code` without strings would leave the caller's record as it is. Every
// public operation clears the record first and nearly always finds it clear; that needs no lock,
// because a record's code and strings are written only by its own thread (this one).
bool already_clear(LDAP *ld, int code, const char *matched, const char *errmsg)
{
    if (code != 0 || matched != nullptr || errmsg != nullptr)
        return false;
    const LDAPErrorRec *rec = own_record(ld);
    return rec != nullptr && rec->ld_errno == 0 && rec->matched == nullptr && rec->errmsg == nullptr;
}

// Copies both strings (either may be null); 0, or 90 with nothing allocated.
int copy_pair(const char *matched, const char *errmsg, char **matched_copy, char **errmsg_copy)
{
    *matched_copy = nullptr;
    *errmsg_copy = nullptr;
    if (matched != nullptr && (*matched_copy = lber_strdup(matched)) == nullptr)
        return LDAP_NO_MEMORY;
    if (errmsg != nullptr && (*errmsg_copy = lber_strdup(errmsg)) == nullptr) {
        lber_free(*matched_copy);
        *matched_copy = nullptr;
        return LDAP_NO_MEMORY;
    }
    return 0;
}

} // namespace

bool ldap_lderrno_is_clear(LDAP *ld) { return already_clear(ld, 0, nullptr, nullptr); }

int ldap_read_error_record(LDAP *ld, int *code, int *ext, char **matched, char **errmsg)
{
    if (matched != nullptr)
        *matched = nullptr;
    if (errmsg != nullptr)
        *errmsg = nullptr;
    *code = 0;
    *ext = 0;
    if (ld == nullptr)
        return LDAP_PARAM_ERROR;
    LDAP_LOCK(guard, &ld->ld_errlock, MODULE);
    if (!guard.locked())
        return guard.rc();
    LDAPErrorRec *rec = own_record(ld);
    if (rec == nullptr)
        return 0;
    *code = rec->ld_errno;
    *ext = rec->ext_error;
    char *m = nullptr;
    char *e = nullptr;
    if (copy_pair(matched != nullptr ? rec->matched : nullptr,
                  errmsg != nullptr ? rec->errmsg : nullptr, &m, &e) != 0)
        return LDAP_NO_MEMORY;
    if (matched != nullptr)
        *matched = m;
    if (errmsg != nullptr)
        *errmsg = e;
    return 0;
}

namespace {
bool is_empty(const char *s) { return s == nullptr || *s == '\0'; }

// One line of ldap_perror in the catalogue's wording (its arguments may come in another order).
void perror_line(int which, const char *prefix, const char *value)
{
    const char *args[] = {prefix, value};
    const char *fmt =
        ldap_nls_text(LDAP_NLS_SET_PERROR, which + 1, LDAP_NLS_PERROR_LINES[which]);
    char small[512];
    size_t n = ldap_nls_format(small, sizeof small, fmt, 2, args);
    char *line = n < sizeof small ? small : static_cast<char *>(lber_malloc(n + 1));
    if (line == nullptr)
        return;
    if (line != small)
        (void)ldap_nls_format(line, n + 1, fmt, 2, args);
    fputs(line, stderr);
    if (line != small)
        lber_free(line);
}
} // namespace

const char *ldap_err2string(int code)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_err2string: err(%d)\n", code);
    const char *builtin = lookup_text(RESULT_TEXTS, code);
    // A code without a row reads as code 80 does in the catalogue too.
    int number = (builtin == UNKNOWN_TEXT ? LDAP_OTHER : code) + 1;
    return ldap_nls_text(LDAP_NLS_SET_RESULTS, number, builtin);
}

const char *ldap_pwdpolicy_err2string(int code)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_pwdpolicy_err2string\n");
    return lookup_text(PWDPOLICY_TEXTS, code);
}

int ldap_set_lderrno_direct(LDAP *ld, int code, const char *matched, const char *errmsg)
{
    if (ld == nullptr)
        return LDAP_PARAM_ERROR;
    if (already_clear(ld, code, matched, errmsg))
        return 0;
    LDAP_LOCK(guard, &ld->ld_errlock, MODULE);
    if (!guard.locked())
        return guard.rc();

    LDAPErrorRec *rec = own_record(ld);
    bool fresh = rec == nullptr;
    if (fresh) {
        rec = static_cast<LDAPErrorRec *>(lber_calloc(1, sizeof(LDAPErrorRec)));
        if (rec == nullptr)
            return LDAP_NO_MEMORY;
        rec->thread = pthread_self();
    }
    char *matched_copy;
    char *errmsg_copy;
    if (copy_pair(matched, errmsg, &matched_copy, &errmsg_copy) != 0) {
        if (fresh)
            lber_free(rec);
        return LDAP_NO_MEMORY; // an existing record keeps what it held
    }
    lber_free(rec->matched);
    lber_free(rec->errmsg);
    rec->matched = matched_copy;
    rec->errmsg = errmsg_copy;
    rec->ld_errno = code;
    if (fresh)
        push_error_record(ld, rec);
    return 0;
}

int ldap_set_lderrno(LDAP *ld, int code, const char *matched, const char *errmsg)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    return ldap_set_lderrno_direct(ld, code, matched, errmsg);
}

int ldap_set_ext_error(LDAP *ld, int ext)
{
    if (ld == nullptr)
        return LDAP_PARAM_ERROR;
    LDAP_LOCK(guard, &ld->ld_errlock, MODULE);
    if (!guard.locked())
        return guard.rc();
    LDAPErrorRec *rec = own_record(ld);
    if (rec == nullptr) {
        // Left with a zero thread, so it matches no thread: callers record the result code
        // first, which creates the thread's real record.
        rec = static_cast<LDAPErrorRec *>(lber_calloc(1, sizeof(LDAPErrorRec)));
        if (rec == nullptr)
            return LDAP_NO_MEMORY;
        push_error_record(ld, rec);
    }
    rec->ext_error = ext;
    return 0;
}

int ldap_get_errno_direct(LDAP *ld)
{
    int code;
    int ext;
    int rc = ldap_read_error_record(ld, &code, &ext, nullptr, nullptr);
    return rc != 0 ? rc : code;
}

int ldap_get_errno(LDAP *ld)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    return ldap_get_errno_direct(ld);
}

int ldap_get_ext_error_direct(LDAP *ld)
{
    int code;
    int ext;
    int rc = ldap_read_error_record(ld, &code, &ext, nullptr, nullptr);
    return rc != 0 ? rc : ext;
}

int ldap_get_ext_error(LDAP *ld)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    return ldap_get_ext_error_direct(ld);
}

// A copy that cannot be made reads as 90 with no strings handed out.
int ldap_get_lderrno_direct(LDAP *ld, char **matched, char **errmsg)
{
    int code;
    int ext;
    int rc = ldap_read_error_record(ld, &code, &ext, matched, errmsg);
    return rc != 0 ? rc : code;
}

int ldap_get_lderrno(LDAP *ld, char **matched, char **errmsg)
{
    if (matched != nullptr)
        *matched = nullptr;
    if (errmsg != nullptr)
        *errmsg = nullptr;
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    return ldap_get_lderrno_direct(ld, matched, errmsg);
}

void ldap_perror(LDAP *ld, const char *prefix)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return;
    if (prefix == nullptr)
        prefix = "";
    char *matched = nullptr;
    char *errmsg = nullptr;
    int code = ldap_get_lderrno_direct(ld, &matched, &errmsg);
    perror_line(0, prefix, ldap_err2string(code));
    if (!is_empty(matched))
        perror_line(1, prefix, matched);
    if (!is_empty(errmsg))
        perror_line(2, prefix, errmsg);
    lber_free(matched);
    lber_free(errmsg);
    fflush(stderr);
}

void ldap_free_error_records(LDAPErrorRec *head)
{
    while (head != nullptr) {
        LDAPErrorRec *next = head->next;
        lber_free(head->matched);
        lber_free(head->errmsg);
        lber_free(head);
        head = next;
    }
}

// The final message of a result carries LDAPResult:
//   SEQUENCE { resultCode ENUMERATED, matchedDN LDAPDN, diagnosticMessage LDAPString, ... }
// read as "{iaa}" from a private cursor, so the message itself is not moved.
namespace {
int decode_result(LDAPMessage *msg, int *code, char **matched, char **errmsg)
{
    *matched = nullptr;
    *errmsg = nullptr;
    if (msg->lm_ber == nullptr)
        return LDAP_DECODING_ERROR;
    BerElement *cursor = ber_dup(msg->lm_ber);
    if (cursor == nullptr)
        return LDAP_NO_MEMORY;
    int decoded = 0;
    ber_tag_t tag = fber_scanf(cursor, "{iaa}", &decoded, matched, errmsg);
    int failure = ldap_ber_failure(cursor, LDAP_DECODING_ERROR);
    ber_free(cursor, 0);
    if (tag == LBER_ERROR) {
        lber_free(*matched);
        lber_free(*errmsg);
        *matched = nullptr;
        *errmsg = nullptr;
        return failure;
    }
    *code = decoded;
    return 0;
}

int record_result(LDAP *ld, LDAPMessage *res, LDAPMessage *last)
{
    if (last == nullptr)
        for (last = res; last->lm_chain != nullptr;)
            last = last->lm_chain;
    if (last->lm_msgtype == LDAP_RES_SEARCH_ENTRY || last->lm_msgtype == LDAP_RES_SEARCH_REFERENCE)
        return ldap_fail(ld, LDAP_PARAM_ERROR); // entries and references carry no result

    int code = 0;
    char *matched;
    char *errmsg;
    int rc = decode_result(last, &code, &matched, &errmsg);
    if (rc != 0)
        return ldap_fail(ld, rc);
    rc = ldap_set_lderrno_direct(ld, code, matched, errmsg);
    lber_free(matched);
    lber_free(errmsg);
    // A result that could not be recorded is reported as such, so that what the caller reads
    // back from the handle agrees with what it was told.
    return rc != 0 ? ldap_fail(ld, rc) : code;
}
} // namespace

int ldap_result2error(LDAP *ld, LDAPMessage *res, int freeit)
{
    return ldap_result2error_at(ld, res, nullptr, freeit);
}

int ldap_result2error_at(LDAP *ld, LDAPMessage *res, LDAPMessage *last, int freeit)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_result2error: ld(%p) res(%p) freeit(%d)\n",
               static_cast<void *>(ld), static_cast<void *>(res), freeit);
    if (res == nullptr) {
        int code = ldap_get_errno(ld);
        LDAP_TRACE(LDAP_TRC_API, "ldap_result2error:  errno=%d\n", code);
        return code != 0 ? code : LDAP_PARAM_ERROR;
    }
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    int code = record_result(ld, res, last);
    if (freeit)
        (void)ldap_msgfree(res); // returns the freed type, not a code
    return code;
}
