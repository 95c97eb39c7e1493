// Control lists, update records and an answering fake server for the operation tests.
#include "support/ops_client.h"

#include <cstring>

#include "libldap/ldap_init.h"

namespace wzrtest {

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

Mods::Mods(std::initializer_list<ModDef> defs) : defs_(defs), values_(defs.size()), mods_(defs.size())
{
    for (size_t i = 0; i < defs_.size(); ++i) {
        for (std::string &v : defs_[i].values)
            values_[i].push_back(v.data());
        values_[i].push_back(nullptr);
        char **vals = defs_[i].values.empty() ? nullptr : values_[i].data();
        mods_[i] = {defs_[i].op, const_cast<char *>(defs_[i].type), {vals}};
        list_.push_back(&mods_[i]);
    }
    list_.push_back(nullptr);
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
