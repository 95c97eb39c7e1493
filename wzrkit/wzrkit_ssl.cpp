// The toolkit's ssl object and its 18 entry points: environments (trust, keys, protocols and
// suites, an OpenSSL context), secure sockets (TLS over a BIO that moves raw bytes only
// through the caller's I/O callbacks), attributes, peer certificate data and error texts.
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <new>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <pthread.h>
#include <unistd.h>

#include "wzrkit.h"
#include "wzrkit_int.h"

namespace {

constexpr unsigned ENV_MAGIC = 0x57454e56; // "WENV"
constexpr unsigned SOC_MAGIC = 0x57534f43; // "WSOC"

// The switches the caller can set; -1 means "as the environment says" on a socket.
struct Switches {
    int sslv3 = WZR_SSLV3_OFF;
    int tls10 = WZR_TLSV10_OFF;
    int tls11 = WZR_PROTOCOL_OFF;
    int tls12 = WZR_PROTOCOL_ON;
};

struct Env {
    unsigned magic = ENV_MAGIC;
    bool initialised = false;
    bool fips = false;
    OSSL_LIB_CTX *libctx = nullptr;
    SSL_CTX *ctx = nullptr;
    WzrKeyDb db;
    Switches sw;
    std::string keyring, password, stash, label, v3_ciphers, tls11_ciphers, tls12_ciphers,
        crypto_base, last_error, label_subject;
    std::string p11_library, p11_token, p11_pin;
    int p11_key_storage = 0, p11_accel_mode = 0;
    wzr_io_callbacks io{};
};

struct Soc {
    unsigned magic = SOC_MAGIC;
    Env *env = nullptr;
    SSL *ssl = nullptr;
    int fd = -1;
    bool handshaken = false;
    int io_error = 0; // errno of the last failed callback, 0 when none
    pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER; // one TLS operation at a time
    Switches sw{-1, -1, -1, -1};
    std::string user_data, label, peer_name, last_error, cert_text, negotiated;
    wzr_io_callbacks io{};
};

Env *as_env(wzr_handle h)
{
    auto *e = static_cast<Env *>(h);
    return e != nullptr && e->magic == ENV_MAGIC ? e : nullptr;
}

Soc *as_soc(wzr_handle h)
{
    auto *s = static_cast<Soc *>(h);
    return s != nullptr && s->magic == SOC_MAGIC ? s : nullptr;
}

// Plain descriptor I/O for a caller that installs no callbacks.
int plain_read(int fd, void *buf, int len, void *) { return static_cast<int>(read(fd, buf, len)); }
int plain_write(int fd, const void *buf, int len, void *)
{
    return static_cast<int>(write(fd, buf, len));
}

/* ---- the BIO over the caller's callbacks ---- */

int bio_read(BIO *bio, char *buf, int len)
{
    auto *soc = static_cast<Soc *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    errno = 0;
    int n = soc->io.io_read(soc->fd, buf, len, soc->user_data.empty() ? nullptr : soc->user_data.data());
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        BIO_set_retry_read(bio);
    else if (n < 0)
        soc->io_error = errno != 0 ? errno : EIO;
    return n;
}

int bio_write(BIO *bio, const char *buf, int len)
{
    auto *soc = static_cast<Soc *>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    errno = 0;
    int n = soc->io.io_write(soc->fd, buf, len,
                             soc->user_data.empty() ? nullptr : soc->user_data.data());
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
        BIO_set_retry_write(bio);
    else if (n < 0)
        soc->io_error = errno != 0 ? errno : EIO;
    return n;
}

long bio_ctrl(BIO *, int cmd, long, void *) { return cmd == BIO_CTRL_FLUSH ? 1 : 0; }

pthread_once_t method_once = PTHREAD_ONCE_INIT;
BIO_METHOD *callback_method = nullptr;

void make_method()
{
    callback_method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "wzrkit callbacks");
    if (callback_method == nullptr)
        return;
    BIO_meth_set_read(callback_method, bio_read);
    BIO_meth_set_write(callback_method, bio_write);
    BIO_meth_set_ctrl(callback_method, bio_ctrl);
}

