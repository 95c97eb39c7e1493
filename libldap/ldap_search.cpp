// The search request in all its layers: the direct encoder and sender, the extended forms
// with control merging and waiting, and the classic ldap_search / _s / _st on top.
#include "ldap_search.h"

#include <cstring>

#include "ldap_attrdesc.h"
#include "ldap_error.h"
#include "ldap_filter.h"
#include "ldap_init.h"
#include "ldap_ops.h"
#include "ldap_options.h"

namespace {

// The request's time limit: the time-out's seconds, at least 1 when only microseconds were
// given (0 would mean no limit); without a time-out the handle's time-limit option.
int search_time_limit(LDAP *ld, const struct timeval *timeout, int *limit)
{
    if (timeout == nullptr)
        return ldap_get_option_direct(ld, LDAP_OPT_TIMELIMIT, limit);
    *limit = static_cast<int>(timeout->tv_sec);
    if (*limit == 0 && timeout->tv_usec >= 1)
        *limit = 1;
    return 0;
}

bool search_args_ok(int scope, const char *filter)
{
    return scope >= LDAP_SCOPE_BASE && scope <= LDAP_SCOPE_SUBTREE && filter != nullptr;
}

const char *or_null(const char *s) { return s != nullptr ? s : "(null)"; }

// Stars, in a copy of a string filter, every value asserted about a password attribute: its
// item starts the string or follows "(", its value runs from the "=" to the next ")".
void star_password_values(char *f)
{
    for (char *item = f; *item != '\0'; ++item) {
        if (item != f && item[-1] != '(')
            continue;
        size_t name = strcspn(item, "=~<>:()");
        if (name == 0 || !ber_is_password_attribute(item, name))
            continue;
        char *value = strpbrk(item + name, "=()");
        if (value == nullptr || *value != '=')
            continue;
        for (++value; *value != '\0' && *value != ')'; ++value)
            *value = '*';
    }
}

// The filter's trace, which must never show a password a search asks about.
void trace_filter(const char *filter)
{
    if (!ldap_debug_enabled())
        return;
    char *copy = filter != nullptr ? lber_strdup(filter) : nullptr;
    if (copy != nullptr)
        star_password_values(copy);
    LDAP_TRACE(LDAP_TRC_API, "putting filter %s into ber\n",
               copy != nullptr ? copy : filter != nullptr ? "(not shown)" : "(null)");
    lber_free(copy);
}

// Each requested attribute is an attribute description, "*" (the user attributes), "+" (the
// operational ones) or "@" and an object class (its attributes); a name outside these asks
// the server for an attribute nobody meant.
bool search_attrs_valid(char **attrs)
{
    for (; attrs != nullptr && *attrs != nullptr; ++attrs) {
        std::string_view a = *attrs;
        if (a != "*" && a != "+" && !wzr_attrdesc::is_attr_desc(a) &&
            !(a.starts_with('@') && wzr_attrdesc::is_oid(a.substr(1))))
            return false;
    }
    return true;
}

} // namespace

