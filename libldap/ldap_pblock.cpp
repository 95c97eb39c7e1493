// Parameter blocks: a small table of numbered values, and the services record a plug-in uses
// to read and set them and to send SASL bind requests through the library.
#include "ldap_pblock.h"

#include <cstdint>
#include <algorithm>
#include <cstring>
#include <iterator>

#include "ldap_bind.h"
#include "ldap_error.h"

namespace {
constexpr char PBLOCK_EYE[8] = {'P', 'B', 'L', 'K', 'L', 'I', 'V', 'E'};

bool is_int_param(int number) { return number == LDAP_PLUGIN_PARAM_KRB_VERSION; }

// The numbers a plug-in may set; everything else is the library's.
bool plugin_may_set(int number)
{
    return number == LDAP_PLUGIN_PARAM_ERRTEXT || number == LDAP_PLUGIN_PARAM_OPS ||
           number == LDAP_PLUGIN_PARAM_OWN_STATE;
}

LDAPPBlock *checked(LDAPPluginBlock *block)
{
    auto *pb = reinterpret_cast<LDAPPBlock *>(block);
    return pb != nullptr && memcmp(pb->eye, PBLOCK_EYE, sizeof PBLOCK_EYE) == 0 ? pb : nullptr;
}

LDAPPBlockSlot *find_slot(LDAPPBlock *pb, int number)
{
    for (int i = 0; i < pb->count; i++) {
        if (pb->slots[i].number == number)
            return &pb->slots[i];
    }
    return nullptr;
}

void clear_slot(LDAPPBlockSlot *s)
{
    if (s->owned)
        lber_free(s->value);
    s->value = nullptr;
    s->owned = false;
}

int store(LDAPPBlock *pb, int number, void *value, bool owned)
{
    LDAPPBlockSlot *s = find_slot(pb, number);
    if (s == nullptr) {
        if (pb->count == LDAP_PBLOCK_SLOTS) {
            if (owned)
                lber_free(value);
            return LDAP_PARAM_ERROR;
        }
        s = &pb->slots[pb->count++];
        *s = {number, nullptr, false};
    }
    clear_slot(s);
    s->value = value;
    s->owned = owned;
    return 0;
}

int service_get(LDAPPluginBlock *block, int number, void *out)
{
    LDAPPBlock *pb = checked(block);
    LDAPPBlockSlot *s = pb != nullptr && out != nullptr ? find_slot(pb, number) : nullptr;
    if (s == nullptr)
        return LDAP_PARAM_ERROR;
    if (is_int_param(number))
        *static_cast<int *>(out) = static_cast<int>(reinterpret_cast<intptr_t>(s->value));
    else
        *static_cast<void **>(out) = s->value;
    return 0;
}

int service_set(LDAPPluginBlock *block, int number, const void *value)
{
    LDAPPBlock *pb = checked(block);
    if (pb == nullptr || !plugin_may_set(number))
        return LDAP_PARAM_ERROR;
    return ldap_pblock_set(pb, number, value);
}

int service_sasl_step(LDAPPluginBlock *block, const char *dn, const struct berval *cred,
                      struct berval **servercredp)
{
    if (servercredp != nullptr)
        *servercredp = nullptr;
    LDAPPBlock *pb = checked(block);
    if (pb == nullptr || pb->ld == nullptr)
        return LDAP_PARAM_ERROR;
    char *errmsg = nullptr;
    auto *mech = static_cast<const char *>(ldap_pblock_value(pb, LDAP_PLUGIN_PARAM_MECH));
    auto **sctrls =
        static_cast<LDAPControl **>(ldap_pblock_value(pb, LDAP_PLUGIN_PARAM_SERVERCTRLS));
    int rc = ldap_sasl_bind_step(pb->ld, pb->lc, pb->until, dn, mech, cred, sctrls, servercredp,
                                 &errmsg);
    if (errmsg != nullptr && *errmsg != '\0' &&
        ldap_pblock_set(pb, LDAP_PLUGIN_PARAM_ERRTEXT, errmsg) != 0)
        rc = LDAP_NO_MEMORY;
    lber_free(errmsg);
    return rc;
}

void service_free_berval(struct berval *bv) { ber_bvfree(bv); }

void service_trace(LDAPPluginBlock *block, const char *text)
{
    LDAPPBlock *pb = checked(block);
    auto *mech = pb != nullptr ? static_cast<const char *>(
                                     ldap_pblock_value(pb, LDAP_PLUGIN_PARAM_MECH))
                               : nullptr;
    LDAP_TRACE(LDAP_TRC_API, "plugin %s: %s\n", mech != nullptr ? mech : "-",
               text != nullptr ? text : "");
}

const LDAPPluginServices SERVICES = {LDAP_PLUGIN_SERVICES_VERSION, service_get, service_set,
                                     service_sasl_step, service_free_berval, service_trace};
} // namespace

LDAPPBlock *ldap_pblock_new()
{
    auto *pb = static_cast<LDAPPBlock *>(lber_calloc(1, sizeof(LDAPPBlock)));
    if (pb != nullptr) {
        pb->base.services = &SERVICES;
        memcpy(pb->eye, PBLOCK_EYE, sizeof PBLOCK_EYE);
    }
    return pb;
}

void ldap_pblock_free(LDAPPBlock *pb)
{
    if (pb == nullptr)
        return;
    for (int i = 0; i < pb->count; i++)
        clear_slot(&pb->slots[i]);
    memset(pb->eye, 0, sizeof pb->eye);
    lber_free(pb);
}

int ldap_pblock_set(LDAPPBlock *pb, int number, const void *value)
{
    if (number != LDAP_PLUGIN_PARAM_ERRTEXT || value == nullptr)
        return store(pb, number, const_cast<void *>(value), false);
    char *copy = lber_strdup(static_cast<const char *>(value));
    return copy != nullptr ? store(pb, number, copy, true) : LDAP_NO_MEMORY;
}

int ldap_pblock_take(LDAPPBlock *pb, int number, char *owned)
{
    return owned != nullptr ? store(pb, number, owned, true) : LDAP_NO_MEMORY;
}

int ldap_pblock_set_int(LDAPPBlock *pb, int number, int value)
{
    return store(pb, number, reinterpret_cast<void *>(static_cast<intptr_t>(value)), false);
}

void *ldap_pblock_value(const LDAPPBlock *pb, int number)
{
    LDAPPBlockSlot *s = find_slot(const_cast<LDAPPBlock *>(pb), number);
    return s != nullptr ? s->value : nullptr;
}

void ldap_pblock_forget_call(LDAPPBlock *pb)
{
    const int kept[] = {LDAP_PLUGIN_PARAM_TYPE, LDAP_PLUGIN_PARAM_ARGS, LDAP_PLUGIN_PARAM_STATE,
                        LDAP_PLUGIN_PARAM_LD};
    int out = 0;
    for (int i = 0; i < pb->count; i++) {
        LDAPPBlockSlot s = pb->slots[i];
        if (std::find(std::begin(kept), std::end(kept), s.number) != std::end(kept))
            pb->slots[out++] = s;
        else
            clear_slot(&s);
    }
    pb->count = out;
    pb->ld = nullptr; // no more exchanges: the call is over
    pb->lc = nullptr;
}
