// Client-side helpers of the message-engine tests: a fixture holding a handle on a fake
// server, sending a small request through the common send path, and reading the calling
// thread's error.
#ifndef WZR_TESTS_SUPPORT_ENGINE_CLIENT_H
#define WZR_TESTS_SUPPORT_ENGINE_CLIENT_H

#include <gtest/gtest.h>

#include <string>

#include "libldap/ldap_int.h"
#include "support/fake_server.h"
#include "support/lber_test.h"
#include "support/test_util.h"

namespace wzrtest {

constexpr const char *WHOAMI_OID = "1.3.6.1.4.1.4203.1.11.3";

// Encodes ExtendedRequest ::= [APPLICATION 23] SEQUENCE { requestName [0] OID } on the
// handle's default connection and sends it with ldap_send_request. Returns the message id,
// or -1 with the send's code in *rc.
int send_extended(LDAP *ld, const char *oid = WHOAMI_OID, int *rc = nullptr);

// The calling thread's error code and text on the handle.
int thread_error(LDAP *ld);
std::string thread_error_text(LDAP *ld);

// A handle on a fake server that answers nothing unless told to (it connects on first send),
// with its default connection and message table at hand.
class EngineTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    int send() { return send_extended(ld_); }
    int free_rows(); // read under the table lock

    FakeServer server_;
    LDAP *ld_ = nullptr;
    LDAPConn *lc_ = nullptr;
    LDAPMsgTable *table_ = nullptr;
};

} // namespace wzrtest

#endif
