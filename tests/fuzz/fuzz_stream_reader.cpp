// Feeds the resumable PDU reader through a non-blocking socket pair in chunks chosen by the
// input: byte 0 gives how many chunk-size bytes follow (1..8, cycled; each size 1..256), the
// rest is the stream. The reader is called until it wants more data (11), fails (-1: the
// stream is dead, the input ends there) or returns a tag (the PDU is freed and a new element
// reads on). The blocking reader then reads the same stream whole. A header may declare up to
// ~2 GiB: run libFuzzer with -malloc_limit_mb=4096.
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "liblber/lber.h"
#include "pieces.h"

namespace {

bool write_all(int fd, const uint8_t *data, size_t len)
{
    while (len > 0) {
        ssize_t n = write(fd, data, len);
        if (n <= 0)
            return false;
        data += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Reads until the reader wants more. False once the stream is dead.
bool drain(Sockbuf *sb, BerElement **ber, uint32_t *progress)
{
    for (;;) {
        long rc = fber_get_next_nb(sb, *ber, progress);
        if (rc == BER_WOULD_BLOCK)
            return true;
        if (rc == -1)
            return false;
        // A whole PDU: its bounds must hold what was declared.
        if ((*ber)->ber_end - (*ber)->ber_ptr != static_cast<long>((*ber)->ber_len) ||
            *progress != 0)
            __builtin_trap();
        fber_free(*ber);
        *ber = fber_alloc_t(0);
        *progress = 0;
        if (*ber == nullptr)
            return false;
    }
}

// The same stream written whole, its end closed, read by the blocking reader PDU by PDU until
// it fails; then what is left is read raw.
void read_blocking(const uint8_t *stream, size_t left)
{
    int fd[2];
    if (left > 65536 || socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0)
        return;
    bool written = write_all(fd[1], stream, left);
    close(fd[1]);
    Sockbuf sb = {fd[0], nullptr, 0, 0, -1};
    for (bool more = written; more;) {
        BerElement *ber = ber_alloc_t(0);
        ber_len_t len = 0;
        more = ber != nullptr && ber_get_next(&sb, &len, ber) != LBER_DEFAULT;
        ber_free(ber, 1);
    }
    unsigned char rest[64];
    long remaining = 0;
    if (written && FBerReadDirect_nb(&sb, rest, sizeof rest, &remaining) == 0)
        while (ber_socket_read(&sb, rest, sizeof rest) > 0) {
        }
    sockbuf_release_buffer(&sb);
    close(fd[0]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzPieces in;
    if (!in.parse(data, size))
        return 0;
    const uint8_t *sizes = in.sizes;
    const size_t nsizes = in.nsizes;
    const uint8_t *stream = in.stream;
    size_t left = in.left;
    read_blocking(stream, left);

    int fd[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0)
        return 0;
    fcntl(fd[0], F_SETFL, fcntl(fd[0], F_GETFL) | O_NONBLOCK);
    fcntl(fd[1], F_SETFL, fcntl(fd[1], F_GETFL) | O_NONBLOCK);
    Sockbuf sb = {fd[0], nullptr, 0, 0, -1};
    BerElement *ber = fber_alloc_t(0);
    uint32_t progress = 0;

    for (size_t i = 0; ber != nullptr && left > 0; ++i) {
        size_t chunk = static_cast<size_t>(sizes[i % nsizes]) + 1;
        if (chunk > left)
            chunk = left;
        // Every chunk is drained before the next is written, so the pair never fills up.
        if (!write_all(fd[1], stream, chunk) || !drain(&sb, &ber, &progress))
            break;
        stream += chunk;
        left -= chunk;
    }
    fber_free(ber);
    sockbuf_release_buffer(&sb);
    close(fd[0]);
    close(fd[1]);
    return 0;
}
