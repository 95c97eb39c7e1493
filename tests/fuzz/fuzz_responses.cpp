// Plays arbitrary server bytes, in arbitrary pieces, to a client that binds, searches, walks
// the entries, abandons and modifies, with no socket: the connection reads from the input
// through its byte source and writes to /dev/null. Byte 0 gives how many piece-size bytes
// follow (1..8, cycled; a size of 0 is a stall that times a wait out) and, in its top bit,
// whether the waits have 1 s or 1 us (running out at once, so that time-outs, put-backs and
// abandons are played too); the rest is what the server sends, its end the end of the stream.
// Results are freed after the handle, as a caller may.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "libldap/ldap_abandon.h"
#include "libldap/ldap_bind.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "pieces.h"

namespace {

struct Source {
    const uint8_t *data;
    size_t left;
    const uint8_t *sizes;
    size_t nsizes;
    size_t turn = 0;
    bool stalled = false;
    bool just_stalled = false;
};

long read_piece(void *ctx, void *buf, long len, int *would_block)
{
    auto *s = static_cast<Source *>(ctx);
    if (buf == nullptr) { // is it ready? not right after a stall: the wait times out
        bool stalled = s->stalled;
        s->stalled = false;
        return stalled ? 0 : 1;
    }
    size_t n = s->sizes[s->turn++ % s->nsizes];
    if (n == 0 && s->left > 0 && !s->just_stalled) { // never twice in a row: no endless stall
        s->stalled = s->just_stalled = true;
        *would_block = 1;
        return 0;
    }
    s->just_stalled = false;
    n = std::max<size_t>(n, 1);
    n = std::min({n, s->left, static_cast<size_t>(len)});
    __builtin_memcpy(buf, s->data, n);
    s->data += n;
    s->left -= n;
    return static_cast<long>(n); // 0 once the input is used up: the end of the stream
}

void walk(LDAP *ld, LDAPMessage *chain)
{
    for (LDAPMessage *e = ldap_first_entry(ld, chain); e != nullptr; e = ldap_next_entry(ld, e)) {
        ldap_memfree(ldap_get_dn(ld, e));
        BerElement *cursor = nullptr;
        for (char *a = ldap_first_attribute(ld, e, &cursor); a != nullptr;
             a = ldap_next_attribute(ld, e, cursor)) {
            ldap_value_free_len(ldap_get_values_len(ld, e, a));
            ldap_memfree(a);
        }
        ldap_ber_free(cursor, 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzPieces in;
    if (!in.parse(data, size))
        return 0;
    Source source{in.stream, in.left, in.sizes, in.nsizes};

    LDAP *ld = ldap_init("127.0.0.1:1", 0);
    if (ld == nullptr)
        return 0;
    int version = LDAP_VERSION3;
    (void)ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    // Referrals have their own driver: nothing here may open a connection.
    (void)ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
    LDAPConn *lc = ld->ld_defconn;
    lc->sb.sb_sd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    lc->sb.sb_read_hook = read_piece;
    lc->sb.sb_read_ctx = &source;
    lc->connected = 1;

    std::vector<LDAPMessage *> kept(5, nullptr); // freed after the handle
    (void)ldap_simple_bind_s(ld, "cn=fuzz", "secret");
    int id = ldap_search(ld, "dc=x", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0);
    struct timeval wait = {(data[0] & 0x80) != 0 ? 0 : 1, 1};
    for (int i = 0; id > 0 && i < 3 && ldap_result(ld, id, 0, &wait, &kept[i]) > 0; ++i)
        walk(ld, kept[i]);
    (void)ldap_abandon(ld, id);
    (void)ldap_search_st(ld, "dc=x", LDAP_SCOPE_ONELEVEL, "(uid=a)", nullptr, 0, &wait, &kept[3]);
    walk(ld, kept[3]);
    char *values[] = {const_cast<char *>("v"), nullptr};
    LDAPMod mod = {LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}};
    LDAPMod *mods[] = {&mod, nullptr};
    (void)ldap_modify_s(ld, "cn=fuzz", mods);
    struct timeval none = {0, 0};
    (void)ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, &none, &kept[4]);
    ldap_unbind(ld);
    for (LDAPMessage *m : kept)
        (void)ldap_msgfree(m);
    return 0;
}
