// LDIF reading and writing for the wzrldap tool: base64, the safe-string and attribute-name
// tests, line folding, and a parser that unfolds lines, drops comments, reads file:// values
// from regular files only and turns records into changes, naming the line of the first mistake.
#include "ldif.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "../libldap/ldap_attrdesc.h"

namespace wzrldif {

namespace {

const char kB64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int b64_index(char c)
{
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

bool iequals(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view trim_right(std::string_view s)
{
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

// One logical line: continuation lines joined, with the number of its first physical line.
struct Line {
    int no;
    std::string text;
};
using RecordLines = std::vector<Line>;

bool fail(ParseError *error, int line, std::string message)
{
    error->line = line;
    error->message = std::move(message);
    return false;
}

bool is_blank(std::string_view s) { return s.find_first_not_of(' ') == std::string_view::npos; }

bool split_records(std::string_view text, std::vector<RecordLines> *records, ParseError *error)
{
    RecordLines current;
    bool in_comment = false;
    int no = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos)
            end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        no++;
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (line.empty() || (current.empty() && !in_comment && is_blank(line))) {
            if (!current.empty())
                records->push_back(std::move(current));
            current.clear();
            in_comment = false;
        } else if (line[0] == ' ') {
            if (in_comment)
                continue;
            if (current.empty())
                return fail(error, no, "continuation line with no line to continue");
            current.back().text.append(line.substr(1));
        } else if (line[0] == '#') {
            in_comment = true;
        } else {
            in_comment = false;
            current.push_back(Line{no, std::string(line)});
        }
    }
    if (!current.empty())
        records->push_back(std::move(current));
    return true;
}

std::string quoted(std::string_view text) { return '"' + escape_for_message(text) + '"'; }

bool bad_name(ParseError *error, int line, std::string_view name)
{
    return fail(error, line, "bad attribute name " + quoted(name));
}

struct FileCloser {
    int fd;
    ~FileCloser()
    {
        if (fd >= 0)
            close(fd);
    }
};

const char kTooLarge[] = "larger than 64 MiB";

// Appends what is left of `fd` to *out. The limit holds for what is read, not only for the
// size fstat saw: the file may grow in the meantime.
bool read_to_end(int fd, std::string *out, std::string *why)
{
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) != 0) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || out->size() + size_t(n) > kMaxFileValue) {
            *why = n < 0 ? strerror(errno) : kTooLarge;
            return false;
        }
        out->append(buf, size_t(n));
    }
    return true;
}

