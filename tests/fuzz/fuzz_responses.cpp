// Plays arbitrary server bytes, in arbitrary pieces, to a client that runs every operation the
// library has (bind, SASL steps, search and paged search, walk, abandon, add, delete, rename,
// modify, compare, extended requests, transactions, backup) and takes every result apart
// (referrals, response controls through each control parser), with no socket: the connection reads
// from the input through its byte source and writes to /dev/null. Byte 0 gives in its low three
// bits how many piece-size bytes follow (1..8, cycled; a size of 0 is a stall that times a wait
// out), in bits 3..6 the operation to start with (the others follow in turn until the input is
// used up) and in its top bit whether the waits have 1 s or 1 us (running out at once, so that
// time-outs, put-backs and abandons are played too); the rest is what the server sends, its end
// the end of the stream. Results are freed after the handle, as a caller may. An allocation
// may be made to fail after the set-up (see pieces.h), so that the "no memory" paths meet a
// hostile server too.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

#include "libldap/ldap_abandon.h"
#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_extended.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "liblber/ber_memory.h"
#include "pieces.h"
#include "support/control_parse.h"

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

// Every response-control parser over one control list; each frees what it hands out.
void parse_controls(LDAPControl **ctrls)
{
    for (int p = 0; p < static_cast<int>(wzrtest::ControlParser::Count); ++p)
        (void)wzrtest::parse_control(static_cast<wzrtest::ControlParser>(p), ctrls);
}

// LDAPResult with its matched DN, message, referrals and controls, all taken and freed.
void take_result(LDAP *ld, LDAPMessage *res)
{
    int code = 0;
    char *matched = nullptr, *text = nullptr, **refs = nullptr;
    LDAPControl **ctrls = nullptr;
    if (ldap_parse_result(ld, res, &code, &matched, &text, &refs, &ctrls, 0) == 0)
        parse_controls(ctrls);
    ldap_memfree(matched);
    ldap_memfree(text);
    ldap_value_free(refs);
    ldap_controls_free(ctrls);
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
        LDAPControl **ctrls = nullptr;
        if (ldap_get_entry_controls(ld, e, &ctrls) == 0)
            parse_controls(ctrls);
        ldap_controls_free(ctrls);
    }
    for (LDAPMessage *m = ldap_first_message(ld, chain); m != nullptr; m = ldap_next_message(ld, m))
        (void)ldap_msgtype(m);
    // ldap_next_reference starts at the message it is given: the walk advances itself.
    for (LDAPMessage *r = ldap_first_reference(ld, chain); r != nullptr;
         r = ldap_next_reference(ld, r->lm_chain)) {
        char **refs = nullptr;
        LDAPControl **ctrls = nullptr;
        (void)ldap_parse_reference(ld, r, &refs, &ctrls, 0);
        ldap_value_free(refs);
        ldap_controls_free(ctrls);
    }
}

struct Run {
    LDAP *ld;
    struct timeval wait;
    std::vector<LDAPMessage *> kept; // freed after the handle

    // Waits for the whole result of `id`, keeps it and hands it back (null when none came).
    LDAPMessage *result(int id)
    {
        LDAPMessage *res = nullptr;
        if (id < 0 || ldap_result(ld, id, LDAP_MSG_ALL, &wait, &res) <= 0)
            return nullptr;
        kept.push_back(res);
        return res;
    }
};

char *const VALUES[] = {const_cast<char *>("v"), nullptr};
LDAPMod MOD = {LDAP_MOD_REPLACE, const_cast<char *>("description"), {const_cast<char **>(VALUES)}};
LDAPMod *MODS[] = {&MOD, nullptr};
char ATTR_CN[] = "cn";
char *ATTRS[] = {ATTR_CN, nullptr};

void session(Run &r)
{
    (void)ldap_simple_bind_s(r.ld, "cn=fuzz", "secret");
    int id = ldap_search(r.ld, "dc=x", LDAP_SCOPE_SUBTREE, "(cn=*)", nullptr, 0);
    for (int i = 0; id > 0 && i < 3; ++i) {
        LDAPMessage *res = nullptr;
        if (ldap_result(r.ld, id, 0, &r.wait, &res) <= 0)
            break;
        r.kept.push_back(res);
        walk(r.ld, res);
    }
    (void)ldap_abandon(r.ld, id);
    LDAPMessage *res = nullptr;
    (void)ldap_search_st(r.ld, "dc=x", LDAP_SCOPE_ONELEVEL, "(uid=a)", ATTRS, 0, &r.wait, &res);
    r.kept.push_back(res);
    walk(r.ld, res);
    take_result(r.ld, res);
    (void)ldap_modify_s(r.ld, "cn=fuzz", MODS);
}

void add(Run &r)
{
    int id = -1;
    if (ldap_add_ext(r.ld, "cn=new,dc=x", MODS, nullptr, nullptr, &id) == 0)
        take_result(r.ld, r.result(id));
}

