// Result parsing: LDAPResult fields, referrals and response controls, extended and SASL bind
// results with their recording rules, bind controls, search references, and freeit.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_unbind.h"
#include "support/msg_builder.h"
#include "support/test_util.h"

namespace {

using wzrtest::make_control;
using wzrtest::make_control_list;
using wzrtest::make_msg;

struct Handle {
    LDAP *ld = ldap_init("localhost", 0);
    Handle()
    {
        // The thread's error record exists from here on, so allocation counts and live-block
        // checks see only the parsers' own blocks.
        (void)ldap_set_lderrno(ld, 0, nullptr, nullptr);
    }
    ~Handle() { (void)ldap_unbind(ld); }
};

struct InvalidHandle {
    LDAP ld{};
    InvalidHandle() { memcpy(ld.ld_eyecatcher, "NOT HDL!", 8); }
};

LDAPMessage *entry(const char *dn) { return make_msg(wzrtest::entry_pdu(dn, {{"cn", {"x"}}})); }

LDAPMessage *search_done(int code, const char *matched = "", const char *text = "",
                         const std::vector<std::string> &refs = {}, LDAPControl **ctrls = nullptr)
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
    char *matched = nullptr;
    char *text = nullptr;
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
    // The server's result is handed out, not recorded.
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_BUSY);

    // Every out-argument is optional.
    EXPECT_EQ(ldap_parse_result(h.ld, chain, nullptr, nullptr, nullptr, nullptr, nullptr, 0), 0);
    wzrtest::free_msgs(chain);
}

TEST(ParseResult, NoResultInTheChainGives1)
{
    Handle h;
    LDAPMessage *chain = wzrtest::chain_msgs({entry("cn=a"), entry("cn=b")});
    int code = 77;
    char *matched = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(ldap_parse_result(h.ld, chain, &code, &matched, nullptr, nullptr, nullptr, 0), 1);
    EXPECT_EQ(code, 77); // left alone until success
    EXPECT_EQ(matched, nullptr);
    EXPECT_EQ(ldap_parse_result(h.ld, nullptr, &code, nullptr, nullptr, nullptr, nullptr, 0), 1);
    wzrtest::free_msgs(chain);

    InvalidHandle bad;
    LDAPMessage *done = search_done(0);
    EXPECT_EQ(ldap_parse_result(&bad.ld, done, &code, nullptr, nullptr, nullptr, nullptr, 0),
              LDAP_PARAM_ERROR);
    wzrtest::free_msgs(done);
}

TEST(ParseResult, FreeitFreesTheChainOnSuccessAndFailure)
{
    Handle h;
    long live = lber_live_blocks();
    LDAPMessage *chain = wzrtest::chain_msgs({entry("cn=a"), broken(LDAP_RES_SEARCH_RESULT)});
    int code = -1;
    char *text = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(ldap_parse_result(h.ld, chain, &code, nullptr, &text, nullptr, nullptr, 1),
              LDAP_DECODING_ERROR);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(code, -1);
    EXPECT_EQ(lber_live_blocks(), live);

    chain = wzrtest::chain_msgs({entry("cn=a"), search_done(0)});
    EXPECT_EQ(ldap_parse_result(h.ld, chain, &code, nullptr, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(lber_live_blocks(), live);

    chain = wzrtest::chain_msgs({entry("cn=a")});
    EXPECT_EQ(ldap_parse_result(h.ld, chain, &code, nullptr, nullptr, nullptr, nullptr, 1), 1);
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(ParseResult, ReferralsAndControlsAreHandedOut)
{
    Handle h;
    LDAPControl **sent = make_control_list({make_control("1.2.3", true, "v", 1)});
    LDAPMessage *res = search_done(LDAP_REFERRAL, "", "go elsewhere",
                                   {"ldap://a.example/", "ldap://b.example/"}, sent);
    ldap_controls_free(sent);

    int code = -1;
    ASSERT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(code, LDAP_REFERRAL); // the referral is stepped over when not wanted

    char **refs = nullptr;
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, &refs, &ctrls, 0), 0);
    ASSERT_NE(refs, nullptr);
    EXPECT_STREQ(refs[0], "ldap://a.example/");
    EXPECT_STREQ(refs[1], "ldap://b.example/");
    EXPECT_EQ(refs[2], nullptr);
    ASSERT_NE(ctrls, nullptr);
    EXPECT_STREQ(ctrls[0]->ldctl_oid, "1.2.3");
    EXPECT_EQ(ctrls[1], nullptr);
    ldap_value_free(refs);
    ldap_controls_free(ctrls);
    wzrtest::free_msgs(res);
}

TEST(ParseResult, ControlsBehindAnExtendedResponseAreFound)
{
    Handle h;
    LDAPControl **sent = make_control_list({make_control("9.9", false)});
    LDAPMessage *res = make_msg(wzrtest::extended_pdu(0, "1.2.3.4", "data", sent));
    ldap_controls_free(sent);
    LDAPControl **ctrls = nullptr;
    int code = -1;
    ASSERT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 0), 0);
    ASSERT_NE(ctrls, nullptr);
    EXPECT_STREQ(ctrls[0]->ldctl_oid, "9.9");
    ldap_controls_free(ctrls);
    wzrtest::free_msgs(res);
}

