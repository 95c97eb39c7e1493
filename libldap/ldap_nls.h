// Message catalogues and the positional formatter. The texts of ldap_err2string and the line
// formats of ldap_perror come from the X/Open catalogue "wzrldap.cat" of the caller's locale
// when one is installed, else from the built-in texts.
//
// Locale: the first set of "LC_ALL", "LC_MESSAGES", "LANG" ("C" when none is); "C" and "POSIX"
// use the built-in texts. Catalogue: the first file found through the templates of "NLSPATH"
// (X/Open: %N the catalogue name, %L the locale, %l its language, %t its territory, %c its
// code set, %% a per cent sign), then "$NLXDIR/nls/%L/%N.cat" and "$NLXDIR/nls/%l/%N.cat".
// The choice is made once per process. Set 1 holds the result-code texts (message number =
// code + 1), set 2 the ldap_perror lines below; a message missing from a catalogue falls back to
// its built-in text.
#ifndef WZR_LIBLDAP_LDAP_NLS_H
#define WZR_LIBLDAP_LDAP_NLS_H

#include <cstddef>

inline constexpr int LDAP_NLS_SET_RESULTS = 1;
inline constexpr int LDAP_NLS_SET_PERROR = 2;
// The ldap_perror lines (set 2, messages 1 to 3) and their built-in forms.
inline constexpr const char *LDAP_NLS_PERROR_LINES[] = {
    "%1$s: %2$s\n",
    "%1$s: matched: %2$s\n",
    "%1$s: additional info: %2$s\n",
};

// The catalogue's text of (set, number), or `builtin` when there is none. The text lives as
// long as the process.
const char *ldap_nls_text(int set, int number, const char *builtin);

// printf-like formatting of string arguments only: "%n$s" takes argument n (1-based), "%s" the
// next one, "%%" a per cent sign; a reference to a missing argument prints nothing. Writes at
// most size - 1 characters and a NUL; returns the length the whole text would have.
size_t ldap_nls_format(char *out, size_t size, const char *fmt, int argc,
                       const char *const *argv);

void ldap_nls_reset_for_tests(); // forget the chosen catalogue (the settings are read again)

#endif
