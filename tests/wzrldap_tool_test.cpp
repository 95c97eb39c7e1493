// The wzrldap command against a real slapd: its LDIF matches ldapsearch's for the same search
// (compared by meaning, binary values included), updates from LDIF take effect, malformed
// input changes nothing, the exit status is the LDAP result code, hostile names are refused.
#include "ldif.h"
#include "support/fake_server.h"
#include "support/slapd_fixture.h"
#include "support/test_util.h"
#include "wzrldap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using wzrtest::SlapdFixture;

std::string quote(const std::string &s)
{
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Runs `program args...` with `input` on standard input, capturing both outputs.
Outcome run(const std::string &program, const std::vector<std::string> &args,
        const std::string &input = "")
{
    wzrtest::TempDir tmp;
    wzrtest::write_file(tmp.file("in"), input);
    std::string cmd = "LDAPNOINIT=1 " + quote(program);
    for (const auto &a : args)
        cmd += " " + quote(a);
    cmd += " < " + tmp.file("in") + " > " + tmp.file("out") + " 2> " + tmp.file("err");
    Outcome r;
    int st = std::system(cmd.c_str());
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    r.out = wzrtest::read_file(tmp.file("out"));
    r.err = wzrtest::read_file(tmp.file("err"));
    return r;
}

Outcome tool(const std::vector<std::string> &args, const std::string &input = "")
{
    return run(WZR_TOOL_BIN, args, input);
}

int hexval(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = char(tolower(c));
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

// A DN reduced to its meaning: types in lower case, values unescaped, the attribute-value
// pairs of a multi-valued RDN sorted. "cn=Smith\2C John" and "cn=Smith\, John" agree.
std::string dn_meaning(const std::string &dn)
{
    std::vector<std::string> rdns;
    std::vector<std::string> avas;
    std::string type, value;
    bool in_value = false;
    auto end_ava = [&] {
        std::transform(type.begin(), type.end(), type.begin(), ::tolower);
        avas.push_back(type + "=" + value);
        type.clear();
        value.clear();
        in_value = false;
    };
    auto end_rdn = [&] {
        end_ava();
        std::sort(avas.begin(), avas.end());
        std::string r;
        for (const auto &a : avas)
            r += (r.empty() ? "" : "+") + a;
        rdns.push_back(r);
        avas.clear();
    };
    for (size_t i = 0; i < dn.size(); i++) {
        char c = dn[i];
        if (!in_value) {
            if (c == '=')
                in_value = true;
            else if (c != ' ')
                type += c;
        } else if (c == '\\' && i + 1 < dn.size()) {
            int hi = hexval(dn[i + 1]), lo = i + 2 < dn.size() ? hexval(dn[i + 2]) : -1;
            if (hi >= 0 && lo >= 0) {
                value += char(hi * 16 + lo);
                i += 2;
            } else {
                value += dn[++i];
            }
        } else if (c == ',') {
            end_rdn();
        } else if (c == '+') {
            end_ava();
        } else {
            value += c;
        }
    }
    if (!type.empty() || in_value)
        end_rdn();
    std::string out;
    for (const auto &r : rdns)
        out += (out.empty() ? "" : ",") + r;
    return out;
}

// Entries by meaning: DN -> attribute type (lower case) -> sorted values.
using Meaning = std::map<std::string, std::map<std::string, std::vector<std::string>>>;

Meaning meaning_of(const std::string &ldif)
{
    std::vector<wzrldif::Entry> entries;
    wzrldif::ParseError err;
    EXPECT_TRUE(wzrldif::parse_entries(ldif, &entries, &err))
        << "line " << err.line << ": " << err.message << "\n" << ldif.substr(0, 2000);
    Meaning m;
    for (auto &e : entries) {
        auto &attrs = m[dn_meaning(e.dn)];
        EXPECT_TRUE(attrs.empty()) << "entry twice: " << e.dn;
        for (auto &a : e.attrs) {
            std::string type = a.type;
            std::transform(type.begin(), type.end(), type.begin(), ::tolower);
            auto &vals = attrs[type];
            vals.insert(vals.end(), a.values.begin(), a.values.end());
            std::sort(vals.begin(), vals.end());
        }
    }
    return m;
}

bool have_ldap_utils() { return access("/usr/bin/ldapsearch", X_OK) == 0; }

#define REQUIRE_SERVER(s)                                                                  \
    do {                                                                                   \
        if (!have_ldap_utils())                                                            \
            GTEST_SKIP() << "ldap-utils not installed";                                    \
        WZR_REQUIRE_SLAPD(s);                                                              \
    } while (0)

Outcome ldapsearch(const SlapdFixture &s, std::vector<std::string> args)
{
    std::vector<std::string> full = {"-x", "-LLL", "-o", "ldif-wrap=no", "-H", s.uri()};
    full.insert(full.end(), args.begin(), args.end());
    return run("/usr/bin/ldapsearch", full);
}

Outcome search(const SlapdFixture &s, std::vector<std::string> args)
{
    std::vector<std::string> full = {"search", "-x", "-H", s.uri()};
    full.insert(full.end(), args.begin(), args.end());
    return tool(full);
}

TEST(WzrldapTool, DnMeaningIgnoresEscapingAndOrder)
{
    EXPECT_EQ(dn_meaning("cn=Smith\\2C John,OU=people"), dn_meaning("CN=Smith\\, John,ou=people"));
    EXPECT_EQ(dn_meaning("cn=x+sn=y,dc=a"), dn_meaning("sn=y+cn=x,dc=a"));
    EXPECT_NE(dn_meaning("cn=a\\+b,dc=a"), dn_meaning("cn=a+b=,dc=a"));
    EXPECT_NE(dn_meaning("cn=a,dc=a"), dn_meaning("cn=b,dc=a"));
}

TEST(WzrldapTool, SearchOutputMatchesLdapsearch)
{
    SlapdFixture &s = wzrtest::shared_slapd();
    REQUIRE_SERVER(s);
    const std::string people = "ou=people," + s.base();
    const std::vector<std::vector<std::string>> searches = {
        {"-b", s.base()},
        {"-b", people, "-s", "one", "(|(uid=carol)(cn=J*)(sn=y)(cn=*,*)(cn=a+b))"},
        {"-b", people, "(objectClass=inetOrgPerson)", "cn", "mail", "jpegPhoto"},
        {"-b", "cn=Smith\\, John," + people, "-s", "base"},
        {"-b", people, "-A", "(uid=user0*)"},
        {"-b", s.base(), "-D", s.user_dn(), "-w", s.user_pw(), "(uid=alice)", "*", "+"},
    };
    for (const auto &args : searches) {
        std::string what;
        for (const auto &a : args)
            what += a + " ";
        Outcome mine = search(s, args);
        Outcome theirs = ldapsearch(s, args);
        ASSERT_EQ(theirs.status, 0) << what << theirs.err;
        ASSERT_EQ(mine.status, 0) << what << mine.err;
        Meaning m = meaning_of(mine.out), t = meaning_of(theirs.out);
        EXPECT_FALSE(t.empty()) << what;
        // operational timestamps can differ between two reads only if something wrote.
        EXPECT_EQ(m, t) << what;
        EXPECT_NE(mine.err.find("# numEntries: " + std::to_string(t.size())), std::string::npos)
            << what << mine.err;
        // Every physical line respects the default wrap.
        size_t pos = 0;
        while (pos < mine.out.size()) {
            size_t end = mine.out.find('\n', pos);
            ASSERT_NE(end, std::string::npos);
            EXPECT_LE(end - pos, 76u) << what;
            pos = end + 1;
        }
    }
    // The photo of every byte comes back intact through base64.
    Outcome photo = search(s, {"-b", "uid=carol," + people, "-s", "base", "(objectClass=*)",
                           "jpegPhoto"});
    Meaning m = meaning_of(photo.out);
    std::string bytes;
    for (int i = 0; i < 256; i++)
        bytes += char(i);
    ASSERT_EQ(m.size(), 1u) << photo.out;
    EXPECT_EQ(m.begin()->second["jpegphoto"], std::vector<std::string>{bytes});
}

TEST(WzrldapTool, ExitStatusIsTheResultCode)
{
    SlapdFixture &s = wzrtest::shared_slapd();
    REQUIRE_SERVER(s);
    Outcome r = search(s, {"-b", s.base(), "-z", "3", "(uid=user*)", "uid"});
    EXPECT_EQ(r.status, LDAP_SIZELIMIT_EXCEEDED) << r.err;
    EXPECT_EQ(meaning_of(r.out).size(), 3u) << r.out;
    EXPECT_NE(r.err.find(wzr_ldap_err2string(LDAP_SIZELIMIT_EXCEEDED)), std::string::npos) << r.err;

    // Under version 2 the limit travels by value; the server still stops at it.
    r = search(s, {"-P", "2", "-b", s.base(), "-z", "2", "(uid=user*)", "uid"});
    EXPECT_EQ(r.status, LDAP_SIZELIMIT_EXCEEDED) << r.err;
    EXPECT_EQ(meaning_of(r.out).size(), 2u) << r.out;

    r = search(s, {"-b", "ou=nowhere," + s.base()});
    EXPECT_EQ(r.status, LDAP_NO_SUCH_OBJECT) << r.err;
    EXPECT_NE(r.err.find(wzr_ldap_err2string(LDAP_NO_SUCH_OBJECT)), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("\tMatched DN: " + s.base() + "\n"), std::string::npos) << r.err;

    r = search(s, {"-b", s.base(), "-D", s.user_dn(), "-w", "wrong"});
    EXPECT_EQ(r.status, LDAP_INVALID_CREDENTIALS) << r.err;
    EXPECT_TRUE(r.out.empty());

    wzrtest::TempDir tmp;
    wzrtest::write_file(tmp.file("pw"), s.user_pw() + "\n");
    r = search(s, {"-b", s.user_dn(), "-s", "base", "-D", s.user_dn(), "-y", tmp.file("pw"),
                   "(objectClass=*)", "uid"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("uid: alice"), std::string::npos) << r.out;

    r = search(s, {"-b", s.base(), "(&(uid=x)"});
    EXPECT_NE(r.status, 0);
    r = tool({"search", "-q"});
    EXPECT_EQ(r.status, LDAP_PARAM_ERROR);
    r = tool({"search", "-s", "sideways"});
    EXPECT_EQ(r.status, LDAP_PARAM_ERROR);
    r = tool({"rename"});
    EXPECT_EQ(r.status, LDAP_PARAM_ERROR);
    for (const char *cmd : {"search", "add", "modify", "delete", "modrdn"}) {
        r = tool({cmd, "--help"});
        EXPECT_EQ(r.status, 0) << cmd;
        EXPECT_NE(r.out.find(std::string("usage: wzrldap ") + cmd), std::string::npos) << r.out;
    }
    r = run(WZR_TOOL_BIN, {"search", "-H", "ldap://127.0.0.1:1", "-b", s.base()});
    EXPECT_TRUE(r.status == LDAP_SERVER_DOWN || r.status == LDAP_CONNECT_ERROR) << r.err;
}

TEST(WzrldapTool, ReachesLdapsAndStartTlsAndStopsWithZZWhenTlsFails)
{
    SlapdFixture &s = wzrtest::tls_slapd();
    REQUIRE_SERVER(s);
    // The tool finds the toolkit built here through the library path.
    setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 1);
    setenv("LD_LIBRARY_PATH", WZRKIT_BUILD_DIR, 1);
    std::string ca = s.tls_dir() + "/ca.pem", other = s.tls_dir() + "/other-ca.pem";
    auto search_alice = [&](std::vector<std::string> args) {
        args.insert(args.begin(), "search");
        for (const char *a : {"-b", "", "-s", "base", "(objectClass=*)", "uid"})
            args.push_back(a[0] == '\0' ? s.user_dn() : a);
        return tool(args);
    };
    Outcome r = search_alice({"-H", "ldaps://localhost:" + std::to_string(s.ldaps_port()),
                              "--keydb", ca});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("uid: alice"), std::string::npos) << r.out;
    r = search_alice({"-H", s.uri(), "-ZZ", "--keydb", ca});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("uid: alice"), std::string::npos) << r.out;
    r = search_alice({"-H", s.uri(), "-ZZ", "--keydb", other});
    EXPECT_EQ(r.status, LDAP_SSL_HANDSHAKE_FAILED) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
}

