// Builds LDAPMessage records and response PDUs for tests that need no server.
#include "support/msg_builder.h"

#include <cstring>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_message.h"

namespace wzrtest {

PduBuilder::PduBuilder(int msgid) : ber_(fber_alloc())
{
    if (ber_ == nullptr || fber_printf_raw(ber_, "{i", msgid) == -1)
        failed_ = true;
}

PduBuilder::~PduBuilder()
{
    if (ber_ != nullptr)
        fber_free(ber_);
}

PduBuilder &PduBuilder::raw(const std::string &bytes)
{
    if (ber_ == nullptr || fber_write(ber_, bytes.data(), bytes.size()) < 0)
        failed_ = true;
    return *this;
}

PduBuilder &PduBuilder::controls(LDAPControl **ctrls)
{
    if (ctrls != nullptr && (ber_ == nullptr || put_ctrls_into_ber(ber_, ctrls) != 0))
        failed_ = true;
    return *this;
}

std::string PduBuilder::bytes()
{
    add("}");
    struct berval *bv = nullptr;
    if (failed_ || fber_flatten(ber_, &bv) != 0 || bv == nullptr)
        return {};
    std::string out(bv->bv_val != nullptr ? bv->bv_val : "", bv->bv_len);
    ber_bvfree(bv);
    return out;
}

//   SearchResultEntry ::= [APPLICATION 4] SEQUENCE { objectName, attributes SEQUENCE OF
//                            SEQUENCE { type, vals SET OF OCTET STRING } }
std::string entry_pdu(const std::string &dn, const std::vector<Attr> &attrs, int msgid,
                      LDAPControl **ctrls)
{
    PduBuilder b(msgid);
    b.add("t{s{", static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY), dn.c_str());
    for (const Attr &a : attrs) {
        b.add("{s[", a.first.c_str());
        for (const std::string &v : a.second)
            b.add("o", v.data(), static_cast<int>(v.size()));
        b.add("]}");
    }
    b.add("}}");
    return b.controls(ctrls).bytes();
}

//   LDAPResult ::= SEQUENCE { resultCode, matchedDN, diagnosticMessage, referral [3] OPT }
std::string result_pdu(ber_tag_t type, int code, const std::string &matched,
                       const std::string &text, const std::vector<std::string> &referrals,
                       LDAPControl **ctrls, int msgid)
{
    PduBuilder b(msgid);
    b.add("t{ess", type, code, matched.c_str(), text.c_str());
    if (!referrals.empty()) {
        b.add("t{", LDAP_TAG_REFERRAL);
        for (const std::string &r : referrals)
            b.add("s", r.c_str());
        b.add("}");
    }
    b.add("}");
    return b.controls(ctrls).bytes();
}

std::string reference_pdu(const std::vector<std::string> &urls, LDAPControl **ctrls, int msgid)
{
    PduBuilder b(msgid);
    b.add("t{", static_cast<ber_tag_t>(LDAP_RES_SEARCH_REFERENCE));
    for (const std::string &u : urls)
        b.add("s", u.c_str());
    b.add("}");
    return b.controls(ctrls).bytes();
}

std::string extended_pdu(int code, const std::string &name, const std::string &value,
                         LDAPControl **ctrls, int msgid)
{
    PduBuilder b(msgid);
    b.add("t{ess", static_cast<ber_tag_t>(LDAP_RES_EXTENDED), code, "", "");
    if (!name.empty())
        b.add("ts", LDAP_TAG_EXOP_RES_OID, name.c_str());
    if (!value.empty())
        b.add("to", LDAP_TAG_EXOP_RES_VALUE, value.data(), static_cast<int>(value.size()));
    b.add("}");
    return b.controls(ctrls).bytes();
}

std::string bind_pdu(int code, bool with_creds, const std::string &creds, LDAPControl **ctrls,
                     int msgid)
{
    PduBuilder b(msgid);
    b.add("t{ess", static_cast<ber_tag_t>(LDAP_RES_BIND), code, "", "");
    if (with_creds)
        b.add("to", LDAP_TAG_SASL_RES_CREDS, creds.data(), static_cast<int>(creds.size()));
    b.add("}");
    return b.controls(ctrls).bytes();
}

LDAPMessage *make_msg(const std::string &pdu)
{
    struct berval bv = {pdu.size(), const_cast<char *>(pdu.data())};
    BerElement *ber = fber_init(&bv);
    if (ber == nullptr)
        return nullptr;
    int msgid = 0;
    ber_len_t len;
    ber_tag_t tag;
    if (fber_scanf(ber, "{i", &msgid) == LBER_ERROR ||
        (tag = fber_peek_tag(ber, &len)) == LBER_ERROR) {
        fber_free(ber);
        return nullptr;
    }
    LDAPMessage *msg = ldap_msginit(nullptr);
    if (msg == nullptr) {
        fber_free(ber);
        return nullptr;
    }
    msg->lm_msgid = msgid;
    msg->lm_msgtype = static_cast<int32_t>(tag);
    msg->lm_ber = ber;
    return msg;
}

LDAPMessage *chain_msgs(std::initializer_list<LDAPMessage *> msgs)
{
    LDAPMessage *prev = nullptr;
    for (LDAPMessage *m : msgs) {
        if (prev != nullptr)
            prev->lm_chain = m;
        m->lm_prev = prev;
        prev = m;
    }
    return msgs.size() != 0 ? *msgs.begin() : nullptr;
}

void free_msgs(LDAPMessage *first) { free_msg(first, 1); }

LDAPControl *make_control(const char *oid, bool critical, const char *value, size_t value_len)
{
    auto ctrl = static_cast<LDAPControl *>(lber_calloc(1, sizeof(LDAPControl)));
    ctrl->ldctl_oid = lber_strdup(oid);
    ctrl->ldctl_iscritical = critical ? 1 : 0;
    if (value != nullptr) {
        ctrl->ldctl_value.bv_val = static_cast<char *>(lber_malloc(value_len + 1));
        memcpy(ctrl->ldctl_value.bv_val, value, value_len);
        ctrl->ldctl_value.bv_len = value_len;
    }
    return ctrl;
}

LDAPControl **make_control_list(std::initializer_list<LDAPControl *> ctrls)
{
    auto list = static_cast<LDAPControl **>(lber_calloc(ctrls.size() + 1, sizeof(LDAPControl *)));
    size_t i = 0;
    for (LDAPControl *c : ctrls)
        list[i++] = c;
    return list;
}

Controls one_control(const char *oid, bool critical, const char *value)
{
    return Controls{make_control_list({make_control(oid, critical, value, value ? strlen(value) : 0)})};
}

std::vector<std::string> take_strings(char **array)
{
    std::vector<std::string> out;
    for (char **p = array; p != nullptr && *p != nullptr; ++p)
        out.emplace_back(*p);
    ldap_value_free(array);
    return out;
}

std::string take_oids(LDAPControl **list)
{
    std::string out = list == nullptr ? "null" : "";
    for (LDAPControl **c = list; c != nullptr && *c != nullptr; ++c)
        out.append(c == list ? "" : ",").append((*c)->ldctl_oid);
    ldap_controls_free(list);
    return out;
}

} // namespace wzrtest
