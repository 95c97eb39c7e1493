// Who-am-I for the tests, and the calling thread's recorded error message.
#include "libldap/ldap_int.h"
#include "support/test_util.h"

#include "libldap/ldap_error.h"
#include "libldap/ldap_extended.h"

namespace wzrtest {

std::string whoami(LDAP *ld)
{
    struct berval *data = nullptr;
    int rc = ldap_extended_operation_s(ld, "1.3.6.1.4.1.4203.1.11.3", nullptr, nullptr, nullptr,
                                       nullptr, &data);
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
