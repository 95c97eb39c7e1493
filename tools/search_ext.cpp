// The -E and -e search extensions of the wzrldap tool: parsing their ldapsearch spellings,
// turning them into request controls, running a paged search page by page, and reporting
// the response controls (sort, window, password policy) on standard error.
#include "search_ext.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <pwd.h>
#include <unistd.h>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_search.h"

namespace wzrext {

namespace {

const char *const SEARCH_NAMES[] = {"pr", "sss", "vlv", "deref"};
const char *const GENERAL_NAMES[] = {"ppolicy", "assert", "authzid", "mv", "sessiontracking"};

void say(const std::string &text) { std::cerr << "wzrldap: " << text << '\n'; }

template <size_t N> bool known(const char *const (&names)[N], const std::string &name)
{
    for (const char *n : names) {
        if (name == n)
            return true;
    }
    return false;
}

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> parts;
    for (size_t at = 0;;) {
        size_t next = s.find(sep, at);
        parts.push_back(s.substr(at, next - at));
        if (next == std::string::npos)
            return parts;
        at = next + 1;
    }
}

// "before/after/offset/count" or "before/after:value" ("=" may stand for the second "/").
bool parse_vlv(const std::string &v, LDAPVLVInfo *info, std::string *value)
{
    unsigned long before = 0, after = 0, offset = 0, count = 0;
    int used = 0;
    if (sscanf(v.c_str(), "%lu/%lu%n", &before, &after, &used) != 2)
        return false;
    std::string rest = v.substr(static_cast<size_t>(used));
    *info = LDAPVLVInfo{1, before, after, 0, 0, nullptr, nullptr, nullptr};
    if (!rest.empty() && rest[0] == ':') {
        *value = rest.substr(1);
        return true;
    }
    int tail = 0;
    if (rest.empty() || (rest[0] != '/' && rest[0] != '=') ||
        sscanf(rest.c_str() + 1, "%lu/%lu%n", &offset, &count, &tail) != 2 ||
        static_cast<size_t>(tail) + 1 != rest.size())
        return false;
    info->ldvlv_offset = offset;
    info->ldvlv_count = count;
    return true;
}

int make_sort(LDAP *ld, const Extension &e, LDAPControl **c)
{
    std::string keys = e.value;
    for (char &ch : keys) {
        if (ch == '/')
            ch = ' ';
    }
    LDAPSortKey **list = nullptr;
    int rc = ldap_create_sort_keylist(&list, keys.c_str());
    if (rc == 0)
        rc = ldap_create_sort_control(ld, list, e.critical, c);
    ldap_free_sort_keylist(list);
    return rc;
}

int make_vlv(LDAP *ld, const Extension &e, LDAPControl **c)
{
    LDAPVLVInfo info{};
    std::string value;
    if (!parse_vlv(e.value, &info, &value))
        return LDAP_PARAM_ERROR;
    struct berval bv{value.size(), value.data()};
    if (!value.empty())
        info.ldvlv_attrvalue = &bv;
    return ldap_create_vlv_control(ld, &info, c);
}

// "ATTR:A,B;ATTR2:C": the DN-valued attributes to follow and what to return of each entry
// they name.
int make_deref(LDAP *ld, const Extension &e, LDAPControl **c)
{
    std::vector<std::vector<std::string>> names;
    for (const std::string &item : split(e.value, ';')) {
        size_t colon = item.find(':');
        if (colon == std::string::npos || colon == 0)
            return LDAP_PARAM_ERROR;
        names.push_back(split(item.substr(colon + 1), ','));
        names.back().insert(names.back().begin(), item.substr(0, colon));
    }
    std::vector<std::vector<char *>> attrs(names.size());
    std::vector<LDAPDerefSpec> derefs;
    for (size_t i = 0; i < names.size(); i++) {
        for (size_t j = 1; j < names[i].size(); j++)
            attrs[i].push_back(names[i][j].data());
        attrs[i].push_back(nullptr);
        derefs.push_back({names[i][0].data(), attrs[i].data()});
    }
    derefs.push_back({nullptr, nullptr});
    return ldap_create_deref_control(ld, derefs.data(), e.critical, c);
}

// Who runs this search, for the servers' audit logs: this host and the user named (else the
// local login name).
int make_session_tracking(LDAP *ld, const Extension &e, LDAPControl **c)
{
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    const passwd *pw = getpwuid(getuid());
    std::string user = !e.value.empty() ? e.value : pw != nullptr ? pw->pw_name : "";
    struct berval id{user.size(), user.data()};
    return ldap_create_session_tracking_control(ld, "", host, LDAP_SESSION_TRACKING_USERNAME, &id,
                                                c);
}

// The control of one extension (none for paging, which the paged search adds itself, and
// for ppolicy, which goes with the bind).
int make_control(LDAP *ld, const Extension &e, LDAPControl **c)
{
    *c = nullptr;
    if (e.name == "sss")
        return make_sort(ld, e, c);
    if (e.name == "vlv")
        return make_vlv(ld, e, c);
    if (e.name == "deref")
        return make_deref(ld, e, c);
    if (e.name == "assert")
        return ldap_create_assertion_control(ld, e.value.c_str(), e.critical, c);
    if (e.name == "mv")
        return ldap_create_matchedvalues_control(ld, e.value.c_str(), e.critical, c);
    if (e.name == "sessiontracking")
        return make_session_tracking(ld, e, c);
    if (e.name == "authzid")
        return ldap_create_proxied_authorization_control(ld, e.value.c_str(), c);
    return 0;
}

// The controls the extensions ask for, owned; freed at destruction.
class ControlList {
public:
    ~ControlList()
    {
        for (LDAPControl *c : ctrls_)
            ldap_control_free(c);
    }
    std::vector<LDAPControl *> *list() { return &ctrls_; }
    LDAPControl **get()
    {
        if (ctrls_.empty())
            return nullptr;
        ctrls_.push_back(nullptr);
        return ctrls_.data();
    }

private:
    std::vector<LDAPControl *> ctrls_;
};

// What the dereference control brought with each entry, as comments.
void report_deref(LDAP *ld, LDAPMessage *res)
{
    for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
        LDAPControl **ctrls = nullptr;
        LDAPDerefRes *deref = nullptr;
        if (ldap_get_entry_controls(ld, e, &ctrls) == 0 &&
            ldap_parse_deref_control(ld, ctrls, &deref) == 0) {
            for (LDAPDerefRes *d = deref; d != nullptr; d = d->next) {
                std::fprintf(stderr, "# %s: %s", d->derefAttr, d->derefVal);
                for (LDAPDerefVal *v = d->attrVals; v != nullptr; v = v->next) {
                    for (struct berval **b = v->vals; b != nullptr && *b != nullptr; ++b)
                        std::fprintf(stderr, "; %s: %.*s", v->type, int((*b)->bv_len),
                                     (*b)->bv_val);
                }
                std::fprintf(stderr, "\n");
            }
        }
        ldap_derefresponse_free(deref);
        ldap_controls_free(ctrls);
    }
}

