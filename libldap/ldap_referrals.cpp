// Referral chasing: detecting version 3 referrals, search references and version 2 referral
// texts; choosing and binding a connection for a URL; re-sending the request there under a
// child row linked to the initial one; taking the child's responses in the initial row's
// place; and keeping what could not be followed on the root row for the final result.
#include "ldap_referrals.h"

#include <cstring>
#include <strings.h>

#include "ldap_connect.h"
#include "ldap_controls.h"
#include "ldap_bind.h"
#include "ldap_entry.h"
#include "ldap_error.h"
#include "ldap_lock.h"
#include "ldap_message.h"
#include "ldap_options.h"
#include "ldap_reencode.h"
#include "ldap_request.h"
#include "ldap_result.h"
#include "ldap_table.h"
#include "ldap_url.h"

namespace {
constexpr const char *MODULE = "libldap/ldap_referrals";
constexpr int REBIND_SIMPLE = 128;
constexpr int BIND_SERVER_DOWN = -2;
constexpr const char V2_MARKER[] = "Referral:\n";
constexpr size_t V2_MARKER_LEN = sizeof V2_MARKER - 1;

// A referral is a list a server made up: past this many URLs it is not worth a connection
// attempt each, and the chase fails instead of stalling the caller.
constexpr size_t MAX_REFERRAL_URLS = 64;

// What a SASL bind of the handle left for rebinding elsewhere, copied out of the handle so
// that no lock is held while the referred server is bound. `mech` null: no SASL bind.
struct KeptSaslBind {
    char *mech = nullptr;
    char *dn = nullptr;
    struct berval cred = {0, nullptr};
    LDAPControl **sctrls = nullptr;
    LDAPControl **cctrls = nullptr;
};

void free_kept_sasl_bind(KeptSaslBind *k)
{
    lber_free(k->mech);
    lber_free(k->dn);
    lber_free(k->cred.bv_val);
    ldap_controls_free(k->sctrls);
    ldap_controls_free(k->cctrls);
    *k = KeptSaslBind{};
}

// Copies the handle's last bind when it was a SASL bind, with the handle's server and client
// controls (options 18 and 19); 0, 90 (traced, nothing kept) or 129.
int copy_kept_sasl_bind(LDAP *ld, KeptSaslBind *out)
{
    LDAP_LOCK(guard, &ld->ld_mutex, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc());
    if (ld->ld_authmethod != LDAP_AUTH_KEPT_SASL || ld->ld_bind_mech == nullptr)
        return 0;
    out->mech = lber_strdup(ld->ld_bind_mech);
    out->dn = ld->ld_bind_dn != nullptr ? lber_strdup(ld->ld_bind_dn) : nullptr;
    bool copied = out->mech != nullptr && (ld->ld_bind_dn == nullptr || out->dn != nullptr) &&
                  ldap_copy_controls(&out->sctrls, ld->ld_sctrls) == 0 &&
                  ldap_copy_controls(&out->cctrls, ld->ld_cctrls) == 0;
    const char *failed = copied ? nullptr : "send_referral_bind_request: Failed to alloc cred\n";
    const berval &kept = ld->ld_bind_cred;
    if (copied && kept.bv_val != nullptr) {
        out->cred.bv_val = lber_strndup(kept.bv_val, kept.bv_len);
        out->cred.bv_len = kept.bv_len;
        if (out->cred.bv_val == nullptr)
            failed = "send_referral_bind_request: Failed to alloc cred->bv_val\n";
    }
    guard.unlock();
    if (failed == nullptr)
        return 0;
    LDAP_TRACE(LDAP_TRC_ERROR, "%s", failed);
    free_kept_sasl_bind(out);
    return ldap_fail(ld, LDAP_NO_MEMORY);
}

// The referred server is bound as the handle was: same mechanism and credentials, through the
// same plug-in, on the referral's own connection (the handle's default connection stays as it
// is for the other threads). The name is the rebind procedure's when it gives one, else the
// one the handle bound with: for a SASL plug-in that name carries the identity.
int sasl_rebind(LDAP *ld, LDAPConn *lc, const char *dn, const KeptSaslBind &k,
                const LDAPDeadline &until)
{
    const char *name = dn != nullptr && *dn != '\0' ? dn : k.dn;
    const berval *cred = k.cred.bv_val != nullptr ? &k.cred : nullptr;
    return ldap_sasl_rebind_s(ld, lc, name, k.mech, cred, k.sctrls, k.cctrls, until);
}

// The rebind procedure's DN and password (anonymous when it gives none) on the referral's
// connection.
int simple_rebind(LDAP *ld, LDAPConn *lc, const char *dn, const char *pw,
                  const LDAPDeadline &until)
{
    int id = -1;
    int rc = ldap_simple_bind_direct(ld, dn != nullptr ? dn : "", pw != nullptr ? pw : "",
                                     nullptr, &id, lc);
    LDAPMessage *res = nullptr;
    if (rc == 0 && ldap_get_result(ld, id, LDAP_MSG_ALL, until, &res, lc->table) <= 0)
        return ldap_get_errno_direct(ld) != 0 ? ldap_get_errno_direct(ld) : LDAP_TIMEOUT;
    return rc != 0 ? rc : ldap_result2error(ld, res, 1);
}

// SearchResultReference ::= [APPLICATION 19] SEQUENCE SIZE (1..MAX) OF uri URI
// 0, 90, or 84 for a reference that cannot be read (then ignored like one without URL).
int reference_urls(LDAPMessage *msg, char ***urls)
{
    BerElement *c = ber_dup(msg->lm_ber);
    if (c == nullptr)
        return LDAP_NO_MEMORY;
    if (fber_scanf(c, "{v}", urls) == LBER_ERROR)
        *urls = nullptr;
    ber_free(c, 0);
    return 0;
}

// LDAPResult ::= SEQUENCE { resultCode, matchedDN, diagnosticMessage, referral [3] OPTIONAL }
// Reads the message (when `text` is given) and the referral URLs when there are any.
int read_result(LDAPMessage *msg, char **text, char ***urls)
{
    BerElement *c = ber_dup(msg->lm_ber);
    if (c == nullptr)
        return LDAP_NO_MEMORY;
    int code = 0;
    bool ok = (text != nullptr ? fber_scanf(c, "{ixa", &code, text)
                               : fber_scanf(c, "{ixx", &code)) != LBER_ERROR;
    ber_len_t len = 0;
    if (ok && fber_peek_tag(c, &len) == LDAP_TAG_REFERRAL)
        ok = fber_scanf(c, "{v}", urls) != LBER_ERROR;
    int rc = ok ? 0 : ldap_ber_failure(c, LDAP_DECODING_ERROR);
    ber_free(c, 0);
    return rc;
}

size_t count_urls(char **urls)
{
    size_t n = 0;
    while (urls != nullptr && urls[n] != nullptr)
        ++n;
    return n;
}

// The URLs of a version 2 referral: the lines after "Referral:\n" (any case) in the text.
// The text is cut at the marker; null when there is none.
char **v2_referral_urls(char *text)
{
    LDAP_TRACE(LDAP_TRC_API, "Chase_v2_referrals: errstr(%s)\n", text != nullptr ? text : "<NULL>");
    size_t len = text != nullptr ? strlen(text) : 0;
    if (len <= V2_MARKER_LEN)
        return nullptr;
    char *found = nullptr;
    for (char *p = text; p + V2_MARKER_LEN < text + len && found == nullptr; ++p)
        if ((*p == 'R' || *p == 'r') && strncasecmp(p, V2_MARKER, V2_MARKER_LEN) == 0)
            found = p;
    if (found == nullptr)
        return nullptr;
    *found = '\0';
    char *rest = found + V2_MARKER_LEN;
    size_t lines = 1;
    for (char *p = rest; *p != '\0'; ++p)
        lines += *p == '\n' ? 1 : 0;
    auto **urls = static_cast<char **>(lber_calloc(lines + 1, sizeof(char *)));
    if (urls == nullptr)
        return nullptr;
    size_t n = 0;
    for (char *line = rest; line != nullptr && *line != '\0';) {
        char *nl = strchr(line, '\n');
        if (nl != nullptr)
            *nl = '\0';
        if (*line != '\0' && (urls[n] = lber_strdup(line)) != nullptr) {
            LDAP_TRACE(LDAP_TRC_ERROR, "chase_v2_referrals: V2 referral has been detected ref=%s\n",
                       urls[n]);
            ++n;
        }
        line = nl != nullptr ? nl + 1 : nullptr;
    }
    return urls;
}

// The URLs as one "\n"-separated string, the form the root row keeps.
char *join_urls(char **urls)
{
    size_t len = 1;
    for (char **u = urls; u != nullptr && *u != nullptr; ++u)
        len += strlen(*u) + 1;
    auto *out = static_cast<char *>(lber_malloc(len));
    if (out == nullptr)
        return nullptr;
    out[0] = '\0';
    for (char **u = urls; u != nullptr && *u != nullptr; ++u) {
        if (out[0] != '\0')
            strcat(out, "\n");
        strcat(out, *u);
    }
    return out;
}

// Appends `urls` to the root row's unfollowed referrals and keeps the first failure's code.
// The root is found by following parent links up, one table lock at a time.
void record_failure(LDAP *ld, LDAPMsgTable *table, int msgid, const char *urls, int code)
{
    LDAPRowLink at = {table, msgid, nullptr};
    for (;;) {
        LDAP_LOCK(guard, &at.table->table_lock, MODULE);
        if (!guard.locked())
            return (void)ldap_fail(ld, guard.rc());
        LDAPMsgRow *row = ldap_msg_table_row(at.table, at.row);
        if (row == nullptr)
            return; // abandoned meanwhile: nobody is left to report to
        if (row->parent != nullptr) {
            at = *row->parent;
            continue;
        }
        const char *had = static_cast<const char *>(row->pending_referral);
        size_t len = (had != nullptr ? strlen(had) + 1 : 0) + strlen(urls) + 1;
        auto *joined = static_cast<char *>(lber_malloc(len));
        if (joined == nullptr)
            return;
        joined[0] = '\0';
        if (had != nullptr)
            strcat(strcat(joined, had), "\n");
        strcat(joined, urls);
        lber_free(row->pending_referral);
        row->pending_referral = joined;
        if (row->referral_error == 0)
            row->referral_error = code;
        return;
    }
}

void record_failure_list(LDAP *ld, LDAPMsgTable *table, int msgid, char **urls, int code)
{
    char *joined = join_urls(urls);
    if (joined != nullptr)
        record_failure(ld, table, msgid, joined, code);
    lber_free(joined);
}

// Whether the handle may follow the URL's scheme: a secure handle only "ldaps", a plain one
// anything but "ldaps". The comparison is case-sensitive on purpose: "LDAPS" is not taken for
// a secure URL, so a plain handle follows it as plain and a secure one refuses it.
bool scheme_allowed(LDAP *ld, const LDAPURLDesc *lud)
{
    bool ldaps = lud->lud_scheme != nullptr && strcmp(lud->lud_scheme, "ldaps") == 0;
    if (ld->ld_ssl_in_use && !ldaps) {
        LDAP_TRACE(LDAP_TRC_ERROR, "get_referral_connection: SSL client got a Non-SSL URL to "
                                   "refer. Skipping the URL.\n");
        return false;
    }
    if (!ld->ld_ssl_in_use && ldaps) {
        LDAP_TRACE(LDAP_TRC_ERROR, "get_referral_connection: Non-SSL client got an SSL URL to "
                                   "refer. Skipping the URL.\n");
        return false;
    }
    return true;
}

// The first URL of `urls[*next...]` that parses, is allowed and whose server answers: its
// connection, with the parsed URL in *ludp and *next behind it. Null with *errp set (81 when
// no URL could be used, 80 or 90 to stop).
LDAPConn *get_referral_connection(LDAP *ld, char **urls, size_t *next, LDAPURLDesc **ludp,
                                  const LDAPDeadline &until, int *errp)
{
    *ludp = nullptr;
    for (; urls[*next] != nullptr; ++*next) {
        const char *url = urls[*next];
        LDAP_TRACE(LDAP_TRC_API, "get_referral_connection: parsing %s\n", url);
        LDAPURLDesc *lud = nullptr;
        int rc = ldap_url_parse_internal(url, &lud);
        if (rc == LDAP_URL_ERR_MEM) {
            LDAP_TRACE(LDAP_TRC_ERROR, "get_referral_connection: memory error\n");
            *errp = ldap_fail(ld, LDAP_NO_MEMORY);
            return nullptr;
        }
        if (rc != 0) {
            LDAP_TRACE(LDAP_TRC_ERROR, "chase_v3_referrals error parsing referral: %d - %s\n", rc,
                       ldap_err2string(rc));
            continue;
        }
        if (!scheme_allowed(ld, lud)) {
            ldap_free_urldesc(lud);
            continue;
        }
        int code = 0;
        LDAPConn *lc = ldap_find_conn(ld, lud->lud_host, lud->lud_port, 1, &code, 1, until);
        if (lc != nullptr && !ldap_conn_is_dead(lc)) {
            ++*next;
            *ludp = lud;
            return lc;
        }
        ldap_free_urldesc(lud);
        if (code == LDAP_NO_MEMORY) {
            LDAP_TRACE(LDAP_TRC_ERROR, "get_referral_connection: memory error 2\n");
            *errp = LDAP_NO_MEMORY;
            return nullptr;
        }
        if (code != 0 && code != LDAP_SERVER_DOWN && code != LDAP_CONNECT_ERROR) {
            LDAP_TRACE(LDAP_TRC_ERROR, "get_referral_connection: unknown err %d\n", code);
            *errp = ldap_fail(ld, LDAP_OTHER);
            return nullptr;
        }
        (void)ldap_set_lderrno_direct(ld, LDAP_SUCCESS, nullptr, nullptr);
    }
    LDAP_TRACE(LDAP_TRC_ERROR, "get_referral_connection: No valid connection found\n");
    *errp = ldap_fail(ld, LDAP_SERVER_DOWN);
    return nullptr;
}

// The bytes of the row's request, copied under the table lock: the row may be abandoned and
// cleared by another thread while the copy is re-encoded.
int copy_request(LDAP *ld, LDAPMsgTable *table, int msgid, unsigned char **bytes, size_t *len)
{
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc());
    LDAPMsgRow *row = ldap_msg_table_row(table, msgid);
    if (row == nullptr || row->request == nullptr || row->request->lm_ber == nullptr)
        return ldap_fail(ld, LDAP_PARAM_ERROR);
    const BerElement *ber = row->request->lm_ber;
    *len = static_cast<size_t>(ber->ber_ptr - ber->ber_buf);
    *bytes = static_cast<unsigned char *>(lber_malloc(*len + 1));
    if (*bytes == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    memcpy(*bytes, ber->ber_buf, *len);
    return 0;
}

// Binds `lc`, takes a child id there, links it to the parent row, re-encodes the parent's
// request for it and sends it. The child id, or -1 with *errp set, or BIND_SERVER_DOWN.
int reencode_and_send(LDAP *ld, LDAPConn *lc, const char *url, const LDAPURLDesc *lud,
                      LDAPMsgTable *table, int msgid, LDAPMessage *saved,
                      const LDAPDeadline &until, int *errp)
{
    LDAP_TRACE(LDAP_TRC_API, "reencode_and_send: entered\n");
    int rc = send_referral_bind_request(ld, lc, until);
    if (rc == LDAP_SERVER_DOWN)
        return BIND_SERVER_DOWN;
    if (rc != 0)
        return *errp = rc, -1;
    unsigned char *bytes = nullptr;
    size_t len = 0;
    if ((rc = copy_request(ld, table, msgid, &bytes, &len)) != 0)
        return *errp = rc, -1;
    LDAPMessage *req = ldap_msginit(lc);
    int child = req != nullptr ? ldap_msg_table_get_next_msgid(lc->table) : -1;
    BerElement *ber = nullptr;
    ber_tag_t optag = 0;
    if (req == nullptr)
        rc = LDAP_NO_MEMORY;
    else if (child < 0 || ldap_msg_table_row(lc->table, child) == nullptr)
        rc = ldap_msgid_failure(child);
    else
        rc = re_encode_request(ld, bytes, len, child, lud, &ber, &optag);
    lber_free(bytes);
    if (rc == 0)
        rc = set_parent_child_pointers(ld, table, msgid, lc->table, child, url, saved, true);
    if (rc != 0) {
        if (ber != nullptr)
            fber_free(ber);
        free_msg(req, 0);
        if (child >= 0)
            ldap_msg_table_release_msgid(lc->table, child);
        return *errp = ldap_fail(ld, rc), -1;
    }
    req->lm_msgid = child;
    req->lm_msgtype = static_cast<int32_t>(optag);
    req->lm_ber = ber;
    int sent = -1;
    rc = ldap_send_request(ld, lc, req, until, &sent);
    if (rc != 0) {
        unset_parent_child_pointers(ld, table, msgid);
        return *errp = rc, -1;
    }
    return child;
}

// Follows the first usable URL of `urls`: 0 once a child row stands in for the parent row,
// else the failure's code (recorded on the root row when `saved` is null; a final result
// reports its own failure). `saved` goes to the parent row on success. Frees `urls`.
int chase_v3_referrals(LDAP *ld, char **urls, LDAPMsgTable *table, int msgid, LDAPMessage *saved,
                       const LDAPDeadline &until, int hops)
{
    LDAP_TRACE(LDAP_TRC_API, "chase_v3_referrals:\n");
    int err = 0;
    size_t next = 0;
    if (hops < 0)
        err = LDAP_REFERRAL_LIMIT_EXCEEDED;
    else if (count_urls(urls) > MAX_REFERRAL_URLS)
        err = LDAP_PARAM_ERROR;
    for (int down = 0; err == 0;) {
        LDAPURLDesc *lud = nullptr;
        LDAPConn *lc = get_referral_connection(ld, urls, &next, &lud, until, &err);
        if (lc == nullptr)
            break;
        int child = reencode_and_send(ld, lc, urls[next - 1], lud, table, msgid, saved, until, &err);
        ldap_free_urldesc(lud);
        if (child >= 0) {
            ldap_value_free(urls);
            return 0;
        }
        // A server found down while binding: its connection is dead; try the next URL, twice.
        if (child != BIND_SERVER_DOWN || ++down >= 2) {
            err = err != 0 ? err : LDAP_SERVER_DOWN;
            break;
        }
    }
    if (saved == nullptr && err != LDAP_NO_MEMORY)
        record_failure_list(ld, table, msgid, urls, err);
    ldap_value_free(urls);
    return err;
}

// A final result that refers elsewhere but could not be followed: the same result with the
// failure's code (its referral field already lists the URLs, or gets them here).
LDAPMessage *failed_final(LDAP *ld, LDAPMessage *msg, int code, const char *urls_to_add)
{
    LDAPMessage *out = rebuild_final_result(ld, msg, code, urls_to_add, true);
    if (out == nullptr)
        return msg; // without memory the result goes out as the server sent it
    free_msg(msg, 0);
    return out;
}

// The child link of the row, copied (with its URL) under the table lock: 1, 0 when none,
// -1 when the row is gone, the lock failed or the URL could not be copied (recorded).
int child_of(LDAP *ld, LDAPMsgTable *table, int msgid, LDAPRowLink *child, char **url)
{
    LDAP_LOCK(guard, &table->table_lock, MODULE);
    if (!guard.locked())
        return ldap_fail(ld, guard.rc()), -1;
    LDAPMsgRow *row = ldap_msg_table_row(table, msgid);
    if (row == nullptr || (row->flags & ROW_ABANDONED) != 0)
        return ldap_fail(ld, LDAP_PARAM_ERROR), -1;
    // Responses a timed-out wait put back were delivered before what the child has now.
    if (row->child == nullptr || (row->first != nullptr && (row->first->lm_flags & LDAP_MSG_PUT_BACK)))
        return 0;
    *child = *row->child;
    *url = lber_strdup(child->url != nullptr ? child->url : "");
    if (*url == nullptr) // a failure to follow would later be recorded under this URL
        return ldap_fail(ld, LDAP_NO_MEMORY), -1;
    return 1;
}

// Ends the row's referral request: clears the child link, releases the child row and hands
// back the result the child stood in for (null for a search reference). `alive` is false when
// the row itself is gone (abandoned).
LDAPMessage *end_child(LDAP *ld, LDAPMsgTable *table, int msgid, const LDAPRowLink &child,
                       bool *alive)
{
    LDAPMessage *saved = nullptr;
    *alive = false;
    {
        LDAP_LOCK(guard, &table->table_lock, MODULE);
        LDAPMsgRow *row = guard.locked() ? ldap_msg_table_row(table, msgid) : nullptr;
        if (row != nullptr && (row->flags & ROW_ABANDONED) == 0) {
            *alive = true;
            lber_free(row->child);
            row->child = nullptr;
            saved = row->saved_result;
            row->saved_result = nullptr;
        }
    }
    ldap_msg_table_release_msgid(child.table, child.row);
    (void)ld;
    return saved;
}

} // namespace

