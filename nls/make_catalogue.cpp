// Writes the English message catalogue source (gencat input) from the library's own tables:
// set 1 the result-code texts (message number = code + 1), set 2 the ldap_perror lines.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libldap/ldap_error.h"
#include "libldap/ldap_nls.h"
#include "wzrldap.h"

namespace {

constexpr int LAST_CODE = 255;

void put_message(int number, const char *text)
{
    printf("%d \"", number);
    for (const char *c = text; *c != '\0'; ++c) {
        if (*c == '\n')
            fputs("\\n", stdout);
        else if (*c == '"' || *c == '\\')
            printf("\\%c", *c);
        else
            putchar(*c);
    }
    puts("\"");
}

} // namespace

int main()
{
    // The built-in texts, whatever locale the build runs in.
    setenv("LC_ALL", "C", 1);
    const char *unknown = ldap_err2string(LDAP_OTHER);
    puts("$ wzrldap messages, made from the library's tables at build time\n$quote \"");
    printf("$set %d\n", LDAP_NLS_SET_RESULTS);
    for (int code = 0; code <= LAST_CODE; ++code) {
        const char *text = ldap_err2string(code);
        if (code == LDAP_OTHER || strcmp(text, unknown) != 0)
            put_message(code + 1, text);
    }
    printf("$set %d\n", LDAP_NLS_SET_PERROR);
    int number = 1;
    for (const char *line : LDAP_NLS_PERROR_LINES)
        put_message(number++, line);
    return ferror(stdout) ? 1 : 0;
}
