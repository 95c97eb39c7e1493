// Handle creation (ldap_init, ldap_open), connection records and the lazy opening of a
// connection over its host list, the operation bracket every public call runs inside, the
// handle validity check, and the FBER allocator that stamps requests with the handle's settings.
#include "ldap_init.h"
#include "ldap_inflight.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "../liblber/ber_xlate.h"
#include "../trace/ldap_env.h"
#include "ldap_charset.h"
#include "ldap_connect.h"
#include "ldap_error.h"
#include "ldap_free.h"
#include "ldap_locate.h"
#include "ldap_lock.h"
#include "ldap_options.h"
#include "ldap_ssl.h"
#include "ldap_table.h"
#include "ldap_unbind.h"
#include "ldap_url.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_init";
constexpr const char *DEFAULT_NLXDIR = "/opt/qrv/ldap/V6.3.1";
constexpr size_t HOST_SCAN_MAX = 256;  // characters of the host string searched for a scheme
constexpr size_t HOSTNAME_BUF = 257;

// ---- handle validity ----------------------------------------------------------------------

pthread_once_t invalid_level_once = PTHREAD_ONCE_INIT;
int invalid_level = 0;

void read_invalid_level() { invalid_level = ldap_invalid_level_from_env(); }

// ---- ldap_init helpers --------------------------------------------------------------------

// Message catalogues and conversion tables are found through NLXDIR; give it the installation
// directory when the environment does not name one.
void ensure_nlxdir()
{
    if (ldap_chkenv("NLXDIR") != 0)
        return;
    char home[4096];
    const char *dir = DEFAULT_NLXDIR;
    if (ldap_getenv_buf("OPX_LDAP_HOME", home, sizeof home) > 0)
        dir = home;
    int rc = ldap_change_env_var(0, "NLXDIR", ':', dir);
    if (rc != 0) // the handle works without it; only message texts are affected
        LDAP_TRACE(LDAP_TRC_WARN, "ldap_init: could not set NLXDIR, rc=%d\n", rc);
}

// The scheme test runs on a lower-cased copy, so "LDAPS://" counts too.
bool names_scheme(const char *host, const char *scheme)
{
    char lower[HOST_SCAN_MAX + 1];
    size_t n = 0;
    for (; n < HOST_SCAN_MAX && host[n] != '\0'; ++n) {
        char c = host[n];
        lower[n] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    }
    lower[n] = '\0';
    return strstr(lower, scheme) != nullptr;
}

bool names_secure_url(const char *host) { return names_scheme(host, "ldaps://"); }
bool names_url(const char *host)
{
    return names_scheme(host, "ldap://") || names_secure_url(host);
}

// The host list named by an LDAP URL, and its port when the URL gives one.
char *host_from_url(const char *url, int *port)
{
    LDAPURLDesc *lud = nullptr;
    if (ldap_url_parse(url, &lud) != 0 || lud == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_init: cannot parse URL (%s)\n", url);
        return nullptr;
    }
    char *host = nullptr;
    if (lud->lud_host != nullptr && lud->lud_host[0] != '\0') {
        LDAP_TRACE(LDAP_TRC_API, "ldap_init: Found host (%s) in URL\n", lud->lud_host);
        host = lber_strdup(lud->lud_host);
        if (lud->lud_port > 0)
            *port = lud->lud_port;
    } else {
        if (lud->lud_dn != nullptr)
            LDAP_TRACE(LDAP_TRC_API, "ldap_init: Found DN (%s) in URL\n", lud->lud_dn);
        int rc = ldap_locate_servers(lud->lud_dn, names_secure_url(url), &host);
        if (rc != 0)
            LDAP_TRACE(LDAP_TRC_ERROR, "ldap_init: no LDAP server found through DNS, rc=%d\n", rc);
    }
    ldap_free_urldesc(lud);
    return host;
}

char *this_host_name()
{
    char name[HOSTNAME_BUF];
    if (gethostname(name, sizeof name) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_init: can't get hostname\n");
        return nullptr;
    }
    name[HOSTNAME_BUF - 1] = '\0';
    char *copy = lber_strdup(name);
    if (copy == nullptr)
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_init: allocate for hostname failed\n");
    return copy;
}

