// Constructors and parsers of individual controls: paged results, sorting, virtual list view,
// assertion, matched values, proxied authorisation, password policy, transactions, chaining
// and its audit. Every constructor hands the caller a control to free with ldap_control_free;
// every parser answers 93 when the control is absent and 84 when its value is malformed.
// Groups are served by dereferencing: the members' attributes come back with the group.
#ifndef WZR_LIBLDAP_LDAP_CTRL_H
#define WZR_LIBLDAP_LDAP_CTRL_H

#include "ldap_int.h"

inline constexpr const char *LDAP_CONTROL_PAGEDRESULTS = "1.2.840.113556.1.4.319";
inline constexpr const char *LDAP_CONTROL_SORTREQUEST = "1.2.840.113556.1.4.473";
inline constexpr const char *LDAP_CONTROL_SORTRESPONSE = "1.2.840.113556.1.4.474";
inline constexpr const char *LDAP_CONTROL_VLVREQUEST = "2.16.840.1.113730.3.4.9";
inline constexpr const char *LDAP_CONTROL_VLVRESPONSE = "2.16.840.1.113730.3.4.10";
inline constexpr const char *LDAP_CONTROL_ASSERT = "1.3.6.1.1.12";
inline constexpr const char *LDAP_CONTROL_VALUESRETURNFILTER = "1.2.826.0.1.3344810.2.3";
inline constexpr const char *LDAP_CONTROL_PROXY_AUTHZ = "2.16.840.1.113730.3.4.18";
inline constexpr const char *LDAP_CONTROL_PROXYAUTH_V1 = "2.16.840.1.113730.3.4.12";
inline constexpr const char *LDAP_CONTROL_PASSWORDPOLICY = "1.3.6.1.4.1.42.2.27.8.5.1";
// The directory's own policy control (same value shapes); USE_OPENLDAP_PWDPOLICY_CONTROL with a
// value other than YES sends it instead of the one above.
inline constexpr const char *LDAP_CONTROL_PASSWORDPOLICY_NATIVE = "1.3.88.0.2.12.40";
inline constexpr const char *LDAP_CONTROL_PWEXPIRED = "2.16.840.1.113730.3.4.4";
inline constexpr const char *LDAP_CONTROL_PWEXPIRING = "2.16.840.1.113730.3.4.5";
inline constexpr const char *LDAP_CONTROL_TXN_SPEC = "1.3.6.1.1.21.2";
inline constexpr const char *LDAP_EXOP_TXN_START = "1.3.6.1.1.21.1";
inline constexpr const char *LDAP_EXOP_TXN_END = "1.3.6.1.1.21.3";
inline constexpr const char *LDAP_CONTROL_CHAINING_BEHAVIOR = "1.3.6.1.4.1.4203.666.11.3";

/* ---- shared (ldap_ctrl_common.cpp) ---- */
// A new control with a copy of `value` (null: no value). 0, 89 (no OID) or 90.
[[nodiscard]] int ldap_control_create(const char *oid, int iscritical, const struct berval *value,
                                      LDAPControl **ctrlp);
// The first control of `ctrls` with `oid`, or null.
LDAPControl *ldap_control_find(const char *oid, LDAPControl **ctrls);
// A control whose value is what `ber` holds so far. 0 or 90.
[[nodiscard]] int ldap_control_from_ber(BerElement *ber, const char *oid, int iscritical,
                                        LDAPControl **ctrlp);
// A decoder over the value of the first control `oid` of `ctrls`: 0, 93 (no such control),
// 84 (it has no value) or 90. Free the reader with fber_free.
[[nodiscard]] int ldap_control_value_reader(LDAPControl **ctrls, const char *oid,
                                            BerElement **reader);
// Whether a reader has consumed its whole value: trailing bytes make a value malformed.
bool ldap_control_value_done(const BerElement *reader);
// A control whose value is what `ber` holds, when `written` says every write succeeded; frees
// `ber` in both cases. The arguments are checked by the caller, so a failed write can only
// mean no memory (90).
[[nodiscard]] int ldap_control_finish(BerElement *ber, bool written, const char *oid,
                                      int iscritical, LDAPControl **ctrlp);
// A control whose value `write(BerElement *)` writes with the plain BER encoder (minimal
// lengths); `write` answers whether every write succeeded.
template <class Write>
[[nodiscard]] int ldap_control_write(const char *oid, int iscritical, LDAPControl **ctrlp,
                                     Write write)
{
    *ctrlp = nullptr;
    BerElement *ber = der_alloc();
    if (ber == nullptr)
        return LDAP_NO_MEMORY;
    return ldap_control_finish(ber, write(ber), oid, iscritical, ctrlp);
}
// A control whose value is `fmt` written with the plain BER encoder.
template <class... Args>
[[nodiscard]] int ldap_control_encode(const char *oid, int iscritical, LDAPControl **ctrlp,
                                      const char *fmt, Args... args)
{
    return ldap_control_write(oid, iscritical, ctrlp, [&](BerElement *ber) {
        return ber_printf(ber, fmt, args...) != -1;
    });
}

