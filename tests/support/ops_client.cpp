// Reading search results and ldapsearch LDIF into comparable values for the operation tests.
#include "support/ops_client.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <sstream>

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

int hex_digit(char c)
{
    const char *digits = "0123456789abcdef", *at = c != '\0' ? strchr(digits, tolower(c)) : nullptr;
    return at != nullptr ? static_cast<int>(at - digits) : -1;
}

// "type=value" with the value unescaped.
std::string canonical_ava(const std::string &ava)
{
    size_t eq = ava.find('=');
    std::string type = lower(ava.substr(0, eq));
    std::string value;
    for (size_t i = eq == std::string::npos ? ava.size() : eq + 1; i < ava.size(); ++i) {
        if (ava[i] == '\\' && i + 1 < ava.size()) {
            int hi = hex_digit(ava[i + 1]);
            int lo = i + 2 < ava.size() ? hex_digit(ava[i + 2]) : -1;
            if (hi >= 0 && lo >= 0) {
                value += static_cast<char>(hi << 4 | lo);
                i += 2;
            } else {
                value += ava[++i];
            }
        } else {
            value += ava[i];
        }
    }
    return type + "=" + lower(value);
}

} // namespace

std::string canonical_dn(const std::string &dn)
{
    std::vector<std::string> rdns;
    std::vector<std::string> avas;
    std::string cur;
    auto end_ava = [&] {
        avas.push_back(canonical_ava(cur));
        cur.clear();
    };
    auto end_rdn = [&] {
        end_ava();
        std::sort(avas.begin(), avas.end());
        std::string rdn;
        for (const auto &a : avas)
            rdn += (rdn.empty() ? "" : "+") + a;
        rdns.push_back(rdn);
        avas.clear();
    };
    for (size_t i = 0; i < dn.size(); ++i) {
        char c = dn[i];
        if (c == '\\' && i + 1 < dn.size()) {
            cur += c;
            cur += dn[++i];
        } else if (c == ',') {
            end_rdn();
        } else if (c == '+') {
            end_ava();
        } else if (!(cur.empty() && c == ' ')) {
            cur += c;
        }
    }
    if (!dn.empty())
        end_rdn();
    std::string out;
    for (const auto &r : rdns)
        out += (out.empty() ? "" : ",") + r;
    return out;
}

EntryMap read_entries(LDAP *ld, LDAPMessage *chain, std::vector<std::string> *raw_dns)
{
    EntryMap out;
    for (LDAPMessage *e = ldap_first_entry(ld, chain); e != nullptr; e = ldap_next_entry(ld, e)) {
        char *dn = ldap_get_dn(ld, e);
        std::string dn_text = dn != nullptr ? dn : "<no dn>";
        ldap_memfree(dn);
        (void)(raw_dns != nullptr && (raw_dns->push_back(dn_text), true));
        EntryAttrs &attrs = out[canonical_dn(dn_text)];
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

std::string base64_decode(const std::string &text)
{
    static const std::string alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (char c : text) {
        size_t v = alphabet.find(c);
        if (v == std::string::npos)
            continue; // '=' padding and blanks
        bits = bits << 6 | static_cast<unsigned>(v);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>(bits >> count & 0xff);
        }
    }
    return out;
}

EntryMap parse_ldif(const std::string &ldif)
{
    EntryMap out;
    std::istringstream in(ldif);
    std::string line;
    EntryAttrs *current = nullptr;
    while (std::getline(in, line)) {
        size_t colon = line.find(':');
        if (line.empty())
            current = nullptr;
        if (line.empty() || line[0] == '#' || colon == std::string::npos)
            continue;
        std::string name = lower(line.substr(0, colon));
        std::string value = colon + 1 < line.size() && line[colon + 1] == ':'
                                ? base64_decode(line.substr(colon + 2))
                                : line.substr(std::min(line.size(), colon + 2));
        if (current == nullptr && name == "dn")
            current = &out[canonical_dn(value)];
        else if (current != nullptr)
            (*current)[name].push_back(value);
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
