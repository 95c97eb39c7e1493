// Turning a host and port (or a local socket path) into a connected stream socket: name
// resolution under the process-wide resolver lock, the connect with its time-out, the socket
// mode helpers, and the lookup of a handle's connection to a given server.
#include "ldap_connect.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/un.h>
#include <unistd.h>

#include "ldap_error.h"
#include "ldap_free.h"
#include "ldap_init.h"
#include "ldap_lock.h"

namespace {

constexpr const char *MODULE = "libldap/ldap_connect";
constexpr size_t HOST_BUFFER = 512;    // host names are limited to 511 bytes
constexpr size_t SERVICE_BUFFER = 20;
constexpr unsigned NEW_CONN_TABLE_ROWS = 256;

// Serialises getaddrinfo for the whole process.
pthread_mutex_t resolver_lock = PTHREAD_MUTEX_INITIALIZER;

int host_port(int net_port) { return ntohs(static_cast<uint16_t>(net_port)); }

const char *or_null(const char *s) { return s != nullptr ? s : "NULL"; }

// Milliseconds for poll(), rounded up so that a short time-out never becomes a busy poll.
int timeval_to_ms(const struct timeval *tv)
{
    long long ms = static_cast<long long>(tv->tv_sec) * 1000 + (tv->tv_usec + 999) / 1000;
    if (ms < 0)
        return 0;
    return ms > INT32_MAX ? INT32_MAX : static_cast<int>(ms);
}

// A local-domain socket. A failed connect closes its descriptor: leaving it open would leak
// one descriptor for every attempt on a server that is down.
int open_local(Sockbuf *sb, const char *path, struct timeval *timeout)
{
    struct sockaddr_un addr = {};
    size_t len = strlen(path);
    if (len >= sizeof addr.sun_path)
        return LDAP_CONNECT_ERROR;
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path, path, len);
    int sd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sd < 0)
        return LDAP_CONNECT_ERROR;
    if (rqx_connect(sd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr, timeout) != 0) {
        close(sd);
        return LDAP_CONNECT_ERROR;
    }
    sb->sb_sd = sd;
    return LDAP_SUCCESS;
}

void trace_local_port(int sd)
{
    if (!ldap_debug_enabled())
        return;
    struct sockaddr_storage local = {};
    socklen_t len = sizeof local;
    if (getsockname(sd, reinterpret_cast<struct sockaddr *>(&local), &len) != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "ERROR: getsockname() FAILED for sd=%d, errno=%d\n", sd, errno);
        LDAP_TRACE(LDAP_TRC_API, "open_connection: sd=%d, port=ERROR\n", sd);
        return;
    }
    in_port_t port = 0;
    if (local.ss_family == AF_INET)
        port = reinterpret_cast<struct sockaddr_in *>(&local)->sin_port;
    else if (local.ss_family == AF_INET6)
        port = reinterpret_cast<struct sockaddr_in6 *>(&local)->sin6_port;
    LDAP_TRACE(LDAP_TRC_API, "open_connection: sd=%d, port=%d\n", sd, ntohs(port));
}

// A host matches a connection when the strings are equal ignoring letter case (host names
// are case-insensitive) and the ports are equal. A connection made from a host list matches
// only that same list.
bool conn_matches(const LDAPConn *lc, const char *host, int port)
{
    return lc->port == port && lc->host != nullptr && strcasecmp(lc->host, host) == 0;
}

// Creates, opens and appends a connection; the caller holds the connection lock and records
// the code once it is released (the error lock is never taken inside the connection lock).
LDAPConn *add_connection(LDAP *ld, const char *host, int port, int *code,
                         const LDAPDeadline &until)
{
    LDAPConn *lc = ldap_lc_init(host, port, NEW_CONN_TABLE_ROWS);
    if (lc == nullptr) {
        *code = LDAP_NO_MEMORY;
        return nullptr;
    }
    lc->ld = ld;
    // The opener expects the write lock; the record is reachable by no other thread until it
    // is linked below, so exclusion already holds and the write lock (which must never nest
    // inside the connection lock) is not taken.
    *code = open_ldap_connection(ld, lc, until);
    if (*code != LDAP_SUCCESS) {
        ldap_lc_free(lc);
        return nullptr;
    }
    lc->connected = 1;
    LDAPConn **tail = &ld->ld_servers;
    while (*tail != nullptr)
        tail = &(*tail)->next;
    *tail = lc;
    return lc;
}

} // namespace

