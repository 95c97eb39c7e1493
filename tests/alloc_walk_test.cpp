// A whole client flow against a real server (init, bind, a filtered search with an attribute
// list, the walk over every entry, DN, attribute and value, a modify, unbind) with each
// allocation failing alone, and with every allocation from the n-th on failing.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "liblber/ber_memory.h"
#include "libldap/ldap_bind.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_unbind.h"
#include "libldap/ldap_update.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"

using namespace wzrtest;

// "Every allocation from the n-th on" needs the one-shot hook re-armed before each allocation.
// This program is linked with the allocator's entry points wrapped (tests/CMakeLists.txt), so
// every call from the library passes here first; onward_from = 0 leaves the hook alone.
namespace {
std::atomic<long> onward_from{0}; // allocation number, counted from onward_base
std::atomic<long> onward_base{0};
void rearm()
{
    long from = onward_from.load();
    if (from > 0 && lber_alloc_calls() - onward_base.load() + 1 >= from)
        lber_fail_nth_alloc(1);
}
} // namespace

extern "C" {
void *__real__Z11lber_mallocm(size_t);
void *__real__Z11lber_callocmm(size_t, size_t);
void *__real__Z12lber_reallocPvm(void *, size_t);
char *__real__Z12lber_strndupPKcm(const char *, size_t);
char *__real__Z11lber_strdupPKc(const char *);
void *__wrap__Z11lber_mallocm(size_t n) { return rearm(), __real__Z11lber_mallocm(n); }
void *__wrap__Z11lber_callocmm(size_t c, size_t n) { return rearm(), __real__Z11lber_callocmm(c, n); }
void *__wrap__Z12lber_reallocPvm(void *p, size_t n) { return rearm(), __real__Z12lber_reallocPvm(p, n); }
char *__wrap__Z12lber_strndupPKcm(const char *s, size_t n) { return rearm(), __real__Z12lber_strndupPKcm(s, n); }
char *__wrap__Z11lber_strdupPKc(const char *s) { return rearm(), __real__Z11lber_strdupPKc(s); }
}

namespace {

// What one run of the flow saw. The flow stops at the first step that fails (a code other than
// 0, or a NULL whose recorded error is not 0); only the release of what it holds still runs.
struct FlowRun {
    std::vector<std::string> seen; // DNs, attribute names, values, in walk order
    std::string failed_step;       // empty: every step succeeded
    int failed_code = 0;
    int unbind_code = 0;
};

class Flow {
public:
    explicit Flow(const SlapdFixture &s) : slapd_(s) {}
    FlowRun run()
    {
        FlowRun r;
        run_ = &r;
        LDAP *ld = ldap_init("127.0.0.1", slapd_.port());
        if (ld == nullptr) {
            fail("init", LDAP_NO_MEMORY); // NULL is this step's only way to say "no memory"
            return r;
        }
        LDAPMessage *res = nullptr;
        if (step("bind", ldap_simple_bind_s(ld, slapd_.manager_dn().c_str(),
                                            slapd_.manager_pw().c_str()))) {
            char *attrs[] = {const_cast<char *>("ou"), const_cast<char *>("description"),
                             const_cast<char *>("objectClass"), nullptr};
            struct timeval limit = {10, 0};
            if (step("search", ldap_search_ext_s(ld, slapd_.base().c_str(), LDAP_SCOPE_SUBTREE,
                                                 "(|(ou=people)(&(ou=g*u*)(!(ou=x))(objectClass=*)))",
                                                 attrs, 0, nullptr, nullptr, &limit, 0, &res)) &&
                walk(ld, res))
                modify(ld);
        }
        if (res != nullptr)
            ldap_msgfree(res);
        r.unbind_code = ldap_unbind(ld);
        return r;
    }

private:
    void fail(const char *name, int code) { run_->failed_step = name, run_->failed_code = code; }
    bool step(const char *name, int code)
    {
        if (code != LDAP_SUCCESS)
            fail(name, code);
        return code == LDAP_SUCCESS;
    }
    // A NULL from a reader is a failure when the handle recorded one, the end otherwise.
    bool got(LDAP *ld, const void *p, const char *name)
    {
        return p != nullptr || step(name, ldap_get_lderrno(ld, nullptr, nullptr));
    }
    bool walk(LDAP *ld, LDAPMessage *res)
    {
        for (LDAPMessage *e = ldap_first_entry(ld, res); e != nullptr; e = ldap_next_entry(ld, e)) {
            char *dn = ldap_get_dn(ld, e);
            if (!got(ld, dn, "get_dn"))
                return false;
            run_->seen.push_back(dn);
            ldap_memfree(dn);
            if (!walk_attributes(ld, e))
                return false;
        }
        return true;
    }
    bool walk_attributes(LDAP *ld, LDAPMessage *e)
    {
        BerElement *cursor = nullptr;
        bool ok = true;
        char *a = ldap_first_attribute(ld, e, &cursor);
        while (ok && a != nullptr) {
            run_->seen.push_back(a);
            struct berval **vals = ldap_get_values_len(ld, e, a);
            ok = got(ld, vals, "values"); // NULL with nothing recorded shows in the walk
            for (int i = 0; vals != nullptr && vals[i] != nullptr; ++i)
                run_->seen.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
            ldap_value_free_len(vals);
            ldap_memfree(a);
            a = ok ? ldap_next_attribute(ld, e, cursor) : nullptr;
        }
        ldap_ber_free(cursor, 0);
        return ok && got(ld, a, "attribute"); // a NULL with nothing recorded is the end
    }
    void modify(LDAP *ld)
    {
        char *values[] = {const_cast<char *>("walked"), nullptr};
        LDAPMod mod = {LDAP_MOD_REPLACE, const_cast<char *>("description"), {values}};
        LDAPMod *mods[] = {&mod, nullptr};
        std::string dn = "ou=groups," + slapd_.base();
        step("modify", ldap_modify_ext_s(ld, dn.c_str(), mods, nullptr, nullptr));
    }

