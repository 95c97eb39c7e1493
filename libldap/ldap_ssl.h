// The secure transport: the process-wide toolkit environment and its references, the public
// initialisation calls, protocol and suite selection, and secure connections with the I/O
// callbacks that carry the handshake and data time-outs.
#ifndef WZR_LIBLDAP_LDAP_SSL_H
#define WZR_LIBLDAP_LDAP_SSL_H

#include <cstdint>

#include "ldap_deadline.h"
#include "ldap_int.h"

// One toolkit environment shared by reference count: the process holds the current one and
// every secure connection the one it was opened in. count: the secure-environment lock.
struct WzrEnvRef {
    uint32_t count;
    void *env;
};

// The record the toolkit hands back to the I/O callbacks (a copy of it lives in the toolkit).
struct WzrUserData {
    int32_t key;   // -1 marks a valid record
    int32_t state; // 900 handshake, 901 read/write
    int64_t io_sec, io_usec;
    int64_t block_sec, block_usec;
    int64_t remaining_sec, remaining_usec;
    int64_t trace_level;
    int32_t protocol; // 1 secure port, 2 StartTLS
    int32_t type;     // 2 client, 1 server
    uint32_t loops, selects, total_selects, moved;
};
inline constexpr int32_t WZR_STATE_HANDSHAKE = 900;
inline constexpr int32_t WZR_STATE_READ_WRITE = 901;
inline constexpr int32_t WZR_CONN_CLIENT = 2;
inline constexpr int WZR_PROTOCOL_SSL_PORT = 1;
inline constexpr int WZR_PROTOCOL_STARTTLS = 2;

extern "C" {
int ldap_ssl_client_init(const char *keyring, const char *keyring_pw, int ssl_timeout, int *reason);
int ldap_ssl_environment_init(const char *keyring, const char *keyring_pw, int ssl_timeout,
                              int *reason);
int ldap_ssl_pkcs11_client_init(const char *keyring, const char *keyring_pw, int ssl_timeout,
                                int *reason, const char *lib_path, const char *token_label,
                                const char *token_pw, int key_storage, int accel_mode);
int ldap_ssl_pkcs11_environment_init(const char *keyring, const char *keyring_pw,
                                     int ssl_timeout, int *reason, const char *lib_path,
                                     const char *token_label, const char *token_pw,
                                     int key_storage, int accel_mode);
int ldap_ssl_start(LDAP *ld, const char *keyring, const char *keyring_pw, const char *label);
int ldap_ssl_set_fips_mode_np(int mode);
int ldap_ssl_set_suiteb_mode(int mode);
int ldap_start_tls_s_np(LDAP *ld, void *unused);
}
// The step of StartTLS after the server agreed: 0, 112 when the default connection is secure
// already, 114 without an initialised environment, or the handshake's result.
[[nodiscard]] int ldap_start_tls_handshake(LDAP *ld);
[[nodiscard]] int ldap_ssl_start_direct(LDAP *ld, const char *keyring, const char *keyring_pw,
                                        const char *label);

// References (the first two take the secure-environment lock themselves).
void deleteWzrEnvRef(WzrEnvRef *ref);
// Attaches `lc` to the current environment: 0, or 114 when no initialisation succeeded.
[[nodiscard]] int ldap_ssl_attach(LDAPConn *lc);
// For a connection of a handle set up for secure transport: initialises the environment from
// the handle's options when the process has not (112 counts as done), then attaches.
[[nodiscard]] int ldap_ssl_attach_initialising(LDAP *ld, LDAPConn *lc);

// Applies a protocol list to `target`, an environment being set up (`env_level`: with the
// suite lists, and the process list when `protocols` is null) or a secure socket; port_kind 1
// is StartTLS on the plain port. 0 or the first toolkit code.
[[nodiscard]] int setClientProtocols(void *target, bool env_level, int port_kind,
                                     const char *protocols);

// A copy of the handle's certificate label (option 153) taken under the handle mutex, or
// null without one: 0, 90 or 129.
[[nodiscard]] int ldap_ssl_copy_label(LDAP *ld, char **label);
// Runs the handshake on the connection's socket (already attached to an environment) and
// makes its Sockbuf secure. protocol: WZR_PROTOCOL_SSL_PORT or WZR_PROTOCOL_STARTTLS; `host`
// is the name the server's certificate must carry, `label` (or null) the client certificate.
// A handshake failure is recorded in the handle with its reason.
[[nodiscard]] int open_ssl_connection(LDAP *ld, LDAPConn *lc, const char *host,
                                      const char *label, int protocol, const LDAPDeadline &until);
int ldap_ssl_suiteb_mode(); // 128 or 192 while a Suite B mode is in force, else 0
void ssl_close_direct(Sockbuf *sb);
// Closes the secure socket and gives the connection's environment reference back.
void ldap_ssl_release_conn(LDAPConn *lc);

// The record for a type, filled from the environment once per process per type.
void initWzrUserData(WzrUserData *ud, int type);
// The raw I/O with the time-out rules, and the callbacks installed in the toolkit. Every wait
// in them also ends at the deadline of the call this thread is in (LDAPCallDeadlineScope).
int ssl_read(int fd, void *buf, int len, WzrUserData *ud, int *done);
int ssl_write(int fd, const void *buf, int len, WzrUserData *ud, int *done);
int client_ssl_read(int fd, void *buf, int len, void *user_data);
int client_ssl_write(int fd, const void *buf, int len, void *user_data);

// Peer and session facts of a secure connection (pointers owned by the toolkit): 0 or a code.
int getSSLCertAltName(Sockbuf *sb, const char **names);
int getSSLCipher(Sockbuf *sb, const char **cipher);
int getSSLClientLabel(Sockbuf *sb, const char **label);
int getSSLKeydatabase(Sockbuf *sb, const char **keydb);

#endif
