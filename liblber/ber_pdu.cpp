// The PDU parser: frames one LDAP PDU from bytes handed in as they arrive, in pieces of any
// size, into a BerElement. A pure function of the bytes received so far: it never reads a
// socket, so the stream reader, the tests and the fuzzers all feed it the same way.
#include <algorithm>
#include <cstring>

#include "../trace/ldap_trace.h"
#include "ber_int.h"
#include "ber_memory.h"
#include "lber.h"

namespace {

constexpr ber_len_t MAX_PDU_LEN = 0x7FFFFFFE; // a PDU must fit a signed 32-bit count
constexpr uint32_t PROGRESS_HEADER = 2;       // tag and first length byte read, no buffer yet
// A contents buffer starts at most this large and doubles as the bytes arrive, so that a
// header declaring a huge length costs memory only in step with the data actually sent.
constexpr size_t FIRST_CONTENTS_ALLOC = 64 * 1024;

// A byte span being consumed.
struct Bytes {
    const unsigned char *p;
    size_t n;
    size_t used = 0;
    bool empty() const { return used == n; }
    unsigned char take() { return p[used++]; }
};

// Tag and first length byte. A tag that arrives alone is kept in ber_tag. Multi-byte tags are
// not LDAP and are refused.
long parse_header(BerElement *ber, uint32_t *progress, Bytes &in)
{
    if (ber->ber_tag == LBER_DEFAULT) {
        if (in.empty())
            return BER_WOULD_BLOCK;
        unsigned char tag = in.take();
        if ((tag & 0x1f) == 0x1f)
            return -1;
        ber->ber_tag = tag;
    }
    if (in.empty())
        return BER_WOULD_BLOCK;
    ber->ber_len = in.take();
    ber->ber_rwptr = nullptr;
    ber->ber_buf = nullptr;
    ber->ber_ptr = nullptr;
    ber->ber_end = nullptr;
    *progress = PROGRESS_HEADER;
    return 0;
}

// The contents length into *len: the short form in ber_len, or the long-form bytes accumulated
// big-endian in the tail of ber_lenbytes across pieces. The state is left as it is until the
// contents buffer exists (size_buffer), so that a buffer which could not be allocated is asked
// for again by the next call without any byte read twice.
long parse_length(BerElement *ber, Bytes &in, ber_len_t *len)
{
    *len = ber->ber_len;
    if ((ber->ber_len & 0x80) == 0)
        return 0;
    int n = static_cast<int>(ber->ber_len & 0x7f);
    if (n == 0 || n > 8 || ber->ber_lenread < 0 || ber->ber_lenread > n)
        return -1; // indefinite or over-long lengths are not LDAP
    auto *acc = reinterpret_cast<unsigned char *>(&ber->ber_lenbytes);
    while (ber->ber_lenread < n) {
        if (in.empty())
            return BER_WOULD_BLOCK;
        acc[8 - n + ber->ber_lenread++] = in.take();
    }
    *len = 0;
    for (int i = 8 - n; i < 8; ++i)
        *len = (*len << 8) | acc[i];
    return 0;
}

// Size of the heap contents buffer while `filled` of `len` bytes have arrived: it starts at
// FIRST_CONTENTS_ALLOC, doubles each time it fills, and ends at len + 1 (the extra byte keeps
// the contents NUL-terminated). Derived rather than stored, so the partial state of a PDU
// needs no field of its own.
size_t heap_capacity(ber_len_t len, size_t filled)
{
    size_t cap = FIRST_CONTENTS_ALLOC;
    while (cap <= filled)
        cap *= 2;
    return cap < len ? cap : static_cast<size_t>(len + 1);
}

bool contents_on_heap(const BerElement *ber)
{
    return ber->ber_heapbuf != nullptr && ber->ber_ptr == ber->ber_heapbuf;
}

// Nothing is lost: the element says the read failed for want of memory, and the same call
// goes on from where this one stopped.
long trace_alloc_failure(BerElement *ber, ber_len_t len)
{
    LDAP_TRACE(LDAP_TRC_ERROR, "fber_get_next_nb: calloc failed, ber->ber_len=%d\n",
               static_cast<int>(len));
    ber_note_out_of_memory(ber);
    return -1;
}

// Points ber_ptr/ber_end at a contents buffer with `missing` bytes still to come; ber_buf is
// the fill cursor until the PDU is complete.
void place_contents(BerElement *ber, unsigned char *buf, size_t missing)
{
    ber->ber_ptr = buf;
    ber->ber_end = buf + ber->ber_len;
    ber->ber_buf = ber->ber_end - missing;
}

// The contents buffer for `len` bytes: the element's inline buffer when it holds len + 1
// bytes, else a heap buffer (ber_heapbuf, released by fber_free) of at most
// FIRST_CONTENTS_ALLOC bytes to begin with. An empty PDU is refused: no LDAP PDU is empty.
long size_buffer(BerElement *ber, ber_len_t len, uint32_t *progress)
{
    if (len == 0 || len > MAX_PDU_LEN)
        return -1;
    size_t size = len + 1;
    unsigned char *buf;
    if (ber->ber_inline_size > 0 && size <= static_cast<size_t>(ber->ber_inline_size) &&
        fber_owns_allocation(ber)) {
        buf = fber_inline_buffer(ber);
    } else {
        lber_free(ber->ber_heapbuf);
        ber->ber_heapbuf = nullptr;
        buf = static_cast<unsigned char *>(lber_malloc(heap_capacity(len, 0)));
        if (buf == nullptr)
            return trace_alloc_failure(ber, len);
        ber->ber_heapbuf = buf;
    }
    ber->ber_len = len;
    ber->ber_lenbytes = 0;
    ber->ber_lenread = 0;
    place_contents(ber, buf, static_cast<size_t>(ber->ber_len));
    *progress = static_cast<uint32_t>(ber->ber_len);
    return 0;
}

size_t filled_so_far(const BerElement *ber, uint32_t missing)
{
    return static_cast<size_t>(ber->ber_len) - missing;
}

// A heap buffer is grown when the next bytes are due and it is full (its filled size is where
// heap_capacity steps up). The growth is asked for again until it succeeds: a buffer that has
// grown already is reallocated to the size it has, which changes nothing.
long grow_if_full(BerElement *ber, uint32_t missing)
{
    size_t filled = filled_so_far(ber, missing);
    if (filled == 0 || heap_capacity(ber->ber_len, filled - 1) == heap_capacity(ber->ber_len, filled))
        return 0;
    auto *buf = static_cast<unsigned char *>(
        lber_realloc(ber->ber_heapbuf, heap_capacity(ber->ber_len, filled)));
    if (buf == nullptr)
        return trace_alloc_failure(ber, ber->ber_len); // the old buffer stays in ber_heapbuf
    ber->ber_heapbuf = buf;
    place_contents(ber, buf, missing);
    return 0;
}

long contents_complete(BerElement *ber, uint32_t *progress)
{
    ber->ber_buf = ber->ber_ptr;
    *ber->ber_end = 0;
    *progress = 0;
    if (ldap_debug_class_on(LDAP_TRC_BER)) {
        LDAP_TRACE(LDAP_TRC_BER, "fber_get_next_nb: tag 0x%lx len=%ld contents:\n",
                   static_cast<unsigned long>(ber->ber_tag), static_cast<long>(ber->ber_len));
        ber_dump_masked(ber->ber_buf, static_cast<long>(ber->ber_len), nullptr);
    }
    return static_cast<long>(ber->ber_tag);
}

bool in_contents(const BerElement *ber, uint32_t progress)
{
    return ber->ber_ptr != nullptr && progress != 0;
}

} // namespace

