// Walking results: entries and references along a chain, counting, the attribute cursor, values
// by name (strings and bervals), the 401-byte name limit and the release functions.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_unbind.h"
#include "support/msg_builder.h"
#include "support/test_util.h"

namespace {

using wzrtest::make_msg;

struct Handle {
    LDAP *ld = ldap_init("localhost", 0);
    Handle() { (void)ldap_set_lderrno(ld, 0, nullptr, nullptr); }
    ~Handle() { (void)ldap_unbind(ld); }
};

struct InvalidHandle {
    LDAP ld{};
    InvalidHandle() { memcpy(ld.ld_eyecatcher, "NOT HDL!", 8); }
};

LDAPMessage *person()
{
    return make_msg(wzrtest::entry_pdu(
        "cn=Ann,o=Acme", {{"objectClass", {"top", "person"}},
                          {"cn", {"Ann", "Annie"}},
                          {"jpegPhoto", {std::string("\xFF\xD8\x00\x01", 4)}}}));
}

std::vector<std::string> attribute_names(LDAP *ld, LDAPMessage *e)
{
    std::vector<std::string> names;
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

TEST(EntryChain, WalksAndCountsSkipOtherTypes)
{
    Handle h;
    LDAPMessage *e1 = make_msg(wzrtest::entry_pdu("cn=1", {}));
    LDAPMessage *r1 = make_msg(wzrtest::reference_pdu({"ldap://a/"}));
    LDAPMessage *e2 = make_msg(wzrtest::entry_pdu("cn=2", {}));
    LDAPMessage *r2 = make_msg(wzrtest::reference_pdu({"ldap://b/"}));
    LDAPMessage *done =
        make_msg(wzrtest::result_pdu(LDAP_RES_SEARCH_RESULT, 0, "", ""));
    LDAPMessage *chain = wzrtest::chain_msgs({r1, e1, e2, r2, done});

    EXPECT_EQ(ldap_count_entries(h.ld, chain), 2);
    EXPECT_EQ(ldap_count_references(h.ld, chain), 2);
    EXPECT_EQ(ldap_count_entries(h.ld, e2), 1);
    EXPECT_EQ(ldap_first_entry(h.ld, chain), e1);
    EXPECT_EQ(ldap_next_entry(h.ld, e1), e2);
    EXPECT_EQ(ldap_next_entry(h.ld, e2), nullptr);
    EXPECT_EQ(ldap_first_reference(h.ld, chain), r1);
    EXPECT_EQ(ldap_first_reference(h.ld, e1), r2);
    // Starts at the record it is given: the caller advances.
    EXPECT_EQ(ldap_next_reference(h.ld, r1), r1);
    EXPECT_EQ(ldap_next_reference(h.ld, r1->lm_chain), r2);
    EXPECT_EQ(ldap_next_reference(h.ld, done), nullptr);

    EXPECT_EQ(ldap_count_entries(h.ld, nullptr), 0);
    EXPECT_EQ(ldap_count_references(h.ld, nullptr), 0);
    EXPECT_EQ(ldap_first_entry(h.ld, nullptr), nullptr);
    EXPECT_EQ(ldap_next_entry(h.ld, nullptr), nullptr);

    // A record handed out alone has no successors to walk into.
    e1->lm_flags |= LDAP_MSG_SINGLE;
    EXPECT_EQ(ldap_next_entry(h.ld, e1), nullptr);
    EXPECT_EQ(ldap_count_entries(h.ld, e1), 1);
    e1->lm_flags = 0;

    InvalidHandle bad;
    EXPECT_EQ(ldap_count_entries(&bad.ld, nullptr), -1);
    EXPECT_EQ(ldap_count_references(&bad.ld, chain), -1);
    EXPECT_EQ(ldap_count_attributes(&bad.ld, e1), -1);
    EXPECT_EQ(ldap_first_entry(&bad.ld, chain), nullptr);
    EXPECT_EQ(ldap_next_reference(&bad.ld, r1), nullptr);
    wzrtest::free_msgs(chain);
}

TEST(EntryAttributes, CursorWalksTypesInOrderAndEndsWithCode0)
{
    Handle h;
    LDAPMessage *e = person();
    ASSERT_NE(e, nullptr);
    const unsigned char *pos = e->lm_ber->ber_ptr;
    EXPECT_EQ(attribute_names(h.ld, e),
              (std::vector<std::string>{"objectClass", "cn", "jpegPhoto"}));
    EXPECT_EQ(ldap_count_attributes(h.ld, e), 3);

    BerElement *cursor = nullptr;
    char *a = ldap_first_attribute(h.ld, e, &cursor);
    ldap_memfree(a);
    while ((a = ldap_next_attribute(h.ld, e, cursor)) != nullptr)
        ldap_memfree(a);
    (void)ldap_set_lderrno(h.ld, LDAP_BUSY, nullptr, nullptr);
    EXPECT_EQ(ldap_next_attribute(h.ld, e, cursor), nullptr); // past the end, again
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    ldap_ber_free(cursor, 1);

    EXPECT_EQ(e->lm_ber->ber_ptr, pos) << "the entry's own element moved";
    wzrtest::free_msgs(e);
}

TEST(EntryAttributes, EntryControlsEndTheAttributes)
{
    Handle h;
    LDAPControl *ctrl = wzrtest::make_control("1.2.3", false);
    LDAPControl **ctrls = wzrtest::make_control_list({ctrl});
    LDAPMessage *e =
        make_msg(wzrtest::entry_pdu("cn=a", {{"cn", {"a"}}, {"sn", {"b"}}}, 1, ctrls));
    ldap_controls_free(ctrls);
    EXPECT_EQ(attribute_names(h.ld, e), (std::vector<std::string>{"cn", "sn"}));
    EXPECT_EQ(ldap_count_attributes(h.ld, e), 2);
    wzrtest::free_msgs(e);
}

TEST(EntryAttributes, EntryWithoutAttributesKeepsItsCursor)
{
    Handle h;
    LDAPMessage *e = make_msg(wzrtest::entry_pdu("cn=empty", {}));
    BerElement *cursor = nullptr;
    EXPECT_EQ(ldap_first_attribute(h.ld, e, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    EXPECT_NE(cursor, nullptr);
    ldap_ber_free(cursor, 1);
    EXPECT_EQ(ldap_count_attributes(h.ld, e), 0);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    wzrtest::free_msgs(e);
}

TEST(EntryAttributes, BadArgumentsAndBrokenEntries)
{
    Handle h;
    LDAPMessage *e = person();
    BerElement *cursor = reinterpret_cast<BerElement *>(0x1);
    EXPECT_EQ(ldap_first_attribute(h.ld, nullptr, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(ldap_first_attribute(h.ld, e, nullptr), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_next_attribute(h.ld, e, nullptr), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_count_attributes(h.ld, nullptr), 0);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    wzrtest::free_msgs(e);

    // An entry whose attribute list cannot be entered.
    wzrtest::PduBuilder b(1);
    b.add("t{s}", static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY), "cn=x");
    LDAPMessage *broken = make_msg(b.bytes());
    EXPECT_EQ(ldap_first_attribute(h.ld, broken, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(ldap_count_attributes(h.ld, broken), 0);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_values(h.ld, broken, "cn"), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    wzrtest::free_msgs(broken);
}

TEST(EntryAttributes, TypesUpTo400CharactersOnly)
{
    Handle h;
    std::string t400(400, 'a');
    std::string t401(401, 'b');
    LDAPMessage *fits = make_msg(wzrtest::entry_pdu("cn=x", {{t400, {"v"}}}));
    BerElement *cursor = nullptr;
    char *a = ldap_first_attribute(h.ld, fits, &cursor);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(std::string(a), t400);
    ldap_memfree(a);
    ldap_ber_free(cursor, 0);
    char **v = ldap_get_values(h.ld, fits, t400.c_str());
    ASSERT_NE(v, nullptr);
    ldap_value_free(v);
    wzrtest::free_msgs(fits);

    LDAPMessage *too_long = make_msg(wzrtest::entry_pdu("cn=x", {{t401, {"v"}}, {"cn", {"x"}}}));
    EXPECT_EQ(ldap_first_attribute(h.ld, too_long, &cursor), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(cursor, nullptr);
    // The scan by name stops at the type it cannot read, even for a later attribute.
    EXPECT_EQ(ldap_get_values_len(h.ld, too_long, "cn"), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    wzrtest::free_msgs(too_long);
}

TEST(EntryValues, NamesCompareCaseInsensitivelyAndAbsentIs84)
{
    Handle h;
    LDAPMessage *e = person();
    char **cn = ldap_get_values(h.ld, e, "CN");
    ASSERT_NE(cn, nullptr);
    EXPECT_STREQ(cn[0], "Ann");
    EXPECT_STREQ(cn[1], "Annie");
    EXPECT_EQ(cn[2], nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    ldap_value_free(cn);

    struct berval **photo = ldap_get_values_len(h.ld, e, "JPEGphoto");
    ASSERT_NE(photo, nullptr);
    ASSERT_EQ(photo[0]->bv_len, 4u);
    EXPECT_EQ(memcmp(photo[0]->bv_val, "\xFF\xD8\x00\x01", 4), 0);
    EXPECT_EQ(photo[1], nullptr);
    ldap_value_free_len(photo);

    EXPECT_EQ(ldap_get_values(h.ld, e, "mail"), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_values_len(h.ld, e, "c"), nullptr); // a prefix is not a match
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_values(h.ld, e, nullptr), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_values_len(h.ld, nullptr, "cn"), nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    InvalidHandle bad;
    EXPECT_EQ(ldap_get_values(&bad.ld, e, "cn"), nullptr);
    wzrtest::free_msgs(e);
}

TEST(EntryValues, FreeingTheCursorLeavesTheEntryReadable)
{
    Handle h;
    LDAPMessage *e = person();
    BerElement *cursor = nullptr;
    char *a = ldap_first_attribute(h.ld, e, &cursor);
    ldap_memfree(a);
    ldap_ber_free(cursor, 1); // the flag is ignored: the buffer is the entry's
    char **oc = ldap_get_values(h.ld, e, "objectclass");
    ASSERT_NE(oc, nullptr);
    EXPECT_STREQ(oc[1], "person");
    ldap_value_free(oc);
    ldap_ber_free(nullptr, 1);
    ldap_memfree(nullptr);
    ldap_value_free(nullptr);
    ldap_value_free_len(nullptr);
    wzrtest::free_msgs(e);
}

TEST(EntryValues, EveryFailedAllocationIsReportedWithoutLeaks)
{
    Handle h;
    LDAPMessage *e = person();
    int walked = wzrtest::walk_alloc_failures([&] {
        bool ok = true;
        BerElement *cursor = nullptr;
        int seen = 0;
        for (char *a = ldap_first_attribute(h.ld, e, &cursor); a != nullptr;
             a = ldap_next_attribute(h.ld, e, cursor)) {
            struct berval **v = ldap_get_values_len(h.ld, e, a);
            ok = ok && v != nullptr;
            ldap_value_free_len(v);
            ldap_memfree(a);
            ++seen;
        }
        int code = ldap_get_errno(h.ld);
        if (code != 0) {
            EXPECT_TRUE(code == LDAP_NO_MEMORY || code == LDAP_DECODING_ERROR) << code;
        }
        ldap_ber_free(cursor, 0);
        return ok && seen == 3 && code == 0;
    });
    EXPECT_GT(walked, 10);
    wzrtest::free_msgs(e);
}

// Several threads walk their own entries through one handle; each sees only its own codes.
TEST(EntryWalkThreads, ThreadsWalkTheirOwnEntriesThroughOneHandle)
{
    Handle h;
    constexpr int kThreads = 4;
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            LDAPMessage *e = person();
            for (int i = 0; i < 300; ++i) {
                if (attribute_names(h.ld, e).size() != 3)
                    ++failures[t];
                if (t % 2 == 0) {
                    if (ldap_get_values(h.ld, e, "absent") != nullptr ||
                        ldap_get_errno(h.ld) != LDAP_DECODING_ERROR)
                        ++failures[t];
                } else {
                    struct berval **v = ldap_get_values_len(h.ld, e, "cn");
                    if (v == nullptr || ldap_get_errno(h.ld) != 0)
                        ++failures[t];
                    ldap_value_free_len(v);
                }
            }
            wzrtest::free_msgs(e);
        });
    }
    for (std::thread &th : threads)
        th.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(failures[t], 0) << "thread " << t;
}

} // namespace
