// Costs of the BER codec on the library's hot paths: encoding a search request and an add of
// 20 attributes, and decoding a 20-attribute search entry the way the entry parser walks it.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "liblber/ber_memory.h"
#include "liblber/lber.h"

namespace
{

// The filter encoder writes its items raw; this is "(&(objectClass=person)(uid=jdoe))".
int encode_search(BerElement *ber, char **attrs)
{
    if (fber_printf(ber, "{it{seeiib", 12, 0x63UL, "ou=people,dc=example,dc=com", 2, 0, 0, 0, 0) !=
        0)
        return -1;
    if (fber_printf_raw(ber, "t{t{so}t{so}}", 0xA0UL, 0xA3UL, "objectClass", "person", 6, 0xA3UL,
                        "uid", "jdoe", 4) != 0)
        return -1;
    if (fber_printf(ber, "{v}}", attrs) != 0)
        return -1;
    return fber_printf(ber, "}");
}

void BM_EncodeSearchRequest(benchmark::State &state)
{
    char a1[] = "cn", a2[] = "mail", a3[] = "objectClass", a4[] = "uid";
    char *attrs[] = {a1, a2, a3, a4, nullptr};
    for (auto _ : state) {
        BerElement *ber = fber_alloc();
        if (encode_search(ber, attrs) != 0)
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(ber->ber_ptr);
        fber_free(ber);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeSearchRequest);

struct AddRequest {
    std::vector<std::string> types;
    std::vector<std::vector<std::string>> values;
    std::vector<std::vector<struct berval>> bvs;
    std::vector<std::vector<struct berval *>> ptrs;

    AddRequest()
    {
        for (int i = 0; i < 20; ++i) {
            types.push_back("attribute" + std::to_string(i));
            values.push_back({"value-one-" + std::to_string(i), "value-two-" + std::to_string(i)});
        }
        for (auto &vals : values) {
            bvs.emplace_back();
            for (auto &v : vals)
                bvs.back().push_back({v.size(), v.data()});
        }
        for (auto &b : bvs) {
            ptrs.emplace_back();
            for (auto &x : b)
                ptrs.back().push_back(&x);
            ptrs.back().push_back(nullptr);
        }
    }
};

void BM_EncodeAdd20Attributes(benchmark::State &state)
{
    AddRequest req;
    for (auto _ : state) {
        BerElement *ber = fber_alloc();
        bool ok =
            fber_printf(ber, "{it{s{", 9, 0x68UL, "cn=new entry,ou=people,dc=example,dc=com") == 0;
        for (size_t i = 0; ok && i < req.types.size(); ++i)
            ok = fber_printf(ber, "{s[V]}", req.types[i].c_str(), req.ptrs[i].data()) == 0;
        ok = ok && fber_printf(ber, "}}") == 0 && fber_printf(ber, "}") == 0;
        if (!ok)
            state.SkipWithError("encode failed");
        benchmark::DoNotOptimize(ber->ber_ptr);
        fber_free(ber);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeAdd20Attributes);

// A SearchResultEntry (from the protocolOp on) of 20 attributes with 3 values each.
std::vector<char> make_entry()
{
    BerElement *ber = fber_alloc();
    (void)fber_printf(ber, "t{s{", 0x64UL, "uid=jdoe,ou=people,dc=example,dc=com");
    for (int i = 0; i < 20; ++i) {
        std::string t = "attribute" + std::to_string(i);
        std::string v1 = "first value " + std::to_string(i), v2 = "second value",
                    v3 = "third and longest value of attribute " + std::to_string(i);
        char *vals[] = {v1.data(), v2.data(), v3.data(), nullptr};
        (void)fber_printf(ber, "{s[v]}", t.c_str(), vals);
    }
    (void)fber_printf(ber, "}}");
    std::vector<char> out(ber->ber_buf, ber->ber_ptr);
    fber_free(ber);
    return out;
}

// An element holding the entry as the stream reader leaves one: contents plus one spare byte.
BerElement *received_entry(const std::vector<char> &entry)
{
    struct berval bv = {entry.size(), const_cast<char *>(entry.data())};
    return fber_init(&bv);
}

// Walks the attribute names as the first/next-attribute calls do.
void BM_DecodeEntryAttributes(benchmark::State &state)
{
    std::vector<char> entry = make_entry();
    BerElement *msg = received_entry(entry);
    char type[401];
    for (auto _ : state) {
        BerElement *c = ber_dup(msg);
        int n = 0;
        if (fber_scanf(c, "{x{") == LBER_ERROR)
            state.SkipWithError("decode failed");
        for (;;) {
            ber_len_t len = sizeof type;
            if (fber_scanf(c, "{sx}", type, &len) == LBER_ERROR)
                break;
            ++n;
        }
        if (n != 20)
            state.SkipWithError("wrong attribute count");
        ber_free(c, 0);
    }
    fber_free(msg);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeEntryAttributes);

// Values of every attribute, each looked up as the get-values call does: skip the DN, then
// attributes until the name matches, then the value set.
void BM_DecodeEntryValues(benchmark::State &state)
{
    std::vector<char> entry = make_entry();
    BerElement *msg = received_entry(entry);
    char type[401];
    for (auto _ : state) {
        for (int want = 0; want < 20; ++want) {
            std::string name = "attribute" + std::to_string(want);
            BerElement *c = ber_dup(msg);
            ber_len_t len = sizeof type;
            ber_tag_t rc = fber_scanf(c, "{x{{s", type, &len);
            while (rc != LBER_ERROR && name != type) {
                len = sizeof type;
                rc = fber_scanf(c, "x}{s", type, &len);
            }
            struct berval **vals = nullptr;
            if (rc == LBER_ERROR || fber_scanf(c, "[V]", &vals) == LBER_ERROR || vals[2] == nullptr)
                state.SkipWithError("decode failed");
            for (struct berval **p = vals; p != nullptr && *p != nullptr; ++p)
                ber_bvfree(*p);
            lber_free(vals);
            ber_free(c, 0);
        }
    }
    fber_free(msg);
    state.SetItemsProcessed(state.iterations() * 20);
}
BENCHMARK(BM_DecodeEntryValues);

// One whole entry: names then the values of each, as a client printing every entry does.
void BM_DecodeEntryFull(benchmark::State &state)
{
    std::vector<char> entry = make_entry();
    BerElement *msg = received_entry(entry);
    char type[401];
    for (auto _ : state) {
        BerElement *c = ber_dup(msg);
        char *dn = nullptr;
        (void)fber_scanf(c, "{a{", &dn);
        int n = 0;
        for (;;) {
            ber_len_t len = sizeof type;
            struct berval **vals = nullptr;
            if (fber_scanf(c, "{s[V]}", type, &len, &vals) == LBER_ERROR)
                break;
            for (struct berval **p = vals; *p != nullptr; ++p)
                ber_bvfree(*p);
            lber_free(vals);
            ++n;
        }
        if (n != 20)
            state.SkipWithError("wrong attribute count");
        lber_free(dn);
        ber_free(c, 0);
    }
    fber_free(msg);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DecodeEntryFull);

} // namespace

BENCHMARK_MAIN();
