/* wzrldap_plugin: the interface between libwzr9ldap_64.so and the plug-ins it loads.
 * Everything a plug-in author needs is in this file: the entry point, the parameter block,
 * the operations record a plug-in publishes and the services the library lends it.
 *
 * How a plug-in is found. A line of the configuration file "qrvldap.conf" (in the directory
 * named by QRVLDAP_CONF, else /opt/qrv/ldap/V6.3.1/etc, else /opt/qrv/ldap/V6.3.1) reads
 *     plugin  sasl  MECHANISM  /path/to/library.so  [entry-point  [arguments ...]]
 * Lines start with "#" for comments, fields are separated by blanks or tabs, at most 511
 * characters a line, and the arguments are the rest of the line (blanks included). The path
 * is cut at its last "." and ".so" appended. A program linked with the library's internal
 * API may also register a plug-in with ldap_register_plugin and a plugin_info record.
 *
 * How a plug-in starts. The library dlopen()s the library (RTLD_NOW | RTLD_GLOBAL) and calls
 * its entry point, LDAP_PLUGIN_DEFAULT_ENTRY unless the line names another, once for each
 * mechanism it serves, with a parameter block that holds the plug-in type (101) and its
 * arguments (102). The entry point returns 0 after it has stored a pointer to its operations
 * record under LDAP_PLUGIN_PARAM_OPS (301); any other return refuses the plug-in (195), and
 * a plug-in that stores no operations is refused with 1. The record must stay valid for the
 * life of the process: the library never unloads a plug-in.
 *
 * How a bind reaches it. A synchronous SASL bind (the library's ldap_sasl_bind_s) with a
 * mechanism that has a plug-in calls the plug-in's bind_s with a fresh block holding the
 * parameters below; its return value is the bind's result code.
 * The plug-in talks to the server only through services->sasl_bind_step, which sends one SASL
 * bind request on the connection being bound and returns the server's answer. That is the
 * handle's connection, or, when the handle chases a referral and binds again on the referred
 * server with the mechanism and credentials of its last bind, that server's connection: the
 * plug-in's bind_s is then called once more, with a fresh block, for that server. A plug-in that
 * cannot serve the bind may return LDAP_PLUGIN_DECLINED (192): the library then sends the
 * bind as a plain SASL request. An asynchronous SASL bind never goes through a plug-in.
 *
 * Threads. bind_s may run in several threads at once on different handles; a plug-in keeps
 * per-bind state on its own stack, and shared state (103) behind its own locks.
 *
 * Secrets. Credentials handed to a plug-in are the caller's; a plug-in must not log them. */
#ifndef WZRLDAP_PLUGIN_H
#define WZRLDAP_PLUGIN_H

#include "wzrldap.h"

