// wzrldap: a command-line LDAP client on the library (its internal API reaches what the
// exported interface cannot: server texts, referrals, new superiors, SASL, StartTLS). "search" prints entries
// as LDIF, refusing attribute names that LDIF cannot carry; "add", "modify", "delete" and
// "modrdn" apply LDIF change records. Flags follow the classic ldapsearch/ldapmodify tools.
#include "wzrldap.h"

#include "ldif.h"
#include "sasl_bind.h"
#include "search_ext.h"
#include "tls_options.h"
#include "wzrldap_results.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <getopt.h>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Exit status for mistakes of the caller (bad flags, unreadable or malformed input).
constexpr int kUsageError = LDAP_PARAM_ERROR;

struct Options {
    std::string uri = "ldap://localhost";
    std::string binddn;
    std::optional<std::string> password;
    int version = LDAP_VERSION3;
    // search
    std::string base;
    int scope = LDAP_SCOPE_SUBTREE;
    int sizelimit = 0, timelimit = 0;
    bool attrsonly = false;
    bool follow_referrals = true;
    int wrap = wzrldif::kDefaultWrap;
    long net_timeout = -1;
    wzrext::Extensions ext; // -E and -e
    // updates
    std::string file;
    bool continue_on_error = false, dry_run = false, default_add = false, delete_old_rdn = false;
    std::vector<std::string> args;
    wzrsasl_tool::SaslOptions sasl;
    wzrtls::TlsOptions tls;
};

void say(const std::string &text) { std::cerr << "wzrldap: " << text << '\n'; }

int usage_error(const std::string &text)
{
    say(text);
    std::cerr << "Try 'wzrldap --help'.\n";
    return kUsageError;
}

// The code and its meaning, then what the server added (matched DN, text, referrals).
int report(const std::string &what, int rc, const std::string &details = std::string())
{
    say(what + ": " + wzr_ldap_err2string(rc) + " (" + std::to_string(rc) + ")");
    std::cerr << details;
    return rc;
}

const char kCommonHelp[] =
    "  -H URI      server, as ldap://host:port (default ldap://localhost)\n"
    "  -D DN       bind DN (simple bind; without it the bind is anonymous)\n"
    "  -w PASSWD   bind password\n"
    "  -y FILE     read the bind password from FILE (one trailing newline is dropped)\n"
    "  -x          simple authentication (the default; accepted for compatibility)\n"
    "  -P 2|3      protocol version (default 3)\n"
    "  --help      this text\n"
    "Exit status: 0 on success, else the LDAP result code (89 for usage or input errors).\n";

void print_main_help()
{
    std::cout << "usage: wzrldap COMMAND [options] ...\n"
                 "Commands:\n"
                 "  search   search and print the entries as LDIF\n"
                 "  add      add entries from LDIF (records without changetype are adds)\n"
                 "  modify   apply LDIF change records (add, modify, delete, modrdn)\n"
                 "  delete   delete the entries named as arguments or in LDIF records\n"
                 "  modrdn   rename entries given as arguments or in LDIF records\n"
                 "'wzrldap COMMAND --help' describes each command.\n";
}

void print_search_help()
{
    std::cout << "usage: wzrldap search [options] [FILTER [ATTRIBUTE...]]\n"
                 "Prints the entries found as LDIF and their count on standard error.\n"
                 "FILTER defaults to (objectClass=*); no attributes means all user attributes.\n"
                 "  -b BASE     search base (default: the empty DN)\n"
                 "  -s SCOPE    base, one or sub (default sub)\n"
                 "  -z LIMIT    size limit in entries (0 or none: no limit)\n"
                 "  -l LIMIT    server time limit in seconds (0 or none: no limit)\n"
                 "  -A          attribute names only, no values\n"
                 "  -L          accepted for compatibility (output is always plain LDIF)\n"
                 "  --no-referrals  do not follow referrals; print them as \"# ref\" comments\n"
                 "  -o ldif-wrap=N|no   fold lines at N columns (default 76) or not at all\n"
                 "  -o nettimeout=N     give up waiting for the results after N seconds\n"
                 "  -E [!]pr=SIZE[/noprompt]     paged results, SIZE entries a page\n"
                 "  -E [!]sss=[-]ATTR[:RULE][/...]  server-side sorting\n"
                 "  -E [!]vlv=BEFORE/AFTER(/OFFSET/COUNT|:VALUE)  a window of a sorted list\n"
                 "  -E [!]deref=ATTR:A[,B...][;ATTR2:...]  with each entry, attributes of the\n"
                 "              entries its ATTR names (a group's members), as comments\n"
                 "  -e [!]ppolicy               bind with the password-policy control\n"
                 "  -e [!]assert=FILTER  -e [!]mv=FILTER  -e [!]authzid=dn:DN|u:USER\n"
                 "  -e sessiontracking[=USER]  name this host and USER (default: the login\n"
                 "              name) for the servers' audit logs; never critical\n"
                 "  (\"!\" marks an extension critical; an unknown one is then refused)\n"
                 "An attribute name from the server that is not a valid LDIF attribute\n"
                 "description is reported on standard error, escaped, and neither it nor its\n"
                 "values are printed; the rest is printed and the exit status is 84 (decoding\n"
                 "error), whatever the search's own result.\n"
              << kCommonHelp << wzrsasl_tool::kHelp << wzrtls::kHelp;
}

