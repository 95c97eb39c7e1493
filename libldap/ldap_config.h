// The client configuration file "qrvldap.conf": where it is found, its line parser (fed bytes,
// kept apart from file I/O so it can be tested and fuzzed) and the process-wide entry list,
// read once under the configuration lock.
#ifndef WZR_LIBLDAP_LDAP_CONFIG_H
#define WZR_LIBLDAP_LDAP_CONFIG_H

#include <cstddef>
#include <cstdio>

// One accepted line: keyword, plug-in type, mechanism, library path, entry point (or null),
// arguments (the rest of the line, or null).
struct LDAPConfEntry {
    char *field[6];
    LDAPConfEntry *next;
};

// A line is at most 511 characters: a longer one goes on as the next line.
inline constexpr size_t LDAP_CONF_LINE_MAX = 512;

struct LDAPConfParser {
    char line[LDAP_CONF_LINE_MAX];
    size_t len;
    LDAPConfEntry *head;
    LDAPConfEntry **tail;
};

void ldap_conf_parser_init(LDAPConfParser *p);
// Feeds bytes; every complete line is parsed at once. 0, or 90 (the parser stays usable and
// keeps the entries it had).
[[nodiscard]] int ldap_conf_feed(LDAPConfParser *p, const char *bytes, size_t n);
// Parses a last line without its newline; then hands the entries over (the parser is empty).
[[nodiscard]] int ldap_conf_finish(LDAPConfParser *p, LDAPConfEntry **list);
void ldap_conf_parser_free(LDAPConfParser *p);
void ldap_conf_free(LDAPConfEntry *list);

// Parses a whole stream and appends its entries to *list. 0 or 90.
[[nodiscard]] int ldap_process_conf_data(FILE *stream, LDAPConfEntry **list);
// "<installation directory><separator>etc", allocated (lber_free), or null.
char *ldap_get_default_config_path(char separator);
// The first configuration file that exists, allocated, or null.
char *ldap_locate_conf_file();
FILE *ldap_open_conf_file();
// Reads the file into the process list once; 0, 192 without a file, 90, or 129. A failed read
// is tried again on the next call.
[[nodiscard]] int ldap_read_conf_file();
// True when fields 1-3 of `entry` equal key[0..2] exactly.
bool ldap_conf_eval(const LDAPConfEntry *entry, const char *const key[3]);
// The process list's entry for {"plugin", type, mechanism}; call with the configuration lock.
const LDAPConfEntry *ldap_conf_find(const char *type, const char *mechanism);
// Forgets the process list so the next read starts over (tests only).
void ldap_conf_reset();

#endif