int opx_getaddrinfo(const char *host, int port, struct addrinfo **res)
{
    LDAP_TRACE(LDAP_TRC_API, "opx_getaddrinfo: host(%s), port(%d), res(%p)\n", or_null(host),
               host_port(port), static_cast<void *>(res));
    if (res == nullptr)
        return LDAP_PARAM_ERROR;
    auto *name = static_cast<char *>(lber_calloc(HOST_BUFFER, 1));
    auto *service = static_cast<char *>(lber_calloc(SERVICE_BUFFER, 1));
    if (name == nullptr || service == nullptr) {
        lber_free(name);
        lber_free(service);
        return LDAP_NO_MEMORY;
    }
    if (host != nullptr)
        strncpy(name, host, HOST_BUFFER - 1);
    snprintf(service, SERVICE_BUFFER, "%d", host_port(port));

    struct addrinfo hints = {};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    // An IPv6 address with a scope ("fe80::1%eth0") resolves only with these flags.
    if (host != nullptr && strchr(name, '%') != nullptr)
        hints.ai_flags = AI_PASSIVE | AI_ADDRCONFIG;

    int rc;
    {
        LDAP_LOCK(guard, &resolver_lock, MODULE);
        if (!guard.locked()) {
            LDAP_TRACE(LDAP_TRC_ERROR, "opx_getaddrinfo: Failed to lock.\n");
            rc = LDAP_LOCK_ERROR;
        } else if (int gai = getaddrinfo(host != nullptr ? name : nullptr, service, &hints, res);
                   gai != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR, "getaddrinfo failed. \n");
            guard.unlock();
            *res = nullptr;
            errno = EHOSTUNREACH;
            rc = gai == EAI_MEMORY ? LDAP_NO_MEMORY : LDAP_SERVER_DOWN;
        } else {
            rc = LDAP_SUCCESS;
        }
    }
    lber_free(name);
    lber_free(service);
    LDAP_TRACE(LDAP_TRC_API, "opx_getaddrinfo: rc=%d\n", rc);
    return rc;
}

int connect_first_address(const struct addrinfo *list, struct timeval *timeout, int *sd_out)
{
    int rc = LDAP_SERVER_DOWN;
    *sd_out = -1;
    for (const struct addrinfo *ai = list; ai != nullptr; ai = ai->ai_next) {
        int sd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
        if (sd < 0) {
            LDAP_TRACE(LDAP_TRC_ERROR,
                       "Connect_to_host:Return code from socket call s=%i, errno=%i\n", sd, errno);
            rc = LDAP_CONNECT_ERROR;
            continue;
        }
        int on = 1;
        if (setsockopt(sd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) {
            LDAP_TRACE(LDAP_TRC_WARN, "connect_to_host: setsockopt failed. errno = %d\n", errno);
            errno = 0;
        }
        if (rqx_connect(sd, ai->ai_addr, ai->ai_addrlen, timeout) == 0) {
            LDAP_TRACE(LDAP_TRC_API, "open_connect: connect successful\n");
            *sd_out = sd;
            return LDAP_SUCCESS;
        }
        LDAP_TRACE(LDAP_TRC_ERROR, "open_connection: [2]connect failed %d\n", errno);
        close(sd);
        rc = LDAP_SERVER_DOWN;
    }
    return rc;
}

int open_connection(Sockbuf *sb, const char *host, int port, char ** /*unused_out*/,
                    int /*unused_flag*/, struct timeval *timeout)
{
    LDAP_TRACE(LDAP_TRC_API, "open_connection: entered sb(%p) host(%s) port(%d)\n",
               static_cast<void *>(sb), or_null(host), host_port(port));
    int rc;
    if (host == nullptr) {
        rc = LDAP_SERVER_DOWN;
    } else if (sb == nullptr) {
        rc = LDAP_PARAM_ERROR;
    } else if (host[0] == '/') {
        rc = open_local(sb, host, timeout);
    } else {
        struct addrinfo *list = nullptr;
        rc = opx_getaddrinfo(host, port, &list);
        if (rc == LDAP_SUCCESS) {
            int sd = -1;
            rc = connect_first_address(list, timeout, &sd);
            sb->sb_sd = sd;
            freeaddrinfo(list);
            if (sd >= 0)
                trace_local_port(sd);
        }
    }
    LDAP_TRACE(LDAP_TRC_API, "open_connection: returning rc=%d\n", rc);
    return rc;
}

int rqx_connect(int sd, const struct sockaddr *addr, socklen_t addrlen, struct timeval *timeout)
{
    LDAP_TRACE(LDAP_TRC_API,
               "rqx_connect: socket(%d), address(%p), address_len(%d), connect_to(%p)\n", sd,
               static_cast<const void *>(addr), static_cast<int>(addrlen),
               static_cast<void *>(timeout));
    if (timeout == nullptr)
        return connect(sd, addr, addrlen);

    int err = set_socket_nb_sd(sd);
    if (err != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "rqx_connect: failed to set socket to non blocking\n");
        return err;
    }
    int rc = connect(sd, addr, addrlen);
    if (rc != 0 && errno == EINPROGRESS) {
        LDAP_TRACE(LDAP_TRC_API, "rqx_connect - connect rc = %d\n", rc);
        struct pollfd p = {sd, POLLOUT, 0};
        int ready = poll(&p, 1, timeval_to_ms(timeout));
        if (ready < 0) {
            LDAP_TRACE(LDAP_TRC_ERROR, "Error - rqx_connect: select failed errno %d\n", errno);
            rc = -1;
        } else if (ready == 0) {
            LDAP_TRACE(LDAP_TRC_API, "rqx_connect: select timed out\n");
            errno = ETIMEDOUT;
            rc = -1;
        } else {
            LDAP_TRACE(LDAP_TRC_API, "rqx_connect: select rc=%d\n", ready);
            int so_error = 0;
            socklen_t len = sizeof so_error;
            if (getsockopt(sd, SOL_SOCKET, SO_ERROR, &so_error, &len) != 0) {
                LDAP_TRACE(LDAP_TRC_ERROR, "rqx_connect: getsockopt FAILED errno=%d\n", errno);
                rc = -1;
            } else if (so_error != 0) {
                LDAP_TRACE(LDAP_TRC_API, "rqx_connect: so_error=%d\n", so_error);
                errno = so_error;
                rc = -1;
            } else {
                rc = 0;
            }
        }
    } else {
        LDAP_TRACE(LDAP_TRC_API, "Connect returned rc=%d\n", rc);
    }
    int saved = errno;
    (void)set_socket_blocking_sd(sd); // traced there; the connect's outcome decides
    errno = saved;
    return rc;
}