void print_update_help(const std::string &cmd)
{
    if (cmd == "delete")
        std::cout << "usage: wzrldap delete [options] [DN...]\n"
                     "Deletes the DNs given as arguments, else those of the LDIF records read\n"
                     "(a record of just a dn: line is a delete).\n";
    else if (cmd == "modrdn")
        std::cout << "usage: wzrldap modrdn [options] [DN NEWRDN]\n"
                     "Renames DN to NEWRDN, else applies the LDIF records read (a record\n"
                     "without changetype gives newrdn: and deleteoldrdn: lines).\n"
                     "  -r          with DN NEWRDN: remove the old RDN values\n";
    else if (cmd == "add")
        std::cout << "usage: wzrldap add [options]\n"
                     "Applies LDIF records; a record without changetype adds an entry.\n";
    else
        std::cout << "usage: wzrldap modify [options]\n"
                     "Applies LDIF change records (changetype add, modify, delete, modrdn).\n"
                     "  -a          a record without changetype adds an entry\n";
    std::cout << "Every record is read and checked before the first change is made; a\n"
                 "malformed record is reported with its line number and nothing is changed.\n"
                 "A \"name:< file:///PATH\" value is read from a regular file of at most 64 MiB.\n"
                 "  -f FILE     read LDIF from FILE (default: standard input)\n"
                 "  -c          continue after a failed change (exit status: the first failure)\n"
                 "  -n          show what would be done without changing anything\n"
              << kCommonHelp << wzrsasl_tool::kHelp << wzrtls::kHelp;
}

bool read_all(const std::string &path, std::string *out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    std::stringstream ss;
    ss << in.rdbuf();
    *out = ss.str();
    return true;
}

bool parse_int(const char *text, int *out)
{
    if (strcmp(text, "none") == 0 || strcmp(text, "unlimited") == 0 || strcmp(text, "max") == 0) {
        *out = 0;
        return true;
    }
    char *end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < 0 || v > INT32_MAX)
        return false;
    *out = int(v);
    return true;
}

bool parse_scope(const char *text, int *scope)
{
    std::string s = text;
    if (s == "base")
        *scope = LDAP_SCOPE_BASE;
    else if (s == "one" || s == "onelevel")
        *scope = LDAP_SCOPE_ONELEVEL;
    else if (s == "sub" || s == "subtree")
        *scope = LDAP_SCOPE_SUBTREE;
    else
        return false;
    return true;
}

bool parse_extended_option(const std::string &opt, Options *o)
{
    if (opt == "ldif-wrap=no") {
        o->wrap = 0;
        return true;
    }
    int v = 0;
    if (opt.rfind("ldif-wrap=", 0) == 0 && parse_int(opt.c_str() + 10, &v)) {
        o->wrap = v;
        return true;
    }
    if (opt.rfind("nettimeout=", 0) == 0 && parse_int(opt.c_str() + 11, &v)) {
        o->net_timeout = v > 0 ? v : -1; // 0 or none: wait as long as it takes
        return true;
    }
    return false;
}

constexpr int NO_REFERRALS = 0x100; // a long option only

