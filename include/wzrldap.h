/* wzrldap: the public interface of libwzr9ldap_64.so.
 * Declares the exported wzr_ldap_* functions and the standard LDAP client types and
 * constants they take. Usable from C (C99 and later) and C++. */
#ifndef WZRLDAP_H
#define WZRLDAP_H

#include <stddef.h>
#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque records owned by the library. */
typedef struct ldap LDAP;
typedef struct ldapmsg LDAPMessage;
typedef struct berelement BerElement;

/* A counted byte string; the holder owns bv_val. */
struct berval {
    unsigned long bv_len;
    char *bv_val;
};
typedef struct berval BerValue;

/* One modification of ldap_add_s / ldap_modify_s. With LDAP_MOD_BVALUES in mod_op the
 * values are berval pointers (mod_bvalues), else NUL-terminated strings (mod_values). */
typedef struct ldapmod {
    int mod_op;
    char *mod_type;
    union {
        char **modv_strvals;
        struct berval **modv_bvals;
    } mod_vals;
} LDAPMod;
#define mod_values mod_vals.modv_strvals
#define mod_bvalues mod_vals.modv_bvals

#define LDAP_MOD_ADD 0x00
#define LDAP_MOD_DELETE 0x01
#define LDAP_MOD_REPLACE 0x02
#define LDAP_MOD_BVALUES 0x80

/* A parsed LDAP URL (ldap://host:port/dn?attrs?scope?filter). */
typedef struct ldap_url_desc {
    char *lud_scheme;
    char *lud_host;
    int lud_port;
    char *lud_dn;
    char **lud_attrs;
    int lud_scope;
    char *lud_filter;
    char *lud_string;
} LDAPURLDesc;

#define LDAP_PORT 389
#define LDAPS_PORT 636
#define LDAP_VERSION2 2
#define LDAP_VERSION3 3

#define LDAP_SCOPE_BASE 0
#define LDAP_SCOPE_ONELEVEL 1
#define LDAP_SCOPE_SUBTREE 2

#define LDAP_DEREF_NEVER 0
#define LDAP_DEREF_SEARCHING 1
#define LDAP_DEREF_FINDING 2
#define LDAP_DEREF_ALWAYS 3

#define LDAP_NO_LIMIT 0

/* Message types, as returned by wzr_ldap_msgfree. */
#define LDAP_RES_BIND 0x61
#define LDAP_RES_SEARCH_ENTRY 0x64
#define LDAP_RES_SEARCH_RESULT 0x65
#define LDAP_RES_MODIFY 0x67
#define LDAP_RES_ADD 0x69
#define LDAP_RES_DELETE 0x6b
#define LDAP_RES_MODDN 0x6d
#define LDAP_RES_MODRDN LDAP_RES_MODDN
#define LDAP_RES_COMPARE 0x6f
#define LDAP_RES_SEARCH_REFERENCE 0x73
#define LDAP_RES_EXTENDED 0x78
#define LDAP_RES_INTERMEDIATE 0x79
#define LDAP_RES_ANY (-1)

/* Option numbers of wzr_ldap_set_option. */
#define LDAP_OPT_SIZELIMIT 0
#define LDAP_OPT_TIMELIMIT 1
#define LDAP_OPT_REFERRALS 2
#define LDAP_OPT_DEREF 3
#define LDAP_OPT_RESTART 4
#define LDAP_OPT_REFHOPLIMIT 5
#define LDAP_OPT_DEBUG 6
/* Secure transport (options 7, 152, 153): the key database (a PKCS#12 or PEM file), its
 * password (when not set, the stash file named like the key database with ".sth" is read),
 * and the label of the client certificate to present. They are used when the first secure
 * connection of the process initialises the toolkit environment (an ldaps:// URL given to
 * wzr_ldap_init); a process that initialised it already keeps its settings. */
#define LDAP_OPT_SSL_KEYRING 7
#define LDAP_OPT_SSL_TIMEOUT 8
#define LDAP_OPT_REBIND_FN 9
#define LDAP_OPT_DESC 10
#define LDAP_OPT_PORT 11
#define LDAP_OPT_PROTOCOL_VERSION 17
#define LDAP_OPT_SERVER_CONTROLS 18
#define LDAP_OPT_CLIENT_CONTROLS 19
#define LDAP_OPT_API_INFO 20
#define LDAP_OPT_API_FEATURE_INFO 21
#define LDAP_OPT_HOST_NAME 48
#define LDAP_OPT_ERROR_NUMBER 49
#define LDAP_OPT_ERROR_STRING 50
#define LDAP_OPT_EXT_ERROR 51
#define LDAP_OPT_UTF8_IO 52
#define LDAP_OPT_REFERRAL_HOP_LIMIT 53
#define LDAP_OPT_SASL_KRB_VERSION 54
#define LDAP_OPT_CONNECT_TIMEOUT 70
#define LDAP_OPT_SSL_KEYRING_PW 152
#define LDAP_OPT_SSL_CERT_LABEL 153
#define LDAP_OPT_BIND_FLAG 224

