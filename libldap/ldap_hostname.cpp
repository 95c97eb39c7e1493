// Host-name helpers: gethostbyname_r and gethostbyaddr_r with a result buffer that starts small
// and doubles while the system says it is too small, and getnameinfo into allocated strings.
#include "ldap_hostname.h"

#include <cerrno>

#include "../liblber/ber_memory.h"
#include "../trace/ldap_trace.h"

namespace {

constexpr size_t FIRST_BUFFER = 1024;
constexpr size_t MAX_BUFFER = 1 << 20; // no sane host entry comes near this

// The record and its data share one block: the record first, the system's buffer behind it.
struct HostBlock {
    struct hostent entry;
    char data[1];
};

template <typename Lookup>
struct hostent *lookup_with_buffer(Lookup call, const char *failure_trace, int *err)
{
    int herr = NO_RECOVERY;
    for (size_t size = FIRST_BUFFER; size <= MAX_BUFFER; size *= 2) {
        auto *block = static_cast<HostBlock *>(lber_malloc(sizeof(HostBlock) + size));
        if (block == nullptr)
            break;
        struct hostent *result = nullptr;
        int rc = call(&block->entry, block->data, size, &result, &herr);
        if (rc == 0 && result != nullptr)
            return &block->entry;
        lber_free(block);
        if (rc != ERANGE) {
            LDAP_TRACE(LDAP_TRC_ERROR, failure_trace, rc != 0 ? rc : herr);
            break;
        }
    }
    if (err != nullptr)
        *err = herr;
    return nullptr;
}

char *copy_or_null(const char *text, bool wanted, bool *failed)
{
    if (!wanted)
        return nullptr;
    char *copy = lber_strdup(text);
    *failed = *failed || copy == nullptr;
    return copy;
}

} // namespace

struct hostent *opx_gethostbyname(const char *name, int *err)
{
    if (name == nullptr) {
        if (err != nullptr)
            *err = HOST_NOT_FOUND;
        return nullptr;
    }
    return lookup_with_buffer(
        [name](struct hostent *h, char *buf, size_t size, struct hostent **res, int *herr) {
            return gethostbyname_r(name, h, buf, size, res, herr);
        },
        "Error - opx_gethostbyname: gethostbyname_r failed, errno=%d\n", err);
}

struct hostent *opx_gethostbyaddr(const void *addr, socklen_t len, int type, int *err)
{
    return lookup_with_buffer(
        [=](struct hostent *h, char *buf, size_t size, struct hostent **res, int *herr) {
            return gethostbyaddr_r(addr, len, type, h, buf, size, res, herr);
        },
        "Error - opx_gethostbyaddr: gethostbyaddr_r failed, errno=%d\n", err);
}

void opx_freehostent(struct hostent *h) { lber_free(h); }

int opx_getnameinfo(const struct sockaddr *sa, socklen_t salen, char **host, char **serv,
                    int flags)
{
    char h[NI_MAXHOST];
    char s[NI_MAXSERV];
    int rc = getnameinfo(sa, salen, host != nullptr ? h : nullptr, host != nullptr ? sizeof h : 0,
                         serv != nullptr ? s : nullptr, serv != nullptr ? sizeof s : 0, flags);
    if (rc != 0) {
        LDAP_TRACE(LDAP_TRC_ERROR, "opx_getnameinfo: getnameinfo failed with errno %d\n",
                   rc == EAI_SYSTEM ? errno : rc);
        return rc;
    }
    bool failed = false;
    char *host_copy = copy_or_null(h, host != nullptr, &failed);
    char *serv_copy = copy_or_null(s, serv != nullptr, &failed);
    if (failed) {
        lber_free(host_copy);
        lber_free(serv_copy);
        return EAI_MEMORY;
    }
    if (host != nullptr)
        *host = host_copy;
    if (serv != nullptr)
        *serv = serv_copy;
    return 0;
}
