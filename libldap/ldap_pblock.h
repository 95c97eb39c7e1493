// The parameter block a plug-in receives: numbered parameters, and the services record through
// which the plug-in reads and sets them and exchanges SASL bind messages with the server.
#ifndef WZR_LIBLDAP_LDAP_PBLOCK_H
#define WZR_LIBLDAP_LDAP_PBLOCK_H

#include "ldap_deadline.h"
#include "ldap_int.h"
#include "wzrldap_plugin.h"

inline constexpr int LDAP_PBLOCK_SLOTS = 20;

struct LDAPPBlockSlot {
    int number;
    void *value;
    bool owned; // a copy the block frees
};

// One block. Plug-ins see only `base`; the rest is checked and used by the services.
struct LDAPPBlock {
    LDAPPluginBlock base;
    char eye[8];
    LDAPPBlockSlot slots[LDAP_PBLOCK_SLOTS];
    int count;
    LDAP *ld;                  // where sasl_bind_step sends, set for a bind
    LDAPConn *lc;              // the connection bound: the default one or a referral's
    LDAPDeadline until;        // when the bind's exchanges give up waiting
    const LDAPPluginOps *ops;  // the plug-in the block was made for, for its clean-up
};

LDAPPBlock *ldap_pblock_new();
void ldap_pblock_free(LDAPPBlock *pb);
// Stores `value` under `number` (replacing what was there); 210 is copied. 0, 89 (block full)
// or 90.
[[nodiscard]] int ldap_pblock_set(LDAPPBlock *pb, int number, const void *value);
// Stores a string the block then owns and frees (even when storing fails).
[[nodiscard]] int ldap_pblock_take(LDAPPBlock *pb, int number, char *owned);
// Stores an integer parameter (208).
[[nodiscard]] int ldap_pblock_set_int(LDAPPBlock *pb, int number, int value);
// The value under `number`, or null.
void *ldap_pblock_value(const LDAPPBlock *pb, int number);
// Drops every parameter that points into a caller's memory once the call has returned, so the
// block can stay on its connection until the plug-in's clean-up.
void ldap_pblock_forget_call(LDAPPBlock *pb);

#endif
