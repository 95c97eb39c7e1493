// Control lists: their wire form behind a request, reading a response's or an entry's
// controls, deep copies, merging and release, and the default-control merge and client-control
// check that the _ext operation layers share.
#include "ldap_controls.h"

#include <cstring>
#include <pthread.h>
#include <strings.h>

#include "../trace/ldap_env.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_controls";
constexpr ber_tag_t TAG_BOOLEAN = 0x01;
constexpr ber_tag_t TAG_OCTETSTRING = 0x04;

using EncoderFn = int (*)(BerElement *, const char *, ...);

long count_controls(LDAPControl **list)
{
    long n = 0;
    if (list != nullptr) {
        while (list[n] != nullptr)
            ++n;
    }
    return n;
}

//   controls [0] SEQUENCE OF Control
//   Control ::= SEQUENCE { controlType LDAPOID, criticality BOOLEAN, controlValue OCTET STRING
//                          OPTIONAL }
// The criticality is always written, even when false.
int encode_controls(EncoderFn encode, BerElement *ber, LDAPControl **ctrls)
{
    if (encode(ber, "t{", LDAP_TAG_CONTROLS) == -1)
        return LDAP_ENCODING_ERROR;
    for (LDAPControl **c = ctrls; *c != nullptr; ++c) {
        const LDAPControl *ctrl = *c;
        if (encode(ber, "{sb", ctrl->ldctl_oid, static_cast<int>(ctrl->ldctl_iscritical)) == -1)
            return LDAP_ENCODING_ERROR;
        if (ctrl->ldctl_value.bv_val != nullptr &&
            encode(ber, "o", ctrl->ldctl_value.bv_val,
                   static_cast<int>(ctrl->ldctl_value.bv_len)) == -1)
            return LDAP_ENCODING_ERROR;
        if (encode(ber, "}") == -1)
            return LDAP_ENCODING_ERROR;
    }
    return encode(ber, "}") == -1 ? LDAP_ENCODING_ERROR : 0;
}

// One body for both encoders; `name` only labels the trace.
int put_ctrls_with(EncoderFn encode, const char *name, BerElement *ber, LDAPControl **ctrls)
{
    LDAP_TRACE(LDAP_TRC_API, "%s: ctrls=%p\n", name, static_cast<void *>(ctrls));
    int rc = 0;
    if (ctrls != nullptr && ctrls[0] != nullptr)
        rc = encode_controls(encode, ber, ctrls);
    LDAP_TRACE(LDAP_TRC_API, "%s: return(rc=%d)\n", name, rc);
    return rc;
}

// Reads the elements of one control after its OID, up to `end`: at most one BOOLEAN
// (criticality), which must come before the value, and at most one OCTET STRING (value).
int decode_control_fields(BerElement *ber, unsigned char *end, LDAPControl *ctrl)
{
    bool have_crit = false;
    bool have_value = false;
    while (ber->ber_ptr < end) {
        ber_len_t len;
        ber_tag_t tag = fber_peek_tag(ber, &len);
        if (tag == LBER_ERROR)
            break; // nothing more can be read: the control ends here
        if (tag == TAG_BOOLEAN && !have_crit && !have_value) {
            int64_t crit = 0;
            if (fber_get_int(ber, &crit) == LBER_ERROR)
                return LDAP_DECODING_ERROR;
            ctrl->ldctl_iscritical = crit != 0 ? 1 : 0;
            have_crit = true;
        } else if (tag == TAG_OCTETSTRING && !have_value) {
            // The value is opaque bytes: copied, never translated.
            char *val = nullptr;
            ber_len_t vlen = 0;
            if (fber_get_string_copy(ber, &val, &vlen) == LBER_ERROR)
                return ldap_ber_failure(ber, LDAP_DECODING_ERROR);
            ctrl->ldctl_value.bv_val = val;
            ctrl->ldctl_value.bv_len = vlen;
            have_value = true;
        } else {
            return LDAP_DECODING_ERROR;
        }
    }
    return 0;
}

