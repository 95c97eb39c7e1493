// The string filter encoder: RFC 4515 text into RFC 4511 Filter BER.
#ifndef WZR_LIBLDAP_LDAP_FILTER_H
#define WZR_LIBLDAP_LDAP_FILTER_H

#include "ldap_int.h"

[[nodiscard]] int put_filter(BerElement *ber, const char *filter, int converted);
long compress_hex(char *value); // new length, or -1 for a malformed escape

#endif
