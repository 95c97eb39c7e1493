// Control lists: wire encoding and decoding, copy, merge and release.
#ifndef WZR_LIBLDAP_LDAP_CONTROLS_H
#define WZR_LIBLDAP_LDAP_CONTROLS_H

#include "ldap_int.h"

[[nodiscard]] int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls);
[[nodiscard]] int put_ctrls_into_ber_old(BerElement *ber, LDAPControl **ctrls);
[[nodiscard]] int get_ctrls_from_ber(BerElement *ber, LDAPControl ***ctrlsp);
int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp);
int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp);
[[nodiscard]] int ldap_copy_controls(LDAPControl ***to, LDAPControl **from);
[[nodiscard]] int ldap_merge_control_lists(LDAPControl ***dest, LDAPControl ***input);
void ldap_control_free(LDAPControl *ctrl);
void ldap_controls_free(LDAPControl **ctrls);
void ldap_free_empty_control_list(LDAPControl ***list);
int ldap_proxied_auth_encoding_mode(); // USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING, read once

// The handle's default server controls merged in front of the caller's (caller's first),
// for the _ext layers. *merged is what to send; free it with ldap_free_merged_controls.
[[nodiscard]] int ldap_merge_default_controls(LDAP *ld, LDAPControl **given,
                                              LDAPControl ***merged);
void ldap_free_merged_controls(LDAPControl **merged);
// 12 when a client control list holds a critical control (none is understood), else 0.
[[nodiscard]] int ldap_check_client_controls(LDAPControl **clientctrls);

#endif