void trace_decoded_control(const LDAPControl *ctrl)
{
    if (!ldap_debug_enabled())
        return;
    ldap_debug_print(LDAP_TRC_API,
                     "get_ctrls_from_ber: Control OID = %s, critical = %s, value follows\n",
                     ctrl->ldctl_oid, ctrl->ldctl_iscritical ? "Yes" : "No");
    if (ctrl->ldctl_value.bv_val == nullptr)
        ldap_debug_print(LDAP_TRC_API, "get_ctrls_from_ber: control value is NULL. \n");
    else if (ldap_debug_class_on(LDAP_TRC_BER))
        ldap_debug_hexdump(ctrl->ldctl_value.bv_val, static_cast<int>(ctrl->ldctl_value.bv_len),
                           "get_ctrls_from_ber: control value:");
}

// Reads the controls of the 0xA0 element whose contents start at the decoder's position and
// end at `end`. On failure frees what was read.
int decode_control_list(BerElement *ber, unsigned char *end, LDAPControl ***out, long *count)
{
    LDAPControl **list = nullptr;
    long n = 0;
    int rc = 0;
    for (;;) {
        auto grown = static_cast<LDAPControl **>(lber_realloc(list, (n + 2) * sizeof(*list)));
        if (grown == nullptr) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "get_ctrls_from_ber: No memory to (re)allocate controls array\n");
            rc = LDAP_NO_MEMORY;
            break;
        }
        list = grown;
        list[n] = nullptr;
        auto ctrl = static_cast<LDAPControl *>(lber_calloc(1, sizeof(LDAPControl)));
        if (ctrl == nullptr) {
            LDAP_TRACE(LDAP_TRC_ERROR, "get_ctrls_from_ber: No memory for LDAPControl structure\n");
            rc = LDAP_NO_MEMORY;
            break;
        }
        list[n] = ctrl;
        list[n + 1] = nullptr;
        ber_len_t len;
        unsigned char *ctrl_end = nullptr;
        if (fber_skip_tag(ber, &len) != LBER_ERROR)
            ctrl_end = ldap_contents_end(ber, len, end);
        if (ctrl_end == nullptr || fber_get_stringa(ber, &ctrl->ldctl_oid) == LBER_ERROR) {
            LDAP_TRACE(LDAP_TRC_ERROR, "get_ctrls_from_ber: Error decoding a control OID\n");
            rc = ldap_ber_failure(ber, LDAP_DECODING_ERROR);
            break;
        }
        if ((rc = decode_control_fields(ber, ctrl_end, ctrl)) != 0)
            break;
        trace_decoded_control(ctrl);
        ++n;
        ber_len_t next_len;
        if (ber->ber_ptr >= end || fber_peek_tag(ber, &next_len) == LBER_ERROR)
            break;
    }
    if (rc != 0) {
        ldap_controls_free(list);
        list = nullptr;
        n = 0;
    }
    *out = list;
    *count = n;
    return rc;
}

// A copy of one control; nullptr when out of memory. With `keep_empty` a present but empty
// value stays present (a buffer of one NUL byte): on the wire an empty value is not an absent
// one, and servers tell them apart.
LDAPControl *copy_control(const LDAPControl *from, bool keep_empty)
{
    auto ctrl = static_cast<LDAPControl *>(lber_calloc(1, sizeof(LDAPControl)));
    if (ctrl == nullptr)
        return nullptr;
    ctrl->ldctl_iscritical = from->ldctl_iscritical;
    ctrl->ldctl_value.bv_len = from->ldctl_value.bv_len;
    ctrl->ldctl_oid = lber_strdup(from->ldctl_oid);
    bool ok = ctrl->ldctl_oid != nullptr;
    const berval &v = from->ldctl_value;
    if (ok && v.bv_val != nullptr && (v.bv_len >= 1 || keep_empty)) {
        size_t room = v.bv_len + (keep_empty ? 1 : 0);
        ctrl->ldctl_value.bv_val = static_cast<char *>(lber_malloc(room));
        ok = ctrl->ldctl_value.bv_val != nullptr;
        if (ok && v.bv_len >= 1)
            memcpy(ctrl->ldctl_value.bv_val, v.bv_val, v.bv_len);
        if (ok && keep_empty)
            ctrl->ldctl_value.bv_val[v.bv_len] = '\0';
    }
    if (!ok) {
        ldap_control_free(ctrl);
        return nullptr;
    }
    return ctrl;
}

int proxied_auth_mode = 0;
pthread_once_t proxied_auth_once = PTHREAD_ONCE_INIT;

void read_proxied_auth_mode()
{
    proxied_auth_mode = ldap_env_yes_setting("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING");
}
} // namespace

