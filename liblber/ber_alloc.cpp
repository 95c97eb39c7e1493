// Life of a BerElement: making FBERs and plain BERs, record-only cursors, wrapping received
// bytes, resetting for reading, flattening into a berval, and freeing what each record owns.
#include <climits>
#include <cstring>

#include "ber_int.h"
#include "ber_memory.h"
#include "lber.h"

// One allocation: the record, the inline buffer, then the 101-word nesting stack (word 0 the
// count of open elements, words 1..100 the offsets of their 4 length bytes from ber_buf).
BerElement *fber_alloc_t(int size)
{
    if (size < 0)
        size = 0;
    size_t stack_at = fber_stack_offset(size);
    auto *ber = static_cast<BerElement *>(
        lber_malloc(sizeof(BerElement) + stack_at + FBER_STACK_BYTES));
    if (ber == nullptr)
        return nullptr;
    std::memset(ber, 0, sizeof(BerElement));
    ber->ber_inline_size = size;
    ber->ber_buf = fber_inline_buffer(ber);
    ber->ber_ptr = ber->ber_buf;
    uint32_t *stack = fber_own_stack(ber);
    stack[0] = 0;
    ber->ber_end = reinterpret_cast<unsigned char *>(stack);
    ber->ber_sos = stack;
    ber->ber_tag = LBER_DEFAULT;
    ber->ber_options = static_cast<int8_t>(LBER_FBER);
    return ber;
}

BerElement *fber_alloc() { return fber_alloc_t(FBER_DEFAULT_SIZE); }

size_t fber_embedded_bytes(size_t inline_size) { return sizeof(BerElement) + inline_size; }

// Received bytes are only ever decoded, so the element carries no nesting stack: its ber_sos
// points where the stack would start, which marks it as the owner of its room (a ber_dup copy
// points at it too, but is not where it points from), and the encoder refuses it.
BerElement *fber_embed(void *at, size_t inline_size)
{
    auto *ber = static_cast<BerElement *>(at);
    std::memset(ber, 0, sizeof(BerElement));
    ber->ber_inline_size = inline_size <= INT_MAX ? static_cast<int>(inline_size) : 0;
    ber->ber_buf = fber_inline_buffer(ber);
    ber->ber_ptr = ber->ber_buf;
    ber->ber_end = ber->ber_buf;
    ber->ber_sos = fber_own_stack(ber);
    ber->ber_tag = LBER_DEFAULT;
    ber->ber_options = static_cast<int8_t>(LBER_FBER | LBER_EMBEDDED);
    return ber;
}

BerElement *ber_alloc_t(int options)
{
    auto *ber = static_cast<BerElement *>(lber_calloc(1, sizeof(BerElement)));
    if (ber == nullptr)
        return nullptr;
    ber->ber_tag = LBER_DEFAULT;
    ber->ber_options = static_cast<int8_t>(options & ~(LBER_FBER | LBER_EMBEDDED));
    return ber;
}

BerElement *ber_alloc() { return ber_alloc_t(0); }

BerElement *der_alloc() { return ber_alloc_t(LBER_USE_DER); }

// The copy owns nothing but itself: it shares the data, the version and UTF-8 words and (for an
// FBER) the original's nesting stack, so it must not outlive the original.
BerElement *ber_dup(BerElement *ber)
{
    if (ber == nullptr)
        return nullptr;
    auto *copy = static_cast<BerElement *>(lber_malloc(sizeof(BerElement)));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, ber, sizeof(BerElement));
    copy->ber_heapbuf = nullptr;
    copy->ber_nomem = false;
    return copy;
}

void ber_reset(BerElement *ber, int was_writing)
{
    if (ber == nullptr)
        return;
    if (was_writing) {
        ber->ber_end = ber->ber_ptr;
        ber->ber_ptr = ber->ber_buf;
    } else {
        ber->ber_ptr = ber->ber_end;
    }
    ber->ber_rwptr = nullptr;
}

// Sized so that the bytes and the spare byte behind them (where an in-place reader writes its
// last NUL) fit inline: decoding a received value costs one allocation.
BerElement *fber_init(const struct berval *bv)
{
    if (bv == nullptr || (bv->bv_val == nullptr && bv->bv_len != 0))
        return nullptr;
    int size = FBER_DEFAULT_SIZE;
    if (bv->bv_len >= static_cast<unsigned long>(FBER_DEFAULT_SIZE) &&
        bv->bv_len < static_cast<unsigned long>(INT_MAX))
        size = static_cast<int>(bv->bv_len) + 1;
    BerElement *ber = fber_alloc_t(size);
    if (ber == nullptr)
        return nullptr;
    if (fber_write(ber, bv->bv_val, bv->bv_len) != static_cast<long>(bv->bv_len)) {
        fber_free(ber);
        return nullptr;
    }
    ber_reset(ber, 1);
    return ber;
}

