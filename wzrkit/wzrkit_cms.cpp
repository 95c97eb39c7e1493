// The toolkit's key database object: reads a PKCS#12 file (labels are the friendly names) or
// a PEM file (labels are the certificates' common names) into trusted certificates and
// labelled client certificates with their keys, and reads the password from a stash file.
#include <cerrno>
#include <cstring>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <unistd.h>

#include "wzrkit.h"
#include "wzrkit_int.h"

namespace {

constexpr size_t KEYDB_MAX = 16 * 1024 * 1024; // larger files are not key databases
constexpr size_t STASH_MAX = 4096;

bool looks_like_pem(const std::string &data)
{
    return data.find("-----BEGIN ") != std::string::npos;
}

std::string common_name(X509 *cert)
{
    const char *alias = reinterpret_cast<const char *>(X509_alias_get0(cert, nullptr));
    if (alias != nullptr)
        return alias;
    char cn[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn);
    return cn;
}

// The password from the stash file: its first line.
int read_stash(const std::string &stash, std::string *password, std::string *why)
{
    std::string data;
    if (!wzrkit_read_file(stash, STASH_MAX, &data)) {
        *why = "cannot read the stash file " + stash + ": " + std::strerror(errno);
        return WZR_ERR_NO_PASSWORD;
    }
    size_t end = data.find_first_of("\r\n");
    *password = data.substr(0, end);
    wzrkit_wipe(&data);
    return WZR_OK;
}

// Never prompts: an encrypted key without a password fails as a wrong password.
int pem_password(char *buf, int size, int /*rwflag*/, void *u)
{
    const auto *pw = static_cast<const std::string *>(u);
    if (pw->empty() || pw->size() > static_cast<size_t>(size))
        return -1;
    std::memcpy(buf, pw->data(), pw->size());
    return static_cast<int>(pw->size());
}

// Pairs each key with the certificate it belongs to; other certificates are trusted.
int take_pem(STACK_OF(X509_INFO) *infos, WzrKeyDb *db, std::string *why)
{
    std::vector<EVP_PKEY *> keys;
    std::vector<X509 *> certs;
    for (int i = 0; i < sk_X509_INFO_num(infos); ++i) {
        X509_INFO *info = sk_X509_INFO_value(infos, i);
        if (info->x509 != nullptr && X509_up_ref(info->x509) == 1)
            certs.push_back(info->x509);
        if (info->x_pkey != nullptr && info->x_pkey->dec_pkey != nullptr &&
            EVP_PKEY_up_ref(info->x_pkey->dec_pkey) == 1)
            keys.push_back(info->x_pkey->dec_pkey);
    }
    for (X509 *cert : certs) {
        EVP_PKEY *mine = nullptr;
        for (EVP_PKEY *&key : keys) {
            if (key != nullptr && X509_check_private_key(cert, key) == 1) {
                mine = key;
                key = nullptr;
                break;
            }
        }
        if (mine != nullptr)
            db->entries.push_back({common_name(cert), cert, mine, nullptr});
        else if (sk_X509_push(db->trusted, cert) <= 0)
            X509_free(cert);
    }
    bool stray_key = false;
    for (EVP_PKEY *key : keys) {
        stray_key = stray_key || key != nullptr;
        EVP_PKEY_free(key);
    }
    ERR_clear_error(); // key checks against the wrong certificates leave errors behind
    if (stray_key) {
        *why = "a private key in the key database matches none of its certificates";
        return WZR_ERR_NO_CERTIFICATE;
    }
    return WZR_OK;
}

int load_pem(const std::string &data, const std::string &password, WzrKeyDb *db,
             std::string *why)
{
    BIO *bio = BIO_new_mem_buf(data.data(), static_cast<int>(data.size()));
    if (bio == nullptr)
        return WZR_ERR_NO_MEMORY;
    STACK_OF(X509_INFO) *infos = PEM_X509_INFO_read_bio(bio, nullptr, pem_password,
                                                           const_cast<std::string *>(&password));
    BIO_free(bio);
    unsigned long err = ERR_peek_last_error();
    ERR_clear_error();
    if (infos == nullptr) {
        bool bad_pw = ERR_GET_REASON(err) == PEM_R_BAD_DECRYPT ||
                      ERR_GET_REASON(err) == PEM_R_BAD_PASSWORD_READ;
        *why = bad_pw ? "the key database password is wrong"
                      : "the PEM key database cannot be parsed";
        return bad_pw ? WZR_ERR_BAD_PASSWORD : WZR_ERR_KEYFILE_FORMAT;
    }
    int rc = take_pem(infos, db, why);
    sk_X509_INFO_pop_free(infos, X509_INFO_free);
    return rc;
}

int load_pkcs12(const std::string &data, const std::string &password, WzrKeyDb *db,
                std::string *why)
{
    const auto *p = reinterpret_cast<const unsigned char *>(data.data());
    PKCS12 *p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(data.size()));
    if (p12 == nullptr) {
        ERR_clear_error();
        *why = "the file is neither a PKCS#12 nor a PEM key database";
        return WZR_ERR_KEYFILE_FORMAT;
    }
    if (PKCS12_verify_mac(p12, password.c_str(), -1) != 1) {
        PKCS12_free(p12);
        ERR_clear_error();
        *why = "the key database password is wrong";
        return WZR_ERR_BAD_PASSWORD;
    }
    EVP_PKEY *key = nullptr;
    X509 *cert = nullptr;
    STACK_OF(X509) *ca = nullptr;
    int ok = PKCS12_parse(p12, password.c_str(), &key, &cert, &ca);
    PKCS12_free(p12);
    ERR_clear_error();
    if (ok != 1) {
        *why = "the PKCS#12 key database cannot be decoded";
        return WZR_ERR_KEYFILE_FORMAT;
    }
    if (cert != nullptr && key != nullptr)
        db->entries.push_back({common_name(cert), cert, key, nullptr});
    else {
        X509_free(cert);
        EVP_PKEY_free(key);
    }
    for (int i = 0; ca != nullptr && i < sk_X509_num(ca); ++i) {
        X509 *c = sk_X509_value(ca, i);
        if (X509_up_ref(c) == 1 && sk_X509_push(db->trusted, c) <= 0)
            X509_free(c);
    }
    sk_X509_pop_free(ca, X509_free);
    return WZR_OK;
}

} // namespace

