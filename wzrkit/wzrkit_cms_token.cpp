// The key database's PKCS#11 key storage (through libp11): a token's private keys join the key
// database with their certificates and sign the handshakes without ever leaving the token.
// One logged-in session per process, shared by the environments that name the same token.
#include <cstring>
#include <libp11.h>
#include <new>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <pthread.h>

#include "wzrkit.h"
#include "wzrkit_int.h"

// A module, its slots and the session logged in to one of its tokens. A module initialised
// twice in a process shares its state, and finalising it for one user would end it for all:
// so there is one of these, counted. All fields: the session lock.
struct WzrToken {
    PKCS11_CTX *ctx = nullptr;
    bool loaded = false;
    PKCS11_SLOT *slots = nullptr;
    unsigned int nslots = 0;
    std::string module, label;
    unsigned char pin_digest[EVP_MAX_MD_SIZE] = {};
    unsigned int refs = 0;
};

namespace {

pthread_mutex_t session_lock = PTHREAD_MUTEX_INITIALIZER;
WzrToken *session = nullptr; // the session lock

class SessionLock {
public:
    SessionLock() { pthread_mutex_lock(&session_lock); }
    ~SessionLock() { pthread_mutex_unlock(&session_lock); }
    SessionLock(const SessionLock &) = delete;
    SessionLock &operator=(const SessionLock &) = delete;
};

// The text of the last error queued by OpenSSL or libp11; the queue is cleared.
std::string last_error_text()
{
    char text[256] = "";
    unsigned long err = ERR_peek_last_error();
    if (err != 0)
        ERR_error_string_n(err, text, sizeof text);
    ERR_clear_error();
    return text;
}

// Kept instead of the PIN, to check the PIN of a later environment against: the token, once
// logged in, accepts any.
bool digest_pin(const std::string &pin, const std::string &label, unsigned char *out)
{
    std::string salted = label + '\0' + pin;
    bool ok = EVP_Digest(salted.data(), salted.size(), out, nullptr, EVP_sha256(), nullptr) == 1;
    wzrkit_wipe(&salted);
    return ok;
}

void release(WzrToken *t)
{
    if (t->slots != nullptr)
        PKCS11_release_all_slots(t->ctx, t->slots, t->nslots);
    if (t->loaded)
        PKCS11_CTX_unload(t->ctx);
    if (t->ctx != nullptr)
        PKCS11_CTX_free(t->ctx);
    delete t;
}

// The slot of the token labelled `label`: 430 when other tokens are present, 431 when none is.
int find_token(const WzrToken &t, PKCS11_SLOT **slot, std::string *why)
{
    bool any = false;
    for (unsigned int i = 0; i < t.nslots; ++i) {
        const PKCS11_TOKEN *token = t.slots[i].token;
        any = any || token != nullptr;
        if (token != nullptr && token->label != nullptr && t.label == token->label) {
            *slot = &t.slots[i];
            return WZR_OK;
        }
    }
    *why = any ? "no PKCS#11 token is labelled \"" + t.label + "\"" : "no PKCS#11 token is present";
    return any ? WZR_ERR_PKCS11_LABEL_MISMATCH : WZR_ERR_PKCS11_NO_TOKEN;
}

// Loads the module and logs in to the token: 0 or a code (`t` is released by the caller).
int open_session(WzrToken *t, const std::string &pin, std::string *why)
{
    t->ctx = PKCS11_CTX_new();
    if (t->ctx == nullptr)
        return WZR_ERR_NO_MEMORY;
    t->loaded = PKCS11_CTX_load(t->ctx, t->module.c_str()) == 0;
    if (!t->loaded) {
        *why = "the PKCS#11 library " + t->module + " cannot be loaded: " + last_error_text();
        return WZR_ERR_PKCS11_NOT_LOADED;
    }
    PKCS11_SLOT *slot = nullptr;
    if (PKCS11_enumerate_slots(t->ctx, &t->slots, &t->nslots) != 0) {
        *why = "the PKCS#11 library lists no slots: " + last_error_text();
        return WZR_ERR_PKCS11_NO_TOKEN;
    }
    if (int rc = find_token(*t, &slot, why); rc != WZR_OK)
        return rc;
    if (PKCS11_login(slot, 0, pin.c_str()) != 0) {
        *why = "the PKCS#11 token refused the password: " + last_error_text();
        return WZR_ERR_PKCS11_BAD_PASSWORD;
    }
    return WZR_OK;
}

// The session for these arguments, opened or shared (the session lock held).
int attach_session(const std::string &module, const std::string &label, const std::string &pin,
                   WzrToken **out, std::string *why)
{
    unsigned char digest[EVP_MAX_MD_SIZE] = {};
    if (!digest_pin(pin, label, digest))
        return WZR_ERR_INTERNAL;
    if (session != nullptr) {
        if (session->module != module || session->label != label) {
            *why = "another PKCS#11 token (" + session->label + ") is in use in this process";
            return WZR_ERR_UNSUPPORTED;
        }
        if (std::memcmp(digest, session->pin_digest, sizeof digest) != 0) {
            *why = "the PKCS#11 token password differs from the one it was opened with";
            return WZR_ERR_PKCS11_BAD_PASSWORD;
        }
        ++session->refs;
        *out = session;
        return WZR_OK;
    }
    auto *t = new (std::nothrow) WzrToken;
    if (t == nullptr)
        return WZR_ERR_NO_MEMORY;
    t->module = module;
    t->label = label;
    std::memcpy(t->pin_digest, digest, sizeof digest);
    if (int rc = open_session(t, pin, why); rc != WZR_OK) {
        release(t);
        return rc;
    }
    t->refs = 1;
    *out = session = t;
    return WZR_OK;
}

// The key database's certificate for `key`, taken out of the trusted ones; else the token's.
X509 *certificate_for(PKCS11_KEY *token_key, EVP_PKEY *key, WzrKeyDb *db)
{
    for (int i = 0; i < sk_X509_num(db->trusted); ++i)
        if (EVP_PKEY_eq(X509_get0_pubkey(sk_X509_value(db->trusted, i)), key) == 1)
            return sk_X509_delete(db->trusted, i);
    PKCS11_CERT *own = PKCS11_find_certificate(token_key);
    return own != nullptr && own->x509 != nullptr && X509_up_ref(own->x509) == 1 ? own->x509
                                                                                 : nullptr;
}

// Every private key of the token that has a certificate joins the key database.
int add_keys(WzrToken *t, WzrKeyDb *db, std::string *why)
{
    PKCS11_SLOT *slot = nullptr;
    PKCS11_KEY *keys = nullptr;
    unsigned int n = 0;
    if (find_token(*t, &slot, why) != WZR_OK ||
        PKCS11_enumerate_keys(slot->token, &keys, &n) != 0) {
        *why = "the keys of the PKCS#11 token cannot be listed: " + last_error_text();
        return WZR_ERR_KEYFILE_IO;
    }
    for (unsigned int i = 0; i < n; ++i) {
        EVP_PKEY *key = PKCS11_get_private_key(&keys[i]);
        X509 *cert = key != nullptr ? certificate_for(&keys[i], key, db) : nullptr;
        if (cert == nullptr) { // nothing to present it with
            EVP_PKEY_free(key);
            continue;
        }
        db->entries.push_back({keys[i].label != nullptr ? keys[i].label : "", cert, key, nullptr});
    }
    ERR_clear_error(); // public keys compared with the wrong certificates leave errors behind
    return WZR_OK;
}

} // namespace

int wzrkit_token_load(const std::string &module, const std::string &token_label,
                      const std::string &pin, WzrKeyDb *db, std::string *why)
{
    SessionLock lock;
    int rc = attach_session(module, token_label, pin, &db->token, why);
    return rc == WZR_OK ? add_keys(db->token, db, why) : rc;
}

void wzrkit_token_free(WzrToken *t)
{
    if (t == nullptr)
        return;
    SessionLock lock;
    if (--t->refs > 0)
        return;
    session = nullptr;
    release(t);
}