// The owned host list for a new handle, or nullptr (traced) when none can be had.
char *resolve_host(const char *host, int *port)
{
    char *result;
    if (host != nullptr) {
        LDAP_TRACE(LDAP_TRC_API, "ldap_init: parsing the passing hostname\n");
        result = names_url(host) ? host_from_url(host, port) : lber_strdup(host);
    } else {
        result = this_host_name();
    }
    if (result == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_init: failed to get hostname\n");
        return nullptr;
    }
    if (result[0] == '\0') {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_init: invalid hostname (blank) is used\n");
        lber_free(result);
        return nullptr;
    }
    return result;
}

void trace_mutex_created(pthread_mutex_t *m, const char *name, int line)
{
    LDAP_TRACE(LDAP_TRC_MUTEX, "MUTEX %p %s %d\n", static_cast<void *>(m), name, line);
}

int init_mutex(pthread_mutex_t *m, const char *name, int line)
{
    int rc = pthread_mutex_init(m, nullptr);
    if (rc != 0)
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_init: failed to initialize mutex rc=%d - File %s line %d\n", rc, MODULE,
                   line);
    else
        trace_mutex_created(m, name, line);
    return rc;
}

// Creates the handle's synchronisation objects in their fixed order; on failure destroys what
// was made and returns the error.
int init_handle_sync(LDAP *ld)
{
    int rc = init_mutex(&ld->ld_mutex, "ld_mutex", __LINE__);
    if (rc != 0)
        return rc;
    if ((rc = init_mutex(&ld->ld_errlock, "ld_errlock", __LINE__)) != 0)
        goto no_errlock;
    if ((rc = init_mutex(&ld->ld_connlock, "ld_connlock", __LINE__)) != 0)
        goto no_connlock;
    if ((rc = pthread_cond_init(&ld->ld_ops_ended, nullptr)) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "ldap_init: failed to initialize conditional variable, rc=%d - File %s "
                   "line %d\n",
                   rc, MODULE, __LINE__);
        goto no_cond;
    }
    ld->ld_unbind_started = 0;
    if ((rc = init_mutex(&ld->ld_reflock, "ld_reflock", __LINE__)) == 0)
        return 0;
    ldap_destroy_cond_traced(&ld->ld_ops_ended, __LINE__);
no_cond:
    ldap_destroy_mutex_traced(&ld->ld_connlock, __LINE__);
no_connlock:
    ldap_destroy_mutex_traced(&ld->ld_errlock, __LINE__);
no_errlock:
    ldap_destroy_mutex_traced(&ld->ld_mutex, __LINE__);
    return rc;
}

// Initial options of every new handle, set as the library's own code does (no handle mutex).
int set_initial_options(LDAP *ld)
{
    struct Initial {
        int option;
        intptr_t value;
    };
    const Initial initial[] = {{LDAP_OPT_PROTOCOL_VERSION, LDAP_VERSION3},
                               {LDAP_OPT_BIND_FLAG, 1},
                               {LDAP_OPT_REFERRALS, 1},
                               {LDAP_OPT_REFHOPLIMIT, 10}};
    for (const Initial &i : initial) {
        int rc = ldap_set_option_direct(ld, i.option, reinterpret_cast<const void *>(i.value));
        if (rc != 0)
            return rc;
    }
    return 0;
}

// ---- opening a connection ------------------------------------------------------------------

void close_socket(LDAPConn *lc)
{
    ssl_close_direct(&lc->sb);
    if (lc->sb.sb_sd >= 0)
        close(lc->sb.sb_sd);
    lc->sb.sb_sd = -1;
    lc->connected = 0;
}

// Makes a freshly connected socket secure: the connection joins the toolkit environment
// (initialised from the handle's options when the process has not) and runs the handshake.
int secure_host_entry(LDAP *ld, LDAPConn *lc, const char *host, const LDAPDeadline &until)
{
    LDAP_TRACE(LDAP_TRC_API, "open_ldap_connection: SSL In use! setting nonBlocking mode\n");
    int rc = set_socket_nb_sd(lc->sb.sb_sd) != 0 ? LDAP_SERVER_DOWN : 0;
    if (rc == 0 && lc->ssl_ref == nullptr)
        rc = ldap_ssl_attach_initialising(ld, lc);
    char *label = nullptr;
    if (rc == 0)
        rc = ldap_ssl_copy_label(ld, &label);
    if (rc == 0)
        rc = open_ssl_connection(ld, lc, host, label, WZR_PROTOCOL_SSL_PORT, until);
    lber_free(label);
    if (rc != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "open_ldap_connection: open_ssl_connection failed with rc=%d\n",
                   rc);
    return rc;
}