#define LDAP_OPT_ON ((void *)1)
#define LDAP_OPT_OFF ((void *)0)

/* Result codes: 0-80 come from the server, 81 and up from the library. */
#define LDAP_SUCCESS 0x00
#define LDAP_OPERATIONS_ERROR 0x01
#define LDAP_PROTOCOL_ERROR 0x02
#define LDAP_TIMELIMIT_EXCEEDED 0x03
#define LDAP_SIZELIMIT_EXCEEDED 0x04
#define LDAP_COMPARE_FALSE 0x05
#define LDAP_COMPARE_TRUE 0x06
#define LDAP_STRONG_AUTH_NOT_SUPPORTED 0x07
#define LDAP_STRONG_AUTH_REQUIRED 0x08
#define LDAP_PARTIAL_RESULTS 0x09
#define LDAP_REFERRAL 0x0a
#define LDAP_ADMIN_LIMIT_EXCEEDED 0x0b
#define LDAP_UNAVAILABLE_CRITICAL_EXTENSION 0x0c
#define LDAP_CONFIDENTIALITY_REQUIRED 0x0d
#define LDAP_SASL_BIND_IN_PROGRESS 0x0e
#define LDAP_NO_SUCH_ATTRIBUTE 0x10
#define LDAP_UNDEFINED_TYPE 0x11
#define LDAP_INAPPROPRIATE_MATCHING 0x12
#define LDAP_CONSTRAINT_VIOLATION 0x13
#define LDAP_TYPE_OR_VALUE_EXISTS 0x14
#define LDAP_INVALID_SYNTAX 0x15
#define LDAP_NO_SUCH_OBJECT 0x20
#define LDAP_ALIAS_PROBLEM 0x21
#define LDAP_INVALID_DN_SYNTAX 0x22
#define LDAP_IS_LEAF 0x23
#define LDAP_ALIAS_DEREF_PROBLEM 0x24
#define LDAP_INAPPROPRIATE_AUTH 0x30
#define LDAP_INVALID_CREDENTIALS 0x31
#define LDAP_INSUFFICIENT_ACCESS 0x32
#define LDAP_BUSY 0x33
#define LDAP_UNAVAILABLE 0x34
#define LDAP_UNWILLING_TO_PERFORM 0x35
#define LDAP_LOOP_DETECT 0x36
#define LDAP_SORT_CONTROL_MISSING 0x3c
#define LDAP_INDEX_RANGE_ERROR 0x3d
#define LDAP_NAMING_VIOLATION 0x40
#define LDAP_OBJECT_CLASS_VIOLATION 0x41
#define LDAP_NOT_ALLOWED_ON_NONLEAF 0x42
#define LDAP_NOT_ALLOWED_ON_RDN 0x43
#define LDAP_ALREADY_EXISTS 0x44
#define LDAP_NO_OBJECT_CLASS_MODS 0x45
#define LDAP_RESULTS_TOO_LARGE 0x46
#define LDAP_AFFECTS_MULTIPLE_DSAS 0x47
#define LDAP_OTHER 0x50
#define LDAP_SERVER_DOWN 0x51
#define LDAP_LOCAL_ERROR 0x52
#define LDAP_ENCODING_ERROR 0x53
#define LDAP_DECODING_ERROR 0x54
#define LDAP_TIMEOUT 0x55
#define LDAP_AUTH_UNKNOWN 0x56
#define LDAP_FILTER_ERROR 0x57
#define LDAP_USER_CANCELLED 0x58
#define LDAP_PARAM_ERROR 0x59
#define LDAP_NO_MEMORY 0x5a
#define LDAP_CONNECT_ERROR 0x5b
#define LDAP_NOT_SUPPORTED 0x5c
#define LDAP_CONTROL_NOT_FOUND 0x5d
#define LDAP_NO_RESULTS_RETURNED 0x5e
#define LDAP_MORE_RESULTS_TO_RETURN 0x5f
#define LDAP_URL_ERR_NOTLDAP 0x60
#define LDAP_URL_ERR_NODN 0x61
#define LDAP_URL_ERR_BADSCOPE 0x62
#define LDAP_URL_ERR_MEM 0x63
#define LDAP_CLIENT_LOOP 0x64
#define LDAP_REFERRAL_LIMIT_EXCEEDED 0x65
#define LDAP_SSL_ALREADY_INITIALIZED 0x70
#define LDAP_SSL_INITIALIZE_FAILED 0x71
#define LDAP_SSL_CLIENT_INIT_NOT_CALLED 0x72
#define LDAP_SSL_PARAM_ERROR 0x73
#define LDAP_SSL_HANDSHAKE_FAILED 0x74
#define LDAP_SSL_GET_CIPHER_FAILED 0x75
#define LDAP_SSL_NOT_AVAILABLE 0x76
#define LDAP_SSL_KEYRING_NOT_FOUND 0x77
#define LDAP_SSL_PASSWORD_NOT_SPECIFIED 0x78
#define LDAP_ASSERTION_FAILED 0x7a
#define LDAP_NO_EXPLICIT_OWNER 0x80
#define LDAP_LOCK_ERROR 0x81
#define LDAP_DNS_SERVERS_FOUND 0x85
#define LDAP_DNS_TRUNCATED 0x86
#define LDAP_DNS_INVALID_DATA 0x87
#define LDAP_DNS_RESOLVE_ERROR 0x88
#define LDAP_DNS_CONF_FILE_ERROR 0x89
#define LDAP_XLATE_OUTPUT_OVERFLOW 0xa0
#define LDAP_XLATE_INPUT_TRUNCATED 0xa1
#define LDAP_XLATE_BAD_CHARACTER 0xa2
#define LDAP_XLATE_NO_MAPPING 0xa3
#define LDAP_REGISTRY_FILE_NOT_FOUND 0xb0
#define LDAP_REGISTRY_OPEN_ERROR 0xb1
#define LDAP_REGISTRY_ENTRY_NOT_FOUND 0xb2
#define LDAP_PLUGIN_CONF_NOT_OPENED 0xc0
#define LDAP_PLUGIN_NOT_LOADED 0xc1
#define LDAP_PLUGIN_FUNC_NOT_RESOLVED 0xc2
#define LDAP_PLUGIN_NOT_INITIALIZED 0xc3
#define LDAP_PLUGIN_BIND_FAILED 0xc4
#define LDAP_GSS_INIT_SEC_CONTEXT_FAILED 0xd0

