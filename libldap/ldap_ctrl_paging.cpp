// Simple paged results: the request control with its cookie, the response parser, and a
// paged search that follows the cookie from page to page.
#include "ldap_ctrl.h"

#include <cstring>

#include "ldap_controls.h"
#include "ldap_deadline.h"
#include "ldap_error.h"
#include "ldap_parse.h"
#include "ldap_search.h"

namespace {

// The caller's controls (borrowed) followed by `page`, in a new array; null without memory.
LDAPControl **with_page_control(LDAPControl **given, LDAPControl *page)
{
    long n = 0;
    while (given != nullptr && given[n] != nullptr)
        ++n;
    auto list = static_cast<LDAPControl **>(lber_calloc(n + 2, sizeof(LDAPControl *)));
    if (list == nullptr)
        return nullptr;
    for (long i = 0; i < n; ++i)
        list[i] = given[i];
    list[n] = page;
    return list;
}

// One page: the search with the cookie of the last page. *res gets the page (also when the
// search failed, if the server answered).
int search_page(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                int attrsonly, LDAPControl **given, int pagesize, const struct berval *cookie,
                struct timeval *timeout, LDAPMessage **res)
{
    LDAPControl *page = nullptr;
    int rc = ldap_create_page_control(ld, pagesize, cookie, 0, &page);
    if (rc != 0)
        return rc;
    LDAPControl **list = with_page_control(given, page);
    if (list == nullptr)
        rc = ldap_fail(ld, LDAP_NO_MEMORY);
    else
        rc = ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, list, nullptr, timeout,
                               0, res);
    lber_free(list);
    ldap_control_free(page);
    return rc;
}

// The cookie the server sent with a page; an empty one (also for a server that answered
// without the control, having sent everything at once) ends the search.
int next_cookie(LDAP *ld, LDAPMessage *page, struct berval **cookie)
{
    LDAPControl **ctrls = nullptr;
    int code = 0;
    int rc = ldap_parse_result(ld, page, &code, nullptr, nullptr, nullptr, &ctrls, 0);
    if (rc == 0) {
        int estimate = 0;
        rc = ldap_parse_page_control(ld, ctrls, &estimate, cookie);
        if (rc == LDAP_CONTROL_NOT_FOUND)
            rc = 0;
    }
    ldap_controls_free(ctrls);
    return rc;
}

bool same_cookie(const struct berval *sent, const struct berval *got)
{
    return sent != nullptr && got != nullptr && got->bv_len > 0 && sent->bv_len == got->bv_len &&
           memcmp(sent->bv_val, got->bv_val, got->bv_len) == 0;
}

} // namespace

//   realSearchControlValue ::= SEQUENCE { size INTEGER (0..maxInt), cookie OCTET STRING }
int ldap_create_page_control(LDAP *ld, int pagesize, const struct berval *cookie, char iscritical,
                             LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_page_control: size(%d)\n", pagesize);
    if (ctrlp == nullptr || pagesize < 0 || (cookie != nullptr && cookie->bv_len != 0 &&
                                              cookie->bv_val == nullptr))
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    const char *data = cookie != nullptr && cookie->bv_val != nullptr ? cookie->bv_val : "";
    int len = cookie != nullptr ? static_cast<int>(cookie->bv_len) : 0;
    return ldap_fail(ld, ldap_control_encode(LDAP_CONTROL_PAGEDRESULTS, iscritical, ctrlp, "{io}",
                                             pagesize, data, len));
}

int ldap_parse_page_control(LDAP *ld, LDAPControl **ctrls, int *countp, struct berval **cookiep)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_page_control: ctrls(%p)\n",
               static_cast<void *>(ctrls));
    if (cookiep == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    *cookiep = nullptr;
    BerElement *r = nullptr;
    int rc = ldap_control_value_reader(ctrls, LDAP_CONTROL_PAGEDRESULTS, &r);
    int count = 0;
    if (rc == 0 && (fber_scanf(r, "{iO}", &count, cookiep) == LBER_ERROR ||
                    !ldap_control_value_done(r))) {
        ber_bvfree(*cookiep);
        *cookiep = nullptr;
        rc = ldap_ber_failure(r, LDAP_DECODING_ERROR);
    }
    if (rc == 0 && countp != nullptr)
        *countp = count;
    fber_free(r);
    return ldap_fail(ld, rc);
}

int ldap_search_paged_np(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                         int attrsonly, LDAPControl **serverctrls, int pagesize,
                         struct timeval *timeout, LDAPPageFn on_page, void *arg)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_search_paged_np: size(%d)\n", pagesize);
    if (on_page == nullptr || pagesize <= 0 ||
        ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, serverctrls) != nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    bool limited = timeout != nullptr && (timeout->tv_sec != 0 || timeout->tv_usec != 0);
    const LDAPDeadline until = ldap_deadline_after(limited ? timeout : nullptr);
    struct berval *cookie = nullptr;
    int rc = 0;
    do {
        struct timeval left{};
        if (limited && !ldap_time_left(until, &left)) {
            rc = ldap_fail(ld, LDAP_TIMEOUT);
            break;
        }
        LDAPMessage *page = nullptr;
        rc = search_page(ld, base, scope, filter, attrs, attrsonly, serverctrls, pagesize, cookie,
                         limited ? &left : nullptr, &page);
        if (page == nullptr)
            break;
        struct berval *next = nullptr;
        int crc = next_cookie(ld, page, &next);
        // The same cookie again would fetch the same page again, for ever.
        if (crc == 0 && same_cookie(cookie, next))
            crc = LDAP_DECODING_ERROR;
        ber_bvfree(cookie);
        cookie = next;
        int cb = on_page(arg, ld, page);
        if (rc == 0)
            rc = cb != 0 ? cb : crc;
    } while (rc == 0 && cookie != nullptr && cookie->bv_len > 0);
    ber_bvfree(cookie);
    return ldap_fail(ld, rc);
}
