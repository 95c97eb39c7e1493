// Internals shared by the BER encoder and decoder: the FBER nesting stack, the once-per-process
// legacy translation switch, and the per-call decision whether strings are translated.
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

#endif
