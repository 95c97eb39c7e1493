// The configuration file "qrvldap.conf": located in the QRVLDAP_CONF directory or the
// installation directories, read once per process under the configuration lock, and parsed
// line by line into six-field entries by a byte-fed parser that knows nothing of files.
#include "ldap_config.h"

#include <cstring>
#include <sys/stat.h>

#include "../trace/ldap_env.h"
#include "ldap_int.h"
#include "ldap_lock.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_config";
constexpr const char *CONF_NAME = "qrvldap.conf";
constexpr const char *INSTALL_DIR = "/opt/qrv/ldap/V6.3.1";
constexpr const char *FIELD_SEPS = " \t\n";
constexpr const char *ARGS_END = "\t\n";

// The process list; guarded by the configuration lock except for the read-once flag.
LDAPConfEntry *conf_list = nullptr;
bool conf_read = false;

size_t skip(const char *s, size_t i, const char *set)
{
    while (s[i] != '\0' && strchr(set, s[i]) != nullptr)
        i++;
    return i;
}

size_t span_until(const char *s, size_t i, const char *set)
{
    while (s[i] != '\0' && strchr(set, s[i]) == nullptr)
        i++;
    return i;
}

// Splits one line (a C string: a zero byte ends it) into fields. Returns the field count; the
// fields point into `line`, which is cut at each field's end.
int split_line(char *line, char *field[6])
{
    int n = 0;
    size_t i = 0;
    while (n < 5) {
        i = skip(line, i, FIELD_SEPS);
        if (line[i] == '\0')
            return n;
        field[n++] = line + i;
        i = span_until(line, i, FIELD_SEPS);
        if (line[i] == '\0')
            return n;
        line[i++] = '\0';
    }
    // The arguments: the rest of the line up to a tab or newline, leading blanks dropped.
    i = skip(line, i, " \t\n");
    size_t end = span_until(line, i, ARGS_END);
    if (end > i) {
        line[end] = '\0';
        field[n++] = line + i;
    }
    return n;
}

LDAPConfEntry *make_entry(char *const field[6], int n)
{
    auto *e = static_cast<LDAPConfEntry *>(lber_calloc(1, sizeof(LDAPConfEntry)));
    if (e == nullptr)
        return nullptr;
    for (int k = 0; k < n; k++) {
        e->field[k] = lber_strdup(field[k]);
        if (e->field[k] == nullptr) {
            ldap_conf_free(e);
            return nullptr;
        }
    }
    return e;
}

// One line of the file, as fgets with a 512-byte buffer would hand it over.
int parse_line(LDAPConfParser *p)
{
    p->line[p->len] = '\0';
    p->len = 0;
    if (p->line[0] == '#')
        return 0;
    char *field[6] = {};
    int n = split_line(p->line, field);
    if (n < 4) {
        if (n > 0)
            LDAP_TRACE(LDAP_TRC_WARN, "ldap_process_conf_data: line of %d fields skipped\n", n);
        return 0;
    }
    LDAPConfEntry *e = make_entry(field, n);
    if (e == nullptr)
        return LDAP_NO_MEMORY;
    // The arguments may name identities: only the first four fields are traced.
    LDAP_TRACE(LDAP_TRC_API, "ldap_process_conf_data: %s %s %s %s\n", field[0], field[1],
               field[2], field[3]);
    *p->tail = e;
    p->tail = &e->next;
    return 0;
}

bool file_exists(const char *path)
{
    struct stat st{};
    return stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

char *join_path(const char *dir, const char *name)
{
    size_t dl = strlen(dir), nl = strlen(name);
    auto *s = static_cast<char *>(lber_malloc(dl + nl + 2));
    if (s != nullptr) {
        memcpy(s, dir, dl);
        s[dl] = '/';
        memcpy(s + dl + 1, name, nl + 1);
    }
    return s;
}

// The candidate directories in order; each is tried if it can be made.
char *candidate(int k)
{
    if (k == 0) {
        char *dir = ldap_getenv("QRVLDAP_CONF");
        char *path = dir != nullptr && *dir != '\0' ? join_path(dir, CONF_NAME) : nullptr;
        lber_free(dir);
        return path;
    }
    if (k == 1) {
        char *dir = ldap_get_default_config_path('/');
        char *path = dir != nullptr ? join_path(dir, CONF_NAME) : nullptr;
        lber_free(dir);
        return path;
    }
    return join_path(INSTALL_DIR, CONF_NAME);
}
} // namespace

void ldap_conf_parser_init(LDAPConfParser *p)
{
    p->len = 0;
    p->head = nullptr;
    p->tail = &p->head;
}

