// The one allocator of the library, with the test hook that fails the n-th allocation.
// Accounting (the hook and the counters) is off unless a test program switches it on, so a
// production allocation costs one relaxed load more than malloc; the counters are atomics
// so that the hook works while other threads allocate.
#include "ber_memory.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {
std::atomic<bool> accounting{false};
std::atomic<long> fail_countdown{0}; // > 0: allocations left before the failing one
std::atomic<long> calls{0};
std::atomic<long> live{0};

// True when the hook says this allocation must fail.
bool hook_fails()
{
    if (!accounting.load(std::memory_order_relaxed))
        return false;
    calls.fetch_add(1, std::memory_order_relaxed);
    long n = fail_countdown.load(std::memory_order_relaxed);
    while (n > 0) {
        if (fail_countdown.compare_exchange_weak(n, n - 1, std::memory_order_relaxed))
            return n == 1;
    }
    return false;
}

void *counted(void *p)
{
    if (p != nullptr && accounting.load(std::memory_order_relaxed))
        live.fetch_add(1, std::memory_order_relaxed);
    return p;
}
} // namespace

void *lber_malloc(size_t size)
{
    if (!accounting.load(std::memory_order_relaxed))
        return std::malloc(size == 0 ? 1 : size); // the production path: a call straight through
    if (hook_fails())
        return nullptr;
    return counted(std::malloc(size == 0 ? 1 : size));
}

void *lber_calloc(size_t count, size_t size)
{
    if (hook_fails())
        return nullptr;
    return counted(std::calloc(count == 0 ? 1 : count, size == 0 ? 1 : size));
}

void *lber_realloc(void *p, size_t size)
{
    if (size == 0 || hook_fails())
        return nullptr;
    void *q = std::realloc(p, size);
    if (q != nullptr && p == nullptr && accounting.load(std::memory_order_relaxed))
        live.fetch_add(1, std::memory_order_relaxed);
    return q;
}

void lber_free(void *p)
{
    if (p == nullptr)
        return;
    if (accounting.load(std::memory_order_relaxed))
        live.fetch_sub(1, std::memory_order_relaxed);
    std::free(p);
}

char *lber_strndup(const char *s, size_t n)
{
    if (s == nullptr)
        return nullptr;
    size_t len = strnlen(s, n);
    auto *copy = static_cast<char *>(lber_malloc(len + 1));
    if (copy == nullptr)
        return nullptr;
    std::memcpy(copy, s, len);
    copy[len] = '\0';
    return copy;
}

char *lber_strdup(const char *s)
{
    return s == nullptr ? nullptr : lber_strndup(s, std::strlen(s));
}

void lber_set_accounting(bool on) { accounting.store(on); }
void lber_fail_nth_alloc(long n) { fail_countdown.store(n > 0 ? n : 0); }
long lber_alloc_calls() { return calls.load(); }
long lber_live_blocks() { return live.load(); }
