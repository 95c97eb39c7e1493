// What the four toolkit objects offer one another: texts and file reading (sys), the crypto
// provider and cipher names (iccs), the key database (cms). The ssl object, the one the
// library resolves its entry points from, builds on the other three.
#ifndef WZRKIT_WZRKIT_INT_H
#define WZRKIT_WZRKIT_INT_H

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <string>
#include <vector>

#define WZRKIT_API __attribute__((visibility("default")))

// sys: error texts, bounded file reading, wiping secrets.
WZRKIT_API const char *wzrkit_error_text(int code);
// Reads at most `max` bytes; false (and errno) when the file cannot be read or is larger.
WZRKIT_API bool wzrkit_read_file(const std::string &path, size_t max, std::string *out);
WZRKIT_API void wzrkit_wipe(std::string *secret);

// iccs: the library context every environment builds on (the default provider, or the FIPS
// provider when asked: a FIPS context that cannot be had is refused, never silently replaced).
WZRKIT_API OSSL_LIB_CTX *wzrkit_crypto_context(bool fips, const std::string &config);
WZRKIT_API void wzrkit_crypto_release(OSSL_LIB_CTX *ctx);
// Turns the library's suite lists into OpenSSL's: `codes` is two hex digits per suite (SSL V3
// and TLS 1.0), `names` comma-separated IANA names (TLS 1.1, 1.2). Unknown names are skipped.
// TLS 1.3 suites are kept as OpenSSL's defaults.
WZRKIT_API std::string wzrkit_cipher_list(const std::string &codes, const std::string &names11,
                                          const std::string &names12);

// cms: the key database: trusted certificates and labelled client certificates with keys.
struct WzrToken;
struct WzrKeyEntry {
    std::string label;
    X509 *cert = nullptr;
    EVP_PKEY *key = nullptr;
    STACK_OF(X509) *chain = nullptr;
};
struct WzrKeyDb {
    STACK_OF(X509) *trusted = nullptr;
    std::vector<WzrKeyEntry> entries;
    bool system_store = false; // no key database: trust the system's certificate store
    WzrToken *token = nullptr; // keys in a PKCS#11 token: its session, held open
};
// Loads `path` with `password` (or, when empty, the password read from `stash`). 0 or a
// toolkit code; `why` says what was wrong.
WZRKIT_API int wzrkit_keydb_load(OSSL_LIB_CTX *ctx, const std::string &path,
                                 const std::string &password, const std::string &stash,
                                 WzrKeyDb *db, std::string *why);
// Key storage in a PKCS#11 token: logs in to the token labelled `token_label` through the
// PKCS#11 library `module` and adds each of its private keys to `db` under the key's label,
// with the certificate of `db` whose public key is the key's (taken out of the trusted ones),
// or else the token's own certificate for it. 0 or a toolkit code; `why` says what was wrong.
WZRKIT_API int wzrkit_token_load(const std::string &module, const std::string &token_label,
                                 const std::string &pin, WzrKeyDb *db, std::string *why);
void wzrkit_token_free(WzrToken *token); // within the cms object: the last user closes it
WZRKIT_API void wzrkit_keydb_free(WzrKeyDb *db); // and its hold on the token session
WZRKIT_API const WzrKeyEntry *wzrkit_keydb_find(const WzrKeyDb &db, const std::string &label);

#endif
