// Byte-level rewriting of encoded PDUs for referral chasing: a request re-encoded for another
// server under a new message id, and a final result rewritten to report unfollowed referrals.
#ifndef WZR_LIBLDAP_LDAP_REENCODE_H
#define WZR_LIBLDAP_LDAP_REENCODE_H

#include <cstddef>

#include "ldap_int.h"

inline constexpr const char *LDAP_PAGED_RESULTS_OID = "1.2.840.113556.1.4.319";

// One BER element inside a buffer: its tag (single-byte tags only, as LDAP uses), the span of
// its contents, and where the next element starts.
struct BerSpan {
    ber_tag_t tag;
    const unsigned char *start; // the tag byte
    const unsigned char *body;
    size_t body_len;
    const unsigned char *end; // behind the element
};

// Reads the element at `p` (bounded by `end`): true, or false for anything malformed.
bool ber_span_read(const unsigned char *p, const unsigned char *end, BerSpan *out);

// The resultCode of a final result, read in place; -1 when it cannot be read.
int result_code_peek(const LDAPMessage *msg);

// Builds the request PDU of `request` (the bytes of an encoded LDAPMessage) for message id
// `msgid`, with the URL's DN, scope and filter replacing the request's where the URL has them
// and the first paged-results control dropped. 0 with *out set (an FBER ready to send), or
// 80 (a request kind that cannot be sent elsewhere), 83, 84, 87 or 90. *optag gets the
// request's protocolOp tag.
[[nodiscard]] int re_encode_request(LDAP *ld, const unsigned char *request, size_t len, int msgid,
                                    const LDAPURLDesc *lud, BerElement **out, ber_tag_t *optag);

// A copy of the final result `msg` whose result code is `code` and whose referral field lists
// `urls` ("\n" between them) after the ones it already had. Unless `msg` is itself the
// referral that failed, a failure code the server reported is kept. Null without memory or
// for a message that is not an LDAPResult.
LDAPMessage *rebuild_final_result(LDAP *ld, LDAPMessage *msg, int code, const char *urls,
                                  bool is_referral);

// Turns the PDU written into `ber` into a record shaped like a received one (read position at
// the protocolOp), of message id `msgid` and type `type`. Null without memory (`ber` freed).
LDAPMessage *message_from_encoded(BerElement *ber, int msgid, ber_tag_t type);

#endif
