// Byte-level rewriting of PDUs for referral chasing: re-encoding a sent request for the server
// a referral names, and rewriting a final result so that it reports the referrals that could
// not be followed. Both copy what they do not change byte for byte, never through the string
// translation of the encoder, so that a value reaches the other server exactly as it was sent.
#include "ldap_reencode.h"

#include <cstring>

#include "ldap_entry.h"
#include "ldap_error.h"
#include "ldap_filter.h"
#include "ldap_init.h"
#include "ldap_message.h"

namespace {
constexpr ber_tag_t TAG_OCTETS = 0x04;
constexpr ber_tag_t TAG_ENUM = 0x0a;
constexpr ber_tag_t TAG_SEQ = 0x30;
constexpr ber_tag_t TAG_INT = 0x02;

const char *scope_word(int scope)
{
    switch (scope) {
    case LDAP_SCOPE_BASE:
        return "BASE";
    case LDAP_SCOPE_ONELEVEL:
        return "ONE";
    case LDAP_SCOPE_SUBTREE:
        return "SUB";
    case -1:
        return "NONE";
    default:
        return "invalid scope";
    }
}

bool put_raw(BerElement *ber, const unsigned char *from, const unsigned char *to)
{
    return fber_write(ber, reinterpret_cast<const char *>(from),
                      static_cast<ber_len_t>(to - from)) >= 0;
}

bool oid_is(const BerSpan &oid, const char *want)
{
    return oid.tag == TAG_OCTETS && oid.body_len == strlen(want) &&
           memcmp(oid.body, want, oid.body_len) == 0;
}

// Controls ::= [0] SEQUENCE OF Control; Control ::= SEQUENCE { controlType LDAPOID, ... }.
// Copies every control but the first paged-results one: its cookie belongs to the old server.
bool copy_controls(BerElement *ber, const BerSpan &ctrls)
{
    if (fber_printf_raw(ber, "t{", LDAP_TAG_CONTROLS) == -1)
        return false;
    bool dropped = false;
    const unsigned char *end = ctrls.body + ctrls.body_len;
    for (const unsigned char *p = ctrls.body; p < end;) {
        BerSpan ctrl, oid;
        if (!ber_span_read(p, end, &ctrl) || !ber_span_read(ctrl.body, ctrl.end, &oid))
            return false;
        if (!dropped && oid_is(oid, LDAP_PAGED_RESULTS_OID))
            dropped = true;
        else if (!put_raw(ber, ctrl.start, ctrl.end))
            return false;
        p = ctrl.end;
    }
    return fber_printf_raw(ber, "}") != -1;
}

// SearchRequest ::= [APPLICATION 3] SEQUENCE { baseObject, scope ENUMERATED, derefAliases,
//     sizeLimit, timeLimit, typesOnly, filter Filter, attributes }
// Writes what follows the base: the URL's scope and filter where it has them.
int copy_search_tail(LDAPMessage *holder, const unsigned char *p, const unsigned char *end,
                     const LDAPURLDesc *lud)
{
    BerElement *ber = holder->lm_ber;
    BerSpan scope, filter;
    if (!ber_span_read(p, end, &scope) || scope.tag != TAG_ENUM)
        return LDAP_DECODING_ERROR;
    const unsigned char *limits = scope.end;
    p = limits;
    for (int i = 0; i < 4; ++i) { // deref, size and time limits, typesOnly
        BerSpan skip;
        if (!ber_span_read(p, end, &skip))
            return LDAP_DECODING_ERROR;
        p = skip.end;
    }
    if (!ber_span_read(p, end, &filter))
        return LDAP_DECODING_ERROR;
    bool ok = lud != nullptr && lud->lud_scope >= 0 ? fber_printf_raw(ber, "e", lud->lud_scope) != -1
                                                    : put_raw(ber, scope.start, scope.end);
    if (!ok || !put_raw(ber, limits, filter.start))
        return LDAP_ENCODING_ERROR;
    if (lud != nullptr && lud->lud_filter != nullptr) {
        if (put_filter(ber, lud->lud_filter, 1) != 0)
            return LDAP_FILTER_ERROR;
    } else if (!put_raw(ber, filter.start, filter.end)) {
        return LDAP_ENCODING_ERROR;
    }
    return put_raw(ber, filter.end, end) ? 0 : LDAP_ENCODING_ERROR;
}

// The protocolOp with the URL's DN in place of the request's (when it has one).
int write_operation(LDAPMessage *holder, const BerSpan &op, const LDAPURLDesc *lud)
{
    BerElement *ber = holder->lm_ber;
    const unsigned char *end = op.body + op.body_len;
    const bool url_dn = lud != nullptr && lud->lud_dn != nullptr;
    if (op.tag == LDAP_REQ_DELETE) { // DelRequest ::= [APPLICATION 10] LDAPDN, primitive
        const char *dn = url_dn ? lud->lud_dn : reinterpret_cast<const char *>(op.body);
        int len = url_dn ? static_cast<int>(strlen(dn)) : static_cast<int>(op.body_len);
        return fber_printf_raw(ber, "to", op.tag, dn, len) == -1 ? LDAP_ENCODING_ERROR : 0;
    }
    switch (op.tag) {
    case LDAP_REQ_SEARCH:
    case LDAP_REQ_MODIFY:
    case LDAP_REQ_ADD:
    case LDAP_REQ_MODRDN:
    case LDAP_REQ_COMPARE:
        break;
    default:
        LDAP_TRACE(LDAP_TRC_ERROR, "re_encode_request: Uknown request to encode, tag = %d\n",
                   static_cast<int>(op.tag));
        return LDAP_OTHER;
    }
    BerSpan dn;
    if (!ber_span_read(op.body, end, &dn) || dn.tag != TAG_OCTETS)
        return LDAP_DECODING_ERROR;
    const char *newdn = url_dn ? lud->lud_dn : reinterpret_cast<const char *>(dn.body);
    int len = url_dn ? static_cast<int>(strlen(newdn)) : static_cast<int>(dn.body_len);
    if (fber_printf_raw(ber, "t{o", op.tag, newdn, len) == -1)
        return LDAP_ENCODING_ERROR;
    // Add, modify, modify DN (new RDN, delete flag, new superior) and compare keep the rest of
    // the operation as it was.
    int rc = op.tag == LDAP_REQ_SEARCH ? copy_search_tail(holder, dn.end, end, lud)
             : put_raw(ber, dn.end, end) ? 0
                                         : LDAP_ENCODING_ERROR;
    if (rc == 0 && fber_printf_raw(ber, "}") == -1)
        rc = LDAP_ENCODING_ERROR;
    return rc;
}

void trace_reencode(int msgid, const LDAPURLDesc *lud)
{
    LDAP_TRACE(LDAP_TRC_ERROR,
               "re_encode_request: new msgid %d, new dn <%s>, new scope <%s>, new filter <%s>\n",
               msgid, lud != nullptr && lud->lud_dn != nullptr ? lud->lud_dn : "NONE",
               scope_word(lud != nullptr ? lud->lud_scope : -1),
               lud != nullptr && lud->lud_filter != nullptr ? lud->lud_filter : "NONE");
}

// LDAPResult fields of a final result: the code, the spans of matched DN and message, the
// referral URLs it has, and where the rest of the protocolOp (response name, value) starts.
struct ResultFields {
    BerSpan op;
    int code;
    BerSpan matched, text;
    char **referrals;
    const unsigned char *rest;
    const unsigned char *after_op; // the controls, up to the end of the message
    const unsigned char *msg_end;
};

// LDAPResult's first field: resultCode ENUMERATED, at most four bytes.
bool read_code(const BerSpan &op, BerSpan *code, int *value)
{
    if (!ber_span_read(op.body, op.end, code) || code->tag != TAG_ENUM || code->body_len == 0 ||
        code->body_len > 4)
        return false;
    *value = 0;
    for (size_t i = 0; i < code->body_len; ++i)
        *value = static_cast<int>((static_cast<unsigned>(*value) << 8) | code->body[i]);
    return true;
}

bool read_result_fields(LDAPMessage *msg, ResultFields *f)
{
    BerElement *ber = msg->lm_ber;
    const unsigned char *end = ber->ber_end;
    BerSpan code;
    if (!ber_span_read(ber->ber_ptr, end, &f->op) || !read_code(f->op, &code, &f->code) ||
        !ber_span_read(code.end, f->op.end, &f->matched) ||
        !ber_span_read(f->matched.end, f->op.end, &f->text))
        return false;
    f->rest = f->text.end;
    f->after_op = f->op.end;
    f->msg_end = end;
    f->referrals = nullptr;
    BerSpan ref;
    if (f->rest < f->op.end && ber_span_read(f->rest, f->op.end, &ref) &&
        ref.tag == LDAP_TAG_REFERRAL) {
        BerElement *c = ber_dup(ber);
        if (c == nullptr)
            return false;
        c->ber_ptr = const_cast<unsigned char *>(ref.start);
        c->ber_end = const_cast<unsigned char *>(ref.end);
        bool ok = fber_scanf(c, "{v}", &f->referrals) != LBER_ERROR;
        ber_free(c, 0);
        if (!ok)
            return false;
        f->rest = ref.end;
    }
    return true;
}

// The URLs the result had, then those of `urls`, as one list (borrowed strings).
char **joined_urls(char **had, char *urls, size_t *count)
{
    size_t n = 0;
    for (char **u = had; u != nullptr && *u != nullptr; ++u)
        ++n;
    for (const char *p = urls; p != nullptr && *p != '\0'; ++p)
        n += *p == '\n' ? 1 : 0;
    auto **list = static_cast<char **>(lber_calloc(n + 2, sizeof(char *)));
    if (list == nullptr)
        return nullptr;
    size_t i = 0;
    for (char **u = had; u != nullptr && *u != nullptr; ++u)
        list[i++] = *u;
    for (char *p = urls; p != nullptr && *p != '\0';) {
        char *nl = strchr(p, '\n');
        if (nl != nullptr)
            *nl = '\0';
        list[i++] = p;
        p = nl != nullptr ? nl + 1 : p + strlen(p);
    }
    *count = i;
    return list;
}

// LDAPMessage ::= SEQUENCE { messageID, protocolOp, controls [0] OPTIONAL } with the result
// rewritten: resultCode ENUMERATED, matchedDN and diagnosticMessage copied, referral [3]
// SEQUENCE OF LDAPURL, then the rest of the protocolOp and the controls copied.
BerElement *encode_rebuilt(LDAP *ld, LDAPMessage *msg, const ResultFields &f, int code,
                           char **urls)
{
    BerElement *ber = ldap_alloc_fber(ld, 0);
    if (ber == nullptr)
        return nullptr;
    bool ok = fber_printf_raw(ber, "{it{e", msg->lm_msgid, f.op.tag, code) != -1 &&
              put_raw(ber, f.matched.start, f.text.end) &&
              (urls[0] == nullptr || fber_printf_raw(ber, "t{v}", LDAP_TAG_REFERRAL, urls) != -1) &&
              put_raw(ber, f.rest, f.op.end) && fber_printf_raw(ber, "}") != -1 &&
              put_raw(ber, f.after_op, f.msg_end) && fber_printf_raw(ber, "}") != -1;
    if (!ok) {
        fber_free(ber);
        return nullptr;
    }
    return ber;
}
} // namespace

