// The toolkit's system object: the texts of its return codes, bounded file reading for key
// databases and stash files, and wiping of secrets before their memory is released.
#include <cerrno>
#include <cstdio>
#include <openssl/crypto.h>

#include "wzrkit.h"
#include "wzrkit_int.h"

namespace {
struct CodeText {
    int code;
    const char *text;
};
constexpr CodeText TEXTS[] = {
    {WZR_OK, "Success"},
    {WZR_ERR_INVALID_HANDLE, "Invalid handle"},
    {WZR_ERR_INTERNAL, "Internal error"},
    {WZR_ERR_NO_MEMORY, "Insufficient storage"},
    {WZR_ERR_INVALID_STATE, "Invalid state"},
    {WZR_ERR_LABEL_NOT_FOUND, "Key label not found"},
    {WZR_ERR_VALIDATING_CERT, "Error validating certificate"},
    {WZR_ERR_KEYFILE_IO, "Keyfile I/O error"},
    {WZR_ERR_KEYFILE_FORMAT, "Keyfile invalid format"},
    {WZR_ERR_BAD_PASSWORD, "Bad format or invalid password"},
    {WZR_ERR_NO_PASSWORD, "No password nor stash file"},
    {WZR_ERR_KEYRING_OPEN, "Keyring file open error"},
    {WZR_ERR_NO_CIPHERS, "No ciphers"},
    {WZR_ERR_NO_CERTIFICATE, "No certificate"},
    {WZR_ERR_IO, "I/O error"},
    {WZR_ERR_BAD_MESSAGE, "Bad message"},
    {WZR_ERR_UNSUPPORTED, "Unsupported"},
    {WZR_ERR_BAD_CERT_SIGNATURE, "Bad certificate signature"},
    {WZR_ERR_BAD_CERTIFICATE, "Bad certificate"},
    {WZR_ERR_BAD_PEER, "Bad peer"},
    {WZR_ERR_SELF_SIGNED, "Self-signed error"},
    {WZR_ERR_SOCKET_CLOSED, "Socket closed"},
    {WZR_ERR_INIT_FAILED, "Initialization failed"},
    {WZR_ERR_NO_PRIVATE_KEY, "No private key"},
    {WZR_ERR_PKCS11_NOT_LOADED, "PKCS11 library not loaded"},
    {WZR_ERR_PKCS11_LABEL_MISMATCH, "PKCS11 token label mismatch"},
    {WZR_ERR_PKCS11_NO_TOKEN, "PKCS11 token not present"},
    {WZR_ERR_PKCS11_BAD_PASSWORD, "PKCS11 token bad password"},
    {WZR_ERR_WOULD_BLOCK, "Would block"},
    {WZR_ERR_INVALID_ATTRIBUTE, "Invalid attribute"},
    {WZR_ERR_INVALID_LENGTH, "Invalid length"},
    {WZR_ERR_INVALID_ENUM, "Invalid enumeration"},
    {WZR_ERR_INVALID_NUMERIC, "Invalid numeric value"},
};
} // namespace

const char *wzrkit_error_text(int code)
{
    for (const CodeText &t : TEXTS)
        if (t.code == code)
            return t.text;
    return "Unknown error";
}

bool wzrkit_read_file(const std::string &path, size_t max, std::string *out)
{
    FILE *f = fopen(path.c_str(), "rbe");
    if (f == nullptr)
        return false;
    out->clear();
    char buf[4096];
    size_t n;
    bool ok = true;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        if (out->size() + n > max) {
            errno = EFBIG;
            ok = false;
            break;
        }
        out->append(buf, n);
    }
    if (ferror(f) != 0)
        ok = false;
    fclose(f);
    return ok;
}

void wzrkit_wipe(std::string *secret)
{
    if (!secret->empty())
        OPENSSL_cleanse(secret->data(), secret->size());
    secret->clear();
}
