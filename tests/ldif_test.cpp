// The LDIF reader and writer of the wzrldap tool: base64, when a value must be encoded, line
// folding, round trips of arbitrary bytes, change records, the line of every mistake, and the
// names and file:// values refused.
#include "ldif.h"

#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace wzrldif;
using Values = std::vector<std::string>;

std::string all_bytes()
{
    std::string s;
    for (int i = 0; i < 256; i++)
        s += char(i);
    return s;
}

// Joins folded lines back together, checking every physical line on the way.
std::string unfold_checked(const std::string &text, size_t width)
{
    std::string out;
    for (size_t pos = 0, end; pos < text.size(); pos = end + 1) {
        end = text.find('\n', pos);
        EXPECT_NE(end, std::string::npos) << "missing line end";
        std::string line = text.substr(pos, end - pos);
        EXPECT_LE(line.size(), width) << line;
        if (pos > 0) {
            EXPECT_EQ(line[0], ' ') << "continuation without its blank: " << line;
            line.erase(0, 1);
        }
        out += line;
    }
    return out;
}

ParseError parse_failure(const std::string &text)
{
    std::vector<Record> records;
    ParseError err;
    EXPECT_FALSE(parse(text, std::nullopt, &records, &err)) << text;
    return err;
}

std::vector<Record> parsed(const std::string &text, std::optional<ChangeType> dflt = std::nullopt)
{
    std::vector<Record> records;
    ParseError err;
    EXPECT_TRUE(parse(text, dflt, &records, &err)) << err.line << ": " << err.message;
    return records;
}

TEST(LdifBase64, RoundTripsEveryByteAndRefusesBadText)
{
    const std::pair<const char *, const char *> known[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}};
    for (const auto &[plain, coded] : known)
        EXPECT_EQ(base64_encode(plain), coded);
    std::string bytes = all_bytes(), back;
    std::string encoded = base64_encode(bytes);
    EXPECT_EQ(encoded.substr(0, 12), "AAECAwQFBgcI");
    EXPECT_EQ(encoded.substr(encoded.size() - 8), "/P3+/w==");
    ASSERT_TRUE(base64_decode(encoded, &back));
    EXPECT_EQ(back, bytes);
    ASSERT_TRUE(base64_decode("Zm8=", &back)); // one pad
    EXPECT_EQ(back, "fo");
    for (const char *bad : {"Zg=", "Zg", "Zh==", "Zm9=", "Z===", "====", "Zm9v!A==", "Zg==Zg==",
                            "Zm 9v", "Zm9v\n"})
        EXPECT_FALSE(base64_decode(bad, &back)) << bad;
}

TEST(LdifWriter, EncodesOnlyWhatIsNotASafeStringAndFoldsAtTheWrapColumn)
{
    for (const char *safe : {"", "plain", "a:b", "x<y", "with inner  blanks", "~!@#$%^&*()"})
        EXPECT_TRUE(is_safe_string(safe)) << safe;
    for (std::string unsafe : {std::string(" lead"), std::string(":colon"), std::string("<url"),
                               std::string("trail "), std::string("nul\0x", 5),
                               std::string("line\nbreak"), std::string("cr\r"),
                               std::string("tab\there"), std::string("J\xc3\xbcrgen"),
                               std::string("del\x7f")})
        EXPECT_FALSE(is_safe_string(unsafe)) << unsafe;
    EXPECT_EQ(format_line("cn", "Alice"), "cn: Alice\n");
    EXPECT_EQ(format_line("description", ""), "description:\n");
    EXPECT_EQ(format_line("cn", "trailing "), "cn:: dHJhaWxpbmcg\n");
    EXPECT_EQ(format_line("dn", "cn=J\xc3\xbcrgen"), "dn:: Y249SsO8cmdlbg==\n");
    EXPECT_EQ(format_entry("cn=x,dc=y", {{"cn", {"x"}}, {"objectClass", {}}}),
              "dn: cn=x,dc=y\ncn: x\nobjectClass:\n\n");

    std::string exact(76 - 4, 'v'); // "cn: " + 72 = 76 columns: not folded
    EXPECT_EQ(format_line("cn", exact), "cn: " + exact + "\n");
    EXPECT_EQ(format_line("cn", exact + "v"), "cn: " + exact + "\n v\n");
    std::string photo = all_bytes() + all_bytes();
    EXPECT_EQ(unfold_checked(format_line("jpegPhoto", photo), 76), "jpegPhoto:: " + base64_encode(photo));
    EXPECT_EQ(unfold_checked(format_line("cn", std::string(500, 'z'), 40), 40),
              "cn: " + std::string(500, 'z'));
    EXPECT_EQ(format_line("cn", std::string(500, 'z'), 0).size(), 505u); // 0: never folded
}