// Reads a regular file of at most kMaxFileValue bytes, else says why not. An LDIF file is
// not trusted to name only harmless files: a FIFO would hang the reader, a device or a huge
// file would eat memory.
bool read_regular_file(const std::string &path, std::string *out, std::string *why)
{
    // Not waiting in open(), which for a FIFO blocks until a writer comes; the file is then
    // judged by what was opened, so nothing can be swapped in after the check. Symbolic links
    // are followed: whoever writes the LDIF could name their target directly.
    FileCloser file{open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    struct stat st {};
    if (file.fd < 0 || fstat(file.fd, &st) != 0) {
        *why = strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *why = "not a regular file";
        return false;
    }
    if (size_t(st.st_size) > kMaxFileValue) {
        *why = kTooLarge;
        return false;
    }
    out->reserve(size_t(st.st_size));
    return read_to_end(file.fd, out, why);
}

bool read_url_value(std::string_view url, int line, std::string *value, ParseError *error)
{
    constexpr std::string_view scheme = "file://";
    if (url.substr(0, scheme.size()) != scheme)
        return fail(error, line, "only file:// URLs are supported: " + quoted(url));
    std::string why;
    if (!read_regular_file(std::string(url.substr(scheme.size())), value, &why))
        return fail(error, line, "cannot read " + quoted(url) + ": " + why);
    return true;
}

struct Field {
    std::string name;
    std::string value;
};

bool parse_field(const Line &line, Field *field, ParseError *error)
{
    size_t colon = line.text.find(':');
    if (colon == std::string::npos)
        return fail(error, line.no, "expected \"name: value\", got " + quoted(line.text));
    field->name = line.text.substr(0, colon);
    if (!is_attribute_description(field->name))
        return bad_name(error, line.no, field->name);
    std::string_view rest = std::string_view(line.text).substr(colon + 1);
    if (!rest.empty() && rest[0] == ':') {
        rest.remove_prefix(1);
        while (!rest.empty() && rest[0] == ' ')
            rest.remove_prefix(1);
        if (!base64_decode(trim_right(rest), &field->value))
            return fail(error, line.no, "bad base64 value of " + field->name);
        return true;
    }
    if (!rest.empty() && rest[0] == '<') {
        rest.remove_prefix(1);
        while (!rest.empty() && rest[0] == ' ')
            rest.remove_prefix(1);
        return read_url_value(trim_right(rest), line.no, &field->value, error);
    }
    while (!rest.empty() && rest[0] == ' ')
        rest.remove_prefix(1);
    field->value = std::string(rest);
    return true;
}

bool change_from_name(std::string_view name, ChangeType *change)
{
    if (iequals(name, "add"))
        *change = ChangeType::Add;
    else if (iequals(name, "delete"))
        *change = ChangeType::Delete;
    else if (iequals(name, "modify"))
        *change = ChangeType::Modify;
    else if (iequals(name, "modrdn") || iequals(name, "moddn"))
        *change = ChangeType::ModRdn;
    else
        return false;
    return true;
}

bool parse_add(const RecordLines &lines, size_t i, Record *rec, ParseError *error)
{
    for (; i < lines.size(); i++) {
        Field f;
        if (!parse_field(lines[i], &f, error))
            return false;
        Modification *mod = nullptr;
        for (auto &m : rec->mods) {
            if (iequals(m.type, f.name))
                mod = &m;
        }
        if (mod == nullptr) {
            rec->mods.push_back(Modification{ModOp::Add, f.name, {}});
            mod = &rec->mods.back();
        }
        mod->values.push_back(std::move(f.value));
    }
    if (rec->mods.empty())
        return fail(error, rec->line, "add record for \"" + rec->dn + "\" has no attributes");
    return true;
}

bool parse_modrdn(const RecordLines &lines, size_t i, Record *rec, ParseError *error)
{
    bool have_newrdn = false, have_delete = false;
    for (; i < lines.size(); i++) {
        Field f;
        if (!parse_field(lines[i], &f, error))
            return false;
        if (iequals(f.name, "newrdn") && !have_newrdn) {
            rec->newrdn = f.value;
            have_newrdn = true;
        } else if (iequals(f.name, "deleteoldrdn") && !have_delete) {
            if (f.value != "0" && f.value != "1")
                return fail(error, lines[i].no, "deleteoldrdn must be 0 or 1");
            rec->deleteoldrdn = f.value == "1";
            have_delete = true;
        } else if (iequals(f.name, "newsuperior") && !rec->newsuperior) {
            rec->newsuperior = f.value;
        } else {
            return fail(error, lines[i].no, "unexpected \"" + f.name + "\" in a modrdn record");
        }
    }
    if (!have_newrdn || rec->newrdn.empty())
        return fail(error, rec->line, "modrdn record for \"" + rec->dn + "\" has no newrdn");
    if (!have_delete)
        return fail(error, rec->line, "modrdn record for \"" + rec->dn + "\" has no deleteoldrdn");
    return true;
}

bool parse_modify(const RecordLines &lines, size_t i, Record *rec, ParseError *error)
{
    while (i < lines.size()) {
        Field op;
        if (!parse_field(lines[i], &op, error))
            return false;
        Modification mod;
        if (iequals(op.name, "add"))
            mod.op = ModOp::Add;
        else if (iequals(op.name, "delete"))
            mod.op = ModOp::Delete;
        else if (iequals(op.name, "replace"))
            mod.op = ModOp::Replace;
        else
            return fail(error, lines[i].no,
                        "expected add:, delete: or replace:, got \"" + op.name + ":\"");
        mod.type = std::string(trim_right(op.value));
        if (!is_attribute_description(mod.type))
            return bad_name(error, lines[i].no, mod.type);
        int op_line = lines[i].no;
        for (i++; i < lines.size() && trim_right(lines[i].text) != "-"; i++) {
            Field v;
            if (!parse_field(lines[i], &v, error))
                return false;
            if (!iequals(v.name, mod.type))
                return fail(error, lines[i].no,
                            "expected a value of " + mod.type + " or \"-\", got \"" + v.name +
                                "\"");
            mod.values.push_back(std::move(v.value));
        }
        if (i < lines.size())
            i++; // the "-" that closes this modification
        if (mod.op == ModOp::Add && mod.values.empty())
            return fail(error, op_line, "add: " + mod.type + " has no values");
        rec->mods.push_back(std::move(mod));
    }
    if (rec->mods.empty())
        return fail(error, rec->line, "modify record for \"" + rec->dn + "\" has no changes");
    return true;
}

bool parse_record(const RecordLines &lines, std::optional<ChangeType> default_change, Record *rec,
                  ParseError *error)
{
    Field dn;
    if (!parse_field(lines[0], &dn, error))
        return false;
    if (!iequals(dn.name, "dn"))
        return fail(error, lines[0].no,
                    "a record must begin with \"dn:\", got \"" + dn.name + ":\"");
    rec->line = lines[0].no;
    rec->dn = std::move(dn.value);
    size_t i = 1;
    Field f;
    if (i < lines.size()) {
        if (!parse_field(lines[i], &f, error))
            return false;
        if (iequals(f.name, "control"))
            return fail(error, lines[i].no, "controls in change records are not supported");
    }
    if (i < lines.size() && iequals(f.name, "changetype")) {
        if (!change_from_name(trim_right(f.value), &rec->change))
            return fail(error, lines[i].no, "unknown changetype \"" + f.value + "\"");
        rec->explicit_change = true;
        i++;
    } else if (default_change) {
        rec->change = *default_change;
    } else {
        return fail(error, rec->line, "record for \"" + rec->dn + "\" has no changetype");
    }
    switch (rec->change) {
    case ChangeType::Add:
        return parse_add(lines, i, rec, error);
    case ChangeType::Delete:
        if (i < lines.size())
            return fail(error, lines[i].no, "unexpected line in a delete record");
        return true;
    case ChangeType::Modify:
        return parse_modify(lines, i, rec, error);
    case ChangeType::ModRdn:
        return parse_modrdn(lines, i, rec, error);
    }
    return true;
}

// "version: 1" may open the input, alone or as the first line of the first record.
bool strip_version(std::vector<RecordLines> *records, ParseError *error)
{
    if (records->empty())
        return true;
    RecordLines &first = records->front();
    Field f;
    if (!parse_field(first[0], &f, error))
        return false;
    if (!iequals(f.name, "version"))
        return true;
    if (trim_right(f.value) != "1")
        return fail(error, first[0].no, "unsupported LDIF version \"" + f.value + "\"");
    first.erase(first.begin());
    if (first.empty())
        records->erase(records->begin());
    return true;
}

} // namespace

