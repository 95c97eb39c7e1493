// The process-wide debug trace: class masks, the trace print, timestamps and the framed hex
// dump. Every module traces through LDAP_TRACE, which costs one load and a compare when off.
#ifndef WZR_TRACE_LDAP_TRACE_H
#define WZR_TRACE_LDAP_TRACE_H

#include <cstdarg>
#include <sys/time.h>

// Trace classes: the message is written when the class's entry of the class-bit table,
// ANDed with the trace mask, is non-zero.
inline constexpr unsigned LDAP_TRC_API = 0xc8010000u;      // API entry and ordinary flow
inline constexpr unsigned LDAP_TRC_SSL = 0xc8040000u;      // secure layer, write retries
inline constexpr unsigned LDAP_TRC_CODEPAGE = 0xc8050000u; // code-page set-up
inline constexpr unsigned LDAP_TRC_BER = 0xc8060000u;      // BER stream I/O, dumps
inline constexpr unsigned LDAP_TRC_MUTEX = 0xc80b0000u;    // mutex creation
inline constexpr unsigned LDAP_TRC_DN = 0xc80d0000u;       // DN state machines
inline constexpr unsigned LDAP_TRC_ERROR = 0xc8110000u;    // errors
inline constexpr unsigned LDAP_TRC_WARN = 0xc8130000u;     // warnings, impossible states

unsigned ldap_debug_enabled();
void ldap_set_debug_mask(unsigned mask);
int ldap_debug_env_flag();
const char *ldap_get_debug_file();
bool ldap_debug_class_on(unsigned class_mask);

void ldap_debug_print(unsigned class_mask, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void ldap_debug_vprint(unsigned class_mask, const char *format, va_list *args);
void ldap_debug_hexdump(const void *address, int length, const char *title);
// The same framed dump written to a descriptor of the caller's (the trace mask is not
// consulted); 0, or -1 when the descriptor cannot be written.
int ldap_debug_hexdump_fd(int fd, const void *address, int length, const char *title);

void ldap_debug_init();
int ldap_set_debug_file(const char *name);
int ldap_get_timestamp_format(int reread);
char *ldap_format_timestamp(int format, struct timeval *when, char *buffer, int size);

// Test-only: puts the trace settings back to their initial values (mask 0, timestamps on,
// format unread) and reads "LDAP_DEBUG_FILE", "LDAP_DEBUG" and "LDAP_DEBUG_TIME" again, as the
// first ldap_debug_init of a process does.
void ldap_debug_reset_for_tests();

// Formats nothing unless tracing is on; the print re-tests the class.
#define LDAP_TRACE(cls, ...)                                                                       \
    do {                                                                                           \
        if (ldap_debug_enabled())                                                                  \
            ldap_debug_print((cls), __VA_ARGS__);                                                  \
    } while (0)

#endif