int result_code_peek(const LDAPMessage *msg)
{
    BerSpan op, code;
    int value = -1;
    if (msg == nullptr || msg->lm_ber == nullptr ||
        !ber_span_read(msg->lm_ber->ber_ptr, msg->lm_ber->ber_end, &op) ||
        !read_code(op, &code, &value))
        return -1;
    return value;
}

bool ber_span_read(const unsigned char *p, const unsigned char *end, BerSpan *out)
{
    if (p == nullptr || p >= end || end - p < 2 || (*p & 0x1f) == 0x1f)
        return false;
    out->start = p;
    out->tag = *p++;
    size_t len = *p++;
    if (len & 0x80) {
        size_t bytes = len & 0x7f;
        if (bytes == 0 || bytes > 4 || static_cast<size_t>(end - p) < bytes)
            return false;
        len = 0;
        while (bytes-- > 0)
            len = (len << 8) | *p++;
    }
    if (static_cast<size_t>(end - p) < len)
        return false;
    out->body = p;
    out->body_len = len;
    out->end = p + len;
    return true;
}

int re_encode_request(LDAP *ld, const unsigned char *request, size_t len, int msgid,
                      const LDAPURLDesc *lud, BerElement **out, ber_tag_t *optag)
{
    *out = nullptr;
    trace_reencode(msgid, lud);
    const unsigned char *end = request + len;
    BerSpan message, id, op;
    if (!ber_span_read(request, end, &message) || message.tag != TAG_SEQ ||
        !ber_span_read(message.body, message.end, &id) || id.tag != TAG_INT ||
        !ber_span_read(id.end, message.end, &op))
        return ldap_fail(ld, LDAP_DECODING_ERROR);
    LDAPMessage holder{};
    holder.lm_ber = ldap_alloc_fber(ld, 0);
    if (holder.lm_ber == nullptr)
        return ldap_fail(ld, LDAP_NO_MEMORY);
    int rc = fber_printf_raw(holder.lm_ber, "{i", msgid) == -1 ? LDAP_ENCODING_ERROR
                                                              : write_operation(&holder, op, lud);
    BerSpan ctrls;
    if (rc == 0 && op.end < message.end) {
        if (!ber_span_read(op.end, message.end, &ctrls) || ctrls.tag != LDAP_TAG_CONTROLS)
            rc = LDAP_DECODING_ERROR;
        else if (!copy_controls(holder.lm_ber, ctrls))
            rc = LDAP_ENCODING_ERROR;
    }
    if (rc == 0 && fber_printf_raw(holder.lm_ber, "}") == -1)
        rc = LDAP_ENCODING_ERROR;
    if (rc != 0) {
        rc = ldap_fail(ld, rc, holder.lm_ber); // an encoder that ran out of memory says so
        fber_free(holder.lm_ber);
        return rc;
    }
    *out = holder.lm_ber;
    *optag = op.tag;
    return 0;
}