std::string base64_encode(std::string_view bytes)
{
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        uint32_t v = uint32_t(uint8_t(bytes[i])) << 16 | uint32_t(uint8_t(bytes[i + 1])) << 8 |
                     uint8_t(bytes[i + 2]);
        out += kB64[v >> 18];
        out += kB64[(v >> 12) & 63];
        out += kB64[(v >> 6) & 63];
        out += kB64[v & 63];
    }
    if (i < bytes.size()) {
        uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
        if (i + 1 < bytes.size())
            v |= uint32_t(uint8_t(bytes[i + 1])) << 8;
        out += kB64[v >> 18];
        out += kB64[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? kB64[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

bool base64_decode(std::string_view text, std::string *out)
{
    out->clear();
    if (text.size() % 4 != 0)
        return false;
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int pad = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
        if (pad == 1 && text[i + 2] == '=')
            return false; // "x=y=" style padding in the middle of a quantum
        uint32_t v = 0;
        for (int k = 0; k < 4 - pad; k++) {
            int d = b64_index(text[i + k]);
            if (d < 0)
                return false;
            v = v << 6 | uint32_t(d);
        }
        v <<= 6 * pad;
        out->push_back(char(v >> 16));
        if (pad < 2)
            out->push_back(char((v >> 8) & 0xff));
        if (pad < 1)
            out->push_back(char(v & 0xff));
        // Non-canonical encodings (stray bits in the padding) are refused.
        if ((pad == 1 && (v & 0xff) != 0) || (pad == 2 && (v & 0xffff) != 0))
            return false;
    }
    return true;
}

// The library's own test of an attribute description, shared (it is header-only and knows no
// library type) so that the tool accepts exactly the names the library would send.
bool is_attribute_description(std::string_view name) { return wzr_attrdesc::is_attr_desc(name); }

std::string escape_for_message(std::string_view bytes)
{
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
            out += char(c);
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

bool is_safe_string(std::string_view value)
{
    if (value.empty())
        return true;
    if (value[0] == ' ' || value[0] == ':' || value[0] == '<' || value.back() == ' ')
        return false;
    for (unsigned char c : value) {
        if (c < 0x20 || c > 0x7e)
            return false;
    }
    return true;
}

std::string format_line(std::string_view name, std::string_view value, int wrap)
{
    std::string line(name);
    if (value.empty()) {
        line += ':';
    } else if (is_safe_string(value)) {
        line += ": ";
        line += value;
    } else {
        line += ":: ";
        line += base64_encode(value);
    }
    size_t width = wrap > 1 ? size_t(wrap) : 0;
    if (width == 0 || line.size() <= width)
        return line + '\n';
    std::string out = line.substr(0, width) + '\n';
    for (size_t pos = width; pos < line.size(); pos += width - 1) {
        out += ' ';
        out += line.substr(pos, width - 1);
        out += '\n';
    }
    return out;
}

bool put_content_first(std::vector<Attribute> *attrs)
{
    auto starts_change = [](const Attribute &a) {
        return iequals(a.type, "changetype") || iequals(a.type, "control");
    };
    if (attrs->empty() || !starts_change(attrs->front()))
        return true;
    auto other = std::find_if_not(attrs->begin(), attrs->end(), starts_change);
    if (other == attrs->end())
        return false;
    std::iter_swap(attrs->begin(), other);
    return true;
}

std::string format_entry(std::string_view dn, const std::vector<Attribute> &attrs, int wrap)
{
    std::string out = format_line("dn", dn, wrap);
    for (const auto &a : attrs) {
        if (a.values.empty())
            out += a.type + ":\n";
        for (const auto &v : a.values)
            out += format_line(a.type, v, wrap);
    }
    return out + '\n';
}

bool parse(std::string_view text, std::optional<ChangeType> default_change,
           std::vector<Record> *records, ParseError *error)
{
    std::vector<RecordLines> raw;
    if (!split_records(text, &raw, error) || !strip_version(&raw, error))
        return false;
    for (const auto &lines : raw) {
        Record rec;
        if (!parse_record(lines, default_change, &rec, error))
            return false;
        records->push_back(std::move(rec));
    }
    return true;
}

bool parse_entries(std::string_view text, std::vector<Entry> *entries, ParseError *error)
{
    std::vector<Record> records;
    if (!parse(text, ChangeType::Add, &records, error))
        return false;
    for (auto &r : records) {
        if (r.explicit_change)
            return fail(error, r.line, "a change record where an entry was expected");
        Entry e{r.line, std::move(r.dn), {}};
        for (auto &m : r.mods)
            e.attrs.push_back(Attribute{std::move(m.type), std::move(m.values)});
        entries->push_back(std::move(e));
    }
    return true;
}

const char *change_type_name(ChangeType change)
{
    switch (change) {
    case ChangeType::Add:
        return "add";
    case ChangeType::Delete:
        return "delete";
    case ChangeType::Modify:
        return "modify";
    case ChangeType::ModRdn:
        return "modrdn";
    }
    return "?";
}

} // namespace wzrldif
