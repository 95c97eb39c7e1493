// Test plug-ins, one per TESTPLUG_KIND: 0 good (its bind does what its arguments say), 1 no
// entry point, 2 a failing entry point, 3 no operations, 4 operations from a future version.
#include <cstdio>
#include <cstring>

#include "wzrldap_plugin.h"

#if TESTPLUG_KIND == 0 // the clean-up count the tests read: one definition in a process
extern "C" __attribute__((visibility("default"))) int testplug_cleanups;
int testplug_cleanups = 0;
#else
static int testplug_cleanups = 0;
#endif

namespace {
const char *text_param(LDAPPluginBlock *b, int number)
{
    const char *s = nullptr;
    return b->services->get_param(b, number, &s) == 0 && s != nullptr ? s : "-";
}

// "nonsense": an impossible code; "step": one exchange with the server, its answer returned;
// otherwise 80 with a text telling what the plug-in was given.
int bind_s(LDAPPluginBlock *b)
{
    const char *args = text_param(b, LDAP_PLUGIN_PARAM_ARGS);
    if (strcmp(args, "mode=nonsense") == 0)
        return -12345;
    if (strcmp(args, "mode=step") == 0) {
        struct berval *server = nullptr;
        const char *dn = text_param(b, LDAP_PLUGIN_PARAM_DN);
        int rc = b->services->sasl_bind_step(b, dn, nullptr, &server);
        b->services->free_berval(server);
        return rc;
    }
    const struct berval *cred = nullptr;
    (void)b->services->get_param(b, LDAP_PLUGIN_PARAM_CRED, &cred);
    char text[512];
    snprintf(text, sizeof text, "dn=%s mech=%s args=%s host=%s cred=%lu set106=%d",
             text_param(b, LDAP_PLUGIN_PARAM_DN), text_param(b, LDAP_PLUGIN_PARAM_MECH), args,
             text_param(b, LDAP_PLUGIN_PARAM_SERVICE_HOST), cred != nullptr ? cred->bv_len : 0,
             b->services->set_param(b, LDAP_PLUGIN_PARAM_LD, nullptr));
    (void)b->services->set_param(b, LDAP_PLUGIN_PARAM_ERRTEXT, text);
    return LDAP_OTHER;
}

// "mode=initfails": the initialisation a GSSAPI bind runs first refuses.
int init(LDAPPluginBlock *b)
{
    return strcmp(text_param(b, LDAP_PLUGIN_PARAM_ARGS), "mode=initfails") == 0;
}

int cleanup(LDAPPluginBlock *)
{
    __atomic_fetch_add(&testplug_cleanups, 1, __ATOMIC_RELAXED); // binds run in many threads
    return 0;
}

[[maybe_unused]] const LDAPPluginOps OPS = {TESTPLUG_KIND == 4 ? LDAP_PLUGIN_OPS_VERSION + 1
                                                        : LDAP_PLUGIN_OPS_VERSION,
                           init, bind_s, nullptr, cleanup};
} // namespace

#if TESTPLUG_KIND != 1
extern "C" __attribute__((visibility("default"))) int ldap_plugin_init(LDAPPluginBlock *b)
{
    if (TESTPLUG_KIND == 2)
        return 1;
    if (TESTPLUG_KIND == 3)
        return 0;
    return b->services->set_param(b, LDAP_PLUGIN_PARAM_OPS, &OPS);
}
#endif
