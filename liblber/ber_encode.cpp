// The format-driven BER encoder. One printf engine serves the FBER (one-byte tags, 4-byte patched
// constructed lengths, fixed nesting stack) and the plain BER (minimal or DER lengths, multi-byte
// tags, open-sequence records); the kinds differ only in how headers and integers look and how
// constructed elements are opened and closed.
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "../trace/ldap_trace.h"
#include "ber_int.h"
#include "ber_memory.h"
#include "ber_xlate.h"
#include "lber.h"

namespace {

constexpr uint64_t MAX_LEN32 = 0xFFFFFFFFu;
constexpr size_t MAX_HEADER = 8 + 5; // widest tag + widest length

// One printf call: the element, its kind, whether its strings are translated, and (plain kind)
// the size of the last element written, which is what the plain branch returns.
struct Encoder {
    BerElement *ber;
    bool fber;
    bool xlate;
    long last = 0;
};

bool not_fber(BerElement *ber)
{
    if (ber != nullptr && ber_is_fber(ber))
        return false;
    LDAP_TRACE(LDAP_TRC_ERROR, "BerElement %p is not an FBER!!!\n", static_cast<void *>(ber));
    return true;
}

void put_be(unsigned char *p, uint64_t v, int n)
{
    for (int i = n - 1; i >= 0; --i, v >>= 8)
        p[i] = static_cast<unsigned char>(v);
}

int significant_bytes(uint64_t v)
{
    int n = 1;
    while (n < 8 && (v >> (8 * n)) != 0)
        ++n;
    return n;
}

/* ---- FBER buffer ---- */

// A writer's failure for want of memory, marked on the element (ber_out_of_memory).
int out_of_memory(BerElement *ber)
{
    ber_note_out_of_memory(ber);
    return -1;
}

// used + max(used, needed): at least doubling. The nesting stack stays in the first allocation;
// its offsets are relative to ber_buf and survive the move. One hidden byte is kept behind
// ber_end so a decoder's in-place NUL always has somewhere to go.
int fber_grow(BerElement *ber, size_t need)
{
    size_t used = static_cast<size_t>(ber->ber_ptr - ber->ber_buf);
    size_t add = used > need ? used : need;
    if (add > (SIZE_MAX - 1) / 2 - used)
        return -1;
    size_t cap = used + add;
    unsigned char *old = ber->ber_buf;
    unsigned char *buf;
    if (old != nullptr && old == ber->ber_heapbuf) {
        buf = static_cast<unsigned char *>(lber_realloc(old, cap + 1));
        if (buf == nullptr)
            return out_of_memory(ber);
    } else {
        buf = static_cast<unsigned char *>(lber_malloc(cap + 1));
        if (buf == nullptr)
            return out_of_memory(ber);
        if (used != 0)
            std::memcpy(buf, old, used);
        if (ber->ber_heapbuf != fber_inline_buffer(ber))
            lber_free(ber->ber_heapbuf);
    }
    ber->ber_heapbuf = buf;
    ber->ber_buf = buf;
    ber->ber_ptr = buf + used;
    ber->ber_end = buf + cap;
    return 0;
}

// Grows when ber_ptr plus what is about to be written reaches ber_end.
inline int fber_reserve(BerElement *ber, size_t need)
{
    if (ber->ber_ptr < ber->ber_end && need < static_cast<size_t>(ber->ber_end - ber->ber_ptr))
        return 0;
    return fber_grow(ber, need);
}

/* ---- plain BER buffer ---- */

Seqorset *open_sos(BerElement *ber) { return static_cast<Seqorset *>(ber->ber_sos); }

// Capacity grows in 1,024-byte units, with one spare byte allocated behind it. Every pointer
// into the buffer (ber_ptr and each open record's) moves with it.
int plain_grow(BerElement *ber, size_t need)
{
    constexpr size_t UNIT = 1024;
    size_t old_cap = ber->ber_buf != nullptr ? static_cast<size_t>(ber->ber_end - ber->ber_buf) : 0;
    if (need > SIZE_MAX / 2 || old_cap > SIZE_MAX / 2)
        return -1;
    size_t blocks = need < UNIT ? 1 : (need + UNIT - 1) / UNIT;
    size_t cap = (blocks + (old_cap + 1) / UNIT) * UNIT;
    if (cap < old_cap + need) // a capacity that was not made here in whole units
        cap = old_cap + blocks * UNIT;
    unsigned char *old = ber->ber_buf;
    auto *buf = static_cast<unsigned char *>(lber_realloc(old, cap + 1));
    if (buf == nullptr)
        return out_of_memory(ber);
    if (old != nullptr) {
        auto move = [old, buf](unsigned char *&p) { p = buf + (p - old); };
        move(ber->ber_ptr);
        for (Seqorset *s = open_sos(ber); s != nullptr; s = s->sos_next) {
            move(s->sos_first);
            move(s->sos_ptr);
        }
    } else {
        ber->ber_ptr = buf;
    }
    ber->ber_buf = buf;
    ber->ber_heapbuf = buf;
    ber->ber_end = buf + cap;
    return 0;
}

// Where the next byte of a plain BER goes: the innermost open sequence, or ber_ptr.
unsigned char *&plain_cursor(BerElement *ber, int nosos)
{
    Seqorset *sos = open_sos(ber);
    return nosos == 0 && sos != nullptr ? sos->sos_ptr : ber->ber_ptr;
}

int plain_reserve(BerElement *ber, int nosos, size_t need)
{
    unsigned char *at = plain_cursor(ber, nosos);
    if (at != nullptr && need <= static_cast<size_t>(ber->ber_end - at))
        return 0;
    return plain_grow(ber, need);
}

} // namespace

