// Result parsing: LDAPResult fields, referrals and response controls, extended and SASL bind
// results with their recording rules, bind controls, search references, and freeit.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_parse.h"
#include "support/handle_util.h"
#include "support/msg_builder.h"
#include "support/test_util.h"

namespace {

using wzrtest::free_msgs;
using wzrtest::make_msg;
using wzrtest::one_control;
using wzrtest::take_oids;
using wzrtest::take_strings;
using Strings = std::vector<std::string>;

// The thread's error record exists from here on, so allocation counts and live-block checks
// see only the parsers' own blocks.
struct Handle : wzrtest::Handle {
    Handle() { (void)ldap_set_lderrno(ld, 0, nullptr, nullptr); }
};

LDAPMessage *entry(const char *dn) { return make_msg(wzrtest::entry_pdu(dn, {{"cn", {"x"}}})); }

LDAPMessage *search_done(int code, const char *matched = "", const char *text = "",
                         const Strings &refs = {}, LDAPControl **ctrls = nullptr)
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
    EXPECT_EQ(take_strings(refs), (Strings{"ldap://a.example/", "ldap://b.example/"}));
    EXPECT_EQ(take_oids(ctrls), "1.2.3");
    free_msgs(res);

    // Controls behind an extended response's name and value are found.
    res = make_msg(wzrtest::extended_pdu(0, "1.2.3.4", "data", one_control("9.9")));
    ASSERT_EQ(ldap_parse_result(h.ld, res, &code, nullptr, nullptr, nullptr, &ctrls, 0), 0);
    EXPECT_EQ(take_oids(ctrls), "9.9");
    free_msgs(res);
}

// No result in the chain is 1 (the code left alone); freeit frees the chain on success and
// failure alike; a cut result is 84 with nothing handed out.
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
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, &oid, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), 0);
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
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, nullptr, nullptr, 0), -1);
    EXPECT_EQ(ldap_get_errno(h.ld), -1);
    free_msgs(res);

    res = make_msg(wzrtest::extended_pdu(LDAP_UNWILLING_TO_PERFORM, "", ""));
    EXPECT_EQ(ldap_parse_extended_result(h.ld, res, &oid, nullptr, 2), LDAP_UNWILLING_TO_PERFORM);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_UNWILLING_TO_PERFORM);
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
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 1), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(lber_live_blocks(), live);

    res = make_msg(wzrtest::bind_pdu(LDAP_SASL_BIND_IN_PROGRESS, true, "challenge"));
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 0), LDAP_SASL_BIND_IN_PROGRESS);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_SASL_BIND_IN_PROGRESS);
    ASSERT_NE(cred, nullptr);
    EXPECT_EQ(std::string(cred->bv_val, cred->bv_len), "challenge");
    ber_bvfree(cred);
    // A private cursor was used: the same record parses again.
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, nullptr, 0), LDAP_SASL_BIND_IN_PROGRESS);
    free_msgs(res);

    res = search_done(0);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, nullptr, nullptr, 0), LDAP_PARAM_ERROR);
    free_msgs(res);
    res = broken(LDAP_RES_BIND);
    EXPECT_EQ(ldap_parse_sasl_bind_result(h.ld, res, &cred, 0), LDAP_DECODING_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    EXPECT_EQ(cred, nullptr);
    free_msgs(res);
}

TEST(BindControls, CopiedOutOfTheDefaultConnection)
{
    Handle h;
    ASSERT_NE(h.ld->ld_defconn, nullptr);
    LDAPControl **ctrls = reinterpret_cast<LDAPControl **>(0x1);
    EXPECT_EQ(ldap_get_bind_controls(h.ld, &ctrls), 0);
    EXPECT_EQ(ctrls, nullptr);
    wzrtest::Controls stored = one_control("2.16.840.1.113730.3.4.4", false, "0");
    h.ld->ld_defconn->bind_ctrls = stored;
    ASSERT_EQ(ldap_get_bind_controls(h.ld, &ctrls), 0);
    ASSERT_NE(ctrls, nullptr);
    EXPECT_NE(ctrls[0], stored[0]);
    EXPECT_EQ(take_oids(ctrls), "2.16.840.1.113730.3.4.4");
    h.ld->ld_defconn->bind_ctrls = nullptr;
    EXPECT_EQ(ldap_get_bind_controls(h.ld, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
}

TEST(ParseReference, UrlsAndControlsAreHandedOutAndWrongOrBrokenRecordsRefused)
{
    Handle h;
    LDAPMessage *ref = make_msg(wzrtest::reference_pdu(
        {"ldap://x.example/o=x", "ldap://y.example/"}, one_control("7.7")));
    char **urls = nullptr;
    LDAPControl **ctrls = nullptr;
    ASSERT_EQ(ldap_parse_reference(h.ld, ref, &urls, &ctrls, 0), 0);
    EXPECT_EQ(take_strings(urls), (Strings{"ldap://x.example/o=x", "ldap://y.example/"}));
    EXPECT_EQ(take_oids(ctrls), "7.7");
    ASSERT_EQ(ldap_parse_reference_np(h.ld, ref, nullptr, &ctrls, 0), 0); // controls alone
    EXPECT_EQ(take_oids(ctrls), "7.7");
    long live = lber_live_blocks();
    EXPECT_EQ(ldap_parse_reference(h.ld, make_msg(wzrtest::reference_pdu({"ldap://z/"})), &urls,
                                   nullptr, 1),
              0);
    EXPECT_EQ(take_strings(urls), Strings{"ldap://z/"});
    EXPECT_EQ(lber_live_blocks(), live);
    free_msgs(ref);

    LDAPMessage *e = entry("cn=a");
    urls = reinterpret_cast<char **>(0x1);
    EXPECT_EQ(ldap_parse_reference(h.ld, e, &urls, nullptr, 0), LDAP_PARAM_ERROR);
    EXPECT_EQ(urls, nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_parse_reference(h.ld, nullptr, &urls, nullptr, 0), LDAP_PARAM_ERROR);
    free_msgs(e);
    wzrtest::PduBuilder b(1); // a URL that claims more bytes than there are
    b.add("t{", static_cast<ber_tag_t>(LDAP_RES_SEARCH_REFERENCE));
    b.raw(std::string("\x04\x7f" "ldap://", 9));
    b.add("}");
    ref = make_msg(b.bytes());
    ASSERT_NE(ref, nullptr);
    EXPECT_EQ(ldap_parse_reference(h.ld, ref, &urls, nullptr, 0), LDAP_DECODING_ERROR);
    EXPECT_EQ(urls, nullptr);
    EXPECT_EQ(ldap_get_errno(h.ld), LDAP_DECODING_ERROR);
    free_msgs(ref);
}

} // namespace
