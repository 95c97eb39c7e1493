// Server-side sorting and the virtual list view that windows a sorted list: the sort key-list
// parser, the request controls and the parsers of the servers' answers.
#include "ldap_ctrl.h"

#include <cstring>
#include <utility>

#include "ldap_error.h"

namespace {

constexpr ber_tag_t SORT_ORDERING_RULE = 0x80;
constexpr ber_tag_t SORT_REVERSE = 0x81;
constexpr ber_tag_t SORT_RESULT_ATTRIBUTE = 0x80;
constexpr ber_tag_t VLV_BY_OFFSET = 0xa0;
constexpr ber_tag_t VLV_GREATER_OR_EQUAL = 0x81;

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// One key "[-]attr[:rule]" of `len` bytes; null when malformed or out of memory (*rc says).
LDAPSortKey *parse_sort_key(const char *s, size_t len, int *rc)
{
    *rc = LDAP_PARAM_ERROR;
    bool reverse = len > 0 && *s == '-';
    if (reverse) {
        ++s;
        --len;
    }
    const char *colon = static_cast<const char *>(memchr(s, ':', len));
    size_t attr_len = colon != nullptr ? static_cast<size_t>(colon - s) : len;
    size_t rule_len = colon != nullptr ? len - attr_len - 1 : 0;
    if (attr_len == 0 || (colon != nullptr && rule_len == 0))
        return nullptr;
    *rc = LDAP_NO_MEMORY;
    auto key = static_cast<LDAPSortKey *>(lber_calloc(1, sizeof(LDAPSortKey)));
    if (key == nullptr)
        return nullptr;
    key->reverseOrder = reverse ? 1 : 0;
    key->attributeType = lber_strndup(s, attr_len);
    if (colon != nullptr)
        key->orderingRule = lber_strndup(colon + 1, rule_len);
    if (key->attributeType == nullptr || (colon != nullptr && key->orderingRule == nullptr)) {
        lber_free(key->attributeType);
        lber_free(key->orderingRule);
        lber_free(key);
        return nullptr;
    }
    *rc = 0;
    return key;
}

size_t count_words(const char *s)
{
    size_t n = 0;
    for (; *s != '\0'; ++s) {
        if (!is_blank(*s) && (s[1] == '\0' || is_blank(s[1])))
            ++n;
    }
    return n;
}

//   SortKeyList ::= SEQUENCE OF SEQUENCE { attributeType AttributeDescription,
//       orderingRule [0] MatchingRuleId OPTIONAL, reverseOrder [1] BOOLEAN DEFAULT FALSE }
bool write_sort_keys(BerElement *ber, LDAPSortKey **keys)
{
    if (ber_printf(ber, "{") == -1)
        return false;
    for (LDAPSortKey **k = keys; *k != nullptr; ++k) {
        if (ber_printf(ber, "{s", (*k)->attributeType) == -1 ||
            ((*k)->orderingRule != nullptr &&
             ber_printf(ber, "ts", SORT_ORDERING_RULE, (*k)->orderingRule) == -1) ||
            ((*k)->reverseOrder != 0 && ber_printf(ber, "tb", SORT_REVERSE, 1) == -1) ||
            ber_printf(ber, "}") == -1)
            return false;
    }
    return ber_printf(ber, "}") != -1;
}

bool keys_valid(LDAPSortKey **keys)
{
    if (keys == nullptr || keys[0] == nullptr)
        return false;
    for (LDAPSortKey **k = keys; *k != nullptr; ++k) {
        if ((*k)->attributeType == nullptr || *(*k)->attributeType == '\0')
            return false;
    }
    return true;
}

//   VirtualListViewRequest ::= SEQUENCE { beforeCount INTEGER, afterCount INTEGER,
//       target CHOICE { byOffset [0] SEQUENCE { offset INTEGER, contentCount INTEGER },
//                       greaterThanOrEqual [1] AssertionValue },
//       contextID OCTET STRING OPTIONAL }
bool write_vlv(BerElement *ber, const LDAPVLVInfo *v)
{
    if (ber_printf(ber, "{ii", static_cast<int>(v->ldvlv_before_count),
                   static_cast<int>(v->ldvlv_after_count)) == -1)
        return false;
    int rc;
    if (v->ldvlv_attrvalue == nullptr)
        rc = ber_printf(ber, "t{ii}", VLV_BY_OFFSET, static_cast<int>(v->ldvlv_offset),
                        static_cast<int>(v->ldvlv_count));
    else
        rc = ber_printf(ber, "to", VLV_GREATER_OR_EQUAL, v->ldvlv_attrvalue->bv_val,
                        static_cast<int>(v->ldvlv_attrvalue->bv_len));
    if (rc == -1)
        return false;
    if (v->ldvlv_context != nullptr && v->ldvlv_context->bv_val != nullptr &&
        ber_printf(ber, "o", v->ldvlv_context->bv_val,
                   static_cast<int>(v->ldvlv_context->bv_len)) == -1)
        return false;
    return ber_printf(ber, "}") != -1;
}

constexpr unsigned long INT_LIMIT = 0x7fffffffUL;

bool vlv_valid(const LDAPVLVInfo *v)
{
    if (v == nullptr || v->ldvlv_before_count > INT_LIMIT || v->ldvlv_after_count > INT_LIMIT ||
        v->ldvlv_offset > INT_LIMIT || v->ldvlv_count > INT_LIMIT)
        return false;
    const struct berval *value = v->ldvlv_attrvalue;
    const struct berval *context = v->ldvlv_context;
    return (value == nullptr || value->bv_val != nullptr) &&
           (context == nullptr || context->bv_val != nullptr || context->bv_len == 0);
}

//   SortResult ::= SEQUENCE { sortResult ENUMERATED, attributeType [0] AttributeDescription
//       OPTIONAL }
struct SortResult {
    int code = 0;
    char *attr = nullptr; // owned
};

int read_sort_result(BerElement *r, SortResult *out)
{
    ber_len_t len;
    if (fber_scanf(r, "{e", &out->code) == LBER_ERROR)
        return LDAP_DECODING_ERROR;
    if (!ldap_control_value_done(r) && (fber_peek_tag(r, &len) != SORT_RESULT_ATTRIBUTE ||
                                        fber_scanf(r, "a", &out->attr) == LBER_ERROR))
        return LDAP_DECODING_ERROR;
    return out->code < 0 || !ldap_control_value_done(r) ? LDAP_DECODING_ERROR : 0;
}

//   VirtualListViewResponse ::= SEQUENCE { targetPosition INTEGER, contentCount INTEGER,
//       virtualListViewResult ENUMERATED, contextID OCTET STRING OPTIONAL }
struct VlvResult {
    int pos = 0, count = 0, code = 0;
    struct berval *context = nullptr; // owned
};

int read_vlv_result(BerElement *r, VlvResult *out)
{
    if (fber_scanf(r, "{iie", &out->pos, &out->count, &out->code) == LBER_ERROR)
        return LDAP_DECODING_ERROR;
    if (!ldap_control_value_done(r) && fber_scanf(r, "O", &out->context) == LBER_ERROR)
        return LDAP_DECODING_ERROR;
    bool negative = out->pos < 0 || out->count < 0 || out->code < 0;
    return negative || !ldap_control_value_done(r) ? LDAP_DECODING_ERROR : 0;
}

// Runs `read` over the value of the control `oid` of `ctrls`: 0, 84, 90 or 93.
template <class Result>
int read_response(LDAPControl **ctrls, const char *oid, int (*read)(BerElement *, Result *),
                  Result *out)
{
    BerElement *r = nullptr;
    int rc = ldap_control_value_reader(ctrls, oid, &r);
    if (rc == 0)
        rc = ldap_ber_failure(r, read(r, out));
    fber_free(r);
    return rc;
}

} // namespace

