// Controls whose value is a filter: assertion (the operation runs only if the target entry
// matches) and matched values (a search returns only the values that match).
#include "ldap_ctrl.h"

#include "ldap_error.h"
#include "ldap_filter.h"
#include "ldap_init.h"

namespace {

using FilterEncoder = int (*)(BerElement *ber, const char *filter);

int put_assertion(BerElement *ber, const char *filter) { return put_filter(ber, filter, 0); }

// The filter goes through the handle's FBER, so its text is read in the handle's code page as
// a search filter would be. The filter encoder cannot tell a malformed filter from a failed
// allocation; both answer 87.
int create_filter_control(LDAP *ld, const char *oid, const char *filter, char iscritical,
                          LDAPControl **ctrlp, FilterEncoder encode)
{
    if (ctrlp == nullptr || filter == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *ctrlp = nullptr;
    BerElement *ber = ldap_alloc_fber(ld, 1);
    if (ber == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int rc = encode(ber, filter) == 0 ? ldap_control_from_ber(ber, oid, iscritical, ctrlp)
                                      : LDAP_FILTER_ERROR;
    fber_free(ber);
    return ldap_fail(ld, rc);
}

} // namespace

//   controlValue ::= Filter
int ldap_create_assertion_control(LDAP *ld, const char *filter, char iscritical,
                                  LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_assertion_control\n");
    return create_filter_control(ld, LDAP_CONTROL_ASSERT, filter, iscritical, ctrlp,
                                 put_assertion);
}

//   controlValue ::= ValuesReturnFilter (SEQUENCE OF SimpleFilterItem)
int ldap_create_matchedvalues_control(LDAP *ld, const char *filter, char iscritical,
                                      LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_matchedvalues_control\n");
    return create_filter_control(ld, LDAP_CONTROL_VALUESRETURNFILTER, filter, iscritical, ctrlp,
                                 put_vrfilter);
}