// Parses the flags of `cmd`; returns -1 to go on, else the exit status.
int parse_options(const std::string &cmd, int argc, char **argv, Options *o)
{
    const bool search = cmd == "search";
    std::string flags = std::string(":H:D:w:y:xP:Z") + wzrsasl_tool::kFlags;
    flags += search ? "b:s:z:l:ALCo:E:e:" : "f:cnar";
    // -R is the SASL realm, as in the classic tools, so following referrals is turned off by
    // name; -C (chase) is accepted for those tools' scripts and is the default anyway.
    static const option long_opts[] = {{"help", no_argument, nullptr, 'h'},
                                       {"no-referrals", no_argument, nullptr, NO_REFERRALS},
                                       WZRTLS_LONG_OPTIONS,
                                       {nullptr, 0, nullptr, 0}};
    optind = 1;
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, flags.c_str(), long_opts, nullptr)) != -1) {
        switch (c) {
        case 'h':
            if (search)
                print_search_help();
            else
                print_update_help(cmd);
            return 0;
        case 'H': o->uri = optarg; break;
        case 'Z':
        case wzrtls::kOptKeydb:
        case wzrtls::kOptKeydbPw:
        case wzrtls::kOptLabel: (void)wzrtls::parse_option(c, optarg, &o->tls); break;
        case 'D': o->binddn = optarg; break;
        case 'w': o->password = optarg; break;
        case 'y': {
            std::string pw;
            if (!read_all(optarg, &pw))
                return usage_error(std::string("cannot read password file ") + optarg);
            if (!pw.empty() && pw.back() == '\n')
                pw.pop_back();
            o->password = pw;
            break;
        }
        case 'x': break;
        case 'P':
            if (strcmp(optarg, "2") != 0 && strcmp(optarg, "3") != 0)
                return usage_error("-P takes 2 or 3");
            o->version = atoi(optarg);
            break;
        case 'b': o->base = optarg; break;
        case 's':
            if (!parse_scope(optarg, &o->scope))
                return usage_error(std::string("bad scope \"") + optarg + "\" (base, one, sub)");
            break;
        case 'z':
            if (!parse_int(optarg, &o->sizelimit))
                return usage_error(std::string("bad size limit \"") + optarg + "\"");
            break;
        case 'l':
            if (!parse_int(optarg, &o->timelimit))
                return usage_error(std::string("bad time limit \"") + optarg + "\"");
            break;
        case 'A': o->attrsonly = true; break;
        case 'L': break;
        case 'C': o->follow_referrals = true; break;
        case NO_REFERRALS: o->follow_referrals = false; break;
        case 'o':
            if (!parse_extended_option(optarg, o))
                return usage_error(std::string("unknown -o option \"") + optarg + "\"");
            break;
        case 'E':
        case 'e':
            if (wzrext::parse(optarg, c == 'E', &o->ext) != 0)
                return kUsageError;
            break;
        case 'f': o->file = optarg; break;
        case 'c': o->continue_on_error = true; break;
        case 'n': o->dry_run = true; break;
        case 'a':
            if (cmd != "modify")
                return usage_error("-a is a flag of modify");
            o->default_add = true;
            break;
        case 'r':
            if (cmd != "modrdn")
                return usage_error("-r is a flag of modrdn");
            o->delete_old_rdn = true;
            break;
        case 'Y': case 'U': case 'X': case 'R':
            (void)wzrsasl_tool::parse_flag(c, optarg, &o->sasl);
            break;
        case ':':
            return usage_error(std::string("option -") + char(optopt) + " needs a value");
        default:
            if (optopt != 0)
                return usage_error(std::string("unknown option -") + char(optopt));
            return usage_error(std::string("unknown option ") + argv[optind - 1]);
        }
    }
    for (int i = optind; i < argc; i++)
        o->args.emplace_back(argv[i]);
    return -1;
}

// Integer options: a version-2 handle takes the value in the pointer itself.
int set_int_option(LDAP *ld, int option, int value, int version)
{
    if (version < LDAP_VERSION3)
        return wzr_ldap_set_option(ld, option, reinterpret_cast<void *>(intptr_t(value)));
    return wzr_ldap_set_option(ld, option, &value);
}