int get_socket_flags_sd(int sd)
{
    int flags = fcntl(sd, F_GETFL, 0);
    if (flags < 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "get_socket_flags_sd: failed to get socket state. rc: %d\n",
                   flags);
        return 0;
    }
    return flags;
}

int set_socket_nb_sd(int sd)
{
    int flags = fcntl(sd, F_GETFL, 0);
    if (flags < 0 || fcntl(sd, F_SETFL, flags | O_NONBLOCK) < 0) {
        int err = errno;
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "set_socket_nb_sd: failed to set socket non-blocking, errno=%d\n", err);
        return err;
    }
    return 0;
}

int set_socket_blocking_sd(int sd)
{
    int flags = fcntl(sd, F_GETFL, 0);
    if (flags < 0 || fcntl(sd, F_SETFL, flags & ~O_NONBLOCK) < 0) {
        int err = errno;
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "set_socket_blocking_sd: failed to set socket non-blocking, errno=%d\n", err);
        return err;
    }
    return 0;
}

LDAPConn *get_default_connection(LDAP *ld)
{
    if (ld == nullptr)
        return nullptr;
    LDAP_LOCK(guard, &ld->ld_connlock, MODULE);
    if (!guard.locked()) {
        LDAP_TRACE(LDAP_TRC_ERROR,
                   "get_default_connection: FATAL ERRRO  - Unable to get lock at File %s, Line "
                   "%d\n",
                   MODULE, __LINE__);
        return nullptr;
    }
    return ld->ld_defconn;
}

LDAPConn *ldap_find_conn(LDAP *ld, const char *host, int port, int create, int *rc, int scope,
                         const LDAPDeadline &until)
{
    int ignored = 0;
    if (rc == nullptr)
        rc = &ignored;
    *rc = LDAP_SUCCESS;
    if (ld == nullptr) {
        *rc = LDAP_PARAM_ERROR;
        return nullptr;
    }
    if (host == nullptr)
        return get_default_connection(ld);
    if (port == -1 || port == -2)
        port = ld->ld_ssl_in_use ? LDAPS_PORT : LDAP_PORT;

    int code = LDAP_SUCCESS;
    LDAPConn *found = nullptr;
    {
        LDAP_LOCK(guard, &ld->ld_connlock, MODULE);
        if (!guard.locked()) {
            code = LDAP_LOCK_ERROR;
        } else {
            LDAPConn *first = ld->ld_servers;
            if (first != nullptr && scope != 1)
                first = first->next;
            for (LDAPConn *lc = first; lc != nullptr && found == nullptr; lc = lc->next) {
                if (conn_matches(lc, host, port))
                    found = lc;
            }
            if (found == nullptr && create == 1)
                found = add_connection(ld, host, port, &code, until);
        }
    }
    if (code != LDAP_SUCCESS)
        *rc = ldap_fail(ld, code);
    return found;
}

int can_bind_to_port(int port)
{
    if (port < 0 || port > 65535)
        return 0;
    int sd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool v6 = sd >= 0;
    if (!v6)
        sd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sd < 0)
        return 0;
    int rc;
    if (v6) { // the wildcard address of both families: a port taken on either is not free
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_port = htons(static_cast<uint16_t>(port));
        int off = 0;
        setsockopt(sd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
        rc = bind(sd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    } else {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        rc = bind(sd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    }
    close(sd);
    return rc == 0 ? 1 : 0;
}
