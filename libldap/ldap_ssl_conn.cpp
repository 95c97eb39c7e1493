// Secure connections: the handshake on a connection's socket through the toolkit, the
// user-data record and the raw I/O callbacks with their time-out rules (the handshake bounded
// by its own time-out, the data phase by the data time-out, both by the caller's deadline), the
// closing of a secure socket and the readers of the peer's certificate and the session.
#include "ldap_ssl.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ldap_error.h"
#include "ldap_load.h"
#include "ldap_lock.h"

namespace {

constexpr int64_t CLIENT_HANDSHAKE_SEC = 5;
constexpr int64_t OTHER_IO_SEC = 1;
constexpr int REASON_BAD_LABEL = 407;

// Filled once per process per type; the data time-out with them (0: never wait for data).
pthread_once_t client_once = PTHREAD_ONCE_INIT;
pthread_once_t other_once = PTHREAD_ONCE_INIT;
WzrUserData client_record;
WzrUserData other_record;
long data_timeout = 2;

long env_number(const char *name, bool *set)
{
    char value[32];
    *set = ldap_ssl_env_value(name, value, sizeof value) > 0;
    return *set ? strtol(value, nullptr, 10) : 0;
}

void millis_to_timeout(long ms, WzrUserData *ud)
{
    if (ms < 0) { // unlimited
        ud->io_sec = 0;
        ud->io_usec = 0;
        return;
    }
    ud->io_sec = ms / 1000;
    ud->io_usec = (ms % 1000) * 1000;
}

void read_data_timeout()
{
    bool set = false;
    long value = env_number("OPX_SSL_DATA_TIMEOUT", &set);
    if (set && data_timeout != 0)
        data_timeout = value;
}

void fill_record(WzrUserData *ud, int type)
{
    *ud = WzrUserData{};
    ud->key = -1;
    ud->state = WZR_STATE_HANDSHAKE;
    ud->type = type;
    bool set = false;
    if (type == WZR_CONN_CLIENT) {
        ud->io_sec = CLIENT_HANDSHAKE_SEC;
        long sec = env_number("OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT", &set);
        if (set && sec != 0) {
            ud->io_sec = sec;
        } else {
            long ms = env_number("OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT_MILLISECS", &set);
            if (set)
                millis_to_timeout(ms, ud);
        }
    } else {
        ud->io_sec = OTHER_IO_SEC;
        long ms = env_number("SSL_TIMEOUT_MILLISEC", &set);
        if (set)
            millis_to_timeout(ms, ud);
    }
    ud->block_sec = ud->io_sec;
    ud->block_usec = ud->io_usec;
    ud->trace_level = env_number("OPX_SSL_CLIENT_TRACELEVEL", &set);
}

void fill_client() { read_data_timeout(); fill_record(&client_record, WZR_CONN_CLIENT); }
void fill_other() { read_data_timeout(); fill_record(&other_record, 1); }

/* ---- raw I/O ---- */

ssize_t move_bytes(int fd, char *buf, size_t len, bool writing)
{
    ssize_t n;
    do
        n = writing ? send(fd, buf, len, MSG_NOSIGNAL) : read(fd, buf, len);
    while (n < 0 && errno == EINTR);
    return n;
}

int64_t now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Milliseconds to wait: the whole time-out of the phase (-1 unlimited), cut to what the
// caller's deadline leaves, whatever the phase: a peer that stalls in the middle of a record
// must not hold a call past its time-out for as long as the data time-out allows. `passed`
// is set once that deadline has gone.
int wait_ms(int64_t timeout_ms, bool *passed)
{
    int64_t wait = timeout_ms;
    const LDAPDeadline until = ldap_call_deadline();
    struct timeval left;
    *passed = until.limited && !ldap_time_left(until, &left);
    if (until.limited) {
        int64_t left_ms = left.tv_sec * 1000LL + (left.tv_usec + 999) / 1000; // never a 0 poll
        if (wait < 0 || left_ms < wait)
            wait = left_ms;
    }
    return wait > INT32_MAX ? INT32_MAX : static_cast<int>(wait);
}

// Moves up to len bytes, waiting for the descriptor as the phase allows: the count, or -1
// (errno EAGAIN: nothing more in the data phase), -2 (handshake wait timed out) or -3
// (handshake without progress for its whole time-out), both with errno EIO.
int ssl_io(int fd, char *buf, int len, WzrUserData *ud, int *done, bool writing)
{
    const char *name = writing ? "ssl_write" : "ssl_read";
    *done = 0;
    const WzrUserData &rec = ud != nullptr ? *ud : client_record;
    const bool handshake = rec.state == WZR_STATE_HANDSHAKE;
    int64_t timeout_ms = rec.io_sec * 1000 + rec.io_usec / 1000;
    if (!handshake && data_timeout != 0)
        timeout_ms = static_cast<int64_t>(data_timeout) * 1000;
    if (handshake && rec.io_sec <= 0 && rec.io_usec <= 0) {
        LDAP_TRACE(LDAP_TRC_SSL, "%s: entering UNLIMITED wait for SSL ...\n", name);
        timeout_ms = -1;
    }
    int64_t progress_at = now_ms();
    for (;;) {
        ssize_t n = move_bytes(fd, buf + *done, static_cast<size_t>(len - *done), writing);
        if (n > 0) {
            *done += static_cast<int>(n);
            if (ud != nullptr)
                ud->moved += static_cast<uint32_t>(n);
            if (*done >= len)
                return len;
            progress_at = now_ms();
            continue;
        }
        if (n == 0 || (!handshake && data_timeout == 0))
            return n == 0 ? *done : static_cast<int>(n);
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            LDAP_TRACE(LDAP_TRC_ERROR, "Error - %s: in SSL errno=%d EWOULDBLOCK=%d EAGAIN=%d\n",
                       name, errno, EWOULDBLOCK, EAGAIN);
            return -1;
        }
        bool passed = false;
        int wait = wait_ms(timeout_ms, &passed);
        if (passed && !handshake) {
            errno = EAGAIN; // the caller's time is up: "would block", and the engine says 85
            return -1;
        }
        if (handshake && (passed || (timeout_ms >= 0 && now_ms() - progress_at >= timeout_ms))) {
            int64_t spent = now_ms() - progress_at;
            LDAP_TRACE(LDAP_TRC_ERROR, "%s: non EWOULDBLOCK SSL time out after: %ld.%06ld sec\n",
                       name, static_cast<long>(spent / 1000), static_cast<long>(spent % 1000) * 1000);
            errno = EIO;
            return -3;
        }
        if (ud != nullptr) {
            ++ud->selects;
            ++ud->total_selects;
        }
        struct pollfd p = {fd, static_cast<short>(writing ? POLLOUT : POLLIN), 0};
        int ready = poll(&p, 1, wait);
        if (ready < 0 && errno != EINTR) {
            LDAP_TRACE(LDAP_TRC_ERROR, "%s: Error select failed with INVALID_SOCKET: errno = %d \n",
                       name, errno);
            return -1;
        }
        if (ready == 0 && handshake) {
            LDAP_TRACE(LDAP_TRC_ERROR, "Error - %s: select %d:%d timed out after:  %ld:%ld sec, "
                                       "connType: %d env: %s\n", name, fd, ready,
                       static_cast<long>(rec.io_sec), static_cast<long>(rec.io_usec), rec.type,
                       "OPX_SSL_CLIENT_HANDSHAKE_TIMEOUT");
            errno = EIO;
            return -2;
        }
        if (ready == 0 && !handshake) {
            errno = EAGAIN;
            return -1;
        }
    }
}

