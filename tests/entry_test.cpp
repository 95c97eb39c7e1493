// Walking results: entries and references along a chain, counting, the attribute cursor, values
// by name (strings and bervals), the remembered attribute position, the 401-byte name limit and
// the release functions.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <strings.h>
#include <string>
#include <thread>
#include <vector>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "support/handle_util.h"
#include "support/msg_builder.h"
#include "support/test_util.h"

namespace {

using wzrtest::free_msgs;
using wzrtest::make_msg;
using Values = std::vector<std::string>;

// The thread's error record exists from the start, so allocation walks count the walk's own.
struct Handle : wzrtest::Handle {
    Handle() { (void)ldap_set_lderrno(ld, 0, nullptr, nullptr); }
};

LDAPMessage *entry(const std::string &dn, const std::vector<wzrtest::Attr> &attrs)
{
    return make_msg(wzrtest::entry_pdu(dn, attrs));
}

LDAPMessage *person()
{
    return entry("cn=Ann,o=Acme", {{"objectClass", {"top", "person"}}, {"cn", {"Ann", "Annie"}},
                                   {"jpegPhoto", {std::string("\xFF\xD8\x00\x01", 4)}}});
}

Values attribute_names(LDAP *ld, LDAPMessage *e)
{
    Values names;
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(ld, e, &cursor); a != nullptr;
         a = ldap_next_attribute(ld, e, cursor)) {
        names.emplace_back(a);
        ldap_memfree(a);
    }
    EXPECT_EQ(ldap_get_errno(ld), 0);
    ldap_ber_free(cursor, 0);
    return names;
}

Values values_of(LDAP *ld, LDAPMessage *e, const char *type)
{
    Values out;
    struct berval **v = ldap_get_values_len(ld, e, type);
    for (int i = 0; v != nullptr && v[i] != nullptr; ++i)
        out.emplace_back(v[i]->bv_val, v[i]->bv_len);
    ldap_value_free_len(v);
    return out;
}

Values string_values(LDAP *ld, LDAPMessage *e, const char *type)
{
    Values out;
    char **v = ldap_get_values(ld, e, type);
    for (int i = 0; v != nullptr && v[i] != nullptr; ++i)
        out.emplace_back(v[i]);
    ldap_value_free(v);
    return out;
}

TEST(EntryChain, WalksAndCountsSkipOtherTypes)
{
    Handle h;
    LDAPMessage *e1 = entry("cn=1", {}), *e2 = entry("cn=2", {});
    LDAPMessage *r1 = make_msg(wzrtest::reference_pdu({"ldap://a/"}));
    LDAPMessage *r2 = make_msg(wzrtest::reference_pdu({"ldap://b/"}));
    LDAPMessage *done = make_msg(wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, 0, "", ""));
    LDAPMessage *chain = wzrtest::chain_msgs({r1, e1, e2, r2, done});
    EXPECT_EQ(ldap_count_entries(h.ld, chain), 2);
    EXPECT_EQ(ldap_count_references(h.ld, chain), 2);
    EXPECT_EQ(ldap_count_entries(h.ld, e2), 1);
    EXPECT_EQ(ldap_first_entry(h.ld, chain), e1);
    EXPECT_EQ(ldap_next_entry(h.ld, e1), e2);
    EXPECT_EQ(ldap_next_entry(h.ld, e2), nullptr);
    EXPECT_EQ(ldap_first_reference(h.ld, chain), r1);
    EXPECT_EQ(ldap_first_reference(h.ld, e1), r2);
    EXPECT_EQ(ldap_next_reference(h.ld, r1), r1); // starts at the record given: callers advance
    EXPECT_EQ(ldap_next_reference(h.ld, r1->lm_chain), r2);
    EXPECT_EQ(ldap_next_reference(h.ld, done), nullptr);
    EXPECT_EQ(ldap_count_entries(h.ld, nullptr) + ldap_count_references(h.ld, nullptr), 0);
    EXPECT_EQ(ldap_first_entry(h.ld, nullptr), nullptr);
    EXPECT_EQ(ldap_next_entry(h.ld, nullptr), nullptr);
    e1->lm_flags |= LDAP_MSG_SINGLE; // a record handed out alone has no successors
    EXPECT_EQ(ldap_next_entry(h.ld, e1), nullptr);
    EXPECT_EQ(ldap_count_entries(h.ld, e1), 1);
    e1->lm_flags = 0;
    wzrtest::BareHandle bad("NOT HDL!");
    EXPECT_EQ(ldap_count_entries(&bad.ld, nullptr), -1);
    EXPECT_EQ(ldap_count_references(&bad.ld, chain), -1);
    EXPECT_EQ(ldap_count_attributes(&bad.ld, e1), -1);
    EXPECT_EQ(ldap_first_entry(&bad.ld, chain), nullptr);
    EXPECT_EQ(ldap_next_reference(&bad.ld, r1), nullptr);
    EXPECT_EQ(ldap_get_values(&bad.ld, e1, "cn"), nullptr);
    free_msgs(chain);
}

