// USE_OPENLDAP_PWDPOLICY_CONTROL, read once per process, so each setting runs in a child: the
// bind request carries the chosen control (bytes checked), and of a server's answers only the
// ones the setting believes are read.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_unbind.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"

namespace {

namespace fb = wzrtest::fber;
using wzrtest::ber_seq;
using wzrtest::ber_str;

// The draft's control says "locked" (error 1: condition 4), the native one "expired" (error
// 0: condition 3); the second bind's answer has only the older "password expired" control.
std::string answer(int bind)
{
    auto ctrl = [](const char *oid, const std::string &value) {
        return ber_seq(ber_str(oid) + ber_str(value));
    };
    std::string locked("\x30\x03\x81\x01\x01", 5), expired("\x30\x03\x81\x01\x00", 5);
    if (bind == 1)
        return ber_seq(ctrl(LDAP_CONTROL_PASSWORDPOLICY_NATIVE, expired) +
                           ctrl(LDAP_CONTROL_PASSWORDPOLICY, locked),
                       0xa0);
    return ber_seq(ctrl(LDAP_CONTROL_PWEXPIRED, "0"), 0xa0);
}

// In the child: two binds with the policy control; 0 when the first request's bytes name
// `oid` and the two answers read as `first` and `second` (a condition code, or 93).
int run_binds(const char *oid, int first, int second)
{
    wzrtest::FakeServer server;
    int binds = 0;
    server.on_request([&](const wzrtest::ReceivedRequest &r, wzrtest::FakeConnection &c) {
        std::string op = wzrtest::ber_tlv(
            0x61, wzrtest::ber_int(0, 0x0a) + ber_str("") + ber_str(""));
        c.send(wzrtest::ldap_message(r.msgid, op, answer(++binds)));
    });
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    LDAPControl *pp = nullptr;
    int rc = ldap_create_passwordpolicy_control(ld, &pp);
    LDAPControl *ctrls[] = {pp, nullptr};
    struct berval pw = {2, const_cast<char *>("pw")};
    int got[2] = {-1, -1};
    for (int &g : got) {
        LDAPControl **resp = nullptr;
        int warning = 0, error = 0;
        long value = 0;
        if (rc == 0 && ldap_sasl_bind_s(ld, "cn=u", nullptr, &pw, ctrls, nullptr, nullptr) == 0 &&
            ldap_get_bind_controls(ld, &resp) == 0) {
            int parsed = ldap_parse_passwordpolicy_control(ld, resp, &warning, &value, &error);
            g = parsed == 0 ? error : parsed;
        }
        ldap_controls_free(resp);
    }
    std::string sent = server.requests().empty() ? "" : server.requests()[0].bytes;
    std::string expected = fb::message(
        1, fb::cons(0x60, fb::integer(3) + fb::str("cn=u") + fb::prim(0x80, "pw")),
        fb::cons(0xa0, fb::seq(fb::str(oid) + fb::boolean(false))));
    ldap_control_free(pp);
    ldap_unbind(ld);
    if (fb::hex(sent) != fb::hex(expected) || got[0] != first || got[1] != second) {
        fprintf(stderr, "sent %s\nwant %s\nread %d %d\n", fb::hex(sent).c_str(),
                fb::hex(expected).c_str(), got[0], got[1]);
        return 1;
    }
    return 0;
}

TEST(PasswordPolicySwitchDeathTest, SettingChoosesTheControlSentAndTheAnswersRead)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case {
        const char *setting; // null: unset
        const char *sent;
        int first, second;
    } cases[] = {
        {nullptr, LDAP_CONTROL_PASSWORDPOLICY, 4, 3},
        {"yes", LDAP_CONTROL_PASSWORDPOLICY, 4, LDAP_CONTROL_NOT_FOUND},
        {"no", LDAP_CONTROL_PASSWORDPOLICY_NATIVE, 3, 3},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.setting != nullptr ? c.setting : "(unset)");
        EXPECT_EXIT(
            {
                c.setting != nullptr ? setenv("USE_OPENLDAP_PWDPOLICY_CONTROL", c.setting, 1)
                                     : unsetenv("USE_OPENLDAP_PWDPOLICY_CONTROL");
                _exit(run_binds(c.sent, c.first, c.second));
            },
            testing::ExitedWithCode(0), "");
    }
}

} // namespace
