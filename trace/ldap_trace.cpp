// The process-wide debug trace: its settings read from the environment once, the class test, the
// prefixed trace print, the timestamp builders and the framed hex dump. One adaptive mutex
// serialises every write to the output stream and every switch of it.
#include "ldap_trace.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include "../liblber/ber_memory.h"
#include "ldap_env.h"

namespace {

// Bits tested for each class index (mask - 0xc8010000) >> 16. Entries 4, 17 and 18 are not single
// bits on purpose: code-page set-up rides with ordinary flow, and warnings show whenever anything
// at all is traced.
constexpr unsigned CLASS_BITS[] = {0x0001, 0x0002, 0x0004, 0x0008, 0x0009, 0x0010, 0x0020,
                                   0x0040, 0x0080, 0x0100, 0x0200, 0x0400, 0x0800, 0x1000,
                                   0x2000, 0x4000, 0x8000, 0x9000, 0xffff};
constexpr unsigned CLASS_COUNT = sizeof(CLASS_BITS) / sizeof(CLASS_BITS[0]);

constexpr int TS_LEGACY = 0;
constexpr int TS_DEFAULT = 1;
constexpr int TS_EPOCH = 2;
constexpr int TS_GENERAL = 3;
constexpr int TS_UTC = 4;
constexpr int TS_AUDIT = 5;
constexpr int TS_LOCAL = 6;
constexpr int TS_BUFFER = 33;

// The mask and the stream pointer are read without the lock on every call site's fast path; atomics
// keep that read cheap and well defined. Written under trace_mutex.
std::atomic<unsigned> trace_mask{0};
std::atomic<int> env_mask_flag{0};
std::atomic<FILE *> out_stream{nullptr};
std::atomic<int> timestamps_on{1};
std::atomic<int> ts_format{TS_LOCAL};
std::atomic<int> ts_format_read{0};

// The output name lives in static storage rather than on the heap: the trace outlives every caller,
// and a process-long allocation would show as a leak to allocation-walking tests. Guarded by
// trace_mutex.
char out_name[PATH_MAX + 1];
std::atomic<bool> out_named{false};

pthread_mutex_t trace_mutex;
pthread_once_t trace_once = PTHREAD_ONCE_INIT;

bool class_bits_on(unsigned class_mask, unsigned mask)
{
    unsigned index = (class_mask + 0x37ff0000u) >> 16;
    return index < CLASS_COUNT && (CLASS_BITS[index] & mask) != 0;
}

int thread_number() { return static_cast<int>(pthread_self()); }

// Closes the current stream (never the standard ones) and opens the named one. Called with
// trace_mutex held. A name that cannot be opened leaves no stream, which silences the trace.
int switch_output(const char *name)
{
    FILE *old = out_stream.load();
    if (old != nullptr && old != stdout && old != stderr)
        fclose(old);
    out_stream.store(nullptr);
    out_named.store(false);
    out_name[0] = '\0';

    if (name == nullptr || *name == '\0')
        return EINVAL;
    FILE *f;
    if (strcmp(name, "stdout") == 0) {
        f = stdout;
    } else if (strcmp(name, "stderr") == 0) {
        f = stderr;
    } else {
        errno = 0;
        f = fopen(name, "a");
        if (f == nullptr)
            return errno != 0 ? errno : EINVAL;
    }
    size_t n = strlen(name);
    if (n > PATH_MAX)
        n = PATH_MAX;
    memcpy(out_name, name, n);
    out_name[n] = '\0';
    out_named.store(true);
    out_stream.store(f);
    return 0;
}

int switch_output_locked(const char *name)
{
    if (pthread_mutex_lock(&trace_mutex) != 0)
        return EINVAL;
    int rc = switch_output(name);
    pthread_mutex_unlock(&trace_mutex);
    return rc;
}

// An optional "-" or "0x", then decimal digits only; an empty remainder is valid too.
bool valid_debug_number(const char *v)
{
    if (*v == '-')
        ++v;
    else if (v[0] == '0' && v[1] == 'x')
        v += 2;
    for (; *v != '\0'; ++v)
        if (*v < '0' || *v > '9')
            return false;
    return true;
}

void read_debug_time()
{
    char value[16];
    if (ldap_getenv_buf("LDAP_DEBUG_TIME", value, sizeof value) >= 0 && strcmp(value, "FALSE") == 0)
        timestamps_on.store(0);
}

// Reads the trace's own settings. The values are copied into stack buffers, not the heap, so that a
// failing allocation elsewhere can never change what the trace was told.
void read_trace_environment()
{
    char file[PATH_MAX + 2];
    int len = ldap_getenv_buf("LDAP_DEBUG_FILE", file, sizeof file);
    if (len < 0)
        (void)switch_output_locked("stderr");
    else if (len > PATH_MAX)
        (void)switch_output_locked(nullptr); // a path this long cannot be opened
    else
        (void)switch_output_locked(file);

    char debug[32];
    len = ldap_getenv_buf("LDAP_DEBUG", debug, sizeof debug);
    if (len >= 0) {
        if (len < static_cast<int>(sizeof debug) && valid_debug_number(debug)) {
            trace_mask.store(static_cast<unsigned>(atoi(debug)));
            env_mask_flag.store(1);
        } else {
            trace_mask.store(0);
        }
    }
}

void trace_init_once()
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&trace_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    read_trace_environment();
    // Read the timestamp format now rather than in the first print, which would read the
    // environment with the trace mutex held.
    (void)ldap_get_timestamp_format(0);
    LDAP_TRACE(LDAP_TRC_MUTEX, "MUTEX %p %s %d\n", static_cast<void *>(&trace_mutex), "trace",
               __LINE__);
}

