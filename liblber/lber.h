// The BerElement record shared by the encoder, the decoder and the stream I/O, the Sockbuf of
// a connection, and every BER function of the library. FBER = the fast kind (one allocation,
// 4-byte patched lengths); plain BER = minimal lengths and multi-byte tags.
#ifndef WZR_LBER_LBER_H
#define WZR_LBER_LBER_H

#include <cstdint>
#include <sys/time.h>

#include "wzrldap.h"

using ber_tag_t = unsigned long;
using ber_len_t = unsigned long;
using ber_int_t = int;

inline constexpr ber_tag_t LBER_DEFAULT = ~0UL; // "no tag": the letter's own, or an error
inline constexpr ber_tag_t LBER_ERROR = ~0UL;
inline constexpr int LBER_USE_DER = 0x01;
inline constexpr int LBER_FBER = 0x80; // options bit that marks an FBER
// An FBER whose record lives inside its owner's allocation (fber_embed): it has no nesting
// stack, and fber_free releases what it holds but not the record.
inline constexpr int LBER_EMBEDDED = 0x40;
inline constexpr int FBER_DEFAULT_SIZE = 6144;
inline constexpr int FBER_MAX_NESTING = 100;
inline constexpr int FBER_STACK_BYTES = (FBER_MAX_NESTING + 1) * 4; // 404
inline constexpr long BER_WOULD_BLOCK = 11; // EAGAIN: the readers' "would block"

struct berelement {
    unsigned char *ber_buf; // start of the data (fill cursor while a PDU is being read)
    unsigned char *ber_ptr; // write position (encoding) or read position (decoding)
    unsigned char *ber_end; // capacity end while writing; data end while reading
    void *ber_sos;          // FBER: nesting stack; plain: innermost open Seqorset
    uint64_t ber_tag;       // pending 't' tag, or the PDU tag while reading
    uint64_t ber_len;       // length of the PDU being read
    int32_t ber_usertag;    // a 't' value is pending
    int8_t ber_options;     // LBER_USE_DER, LBER_FBER
    bool ber_nomem;         // the last failure on it was an allocation's (ber_out_of_memory)
    unsigned char *ber_rwptr;  // read/write position inside a partly moved PDU
    int32_t *ber_utf8_flag;    // owned copy: non-zero = application strings are UTF-8
    int32_t *ber_version;      // owned copy of the handle's protocol version
    unsigned char *ber_pending_nul; // behind the last value handed out in place
    uint64_t ber_lenbytes;          // long-form length bytes received so far
    int32_t ber_lenread;            // how many of them
    unsigned char *ber_heapbuf;     // the separately allocated buffer (nullptr: inline/none)
    int32_t ber_inline_size;        // FBER: size of the inline buffer
    // Room for the two words above inside the record itself, which ber_version and
    // ber_utf8_flag point at when the element's maker puts them there (one allocation less
    // each for every PDU read); a copy made by ber_dup goes on pointing at the original's.
    int32_t ber_own_version;
    int32_t ber_own_utf8;
    // FBER only: the inline buffer follows the record, then the 101-word nesting stack.
};

// Plain BER open-sequence record.
struct Seqorset {
    BerElement *sos_ber;
    uint64_t sos_clen;
    uint64_t sos_tag;
    unsigned char *sos_first;
    unsigned char *sos_ptr;
    Seqorset *sos_next;
};

inline bool ber_is_fber(const BerElement *ber) { return (ber->ber_options & LBER_FBER) != 0; }

// Whether the last call that failed on `ber` (a decoder, an encoder, the PDU reader) failed
// because memory ran out rather than on the bytes: its caller then reports "no memory", never
// a malformed message, a bad filter or a dead server. A PDU read that fails so leaves the
// stream in step, and the same read can be repeated. The calls that start a piece of work
// afresh (fber_scanf, ber_scanf, fber_scan_begin, the PDU readers) clear it, and a copy made
// by ber_dup starts clear.
inline bool ber_out_of_memory(const BerElement *ber) { return ber != nullptr && ber->ber_nomem; }
// The same mark for work on the element done outside the codec (a caller's copy of a filter).
inline void ber_note_out_of_memory(BerElement *ber) { ber->ber_nomem = true; }

