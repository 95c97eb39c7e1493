// The wzrldap command against a real slapd: its LDIF means what ldapsearch's does (also the proof
// of the library's search, filters and entry walk), LDIF updates take effect, malformed input
// changes nothing, the exit status is the result code, hostile names are refused.
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
#include <vector>

namespace {

using wzrtest::SlapdFixture;
using Args = std::vector<std::string>;
using Values = std::vector<std::string>;

struct Outcome {
    int status = -1;
    std::string out, err;
};

// Runs `program args...` with `input` on standard input, capturing both outputs.
Outcome run(const std::string &program, const Args &args, const std::string &input = "")
{
    wzrtest::TempDir tmp;
    wzrtest::write_file(tmp.file("in"), input);
    std::string cmd = "LDAPNOINIT=1 " + wzrtest::shell_quote(program);
    for (const auto &a : args)
        cmd.append(" ").append(wzrtest::shell_quote(a));
    cmd += " < " + tmp.file("in") + " > " + tmp.file("out") + " 2> " + tmp.file("err");
    int st = std::system(cmd.c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, wzrtest::read_file(tmp.file("out")),
            wzrtest::read_file(tmp.file("err"))};
}

Outcome tool(const Args &args, const std::string &input = "") { return run(WZR_TOOL_BIN, args, input); }

// Entries by meaning (read with the tool's own LDIF reader, which must accept the output):
// DN -> attribute type (lower case) -> sorted values.
using Meaning = std::map<std::string, std::map<std::string, Values>>;

Meaning meaning_of(const std::string &ldif)
{
    std::vector<wzrldif::Entry> entries;
    wzrldif::ParseError err;
    EXPECT_TRUE(wzrldif::parse_entries(ldif, &entries, &err))
        << "line " << err.line << ": " << err.message << "\n" << ldif.substr(0, 2000);
    Meaning m;
    for (auto &e : entries) {
        auto &attrs = m[e.dn];
        EXPECT_TRUE(attrs.empty()) << "entry twice: " << e.dn;
        for (auto &a : e.attrs) {
            std::transform(a.type.begin(), a.type.end(), a.type.begin(), ::tolower);
            auto &vals = attrs[a.type];
            vals.insert(vals.end(), a.values.begin(), a.values.end());
            std::sort(vals.begin(), vals.end());
        }
    }
    return m;
}

Args with(Args head, const Args &tail)
{
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

Outcome ldapsearch(const SlapdFixture &s, const Args &args)
{
    return run("/usr/bin/ldapsearch", with({"-x", "-LLL", "-o", "ldif-wrap=no", "-H", s.uri()}, args));
}

Outcome search(const SlapdFixture &s, const Args &args) { return tool(with({"search", "-x", "-H", s.uri()}, args)); }

// The one entry at `dn` as ldapsearch reads it: attribute type (lower case) -> values.
std::map<std::string, Values> entry_at(const SlapdFixture &s, const std::string &dn)
{
    Meaning m = meaning_of(ldapsearch(s, {"-b", dn, "-s", "base"}).out);
    EXPECT_EQ(m.size(), 1u) << dn;
    return m.empty() ? std::map<std::string, Values>{} : m.begin()->second;
}

TEST(WzrldapTool, SearchOutputMatchesLdapsearch)
{
    SlapdFixture &s = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(s);
    const std::string people = "ou=people," + s.base();
    // Each scope and kind of filter; attributes only, a bind, operational attributes.
    const std::vector<Args> searches = {
        {"-b", s.base()},
        {"-b", people, "-s", "base"},
        {"-b", people, "-s", "one", "-A", "(uid=user0*)", "cn", "mail", "jpegPhoto"},
        {"-b", s.base(), "-D", s.user_dn(), "-w", s.user_pw(), "(uid=alice)", "*", "+"},
        {"-b", s.base(), "(&(objectClass=inetOrgPerson)(|(sn=Cert)(cn=Alice*)(cn=*Jo*)))"},
        {"-b", s.base(), "(!(objectClass=inetOrgPerson))"},
        {"-b", s.base(), "(|(cn=Smith\\2c John)(cn=a\\2bb)(cn=\\23hash))"},
        {"-b", s.base(), "(&(ou:dn:=people)(createTimestamp>=19700101000000Z)(mail=*))"},
    };
    Meaning all;
    for (const auto &args : searches) {
        std::string what;
        for (const auto &a : args)
            what += a + " ";
        Outcome mine = search(s, args), theirs = ldapsearch(s, args);
        ASSERT_EQ(theirs.status, 0) << what << theirs.err;
        ASSERT_EQ(mine.status, 0) << what << mine.err;
        Meaning t = meaning_of(theirs.out);
        EXPECT_FALSE(t.empty()) << what;
        EXPECT_EQ(meaning_of(mine.out), t) << what;
        all.insert(t.begin(), t.end());
        EXPECT_NE(mine.err.find("# numEntries: " + std::to_string(t.size())), std::string::npos)
            << what << mine.err;
        for (size_t pos = 0, end; pos < mine.out.size(); pos = end + 1) { // the default wrap
            end = mine.out.find('\n', pos);
            ASSERT_NE(end, std::string::npos);
            EXPECT_LE(end - pos, 76u) << what;
        }
    }
    ASSERT_GT(all.size(), 300u);
    const std::string &photo = all["uid=carol," + people]["jpegphoto"].at(0);
    ASSERT_EQ(photo.size(), 256u);
    for (int i = 0; i < 256; ++i)
        EXPECT_EQ(static_cast<unsigned char>(photo[i]), i);
}

TEST(WzrldapTool, ExitStatusIsTheResultCode)
{
    SlapdFixture &s = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(s);
    // Under version 2 the size limit travels by value; the server still stops at it.
    for (int limit : {3, 2}) {
        Outcome r = search(s, with(limit == 2 ? Args{"-P", "2"} : Args{},
                                   {"-b", s.base(), "-z", std::to_string(limit), "(uid=user*)", "uid"}));
        EXPECT_EQ(r.status, LDAP_SIZELIMIT_EXCEEDED) << r.err;
        EXPECT_EQ(meaning_of(r.out).size(), size_t(limit)) << r.out;
        EXPECT_NE(r.err.find(wzr_ldap_err2string(LDAP_SIZELIMIT_EXCEEDED)), std::string::npos);
    }
    Outcome r = search(s, {"-b", "ou=nowhere," + s.base()});
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
    EXPECT_NE(search(s, {"-b", s.base(), "(&(uid=x)"}).status, 0);
    for (const Args &bad : {Args{"search", "-q"}, Args{"search", "-s", "sideways"}, Args{"rename"}})
        EXPECT_EQ(tool(bad).status, LDAP_PARAM_ERROR) << bad.back();
    for (const char *cmd : {"search", "add", "modify", "delete", "modrdn"}) {
        r = tool({cmd, "--help"});
        EXPECT_EQ(r.status, 0) << cmd;
        EXPECT_NE(r.out.find(std::string("usage: wzrldap ") + cmd), std::string::npos) << r.out;
    }
    r = tool({"search", "-H", "ldap://127.0.0.1:1", "-b", s.base()});
    EXPECT_TRUE(r.status == LDAP_SERVER_DOWN || r.status == LDAP_CONNECT_ERROR) << r.err;
}

TEST(WzrldapTool, ReachesLdapsAndStartTlsAndStopsWithZZWhenTlsFails)
{
    SlapdFixture &s = wzrtest::tls_slapd();
    WZR_REQUIRE_SLAPD(s);
    // The tool finds the toolkit built here through the library path.
    setenv("WZRKIT_LOCAL_INSTALL_MODE", "1", 1);
    setenv("LD_LIBRARY_PATH", WZRKIT_BUILD_DIR, 1);
    std::string ca = s.tls_dir() + "/ca.pem", other = s.tls_dir() + "/other-ca.pem";
    const struct {
        Args args;
        int status;
    } cases[] = {
        {{"-H", "ldaps://localhost:" + std::to_string(s.ldaps_port()), "--keydb", ca}, 0},
        {{"-H", s.uri(), "-ZZ", "--keydb", ca}, 0},
        {{"-H", s.uri(), "-ZZ", "--keydb", other}, LDAP_SSL_HANDSHAKE_FAILED},
    };
    for (const auto &c : cases) {
        Outcome r = tool(with(with({"search"}, c.args),
                              {"-b", s.user_dn(), "-s", "base", "(objectClass=*)", "uid"}));
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_EQ(r.out.find("uid: alice") != std::string::npos, c.status == 0) << r.out;
    }
}

// Each step runs a command bound as the manager (standard input `ldif`), checks its status and
// what it said, then reads back `dn`: the values of `attr`, or (no attr) whether it exists.
struct Step {
    Args args;
    std::string ldif;
    int status;
    Values said{};
    std::string dn{}, attr{};
    Values values{};
};

TEST(WzrldapTool, AppliesLdifChangesLikeLdapmodify)
{
    if (!SlapdFixture::available())
        GTEST_SKIP() << "slapd is not installed";
    SlapdFixture s;
    const std::string away = "ldap://127.0.0.1:1/ou=away,dc=example,dc=com";
    ASSERT_TRUE(s.start({.extra_ldif = "dn: ou=away,dc=example,dc=com\nobjectClass: referral\n"
                                       "objectClass: extensibleObject\nou: away\nref: " + away + "\n"}))
        << s.error();
    const std::string base = s.base(), dn = "cn=new person,ou=people," + base,
                      renamed = "cn=renamed,ou=people," + base, moved = "cn=renamed,ou=devices," + base,
                      second = "cn=second,ou=devices," + base, one = "cn=one,ou=devices," + base;
    const std::string bytes("\x00\xff\n\x01 binary", 11);
    // Failures stop the run unless -c; the exit status is the first failure's code.
    const std::string two = "dn: uid=alice,ou=people," + base + "\nobjectClass: inetOrgPerson\nuid: alice\n"
                            "cn: dup\nsn: dup\n\ndn: " + second + "\nobjectClass: device\ncn: second\n";
    // Malformed LDIF changes nothing: the error names the file and line before anything is sent.
    wzrtest::TempDir tmp;
    wzrtest::write_file(tmp.file("bad.ldif"), "dn: " + one + "\nchangetype: add\nobjectClass: device\ncn: one\n"
                        "\ndn: " + s.user_dn() + "\nchangetype: modify\nreplace: sn\nsn: Changed\ncn: oops\n");
    const std::string plain = "dn: cn=two,ou=devices," + base + "\nobjectClass: device\ncn: two\n";
    const Values exists = {"yes"}, gone = {};
    const Step steps[] = {
        {{"add"}, "dn: " + dn + "\nobjectClass: inetOrgPerson\ncn: new person\nsn: Person\njpegPhoto:: " +
                      wzrldif::base64_encode(bytes) + "\n", 0, {"adding new entry"}, dn, "jpegphoto", {bytes}},
        {{"modify"}, "dn: " + dn + "\nchangetype: modify\nreplace: description\ndescription: first\n"
                     "description: second\n-\nadd: l\nl: Lab 1\n-\n", 0, {}, dn, "description", {"first", "second"}},
        {{}, "", 0, {}, dn, "l", {"Lab 1"}},
        {{"modify"}, "dn: " + dn + "\nchangetype: modify\ndelete: description\ndescription: first\n-\n"
                     "delete: l\n", 0, {}, dn, "description", {"second"}},
        {{}, "", 0, {}, dn, "l", {}},
        {{"modrdn", dn, "cn=renamed", "-r"}, "", 0, {}, renamed, "cn", {"renamed"}}, // the old value removed
        {{"modrdn"}, "dn: " + renamed + "\nchangetype: modrdn\nnewrdn: cn=renamed\ndeleteoldrdn: 1\n"
                     "newsuperior: ou=devices," + base + "\n", 0, {}, moved, "", exists},
        {{"delete"}, "dn: " + moved + "\n", 0, {}, moved, "", gone},
        // A referral nobody answers: followed (81), or an LDIF comment with --no-referrals.
        {{"search", "-b", base, "(ou=away)"}, "", LDAP_SERVER_DOWN, {"\t\t" + away}},
        {{"search", "--no-referrals", "-b", base, "(ou=away)"}, "", 0, {"# ref" + away}},
        {{"add"}, two, LDAP_ALREADY_EXISTS, {wzr_ldap_err2string(LDAP_ALREADY_EXISTS), "line 1"}, second, "", gone},
        {{"add", "-c"}, two, LDAP_ALREADY_EXISTS, {}, second, "", exists},
        {{"delete", "-D", s.user_dn(), "-w", s.user_pw(), second}, "", LDAP_INSUFFICIENT_ACCESS}, // no rights
        {{"modify", "-f", tmp.file("bad.ldif")}, "", LDAP_PARAM_ERROR, {"line 10", "bad.ldif"}, one, "", gone},
        {{}, "", 0, {}, s.user_dn(), "sn", {"Example"}},
        // modify without -a refuses a record that has no changetype; -a -n only says what it would do.
        {{"modify"}, plain, LDAP_PARAM_ERROR, {"line 1"}},
        {{"modify", "-a", "-n"}, plain, 0, {"!adding new entry"}, "cn=two,ou=devices," + base, "", gone},
    };
    for (const Step &step : steps) {
        SCOPED_TRACE(&step - steps);
        if (!step.args.empty()) {
            Args bind = {step.args[0], "-x", "-H", s.uri(), "-D", s.manager_dn(), "-w", s.manager_pw()};
            Outcome r = tool(with(bind, Args(step.args.begin() + 1, step.args.end())), step.ldif);
            EXPECT_EQ(r.status, step.status) << r.err;
            for (const std::string &text : step.said) // a failure on standard error
                EXPECT_NE((step.status == 0 ? r.out : r.err).find(text), std::string::npos) << r.out << r.err;
        }
        if (step.dn.empty())
            continue;
        if (step.attr.empty())
            EXPECT_EQ(ldapsearch(s, {"-b", step.dn, "-s", "base"}).status, step.values.empty() ? 32 : 0);
        else
            EXPECT_EQ(entry_at(s, step.dn)[step.attr], step.values);
    }
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
