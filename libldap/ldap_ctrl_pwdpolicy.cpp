// Password policy: the request control a bind or update carries to ask for the policy state,
// and the parser that turns the server's answer into the condition codes of
// ldap_pwdpolicy_err2string (warnings 1 and 2, errors 3 to 11).
//
// Two policy controls exist with one value shape: the draft's (LDAP_CONTROL_PASSWORDPOLICY,
// served by OpenLDAP's policy overlay and by most directories) and the directory's native one
// (LDAP_CONTROL_PASSWORDPOLICY_NATIVE, in the arc of its own extended operations). Some
// servers also, or only, send the two older unsolicited controls "password expired" and
// "password expiring" (seconds left as decimal text). USE_OPENLDAP_PWDPOLICY_CONTROL, read once
// per process (ldap_use_openldap_pwdpolicy), chooses what is sent and what is believed:
//   unset (0):     the draft's control is sent, since nearly every server answers it; the
//                  answer is read from the draft's response control, else the native one,
//                  else the older pair;
//   "YES" (1):     the draft's control is sent and only its response control is read;
//   any other (2): the native control is sent (for a directory that answers only that one)
//                  and its response control is read, else the older pair.
#include "ldap_ctrl.h"

#include "../trace/ldap_env.h"
#include "ldap_error.h"

namespace {

constexpr ber_tag_t PP_WARNING = 0xa0;
constexpr ber_tag_t PP_TIME_BEFORE_EXPIRATION = 0x80;
constexpr ber_tag_t PP_GRACE_LOGINS = 0x81;
constexpr ber_tag_t PP_ERROR = 0x81;
constexpr int64_t PP_LAST_ERROR = 8;
constexpr int PP_ERROR_SHIFT = 3; // error 0 is condition 3

struct PolicyState {
    int warning = 0;
    long warnvalue = 0;
    int error = 0;
};

//   warning [0] CHOICE { timeBeforeExpiration [0] INTEGER (0..maxInt),
//                        graceAuthNsRemaining [1] INTEGER (0..maxInt) }
bool read_warning(BerElement *r, PolicyState *st)
{
    ber_len_t len;
    int64_t v = 0;
    if (fber_skip_tag(r, &len) == LBER_ERROR)
        return false;
    ber_tag_t tag = fber_get_int(r, &v);
    if ((tag != PP_TIME_BEFORE_EXPIRATION && tag != PP_GRACE_LOGINS) || v < 0 || v > 0x7fffffff)
        return false;
    st->warning = tag == PP_TIME_BEFORE_EXPIRATION ? 1 : 2;
    st->warnvalue = static_cast<long>(v);
    return true;
}

//   PasswordPolicyResponseValue ::= SEQUENCE { warning [0] ... OPTIONAL,
//       error [1] ENUMERATED { passwordExpired (0) ... passwordInHistory (8) } OPTIONAL }
// Each part at most once, the warning first.
int read_policy_response(BerElement *r, PolicyState *st)
{
    ber_len_t len;
    if (fber_skip_tag(r, &len) != 0x30)
        return LDAP_DECODING_ERROR;
    bool have_error = false;
    while (!ldap_control_value_done(r)) {
        ber_tag_t tag = fber_peek_tag(r, &len);
        int64_t v = -1;
        if (tag == PP_WARNING && st->warning == 0 && !have_error) {
            if (!read_warning(r, st))
                return LDAP_DECODING_ERROR;
        } else if (tag == PP_ERROR && !have_error && fber_get_int(r, &v) == PP_ERROR && v >= 0 &&
                   v <= PP_LAST_ERROR) {
            st->error = static_cast<int>(v) + PP_ERROR_SHIFT;
            have_error = true;
        } else {
            return LDAP_DECODING_ERROR;
        }
    }
    return 0;
}

// The older pair: "expired" carries the text "0", "expiring" the seconds left as text.
int read_older_controls(LDAPControl **ctrls, PolicyState *st)
{
    if (ldap_control_find(LDAP_CONTROL_PWEXPIRED, ctrls) != nullptr) {
        st->error = PP_ERROR_SHIFT; // password expired
        return 0;
    }
    const LDAPControl *c = ldap_control_find(LDAP_CONTROL_PWEXPIRING, ctrls);
    if (c == nullptr)
        return LDAP_CONTROL_NOT_FOUND;
    const berval &v = c->ldctl_value;
    long seconds = 0;
    if (v.bv_val == nullptr || v.bv_len == 0 || v.bv_len > 10)
        return LDAP_DECODING_ERROR;
    for (unsigned long i = 0; i < v.bv_len; ++i) {
        if (v.bv_val[i] < '0' || v.bv_val[i] > '9')
            return LDAP_DECODING_ERROR;
        seconds = seconds * 10 + (v.bv_val[i] - '0');
    }
    st->warning = 1;
    st->warnvalue = seconds;
    return 0;
}

constexpr int PP_UNSET = 0;
constexpr int PP_OPENLDAP = 1;
constexpr int PP_NATIVE = 2;

int read_response_control(LDAPControl **ctrls, const char *oid, PolicyState *st)
{
    BerElement *r = nullptr;
    int rc = ldap_control_value_reader(ctrls, oid, &r);
    if (rc == 0)
        rc = read_policy_response(r, st);
    fber_free(r);
    return rc;
}

int read_policy(LDAPControl **ctrls, PolicyState *st)
{
    int mode = ldap_use_openldap_pwdpolicy();
    int rc = read_response_control(
        ctrls, mode == PP_NATIVE ? LDAP_CONTROL_PASSWORDPOLICY_NATIVE : LDAP_CONTROL_PASSWORDPOLICY,
        st);
    if (rc == LDAP_CONTROL_NOT_FOUND && mode == PP_UNSET)
        rc = read_response_control(ctrls, LDAP_CONTROL_PASSWORDPOLICY_NATIVE, st);
    if (rc == LDAP_CONTROL_NOT_FOUND && mode != PP_OPENLDAP)
        rc = read_older_controls(ctrls, st);
    return rc;
}

} // namespace

int ldap_create_passwordpolicy_control(LDAP *ld, LDAPControl **ctrlp)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_create_passwordpolicy_control\n");
    if (ctrlp == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    const char *oid = ldap_use_openldap_pwdpolicy() == PP_NATIVE
                          ? LDAP_CONTROL_PASSWORDPOLICY_NATIVE
                          : LDAP_CONTROL_PASSWORDPOLICY;
    // Not critical: a server without a policy still binds.
    return ldap_fail(ld, ldap_control_create(oid, 0, nullptr, ctrlp));
}

int ldap_parse_passwordpolicy_control(LDAP *ld, LDAPControl **ctrls, int *warning,
                                      long *warnvalue, int *error)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_parse_passwordpolicy_control: ctrls(%p)\n",
               static_cast<void *>(ctrls));
    PolicyState st;
    int rc = read_policy(ctrls, &st);
    if (rc == 0) {
        if (warning != nullptr)
            *warning = st.warning;
        if (warnvalue != nullptr)
            *warnvalue = st.warnvalue;
        if (error != nullptr)
            *error = st.error;
    }
    return ldap_fail(ld, rc);
}
