// Abandoning outstanding operations, down the chain of referral requests they spawned.
#ifndef WZR_LIBLDAP_LDAP_ABANDON_H
#define WZR_LIBLDAP_LDAP_ABANDON_H

#include "ldap_deadline.h"
#include "ldap_int.h"

int ldap_abandon(LDAP *ld, int msgid);
int ldap_abandon_ext(LDAP *ld, int msgid, LDAPControl **serverctrls, LDAPControl **clientctrls);
int ldap_abandon_ext_direct(LDAP *ld, int msgid, LDAPControl **serverctrls);
// Sends the abandon request within `until` (no limit by default) and releases the row at once.
[[nodiscard]] int abandon_table_row(LDAP *ld, LDAPMsgTable *table, int msgid,
                                    LDAPControl **serverctrls, const LDAPDeadline &until = {});
[[nodiscard]] int ldap_send_abandon_request(LDAP *ld, LDAPMsgTable *table, int msgid,
                                            LDAPControl **serverctrls,
                                            const LDAPDeadline &until = {});

#endif
