// Bind, search, modify, add, delete, rename and compare requests byte for byte against the fake
// server; argument checks and controls; what a bind keeps and hands out; the password's absence
// from the trace; a timed-out synchronous search; and their failure paths.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_options.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_search.h"
#include "libldap/ldap_update.h"
#include "support/lber_test.h"
#include "support/request_test.h"
#include "support/test_util.h"

namespace {

using namespace wzrtest::fber;
using wzrtest::FakeConnection;
using wzrtest::ReceivedRequest;

constexpr unsigned BIND = 0x60, SEARCH = 0x63;

char *s(const char *text) { return const_cast<char *>(text); }

struct Requests : wzrtest::RequestTest {
    void expect_bind(const Bytes &body, const Bytes &controls = "")
    {
        expect_request(BIND, cons(0x60, integer(3) + body), controls);
    }
    void expect_search(const Bytes &body, const Bytes &controls = "")
    {
        expect_request(SEARCH, cons(0x63, body), controls);
    }
    // Requests of `op` are answered by `reply`.
    void answer(unsigned op, std::function<void(const ReceivedRequest &, FakeConnection &)> reply)
    {
        server.server().on_request([op, reply](const ReceivedRequest &r, FakeConnection &c) {
            if (r.op == op)
                reply(r, c);
        });
    }
};

Bytes sasl(const char *mech) { return cons(0xa3, str(mech)); }

/* ---- bind ---- */

TEST_F(Requests, SimpleBindCarriesVersionDnAndPassword)
{
    ASSERT_EQ(ldap_simple_bind_s(ld, "cn=Manager,dc=example", "secret"), 0);
    expect_bind(str("cn=Manager,dc=example") + prim(0x80, "secret"));
    ASSERT_EQ(ldap_simple_bind_s(ld, nullptr, nullptr), 0);
    expect_bind(str("") + prim(0x80, ""));
    struct berval cred = {4, s("p\0w!")}; // an empty mechanism: a simple bind
    ASSERT_EQ(ldap_sasl_bind_s(ld, "cn=s", "", &cred, nullptr, nullptr, nullptr), 0);
    expect_bind(str("cn=s") + prim(0x80, Bytes("p\0w!", 4)));
    int two = 2;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &two), 0);
    ASSERT_EQ(ldap_bind_s(ld, "cn=v2", "pw", LDAP_AUTH_SIMPLE), 0);
    expect_request(BIND, cons(0x60, integer(2) + str("cn=v2") + prim(0x80, "pw")));
    EXPECT_EQ(ld->ld_authmethod, LDAP_AUTH_SIMPLE);
    EXPECT_STREQ(ld->ld_bind_dn, "cn=v2");
    EXPECT_EQ(ld->ld_bind_cred.bv_val, nullptr) << "a simple password is not kept";
    // Other methods of the old interface are refused.
    EXPECT_EQ(ldap_bind_s(ld, "cn=x", "pw", LDAP_AUTH_SASL), LDAP_AUTH_UNKNOWN);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_AUTH_UNKNOWN);
    EXPECT_EQ(ldap_bind(ld, "cn=x", "pw", 0x81), -1);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_AUTH_UNKNOWN);
    EXPECT_EQ(server.count(BIND), 4u);
}