/* ---- paged results (ldap_ctrl_paging.cpp) ---- */
int ldap_create_page_control(LDAP *ld, int pagesize, const struct berval *cookie, char iscritical,
                             LDAPControl **ctrlp);
// From a response's control list: the server's estimate of the total and the cookie (an empty
// cookie, bv_len 0, ends the search; free it with ber_bvfree).
int ldap_parse_page_control(LDAP *ld, LDAPControl **ctrls, int *countp, struct berval **cookiep);
// Called with every page of a paged search, in order; a non-zero return stops the search with
// that code. The page is the callback's to keep or free (ldap_msgfree).
using LDAPPageFn = int (*)(void *arg, LDAP *ld, LDAPMessage *page);
// Runs a whole paged search: pages of `pagesize` entries until the server's cookie is empty.
// `serverctrls` go with every page (a paged-results control among them is refused, 89). The
// time-out bounds the whole search. Returns the final search result's code (or the callback's).
int ldap_search_paged_np(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                         int attrsonly, LDAPControl **serverctrls, int pagesize,
                         struct timeval *timeout, LDAPPageFn on_page, void *arg);

/* ---- sorting and virtual list view (ldap_ctrl_sort.cpp) ---- */
struct LDAPSortKey {
    char *attributeType;
    char *orderingRule; // null: the attribute's own ordering
    int reverseOrder;
};
// Parses "[-]attr[:rule] [-]attr[:rule] ..." (blank-separated). 0, 89 (malformed) or 90.
int ldap_create_sort_keylist(LDAPSortKey ***sortKeyList, const char *keyString);
void ldap_free_sort_keylist(LDAPSortKey **sortKeyList);
int ldap_create_sort_control(LDAP *ld, LDAPSortKey **keyList, char iscritical,
                             LDAPControl **ctrlp);
// The server's sort result code and, when it names one, the attribute that failed.
int ldap_parse_sort_control(LDAP *ld, LDAPControl **ctrls, unsigned long *result,
                            char **attribute);

struct LDAPVLVInfo {
    int ldvlv_version; // 1
    unsigned long ldvlv_before_count;
    unsigned long ldvlv_after_count;
    unsigned long ldvlv_offset;            // target by offset when ldvlv_attrvalue is null
    unsigned long ldvlv_count;             // the client's estimate of the list size
    struct berval *ldvlv_attrvalue;        // target: first entry >= this value
    struct berval *ldvlv_context;          // the server's context from the last response
    void *ldvlv_extradata;
};
int ldap_create_vlv_control(LDAP *ld, const LDAPVLVInfo *info, LDAPControl **ctrlp);
int ldap_parse_vlv_control(LDAP *ld, LDAPControl **ctrls, unsigned long *target_posp,
                           unsigned long *list_countp, struct berval **contextp, int *errcodep);

/* ---- assertion and matched values (ldap_ctrl_filter.cpp) ---- */
// The filters are read as a search filter is: 87 when they cannot be encoded.
int ldap_create_assertion_control(LDAP *ld, const char *filter, char iscritical,
                                  LDAPControl **ctrlp);
// "(item)" or "((item)(item)...)": simple items only (no AND, OR, NOT, no dn marker).
int ldap_create_matchedvalues_control(LDAP *ld, const char *filter, char iscritical,
                                      LDAPControl **ctrlp);

/* ---- proxied authorisation (ldap_ctrl_proxy.cpp) ---- */
// Version 2: `authzid` is "dn:<DN>", "u:<user>" or "" (anonymous). Always critical.
int ldap_create_proxied_authorization_control(LDAP *ld, const char *authzid, LDAPControl **ctrlp);
// Version 1: a bare DN (the older draft; its servers expect it critical).
int ldap_create_proxyauth_control(LDAP *ld, const char *dn, char iscritical, LDAPControl **ctrlp);

/* ---- password policy (ldap_ctrl_pwdpolicy.cpp) ---- */
// USE_OPENLDAP_PWDPOLICY_CONTROL chooses the control sent and the response controls read:
// unset: the draft's control (LDAP_CONTROL_PASSWORDPOLICY) is sent; its response, else the
// native one, else the older expired/expiring pair is read. "YES": the draft's control is
// sent and only its response read. Any other value: the native control is sent and its
// response read, else the older pair. Read once per process.
int ldap_create_passwordpolicy_control(LDAP *ld, LDAPControl **ctrlp);
// A password-policy response, read into the condition codes of ldap_pwdpolicy_err2string:
// *warning 0 (none), 1 (seconds before expiration) or 2 (grace logins), with its number in
// *warnvalue; *error 0 (none) or 3..11 (the server's error 0..8 plus 3).
int ldap_parse_passwordpolicy_control(LDAP *ld, LDAPControl **ctrls, int *warning,
                                      long *warnvalue, int *error);