int put_ctrls_into_ber(BerElement *ber, LDAPControl **ctrls)
{
    return put_ctrls_with(fber_printf_raw, "put_ctrls_into_ber", ber, ctrls);
}

int put_ctrls_into_ber_old(BerElement *ber, LDAPControl **ctrls)
{
    return put_ctrls_with(ber_printf, "put_ctrls_into_ber_old", ber, ctrls);
}

int get_ctrls_from_ber(BerElement *ber, LDAPControl ***ctrlsp)
{
    LDAP_TRACE(LDAP_TRC_API, "get_ctrls_from_ber: ctrls_p=%p\n", static_cast<void *>(ctrlsp));
    if (ctrlsp == nullptr)
        return 0;
    *ctrlsp = nullptr;
    ber_len_t len;
    if (ber == nullptr || fber_peek_tag(ber, &len) != LDAP_TAG_CONTROLS ||
        fber_skip_tag(ber, &len) == LBER_ERROR)
        return 0; // no controls follow
    long count = 0;
    int rc = decode_control_list(ber, ldap_contents_end(ber, len, ber->ber_end), ctrlsp, &count);
    LDAP_TRACE(LDAP_TRC_API, "get_ctrls_from_ber: return(%d), ctrls=%p, %d controls returned\n",
               rc, static_cast<void *>(*ctrlsp), static_cast<int>(count));
    return rc;
}

unsigned char *ldap_contents_end(BerElement *ber, ber_len_t len, unsigned char *limit)
{
    if (ber->ber_ptr > limit)
        return nullptr;
    ber_len_t room = static_cast<ber_len_t>(limit - ber->ber_ptr);
    return ber->ber_ptr + (len < room ? len : room);
}

int ldap_get_entry_controls(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_entry_controls:\n ");
    int rc;
    if (ctrlsp == nullptr || entry == nullptr || entry->lm_msgtype != LDAP_RES_SEARCH_ENTRY ||
        entry->lm_ber == nullptr) {
        rc = LDAP_PARAM_ERROR;
    } else {
        *ctrlsp = nullptr;
        BerElement *c = ber_dup(entry->lm_ber);
        if (c == nullptr)
            rc = LDAP_NO_MEMORY;
        else if (fber_skip_element(c) != 0)
            rc = LDAP_DECODING_ERROR; // the entry body cannot be stepped over
        else
            rc = get_ctrls_from_ber(c, ctrlsp);
        ber_free(c, 0);
    }
    LDAP_TRACE(LDAP_TRC_API, "ldap_get_entry_controls: return( %d )\n", rc);
    return ldap_fail(ld, rc);
}

int ldap_get_entry_controls_np(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return LDAP_PARAM_ERROR;
    return ldap_get_entry_controls(ld, entry, ctrlsp);
}

int ldap_get_entry_controls_checked(LDAP *ld, LDAPMessage *entry, LDAPControl ***ctrlsp)
{
    OperationBracket op(ld);
    if (op.rc() != 0)
        return -1;
    return ldap_get_entry_controls(ld, entry, ctrlsp);
}

namespace {
int copy_controls(LDAPControl ***to, LDAPControl **from, bool keep_empty)
{
    long n = count_controls(from);
    if (n == 0) {
        *to = nullptr;
        return 0;
    }
    auto copy = static_cast<LDAPControl **>(lber_calloc(n + 1, sizeof(LDAPControl *)));
    if (copy == nullptr)
        return LDAP_NO_MEMORY;
    int rc = 0;
    for (long i = 0; i < n && rc == 0; ++i) {
        if (from[i]->ldctl_oid == nullptr) {
            LDAP_TRACE(LDAP_TRC_API, "ldap_copy_controls: OID is missing in control\n");
            rc = LDAP_PARAM_ERROR;
        } else if (static_cast<long>(from[i]->ldctl_value.bv_len) < 0) {
            LDAP_TRACE(LDAP_TRC_API, "ldap_copy_controls: length of value can't be less than 0\n");
            rc = LDAP_PARAM_ERROR;
        } else if ((copy[i] = copy_control(from[i], keep_empty)) == nullptr) {
            rc = LDAP_NO_MEMORY;
        }
    }
    if (rc != 0) {
        ldap_controls_free(copy);
        return rc;
    }
    *to = copy;
    return 0;
}
} // namespace

