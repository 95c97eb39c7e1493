// Response records without a server: the entry and reference walk, the attribute cursor, values
// by name and the attribute index; result, extended, SASL bind and reference parsing; control
// lists (encoding, decoding, copies, merges, defaults) and each control value's writer and reader.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <strings.h>
#include <thread>
#include <vector>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_extended.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_parse.h"
#include "support/control_parse.h"
#include "support/fber_bytes.h"
#include "support/handle_util.h"
#include "support/msg_builder.h"
#include "support/test_util.h"
#include "trace/ldap_trace.h"

namespace {

// The call's result, then the code it recorded on the handle `h`.
#define EXPECT_EQ_CODE(call, result, code) \
    do { EXPECT_EQ(call, result); EXPECT_EQ(ldap_get_errno(h.ld), code); } while (0)
#define EXPECT_RECORDED(call, code) EXPECT_EQ_CODE(call, code, code)

using wzrtest::free_msgs;
using wzrtest::make_msg;
using wzrtest::one_control;
using wzrtest::take_oids;
using wzrtest::take_strings;
using Values = std::vector<std::string>;

// The thread's error record exists from the start, so allocation walks count the walk's own.
struct Handle : wzrtest::Handle {
    Handle() { (void)ldap_set_lderrno(ld, 0, nullptr, nullptr); }
};

LDAPMessage *entry(const std::string &dn, const std::vector<wzrtest::Attr> &attrs = {{"cn", {"x"}}})
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
    return take_strings(ldap_get_values(ld, e, type));
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
    EXPECT_EQ_CODE(ldap_next_attribute(h.ld, e, cursor), nullptr, 0);
    ldap_ber_free(cursor, 1);
    EXPECT_EQ(e->lm_ber->ber_ptr, pos) << "the entry's own element moved";
    free_msgs(e);

    e = make_msg(wzrtest::entry_pdu("cn=a", {{"cn", {"a"}}, {"sn", {"b"}}}, 1, one_control("1.2")));
    EXPECT_EQ(attribute_names(h.ld, e), (Values{"cn", "sn"}));
    EXPECT_EQ(ldap_count_attributes(h.ld, e), 2);
    free_msgs(e);

    e = entry("cn=empty", {}); // no attributes: no name, code 0, a cursor all the same
    EXPECT_EQ_CODE(ldap_first_attribute(h.ld, e, &cursor), nullptr, 0);
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
    EXPECT_EQ_CODE(ldap_first_attribute(h.ld, nullptr, &cursor), nullptr, LDAP_PARAM_ERROR);
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ_CODE(ldap_first_attribute(h.ld, e, nullptr), nullptr, LDAP_PARAM_ERROR);
    EXPECT_EQ_CODE(ldap_next_attribute(h.ld, e, nullptr), nullptr, LDAP_PARAM_ERROR);
    EXPECT_EQ_CODE(ldap_count_attributes(h.ld, nullptr), 0, LDAP_PARAM_ERROR);
    EXPECT_EQ_CODE(ldap_get_values(h.ld, e, nullptr), nullptr, LDAP_PARAM_ERROR);
    EXPECT_EQ_CODE(ldap_get_values_len(h.ld, nullptr, "cn"), nullptr, LDAP_PARAM_ERROR);
    free_msgs(e);

    wzrtest::PduBuilder b(1); // an attribute list that cannot be entered
    b.add("t{s}", static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY), "cn=x");
    LDAPMessage *broken = make_msg(b.bytes());
    const std::string t400(400, 'a'), t401(401, 'b');
    LDAPMessage *too_long = entry("cn=x", {{t401, {"v"}}, {"cn", {"x"}}});
    for (LDAPMessage *m : {broken, too_long}) {
        EXPECT_EQ_CODE(ldap_first_attribute(h.ld, m, &cursor), nullptr, LDAP_DECODING_ERROR);
        EXPECT_EQ(cursor, nullptr);
        // The scan by name stops at what it cannot read, even for a later attribute.
        EXPECT_EQ_CODE(values_of(h.ld, m, "cn"), Values{}, LDAP_DECODING_ERROR);
    }
    EXPECT_EQ_CODE(ldap_count_attributes(h.ld, broken), 0, LDAP_DECODING_ERROR);
    EXPECT_EQ_CODE(ldap_get_values(h.ld, broken, "cn"), nullptr, LDAP_DECODING_ERROR);
    free_msgs(broken);
    free_msgs(too_long);

    wzrtest::PduBuilder empty(1); // an entry without even its DN
    empty.add("t{}", static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY));
    broken = make_msg(empty.bytes());
    EXPECT_EQ_CODE(ldap_get_dn(h.ld, broken), nullptr, LDAP_DECODING_ERROR);
    EXPECT_EQ_CODE(ldap_get_dn(h.ld, nullptr), nullptr, LDAP_PARAM_ERROR);
    free_msgs(broken);

    LDAPMessage *fits = entry("CN=Ann , O=Acme", {{t400, {"v"}}});
    char *dn = ldap_get_dn(h.ld, fits);
    EXPECT_STREQ(dn, "CN=Ann , O=Acme") << "as the server sent it";
    ldap_memfree(dn);
    EXPECT_EQ(attribute_names(h.ld, fits), Values{t400});
    EXPECT_EQ(string_values(h.ld, fits, t400.c_str()), Values{"v"});
    free_msgs(fits);
}

// Names compare without case, a prefix is no match, an absent type is 84; a repeated type gives
// its first attribute, read right behind the cursor or after the cursor is gone (its free flag
// ignored: the buffer is the entry's).
TEST(EntryValues, NamesCompareCaseInsensitivelyAndRepeatedTypesGiveTheFirst)
{
    Handle h;
    LDAPMessage *e = person();
    EXPECT_EQ_CODE(string_values(h.ld, e, "CN"), (Values{"Ann", "Annie"}), 0);
    EXPECT_EQ(values_of(h.ld, e, "JPEGphoto"), Values{std::string("\xFF\xD8\x00\x01", 4)});
    EXPECT_EQ_CODE(ldap_get_values(h.ld, e, "mail"), nullptr, LDAP_DECODING_ERROR);
    EXPECT_EQ_CODE(ldap_get_values_len(h.ld, e, "c"), nullptr, LDAP_DECODING_ERROR);
    BerElement *cursor = nullptr;
    char *first = ldap_first_attribute(h.ld, e, &cursor);
    char *second = ldap_next_attribute(h.ld, e, cursor);
    ldap_ber_free(cursor, 1);
    EXPECT_EQ(values_of(h.ld, e, second), (Values{"Ann", "Annie"}));
    EXPECT_EQ(string_values(h.ld, e, "objectclass"), (Values{"top", "person"}));
    for (char *p : {first, second})
        ldap_memfree(p);
    free_msgs(e);

    e = entry("cn=x", {{"cn", {"first"}}, {"sn", {"s"}}, {"CN", {"second"}}, {"cn", {"third"}}});
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
}

