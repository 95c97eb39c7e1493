// The process-wide plug-in registry: loading plug-in libraries, calling their entry points,
// one entry per type and mechanism, and snapshots of it for callers.
#ifndef WZR_LIBLDAP_LDAP_PLUGIN_H
#define WZR_LIBLDAP_LDAP_PLUGIN_H

#include "ldap_int.h"
#include "wzrldap_plugin.h"

// What a bind needs of a registered plug-in; the strings live as long as the process.
struct LDAPPluginRef {
    const LDAPPluginOps *ops;
    const char *type;
    const char *args;
    void *state;
};

// Registers and loads the plug-in `info` describes, replacing an entry of the same type and
// mechanism. 0, 89, 90, 193, 194, 195 or 1 (no operations published).
int ldap_register_plugin(plugin_info *info);
// Loads "<path up to its last '.'>.so" for good. 0, 90 or 193.
[[nodiscard]] int ldap_load_plugin(const char *path);
// Finds the plug-in of `type` and `mechanism`: a registered one, else the configuration
// file's, which is registered on the way. 0 with *ref filled, 12 when none is configured, 192
// without a configuration file, or the registration's code.
[[nodiscard]] int ldap_find_plugin(const char *type, const char *mechanism, LDAPPluginRef *ref);
// A null-terminated copy of the registry for a caller (free with ldap_plugin_snapshot_free).
// 0; 89 when more than 63 plug-ins are registered; 90 with the part copied so far.
[[nodiscard]] int ldap_plugin_snapshot(plugin_info ***out);
void ldap_plugin_snapshot_free(plugin_info **list);
// Asks an operations record for its function by number (302, 304, 305, 306); null if absent.
LDAPPluginFn ldap_plugin_function(const LDAPPluginOps *ops, int number);

#endif