TEST_F(Requests, SaslBindsSendTheMechanismAndKeepWhatARebindNeeds)
{
    struct berval cred = {5, s("tok\0n")};
    LDAPControl **ctrls = wzrtest::control_list({{"1.9", false}});
    ASSERT_EQ(ldap_sasl_bind_s(ld, "cn=u", "X-MECH", &cred, ctrls, nullptr, nullptr), 0);
    expect_bind(str("cn=u") + cons(0xa3, str("X-MECH") + str(Bytes("tok\0n", 5))),
                cons(0xa0, seq(str("1.9") + boolean(false))));
    // Kept for rebinding: SASL method, mechanism, the credentials cut at their zero byte, and
    // a copy of the controls.
    EXPECT_EQ(ld->ld_authmethod, 2);
    EXPECT_STREQ(ld->ld_bind_mech, "X-MECH");
    EXPECT_STREQ(ld->ld_bind_dn, "cn=u");
    EXPECT_EQ(ld->ld_bind_cred.bv_len, 3u);
    EXPECT_STREQ(ld->ld_bind_cred.bv_val, "tok");
    ASSERT_NE(ld->ld_bind_sctrls, nullptr);
    EXPECT_STREQ(ld->ld_bind_sctrls[0]->ldctl_oid, "1.9");
    EXPECT_NE(ld->ld_bind_sctrls, ctrls);
    ldap_controls_free(ctrls);
    // No credentials: the optional element is left out.
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-OTHER", nullptr, nullptr, nullptr, nullptr), 0);
    expect_bind(str("") + sasl("X-OTHER"));
    EXPECT_EQ(ld->ld_bind_cred.bv_val, nullptr);
    // EXTERNAL, named in any case, goes without DN or credentials.
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "external", nullptr, nullptr, nullptr, nullptr), 0);
    expect_bind(str("") + sasl("EXTERNAL"));
    EXPECT_STREQ(ld->ld_bind_mech, "EXTERNAL");
    cred = {1, s("x")};
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", &cred, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_sasl_bind_s(ld, "cn=x", "ExTeRnAl", nullptr, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR);
    EXPECT_EQ(server.count(BIND), 3u);
    // The direct form refuses mechanisms it does not carry.
    int id = 0;
    EXPECT_EQ(ldap_sasl_bind_direct(ld, nullptr, "DIGEST-MD5", nullptr, nullptr, &id, nullptr),
              LDAP_PARAM_ERROR);
    // Answered "in progress", the bind is sent again with the (empty) response.
    answer(BIND, [](const ReceivedRequest &req, FakeConnection &c) {
        bool has_creds = req.bytes.find(std::string("EXTERNAL") + '\x04') != std::string::npos;
        c.send(wzrtest::ldap_result_pdu(req.msgid, 0x61, has_creds ? 0 : 14));
    });
    ASSERT_EQ(ldap_sasl_bind_s(ld, nullptr, "EXTERNAL", nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(server.count(BIND), 5u);
    expect_bind(str("") + cons(0xa3, str("EXTERNAL") + str("")));
}

TEST_F(Requests, ServerCredentialsControlsAndMessagesAreHandedOut)
{
    using namespace wzrtest;
    LDAPControl **kept = reinterpret_cast<LDAPControl **>(0x1);
    ASSERT_EQ(ldap_get_bind_controls(ld, &kept), 0);
    EXPECT_EQ(kept, nullptr) << "no bind yet, no controls";
    answer(BIND, [](const ReceivedRequest &req, FakeConnection &c) {
        if (req.bytes.find("wrong") != std::string::npos) {
            c.send(ldap_result_pdu(req.msgid, 0x61, 49, "", "bad password"));
            return;
        }
        std::string body = ber_int(14, 0x0a) + ber_str("") + ber_str("") + ber_str("chal", 0x87);
        std::string ctrls = ber_seq(ber_seq(ber_str("1.3.6.1.4.1.42.2.27.8.5.1")), 0xa0);
        c.send(ldap_message(req.msgid, ber_seq(body, 0x61), ctrls));
    });
    struct berval *creds = nullptr;
    EXPECT_EQ(ldap_sasl_bind_s(ld, nullptr, "X-STEP", nullptr, nullptr, nullptr, &creds),
              LDAP_SASL_BIND_IN_PROGRESS);
    ASSERT_NE(creds, nullptr);
    EXPECT_EQ(std::string(creds->bv_val, creds->bv_len), "chal");
    ber_bvfree(creds);
    ASSERT_EQ(ldap_get_bind_controls(ld, &kept), 0);
    ASSERT_NE(kept, nullptr);
    EXPECT_STREQ(kept[0]->ldctl_oid, "1.3.6.1.4.1.42.2.27.8.5.1");
    ldap_controls_free(kept);
    EXPECT_EQ(ldap_get_bind_controls(ld, nullptr), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    EXPECT_EQ(ldap_simple_bind_s(ld, "cn=a", "b"), LDAP_SASL_BIND_IN_PROGRESS);
    EXPECT_EQ(ldap_simple_bind_s(ld, "cn=a", "wrong"), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_INVALID_CREDENTIALS);
    EXPECT_EQ(wzrtest::recorded_message(ld), "bad password");
}

TEST_F(Requests, TraceShowsStarsNeverThePassword)
{
    wzrtest::TraceFile trace;
    const char *password = "Sup3rS3cretPw";
    // DNs of every length modulo 16, so that some request puts the password inside one line
    // of a sixteen-byte dump.
    int rc = 0;
    for (int pad = 0; pad < 16 && rc == 0; ++pad)
        rc = ldap_simple_bind_s(ld, ("cn=tracer" + std::string(pad, 'x')).c_str(), password);
    EXPECT_EQ(rc, 0);
    EXPECT_GT(ldap_simple_bind(ld, "cn=tracer", password), 0);
    std::string text = trace.text();
    EXPECT_NE(text.find("ldap_simple_bind: entering with"), std::string::npos);
    EXPECT_NE(text.find("dn(cn=tracer) pw(***)"), std::string::npos);
    size_t leak = text.find(password);
    EXPECT_EQ(leak, std::string::npos) << "the password shows in the trace here:\n"
                                       << text.substr(leak < 600 ? 0 : leak - 600, 700);
}

/* ---- search ---- */

// The fixed part of a SearchRequest up to the filter.
Bytes head(const char *base, int scope, int deref, int size, int time, bool attrsonly)
{
    return str(base) + enumerated(scope) + enumerated(deref) + integer(size) + integer(time) +
           boolean(attrsonly);
}

Bytes eq(const char *a, const char *v) { return cons(0xa3, str(a) + str(v)); }

// A synchronous search that must succeed; the result is freed.
void search(LDAP *ld, const char *base, int scope, const char *filter, char **attrs, int attrsonly,
            LDAPControl **ctrls, struct timeval tv, int size)
{
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_search_ext_s(ld, base, scope, filter, attrs, attrsonly, ctrls, nullptr, &tv,
                                size, &res), 0);
    EXPECT_EQ(ldap_msgtype(res), LDAP_RES_SEARCH_RESULT);
    ldap_msgfree(res);
}

TEST_F(Requests, SearchEncodesEveryFieldAndTakesItsTimeLimitFromTheTimeoutOrTheHandle)
{
    char *attrs[] = {s("cn;binary"), s("+"), s("@person"), nullptr};
    LDAPControl **ctrls = wzrtest::control_list({{"1.2.840.113556.1.4.319", true, "page"}});
    search(ld, "dc=example,dc=com", 2, "(cn=Babs Jensen)", attrs, 1, ctrls, {30, 0}, 200);
    ldap_controls_free(ctrls);
    expect_search(head("dc=example,dc=com", 2, 0, 200, 30, true) + eq("cn", "Babs Jensen") +
                      seq(str("cn;binary") + str("+") + str("@person")),
                  cons(0xa0, seq(str("1.2.840.113556.1.4.319") + boolean(true) + str("page"))));

    search(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", nullptr, 0, nullptr, {0, 900000}, 0);
    Bytes present = prim(0x87, "objectClass");
    // Seconds raised to 1 when only microseconds were given; no attributes: an empty list.
    expect_search(head("", 0, 0, 0, 1, false) + present + seq(""));
    int size = 5, time = 7, deref = LDAP_DEREF_ALWAYS;
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &size), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_TIMELIMIT, &time), 0);
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_DEREF, &deref), 0);
    int id = ldap_search(ld, "o=x", LDAP_SCOPE_ONELEVEL, "(objectClass=*)", nullptr, 0);
    LDAPMessage *res = nullptr;
    ASSERT_EQ(ldap_result(ld, id, 1, nullptr, &res), LDAP_RES_SEARCH_RESULT);
    ldap_msgfree(res);
    expect_search(head("o=x", 1, 3, 5, 7, false) + present + seq(""));
    // The synchronous classic form sends no size limit and the handle's time limit.
    ASSERT_EQ(ldap_search_s(ld, "o=x", LDAP_SCOPE_BASE, "cn=abc", nullptr, 0, &res), 0);
    ldap_msgfree(res);
    expect_search(head("o=x", 0, 3, 0, 7, false) + eq("cn", "abc") + seq(""));
    search(ld, "o=x", LDAP_SCOPE_BASE, "(cn=a)", nullptr, 0, nullptr, {3600, 0}, 1000); // long ints
    expect_search(head("o=x", 0, 3, 1000, 3600, false) + eq("cn", "a") + seq(""));
}

