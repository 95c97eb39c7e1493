// A test fixture holding a handle on an answering fake server, and the check that the last
// request of a kind went on the wire byte for byte as expected.
#ifndef WZR_TESTS_SUPPORT_REQUEST_TEST_H
#define WZR_TESTS_SUPPORT_REQUEST_TEST_H

#include <gtest/gtest.h>

#include "libldap/ldap_unbind.h"
#include "support/fber_bytes.h"
#include "support/ops_client.h"

namespace wzrtest {

struct RequestTest : ::testing::Test {
    AnsweringServer server;
    LDAP *ld = nullptr;
    void SetUp() override
    {
        ld = server.open();
        ASSERT_NE(ld, nullptr);
    }
    void TearDown() override
    {
        if (ld != nullptr)
            ldap_unbind(ld);
    }
    // The last request of `tag` must be exactly `op` (and `controls`) in its envelope.
    void expect_request(unsigned tag, const fber::Bytes &op, const fber::Bytes &controls = "")
    {
        ReceivedRequest r = server.last(tag);
        ASSERT_GT(r.msgid, 0) << "no request with tag " << tag;
        EXPECT_EQ(fber::hex(r.bytes), fber::hex(fber::message(r.msgid, op, controls)));
    }
};

} // namespace wzrtest

#endif
