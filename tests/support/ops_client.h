// Test helpers for the request operations: a handle on an answering fake server, control lists
// and the update records (LDAPMod lists) the update calls take.
#ifndef WZR_TESTS_SUPPORT_OPS_CLIENT_H
#define WZR_TESTS_SUPPORT_OPS_CLIENT_H

#include <initializer_list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "libldap/ldap_int.h"
#include "support/fake_server.h"

namespace wzrtest {

// A control list allocated through the library's allocator (ldap_controls_free releases it).
struct ControlDef {
    const char *oid;
    bool critical;
    const char *value = nullptr; // NUL-terminated; null = no value
};
LDAPControl **control_list(std::initializer_list<ControlDef> defs);

// A null-terminated LDAPMod list over string values, kept alive by the object.
struct ModDef {
    int op;
    const char *type;
    std::vector<std::string> values; // none: a null value list
};
class Mods {
public:
    Mods(std::initializer_list<ModDef> defs);
    Mods(const Mods &) = delete;
    Mods &operator=(const Mods &) = delete;
    operator LDAPMod **() { return list_.data(); }

private:
    std::vector<ModDef> defs_;
    std::vector<std::vector<char *>> values_;
    std::vector<LDAPMod> mods_;
    std::vector<LDAPMod *> list_;
};

// A fake server that answers every request with the LDAPResult of its operation (code 0, or
// what answer_with set for that request tag; compare answers 6), except requests whose tag is
// held with hold(): those stay unanswered. A handle on it is made with open().
class AnsweringServer {
public:
    AnsweringServer();
    ~AnsweringServer() { server_.stop(); } // its handler reads the members below
    LDAP *open(); // ldap_init on the server's port; the caller unbinds
    void answer_with(unsigned request_tag, int code);
    void hold(unsigned request_tag, bool on = true); // held requests are not answered
    // The last request with this tag (msgid -1 and no bytes when there was none).
    ReceivedRequest last(unsigned request_tag) const;
    size_t count(unsigned request_tag) const;
    FakeServer &server() { return server_; }

private:
    FakeServer server_;
    mutable std::mutex mutex_;
    std::map<unsigned, int> codes_;
    std::map<unsigned, bool> held_;
};

} // namespace wzrtest

#endif
