// Modify, add, delete, rename (modrdn) and compare: one encoder per request body, one
// modification walker shared by modify and add, and the common request skeleton
// (ldap_ops.h) for the _ext / _ext_s layers and the classic forms on top.
#include "ldap_update.h"

#include <cstring>

#include "ldap_error.h"
#include "ldap_ops.h"

namespace {

constexpr ber_tag_t MODDN_NEW_SUPERIOR = 0x80;

// Modify: SEQUENCE OF SEQUENCE { operation ENUMERATED, modification PartialAttribute }
// Add:    SEQUENCE OF PartialAttribute
// PartialAttribute ::= SEQUENCE { type AttributeDescription, vals SET OF OCTET STRING }
// `with_op` chooses the modify form. LDAP_MOD_BVALUES in the low byte of mod_op selects
// berval values and is not sent.
int put_mods(BerElement *ber, LDAPMod **mods, bool with_op)
{
    for (; mods != nullptr && *mods != nullptr; ++mods) {
        const LDAPMod *mod = *mods;
        if (mod->mod_type == nullptr)
            return -1;
        bool bvalues = (mod->mod_op & LDAP_MOD_BVALUES) != 0;
        int op = mod->mod_op & ~LDAP_MOD_BVALUES;
        int rc = with_op ? fber_printf(ber, "{e{s", op, mod->mod_type)
                         : fber_printf(ber, "{s", mod->mod_type);
        if (rc == -1)
            return -1;
        if (bvalues)
            rc = fber_printf(ber, with_op ? "[V]}}" : "[V]}", mod->mod_bvalues);
        else
            rc = fber_printf(ber, with_op ? "[v]}}" : "[v]}", mod->mod_values);
        if (rc == -1)
            return -1;
    }
    return 0;
}

const char *dn_or_empty(const char *dn) { return dn != nullptr ? dn : ""; }

// ModifyRequest ::= [APPLICATION 6] SEQUENCE { object LDAPDN, changes SEQUENCE OF ... }
// AddRequest ::= [APPLICATION 8] SEQUENCE { entry LDAPDN, attributes SEQUENCE OF ... }
int send_mods_request(LDAP *ld, ber_tag_t tag, const char *no_conn, const char *dn, LDAPMod **mods,
                      LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    *msgidp = -1;
    OpRequest op;
    int rc = ldap_op_begin(ld, lc, no_conn, &op);
    if (rc != 0)
        return rc;
    if (fber_printf(op.ber, "{it{s{", op.msgid, tag, dn_or_empty(dn)) == -1 ||
        put_mods(op.ber, mods, tag == LDAP_REQ_MODIFY) == -1 || fber_printf(op.ber, "}}") == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    return ldap_op_finish(&op, tag, serverctrls, {}, msgidp);
}

// The synchronous layers' trace texts, worded as each operation has always worded them.
constexpr OpSyncTraces MODIFY_TRACES = {nullptr,
                                        "ldap_modify_ext_s: ldap_modify_ext failed with rc=%d\n",
                                        "ldap_modify_ext_s: ldap_result failed rc=%d\n"};
constexpr OpSyncTraces ADD_TRACES = {nullptr, "ldap_add_ext_s: ldap_add_ext failed with rc=%d\n",
                                     "ldap_add_ext_s: ldap_result failed with rc=%d\n"};
constexpr OpSyncTraces DELETE_TRACES = {nullptr,
                                        "ldap_delete_ext_s: ldap_delete_ext failed with rc=%d\n",
                                        "ldap_delete_ext_s: ldap_result failed rc=%d\n"};
constexpr OpSyncTraces RENAME_TRACES = {nullptr, "ldap_rename_s: ldap_rename failed rc=%d\n",
                                        "ldap_rename_s: ldap_result failed rc=%d\n"};
constexpr OpSyncTraces COMPARE_TRACES = {nullptr,
                                         "ldap_compare_ext_s: ldap_compare_ext failed rc=%d\n",
                                         "ldap_compare_ext_s: ldap_result failed rc=%d\n"};

// Runs an _ext form synchronously: `ext` is called with the out message id.
template <class Ext> int run_sync(LDAP *ld, const OpSyncTraces &traces, Ext ext)
{
    // Updates have no time-out: the deadline is not limited.
    auto start = [&](const LDAPDeadline &, int *idp) { return ext(idp); };
    return ldap_op_ext_s(ld, traces, nullptr, start, nullptr);
}

} // namespace

/* ---- modify ---- */

int ldap_modify_ext_direct(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                           int *msgidp, LDAPConn *lc)
{
    return send_mods_request(ld, LDAP_REQ_MODIFY, "ldap_modify_ext_direct: NULL server connection\n",
                             dn, mods, serverctrls, msgidp, lc);
}

int ldap_modify_ext(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                    LDAPControl **clientctrls, int *msgidp)
{
    auto send = [&](LDAPControl **sctrls, int *idp) {
        return ldap_modify_ext_direct(ld, dn, mods, sctrls, idp, nullptr);
    };
    return ldap_op_ext(ld, "INVALID: ldap_modify_ext invalid ld:%p\n", dn != nullptr, serverctrls,
                       clientctrls, msgidp, send);
}

int ldap_modify_ext_s(LDAP *ld, const char *dn, LDAPMod **mods, LDAPControl **serverctrls,
                      LDAPControl **clientctrls)
{
    return run_sync(ld, MODIFY_TRACES, [&](int *idp) {
        return ldap_modify_ext(ld, dn, mods, serverctrls, clientctrls, idp);
    });
}

int ldap_modify(LDAP *ld, const char *dn, LDAPMod **mods)
{
    int msgid = -1;
    int rc = ldap_modify_ext(ld, dn, mods, nullptr, nullptr, &msgid);
    return ldap_op_msgid(rc, msgid);
}

int ldap_modify_s(LDAP *ld, const char *dn, LDAPMod **mods)
{
    return ldap_modify_ext_s(ld, dn, mods, nullptr, nullptr);
}

/* ---- add ---- */

int ldap_add_ext_direct(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                        int *msgidp, LDAPConn *lc)
{
    return send_mods_request(ld, LDAP_REQ_ADD, "ldap_add_ext_direct, NULL server connection\n", dn,
                             attrs, serverctrls, msgidp, lc);
}

int ldap_add_ext(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                 LDAPControl **clientctrls, int *msgidp)
{
    auto send = [&](LDAPControl **sctrls, int *idp) {
        return ldap_add_ext_direct(ld, dn, attrs, sctrls, idp, nullptr);
    };
    return ldap_op_ext(ld, "INVALID: ldap_add_ext invalid ld:%p\n", dn != nullptr, serverctrls,
                       clientctrls, msgidp, send);
}

int ldap_add_ext_s(LDAP *ld, const char *dn, LDAPMod **attrs, LDAPControl **serverctrls,
                   LDAPControl **clientctrls)
{
    return run_sync(ld, ADD_TRACES, [&](int *idp) {
        return ldap_add_ext(ld, dn, attrs, serverctrls, clientctrls, idp);
    });
}

int ldap_add(LDAP *ld, const char *dn, LDAPMod **attrs)
{
    int msgid = -1;
    int rc = ldap_add_ext(ld, dn, attrs, nullptr, nullptr, &msgid);
    return ldap_op_msgid(rc, msgid);
}

int ldap_add_s(LDAP *ld, const char *dn, LDAPMod **attrs)
{
    return ldap_add_ext_s(ld, dn, attrs, nullptr, nullptr);
}

/* ---- delete ---- */

// DelRequest ::= [APPLICATION 10] LDAPDN
int ldap_delete_ext_direct(LDAP *ld, const char *dn, LDAPControl **serverctrls, int *msgidp,
                           LDAPConn *lc)
{
    *msgidp = -1;
    OpRequest op;
    int rc = ldap_op_begin(ld, lc, "ldap_delete_ext_direct: NULL server connection\n", &op);
    if (rc != 0)
        return rc;
    if (fber_printf(op.ber, "{its", op.msgid, LDAP_REQ_DELETE, dn_or_empty(dn)) == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    return ldap_op_finish(&op, LDAP_REQ_DELETE, serverctrls, {}, msgidp);
}

int ldap_delete_ext(LDAP *ld, const char *dn, LDAPControl **serverctrls,
                    LDAPControl **clientctrls, int *msgidp)
{
    auto send = [&](LDAPControl **sctrls, int *idp) {
        return ldap_delete_ext_direct(ld, dn, sctrls, idp, nullptr);
    };
    return ldap_op_ext(ld, "INVALID: ldap_delete_ext invalid ld:%p\n", dn != nullptr, serverctrls,
                       clientctrls, msgidp, send);
}

int ldap_delete_ext_s(LDAP *ld, const char *dn, LDAPControl **serverctrls,
                      LDAPControl **clientctrls)
{
    return run_sync(ld, DELETE_TRACES, [&](int *idp) {
        return ldap_delete_ext(ld, dn, serverctrls, clientctrls, idp);
    });
}

int ldap_delete(LDAP *ld, const char *dn)
{
    int msgid = -1;
    int rc = ldap_delete_ext(ld, dn, nullptr, nullptr, &msgid);
    return ldap_op_msgid(rc, msgid);
}

int ldap_delete_s(LDAP *ld, const char *dn) { return ldap_delete_ext_s(ld, dn, nullptr, nullptr); }

/* ---- rename ---- */

// ModifyDNRequest ::= [APPLICATION 12] SEQUENCE { entry LDAPDN, newrdn RelativeLDAPDN,
//     deleteoldrdn BOOLEAN, newSuperior [0] LDAPDN OPTIONAL }
int ldap_rename_direct(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                       int deleteoldrdn, LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    *msgidp = -1;
    OpRequest op;
    int rc = ldap_op_begin(ld, lc, "ldap_rename_direct: NULL server connection\n", &op);
    if (rc != 0)
        return rc;
    if (fber_printf(op.ber, "{it{ssb", op.msgid, LDAP_REQ_MODRDN, dn_or_empty(dn),
                    dn_or_empty(newrdn), deleteoldrdn) == -1 ||
        (newsuperior != nullptr &&
         fber_printf(op.ber, "ts", MODDN_NEW_SUPERIOR, newsuperior) == -1) ||
        fber_printf(op.ber, "}") == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    return ldap_op_finish(&op, LDAP_REQ_MODRDN, serverctrls, {}, msgidp);
}

int ldap_rename(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                int deleteoldrdn, LDAPControl **serverctrls, LDAPControl **clientctrls,
                int *msgidp)
{
    auto send = [&](LDAPControl **sctrls, int *idp) {
        return ldap_rename_direct(ld, dn, newrdn, newsuperior, deleteoldrdn, sctrls, idp,
                                  nullptr);
    };
    return ldap_op_ext(ld, "INVALID: ldap_rename invalid ld:%p\n",
                       dn != nullptr && newrdn != nullptr, serverctrls, clientctrls, msgidp, send);
}

int ldap_rename_s(LDAP *ld, const char *dn, const char *newrdn, const char *newsuperior,
                  int deleteoldrdn, LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    return run_sync(ld, RENAME_TRACES, [&](int *idp) {
        return ldap_rename(ld, dn, newrdn, newsuperior, deleteoldrdn, serverctrls, clientctrls,
                           idp);
    });
}

int ldap_modrdn(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn)
{
    int msgid = -1;
    int rc = ldap_rename(ld, dn, newrdn, nullptr, deleteoldrdn, nullptr, nullptr, &msgid);
    return ldap_op_msgid(rc, msgid);
}

int ldap_modrdn_s(LDAP *ld, const char *dn, const char *newrdn, int deleteoldrdn)
{
    return ldap_rename_s(ld, dn, newrdn, nullptr, deleteoldrdn, nullptr, nullptr);
}

/* ---- compare ---- */

// CompareRequest ::= [APPLICATION 14] SEQUENCE { entry LDAPDN,
//     ava SEQUENCE { attributeDesc AttributeDescription, assertionValue OCTET STRING } }
int ldap_compare_ext_direct(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                            LDAPControl **serverctrls, int *msgidp, LDAPConn *lc)
{
    *msgidp = -1;
    OpRequest op;
    int rc = ldap_op_begin(ld, lc, "ldap_compare_ext_direct: NULL server connection\n", &op);
    if (rc != 0)
        return rc;
    const char *bytes = value != nullptr && value->bv_val != nullptr ? value->bv_val : "";
    int len = value != nullptr && value->bv_val != nullptr ? static_cast<int>(value->bv_len) : 0;
    if (fber_printf(op.ber, "{it{s{so}}", op.msgid, LDAP_REQ_COMPARE, dn_or_empty(dn),
                    dn_or_empty(attr), bytes, len) == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    return ldap_op_finish(&op, LDAP_REQ_COMPARE, serverctrls, {}, msgidp);
}

int ldap_compare_ext(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                     LDAPControl **serverctrls, LDAPControl **clientctrls, int *msgidp)
{
    auto send = [&](LDAPControl **sctrls, int *idp) {
        return ldap_compare_ext_direct(ld, dn, attr, value, sctrls, idp, nullptr);
    };
    return ldap_op_ext(ld, "INVALID: ldap_compare_ext invalid ld:%p\n",
                       dn != nullptr && attr != nullptr && value != nullptr, serverctrls,
                       clientctrls, msgidp, send);
}

int ldap_compare_ext_s(LDAP *ld, const char *dn, const char *attr, const struct berval *value,
                       LDAPControl **serverctrls, LDAPControl **clientctrls)
{
    return run_sync(ld, COMPARE_TRACES, [&](int *idp) {
        return ldap_compare_ext(ld, dn, attr, value, serverctrls, clientctrls, idp);
    });
}

// The classic compare takes a string value.
static struct berval string_value(const char *value)
{
    return {value != nullptr ? strlen(value) : 0, const_cast<char *>(value)};
}

int ldap_compare(LDAP *ld, const char *dn, const char *attr, const char *value)
{
    struct berval bv = string_value(value);
    int msgid = -1;
    int rc = ldap_compare_ext(ld, dn, attr, value != nullptr ? &bv : nullptr, nullptr, nullptr,
                              &msgid);
    return ldap_op_msgid(rc, msgid);
}

int ldap_compare_s(LDAP *ld, const char *dn, const char *attr, const char *value)
{
    struct berval bv = string_value(value);
    return ldap_compare_ext_s(ld, dn, attr, value != nullptr ? &bv : nullptr, nullptr, nullptr);
}
