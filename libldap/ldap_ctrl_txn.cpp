// Transactions: a transaction groups updates that the server applies together or not at all.
// The start and end extended operations frame it, and each update inside it carries the
// transaction's identifier in the transaction control.
#include "ldap_ctrl.h"

#include "ldap_error.h"

namespace {

constexpr ber_tag_t TAG_INTEGER = 0x02;
constexpr ber_tag_t TAG_SEQUENCE = 0x30;

//   txnEndRes ::= SEQUENCE { messageID MessageID OPTIONAL,
//       updatesControls SEQUENCE OF updateControls SEQUENCE { messageID MessageID,
//                                                              controls Controls } OPTIONAL }
// The update controls are stepped over: the library has no use for them yet.
int read_txn_end_response(BerElement *r, int *failed_msgid)
{
    ber_len_t len;
    if (fber_skip_tag(r, &len) != TAG_SEQUENCE)
        return LDAP_DECODING_ERROR;
    if (!ldap_control_value_done(r) && fber_peek_tag(r, &len) == TAG_INTEGER) {
        int64_t id = 0;
        if (fber_get_int(r, &id) == LBER_ERROR || id < 0 || id > 0x7fffffff)
            return LDAP_DECODING_ERROR;
        *failed_msgid = static_cast<int>(id);
    }
    if (!ldap_control_value_done(r) &&
        (fber_peek_tag(r, &len) != TAG_SEQUENCE || fber_skip_element(r) != 0))
        return LDAP_DECODING_ERROR;
    return ldap_control_value_done(r) ? 0 : LDAP_DECODING_ERROR;
}

} // namespace

//   controlValue ::= txnId (the identifier itself)
int ldap_create_txn_spec_control(LDAP *ld, const struct berval *txnid, LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_txn_spec_control\n");
    if (ctrlp == nullptr || txnid == nullptr || txnid->bv_val == nullptr || txnid->bv_len == 0)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    return ldap_fail(ld, ldap_control_create(LDAP_CONTROL_TXN_SPEC, 1, txnid, ctrlp));
}

//   txnEndReq ::= SEQUENCE { commit BOOLEAN DEFAULT TRUE, identifier OCTET STRING }
// The default is left out, as DER wants it.
int ldap_txn_end_request_value(LDAP *ld, int commit, const struct berval *txnid,
                               struct berval **valuep)
{
    if (valuep == nullptr || txnid == nullptr || txnid->bv_val == nullptr || txnid->bv_len == 0)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *valuep = nullptr;
    BerElement *ber = der_alloc();
    if (ber == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int len = static_cast<int>(txnid->bv_len);
    int written = commit != 0 ? ber_printf(ber, "{o}", txnid->bv_val, len)
                              : ber_printf(ber, "{bo}", 0, txnid->bv_val, len);
    int rc = written == -1 || ber_flatten(ber, valuep) != 0 ? LDAP_NO_MEMORY : 0;
    ber_free(ber, 1);
    return ldap_fail(ld, rc);
}

int ldap_parse_txn_end_response_value(LDAP *ld, const struct berval *value, int *failed_msgidp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_txn_end_response_value: value(%p)\n",
               static_cast<const void *>(value));
    if (failed_msgidp == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *failed_msgidp = -1;
    if (value == nullptr || value->bv_val == nullptr)
        return ldap_fail(ld, LDAP_DECODING_ERROR);
    BerElement *r = fber_init(value);
    if (r == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int rc = read_txn_end_response(r, failed_msgidp);
    fber_free(r);
    if (rc != 0)
        *failed_msgidp = -1;
    return ldap_fail(ld, rc);
}