#ifdef __cplusplus
extern "C" {
#endif

#define LDAP_PLUGIN_DEFAULT_ENTRY "ldap_plugin_init"
#define LDAP_PLUGIN_TYPE_SASL "sasl"

/* Versions of the two records below; a record with a newer version than the library knows,
 * or one smaller than its first version, is refused (195). */
#define LDAP_PLUGIN_OPS_VERSION 1
#define LDAP_PLUGIN_SERVICES_VERSION 1

/* A bind the plug-in leaves to the library (it is then sent as a plain SASL request). */
#define LDAP_PLUGIN_DECLINED 0xc0

/* Parameter numbers. Values are read with services->get_param(block, number, &out), where
 * out has the type given; every pointer read stays owned by the library and valid until the
 * plug-in's call returns. Unset parameters answer 89 and leave out alone.
 *   In the entry point's block:
 *     101 const char *  the plug-in type ("sasl")
 *     102 const char *  the plug-in's arguments (the rest of its configuration line), or NULL
 *     301 (set)         const LDAPPluginOps *: what the plug-in publishes
 *   In a bind's block:
 *     101 const char *  the plug-in type
 *     102 const char *  the plug-in's arguments, or NULL
 *     103 void *        the value the plug-in's entry point stored under 303, or NULL
 *     106 LDAP *        the handle (pass it back only to the services)
 *     107 const char *  the handle's host list, as given to wzr_ldap_init
 *     201 const char *  the bind's DN (not set for GSSAPI)
 *     202 const struct berval *  the bind's credentials, or NULL
 *     204 const char *  the mechanism
 *     205, 206 void *   the client and server controls of the bind (opaque)
 *     208 int           GSSAPI only: the handle's Kerberos version setting (option 54)
 *     310 const char *  the name of the server host the connection being bound reached (or
 *                       will reach), for the service name ldap/HOST of GSSAPI and DIGEST-MD5
 *     210 (set)         const char *: a text for the caller, copied; the library records it
 *                       as the handle's error message with the bind's result
 *     303 (set, in the entry point's block) void *: the plug-in's own value, given back as 103
 */
#define LDAP_PLUGIN_PARAM_TYPE 101
#define LDAP_PLUGIN_PARAM_ARGS 102
#define LDAP_PLUGIN_PARAM_STATE 103
#define LDAP_PLUGIN_PARAM_LD 106
#define LDAP_PLUGIN_PARAM_HOST 107
#define LDAP_PLUGIN_PARAM_DN 201
#define LDAP_PLUGIN_PARAM_CRED 202
#define LDAP_PLUGIN_PARAM_MECH 204
#define LDAP_PLUGIN_PARAM_CLIENTCTRLS 205
#define LDAP_PLUGIN_PARAM_SERVERCTRLS 206
#define LDAP_PLUGIN_PARAM_KRB_VERSION 208
#define LDAP_PLUGIN_PARAM_ERRTEXT 210
#define LDAP_PLUGIN_PARAM_OPS 301
#define LDAP_PLUGIN_PARAM_OWN_STATE 303
#define LDAP_PLUGIN_PARAM_SERVICE_HOST 310

/* Function numbers of the operations record (the library asks for a function by number). */
#define LDAP_PLUGIN_FN_CLEANUP 302
#define LDAP_PLUGIN_FN_INIT 304
#define LDAP_PLUGIN_FN_BIND_S 305
#define LDAP_PLUGIN_FN_BIND 306

typedef struct ldap_plugin_block LDAPPluginBlock;

/* What the library lends a plug-in. Every function takes the block of the current call. */
typedef struct ldap_plugin_services {
    int version; /* LDAP_PLUGIN_SERVICES_VERSION */
    /* 0, or 89 for an unknown or unset number. */
    int (*get_param)(LDAPPluginBlock *block, int number, void *out);
    /* 0, 89 for a number a plug-in may not set, 90 without memory. */
    int (*set_param)(LDAPPluginBlock *block, int number, const void *value);
    /* Sends one SASL bind request with the name `dn` (NULL: empty; SASL mechanisms carry
     * their identities in their credentials and leave it empty), the bind's mechanism (204)
     * and server controls (206) and `cred` (NULL: no credentials) on the connection being
     * bound, waits for the response and returns its result code (14 while the exchange goes
     * on, 0 when bound, the server's code otherwise, or the library's own code; 85 when the
     * caller's time-out passes). The server's SASL credentials
     * go to *servercredp (NULL when it sent none; free with free_berval), and the server's
     * diagnostic text, when there is one, is stored as parameter 210. */
    int (*sasl_bind_step)(LDAPPluginBlock *block, const char *dn, const struct berval *cred,
                          struct berval **servercredp);
    void (*free_berval)(struct berval *bv);
    /* Writes one line to the library's trace (when tracing is on), prefixed with the plug-in's
     * mechanism. Never pass a password or a key. */
    void (*trace)(LDAPPluginBlock *block, const char *text);
} LDAPPluginServices;

/* The block: the services come first; the rest is the library's. */
struct ldap_plugin_block {
    const LDAPPluginServices *services;
};

typedef int (*LDAPPluginFn)(LDAPPluginBlock *block);

/* Published under 301. Functions a plug-in does not have are NULL. */
typedef struct ldap_plugin_ops {
    int version;          /* LDAP_PLUGIN_OPS_VERSION */
    LDAPPluginFn init;    /* 304: called before a GSSAPI bind; non-zero refuses it (195) */
    LDAPPluginFn bind_s;  /* 305: a synchronous bind; returns its result code */
    LDAPPluginFn bind;    /* 306: an asynchronous bind; message id, or a negative code */
    LDAPPluginFn cleanup; /* 302: when the handle whose last bind used it is freed */
} LDAPPluginOps;

/* The entry point's type: 0 after storing the operations under 301. */
typedef int (*LDAPPluginEntry)(LDAPPluginBlock *block);

/* A plug-in described by a program rather than by the configuration file: type, mechanism,
 * library path, entry point (NULL: the default) and arguments (NULL: none). */
typedef struct plugin_info {
    char *pi_type;
    char *pi_mechanism;
    char *pi_path;
    char *pi_entry;
    char *pi_args;
} plugin_info;

#ifdef __cplusplus
}
#endif

#endif /* WZRLDAP_PLUGIN_H */
