// Search results read into comparable values, control lists and an answering fake server for
// the operation tests.
#include "support/ops_client.h"

#include <cctype>
#include <cstring>

#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_init.h"

namespace wzrtest {

namespace {

std::string lower(std::string s)
{
    for (char &c : s)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

} // namespace

EntryMap read_entries(LDAP *ld, LDAPMessage *chain, std::vector<std::string> *raw_dns)
{
    EntryMap out;
    for (LDAPMessage *e = ldap_first_entry(ld, chain); e != nullptr; e = ldap_next_entry(ld, e)) {
        char *dn = ldap_get_dn(ld, e);
        std::string dn_text = dn != nullptr ? dn : "<no dn>";
        ldap_memfree(dn);
        (void)(raw_dns != nullptr && (raw_dns->push_back(dn_text), true));
        EntryAttrs &attrs = out[dn_text];
        BerElement *cursor = nullptr;
        for (char *a = ldap_first_attribute(ld, e, &cursor); a != nullptr;
             a = ldap_next_attribute(ld, e, cursor)) {
            struct berval **vals = ldap_get_values_len(ld, e, a);
            std::vector<std::string> &dst = attrs[lower(a)];
            for (int i = 0; vals != nullptr && vals[i] != nullptr; ++i)
                dst.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
            ldap_value_free_len(vals);
            ldap_memfree(a);
        }
        ldap_ber_free(cursor, 0);
    }
    return out;
}

LDAPControl **control_list(std::initializer_list<ControlDef> defs)
{
    auto **list = static_cast<LDAPControl **>(lber_calloc(defs.size() + 1, sizeof(LDAPControl *)));
    size_t i = 0;
    for (const ControlDef &def : defs) {
        auto *c = static_cast<LDAPControl *>(lber_calloc(1, sizeof(LDAPControl)));
        c->ldctl_oid = lber_strdup(def.oid);
        c->ldctl_iscritical = def.critical ? 1 : 0;
        if (def.value != nullptr)
            c->ldctl_value = {strlen(def.value), lber_strdup(def.value)};
        list[i++] = c;
    }
    return list;
}

AnsweringServer::AnsweringServer()
{
    server_.on_request([this](const ReceivedRequest &req, FakeConnection &conn) {
        if (req.op == 0x42 || req.op == 0x50)
            return; // unbind and abandon have no response
        std::lock_guard<std::mutex> lock(mutex_);
        if (held_[req.op])
            return;
        auto it = codes_.find(req.op);
        int code = it != codes_.end() ? it->second : req.op == 0x6e ? 6 : 0;
        // Every request tag's response tag is one above, except delete's (0x4a -> 0x6b).
        unsigned response = req.op == 0x4a ? 0x6b : req.op == 0x63 ? 0x65 : req.op + 1;
        conn.send(ldap_result_pdu(req.msgid, response, code));
    });
}

LDAP *AnsweringServer::open() { return ldap_init("127.0.0.1", server_.port()); }

void AnsweringServer::answer_with(unsigned request_tag, int code)
{
    std::lock_guard<std::mutex> lock(mutex_);
    codes_[request_tag] = code;
}

void AnsweringServer::hold(unsigned request_tag, bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    held_[request_tag] = on;
}

ReceivedRequest AnsweringServer::last(unsigned request_tag) const
{
    ReceivedRequest found;
    for (const ReceivedRequest &r : server_.requests())
        found = r.op == request_tag ? r : found;
    return found;
}

size_t AnsweringServer::count(unsigned request_tag) const
{
    size_t n = 0;
    for (const ReceivedRequest &r : server_.requests())
        n += r.op == request_tag ? 1 : 0;
    return n;
}

} // namespace wzrtest
