// The string-translation decision of the BER printf and scanf calls (the once-per-process legacy
// switch and the element's own protocol-version and UTF-8 words) and the translator that the
// code-page layer installs for the codec.
#include "ber_xlate.h"

#include <sched.h>

#include "../trace/ldap_env.h"
#include "../trace/ldap_trace.h"
#include "ber_int.h"

namespace {
std::atomic<const BerTranslator *> installed{nullptr};
// The installed translator's answer to "pass-through?" once it has given one (-1: not yet). The
// code page is settled once per process, and every walking call asks.
std::atomic<int> passthrough_answer{-1};
}

void ber_set_translator(const BerTranslator *translator)
{
    // Called for every element a handle makes: a store only when it changes keeps the cache
    // line shared between the threads.
    if (installed.load(std::memory_order_relaxed) != translator) {
        installed.store(translator, std::memory_order_release);
        ber_xlate_forget();
    }
}

void ber_xlate_forget() { passthrough_answer.store(-1, std::memory_order_relaxed); }

int ber_xlate_to_wire(const char *in, size_t inlen, char **out, size_t *outlen)
{
    const BerTranslator *t = installed.load(std::memory_order_acquire);
    *out = nullptr;
    *outlen = inlen;
    return t != nullptr ? t->to_wire(in, inlen, out, outlen) : 0;
}

int ber_xlate_from_wire(const char *in, size_t inlen, char **out, size_t *outlen)
{
    const BerTranslator *t = installed.load(std::memory_order_acquire);
    *out = nullptr;
    *outlen = inlen;
    return t != nullptr ? t->from_wire(in, inlen, out, outlen) : 0;
}

bool ber_xlate_passthrough()
{
    int known = passthrough_answer.load(std::memory_order_relaxed);
    if (known >= 0)
        return known == 1;
    const BerTranslator *t = installed.load(std::memory_order_acquire);
    if (t == nullptr)
        return true;
    bool answer = t->passthrough();
    passthrough_answer.store(answer ? 1 : 0, std::memory_order_relaxed);
    return answer;
}

LegacyXlateMode ber_encoder_legacy;
LegacyXlateMode ber_decoder_legacy;

bool LegacyXlateMode::read_once()
{
    int expected = -1;
    if (state_.compare_exchange_strong(expected, -2)) {
        bool set = ldap_chkenv("LDAP_LEGACY_UTF8_XLATE_MODE") > 0;
        LDAP_TRACE(LDAP_TRC_BER, set ? "LDAP_LEGACY_UTF8_XLATE_MODE = true\n"
                                     : "LDAP_LEGACY_UTF8_XLATE_MODE = false\n");
        state_.store(set ? 1 : 0, std::memory_order_release);
        return set;
    }
    // Another thread is reading it; its answer is a moment away.
    int s;
    while ((s = state_.load(std::memory_order_acquire)) == -2)
        sched_yield();
    return s == 1 || (s == -1 && read_once());
}

bool ber_xlate_wanted(const BerElement *ber, LegacyXlateMode &legacy)
{
    if (legacy.on())
        return false;
    if (ber->ber_utf8_flag != nullptr && *ber->ber_utf8_flag != 0)
        return false;
    if (ber->ber_version == nullptr || *ber->ber_version < 3)
        return false;
    return !ber_xlate_passthrough();
}

void ber_xlate_reset_for_tests()
{
    ber_encoder_legacy.reset_for_tests();
    ber_decoder_legacy.reset_for_tests();
}