    const SlapdFixture &slapd_;
    FlowRun *run_ = nullptr;
};

// Fails allocation n alone (onward = false) or every allocation from n on, for n = 1, 2, ...
// past the clean run's count, until a run ends before reaching allocation n: a run may make
// fewer allocations than another (a response that lies whole in the read-ahead when it is
// read costs one less), and such a run must succeed. Each run must release every block, and
// report a failure as 90; an unbind that could not send its request still frees the handle and
// may say 90 or 0; a run reporting full success must have walked exactly what a clean run walks.
void walk_flow(Flow &flow, const FlowRun &clean, long clean_calls, bool onward)
{
    for (long n = 1;; ++n) {
        SCOPED_TRACE((onward ? "from allocation " : "allocation ") + std::to_string(n));
        long live = lber_live_blocks();
        long base = lber_alloc_calls();
        onward_base = base;
        onward_from = onward ? n : 0;
        lber_fail_nth_alloc(n);
        FlowRun r = flow.run();
        onward_from = 0;
        lber_fail_nth_alloc(0);
        long calls = lber_alloc_calls() - base;
        ASSERT_EQ(lber_live_blocks(), live) << "blocks leaked";
        EXPECT_TRUE(r.unbind_code == 0 || r.unbind_code == LDAP_NO_MEMORY) << r.unbind_code;
        if (calls < n) {
            EXPECT_TRUE(r.failed_step.empty()) << r.failed_step << " " << r.failed_code;
            EXPECT_EQ(r.seen, clean.seen);
            if (n > clean_calls)
                return;
            continue;
        }
        if (r.failed_step.empty())
            EXPECT_EQ(r.seen, clean.seen) << "success reported with a failed allocation";
        else
            EXPECT_EQ(r.failed_code, LDAP_NO_MEMORY) << "in " << r.failed_step;
    }
}

class AllocWalk : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        slapd_ = new SlapdFixture;
        if (SlapdFixture::available())
            slapd_->start(); // its own server: the modify changes the data
    }
    static void TearDownTestSuite()
    {
        delete slapd_;
        slapd_ = nullptr;
    }
    void walk(bool onward)
    {
        Flow flow(*slapd_);
        flow.run(); // first use fills process-wide caches; those are not leaks
        long base = lber_alloc_calls();
        FlowRun clean = flow.run();
        long clean_calls = lber_alloc_calls() - base;
        EXPECT_TRUE(clean.failed_step.empty()) << clean.failed_step << " " << clean.failed_code;
        // The first run's modify shows in the second run's walk.
        EXPECT_NE(std::find(clean.seen.begin(), clean.seen.end(), "walked"), clean.seen.end());
        walk_flow(flow, clean, clean_calls, onward);
    }
    static SlapdFixture *slapd_;
};
SlapdFixture *AllocWalk::slapd_ = nullptr;

TEST_F(AllocWalk, EachSingleFailedAllocationIsNoMemoryAndLeaksNothing)
{
    WZR_REQUIRE_SLAPD(*slapd_);
    walk(false);
}

TEST_F(AllocWalk, FailingEveryAllocationFromTheNthOnIsNoMemoryAndLeaksNothing)
{
    WZR_REQUIRE_SLAPD(*slapd_);
    walk(true);
}

// A search that runs out of memory reports 90 and leaves the connection serving: the next
// search on the same handle succeeds, since a read that ran out of memory lost no byte.
TEST_F(AllocWalk, ANoMemoryFailureLeavesTheConnectionServing)
{
    WZR_REQUIRE_SLAPD(*slapd_);
    LDAP *ld = ldap_init("127.0.0.1", slapd_->port());
    ASSERT_NE(ld, nullptr);
    ASSERT_EQ(ldap_simple_bind_s(ld, slapd_->manager_dn().c_str(), slapd_->manager_pw().c_str()), 0);
    auto search = [&] {
        LDAPMessage *res = nullptr;
        int rc = ldap_search_ext_s(ld, slapd_->base().c_str(), LDAP_SCOPE_SUBTREE, "(ou=*)",
                                   nullptr, 0, nullptr, nullptr, nullptr, 0, &res);
        ldap_msgfree(res);
        return rc;
    };
    int failed = 0;
    wzrtest::walk_alloc_failures([&] {
        int rc = search();
        lber_fail_nth_alloc(0);
        EXPECT_TRUE(rc == 0 || rc == LDAP_NO_MEMORY) << rc;
        failed += rc != 0;
        EXPECT_EQ(search(), 0) << "after " << rc;
        return rc == 0;
    }, false);
    EXPECT_GT(failed, 5);
    ldap_unbind(ld);
}

} // namespace
