// Writing a request on its connection: the lazy open under the write lock, the wait for a
// writable socket (with the process-wide write time-out), the resumable flush, and
// ldap_send_request, the common tail of every operation that sends.
#include "ldap_request.h"

#include <sys/select.h>
#include <sys/socket.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "../trace/ldap_env.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_table.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_request";

// Room for descriptors 0..65535, so that processes with many files open can still wait.
constexpr int WAIT_SET_WORDS = 1024;
constexpr int WAIT_SET_MAX_FD = WAIT_SET_WORDS * 64 - 1;

pthread_once_t write_timeout_once = PTHREAD_ONCE_INIT;
int write_timeout_seconds = -1;

void read_write_timeout()
{
    char value[32];
    if (ldap_getenv_buf("LDAP_LIB_WRITE_TIMEOUT", value, sizeof value) >= 0)
        write_timeout_seconds = ldap_parse_write_timeout(value);
}


void trace_wait_entry_port(int sd)
{
    struct sockaddr_storage local;
    socklen_t len = sizeof local;
    int port = 0;
    if (getsockname(sd, reinterpret_cast<struct sockaddr *>(&local), &len) == 0) {
        if (local.ss_family == AF_INET)
            port = ntohs(reinterpret_cast<struct sockaddr_in *>(&local)->sin_port);
        else if (local.ss_family == AF_INET6)
            port = ntohs(reinterpret_cast<struct sockaddr_in6 *>(&local)->sin6_port);
    }
    LDAP_TRACE(LDAP_TRC_API, "waitOnSocket entered for sd=%d, port=%d\n", sd, port);
}

// Opens the connection on first use (write lock held). A failed open kills the connection
// for good; 91 stays 91, everything else is reported as 81. Running out of memory says
// nothing about the server: that is 90, and the next request tries to open it again.
int open_if_needed(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until)
{
    if (__atomic_load_n(&lc->connected, __ATOMIC_ACQUIRE) != 0)
        return 0;
    int rc = open_ldap_connection(ld, lc, until);
    if (rc == 0) {
        __atomic_store_n(&lc->connected, 1, __ATOMIC_RELEASE);
        return 0;
    }
    LDAP_TRACE(LDAP_TRC_ERROR, "ldap_write_msg: open_ldap_connection returned error!\n");
    if (rc == LDAP_NO_MEMORY)
        return rc;
    ldap_conn_mark_dead(lc);
    lber_free(lc->resolved);
    lc->resolved = nullptr;
    // A secure connection's failure (118 no toolkit, 116 handshake, ...) says more than 81.
    bool secure_failure = rc >= LDAP_SSL_ALREADY_INITIALIZED && rc <= LDAP_SSL_PASSWORD_NOT_SPECIFIED;
    return rc == LDAP_CONNECT_ERROR || secure_failure ? rc : LDAP_SERVER_DOWN;
}

// Keeps what is left of a PDU whose writer's time ran out in the middle, for the next writer.
// Without memory for it the stream cannot be kept in step: false.
bool keep_unwritten_tail(LDAPConn *lc, const unsigned char *from, long len)
{
    auto *copy = static_cast<unsigned char *>(lber_malloc(static_cast<size_t>(len)));
    if (copy == nullptr)
        return false;
    std::memcpy(copy, from, static_cast<size_t>(len));
    lc->outbox = copy;
    lc->outbox_len = len;
    return true;
}

// Flushes `ber` until all of it is written (write lock held), waiting for the socket only
// when it would block. Within the deadline: 0. A PDU none of which went out: 85, and the
// connection is as it was. A PDU cut in the middle when the time ran out: its tail waits in
// the connection's outbox for the next writer, and the caller gets 85 as well, since the
// stream is still in step. Only a failed write kills the connection: 81. So does a tail that
// cannot be kept for want of memory, since the next PDU would start inside this one; the
// caller hears 90, which is the cause.
int flush_until(LDAP *ld, LDAPConn *lc, BerElement *ber, const LDAPDeadline &until,
                bool is_tail = false)
{
    LDAPCallDeadlineScope scope(until); // a secure write's wait for the socket
    for (;;) {
        int rc = fber_flush_nb(&lc->sb, ber);
        if (rc == 0)
            return 0;
        int ready = -1;
        if (rc == -11) {
            struct timeval left;
            ready = waitOnSocket(lc->sb.sb_sd, ldap_deadline_wait(until, &left));
            if (ready > 0)
                continue;
        } else if (rc > 0) {
            continue;
        }
        bool untouched = !is_tail && ber->ber_rwptr == ber->ber_buf;
        bool kept = ready == 0 && (untouched || keep_unwritten_tail(lc, ber->ber_rwptr,
                                                                    ber->ber_ptr - ber->ber_rwptr));
        if (kept)
            return ldap_fail(ld, LDAP_TIMEOUT);
        ldap_conn_mark_dead(lc);
        return ldap_fail(ld, ready == 0 ? LDAP_NO_MEMORY : LDAP_SERVER_DOWN);
    }
}

// Sends the tail another writer left, then the request (write lock held).
int flush_request(LDAP *ld, LDAPConn *lc, BerElement *ber, const LDAPDeadline &until)
{
    if (lc->outbox != nullptr) {
        BerElement tail = {};
        tail.ber_buf = tail.ber_rwptr = lc->outbox;
        tail.ber_ptr = lc->outbox + lc->outbox_len;
        lc->outbox = nullptr;
        int rc = flush_until(ld, lc, &tail, until, true); // what is left of it is kept again
        lber_free(tail.ber_buf);
        if (rc != 0)
            return rc;
    }
    return flush_until(ld, lc, ber, until);
}
} // namespace