TEST(WzrldapTool, AppliesLdifChangesLikeLdapmodify)
{
    if (!SlapdFixture::available() || !have_ldap_utils())
        GTEST_SKIP() << "slapd or ldap-utils not installed";
    SlapdFixture s;
    const std::string away = "ldap://127.0.0.1:1/ou=away,dc=example,dc=com";
    wzrtest::SlapdOptions opts;
    opts.extra_ldif = "dn: ou=away,dc=example,dc=com\nobjectClass: referral\nobjectClass: "
                      "extensibleObject\nou: away\nref: " + away + "\n";
    ASSERT_TRUE(s.start(opts)) << s.error();
    const std::vector<std::string> as_manager = {"-x", "-H", s.uri(), "-D", s.manager_dn(), "-w",
                                                 s.manager_pw()};
    auto update = [&](const char *cmd, const std::string &ldif,
                      std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {cmd};
        args.insert(args.end(), as_manager.begin(), as_manager.end());
        args.insert(args.end(), extra.begin(), extra.end());
        return tool(args, ldif);
    };
    const std::string dn = "cn=new person,ou=people," + s.base();
    std::string bytes("\x00\xff\n\x01 binary", 11);

    Outcome r = update("add", "dn: " + dn + "\nobjectClass: inetOrgPerson\ncn: new person\n"
                              "sn: Person\njpegPhoto:: " + wzrldif::base64_encode(bytes) + "\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("adding new entry"), std::string::npos);
    Meaning m = meaning_of(ldapsearch(s, {"-b", dn, "-s", "base"}).out);
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m.begin()->second["jpegphoto"], std::vector<std::string>{bytes});

    r = update("modify", "dn: " + dn + "\nchangetype: modify\nreplace: description\n"
                         "description: first\ndescription: second\n-\nadd: l\nl: Lab 1\n-\n");
    ASSERT_EQ(r.status, 0) << r.err;
    m = meaning_of(ldapsearch(s, {"-b", dn, "-s", "base"}).out);
    auto &attrs = m.begin()->second;
    EXPECT_EQ(attrs["description"], (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(attrs["l"], std::vector<std::string>{"Lab 1"});

    r = update("modify", "dn: " + dn + "\nchangetype: modify\ndelete: description\n"
                         "description: first\n-\ndelete: l\n");
    ASSERT_EQ(r.status, 0) << r.err;
    m = meaning_of(ldapsearch(s, {"-b", dn, "-s", "base"}).out);
    EXPECT_EQ(m.begin()->second["description"], std::vector<std::string>{"second"});
    EXPECT_EQ(m.begin()->second.count("l"), 0u);

    r = update("modrdn", "", {dn, "cn=renamed", "-r"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string renamed = "cn=renamed,ou=people," + s.base();
    m = meaning_of(ldapsearch(s, {"-b", renamed, "-s", "base", "cn"}).out);
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m.begin()->second["cn"], std::vector<std::string>{"renamed"}); // old value removed

    r = update("modrdn", "dn: " + renamed + "\nchangetype: modrdn\nnewrdn: cn=renamed\n"
                         "deleteoldrdn: 1\nnewsuperior: ou=devices," + s.base() + "\n");
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string moved = "cn=renamed,ou=devices," + s.base();
    EXPECT_EQ(ldapsearch(s, {"-b", moved, "-s", "base"}).status, 0);

    r = update("delete", "dn: " + moved + "\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(ldapsearch(s, {"-b", moved, "-s", "base"}).status, LDAP_NO_SUCH_OBJECT);

    // A referral nobody answers: followed by default (81, its URL on standard error), printed
    // as an LDIF comment with --no-referrals.
    r = search(s, {"-b", s.base(), "(ou=away)"});
    EXPECT_EQ(r.status, LDAP_SERVER_DOWN) << r.err;
    EXPECT_NE(r.err.find("\t\t" + away), std::string::npos) << r.err;
    r = search(s, {"--no-referrals", "-b", s.base(), "(ou=away)"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("# ref" + away), std::string::npos) << r.out;

    // Failures stop the run unless -c; the exit status is the first failure's code.
    const std::string two = "dn: uid=alice,ou=people," + s.base() +
                            "\nobjectClass: inetOrgPerson\nuid: alice\ncn: dup\nsn: dup\n\n"
                            "dn: cn=second,ou=devices," + s.base() +
                            "\nobjectClass: device\ncn: second\n";
    r = update("add", two);
    EXPECT_EQ(r.status, LDAP_ALREADY_EXISTS) << r.err;
    EXPECT_NE(r.err.find(wzr_ldap_err2string(LDAP_ALREADY_EXISTS)), std::string::npos);
    EXPECT_NE(r.err.find("line 1"), std::string::npos) << r.err;
    EXPECT_EQ(ldapsearch(s, {"-b", "cn=second,ou=devices," + s.base()}).status, 32);
    r = update("add", two, {"-c"});
    EXPECT_EQ(r.status, LDAP_ALREADY_EXISTS) << r.err;
    EXPECT_EQ(ldapsearch(s, {"-b", "cn=second,ou=devices," + s.base()}).status, 0);

    // Writes without rights fail with the server's code.
    r = tool({"delete", "-x", "-H", s.uri(), "-D", s.user_dn(), "-w", s.user_pw(),
              "cn=second,ou=devices," + s.base()});
    EXPECT_EQ(r.status, LDAP_INSUFFICIENT_ACCESS) << r.err;
}

TEST(WzrldapTool, MalformedLdifChangesNothing)
{
    if (!SlapdFixture::available() || !have_ldap_utils())
        GTEST_SKIP() << "slapd or ldap-utils not installed";
    SlapdFixture s;
    ASSERT_TRUE(s.start()) << s.error();
    const std::string good = "dn: cn=one,ou=devices," + s.base() +
                             "\nchangetype: add\nobjectClass: device\ncn: one\n\n";
    const std::string bad = good + "dn: uid=alice,ou=people," + s.base() +
                            "\nchangetype: modify\nreplace: sn\nsn: Changed\ncn: oops\n";
    wzrtest::TempDir tmp;
    wzrtest::write_file(tmp.file("bad.ldif"), bad);
    Outcome r = tool({"modify", "-x", "-H", s.uri(), "-D", s.manager_dn(), "-w", s.manager_pw(),
                      "-f", tmp.file("bad.ldif")});
    EXPECT_EQ(r.status, LDAP_PARAM_ERROR) << r.err;
    EXPECT_NE(r.err.find("line 10"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("bad.ldif"), std::string::npos) << r.err;
    EXPECT_EQ(ldapsearch(s, {"-b", "cn=one,ou=devices," + s.base()}).status, 32);
    Meaning m = meaning_of(ldapsearch(s, {"-b", s.user_dn(), "-s", "base", "sn"}).out);
    EXPECT_EQ(m.begin()->second["sn"], std::vector<std::string>{"Example"});

    // modify without -a refuses a record that has no changetype.
    r = tool({"modify", "-x", "-H", s.uri(), "-D", s.manager_dn(), "-w", s.manager_pw()},
             "dn: cn=two,ou=devices," + s.base() + "\nobjectClass: device\ncn: two\n");
    EXPECT_EQ(r.status, LDAP_PARAM_ERROR);
    EXPECT_NE(r.err.find("line 1"), std::string::npos) << r.err;
    r = tool({"modify", "-a", "-n", "-x", "-H", s.uri()},
             "dn: cn=two,ou=devices," + s.base() + "\nobjectClass: device\ncn: two\n");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("!adding new entry"), std::string::npos) << r.out;
    EXPECT_EQ(ldapsearch(s, {"-b", "cn=two,ou=devices," + s.base()}).status, 32);
}

TEST(WzrldapTool, AttributeTypeWithLineBreakIsRefusedNotPrinted)
{
    wzrtest::FakeServer server; // the bind is message 1, the search message 2
    server.queue_reply({wzrtest::Action::send(wzrtest::ldap_result_pdu(1, 0x61, 0))});
    server.queue_reply({wzrtest::Action::send(
        wzrtest::search_entry_pdu(2, "cn=a,dc=x",
                                  {{"changetype", {"delete"}},
                                   {"cn\ndn: cn=evil\nchangetype: delete", {"v"}},
                                   {"sn", {"a"}}}) +
        wzrtest::search_entry_pdu(2, "cn=b\ndn: cn=c", {{"sn", {"b"}}}) +
        wzrtest::ldap_result_pdu(2, 0x65, 0))});
    Outcome r = tool({"search", "-x", "-H", "ldap://" + server.host_port(), "-b", "dc=x"});
    EXPECT_EQ(r.status, LDAP_DECODING_ERROR) << r.err;
    EXPECT_NE(r.err.find("entry \"cn=a,dc=x\": refused the attribute description "
                         "\"cn\\x0adn: cn=evil\\x0achangetype: delete\""),
              std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("\ndn: cn=evil"), std::string::npos) << r.err;
    // Both entries, read back as content, not changes; the DN with a line break went as base64.
    Meaning expected = {{"cn=a,dc=x", {{"changetype", {"delete"}}, {"sn", {"a"}}}},
                        {"cn=b\ndn: cn=c", {{"sn", {"b"}}}}};
    EXPECT_EQ(meaning_of(r.out), expected) << r.out;
}

} // namespace