/* ---- groups: dereferencing members (ldap_ctrl_deref.cpp) ---- */
// A search that returns groups can return, with each group entry, attributes of the entries
// its member attributes name: one request per DN-valued attribute to follow.
inline constexpr const char *LDAP_CONTROL_DEREF = "1.3.6.1.4.1.4203.666.5.16";
struct LDAPDerefSpec {
    char *derefAttr;   // a DN-valued attribute (member, uniqueMember, manager, ...)
    char **attributes; // what to return of each entry it names
};
struct LDAPDerefVal {
    char *type;
    struct berval **vals;
    LDAPDerefVal *next;
};
struct LDAPDerefRes {
    char *derefAttr;
    char *derefVal; // the DN that was followed
    LDAPDerefVal *attrVals;
    LDAPDerefRes *next;
};
// `derefs` ends with an entry whose derefAttr is null.
int ldap_create_deref_control(LDAP *ld, const LDAPDerefSpec *derefs, char iscritical,
                              LDAPControl **ctrlp);
// From an entry's controls (ldap_get_entry_controls): one result per DN followed, in order.
int ldap_parse_deref_control(LDAP *ld, LDAPControl **ctrls, LDAPDerefRes **resp);
void ldap_derefresponse_free(LDAPDerefRes *res);

/* ---- transactions (ldap_ctrl_txn.cpp) ---- */
// Marks an update as part of the transaction `txnid` (from the start response). Critical.
int ldap_create_txn_spec_control(LDAP *ld, const struct berval *txnid, LDAPControl **ctrlp);
// The request value of the end-transaction extended operation (commit or abort).
int ldap_txn_end_request_value(LDAP *ld, int commit, const struct berval *txnid,
                               struct berval **valuep);
// The end-transaction response value: the message id of the update that failed (-1 when
// none is named).
int ldap_parse_txn_end_response_value(LDAP *ld, const struct berval *value, int *failed_msgidp);
// Starting a transaction: the asynchronous form gives the message id of the start request;
// the synchronous one the transaction's identifier in *txnidp (free with ber_bvfree; 84 when
// the server names none). Then each update of the transaction carries
// ldap_create_txn_spec_control, and the server applies them only when the end commits.
int ldap_txn_start(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls, int *msgidp);
int ldap_txn_start_s(LDAP *ld, LDAPControl **sctrls, LDAPControl **cctrls,
                     struct berval **txnidp);
// Ending it: `commit` non-zero applies the updates, 0 drops them. When the server refuses the
// commit because of one update, the synchronous form returns the server's code and puts that
// update's message id in *failed_msgidp (-1 when none is named).
int ldap_txn_end(LDAP *ld, int commit, const struct berval *txnid, LDAPControl **sctrls,
                 LDAPControl **cctrls, int *msgidp);
int ldap_txn_end_s(LDAP *ld, int commit, const struct berval *txnid, LDAPControl **sctrls,
                   LDAPControl **cctrls, int *failed_msgidp);

/* ---- chaining and its audit (ldap_ctrl_chain.cpp) ---- */
inline constexpr int LDAP_CHAINING_PREFERRED = 0;
inline constexpr int LDAP_CHAINING_REQUIRED = 1;
inline constexpr int LDAP_REFERRALS_PREFERRED = 2;
inline constexpr int LDAP_REFERRALS_REQUIRED = 3;
inline constexpr int LDAP_CHAINING_UNSET = -1;
// How the server is to treat a name it does not hold (resolve) and references it meets
// during a search (continuation): one of the four behaviours, or LDAP_CHAINING_UNSET.
int ldap_create_chaining_control(LDAP *ld, int resolve, int continuation, char iscritical,
                                 LDAPControl **ctrlp);
// Who an operation is really for, as it travels through servers and proxies: the originating
// client's address and host name (null: empty), and `identifier` in the form `format_oid`
// names (one of the three below: a user name or an accounting session's id). Never critical.
inline constexpr const char *LDAP_CONTROL_SESSION_TRACKING = "1.3.6.1.4.1.21008.108.63.1";
inline constexpr const char *LDAP_SESSION_TRACKING_ACCT_SESSION_ID = "1.3.6.1.4.1.21008.108.63.1.1";
inline constexpr const char *LDAP_SESSION_TRACKING_MULTI_SESSION_ID = "1.3.6.1.4.1.21008.108.63.1.2";
inline constexpr const char *LDAP_SESSION_TRACKING_USERNAME = "1.3.6.1.4.1.21008.108.63.1.3";
int ldap_create_session_tracking_control(LDAP *ld, const char *source_ip, const char *source_name,
                                         const char *format_oid, const struct berval *identifier,
                                         LDAPControl **ctrlp);

#endif
