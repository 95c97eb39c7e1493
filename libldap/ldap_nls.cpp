// Message catalogues: choosing the locale and the catalogue file once per process, reading
// texts from it with catgets, and the formatter with positional arguments the translated
// texts need (a translation may put the arguments in another order).
#include "ldap_nls.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <nl_types.h>
#include <sched.h>

#include "../trace/ldap_env.h"
#include "../trace/ldap_trace.h"

namespace {

constexpr const char *CATALOGUE = "wzrldap";
constexpr size_t PATH_LEN = 4096;
const nl_catd NO_CATALOGUE = reinterpret_cast<nl_catd>(-1);

// -1 not chosen, -2 being chosen, 0 none, 1 open in `catalogue`. No lock: `catalogue` is
// written only by the thread that moved `state` to -2, before it publishes 0 or 1.
std::atomic<int> state{-1};
nl_catd catalogue = NO_CATALOGUE;

// "de_DE.UTF-8@euro" -> language "de", territory "DE", code set "UTF-8".
struct LocaleParts {
    char full[128] = "";
    char language[64] = "";
    char territory[64] = "";
    char codeset[64] = "";
};

void split_locale(LocaleParts &p)
{
    const char *s = p.full;
    size_t lang = strcspn(s, "_.@");
    snprintf(p.language, sizeof p.language, "%.*s", static_cast<int>(lang), s);
    if (s[lang] == '_') {
        const char *t = s + lang + 1;
        snprintf(p.territory, sizeof p.territory, "%.*s", static_cast<int>(strcspn(t, ".@")), t);
    }
    const char *dot = strchr(s, '.');
    if (dot != nullptr)
        snprintf(p.codeset, sizeof p.codeset, "%.*s", static_cast<int>(strcspn(dot + 1, "@")),
                 dot + 1);
}

// The messages locale; false for the C locale (built-in texts).
bool messages_locale(LocaleParts &p)
{
    for (const char *name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        int n = ldap_getenv_buf(name, p.full, sizeof p.full);
        if (n > 0 && static_cast<size_t>(n) < sizeof p.full)
            break;
        p.full[0] = '\0';
    }
    if (p.full[0] == '\0' || strcmp(p.full, "C") == 0 || strcmp(p.full, "POSIX") == 0)
        return false;
    split_locale(p);
    return true;
}

// One template of a path list, expanded; false when it does not fit.
bool expand(const char *tpl, size_t len, const LocaleParts &p, char *out)
{
    size_t used = 0;
    for (size_t i = 0; i < len; ++i) {
        const char *piece = nullptr;
        char one[2] = {tpl[i], '\0'};
        if (tpl[i] == '%' && i + 1 < len) {
            switch (tpl[++i]) {
            case 'N': piece = CATALOGUE; break;
            case 'L': piece = p.full; break;
            case 'l': piece = p.language; break;
            case 't': piece = p.territory; break;
            case 'c': piece = p.codeset; break;
            default: one[0] = tpl[i]; break; // "%%" and unknown letters stand for themselves
            }
        }
        piece = piece != nullptr ? piece : one;
        size_t n = strlen(piece);
        if (used + n >= PATH_LEN)
            return false;
        memcpy(out + used, piece, n);
        used += n;
    }
    out[used] = '\0';
    return used > 0;
}

// The first catalogue that opens along a colon-separated template list.
nl_catd open_along(const char *list, const LocaleParts &p)
{
    char path[PATH_LEN];
    for (const char *t = list; *t != '\0';) {
        size_t len = strcspn(t, ":");
        if (expand(t, len, p, path) && strchr(path, '/') != nullptr) {
            nl_catd cd = catopen(path, 0);
            if (cd != NO_CATALOGUE) {
                LDAP_TRACE(LDAP_TRC_CODEPAGE, "ldap_nls: message catalogue %s\n", path);
                return cd;
            }
        }
        t += len + (t[len] == ':');
    }
    return NO_CATALOGUE;
}

nl_catd find_catalogue()
{
    LocaleParts p;
    if (!messages_locale(p))
        return NO_CATALOGUE;
    char list[PATH_LEN];
    nl_catd cd = NO_CATALOGUE;
    if (ldap_getenv_buf("NLSPATH", list, sizeof list) > 0)
        cd = open_along(list, p);
    char dir[PATH_LEN / 2 - 32];
    int n = ldap_getenv_buf("NLXDIR", dir, sizeof dir);
    if (cd == NO_CATALOGUE && n > 0 && static_cast<size_t>(n) < sizeof dir) {
        snprintf(list, sizeof list, "%s/nls/%%L/%%N.cat:%s/nls/%%l/%%N.cat", dir, dir);
        cd = open_along(list, p);
    }
    return cd;
}

bool catalogue_open()
{
    int s = state.load(std::memory_order_acquire);
    int expected = -1;
    if (s == -1 && state.compare_exchange_strong(expected, -2)) {
        catalogue = find_catalogue();
        s = catalogue != NO_CATALOGUE ? 1 : 0;
        state.store(s, std::memory_order_release);
    }
    while (s == -2) { // another thread is choosing; its answer is a moment away
        sched_yield();
        s = state.load(std::memory_order_acquire);
    }
    return s == 1 || (s == -1 && catalogue_open());
}

// Appends `text` to out[used..size) as far as it fits; counts it all.
void put(char *out, size_t size, size_t *used, const char *text, size_t n)
{
    if (*used < size) {
        size_t k = n < size - *used ? n : size - *used;
        memcpy(out + *used, text, k);
    }
    *used += n;
}

} // namespace

const char *ldap_nls_text(int set, int number, const char *builtin)
{
    if (!catalogue_open())
        return builtin;
    return catgets(catalogue, set, number, builtin);
}

size_t ldap_nls_format(char *out, size_t size, const char *fmt, int argc,
                       const char *const *argv)
{
    size_t used = 0;
    int next = 0;
    for (const char *f = fmt; *f != '\0'; ++f) {
        int index = -1; // the argument this conversion prints
        if (f[0] == '%' && f[1] == 's') {
            index = next++;
            f += 1;
        } else if (f[0] == '%' && f[1] >= '1' && f[1] <= '9' && f[2] == '$' && f[3] == 's') {
            index = f[1] - '1';
            f += 3;
        } else if (f[0] == '%' && f[1] == '%') {
            f += 1;
        }
        if (index < 0) {
            put(out, size, &used, f, 1);
            continue;
        }
        const char *arg = index < argc && argv[index] != nullptr ? argv[index] : "";
        put(out, size, &used, arg, strlen(arg));
    }
    if (size > 0)
        out[used < size ? used : size - 1] = '\0';
    return used;
}

void ldap_nls_reset_for_tests()
{
    if (state.load() == 1)
        catclose(catalogue);
    catalogue = NO_CATALOGUE;
    state.store(-1);
}
