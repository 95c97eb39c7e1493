// OpenLDAP's SASL bind for the comparison: the interaction callback answers the user name and
// the password, as ldapwhoami's does with -U and -w.
#include "peer_sasl.h"

#include <cstring>
#include <ldap.h>
#include <sasl/sasl.h>

namespace peer {

namespace {
struct Who {
    const char *user, *password;
};

int interact(LDAP *, unsigned, void *defaults, void *in)
{
    auto *who = static_cast<Who *>(defaults);
    for (auto *i = static_cast<sasl_interact_t *>(in); i->id != SASL_CB_LIST_END; i++) {
        const char *v = i->id == SASL_CB_AUTHNAME ? who->user
                        : i->id == SASL_CB_PASS   ? who->password
                                                  : "";
        i->result = v;
        i->len = static_cast<unsigned>(strlen(v));
    }
    return LDAP_SUCCESS;
}
} // namespace

bool sasl_bind_once(const char *uri, const char *mech, const char *user, const char *password)
{
    LDAP *ld = nullptr;
    if (ldap_initialize(&ld, uri) != LDAP_SUCCESS)
        return false;
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    ldap_set_option(ld, LDAP_OPT_X_SASL_SECPROPS, "maxssf=0");
    Who who = {user, password};
    int rc = ldap_sasl_interactive_bind_s(ld, nullptr, mech, nullptr, nullptr, LDAP_SASL_QUIET,
                                          interact, &who);
    ldap_unbind_ext_s(ld, nullptr, nullptr);
    return rc == LDAP_SUCCESS;
}

} // namespace peer