TEST_F(Requests, TimedOutSynchronousSearchIsAbandonedAndItsRowReleasedAtOnce)
{
    server.hold(SEARCH);
    LDAPMessage *res = nullptr;
    struct timeval tv = {0, 200000};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ldap_search_st(ld, "o=x", 2, "(cn=slow)", nullptr, 0, &tv, &res), LDAP_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(150));
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_TIMEOUT);
    ReceivedRequest slow = server.last(SEARCH);
    ASSERT_GT(slow.msgid, 0);
    EXPECT_EQ(ld->ld_defconn->table->rows[slow.msgid].flags & ROW_IN_USE, 0u);
    ASSERT_TRUE(server.server().wait_for_requests(2));
    ReceivedRequest abandon = server.server().requests().back();
    EXPECT_EQ(abandon.op, 0x50u);
    EXPECT_NE(abandon.bytes.find(std::string("\x50\x01", 2) + static_cast<char>(slow.msgid)),
              std::string::npos);
    // A late answer is dropped by the next operation, which succeeds.
    FakeConnection *conn = server.server().connection(slow.connection);
    ASSERT_NE(conn, nullptr);
    conn->send(wzrtest::search_entry_pdu(slow.msgid, "cn=late", {}));
    conn->send(wzrtest::ldap_result_pdu(slow.msgid, 0x65, 0));
    EXPECT_EQ(ldap_delete_s(ld, "cn=after"), 0);
}

