// LDAPMessage records: creation, validity, chains, and freeing with id release.
#ifndef WZR_LIBLDAP_LDAP_MESSAGE_H
#define WZR_LIBLDAP_LDAP_MESSAGE_H

#include "ldap_int.h"

LDAPMessage *ldap_msginit(LDAPConn *lc);
// A record for a PDU being received, its element embedded, with room for `contents_room` bytes
// of contents (the PDU's length and the NUL behind it) when the caller knows them: 0 puts the
// contents in a buffer of their own.
LDAPMessage *ldap_msginit_received(LDAP *ld, LDAPConn *lc, size_t contents_room);
int ldap_msg_valid(LDAPMessage *msg);
void free_msg(LDAPMessage *msg, int all);
int ldap_msgfree(LDAPMessage *msg);
int ldap_msgfree_direct(LDAPMessage *msg);
int ldap_msgid(LDAPMessage *msg);
int ldap_msgtype(LDAPMessage *msg);
LDAPMessage *ldap_first_message(LDAP *ld, LDAPMessage *res);
LDAPMessage *ldap_next_message(LDAP *ld, LDAPMessage *msg);
int ldap_count_messages(LDAP *ld, LDAPMessage *res);
int is_last_msg(LDAPMessage *msg);
void ldap_msg_release_msgid(LDAPMessage *msg);

#endif
