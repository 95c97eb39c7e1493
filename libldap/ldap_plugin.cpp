// The plug-in registry: plug-in libraries loaded for good with dlopen, their entry points
// called with a parameter block, and one registered entry per type and mechanism, found by
// the SASL bind and copied out in snapshots. All of it under the configuration lock.
#include "ldap_plugin.h"

#include <cstring>
#include <dlfcn.h>
#include <iterator>

#include "ldap_config.h"
#include "ldap_lock.h"
#include "ldap_pblock.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_plugin";
constexpr int SNAPSHOT_MAX = 63;

struct Registered {
    plugin_info info; // owned copies
    const LDAPPluginOps *ops;
    LDAPPluginEntry entry;
    void *state;
    Registered *next;
};

// Configuration lock. Replaced entries are retired, not freed: a bind in another thread may
// still read their strings, and the registry lives as long as the process anyway.
Registered *registry = nullptr;
Registered *retired = nullptr;
void *last_loaded = nullptr;

bool same(const char *a, const char *b)
{
    return a != nullptr && b != nullptr && strcmp(a, b) == 0;
}

// True when `r` is the plug-in of `type` and `mechanism`.
bool ldap_gpt_eval(const Registered *r, const char *type, const char *mechanism)
{
    return same(r->info.pi_type, type) && same(r->info.pi_mechanism, mechanism);
}

Registered *find_registered(const char *type, const char *mechanism)
{
    for (Registered *r = registry; r != nullptr; r = r->next) {
        if (ldap_gpt_eval(r, type, mechanism))
            return r;
    }
    return nullptr;
}

void free_info(plugin_info *pi)
{
    char *strings[] = {pi->pi_type, pi->pi_mechanism, pi->pi_path, pi->pi_entry, pi->pi_args};
    for (char *s : strings)
        lber_free(s);
    *pi = {};
}

// Copies the five strings; 0 or 90 (nothing left allocated).
int copy_info(const plugin_info *from, plugin_info *to)
{
    *to = {};
    const char *src[] = {from->pi_type, from->pi_mechanism, from->pi_path, from->pi_entry,
                         from->pi_args};
    char **dst[] = {&to->pi_type, &to->pi_mechanism, &to->pi_path, &to->pi_entry, &to->pi_args};
    for (size_t k = 0; k < std::size(src); k++) {
        if (src[k] != nullptr && (*dst[k] = lber_strdup(src[k])) == nullptr) {
            free_info(to);
            return LDAP_NO_MEMORY;
        }
    }
    return 0;
}

// Adds the plug-in's record, or replaces the data of the entry of the same type and mechanism.
int add_registered(const plugin_info *info, const LDAPPluginOps *ops, LDAPPluginEntry entry,
                   void *state)
{
    auto *r = static_cast<Registered *>(lber_calloc(1, sizeof(Registered)));
    if (r == nullptr || copy_info(info, &r->info) != 0) {
        lber_free(r);
        return LDAP_NO_MEMORY;
    }
    r->ops = ops;
    r->entry = entry;
    r->state = state;
    Registered **at = &registry;
    while (*at != nullptr && !ldap_gpt_eval(*at, info->pi_type, info->pi_mechanism))
        at = &(*at)->next;
    if (*at != nullptr) {
        Registered *old = *at;
        r->next = old->next;
        old->next = retired;
        retired = old;
    }
    *at = r;
    return 0;
}

bool ops_usable(const LDAPPluginOps *ops)
{
    return ops->version >= 1 && ops->version <= LDAP_PLUGIN_OPS_VERSION;
}

// Runs the entry point of the library loaded last with a fresh block and registers what it
// published. Configuration lock held.
int initialise_loaded(const plugin_info *info)
{
    const char *name = info->pi_entry != nullptr ? info->pi_entry : LDAP_PLUGIN_DEFAULT_ENTRY;
    auto entry = reinterpret_cast<LDAPPluginEntry>(dlsym(last_loaded, name));
    if (entry == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_register_plugin: entry point %s not found\n", name);
        return LDAP_PLUGIN_FUNC_NOT_RESOLVED;
    }
    LDAPPBlock *pb = ldap_pblock_new();
    if (pb == nullptr || ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_TYPE, info->pi_type) != 0 ||
        ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_ARGS, info->pi_args) != 0) {
        ldap_pblock_free(pb);
        return LDAP_NO_MEMORY;
    }
    int answer = entry(&pb->base);
    LDAP_TRACE(LDAP_TRC_API, "ldap_register_plugin: %s returned %d for %s %s\n", name, answer,
               info->pi_type, info->pi_mechanism);
    int rc = answer != 0 ? LDAP_PLUGIN_NOT_INITIALIZED : 0;
    auto *ops = static_cast<const LDAPPluginOps *>(ldap_pblock_value(pb, LDAP_PLUGIN_PARAM_OPS));
    void *state = ldap_pblock_value(pb, LDAP_PLUGIN_PARAM_OWN_STATE);
    ldap_pblock_free(pb);
    if (rc == 0 && ops == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_register_plugin: no operations published\n");
        rc = LDAP_OPERATIONS_ERROR;
    } else if (rc == 0 && !ops_usable(ops)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_register_plugin: operations version %d unknown\n",
                   ops->version);
        rc = LDAP_PLUGIN_NOT_INITIALIZED;
    }
    return rc != 0 ? rc : add_registered(info, ops, entry, state);
}

