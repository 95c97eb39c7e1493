// Helpers of the message-engine tests (see engine_client.h).
#include "support/engine_client.h"

#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_message.h"
#include "libldap/ldap_request.h"
#include "libldap/ldap_table.h"
#include "libldap/ldap_unbind.h"

namespace wzrtest {

int send_extended(LDAP *ld, const char *oid, int *rc)
{
    int dummy = 0;
    int *rcp = rc != nullptr ? rc : &dummy;
    LDAPConn *lc = ld->ld_defconn;
    LDAPMessage *req = ldap_msginit(lc);
    if (req == nullptr)
        return *rcp = LDAP_NO_MEMORY, -1;
    int id = ldap_msg_table_get_next_msgid(lc->table);
    BerElement *ber = id > 0 ? ldap_alloc_fber(ld, 0) : nullptr;
    if (ber == nullptr) {
        free_msg(req, 0);
        if (id > 0)
            ldap_msg_table_release_msgid(lc->table, id);
        return *rcp = LDAP_NO_MEMORY, -1;
    }
    req->lm_msgid = id;
    req->lm_ber = ber;
    req->lm_msgtype = static_cast<int>(LDAP_REQ_EXTENDED);
    if (fber_printf(ber, "{it{ts}}", id, LDAP_REQ_EXTENDED, ber_tag_t{0x80}, oid) == -1) {
        free_msg(req, 0);
        ldap_msg_table_release_msgid(lc->table, id);
        return *rcp = LDAP_ENCODING_ERROR, -1;
    }
    int msgid = -1;
    *rcp = ldap_send_request(ld, lc, req, {}, &msgid);
    return *rcp == 0 ? msgid : -1;
}

int thread_error(LDAP *ld) { return ldap_get_errno_direct(ld); }

std::string thread_error_text(LDAP *ld)
{
    char *matched = nullptr;
    char *text = nullptr;
    (void)ldap_get_lderrno_direct(ld, &matched, &text);
    std::string out = text != nullptr ? text : "";
    lber_free(matched);
    lber_free(text);
    return out;
}

void EngineTest::SetUp()
{
    ld_ = ldap_init(server_.host_port().c_str(), 0);
    ASSERT_NE(ld_, nullptr);
    lc_ = ld_->ld_defconn;
    table_ = lc_->table;
}

void EngineTest::TearDown()
{
    if (ld_ != nullptr) {
        EXPECT_EQ(ldap_unbind(ld_), 0);
    }
}

int EngineTest::free_rows()
{
    pthread_mutex_lock(&table_->table_lock);
    int n = table_->free_rows;
    pthread_mutex_unlock(&table_->table_lock);
    return n;
}

} // namespace wzrtest
