// The server cache file of server location: finding, reading and atomically replacing the one
// file of a domain. Nothing here fails a lookup: every problem reads as "no entry".
#include "ldap_srvcache.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../liblber/ber_memory.h"
#include "../trace/ldap_env.h"
#include "../trace/ldap_trace.h"

namespace {

constexpr const char *MAGIC = "wzrldap server cache 1\n";
constexpr size_t MAX_FILE = 32768;
constexpr uint32_t MAX_TTL = 86400; // an entry is looked at again at least once a day
constexpr size_t PATH_MAX_LEN = 4096;

// The cache directory into `dir`; false when there is no place for it.
bool cache_dir(char *dir, size_t size)
{
    char base[PATH_MAX_LEN];
    int n = ldap_getenv_buf("XDG_CACHE_HOME", base, sizeof base);
    const char *fmt = "%s/wzrldap";
    if (n <= 0 || static_cast<size_t>(n) >= sizeof base) {
        n = ldap_getenv_buf("HOME", base, sizeof base);
        fmt = "%s/.cache/wzrldap";
    }
    if (n <= 0 || static_cast<size_t>(n) >= sizeof base)
        return false;
    int w = snprintf(dir, size, fmt, base);
    return w > 0 && static_cast<size_t>(w) < size;
}

bool cache_path(const char *domain, int secure, char *path, size_t size)
{
    // The domain names a file of the cache directory: a "/" in it would name another place.
    if (strchr(domain, '/') != nullptr)
        return false;
    char dir[PATH_MAX_LEN];
    if (!cache_dir(dir, sizeof dir))
        return false;
    int w = snprintf(path, size, "%s/servers-%s.%s", dir, domain, secure ? "ldaps" : "ldap");
    return w > 0 && static_cast<size_t>(w) < size;
}

// Reads a whole regular file of at most MAX_FILE bytes into `buf` (NUL-terminated).
bool read_small_file(const char *path, char *buf)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return false;
    struct stat st;
    size_t used = 0;
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size < off_t(MAX_FILE);
    while (ok) {
        ssize_t n = read(fd, buf + used, MAX_FILE - 1 - used);
        if (n < 0 && errno == EINTR)
            continue;
        ok = n >= 0;
        if (n <= 0)
            break;
        used += static_cast<size_t>(n);
        ok = used < MAX_FILE - 1;
    }
    close(fd);
    buf[used] = '\0';
    return ok;
}

// The host list may hold host names, ports, brackets and blanks; anything else (a control
// byte, a second line) marks a damaged file.
bool hosts_ok(const char *hosts)
{
    if (*hosts == '\0')
        return false;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(hosts); *p; ++p)
        if (*p < 0x20 || *p > 0x7E)
            return false;
    return true;
}

// Splits the three lines; false for anything else.
bool parse_entry(char *text, time_t *expires, const char **hosts)
{
    size_t magic = strlen(MAGIC);
    if (strncmp(text, MAGIC, magic) != 0 || strncmp(text + magic, "expires ", 8) != 0)
        return false;
    char *end = nullptr;
    errno = 0;
    long long when = strtoll(text + magic + 8, &end, 10);
    if (errno != 0 || when < 0 || strncmp(end, "\nhosts ", 7) != 0)
        return false;
    char *list = end + 7;
    size_t n = strlen(list);
    if (n == 0 || list[n - 1] != '\n')
        return false; // cut short
    list[n - 1] = '\0';
    *expires = static_cast<time_t>(when);
    *hosts = list;
    return hosts_ok(list);
}

bool make_dirs(const char *path)
{
    char dir[PATH_MAX_LEN];
    snprintf(dir, sizeof dir, "%s", path);
    char *slash = strrchr(dir, '/');
    if (slash == nullptr)
        return false;
    *slash = '\0';
    // The parent (…/.cache) may be missing on a fresh account; the cache directory is private.
    char *parent = strrchr(dir, '/');
    if (parent != nullptr && parent != dir) {
        *parent = '\0';
        (void)mkdir(dir, 0700);
        *parent = '/';
    }
    return mkdir(dir, 0700) == 0 || errno == EEXIST;
}

bool write_all(int fd, const char *text, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, text, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        text += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

} // namespace

SrvCacheState ldap_srvcache_read(const char *domain, int secure, time_t now, char **hosts)
{
    *hosts = nullptr;
    char path[PATH_MAX_LEN];
    if (!cache_path(domain, secure, path, sizeof path))
        return SrvCacheState::Missing;
    auto *text = static_cast<char *>(lber_malloc(MAX_FILE));
    if (text == nullptr)
        return SrvCacheState::Missing;
    time_t expires = 0;
    const char *list = nullptr;
    SrvCacheState state = SrvCacheState::Missing;
    if (read_small_file(path, text) && parse_entry(text, &expires, &list)) {
        *hosts = lber_strdup(list);
        if (*hosts != nullptr)
            state = expires > now ? SrvCacheState::Fresh : SrvCacheState::Expired;
    } else if (errno != ENOENT) {
        LDAP_TRACE(LDAP_TRC_WARN, "ldap_srvcache_read: ignoring cache file %s\n", path);
    }
    lber_free(text);
    return state;
}

void ldap_srvcache_write(const char *domain, int secure, time_t now, uint32_t ttl,
                         const char *hosts)
{
    char path[PATH_MAX_LEN];
    char tmp[PATH_MAX_LEN + 48];
    if (ttl == 0 || !hosts_ok(hosts) || !cache_path(domain, secure, path, sizeof path) ||
        !make_dirs(path))
        return;
    snprintf(tmp, sizeof tmp, "%s.%ld.%lx", path, static_cast<long>(getpid()),
             static_cast<unsigned long>(pthread_self()));
    int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        LDAP_TRACE(LDAP_TRC_WARN, "ldap_srvcache_write: cannot create %s, errno=%d\n", tmp, errno);
        return;
    }
    long long expires = static_cast<long long>(now) + (ttl < MAX_TTL ? ttl : MAX_TTL);
    char head[96];
    int n = snprintf(head, sizeof head, "%sexpires %lld\nhosts ", MAGIC, expires);
    bool ok = write_all(fd, head, static_cast<size_t>(n)) &&
              write_all(fd, hosts, strlen(hosts)) && write_all(fd, "\n", 1);
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp, path) != 0) {
        LDAP_TRACE(LDAP_TRC_WARN, "ldap_srvcache_write: cannot replace %s, errno=%d\n", path,
                   errno);
        (void)unlink(tmp);
    }
}