int wzrkit_keydb_load(OSSL_LIB_CTX * /*ctx*/, const std::string &path,
                      const std::string &given_password, const std::string &stash, WzrKeyDb *db,
                      std::string *why)
{
    db->trusted = sk_X509_new_null();
    if (db->trusted == nullptr)
        return WZR_ERR_NO_MEMORY;
    if (path.empty()) {
        db->system_store = true;
        return WZR_OK;
    }
    std::string data;
    if (!wzrkit_read_file(path, KEYDB_MAX, &data)) {
        bool too_big = errno == EFBIG;
        *why = "cannot read the key database " + path + ": " + std::strerror(errno);
        return too_big ? WZR_ERR_KEYFILE_FORMAT : WZR_ERR_KEYRING_OPEN;
    }
    std::string password = given_password;
    bool pem = looks_like_pem(data);
    // A PEM file of certificates needs no password, so its stash file may well not exist.
    int rc = WZR_OK;
    if (password.empty() && !stash.empty() && (!pem || access(stash.c_str(), R_OK) == 0))
        rc = read_stash(stash, &password, why);
    if (rc == WZR_OK && !pem && password.empty()) {
        *why = "a PKCS#12 key database needs a password or a stash file";
        rc = WZR_ERR_NO_PASSWORD;
    }
    if (rc == WZR_OK)
        rc = pem ? load_pem(data, password, db, why) : load_pkcs12(data, password, db, why);
    wzrkit_wipe(&password);
    wzrkit_wipe(&data); // private keys may be in it
    return rc;
}

void wzrkit_keydb_free(WzrKeyDb *db)
{
    sk_X509_pop_free(db->trusted, X509_free);
    db->trusted = nullptr;
    for (WzrKeyEntry &e : db->entries) {
        X509_free(e.cert);
        EVP_PKEY_free(e.key);
        sk_X509_pop_free(e.chain, X509_free);
    }
    db->entries.clear();
    wzrkit_token_free(db->token); // after the keys that live in it
    db->token = nullptr;
}

const WzrKeyEntry *wzrkit_keydb_find(const WzrKeyDb &db, const std::string &label)
{
    for (const WzrKeyEntry &e : db.entries)
        if (e.label == label)
            return &e;
    return nullptr;
}
