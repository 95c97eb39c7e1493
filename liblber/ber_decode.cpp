// The format-driven BER decoder and its element readers. One set of readers serves both kinds;
// they differ only in the header (FBER: one-byte tags; plain: tags of up to 8 bytes and lengths
// that must fit the data), in integers (FBER does not sign-extend lengths 2..8) and in `l`.
// Every reader bounds-checks against ber_end and fails with LBER_ERROR rather than reading past.
#include <cstdarg>
#include <cstdint>
#include <cstring>

#include "../trace/ldap_trace.h"
#include "ber_int.h"
#include "ber_memory.h"
#include "ber_xlate.h"
#include "lber.h"

namespace {

// The header readers and the value-set steps are inlined into each reader in optimised builds,
// where the hot walkers spend their time in them. A debug build keeps each one a function of its
// own, so that coverage counts each of their branches once rather than once per caller.
#ifdef NDEBUG
#define WZR_HOT [[gnu::always_inline]] inline
#else
#define WZR_HOT inline
#endif

constexpr ber_len_t MAX_CONTENTS = 0x7FFFFFEF;

// A reader's failure for want of memory, marked on the element (ber_out_of_memory).
ber_tag_t out_of_memory(BerElement *ber)
{
    ber_note_out_of_memory(ber);
    return LBER_ERROR;
}

// Whether a translation failed; one that ran out of memory marks the element.
bool xlate_failed(BerElement *ber, int rc)
{
    if (rc == LDAP_NO_MEMORY)
        ber_note_out_of_memory(ber);
    return rc != 0;
}

inline size_t remaining(const BerElement *ber)
{
    return ber->ber_ptr != nullptr && ber->ber_ptr < ber->ber_end
               ? static_cast<size_t>(ber->ber_end - ber->ber_ptr)
               : 0;
}

// Header of the next element: the tag, then the length (short form, or 0x80|n and n <= 8
// big-endian bytes). Leaves ber_ptr at the contents; moves nothing on failure. Inlined so that
// each reader gets the variant for its kind, with the high-tag branch gone from FBER readers.
WZR_HOT ber_tag_t read_header(BerElement *ber, bool fber, ber_len_t *len)
{
    size_t left = remaining(ber);
    if (left < 2)
        return LBER_ERROR;
    const unsigned char *p = ber->ber_ptr;
    ber_tag_t tag = *p++;
    --left;
    if ((tag & 0x1F) == 0x1F) {
        if (fber)
            return LBER_ERROR;
        // High tag number: further bytes while their top bit is set, 8 bytes in all at most.
        int n = 1;
        unsigned char c;
        do {
            if (left == 0 || n == 8)
                return LBER_ERROR;
            c = *p++;
            --left;
            ++n;
            tag = (tag << 8) | c;
        } while ((c & 0x80) != 0);
    }
    if (left == 0)
        return LBER_ERROR;
    ber_len_t l = *p++;
    --left;
    if ((l & 0x80) != 0) {
        size_t n = l & 0x7F;
        if (n > 8 || n > left)
            return LBER_ERROR;
        l = 0;
        for (size_t i = 0; i < n; ++i)
            l = (l << 8) | *p++;
        left -= n;
    }
    if (!fber && l > left)
        return LBER_ERROR;
    ber->ber_ptr = const_cast<unsigned char *>(p);
    *len = l;
    return tag;
}

// A header whose contents the caller is about to take: they must be in the data.
WZR_HOT ber_tag_t read_contents_header(BerElement *ber, bool fber, ber_len_t *len)
{
    unsigned char *start = ber->ber_ptr;
    ber_tag_t tag = read_header(ber, fber, len);
    if (tag != LBER_ERROR && (*len > remaining(ber) || *len > MAX_CONTENTS)) {
        ber->ber_ptr = start;
        return LBER_ERROR;
    }
    return tag;
}

WZR_HOT ber_tag_t peek_tag(BerElement *ber, bool fber, ber_len_t *len)
{
    unsigned char *start = ber->ber_ptr;
    ber_tag_t tag = read_header(ber, fber, len);
    ber->ber_ptr = start;
    return tag;
}

// SEQUENCE/SET header; its end goes to *last. The contents must be in the data.
WZR_HOT FberList open_set(BerElement *ber, bool fber, ber_tag_t *tag, ber_len_t *len, unsigned char **last)
{
    if ((*tag = read_contents_header(ber, fber, len)) == LBER_ERROR)
        return FberList::Error;
    *last = ber->ber_ptr + *len;
    return *len == 0 ? FberList::Empty : FberList::Members;
}

ber_tag_t first_element(BerElement *ber, bool fber, ber_len_t *len, unsigned char **last)
{
    ber_tag_t tag;
    if (open_set(ber, fber, &tag, len, last) != FberList::Members)
        return LBER_ERROR;
    return peek_tag(ber, fber, len);
}

ber_tag_t next_element(BerElement *ber, bool fber, ber_len_t *len, unsigned char *last)
{
    if (ber->ber_ptr >= last)
        return LBER_ERROR;
    return peek_tag(ber, fber, len);
}

// INTEGER/ENUMERATED/BOOLEAN: at most 8 content bytes. The plain reader sign-extends every
// length; the FBER reader only a single byte (its own encoder writes lengths 1 and 4 only).
ber_tag_t get_int(BerElement *ber, bool fber, int64_t *num)
{
    ber_len_t len;
    ber_tag_t tag = read_contents_header(ber, fber, &len);
    if (tag == LBER_ERROR || len > 8)
        return LBER_ERROR;
    const unsigned char *p = ber->ber_ptr;
    uint64_t v = 0;
    if (len != 0 && (p[0] & 0x80) != 0 && (len == 1 || !fber))
        v = ~static_cast<uint64_t>(0);
    for (ber_len_t i = 0; i < len; ++i)
        v = (v << 8) | p[i];
    ber->ber_ptr += len;
    *num = static_cast<int64_t>(v);
    return tag;
}

ber_tag_t get_null(BerElement *ber, bool fber)
{
    ber_len_t len;
    ber_tag_t tag = read_header(ber, fber, &len);
    return tag != LBER_ERROR && len == 0 ? tag : LBER_ERROR;
}

// BIT STRING: the unused-bits byte, then the bytes; bit count = bytes * 8 - unused.
ber_tag_t get_bitstring(BerElement *ber, bool fber, char **buf, ber_len_t *bits)
{
    *buf = nullptr;
    ber_len_t len;
    unsigned char *start = ber->ber_ptr;
    ber_tag_t tag = read_contents_header(ber, fber, &len);
    if (tag == LBER_ERROR)
        return LBER_ERROR;
    unsigned unused = len != 0 ? ber->ber_ptr[0] : 8;
    ber_len_t nbytes = len != 0 ? len - 1 : 0;
    if (unused > 7 || (nbytes == 0 && unused != 0)) {
        ber->ber_ptr = start;
        return LBER_ERROR;
    }
    *buf = static_cast<char *>(lber_malloc(nbytes));
    if (*buf == nullptr) {
        ber->ber_ptr = start;
        return out_of_memory(ber);
    }
    std::memcpy(*buf, ber->ber_ptr + 1, nbytes);
    *bits = nbytes * 8 - unused;
    ber->ber_ptr += len;
    return tag;
}

// An allocated, NUL-terminated copy of `len` wire bytes, converted to the local code page when
// the call translates (empty values never are).
int copy_value(BerElement *ber, ber_len_t len, bool xlate, char **out, ber_len_t *outlen)
{
    const unsigned char *p = ber->ber_ptr;
    if (xlate && len != 0) {
        char *conv;
        size_t conv_len;
        if (xlate_failed(ber, ber_xlate_from_wire(reinterpret_cast<const char *>(p), len, &conv,
                                                  &conv_len)))
            return -1;
        if (conv != nullptr) {
            *out = conv;
            *outlen = conv_len;
            return 0;
        }
    }
    char *s = static_cast<char *>(lber_malloc(len + 1));
    if (s == nullptr)
        return out_of_memory(ber), -1;
    std::memcpy(s, p, len);
    s[len] = '\0';
    *out = s;
    *outlen = len;
    return 0;
}

// OCTET STRING into an allocated, NUL-terminated value and its length.
ber_tag_t get_value(BerElement *ber, bool fber, bool xlate, char **buf, ber_len_t *len)
{
    *buf = nullptr;
    ber_len_t vlen;
    unsigned char *start = ber->ber_ptr;
    ber_tag_t tag = read_contents_header(ber, fber, &vlen);
    if (tag == LBER_ERROR || copy_value(ber, vlen, xlate, buf, len) != 0) {
        ber->ber_ptr = start;
        return LBER_ERROR;
    }
    ber->ber_ptr += vlen;
    return tag;
}

// `a` and the `v` member reader.
ber_tag_t get_stringa(BerElement *ber, bool fber, bool xlate, char **buf)
{
    ber_len_t len;
    return get_value(ber, fber, xlate, buf, &len);
}

// `O` and the `V` member reader: the berval and its value are freed together on failure.
ber_tag_t get_stringal(BerElement *ber, bool fber, bool xlate, struct berval **bvp)
{
    auto *bv = static_cast<struct berval *>(lber_malloc(sizeof(struct berval)));
    *bvp = nullptr;
    if (bv == nullptr)
        return out_of_memory(ber);
    ber_tag_t tag = get_value(ber, fber, xlate, &bv->bv_val, &bv->bv_len);
    if (tag == LBER_ERROR) {
        lber_free(bv);
        return LBER_ERROR;
    }
    *bvp = bv;
    return tag;
}

// OCTET STRING into the caller's buffer of *len bytes; the value and its NUL must fit, also
// after conversion. *len becomes the value's length without the NUL.
ber_tag_t get_stringb(BerElement *ber, bool fber, bool xlate, char *buf, ber_len_t *len)
{
    ber_len_t size = *len;
    ber_len_t vlen;
    unsigned char *start = ber->ber_ptr;
    ber_tag_t tag = read_contents_header(ber, fber, &vlen);
    if (tag == LBER_ERROR || size == 0 || vlen > size - 1) {
        ber->ber_ptr = start;
        return LBER_ERROR;
    }
    const char *value = reinterpret_cast<const char *>(ber->ber_ptr);
    char *conv = nullptr;
    size_t conv_len = vlen;
    if (xlate && vlen != 0 && xlate_failed(ber, ber_xlate_from_wire(value, vlen, &conv, &conv_len))) {
        ber->ber_ptr = start;
        return LBER_ERROR;
    }
    if (conv != nullptr && conv_len > size - 1) {
        lber_free(conv);
        ber->ber_ptr = start;
        return LBER_ERROR;
    }
    std::memcpy(buf, conv != nullptr ? conv : value, conv_len);
    buf[conv_len] = '\0';
    lber_free(conv);
    *len = conv_len;
    ber->ber_ptr += vlen;
    return tag;
}

// A pointer to the value inside the buffer. The previous in-place value is terminated now, by a
// NUL over the first header byte of this element, which has just been read.
ber_tag_t get_string_inplace(BerElement *ber, bool fber, char **ptr)
{
    *ptr = nullptr;
    ber_len_t len;
    ber_tag_t tag = read_contents_header(ber, fber, &len);
    if (tag == LBER_ERROR)
        return LBER_ERROR;
    if (ber->ber_pending_nul != nullptr)
        *ber->ber_pending_nul = '\0';
    *ptr = reinterpret_cast<char *>(ber->ber_ptr);
    ber->ber_ptr += len;
    ber->ber_pending_nul = ber->ber_ptr;
    return tag;
}

/* ---- SET OF / SEQUENCE OF strings ---- */

void release_item(char *s) { lber_free(s); }
void release_item(struct berval *bv) { ber_bvfree(bv); }

// How many members the list loop will read, found by walking their headers exactly as that loop
// does (each member's contents in the data, the next header readable while the set lasts), so
// that a list which cannot decode fails before anything is allocated. 0: it cannot decode.
// *bytes: the contents bytes of the members plus one per member (a NUL each). No overflow:
// every member lies in the buffer.
WZR_HOT size_t count_members(BerElement *ber, bool fber, const unsigned char *last, size_t *bytes)
{
    unsigned char *start = ber->ber_ptr;
    size_t count = 0;
    ber_len_t len;
    bool ok;
    *bytes = 0;
    do {
        ok = read_contents_header(ber, fber, &len) != LBER_ERROR;
        if (!ok)
            break;
        ber->ber_ptr += len;
        *bytes += len + 1;
        ++count;
    } while (ber->ber_ptr < last && (ok = peek_tag(ber, fber, &len) != LBER_ERROR));
    ber->ber_ptr = start;
    return ok ? count : 0;
}

// The members of one SET/SEQUENCE into a null-terminated array allocated once at its final size.
// `read` takes one member. Empty: no array, FberList::Empty. Any failure frees every member read
// and the array.
template <class Item, class Read>
FberList read_list(BerElement *ber, bool fber, Item ***out, bool owned, ber_tag_t *set_tag,
                   Read read)
{
    *out = nullptr;
    ber_len_t len;
    unsigned char *last;
    FberList opened = open_set(ber, fber, set_tag, &len, &last);
    if (opened != FberList::Members)
        return opened;
    size_t bytes;
    size_t count = count_members(ber, fber, last, &bytes);
    if (count == 0)
        return FberList::Error;
    auto **items = static_cast<Item **>(lber_malloc((count + 1) * sizeof(Item *)));
    if (items == nullptr)
        return out_of_memory(ber), FberList::Error;
    for (size_t i = 0; i < count; ++i) {
        if (read(&items[i]) == LBER_ERROR) { // allocation or translation: the headers are sound
            for (size_t j = 0; owned && j < i; ++j)
                release_item(items[j]);
            lber_free(items);
            return FberList::Error;
        }
    }
    items[count] = nullptr;
    *out = items;
    return FberList::Members;
}

// A caller-owned list of allocated members; the read position goes back on failure.
template <class Item, class Read>
FberList read_owned_list(BerElement *ber, bool fber, Item ***out, ber_tag_t *tag, Read read)
{
    unsigned char *start = ber->ber_ptr;
    FberList r = read_list(ber, fber, out, true, tag, read);
    if (r == FberList::Error)
        ber->ber_ptr = start;
    return r;
}

/* ---- a value set in one block ---- */

// A member's value as it goes into a block: the wire bytes, or their translation (owned by
// `conv`, which the caller frees once the bytes are copied).
struct BlockValue {
    const char *data;
    ber_len_t len;
    char *conv;
};

// The next member (its header already checked by count_members), translated when asked.
WZR_HOT bool read_block_value(BerElement *ber, bool xlate, BlockValue *v)
{
    *v = {};
    ber_len_t len;
    if (read_contents_header(ber, true, &len) == LBER_ERROR)
        return false;
    *v = {reinterpret_cast<const char *>(ber->ber_ptr), len, nullptr};
    ber->ber_ptr += len;
    size_t conv_len;
    if (!xlate || len == 0)
        return true;
    if (xlate_failed(ber, ber_xlate_from_wire(v->data, len, &v->conv, &conv_len)))
        return false;
    if (v->conv != nullptr)
        *v = {v->conv, conv_len, v->conv};
    return true;
}

// Bytes of the `count` translated values from the read position, each with its NUL, found by
// translating them; the fill pass translates them again, which only the legacy translation mode
// pays for. 0: a value could not be translated or the sum does not fit.
size_t translated_bytes(BerElement *ber, size_t count)
{
    unsigned char *start = ber->ber_ptr;
    size_t bytes = 0;
    for (size_t i = 0; i < count; ++i) {
        BlockValue v;
        bool ok = read_block_value(ber, true, &v);
        lber_free(v.conv);
        if (!ok || v.len >= SIZE_MAX - bytes) {
            bytes = 0;
            break;
        }
        bytes += v.len + 1;
    }
    ber->ber_ptr = start;
    return bytes;
}

// Fills a block laid out as [count + 1 pointers][count bervals][the values, NUL-terminated],
// `room` bytes for the values. A translation longer than when it was measured fails the set
// rather than overrun the block.
WZR_HOT bool fill_block(BerElement *ber, bool xlate, size_t count, struct berval **items, size_t room)
{
    auto *records = reinterpret_cast<struct berval *>(items + count + 1);
    char *bytes = reinterpret_cast<char *>(records + count);
    const char *end = bytes + room;
    for (size_t i = 0; i < count; ++i) {
        BlockValue v;
        if (!read_block_value(ber, xlate, &v) || v.len >= static_cast<size_t>(end - bytes)) {
            lber_free(v.conv);
            return false;
        }
        std::memcpy(bytes, v.data, v.len);
        bytes[v.len] = '\0';
        lber_free(v.conv);
        records[i] = {v.len, bytes};
        items[i] = &records[i];
        bytes += v.len + 1;
    }
    items[count] = nullptr;
    return true;
}

/* ---- scanf ---- */

struct Decoder {
    BerElement *ber;
    bool fber;
    bool xlate;
};

void trace_scan(const BerElement *ber, const char *who, const char *fmt)
{
    if (!ldap_debug_class_on(LDAP_TRC_BER))
        return;
    long total = ber->ber_end > ber->ber_buf ? static_cast<long>(ber->ber_end - ber->ber_buf) : 0;
    if (ber->ber_ptr == ber->ber_buf) {
        ldap_debug_print(LDAP_TRC_BER, "%s fmt (%s) ber:\n", who, fmt);
        ber_dump_masked(ber->ber_buf, total, nullptr);
    } else {
        ldap_debug_print(LDAP_TRC_BER, "%s fmt (%s) offset=%ld length=%ld\n", who, fmt,
                         static_cast<long>(ber->ber_ptr - ber->ber_buf), total);
    }
}

// `v`/`V`. An empty set leaves the result of the previous letter standing.
template <class Item, class Read>
ber_tag_t scan_list(Decoder &d, va_list *ap, ber_tag_t previous, Read read)
{
    ber_tag_t tag;
    switch (read_owned_list(d.ber, d.fber, va_arg(*ap, Item ***), &tag, read)) {
    case FberList::Empty:
        return previous;
    case FberList::Members:
        return tag;
    default:
        return LBER_ERROR;
    }
}

ber_tag_t scan_letter(Decoder &d, const char *f, va_list *ap, ber_tag_t previous)
{
    BerElement *ber = d.ber;
    bool fber = d.fber;
    ber_len_t len;
    switch (*f) {
    case 'a':
        return get_stringa(ber, fber, d.xlate, va_arg(*ap, char **));
    case 's': {
        char *buf = va_arg(*ap, char *);
        return get_stringb(ber, fber, d.xlate, buf, va_arg(*ap, ber_len_t *));
    }
    case 'O':
        return get_stringal(ber, fber, d.xlate, va_arg(*ap, struct berval **));
    case 'o': {
        auto *bv = va_arg(*ap, struct berval *);
        bv->bv_val = nullptr;
        bv->bv_len = 0;
        if (peek_tag(ber, fber, &len) == LBER_ERROR)
            return LBER_ERROR;
        return get_value(ber, fber, false, &bv->bv_val, &bv->bv_len);
    }
    case 'b':
    case 'i':
    case 'e': {
        int *out = va_arg(*ap, int *);
        int64_t v;
        ber_tag_t tag = get_int(ber, fber, &v);
        if (tag != LBER_ERROR)
            *out = static_cast<int>(v);
        return tag;
    }
    case 'B': {
        char **buf = va_arg(*ap, char **);
        return get_bitstring(ber, fber, buf, va_arg(*ap, ber_len_t *));
    }
    case 'n':
        return get_null(ber, fber);
    case 't':
    case 'T': {
        auto *out = va_arg(*ap, uint32_t *);
        ber_tag_t tag = *f == 't' ? peek_tag(ber, fber, &len) : read_header(ber, fber, &len);
        if (tag != LBER_ERROR)
            *out = static_cast<uint32_t>(tag);
        return tag;
    }
    case 'l': {
        // The FBER reader consumes the argument without storing into it; the plain one stores.
        ber_len_t *out = va_arg(*ap, ber_len_t *);
        ber_tag_t tag = peek_tag(ber, fber, &len);
        if (tag != LBER_ERROR && !fber)
            *out = len;
        return tag;
    }
    case 'x': {
        ber_tag_t tag = read_contents_header(ber, fber, &len);
        if (tag != LBER_ERROR)
            ber->ber_ptr += len;
        return tag;
    }
    case '{':
    case '[':
        // `v` and `V` read the header of their set themselves.
        if (f[1] == 'v' || f[1] == 'V')
            return previous;
        return read_header(ber, fber, &len);
    case '}':
    case ']':
        return previous;
    case 'v':
        return scan_list<char>(d, ap, previous, [&d](char **slot) {
            return get_stringa(d.ber, d.fber, d.xlate, slot);
        });
    case 'V':
        return scan_list<struct berval>(d, ap, previous, [&d](struct berval **slot) {
            return get_stringal(d.ber, d.fber, d.xlate, slot);
        });
    default:
        LDAP_TRACE(LDAP_TRC_BER, "unknown fmt %c\n", *f);
        return LBER_ERROR;
    }
}

// The tag of the last element read, 0 for an empty format, LBER_ERROR at the first failure.
ber_tag_t scan(BerElement *ber, bool fber, const char *who, const char *fmt, va_list *ap)
{
    if (ber == nullptr || fmt == nullptr)
        return LBER_ERROR;
    ber->ber_nomem = false;
    if (fber) {
        if (!fber_scan_begin(ber, fmt))
            return LBER_ERROR;
    } else if (ldap_debug_enabled()) {
        trace_scan(ber, who, fmt);
    }
    Decoder d{ber, fber, ber_xlate_wanted(ber, ber_decoder_legacy)};
    ber_tag_t rc = 0;
    for (const char *f = fmt; *f != '\0'; ++f) {
        rc = scan_letter(d, f, ap, rc);
        if (rc == LBER_ERROR)
            return LBER_ERROR;
    }
    return rc;
}

// Public readers decide translation for themselves, as one scanf call would.
bool reader_xlate(const BerElement *ber) { return ber_xlate_wanted(ber, ber_decoder_legacy); }

} // namespace