/* ---- environments ---- */

int pick(int socket_value, int env_value) { return socket_value >= 0 ? socket_value : env_value; }

// The enabled range: TLS 1.2 brings TLS 1.3 with it; SSL V3 is not in OpenSSL 3 at all.
int apply_protocols(SSL_CTX *ctx, SSL *ssl, const Switches &sw)
{
    int min = 0, max = 0;
    const struct {
        bool on;
        int lo, hi;
    } levels[] = {{sw.tls10 == WZR_TLSV10_ON, TLS1_VERSION, TLS1_VERSION},
                  {sw.tls11 == WZR_PROTOCOL_ON, TLS1_1_VERSION, TLS1_1_VERSION},
                  {sw.tls12 == WZR_PROTOCOL_ON, TLS1_2_VERSION, TLS1_3_VERSION}};
    for (const auto &l : levels) {
        if (!l.on)
            continue;
        if (min == 0)
            min = l.lo;
        max = l.hi;
    }
    if (min == 0)
        return WZR_ERR_NO_CIPHERS;
    bool ok = ssl != nullptr ? SSL_set_min_proto_version(ssl, min) == 1 &&
                                   SSL_set_max_proto_version(ssl, max) == 1
                             : SSL_CTX_set_min_proto_version(ctx, min) == 1 &&
                                   SSL_CTX_set_max_proto_version(ctx, max) == 1;
    return ok ? WZR_OK : WZR_ERR_NO_CIPHERS;
}

int apply_ciphers(Env *env)
{
    if (env->v3_ciphers.empty() && env->tls11_ciphers.empty() && env->tls12_ciphers.empty())
        return WZR_OK;
    std::string list = wzrkit_cipher_list(
        env->sw.tls10 == WZR_TLSV10_ON ? env->v3_ciphers : "",
        env->sw.tls11 == WZR_PROTOCOL_ON ? env->tls11_ciphers : "",
        env->sw.tls12 == WZR_PROTOCOL_ON ? env->tls12_ciphers : "");
    if (list.empty() || SSL_CTX_set_cipher_list(env->ctx, list.c_str()) != 1) {
        ERR_clear_error();
        env->last_error = "none of the cipher suites asked for is available";
        return WZR_ERR_NO_CIPHERS;
    }
    return WZR_OK;
}

int trust(Env *env)
{
    if (env->db.system_store)
        return SSL_CTX_set_default_verify_paths(env->ctx) == 1 ? WZR_OK : WZR_ERR_INIT_FAILED;
    X509_STORE *store = SSL_CTX_get_cert_store(env->ctx);
    for (int i = 0; i < sk_X509_num(env->db.trusted); ++i)
        if (X509_STORE_add_cert(store, sk_X509_value(env->db.trusted, i)) != 1)
            ERR_clear_error(); // the same certificate twice
    return WZR_OK;
}

// PKCS#11: the token's keys join the key database; bulk cryptography stays in OpenSSL.
int use_token(Env *env)
{
    if (env->p11_accel_mode != 0) {
        env->last_error = "PKCS#11 accelerator modes are not supported: OpenSSL offers no way "
                          "to hand bulk cryptography to the device";
        return WZR_ERR_UNSUPPORTED;
    }
    if (env->p11_key_storage == 0)
        return WZR_OK;
    return wzrkit_token_load(env->p11_library, env->p11_token, env->p11_pin, &env->db,
                             &env->last_error);
}