// A handle for o->uri, bound as o->binddn (anonymously without one). NULL after reporting.
LDAP *open_session(const Options &o, bool search, int *rc)
{
    LDAP *ld = wzr_ldap_init(o.uri.c_str(), 0);
    if (ld == nullptr) {
        say("cannot use server \"" + o.uri + "\"");
        *rc = kUsageError;
        return nullptr;
    }
    int version = o.version;
    *rc = wzr_ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
    // Values go to and come from the server exactly as given: LDIF is UTF-8 already.
    if (*rc == LDAP_SUCCESS)
        *rc = wzr_ldap_set_option(ld, LDAP_OPT_UTF8_IO, LDAP_OPT_ON);
    if (*rc == LDAP_SUCCESS && search && o.sizelimit > 0)
        *rc = set_int_option(ld, LDAP_OPT_SIZELIMIT, o.sizelimit, version);
    if (*rc == LDAP_SUCCESS && search && o.timelimit > 0)
        *rc = set_int_option(ld, LDAP_OPT_TIMELIMIT, o.timelimit, version);
    if (*rc == LDAP_SUCCESS && !o.follow_referrals)
        *rc = wzrtool::stop_following_referrals(ld);
    if (*rc != LDAP_SUCCESS) {
        report("setting options", *rc);
        wzr_ldap_unbind(ld);
        return nullptr;
    }
    if (*rc == LDAP_SUCCESS)
        *rc = wzrtls::secure_session(ld, o.tls);
    if (*rc != LDAP_SUCCESS) {
        wzr_ldap_unbind(ld);
        return nullptr;
    }
    const char *dn = o.binddn.empty() ? nullptr : o.binddn.c_str();
    const char *pw = o.password ? o.password->c_str() : nullptr;
    if (!o.sasl.mech.empty()) {
        *rc = wzrsasl_tool::bind(ld, o.sasl, o.binddn, pw);
        if (*rc != LDAP_SUCCESS)
            wzr_ldap_unbind(ld);
        return *rc == LDAP_SUCCESS ? ld : nullptr;
    }
    *rc = wzrext::bind(ld, dn, pw, o.ext);
    if (*rc != LDAP_SUCCESS) {
        report(dn != nullptr ? "bind as \"" + o.binddn + "\"" : std::string("anonymous bind"), *rc,
               wzrtool::server_error_lines(ld));
        wzr_ldap_unbind(ld);
        return nullptr;
    }
    return ld;
}

// A server's attribute name goes into the output only if it is a valid attribute description:
// a line break in it would end the line, and the server could then forge whole records that a
// later update would apply. Refused names are shown escaped and counted in *refused.
bool printable_name(const std::string &dn, const char *name, int *refused)
{
    if (wzrldif::is_attribute_description(name))
        return true;
    say("entry \"" + wzrldif::escape_for_message(dn) + "\": refused the attribute description \"" +
        wzrldif::escape_for_message(name) + "\", which is not valid in LDIF; not printed");
    (*refused)++;
    return false;
}

std::vector<wzrldif::Attribute> entry_attributes(LDAP *ld, LDAPMessage *e, const std::string &dn,
                                                 int *refused)
{
    std::vector<wzrldif::Attribute> attrs;
    BerElement *cursor = nullptr;
    for (char *name = wzr_ldap_first_attribute(ld, e, &cursor); name != nullptr;
         name = wzr_ldap_next_attribute(ld, e, cursor)) {
        if (!printable_name(dn, name, refused)) {
            wzr_ldap_memfree(name);
            continue;
        }
        wzrldif::Attribute a{name, {}};
        struct berval **vals = wzr_ldap_get_values_len(ld, e, name);
        for (size_t i = 0; vals != nullptr && vals[i] != nullptr; i++)
            a.values.emplace_back(vals[i]->bv_val, vals[i]->bv_len);
        wzr_ldap_value_free_len(vals);
        wzr_ldap_memfree(name);
        attrs.push_back(std::move(a));
    }
    wzr_ldap_ber_free(cursor, 0);
    return attrs;
}

// Prints every entry of `res`, never in a form that reads back as a change record; the DN needs
// no check, as format_entry encodes any DN that is not a safe string. Returns the number of
// entries.
int print_entries(LDAP *ld, LDAPMessage *res, int wrap, int *refused)
{
    int count = 0;
    for (LDAPMessage *e = wzr_ldap_first_entry(ld, res); e != nullptr;
         e = wzr_ldap_next_entry(ld, e)) {
        char *raw_dn = wzr_ldap_get_dn(ld, e);
        std::string dn = raw_dn != nullptr ? raw_dn : "";
        wzr_ldap_memfree(raw_dn);
        std::vector<wzrldif::Attribute> attrs = entry_attributes(ld, e, dn, refused);
        if (!wzrldif::put_content_first(&attrs)) {
            say("entry \"" + wzrldif::escape_for_message(dn) + "\": refused its attributes, all " +
                "named changetype or control: they would read back as a change record");
            *refused += int(attrs.size());
            attrs.clear();
        }
        std::string text = wzrldif::format_entry(dn, attrs, wrap);
        fwrite(text.data(), 1, text.size(), stdout);
        count++;
    }
    return count;
}