// SearchRequest ::= [APPLICATION 3] SEQUENCE { baseObject LDAPDN, scope ENUMERATED,
//     derefAliases ENUMERATED, sizeLimit INTEGER, timeLimit INTEGER, typesOnly BOOLEAN,
//     filter Filter, attributes SEQUENCE OF LDAPString }
int ldap_search_ext_direct(LDAP *ld, const char *base, int scope, const char *filter,
                           char **attrs, int attrsonly, LDAPControl **serverctrls, int sizelimit,
                           struct timeval *timeout, int *msgidp, LDAPConn *lc,
                           const LDAPDeadline &until)
{
    if (!ldap_ld_valid(ld)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "INVALID: ldap_search_ext_direct invalid ld:%p\n",
                   static_cast<void *>(ld));
        return LDAP_PARAM_ERROR;
    }
    *msgidp = -1;
    OpRequest op;
    int rc = ldap_op_begin(ld, lc, "ldap_search_ext_direct: NULL server connection\n", &op);
    if (rc != 0)
        return rc;
    int deref = 0;
    int timelimit = 0;
    rc = ldap_get_option_direct(ld, LDAP_OPT_DEREF, &deref);
    if (rc == 0)
        rc = search_time_limit(ld, timeout, &timelimit);
    if (rc != 0)
        return ldap_op_abort(&op, rc);
    if (fber_printf(op.ber, "{it{seeiib", op.msgid, LDAP_REQ_SEARCH, base != nullptr ? base : "",
                    scope, deref, sizelimit, timelimit, attrsonly) == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    trace_filter(filter);
    if (put_filter(op.ber, filter, 0) != 0)
        return ldap_op_abort(&op, LDAP_FILTER_ERROR);
    if (!search_attrs_valid(attrs))
        return ldap_op_abort(&op, LDAP_PARAM_ERROR);
    if (fber_printf(op.ber, "{v}}", attrs) == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    return ldap_op_finish(&op, LDAP_REQ_SEARCH, serverctrls, until, msgidp);
}

namespace {
// `timeout` is the request's time limit; `until` bounds the sending.
int search_ext_until(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                     int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                     struct timeval *timeout, int sizelimit, const LDAPDeadline &until,
                     int *msgidp)
{
    auto send = [&](LDAPControl **sctrls, int *idp) {
        return ldap_search_ext_direct(ld, base, scope, filter, attrs, attrsonly, sctrls,
                                      sizelimit, timeout, idp, nullptr, until);
    };
    return ldap_op_ext(ld, "INVALID: ldap_search_ext  invalid ld:%p\n",
                       search_args_ok(scope, filter), serverctrls, clientctrls, msgidp, send);
}

// ldap_search, whose sending also keeps to `until`.
int search_classic_until(LDAP *ld, const char *base, int scope, const char *filter,
                         char **attrs, int attrsonly, const LDAPDeadline &until)
{
    if (!ldap_ld_valid(ld)) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "INVALID: ldap_search: bad ld provided ld(%p) base(%s) scope(%d) filter(%s)\n",
                   static_cast<void *>(ld), or_null(base), scope, or_null(filter));
        return -1;
    }
    if (!search_args_ok(scope, filter)) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_search: bad ld, base, scope or filter provided ld(%x) base(%s) scope(%d) "
                   "filter(%s)\n",
                   static_cast<unsigned>(reinterpret_cast<uintptr_t>(ld)), or_null(base), scope,
                   or_null(filter));
        return -1;
    }
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return -1;
    int sizelimit = 0;
    int timelimit = 0;
    if (ldap_get_option_direct(ld, LDAP_OPT_SIZELIMIT, &sizelimit) != 0 ||
        ldap_get_option_direct(ld, LDAP_OPT_TIMELIMIT, &timelimit) != 0)
        return -1;
    // No limit is no time-out: a zero time-out would make the write wait a mere poll.
    struct timeval limit = {timelimit, 0};
    struct timeval *limitp = timelimit != 0 ? &limit : nullptr;
    int msgid = -1;
    int rc = search_ext_until(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr, limitp,
                              sizelimit, ldap_deadline_min(until, ldap_deadline_after(limitp)),
                              &msgid);
    return ldap_op_msgid(rc, msgid);
}
} // namespace

int ldap_search_ext(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                    int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                    struct timeval *timeout, int sizelimit, int *msgidp)
{
    // A zero time limit means none, for the sending as for the server.
    bool zero = timeout != nullptr && timeout->tv_sec == 0 && timeout->tv_usec == 0;
    return search_ext_until(ld, base, scope, filter, attrs, attrsonly, serverctrls, clientctrls,
                            timeout, sizelimit, ldap_deadline_after(zero ? nullptr : timeout),
                            msgidp);
}

int ldap_search_ext_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                      int attrsonly, LDAPControl **serverctrls, LDAPControl **clientctrls,
                      struct timeval *timeout, int sizelimit, LDAPMessage **res)
{
    auto start = [&](const LDAPDeadline &until, int *idp) {
        if (res == nullptr)
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        return search_ext_until(ld, base, scope, filter, attrs, attrsonly, serverctrls,
                                clientctrls, timeout, sizelimit, until, idp);
    };
    static constexpr OpSyncTraces traces = {"INVALID: ldap_search_ext_s invalid ld:%p\n", nullptr,
                                            nullptr};
    return ldap_op_ext_s(ld, traces, timeout, start, res);
}

int ldap_search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                int attrsonly)
{
    return search_classic_until(ld, base, scope, filter, attrs, attrsonly, LDAPDeadline{});
}

int ldap_search_s(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                  int attrsonly, LDAPMessage **res)
{
    int rc = ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, nullptr, nullptr,
                               nullptr, 0, res);
    LDAP_TRACE(LDAP_TRC_API, "ldap_search_s: returning rc=%d\n", rc);
    return rc;
}

int ldap_search_st(LDAP *ld, const char *base, int scope, const char *filter, char **attrs,
                   int attrsonly, struct timeval *timeout, LDAPMessage **res)
{
    auto start = [&](const LDAPDeadline &until, int *idp) {
        if (res == nullptr || !search_args_ok(scope, filter))
            return ldap_fail(ld, LDAP_PARAM_ERROR);
        *idp = search_classic_until(ld, base, scope, filter, attrs, attrsonly, until);
        if (*idp >= 0)
            return 0;
        int rc = ldap_get_errno_direct(ld);
        return rc != 0 ? rc : ldap_fail(ld, LDAP_LOCAL_ERROR);
    };
    static constexpr OpSyncTraces traces = {"INVALID: ldap_search_st invalid ld:%p\n", nullptr,
                                            nullptr};
    int rc = ldap_op_ext_s(ld, traces, timeout, start, res);
    LDAP_TRACE(LDAP_TRC_API, "ldap_search_st: returning rc=%d\n", rc);
    return rc;
}