TEST(ParseResult, EveryFailedAllocationFailsCleanly)
{
    Handle h;
    LDAPControl **sent = make_control_list({make_control("1.2.3", true, "v", 1)});
    LDAPMessage *res = search_done(LDAP_REFERRAL, "o=m", "text", {"ldap://a/", "ldap://b/"}, sent);
    ldap_controls_free(sent);
    int walked = wzrtest::walk_alloc_failures([&] {
        int code = -1;
        char *matched = nullptr;
        char *text = nullptr;
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
    wzrtest::free_msgs(res);
}

TEST(ParseExtended, NotAnExtendedResponseIs89WithTheThreadsCodeAt0)
{
    Handle h;
    (void)ldap_set_lderrno(h.ld, LDAP_BUSY, nullptr, nullptr);
    LDAPMessage *res = search_done(0);
    char *oid = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, &oid, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
    EXPECT_EQ(oid, nullptr);
    EXPECT_EQ(ldap_parse_extended_result(h.ld, nullptr, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    InvalidHandle bad;
    EXPECT_EQ(ldap_parse_extended_result(&bad.ld, res, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    wzrtest::free_msgs(res);
}

TEST(ParseExtended, NameValueAndControlsAreOptional)
{
    Handle h;
    LDAPMessage *bare = make_msg(wzrtest::extended_pdu(0, "", ""));
    char *oid = reinterpret_cast<char *>(0x1);
    struct berval *data = reinterpret_cast<struct berval *>(0x1);
    EXPECT_EQ(ldap_parse_extended_result(h.ld, bare, &oid, &data, 0), 0);
    EXPECT_EQ(oid, nullptr);
    EXPECT_EQ(data, nullptr);
    wzrtest::free_msgs(bare);

    LDAPControl **sent = make_control_list({make_control("5.5", true)});
    LDAPMessage *full = make_msg(wzrtest::extended_pdu(0, "1.3.6.1.4.1.4203.1.11.3",
                                                       std::string("u:\0me", 5), sent));
    ldap_controls_free(sent);
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_parse_extended_result_ctrls(h.ld, full, &oid, &data, &ctrls, 0), 0);
    EXPECT_STREQ(oid, "1.3.6.1.4.1.4203.1.11.3");
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(data->bv_val, data->bv_len), std::string("u:\0me", 5));
    ASSERT_NE(ctrls, nullptr);
    EXPECT_STREQ(ctrls[0]->ldctl_oid, "5.5");
    ldap_memfree(oid);
    ber_bvfree(data);
    ldap_controls_free(ctrls);
    // The message's own element was read: a second parse finds nothing left to decode.
    EXPECT_EQ(ldap_parse_extended_result(h.ld, full, nullptr, nullptr, 0), -1);
    EXPECT_EQ(ldap_get_errno(h.ld), -1);
    wzrtest::free_msgs(full);
}

TEST(ParseExtended, ServerCodesAreRecordedAndFreeitMeansOnly1)
{
    Handle h;
    long live = lber_live_blocks();
    LDAPMessage *res = make_msg(wzrtest::extended_pdu(LDAP_UNWILLING_TO_PERFORM, "", ""));
    char *oid = nullptr;
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, &oid, nullptr, 2),
              LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_NE(lber_live_blocks(), live); // freeit 2 keeps the message
    wzrtest::free_msgs(res);
    EXPECT_EQ(lber_live_blocks(), live);

    res = make_msg(wzrtest::extended_pdu(0, "1.1", ""));
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, &oid, nullptr, 1), 0);
    EXPECT_STREQ(oid, "1.1");
    ldap_memfree(oid);
    EXPECT_EQ(lber_live_blocks(), live);

    res = broken(LDAP_RES_EXTENDED);
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, nullptr, nullptr, 1), -1);
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(ParseSaslBind, InProgressComesBackWithTheCredentialsStored)
{
    Handle h;
    LDAPMessage *res =
        make_msg(wzrtest::bind_pdu(LDAP_SASL_BIND_IN_PROGRESS, true, "challenge"));
    struct berval *cred = nullptr;
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 0), LDAP_SASL_BIND_IN_PROGRESS);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_SASL_BIND_IN_PROGRESS);
    ASSERT_NE(cred, nullptr);
    EXPECT_EQ(std::string(cred->bv_val, cred->bv_len), "challenge");
    ber_bvfree(cred);
    // A private cursor was used: the same record parses again.
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, nullptr, 0), LDAP_SASL_BIND_IN_PROGRESS);
    wzrtest::free_msgs(res);
}

