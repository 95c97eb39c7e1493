// The table's queue of received messages not yet filed, and filing into rows.
#ifndef WZR_LIBLDAP_LDAP_QUEUE_H
#define WZR_LIBLDAP_LDAP_QUEUE_H

#include "ldap_int.h"

void put_msg_in_queue(LDAPMsgTable *table, LDAPMessage *msg);
void flush_queue(LDAPMsgTable *table);                  // table lock held
[[nodiscard]] int put_msg_in_table(LDAPMsgTable *table, LDAPMessage *msg); // table lock held

#endif