void remove_and_rename(Run &r)
{
    (void)ldap_delete_s(r.ld, "cn=old,dc=x");
    (void)ldap_rename_s(r.ld, "cn=a,dc=x", "cn=b", "ou=y,dc=x", 1, nullptr, nullptr);
    take_result(r.ld, r.result(ldap_modrdn(r.ld, "cn=b,ou=y,dc=x", "cn=c", 0)));
}

void compare(Run &r)
{
    (void)ldap_compare_s(r.ld, "cn=a,dc=x", "cn", "a");
}

// Who-am-I (no value) and password modify (a value) through the generic extended calls.
void extended(Run &r)
{
    char *oid = nullptr;
    struct berval *data = nullptr;
    (void)ldap_extended_operation_s(r.ld, "1.3.6.1.4.1.4203.1.11.3", nullptr, nullptr, nullptr,
                                    &oid, &data);
    ldap_memfree(oid);
    ber_bvfree(data);
    // PasswdModifyRequestValue ::= SEQUENCE { userIdentity [0] OCTET STRING }
    char passwd[] = "\x30\x05\x80\x03" "cn=";
    struct berval value = {sizeof passwd - 1, passwd};
    int id = -1;
    if (ldap_extended_operation(r.ld, "1.3.6.1.4.1.4203.1.11.1", &value, nullptr, nullptr, &id) !=
        0)
        return;
    LDAPMessage *res = r.result(id);
    oid = nullptr;
    data = nullptr;
    LDAPControl **ctrls = nullptr;
    if (ldap_parse_extended_result_ctrls(r.ld, res, &oid, &data, &ctrls, 0) == 0)
        parse_controls(ctrls);
    ldap_memfree(oid);
    ber_bvfree(data);
    ldap_controls_free(ctrls);
    take_result(r.ld, res);
}

// A SASL exchange the server may answer with a challenge (in progress) before its result,
// then EXTERNAL, whose server may want the empty second step.
void sasl(Run &r)
{
    struct berval cred = {5, const_cast<char *>("first")};
    for (int step = 0; step < 2; ++step) {
        int id = -1;
        if (ldap_sasl_bind(r.ld, "cn=fuzz", "DIGEST-MD5", &cred, nullptr, nullptr, &id) != 0)
            break;
        LDAPMessage *res = r.result(id);
        struct berval *challenge = nullptr;
        int rc = ldap_parse_sasl_bind_result(r.ld, res, &challenge, 0);
        ber_bvfree(challenge);
        take_result(r.ld, res);
        if (rc != LDAP_SASL_BIND_IN_PROGRESS) // the result code: another step only when asked
            break;
    }
    (void)ldap_sasl_bind_s(r.ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr);
    LDAPControl **ctrls = nullptr;
    if (ldap_get_bind_controls(r.ld, &ctrls) == 0)
        parse_controls(ctrls);
    ldap_controls_free(ctrls);
}

// The directory's own extended operations: a transaction, a backup, then a standard transaction.
void transaction_and_backup(Run &r)
{
    struct berval *id = nullptr;
    if (ldap_start_transaction_s(r.ld, &id) == 0 && id != nullptr)
        (void)ldap_end_transaction_s(r.ld, id, 1);
    ber_bvfree(id);
    int op_result = 0;
    (void)ldap_backup(r.ld, &op_result);
    id = nullptr;
    if (ldap_txn_start_s(r.ld, nullptr, nullptr, &id) == 0)
        (void)ldap_txn_end_s(r.ld, 1, id, nullptr, nullptr, &op_result);
    ber_bvfree(id);
}

int keep_page(void *arg, LDAP *ld, LDAPMessage *page)
{
    static_cast<Run *>(arg)->kept.push_back(page);
    walk(ld, page);
    return 0;
}

void paged(Run &r)
{
    (void)ldap_search_paged_np(r.ld, "dc=x", LDAP_SCOPE_SUBTREE, "(cn=*)", ATTRS, 0, nullptr, 2,
                               &r.wait, keep_page, &r);
}

using Operation = void (*)(Run &);
const Operation OPERATIONS[] = {session, add, remove_and_rename, compare, extended, sasl,
                                transaction_and_backup, paged};
constexpr size_t NOPERATIONS = sizeof OPERATIONS / sizeof OPERATIONS[0];

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    long fail_at = take_failing_allocation(data, &size);
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
    lber_fail_nth_alloc(fail_at);

    Run run{ld, {(data[0] & 0x80) != 0 ? 0 : 1, 1}, {}};
    size_t first = (data[0] >> 3) & 15u;
    // Once the server's bytes are used up the others would only meet a closed connection.
    for (size_t i = 0; i < NOPERATIONS && (i == 0 || source.left > 0); ++i)
        OPERATIONS[(first + i) % NOPERATIONS](run);
    struct timeval none = {0, 0};
    LDAPMessage *rest = nullptr;
    (void)ldap_result(ld, LDAP_RES_ANY, LDAP_MSG_ONE, &none, &rest);
    run.kept.push_back(rest);
    ldap_unbind(ld);
    for (LDAPMessage *m : run.kept)
        (void)ldap_msgfree(m);
    lber_fail_nth_alloc(0);
    return 0;
}
