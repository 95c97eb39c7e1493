// The toolkit's crypto object: the OpenSSL library context of each environment with its
// provider (default, or FIPS on request), and the translation of the suite lists the library
// speaks (two-hex-digit codes, IANA names) into OpenSSL's cipher names.
#include <cstring>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>

#include "wzrkit_int.h"

namespace {

// The OpenSSL name of suite 0x00NN, or "" when OpenSSL does not know it.
std::string name_of_code(SSL *ssl, unsigned code)
{
    const unsigned char id[2] = {0x00, static_cast<unsigned char>(code)};
    const SSL_CIPHER *c = SSL_CIPHER_find(ssl, id);
    return c != nullptr ? SSL_CIPHER_get_name(c) : "";
}

void append_name(std::string *list, const std::string &name)
{
    if (name.empty() || (":" + *list + ":").find(":" + name + ":") != std::string::npos)
        return;
    if (!list->empty())
        *list += ':';
    *list += name;
}

void append_codes(std::string *list, const std::string &codes)
{
    SSL_CTX *ctx = SSL_CTX_new(TLS_client_method());
    SSL *ssl = ctx != nullptr ? SSL_new(ctx) : nullptr;
    for (size_t i = 0; ssl != nullptr && i + 1 < codes.size(); i += 2) {
        int hi = OPENSSL_hexchar2int(static_cast<unsigned char>(codes[i]));
        int lo = OPENSSL_hexchar2int(static_cast<unsigned char>(codes[i + 1]));
        if (hi >= 0 && lo >= 0)
            append_name(list, name_of_code(ssl, static_cast<unsigned>(hi * 16 + lo)));
    }
    SSL_free(ssl);
    SSL_CTX_free(ctx);
}

void append_names(std::string *list, const std::string &names)
{
    size_t start = 0;
    while (start <= names.size()) {
        size_t end = names.find(',', start);
        if (end == std::string::npos)
            end = names.size();
        std::string iana = names.substr(start, end - start);
        const char *ossl = iana.empty() ? nullptr : OPENSSL_cipher_name(iana.c_str());
        if (ossl != nullptr && std::strcmp(ossl, "(NONE)") != 0)
            append_name(list, ossl);
        start = end + 1;
    }
}

} // namespace

OSSL_LIB_CTX *wzrkit_crypto_context(bool fips, const std::string &config)
{
    OSSL_LIB_CTX *ctx = OSSL_LIB_CTX_new();
    if (ctx == nullptr)
        return nullptr;
    bool ok = config.empty() || OSSL_LIB_CTX_load_config(ctx, config.c_str()) == 1;
    if (ok && fips)
        ok = OSSL_PROVIDER_available(ctx, "fips") == 1 ||
             OSSL_PROVIDER_load(ctx, "fips") != nullptr;
    if (ok && fips)
        ok = EVP_default_properties_enable_fips(ctx, 1) == 1;
    if (!ok) {
        ERR_clear_error();
        OSSL_LIB_CTX_free(ctx);
        return nullptr;
    }
    return ctx;
}

void wzrkit_crypto_release(OSSL_LIB_CTX *ctx) { OSSL_LIB_CTX_free(ctx); }

std::string wzrkit_cipher_list(const std::string &codes, const std::string &names11,
                               const std::string &names12)
{
    std::string list;
    append_names(&list, names12);
    append_names(&list, names11);
    append_codes(&list, codes);
    return list;
}