void ensure_trace_init() { pthread_once(&trace_once, trace_init_once); }

int format_code_of(const char *v)
{
    if (v == nullptr)
        return TS_LOCAL;
    struct Name {
        const char *text;
        int code;
    };
    static constexpr Name names[] = {{"Epoch", TS_EPOCH}, {"GT", TS_GENERAL},
                                     {"UTC", TS_UTC},     {"Local", TS_LOCAL},
                                     {"Audit", TS_AUDIT}, {"Legacy", TS_LEGACY}};
    for (const Name &n : names)
        if (strcasecmp(v, n.text) == 0)
            return n.code;
    if (strncasecmp(v, "General", 7) == 0)
        return TS_GENERAL;
    if (strcasecmp(v, "Default") == 0)
        return TS_DEFAULT;
    return TS_LOCAL;
}

// Minutes east of UTC for one instant, from its local and UTC breakdowns: the first of year, month
// and day that differs moves the UTC hour by a day per unit, which is enough because the two
// breakdowns are never more than a day apart.
int zone_offset_minutes(const struct tm &local, const struct tm &utc)
{
    int utc_hour = utc.tm_hour;
    if (utc.tm_year != local.tm_year)
        utc_hour += (utc.tm_year - local.tm_year) * 24;
    else if (utc.tm_mon != local.tm_mon)
        utc_hour += (utc.tm_mon - local.tm_mon) * 24;
    else if (utc.tm_mday != local.tm_mday)
        utc_hour += (utc.tm_mday - local.tm_mday) * 24;
    return (local.tm_hour * 60 + local.tm_min) - (utc_hour * 60 + utc.tm_min);
}

// Appends printf output at `used`; false when it does not fit.
bool append(char *buf, size_t size, size_t &used, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
bool append(char *buf, size_t size, size_t &used, const char *fmt, ...)
{
    if (used >= size)
        return false;
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf + used, size - used, fmt, ap);
    va_end(ap);
    if (n < 0 || static_cast<size_t>(n) >= size - used)
        return false;
    used += static_cast<size_t>(n);
    return true;
}

bool append_time(char *buf, size_t size, size_t &used, const char *fmt, const struct tm &tm)
{
    if (used >= size)
        return false;
    size_t n = strftime(buf + used, size - used, fmt, &tm);
    if (n == 0)
        return false;
    used += n;
    return true;
}