int init_env(Env *env)
{
    env->libctx = wzrkit_crypto_context(env->fips, env->crypto_base);
    if (env->libctx == nullptr) {
        env->last_error = env->fips ? "the FIPS provider is not available" : "no crypto context";
        return WZR_ERR_INIT_FAILED;
    }
    int rc = wzrkit_keydb_load(env->libctx, env->keyring, env->password, env->stash, &env->db,
                               &env->last_error);
    if (rc == WZR_OK)
        rc = use_token(env);
    if (rc != WZR_OK)
        return rc;
    env->ctx = SSL_CTX_new_ex(env->libctx, nullptr, TLS_client_method());
    if (env->ctx == nullptr)
        return WZR_ERR_NO_MEMORY;
    SSL_CTX_set_verify(env->ctx, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_mode(env->ctx, SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_clear_mode(env->ctx, SSL_MODE_AUTO_RETRY);
    if ((rc = apply_protocols(env->ctx, nullptr, env->sw)) != WZR_OK ||
        (rc = apply_ciphers(env)) != WZR_OK)
        return rc;
    return trust(env);
}

void release_env(Env *env)
{
    SSL_CTX_free(env->ctx);
    wzrkit_keydb_free(&env->db);
    wzrkit_crypto_release(env->libctx);
    wzrkit_wipe(&env->password);
    wzrkit_wipe(&env->p11_pin);
    env->magic = 0;
    delete env;
}

/* ---- sockets ---- */

bool is_ip_address(const std::string &name)
{
    unsigned char buf[sizeof(struct in6_addr)];
    return inet_pton(AF_INET, name.c_str(), buf) == 1 || inet_pton(AF_INET6, name.c_str(), buf) == 1;
}

// The name the certificate must carry: a DNS name or an address in its alternative names.
int expect_name(Soc *soc)
{
    if (soc->peer_name.empty())
        return WZR_OK;
    if (is_ip_address(soc->peer_name))
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(soc->ssl), soc->peer_name.c_str()) == 1
                   ? WZR_OK
                   : WZR_ERR_INTERNAL;
    SSL_set_hostflags(soc->ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (SSL_set1_host(soc->ssl, soc->peer_name.c_str()) != 1 ||
        SSL_set_tlsext_host_name(soc->ssl, soc->peer_name.c_str()) != 1)
        return WZR_ERR_INTERNAL;
    return WZR_OK;
}

int use_label(Soc *soc, const std::string &label)
{
    const WzrKeyEntry *e = wzrkit_keydb_find(soc->env->db, label);
    if (e == nullptr) {
        soc->last_error = "no certificate with a private key is labelled \"" + label + "\"";
        return WZR_ERR_LABEL_NOT_FOUND;
    }
    if (SSL_use_certificate(soc->ssl, e->cert) != 1 || SSL_use_PrivateKey(soc->ssl, e->key) != 1) {
        ERR_clear_error();
        soc->last_error = "the certificate labelled \"" + label + "\" cannot be used";
        return WZR_ERR_NO_PRIVATE_KEY;
    }
    return WZR_OK;
}

// The reason a failed handshake gets: the certificate check first, then the transport.
int handshake_failure(Soc *soc)
{
    long verify = SSL_get_verify_result(soc->ssl);
    unsigned long err = ERR_peek_last_error();
    char text[256] = "";
    if (err != 0)
        ERR_error_string_n(err, text, sizeof text);
    ERR_clear_error();
    if (verify != X509_V_OK) {
        const char *why = X509_verify_cert_error_string(verify);
        switch (verify) {
        case X509_V_ERR_HOSTNAME_MISMATCH:
        case X509_V_ERR_IP_ADDRESS_MISMATCH:
            soc->last_error = "the server certificate does not name " + soc->peer_name + " (" +
                              why + ")";
            return WZR_ERR_BAD_PEER;
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
            soc->last_error = std::string("the server certificate is not trusted: ") + why;
            return WZR_ERR_SELF_SIGNED;
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            soc->last_error = std::string("the server certificate is forged: ") + why;
            return WZR_ERR_BAD_CERT_SIGNATURE;
        default:
            soc->last_error = std::string("the server certificate is not trusted: ") + why;
            return WZR_ERR_BAD_CERTIFICATE;
        }
    }
    if (soc->io_error != 0) {
        soc->last_error = std::string("the handshake failed on the transport: ") +
                          std::strerror(soc->io_error);
        return WZR_ERR_IO;
    }
    if (err == 0) {
        soc->last_error = "the server closed the connection during the handshake";
        return WZR_ERR_SOCKET_CLOSED;
    }
    soc->last_error = std::string("the server's handshake is not acceptable: ") + text;
    return WZR_ERR_BAD_MESSAGE;
}

// A failed read or write: would block, closed, or broken.
int io_failure(Soc *soc, int ret)
{
    int e = SSL_get_error(soc->ssl, ret);
    if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE)
        return WZR_ERR_WOULD_BLOCK;
    unsigned long err = ERR_peek_last_error();
    ERR_clear_error();
    if (e == SSL_ERROR_ZERO_RETURN || (e == SSL_ERROR_SYSCALL && soc->io_error == 0 && err == 0)) {
        soc->last_error = "the peer closed the connection";
        return WZR_ERR_IO;
    }
    char text[256] = "";
    if (err != 0)
        ERR_error_string_n(err, text, sizeof text);
    soc->last_error = soc->io_error != 0 ? std::strerror(soc->io_error) : text;
    return soc->io_error != 0 ? WZR_ERR_IO : WZR_ERR_BAD_MESSAGE;
}

class SocLock {
public:
    explicit SocLock(Soc *soc) : soc_(soc) { pthread_mutex_lock(&soc_->lock); }
    ~SocLock() { pthread_mutex_unlock(&soc_->lock); }
    SocLock(const SocLock &) = delete;
    SocLock &operator=(const SocLock &) = delete;

private:
    Soc *soc_;
};

/* ---- attributes ---- */

std::string as_string(const void *buf, int len)
{
    const auto *p = static_cast<const char *>(buf);
    return len > 0 ? std::string(p, static_cast<size_t>(len)) : std::string(p);
}

std::string *env_string(Env *env, int attr)
{
    switch (attr) {
    case WZR_KEYRING_FILE: return &env->keyring;
    case WZR_KEYRING_PW: return &env->password;
    case WZR_KEYRING_LABEL: return &env->label;
    case WZR_KEYRING_STASH_FILE: return &env->stash;
    case WZR_V3_CIPHER_SPECS: return &env->v3_ciphers;
    case WZR_TLS11_CIPHER_SPECS: return &env->tls11_ciphers;
    case WZR_TLS12_CIPHER_SPECS: return &env->tls12_ciphers;
    case WZR_CRYPTO_BASE: return &env->crypto_base;
    case WZR_PKCS11_LIBRARY: return &env->p11_library;
    case WZR_PKCS11_TOKEN_LABEL: return &env->p11_token;
    case WZR_PKCS11_TOKEN_PW: return &env->p11_pin;
    default: return nullptr;
    }
}

int set_soc_buffer(Soc *soc, int attr, const void *buf, int len)
{
    switch (attr) {
    case WZR_USER_DATA:
        if (len <= 0)
            return WZR_ERR_INVALID_LENGTH;
        soc->user_data.assign(static_cast<const char *>(buf), static_cast<size_t>(len));
        return WZR_OK;
    case WZR_PEER_NAME:
        soc->peer_name = as_string(buf, len);
        return WZR_OK;
    case WZR_KEYRING_LABEL: {
        std::string label = as_string(buf, len);
        int rc = use_label(soc, label);
        if (rc == WZR_OK)
            soc->label = label;
        return rc;
    }
    default:
        return WZR_ERR_INVALID_ATTRIBUTE;
    }
}

int *switch_of(Switches *sw, int attr)
{
    switch (attr) {
    case WZR_SSLV3: return &sw->sslv3;
    case WZR_TLSV10: return &sw->tls10;
    case WZR_TLSV11: return &sw->tls11;
    case WZR_TLSV12: return &sw->tls12;
    default: return nullptr;
    }
}

bool valid_switch(int attr, int value)
{
    switch (attr) {
    case WZR_SSLV2: return value == WZR_SSLV2_OFF;
    case WZR_SSLV3: return value == WZR_SSLV3_ON || value == WZR_SSLV3_OFF;
    case WZR_TLSV10: return value == WZR_TLSV10_ON || value == WZR_TLSV10_OFF;
    case WZR_TLSV11:
    case WZR_TLSV12: return value == WZR_PROTOCOL_ON || value == WZR_PROTOCOL_OFF;
    case WZR_FIPS_MODE:
        return value == WZR_FIPS_MODE_PROCESSING_ON || value == WZR_FIPS_MODE_PROCESSING_OFF;
    default: return false;
    }
}

void append_alt_names(X509 *cert, std::string *out)
{
    auto *names = static_cast<GENERAL_NAMES *>(
        X509_get_ext_d2i(cert, NID_subject_alt_name, nullptr, nullptr));
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names); ++i) {
        const GENERAL_NAME *gn = sk_GENERAL_NAME_value(names, i);
        std::string item;
        if (gn->type == GEN_DNS)
            item = "DNS:" + std::string(reinterpret_cast<const char *>(ASN1_STRING_get0_data(gn->d.dNSName)),
                                        static_cast<size_t>(ASN1_STRING_length(gn->d.dNSName)));
        else if (gn->type == GEN_IPADD) {
            char text[INET6_ADDRSTRLEN] = "";
            int n = ASN1_STRING_length(gn->d.iPAddress);
            int family = n == 4 ? AF_INET : n == 16 ? AF_INET6 : -1;
            if (family < 0 || inet_ntop(family, ASN1_STRING_get0_data(gn->d.iPAddress), text,
                                        sizeof text) == nullptr)
                continue;
            item = std::string("IP:") + text;
        } else
            continue;
        if (!out->empty())
            *out += ',';
        *out += item;
    }
    GENERAL_NAMES_free(names);
}