int open_host_entry(LDAP *ld, LDAPConn *lc, const LDAPHostEntry &entry, const LDAPDeadline &until)
{
    struct timeval left;
    int rc = open_connection(&lc->sb, entry.host, htons(static_cast<uint16_t>(entry.port)), nullptr,
                             0, ldap_deadline_wait(until, &left));
    if (rc != 0)
        return rc;
    if (__atomic_load_n(&ld->ld_ssl_in_use, __ATOMIC_ACQUIRE) != 0 &&
        (rc = secure_host_entry(ld, lc, entry.host, until)) != 0) {
        close_socket(lc);
        return rc;
    }
    // The PDU reader never blocks: waiting is done in select with the caller's time-out.
    if (set_socket_nb_sd(lc->sb.sb_sd) != 0) {
        close_socket(lc);
        return LDAP_SERVER_DOWN;
    }
    char *resolved = lber_strdup(entry.host);
    if (resolved == nullptr) {
        close_socket(lc);
        return LDAP_NO_MEMORY;
    }
    lber_free(lc->resolved);
    lc->resolved = resolved;
    lc->connected = 1;
    return 0;
}
} // namespace

int ldap_next_host_entry(char **cursor, int *seen_ipv6, int defport, LDAPHostEntry *entry)
{
    char *p = *cursor;
    while (*p == ' ' || *p == '\t')
        ++p;
    if (*p == '\0') {
        *cursor = p;
        return 0;
    }
    char *start = p;
    int colons = 0;
    for (; *p != '\0' && *p != ' ' && *p != '\t'; ++p)
        colons += *p == ':';
    if (*p != '\0')
        *p++ = '\0';
    *cursor = p;

    entry->port = defport;
    if (colons >= 2 || *seen_ipv6) {
        // The port after "]" is deliberately not used: bracketed entries take the default.
        *seen_ipv6 = 1;
        if (*start == '[')
            ++start;
        if (char *close_bracket = strchr(start, ']'))
            *close_bracket = '\0';
    } else if (char *colon = strchr(start, ':')) {
        *colon = '\0';
        entry->port = atoi(colon + 1);
    }
    entry->host = start;
    return 1;
}

LDAP *ldap_init(const char *host, int port)
{
    ldap_debug_init();
    LDAP_TRACE(LDAP_TRC_API, "ldap_init: defhost=%s, defport=%d\n",
               host != nullptr ? host : "(null)", port);
    if (port < 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_init: bad port (%d)\n", port);
        return nullptr;
    }
    if (port == 0)
        port = LDAP_PORT;
    ensure_nlxdir();

    char *hostlist = resolve_host(host, &port);
    if (hostlist == nullptr)
        return nullptr;

    auto *ld = static_cast<LDAP *>(lber_calloc(1, sizeof(LDAP)));
    if (ld == nullptr) {
        lber_free(hostlist);
        return nullptr;
    }
    memcpy(ld->ld_eyecatcher, LDAP_EYE_HANDLE, sizeof LDAP_EYE_HANDLE);
    ld->ld_defhost = hostlist;
    ld->ld_defport = port;
    // An ldaps:// URL sets the handle up for secure transport: its connections run the
    // handshake as they open (the exported interface has no other way to ask for it).
    ld->ld_ssl_in_use = host != nullptr && names_secure_url(host) ? 1 : 0;
    LDAP_TRACE(LDAP_TRC_API, "ldap_init: defhost(%s) defport(%d)\n", hostlist, port);

    LDAPConn *lc = ldap_lc_init(hostlist, port, LDAP_TABLE_INITIAL_ROWS);
    if (lc != nullptr) {
        ld->ld_defconn = lc;
        ld->ld_servers = lc;
        lc->ld = ld;
    }
    if (lc == nullptr || init_handle_sync(ld) != 0) {
        ldap_ld_free_owned(ld);
        lber_free(ld);
        return nullptr;
    }
    if (set_initial_options(ld) != 0) {
        ldap_ld_free(ld);
        return nullptr;
    }
    return ld;
}

