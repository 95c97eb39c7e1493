// The string filter encoder: RFC 4515 text into RFC 4511 Filter BER.
#ifndef WZR_LIBLDAP_LDAP_FILTER_H
#define WZR_LIBLDAP_LDAP_FILTER_H

#include "ldap_int.h"

// Encodes `filter` into `ber`: 0, or -1 for a filter RFC 4515 does not allow or an extensible
// "type:=value" naming neither dn nor rule (the FBER then holds a partial encoding). Kept
// conveniences: a single item may go without its parentheses, white space may stand around
// the filter and its list items, and values are trimmed. The outermost call (converted 0)
// turns the text from the local code page into UTF-8 unless the FBER says strings are UTF-8
// already, and refuses a filter that encodes nothing.
[[nodiscard]] int put_filter(BerElement *ber, const char *filter, int converted);
// Encodes a values-return filter (matched values): "(item)" or "((item)(item)...)", simple
// items only, each read as in a search filter but without AND, OR, NOT or a dn marker. 0 or -1.
[[nodiscard]] int put_vrfilter(BerElement *ber, const char *filter);
// Turns every \XX escape of `value` into its byte, in place: the new length (embedded zero
// bytes allowed), or -1 for a backslash not followed by two hexadecimal digits.
long compress_hex(char *value);

#endif
