// USE_OPENLDAP_PWDPOLICY_CONTROL is read once per process: each setting runs in a child, which
// checks its bind request byte for byte and which of a server's answers it believes.
#include <gtest/gtest.h>

#include "libldap/ldap_bind.h"
#include "libldap/ldap_controls.h"
#include "libldap/ldap_ctrl.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_unbind.h"
#include "support/fake_server.h"
#include "support/fber_bytes.h"

namespace {
using namespace wzrtest;

// The bind is answered "locked" (condition 4) in the draft's control and "expired" (3) in the
// native one. 0 when the request names `oid` and the answer reads as `condition`.
int bind_once(const char *oid, int condition)
{
    FakeServer server;
    std::string locked = ber_str(ber_seq(ber_int(1, 0x81)));
    std::string expired = ber_str(ber_seq(ber_int(0, 0x81)));
    std::string answer = ber_seq(ber_str(LDAP_CONTROL_PASSWORDPOLICY_NATIVE) + expired) +
                         ber_seq(ber_str(LDAP_CONTROL_PASSWORDPOLICY) + locked);
    std::string op = ber_tlv(0x61, ber_int(0, 0x0a) + ber_str("") + ber_str(""));
    server.queue_reply({Action::send(ldap_message(1, op, ber_seq(answer, 0xa0)))});
    LDAP *ld = ldap_init("127.0.0.1", server.port());
    LDAPControl *pp = nullptr, **resp = nullptr;
    (void)ldap_create_passwordpolicy_control(ld, &pp);
    LDAPControl *ctrls[] = {pp, nullptr};
    struct berval pw = {2, const_cast<char *>("pw")};
    int got = -1;
    if (ldap_sasl_bind_s(ld, "cn=u", nullptr, &pw, ctrls, nullptr, nullptr) == 0 &&
        ldap_get_bind_controls(ld, &resp) == 0)
        (void)ldap_parse_passwordpolicy_control(ld, resp, nullptr, nullptr, &got);
    namespace fb = wzrtest::fber;
    std::string want = fb::message(
        1, fb::cons(0x60, fb::integer(3) + fb::str("cn=u") + fb::prim(0x80, "pw")),
        fb::cons(0xa0, fb::seq(fb::str(oid) + fb::boolean(false))));
    std::string sent = server.requests().empty() ? "" : server.requests()[0].bytes;
    ldap_controls_free(resp);
    ldap_control_free(pp);
    ldap_unbind(ld);
    fprintf(stderr, "sent %s\nread %d\n", fb::hex(sent).c_str(), got);
    return sent == want && got == condition ? 0 : 1;
}

TEST(PasswordPolicySwitchDeathTest, SettingChoosesTheControlSentAndTheAnswersRead)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Case { const char *setting, *sent; int condition; } cases[] = {
        {nullptr, LDAP_CONTROL_PASSWORDPOLICY, 4}, {"yes", LDAP_CONTROL_PASSWORDPOLICY, 4},
        {"no", LDAP_CONTROL_PASSWORDPOLICY_NATIVE, 3}};
    for (const Case &c : cases)
        EXPECT_EXIT(
            {
                c.setting != nullptr ? setenv("USE_OPENLDAP_PWDPOLICY_CONTROL", c.setting, 1)
                                     : unsetenv("USE_OPENLDAP_PWDPOLICY_CONTROL");
                _exit(bind_once(c.sent, c.condition));
            },
            testing::ExitedWithCode(0), "") << (c.setting != nullptr ? c.setting : "unset");
}

} // namespace