// The cursor walks the types in order, ends with code 0 (also when asked again past the end)
// and never moves the entry's own element; entry controls end the list.
TEST(EntryAttributes, CursorWalksTypesInOrderAndEndsWithCode0)
{
    Handle h;
    LDAPMessage *e = person();
    const unsigned char *pos = e->lm_ber->ber_ptr;
    EXPECT_EQ(attribute_names(h.ld, e), (Values{"objectClass", "cn", "jpegPhoto"}));
    EXPECT_EQ(ldap_count_attributes(h.ld, e), 3);
    BerElement *cursor = nullptr;
    for (char *a = ldap_first_attribute(h.ld, e, &cursor); a != nullptr;
         a = ldap_next_attribute(h.ld, e, cursor))
        ldap_memfree(a);
    (void)ldap_set_lderrno(h.ld, LDAP_BUSY, nullptr, nullptr);
    EXPECT_EQ(ldap_next_attribute(h.ld, e, cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    ldap_ber_free(cursor, 1);
    EXPECT_EQ(e->lm_ber->ber_ptr, pos) << "the entry's own element moved";
    free_msgs(e);

    LDAPControl **ctrls = wzrtest::make_control_list({wzrtest::make_control("1.2.3", false)});
    e = make_msg(wzrtest::entry_pdu("cn=a", {{"cn", {"a"}}, {"sn", {"b"}}}, 1, ctrls));
    ldap_controls_free(ctrls);
    EXPECT_EQ(attribute_names(h.ld, e), (Values{"cn", "sn"}));
    EXPECT_EQ(ldap_count_attributes(h.ld, e), 2);
    free_msgs(e);

    e = entry("cn=empty", {}); // no attributes: no name, code 0, a cursor all the same
    EXPECT_EQ(ldap_first_attribute(h.ld, e, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    EXPECT_NE(cursor, nullptr);
    ldap_ber_free(cursor, 1);
    EXPECT_EQ(ldap_count_attributes(h.ld, e), 0);
    free_msgs(e);
}

TEST(EntryAttributes, BadArgumentsBrokenEntriesAndTypesOver400Characters)
{
    Handle h;
    LDAPMessage *e = person();
    BerElement *cursor = reinterpret_cast<BerElement *>(0x1);
    EXPECT_EQ(ldap_first_attribute(h.ld, nullptr, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(cursor, nullptr);
    for (const std::function<void()> &call : std::initializer_list<std::function<void()>>{
             [&] { EXPECT_EQ(ldap_first_attribute(h.ld, e, nullptr), nullptr); },
             [&] { EXPECT_EQ(ldap_next_attribute(h.ld, e, nullptr), nullptr); },
             [&] { EXPECT_EQ(ldap_count_attributes(h.ld, nullptr), 0); },
             [&] { EXPECT_EQ(ldap_get_values(h.ld, e, nullptr), nullptr); },
             [&] { EXPECT_EQ(ldap_get_values_len(h.ld, nullptr, "cn"), nullptr); }}) {
        call();
        EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    }
    free_msgs(e);

    wzrtest::PduBuilder b(1); // an attribute list that cannot be entered
    b.add("t{s}", static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY), "cn=x");
    LDAPMessage *broken = make_msg(b.bytes());
    const std::string t400(400, 'a'), t401(401, 'b');
    LDAPMessage *too_long = entry("cn=x", {{t401, {"v"}}, {"cn", {"x"}}});
    for (LDAPMessage *m : {broken, too_long}) {
        EXPECT_EQ(ldap_first_attribute(h.ld, m, &cursor), nullptr);
        EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
        EXPECT_EQ(cursor, nullptr);
        // The scan by name stops at what it cannot read, even for a later attribute.
        EXPECT_TRUE(values_of(h.ld, m, "cn").empty());
        EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    }
    EXPECT_EQ(ldap_count_attributes(h.ld, broken), 0);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_values(h.ld, broken, "cn"), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    free_msgs(broken);
    free_msgs(too_long);

    LDAPMessage *fits = entry("cn=x", {{t400, {"v"}}});
    EXPECT_EQ(attribute_names(h.ld, fits), Values{t400});
    EXPECT_EQ(string_values(h.ld, fits, t400.c_str()), Values{"v"});
    free_msgs(fits);
}

TEST(EntryValues, NamesCompareCaseInsensitivelyAndAbsentIs84)
{
    Handle h;
    LDAPMessage *e = person();
    EXPECT_EQ(string_values(h.ld, e, "CN"), (Values{"Ann", "Annie"}));
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    EXPECT_EQ(values_of(h.ld, e, "JPEGphoto"), Values{std::string("\xFF\xD8\x00\x01", 4)});
    EXPECT_EQ(ldap_get_values(h.ld, e, "mail"), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_values_len(h.ld, e, "c"), nullptr); // a prefix is not a match
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    // Freeing the cursor (its flag ignored: the buffer is the entry's) leaves the entry readable.
    BerElement *cursor = nullptr;
    ldap_memfree(ldap_first_attribute(h.ld, e, &cursor));
    ldap_ber_free(cursor, 1);
    EXPECT_EQ(string_values(h.ld, e, "objectclass"), (Values{"top", "person"}));
    ldap_ber_free(nullptr, 1);
    ldap_memfree(nullptr);
    ldap_value_free(nullptr);
    ldap_value_free_len(nullptr);
    free_msgs(e);
}

// The berval values come as one block: array, records, then the values, each NUL-terminated,
// so that ldap_value_free_len releases them with a single free. Empty values and values with
// zero bytes keep their lengths.
TEST(EntryValues, BervalValuesAreOneBlockOfTerminatedCopies)
{
    Handle h;
    const Values want = {"", std::string("\0a\0", 3), "plain", std::string(300, 'x'), ""};
    LDAPMessage *e = entry("cn=Bin", {{"cn", {"Bin"}}, {"data", want}});
    struct berval **v = ldap_get_values_len(h.ld, e, "data");
    ASSERT_NE(v, nullptr);
    auto *block = reinterpret_cast<const char *>(v);
    const char *next_value = nullptr;
    for (size_t i = 0; i < want.size(); ++i) {
        ASSERT_NE(v[i], nullptr) << i;
        EXPECT_EQ(std::string(v[i]->bv_val, v[i]->bv_len), want[i]) << i;
        EXPECT_EQ(v[i]->bv_val[v[i]->bv_len], '\0') << i;
        EXPECT_EQ(reinterpret_cast<const char *>(v[i]),
                  block + (want.size() + 1) * sizeof(struct berval *) + i * sizeof(struct berval));
        EXPECT_TRUE(next_value == nullptr || v[i]->bv_val == next_value) << i;
        next_value = v[i]->bv_val + v[i]->bv_len + 1;
    }
    EXPECT_EQ(v[want.size()], nullptr);
    ldap_value_free_len(v);
    free_msgs(e);

    e = person();
    EXPECT_EQ(wzrtest::walk_alloc_failures([&] {
                  bool ok = true;
                  BerElement *cursor = nullptr;
                  int seen = 0;
                  for (char *a = ldap_first_attribute(h.ld, e, &cursor); a != nullptr;
                       a = ldap_next_attribute(h.ld, e, cursor), ++seen) {
                      struct berval **vals = ldap_get_values_len(h.ld, e, a);
                      ok = ok && vals != nullptr;
                      ldap_value_free_len(vals);
                      ldap_memfree(a);
                  }
                  int code = ldap_get_errno(h.ld);
                  EXPECT_TRUE(code == 0 || code == LDAP_NO_MEMORY) << code;
                  ldap_ber_free(cursor, 0);
                  return ok && seen == 3 && code == 0;
              }),
              7); // the cursor, three names, three value blocks (each set one allocation)
    free_msgs(e);
}

// Values by name read right behind the cursor, as callers do, or after the cursor is gone:
// the remembered attribute never changes a result, and a later "CN" or "cn" still names the
// first attribute of that type.
TEST(EntryValues, RepeatedTypesAlwaysGiveTheFirstAttributeOfThatName)
{
    Handle h;
    LDAPMessage *e = entry(
        "cn=x", {{"cn", {"first"}}, {"sn", {"s"}}, {"CN", {"second"}}, {"cn", {"third"}}});
    BerElement *cursor = nullptr;
    Values seen;
    for (char *a = ldap_first_attribute(h.ld, e, &cursor); a != nullptr;
         a = ldap_next_attribute(h.ld, e, cursor)) {
        seen.emplace_back(a);
        EXPECT_EQ(values_of(h.ld, e, a), strcasecmp(a, "cn") == 0 ? Values{"first"} : Values{"s"})
            << a;
        EXPECT_EQ(ldap_get_errno(h.ld), 0);
        ldap_memfree(a);
    }
    ldap_ber_free(cursor, 0);
    EXPECT_EQ(seen, (Values{"cn", "sn", "CN", "cn"}));
    free_msgs(e);

    e = person();
    char *first = ldap_first_attribute(h.ld, e, &cursor);
    char *second = ldap_next_attribute(h.ld, e, cursor);
    ldap_ber_free(cursor, 0);
    EXPECT_EQ(values_of(h.ld, e, second), (Values{"Ann", "Annie"}));
    EXPECT_EQ(values_of(h.ld, e, first), (Values{"top", "person"}));
    ldap_memfree(first);
    ldap_memfree(second);
    free_msgs(e);
}

// Where the attribute of type `type` (or the bytes `pattern`, when `type` is empty) begins,
// as an offset from ber_buf; read without the 401-byte limit of the walking functions.
size_t offset_of(LDAPMessage *e, const std::string &type, const std::string &pattern = "")
{
    BerElement c = *e->lm_ber;
    if (!pattern.empty())
        return std::string(reinterpret_cast<char *>(c.ber_buf),
                           static_cast<size_t>(c.ber_end - c.ber_buf)).find(pattern);
    if (fber_scanf(&c, "{x{") == LBER_ERROR)
        return std::string::npos;
    while (c.ber_ptr < c.ber_end) {
        size_t at = static_cast<size_t>(c.ber_ptr - c.ber_buf);
        char *name = nullptr;
        if (fber_scanf(&c, "{ax}", &name) == LBER_ERROR)
            return std::string::npos;
        bool found = type == name;
        lber_free(name);
        if (found)
            return at;
    }
    return std::string::npos;
}

// A cursor of one entry passed along with another entry must leave nothing behind in the
// other: here the position it reads in its own entry falls, in the other, on a value whose
// bytes look like an attribute of the same type.
TEST(EntryValues, ACursorOfAnotherEntryLeavesNoRememberedPosition)
{
    Handle h;
    const std::string fake_attr = std::string("\x30\x0B\x04\x02sn\x31\x05\x04\x03", 10) + "bad";
    LDAPMessage *victim = entry("cn=v", {{"description", {fake_attr}}, {"sn", {"real"}}});
    size_t fake_at = offset_of(victim, "", fake_attr);
    ASSERT_NE(fake_at, std::string::npos);
    LDAPMessage *other = nullptr; // its DN padded until its own "sn" begins at the same offset
    for (size_t pad = 0; pad < 64 && other == nullptr; ++pad) {
        LDAPMessage *m = entry("cn=" + std::string(pad, 'p'), {{"cn", {"o"}}, {"sn", {"o"}}});
        if (offset_of(m, "sn") == fake_at)
            other = m;
        else
            free_msgs(m);
    }
    ASSERT_NE(other, nullptr);
    BerElement *cursor = nullptr;
    char *a = ldap_first_attribute(h.ld, other, &cursor);
    char *b = ldap_next_attribute(h.ld, victim, cursor); // the wrong entry for this cursor
    EXPECT_STREQ(b, "sn");
    EXPECT_EQ(values_of(h.ld, victim, "sn"), Values{"real"});
    EXPECT_EQ(values_of(h.ld, other, "sn"), Values{"o"});
    ldap_memfree(a);
    ldap_memfree(b);
    ldap_ber_free(cursor, 0);
    free_msgs(other);
    free_msgs(victim);
}

// Whatever position an entry remembers, a lookup by name gives what the scan from the top gives:
// positions past the data, inside headers, inside values, on other attributes; and a forged
// position beyond a type the lookup cannot read does not skip that failure.
TEST(EntryValues, ARememberedPositionOnGarbageFallsBackToTheScan)
{
    Handle h;
    LDAPMessage *e = person();
    size_t size = static_cast<size_t>(e->lm_ber->ber_end - e->lm_ber->ber_buf);
    for (uint32_t hint = 1; hint < size + 8; ++hint) {
        e->lm_attr_hint = hint;
        e->lm_attr_unique = 0;
        EXPECT_EQ(values_of(h.ld, e, "cn"), (Values{"Ann", "Annie"})) << hint;
        EXPECT_EQ(ldap_get_errno(h.ld), 0);
        EXPECT_EQ(values_of(h.ld, e, "jpegPhoto").size(), 1u) << hint;
        EXPECT_TRUE(values_of(h.ld, e, "mail").empty());
        EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR) << hint;
    }
    e->lm_attr_hint = 0xFFFFFFFFu;
    EXPECT_EQ(values_of(h.ld, e, "objectClass"), (Values{"top", "person"}));
    free_msgs(e);

    e = entry("cn=x", {{std::string(401, 'b'), {"v"}}, {"cn", {"x"}}});
    size_t cn_at = offset_of(e, "cn");
    ASSERT_NE(cn_at, std::string::npos);
    e->lm_attr_hint = static_cast<uint32_t>(cn_at + 1);
    EXPECT_TRUE(values_of(h.ld, e, "cn").empty());
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    free_msgs(e);
}

// Each walking call starts with a clean record: a code, a matched DN or a message left by an
// earlier call are gone, and a failure is recorded again after a success.
TEST(EntryErrors, EveryCallClearsWhatTheLastOneRecorded)
{
    Handle h;
    LDAPMessage *e = person();
    (void)ldap_set_lderrno(h.ld, 0, "o=matched", "a message");
    BerElement *cursor = nullptr;
    char *a = ldap_first_attribute(h.ld, e, &cursor);
    char *matched = nullptr, *msg = nullptr;
    EXPECT_EQ(ldap_get_lderrno(h.ld, &matched, &msg), 0);
    EXPECT_EQ(matched, nullptr);
    EXPECT_EQ(msg, nullptr);
    (void)ldap_set_lderrno(h.ld, 0, nullptr, "only a message");
    EXPECT_EQ(ldap_count_entries(h.ld, e), 1);
    EXPECT_EQ(wzrtest::recorded_message(h.ld), "");
    for (int round = 0; round < 2; ++round) {
        EXPECT_TRUE(values_of(h.ld, e, "absent").empty());
        EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
        EXPECT_EQ(values_of(h.ld, e, a), (Values{"top", "person"}));
        EXPECT_EQ(ldap_get_errno(h.ld), 0);
    }
    (void)ldap_set_lderrno(h.ld, LDAP_NO_MEMORY, nullptr, nullptr);
    char *b = ldap_next_attribute(h.ld, e, cursor);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    (void)ldap_set_lderrno(h.ld, LDAP_NO_MEMORY, nullptr, nullptr);
    char *dn = ldap_get_dn(h.ld, e);
    EXPECT_STREQ(dn, "cn=Ann,o=Acme");
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    for (char *p : {dn, a, b})
        ldap_memfree(p);
    ldap_ber_free(cursor, 0);
    free_msgs(e);
}

// Runs `body(t)` on four threads at once; `body` returns its count of failures.
void expect_no_failures(const std::function<int(int)> &body)
{
    std::vector<int> failures(4, 0);
    std::vector<std::thread> running;
    for (int t = 0; t < 4; ++t)
        running.emplace_back([&, t] { failures[t] = body(t); });
    for (std::thread &th : running)
        th.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

// A thread's first call on a handle creates its record while other threads clear theirs
// without the error lock; every thread keeps reading back its own codes.
TEST(EntryErrorThreads, NewThreadsRecordWhileOthersClear)
{
    Handle h;
    LDAPMessage *e = person();
    for (int round = 0; round < 20; ++round)
        expect_no_failures([&](int t) {
            int failed = 0;
            for (int i = 0; i < 50; ++i) {
                (void)ldap_set_lderrno(h.ld, 10 + t, nullptr, nullptr);
                failed += ldap_get_errno(h.ld) != 10 + t;
                failed += ldap_count_entries(h.ld, e) != 1 || ldap_get_errno(h.ld) != 0;
            }
            return failed;
        });
    free_msgs(e);
}

// Threads walk their own entries and one shared entry (sharing its remembered position)
// through one handle; each sees only its own codes and the values of the type it asked for.
TEST(EntryWalkThreads, ThreadsWalkTheirOwnAndOneSharedEntryThroughOneHandle)
{
    Handle h;
    std::vector<wzrtest::Attr> attrs;
    for (int i = 0; i < 12; ++i)
        attrs.push_back({"type" + std::to_string(i), {"value" + std::to_string(i)}});
    LDAPMessage *shared = entry("cn=shared", attrs);
    expect_no_failures([&](int t) {
        int failed = 0;
        LDAPMessage *e = person();
        for (int i = 0; i < 200; ++i) {
            failed += attribute_names(h.ld, e).size() != 3;
            if (t % 2 == 0)
                failed += ldap_get_values(h.ld, e, "absent") != nullptr ||
                          ldap_get_errno(h.ld) != LDAP_DECODING_ERROR;
            else
                failed += values_of(h.ld, e, "cn").size() != 2 || ldap_get_errno(h.ld) != 0;
            BerElement *cursor = nullptr;
            for (char *a = ldap_first_attribute(h.ld, shared, &cursor); a != nullptr;
                 a = ldap_next_attribute(h.ld, shared, cursor)) {
                failed += values_of(h.ld, shared, a) != Values{"value" + std::string(a + 4)};
                ldap_memfree(a);
            }
            ldap_ber_free(cursor, 0);
        }
        free_msgs(e);
        return failed;
    });
    free_msgs(shared);
}

} // namespace