int cmd_search(const Options &o)
{
    std::string filter = o.args.empty() ? "(objectClass=*)" : o.args[0];
    std::vector<char *> attrs;
    for (size_t i = 1; i < o.args.size(); i++)
        attrs.push_back(const_cast<char *>(o.args[i].c_str()));
    attrs.push_back(nullptr);

    int rc;
    LDAP *ld = open_session(o, true, &rc);
    if (ld == nullptr)
        return rc;
    timeval tv{o.net_timeout, 0};
    LDAPMessage *res = nullptr;
    int refused = 0, count = 0;
    std::string details;
    char **attr_list = attrs.size() > 1 ? attrs.data() : nullptr;
    if (o.ext.any()) {
        wzrext::SearchArgs args{o.base.c_str(),     o.scope,     filter.c_str(), attr_list,
                                o.attrsonly ? 1 : 0, o.sizelimit, nullptr};
        if (o.net_timeout >= 0)
            args.timeout = &tv;
        auto print = [&](LDAP *h, LDAPMessage *page) {
            int n = print_entries(h, page, o.wrap, &refused);
            fflush(stdout);
            return n;
        };
        rc = wzrext::search(ld, args, o.ext, print, &count);
        if (rc != LDAP_SUCCESS)
            details = wzrtool::server_error_lines(ld);
    } else {
        rc = wzr_ldap_search_st(ld, o.base.c_str(), o.scope, filter.c_str(), attr_list,
                                o.attrsonly ? 1 : 0, o.net_timeout >= 0 ? &tv : nullptr, &res);
        // A search cut short by a limit still delivers the entries found so far.
        count = res != nullptr ? print_entries(ld, res, o.wrap, &refused) : 0;
        if (!o.follow_referrals)
            wzrtool::print_referrals(ld, res);
        fflush(stdout);
        details = rc == LDAP_SUCCESS ? std::string()
                  : res != nullptr   ? wzrtool::result_error_lines(ld, res)
                                     : wzrtool::server_error_lines(ld);
        wzr_ldap_msgfree(res);
    }
    std::cerr << "# numEntries: " << count << '\n';
    if (rc != LDAP_SUCCESS)
        report("search", rc, details);
    wzr_ldap_unbind(ld);
    // The output lacks something the server sent: a script must notice even when the search
    // itself succeeded, so this status wins over the search's own.
    if (refused > 0) {
        say(std::to_string(refused) + " attribute description(s) refused");
        return LDAP_DECODING_ERROR;
    }
    return rc;
}

// The LDAPMod array of one record, with the storage its pointers refer to.
class ModList {
public:
    explicit ModList(const std::vector<wzrldif::Modification> &mods)
    {
        values_.resize(mods.size());
        for (size_t i = 0; i < mods.size(); i++) {
            for (const auto &v : mods[i].values)
                values_[i].push_back(berval{v.size(), const_cast<char *>(v.data())});
        }
        for (size_t i = 0; i < mods.size(); i++) {
            for (auto &bv : values_[i])
                pointers_.push_back(&bv);
            pointers_.push_back(nullptr);
        }
        mods_.resize(mods.size());
        size_t at = 0;
        for (size_t i = 0; i < mods.size(); i++) {
            mods_[i].mod_op = op_code(mods[i].op) | LDAP_MOD_BVALUES;
            mods_[i].mod_type = const_cast<char *>(mods[i].type.c_str());
            mods_[i].mod_bvalues = &pointers_[at];
            at += values_[i].size() + 1;
            list_.push_back(&mods_[i]);
        }
        list_.push_back(nullptr);
    }
    LDAPMod **get() { return list_.data(); }

private:
    static int op_code(wzrldif::ModOp op)
    {
        switch (op) {
        case wzrldif::ModOp::Add: return LDAP_MOD_ADD;
        case wzrldif::ModOp::Delete: return LDAP_MOD_DELETE;
        case wzrldif::ModOp::Replace: return LDAP_MOD_REPLACE;
        }
        return LDAP_MOD_ADD;
    }
    std::vector<std::vector<berval>> values_;
    std::vector<berval *> pointers_;
    std::vector<LDAPMod> mods_;
    std::vector<LDAPMod *> list_;
};

std::string describe(const wzrldif::Record &r)
{
    switch (r.change) {
    case wzrldif::ChangeType::Add: return "adding new entry \"" + r.dn + "\"";
    case wzrldif::ChangeType::Delete: return "deleting entry \"" + r.dn + "\"";
    case wzrldif::ChangeType::Modify: return "modifying entry \"" + r.dn + "\"";
    case wzrldif::ChangeType::ModRdn:
        return "renaming entry \"" + r.dn + "\" to \"" + r.newrdn + "\"" +
               (r.newsuperior ? " under \"" + *r.newsuperior + "\"" : std::string());
    }
    return r.dn;
}

