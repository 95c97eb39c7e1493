// The search extensions of the wzrldap tool, spelt as ldapsearch spells them: -E for search
// controls (paged results, sorting, virtual list view, dereferencing) and -e for general ones
// (password policy, assertion, proxied authorisation, matched values, session tracking). They
// reach the library's control constructors and parsers, which are internal, so the tool links
// the static library.
#ifndef WZR_TOOLS_SEARCH_EXT_H
#define WZR_TOOLS_SEARCH_EXT_H

#include <functional>
#include <string>
#include <vector>

#include "wzrldap.h"

struct LDAPControl;

namespace wzrext {

struct Extension {
    std::string name;  // pr, sss, vlv, deref, ppolicy, assert, authzid, mv, sessiontracking
    std::string value; // what followed "="
    bool critical = false;
};

struct Extensions {
    std::vector<Extension> list;
    bool any() const { return !list.empty(); }
    const Extension *find(const std::string &name) const;
};

// Reads one -E (`search` true) or -e argument into `x`. Returns 0, or 89 after saying why on
// standard error. An unknown extension marked critical ("!") is refused; an optional one is
// left out with a warning, as a server would ignore a control it does not know.
int parse(const std::string &arg, bool search, Extensions *x);

// The request controls the extensions ask for, appended to *out (paging aside, which the paged
// search adds page by page, and ppolicy, which goes with the bind). Free each with
// ldap_control_free. Returns 0, or a constructor's code after saying which extension failed.
int make_controls(LDAP *ld, const Extensions &x, std::vector<LDAPControl *> *out);

// A simple bind; with -e ppolicy it carries the password-policy request and prints the
// policy's warnings and errors on standard error.
int bind(LDAP *ld, const char *dn, const char *password, const Extensions &x);

struct SearchArgs {
    const char *base;
    int scope;
    const char *filter;
    char **attrs;
    int attrsonly;
    int sizelimit;
    struct timeval *timeout;
};
// Prints the entries of one result and returns how many it printed.
using PrintFn = std::function<int(LDAP *, LDAPMessage *)>;

// Runs the search with the extensions' controls, a paged search page by page, printing the
// entries as each page arrives; *count gets the number printed. Returns the search's code.
int search(LDAP *ld, const SearchArgs &args, const Extensions &x, const PrintFn &print,
           int *count);

} // namespace wzrext

#endif
