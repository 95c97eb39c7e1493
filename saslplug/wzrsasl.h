/* wzrsasl: the SASL plug-in of wzrldap, built on Cyrus SASL (libsasl2). It serves every
 * mechanism Cyrus offers on the machine (PLAIN, DIGEST-MD5, SCRAM-SHA-1, SCRAM-SHA-256,
 * GSSAPI, ...) and negotiates no security layer: confidentiality is TLS's business.
 *
 * Configuration: one line per mechanism in qrvldap.conf (see qrvldap.conf.sample), e.g.
 *     plugin sasl SCRAM-SHA-256 /usr/lib/x86_64-linux-gnu/libwzrsasl.so ldap_plugin_init realm=EX
 *
 * Who authenticates. A bind's identity is made of words "key=value" (no blanks in a value):
 *     authcid=NAME   the authentication identity (user name)
 *     authzid=ID     the authorisation identity to assume ("dn:..." or "u:..."), optional
 *     realm=REALM    the realm (DIGEST-MD5), optional
 *     host=NAME      the server's host name for the service (ldap/NAME), default: the host the
 *                    handle connects to
 * The words of the configuration line (its arguments) come first; then the bind's DN: a DN
 * that starts with one of the keys is read as words that override them, any other non-empty
 * DN is the authentication identity itself. The bind's credentials are the password. GSSAPI
 * takes its identity from the Kerberos credential cache (KRB5CCNAME) and no DN.
 *
 * Results. The server's result code is the bind's; Cyrus's own failures become LDAP codes
 * (wzrsasl_ldap_code) with Cyrus's text as the error message when the server gave none. */
#ifndef WZRSASL_H
#define WZRSASL_H

#ifdef __cplusplus
extern "C" {
#endif

#define WZRSASL_FIELD_MAX 256

struct wzrsasl_identity {
    char authcid[WZRSASL_FIELD_MAX];
    char authzid[WZRSASL_FIELD_MAX];
    char realm[WZRSASL_FIELD_MAX];
    char host[WZRSASL_FIELD_MAX];
};

/* Reads "key=value" words into `id` (later words win). 0, or 89 for an unknown key, a word
 * without "=" or a value too long. */
int wzrsasl_parse_words(const char *words, struct wzrsasl_identity *id);
/* The identity of a bind from the plug-in's arguments and the bind's DN (either may be NULL);
 * `id` is cleared first. 0 or 89. */
int wzrsasl_bind_identity(const char *args, const char *dn, struct wzrsasl_identity *id);
/* The LDAP result code for a Cyrus SASL result (SASL_OK is 0). */
int wzrsasl_ldap_code(int sasl_result);

#ifdef __cplusplus
}
#endif

#endif
