// The codec's side of string translation: the code-page layer that sits above liblber hands the
// codec a translator, and the codec calls it for every string it puts on or takes off the wire.
// Without one the codec passes bytes through unchanged, so liblber stands on its own.
#ifndef WZR_LBER_BER_XLATE_H
#define WZR_LBER_BER_XLATE_H

#include <cstddef>

// Each conversion returns 0 with *out null (the input is used as it is) or an allocated,
// NUL-terminated copy (lber_free) and its length in *outlen; a failure returns one of the
// translation codes 160-163 or 90 (no memory) and hands out nothing.
using BerConvertFn = int (*)(const char *in, size_t inlen, char **out, size_t *outlen);

struct BerTranslator {
    BerConvertFn to_wire;   // local code page -> UTF-8
    BerConvertFn from_wire; // UTF-8 -> local code page
    bool (*passthrough)();  // true when the local code page is UTF-8 (no call needed)
};

// Installs the process's translator (null removes it). The pointer must outlive every use.
void ber_set_translator(const BerTranslator *translator);

// The conversions through the installed translator (pass-through when there is none).
[[nodiscard]] int ber_xlate_to_wire(const char *in, size_t inlen, char **out, size_t *outlen);
[[nodiscard]] int ber_xlate_from_wire(const char *in, size_t inlen, char **out, size_t *outlen);
bool ber_xlate_passthrough();
// Forgets the translator's remembered answer: its code page is about to be settled afresh.
void ber_xlate_forget();

#endif