BerElement *ber_init(const struct berval *bv)
{
    if (bv == nullptr || (bv->bv_val == nullptr && bv->bv_len != 0))
        return nullptr;
    BerElement *ber = ber_alloc_t(0);
    if (ber == nullptr)
        return nullptr;
    if (ber_write(ber, bv->bv_val, bv->bv_len, 1) != static_cast<long>(bv->bv_len)) {
        ber_free(ber, 1);
        return nullptr;
    }
    ber_reset(ber, 1);
    return ber;
}

// Takes ownership of bv_val without copying (see lber.h for the contract).
BerElement *fber_init2(struct berval *bv)
{
    if (bv == nullptr || (bv->bv_val == nullptr && bv->bv_len != 0))
        return nullptr;
    BerElement *ber = fber_alloc_t(0);
    if (ber == nullptr)
        return nullptr;
    if (bv->bv_val != nullptr) {
        auto *data = reinterpret_cast<unsigned char *>(bv->bv_val);
        ber->ber_heapbuf = data;
        ber->ber_buf = data;
        ber->ber_ptr = data;
        ber->ber_end = data + bv->bv_len;
    }
    bv->bv_val = nullptr;
    bv->bv_len = 0;
    return ber;
}

// The heap buffer is released through ber_heapbuf: while the stream reader fills a PDU,
// ber_buf is its fill cursor and not the start of the allocation.
void fber_free(BerElement *ber)
{
    if (ber == nullptr)
        return;
    if (!ber_is_fber(ber)) {
        ber_free(ber, 1);
        return;
    }
    if (fber_owns_allocation(ber)) {
        if (ber->ber_heapbuf != fber_inline_buffer(ber))
            lber_free(ber->ber_heapbuf);
        if (ber->ber_version != &ber->ber_own_version)
            lber_free(ber->ber_version);
        if (ber->ber_utf8_flag != &ber->ber_own_utf8)
            lber_free(ber->ber_utf8_flag);
        if ((ber->ber_options & LBER_EMBEDDED) != 0)
            return; // the record goes with its owner
    }
    lber_free(ber);
}

void ber_free(BerElement *ber, int freebuf)
{
    if (ber == nullptr)
        return;
    if (freebuf == 0) {
        lber_free(ber);
        return;
    }
    if (ber_is_fber(ber)) {
        fber_free(ber);
        return;
    }
    for (auto *sos = static_cast<Seqorset *>(ber->ber_sos); sos != nullptr;) {
        Seqorset *next = sos->sos_next;
        lber_free(sos);
        sos = next;
    }
    lber_free(ber->ber_heapbuf != nullptr ? ber->ber_heapbuf : ber->ber_buf);
    lber_free(ber);
}

// A copy of the bytes written so far, NUL-terminated behind the counted length. Both kinds keep
// their finished data between ber_buf and ber_ptr, so one function serves both.
int ber_flatten(BerElement *ber, struct berval **bvpp)
{
    if (bvpp == nullptr)
        return -1;
    *bvpp = nullptr;
    auto *bv = static_cast<struct berval *>(lber_calloc(1, sizeof(struct berval)));
    if (bv == nullptr)
        return -1;
    if (ber != nullptr && ber->ber_buf != nullptr) {
        size_t len = static_cast<size_t>(ber->ber_ptr - ber->ber_buf);
        bv->bv_val = static_cast<char *>(lber_malloc(len + 1));
        if (bv->bv_val == nullptr) {
            lber_free(bv);
            return -1;
        }
        std::memcpy(bv->bv_val, ber->ber_buf, len);
        bv->bv_val[len] = '\0';
        bv->bv_len = len;
    }
    *bvpp = bv;
    return 0;
}

int fber_flatten(BerElement *ber, struct berval **bvpp) { return ber_flatten(ber, bvpp); }

void ber_bvfree(struct berval *bv)
{
    if (bv == nullptr)
        return;
    lber_free(bv->bv_val);
    lber_free(bv);
}
