// Teardown of a handle: its connection records (sockets, message tables, controls, mutexes),
// its owned strings, control lists and option records, its synchronisation objects and its
// per-thread error records. The eyecatcher is overwritten before anything is released.
#include "ldap_free.h"

#include <cstring>
#include <unistd.h>

#include "ldap_bind.h"
#include "ldap_controls.h"
#include "ldap_error.h"
#include "ldap_init.h"
#include "ldap_ssl.h"
#include "ldap_table.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_free";

void trace_destroy_failure(int line, int err)
{
    LDAP_TRACE(LDAP_TRC_ERROR,
               "ldap_ld_free: Error in pthread_mutex_destroy File %s, Line %d, errno %d\n", MODULE,
               line, err);
}

void free_one_connection(LDAPConn *lc)
{
    lber_free(lc->host);
    lber_free(lc->resolved);
    lber_free(lc->outbox);
    ldap_ssl_release_conn(lc);
    if (lc->connected && lc->sb.sb_sd >= 0)
        close(lc->sb.sb_sd);
    sockbuf_release_buffer(&lc->sb);
    ldap_plugin_release_record(lc);
    ldap_msg_table_free(lc->table);
    ldap_controls_free(lc->bind_ctrls);
    ldap_destroy_mutex_traced(&lc->conn_mutex, __LINE__);
    ldap_destroy_mutex_traced(&lc->read_lock, __LINE__);
    ldap_destroy_mutex_traced(&lc->write_lock, __LINE__);
    lber_free(lc);
}
} // namespace

void ldap_destroy_mutex_traced(pthread_mutex_t *mutex, int line)
{
    int err = pthread_mutex_destroy(mutex);
    if (err != 0)
        trace_destroy_failure(line, err);
}

void ldap_destroy_cond_traced(pthread_cond_t *cond, int line)
{
    int err = pthread_cond_destroy(cond);
    if (err != 0)
        trace_destroy_failure(line, err);
}

void ldap_lc_free(LDAPConn *lc)
{
    while (lc != nullptr) {
        LDAPConn *next = lc->next;
        free_one_connection(lc);
        lc = next;
    }
}

void ldap_ld_free_owned(LDAP *ld)
{
    ldap_lc_free(ld->ld_servers);
    ld->ld_servers = nullptr;
    ld->ld_defconn = nullptr;

    char **strings[] = {&ld->ld_defhost,    &ld->ld_ssl_keyring, &ld->ld_ssl_keyring_pw,
                        &ld->ld_ssl_label,    &ld->ld_bind_mech,  &ld->ld_bind_dn,
                        &ld->ld_bind_cred.bv_val};
    for (char **s : strings) {
        lber_free(*s);
        *s = nullptr;
    }
    LDAPControl ***lists[] = {&ld->ld_sctrls, &ld->ld_cctrls, &ld->ld_bind_sctrls,
                              &ld->ld_bind_cctrls};
    for (LDAPControl ***list : lists) {
        ldap_controls_free(*list);
        *list = nullptr;
    }
    lber_free(ld->ld_connect_timeout);
    ld->ld_connect_timeout = nullptr;
    ldap_free_error_records(ld->ld_errors);
    ld->ld_errors = nullptr;
}

void ldap_ld_free(LDAP *ld)
{
    if (!ldap_ld_valid(ld))
        return;
    // Only seven bytes: the eighth keeps its 'L', and anything but "LDAP HDL" is invalid.
    memcpy(ld->ld_eyecatcher, LDAP_EYE_DEAD, sizeof LDAP_EYE_DEAD);
    ldap_ld_free_owned(ld);
    ldap_destroy_mutex_traced(&ld->ld_mutex, __LINE__);
    ldap_destroy_mutex_traced(&ld->ld_errlock, __LINE__);
    ldap_destroy_mutex_traced(&ld->ld_connlock, __LINE__);
    ldap_destroy_cond_traced(&ld->ld_ops_ended, __LINE__);
    ldap_destroy_mutex_traced(&ld->ld_reflock, __LINE__);
    lber_free(ld);
}