TEST(ParseSaslBind, NoCredentialsIsSuccessAndFreeit2KeepsTheMessage)
{
    Handle h;
    long live = lber_live_blocks();
    LDAPControl **sent = make_control_list({make_control("1.2", false)});
    LDAPMessage *res = make_msg(wzrtest::bind_pdu(0, false, "", sent));
    ldap_controls_free(sent);
    struct berval *cred = reinterpret_cast<struct berval *>(0x1);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 2), 0);
    EXPECT_EQ(cred, nullptr); // the controls behind the response are not credentials
    EXPECT_EQ(res->lm_msgtype, LDAP_RES_BIND); // still alive
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 1), 0);
    EXPECT_EQ(lber_live_blocks(), live);

    res = make_msg(wzrtest::bind_pdu(LDAP_INVALID_CREDENTIALS, false, ""));
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 1), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(lber_live_blocks(), live);
}

TEST(ParseSaslBind, WrongMessagesAndBrokenBodies)
{
    Handle h;
    LDAPMessage *res = search_done(0);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    wzrtest::free_msgs(res);

    res = broken(LDAP_RES_BIND);
    struct berval *cred = nullptr;
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 0), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(cred, nullptr);
    wzrtest::free_msgs(res);

    InvalidHandle bad;
    EXPECT_EQ(ldap_parse_sasl_bind_result(&bad.ld, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
}

TEST(BindControls, CopiedOutOfTheDefaultConnection)
{
    Handle h;
    ASSERT_NE(h.ld->ld_defconn, nullptr);
    LDAPControl **ctrls = reinterpret_cast<LDAPControl **>(0x1);
    EXPECT_EQ(ldap_get_bind_controls(h.ld, &ctrls), 0);
    EXPECT_EQ(ctrls, nullptr);

    LDAPControl **stored = make_control_list({make_control("2.16.840.1.113730.3.4.4", false,
                                                           "0", 1)});
    h.ld->ld_defconn->bind_ctrls = stored;
    ASSERT_EQ(ldap_get_bind_controls(h.ld, &ctrls), 0);
    ASSERT_NE(ctrls, nullptr);
    EXPECT_NE(ctrls[0], stored[0]);
    EXPECT_STREQ(ctrls[0]->ldctl_oid, "2.16.840.1.113730.3.4.4");
    EXPECT_EQ(ctrls[1], nullptr);
    ldap_controls_free(ctrls);
    h.ld->ld_defconn->bind_ctrls = nullptr;
    ldap_controls_free(stored);

    EXPECT_EQ(ldap_get_bind_controls(h.ld, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
}

TEST(ParseReference, UrlsAndControlsAreHandedOut)
{
    Handle h;
    LDAPControl **sent = make_control_list({make_control("7.7", false)});
    LDAPMessage *ref =
        make_msg(wzrtest::reference_pdu({"ldap://x.example/o=x", "ldap://y.example/"}, sent));
    ldap_controls_free(sent);
    char **urls = nullptr;
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_parse_reference(h.ld, ref, &urls, &ctrls, 0), 0);
    ASSERT_NE(urls, nullptr);
    EXPECT_STREQ(urls[0], "ldap://x.example/o=x");
    EXPECT_STREQ(urls[1], "ldap://y.example/");
    EXPECT_EQ(urls[2], nullptr);
    ASSERT_NE(ctrls, nullptr);
    EXPECT_STREQ(ctrls[0]->ldctl_oid, "7.7");
    ldap_value_free(urls);
    ldap_controls_free(ctrls);

    // Controls without the URLs.
    ASSERT_EQ(ldap_parse_reference_np(h.ld, ref, nullptr, &ctrls, 0), 0);
    ASSERT_NE(ctrls, nullptr);
    ldap_controls_free(ctrls);

    long live = lber_live_blocks();
    LDAPMessage *other = make_msg(wzrtest::reference_pdu({"ldap://z/"}));
    EXPECT_EQ(ldap_parse_reference(h.ld, other, &urls, nullptr, 1), 0);
    ldap_value_free(urls);
    EXPECT_EQ(lber_live_blocks(), live);
    wzrtest::free_msgs(ref);
}

TEST(ParseReference, NotAReferenceIs89AndBrokenIs84)
{
    Handle h;
    LDAPMessage *e = entry("cn=a");
    char **urls = reinterpret_cast<char **>(0x1);
    EXPECT_EQ(ldap_parse_reference(h.ld, e, &urls, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(urls, nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_reference(h.ld, nullptr, &urls, nullptr, 0), LDAP_PARAM_ERROR);
    wzrtest::free_msgs(e);

    // A reference whose URL claims more bytes than there are.
    wzrtest::PduBuilder b(1);
    b.add("t{", static_cast<ber_tag_t>(LDAP_RES_SEARCH_REFERENCE));
    b.raw(std::string("\x04\x7f" "ldap://", 9));
    b.add("}");
    LDAPMessage *ref = make_msg(b.bytes());
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(ldap_parse_reference(h.ld, ref, &urls, nullptr, 0), LDAP_DECODING_ERROR);
    EXPECT_EQ(urls, nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    wzrtest::free_msgs(ref);

    InvalidHandle bad;
    EXPECT_EQ(ldap_parse_reference_np(&bad.ld, nullptr, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
}

} // namespace