void report_policy(LDAPControl **ctrls)
{
    int warning = 0, error = 0;
    long value = 0;
    if (ldap_parse_passwordpolicy_control(nullptr, ctrls, &warning, &value, &error) != 0)
        return;
    if (warning != 0) {
        std::fprintf(stderr, "ppolicy: ");
        std::fprintf(stderr, ldap_pwdpolicy_err2string(warning), value);
        std::fprintf(stderr, "\n");
    }
    if (error != 0)
        std::fprintf(stderr, "ppolicy: %s\n", ldap_pwdpolicy_err2string(error));
}

// The server's answers to the sort and the window, as comments after the entries.
void report_results(LDAP *ld, LDAPMessage *res)
{
    LDAPControl **ctrls = nullptr;
    int code = 0;
    report_deref(ld, res);
    if (res == nullptr ||
        ldap_parse_result(ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 0) != 0)
        return;
    unsigned long result = 0, pos = 0, count = 0;
    int vlv_code = 0;
    if (ldap_parse_sort_control(ld, ctrls, &result, nullptr) == 0)
        std::fprintf(stderr, "# sortResult: (%lu) %s\n", result, wzr_ldap_err2string(int(result)));
    if (ldap_parse_vlv_control(ld, ctrls, &pos, &count, nullptr, &vlv_code) == 0)
        std::fprintf(stderr, "# vlvResult: pos=%lu count=%lu (%d) %s\n", pos, count, vlv_code,
                     wzr_ldap_err2string(vlv_code));
    ldap_controls_free(ctrls);
}

struct PageState {
    const PrintFn *print;
    int count = 0;
    bool prompt = false;
    int size = 0;
};

// One page: print it; between pages ask whether to go on when a person is at the terminal.
int on_page(void *arg, LDAP *ld, LDAPMessage *page)
{
    auto *st = static_cast<PageState *>(arg);
    st->count += (*st->print)(ld, page);
    report_results(ld, page);
    wzr_ldap_msgfree(page);
    if (!st->prompt)
        return 0;
    std::fprintf(stderr, "Press Enter for the next %d entries (q to stop).\n", st->size);
    std::string answer;
    if (!std::getline(std::cin, answer) || answer.starts_with('q'))
        return LDAP_USER_CANCELLED;
    return 0;
}