long ber_pdu_room(BerElement *ber, uint32_t progress, unsigned char **dst)
{
    if (!in_contents(ber, progress))
        return 0;
    if (!contents_on_heap(ber)) {
        *dst = ber->ber_buf;
        return progress;
    }
    if (grow_if_full(ber, progress) != 0)
        return -1;
    *dst = ber->ber_buf;
    size_t filled = filled_so_far(ber, progress);
    size_t room = heap_capacity(ber->ber_len, filled) - filled;
    return room < progress ? static_cast<long>(room) : static_cast<long>(progress);
}

long ber_pdu_filled(BerElement *ber, uint32_t *progress, size_t n)
{
    if (!in_contents(ber, *progress) || n > *progress)
        return -1;
    *progress -= static_cast<uint32_t>(n);
    ber->ber_buf = ber->ber_end - *progress;
    if (*progress == 0)
        return contents_complete(ber, progress);
    return BER_WOULD_BLOCK;
}

long ber_pdu_feed(BerElement *ber, uint32_t *progress, const unsigned char *bytes, size_t len,
                  size_t *used)
{
    *used = 0;
    if (ber == nullptr || progress == nullptr)
        return -1;
    ber->ber_nomem = false;
    Bytes in{bytes, len};
    long rc = 0;
    if (*progress == 0)
        rc = parse_header(ber, progress, in);
    if (rc == 0 && *progress == PROGRESS_HEADER && ber->ber_ptr == nullptr) {
        ber_len_t contents = 0;
        rc = parse_length(ber, in, &contents);
        if (rc == 0)
            rc = size_buffer(ber, contents, progress);
    }
    while (rc == 0 || (rc == BER_WOULD_BLOCK && in_contents(ber, *progress) && !in.empty())) {
        unsigned char *dst = nullptr;
        long room = ber_pdu_room(ber, *progress, &dst);
        if (room < 0) {
            rc = -1;
            break;
        }
        size_t k = std::min(static_cast<size_t>(room), in.n - in.used);
        std::memcpy(dst, in.p + in.used, k);
        in.used += k;
        rc = ber_pdu_filled(ber, progress, k);
        if (rc != BER_WOULD_BLOCK)
            break; // complete (the tag) or refused
    }
    *used = in.used;
    return rc;
}
