// Groups in one search: the dereference control asks the server to follow DN-valued
// attributes (a group's members, say) and return attributes of the entries they name with the
// entry that holds them; its parser reads that answer from an entry's controls.
#include "ldap_ctrl.h"

#include "ldap_controls.h"
#include "ldap_error.h"

namespace {

constexpr ber_tag_t DEREF_ATTR_VALS = 0xa0;

//   DerefSpecs ::= SEQUENCE OF DerefSpec
//   DerefSpec ::= SEQUENCE { derefAttr AttributeDescription, attributes AttributeList }
//   AttributeList ::= SEQUENCE OF AttributeDescription
bool write_derefs(BerElement *ber, const LDAPDerefSpec *derefs)
{
    if (ber_printf(ber, "{") == -1)
        return false;
    for (const LDAPDerefSpec *s = derefs; s->derefAttr != nullptr; ++s) {
        if (ber_printf(ber, "{s{", s->derefAttr) == -1 ||
            (s->attributes != nullptr && ber_printf(ber, "v", s->attributes) == -1) ||
            ber_printf(ber, "}}") == -1)
            return false;
    }
    return ber_printf(ber, "}") != -1;
}

bool derefs_valid(const LDAPDerefSpec *derefs)
{
    return derefs != nullptr && derefs->derefAttr != nullptr;
}

void free_values(LDAPDerefVal *v)
{
    while (v != nullptr) {
        LDAPDerefVal *next = v->next;
        for (struct berval **b = v->vals; b != nullptr && *b != nullptr; ++b)
            ber_bvfree(*b);
        lber_free(v->vals);
        lber_free(v->type);
        lber_free(v);
        v = next;
    }
}

//   PartialAttributeList ::= SEQUENCE OF SEQUENCE { type AttributeDescription,
//                                                   vals SET OF AttributeValue }
// Appended at *tail until `end`.
int read_values(BerElement *r, unsigned char *end, LDAPDerefVal **tail)
{
    while (r->ber_ptr < end) {
        auto v = static_cast<LDAPDerefVal *>(lber_calloc(1, sizeof(LDAPDerefVal)));
        if (v == nullptr)
            return LDAP_NO_MEMORY;
        *tail = v;
        tail = &v->next;
        if (fber_scanf(r, "{a[V]}", &v->type, &v->vals) == LBER_ERROR)
            return LDAP_DECODING_ERROR;
    }
    return r->ber_ptr == end ? 0 : LDAP_DECODING_ERROR;
}

//   DerefRes ::= SEQUENCE { derefAttr AttributeDescription, derefVal LDAPDN,
//                           attrVals [0] PartialAttributeList OPTIONAL }
int read_result(BerElement *r, LDAPDerefRes *res)
{
    ber_len_t len;
    if (fber_skip_tag(r, &len) == LBER_ERROR)
        return LDAP_DECODING_ERROR;
    unsigned char *end = ldap_contents_end(r, len, r->ber_end);
    if (fber_scanf(r, "aa", &res->derefAttr, &res->derefVal) == LBER_ERROR)
        return LDAP_DECODING_ERROR;
    if (r->ber_ptr < end) {
        if (fber_peek_tag(r, &len) != DEREF_ATTR_VALS || fber_skip_tag(r, &len) == LBER_ERROR)
            return LDAP_DECODING_ERROR;
        int rc = read_values(r, ldap_contents_end(r, len, r->ber_end), &res->attrVals);
        if (rc != 0)
            return rc;
    }
    return r->ber_ptr == end ? 0 : LDAP_DECODING_ERROR;
}

//   controlValue ::= SEQUENCE OF DerefRes
int read_results(BerElement *r, LDAPDerefRes **out)
{
    ber_len_t len;
    if (fber_skip_tag(r, &len) == LBER_ERROR)
        return LDAP_DECODING_ERROR;
    LDAPDerefRes **tail = out;
    while (!ldap_control_value_done(r)) {
        auto res = static_cast<LDAPDerefRes *>(lber_calloc(1, sizeof(LDAPDerefRes)));
        if (res == nullptr)
            return LDAP_NO_MEMORY;
        *tail = res;
        tail = &res->next;
        int rc = read_result(r, res);
        if (rc != 0)
            return rc;
    }
    return 0;
}

} // namespace

int ldap_create_deref_control(LDAP *ld, const LDAPDerefSpec *derefs, char iscritical,
                              LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_deref_control\n");
    if (ctrlp == nullptr || !derefs_valid(derefs))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    return ldap_fail(ld, ldap_control_write(LDAP_CONTROL_DEREF, iscritical, ctrlp,
                                            [derefs](BerElement *ber) {
                                                return write_derefs(ber, derefs);
                                            }));
}

int ldap_parse_deref_control(LDAP *ld, LDAPControl **ctrls, LDAPDerefRes **resp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_deref_control: ctrls(%p)\n",
               static_cast<void *>(ctrls));
    if (resp == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *resp = nullptr;
    BerElement *r = nullptr;
    int rc = ldap_control_value_reader(ctrls, LDAP_CONTROL_DEREF, &r);
    if (rc == 0)
        rc = ldap_ber_failure(r, read_results(r, resp));
    fber_free(r);
    if (rc != 0) {
        ldap_derefresponse_free(*resp);
        *resp = nullptr;
    }
    return ldap_fail(ld, rc);
}

void ldap_derefresponse_free(LDAPDerefRes *res)
{
    while (res != nullptr) {
        LDAPDerefRes *next = res->next;
        lber_free(res->derefAttr);
        lber_free(res->derefVal);
        free_values(res->attrVals);
        lber_free(res);
        res = next;
    }
}
