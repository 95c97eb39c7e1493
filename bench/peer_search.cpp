// The OpenLDAP side of bench_search: the only file of the project that includes <ldap.h>.
#include "peer_search.h"

#include <ldap.h>

namespace peer {

void *open_bound(const char *uri, const char *dn, const char *password)
{
    LDAP *ld = nullptr;
    if (ldap_initialize(&ld, uri) != LDAP_SUCCESS)
        return nullptr;
    int version = LDAP_VERSION3;
    ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    struct berval cred = {0, const_cast<char *>(password)};
    for (const char *p = password; *p != '\0'; ++p)
        ++cred.bv_len;
    if (ldap_sasl_bind_s(ld, dn, LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr) !=
        LDAP_SUCCESS) {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

namespace {

void walk_chain(LDAP *ld, LDAPMessage *res, WalkTotals *totals)
{
    for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
        ++totals->entries;
        char *dn = ldap_get_dn(ld, e);
        ldap_memfree(dn);
        BerElement *ber = nullptr;
        for (char *a = ldap_first_attribute(ld, e, &ber); a != nullptr;
             a = ldap_next_attribute(ld, e, ber)) {
            ++totals->attributes;
            struct berval **vals = ldap_get_values_len(ld, e, a);
            for (int i = 0; vals != nullptr && vals[i] != nullptr; ++i) {
                ++totals->values;
                totals->bytes += static_cast<long>(vals[i]->bv_len);
            }
            ldap_value_free_len(vals);
            ldap_memfree(a);
        }
        ber_free(ber, 0);
    }
}

// The cookie of a page's response control into *cookie (emptied when there is none).
bool next_cookie(LDAP *ld, LDAPMessage *res, struct berval *cookie)
{
    LDAPControl **ctrls = nullptr;
    int code = 0;
    if (ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 0) != LDAP_SUCCESS ||
        code != LDAP_SUCCESS)
        return false;
    ber_memfree(cookie->bv_val);
    *cookie = berval{0, nullptr};
    LDAPControl *page = ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, ctrls, nullptr);
    ber_int_t estimate = 0;
    bool ok = page == nullptr || ldap_parse_pageresponse_control(ld, page, &estimate, cookie) ==
                                     LDAP_SUCCESS;
    ldap_controls_free(ctrls);
    return ok;
}

} // namespace

bool search_walk(void *handle, const char *base, const char *filter, WalkTotals *totals)
{
    auto *ld = static_cast<LDAP *>(handle);
    LDAPMessage *res = nullptr;
    int rc = ldap_search_ext_s(ld, base, LDAP_SCOPE_SUBTREE, filter, nullptr, 0, nullptr, nullptr,
                               nullptr, 0, &res);
    if (rc == LDAP_SUCCESS)
        walk_chain(ld, res, totals);
    ldap_msgfree(res);
    return rc == LDAP_SUCCESS;
}

bool paged_walk(void *handle, const char *base, const char *filter, int page_size,
                WalkTotals *totals)
{
    auto *ld = static_cast<LDAP *>(handle);
    struct berval cookie = {0, nullptr};
    bool ok = true;
    do {
        LDAPControl *page = nullptr;
        if (ldap_create_page_control(ld, page_size, &cookie, 0, &page) != LDAP_SUCCESS)
            return false;
        LDAPControl *ctrls[] = {page, nullptr};
        LDAPMessage *res = nullptr;
        ok = ldap_search_ext_s(ld, base, LDAP_SCOPE_SUBTREE, filter, nullptr, 0, ctrls, nullptr,
                               nullptr, 0, &res) == LDAP_SUCCESS;
        ldap_control_free(page);
        if (ok)
            walk_chain(ld, res, totals);
        ok = ok && next_cookie(ld, res, &cookie);
        ldap_msgfree(res);
    } while (ok && cookie.bv_len > 0);
    ber_memfree(cookie.bv_val);
    return ok;
}

bool search_small(void *handle, const char *base, const char *filter, char **attrs)
{
    auto *ld = static_cast<LDAP *>(handle);
    int id = -1;
    if (ldap_search_ext(ld, base, LDAP_SCOPE_SUBTREE, filter, attrs, 0, nullptr, nullptr, nullptr,
                        0, &id) != LDAP_SUCCESS)
        return false;
    LDAPMessage *res = nullptr;
    // This library reports the type of the chain's first message: the entry, when one came.
    int type = ldap_result(ld, id, LDAP_MSG_ALL, nullptr, &res);
    ldap_msgfree(res);
    return type == LDAP_RES_SEARCH_RESULT || type == LDAP_RES_SEARCH_ENTRY;
}

void close(void *handle)
{
    if (handle != nullptr)
        ldap_unbind_ext_s(static_cast<LDAP *>(handle), nullptr, nullptr);
}

} // namespace peer