/* ---- updates ---- */

TEST_F(Requests, ModifyAndAddCarryTheirValues)
{
    struct berval v1 = {3, s("a\0b")}, v2 = {0, s("")};
    struct berval *bvals[] = {&v1, &v2, nullptr};
    LDAPMod replace = {0x82, s("jpegPhoto"), {}};
    replace.mod_bvalues = bvals;
    char *mails[] = {s("x@example.com"), nullptr};
    LDAPMod add = {LDAP_MOD_ADD, s("mail"), {mails}};
    LDAPMod del = {LDAP_MOD_DELETE, s("description"), {nullptr}};
    LDAPMod *mods[] = {&replace, &add, &del, nullptr};
    ASSERT_EQ(ldap_modify_s(ld, "cn=x,dc=example", mods), 0);
    expect_request(0x66, cons(0x66, str("cn=x,dc=example") +
                                         seq(seq(enumerated(2) +
                                                 seq(str("jpegPhoto") +
                                                     set(str(Bytes("a\0b", 3)) + str("")))) +
                                             seq(enumerated(0) +
                                                 seq(str("mail") + set(str("x@example.com")))) +
                                             seq(enumerated(1) + seq(str("description") + set(""))))));
    ASSERT_EQ(ldap_modify_s(ld, "cn=x", nullptr), 0); // no modifications: an empty list
    expect_request(0x66, cons(0x66, str("cn=x") + seq("")));
    // An add ignores the operation part of each modification.
    char *oc[] = {s("person"), s("top"), nullptr};
    struct berval photo = {2, s("\xff\x00")};
    struct berval *photos[] = {&photo, nullptr};
    LDAPMod m_oc = {LDAP_MOD_REPLACE, s("objectClass"), {oc}};
    LDAPMod m_photo = {LDAP_MOD_DELETE | LDAP_MOD_BVALUES, s("jpegPhoto"), {}};
    m_photo.mod_bvalues = photos;
    LDAPMod *attrs[] = {&m_oc, &m_photo, nullptr};
    ASSERT_EQ(ldap_add_s(ld, "cn=new,dc=example", attrs), 0);
    expect_request(0x68, cons(0x68, str("cn=new,dc=example") +
                                         seq(seq(str("objectClass") + set(str("person") + str("top"))) +
                                             seq(str("jpegPhoto") + set(str(Bytes("\xff\0", 2)))))));
}