bool build_epoch(const struct timeval &tv, char *buf, size_t size)
{
    size_t used = 0;
    return append(buf, size, used, "%010lu.%06lu", static_cast<unsigned long>(tv.tv_sec),
                  static_cast<unsigned long>(tv.tv_usec));
}

// The two UTC forms differ only in their strftime layout.
bool build_utc(const struct timeval &tv, const char *layout, char *buf, size_t size)
{
    struct tm utc;
    time_t secs = tv.tv_sec;
    if (gmtime_r(&secs, &utc) == nullptr)
        return false;
    size_t used = 0;
    return append_time(buf, size, used, layout, utc) &&
           append(buf, size, used, "%06luZ", static_cast<unsigned long>(tv.tv_usec));
}

// The two local forms: Local puts the offset after the microseconds; Audit writes it over their
// last three digits (showing milliseconds) and marks daylight saving time.
bool build_local(const struct timeval &tv, bool audit, char *buf, size_t size)
{
    struct tm local;
    struct tm utc;
    time_t secs = tv.tv_sec;
    if (localtime_r(&secs, &local) == nullptr || gmtime_r(&secs, &utc) == nullptr)
        return false;
    int offset = zone_offset_minutes(local, utc);
    int hours = offset / 60;
    int minutes = abs(offset % 60);
    size_t used = 0;
    if (!append_time(buf, size, used, audit ? "%Y-%m-%d-%H:%M:%S." : "%Y-%m-%dT%H:%M:%S.", local) ||
        !append(buf, size, used, "%06lu", static_cast<unsigned long>(tv.tv_usec)))
        return false;
    if (!audit)
        return append(buf, size, used, "%+02d:%02d", hours, minutes);
    used -= 3;
    return append(buf, size, used, "%+02d:%02d%s", hours, minutes, local.tm_isdst > 0 ? "DST" : "");
}