LDAPMessage *look_for_referrals(LDAP *ld, LDAPMsgTable *table, int msgid, LDAPMessage *msg,
                                int hops, const LDAPDeadline &until, int *err)
{
    *err = 0;
    if (msg->lm_msgtype == LDAP_RES_SEARCH_REFERENCE) {
        char **urls = nullptr;
        *err = reference_urls(msg, &urls);
        free_msg(msg, 0);
        if (*err == 0 && count_urls(urls) == 0)
            LDAP_TRACE(LDAP_TRC_ERROR, "look_for_referrals: search reference without URL ignored\n");
        else if (*err == 0)
            (void)chase_v3_referrals(ld, urls, table, msgid, nullptr, until, hops - 1);
        else
            ldap_value_free(urls);
        return nullptr;
    }
    if (!is_last_msg(msg) || msg->lm_msgtype == LDAP_RES_BIND)
        return msg;
    // Most results are no referral: the code is looked at in place, allocating nothing.
    int code = result_code_peek(msg);
    int version = LDAP_VERSION3;
    if (code > 0 && code != LDAP_REFERRAL)
        (void)ldap_get_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    const bool v2 = code > 0 && code != LDAP_REFERRAL && version == LDAP_VERSION2;
    if (code != LDAP_REFERRAL && !v2) {
        LDAP_TRACE(LDAP_TRC_API, "look_for_referrals: No Referral detected. Checking for error\n");
        return msg;
    }
    LDAP_TRACE(LDAP_TRC_API, v2 ? "look_for_referrals: V2 Referral detected\n"
                                : "look_for_referrals: V3 Referral detected\n");
    char *text = nullptr;
    char **urls = nullptr;
    *err = read_result(msg, v2 ? &text : nullptr, &urls);
    if (*err == 0 && v2) {
        // A version 2 result names its servers in its text; a referral field it carries as
        // well is not what this chase follows.
        ldap_value_free(urls);
        urls = v2_referral_urls(text);
    }
    lber_free(text);
    if (*err != 0 || (v2 && urls == nullptr)) { // no marker: a plain version 2 error
        ldap_value_free(urls);
        if (*err == 0)
            return msg;
        free_msg(msg, 0);
        return (void)ldap_fail(ld, *err), nullptr;
    }
    if (count_urls(urls) == 0) { // an empty referral can be followed nowhere
        ldap_value_free(urls);
        return failed_final(ld, msg, LDAP_SERVER_DOWN, nullptr);
    }
    // A version 2 result has no referral field of its own: a failure lists the URLs there.
    char *v2_urls = v2 ? join_urls(urls) : nullptr;
    int rc = chase_v3_referrals(ld, urls, table, msgid, msg, until, hops - 1);
    LDAPMessage *out = rc == 0 ? nullptr : failed_final(ld, msg, rc, v2_urls);
    lber_free(v2_urls);
    return out;
}