// The socket record of a connection.
struct Sockbuf {
    int sb_sd;          // socket descriptor, -1 when none
    void *sb_secure;    // secure-socket handle; when set all I/O goes through the toolkit
    int sb_closing;     // positive: refuse all further reads and writes
    uint32_t sb_options; // 0x01 copy flushed PDUs to sb_copyfd, 0x02 write only there
    int sb_copyfd;
    // Read-ahead of the clear transport: bytes taken from the socket and not yet handed out
    // lie in sb_rabuf[sb_rapos, sb_raend). Allocated on the first read, released by
    // sockbuf_release_buffer; guarded like the reads themselves (the connection's read lock).
    unsigned char *sb_rabuf = nullptr;
    int32_t sb_rapos = 0;
    int32_t sb_raend = 0;
    // The last read took all the socket held (it came back short, or would have blocked): a
    // reader waiting for a fresh response waits for the socket before it reads again.
    bool sb_drained = false;
    // A byte source that replaces the descriptor for reading, so that the fuzzers can play a
    // server's bytes without a socket (asked with a null buffer, it says whether it is ready:
    // > 0 yes, 0 a time-out). Null in every real connection.
    long (*sb_read_hook)(void *ctx, void *buf, long len, int *would_block) = nullptr;
    void *sb_read_ctx = nullptr;
};
inline constexpr long SB_READ_AHEAD_SIZE = 64 * 1024;
inline constexpr uint32_t SB_COPY_TO_FD = 0x01;
inline constexpr uint32_t SB_ONLY_TO_FD = 0x02;

// Entry points of the secure-socket toolkit; empty until the secure transport is loaded.
struct SecureToolkit {
    int (*secure_soc_read)(void *handle, void *buf, int len, int *count);
    int (*secure_soc_write)(void *handle, const void *buf, int len, int *count);
    const char *(*strerror)(int code);
};
extern SecureToolkit wzr_skit;
inline constexpr int SKIT_WOULD_BLOCK = 502;
inline constexpr int SKIT_CLOSED = 406;

/* ---- element life (ber_alloc.cpp) ---- */
BerElement *fber_alloc_t(int size);
BerElement *fber_alloc();
// A reading element made inside its owner's allocation: the record at `at` (aligned for a
// BerElement), then `inline_size` bytes of room for the contents of a PDU that fits them (the
// PDU's length plus the NUL behind it), all freed with the owner. Nothing can be encoded into
// it. fber_embedded_bytes tells the owner how much to reserve.
size_t fber_embedded_bytes(size_t inline_size);
BerElement *fber_embed(void *at, size_t inline_size);
BerElement *ber_alloc_t(int options);
BerElement *ber_alloc();
BerElement *der_alloc();
// A record-only copy sharing the buffer (and the version/UTF-8 words) with `ber`, with its own
// read position: the private cursor of every parser. Release it with ber_free(copy, 0) or
// lber_free(copy); it owns nothing else.
BerElement *ber_dup(BerElement *ber);
BerElement *fber_init(const struct berval *bv);
BerElement *ber_init(const struct berval *bv);
// Wraps received bytes for decoding without copying them. On success the element takes over
// bv->bv_val (an lber allocation of at least bv_len + 1 bytes: the byte behind the data is where
// the in-place readers put their last NUL), frees it in fber_free, and clears bv_val/bv_len;
// on failure (nullptr) bv is left as it was.
BerElement *fber_init2(struct berval *bv);
void ber_reset(BerElement *ber, int was_writing);
void fber_free(BerElement *ber);
void ber_free(BerElement *ber, int freebuf);
int fber_flatten(BerElement *ber, struct berval **bvpp);
int ber_flatten(BerElement *ber, struct berval **bvpp);
void ber_bvfree(struct berval *bv);

/* ---- encoder (ber_encode.cpp) ---- */
int fber_printf(BerElement *ber, const char *fmt, ...);
int fber_printf_raw(BerElement *ber, const char *fmt, ...);
int ber_printf(BerElement *ber, const char *fmt, ...);
int ber_printf_xlate(BerElement *ber, const char *fmt, ...);
long ber_write(BerElement *ber, const char *buf, ber_len_t len, int nosos);
// Makes room for at least `len` more bytes at the write position of either kind of element
// (every pointer into the buffer moves with it): 0, or -1 when memory runs out.
int ber_realloc(BerElement *ber, ber_len_t len);
long fber_write(BerElement *ber, const char *buf, ber_len_t len);

/* ---- decoder (ber_decode.cpp) ---- */
ber_tag_t fber_skip_tag(BerElement *ber, ber_len_t *len);
ber_tag_t fber_peek_tag(BerElement *ber, ber_len_t *len);
ber_tag_t fber_first_element(BerElement *ber, ber_len_t *len, unsigned char **last);
ber_tag_t fber_next_element(BerElement *ber, ber_len_t *len, unsigned char *last);
ber_tag_t fber_get_int(BerElement *ber, int64_t *num);
ber_tag_t fber_get_null(BerElement *ber);
ber_tag_t fber_get_bitstring(BerElement *ber, char **buf, ber_len_t *bits);
ber_tag_t fber_get_stringa(BerElement *ber, char **buf);
ber_tag_t fber_get_stringal(BerElement *ber, struct berval **bv);
ber_tag_t fber_get_stringb(BerElement *ber, char *buf, ber_len_t *len);
ber_tag_t fber_get_string_copy(BerElement *ber, char **buf, ber_len_t *len);
// In-place readers hand out pointers into the element's buffer and NUL-terminate each value by
// writing over the first header byte of the element read after it; fber_finish_inplace
// terminates the last one. They write into the buffer, which a ber_dup cursor shares.
ber_tag_t fber_get_string_inplace(BerElement *ber, char **ptr);
int fber_get_stringlist_inplace(BerElement *ber, char ***list);
int fber_skip_element(BerElement *ber);
void fber_finish_inplace(BerElement *ber);
ber_tag_t fber_scanf(BerElement *ber, const char *fmt, ...);