int ldap_create_sort_keylist(LDAPSortKey ***sortKeyList, const char *keyString)
{
    if (sortKeyList == nullptr || keyString == nullptr)
        return LDAP_PARAM_ERROR;
    *sortKeyList = nullptr;
    size_t n = count_words(keyString);
    if (n == 0)
        return LDAP_PARAM_ERROR;
    auto keys = static_cast<LDAPSortKey **>(lber_calloc(n + 1, sizeof(LDAPSortKey *)));
    if (keys == nullptr)
        return LDAP_NO_MEMORY;
    const char *s = keyString;
    for (size_t i = 0; i < n; ++i) {
        while (is_blank(*s))
            ++s;
        size_t len = 0;
        while (s[len] != '\0' && !is_blank(s[len]))
            ++len;
        int rc = 0;
        keys[i] = parse_sort_key(s, len, &rc);
        if (keys[i] == nullptr) {
            ldap_free_sort_keylist(keys);
            return rc;
        }
        s += len;
    }
    *sortKeyList = keys;
    return 0;
}

void ldap_free_sort_keylist(LDAPSortKey **sortKeyList)
{
    for (LDAPSortKey **k = sortKeyList; k != nullptr && *k != nullptr; ++k) {
        lber_free((*k)->attributeType);
        lber_free((*k)->orderingRule);
        lber_free(*k);
    }
    lber_free(sortKeyList);
}