ber_tag_t fber_scanf(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    ber_tag_t rc = scan(ber, true, "fber_scanf", fmt, &ap);
    va_end(ap);
    return rc;
}

ber_tag_t ber_scanf(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    ber_tag_t rc = scan(ber, false, "ber_scanf", fmt, &ap);
    va_end(ap);
    return rc;
}

ber_tag_t ber_scanf_w(BerElement *ber, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    ber_tag_t rc = scan(ber, false, "ber_scanf_w", fmt, &ap);
    va_end(ap);
    return rc;
}

/* ---- FBER element readers ---- */

ber_tag_t fber_skip_tag(BerElement *ber, ber_len_t *len) { return read_header(ber, true, len); }
ber_tag_t fber_peek_tag(BerElement *ber, ber_len_t *len) { return peek_tag(ber, true, len); }

ber_tag_t fber_first_element(BerElement *ber, ber_len_t *len, unsigned char **last)
{
    return first_element(ber, true, len, last);
}

ber_tag_t fber_next_element(BerElement *ber, ber_len_t *len, unsigned char *last)
{
    return next_element(ber, true, len, last);
}

ber_tag_t fber_get_int(BerElement *ber, int64_t *num) { return get_int(ber, true, num); }
ber_tag_t fber_get_null(BerElement *ber) { return get_null(ber, true); }