// Berval values come as one block (array, records, NUL-terminated values: a single free), with
// the lengths of empty values and values with zero bytes kept.
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
    ldap_value_free_len(ldap_get_values_len(h.ld, e, "cn")); // builds the entry's index
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

// A cursor passed along with another entry reads that entry where it stands: there, a value
// that looks like an attribute of the same type.
TEST(EntryValues, ACursorOfAnotherEntryReadsWhereItStands)
{
    Handle h;
    const std::string fake_attr = std::string("\x30\x0B\x04\x02sn\x31\x05\x04\x03", 10) + "bad";
    LDAPMessage *victim = entry("cn=v", {{"description", {fake_attr}}, {"sn", {"real"}}});
    auto at = [](LDAPMessage *m, const std::string &bytes) {
        return std::string(reinterpret_cast<char *>(m->lm_ber->ber_buf),
                           static_cast<size_t>(m->lm_ber->ber_end - m->lm_ber->ber_buf)).find(bytes);
    };
    size_t fake_at = at(victim, fake_attr);
    ASSERT_NE(fake_at, std::string::npos);
    LDAPMessage *other = nullptr; // its DN padded until its own "sn" (behind a 6-byte header) is there
    for (size_t pad = 0; pad < 64 && other == nullptr; ++pad) {
        LDAPMessage *m = entry("cn=" + std::string(pad, 'p'), {{"cn", {"o"}}, {"sn", {"o"}}});
        if (at(m, std::string("\x04\x02sn", 4)) == fake_at + 6)
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

// A cursor's read from `offset`: "name code position".
std::string next_from(LDAP *ld, LDAPMessage *e, long offset)
{
    BerElement *cursor = nullptr;
    ldap_memfree(ldap_first_attribute(ld, e, &cursor));
    if (cursor == nullptr)
        return "no cursor " + std::to_string(ldap_get_errno(ld));
    cursor->ber_ptr = cursor->ber_buf + offset;
    char *a = ldap_next_attribute(ld, e, cursor);
    std::string o = std::string(a != nullptr ? a : "(null)") + " " +
                    std::to_string(ldap_get_errno(ld)) + " " +
                    std::to_string(cursor->ber_ptr - cursor->ber_buf);
    ldap_memfree(a);
    ldap_ber_free(cursor, 0);
    return o;
}

// The attribute index must change no result. While tracing every read decodes the entry, so
// reads with and without tracing must agree: cursors standing anywhere (boundaries, inside
// headers and values, past the end), lookups of present, repeated, absent and unreadable types,
// entries ending in controls or in an attribute the walkers refuse (a type over 400 bytes).
TEST(EntryValues, TheAttributeIndexChangesNoResult)
{
    Handle h;
    LDAPControl ctrl{const_cast<char *>("1.2.3"), {2, const_cast<char *>("\x30\x00")}, 0};
    LDAPControl *ctrls[] = {&ctrl, &ctrl, nullptr};
    const std::string long_type(401, 'b');
    const std::vector<std::string> types = {"cn", "CN", "sn", "mail", "jpegphoto", "absent", long_type};
    std::vector<LDAPMessage *> entries = {
        person(),
        entry("cn=x", {{"cn", {"first"}}, {"sn", {"s"}}, {"CN", {"second"}}, {"mail", {}}}),
        make_msg(wzrtest::entry_pdu("cn=c", {{"cn", {"c"}}, {"sn", {"t"}}}, 1, ctrls)),
        entry("cn=l", {{"sn", {"s"}}, {long_type, {"v"}}, {"cn", {"x"}}}),
    };
    for (LDAPMessage *e : entries) {
        long size = e->lm_ber->ber_end - e->lm_ber->ber_buf;
        auto reads = [&] {
            Values out;
            for (long at = 0; at < size + 2; ++at)
                out.push_back(next_from(h.ld, e, at));
            for (const std::string &t : types) {
                std::string got;
                for (const std::string &v : values_of(h.ld, e, t.c_str()))
                    got += v + "|";
                out.push_back(got + " " + std::to_string(ldap_get_errno(h.ld)));
            }
            return out;
        };
        Values fast = reads();
        ldap_debug_init();
        ASSERT_EQ(ldap_set_debug_file("/dev/null"), 0);
        ldap_set_debug_mask(0xffff); // from here every read decodes
        Values decoded = reads();
        ldap_set_debug_mask(0);
        (void)ldap_set_debug_file("stderr");
        ASSERT_EQ(fast.size(), decoded.size());
        for (size_t i = 0; i < fast.size(); ++i)
            EXPECT_EQ(fast[i], decoded[i]) << "entry of " << size << " bytes, case " << i;
        free_msgs(e);
    }
}

// Each walking call starts with a clean record, and a failure is recorded again after a success.
TEST(EntryErrors, EveryCallClearsWhatTheLastOneRecorded)
{
    Handle h;
    LDAPMessage *e = person();
    (void)ldap_set_lderrno(h.ld, 0, "o=matched", "a message");
    BerElement *cursor = nullptr;
    char *a = ldap_first_attribute(h.ld, e, &cursor);
    char *matched = nullptr, *msg = nullptr;
    EXPECT_EQ(ldap_get_lderrno(h.ld, &matched, &msg), 0);
    EXPECT_TRUE(matched == nullptr && msg == nullptr);
    (void)ldap_set_lderrno(h.ld, 0, nullptr, "only a message");
    EXPECT_EQ(ldap_count_entries(h.ld, e), 1);
    EXPECT_EQ(wzrtest::recorded_message(h.ld), "");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ_CODE(values_of(h.ld, e, "absent"), Values{}, LDAP_DECODING_ERROR);
        EXPECT_EQ_CODE(values_of(h.ld, e, a), (Values{"top", "person"}), 0);
    }
    (void)ldap_set_lderrno(h.ld, LDAP_NO_MEMORY, nullptr, nullptr);
    char *b = ldap_next_attribute(h.ld, e, cursor);
    EXPECT_EQ_CODE(std::string(b != nullptr ? b : ""), "cn", 0);
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

// A thread's first call creates its record while others clear theirs; each reads its own codes.
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

// Threads walk their own entries and one shared entry (and its index) through one handle.
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

/* ---- result parsing ---- */

LDAPMessage *search_done(int code, const char *matched = "", const char *text = "",
                         const Values &refs = {}, LDAPControl **ctrls = nullptr)
{
    return make_msg(wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, code, matched, text, refs, ctrls));
}

// A record of `type` whose body stops after the result code: "{iaa" cannot be read.
LDAPMessage *broken(int type)
{
    wzrtest::PduBuilder b(1);
    b.add("t{e}", static_cast<ber_tag_t>(type), 0);
    return make_msg(b.bytes());
}

TEST(ParseResult, ChainOfEntriesAndResultGivesTheResultsFields)
{
    Handle h;
    (void)ldap_set_lderrno(h.ld, LDAP_BUSY, nullptr, nullptr);
    LDAPMessage *chain = wzrtest::chain_msgs(
        {entry("cn=a"), make_msg(wzrtest::reference_pdu({"ldap://h/"})), entry("cn=b"),
         search_done(LDAP_NO_SUCH_OBJECT, "o=acme", "not there")});
    int code = -1;
    char *matched = nullptr, *text = nullptr;
    char **refs = reinterpret_cast<char **>(0x1);
    LDAPControl **ctrls = reinterpret_cast<LDAPControl **>(0x1);
    ASSERT_EQ(ldap_parse_result(h.ld, chain, &code, &matched, &text, &refs, &ctrls, 0), 0);
    EXPECT_EQ(code, LDAP_NO_SUCH_OBJECT);
    EXPECT_STREQ(matched, "o=acme");
    EXPECT_STREQ(text, "not there");
    EXPECT_EQ(refs, nullptr);
    EXPECT_EQ(ctrls, nullptr);
    ldap_memfree(matched);
    ldap_memfree(text);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_BUSY) << "the server's result is handed out, not recorded";
    EXPECT_EQ(ldap_parse_result(h.ld, chain, nullptr, nullptr, nullptr, nullptr, nullptr, 0), 0);
    free_msgs(chain);

    LDAPMessage *res = search_done(LDAP_REFERRAL, "", "go elsewhere",
                                   {"ldap://a.example/", "ldap://b.example/"},
                                   one_control("1.2.3", true, "v"));
    ASSERT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(code, LDAP_REFERRAL); // the referral is stepped over when not wanted
    ASSERT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, &refs, &ctrls, 0), 0);
    EXPECT_EQ(take_strings(refs), (Values{"ldap://a.example/", "ldap://b.example/"}));
    EXPECT_EQ(take_oids(ctrls), "1.2.3");
    free_msgs(res);

    // Controls behind an extended response's name and value are found.
    res = make_msg(wzrtest::extended_pdu(0, "1.2.3.4", "data", one_control("9.9")));
    ASSERT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 0), 0);
    EXPECT_EQ(take_oids(ctrls), "9.9");
    free_msgs(res);
}

