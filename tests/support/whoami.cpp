// Who-am-I for the tests, sent as a bare extended request on the handle's default connection.
#include "libldap/ldap_int.h"
#include "support/test_util.h"

#include "libldap/ldap_error.h"
#include "libldap/ldap_ops.h"
#include "libldap/ldap_parse.h"
#include "libldap/ldap_result.h"

namespace wzrtest {

// ExtendedRequest ::= [APPLICATION 23] SEQUENCE { requestName [0] LDAPOID }
std::string whoami(LDAP *ld)
{
    OpRequest op;
    int rc = ldap_op_begin(ld, nullptr, "whoami: no connection\n", &op);
    if (rc == 0 && fber_printf(op.ber, "{it{ts}", op.msgid, LDAP_REQ_EXTENDED, ber_tag_t{0x80},
                               "1.3.6.1.4.1.4203.1.11.3") == -1)
        rc = ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    int msgid = -1;
    if (rc == 0)
        rc = ldap_op_finish(&op, LDAP_REQ_EXTENDED, nullptr, {}, &msgid);
    LDAPMessage *res = nullptr;
    if (rc == 0 && ldap_result(ld, msgid, LDAP_MSG_ALL, nullptr, &res) <= 0)
        rc = LDAP_LOCAL_ERROR;
    struct berval *data = nullptr;
    if (rc == 0)
        rc = ldap_parse_extended_result(ld, res, nullptr, &data, 1); // the server's code
    std::string out = data != nullptr ? std::string(data->bv_val, data->bv_len) : "";
    ber_bvfree(data);
    return rc == 0 ? out : "error " + std::to_string(rc);
}

std::string recorded_message(LDAP *ld)
{
    char *m = nullptr;
    (void)ldap_get_lderrno(ld, nullptr, &m);
    std::string s = m != nullptr ? m : "";
    lber_free(m);
    return s;
}

} // namespace wzrtest