LDAP *ldap_open(const char *host, int port)
{
    ldap_debug_init();
    LDAP_TRACE(LDAP_TRC_API, "ldap_open: host=%s, port=%d\n", host != nullptr ? host : "(null)",
               port);
    LDAP *ld = ldap_init(host, port);
    if (ld == nullptr)
        return nullptr;

    // Older callers of ldap_open expect version 2 unless they ask for 3.
    char value[8];
    intptr_t version = LDAP_VERSION2;
    if (ldap_getenv_buf("LDAP_VERSION", value, sizeof value) >= 0 && strcmp(value, "3") == 0)
        version = LDAP_VERSION3;
    int rc = ldap_set_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION,
                                    reinterpret_cast<const void *>(version));

    LDAPConn *lc = ld->ld_defconn;
    if (rc == 0) {
        LDAP_LOCK(guard, &lc->write_lock, MODULE);
        rc = guard.locked() ? open_ldap_connection(ld, lc) : guard.rc();
    }
    if (rc != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_open: open_default_connection failed");
        (void)ldap_unbind(ld); // the handle is ours and no operation runs on it
        return nullptr;
    }
    return ld;
}

LDAPConn *ldap_lc_init(const char *host, int port, unsigned table_rows)
{
    auto *lc = static_cast<LDAPConn *>(lber_calloc(1, sizeof(LDAPConn)));
    if (lc == nullptr)
        return nullptr;
    lc->sb.sb_sd = -1;
    lc->sb.sb_copyfd = -1;
    lc->port = port;
    lc->dead = 0;
    lc->host = lber_strdup(host != nullptr ? host : "localhost");
    lc->table = lc->host != nullptr ? ldap_msg_table_init(table_rows) : nullptr;
    if (lc->table == nullptr) {
        lber_free(lc->host);
        lber_free(lc);
        return nullptr;
    }
    lc->table->owner = lc;

    pthread_mutex_t *const mutexes[] = {&lc->conn_mutex, &lc->read_lock, &lc->write_lock};
    int made = 0;
    for (pthread_mutex_t *m : mutexes) {
        int rc = pthread_mutex_init(m, nullptr);
        if (rc != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "ldap_lc_init: failed to initialize mutex rc = %d - File %s line %d\n", rc,
                       MODULE, __LINE__);
            for (int i = made - 1; i >= 0; --i)
                ldap_destroy_mutex_traced(mutexes[i], __LINE__);
            ldap_msg_table_free(lc->table);
            lber_free(lc->host);
            lber_free(lc);
            return nullptr;
        }
        trace_mutex_created(m, "lc_mutex", __LINE__);
        ++made;
    }
    return lc;
}

namespace {
// The connect time-out (option 70), copied under the handle mutex that guards it: the caller
// may replace it at any moment.
LDAPDeadline connect_deadline(LDAP *ld)
{
    struct timeval timeout;
    bool set = false;
    if (ldap_mutex_lock(&ld->ld_mutex, MODULE, __LINE__) == 0) {
        if (ld->ld_connect_timeout != nullptr) {
            timeout = *ld->ld_connect_timeout;
            set = true;
        }
        ldap_mutex_unlock(&ld->ld_mutex, MODULE, __LINE__);
    }
    return ldap_deadline_after(set ? &timeout : nullptr);
}
} // namespace

int open_ldap_connection(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until)
{
    LDAP_TRACE(LDAP_TRC_API, "open_ldap_connection: ld(%p), lc(%p)\n", static_cast<void *>(ld),
               static_cast<void *>(lc));
    if (ld == nullptr || lc == nullptr)
        return LDAP_PARAM_ERROR;
    // The whole walk of the host list keeps to the connect time-out and to the caller's.
    const LDAPDeadline deadline = ldap_deadline_min(connect_deadline(ld), until);
    char *list = lber_strdup(lc->host != nullptr ? lc->host : "localhost");
    if (list == nullptr)
        return LDAP_NO_MEMORY;

    int rc = LDAP_SERVER_DOWN;
    int seen_ipv6 = 0;
    char *cursor = list;
    LDAPHostEntry entry;
    while (ldap_next_host_entry(&cursor, &seen_ipv6, lc->port, &entry)) {
        rc = open_host_entry(ld, lc, entry, deadline);
        if (rc == 0 || rc == LDAP_NO_MEMORY) // the caller hears of it, not the next host's fate
            break;
    }
    lber_free(list);
    return rc;
}

