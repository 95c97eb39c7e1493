// StartTLS: the extended request that asks the server to switch the plain connection to TLS,
// then the handshake on the same socket in the process's toolkit environment.
#include <cstring>

#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_load.h"
#include "ldap_lock.h"
#include "ldap_ops.h"
#include "ldap_ssl.h"

namespace {

constexpr const char *MODULE = "libldap/ldap_tls";
constexpr const char *START_TLS_OID = "1.3.6.1.4.1.1466.20037";
constexpr ber_tag_t EXOP_REQ_NAME = 0x80;

constexpr OpSyncTraces START_TLS_TRACES = {
    "INVALID: ldap_start_tls_s_np invalid ld:%p\n",
    "ldap_start_tls_s_np: sending the extended request failed rc=%d\n",
    "ldap_start_tls_s_np: ldap_result failed rc=%d\n"};

// ExtendedRequest ::= [APPLICATION 23] SEQUENCE { requestName [0] LDAPOID,
//     requestValue [1] OCTET STRING OPTIONAL }   -- sent without a value
int send_start_tls(LDAP *ld, const LDAPDeadline &until, int *msgidp)
{
    OpRequest op;
    int rc = ldap_op_begin(ld, nullptr, "ldap_start_tls_s_np: NULL server connection\n", &op);
    if (rc != 0)
        return rc;
    if (fber_printf(op.ber, "{it{ts}", op.msgid, LDAP_REQ_EXTENDED, EXOP_REQ_NAME,
                    START_TLS_OID) == -1)
        return ldap_op_abort(&op, LDAP_ENCODING_ERROR);
    return ldap_op_finish(&op, LDAP_REQ_EXTENDED, nullptr, until, msgidp);
}

// The handshake on the default connection, which nobody else reads or writes meanwhile.
int do_handshake(LDAP *ld, LDAPConn *lc, const char *label)
{
    LDAP_TRACE(LDAP_TRC_API, "In ldap_tls:doHandshake(): from ldap_start_tls_s_np() \n");
    if (lc->sb.sb_secure != nullptr)
        return LDAP_SSL_ALREADY_INITIALIZED;
    if (lc->ssl_ref == nullptr) {
        int rc = ldap_ssl_attach(lc);
        if (rc != 0)
            return rc;
    }
    if (ssl_controls.major == 7 && ldap_debug_enabled()) {
        if (ldap_ssl_isValue(ssl_controls.protocols, "SSLV3"))
            LDAP_TRACE(LDAP_TRC_WARN, "WARNING ldap_start_tls_s_np(): SSLV3 is not allowed on TLS "
                                      "connection. Setting SSLV3 OFF \n");
        if (!ldap_ssl_isValue(ssl_controls.protocols, "TLS10"))
            LDAP_TRACE(LDAP_TRC_WARN,
                       "WARNING ldap_start_tls_s_np(): TSL10 is required setting TLS10 ON \n");
    }
    const char *host = lc->resolved != nullptr ? lc->resolved : lc->host;
    int rc = open_ssl_connection(ld, lc, host, label, WZR_PROTOCOL_STARTTLS, LDAPDeadline{});
    if (rc != 0)
        ldap_ssl_release_conn(lc); // the connection stays plain
    return rc;
}

int handshake_excluding_others(LDAP *ld, LDAPConn *lc, const char *label)
{
    LDAP_LOCK(writing, &lc->write_lock, MODULE);
    if (!writing.locked())
        return writing.rc();
    LDAP_LOCK(reading, &lc->read_lock, MODULE);
    if (!reading.locked())
        return reading.rc();
    return do_handshake(ld, lc, label);
}

} // namespace

int ldap_start_tls_handshake(LDAP *ld)
{
    LDAPConn *lc = ld->ld_defconn;
    if (lc == nullptr)
        return LDAP_SERVER_DOWN;
    char *label = nullptr; // taken before the connection's locks: the handle mutex never nests there
    if (int rc = ldap_ssl_copy_label(ld, &label); rc != 0)
        return rc;
    int rc = handshake_excluding_others(ld, lc, label);
    lber_free(label);
    return rc;
}

int ldap_start_tls_s_np(LDAP *ld, void * /*unused*/)
{
    LDAP_TRACE(LDAP_TRC_API, "ldap_start_tls_s_np: ld(%p)\n", static_cast<void *>(ld));
    auto start = [&](const LDAPDeadline &until, int *idp) { return send_start_tls(ld, until, idp); };
    int rc = ldap_op_ext_s(ld, START_TLS_TRACES, nullptr, start, nullptr);
    if (rc != 0)
        return rc; // recorded by the synchronous layer (89 for an invalid handle)
    OperationBracket bracket(ld);
    if (bracket.rc() != 0)
        return bracket.rc();
    rc = ldap_start_tls_handshake(ld);
    // A refused label returns the toolkit's own code; 116 has its reason in the message.
    if (rc != LDAP_SSL_HANDSHAKE_FAILED)
        (void)ldap_set_lderrno_direct(ld, rc, nullptr, nullptr);
    return rc;
}