// No result is 1 (the code left alone); a cut result is 84 with nothing handed out; freeit
// frees the chain whatever.
TEST(ParseResult, NoResultGives1AndFreeitFreesTheChainWhatever)
{
    Handle h;
    long live = lber_live_blocks();
    int code = 77;
    char *matched = reinterpret_cast<char *>(0x1), *text = reinterpret_cast<char *>(0x1);
    LDAPMessage *chain = wzrtest::chain_msgs({entry("cn=a"), entry("cn=b")});
    EXPECT_EQ(ldap_parse_result(h.ld, chain, &code, &matched, nullptr, nullptr, nullptr, 1), 1);
    EXPECT_EQ(code, 77);
    EXPECT_EQ(matched, nullptr);
    EXPECT_EQ(ldap_parse_result(h.ld, nullptr, &code, nullptr, nullptr, nullptr, nullptr, 0), 1);
    EXPECT_EQ(lber_live_blocks(), live);

    chain = wzrtest::chain_msgs({entry("cn=a"), broken(LDAP_RES_SEARCH_RESULT)});
    EXPECT_EQ(ldap_parse_result(h.ld, chain, &code, nullptr, &text, nullptr, nullptr, 1),
              LDAP_DECODING_ERROR);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(code, 77);
    EXPECT_EQ(lber_live_blocks(), live);
    chain = wzrtest::chain_msgs({entry("cn=a"), search_done(0)});
    EXPECT_EQ(ldap_parse_result(h.ld, chain, &code, nullptr, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(lber_live_blocks(), live);

    wzrtest::BareHandle bad("NOT HDL!");
    LDAPMessage *done = search_done(0);
    EXPECT_EQ(ldap_parse_result(&bad.ld, done, &code, nullptr, nullptr, nullptr, nullptr, 0),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_extended_result(&bad.ld, done, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sasl_bind_result(&bad.ld, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_reference_np(&bad.ld, nullptr, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    free_msgs(done);
}

TEST(ParseResult, EveryFailedAllocationFailsCleanly)
{
    Handle h;
    LDAPMessage *res = search_done(LDAP_REFERRAL, "o=m", "text", {"ldap://a/", "ldap://b/"},
                                   one_control("1.2.3", true, "v"));
    int walked = wzrtest::walk_alloc_failures([&] {
        int code = -1;
        char *matched = nullptr, *text = nullptr;
        char **refs = nullptr;
        LDAPControl **ctrls = nullptr;
        int rc = ldap_parse_result(h.ld, res, &code, &matched, &text, &refs, &ctrls, 0);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_NO_MEMORY); // also when it failed inside the decoder
            EXPECT_TRUE(matched == nullptr && text == nullptr && refs == nullptr &&
                        ctrls == nullptr);
        }
        ldap_memfree(matched);
        ldap_memfree(text);
        ldap_value_free(refs);
        ldap_controls_free(ctrls);
        return rc == 0;
    });
    EXPECT_GT(walked, 6);
    free_msgs(res);
}

TEST(ParseExtended, NameValueControlsServerCodesAndFreeit)
{
    Handle h;
    long live = lber_live_blocks();
    (void)ldap_set_lderrno(h.ld, LDAP_BUSY, nullptr, nullptr);
    LDAPMessage *res = search_done(0); // not an extended response: 89, the thread's code at 0
    char *oid = reinterpret_cast<char *>(0x1);
    EXPECT_EQ_CODE(ldap_parse_extended_result(h.ld, res, &oid, nullptr, 0), LDAP_PARAM_ERROR, 0);
    EXPECT_EQ(oid, nullptr);
    EXPECT_EQ(ldap_parse_extended_result(h.ld, nullptr, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    free_msgs(res);

    res = make_msg(wzrtest::extended_pdu(0, "", "")); // name and value are optional
    struct berval *data = reinterpret_cast<struct berval *>(0x1);
    oid = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, &oid, &data, 1), 0);
    EXPECT_EQ(oid, nullptr);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(lber_live_blocks(), live);

    res = make_msg(wzrtest::extended_pdu(0, "1.3.6.1.4.1.4203.1.11.3", std::string("u:\0me", 5),
                                         one_control("5.5", true)));
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_parse_extended_result_ctrls(h.ld, res, &oid, &data, &ctrls, 0), 0);
    EXPECT_STREQ(oid, "1.3.6.1.4.1.4203.1.11.3");
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(data->bv_val, data->bv_len), std::string("u:\0me", 5));
    EXPECT_EQ(take_oids(ctrls), "5.5");
    ldap_memfree(oid);
    ber_bvfree(data);
    // The message's own element was read: a second parse finds nothing left to decode.
    EXPECT_EQ_CODE(ldap_parse_extended_result(h.ld, res, nullptr, nullptr, 0), -1, -1);
    free_msgs(res);

    res = make_msg(wzrtest::extended_pdu(LDAP_UNWILLING_TO_PERFORM, "", ""));
    EXPECT_RECORDED(ldap_parse_extended_result(h.ld, res, &oid, nullptr, 2),
                    LDAP_UNWILLING_TO_PERFORM);
    EXPECT_NE(lber_live_blocks(), live); // freeit 2 keeps the message
    free_msgs(res);
    EXPECT_EQ(ldap_parse_extended_result(h.ld, broken(LDAP_RES_EXTENDED), nullptr, nullptr, 1), -1);
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(ParseSaslBind, CredentialsCodesAndFreeit)
{
    Handle h;
    long live = lber_live_blocks();
    LDAPMessage *res = make_msg(wzrtest::bind_pdu(0, false, "", one_control("1.2")));
    struct berval *cred = reinterpret_cast<struct berval *>(0x1);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 2), 0);
    EXPECT_EQ(cred, nullptr); // the controls behind the response are not credentials
    EXPECT_EQ(res->lm_msgtype, LDAP_RES_BIND); // still alive
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 1), 0);
    res = make_msg(wzrtest::bind_pdu(LDAP_INVALID_CREDENTIALS, false, ""));
    EXPECT_RECORDED(ldap_parse_sasl_bind_result(h.ld, res, &cred, 1), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(lber_live_blocks(), live);

    res = make_msg(wzrtest::bind_pdu(LDAP_SASL_BIND_IN_PROGRESS, true, "challenge"));
    EXPECT_RECORDED(ldap_parse_sasl_bind_result(h.ld, res, &cred, 0), LDAP_SASL_BIND_IN_PROGRESS);
    ASSERT_NE(cred, nullptr);
    EXPECT_EQ(std::string(cred->bv_val, cred->bv_len), "challenge");
    ber_bvfree(cred);
    // A private cursor was used: the same record parses again.
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, nullptr, 0), LDAP_SASL_BIND_IN_PROGRESS);
    free_msgs(res);

    res = search_done(0);
    EXPECT_RECORDED(ldap_parse_sasl_bind_result(h.ld, res, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    free_msgs(res);
    res = broken(LDAP_RES_BIND);
    EXPECT_RECORDED(ldap_parse_sasl_bind_result(h.ld, res, &cred, 0), LDAP_DECODING_ERROR);
    EXPECT_EQ(cred, nullptr);
    free_msgs(res);
}

TEST(ParseReference, UrlsAndControlsAreHandedOutAndWrongOrBrokenRecordsRefused)
{
    Handle h;
    LDAPMessage *ref = make_msg(wzrtest::reference_pdu(
        {"ldap://x.example/o=x", "ldap://y.example/"}, one_control("7.7")));
    char **urls = nullptr;
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_parse_reference(h.ld, ref, &urls, &ctrls, 0), 0);
    EXPECT_EQ(take_strings(urls), (Values{"ldap://x.example/o=x", "ldap://y.example/"}));
    EXPECT_EQ(take_oids(ctrls), "7.7");
    ASSERT_EQ(ldap_parse_reference_np(h.ld, ref, nullptr, &ctrls, 0), 0); // controls alone
    EXPECT_EQ(take_oids(ctrls), "7.7");
    long live = lber_live_blocks();
    EXPECT_EQ(ldap_parse_reference(h.ld, make_msg(wzrtest::reference_pdu({"ldap://z/"})), &urls,
                                   nullptr, 1),
              0);
    EXPECT_EQ(take_strings(urls), Values{"ldap://z/"});
    EXPECT_EQ(lber_live_blocks(), live);
    free_msgs(ref);

    LDAPMessage *e = entry("cn=a");
    urls = reinterpret_cast<char **>(0x1);
    EXPECT_EQ(ldap_parse_reference(h.ld, e, &urls, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ_CODE(urls, nullptr, LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_reference(h.ld, nullptr, &urls, nullptr, 0), LDAP_PARAM_ERROR);
    free_msgs(e);
    wzrtest::PduBuilder b(1); // a URL that claims more bytes than there are
    b.add("t{", static_cast<ber_tag_t>(LDAP_RES_SEARCH_REFERENCE));
    b.raw(std::string("\x04\x7f" "ldap://", 9));
    b.add("}");
    ref = make_msg(b.bytes());
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(ldap_parse_reference(h.ld, ref, &urls, nullptr, 0), LDAP_DECODING_ERROR);
    EXPECT_EQ_CODE(urls, nullptr, LDAP_DECODING_ERROR);
    free_msgs(ref);
}

/* ---- controls ---- */

namespace fb = wzrtest::fber;
using wzrtest::make_control;
using wzrtest::make_control_list;

std::string unhex(const char *text)
{
    std::string out;
    for (std::istringstream in(text); in >> std::ws && !in.eof();) {
        std::string byte(2, '\0');
        in.read(byte.data(), 2);
        out += static_cast<char>(std::stoi(byte, nullptr, 16));
    }
    return out;
}

std::string flatten(BerElement *ber)
{
    struct berval *bv = nullptr;
    EXPECT_EQ(ber_is_fber(ber) ? fber_flatten(ber, &bv) : ber_flatten(ber, &bv), 0);
    std::string out(bv->bv_val != nullptr ? bv->bv_val : "", bv->bv_len);
    ber_bvfree(bv);
    return fb::hex(out);
}

// "OID CRITICAL VALUE" for each control ("-": no value), joined by "|"; "null" for no list.
std::string describe(LDAPControl **list)
{
    if (list == nullptr)
        return "null";
    std::string out;
    for (; *list != nullptr; ++list) {
        const berval &v = (*list)->ldctl_value;
        out += std::string(out.empty() ? "" : "|") + (*list)->ldctl_oid + " " +
               std::to_string((*list)->ldctl_iscritical) + " " +
               (v.bv_val != nullptr ? std::string(v.bv_val, v.bv_len) : "-");
    }
    return out;
}

// Walks every failed allocation of `make`: a failure is 90 with no list. Gives the count.
int walk_list(const std::function<int(LDAPControl ***)> &make,
              void (*release)(LDAPControl **) = ldap_controls_free)
{
    return wzrtest::walk_alloc_failures([&] {
        LDAPControl **got = nullptr;
        int rc = make(&got);
        if (rc != 0) {
            EXPECT_EQ(rc, LDAP_NO_MEMORY);
            EXPECT_EQ(got, nullptr);
        }
        release(got);
        return rc == 0;
    });
}

TEST(ControlEncoding, ListsAreWrittenInOrderWithCriticalityAndValue)
{
    LDAPControl **one = make_control_list({make_control("1.2.3", false)});
    LDAPControl **two = make_control_list(
        {make_control("1.1", true, "\x00\xFF", 2), make_control("1.2", false, "", 0)});
    BerElement *ber = fber_alloc();
    LDAPControl *none[] = {nullptr};
    EXPECT_EQ(put_ctrls_into_ber(ber, nullptr), 0); // empty lists write nothing
    EXPECT_EQ(put_ctrls_into_ber(ber, none), 0);
    EXPECT_EQ(put_ctrls_into_ber_old(ber, none), 0);
    ASSERT_EQ(put_ctrls_into_ber(ber, one), 0);
    EXPECT_EQ(flatten(ber), fb::hex(fb::cons(0xa0, fb::seq(fb::str("1.2.3") + fb::boolean(false)))));
    fber_free(ber);
    // The older encoder writes the same elements with minimal DER lengths; an empty value is
    // present (its pointer is set), so it is written as an empty string.
    BerElement *der = der_alloc();
    ASSERT_EQ(put_ctrls_into_ber_old(der, two), 0);
    EXPECT_EQ(flatten(der), fb::hex(unhex("a0 1a 30 0c 04 03 31 2e 31 01 01 ff 04 02 00 ff "
                                          "30 0a 04 03 31 2e 32 01 01 00 04 00")));
    ber_free(der, 1);
    lber_free(one[0]->ldctl_oid);
    one[0]->ldctl_oid = nullptr;
    ber = fber_alloc();
    EXPECT_EQ(put_ctrls_into_ber(ber, one), LDAP_ENCODING_ERROR);
    fber_free(ber);
    ldap_controls_free(one);
    ldap_controls_free(two);
}

// Each case follows an INTEGER skipped first, as controls follow an operation; a failure hands
// the caller nothing, not even a partial list.
TEST(ControlDecoding, ListsAreReadWholeOrNotAtAll)
{
    const std::string full = fb::cons(0xa0, fb::seq(fb::str("1.2.840.1") + fb::boolean(true) +
                                                    fb::str("abc")) +
                                                fb::seq(fb::str("1.3")) +
                                                fb::seq(fb::str("1.4") + fb::str("")));
    const struct { std::string bytes; int rc; const char *want; } cases[] = {
        {full, 0, "1.2.840.1 1 abc|1.3 0 -|1.4 0 "},
        {"", 0, "null"},                 // at the end of the data
        {unhex("04 01 78"), 0, "null"},  // something else follows
        {unhex("a0 7f 30 05 04 03 31 2e 32"), 0, "1.2 0 -"}, // the list claims more than there is
        {unhex("a0 09 30 07 04 05 31 2e"), LDAP_DECODING_ERROR, "null"}, // the OID is cut
        // value before criticality, two values, two criticalities, an unknown INTEGER field
        {unhex("a0 0d 30 0b 04 03 31 2e 32 04 01 78 01 01 ff"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 0d 30 0b 04 03 31 2e 32 04 01 78 04 01 79"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 0d 30 0b 04 03 31 2e 32 01 01 00 01 01 00"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 0a 30 08 04 03 31 2e 32 02 01 00"), LDAP_DECODING_ERROR, "null"},
        {unhex("a0 04 30 02 1f 00"), LDAP_DECODING_ERROR, "null"}, // an unreadable OID
    };
    auto decode = [](const std::string &bytes, LDAPControl ***got) {
        std::string pdu = unhex("02 01 05") + bytes;
        struct berval bv = {pdu.size(), pdu.data()};
        BerElement *ber = fber_init(&bv);
        if (ber == nullptr)
            return LDAP_NO_MEMORY;
        int rc = fber_skip_element(ber) == 0 ? get_ctrls_from_ber(ber, got) : -1;
        fber_free(ber);
        return rc;
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(fb::hex(c.bytes));
        LDAPControl **got = make_control_list({}), **before = got;
        EXPECT_EQ(decode(c.bytes, &got), c.rc);
        EXPECT_EQ(describe(got), c.want);
        ldap_controls_free(got);
        lber_free(before);
    }
    EXPECT_EQ(decode(full, nullptr), 0);
    EXPECT_GT(walk_list([&](LDAPControl ***got) { return decode(full, got); }), 4);
}

TEST(ControlCopy, CopiesAreDeepAndBadControlsAre89)
{
    LDAPControl **from = make_control_list(
        {make_control("1.1", true, "xyz", 3), make_control("1.2", false, "", 0)});
    LDAPControl **to = nullptr;
    ASSERT_EQ(ldap_copy_controls(&to, from), 0);
    EXPECT_EQ(describe(to), "1.1 1 xyz|1.2 0 -"); // a zero-length value is left null
    EXPECT_NE(to[0]->ldctl_oid, from[0]->ldctl_oid);
    EXPECT_NE(to[0]->ldctl_value.bv_val, from[0]->ldctl_value.bv_val);
    ldap_controls_free(to);
    to = reinterpret_cast<LDAPControl **>(&to); // must be overwritten
    EXPECT_EQ(ldap_copy_controls(&to, nullptr), 0);
    EXPECT_EQ(to, nullptr);
    EXPECT_EQ(ldap_copy_controls(nullptr, from), LDAP_PARAM_ERROR);
    ldap_controls_free(from);

    // The second control is bad: the copy of the first is undone.
    LDAPControl **sentinel = reinterpret_cast<LDAPControl **>(0x1);
    LDAPControl **bad = make_control_list({make_control("1.1", false), make_control("x", 1, "a", 1)});
    to = sentinel;
    bad[1]->ldctl_value.bv_len = static_cast<unsigned long>(-5L);
    EXPECT_EQ(ldap_copy_controls(&to, bad), LDAP_PARAM_ERROR); // a negative length
    bad[1]->ldctl_value.bv_len = 1;
    lber_free(bad[1]->ldctl_oid);
    bad[1]->ldctl_oid = nullptr;
    EXPECT_EQ(ldap_copy_controls(&to, bad), LDAP_PARAM_ERROR); // no OID
    EXPECT_EQ(to, sentinel) << "the target is left alone";
    ldap_controls_free(bad);

    from = make_control_list(
        {make_control("1.1", true, "xyz", 3), make_control("1.2", false), make_control("1.3", 0)});
    EXPECT_EQ(walk_list([&](LDAPControl ***copy) { return ldap_copy_controls(copy, from); }),
              1 + 3 + 3 + 1); // array, three records, three OIDs, one value
    ldap_controls_free(from);
}

TEST(ControlMerge, InputComesFirstAndIsMovedNotCopied)
{
    LDAPControl *a = make_control("in.1", false), *b = make_control("in.2", false);
    LDAPControl *x = make_control("dest.1", false), *y = make_control("dest.2", true);
    LDAPControl **input = make_control_list({a, b}), **dest = make_control_list({x, y});
    long live = lber_live_blocks();
    ASSERT_EQ(ldap_merge_control_lists(&dest, &input), 0);
    EXPECT_EQ(lber_live_blocks(), live - 1); // two arrays gone, one new
    LDAPControl *want[] = {a, b, x, y, nullptr};
    EXPECT_TRUE(std::equal(want, want + 5, dest));
    ldap_controls_free(dest);

    LDAPControl **keep = make_control_list({make_control("k", false)}), **none = nullptr;
    EXPECT_EQ(ldap_merge_control_lists(&keep, &none), 0); // nothing to merge
    EXPECT_EQ(ldap_merge_control_lists(&keep, nullptr), 0);
    EXPECT_EQ(ldap_merge_control_lists(nullptr, &keep), 0);
    ASSERT_EQ(ldap_merge_control_lists(&none, &keep), 0); // into an empty destination
    EXPECT_EQ(describe(none), "k 0 -");
    ldap_controls_free(none);
    none = nullptr;

    ldap_control_free(nullptr);
    ldap_controls_free(nullptr);
    ldap_free_empty_control_list(nullptr);
    ldap_free_empty_control_list(&none);
    LDAPControl *c = make_control("1.1", false);
    LDAPControl **list = make_control_list({c});
    ldap_free_empty_control_list(&list); // the array alone goes
    EXPECT_STREQ(c->ldctl_oid, "1.1");
    ldap_control_free(c);
}

TEST(EntryControls, ReadFromBehindTheEntryAndRecorded)
{
    Handle h;
    LDAPMessage *entry = make_msg(
        wzrtest::entry_pdu("cn=a", {{"cn", {"a"}}}, 1, one_control("1.9", true, "v")));
    LDAPMessage *plain = make_msg(wzrtest::entry_pdu("cn=b", {{"cn", {"b"}}}));
    LDAPMessage *done = make_msg(wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, 0, "", ""));
    LDAPControl **got = nullptr;
    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, entry, &got), 0);
    EXPECT_EQ(describe(got), "1.9 1 v");
    ldap_controls_free(got);
    EXPECT_EQ(ldap_get_entry_controls(h.ld, entry, &got), 0);
    EXPECT_EQ(take_oids(got), "1.9");
    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, plain, &got), 0);
    EXPECT_EQ(got, nullptr);
    EXPECT_RECORDED(ldap_get_entry_controls_np(h.ld, done, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, nullptr, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_np(h.ld, entry, nullptr), LDAP_PARAM_ERROR);
    wzrtest::BareHandle bad("NOT HDL!");
    EXPECT_EQ(ldap_get_entry_controls_np(&bad.ld, entry, &got), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_entry_controls_checked(&bad.ld, entry, &got), -1);
    EXPECT_EQ(ldap_get_entry_controls_checked(h.ld, entry, &got), 0);
    EXPECT_EQ(take_oids(got), "1.9");
    for (LDAPMessage *m : {entry, plain, done})
        free_msgs(m);
}