/* Identification texts of the library. */
extern const char wzr_ldap_version_ident[];
extern const char wzr_ldap_build_ident[];

/* Handles and options. */
LDAP *wzr_ldap_init(const char *host, int port);
int wzr_ldap_set_option(LDAP *ld, int option, const void *value);
int wzr_ldap_simple_bind_s(LDAP *ld, const char *dn, const char *password);
/* Waits until the operations other threads run on the handle have ended, then frees the handle
 * and closes its connections. Results already handed out stay the caller's: they remain valid
 * and are freed with wzr_ldap_msgfree after the unbind as before it. */
int wzr_ldap_unbind(LDAP *ld);

/* Errors. */
int wzr_ldap_get_errno(LDAP *ld);
const char *wzr_ldap_err2string(int code);

/* Search and results. A non-zero time-out bounds the whole call, whatever the server does:
 * when it runs out the search is abandoned and 0x55 (time-out) returned. */
int wzr_ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                       int attrsonly, struct timeval *timeout, LDAPMessage **result);
/* Frees a result chain and returns the type of its last message (0x65 for a search); needs no
 * handle, so it works after wzr_ldap_unbind of the handle that produced the result. NULL: 0. */
int wzr_ldap_msgfree(LDAPMessage *msg);
int wzr_ldap_count_entries(LDAP *ld, LDAPMessage *chain);
LDAPMessage *wzr_ldap_first_entry(LDAP *ld, LDAPMessage *chain);
LDAPMessage *wzr_ldap_next_entry(LDAP *ld, LDAPMessage *entry);
char *wzr_ldap_get_dn(LDAP *ld, LDAPMessage *entry);
char *wzr_ldap_first_attribute(LDAP *ld, LDAPMessage *entry, BerElement **cursor);
char *wzr_ldap_next_attribute(LDAP *ld, LDAPMessage *entry, BerElement *cursor);
struct berval **wzr_ldap_get_values_len(LDAP *ld, LDAPMessage *entry, const char *attr);
void wzr_ldap_value_free_len(struct berval **values);
void wzr_ldap_memfree(void *p);
void wzr_ldap_ber_free(BerElement *cursor, int freebuf);

/* Updates. */
int wzr_ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs);
int wzr_ldap_delete_s(LDAP *ld, const char *dn);
int wzr_ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods);
int wzr_ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn);

/* URLs. */
int wzr_ldap_url_parse(const char *url, LDAPURLDesc **ludpp);
void wzr_ldap_free_urldesc(LDAPURLDesc *lud);
/* Runs the search a URL describes, also on another server than the handle's. Returns 0
 * whatever the result's code (read it from *res); a time-out leaves *res NULL and 85 as the
 * handle's error (wzr_ldap_get_errno). */
int wzr_ldap_url_search_st(LDAP *ld, const char *url, int attrsonly, struct timeval *timeout,
                           LDAPMessage **res);

/* The absolute path of the loaded library file; the caller frees it with free(). */
char *wzrldap_loaded_from(void);

#ifdef __cplusplus
}
#endif

#endif /* WZRLDAP_H */
