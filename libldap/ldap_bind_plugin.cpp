// The plug-in path of a SASL bind: the mechanism's plug-in is found (or loaded from the
// configuration file), given a parameter block with the bind's parameters and services, and
// its answer becomes the bind's result. The block then stays on the connection, emptied of
// the caller's data, until the plug-in's clean-up runs when the handle is freed.
#include <cstring>
#include <strings.h>

#include "ldap_bind.h"
#include "ldap_error.h"
#include "ldap_lock.h"
#include "ldap_options.h"
#include "ldap_pblock.h"
#include "ldap_plugin.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_bind";
// Result codes a bind can have; anything else from a plug-in is nonsense.
constexpr int LARGEST_CODE = 0xff;

bool is_gssapi(const char *mechanism) { return strcasecmp(mechanism, "GSSAPI") == 0; }

// The host name the service principal needs: the entry the connection reached, else the first
// entry of its host list without port or brackets.
char *service_host(LDAPConn *lc)
{
    {
        LDAP_LOCK(guard, &lc->write_lock, MODULE);
        if (guard.rc() == 0 && lc->connected && lc->resolved != nullptr)
            return lber_strdup(lc->resolved);
    }
    const char *h = lc->host != nullptr ? lc->host : "localhost";
    h += strspn(h, " ");
    bool bracket = *h == '[';
    h += bracket ? 1 : 0;
    size_t n = strcspn(h, bracket ? "] " : ": ");
    // Two colons before any blank make an unbracketed IPv6 address: keep it whole.
    if (!bracket && h[n] == ':' && memchr(h + n + 1, ':', strcspn(h + n + 1, " ")) != nullptr)
        n = strcspn(h, " ");
    return lber_strndup(h, n);
}

// A block with the bind's parameters; null without memory.
LDAPPBlock *bind_block(LDAP *ld, LDAPConn *lc, const LDAPPluginRef &ref, const char *dn,
                       const char *mechanism, const struct berval *cred,
                       LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    LDAPPBlock *pb = ldap_pblock_new();
    if (pb == nullptr)
        return nullptr;
    pb->ld = ld;
    pb->lc = lc;
    pb->ops = ref.ops;
    int krb = 0;
    (void)ldap_get_option_direct(ld, LDAP_OPT_SASL_KRB_VERSION, &krb); // 0 when unreadable
    bool gss = is_gssapi(mechanism);
    int rc = ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_LD, ld) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_TYPE, ref.type) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_STATE, ref.state) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_ARGS, ref.args) |
             (gss ? 0 : ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_DN, dn)) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_MECH, mechanism) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_CRED, cred) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_SERVERCTRLS, serverctrls) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_CLIENTCTRLS, clientctrls) |
             ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_HOST, ld->ld_defhost) |
             ldap_pblock_take(pb, LDAP_PLUGIN_PARAM_SERVICE_HOST, service_host(lc)) |
             (gss ? ldap_pblock_set_int(pb, LDAP_PLUGIN_PARAM_KRB_VERSION, krb) : 0);
    if (rc != 0) {
        ldap_pblock_free(pb);
        return nullptr;
    }
    return pb;
}

// Runs the plug-in's clean-up (function 302) on a block and frees it.
void release_block(LDAPPBlock *pb)
{
    if (pb == nullptr)
        return;
    if (LDAPPluginFn cleanup = ldap_plugin_function(pb->ops, LDAP_PLUGIN_FN_CLEANUP))
        (void)cleanup(&pb->base); // nothing left to report it to
    ldap_pblock_free(pb);
}

// Leaves the finished call's block on the connection as its plug-in record.
void attach_block(LDAPConn *lc, LDAPPBlock *pb)
{
    ldap_pblock_forget_call(pb);
    LDAP_LOCK(guard, &lc->conn_mutex, MODULE);
    if (guard.rc() != 0) {
        release_block(pb);
        return;
    }
    auto *old = static_cast<LDAPPBlock *>(lc->plugin);
    lc->plugin = pb;
    guard.unlock();
    release_block(old);
}

// A plug-in's answer as a result code: a synchronous bind gives a code, an asynchronous one a
// message id or a negated code.
int plugin_result(int answer, int async, int *msgidp)
{
    if (async && answer >= 0) {
        *msgidp = answer;
        return 0;
    }
    int code = async ? -answer : answer;
    return code >= 0 && code <= LARGEST_CODE ? code : LDAP_PLUGIN_BIND_FAILED;
}

// The plug-in's bind function for the mode, or null (traced).
LDAPPluginFn bind_function(const LDAPPluginRef &ref, int async)
{
    LDAPPluginFn fn = ldap_plugin_function(ref.ops, async ? LDAP_PLUGIN_FN_BIND
                                                          : LDAP_PLUGIN_FN_BIND_S);
    if (fn == nullptr)
        LDAP_TRACE(LDAP_TRC_API,
                   "ldap_sasl_bind_call_plugin: %s bind function not defined in plugin\n",
                   async ? "Asynchronous" : "Synchronous");
    return fn;
}
} // namespace

void ldap_plugin_release_record(LDAPConn *lc)
{
    release_block(static_cast<LDAPPBlock *>(lc->plugin));
    lc->plugin = nullptr;
}

int ldap_sasl_bind_call_plugin(LDAP *ld, const char *dn, const char *mechanism,
                               const struct berval *cred, LDAPControl **serverctrls,
                               LDAPControl **clientctrls, struct berval **servercredp,
                               int option224, int async, int *msgidp, LDAPConn *lc,
                               const LDAPDeadline &until)
{
    (void)servercredp; // the plug-in consumes the server's credentials itself
    (void)option224;
    LDAPPluginRef ref{};
    int rc = ldap_find_plugin(LDAP_PLUGIN_TYPE_SASL, mechanism, &ref);
    LDAPPluginFn fn = rc == 0 ? bind_function(ref, async) : nullptr;
    if (rc == 0 && fn == nullptr)
        rc = LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    if (lc == nullptr)
        lc = ld->ld_defconn;
    if (rc == 0 && lc == nullptr)
        rc = LDAP_ENCODING_ERROR;
    if (rc != 0)
        return ldap_fail(ld, rc);
    LDAPPBlock *pb = bind_block(ld, lc, ref, dn, mechanism, cred, serverctrls, clientctrls);
    if (pb == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    pb->until = until;
    LDAPPluginFn init = ldap_plugin_function(ref.ops, LDAP_PLUGIN_FN_INIT);
    if (is_gssapi(mechanism) && init != nullptr && init(&pb->base) != 0)
        rc = LDAP_PLUGIN_NOT_INITIALIZED;
    else
        rc = plugin_result(fn(&pb->base), async, msgidp);
    LDAP_TRACE(LDAP_TRC_API, "ldap_sasl_bind_call_plugin: %s plugin returned rc=%d\n", mechanism,
               rc);
    int version = LDAP_VERSION3;
    (void)ldap_get_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    auto *text = static_cast<const char *>(ldap_pblock_value(pb, LDAP_PLUGIN_PARAM_ERRTEXT));
    (void)ldap_set_lderrno_direct(ld, rc, nullptr, rc > 0 && version >= 2 ? text : nullptr);
    attach_block(lc, pb);
    return rc;
}
