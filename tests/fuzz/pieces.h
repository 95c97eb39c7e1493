// The input layout of the fuzz drivers that play a stream in pieces: byte 0 gives in its low
// three bits how many piece-size bytes follow (1..8, used in turn), the rest is the stream; and
// the trailer that makes an allocation fail.
#ifndef WZR_TESTS_FUZZ_PIECES_H
#define WZR_TESTS_FUZZ_PIECES_H

#include <cstddef>
#include <cstdint>

struct FuzzPieces {
    const uint8_t *sizes = nullptr;
    size_t nsizes = 0;
    const uint8_t *stream = nullptr;
    size_t left = 0;

    // False for an input too short to hold its own piece sizes.
    bool parse(const uint8_t *data, size_t size)
    {
        if (size < 2 || size < 2 + (data[0] & 7u))
            return false;
        nsizes = (data[0] & 7u) + 1;
        sizes = data + 1;
        stream = data + 1 + nsizes;
        left = size - 1 - nsizes;
        return true;
    }
};

// An input whose last three bytes are 0xFA and a count n (big-endian) asks that the n-th
// allocation of the played session fail: those bytes are taken off and n + 1 comes back, to be
// handed to lber_fail_nth_alloc; 0 (no failure) for any other input.
inline long take_failing_allocation(const uint8_t *data, size_t *size)
{
    if (*size < 5 || data[*size - 3] != 0xFA)
        return 0;
    *size -= 3;
    return (data[*size + 1] << 8 | data[*size + 2]) + 1;
}

#endif