ber_tag_t fber_get_bitstring(BerElement *ber, char **buf, ber_len_t *bits)
{
    return get_bitstring(ber, true, buf, bits);
}

ber_tag_t fber_get_stringa(BerElement *ber, char **buf)
{
    return get_stringa(ber, true, reader_xlate(ber), buf);
}

ber_tag_t fber_get_stringal(BerElement *ber, struct berval **bv)
{
    return get_stringal(ber, true, reader_xlate(ber), bv);
}

ber_tag_t fber_get_stringb(BerElement *ber, char *buf, ber_len_t *len)
{
    return get_stringb(ber, true, reader_xlate(ber), buf, len);
}

ber_tag_t fber_get_string_copy(BerElement *ber, char **buf, ber_len_t *len)
{
    return get_value(ber, true, false, buf, len);
}

ber_tag_t fber_get_string_inplace(BerElement *ber, char **ptr)
{
    return get_string_inplace(ber, true, ptr);
}

int fber_get_stringlist_inplace(BerElement *ber, char ***list)
{
    ber_tag_t tag;
    FberList r = read_list(ber, true, list, false, &tag,
                          [ber](char **slot) { return get_string_inplace(ber, true, slot); });
    return r == FberList::Error ? -1 : 0;
}

// Header and contents, the contents cut short at the end of the data.
int fber_skip_element(BerElement *ber)
{
    ber_len_t len;
    if (read_header(ber, true, &len) == LBER_ERROR)
        return -1;
    size_t left = remaining(ber);
    ber->ber_ptr += len < left ? len : left;
    return 0;
}

