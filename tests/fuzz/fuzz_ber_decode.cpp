// Feeds arbitrary bytes to both BER decoders. The first byte picks a format from a table that
// covers every decoder letter; the rest is the element, decoded with fber_scanf (through
// fber_init) and with ber_scanf (through ber_init). Everything handed out is released, so the
// sanitizers see both crashes and leaks.
#include <cstddef>
#include <cstdint>

#include "liblber/ber_memory.h"
#include "liblber/lber.h"

namespace {

// Arguments for every letter a format may hold, filled in order of appearance.
struct Outputs {
    char *a[4] = {};
    struct berval *O[4] = {};
    struct berval o[4] = {};
    char **v[4] = {};
    struct berval **V[4] = {};
    char *bits[4] = {};
    ber_len_t nbits[4] = {};
    char s[4][64] = {};
    ber_len_t slen[4] = {};
    int i[4] = {};
    uint32_t t[4] = {};
    ber_len_t l[4] = {};

    ~Outputs()
    {
        for (int k = 0; k < 4; ++k) {
            lber_free(a[k]);
            ber_bvfree(O[k]);
            lber_free(o[k].bv_val);
            for (char **p = v[k]; p != nullptr && *p != nullptr; ++p)
                lber_free(*p);
            lber_free(v[k]);
            for (struct berval **p = V[k]; p != nullptr && *p != nullptr; ++p)
                ber_bvfree(*p);
            lber_free(V[k]);
            lber_free(bits[k]);
        }
    }
};

// Each format is a shape some parser of the library reads; none uses a letter more than four
// times, which is what Outputs holds.
const char *const FORMATS[] = {
    "{iaa}",   "{v}",     "{V}",      "{x{{s",    "[V]",       "{sx}",   "B",        "O",
    "o",       "tTl",     "{ea{v}}",  "{it",      "{iaaO}",    "{aO}",   "n",        "{eaa",
    "x}{s",    "{x{",     "{sa[V]}",  "{b}",      "{ae}",      "{{o}}",  "{io}",     "[v]",
    "{ssss}",  "{oooo}",  "{tlTx}",   "{ia{V}}",  "{eaa{v}}",  "{iB}",   "{l{v}[V]}", "s",
};

int scan(BerElement *ber, bool fber, const char *fmt)
{
    Outputs out;
    for (int k = 0; k < 4; ++k)
        out.slen[k] = sizeof out.s[k];
    // The format letters are consumed in order; the arguments are handed over the same way.
    void *args[16];
    int n = 0;
    int ka = 0, kO = 0, ko = 0, kv = 0, kV = 0, kB = 0, ks = 0, ki = 0, kt = 0, kl = 0;
    for (const char *f = fmt; *f != '\0' && n < 15; ++f) {
        switch (*f) {
        case 'a': args[n++] = &out.a[ka++]; break;
        case 'O': args[n++] = &out.O[kO++]; break;
        case 'o': args[n++] = &out.o[ko++]; break;
        case 'v': args[n++] = &out.v[kv++]; break;
        case 'V': args[n++] = &out.V[kV++]; break;
        case 'B': args[n++] = &out.bits[kB]; args[n++] = &out.nbits[kB++]; break;
        case 's': args[n++] = out.s[ks]; args[n++] = &out.slen[ks++]; break;
        case 'i': case 'e': case 'b': args[n++] = &out.i[ki++]; break;
        case 't': case 'T': args[n++] = &out.t[kt++]; break;
        case 'l': args[n++] = &out.l[kl++]; break;
        default: break;
        }
    }
    for (int k = n; k < 16; ++k)
        args[k] = nullptr;
    // Up to 8 pointer arguments cover every format of the table.
    ber_tag_t rc = fber ? fber_scanf(ber, fmt, args[0], args[1], args[2], args[3], args[4],
                                     args[5], args[6], args[7])
                        : ber_scanf(ber, fmt, args[0], args[1], args[2], args[3], args[4],
                                    args[5], args[6], args[7]);
    return rc == LBER_ERROR ? 0 : 1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const char *fmt = FORMATS[data[0] % (sizeof FORMATS / sizeof FORMATS[0])];
    struct berval bv = {size - 1, reinterpret_cast<char *>(const_cast<uint8_t *>(data + 1))};

    if (BerElement *f = fber_init(&bv)) {
        // Once from the start, once more through a private cursor after the first element.
        (void)scan(f, true, fmt);
        BerElement *c = ber_dup(f);
        if (c != nullptr) {
            ber_reset(c, 0);
            c->ber_ptr = f->ber_buf;
            ber_len_t len;
            if (fber_skip_element(c) == 0 && fber_peek_tag(c, &len) != LBER_ERROR)
                (void)scan(c, true, fmt);
            ber_free(c, 0);
        }
        // In-place readers over what is left of the original.
        f->ber_ptr = f->ber_buf;
        char *p = nullptr;
        char **list = nullptr;
        ber_len_t len;
        unsigned char *last = nullptr;
        if (fber_first_element(f, &len, &last) != LBER_ERROR) {
            (void)fber_get_string_inplace(f, &p);
            (void)fber_get_stringlist_inplace(f, &list);
            (void)fber_next_element(f, &len, last);
        }
        fber_finish_inplace(f);
        lber_free(list);
        fber_free(f);
    }
    if (BerElement *p = ber_init(&bv)) {
        (void)scan(p, false, fmt);
        ber_free(p, 1);
    }
    return 0;
}