namespace {
bool unbind_started(const LDAP *ld)
{
    return __atomic_load_n(&ld->ld_unbind_started, __ATOMIC_ACQUIRE) != 0;
}

// Gives up this thread's hold on the handle: its note, or else one count.
void release_hold(LDAP *ld)
{
    if (ldap_inflight_leave(ld))
        return;
    uint32_t count = __atomic_load_n(&ld->ld_opcount, __ATOMIC_RELAXED);
    do {
        if (count == 0)
            return; // never below zero
    } while (!__atomic_compare_exchange_n(&ld->ld_opcount, &count, count - 1, true,
                                          __ATOMIC_RELEASE, __ATOMIC_RELAXED));
}
} // namespace

int ldap_start_refused(LDAP *ld)
{
    if (!ldap_handle_alive(ld)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Invalid ld in ldap_start_operation\n");
        return LDAP_PARAM_ERROR;
    }
    ldap_end_operation(ld);
    LDAP_TRACE(LDAP_TRC_API, "ldap_start_operation: unbind started\n");
    return LDAP_PARAM_ERROR;
}

void ldap_end_operation_slow(LDAP *ld)
{
    if (!ldap_handle_alive(ld)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Invalid ld in ldap_start_operation\n");
        return;
    }
    // When an unbind waits, the hold is given up under the handle mutex, which the unbind
    // needs before it can free anything, and it is woken. One that starts just after this
    // look finds the hold gone on its own (it looks again every millisecond).
    if (!unbind_started(ld)) {
        release_hold(ld);
        return;
    }
    if (ldap_mutex_lock(&ld->ld_mutex, MODULE, __LINE__) != 0)
        return;
    release_hold(ld);
    pthread_cond_broadcast(&ld->ld_ops_ended);
    ldap_mutex_unlock(&ld->ld_mutex, MODULE, __LINE__);
}

uint32_t ldap_operations_in_progress(const LDAP *ld)
{
    return __atomic_load_n(&ld->ld_opcount, __ATOMIC_ACQUIRE) + ldap_inflight_count(ld);
}

int ldap_invalid_level_from_env()
{
    char value[32];
    if (ldap_getenv_buf("QRVLDAP_HANDLE_INVALID_LEVEL", value, sizeof value) <= 0)
        return 0;
    int level = atoi(value);
    return level > 0 ? level : 0;
}

int ldap_ld_valid(LDAP *ld)
{
    if (ld == nullptr)
        return 0;
    if (memcmp(ld->ld_eyecatcher, LDAP_EYE_HANDLE, sizeof LDAP_EYE_HANDLE) == 0)
        return 1;
    unsigned long first8;
    memcpy(&first8, ld->ld_eyecatcher, sizeof first8);
    LDAP_TRACE(LDAP_TRC_ERROR, "ERROR: ldap_ld_free:EYECATCHER INVALID ld(%p)  [%lX]\n",
               static_cast<void *>(ld), first8);
    pthread_once(&invalid_level_once, read_invalid_level);
    if (invalid_level > 0)
        abort();
    return 0;
}

BerElement *ldap_alloc_fber(LDAP *ld, int small)
{
    BerElement *ber = small ? fber_alloc_t(0) : fber_alloc();
    if (ber != nullptr)
        ldap_fber_follow_handle(ld, ber);
    return ber;
}

void ldap_fber_follow_handle(LDAP *ld, BerElement *ber)
{
    // Elements set up here are the only ones that carry a protocol version, so the codec needs
    // the code-page translator from the first of them on.
    ber_set_translator(ldap_charset_translator());
    ber->ber_own_version = ld != nullptr ? ld->ld_version : LDAP_VERSION3;
    ber->ber_own_utf8 = ld != nullptr ? ld->ld_utf8_io : 0;
    ber->ber_version = &ber->ber_own_version;
    ber->ber_utf8_flag = &ber->ber_own_utf8;
}
