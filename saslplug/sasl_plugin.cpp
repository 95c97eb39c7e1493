// The Cyrus SASL plug-in: its entry point publishes the operations record, and its
// synchronous bind runs a Cyrus client exchange whose every message goes to the server
// through the library's sasl_bind_step service. No security layer is negotiated.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sasl/sasl.h>

#include "wzrldap_plugin.h"
#include "wzrsasl.h"

namespace {
pthread_once_t client_once = PTHREAD_ONCE_INIT;
int client_init_result = SASL_FAIL;

void init_client() { client_init_result = sasl_client_init(nullptr); }

// One bind's state, reached by the Cyrus callbacks through their context.
struct Bind {
    LDAPPluginBlock *block;
    const LDAPPluginServices *sv;
    wzrsasl_identity id;
    const struct berval *password;
    sasl_secret_t *secret;
    sasl_conn_t *conn;
};

template <class T> T param(Bind *b, int number)
{
    T value{};
    (void)b->sv->get_param(b->block, number, &value); // an unset parameter stays empty
    return value;
}

int get_simple(void *ctx, int id, const char **result, unsigned *len)
{
    auto *b = static_cast<Bind *>(ctx);
    const char *v = id == SASL_CB_USER ? b->id.authzid : b->id.authcid;
    if (id == SASL_CB_AUTHNAME && *v == '\0')
        return SASL_BADPARAM; // the mechanism needs a user name the bind did not give
    *result = v;
    if (len != nullptr)
        *len = static_cast<unsigned>(strlen(v));
    return SASL_OK;
}

int get_password(sasl_conn_t *, void *ctx, int, sasl_secret_t **out)
{
    auto *b = static_cast<Bind *>(ctx);
    if (b->password == nullptr || b->password->bv_val == nullptr)
        return SASL_FAIL;
    size_t n = b->password->bv_len;
    if (b->secret == nullptr) {
        b->secret = static_cast<sasl_secret_t *>(calloc(1, sizeof(sasl_secret_t) + n));
        if (b->secret == nullptr)
            return SASL_NOMEM;
        b->secret->len = n;
        memcpy(b->secret->data, b->password->bv_val, n);
    }
    *out = b->secret;
    return SASL_OK;
}

int get_realm(void *ctx, int, const char **available, const char **result)
{
    auto *b = static_cast<Bind *>(ctx);
    *result = b->id.realm[0] != '\0' ? b->id.realm
              : available != nullptr ? available[0]
                                     : nullptr;
    return SASL_OK;
}

// Cyrus keeps callbacks as int (*)(void); the generic void (*)(void) carries the cast.
using CbFn = int (*)(void);
template <class F> CbFn callback(F fn)
{
    return reinterpret_cast<CbFn>(reinterpret_cast<void (*)()>(fn));
}

// A line for the library's trace; the messages' contents (credentials) are never shown.
void trace(Bind *b, const char *fmt, long a, long c = 0)
{
    char line[128];
    snprintf(line, sizeof line, fmt, a, c);
    b->sv->trace(b->block, line);
}

// Cyrus reports its own failures with a text; the server's text, when there is one, wins.
int cyrus_failure(Bind *b, int sasl_rc)
{
    trace(b, "Cyrus SASL result %ld", sasl_rc);
    const char *text = b->conn != nullptr ? sasl_errdetail(b->conn) : sasl_errstring(sasl_rc,
                                                                                     nullptr,
                                                                                     nullptr);
    const char *server_text = nullptr;
    if (b->sv->get_param(b->block, LDAP_PLUGIN_PARAM_ERRTEXT, &server_text) != 0 &&
        text != nullptr)
        (void)b->sv->set_param(b->block, LDAP_PLUGIN_PARAM_ERRTEXT, text);
    return wzrsasl_ldap_code(sasl_rc);
}

// Sends `out` and steps Cyrus with each challenge until the server answers for good.
int exchange(Bind *b, const char *out, unsigned outlen)
{
    for (;;) {
        struct berval cred = {outlen, const_cast<char *>(out)};
        struct berval *server = nullptr;
        const struct berval *send = out != nullptr ? &cred : nullptr;
        int rc = b->sv->sasl_bind_step(b->block, nullptr, send, &server);
        trace(b, "sent %ld bytes, server answered %ld", out != nullptr ? long(outlen) : -1L, rc);
        if (rc != LDAP_SASL_BIND_IN_PROGRESS && rc != LDAP_SUCCESS) {
            b->sv->free_berval(server);
            return rc;
        }
        if (rc == LDAP_SUCCESS && server == nullptr)
            return rc;
        if (server != nullptr && server->bv_len > UINT_MAX) {
            b->sv->free_berval(server);
            return LDAP_DECODING_ERROR;
        }
        // The last server message (SCRAM's server signature, say) must prove the server too.
        int s = sasl_client_step(b->conn, server != nullptr ? server->bv_val : nullptr,
                                 server != nullptr ? static_cast<unsigned>(server->bv_len) : 0,
                                 nullptr, &out, &outlen);
        b->sv->free_berval(server);
        if (s != SASL_OK && s != SASL_CONTINUE)
            return cyrus_failure(b, s);
        if (rc == LDAP_SUCCESS)
            return s == SASL_OK ? LDAP_SUCCESS : cyrus_failure(b, SASL_BADSERV);
    }
}

int start(Bind *b, const char *mech)
{
    const char *host = b->id.host[0] != '\0'
                           ? b->id.host
                           : param<const char *>(b, LDAP_PLUGIN_PARAM_SERVICE_HOST);
    sasl_callback_t callbacks[] = {
        {SASL_CB_AUTHNAME, callback(get_simple), b},
        {SASL_CB_USER, callback(get_simple), b},
        {SASL_CB_PASS, callback(get_password), b},
        {SASL_CB_GETREALM, callback(get_realm), b},
        {SASL_CB_LIST_END, nullptr, nullptr}};
    int s = sasl_client_new("ldap", host != nullptr ? host : "localhost", nullptr, nullptr,
                            callbacks, 0, &b->conn);
    if (s != SASL_OK)
        return cyrus_failure(b, s);
    // No security layer: max_ssf 0 makes GSSAPI choose "none" and the others need none.
    sasl_security_properties_t props = {};
    s = sasl_setprop(b->conn, SASL_SEC_PROPS, &props);
    const char *out = nullptr;
    unsigned outlen = 0;
    const char *chosen = nullptr;
    if (s == SASL_OK)
        s = sasl_client_start(b->conn, mech, nullptr, &out, &outlen, &chosen);
    if (s != SASL_OK && s != SASL_CONTINUE)
        return cyrus_failure(b, s);
    return exchange(b, out, outlen);
}

int bind_s(LDAPPluginBlock *block)
{
    Bind b = {};
    b.block = block;
    b.sv = block->services;
    const char *mech = param<const char *>(&b, LDAP_PLUGIN_PARAM_MECH);
    if (mech == nullptr ||
        wzrsasl_bind_identity(param<const char *>(&b, LDAP_PLUGIN_PARAM_ARGS),
                         param<const char *>(&b, LDAP_PLUGIN_PARAM_DN), &b.id) != 0)
        return LDAP_PARAM_ERROR;
    b.password = param<const struct berval *>(&b, LDAP_PLUGIN_PARAM_CRED);
    int rc = start(&b, mech);
    sasl_dispose(&b.conn);
    if (b.secret != nullptr) {
        memset(b.secret->data, 0, b.secret->len); // the password copy does not outlive the bind
        free(b.secret);
    }
    return rc;
}

const LDAPPluginOps OPS = {LDAP_PLUGIN_OPS_VERSION, nullptr, bind_s, nullptr, nullptr};
} // namespace

extern "C" __attribute__((visibility("default"))) int ldap_plugin_init(LDAPPluginBlock *block)
{
    const char *type = nullptr;
    if (block->services->get_param(block, LDAP_PLUGIN_PARAM_TYPE, &type) != 0 ||
        type == nullptr || strcmp(type, LDAP_PLUGIN_TYPE_SASL) != 0)
        return LDAP_PARAM_ERROR;
    pthread_once(&client_once, init_client);
    if (client_init_result != SASL_OK)
        return wzrsasl_ldap_code(client_init_result);
    return block->services->set_param(block, LDAP_PLUGIN_PARAM_OPS, &OPS);
}