TEST_F(Requests, DeleteRenameAndCompareAndTheServersCode)
{
    ASSERT_EQ(ldap_delete_s(ld, "cn=gone,dc=example"), 0);
    expect_request(0x4a, prim(0x4a, "cn=gone,dc=example"));
    ASSERT_EQ(ldap_modrdn_s(ld, "cn=a,dc=example", "cn=b", 1), 0);
    expect_request(0x6c, cons(0x6c, str("cn=a,dc=example") + str("cn=b") + boolean(true)));
    ASSERT_EQ(ldap_rename_s(ld, "cn=b,dc=example", "cn=c", "ou=other,dc=example", 0, nullptr,
                            nullptr),
              0);
    expect_request(0x6c, cons(0x6c, str("cn=b,dc=example") + str("cn=c") + boolean(false) +
                                         prim(0x80, "ou=other,dc=example")));
    EXPECT_EQ(ldap_compare_s(ld, "cn=a", "description", ""), LDAP_COMPARE_TRUE);
    expect_request(0x6e, cons(0x6e, str("cn=a") + seq(str("description") + str(""))));
    struct berval empty = {0, nullptr};
    EXPECT_EQ(ldap_compare_ext_s(ld, "cn=a", "description", &empty, nullptr, nullptr),
              LDAP_COMPARE_TRUE);
    expect_request(0x6e, cons(0x6e, str("cn=a") + seq(str("description") + str(""))));
    server.answer_with(0x4a, LDAP_NO_SUCH_OBJECT); // the server's code returned and recorded
    EXPECT_EQ(ldap_delete_s(ld, "cn=none"), LDAP_NO_SUCH_OBJECT);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_NO_SUCH_OBJECT);
}

TEST_F(Requests, ServerControlsFollowTheOperationDefaultsAfterTheCallers)
{
    LDAPControl **defaults = wzrtest::control_list({{"1.2.3", true}});
    ASSERT_EQ(ldap_set_option(ld, LDAP_OPT_SERVER_CONTROLS, defaults), 0);
    ldap_controls_free(defaults);
    LDAPControl **given = wzrtest::control_list({{"4.5", false, "v"}});
    ASSERT_EQ(ldap_delete_ext_s(ld, "cn=x", given, nullptr), 0);
    ldap_controls_free(given);
    expect_request(0x4a, prim(0x4a, "cn=x"),
                   cons(0xa0, seq(str("4.5") + boolean(false) + str("v")) +
                                  seq(str("1.2.3") + boolean(true))));
}

