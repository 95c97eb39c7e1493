// A hostile server's referrals fed to a chasing client: entries, references, referral results
// (version 3 fields and version 2 texts) and garbage, built from the input as records and
// played on two connections with no socket: the default one and 127.0.0.1:2, which referral
// URLs name. URLs are a fixed prefix and fuzzed rest, so that no name is ever resolved.
// Byte 0: bit 0 the protocol version (2 or 3), bits 1-3 the hop limit, bit 7 short waits.
// Then records: kind (bits 0-2 what, bit 3 which connection, bits 4-5 message id - 1),
// length, payload.
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_usearch.h"
#include "support/fake_server.h"

namespace {

using namespace wzrtest;

const char *const PREFIXES[] = {"ldap://127.0.0.1:2/", "ldaps://127.0.0.1:2/", "LDAP://127.0.0.1:2/",
                                "ldap:///",            "ldap://127.0.0.1:3/",  "http://x/"};

std::string url(const std::string &p)
{
    return p.empty() ? std::string() : PREFIXES[p[0] % 6] + p.substr(1);
}

// Up to three URLs from the payload, cut at zero bytes.
std::vector<std::string> urls(const std::string &p)
{
    std::vector<std::string> out;
    for (size_t at = 0; at < p.size() && out.size() < 3;) {
        size_t end = std::min(p.find('\0', at), p.size());
        out.push_back(url(p.substr(at, end - at)));
        at = end + 1;
    }
    return out;
}

std::string record(unsigned kind, int id, const std::string &p)
{
    std::string list;
    switch (kind & 7) {
    case 0:
        return search_entry_pdu(id, "cn=e,o=x", {{"cn", {p}}});
    case 1:
        return search_reference_pdu(id, urls(p));
    case 2:
        for (const std::string &u : urls(p.empty() ? p : p.substr(1)))
            list += ber_str(u);
        return ldap_message(id, ber_seq(ber_int(p.empty() ? 10 : p[0], 0x0a) + ber_str("") +
                                            ber_str("") + ber_seq(list, 0xa3),
                                        0x65));
    case 3:
        for (const std::string &u : urls(p))
            list += "\n" + u;
        return ldap_result_pdu(id, 0x65, 9, "", "text Referral:" + list);
    case 4:
        return ldap_result_pdu(id, 0x65, 0);
    default:
        return p;
    }
}

struct Stream {
    std::string bytes;
    size_t at = 0;
};

long read_stream(void *ctx, void *buf, long len, int *)
{
    auto *s = static_cast<Stream *>(ctx);
    if (buf == nullptr)
        return 1;
    long n = std::min<long>(len, static_cast<long>(s->bytes.size() - s->at));
    __builtin_memcpy(buf, s->bytes.data() + s->at, static_cast<size_t>(n));
    s->at += static_cast<size_t>(n);
    return n; // 0 at the end: the server closed
}

void hook(LDAP *ld, LDAPConn *lc, Stream *s)
{
    lc->ld = ld;
    lc->sb.sb_sd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    lc->sb.sb_read_hook = read_stream;
    lc->sb.sb_read_ctx = s;
    lc->connected = 1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    Stream streams[2];
    for (size_t at = 1; at + 2 <= size;) {
        unsigned kind = data[at];
        size_t len = std::min<size_t>(data[at + 1], size - at - 2);
        std::string payload(reinterpret_cast<const char *>(data + at + 2), len);
        streams[(kind >> 3) & 1].bytes += record(kind, 1 + ((kind >> 4) & 3), payload);
        at += 2 + len;
    }
    LDAP *ld = ldap_init("127.0.0.1", 1);
    if (ld == nullptr)
        return 0;
    int version = (data[0] & 1) != 0 ? LDAP_VERSION2 : LDAP_VERSION3;
    int hops = (data[0] >> 1) & 7;
    (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    (void)ldap_set_option(ld, LDAP_OPT_REFHOPLIMIT, version == LDAP_VERSION3
                                                         ? static_cast<void *>(&hops)
                                                         : reinterpret_cast<void *>(hops));
    hook(ld, ld->ld_defconn, &streams[0]);
    LDAPConn *second = ldap_lc_init("127.0.0.1", 2, 256);
    if (second != nullptr) {
        hook(ld, second, &streams[1]);
        ld->ld_defconn->next = second;
    }
    struct timeval wait = {(data[0] & 0x80) != 0 ? 0 : 1, 1};
    std::vector<LDAPMessage *> kept(3, nullptr);
    int id = ldap_search(ld, "o=x", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0);
    for (int i = 0; id > 0 && i < 2 && ldap_result(ld, id, 0, &wait, &kept[i]) > 0; ++i)
        (void)ldap_count_entries(ld, kept[i]);
    (void)ldap_url_search_st(ld, "ldap://127.0.0.1:2/o=x??sub", 0, &wait, &kept[2]);
    ldap_unbind(ld);
    for (LDAPMessage *m : kept)
        (void)ldap_msgfree(m);
    return 0;
}
