// Encodes any bytes (cut at the first NUL, as a C caller would pass them) as a search filter
// into an FBER. The encoder must either fail or leave well-formed BER: every element's length
// inside its parent, and at least one element.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libldap/ldap_filter.h"
#include "liblber/ber_memory.h"

namespace {

// Walks the elements in [p, end); false when a header or a length runs past the end.
bool well_formed(const unsigned char *p, const unsigned char *end, int depth)
{
    if (depth > 200)
        return false;
    while (p < end) {
        unsigned char tag = *p++;
        if (p >= end)
            return false;
        size_t len = *p++;
        if (len & 0x80) {
            size_t n = len & 0x7f;
            if (n == 0 || n > 4 || static_cast<size_t>(end - p) < n)
                return false;
            len = 0;
            while (n-- > 0)
                len = len << 8 | *p++;
        }
        if (static_cast<size_t>(end - p) < len)
            return false;
        if ((tag & 0x20) != 0 && !well_formed(p, p + len, depth + 1))
            return false;
        p += len;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    char *filter = static_cast<char *>(lber_malloc(size + 1));
    if (filter == nullptr)
        return 0;
    if (size != 0) // the empty input may come with a null pointer
        memcpy(filter, data, size);
    filter[size] = '\0';

    BerElement *ber = fber_alloc_t(64); // small, so long filters exercise the growth path
    if (ber != nullptr) {
        if (put_filter(ber, filter, 0) == 0) {
            if (ber->ber_ptr == ber->ber_buf || !well_formed(ber->ber_buf, ber->ber_ptr, 0))
                __builtin_trap();
        }
        fber_free(ber);
    }
    // The caller's text is never written to.
    if (memcmp(filter, data, strnlen(filter, size)) != 0)
        __builtin_trap();
    lber_free(filter);
    return 0;
}
