// The wzrldap command against a real slapd: its LDIF matches ldapsearch's for the same search
// (compared by meaning, binary values and escaped names included: this is also the proof of
// the library's search, filter encoding and entry walk), updates from LDIF take effect,
// malformed input changes nothing, the exit status is the LDAP result code, hostile names are
// refused.
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
        cmd += " " + wzrtest::shell_quote(a);
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
    // Each scope, each kind of filter (escaped values, extensible match, ordering), the tool's
    // flags (attributes only, a bind, operational attributes).
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

TEST(WzrldapTool, AppliesLdifChangesLikeLdapmodify)
{
    if (!SlapdFixture::available())
        GTEST_SKIP() << "slapd is not installed";
    SlapdFixture s;
    const std::string away = "ldap://127.0.0.1:1/ou=away,dc=example,dc=com";
    wzrtest::SlapdOptions opts;
    opts.extra_ldif = "dn: ou=away,dc=example,dc=com\nobjectClass: referral\nobjectClass: "
                      "extensibleObject\nou: away\nref: " + away + "\n";
    ASSERT_TRUE(s.start(opts)) << s.error();
    auto update = [&](const char *cmd, const std::string &ldif, const Args &extra = {}) {
        return tool(with({cmd, "-x", "-H", s.uri(), "-D", s.manager_dn(), "-w", s.manager_pw()},
                         extra), ldif);
    };
    const std::string dn = "cn=new person,ou=people," + s.base();
    std::string bytes("\x00\xff\n\x01 binary", 11);
    Outcome r = update("add", "dn: " + dn + "\nobjectClass: inetOrgPerson\ncn: new person\n"
                              "sn: Person\njpegPhoto:: " + wzrldif::base64_encode(bytes) + "\n");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("adding new entry"), std::string::npos);
    EXPECT_EQ(entry_at(s, dn)["jpegphoto"], Values{bytes});
    r = update("modify", "dn: " + dn + "\nchangetype: modify\nreplace: description\n"
                         "description: first\ndescription: second\n-\nadd: l\nl: Lab 1\n-\n");
    ASSERT_EQ(r.status, 0) << r.err;
    auto attrs = entry_at(s, dn);
    EXPECT_EQ(attrs["description"], (Values{"first", "second"}));
    EXPECT_EQ(attrs["l"], Values{"Lab 1"});
    r = update("modify", "dn: " + dn + "\nchangetype: modify\ndelete: description\n"
                         "description: first\n-\ndelete: l\n");
    ASSERT_EQ(r.status, 0) << r.err;
    attrs = entry_at(s, dn);
    EXPECT_EQ(attrs["description"], Values{"second"});
    EXPECT_EQ(attrs.count("l"), 0u);
    r = update("modrdn", "", {dn, "cn=renamed", "-r"});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string renamed = "cn=renamed,ou=people," + s.base();
    EXPECT_EQ(entry_at(s, renamed)["cn"], Values{"renamed"}); // the old value removed
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
    const std::string second = "cn=second,ou=devices," + s.base();
    const std::string two = "dn: uid=alice,ou=people," + s.base() +
                            "\nobjectClass: inetOrgPerson\nuid: alice\ncn: dup\nsn: dup\n\n"
                            "dn: " + second + "\nobjectClass: device\ncn: second\n";
    r = update("add", two);
    EXPECT_EQ(r.status, LDAP_ALREADY_EXISTS) << r.err;
    EXPECT_NE(r.err.find(wzr_ldap_err2string(LDAP_ALREADY_EXISTS)), std::string::npos);
    EXPECT_NE(r.err.find("line 1"), std::string::npos) << r.err;
    EXPECT_EQ(ldapsearch(s, {"-b", second}).status, 32);
    EXPECT_EQ(update("add", two, {"-c"}).status, LDAP_ALREADY_EXISTS);
    EXPECT_EQ(ldapsearch(s, {"-b", second}).status, 0);
    // Writes without rights fail with the server's code.
    r = tool({"delete", "-x", "-H", s.uri(), "-D", s.user_dn(), "-w", s.user_pw(), second});
    EXPECT_EQ(r.status, LDAP_INSUFFICIENT_ACCESS) << r.err;

    // Malformed LDIF changes nothing: the error names the file and line before anything is sent.
    const std::string one = "cn=one,ou=devices," + s.base();
    wzrtest::TempDir tmp;
    wzrtest::write_file(tmp.file("bad.ldif"),
                        "dn: " + one + "\nchangetype: add\nobjectClass: device\ncn: one\n\ndn: " +
                            s.user_dn() + "\nchangetype: modify\nreplace: sn\nsn: Changed\ncn: oops\n");
    r = update("modify", "", {"-f", tmp.file("bad.ldif")});
    EXPECT_EQ(r.status, LDAP_PARAM_ERROR) << r.err;
    EXPECT_NE(r.err.find("line 10"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("bad.ldif"), std::string::npos) << r.err;
    EXPECT_EQ(ldapsearch(s, {"-b", one}).status, 32);
    EXPECT_EQ(entry_at(s, s.user_dn())["sn"], Values{"Example"});
    // modify without -a refuses a record that has no changetype; -a -n only says what it would do.
    const std::string plain = "dn: cn=two,ou=devices," + s.base() + "\nobjectClass: device\ncn: two\n";
    r = update("modify", plain);
    EXPECT_EQ(r.status, LDAP_PARAM_ERROR);
    EXPECT_NE(r.err.find("line 1"), std::string::npos) << r.err;
    r = tool({"modify", "-a", "-n", "-x", "-H", s.uri()}, plain);
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