int ldap_conf_feed(LDAPConfParser *p, const char *bytes, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        p->line[p->len++] = bytes[i];
        if (bytes[i] == '\n' || p->len == LDAP_CONF_LINE_MAX - 1) {
            int rc = parse_line(p);
            if (rc != 0)
                return rc;
        }
    }
    return 0;
}

int ldap_conf_finish(LDAPConfParser *p, LDAPConfEntry **list)
{
    int rc = p->len > 0 ? parse_line(p) : 0;
    *list = p->head;
    ldap_conf_parser_init(p);
    return rc;
}

void ldap_conf_parser_free(LDAPConfParser *p)
{
    ldap_conf_free(p->head);
    ldap_conf_parser_init(p);
}

void ldap_conf_free(LDAPConfEntry *list)
{
    while (list != nullptr) {
        LDAPConfEntry *next = list->next;
        for (char *f : list->field)
            lber_free(f);
        lber_free(list);
        list = next;
    }
}

int ldap_process_conf_data(FILE *stream, LDAPConfEntry **list)
{
    LDAPConfParser p;
    ldap_conf_parser_init(&p);
    char buf[4096];
    size_t n;
    int rc = 0;
    while (rc == 0 && (n = fread(buf, 1, sizeof buf, stream)) > 0)
        rc = ldap_conf_feed(&p, buf, n);
    LDAPConfEntry *parsed = nullptr;
    if (rc == 0)
        rc = ldap_conf_finish(&p, &parsed);
    if (rc != 0) {
        ldap_conf_parser_free(&p);
        ldap_conf_free(parsed);
        return rc;
    }
    while (*list != nullptr)
        list = &(*list)->next;
    *list = parsed;
    return 0;
}

char *ldap_get_default_config_path(char separator)
{
    size_t il = strlen(INSTALL_DIR);
    auto *s = static_cast<char *>(lber_malloc(il + 5));
    if (s != nullptr) {
        memcpy(s, INSTALL_DIR, il);
        s[il] = separator;
        memcpy(s + il + 1, "etc", 4);
    }
    return s;
}

char *ldap_locate_conf_file()
{
    for (int k = 0; k < 3; k++) {
        char *path = candidate(k);
        if (path != nullptr && file_exists(path))
            return path;
        lber_free(path);
    }
    return nullptr;
}

FILE *ldap_open_conf_file()
{
    char *path = ldap_locate_conf_file();
    if (path == nullptr)
        return nullptr;
    LDAP_TRACE(LDAP_TRC_API, "ldap_open_conf_file: %s\n", path);
    FILE *f = fopen(path, "re");
    lber_free(path);
    return f;
}

int ldap_read_conf_file()
{
    if (__atomic_load_n(&conf_read, __ATOMIC_ACQUIRE))
        return 0;
    LDAP_LOCK(guard, ldap_config_mutex(), MODULE);
    if (guard.rc() != 0)
        return guard.rc();
    if (conf_read)
        return 0;
    FILE *f = ldap_open_conf_file();
    if (f == nullptr) {
        LDAP_TRACE(LDAP_TRC_API, "ldap_read_conf_file: no configuration file\n");
        return LDAP_PLUGIN_CONF_NOT_OPENED;
    }
    int rc = ldap_process_conf_data(f, &conf_list);
    fclose(f);
    if (rc == 0)
        __atomic_store_n(&conf_read, true, __ATOMIC_RELEASE);
    LDAP_TRACE(LDAP_TRC_API, "ldap_read_conf_file: rc=%d\n", rc);
    return rc;
}

bool ldap_conf_eval(const LDAPConfEntry *entry, const char *const key[3])
{
    for (int k = 0; k < 3; k++) {
        if (entry->field[k] == nullptr || key[k] == nullptr || strcmp(entry->field[k], key[k]) != 0)
            return false;
    }
    return true;
}

const LDAPConfEntry *ldap_conf_find(const char *type, const char *mechanism)
{
    const char *const key[3] = {"plugin", type, mechanism};
    for (const LDAPConfEntry *e = conf_list; e != nullptr; e = e->next) {
        if (ldap_conf_eval(e, key))
            return e;
    }
    return nullptr;
}

void ldap_conf_reset()
{
    LDAP_LOCK(guard, ldap_config_mutex(), MODULE);
    if (guard.rc() != 0)
        return;
    ldap_conf_free(conf_list);
    conf_list = nullptr;
    __atomic_store_n(&conf_read, false, __ATOMIC_RELEASE);
}