void ldap_conn_mark_dead(LDAPConn *lc) { __atomic_store_n(&lc->dead, 1, __ATOMIC_RELEASE); }

bool ldap_conn_is_dead(const LDAPConn *lc)
{
    return __atomic_load_n(&lc->dead, __ATOMIC_ACQUIRE) != 0;
}

int ldap_parse_write_timeout(const char *value)
{
    if (value == nullptr)
        return -1;
    int seconds = atoi(value);
    return seconds > 0 ? seconds : -1;
}

// The configured write time-out bounds the wait, but never beyond what is left of the
// caller's own time-out: a call keeps to its time-out whatever the server does.
struct timeval *ldap_write_wait_timeout(int configured, struct timeval *caller,
                                        struct timeval *buffer)
{
    if (configured > 0 && (caller == nullptr || caller->tv_sec >= configured)) {
        buffer->tv_sec = configured;
        buffer->tv_usec = 0;
        return buffer;
    }
    if (caller == nullptr)
        return nullptr;
    *buffer = *caller; // select may change what it is given
    return buffer;
}

int ldap_get_write_timeout()
{
    pthread_once(&write_timeout_once, read_write_timeout);
    return write_timeout_seconds;
}

int waitOnSocket(int sd, struct timeval *timeout)
{
    if (ldap_debug_enabled()) {
        struct sockaddr_storage local;
        socklen_t len = sizeof local;
        if (getsockname(sd, reinterpret_cast<struct sockaddr *>(&local), &len) != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR, "ERROR: getsockname() FAILED for sd=%d, errno=%d\n", sd,
                       errno);
            LDAP_TRACE(LDAP_TRC_ERROR, "waitOnSocket entered for sd=%d, port=ERROR\n", sd);
            return -1;
        }
        trace_wait_entry_port(sd);
    }
    if (sd < 0 || sd > WAIT_SET_MAX_FD)
        return -1;
    uint64_t set[WAIT_SET_WORDS];
    memset(set, 0, sizeof set);
    set[sd / 64] |= uint64_t{1} << (sd % 64);

    struct timeval buffer;
    int configured = ldap_get_write_timeout();
    struct timeval *wait = ldap_write_wait_timeout(configured, timeout, &buffer);
    if (wait == nullptr)
        LDAP_TRACE(LDAP_TRC_API, "waitOnSocket: using NULL timeout.\n");
    else
        LDAP_TRACE(LDAP_TRC_API, "waitOnSocket: using timeout sec=%d\n",
                   static_cast<int>(wait->tv_sec));

    int rc = select(sd + 1, nullptr, reinterpret_cast<fd_set *>(set), nullptr, wait);
    if (rc < 0)
        LDAP_TRACE(LDAP_TRC_ERROR, "Error - waitOnSocket: select failed errno %d\n", errno);
    else if (rc == 0)
        LDAP_TRACE(LDAP_TRC_API, "waitOnSocket: select timed out\n");
    else
        LDAP_TRACE(LDAP_TRC_API, "waitOnSocket: select rc=%d\n", rc);
    LDAP_TRACE(LDAP_TRC_API, "waitOnSocket returning %d\n", rc);
    return rc;
}

int ldap_write_msg(LDAP *ld, LDAPMessage *request, const LDAPDeadline &until)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_write_msg entered: ld=%p, lm=%p\n", static_cast<void *>(ld),
               static_cast<void *>(request));
    if (request == nullptr || request->lm_conn == nullptr || request->lm_ber == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    LDAPConn *lc = request->lm_conn;
    if (ldap_conn_is_dead(lc)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_write_msg: Socket connection was closed earlier\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    // Another writer may hold the lock for as long as the server lets it write.
    LockGuard guard(&lc->write_lock, until, MODULE, __LINE__);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc());
    // Another writer may have failed the open while this one waited for the lock.
    if (ldap_conn_is_dead(lc)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ldap_write_msg: Socket connection was closed earlier\n");
        return ldap_fail(ld, LDAP_SERVER_DOWN);
    }
    int rc = open_if_needed(ld, lc, until);
    if (rc != 0)
        return ldap_fail_once(ld, rc);
    LDAP_TRACE(LDAP_TRC_API, "ldap_write_msg: connected to host\n");

    // Written at once: a wait for a writable socket first would cost a system call per
    // request, and one that ran out would condemn a healthy connection before a byte was sent.
    rc = flush_request(ld, lc, request->lm_ber, until);
    guard.unlock();
    LDAP_TRACE(LDAP_TRC_API, "ldap_write_msg: returning %d\n", rc);
    return rc;
}

int ldap_send_request(LDAP *ld, LDAPConn *lc, LDAPMessage *request, const LDAPDeadline &until,
                      int *msgidp)
{
    if (request == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    if (lc == nullptr)
        lc = request->lm_conn;
    LDAPMsgTable *table = lc != nullptr ? lc->table : nullptr;
    const int msgid = request->lm_msgid;
    int stored = 0;
    int rc = ldap_msg_table_send_message(table, ld, request, &stored, until);
    if (rc == 0) {
        if (msgidp != nullptr)
            *msgidp = msgid;
        return 0;
    }
    // Whoever holds the request frees it: the row, released with the id, or this function
    // (a row that refused the request may belong to another operation: it is left alone).
    if (stored)
        ldap_msg_table_release_msgid(table, msgid);
    else
        free_msg(request, 0);
    return ldap_fail_once(ld, rc);
}