// The callbacks' common mapping of the raw result.
int client_io(int fd, void *buf, int len, void *user_data, bool writing)
{
    auto *ud = static_cast<WzrUserData *>(user_data);
    if (ud != nullptr && ud->key != -1)
        ud = nullptr; // not a record this library made: use the process defaults
    if (ud != nullptr) {
        ud->loops = 0;
        ud->selects = 0;
        ud->total_selects = 0;
        ud->moved = 0;
    }
    int done = 0;
    int rc = writing ? ssl_write(fd, buf, len, ud, &done) : ssl_read(fd, buf, len, ud, &done);
    const char *name = writing ? "client_ssl_write" : "client_ssl_read";
    if ((rc == -2 || rc == -3) && errno == EIO) {
        if (rc == -2)
            LDAP_TRACE(LDAP_TRC_SSL, "%s:  EIO due to handshake mode EWOULDBLOCK timeout\n", name);
        else
            LDAP_TRACE(LDAP_TRC_SSL, "%s: EIO due to handshake mode nonEWOULDBLOCK timeout\n",
                       name);
        return -1;
    }
    if (rc < 0 && errno == EAGAIN && done > 0) {
        LDAP_TRACE(LDAP_TRC_SSL, "%s: EWOULDBLOCK timeout after %d of %d bytes read. returning "
                                 "%d\n", name, done, len, done);
        return done;
    }
    return rc;
}

/* ---- the handshake ---- */

