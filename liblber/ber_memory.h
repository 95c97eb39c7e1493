// The one allocator of the library. Every allocation goes through these functions so that a
// test can fail the n-th one and check that nothing leaks (the live-block count).
#ifndef WZR_LBER_BER_MEMORY_H
#define WZR_LBER_BER_MEMORY_H

#include <cstddef>

void *lber_malloc(size_t size);
void *lber_calloc(size_t count, size_t size);
void *lber_realloc(void *p, size_t size); // never used to free: size 0 is refused
void lber_free(void *p);                  // null-tolerant
char *lber_strdup(const char *s);
char *lber_strndup(const char *s, size_t n);

// Test hooks, active only after lber_set_accounting(true), which a test program calls before
// anything is allocated (the test support library does it in a static initialiser).
// lber_fail_nth_alloc(n) makes the n-th allocation from now fail (1 = the next
// one); 0 switches failing off. lber_live_blocks() counts blocks allocated and not yet freed.
void lber_set_accounting(bool on);
void lber_fail_nth_alloc(long n);
long lber_alloc_calls();
long lber_live_blocks();

#endif