void fber_finish_inplace(BerElement *ber)
{
    if (ber != nullptr && ber->ber_pending_nul != nullptr) {
        *ber->ber_pending_nul = '\0';
        ber->ber_pending_nul = nullptr;
    }
}

/* ---- FBER readers for hot walkers (see ber_int.h) ---- */

bool fber_xlate_wanted(const BerElement *ber) { return reader_xlate(ber); }

bool fber_scan_begin(BerElement *ber, const char *fmt)
{
    ber->ber_nomem = false;
    if (!ber_is_fber(ber)) {
        LDAP_TRACE(LDAP_TRC_ERROR, "BerElement %p is not an FBER!!!\n", static_cast<const void *>(ber));
        return false;
    }
    if (ldap_debug_enabled())
        trace_scan(ber, "fber_scanf", fmt);
    return true;
}

ber_tag_t fber_skip_contents(BerElement *ber)
{
    ber_len_t len;
    ber_tag_t tag = read_contents_header(ber, true, &len);
    if (tag != LBER_ERROR)
        ber->ber_ptr += len;
    return tag;
}

ber_tag_t fber_get_string_view(BerElement *ber, const char **value, ber_len_t *len)
{
    ber_tag_t tag = read_contents_header(ber, true, len);
    if (tag == LBER_ERROR)
        return LBER_ERROR;
    *value = reinterpret_cast<const char *>(ber->ber_ptr);
    ber->ber_ptr += *len;
    return tag;
}

