// The message engine against a real server: a Who-am-I extended request and a base search of
// the root DSE go out through ldap_send_request and come back through ldap_result.
#include <gtest/gtest.h>

#include <thread>

#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_request.h"
#include "libldap/ldap_result.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"
#include "support/engine_client.h"
#include "support/slapd_fixture.h"

using namespace wzrtest;

namespace {

// Sends SearchRequest for the root DSE: base "", scope base, never deref, no limits,
// (objectClass=*) as a present filter [7], all attributes.
int send_root_dse_search(LDAP *ld)
{
    LDAPConn *lc = ld->ld_defconn;
    LDAPMessage *req = ldap_msginit(lc);
    int id = ldap_msg_table_get_next_msgid(lc->table);
    req->lm_msgid = id;
    req->lm_ber = ldap_alloc_fber(ld, 0);
    if (fber_printf(req->lm_ber, "{it{seeiibts{}}}", id, LDAP_REQ_SEARCH, "", 0, 0, 0, 0, 0,
                    ber_tag_t{0x87}, "objectClass") == -1)
        return -1;
    int msgid = -1;
    return ldap_send_request(ld, lc, req, {}, &msgid) == 0 ? msgid : -1;
}

struct ResultParts {
    int code = -1;
    std::string matched, text;
};

// LDAPResult ::= SEQUENCE { resultCode, matchedDN, diagnosticMessage, ... } read from the
// protocolOp on a private cursor.
ResultParts parse_result(LDAPMessage *res)
{
    ResultParts out;
    BerElement *c = ber_dup(res->lm_ber);
    char *matched = nullptr;
    char *text = nullptr;
    if (fber_scanf(c, "{iaa", &out.code, &matched, &text) != LBER_ERROR) {
        out.matched = matched != nullptr ? matched : "";
        out.text = text != nullptr ? text : "";
    }
    lber_free(matched);
    lber_free(text);
    ber_free(c, 0);
    return out;
}

} // namespace

TEST(EngineSlapd, WhoAmIThenRootDseSearchEntriesThenResult)
{
    SlapdFixture &slapd = shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    LDAP *ld = ldap_init(slapd.host_port().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    int rc = 0;
    int id = send_extended(ld, WHOAMI_OID, &rc);
    ASSERT_GT(id, 0) << rc;
    LDAPMessage *res = nullptr;
    struct timeval wait = {10, 0};
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ALL, &wait, &res), LDAP_RES_EXTENDED);
    EXPECT_EQ(ldap_msgid(res), id);
    ResultParts parts = parse_result(res);
    EXPECT_EQ(parts.code, LDAP_SUCCESS) << parts.text; // anonymous: an empty identity
    EXPECT_EQ(ldap_msgfree(res), LDAP_RES_EXTENDED);
    EXPECT_EQ(ld->ld_defconn->table->free_rows, 256);

    id = send_root_dse_search(ld);
    ASSERT_GT(id, 0);
    LDAPMessage *entry = nullptr;
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ONE, &wait, &entry), LDAP_RES_SEARCH_ENTRY);
    char *dn = nullptr;
    BerElement *c = ber_dup(entry->lm_ber);
    ASSERT_NE(fber_scanf(c, "{a", &dn), LBER_ERROR);
    EXPECT_STREQ(dn, ""); // the root DSE has the empty name
    lber_free(dn);
    ber_free(c, 0);
    LDAPMessage *done = nullptr;
    ASSERT_EQ(ldap_result(ld, id, LDAP_MSG_ONE, &wait, &done), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(parse_result(done).code, LDAP_SUCCESS);
    EXPECT_EQ(ldap_msgfree(entry), LDAP_RES_SEARCH_ENTRY);
    EXPECT_EQ(ldap_msgfree(done), LDAP_RES_SEARCH_RESULT);
    EXPECT_EQ(ld->ld_defconn->table->free_rows, 256);
    EXPECT_EQ(ldap_unbind(ld), 0);
}

TEST(EngineSlapdThreads, ManyThreadsShareOneConnection)
{
    SlapdFixture &slapd = shared_slapd();
    WZR_REQUIRE_SLAPD(slapd);
    LDAP *ld = ldap_init(slapd.host_port().c_str(), 0);
    ASSERT_NE(ld, nullptr);
    std::atomic<int> ok{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 50; ++i) {
                int id = send_extended(ld);
                LDAPMessage *res = nullptr;
                struct timeval wait = {10, 0};
                if (id > 0 && ldap_result(ld, id, LDAP_MSG_ONE, &wait, &res) ==
                                  LDAP_RES_EXTENDED &&
                    ldap_msgid(res) == id)
                    ok++;
                ldap_msgfree(res);
            }
        });
    }
    for (std::thread &t : threads)
        t.join();
    EXPECT_EQ(ok.load(), 400);
    EXPECT_EQ(ldap_unbind(ld), 0);
}