int ldap_referral_from_child(LDAP *ld, LDAPMsgTable *table, int msgid,
                             const LDAPDeadline &until, LDAPMessage **result, int chase, int hops)
{
    LDAPRowLink child{};
    char *url = nullptr;
    int has = child_of(ld, table, msgid, &child, &url);
    if (has <= 0)
        return has == 0 ? LDAP_REFERRAL_NO_CHILD : -1;
    // The child's responses may be long in coming: the turn of this row's table goes to a
    // sleeper meanwhile, so that nobody else waits on it for this thread's return.
    if (child.table != table)
        ldap_msg_table_offer_turn(table);
    LDAPMessage *msg = nullptr;
    int type = ldap_return_one_msg(ld, child.row, until, &msg, child.table, chase, hops - 1);
    int rc = type;
    if (type == -1 || (type > 0 && is_last_msg(msg))) {
        int code = type == -1 ? ldap_get_errno_direct(ld) : result_code_peek(msg);
        bool alive = false;
        LDAPMessage *saved = end_child(ld, table, msgid, child, &alive);
        if (!alive) {
            free_msg(saved, 0);
            free_msg(msg, 0);
            msg = nullptr;
            rc = ldap_fail_minus_one(ld, LDAP_PARAM_ERROR);
        } else if (type == -1 && saved != nullptr) { // the referral result, with the failure
            LDAP_TRACE(LDAP_TRC_ERROR, "ldap_return_one_msg: referral server failed, rc=%d\n", code);
            msg = failed_final(ld, saved, code != 0 ? code : LDAP_SERVER_DOWN, nullptr);
            rc = msg->lm_msgtype;
        } else if (saved != nullptr) { // the child's final result stands in for the referral
            free_msg(saved, 0);
        } else { // a search reference has been followed to its end
            if (code != 0)
                record_failure(ld, table, msgid, url, code);
            free_msg(msg, 0);
            msg = nullptr;
            rc = LDAP_REFERRAL_AGAIN;
        }
    }
    lber_free(url);
    if (msg != nullptr) {
        msg->lm_msgid = msgid;
        *result = msg;
    }
    return rc;
}