// Day of year, hour, minute and second in UTC, to the second only.
void build_legacy(char *buf, size_t size)
{
    time_t now = time(nullptr);
    struct tm utc;
    if (gmtime_r(&now, &utc) == nullptr) {
        buf[0] = '\0';
        return;
    }
    snprintf(buf, size, "%.3d:%.2d:%.2d:%.2d", utc.tm_yday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

void write_prefix(FILE *f, const char *format)
{
    if (strlen(format) <= 5)
        return; // a short format continues a line an earlier call began
    if (timestamps_on.load(std::memory_order_relaxed)) {
        char stamp[TS_BUFFER];
        int code = ldap_get_timestamp_format(0);
        if (code == TS_LEGACY)
            build_legacy(stamp, sizeof stamp);
        else
            ldap_format_timestamp(code == TS_DEFAULT ? TS_LOCAL : code, nullptr, stamp, TS_BUFFER);
        fprintf(f, "%s ", stamp);
    }
    fprintf(f, "T%d ", thread_number());
}

// Hex dump geometry: every line is 59 characters between "|" or "+" frames.
constexpr int DUMP_WIDTH = 59;
constexpr int DUMP_INNER = 57;
constexpr int DUMP_BYTES_PER_LINE = 16;
constexpr int DUMP_ASCII_COLUMN = 42;

void dump_line(FILE *f, const char *line)
{
    fprintf(f, "T%d:\t%s\n", thread_number(), line);
    fflush(f);
}

void dump_blank_frame(char *line)
{
    memset(line, ' ', DUMP_WIDTH);
    line[0] = '|';
    line[DUMP_WIDTH - 1] = '|';
    line[DUMP_WIDTH] = '\0';
}

void dump_border(FILE *f)
{
    char line[DUMP_WIDTH + 1];
    memset(line, '-', DUMP_WIDTH);
    line[0] = '+';
    line[DUMP_WIDTH - 1] = '+';
    line[DUMP_WIDTH] = '\0';
    dump_line(f, line);
}

void put_text(char *line, int column, const char *text)
{
    memcpy(line + column, text, strlen(text));
}

void put_hex(char *line, int column, unsigned value, int digits)
{
    static const char hex[] = "0123456789ABCDEF";
    for (int i = digits - 1; i >= 0; --i, value >>= 4)
        line[column + i] = hex[value & 0xf];
}

char shown_as(unsigned char c)
{
    return c >= 0x20 && c <= 0x7e && c != '^' ? static_cast<char>(c) : '.';
}

// "|OSet| Address = XXXXXXXX  Length = XXXX |     ASCII      |"
void dump_heading(FILE *f, const void *address, int length)
{
    char line[DUMP_WIDTH + 1];
    dump_blank_frame(line);
    put_text(line, 0, "|OSet|");
    put_text(line, 7, "Address = ");
    put_hex(line, 17, static_cast<unsigned>(reinterpret_cast<uintptr_t>(address)), 8);
    put_text(line, 27, "Length = ");
    put_hex(line, 36, static_cast<unsigned>(length) & 0xffff, 4);
    line[41] = '|';
    put_text(line, 47, "ASCII");
    dump_line(f, line);
}

void dump_title(FILE *f, const char *title)
{
    char line[DUMP_WIDTH + 1];
    dump_blank_frame(line);
    size_t n = strlen(title);
    if (n > DUMP_INNER)
        n = DUMP_INNER;
    memcpy(line + (DUMP_INNER - n) / 2 + 1, title, n);
    dump_line(f, line);
}

// One data line: offset, up to 16 bytes in four groups of four, then their characters.
void dump_data_line(FILE *f, const unsigned char *bytes, int count, int offset)
{
    char line[DUMP_WIDTH + 1];
    dump_blank_frame(line);
    put_hex(line, 1, static_cast<unsigned>(offset), 4);
    line[5] = '|';
    line[41] = '|';
    for (int i = 0; i < count; ++i) {
        put_hex(line, 6 + (i / 4) * 9 + (i % 4) * 2, bytes[i], 2);
        line[DUMP_ASCII_COLUMN + i] = shown_as(bytes[i]);
    }
    dump_line(f, line);
}

} // namespace

unsigned ldap_debug_enabled() { return trace_mask.load(std::memory_order_relaxed); }

void ldap_set_debug_mask(unsigned mask)
{
    // Settle the environment first, so that a later first ldap_debug_init cannot override a mask
    // set explicitly.
    ensure_trace_init();
    trace_mask.store(mask);
}

int ldap_debug_env_flag() { return env_mask_flag.load(); }

const char *ldap_get_debug_file() { return out_named.load() ? out_name : nullptr; }

bool ldap_debug_class_on(unsigned class_mask)
{
    return out_stream.load(std::memory_order_relaxed) != nullptr &&
           class_bits_on(class_mask, trace_mask.load(std::memory_order_relaxed));
}

void ldap_debug_print(unsigned class_mask, const char *format, ...)
{
    if (!ldap_debug_class_on(class_mask))
        return;
    va_list ap;
    va_start(ap, format);
    ldap_debug_vprint(class_mask, format, &ap);
    va_end(ap);
}

void ldap_debug_vprint(unsigned class_mask, const char *format, va_list *args)
{
    if (format == nullptr || !ldap_debug_class_on(class_mask))
        return;
    if (pthread_mutex_lock(&trace_mutex) != 0)
        return;
    FILE *f = out_stream.load();
    if (f != nullptr) {
        write_prefix(f, format);
        if (args != nullptr)
            vfprintf(f, format, *args);
        else
            fputs(format, f);
        fflush(f);
    }
    pthread_mutex_unlock(&trace_mutex);
}

// +---------------------------------------------------------+   border
// |                           BER                           |   title, when given
// +---------------------------------------------------------+
// |OSet| Address = 0804A008  Length = 0011 |     ASCII      |   heading
// +---------------------------------------------------------+
// |0000|30313233 34353637 38393A3B 3C3D3E3F|0123456789:;<=>?|   data lines
// |0010|40                                 |@               |
// +---------------------------------------------------------+   (none after an empty dump)
namespace {
// The framed dump of address[0, length) on f.
void write_dump(FILE *f, const void *address, int length, const char *title)
{
    if (title != nullptr && *title != '\0') {
        dump_border(f);
        dump_title(f, title);
    }
    dump_border(f);
    dump_heading(f, address, length);
    dump_border(f);
    // The length counts as a signed 16-bit number, as the heading shows it.
    int count = static_cast<int16_t>(length);
    if (address != nullptr && count >= 1) {
        const auto *bytes = static_cast<const unsigned char *>(address);
        for (int offset = 0; offset < count; offset += DUMP_BYTES_PER_LINE) {
            int n = count - offset < DUMP_BYTES_PER_LINE ? count - offset : DUMP_BYTES_PER_LINE;
            dump_data_line(f, bytes + offset, n, offset);
        }
        dump_border(f);
    }
}
} // namespace

void ldap_debug_hexdump(const void *address, int length, const char *title)
{
    if (out_stream.load() == nullptr)
        return;
    if (pthread_mutex_lock(&trace_mutex) != 0)
        return;
    FILE *f = out_stream.load();
    if (f != nullptr)
        write_dump(f, address, length, title);
    pthread_mutex_unlock(&trace_mutex);
}

int ldap_debug_hexdump_fd(int fd, const void *address, int length, const char *title)
{
    int copy = dup(fd);
    FILE *f = copy < 0 ? nullptr : fdopen(copy, "a");
    if (f == nullptr) {
        if (copy >= 0)
            close(copy);
        return -1;
    }
    write_dump(f, address, length, title);
    return fclose(f) == 0 ? 0 : -1;
}

void ldap_debug_init()
{
    ensure_trace_init();
    read_debug_time();
}

int ldap_set_debug_file(const char *name)
{
    // Settle the environment first, so that a later first ldap_debug_init cannot switch the stream
    // back to what the environment names.
    ensure_trace_init();
    return switch_output_locked(name);
}

int ldap_get_timestamp_format(int reread)
{
    if (reread != 0 || ts_format_read.load(std::memory_order_acquire) == 0) {
        // Read directly: the trace print calls this and must not recurse into ldap_getenv.
        ts_format.store(format_code_of(getenv("OPXQ_TIMESTAMP_FORMAT")));
        ts_format_read.store(1, std::memory_order_release);
    }
    return ts_format.load(std::memory_order_relaxed);
}

char *ldap_format_timestamp(int format, struct timeval *when, char *buffer, int size)
{
    if (size < 1)
        size = format == TS_EPOCH ? 18 : format == TS_GENERAL ? 23 : format == TS_UTC ? 28 : 33;
    char *buf = buffer;
    if (buf == nullptr) {
        buf = static_cast<char *>(lber_calloc(static_cast<size_t>(size), 1));
        if (buf == nullptr)
            return nullptr;
    }
    struct timeval now;
    if (when == nullptr)
        when = &now;
    if (when == &now || when->tv_sec == 0)
        gettimeofday(when, nullptr);

    size_t n = static_cast<size_t>(size);
    bool ok;
    switch (format) {
    case TS_EPOCH:
        ok = build_epoch(*when, buf, n);
        break;
    case TS_GENERAL:
        ok = build_utc(*when, "%Y%m%d%H%M%S.", buf, n);
        break;
    case TS_UTC:
        ok = build_utc(*when, "%Y-%m-%dT%H:%M:%S.", buf, n);
        break;
    case TS_AUDIT:
        ok = build_local(*when, true, buf, n);
        break;
    default:
        ok = build_local(*when, false, buf, n);
        break;
    }
    if (ok)
        return buf;
    if (buffer == nullptr) {
        lber_free(buf);
        return nullptr;
    }
    buf[0] = '\0';
    return buffer;
}

void ldap_debug_reset_for_tests()
{
    ensure_trace_init();
    trace_mask.store(0);
    env_mask_flag.store(0);
    timestamps_on.store(1);
    ts_format.store(TS_LOCAL);
    ts_format_read.store(0);
    read_trace_environment();
    read_debug_time();
    (void)ldap_get_timestamp_format(0);
}
