// The wzrldap tool's reach past the exported interface, through the library's internal API:
// the matched DN and text of a server's error, referral output when chasing is off, and
// renames with a new superior.
#include "wzrldap_results.h"

#include <cstdio>

#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_update.h"

namespace wzrtool {
namespace {

std::string detail_lines(const char *matched, const char *text, char **refs)
{
    std::string out;
    if (matched != nullptr && *matched != '\0')
        out += std::string("\tMatched DN: ") + matched + "\n";
    if (text != nullptr && *text != '\0')
        out += std::string("\tadditional info: ") + text + "\n";
    if (refs != nullptr && refs[0] != nullptr) {
        out += "\treferrals:\n";
        for (char **r = refs; *r != nullptr; ++r)
            out += std::string("\t\t") + *r + "\n";
    }
    return out;
}

// The final result of a search chain: the first message that is neither entry nor reference.
LDAPMessage *final_result(LDAPMessage *res)
{
    LDAPMessage *m = res;
    while (m != nullptr && (m->lm_msgtype == LDAP_RES_SEARCH_ENTRY ||
                            m->lm_msgtype == LDAP_RES_SEARCH_REFERENCE))
        m = m->lm_chain;
    return m;
}

void print_urls(char **urls)
{
    for (char **u = urls; u != nullptr && *u != nullptr; ++u)
        printf("# ref%s\n\n", *u);
}

} // namespace

std::string server_error_lines(LDAP *ld)
{
    char *matched = nullptr;
    char *text = nullptr;
    (void)ldap_get_lderrno(ld, &matched, &text);
    std::string out = detail_lines(matched, text, nullptr);
    ldap_memfree(matched);
    ldap_memfree(text);
    return out;
}

std::string result_error_lines(LDAP *ld, LDAPMessage *res)
{
    LDAPMessage *done = final_result(res);
    int code = 0;
    char *matched = nullptr;
    char *text = nullptr;
    char **refs = nullptr;
    if (done == nullptr ||
        ldap_parse_result(ld, done, &code, &matched, &text, &refs, nullptr, 0) != 0)
        return std::string();
    std::string out = detail_lines(matched, text, refs);
    ldap_memfree(matched);
    ldap_memfree(text);
    ldap_value_free(refs);
    return out;
}

int stop_following_referrals(LDAP *ld) { return ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF); }

void print_referrals(LDAP *ld, LDAPMessage *res)
{
    // ldap_next_reference looks from the record it is given: the walk steps past it first.
    for (LDAPMessage *r = ldap_first_reference(ld, res); r != nullptr;
         r = r->lm_chain != nullptr ? ldap_next_reference(ld, r->lm_chain) : nullptr) {
        char **urls = nullptr;
        if (ldap_parse_reference(ld, r, &urls, nullptr, 0) == 0)
            print_urls(urls);
        ldap_value_free(urls);
    }
    LDAPMessage *done = final_result(res);
    char **refs = nullptr;
    int code = 0;
    if (done != nullptr &&
        ldap_parse_result(ld, done, &code, nullptr, nullptr, &refs, nullptr, 0) == 0)
        print_urls(refs);
    ldap_value_free(refs);
}

int rename_entry(LDAP *ld, const wzrldif::Record &r)
{
    return ldap_rename_s(ld, r.dn.c_str(), r.newrdn.c_str(),
                         r.newsuperior ? r.newsuperior->c_str() : nullptr, r.deleteoldrdn ? 1 : 0,
                         nullptr, nullptr);
}

} // namespace wzrtool
