// Chaining and its audit. The chaining control tells a server whether to chain an operation
// to the servers it knows of or to hand back referrals. A request that crosses servers (from
// an application or a proxy acting for its users) loses who first asked; the session-tracking
// control carries that along, the originating address, host and user or session, so that
// every server on the way can write it into its audit log.
#include "ldap_ctrl.h"

#include "ldap_error.h"

namespace {

bool behaviour_valid(int b) { return b >= LDAP_CHAINING_UNSET && b <= LDAP_REFERRALS_REQUIRED; }

const char *or_empty(const char *s) { return s != nullptr ? s : ""; }

} // namespace

//   ChainingBehavior ::= SEQUENCE { resolveBehavior Behavior OPTIONAL,
//       continuationBehavior Behavior OPTIONAL }
//   Behavior ::= ENUMERATED { chainingPreferred (0), chainingRequired (1),
//       referralsPreferred (2), referralsRequired (3) }
// The two are told apart only by their order, so a continuation needs a resolve in front.
int ldap_create_chaining_control(LDAP *ld, int resolve, int continuation, char iscritical,
                                 LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_chaining_control\n");
    if (ctrlp == nullptr || !behaviour_valid(resolve) || !behaviour_valid(continuation) ||
        (resolve == LDAP_CHAINING_UNSET && continuation != LDAP_CHAINING_UNSET))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    const char *oid = LDAP_CONTROL_CHAINING_BEHAVIOR;
    int rc;
    if (resolve == LDAP_CHAINING_UNSET)
        rc = ldap_control_encode(oid, iscritical, ctrlp, "{}");
    else if (continuation == LDAP_CHAINING_UNSET)
        rc = ldap_control_encode(oid, iscritical, ctrlp, "{e}", resolve);
    else
        rc = ldap_control_encode(oid, iscritical, ctrlp, "{ee}", resolve, continuation);
    return ldap_fail(ld, rc);
}

//   SessionIdentifierControlValue ::= SEQUENCE { sessionSourceIp LDAPString,
//       sessionSourceName LDAPString, formatOID LDAPOID, sessionTrackingIdentifier LDAPString }
int ldap_create_session_tracking_control(LDAP *ld, const char *source_ip, const char *source_name,
                                         const char *format_oid, const struct berval *identifier,
                                         LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_session_tracking_control\n");
    if (ctrlp == nullptr || format_oid == nullptr || *format_oid == '\0' || identifier == nullptr ||
        (identifier->bv_val == nullptr && identifier->bv_len != 0))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    // Never critical, servers refuse it otherwise: an audit trail is worth asking for, not
    // worth failing the operation over.
    return ldap_fail(ld, ldap_control_encode(LDAP_CONTROL_SESSION_TRACKING, 0, ctrlp, "{ssso}",
                                             or_empty(source_ip), or_empty(source_name), format_oid,
                                             or_empty(identifier->bv_val),
                                             static_cast<int>(identifier->bv_len)));
}