// The caller's controls first, then copies of the handle's; a critical client control is 12.
TEST(DefaultControls, CallersFirstThenCopiesOfTheHandleDefaults)
{
    Handle h;
    LDAP *ld = h.ld;
    LDAPControl **given = make_control_list({make_control("given", true)}), **merged = nullptr;
    auto merge = [&](LDAPControl **in) {
        EXPECT_EQ(ldap_merge_default_controls(ld, in, &merged), 0);
        std::string out = describe(merged) + (merged && merged[0] == given[0] ? " (not copied)" : "");
        ldap_free_merged_controls(merged);
        return out;
    };
    EXPECT_EQ(merge(given), "given 1 -");
    EXPECT_EQ(merge(nullptr), "null");
    LDAPControl **defaults =
        make_control_list({make_control("default.1", false), make_control("default.2", false)});
    LDAPControl **saved = ld->ld_sctrls;
    ld->ld_sctrls = defaults;
    EXPECT_EQ(merge(given), "given 1 -|default.1 0 -|default.2 0 -");
    EXPECT_GT(walk_list([&](LDAPControl ***m) { return ldap_merge_default_controls(ld, given, m); },
                        ldap_free_merged_controls),
              6);
    ld->ld_sctrls = saved;
    EXPECT_EQ(ldap_check_client_controls(nullptr), 0);
    EXPECT_EQ(ldap_check_client_controls(defaults), 0);
    defaults[1]->ldctl_iscritical = 1;
    EXPECT_EQ(ldap_check_client_controls(defaults), LDAP_UNAVAILABLE_CRITICAL_EXTENSION);
    ldap_controls_free(defaults);
    ldap_controls_free(given);
}