LDAPMessage *ldap_referral_finish(LDAP *ld, LDAPMsgTable *table, int msgid, LDAPMessage *msg)
{
    char *pending = nullptr;
    int code = 0;
    {
        LDAP_LOCK(guard, &table->table_lock, MODULE);
        LDAPMsgRow *row = guard.locked() ? ldap_msg_table_row(table, msgid) : nullptr;
        if (row == nullptr)
            return msg;
        if (row->parent == nullptr) {
            pending = static_cast<char *>(row->pending_referral);
            row->pending_referral = nullptr;
            code = row->referral_error;
        }
        if ((row->flags & ROW_COMPLETE) != 0 && row->first == nullptr && row->child == nullptr)
            ldap_msg_table_release_msgid_direct(table, msgid);
    }
    if (pending == nullptr)
        return msg;
    LDAPMessage *out = rebuild_final_result(ld, msg, code, pending, false);
    lber_free(pending);
    if (out == nullptr)
        return msg;
    free_msg(msg, 0);
    return out;
}

int send_referral_bind_request(LDAP *ld, LDAPConn *lc, const LDAPDeadline &until)
{
    void *proc = nullptr;
    int version = LDAP_VERSION3;
    (void)ldap_get_option_direct(ld, LDAP_OPT_REBIND_FN, &proc);
    (void)ldap_get_option_direct(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    auto rebind = reinterpret_cast<LDAPRebindProc>(proc);
    char *dn = nullptr;
    char *pw = nullptr;
    int method = REBIND_SIMPLE;
    if (rebind == nullptr && version >= LDAP_VERSION3) {
        LDAP_TRACE(LDAP_TRC_API, "send_referral_bind_request: no rebind proc specified. Anonymous "
                                 "bind is implicit for LDAPV3\n");
        return 0;
    }
    if (rebind != nullptr) {
        int rc = rebind(ld, &dn, &pw, &method, 0);
        if (rc != 0)
            return ldap_fail(ld, rc);
    }
    bool anonymous = (dn == nullptr || *dn == '\0') && (pw == nullptr || *pw == '\0');
    int rc = 0;
    if (version >= LDAP_VERSION3 && method == REBIND_SIMPLE && anonymous) {
        LDAP_TRACE(LDAP_TRC_API, "send_referral_bind_request: bind supressed, rebindproc "
                                 "specified anonymous bind\n");
    } else {
        LDAP_TRACE(LDAP_TRC_API, "send_referral_bind_request: sending bind request\n");
        KeptSaslBind sasl;
        rc = copy_kept_sasl_bind(ld, &sasl);
        if (rc == 0 && sasl.mech != nullptr)
            rc = sasl_rebind(ld, lc, dn, sasl, until);
        else if (rc == 0)
            rc = simple_rebind(ld, lc, dn, pw, until);
        free_kept_sasl_bind(&sasl);
    }
    if (rebind != nullptr)
        (void)rebind(ld, &dn, &pw, &method, 1);
    LDAP_TRACE(LDAP_TRC_API, "send_referral_bind_request: Bind returned rc=%d\n", rc);
    return rc;
}

int set_parent_child_pointers(LDAP *ld, LDAPMsgTable *parent_table, int parent,
                              LDAPMsgTable *child_table, int child, const char *url,
                              LDAPMessage *saved, bool chase)
{
    size_t url_len = url != nullptr ? strlen(url) : 0;
    auto *down = static_cast<LDAPRowLink *>(lber_malloc(sizeof(LDAPRowLink) + url_len + 1));
    auto *up = static_cast<LDAPRowLink *>(lber_malloc(sizeof(LDAPRowLink)));
    if (down == nullptr || up == nullptr) {
        lber_free(down);
        lber_free(up);
        return ldap_fail(ld, LDAP_NO_MEMORY);
    }
    char *url_copy = reinterpret_cast<char *>(down + 1);
    memcpy(url_copy, url != nullptr ? url : "", url_len + 1);
    *down = LDAPRowLink{child_table, child, url_copy};
    *up = LDAPRowLink{parent_table, parent, nullptr};
    int hops = 0;
    {
        LDAP_LOCK(guard, &parent_table->table_lock, MODULE);
        LDAPMsgRow *row = guard.locked() ? ldap_msg_table_row(parent_table, parent) : nullptr;
        if (row == nullptr || row->child != nullptr || (row->flags & ROW_ABANDONED) != 0) {
            lber_free(down);
            lber_free(up);
            return ldap_fail(ld, guard.locked() ? LDAP_PARAM_ERROR : guard.rc());
        }
        row->child = down;
        row->saved_result = saved;
        hops = row->hop_limit;
    }
    LDAP_LOCK(guard, &child_table->table_lock, MODULE);
    LDAPMsgRow *row = guard.locked() ? ldap_msg_table_row(child_table, child) : nullptr;
    if (row == nullptr) {
        lber_free(up);
        if (guard.locked())
            guard.unlock();
        unset_parent_child_pointers(ld, parent_table, parent);
        return ldap_fail(ld, LDAP_LOCK_ERROR);
    }
    row->parent = up;
    row->hop_limit = hops - 1;
    row->flags |= ROW_POLICY_SET | (chase ? ROW_CHASE : 0);
    row->owner = pthread_self();
    return 0;
}

void unset_parent_child_pointers(LDAP *ld, LDAPMsgTable *parent_table, int parent)
{
    LDAP_LOCK(guard, &parent_table->table_lock, MODULE);
    if (!guard.locked())
        return (void)ldap_fail(ld, guard.rc());
    LDAPMsgRow *row = ldap_msg_table_row(parent_table, parent);
    if (row != nullptr) {
        lber_free(row->child);
        row->child = nullptr;
        row->saved_result = nullptr; // the caller still holds it
    }
}
