// Referral chasing: version 3 referrals, search references and version 2 referral texts are
// followed on connections of the handle, the request re-sent there under a child row whose
// responses stand in for the referral; what cannot be followed is kept on the root row.
#ifndef WZR_LIBLDAP_LDAP_REFERRALS_H
#define WZR_LIBLDAP_LDAP_REFERRALS_H

#include "ldap_deadline.h"
#include "ldap_int.h"

// A rebind procedure (option 9): called with freeit 0 to get the DN, password and method for
// a referral server, then with freeit 1 to let it free them. Non-zero: the chase fails.
// When the handle's last bind was a SASL bind, the referral server is bound with that bind's
// mechanism and credentials instead; the procedure then only consents (any method other than
// simple, e.g. LDAP_AUTH_SASL, with no DN) or names the identity (its DN).
typedef int (*LDAPRebindProc)(LDAP *ld, char **dnp, char **passwdp, int *authmethodp,
                              int freeit);

// Returned by ldap_referral_from_child when the row is to be looked at again.
inline constexpr int LDAP_REFERRAL_AGAIN = -10;
// Returned by ldap_referral_from_child when the row has no child.
inline constexpr int LDAP_REFERRAL_NO_CHILD = -11;

// Decides whether `msg` (a message of a row that chases referrals) is a referral and follows
// it. Returns the message to deliver, or null when the message was consumed: a child row now
// stands in for it, or it could not be followed and was recorded on the root row, or (with
// *err set and recorded) it could not even be read.
LDAPMessage *look_for_referrals(LDAP *ld, LDAPMsgTable *table, int msgid, LDAPMessage *msg,
                                int hops, const LDAPDeadline &until, int *err);

// For a row with a child: the child's next response, delivered in the row's name (a type),
// 0 on a time-out, -1 on an error of this row, LDAP_REFERRAL_AGAIN when the child ended and
// the row has more of its own, LDAP_REFERRAL_NO_CHILD when the row has no child.
int ldap_referral_from_child(LDAP *ld, LDAPMsgTable *table, int msgid,
                             const LDAPDeadline &until, LDAPMessage **result, int chase, int hops);

// The last step for a final result of a row that chases referrals: releases the row once
// nothing is left in it and, on the root row, folds the referrals that could not be followed
// into the result. Returns the message to hand out (perhaps a new one; `msg` then freed).
LDAPMessage *ldap_referral_finish(LDAP *ld, LDAPMsgTable *table, int msgid, LDAPMessage *msg);

// The bind on a referral server: the rebind procedure's identity, or the handle's last SASL
// bind again, or anonymous (no bind at all on version 3 without a rebind procedure). 0 or
// the code (81 when the server is down).
[[nodiscard]] int send_referral_bind_request(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until);

// Links `child` (a row of `child_table` that has no request yet) to the row `parent` of
// `parent_table`: hop value one less, chasing as `chase` says, owned by this thread. `saved`
// (may be null) is the final result the child stands in for. 0, 89 (the parent is gone), 90
// or 129.
[[nodiscard]] int set_parent_child_pointers(LDAP *ld, LDAPMsgTable *parent_table, int parent,
                                            LDAPMsgTable *child_table, int child,
                                            const char *url, LDAPMessage *saved, bool chase);
// Undoes set_parent_child_pointers after a failed send (the child id is released already).
void unset_parent_child_pointers(LDAP *ld, LDAPMsgTable *parent_table, int parent);

#endif