// What a control constructor made: its value ("(none)" for none), or "rc=N" and no control.
std::string made(const std::function<int(LDAPControl **)> &make)
{
    LDAPControl *ctrl = nullptr;
    int rc = make(&ctrl);
    EXPECT_EQ(ctrl != nullptr, rc == 0);
    const berval *v = ctrl != nullptr ? &ctrl->ldctl_value : nullptr;
    std::string out = rc != 0            ? "rc=" + std::to_string(rc)
                      : v->bv_val == nullptr ? "(none)"
                                             : std::string(v->bv_val, v->bv_len);
    ldap_control_free(ctrl);
    return out;
}
#define MADE(call) made([&](LDAPControl **c) { return call; })

TEST(ControlValues, EachConstructorWritesItsValueOrRefusesItsArguments)
{
    // The proxied-authorisation switch is read once, case-insensitively: set before its first
    // use, the older clients' wrapped form is what this program sends (the slapd test sends
    // the standard one), and a later change is not seen.
    wzrtest::ScopedEnv java("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "yEs");
    struct berval cookie{2, const_cast<char *>("ab")}, id{1, const_cast<char *>("T")};
    LDAPSortKey **keys = nullptr;
    ASSERT_EQ(ldap_create_sort_keylist(&keys, " -cn:caseExactOrderingMatch  sn "), 0);
    LDAPVLVInfo window{1, 1, 2, 10, 0, nullptr, &id, nullptr};
    const unsigned long most = 0x7fffffff; // the largest count the control can carry
    LDAPVLVInfo widest{1, most, most, most, most, nullptr, nullptr, nullptr};
    LDAPVLVInfo too_wide{1, 0, 0, 0, 0x80000000UL, nullptr, nullptr, nullptr};
    const std::string int_max = unhex("02 04 7f ff ff ff");
    char *uid[] = {const_cast<char *>("uid"), nullptr};
    LDAPDerefSpec derefs[] = {{const_cast<char *>("member"), uid}, {nullptr, nullptr}};
    const std::pair<std::string, std::string> cases[] = {
        {MADE(ldap_create_page_control(nullptr, 500, &cookie, 0, c)),
         unhex("30 08 02 02 01 f4 04 02 61 62")},
        {MADE(ldap_create_sort_control(nullptr, keys, 1, c)),
         unhex("30 27 30 1f 04 02 63 6e 80 16") + "caseExactOrderingMatch" +
             unhex("81 01 ff 30 04 04 02 73 6e")},
        {MADE(ldap_create_vlv_control(nullptr, &window, c)),
         unhex("30 11 02 01 01 02 01 02 a0 06 02 01 0a 02 01 00 04 01 54")},
        {MADE(ldap_create_vlv_control(nullptr, &widest, c)),
         unhex("30 1a") + int_max + int_max + unhex("a0 0c") + int_max + int_max},
        {MADE(ldap_create_vlv_control(nullptr, &too_wide, c)),
         "rc=" + std::to_string(LDAP_PARAM_ERROR)},
        {MADE(ldap_create_assertion_control(nullptr, "(!(cn=x))", 1, c)),
         fb::cons(0xa2, fb::cons(0xa3, fb::str("cn") + fb::str("x")))},
        {MADE(ldap_create_matchedvalues_control(nullptr, "((mail=*.org)(:caseIgnoreMatch:=x))", 1,
                                                c)),
         fb::seq(fb::cons(0xa4, fb::str("mail") + fb::seq(fb::prim(0x82, ".org"))) +
                 fb::cons(0xa9, fb::prim(0x81, "caseIgnoreMatch") + fb::prim(0x83, "x")))},
        {MADE(ldap_create_proxied_authorization_control(nullptr, "u:al", c)),
         unhex("04 04 75 3a 61 6c")},
        {MADE(ldap_create_proxyauth_control(nullptr, "o=x", 1, c)), unhex("30 05 04 03 6f 3d 78")},
        {MADE(ldap_create_passwordpolicy_control(nullptr, c)), "(none)"},
        {MADE(ldap_create_deref_control(nullptr, derefs, 0, c)),
         unhex("30 11 30 0f 04 06") + "member" + unhex("30 05 04 03") + "uid"},
        {MADE(ldap_create_txn_spec_control(nullptr, &id, c)), "T"},
        {MADE(ldap_create_chaining_control(nullptr, LDAP_CHAINING_REQUIRED, LDAP_REFERRALS_PREFERRED,
                                           0, c)),
         unhex("30 06 0a 01 01 0a 01 02")},
        {MADE(ldap_create_session_tracking_control(nullptr, "::1", nullptr, "1.2", &id, c)),
         unhex("30 0f 04 03 3a 3a 31 04 00 04 03 31 2e 32 04 01 54")},
        // a DN marker in a values filter; a proxied identity without its "dn:" or "u:"
        {MADE(ldap_create_matchedvalues_control(nullptr, "(cn:dn:rule:=x)", 1, c)),
         "rc=" + std::to_string(LDAP_FILTER_ERROR)},
        {MADE(ldap_create_proxied_authorization_control(nullptr, "cn=x", c)),
         "rc=" + std::to_string(LDAP_PARAM_ERROR)},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(fb::hex(cases[i].first), fb::hex(cases[i].second)) << "case " << i;
    ldap_free_sort_keylist(keys);
    for (const char *bad : {"", "  ", "-", "cn:", ":rule", "cn: sn"})
        EXPECT_EQ(ldap_create_sort_keylist(&keys, bad), LDAP_PARAM_ERROR) << bad;
    struct berval *end = nullptr;
    ASSERT_EQ(ldap_txn_end_request_value(nullptr, 0, &id, &end), 0);
    EXPECT_EQ(fb::hex(std::string(end->bv_val, end->bv_len)),
              fb::hex(unhex("30 06 01 01 00 04 01 54")));
    ber_bvfree(end);
    wzrtest::ScopedEnv no("USE_JAVA_PROXIED_AUTH_CONTROL_ENCODING", "no");
    EXPECT_EQ(ldap_proxied_auth_encoding_mode(), 1);
}

// The values of the extended requests the library builds for callers; a missing name refuses.
TEST(ExtendedValues, EachBuilderWritesItsValueOrRefusesAMissingName)
{
    auto take = [](struct berval *bv) {
        std::string out = bv != nullptr ? std::string(bv->bv_val, bv->bv_len) : "(null)";
        ber_bvfree(bv);
        return out;
    };
    const std::pair<std::string, std::string> cases[] = {
        {take(ldap_create_password_policy_bind_init_request("o=x")), fb::seq(fb::str("o=x"))},
        {take(ldap_create_password_policy_bind_finalize_request("o=x", 2)),
         fb::seq(fb::str("o=x") + fb::enumerated(2))},
        {take(ldap_create_locate_entry_request(nullptr)), fb::seq(fb::str(""))},
        {take(ldap_create_online_backup_request("/b")), fb::seq(fb::str("/b"))},
        {take(ldap_create_get_file_request(3, "f")), fb::seq(fb::enumerated(3) + fb::str("f"))},
        {take(ldap_create_resume_role_request(1, "a", nullptr)),
         fb::seq(fb::enumerated(1) + fb::str("a") + fb::str(""))},
        {take(ldap_create_password_policy_bind_init_request(nullptr)), "(null)"},
        {take(ldap_create_password_policy_bind_finalize_request(nullptr, 0)), "(null)"},
        {take(ldap_create_online_backup_request(nullptr)), "(null)"},
    };
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(fb::hex(cases[i].first), fb::hex(cases[i].second)) << "case " << i;
}

using wzrtest::ControlParser;

TEST(ControlValues, ParsersReadWhatServersSendAndRefuseTheRest)
{
    using P = ControlParser;
    const char *page = LDAP_CONTROL_PAGEDRESULTS, *sort = LDAP_CONTROL_SORTRESPONSE,
               *vlv = LDAP_CONTROL_VLVRESPONSE, *deref = LDAP_CONTROL_DEREF,
               *pp = LDAP_CONTROL_PASSWORDPOLICY;
    const struct { ControlParser parse; const char *oid, *value, *expected; } cases[] = { // hex
        {P::Page, page, "30 05 02 01 0a 04 02", "84"},
        {P::Page, "1.2.3", "30 05 02 01 00 04 00", "93"},
        {P::SortOrVlv, sort, "30 07 0a 01 10 80 02 63 6e", "0 16 cn"},
        {P::SortOrVlv, sort, "30 07 0a 01 10 04 02 63 6e", "84"},
        {P::SortOrVlv, vlv, "30 0c 02 01 05 02 01 63 0a 01 3d 04 01 43", "0 5 99 61 C"},
        {P::SortOrVlv, vlv, "30 06 02 01 05 02 01 63", "84"},
        {P::Deref, deref, "30 0c 30 0a 04 01 6d 04 03 6f 3d 78 04 00", "84"},
        {P::Deref, deref, "30 0d 30 0b 04 01 6d 04 03 6f 3d 78 a0 01 30", "84"},
        {P::Policy, pp, "30 08 a0 03 81 01 02 81 01 00", "0 2 2 3"},
        {P::Policy, pp, "30 03 81 01 08", "0 0 0 11"},
        {P::Policy, pp, "30 03 81 01 09", "84"},
        {P::Policy, pp, "30 08 81 01 00 a0 03 80 01 3c", "84"},
        {P::Policy, LDAP_CONTROL_PWEXPIRING, "38 36 34 30 30", "0 1 86400 0"},
        {P::Policy, "1.2.3", "30 00", "93"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.oid) + " " + c.value);
        std::string raw = unhex(c.value);
        struct berval v{raw.size(), raw.data()};
        LDAPControl *ctrl = nullptr;
        ASSERT_EQ(ldap_control_create(c.oid, 0, &v, &ctrl), 0);
        LDAPControl *list[] = {ctrl, nullptr};
        EXPECT_EQ(wzrtest::parse_control(c.parse, list), c.expected);
        ldap_control_free(ctrl);
    }
    int failed = 0;
    std::string end = unhex("30 0a 02 01 07 30 05 30 03 02 01 07");
    struct berval v{end.size(), end.data()};
    EXPECT_EQ(ldap_parse_txn_end_response_value(nullptr, &v, &failed), 0);
    EXPECT_EQ(failed, 7);
}

TEST(ControlValues, NoMemoryAnywhereGivesNinetyAndLeaksNothing)
{
    wzrtest::walk_alloc_failures([] {
        LDAPSortKey **keys = nullptr;
        LDAPControl *sort = nullptr, *pc = nullptr;
        bool ok = ldap_create_sort_keylist(&keys, "-cn:rule sn") == 0 &&
                  ldap_create_sort_control(nullptr, keys, 1, &sort) == 0 &&
                  ldap_create_page_control(nullptr, 5, nullptr, 0, &pc) == 0;
        // A request value has the response's shape: the parser reads it back.
        LDAPControl *list[] = {pc, nullptr};
        ok = ok && wzrtest::parse_control(ControlParser::Page, list) == "0 5 ";
        ldap_free_sort_keylist(keys);
        ldap_control_free(sort);
        ldap_control_free(pc);
        return ok;
    });
}

} // namespace
