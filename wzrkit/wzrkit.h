/* Wzrkit: the secure-socket toolkit the LDAP library loads at run time. Four shared objects,
 * libwzr<major>{ssl,sys,cms,iccs}_64.so; the 18 entry points below live in the ssl one. This
 * implementation runs on OpenSSL 3: environments hold the trust and key material, secure
 * sockets run TLS over raw I/O callbacks that the caller installs. */
#ifndef WZRKIT_WZRKIT_H
#define WZRKIT_WZRKIT_H

#ifdef __cplusplus
extern "C" {
#endif

#define WZRKIT_MAJOR 8

#define WZRKIT_EXPORT __attribute__((visibility("default")))

typedef void *wzr_handle; /* an environment or a secure socket */

/* Return codes (0 is success). */
enum {
    WZR_OK = 0,
    WZR_ERR_INVALID_HANDLE = 1,
    WZR_ERR_INTERNAL = 3,
    WZR_ERR_NO_MEMORY = 4,
    WZR_ERR_INVALID_STATE = 5,
    WZR_ERR_LABEL_NOT_FOUND = 6,
    WZR_ERR_VALIDATING_CERT = 8,
    WZR_ERR_KEYFILE_IO = 102,
    WZR_ERR_KEYFILE_FORMAT = 103,
    WZR_ERR_BAD_PASSWORD = 106,
    WZR_ERR_NO_PASSWORD = 201,
    WZR_ERR_KEYRING_OPEN = 202,
    WZR_ERR_NO_CIPHERS = 402,
    WZR_ERR_NO_CERTIFICATE = 403,
    WZR_ERR_IO = 406,
    WZR_ERR_BAD_MESSAGE = 410,
    WZR_ERR_UNSUPPORTED = 412,
    WZR_ERR_BAD_CERT_SIGNATURE = 413,
    WZR_ERR_BAD_CERTIFICATE = 414, /* chain not trusted */
    WZR_ERR_BAD_PEER = 415,        /* name not in the certificate */
    WZR_ERR_SELF_SIGNED = 417,
    WZR_ERR_SOCKET_CLOSED = 420,
    WZR_ERR_INIT_FAILED = 426,
    WZR_ERR_NO_PRIVATE_KEY = 428,
    WZR_ERR_PKCS11_NOT_LOADED = 429,     /* the PKCS#11 library cannot be loaded */
    WZR_ERR_PKCS11_LABEL_MISMATCH = 430, /* tokens are present, none with the label */
    WZR_ERR_PKCS11_NO_TOKEN = 431,       /* no token is present at all */
    WZR_ERR_PKCS11_BAD_PASSWORD = 432,   /* the token refused the password */
    WZR_ERR_WOULD_BLOCK = 502,
    WZR_ERR_INVALID_ATTRIBUTE = 701,
    WZR_ERR_INVALID_LENGTH = 702,
    WZR_ERR_INVALID_ENUM = 703,
    WZR_ERR_INVALID_NUMERIC = 705
};

/* Buffer attributes (wzr_attribute_set_buffer / _get_buffer). A length of 0 means a
 * NUL-terminated string. On a socket they override the environment's value. */
enum {
    WZR_USER_DATA = 200,          /* opaque record copied and handed to the I/O callbacks */
    WZR_KEYRING_FILE = 201,       /* key database: PKCS#12 (.p12/.pfx/.kdb) or PEM */
    WZR_KEYRING_PW = 202,         /* its password (never readable back) */
    WZR_KEYRING_LABEL = 203,      /* label (friendly name) of the client certificate */
    WZR_KEYRING_STASH_FILE = 204, /* file holding the password */
    WZR_V3_CIPHER_SPECS = 205,    /* SSL V3 / TLS 1.0 suites as two-hex-digit codes */
    WZR_TLS11_CIPHER_SPECS = 206, /* comma-separated suite names */
    WZR_TLS12_CIPHER_SPECS = 207, /* comma-separated suite names (TLS 1.2 and 1.3) */
    WZR_PEER_NAME = 208,          /* host name or address the peer must prove */
    WZR_NEGOTIATED_CIPHER = 209,  /* get only */
    WZR_NEGOTIATED_PROTOCOL = 210, /* get only */
    WZR_LAST_ERROR_TEXT = 211,    /* get only: what went wrong in the last call */
    WZR_CRYPTO_BASE = 212,        /* FIPS: the provider configuration to load */
    WZR_PKCS11_LIBRARY = 213,     /* the token's PKCS#11 library (path or name) */
    WZR_PKCS11_TOKEN_LABEL = 214, /* the label of the token to use */
    WZR_PKCS11_TOKEN_PW = 215     /* its user PIN (never readable back) */
};

/* Numeric attributes: the descriptor of a socket; the PKCS#11 modes of an environment.
 * Key storage 1: client keys live in the token named above. At initialisation each private
 * key of the token joins the key database under its own label, with the key database's
 * certificate for its public key (or else the token's); the key never leaves the token.
 * Accelerator mode (0-7) asks for bulk cryptography in the device: OpenSSL offers no way to
 * route it there, so any mode but 0 fails the initialisation with WZR_ERR_UNSUPPORTED. */
enum { WZR_FD = 300, WZR_PKCS11_KEY_STORAGE = 301, WZR_PKCS11_ACCEL_MODE = 302 };

/* The raw I/O callbacks (wzr_attribute_set_callback, attribute WZR_IO_CALLBACK). They return
 * the bytes moved, 0 at the end of the stream, or -1 with errno (EAGAIN: would block). */
enum { WZR_IO_CALLBACK = 100 };
typedef struct {
    int (*io_read)(int fd, void *buf, int len, void *user_data);
    int (*io_write)(int fd, const void *buf, int len, void *user_data);
} wzr_io_callbacks;

/* Switches (wzr_attribute_set_enum / _get_enum). */
enum {
    WZR_SSLV2 = 403,
    WZR_SSLV3 = 404,
    WZR_TLSV10 = 407,
    WZR_FIPS_MODE = 415,
    WZR_TLSV11 = 437,
    WZR_TLSV12 = 438
};
enum {
    WZR_SSLV2_OFF = 511,
    WZR_SSLV3_ON = 512,
    WZR_SSLV3_OFF = 513,
    WZR_TLSV10_ON = 518,
    WZR_TLSV10_OFF = 519,
    WZR_FIPS_MODE_PROCESSING_ON = 545,
    WZR_FIPS_MODE_PROCESSING_OFF = 546,
    WZR_PROTOCOL_OFF = 0, /* TLS 1.1 and 1.2 switches */
    WZR_PROTOCOL_ON = 1
};

/* Certificate information (wzr_attribute_get_cert_info): a text owned by the socket. */
enum {
    WZR_PEER_SUBJECT = 600,  /* RFC 2253 subject of the server certificate */
    WZR_PEER_ALT_NAMES = 601 /* "DNS:name,IP:address,..." */
};

WZRKIT_EXPORT int wzr_environment_open(wzr_handle *env);
WZRKIT_EXPORT int wzr_environment_close(wzr_handle *env);
WZRKIT_EXPORT int wzr_environment_init(wzr_handle env);
WZRKIT_EXPORT int wzr_secure_soc_open(wzr_handle env, wzr_handle *soc);
WZRKIT_EXPORT int wzr_secure_soc_init(wzr_handle soc);
WZRKIT_EXPORT int wzr_secure_soc_close(wzr_handle *soc);
/* buf NULL: *count receives the decrypted bytes already pending, nothing is read. */
WZRKIT_EXPORT int wzr_secure_soc_read(wzr_handle soc, void *buf, int len, int *count);
WZRKIT_EXPORT int wzr_secure_soc_write(wzr_handle soc, const void *buf, int len, int *count);
WZRKIT_EXPORT int wzr_attribute_set_buffer(wzr_handle h, int attr, const void *buf, int len);
/* The buffer stays owned by the handle until the next call that changes it. */
WZRKIT_EXPORT int wzr_attribute_get_buffer(wzr_handle h, int attr, const char **buf, int *len);
WZRKIT_EXPORT int wzr_attribute_set_callback(wzr_handle h, int attr, const void *callbacks);
WZRKIT_EXPORT int wzr_attribute_get_cert_info(wzr_handle soc, int attr, const char **text);
WZRKIT_EXPORT int wzr_attribute_set_numeric_value(wzr_handle h, int attr, int value);
WZRKIT_EXPORT int wzr_attribute_get_numeric_value(wzr_handle h, int attr, int *value);
WZRKIT_EXPORT int wzr_attribute_set_enum(wzr_handle h, int attr, int value);
WZRKIT_EXPORT int wzr_attribute_get_enum(wzr_handle h, int attr, int *value);
WZRKIT_EXPORT const char *wzr_strerror(int code);
/* 0 when the initialised environment's key database holds a certificate with that label and
 * its key; *subject (may be NULL) receives its subject, owned by the environment. */
WZRKIT_EXPORT int wzr_get_cert_by_label(wzr_handle env, const char *label, const char **subject);

#ifdef __cplusplus
}
#endif
#endif