int ber_realloc(BerElement *ber, ber_len_t len)
{
    if (ber == nullptr)
        return -1;
    return ber_is_fber(ber) ? fber_grow(ber, len) : plain_grow(ber, len);
}

namespace {

/* ---- headers ---- */

// Tag and length of an element with `len` content bytes into `hdr`; 0 when the length cannot be
// written. FBER: one tag byte, short form below 128 else 0x84 + 4 bytes. Plain: the tag's
// significant bytes, minimal length of at most 4 bytes.
size_t encode_header(bool fber, uint64_t tag, uint64_t len, unsigned char *hdr)
{
    size_t n;
    if (fber) {
        hdr[0] = static_cast<unsigned char>(tag);
        n = 1;
    } else {
        int tn = significant_bytes(tag);
        put_be(hdr, tag, tn);
        n = static_cast<size_t>(tn);
    }
    if (len < 128) {
        hdr[n] = static_cast<unsigned char>(len);
        return n + 1;
    }
    if (len > MAX_LEN32)
        return 0;
    int ln = fber ? 4 : significant_bytes(len);
    hdr[n] = static_cast<unsigned char>(0x80 | ln);
    put_be(hdr + n + 1, len, ln);
    return n + 1 + static_cast<size_t>(ln);
}

// One primitive element: header, an optional leading content byte (the unused-bits byte of a
// BIT STRING), then the content bytes.
long put_element(Encoder &e, uint64_t tag, const void *data, size_t len, int lead = -1)
{
    unsigned char hdr[MAX_HEADER + 1];
    size_t clen = len + (lead >= 0 ? 1 : 0);
    size_t hn = encode_header(e.fber, tag, clen, hdr);
    if (hn == 0)
        return -1;
    if (lead >= 0)
        hdr[hn++] = static_cast<unsigned char>(lead);
    BerElement *ber = e.ber;
    if (e.fber) {
        if (fber_reserve(ber, hn + len) != 0)
            return -1;
        std::memcpy(ber->ber_ptr, hdr, hn);
        if (len != 0)
            std::memcpy(ber->ber_ptr + hn, data, len);
        ber->ber_ptr += hn + len;
    } else if (ber_write(ber, reinterpret_cast<char *>(hdr), hn, 0) < 0 ||
               (len != 0 && ber_write(ber, static_cast<const char *>(data), len, 0) < 0)) {
        return -1;
    }
    return static_cast<long>(hn + len);
}

// FBER: 0..127 in one byte, anything else as the low 32 bits in four (valid, not minimal).
// Plain: minimal two's complement.
long put_int(Encoder &e, uint64_t tag, int value)
{
    unsigned char c[4];
    int n;
    if (e.fber) {
        n = value >= 0 && value <= 127 ? 1 : 4;
    } else {
        // Drop a top byte while it and the bit below it are all sign bits.
        n = 4;
        while (n > 1) {
            int32_t top = value >> (8 * (n - 1) - 1);
            if (top != 0 && top != -1)
                break;
            --n;
        }
    }
    put_be(c, static_cast<uint32_t>(value), n);
    return put_element(e, tag, c, static_cast<size_t>(n));
}

// OCTET STRING of caller bytes, converted to UTF-8 first when the call translates.
long put_string(Encoder &e, uint64_t tag, const char *s, size_t len)
{
    if (s == nullptr && len != 0)
        return -1;
    char *conv = nullptr;
    size_t conv_len = 0;
    if (e.xlate && len != 0) {
        if (int rc = ber_xlate_to_wire(s, len, &conv, &conv_len); rc != 0)
            return rc == LDAP_NO_MEMORY ? out_of_memory(e.ber) : -1;
        if (conv != nullptr) {
            s = conv;
            len = conv_len;
        }
    }
    long rc = put_element(e, tag, s, len);
    lber_free(conv);
    return rc;
}

// ( bits+7 rounded down to a multiple of 8 ) - bits unused bits, then (bits+7)/8 bytes.
long put_bitstring(Encoder &e, uint64_t tag, const unsigned char *bytes, int bits)
{
    if (bits < 0 || (bytes == nullptr && bits != 0))
        return -1;
    size_t nbytes = (static_cast<size_t>(bits) + 7) / 8;
    int unused = static_cast<int>(nbytes * 8 - static_cast<size_t>(bits));
    return put_element(e, tag, bytes, nbytes, unused);
}

/* ---- constructed elements ---- */

// Tag, 0x84, then 4 length bytes reserved; their offset goes on the stack.
long fber_open(BerElement *ber, uint64_t tag)
{
    if ((ber->ber_options & LBER_EMBEDDED) != 0)
        return -1; // no stack: received bytes are not written to
    auto *stack = static_cast<uint32_t *>(ber->ber_sos);
    if (stack[0] >= static_cast<uint32_t>(FBER_MAX_NESTING))
        return -1;
    if (fber_reserve(ber, 6) != 0)
        return -1;
    size_t at = static_cast<size_t>(ber->ber_ptr - ber->ber_buf) + 2;
    if (at > MAX_LEN32)
        return -1;
    ber->ber_ptr[0] = static_cast<unsigned char>(tag);
    ber->ber_ptr[1] = 0x84;
    ber->ber_ptr += 6;
    stack[++stack[0]] = static_cast<uint32_t>(at);
    return 0;
}

// Patches the 4 reserved bytes with the count of bytes written behind them. No data moves.
long fber_close(BerElement *ber)
{
    if ((ber->ber_options & LBER_EMBEDDED) != 0)
        return -1;
    auto *stack = static_cast<uint32_t *>(ber->ber_sos);
    if (stack[0] == 0)
        return -1;
    uint32_t at = stack[stack[0]--];
    size_t len = static_cast<size_t>(ber->ber_ptr - ber->ber_buf) - at - 4;
    if (len > MAX_LEN32)
        return -1;
    put_be(ber->ber_buf + at, len, 4);
    return static_cast<long>(len + 6);
}

// Room for the tag and 5 length bytes at the insertion point, and a record in front of the
// chain. Contents are written behind the reserved header.
long plain_open(BerElement *ber, uint64_t tag)
{
    size_t head = static_cast<size_t>(significant_bytes(tag)) + 5;
    if (plain_reserve(ber, 0, head) != 0)
        return -1;
    auto *sos = static_cast<Seqorset *>(lber_calloc(1, sizeof(Seqorset)));
    if (sos == nullptr)
        return out_of_memory(ber);
    sos->sos_ber = ber;
    sos->sos_tag = tag;
    sos->sos_first = plain_cursor(ber, 0);
    sos->sos_ptr = sos->sos_first + head;
    sos->sos_next = open_sos(ber);
    ber->ber_sos = sos;
    return 0;
}

// Number of length bytes a closed sequence takes: 5 always, or the fewest under DER.
int sequence_length_bytes(const BerElement *ber, uint64_t len)
{
    if ((ber->ber_options & LBER_USE_DER) == 0)
        return 5;
    return len < 128 ? 1 : len < 256 ? 2 : len < 65536 ? 3 : len < 16777216 ? 4 : 5;
}

// Writes tag and length at sos_first, closes the gap to the contents when fewer than 5 length
// bytes were needed, and hands the whole element to the enclosing record (or to ber_ptr).
long plain_close(BerElement *ber)
{
    Seqorset *sos = open_sos(ber);
    if (sos == nullptr || sos->sos_clen > MAX_LEN32)
        return -1;
    uint64_t clen = sos->sos_clen;
    int tn = significant_bytes(sos->sos_tag);
    int ln = sequence_length_bytes(ber, clen);
    unsigned char *p = sos->sos_first;
    put_be(p, sos->sos_tag, tn);
    if (ln == 1) {
        p[tn] = static_cast<unsigned char>(clen);
    } else {
        p[tn] = static_cast<unsigned char>(0x80 | (ln - 1));
        put_be(p + tn + 1, clen, ln - 1);
    }
    if (ln < 5)
        std::memmove(p + tn + ln, p + tn + 5, clen);
    uint64_t total = static_cast<uint64_t>(tn + ln) + clen;
    Seqorset *outer = sos->sos_next;
    if (outer != nullptr) {
        outer->sos_clen += total;
        outer->sos_ptr += total;
    } else {
        ber->ber_ptr += total;
    }
    ber->ber_sos = outer;
    lber_free(sos);
    return static_cast<long>(total);
}

/* ---- the engine ---- */

// The tag for the letter now being encoded: a pending 't' value, else the letter's own.
uint64_t take_tag(BerElement *ber, uint64_t own)
{
    uint64_t tag = ber->ber_usertag != 0 ? ber->ber_tag : own;
    ber->ber_tag = LBER_DEFAULT;
    ber->ber_usertag = 0;
    return tag;
}

// The bytes of one `v` or `V` item.
void item_bytes(const char *s, const char *&p, size_t &n)
{
    p = s;
    n = std::strlen(s);
}

void item_bytes(const struct berval *bv, const char *&p, size_t &n)
{
    p = bv->bv_val;
    n = bv->bv_len;
}

// `v`: NUL-terminated strings; `V`: berval pointers; one OCTET STRING each. A missing array
// writes nothing; the first failure stops the loop.
template <class Item> long put_string_array(Encoder &e, uint64_t tag, Item *const *items)
{
    long rc = 0;
    for (; items != nullptr && *items != nullptr; ++items) {
        const char *p;
        size_t n;
        item_bytes(*items, p, n);
        if ((rc = put_string(e, tag, p, n)) < 0)
            return -1;
    }
    return rc;
}

long encode_letter(Encoder &e, char c, va_list *ap)
{
    BerElement *ber = e.ber;
    switch (c) {
    case 't':
        ber->ber_tag = va_arg(*ap, ber_tag_t);
        ber->ber_usertag = 1;
        return 0;
    case 'b': {
        unsigned char v = va_arg(*ap, int) != 0 ? 0xFF : 0x00;
        return put_element(e, take_tag(ber, 0x01), &v, 1);
    }
    case 'i':
        return put_int(e, take_tag(ber, 0x02), va_arg(*ap, int));
    case 'e':
        return put_int(e, take_tag(ber, 0x0A), va_arg(*ap, int));
    case 'n':
        return put_element(e, take_tag(ber, 0x05), nullptr, 0);
    case 'o': {
        const char *p = va_arg(*ap, const char *);
        int len = va_arg(*ap, int);
        uint64_t tag = take_tag(ber, 0x04);
        return len < 0 ? -1 : put_string(e, tag, p, static_cast<size_t>(len));
    }
    case 's': {
        const char *s = va_arg(*ap, const char *);
        uint64_t tag = take_tag(ber, 0x04);
        return s == nullptr ? -1 : put_string(e, tag, s, std::strlen(s));
    }
    case 'B': {
        const auto *p = va_arg(*ap, const unsigned char *);
        int bits = va_arg(*ap, int);
        return put_bitstring(e, take_tag(ber, 0x03), p, bits);
    }
    case 'v':
        return put_string_array(e, take_tag(ber, 0x04), va_arg(*ap, char **));
    case 'V':
        return put_string_array(e, take_tag(ber, 0x04), va_arg(*ap, struct berval **));
    case '{':
    case '[': {
        uint64_t tag = take_tag(ber, c == '{' ? 0x30 : 0x31);
        return e.fber ? fber_open(ber, tag) : plain_open(ber, tag);
    }
    case '}':
    case ']':
        (void)take_tag(ber, 0); // a 't' in front of a close is spent on it
        return e.fber ? fber_close(ber) : plain_close(ber);
    default:
        (void)take_tag(ber, 0);
        LDAP_TRACE(LDAP_TRC_BER, "unknown fmt %c\n", c);
        return -1;
    }
}

// Stops at the first element that fails. FBER: 0 on success; plain: the size of the last
// element written.
int encode(Encoder &e, const char *fmt, va_list *ap)
{
    if (e.ber == nullptr || fmt == nullptr)
        return -1;
    for (const char *f = fmt; *f != '\0'; ++f) {
        long rc = encode_letter(e, *f, ap);
        if (rc < 0)
            return -1;
        if (*f != 't')
            e.last = rc;
    }
    return e.fber ? 0 : static_cast<int>(e.last);
}

// What distinguishes the four printf entry points.
enum PrintfKind : unsigned {
    FBER_ONLY = 1,       // refuses a plain element
    TRANSLATE = 2,       // the element's words decide whether strings are translated
    PLAIN_TRANSLATE = 4, // as TRANSLATE, but only on the plain branch
};

int encode_va(BerElement *ber, unsigned kind, const char *fmt, va_list *ap)
{
    if (((kind & FBER_ONLY) != 0 && not_fber(ber)) || ber == nullptr)
        return -1;
    Encoder e{ber, ber_is_fber(ber), false};
    if ((kind & TRANSLATE) != 0 || ((kind & PLAIN_TRANSLATE) != 0 && !e.fber))
        e.xlate = ber_xlate_wanted(ber, ber_encoder_legacy);
    return encode(e, fmt, ap);
}

} // namespace

