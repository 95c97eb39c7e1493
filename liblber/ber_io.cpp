// BER stream I/O: the resumable non-blocking PDU reader, the non-blocking and blocking
// writers, readiness waits and the hex dumps of whole PDUs with password values masked.
// Every byte goes through the secure-socket toolkit when the Sockbuf has a secure handle.
#include "lber.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../trace/ldap_trace.h"
#include "ber_int.h"
#include "ber_memory.h"

// Filled by the secure transport when the toolkit is loaded; empty until then.
SecureToolkit wzr_skit = {};

namespace {

constexpr long MAX_WRITE_CHUNK = 65535;       // bytes handed to one write()
constexpr int FLUSH_MAX_RETRIES = 100;        // zero-byte writes before a blocking flush gives up
constexpr useconds_t FLUSH_RETRY_SLEEP_US = 10000;
constexpr int DUMP_MAX_BYTES = 0x7FFF; // the hex dump shows at most this many bytes

bool closing(const Sockbuf *sb) { return sb->sb_closing > 0; }

int clamp_int(long len) { return len > INT_MAX ? INT_MAX : static_cast<int>(len); }

const char *skit_text(int code)
{
    const char *text = wzr_skit.strerror != nullptr ? wzr_skit.strerror(code) : nullptr;
    return text != nullptr ? text : "";
}

// Milliseconds for poll(), rounded up so that a short time-out never becomes a busy poll.
int timeval_to_ms(const struct timeval *tv)
{
    if (tv == nullptr)
        return -1;
    long long ms = static_cast<long long>(tv->tv_sec) * 1000 + (tv->tv_usec + 999) / 1000;
    if (ms < 0)
        return 0;
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

// The select() contract (ready count, 0 on time-out, -1) for one descriptor, through poll()
// so that descriptors above FD_SETSIZE work too. A wake-up on `wake_fd` (when not -1) is
// drained and reported as FBER_SELECT_WOKEN.
int wait_readable(int sd, const struct timeval *timeout, int wake_fd)
{
    struct pollfd p[2] = {{sd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
    int rc;
    do
        rc = poll(p, wake_fd >= 0 ? 2 : 1, timeval_to_ms(timeout));
    while (rc < 0 && errno == EINTR);
    if (rc > 0 && wake_fd >= 0 && (p[1].revents & POLLIN) != 0) {
        uint64_t count;
        ssize_t n = read(wake_fd, &count, sizeof count);
        (void)n; // drained, or drained by another reader already
        if ((p[0].revents & POLLIN) == 0)
            return FBER_SELECT_WOKEN;
        rc = 1;
    }
    return rc;
}

// Writes to a socket without SIGPIPE; descriptors that are not sockets get a plain write.
ssize_t write_fd(int fd, const void *buf, size_t len)
{
    ssize_t n;
    do {
        n = send(fd, buf, len, MSG_NOSIGNAL);
        if (n < 0 && errno == ENOTSOCK)
            n = write(fd, buf, len);
    } while (n < 0 && errno == EINTR);
    return n;
}

bool is_alnum(unsigned char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Masks the value that follows the first "userpassword": 16 bytes from the start of the match
// (the name plus a 4-byte value header) every alphanumeric byte becomes 'x', up to the first
// other byte. Binary data is searched whole, NUL bytes included.
void mask_password(unsigned char *buf, size_t len)
{
    static constexpr char KEY[] = "userpassword";
    void *hit = memmem(buf, len, KEY, sizeof KEY - 1);
    if (hit == nullptr)
        return;
    for (size_t i = static_cast<size_t>(static_cast<unsigned char *>(hit) - buf) + 16;
         i < len && is_alnum(buf[i]); ++i)
        buf[i] = 'x';
}

// Dumps data[0, len) with the secrets masked in a copy; the bytes sent stay as they are.
// `pdu` is where the PDU begins, `data` may be a later part of it (a resumed write). Only the
// part the hex dump can show is copied, so a huge PDU is not duplicated for the trace. When
// the copy cannot be made nothing is dumped rather than an unmasked password.
// `fd` -1 dumps to the trace (when its BER class is on), any other value to that descriptor.
void dump_masked(const unsigned char *pdu, const unsigned char *data, long len, const char *title,
                 int fd = -1)
{
    if (data == nullptr || len < 0 || (fd < 0 && !ldap_debug_class_on(LDAP_TRC_BER)))
        return;
    size_t shown = static_cast<size_t>(len < DUMP_MAX_BYTES ? len : DUMP_MAX_BYTES);
    auto *copy = static_cast<unsigned char *>(lber_malloc(shown + 1));
    if (copy == nullptr)
        return;
    std::memcpy(copy, data, shown);
    copy[shown] = '\0';
    size_t skip = static_cast<size_t>(data - pdu);
    ber_mask_secrets(pdu, skip + static_cast<size_t>(len), skip, copy, shown);
    mask_password(copy, shown); // the long-standing rule, kept as a floor under the walk
    if (fd < 0)
        ldap_debug_hexdump(copy, clamp_int(len), title);
    else
        (void)ldap_debug_hexdump_fd(fd, copy, clamp_int(len), title); // a dump is best effort
    lber_free(copy);
}

const char *reflush_suffix(const BerElement *ber)
{
    return ber->ber_rwptr > ber->ber_buf ? " (re-flush)" : "";
}

// Points ber_rwptr at the first unwritten byte and returns how many remain.
long unwritten(BerElement *ber)
{
    if (ber->ber_rwptr == nullptr)
        ber->ber_rwptr = ber->ber_buf;
    return ber->ber_ptr - ber->ber_rwptr;
}

void free_element(BerElement *ber)
{
    if (ber_is_fber(ber))
        fber_free(ber);
    else
        ber_free(ber, 1);
}

// sb_options 0x01/0x02: one copy of the whole PDU to sb_copyfd. 0 when all of it went there.
int copy_to_fd(const Sockbuf *sb, const BerElement *ber)
{
    long len = ber->ber_ptr - ber->ber_buf;
    if (len <= 0)
        return 0;
    return write_fd(sb->sb_copyfd, ber->ber_buf, static_cast<size_t>(len)) == len ? 0 : -1;
}

// One write of at most MAX_WRITE_CHUNK bytes (the toolkit takes the whole length). A
// would-block gives -11 to the non-blocking writer; the blocking writer gets the count moved
// (0 in the clear, as with a full socket), sleeps and retries. Other failures give -1.
long write_step(Sockbuf *sb, const unsigned char *buf, long len, bool blocking)
{
    if (sb->sb_secure != nullptr) {
        if (wzr_skit.secure_soc_write == nullptr)
            return -1;
        int count = 0;
        int rc = wzr_skit.secure_soc_write(sb->sb_secure, buf, clamp_int(len), &count);
        if (rc == 0 || (rc == SKIT_WOULD_BLOCK && blocking))
            return count >= 0 && count <= len ? count : -1; // never step past the PDU
        if (rc == SKIT_WOULD_BLOCK)
            return -BER_WOULD_BLOCK;
        LDAP_TRACE(LDAP_TRC_ERROR, "BerWrite() wzr_secure_soc_write() rc=%d %s\n", rc,
                   skit_text(rc));
        return -1;
    }
    if (len < 1)
        return 0;
    size_t chunk = static_cast<size_t>(len < MAX_WRITE_CHUNK ? len : MAX_WRITE_CHUNK);
    ssize_t n = write_fd(sb->sb_sd, buf, chunk);
    if (n >= 0)
        return n;
    int err = errno;
    LDAP_TRACE(LDAP_TRC_BER, "BerWrite_nb() errno=%d\n", err);
    if (err != EAGAIN && err != EWOULDBLOCK)
        return -1;
    return blocking ? 0 : -BER_WOULD_BLOCK;
}

/* ---- the read-ahead ---- */

// Whether a secure connection has anything to read: decrypted bytes inside the toolkit, or
// bytes on the socket. Asked before the toolkit's read, which may wait for the rest of a
// record while it holds the connection's secure socket: it should wait only once a record
// has begun, never for the server's next answer (that wait belongs to fber_select, which
// keeps to the caller's deadline and leaves writers free).
bool secure_data_ready(Sockbuf *sb)
{
    int pending = 0;
    int rc = wzr_skit.secure_soc_read(sb->sb_secure, nullptr, 1, &pending);
    if ((rc == 0 && pending > 0) || (rc != 0 && rc != SKIT_WOULD_BLOCK))
        return true; // bytes to hand out, or a failure for the read itself to report
    struct pollfd p = {sb->sb_sd, POLLIN, 0};
    do
        rc = poll(&p, 1, 0);
    while (rc < 0 && errno == EINTR);
    return rc != 0; // an error is for the read to report
}

// One read from the connection's source: the secure toolkit, the test build's byte source,
// or the descriptor. The count, 0 at the end of the stream, 0 with *would_block set when
// nothing is there yet, or -1.
long read_source(Sockbuf *sb, void *buf, long len, int *would_block)
{
    if (sb->sb_read_hook != nullptr)
        return sb->sb_read_hook(sb->sb_read_ctx, buf, len, would_block);
    if (sb->sb_secure != nullptr) {
        if (wzr_skit.secure_soc_read == nullptr)
            return -1;
        if (!secure_data_ready(sb)) {
            *would_block = 1;
            return 0;
        }
        int count = 0;
        int rc = wzr_skit.secure_soc_read(sb->sb_secure, buf, clamp_int(len), &count);
        if (rc == SKIT_WOULD_BLOCK) {
            *would_block = 1;
            return 0;
        }
        if (rc != 0) {
            if (rc != SKIT_CLOSED)
                LDAP_TRACE(LDAP_TRC_ERROR,
                           "Error - fber_socket_read_nb: wzr_secure_soc_read() rc=%d %s\n", rc,
                           skit_text(rc));
            return -1;
        }
        return count >= 0 && count <= len ? count : -1;
    }
    ssize_t n;
    do
        n = read(sb->sb_sd, buf, static_cast<size_t>(len));
    while (n < 0 && errno == EINTR);
    if (n >= 0)
        return n;
    int err = errno;
    LDAP_TRACE(LDAP_TRC_BER, "fber_socket_read_nb: sd=%d errno=%d EWOULDBLOCK=%d EAGAIN=%d\n",
               sb->sb_sd, err, EWOULDBLOCK, EAGAIN);
    if (err == EAGAIN || err == EWOULDBLOCK) {
        *would_block = 1;
        return 0;
    }
    return -1;
}

long take_buffered(Sockbuf *sb, void *buf, long len)
{
    long n = sb->sb_raend - sb->sb_rapos;
    if (n > len)
        n = len;
    std::memcpy(buf, sb->sb_rabuf + sb->sb_rapos, static_cast<size_t>(n));
    sb->sb_rapos += static_cast<int32_t>(n);
    return n;
}

// fill_read_ahead: no memory for the read-ahead; nothing was read.
constexpr long NO_READ_AHEAD = -3;

// Refills the empty read-ahead with one read: the count, 0 at the end of the stream (or with
// *would_block set), NO_READ_AHEAD, or -1. One read of the whole read-ahead usually brings
// several PDUs.
long fill_read_ahead(Sockbuf *sb, int *would_block)
{
    if (sb->sb_rabuf == nullptr)
        sb->sb_rabuf = static_cast<unsigned char *>(lber_malloc(SB_READ_AHEAD_SIZE));
    if (sb->sb_rabuf == nullptr) {
        LDAP_TRACE(LDAP_TRC_ERROR, "fber_socket_read_nb: no memory for the read-ahead of sd=%d\n",
                   sb->sb_sd);
        return NO_READ_AHEAD;
    }
    long n = read_source(sb, sb->sb_rabuf, SB_READ_AHEAD_SIZE, would_block);
    // A secure read brings one record at most, however much is waiting: ask instead.
    bool short_read = n > 0 && (sb->sb_secure != nullptr && sb->sb_read_hook == nullptr
                                    ? !secure_data_ready(sb)
                                    : n < SB_READ_AHEAD_SIZE);
    sb->sb_drained = *would_block != 0 || short_read;
    if (n > 0) {
        sb->sb_rapos = 0;
        sb->sb_raend = static_cast<int32_t>(n);
    }
    return n;
}

// Reads through the read-ahead; requests at least as large as it go straight to the caller's
// buffer.
long read_buffered(Sockbuf *sb, void *buf, long len, int *would_block)
{
    if (len < 1)
        return len < 0 ? -1 : 0;
    if (sb->sb_rapos < sb->sb_raend)
        return take_buffered(sb, buf, len);
    if (len >= SB_READ_AHEAD_SIZE)
        return read_source(sb, buf, len, would_block);
    long n = fill_read_ahead(sb, would_block);
    if (n == NO_READ_AHEAD)
        return -1;
    return n <= 0 ? n : take_buffered(sb, buf, len);
}

// Length of the BER element (header and contents) at p[0, n), or 0 when its header is not
// all there or is one the reader refuses anyway. May exceed n.
size_t element_size(const unsigned char *p, size_t n)
{
    if (n < 2 || (p[0] & 0x1f) == 0x1f)
        return 0;
    if ((p[1] & 0x80) == 0)
        return 2 + p[1];
    size_t k = p[1] & 0x7f;
    if (k == 0 || k > 4 || n < 2 + k)
        return 0;
    size_t len = 0;
    for (size_t i = 0; i < k; ++i)
        len = (len << 8) | p[2 + i];
    return 2 + k + len;
}

void dump_element(BerElement *ber, int inout, const char *name, int fd)
{
    if (ber == nullptr || (fd < 0 && !ldap_debug_class_on(LDAP_TRC_BER)))
        return;
    unsigned char *from = inout == 1 ? ber->ber_ptr : ber->ber_buf;
    unsigned char *to = inout == 1 ? ber->ber_end : ber->ber_ptr;
    LDAP_TRACE(LDAP_TRC_BER, "%s: buf=%p ptr=%p end=%p len=%ld\n", name,
               static_cast<void *>(ber->ber_buf), static_cast<void *>(ber->ber_ptr),
               static_cast<void *>(ber->ber_end), static_cast<long>(to - from));
    if (from != nullptr && to > from)
        dump_masked(from, from, to - from, nullptr, fd);
}

} // namespace

/* ---- reading ---- */

long fber_socket_read_nb(Sockbuf *sb, void *buf, long len, int *would_block)
{
    if (closing(sb))
        return -1;
    return read_buffered(sb, buf, len, would_block);
}

namespace {
int read_direct(Sockbuf *sb, unsigned char *buf, long len, long *remaining, bool *ended)
{
    if (len < 1)
        return -1;
    long done = 0;
    *ended = false;
    while (done < len) {
        int would_block = 0;
        long n = fber_socket_read_nb(sb, buf + done, len - done, &would_block);
        if (would_block) {
            *remaining = len - done;
            return BER_WOULD_BLOCK;
        }
        if (n < 0)
            return -1;
        if (n == 0) {
            *ended = true;
            break;
        }
        done += n;
    }
    *remaining = *ended ? len - done : 0;
    return 0;
}
} // namespace

// A read of 0 bytes (end of stream) ends the loop as though the count were complete: the
// caller's next read meets the end again and fails there, since no LDAP PDU is empty.
int FBerReadDirect_nb(Sockbuf *sb, unsigned char *buf, long len, long *remaining)
{
    bool ended = false;
    int rc = read_direct(sb, buf, len, remaining, &ended);
    if (rc == 0)
        *remaining = 0;
    return rc;
}

namespace {
// The stream ended: before a PDU began that is the server closing, inside one it is a PDU cut
// short. Either way the connection is over; a PDU is never completed with bytes that did not
// come (filling them in would hand a made-up response up as the server's answer).
long stream_ended(const BerElement *ber, uint32_t progress, long n)
{
    if (n == 0 && (progress != 0 || ber->ber_tag != LBER_DEFAULT))
        LDAP_TRACE(LDAP_TRC_ERROR, "fber_get_next_nb: stream ended inside a PDU (%u bytes "
                                   "missing)\n", static_cast<unsigned>(progress));
    return -1;
}

// read_towards: bytes arrived, go on (not a value fber_get_next_nb can return; a PDU whose
// tag is 0 must not be taken for it).
constexpr long KEEP_READING = -2;

// One read towards the PDU: large contents go straight into their buffer, anything else
// refills the read-ahead. KEEP_READING when bytes arrived, else what fber_get_next_nb returns.
long read_towards(Sockbuf *sb, BerElement *ber, uint32_t *progress)
{
    int would_block = 0;
    unsigned char *dst = nullptr;
    long room = ber_pdu_room(ber, *progress, &dst);
    if (room < 0)
        return -1; // no memory for the contents, marked on the element
    if (room >= SB_READ_AHEAD_SIZE) {
        long n = read_source(sb, dst, room, &would_block);
        if (would_block)
            return BER_WOULD_BLOCK;
        if (n <= 0)
            return stream_ended(ber, *progress, n);
        long rc = ber_pdu_filled(ber, progress, static_cast<size_t>(n));
        return rc == BER_WOULD_BLOCK && !ber_pdu_complete(ber, *progress) ? KEEP_READING : rc;
    }
    long n = fill_read_ahead(sb, &would_block);
    if (n == NO_READ_AHEAD) {
        ber_note_out_of_memory(ber);
        return -1;
    }
    if (would_block)
        return BER_WOULD_BLOCK;
    return n > 0 ? KEEP_READING : stream_ended(ber, *progress, n);
}

// The PDU reader of both kinds of element: feeds the parser from the read-ahead and reads on
// until the PDU is complete or the source would block. A failure for want of memory leaves the
// PDU's state as it was before the bytes it could not take, so the next call goes on from there.
long read_pdu(Sockbuf *sb, BerElement *ber, uint32_t *progress)
{
    ber->ber_nomem = false;
    for (;;) {
        long buffered = sockbuf_buffered(sb);
        if (buffered > 0) {
            size_t used = 0;
            long rc = ber_pdu_feed(ber, progress, sb->sb_rabuf + sb->sb_rapos,
                                   static_cast<size_t>(buffered), &used);
            sb->sb_rapos += static_cast<int32_t>(used);
            if (rc != BER_WOULD_BLOCK || ber_pdu_complete(ber, *progress))
                return rc;
        }
        long rc = read_towards(sb, ber, progress);
        if (rc != KEEP_READING)
            return rc;
    }
}
} // namespace

bool ber_pdu_complete(const BerElement *ber, uint32_t progress)
{
    return progress == 0 && ber->ber_ptr != nullptr && ber->ber_buf == ber->ber_ptr &&
           ber->ber_len != 0 && ber->ber_tag != LBER_DEFAULT;
}

// Reads one PDU without blocking, feeding the parser from the read-ahead. *progress is 0
// before the first byte, 2 after the tag and first length byte while no buffer exists,
// otherwise the content bytes still missing. One element reads one PDU.
long fber_get_next_nb(Sockbuf *sb, BerElement *ber, uint32_t *progress)
{
    if (sb == nullptr || ber == nullptr || progress == nullptr)
        return -1;
    LDAP_TRACE(LDAP_TRC_BER, "fber_get_next_nb: length=%d\n", static_cast<int>(*progress));
    if (!ber_is_fber(ber)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "BerElement %p is not an FBER!!!\n", static_cast<void *>(ber));
        return -1;
    }
    if (closing(sb))
        return -1;
    return read_pdu(sb, ber, progress);
}

ber_tag_t ber_get_next(Sockbuf *sb, ber_len_t *len, BerElement *ber)
{
    if (sb == nullptr || ber == nullptr || len == nullptr || closing(sb))
        return LBER_DEFAULT;
    uint32_t progress = 0;
    for (;;) {
        long rc = read_pdu(sb, ber, &progress);
        if (rc == BER_WOULD_BLOCK && !ber_pdu_complete(ber, progress)) {
            if (fber_select(sb, nullptr) >= 0)
                continue;
            rc = -1;
        }
        if (rc < 0)
            return LBER_DEFAULT;
        *len = ber->ber_len;
        return static_cast<ber_tag_t>(rc);
    }
}

long ber_socket_read(Sockbuf *sb, void *buf, long len)
{
    if (sb == nullptr || buf == nullptr || closing(sb))
        return -1;
    for (;;) {
        int would_block = 0;
        long n = read_buffered(sb, buf, len, &would_block);
        if (!would_block)
            return n;
        if (fber_select(sb, nullptr) < 0)
            return -1;
    }
}

int fber_select(Sockbuf *sb, struct timeval *timeout, int wake_fd)
{
    if (sb == nullptr) {
        LDAP_TRACE(LDAP_TRC_BER, "fber_select: Bad params sb(%p)\n", static_cast<void *>(sb));
        return -1;
    }
    // Bytes already read ahead never show on the descriptor either. A test build's byte
    // source says itself whether it is ready (asked with no buffer).
    if (sockbuf_buffered(sb) > 0)
        return 1;
    if (sb->sb_read_hook != nullptr)
        return sb->sb_read_hook(sb->sb_read_ctx, nullptr, 0, nullptr) > 0 ? 1 : 0;
    if (sb->sb_secure != nullptr) {
        // Decrypted bytes already inside the toolkit never show on the descriptor.
        if (wzr_skit.secure_soc_read == nullptr)
            return -1;
        int pending = 0;
        int rc = wzr_skit.secure_soc_read(sb->sb_secure, nullptr, 1, &pending);
        LDAP_TRACE(LDAP_TRC_BER, "fber_select: nLengthRead = %d, rc = %d, errno=%d\n", pending, rc,
                   errno);
        if (pending > 0)
            return 1;
    }
    int rc = wait_readable(sb->sb_sd, timeout, wake_fd);
    if (rc == -1)
        LDAP_TRACE(LDAP_TRC_BER, "fber_select: returning %d\n", rc);
    return rc;
}

void sockbuf_release_buffer(Sockbuf *sb)
{
    if (sb == nullptr)
        return;
    lber_free(sb->sb_rabuf);
    sb->sb_rabuf = nullptr;
    sb->sb_rapos = 0;
    sb->sb_raend = 0;
}

long sockbuf_buffered(const Sockbuf *sb) { return sb->sb_raend - sb->sb_rapos; }

size_t sockbuf_buffered_pdu_size(const Sockbuf *sb)
{
    size_t avail = static_cast<size_t>(sockbuf_buffered(sb));
    size_t size = avail > 0 ? element_size(sb->sb_rabuf + sb->sb_rapos, avail) : 0;
    return size <= avail ? size : 0;
}

/* ---- writing ---- */

long BerWrite_nb(Sockbuf *sb, const unsigned char *buf, long len)
{
    return write_step(sb, buf, len, false);
}

long BerWrite(Sockbuf *sb, const unsigned char *buf, long len)
{
    return write_step(sb, buf, len, true);
}

// Writes what is left of the PDU from ber_rwptr; 0 when all is written, else the first
// result below 1 (-11: call again when the socket is writable, the write resumes there).
int fber_flush_nb(Sockbuf *sb, BerElement *ber)
{
    if (sb == nullptr || ber == nullptr)
        return -1;
    long len = unwritten(ber);
    if (ldap_debug_class_on(LDAP_TRC_BER)) {
        LDAP_TRACE(LDAP_TRC_BER, "fber_flush_nb: %ld bytes to sd=%d%s\n", len, sb->sb_sd,
                   reflush_suffix(ber));
        dump_masked(ber->ber_buf, ber->ber_rwptr, len, nullptr);
    }
    if (closing(sb))
        return -1;
    while (ber->ber_rwptr < ber->ber_ptr) {
        long n = BerWrite_nb(sb, ber->ber_rwptr, ber->ber_ptr - ber->ber_rwptr);
        if (n < 1)
            return static_cast<int>(n);
        ber->ber_rwptr += n;
    }
    return 0;
}

int ber_flush(Sockbuf *sb, BerElement *ber, int freeit)
{
    if (sb == nullptr || ber == nullptr)
        return -1;
    long len = unwritten(ber);
    if (ldap_debug_class_on(LDAP_TRC_BER)) {
        LDAP_TRACE(LDAP_TRC_BER, "ber_flush: %ld bytes to sd=%d%s\n", len, sb->sb_sd,
                   reflush_suffix(ber));
        dump_masked(ber->ber_buf, ber->ber_rwptr, len, nullptr);
    }
    if ((sb->sb_options & (SB_COPY_TO_FD | SB_ONLY_TO_FD)) != 0) {
        int rc = copy_to_fd(sb, ber);
        if ((sb->sb_options & SB_ONLY_TO_FD) != 0) {
            if (rc == 0 && freeit)
                free_element(ber);
            return rc;
        }
    }
    int retries = 0;
    while (ber->ber_rwptr < ber->ber_ptr) {
        if (closing(sb))
            return -1;
        long n = BerWrite(sb, ber->ber_rwptr, ber->ber_ptr - ber->ber_rwptr);
        if (n < 0)
            return -1;
        if (n > 0) {
            ber->ber_rwptr += n;
            retries = 0;
            continue;
        }
        if (++retries > FLUSH_MAX_RETRIES) {
            LDAP_TRACE(LDAP_TRC_ERROR, "ERROR: write to sd=%d TIMED OUT!\n", sb->sb_sd);
            return -1;
        }
        if (retries % 10 == 1)
            LDAP_TRACE(LDAP_TRC_WARN, "Warning: write to sd=%d retried %d times...\n", sb->sb_sd,
                       retries);
        usleep(FLUSH_RETRY_SLEEP_US);
    }
    if (freeit)
        free_element(ber);
    return 0;
}

/* ---- dumps ---- */

void ber_dump_masked(const unsigned char *data, long len, const char *title)
{
    dump_masked(data, data, len, title);
}

// inout 1: the bytes still to be read (ber_ptr..ber_end); otherwise those written so far.
void fber_dump(BerElement *ber, int inout) { dump_element(ber, inout, "fber_dump", -1); }
void ber_dump(BerElement *ber, int inout) { dump_element(ber, inout, "ber_dump", -1); }
void fber_dump_with_fd(BerElement *ber, int inout, int fd)
{
    dump_element(ber, inout, "fber_dump_with_fd", fd < 0 ? -1 : fd);
}
void ber_dump_with_fd(BerElement *ber, int inout, int fd)
{
    dump_element(ber, inout, "ber_dump_with_fd", fd < 0 ? -1 : fd);
}

// The open sequences of a plain element, innermost first.
void ber_sos_dump(Seqorset *sos)
{
    if (!ldap_debug_class_on(LDAP_TRC_BER))
        return;
    LDAP_TRACE(LDAP_TRC_BER, "*** sos dump ***\n");
    for (; sos != nullptr; sos = sos->sos_next)
        LDAP_TRACE(LDAP_TRC_BER, "ber_sos_dump: clen %lu first %p ptr %p tag 0x%lx\n",
                   static_cast<unsigned long>(sos->sos_clen), static_cast<void *>(sos->sos_first),
                   static_cast<void *>(sos->sos_ptr), static_cast<unsigned long>(sos->sos_tag));
    LDAP_TRACE(LDAP_TRC_BER, "*** end dump ***\n");
}
