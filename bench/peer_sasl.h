// The benchmark peer for SASL binds: OpenLDAP's client library binding the way ldapwhoami
// -Y MECH does (ldap_sasl_interactive_bind_s with Cyrus SASL), behind a type-free interface.
#ifndef WZR_BENCH_PEER_SASL_H
#define WZR_BENCH_PEER_SASL_H

namespace peer {

// Connects to `uri`, binds with `mech` as `user` / `password` (no security layer) and
// unbinds. False when any step fails.
bool sasl_bind_once(const char *uri, const char *mech, const char *user, const char *password);

} // namespace peer

#endif