// Installs a fresh record of the client type in the given state.
int setWzrUserData(void *soc, int protocol, int32_t state)
{
    WzrUserData ud;
    initWzrUserData(&ud, WZR_CONN_CLIENT);
    ud.protocol = protocol;
    ud.state = state;
    int code = wzr_fn.attribute_set_buffer(soc, WZR_USER_DATA, &ud, sizeof ud);
    if (code != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "Error -  setWzrUserData: wzr_attribute_set_buffer() "
                                   "wzr_user_data rc=%d %s\n", code, ldap_ssl_strerror(code));
    if (code == 0 && state == WZR_STATE_READ_WRITE)
        LDAP_TRACE(LDAP_TRC_SSL, "setWzrUserDatahandshakeMode:  to For-Read-Write\n");
    else if (code == 0)
        LDAP_TRACE(LDAP_TRC_SSL, "setWzrUserDatahandshakeMode:  to For-Handshake\n");
    return code;
}

// Records a failed handshake in the handle: 116, the toolkit's code as the reason and its
// account of what was wrong as the message.
int handshake_failed(LDAP *ld, void *soc, int code, int protocol)
{
    const char *why = nullptr;
    int len = 0;
    if (wzr_fn.attribute_get_buffer(soc, WZR_LAST_ERROR_TEXT, &why, &len) != 0 || len == 0)
        why = nullptr;
    LDAP_TRACE(LDAP_TRC_ERROR, "%s: wzr_secure_soc_init() rc=%d %s%s%s\n",
               protocol == WZR_PROTOCOL_STARTTLS ? "In ldap_start_tls_s_np()" : "open_ssl_connection()",
               code, ldap_ssl_strerror(code), why != nullptr ? ": " : "", why != nullptr ? why : "");
    __atomic_store_n(&ld->ld_ssl_reason, code, __ATOMIC_RELAXED);
    char msg[512];
    snprintf(msg, sizeof msg, "SSL reason %d (%s)%s%s", code, ldap_ssl_strerror(code),
             why != nullptr ? ": " : "", why != nullptr ? why : "");
    (void)ldap_set_lderrno_direct(ld, LDAP_SSL_HANDSHAKE_FAILED, nullptr, msg);
    return LDAP_SSL_HANDSHAKE_FAILED;
}

void trace_session(void *soc)
{
    if (!ldap_debug_enabled())
        return;
    const char *cipher = "", *protocol = "";
    int len = 0;
    (void)wzr_fn.attribute_get_buffer(soc, WZR_NEGOTIATED_CIPHER, &cipher, &len);
    (void)wzr_fn.attribute_get_buffer(soc, WZR_NEGOTIATED_PROTOCOL, &protocol, &len);
    LDAP_TRACE(LDAP_TRC_SSL, "open_ssl_connection(): negotiated %s with %s\n", protocol, cipher);
}

// Label, protocols and the record, then the handshake. 0 or the result to return.
int configure_and_shake(LDAP *ld, LDAPConn *lc, void *soc, const char *host, const char *label,
                        int protocol, const LDAPDeadline &until)
{
    if (wzr_fn.attribute_set_numeric_value(soc, WZR_FD, lc->sb.sb_sd) != 0 ||
        (host != nullptr && host[0] != '/' &&
         wzr_fn.attribute_set_buffer(soc, WZR_PEER_NAME, host, 0) != 0))
        return LDAP_SSL_PARAM_ERROR;
    if (label != nullptr) {
        int code = wzr_fn.attribute_set_buffer(soc, WZR_KEYRING_LABEL, label, 0);
        if (code != 0) {
            __atomic_store_n(&ld->ld_ssl_reason, REASON_BAD_LABEL, __ATOMIC_RELAXED);
            return code;
        }
    }
    if (int suiteb = ldap_ssl_suiteb_mode(); suiteb != 0) {
        LDAP_TRACE(LDAP_TRC_SSL, "open_ssl_connection(): suite b %d mode is enabled\n", suiteb);
        LDAP_TRACE(LDAP_TRC_SSL, "open_ssl_connection(): protocol to [TLS12]\n");
    } else {
        int code = wzr_fn.attribute_set_enum(soc, WZR_SSLV2, WZR_SSLV2_OFF);
        if (code != 0)
            LDAP_TRACE(LDAP_TRC_ERROR, "open_ssl_connection(): SSLV2 off rc=%d %s\n", code,
                       ldap_ssl_strerror(code));
    }
    if (setWzrUserData(soc, protocol, WZR_STATE_HANDSHAKE) != 0)
        return LDAP_SSL_PARAM_ERROR;
    LDAPCallDeadlineScope scope(until);
    int code = wzr_fn.secure_soc_init(soc);
    if (code != 0)
        return handshake_failed(ld, soc, code, protocol);
    trace_session(soc);
    code = setWzrUserData(soc, protocol, WZR_STATE_READ_WRITE);
    return code != 0 ? LDAP_SSL_PARAM_ERROR : 0;
}

} // namespace

