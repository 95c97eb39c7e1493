// Walking one search entry the way a client reads a result: first/next_attribute and
// get_values_len per attribute, every value released. Reports the time per entry for a
// synthetic entry of A attributes x V values (20 x 3, and 10 x 2 = the 20 values of the
// project's search goal), plus the DN and the attribute count alone.
#include <benchmark/benchmark.h>

#include <string>

#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_unbind.h"

namespace {

// A SearchResultEntry record positioned as the engine leaves it (at the protocolOp).
LDAPMessage *make_entry(int attrs, int values)
{
    BerElement *ber = fber_alloc();
    (void)fber_printf_raw(ber, "{it{s{", 7, static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY),
                          "uid=user0042,ou=People,dc=example,dc=com");
    for (int a = 0; a < attrs; ++a) {
        std::string type = "attributeType" + std::to_string(a);
        (void)fber_printf_raw(ber, "{s[", type.c_str());
        for (int v = 0; v < values; ++v) {
            std::string value = "value number " + std::to_string(v) + " of " + type;
            (void)fber_printf_raw(ber, "o", value.data(), static_cast<int>(value.size()));
        }
        (void)fber_printf_raw(ber, "]}");
    }
    (void)fber_printf_raw(ber, "}}}");
    struct berval *bv = nullptr;
    (void)fber_flatten(ber, &bv);
    fber_free(ber);
    BerElement *in = fber_init(bv);
    ber_bvfree(bv);
    int msgid = 0;
    ber_len_t len;
    (void)fber_scanf(in, "{i", &msgid);
    LDAPMessage *msg = ldap_msginit(nullptr);
    msg->lm_msgid = msgid;
    msg->lm_msgtype = static_cast<int32_t>(fber_peek_tag(in, &len));
    msg->lm_ber = in;
    return msg;
}

void BM_WalkEntry(benchmark::State &state)
{
    LDAP *ld = ldap_init("localhost", 0);
    LDAPMessage *e = make_entry(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    long values = 0;
    for (auto _ : state) {
        BerElement *cursor = nullptr;
        for (char *a = ldap_first_attribute(ld, e, &cursor); a != nullptr;
             a = ldap_next_attribute(ld, e, cursor)) {
            struct berval **v = ldap_get_values_len(ld, e, a);
            for (struct berval **p = v; p != nullptr && *p != nullptr; ++p)
                values += static_cast<long>((*p)->bv_len != 0);
            ldap_value_free_len(v);
            ldap_memfree(a);
        }
        ldap_ber_free(cursor, 0);
    }
    benchmark::DoNotOptimize(values);
    state.SetItemsProcessed(state.iterations()); // items = entries
    state.counters["values"] = static_cast<double>(state.range(0) * state.range(1));
    free_msg(e, 1);
    (void)ldap_unbind(ld);
}
BENCHMARK(BM_WalkEntry)->Args({20, 3})->Args({10, 2});

void BM_GetDnAndCount(benchmark::State &state)
{
    LDAP *ld = ldap_init("localhost", 0);
    LDAPMessage *e = make_entry(20, 3);
    for (auto _ : state) {
        char *dn = ldap_get_dn(ld, e);
        benchmark::DoNotOptimize(ldap_count_attributes(ld, e));
        ldap_memfree(dn);
    }
    free_msg(e, 1);
    (void)ldap_unbind(ld);
}
BENCHMARK(BM_GetDnAndCount);

void BM_ParseDn(benchmark::State &state)
{
    for (auto _ : state) {
        int err = 0;
        LDAPDN *dn = parse_dn("uid=user0042+cn=User 42,ou=People,dc=example,dc=com",
                              LDAP_DN_BUILD_IN_ORDER, &err);
        benchmark::DoNotOptimize(dn);
        ldap_free_dn(dn);
    }
}
BENCHMARK(BM_ParseDn);

} // namespace

BENCHMARK_MAIN();
