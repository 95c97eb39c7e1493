// Internals shared by the BER encoder and decoder: the FBER nesting stack, the once-per-process
// legacy translation switch, the per-call decision whether strings are translated, and the
// direct FBER readers that hot walkers use instead of interpreting a format string.
#ifndef WZR_LBER_BER_INT_H
#define WZR_LBER_BER_INT_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "lber.h"

// The nesting stack sits behind the inline buffer, rounded up so its words are aligned.
inline size_t fber_stack_offset(int inline_size)
{
    return (static_cast<size_t>(inline_size) + 3u) & ~static_cast<size_t>(3u);
}

inline unsigned char *fber_inline_buffer(BerElement *ber)
{
    return reinterpret_cast<unsigned char *>(ber + 1);
}

// The stack the element's own allocation carries. A cursor made by ber_dup points its ber_sos at
// the original's stack, which is how an owner is told from a cursor.
inline uint32_t *fber_own_stack(BerElement *ber)
{
    return reinterpret_cast<uint32_t *>(fber_inline_buffer(ber) +
                                        fber_stack_offset(ber->ber_inline_size));
}

inline bool fber_owns_allocation(BerElement *ber)
{
    return ber->ber_sos == static_cast<void *>(fber_own_stack(ber));
}

// "LDAP_LEGACY_UTF8_XLATE_MODE" read once per process. The encoder and the decoder each keep
// their own flag, so each traces its own first reading.
class LegacyXlateMode {
public:
    // True when the variable is set (any value): translation is off for good.
    bool on()
    {
        int s = state_.load(std::memory_order_acquire);
        return s >= 0 ? s == 1 : read_once();
    }
    void reset_for_tests() { state_.store(-1); }

private:
    bool read_once();
    std::atomic<int> state_{-1}; // -1 unread, -2 being read, 0 off, 1 on
};

extern LegacyXlateMode ber_encoder_legacy;
extern LegacyXlateMode ber_decoder_legacy;

// Whether the strings of one call are translated: not in legacy mode, not when the element says
// the application's strings are UTF-8 already, not below protocol version 3, and not when the
// local code page is UTF-8 itself (the bytes pass through untouched).
bool ber_xlate_wanted(const BerElement *ber, LegacyXlateMode &legacy);

// Test hook: forget both legacy flags so the variable is read again.
void ber_xlate_reset_for_tests();

/* ---- direct FBER readers (ber_decode.cpp) ----
 * Each reads exactly what its fber_scanf letter reads, with the same checks and failures, but
 * takes the translation decision from its caller: a walker decides once per call
 * (fber_xlate_wanted) as one scanf call would, and reads many elements without parsing a format.
 * fber_scan_begin does what fber_scanf does before its first letter: it refuses (false, traced)
 * an element that is not an FBER and writes the trace line fber_scanf would write for `fmt` at
 * this position, so a walker's BER trace reads as it would through fber_scanf (nothing is
 * formatted when tracing is off), and clears ber_out_of_memory as fber_scanf does. `{` is
 * fber_skip_tag. */
bool fber_xlate_wanted(const BerElement *ber);
bool fber_scan_begin(BerElement *ber, const char *fmt);
ber_tag_t fber_skip_contents(BerElement *ber);                                    // `x`
ber_tag_t fber_get_stringb_as(BerElement *ber, bool xlate, char *buf, ber_len_t *len); // `s`
ber_tag_t fber_get_stringa_as(BerElement *ber, bool xlate, char **buf);           // `a`
// `s` for a reader that only looks: the contents in place (not NUL-terminated, never
// translated, nothing written), and the read position behind them.
ber_tag_t fber_get_string_view(BerElement *ber, const char **value, ber_len_t *len);

// `v` and `V` on their own: an empty set gives Empty and no array; on Error nothing is handed
// out and the read position is where it was.
enum class FberList { Error, Empty, Members };
FberList fber_get_string_list(BerElement *ber, bool xlate, char ***out);
// `V` as one allocation that a single lber_free releases: the null-terminated array, then the
// berval records, then the values, each NUL-terminated (what ldap_get_values_len hands out).
FberList fber_get_berval_block(BerElement *ber, bool xlate, struct berval ***out);

/* ---- secrets in dumps (ber_mask.cpp) ----
 * Stars over, in `copy` (the bytes pdu[skip, skip + shown) about to be dumped), every secret
 * that a walk over the elements of the PDU pdu[0, pdu_len) finds. */
void ber_mask_secrets(const unsigned char *pdu, size_t pdu_len, size_t skip, unsigned char *copy,
                      size_t shown);

#endif