// A record as one line: "<line> <change> <dn>", "!" when the changetype was written, then each
// modification as "<op><type>=<values>" and for a rename "-> <newrdn> <deleteoldrdn>".
std::string text(const std::vector<Record> &records)
{
    std::string out;
    for (const Record &r : records) {
        out += std::to_string(r.line) + " " + "ADMR"[static_cast<int>(r.change)] +
               (r.explicit_change ? "! " : " ") + r.dn;
        for (const Modification &m : r.mods) {
            out += std::string(" ") + "+-="[static_cast<int>(m.op)] + m.type + "=";
            for (const std::string &v : m.values)
                out += v + (&v == &m.values.back() ? "" : ",");
        }
        if (r.change == ChangeType::ModRdn)
            out += " -> " + r.newrdn + " " + std::to_string(r.deleteoldrdn);
        out += "\n";
    }
    return out;
}

TEST(LdifReader, ReadsEveryKindOfChangeRecord)
{
    wzrtest::TempDir tmp;
    wzrtest::write_file(tmp.file("photo.bin"), std::string("\x00\x01\xff", 3));
    // CRLF and LF line ends, comments with continuations, folded values, base64 and file values;
    // attribute types merge regardless of case; the last "-" of a modify may be left out.
    EXPECT_EQ(text(parsed(
                  "version: 1\r\n# a comment\r\n continued on a second line\r\n"
                  "dn: cn=new,dc=example,dc=com\r\nchangetype: add\r\nobjectClass: top\r\n"
                  "objectClass: device\r\nCN: new\r\ncn: nouveau\r\ndescription: folded\r\n"
                  "  value\r\nphoto:< file://" + tmp.file("photo.bin") + "\r\n\r\n"
                  "dn:: Y249SsO8cmdlbiBNw7xsbGVyLGRjPWV4YW1wbGUsZGM9Y29t\nchangetype: modify\n"
                  "add: mail\nmail: a@example.com\nmail:: YkBleGFtcGxlLmNvbQ==\n-\n"
                  "delete: telephoneNumber\n-\nreplace: description\ndescription: one\n\n"
                  "dn: cn=old,dc=example,dc=com\nchangetype: delete\n\n\n"
                  "dn: cn=a,dc=example,dc=com\nchangetype: moddn\nnewrdn: cn=b\ndeleteoldrdn: 1\n")),
              "4 A! cn=new,dc=example,dc=com +objectClass=top,device +CN=new,nouveau "
              "+description=folded value +photo=" + std::string("\x00\x01\xff", 3) + "\n"
              "14 M! cn=J\xc3\xbcrgen M\xc3\xbcller,dc=example,dc=com +mail=a@example.com,"
              "b@example.com -telephoneNumber= =description=one\n"
              "25 D! cn=old,dc=example,dc=com\n"
              "29 R! cn=a,dc=example,dc=com -> cn=b 1\n");
    // Records without a changetype take the command's default.
    EXPECT_EQ(text(parsed("dn: cn=a,dc=x\n\ndn: cn=b,dc=x\n", ChangeType::Delete)),
              "1 D cn=a,dc=x\n3 D cn=b,dc=x\n");
    EXPECT_EQ(text(parsed("dn: cn=a,dc=x\nnewrdn: cn=c\ndeleteoldrdn: 0\n", ChangeType::ModRdn)),
              "1 R cn=a,dc=x -> cn=c 0\n");
    EXPECT_EQ(text(parsed("dn: cn=a,dc=x\ncn: a\n\ndn: cn=b,dc=x\nchangetype: delete\n",
                          ChangeType::Add)),
              "1 A cn=a,dc=x +cn=a\n4 D! cn=b,dc=x\n");
    EXPECT_TRUE(parsed("").empty()); // nothing to do is not an error
    EXPECT_EQ(parsed("version: 1\n\ndn: cn=a,dc=x\n", ChangeType::Delete).size(), 1u);
}

