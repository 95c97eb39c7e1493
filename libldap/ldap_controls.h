// Control lists: wire encoding and decoding, copy, merge and release.
#ifndef WZR_LIBLDAP_LDAP_CONTROLS_H
#define WZR_LIBLDAP_LDAP_CONTROLS_H

#include "ldap_int.h"

[[nodiscard]] int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls);
[[nodiscard]] int put_ctrls_into_ber_old(BerElement *ber, LDAPControl **ctrls);
[[nodiscard]] int get_ctrls_from_ber(BerElement *ber, LDAPControl ***ctrlsp);
// Records its code in the calling thread's error record. The two bracketed forms start an
// operation first and answer a refused start with 89 (_np) or -1 (_checked).
int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp);
int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp);
int ldap_get_entry_controls_checked(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp);
[[nodiscard]] int ldap_copy_controls(LDAPControl ***to, LDAPControl **from);
[[nodiscard]] int ldap_merge_control_lists(LDAPControl ***dest, LDAPControl ***input);
void ldap_control_free(LDAPControl *ctrl);
void ldap_controls_free(LDAPControl **ctrls);
void ldap_free_empty_control_list(LDAPControl ***list);
int ldap_proxied_auth_encoding_mode(); // USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING, read once

// For the _ext layers: copies of the caller's server controls followed by copies of the
// handle's defaults (read under the handle mutex). *merged is null when both are empty; free
// it with ldap_free_merged_controls. Returns 0, 89, 90 or 129 and records nothing: the
// caller records what it returns.
[[nodiscard]] int ldap_merge_default_controls(LDAP *ld, LDAPControl **given,
                                              LDAPControl ***merged);
void ldap_free_merged_controls(LDAPControl **merged);
// 12 when a client control list holds a critical control (none is understood), else 0.
[[nodiscard]] int ldap_check_client_controls(LDAPControl **clientctrls);

// End of the contents of an element whose header was just read, never beyond `limit`; null
// when the header itself ran past `limit` (a hostile length cut the element's header).
unsigned char *ldap_contents_end(BerElement *ber, ber_len_t len, unsigned char *limit);

#endif
