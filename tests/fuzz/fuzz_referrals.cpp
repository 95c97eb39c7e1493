// A hostile server's referrals fed to a chasing client: entries, references, referral results
// (version 3 and 2) and garbage, played on two socketless connections (the default one and
// 127.0.0.1:2); URLs are a fixed prefix and a fuzzed rest, so that no name is ever resolved.
// Byte 0: bit 0 the protocol version (2 or 3), bits 1-3 the hop limit, bits 4-6 the operation
// whose referrals are chased (a search, or an update, compare or extended request), bit 7 short
// waits. Then records: kind (bits 0-2 what, bit 3 which connection, bits 4-5 message id - 1),
// length, payload. An allocation may be made to fail after the set-up (see pieces.h).
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "libldap/ldap_entry.h"
#include "libldap/ldap_extended.h"
#include "libldap/ldap_free.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "libldap/ldap_usearch.h"
#include "liblber/ber_memory.h"
#include "pieces.h"
#include "support/fake_server.h"

namespace {

using namespace wzrtest;

const char *const PREFIXES[] = {"ldap://127.0.0.1:2/", "ldaps://127.0.0.1:2/", "LDAP://127.0.0.1:2/",
                                "ldap:///",            "ldap://127.0.0.1:3/",  "http://x/"};

// Up to three URLs from the payload, cut at zero bytes: a prefix chosen by the first byte and
// the rest as it is. As a list of OCTET STRINGs, or as the lines of a version 2 text.
std::string urls(const std::string &p, bool as_text)
{
    std::string out;
    for (size_t at = 0, n = 0; at < p.size() && n < 3; ++n) {
        size_t end = std::min(p.find('\0', at), p.size());
        std::string url = PREFIXES[static_cast<unsigned char>(p[at]) % 6] +
                          p.substr(at + 1, end - at - (end > at ? 1 : 0));
        out += as_text ? "\n" + url : ber_str(url);
        at = end + 1;
    }
    return out;
}

std::string record(unsigned kind, int id, const std::string &p)
{
    const std::string rest = p.empty() ? p : p.substr(1);
    switch (kind & 7) {
    case 0:
        return search_entry_pdu(id, "cn=e,o=x", {{"cn", {p}}});
    case 1:
        return ldap_message(id, ber_seq(urls(p, false), 0x73));
    case 2:
        return ldap_message(id, ber_seq(ber_int(p.empty() ? 10 : p[0], 0x0a) + ber_str("") +
                                            ber_str("") + ber_seq(urls(rest, false), 0xa3),
                                        0x65));
    case 3:
        return ldap_result_pdu(id, 0x65, 9, "", "text Referral:" + urls(p, true));
    default:
        return (kind & 7) == 4 ? ldap_result_pdu(id, 0x65, 0) : p;
    }
}

// What one connection reads: the bytes built for it, then the end of the stream.
struct Stream {
    std::string bytes;
    size_t at = 0;

    static long read(void *ctx, void *buf, long len, int *)
    {
        auto *s = static_cast<Stream *>(ctx);
        long n = std::min<long>(len, static_cast<long>(s->bytes.size() - s->at));
        if (buf != nullptr)
            __builtin_memcpy(buf, s->bytes.data() + s->at, static_cast<size_t>(n));
        s->at += buf != nullptr ? static_cast<size_t>(n) : 0;
        return buf != nullptr ? n : 1; // asked without a buffer: always ready
    }
    void hook(LDAP *ld, LDAPConn *lc)
    {
        lc->ld = ld;
        lc->sb.sb_sd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        lc->sb.sb_read_hook = read;
        lc->sb.sb_read_ctx = this;
        lc->connected = 1;
    }
};

// A paged-results control (dropped when re-sent elsewhere: its cookie is the old server's) and
// one that is copied as it is.
char PAGE_VALUE[] = "\x30\x05\x02\x01\x02\x04\x00";
LDAPControl PAGE = {const_cast<char *>("1.2.840.113556.1.4.319"), {7, PAGE_VALUE}, 0};
LDAPControl MANAGE = {const_cast<char *>("2.16.840.1.113730.3.4.2"), {0, nullptr}, 1};
LDAPControl *CTRLS[] = {&PAGE, &MANAGE, nullptr};
char *VALUES[] = {const_cast<char *>("v"), nullptr};
LDAPMod MOD = {LDAP_MOD_ADD, const_cast<char *>("cn"), {VALUES}};
LDAPMod *MODS[] = {&MOD, nullptr};

int start(LDAP *ld, unsigned which)
{
    int id = -1;
    struct berval value = {1, VALUES[0]};
    switch (which) {
    case 1: (void)ldap_modify_ext(ld, "cn=a,o=x", MODS, CTRLS, nullptr, &id); break;
    case 2: (void)ldap_add_ext(ld, "cn=a,o=x", MODS, CTRLS, nullptr, &id); break;
    case 3: (void)ldap_delete_ext(ld, "cn=a,o=x", CTRLS, nullptr, &id); break;
    case 4: (void)ldap_rename(ld, "cn=a,o=x", "cn=b", "o=y", 1, CTRLS, nullptr, &id); break;
    case 5: (void)ldap_compare_ext(ld, "cn=a,o=x", "cn", &value, CTRLS, nullptr, &id); break;
    case 6: (void)ldap_extended_operation(ld, "1.3.6.1.4.1.4203.1.11.3", nullptr, CTRLS, nullptr,
                                          &id); break;
    default:
        (void)ldap_search_ext(ld, "o=x", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0,
                              which == 7 ? CTRLS : nullptr, nullptr, nullptr, 0, &id);
    }
    return id;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    long fail_at = take_failing_allocation(data, &size);
    if (size < 1)
        return 0;
    Stream streams[2];
    for (size_t at = 1; at + 2 <= size;) {
        size_t len = std::min<size_t>(data[at + 1], size - at - 2);
        std::string payload(reinterpret_cast<const char *>(data + at + 2), len);
        streams[(data[at] >> 3) & 1].bytes += record(data[at], 1 + ((data[at] >> 4) & 3), payload);
        at += 2 + len;
    }
    LDAP *ld = ldap_init("127.0.0.1", 1);
    LDAPConn *second = ldap_lc_init("127.0.0.1", 2, 256);
    if (ld == nullptr || second == nullptr) {
        ldap_lc_free(second);
        return ld != nullptr ? ldap_unbind(ld) : 0;
    }
    int version = LDAP_VERSION3, hops = (data[0] >> 1) & 7;
    (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    (void)ldap_set_option(ld, LDAP_OPT_REFHOPLIMIT, &hops);
    version = (data[0] & 1) != 0 ? LDAP_VERSION2 : LDAP_VERSION3;
    (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    streams[0].hook(ld, ld->ld_defconn);
    streams[1].hook(ld, second);
    lber_fail_nth_alloc(fail_at);
    ld->ld_defconn->next = second;
    struct timeval wait = {(data[0] & 0x80) != 0 ? 0 : 1, 1};
    std::vector<LDAPMessage *> kept(3, nullptr);
    int id = start(ld, (data[0] >> 4) & 7);
    for (int i = 0; id > 0 && i < 2 && ldap_result(ld, id, 0, &wait, &kept[i]) > 0; ++i)
        (void)ldap_count_entries(ld, kept[i]);
    (void)ldap_url_search_st(ld, "ldap://127.0.0.1:2/o=x??sub", 0, &wait, &kept[2]);
    ldap_unbind(ld);
    for (LDAPMessage *m : kept)
        (void)ldap_msgfree(m);
    lber_fail_nth_alloc(0);
    return 0;
}