int ldap_create_sort_control(LDAP *ld, LDAPSortKey **keyList, char iscritical,
                             LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_sort_control\n");
    if (ctrlp == nullptr || !keys_valid(keyList))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    return ldap_fail(ld, ldap_control_write(LDAP_CONTROL_SORTREQUEST, iscritical, ctrlp,
                                            [keyList](BerElement *ber) {
                                                return write_sort_keys(ber, keyList);
                                            }));
}

int ldap_parse_sort_control(LDAP *ld, LDAPControl **ctrls, unsigned long *result,
                            char **attribute)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_sort_control: ctrls(%p)\n", static_cast<void *>(ctrls));
    if (result == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    if (attribute != nullptr)
        *attribute = nullptr;
    SortResult sr;
    int rc = read_response(ctrls, LDAP_CONTROL_SORTRESPONSE, read_sort_result, &sr);
    if (rc == 0) {
        *result = static_cast<unsigned long>(sr.code);
        if (attribute != nullptr)
            std::swap(*attribute, sr.attr);
    }
    lber_free(sr.attr);
    return ldap_fail(ld, rc);
}

int ldap_create_vlv_control(LDAP *ld, const LDAPVLVInfo *info, LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_vlv_control\n");
    if (ctrlp == nullptr || !vlv_valid(info))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    // The window only means something together with the sort it windows: always critical.
    auto write = [info](BerElement *ber) { return write_vlv(ber, info); };
    return ldap_fail(ld, ldap_control_write(LDAP_CONTROL_VLVREQUEST, 1, ctrlp, write));
}

int ldap_parse_vlv_control(LDAP *ld, LDAPControl **ctrls, unsigned long *target_posp,
                           unsigned long *list_countp, struct berval **contextp, int *errcodep)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_vlv_control: ctrls(%p)\n", static_cast<void *>(ctrls));
    if (contextp != nullptr)
        *contextp = nullptr;
    VlvResult vr;
    int rc = read_response(ctrls, LDAP_CONTROL_VLVRESPONSE, read_vlv_result, &vr);
    if (rc == 0 && target_posp != nullptr)
        *target_posp = static_cast<unsigned long>(vr.pos);
    if (rc == 0 && list_countp != nullptr)
        *list_countp = static_cast<unsigned long>(vr.count);
    if (rc == 0 && errcodep != nullptr)
        *errcodep = vr.code;
    if (rc == 0 && contextp != nullptr)
        std::swap(*contextp, vr.context);
    ber_bvfree(vr.context);
    return ldap_fail(ld, rc);
}