void subject_text(X509 *cert, std::string *out)
{
    BIO *mem = BIO_new(BIO_s_mem());
    if (mem == nullptr)
        return;
    X509_NAME_print_ex(mem, X509_get_subject_name(cert), 0, XN_FLAG_RFC2253);
    char *data = nullptr;
    long n = BIO_get_mem_data(mem, &data);
    out->assign(data, n > 0 ? static_cast<size_t>(n) : 0);
    BIO_free(mem);
}

} // namespace

// The PKCS#11 modes of an environment not yet initialised.
int set_env_numeric(Env *e, int attr, int value)
{
    if (e == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    int *slot = attr == WZR_PKCS11_KEY_STORAGE ? &e->p11_key_storage
                : attr == WZR_PKCS11_ACCEL_MODE ? &e->p11_accel_mode
                                                : nullptr;
    if (slot == nullptr)
        return WZR_ERR_INVALID_ATTRIBUTE;
    int max = attr == WZR_PKCS11_KEY_STORAGE ? 1 : 7;
    if (value < 0 || value > max)
        return WZR_ERR_INVALID_NUMERIC;
    if (e->initialised)
        return WZR_ERR_INVALID_STATE;
    *slot = value;
    return WZR_OK;
}

/* ---- the entry points ---- */

int wzr_environment_open(wzr_handle *env)
{
    if (env == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    *env = new (std::nothrow) Env;
    return *env != nullptr ? WZR_OK : WZR_ERR_NO_MEMORY;
}

int wzr_environment_close(wzr_handle *env)
{
    Env *e = env != nullptr ? as_env(*env) : nullptr;
    if (e == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    release_env(e);
    *env = nullptr;
    return WZR_OK;
}

int wzr_environment_init(wzr_handle env)
{
    Env *e = as_env(env);
    if (e == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    if (e->initialised)
        return WZR_ERR_INVALID_STATE;
    int rc = init_env(e);
    wzrkit_wipe(&e->password); // the keys are loaded; the passwords are not kept
    wzrkit_wipe(&e->p11_pin);
    if (rc != WZR_OK) {
        SSL_CTX_free(e->ctx);
        e->ctx = nullptr;
        wzrkit_keydb_free(&e->db);
        wzrkit_crypto_release(e->libctx);
        e->libctx = nullptr;
        return rc;
    }
    e->initialised = true;
    return WZR_OK;
}

int wzr_secure_soc_open(wzr_handle env, wzr_handle *soc)
{
    Env *e = as_env(env);
    if (e == nullptr || soc == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    if (!e->initialised)
        return WZR_ERR_INVALID_STATE;
    pthread_once(&method_once, make_method);
    auto *s = new (std::nothrow) Soc;
    if (s == nullptr || callback_method == nullptr) {
        delete s;
        return WZR_ERR_NO_MEMORY;
    }
    s->env = e;
    s->io = e->io.io_read != nullptr ? e->io : wzr_io_callbacks{plain_read, plain_write};
    s->ssl = SSL_new(e->ctx);
    BIO *bio = s->ssl != nullptr ? BIO_new(callback_method) : nullptr;
    if (bio == nullptr) {
        SSL_free(s->ssl);
        delete s;
        return WZR_ERR_NO_MEMORY;
    }
    BIO_set_data(bio, s);
    BIO_set_init(bio, 1);
    SSL_set_bio(s->ssl, bio, bio);
    *soc = s;
    return WZR_OK;
}

int wzr_secure_soc_init(wzr_handle soc)
{
    Soc *s = as_soc(soc);
    if (s == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    SocLock lock(s);
    if (s->handshaken || s->fd < 0)
        return WZR_ERR_INVALID_STATE;
    Switches sw = s->env->sw;
    for (int attr : {WZR_SSLV3, WZR_TLSV10, WZR_TLSV11, WZR_TLSV12})
        *switch_of(&sw, attr) = pick(*switch_of(&s->sw, attr), *switch_of(&s->env->sw, attr));
    int rc = apply_protocols(nullptr, s->ssl, sw);
    if (rc == WZR_OK && s->label.empty() && !s->env->label.empty())
        rc = use_label(s, s->env->label);
    if (rc == WZR_OK)
        rc = expect_name(s);
    if (rc != WZR_OK)
        return rc;
    s->io_error = 0;
    ERR_clear_error();
    int ret = SSL_connect(s->ssl);
    if (ret != 1) {
        int e = SSL_get_error(s->ssl, ret);
        return e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE ? WZR_ERR_WOULD_BLOCK
                                                                      : handshake_failure(s);
    }
    s->handshaken = true;
    return WZR_OK;
}

int wzr_secure_soc_close(wzr_handle *soc)
{
    Soc *s = soc != nullptr ? as_soc(*soc) : nullptr;
    if (s == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    SSL_free(s->ssl); // no close_notify: the descriptor may already be gone
    ERR_clear_error();
    pthread_mutex_destroy(&s->lock);
    s->magic = 0;
    delete s;
    *soc = nullptr;
    return WZR_OK;
}

int wzr_secure_soc_read(wzr_handle soc, void *buf, int len, int *count)
{
    Soc *s = as_soc(soc);
    if (s == nullptr || count == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    *count = 0;
    SocLock lock(s);
    if (!s->handshaken)
        return WZR_ERR_INVALID_STATE;
    if (buf == nullptr) {
        // Decrypted bytes only: a record begun but not complete is waiting for the socket.
        *count = SSL_pending(s->ssl);
        return WZR_OK;
    }
    if (len <= 0)
        return WZR_ERR_INVALID_LENGTH;
    size_t n = 0;
    s->io_error = 0;
    int ret = SSL_read_ex(s->ssl, buf, static_cast<size_t>(len), &n);
    if (ret != 1)
        return io_failure(s, ret);
    *count = static_cast<int>(n);
    return WZR_OK;
}

int wzr_secure_soc_write(wzr_handle soc, const void *buf, int len, int *count)
{
    Soc *s = as_soc(soc);
    if (s == nullptr || count == nullptr || buf == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    *count = 0;
    SocLock lock(s);
    if (!s->handshaken)
        return WZR_ERR_INVALID_STATE;
    if (len <= 0)
        return len == 0 ? WZR_OK : WZR_ERR_INVALID_LENGTH;
    size_t n = 0;
    s->io_error = 0;
    int ret = SSL_write_ex(s->ssl, buf, static_cast<size_t>(len), &n);
    if (ret != 1)
        return io_failure(s, ret);
    *count = static_cast<int>(n);
    return WZR_OK;
}

int wzr_attribute_set_buffer(wzr_handle h, int attr, const void *buf, int len)
{
    if (buf == nullptr || len < 0)
        return WZR_ERR_INVALID_LENGTH;
    if (Soc *s = as_soc(h))
        return set_soc_buffer(s, attr, buf, len);
    Env *e = as_env(h);
    if (e == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    std::string *slot = env_string(e, attr);
    if (slot == nullptr)
        return WZR_ERR_INVALID_ATTRIBUTE;
    if (e->initialised)
        return WZR_ERR_INVALID_STATE;
    wzrkit_wipe(slot);
    *slot = as_string(buf, len);
    return WZR_OK;
}

int wzr_attribute_get_buffer(wzr_handle h, int attr, const char **buf, int *len)
{
    if (buf == nullptr || len == nullptr)
        return WZR_ERR_INVALID_LENGTH;
    const std::string *value = nullptr;
    if (Soc *s = as_soc(h)) {
        if (attr == WZR_NEGOTIATED_CIPHER || attr == WZR_NEGOTIATED_PROTOCOL) {
            if (!s->handshaken)
                return WZR_ERR_INVALID_STATE;
            s->negotiated = attr == WZR_NEGOTIATED_CIPHER ? SSL_get_cipher_name(s->ssl)
                                                          : SSL_get_version(s->ssl);
            value = &s->negotiated;
        } else if (attr == WZR_LAST_ERROR_TEXT)
            value = &s->last_error;
        else if (attr == WZR_KEYRING_LABEL)
            value = s->label.empty() ? &s->env->label : &s->label;
        else if (attr == WZR_PEER_NAME)
            value = &s->peer_name;
        else
            h = s->env;
    }
    if (value == nullptr) {
        Env *e = as_env(h);
        if (e == nullptr)
            return WZR_ERR_INVALID_HANDLE;
        if (attr == WZR_KEYRING_PW || attr == WZR_PKCS11_TOKEN_PW) // never handed out again
            return WZR_ERR_INVALID_ATTRIBUTE;
        value = attr == WZR_LAST_ERROR_TEXT ? &e->last_error : env_string(e, attr);
    }
    if (value == nullptr)
        return WZR_ERR_INVALID_ATTRIBUTE;
    *buf = value->c_str();
    *len = static_cast<int>(value->size());
    return WZR_OK;
}

int wzr_attribute_set_callback(wzr_handle h, int attr, const void *callbacks)
{
    if (attr != WZR_IO_CALLBACK)
        return WZR_ERR_INVALID_ATTRIBUTE;
    const auto *cb = static_cast<const wzr_io_callbacks *>(callbacks);
    if (cb == nullptr || cb->io_read == nullptr || cb->io_write == nullptr)
        return WZR_ERR_INVALID_LENGTH;
    if (Soc *s = as_soc(h)) {
        s->io = *cb;
        return WZR_OK;
    }
    Env *e = as_env(h);
    if (e == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    e->io = *cb;
    return WZR_OK;
}

int wzr_attribute_get_cert_info(wzr_handle soc, int attr, const char **text)
{
    Soc *s = as_soc(soc);
    if (s == nullptr || text == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    X509 *peer = s->handshaken ? SSL_get0_peer_certificate(s->ssl) : nullptr;
    if (peer == nullptr)
        return WZR_ERR_NO_CERTIFICATE;
    s->cert_text.clear();
    if (attr == WZR_PEER_SUBJECT)
        subject_text(peer, &s->cert_text);
    else if (attr == WZR_PEER_ALT_NAMES)
        append_alt_names(peer, &s->cert_text);
    else
        return WZR_ERR_INVALID_ATTRIBUTE;
    *text = s->cert_text.c_str();
    return WZR_OK;
}

int wzr_attribute_set_numeric_value(wzr_handle h, int attr, int value)
{
    Soc *s = as_soc(h);
    if (s == nullptr)
        return set_env_numeric(as_env(h), attr, value);
    if (attr != WZR_FD)
        return WZR_ERR_INVALID_ATTRIBUTE;
    if (value < 0)
        return WZR_ERR_INVALID_NUMERIC;
    s->fd = value;
    return WZR_OK;
}

int wzr_attribute_get_numeric_value(wzr_handle h, int attr, int *value)
{
    Soc *s = as_soc(h);
    if (s == nullptr || value == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    if (attr != WZR_FD)
        return WZR_ERR_INVALID_ATTRIBUTE;
    *value = s->fd;
    return WZR_OK;
}

int wzr_attribute_set_enum(wzr_handle h, int attr, int value)
{
    Soc *s = as_soc(h);
    Env *e = s != nullptr ? nullptr : as_env(h);
    if (s == nullptr && e == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    if (!valid_switch(attr, value))
        return WZR_ERR_INVALID_ENUM;
    if (attr == WZR_SSLV2)
        return WZR_OK; // never offered
    if (attr == WZR_FIPS_MODE) {
        if (e == nullptr || e->initialised)
            return WZR_ERR_INVALID_STATE;
        e->fips = value == WZR_FIPS_MODE_PROCESSING_ON;
        return WZR_OK;
    }
    if (s != nullptr && s->handshaken)
        return WZR_ERR_INVALID_STATE;
    *switch_of(s != nullptr ? &s->sw : &e->sw, attr) = value;
    return WZR_OK;
}

int wzr_attribute_get_enum(wzr_handle h, int attr, int *value)
{
    Soc *s = as_soc(h);
    Env *e = s != nullptr ? s->env : as_env(h);
    if (e == nullptr || value == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    if (attr == WZR_SSLV2) {
        *value = WZR_SSLV2_OFF;
        return WZR_OK;
    }
    if (attr == WZR_FIPS_MODE) {
        *value = e->fips ? WZR_FIPS_MODE_PROCESSING_ON : WZR_FIPS_MODE_PROCESSING_OFF;
        return WZR_OK;
    }
    int *env_value = switch_of(&e->sw, attr);
    if (env_value == nullptr)
        return WZR_ERR_INVALID_ATTRIBUTE;
    *value = s != nullptr ? pick(*switch_of(&s->sw, attr), *env_value) : *env_value;
    return WZR_OK;
}

const char *wzr_strerror(int code) { return wzrkit_error_text(code); }

int wzr_get_cert_by_label(wzr_handle env, const char *label, const char **subject)
{
    Env *e = as_env(env);
    if (e == nullptr || label == nullptr)
        return WZR_ERR_INVALID_HANDLE;
    if (!e->initialised)
        return WZR_ERR_INVALID_STATE;
    const WzrKeyEntry *entry = wzrkit_keydb_find(e->db, label);
    if (entry == nullptr)
        return WZR_ERR_LABEL_NOT_FOUND;
    if (subject != nullptr) {
        subject_text(entry->cert, &e->label_subject);
        *subject = e->label_subject.c_str();
    }
    return WZR_OK;
}