int ldap_copy_controls(LDAPControl ***to, LDAPControl **from)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_copy_controls\n");
    if (to == nullptr) {
        LDAP_TRACE(LDAP_TRC_API, "ldap_copy_controls: Invalid input to_here(%x)\n", 0u);
        return LDAP_PARAM_ERROR;
    }
    return copy_controls(to, from, false);
}

int ldap_merge_control_lists(LDAPControl ***dest, LDAPControl ***input)
{
    if (dest == nullptr || input == nullptr || *input == nullptr)
        return 0;
    LDAP_TRACE(LDAP_TRC_API,
               "ldap_merge_control_lists: dest_ctrls(%p), *dest_ctrls(%p), input_ctrls(%p), "
               "*input_ctrls(%p)\n",
               static_cast<void *>(dest), static_cast<void *>(*dest), static_cast<void *>(input),
               static_cast<void *>(*input));
    long n_in = count_controls(*input);
    long n_dest = count_controls(*dest);
    auto merged = static_cast<LDAPControl **>(lber_calloc(n_in + n_dest + 2, sizeof(LDAPControl *)));
    if (merged == nullptr)
        return LDAP_NO_MEMORY;
    if (n_in > 0)
        memcpy(merged, *input, n_in * sizeof(LDAPControl *));
    if (n_dest > 0)
        memcpy(merged + n_in, *dest, n_dest * sizeof(LDAPControl *));
    // The controls now live in `merged`; only the two old arrays go. *input keeps its dangling
    // value: the caller treats the input list as released.
    ldap_free_empty_control_list(input);
    ldap_free_empty_control_list(dest);
    *dest = merged;
    return 0;
}

void ldap_control_free(LDAPControl *ctrl)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_control_free: (%p)\n", static_cast<void *>(ctrl));
    if (ctrl == nullptr)
        return;
    lber_free(ctrl->ldctl_oid);
    lber_free(ctrl->ldctl_value.bv_val);
    lber_free(ctrl);
}

void ldap_controls_free(LDAPControl **ctrls)
{
    if (ctrls == nullptr)
        return;
    for (LDAPControl **c = ctrls; *c != nullptr; ++c)
        ldap_control_free(*c);
    lber_free(ctrls);
}

void ldap_free_empty_control_list(LDAPControl ***list)
{
    if (list == nullptr || *list == nullptr) {
        LDAP_TRACE(LDAP_TRC_API,
                   "ldap_free_empty_control_list: called with NULL free, skipping ctrl(%p)\n",
                   static_cast<void *>(list));
        return;
    }
    lber_free(*list);
}

int ldap_proxied_auth_encoding_mode()
{
    (void)pthread_once(&proxied_auth_once, read_proxied_auth_mode); // cannot fail once set up
    return proxied_auth_mode;
}

int ldap_merge_default_controls(LDAP *ld, LDAPControl **given, LDAPControl ***merged)
{
    *merged = nullptr;
    LDAPControl **defaults = nullptr;
    {
        LDAP_LOCK(guard, &ld->ld_mutex, MODULE);
        if (!guard.locked())
            return guard.rc();
        if (ld->ld_sctrls != nullptr) {
            int rc = copy_controls(&defaults, ld->ld_sctrls, true);
            if (rc != 0)
                return rc;
        }
    }
    // These copies go on the wire: an empty value (an empty transaction id) must stay there.
    LDAPControl **mine = nullptr;
    int rc = copy_controls(&mine, given, true);
    if (rc == 0 && mine != nullptr && defaults != nullptr)
        rc = ldap_merge_control_lists(&defaults, &mine); // moves the caller's in front
    else if (rc == 0 && mine != nullptr)
        defaults = mine;
    if (rc != 0) {
        ldap_controls_free(mine);
        ldap_controls_free(defaults);
        return rc;
    }
    *merged = defaults;
    return 0;
}

void ldap_free_merged_controls(LDAPControl **merged) { ldap_controls_free(merged); }

int ldap_check_client_controls(LDAPControl **clientctrls)
{
    for (long i = 0, n = count_controls(clientctrls); i < n; ++i) {
        if (clientctrls[i]->ldctl_iscritical)
            return LDAP_UNAVAILABLE_CRITICAL_EXTENSION;
    }
    return 0;
}