TEST(LdifReader, NamesTheLineOfTheFirstMistake)
{
    const std::string ok = "dn: cn=ok,dc=x\nchangetype: delete\n\n"; // lines 1-3
    const std::string a = ok + "dn: cn=a\n", add = a + "changetype: add\n";
    const std::string modify = a + "changetype: modify\n", modrdn = a + "changetype: modrdn\n";
    const struct {
        std::string text;
        int line;
        const char *says;
    } cases[] = {
        {" leading continuation\n", 1, "continuation"},
        {ok + "cn: x\nchangetype: delete\n", 4, "must begin with \"dn:\""},
        {a + "changetype: rename\n", 5, "unknown changetype"},
        {a + "cn: a\n", 4, "no changetype"},
        {ok + "dn:: not*base64\nchangetype: delete\n", 4, "bad base64"},
        {a + "changetype: delete\ncn: a\n", 6, "unexpected line in a delete"},
        {add, 4, "no attributes"},
        {add + "bad name: x\n", 6, "bad attribute name"},
        {add + "no colon here\n", 6, "expected \"name: value\""},
        {modify + "add: mail\nmail: a\ncn: b\n-\n", 8, "expected a value of mail"},
        {modify + "add: mail\n-\n", 6, "has no values"},
        {modify + "increment: n\n", 6, "expected add:"},
        {modify, 4, "no changes"},
        {modrdn + "newrdn: cn=b\n", 4, "no deleteoldrdn"},
        {modrdn + "deleteoldrdn: 1\n", 4, "no newrdn"},
        {modrdn + "newrdn: cn=b\ndeleteoldrdn: 2\n", 7, "0 or 1"},
        {modrdn + "newrdn: cn=b\ndeleteoldrdn: 1\nnewsuperior: dc=y\nnewsuperior: dc=z\n", 9,
         "unexpected \"newsuperior\""},
        {a + "control: 1.2.3 true\nchangetype: delete\n", 5, "controls"},
        {"version: 2\n" + ok, 1, "version"},
        {add + "jpegPhoto:< http://example.com/x\n", 6, "file://"},
        {add + "jpegPhoto:< file:///nonexistent/x\n", 6, "cannot read"},
    };
    for (const auto &c : cases) {
        ParseError err = parse_failure(c.text);
        EXPECT_EQ(err.line, c.line) << c.text << " -> " << err.message;
        EXPECT_NE(err.message.find(c.says), std::string::npos) << c.text << " -> " << err.message;
    }
    std::vector<Entry> entries; // a change record where a search result was expected
    ParseError err;
    EXPECT_FALSE(parse_entries(ok, &entries, &err));
    EXPECT_EQ(err.line, 1);
}

TEST(LdifReader, RefusesNamesThatAreNotAttributeDescriptions)
{
    for (const char *good : {"cn", "userCertificate;binary", "cn;lang-en;x-1", "2.5.4.3", "0.9"})
        EXPECT_TRUE(is_attribute_description(good)) << good;
    for (std::string bad : {"", "1cn", "-cn", "c_n", "c.n", "cn;", ";x", "cn;x_y", "2.5..4",
                            "2.5.", "02.5", "7", "cn x", "c\rn", "c\x1b[2Jn", "caf\xc3\xa9"}) {
        EXPECT_FALSE(is_attribute_description(bad)) << bad;
        for (const std::string &rec : {"changetype: add\n" + bad + ": x\n",
                                       "changetype: modify\nreplace: " + bad + "\n"}) {
            ParseError err = parse_failure("dn: cn=a\n" + rec);
            EXPECT_EQ(err.line, 3) << bad;
            EXPECT_NE(err.message.find("bad attribute name \"" + escape_for_message(bad) + "\""),
                      std::string::npos) << err.message;
        }
    }
    EXPECT_EQ(escape_for_message("a\"\\\n\xff"), "a\\x22\\x5c\\x0a\\xff");
    std::vector<Attribute> only_change_words = {{"changeType", {"delete"}}, {"Control", {}}};
    EXPECT_FALSE(put_content_first(&only_change_words)); // the swap itself: in the tool test
}

TEST(LdifReader, ReadsFileValuesOnlyFromRegularFilesOf64MiBAtMost)
{
    wzrtest::TempDir tmp;
    ASSERT_EQ(mkfifo(tmp.file("fifo").c_str(), 0600), 0);
    wzrtest::write_file(tmp.file("big"), "");
    ASSERT_EQ(truncate(tmp.file("big").c_str(), off_t(kMaxFileValue) + 1), 0);
    const std::pair<std::string, const char *> cases[] = {
        {tmp.file("fifo"), "not a regular file"}, {tmp.path(), "not a regular file"},
        {tmp.file("big"), "larger than 64 MiB"},
        {tmp.file("missing"), "No such file"}};
    for (const auto &[path, says] : cases) {
        ParseError err = parse_failure("# x\ndn: cn=a\nchangetype: add\nphoto:< file://" + path);
        EXPECT_EQ(err.line, 4) << path;
        EXPECT_NE(err.message.find(says), std::string::npos) << path << ": " << err.message;
    }
    ASSERT_EQ(truncate(tmp.file("big").c_str(), off_t(kMaxFileValue)), 0);
    std::vector<Record> records = parsed("dn: cn=a\nx:< file://" + tmp.file("big"), ChangeType::Add);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].mods.at(0).values.at(0).size(), kMaxFileValue);
}

} // namespace