// Bad arguments, filters, attributes and critical client controls send nothing; the ids the
// failures took are given back.
TEST_F(Requests, ArgumentChecksSendNothing)
{
    LDAPMessage *res = reinterpret_cast<LDAPMessage *>(1);
    EXPECT_EQ(ldap_search_s(ld, "o=x", 3, "(cn=a)", nullptr, 0, &res), LDAP_PARAM_ERROR);
    EXPECT_EQ(res, nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    int id = 9, id2 = 7, other = 0;
    char *bad_attrs[] = {s("cn"), s("mail "), nullptr};
    LDAPMod untyped = {LDAP_MOD_ADD, nullptr, {nullptr}}; // cannot be encoded
    LDAPMod *bad[] = {&untyped, nullptr};
    LDAPControl **critical = wzrtest::control_list({{"9.9", true}}); // not understood
    const std::pair<int, int> calls[] = {
        {ldap_search(ld, "o=x", 3, "(cn=a)", nullptr, 0), -1},
        {ldap_search(ld, "o=x", 0, nullptr, nullptr, 0), -1},
        {ldap_search_ext(ld, "o=x", 0, "(cn=a)", nullptr, 0, nullptr, nullptr, nullptr, 0, nullptr),
         LDAP_PARAM_ERROR},
        {ldap_search_ext(ld, "o=x", -1, "(cn=a)", nullptr, 0, nullptr, nullptr, nullptr, 0, &id),
         LDAP_PARAM_ERROR},
        {ldap_search_s(ld, "o=x", 2, "(cn=abc))", nullptr, 0, &res), LDAP_FILTER_ERROR},
        {ldap_get_errno(ld), LDAP_FILTER_ERROR},
        {ldap_search_s(ld, "o=x", 2, "", nullptr, 0, &res), LDAP_FILTER_ERROR},
        {ldap_search_s(ld, "o=x", 2, "(cn=a)", bad_attrs, 0, &res), LDAP_PARAM_ERROR},
        {ldap_delete_ext(ld, nullptr, nullptr, nullptr, &id2), LDAP_PARAM_ERROR},
        {ldap_get_errno(ld), LDAP_PARAM_ERROR},
        {ldap_modify_ext(ld, "cn=x", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR},
        {ldap_rename(ld, "cn=x", nullptr, nullptr, 1, nullptr, nullptr, &other), LDAP_PARAM_ERROR},
        {ldap_compare_ext_s(ld, "cn=x", nullptr, nullptr, nullptr, nullptr), LDAP_PARAM_ERROR},
        {ldap_delete(ld, nullptr), -1},
        {ldap_add_ext_s(ld, "cn=x", nullptr, nullptr, critical), LDAP_UNAVAILABLE_CRITICAL_EXTENSION},
        {ldap_add_s(ld, "cn=x", bad), LDAP_ENCODING_ERROR},
    };
    ldap_controls_free(critical);
    for (size_t i = 0; i < std::size(calls); ++i)
        EXPECT_EQ(calls[i].first, calls[i].second) << "call " << i;
    EXPECT_EQ(id, -1);
    EXPECT_EQ(id2, -1);
    EXPECT_EQ(server.server().request_count(), 0u);
    ASSERT_EQ(ldap_search_s(ld, "o=x", 0, "(cn=a)", nullptr, 0, &res), 0);
    ldap_msgfree(res);
    char junk[sizeof(LDAP)] = {}; // an invalid handle is refused without being touched further
    EXPECT_EQ(ldap_delete_s(reinterpret_cast<LDAP *>(junk), "cn=x"), LDAP_PARAM_ERROR);
}

TEST_F(Requests, AsynchronousFormsHandOutIdsInOrder)
{
    EXPECT_EQ(ldap_sasl_bind(ld, nullptr, "X", nullptr, nullptr, nullptr, nullptr),
              LDAP_PARAM_ERROR); // no id pointer
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    int sasl_id = -5;
    ASSERT_EQ(ldap_sasl_bind(ld, nullptr, "X", nullptr, nullptr, nullptr, &sasl_id), 0);
    const struct { int id, type, code; } sent[] = {{sasl_id, LDAP_RES_BIND, 0},
                {ldap_simple_bind(ld, "cn=a", "b"), LDAP_RES_BIND, 0},
                {ldap_delete(ld, "cn=1"), LDAP_RES_DELETE, 0},
                {ldap_compare(ld, "cn=2", "cn", "2"), LDAP_RES_COMPARE, LDAP_COMPARE_TRUE}};
    for (int i = 3; i >= 0; --i) { // read back from the last
        EXPECT_GT(sent[i].id, i == 0 ? 0 : sent[i - 1].id);
        LDAPMessage *res = nullptr;
        ASSERT_EQ(ldap_result(ld, sent[i].id, 1, nullptr, &res), sent[i].type);
        EXPECT_EQ(ldap_result2error(ld, res, 1), sent[i].code);
    }
}

TEST(RequestFailures, DeadServerIsReported)
{
    int port;
    {
        wzrtest::FakeServer gone;
        port = gone.port();
    }
    LDAP *ld = ldap_init("127.0.0.1", port);
    ASSERT_NE(ld, nullptr);
    int rc = ldap_delete_s(ld, "cn=x");
    EXPECT_TRUE(rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR) << rc;
    EXPECT_EQ(ldap_delete_s(ld, "cn=x"), LDAP_SERVER_DOWN);
    ldap_unbind(ld);
}

TEST(RequestFailures, AllocationFailuresLeakNothing)
{
    wzrtest::AnsweringServer server;
    LDAPControl **ctrls = wzrtest::control_list({{"1.2", false}});
    struct berval cred = {3, s("abc")};
    char *vals[] = {s("v1"), s("v2"), nullptr};
    LDAPMod mod = {LDAP_MOD_REPLACE, s("description"), {vals}};
    LDAPMod *mods[] = {&mod, nullptr};
    for (bool bind : {false, true}) {
        auto attempt = [&] {
            LDAP *ld = server.open();
            if (ld == nullptr)
                return false;
            bool ok = bind ? ldap_sasl_bind_s(ld, "cn=u", "X-MECH", &cred, nullptr, nullptr,
                                              nullptr) == 0 &&
                                 ldap_simple_bind_s(ld, "cn=u", "pw") == 0
                           : ldap_modify_ext_s(ld, "cn=x", mods, ctrls, nullptr) == 0;
            ldap_unbind(ld);
            return ok;
        };
        // One clean run first: process-wide state made once (environment, caches) is not a
        // leak. Parsing the response controls kept after a bind may fail without failing it.
        ASSERT_TRUE(attempt());
        EXPECT_GT(wzrtest::walk_alloc_failures(attempt, !bind), 5);
    }
    ldap_controls_free(ctrls);
}

} // namespace