// Registration with the configuration lock held. Without `force`, a plug-in already
// registered for the type and mechanism is kept as it is.
int register_locked(const plugin_info *info, bool force)
{
    if (info->pi_type == nullptr || info->pi_mechanism == nullptr || info->pi_path == nullptr)
        return LDAP_PARAM_ERROR;
    if (!force && find_registered(info->pi_type, info->pi_mechanism) != nullptr)
        return 0;
    int rc = ldap_load_plugin(info->pi_path);
    return rc != 0 ? rc : initialise_loaded(info);
}

void fill_ref(const Registered *r, LDAPPluginRef *ref)
{
    *ref = {r->ops, r->info.pi_type, r->info.pi_args, r->state};
}

// The configuration file's plug-in of `type` and `mechanism`, registered; lock held.
int register_configured(const char *type, const char *mechanism, LDAPPluginRef *ref)
{
    if (Registered *r = find_registered(type, mechanism)) {
        fill_ref(r, ref);
        return 0;
    }
    const LDAPConfEntry *e = ldap_conf_find(type, mechanism);
    if (e == nullptr)
        return LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    plugin_info info = {e->field[1], e->field[2], e->field[3], e->field[4], e->field[5]};
    int rc = register_locked(&info, false);
    if (rc == 0)
        fill_ref(find_registered(type, mechanism), ref);
    return rc;
}
} // namespace

int ldap_load_plugin(const char *path)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_load_plugin(): %s\n", path != nullptr ? path : "(null)");
    if (path == nullptr || *path == '\0')
        return LDAP_PLUGIN_NOT_LOADED;
    // The suffix is replaced after the last "." of the file name only: a dot in a directory
    // name (a hidden directory, a versioned install path) must not cut the path short.
    const char *base = strrchr(path, '/');
    base = base != nullptr ? base + 1 : path;
    const char *dot = strrchr(base, '.');
    size_t keep = dot != nullptr ? static_cast<size_t>(dot - path) : strlen(path);
    auto *so = static_cast<char *>(lber_malloc(keep + 4));
    if (so == nullptr)
        return LDAP_NO_MEMORY;
    memcpy(so, path, keep);
    memcpy(so + keep, ".so", 4);
    void *handle = dlopen(so, RTLD_NOW | RTLD_GLOBAL);
    if (handle == nullptr)
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_load_plugin(): dlopen %s failed: %s\n", so, dlerror());
    lber_free(so);
    if (handle == nullptr)
        return LDAP_PLUGIN_NOT_LOADED;
    last_loaded = handle;
    return 0;
}

int ldap_register_plugin(plugin_info *info)
{
    int rc = LDAP_PARAM_ERROR;
    if (info != nullptr) {
        // A missing configuration file does not stop a program's own registration.
        (void)ldap_read_conf_file();
        LDAP_LOCK(guard, ldap_config_mutex(), MODULE);
        rc = guard.rc() != 0 ? guard.rc() : register_locked(info, true);
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_register_plugin: returing rc=%d\n", rc);
    return rc;
}

int ldap_find_plugin(const char *type, const char *mechanism, LDAPPluginRef *ref)
{
    {
        LDAP_LOCK(guard, ldap_config_mutex(), MODULE);
        if (guard.rc() != 0)
            return guard.rc();
        if (Registered *r = find_registered(type, mechanism)) {
            fill_ref(r, ref);
            return 0;
        }
    }
    int rc = ldap_read_conf_file();
    if (rc != 0)
        return rc;
    LDAP_LOCK(guard, ldap_config_mutex(), MODULE);
    return guard.rc() != 0 ? guard.rc() : register_configured(type, mechanism, ref);
}

int ldap_plugin_snapshot(plugin_info ***out)
{
    *out = nullptr;
    LDAP_LOCK(guard, ldap_config_mutex(), MODULE);
    if (guard.rc() != 0)
        return guard.rc();
    int n = 0;
    for (Registered *r = registry; r != nullptr; r = r->next)
        n++;
    if (n > SNAPSHOT_MAX)
        return LDAP_PARAM_ERROR;
    auto **list = static_cast<plugin_info **>(lber_calloc(n + 1, sizeof(plugin_info *)));
    if (list == nullptr)
        return LDAP_NO_MEMORY;
    *out = list;
    for (Registered *r = registry; r != nullptr; r = r->next) {
        auto *pi = static_cast<plugin_info *>(lber_calloc(1, sizeof(plugin_info)));
        if (pi == nullptr || copy_info(&r->info, pi) != 0) {
            lber_free(pi);
            return LDAP_NO_MEMORY; // the part copied so far is the caller's
        }
        *list++ = pi;
    }
    return 0;
}

void ldap_plugin_snapshot_free(plugin_info **list)
{
    if (list == nullptr)
        return;
    for (plugin_info **p = list; *p != nullptr; p++) {
        free_info(*p);
        lber_free(*p);
    }
    lber_free(list);
}

LDAPPluginFn ldap_plugin_function(const LDAPPluginOps *ops, int number)
{
    if (ops == nullptr)
        return nullptr;
    switch (number) {
    case LDAP_PLUGIN_FN_CLEANUP:
        return ops->cleanup;
    case LDAP_PLUGIN_FN_INIT:
        return ops->init;
    case LDAP_PLUGIN_FN_BIND_S:
        return ops->bind_s;
    case LDAP_PLUGIN_FN_BIND:
        return ops->bind;
    default:
        return nullptr;
    }
}