ber_tag_t fber_get_stringb_as(BerElement *ber, bool xlate, char *buf, ber_len_t *len)
{
    return get_stringb(ber, true, xlate, buf, len);
}

ber_tag_t fber_get_stringa_as(BerElement *ber, bool xlate, char **buf)
{
    return get_stringa(ber, true, xlate, buf);
}

FberList fber_get_string_list(BerElement *ber, bool xlate, char ***out)
{
    ber_tag_t tag;
    return read_owned_list(ber, true, out, &tag,
                           [ber, xlate](char **slot) { return get_stringa(ber, true, xlate, slot); });
}

FberList fber_get_berval_block(BerElement *ber, bool xlate, struct berval ***out)
{
    *out = nullptr;
    unsigned char *start = ber->ber_ptr;
    ber_tag_t tag;
    ber_len_t len;
    unsigned char *last;
    FberList opened = open_set(ber, true, &tag, &len, &last);
    if (opened != FberList::Members)
        return opened; // a set that cannot be opened has not moved the read position
    size_t bytes;
    size_t count = count_members(ber, true, last, &bytes);
    if (xlate && count != 0)
        bytes = translated_bytes(ber, count);
    size_t records = (count + 1) * sizeof(struct berval *) + count * sizeof(struct berval);
    auto **items = bytes != 0 && bytes < SIZE_MAX - records
                       ? static_cast<struct berval **>(lber_malloc(records + bytes))
                       : nullptr;
    if (items == nullptr && bytes != 0 && bytes < SIZE_MAX - records)
        ber_note_out_of_memory(ber);
    if (items == nullptr || !fill_block(ber, xlate, count, items, bytes)) {
        lber_free(items);
        ber->ber_ptr = start;
        return FberList::Error;
    }
    *out = items;
    return FberList::Members;
}

/* ---- plain BER element readers ---- */

ber_tag_t ber_skip_tag(BerElement *ber, ber_len_t *len) { return read_header(ber, false, len); }
ber_tag_t ber_peek_tag(BerElement *ber, ber_len_t *len) { return peek_tag(ber, false, len); }

ber_tag_t ber_first_element(BerElement *ber, ber_len_t *len, unsigned char **last)
{
    return first_element(ber, false, len, last);
}

ber_tag_t ber_next_element(BerElement *ber, ber_len_t *len, unsigned char *last)
{
    return next_element(ber, false, len, last);
}

ber_tag_t ber_get_int(BerElement *ber, int64_t *num) { return get_int(ber, false, num); }

ber_tag_t ber_get_stringa(BerElement *ber, char **buf)
{
    return get_stringa(ber, false, reader_xlate(ber), buf);
}

ber_tag_t ber_get_stringal(BerElement *ber, struct berval **bv)
{
    return get_stringal(ber, false, reader_xlate(ber), bv);
}

ber_tag_t ber_get_stringb(BerElement *ber, char *buf, ber_len_t *len)
{
    return get_stringb(ber, false, reader_xlate(ber), buf, len);
}
