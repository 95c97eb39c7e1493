// Test records without a server: LDAPMessage records built from BER bytes the way the engine
// leaves them (read position at the protocolOp, id and type set, no connection), chained like
// a result, and the PDUs of the responses the parsers read.
#ifndef WZR_TESTS_SUPPORT_MSG_BUILDER_H
#define WZR_TESTS_SUPPORT_MSG_BUILDER_H

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "libldap/ldap_controls.h"
#include "libldap/ldap_int.h"

namespace wzrtest {

// Encodes one PDU with the library's FBER encoder. Open it with the message id and add the
// protocolOp with add(); controls() appends a [0] control list; bytes() closes the message.
class PduBuilder {
public:
    explicit PduBuilder(int msgid);
    ~PduBuilder();
    PduBuilder(const PduBuilder &) = delete;
    PduBuilder &operator=(const PduBuilder &) = delete;

    template <typename... Args> PduBuilder &add(const char *fmt, Args... args)
    {
        if (fber_printf_raw(ber_, fmt, args...) == -1)
            failed_ = true;
        return *this;
    }
    PduBuilder &raw(const std::string &bytes); // appended as they are
    PduBuilder &controls(LDAPControl **ctrls); // none when null
    std::string bytes(); // closes the LDAPMessage sequence; empty when any step failed

private:
    BerElement *ber_;
    bool failed_ = false;
};

using Attr = std::pair<std::string, std::vector<std::string>>;

// PDUs of the responses (message id 1 unless given).
std::string entry_pdu(const std::string &dn, const std::vector<Attr> &attrs, int msgid = 1,
                      LDAPControl **ctrls = nullptr);
std::string result_pdu(ber_tag_t type, int code, const std::string &matched,
                       const std::string &text, const std::vector<std::string> &referrals = {},
                       LDAPControl **ctrls = nullptr, int msgid = 1);
std::string reference_pdu(const std::vector<std::string> &urls, LDAPControl **ctrls = nullptr,
                          int msgid = 1);
// name/value empty = absent.
std::string extended_pdu(int code, const std::string &name, const std::string &value,
                         LDAPControl **ctrls = nullptr, int msgid = 1);
// `creds` is sent when `with_creds` is set.
std::string bind_pdu(int code, bool with_creds, const std::string &creds,
                     LDAPControl **ctrls = nullptr, int msgid = 1);

// A record over `pdu`: fber_init, then "{i" and a peek at the operation tag, as the engine
// reads a response. nullptr when the bytes do not get that far.
LDAPMessage *make_msg(const std::string &pdu);
// Links the records through lm_chain/lm_prev in order; returns the first.
LDAPMessage *chain_msgs(std::initializer_list<LDAPMessage *> msgs);
// Frees a connection-less chain (free_msg: these records belong to no row).
void free_msgs(LDAPMessage *first);

// A control record allocated through the library's allocator (ldap_control_free releases it).
LDAPControl *make_control(const char *oid, bool critical, const char *value = nullptr,
                          size_t value_len = 0);
// A null-terminated list of them.
LDAPControl **make_control_list(std::initializer_list<LDAPControl *> ctrls);

// A control list freed when it goes out of scope (a temporary: at the end of the statement).
struct Controls {
    LDAPControl **list;
    ~Controls() { ldap_controls_free(list); }
    operator LDAPControl **() const { return list; }
};
// A list of one control; the value, when given, is NUL-terminated.
Controls one_control(const char *oid, bool critical = false, const char *value = nullptr);
// Take a list handed out by the library, free it, and give its strings (the OIDs joined by
// ",", "null" for no list).
std::vector<std::string> take_strings(char **array);
std::string take_oids(LDAPControl **list);

} // namespace wzrtest

#endif
