// Extended operations: the generic ExtendedRequest in its layers, the request-value builders
// of the directory's own operations, backup and restore, and the transaction requests.
#ifndef WZR_LIBLDAP_LDAP_EXTENDED_H
#define WZR_LIBLDAP_LDAP_EXTENDED_H

#include "ldap_int.h"

inline constexpr const char *LDAP_BACKUP_RESTORE_OID = "1.3.88.0.2.12.81";
inline constexpr const char *LDAP_TRAN_START_OID = "1.3.88.0.2.12.5";
inline constexpr const char *LDAP_TRAN_END_OID = "1.3.88.0.2.12.6";
inline constexpr const char *LDAP_TRAN_ID_OID = "1.3.88.0.2.12.64";

// Encodes and sends on `lc` (null: the default connection); 0 with *msgidp, or the code.
[[nodiscard]] int ldap_extended_operation_direct(LDAP *ld, const char *reqoid,
                                                 const struct berval *reqdata,
                                                 LDAPControl **serverctrls, LDAPConn *lc,
                                                 int *msgidp);
int ldap_extended_operation(LDAP *ld, const char *reqoid, const struct berval *reqdata,
                            LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp);
// Sends, waits and returns the result code; the response's name and value go to the caller
// when asked for (freed with ldap_memfree and ber_bvfree).
int ldap_extended_operation_s(LDAP *ld, const char *reqoid, const struct berval *reqdata,
                              LDAPControl **serverctrls, LDAPControl **clientctrls,
                              char **retoidp, struct berval **retdatap);

// Request values; null on any failure (traced with the builder's name).
struct berval *ldap_create_password_policy_bind_init_request(const char *bind_dn);
struct berval *ldap_create_password_policy_bind_finalize_request(const char *bind_dn, int status);
struct berval *ldap_create_locate_entry_request(const char *dn);
struct berval *ldap_create_online_backup_request(const char *path);
struct berval *ldap_create_get_file_request(int kind, const char *name);
struct berval *ldap_create_resume_role_request(int role, const char *first, const char *second);

// Online backup and restore: the operation's own result code (from the response value) goes
// to *op_result. 80 when the request could not be sent.
int ldap_backup(LDAP *ld, int *op_result);
int ldap_restore(LDAP *ld, int *op_result);
// The response value's "{i": 0 with *op_result, or 84 (a missing or undecodable value).
int decode_backup_restore_result(const struct berval *value, int *op_result);

// Transactions. Start: no value, the id comes back in *tran_id. End: commit flag and id.
// Id request: the id itself. 89 for a missing id, 90 without memory (nothing is sent then).
int ldap_start_transaction_s(LDAP *ld, struct berval **tran_id);
int ldap_end_transaction_s(LDAP *ld, const struct berval *tran_id, int commit);
int ldap_transaction_id_request_s(LDAP *ld, const struct berval *tran_id);
// The value of a transaction request: `flag` < 0 for the id alone, else its byte before it.
struct berval *createTransIDReqVal(const struct berval *tran_id, int flag);
// A copy of the transaction id carried in a response value; 0, 89 or 90.
int ldap_get_tran_id(const struct berval *response_value, struct berval **tran_id);

#endif