int paged_search(LDAP *ld, const SearchArgs &a, const Extension &pr, LDAPControl **ctrls,
                 const PrintFn &print, int *count)
{
    PageState st{&print};
    size_t slash = pr.value.find('/');
    st.size = atoi(pr.value.substr(0, slash).c_str());
    st.prompt = (slash == std::string::npos || pr.value.substr(slash + 1) != "noprompt") &&
                isatty(STDIN_FILENO) != 0;
    int rc = ldap_search_paged_np(ld, a.base, a.scope, a.filter, a.attrs, a.attrsonly, ctrls,
                                  st.size, a.timeout, on_page, &st);
    *count = st.count;
    return rc == LDAP_USER_CANCELLED ? 0 : rc;
}

bool valid_page_size(const std::string &v)
{
    size_t slash = v.find('/');
    std::string size = v.substr(0, slash);
    char *end = nullptr;
    long n = strtol(size.c_str(), &end, 10);
    return !size.empty() && *end == '\0' && n > 0 && n < 0x7fffffff &&
           (slash == std::string::npos || v.substr(slash + 1) == "noprompt");
}

} // namespace

const Extension *Extensions::find(const std::string &name) const
{
    for (const Extension &e : list) {
        if (e.name == name)
            return &e;
    }
    return nullptr;
}

int parse(const std::string &arg, bool search, Extensions *x)
{
    Extension e;
    e.critical = !arg.empty() && arg[0] == '!';
    std::string body = arg.substr(e.critical ? 1 : 0);
    size_t eq = body.find('=');
    e.name = body.substr(0, eq);
    e.value = eq == std::string::npos ? "" : body.substr(eq + 1);
    const char *flag = search ? "-E" : "-e";
    if (!(search ? known(SEARCH_NAMES, e.name) : known(GENERAL_NAMES, e.name))) {
        if (e.critical) {
            say(std::string(flag) + " " + arg + ": unknown critical extension");
            return LDAP_PARAM_ERROR;
        }
        say(std::string(flag) + " " + arg + ": unknown extension, left out");
        return 0;
    }
    bool has_value = eq != std::string::npos;
    bool needs_value = e.name != "ppolicy" && e.name != "sessiontracking";
    bool takes_value = e.name != "ppolicy";
    if ((needs_value && !has_value) || (!takes_value && has_value) ||
        (e.name == "pr" && !valid_page_size(e.value))) {
        say(std::string(flag) + " " + arg + ": malformed");
        return LDAP_PARAM_ERROR;
    }
    x->list.push_back(e);
    return 0;
}

int make_controls(LDAP *ld, const Extensions &x, std::vector<LDAPControl *> *out)
{
    for (const Extension &e : x.list) {
        LDAPControl *c = nullptr;
        int rc = make_control(ld, e, &c);
        if (rc != 0) {
            say(std::string(known(SEARCH_NAMES, e.name) ? "-E " : "-e ") + e.name + "=" +
                e.value + ": " + wzr_ldap_err2string(rc));
            return rc;
        }
        if (c != nullptr)
            out->push_back(c);
    }
    return 0;
}

int bind(LDAP *ld, const char *dn, const char *password, const Extensions &x)
{
    if (x.find("ppolicy") == nullptr)
        return wzr_ldap_simple_bind_s(ld, dn, password);
    LDAPControl *pp = nullptr;
    int rc = ldap_create_passwordpolicy_control(ld, &pp);
    if (rc != 0)
        return rc;
    LDAPControl *ctrls[] = {pp, nullptr};
    std::string pw = password != nullptr ? password : "";
    struct berval cred{pw.size(), pw.data()};
    rc = ldap_sasl_bind_s(ld, dn, nullptr, &cred, ctrls, nullptr, nullptr);
    ldap_control_free(pp);
    LDAPControl **resp = nullptr;
    if (ldap_get_bind_controls(ld, &resp) == 0)
        report_policy(resp);
    ldap_controls_free(resp);
    return rc;
}

int search(LDAP *ld, const SearchArgs &a, const Extensions &x, const PrintFn &print, int *count)
{
    *count = 0;
    ControlList ctrls;
    int rc = make_controls(ld, x, ctrls.list());
    if (rc != 0)
        return rc;
    if (const Extension *pr = x.find("pr"); pr != nullptr)
        return paged_search(ld, a, *pr, ctrls.get(), print, count);
    LDAPMessage *res = nullptr;
    rc = ldap_search_ext_s(ld, a.base, a.scope, a.filter, a.attrs, a.attrsonly, ctrls.get(),
                           nullptr, a.timeout, a.sizelimit, &res);
    *count = res != nullptr ? print(ld, res) : 0;
    report_results(ld, res);
    wzr_ldap_msgfree(res);
    return rc;
}

} // namespace wzrext