void initWzrUserData(WzrUserData *ud, int type)
{
    if (type == WZR_CONN_CLIENT) {
        pthread_once(&client_once, fill_client);
        *ud = client_record;
    } else {
        pthread_once(&other_once, fill_other);
        *ud = other_record;
    }
}

int ssl_read(int fd, void *buf, int len, WzrUserData *ud, int *done)
{
    return ssl_io(fd, static_cast<char *>(buf), len, ud, done, false);
}

int ssl_write(int fd, const void *buf, int len, WzrUserData *ud, int *done)
{
    return ssl_io(fd, static_cast<char *>(const_cast<void *>(buf)), len, ud, done, true);
}

int client_ssl_read(int fd, void *buf, int len, void *user_data)
{
    return client_io(fd, buf, len, user_data, false);
}

int client_ssl_write(int fd, const void *buf, int len, void *user_data)
{
    return client_io(fd, const_cast<void *>(buf), len, user_data, true);
}

int open_ssl_connection(LDAP *ld, LDAPConn *lc, const char *host, const char *label,
                        int protocol, const LDAPDeadline &until)
{
    if (!ldap_skit_loaded()) {
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - open_ssl_connection(): Could not open ssl connection "
                                   "because Wzrkit was not loaded\n");
        return LDAP_SSL_NOT_AVAILABLE;
    }
    pthread_once(&client_once, fill_client);
    // A handshake flight is several small writes: Nagle's algorithm would hold each one back
    // until the previous was acknowledged, costing a delayed-ACK wait per flight.
    int on = 1;
    if (setsockopt(lc->sb.sb_sd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        LDAP_TRACE(LDAP_TRC_SSL, "open_ssl_connection(): TCP_NODELAY not set, errno=%d\n", errno);
    void *soc = nullptr;
    int code = wzr_fn.secure_soc_open(lc->ssl_ref->env, &soc);
    if (code != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "open_ssl_connection(): wzr_secure_soc_open() rc=%d %s\n",
                   code, ldap_ssl_strerror(code));
        return LDAP_SSL_INITIALIZE_FAILED;
    }
    int rc = configure_and_shake(ld, lc, soc, host, label, protocol, until);
    if (rc != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "In open_ssl_connection(): rc: %d (%s) closing ssl session and "
                                   "freeing socket buffer resources.\n", rc, ldap_err2string(rc));
        lc->sb.sb_secure = soc;
        ssl_close_direct(&lc->sb);
        return rc;
    }
    lc->sb.sb_secure = soc;
    return 0;
}

void ssl_close_direct(Sockbuf *sb)
{
    if (sb == nullptr || sb->sb_secure == nullptr || wzr_fn.secure_soc_close == nullptr)
        return;
    int code = wzr_fn.secure_soc_close(&sb->sb_secure);
    if (code != 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "In ssl_close_direct(): wzr_secure_soc_close() rc=%d %s\n", code,
                   ldap_ssl_strerror(code));
    sb->sb_secure = nullptr;
}

void ldap_ssl_release_conn(LDAPConn *lc)
{
    ssl_close_direct(&lc->sb);
    WzrEnvRef *ref = lc->ssl_ref;
    lc->ssl_ref = nullptr;
    deleteWzrEnvRef(ref);
}

int getSSLCertAltName(Sockbuf *sb, const char **names)
{
    if (sb == nullptr || sb->sb_secure == nullptr || names == nullptr)
        return LDAP_PARAM_ERROR;
    return wzr_fn.attribute_get_cert_info(sb->sb_secure, WZR_PEER_ALT_NAMES, names);
}

namespace {
int get_session_text(Sockbuf *sb, int attr, const char **text)
{
    if (sb == nullptr || sb->sb_secure == nullptr || text == nullptr)
        return LDAP_PARAM_ERROR;
    int len = 0;
    return wzr_fn.attribute_get_buffer(sb->sb_secure, attr, text, &len);
}
} // namespace

int getSSLCipher(Sockbuf *sb, const char **cipher)
{
    return get_session_text(sb, WZR_NEGOTIATED_CIPHER, cipher);
}
int getSSLClientLabel(Sockbuf *sb, const char **label)
{
    return get_session_text(sb, WZR_KEYRING_LABEL, label);
}
int getSSLKeydatabase(Sockbuf *sb, const char **keydb)
{
    return get_session_text(sb, WZR_KEYRING_FILE, keydb);
}
