// What every control constructor and parser shares: making a control from an OID and an
// encoded value, finding a control in a response's list, and opening its value for reading.
#include "ldap_ctrl.h"

#include <cstring>

#include "ldap_controls.h"

int ldap_control_create(const char *oid, int iscritical, const struct berval *value,
                        LDAPControl **ctrlp)
{
    if (ctrlp == nullptr)
        return LDAP_PARAM_ERROR;
    *ctrlp = nullptr;
    if (oid == nullptr || (value != nullptr && value->bv_val == nullptr && value->bv_len != 0))
        return LDAP_PARAM_ERROR;
    auto ctrl = static_cast<LDAPControl *>(lber_calloc(1, sizeof(LDAPControl)));
    if (ctrl == nullptr)
        return LDAP_NO_MEMORY;
    ctrl->ldctl_iscritical = iscritical != 0 ? 1 : 0;
    ctrl->ldctl_oid = lber_strdup(oid);
    bool ok = ctrl->ldctl_oid != nullptr;
    if (ok && value != nullptr) {
        // Always a buffer, also for an empty value: a null pointer would mean "no value".
        ctrl->ldctl_value.bv_val = static_cast<char *>(lber_malloc(value->bv_len + 1));
        ok = ctrl->ldctl_value.bv_val != nullptr;
        if (ok) {
            if (value->bv_len > 0)
                memcpy(ctrl->ldctl_value.bv_val, value->bv_val, value->bv_len);
            ctrl->ldctl_value.bv_val[value->bv_len] = '\0';
            ctrl->ldctl_value.bv_len = value->bv_len;
        }
    }
    if (!ok) {
        ldap_control_free(ctrl);
        return LDAP_NO_MEMORY;
    }
    *ctrlp = ctrl;
    return 0;
}

LDAPControl *ldap_control_find(const char *oid, LDAPControl **ctrls)
{
    for (LDAPControl **c = ctrls; c != nullptr && *c != nullptr; ++c) {
        if ((*c)->ldctl_oid != nullptr && strcmp((*c)->ldctl_oid, oid) == 0)
            return *c;
    }
    return nullptr;
}

int ldap_control_from_ber(BerElement *ber, const char *oid, int iscritical, LDAPControl **ctrlp)
{
    struct berval value{static_cast<unsigned long>(ber->ber_ptr - ber->ber_buf),
                        reinterpret_cast<char *>(ber->ber_buf)};
    return ldap_control_create(oid, iscritical, &value, ctrlp);
}

int ldap_control_value_reader(LDAPControl **ctrls, const char *oid, BerElement **reader)
{
    *reader = nullptr;
    const LDAPControl *ctrl = ldap_control_find(oid, ctrls);
    if (ctrl == nullptr)
        return LDAP_CONTROL_NOT_FOUND;
    if (ctrl->ldctl_value.bv_val == nullptr)
        return LDAP_DECODING_ERROR;
    *reader = fber_init(&ctrl->ldctl_value);
    return *reader == nullptr ? LDAP_NO_MEMORY : 0;
}

bool ldap_control_value_done(const BerElement *reader)
{
    return reader->ber_ptr >= reader->ber_end;
}

int ldap_control_finish(BerElement *ber, bool written, const char *oid, int iscritical,
                        LDAPControl **ctrlp)
{
    int rc = written ? ldap_control_from_ber(ber, oid, iscritical, ctrlp) : LDAP_NO_MEMORY;
    ber_free(ber, 1);
    return rc;
}
