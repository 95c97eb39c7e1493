// LDIF for the wzrldap tool: writing entries (base64 for values that are not safe strings,
// lines folded at a fixed width), the test of what may stand as an attribute name, and reading
// content and change records, reporting the line of the first mistake. Independent of the
// LDAP library.
#ifndef WZR_TOOLS_LDIF_H
#define WZR_TOOLS_LDIF_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wzrldif {

constexpr int kDefaultWrap = 76;
// The most a "name:< file://..." line may bring in.
constexpr size_t kMaxFileValue = size_t(64) << 20;

std::string base64_encode(std::string_view bytes);
// False when `text` is not canonical base64 (whitespace is not skipped).
bool base64_decode(std::string_view text, std::string *out);

// Whether `value` may be written as "name: value" rather than base64. Stricter than the
// grammar: control characters and a trailing blank also go to base64, so every byte survives.
bool is_safe_string(std::string_view value);

// Whether `name` is an attribute description LDIF can carry: a descriptor (a letter, then
// letters, digits and hyphens) or a numeric OID, then any number of ";option"s of letters,
// digits and hyphens. Anything else could end a line or forge a field, so it is never written
// and never read.
bool is_attribute_description(std::string_view name);

// `bytes` fit for a message: printable ASCII as it is, every other byte, the double quote and
// the backslash as \xNN, so that nothing read from outside reaches a terminal raw.
std::string escape_for_message(std::string_view bytes);

// One "name: value" or "name:: base64" line with its line end, folded so that no physical
// line exceeds `wrap` columns (wrap <= 1: not folded).
std::string format_line(std::string_view name, std::string_view value, int wrap = kDefaultWrap);

struct Attribute {
    std::string type;
    std::vector<std::string> values;
};

// The reader takes an entry whose first attribute is named changetype or control for a change
// record, so such an attribute is swapped with a later one. False when there is none to put
// first: then the entry cannot be written as it is.
bool put_content_first(std::vector<Attribute> *attrs);

// One entry: the dn line, its attributes, and the blank line that ends it. The caller vouches
// that every type passes is_attribute_description and that put_content_first held.
std::string format_entry(std::string_view dn, const std::vector<Attribute> &attrs,
                         int wrap = kDefaultWrap);

enum class ChangeType { Add, Delete, Modify, ModRdn };
enum class ModOp { Add, Delete, Replace };

struct Modification {
    ModOp op = ModOp::Add;
    std::string type;
    std::vector<std::string> values;
};

struct Record {
    int line = 0; // where the record's dn line is
    std::string dn;
    ChangeType change = ChangeType::Add;
    bool explicit_change = false; // a changetype line was present
    // Add: one ModOp::Add per attribute, values in input order. Modify: in input order.
    std::vector<Modification> mods;
    std::string newrdn; // ModRdn
    bool deleteoldrdn = false;
    std::optional<std::string> newsuperior; // ModRdn: the new parent, when it moves
};

struct ParseError {
    int line = 0;
    std::string message;
};

// Reads every record of `text`. A "name:< file://PATH" value is read from a regular file of
// at most kMaxFileValue bytes. A record without a changetype line takes `default_change`;
// without a default such a record is an error. Stops at the first mistake, so a caller that
// applies records only after a successful parse changes nothing for malformed input.
bool parse(std::string_view text, std::optional<ChangeType> default_change,
           std::vector<Record> *records, ParseError *error);

// Content records only, as a search prints them (attributes in input order).
struct Entry {
    int line = 0;
    std::string dn;
    std::vector<Attribute> attrs;
};
bool parse_entries(std::string_view text, std::vector<Entry> *entries, ParseError *error);

const char *change_type_name(ChangeType change);

} // namespace wzrldif

#endif
