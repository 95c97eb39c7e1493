// The identity words of a bind (authcid, authzid, realm, host) and the mapping of Cyrus SASL
// results to LDAP result codes: the plug-in's pure parts, kept apart from Cyrus calls.
#include "wzrsasl.h"

#include <cstring>
#include <sasl/sasl.h>

#include "wzrldap.h"

namespace {
struct Key {
    const char *name;
    size_t offset;
};
const Key KEYS[] = {{"authcid=", offsetof(wzrsasl_identity, authcid)},
                    {"authzid=", offsetof(wzrsasl_identity, authzid)},
                    {"realm=", offsetof(wzrsasl_identity, realm)},
                    {"host=", offsetof(wzrsasl_identity, host)}};

const Key *key_of(const char *word)
{
    for (const Key &k : KEYS) {
        if (strncmp(word, k.name, strlen(k.name)) == 0)
            return &k;
    }
    return nullptr;
}
} // namespace

int wzrsasl_parse_words(const char *words, wzrsasl_identity *id)
{
    const char *p = words;
    while (*(p += strspn(p, " \t")) != '\0') {
        size_t len = strcspn(p, " \t");
        const Key *k = key_of(p);
        size_t name = k != nullptr ? strlen(k->name) : 0;
        if (k == nullptr || len - name >= WZRSASL_FIELD_MAX)
            return LDAP_PARAM_ERROR;
        char *field = reinterpret_cast<char *>(id) + k->offset;
        memcpy(field, p + name, len - name);
        field[len - name] = '\0';
        p += len;
    }
    return 0;
}

int wzrsasl_bind_identity(const char *args, const char *dn, wzrsasl_identity *id)
{
    memset(id, 0, sizeof *id);
    if (args != nullptr && wzrsasl_parse_words(args, id) != 0)
        return LDAP_PARAM_ERROR;
    if (dn == nullptr || *dn == '\0')
        return 0;
    if (key_of(dn) != nullptr)
        return wzrsasl_parse_words(dn, id);
    if (strlen(dn) >= WZRSASL_FIELD_MAX)
        return LDAP_PARAM_ERROR;
    strcpy(id->authcid, dn);
    return 0;
}

int wzrsasl_ldap_code(int sasl_result)
{
    switch (sasl_result) {
    case SASL_OK:
        return LDAP_SUCCESS;
    case SASL_NOMEM:
        return LDAP_NO_MEMORY;
    case SASL_NOMECH:
    case SASL_TOOWEAK:
        return LDAP_NOT_SUPPORTED;
    case SASL_BADPARAM:
    case SASL_INTERACT:
        return LDAP_PARAM_ERROR; // an identity or password the mechanism needs is missing
    case SASL_BADPROT:
        return LDAP_DECODING_ERROR; // the server's challenge made no sense
    case SASL_BADAUTH:
    case SASL_NOUSER:
    case SASL_EXPIRED:
        return LDAP_INVALID_CREDENTIALS;
    default:
        return LDAP_LOCAL_ERROR;
    }
}