ber_tag_t ber_skip_tag(BerElement *ber, ber_len_t *len);
ber_tag_t ber_peek_tag(BerElement *ber, ber_len_t *len);
ber_tag_t ber_first_element(BerElement *ber, ber_len_t *len, unsigned char **last);
ber_tag_t ber_next_element(BerElement *ber, ber_len_t *len, unsigned char *last);
ber_tag_t ber_get_int(BerElement *ber, int64_t *num);
ber_tag_t ber_get_stringa(BerElement *ber, char **buf);
ber_tag_t ber_get_stringal(BerElement *ber, struct berval **bv);
ber_tag_t ber_get_stringb(BerElement *ber, char *buf, ber_len_t *len);
ber_tag_t ber_scanf(BerElement *ber, const char *fmt, ...);
ber_tag_t ber_scanf_w(BerElement *ber, const char *fmt, ...);

/* ---- stream I/O (ber_io.cpp) ---- */
long fber_socket_read_nb(Sockbuf *sb, void *buf, long len, int *would_block);
int FBerReadDirect_nb(Sockbuf *sb, unsigned char *buf, long len, long *remaining);
long fber_get_next_nb(Sockbuf *sb, BerElement *ber, uint32_t *progress);
// The blocking readers of either kind of element, on the same framing rules and limits as
// fber_get_next_nb: ber_get_next waits until one whole PDU has arrived and returns its tag
// with *len its contents length (LBER_DEFAULT on error or end of stream; the element must be
// fresh); ber_socket_read waits for at least one byte: the count, 0 at the end, -1.
ber_tag_t ber_get_next(Sockbuf *sb, ber_len_t *len, BerElement *ber);
long ber_socket_read(Sockbuf *sb, void *buf, long len);
// Whether a reader's result of 11 means a complete PDU whose tag is 11 rather than "would block".
bool ber_pdu_complete(const BerElement *ber, uint32_t progress);

/* ---- the PDU parser (ber_pdu.cpp) ----
 * Frames one PDU into `ber` from bytes handed in as they arrive. *progress as for
 * fber_get_next_nb. ber_pdu_feed consumes (*used) the bytes that belong to this PDU and returns
 * its tag once complete, 11 while more are needed, -1 for bytes no LDAP PDU can start with
 * (or no memory). ber_pdu_room and ber_pdu_filled are the zero-copy form for large contents:
 * where the next content bytes go and how many fit there (0 outside the contents), then how
 * many were put there. */
long ber_pdu_feed(BerElement *ber, uint32_t *progress, const unsigned char *bytes, size_t len,
                  size_t *used);
long ber_pdu_room(BerElement *ber, uint32_t progress, unsigned char **dst);
long ber_pdu_filled(BerElement *ber, uint32_t *progress, size_t n);
// Waits until the socket is readable: the ready count, 0 on time-out, -1 on error, or
// FBER_SELECT_WOKEN when `wake_fd` (an eventfd, or -1 for none) was written to first.
int fber_select(Sockbuf *sb, struct timeval *timeout, int wake_fd = -1);
inline constexpr int FBER_SELECT_WOKEN = -2;
void sockbuf_release_buffer(Sockbuf *sb); // frees the read-ahead; buffered bytes are dropped
long sockbuf_buffered(const Sockbuf *sb); // bytes read ahead and not yet handed out
// The size (header and contents) of the PDU at the front of the read-ahead when all of it is
// there, else 0: reading it then costs no system call and cannot block.
size_t sockbuf_buffered_pdu_size(const Sockbuf *sb);
long BerWrite_nb(Sockbuf *sb, const unsigned char *buf, long len);
long BerWrite(Sockbuf *sb, const unsigned char *buf, long len);
int fber_flush_nb(Sockbuf *sb, BerElement *ber);
int ber_flush(Sockbuf *sb, BerElement *ber, int freeit);
void fber_dump(BerElement *ber, int inout);
// Whether an attribute description (with any options, in any case) names a password.
bool ber_is_password_attribute(const char *desc, size_t len);
void ber_dump(BerElement *ber, int inout);
// The same masked dumps written to a descriptor of the caller's, whatever the trace mask.
void fber_dump_with_fd(BerElement *ber, int inout, int fd);
void ber_dump_with_fd(BerElement *ber, int inout, int fd);
void ber_sos_dump(Seqorset *sos);
void ber_dump_masked(const unsigned char *data, long len, const char *title);

#endif