int fber_printf(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = encode_va(ber, FBER_ONLY | TRANSLATE, fmt, &ap);
    va_end(ap);
    return rc;
}

// For callers that translate values themselves (filters, control values).
int fber_printf_raw(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = encode_va(ber, FBER_ONLY, fmt, &ap);
    va_end(ap);
    return rc;
}

int ber_printf(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = encode_va(ber, 0, fmt, &ap);
    va_end(ap);
    return rc;
}

int ber_printf_xlate(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = encode_va(ber, PLAIN_TRANSLATE, fmt, &ap);
    va_end(ap);
    return rc;
}

// Raw append. On an FBER the bytes go at ber_ptr; on a plain BER into the innermost open
// sequence unless `nosos` is set or none is open.
long ber_write(BerElement *ber, const char *buf, ber_len_t len, int nosos)
{
    if (ber == nullptr || (buf == nullptr && len != 0) || len > static_cast<ber_len_t>(LONG_MAX))
        return -1;
    if (ber_is_fber(ber))
        return fber_write(ber, buf, len);
    if (len == 0)
        return 0;
    if (plain_reserve(ber, nosos, len) != 0)
        return -1;
    unsigned char *&at = plain_cursor(ber, nosos);
    std::memcpy(at, buf, len);
    at += len;
    if (nosos == 0 && open_sos(ber) != nullptr)
        open_sos(ber)->sos_clen += len;
    return static_cast<long>(len);
}

long fber_write(BerElement *ber, const char *buf, ber_len_t len)
{
    if (not_fber(ber) || (buf == nullptr && len != 0) || len > static_cast<ber_len_t>(LONG_MAX))
        return -1;
    if (len == 0)
        return 0;
    if (fber_reserve(ber, len) != 0)
        return -1;
    std::memcpy(ber->ber_ptr, buf, len);
    ber->ber_ptr += len;
    return static_cast<long>(len);
}