int apply(LDAP *ld, const wzrldif::Record &r)
{
    switch (r.change) {
    case wzrldif::ChangeType::Add: {
        ModList mods(r.mods);
        return wzr_ldap_add_s(ld, r.dn.c_str(), mods.get());
    }
    case wzrldif::ChangeType::Modify: {
        ModList mods(r.mods);
        return wzr_ldap_modify_s(ld, r.dn.c_str(), mods.get());
    }
    case wzrldif::ChangeType::Delete:
        return wzr_ldap_delete_s(ld, r.dn.c_str());
    case wzrldif::ChangeType::ModRdn:
        return wzrtool::rename_entry(ld, r);
    }
    return LDAP_PARAM_ERROR;
}

// The records of an update command: from the arguments (delete, modrdn) or from LDIF.
int collect_records(const std::string &cmd, const Options &o, std::vector<wzrldif::Record> *out)
{
    if (cmd == "delete" && !o.args.empty()) {
        for (const auto &dn : o.args)
            out->push_back(
                wzrldif::Record{0, dn, wzrldif::ChangeType::Delete, true, {}, {}, false, {}});
        return -1;
    }
    if (cmd == "modrdn" && !o.args.empty()) {
        if (o.args.size() != 2)
            return usage_error("modrdn takes DN NEWRDN, or LDIF records");
        out->push_back(wzrldif::Record{0, o.args[0], wzrldif::ChangeType::ModRdn, true, {},
                                       o.args[1], o.delete_old_rdn, {}});
        return -1;
    }
    if (!o.args.empty())
        return usage_error("unexpected argument \"" + o.args[0] + "\"");
    std::string text;
    if (o.file.empty()) {
        std::stringstream ss;
        ss << std::cin.rdbuf();
        text = ss.str();
    } else if (!read_all(o.file, &text)) {
        return usage_error("cannot read " + o.file);
    }
    std::optional<wzrldif::ChangeType> dflt;
    if (cmd == "add" || o.default_add)
        dflt = wzrldif::ChangeType::Add;
    else if (cmd == "delete")
        dflt = wzrldif::ChangeType::Delete;
    else if (cmd == "modrdn")
        dflt = wzrldif::ChangeType::ModRdn;
    wzrldif::ParseError err;
    if (!wzrldif::parse(text, dflt, out, &err)) {
        say((o.file.empty() ? std::string("standard input") : o.file) + ", line " +
            std::to_string(err.line) + ": " + err.message + "; nothing was changed");
        return kUsageError;
    }
    return -1;
}

int cmd_update(const std::string &cmd, const Options &o)
{
    std::vector<wzrldif::Record> records;
    int status = collect_records(cmd, o, &records);
    if (status >= 0)
        return status;
    if (o.dry_run) {
        for (const auto &r : records)
            std::cout << "!" << describe(r) << '\n';
        return LDAP_SUCCESS;
    }
    int rc;
    LDAP *ld = open_session(o, false, &rc);
    if (ld == nullptr)
        return rc;
    int first_failure = LDAP_SUCCESS;
    for (const auto &r : records) {
        std::cout << describe(r) << '\n' << std::flush;
        rc = apply(ld, r);
        if (rc == LDAP_SUCCESS)
            continue;
        std::string where = r.line > 0 ? " (record at line " + std::to_string(r.line) + ")" : "";
        report(std::string(wzrldif::change_type_name(r.change)) + " \"" + r.dn + "\"" + where, rc,
               wzrtool::server_error_lines(ld));
        if (first_failure == LDAP_SUCCESS)
            first_failure = rc;
        if (!o.continue_on_error)
            break;
    }
    wzr_ldap_unbind(ld);
    return first_failure;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        print_main_help();
        return kUsageError;
    }
    std::string cmd = argv[1];
    if (cmd == "--help" || cmd == "-h" || cmd == "help") {
        print_main_help();
        return 0;
    }
    if (cmd != "search" && cmd != "add" && cmd != "modify" && cmd != "delete" && cmd != "modrdn")
        return usage_error("unknown command \"" + cmd + "\"");
    Options o;
    int status = parse_options(cmd, argc - 1, argv + 1, &o);
    if (status >= 0)
        return status;
    return cmd == "search" ? cmd_search(o) : cmd_update(cmd, o);
}