LDAPMessage *rebuild_final_result(LDAP *ld, LDAPMessage *msg, int code, const char *urls,
                                  bool is_referral)
{
    ResultFields f{};
    if (msg == nullptr || msg->lm_ber == nullptr || !read_result_fields(msg, &f))
        return nullptr;
    char *copy = lber_strdup(urls != nullptr ? urls : "");
    size_t count = 0;
    char **list = copy != nullptr ? joined_urls(f.referrals, copy, &count) : nullptr;
    LDAPMessage *out = nullptr;
    if (list != nullptr) {
        // A failure the server reported itself says more than the referral's; a success or a
        // referral result stands for the part that could not be reached.
        bool replace = is_referral || f.code == LDAP_SUCCESS || f.code == LDAP_REFERRAL;
        int final_code = replace ? code : f.code;
        BerElement *ber = encode_rebuilt(ld, msg, f, final_code, list);
        out = ber != nullptr ? message_from_encoded(ber, msg->lm_msgid, f.op.tag) : nullptr;
        if (out != nullptr)
            out->lm_flags = msg->lm_flags;
    }
    lber_free(list);
    lber_free(copy);
    ldap_value_free(f.referrals);
    return out;
}

LDAPMessage *message_from_encoded(BerElement *ber, int msgid, ber_tag_t type)
{
    LDAPMessage *msg = ldap_msginit(nullptr);
    ber_reset(ber, 1);
    int id = 0;
    if (msg == nullptr || fber_scanf(ber, "{i", &id) == LBER_ERROR) {
        free_msg(msg, 0);
        fber_free(ber);
        return nullptr;
    }
    msg->lm_ber = ber;
    msg->lm_msgid = msgid;
    msg->lm_msgtype = static_cast<int32_t>(type);
    return msg;
}
