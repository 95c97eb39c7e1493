// The DNS answer parser of server location: reads the header, skips the questions and keeps the
// SRV, TXT and CNAME answer records. Every length is checked against the message before use, and
// name compression may only jump a bounded number of times, so a hostile answer ends quickly.
#include "ldap_dns.h"

#include <cstring>

#include "../liblber/ber_memory.h"
#include "wzrldap.h"

namespace {

constexpr size_t HEADER_LEN = 12;
constexpr unsigned MAX_JUMPS = 64; // compression pointers followed for one name
constexpr uint16_t CLASS_IN = 1;

struct Reader {
    const unsigned char *msg;
    size_t len;
    size_t pos;

    bool has(size_t n) const { return pos <= len && len - pos >= n; }
    uint16_t u16() { pos += 2; return static_cast<uint16_t>(msg[pos - 2] << 8 | msg[pos - 1]); }
    uint32_t u32()
    {
        uint32_t hi = u16();
        return hi << 16 | u16();
    }
};

bool host_char(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           c == '-' || c == '_';
}

// Appends one label to the text form, lower-cased; bytes a host name cannot hold become '?'.
bool append_label(const unsigned char *label, size_t n, char *out, size_t *used)
{
    if (*used + (*used != 0) + n >= LDAP_DNS_NAME_MAX)
        return false;
    if (*used != 0)
        out[(*used)++] = '.';
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = label[i];
        out[(*used)++] = !host_char(c) ? '?' : (c >= 'A' && c <= 'Z') ? char(c | 0x20) : char(c);
    }
    return true;
}

// domain-name: a run of <length><bytes> labels ended by a zero byte or by a two-byte pointer
// (top bits 11) to an earlier name. The reader ends behind the name as stored in place.
bool read_name(Reader &r, char *out)
{
    size_t p = r.pos;
    size_t used = 0;
    unsigned jumps = 0;
    bool jumped = false;
    out[0] = '\0';
    for (;;) {
        if (p >= r.len)
            return false;
        unsigned c = r.msg[p];
        if ((c & 0xC0) == 0xC0) {
            if (p + 1 >= r.len || ++jumps > MAX_JUMPS)
                return false;
            size_t target = (c & 0x3Fu) << 8 | r.msg[p + 1];
            if (target >= p) // only backwards, and never onto itself
                return false;
            if (!jumped)
                r.pos = p + 2;
            jumped = true;
            p = target;
            continue;
        }
        if ((c & 0xC0) != 0) // the 01 and 10 label kinds are not in use
            return false;
        if (c == 0)
            break;
        if (p + 1 + c > r.len || !append_label(r.msg + p + 1, c, out, &used))
            return false;
        p += 1 + c;
    }
    out[used] = '\0';
    if (!jumped)
        r.pos = p + 1;
    return true;
}

// SRV RDATA: priority(16) weight(16) port(16) target(domain-name).
bool read_srv(Reader &r, size_t end, LDAPDnsRecord *rec)
{
    if (end - r.pos < 7)
        return false;
    rec->priority = r.u16();
    rec->weight = r.u16();
    rec->port = r.u16();
    return read_name(r, rec->target) && r.pos <= end;
}

// TXT RDATA: one or more <length><bytes> character-strings, joined here.
[[nodiscard]] int read_txt(Reader &r, size_t end, LDAPDnsRecord *rec)
{
    rec->text = static_cast<char *>(lber_malloc(end - r.pos + 1));
    if (rec->text == nullptr)
        return LDAP_NO_MEMORY;
    size_t used = 0;
    while (r.pos < end) {
        size_t n = r.msg[r.pos++];
        if (n > end - r.pos)
            return LDAP_DNS_INVALID_DATA;
        memcpy(rec->text + used, r.msg + r.pos, n);
        used += n;
        r.pos += n;
    }
    rec->text[used] = '\0';
    return 0;
}

[[nodiscard]] int read_rdata(Reader &r, size_t end, LDAPDnsRecord *rec)
{
    switch (rec->type) {
    case LDAP_DNS_T_SRV:
        return read_srv(r, end, rec) ? 0 : LDAP_DNS_INVALID_DATA;
    case LDAP_DNS_T_CNAME:
        return read_name(r, rec->target) && r.pos <= end ? 0 : LDAP_DNS_INVALID_DATA;
    default:
        return read_txt(r, end, rec);
    }
}

bool wanted(uint16_t type, uint16_t cls)
{
    return cls == CLASS_IN &&
           (type == LDAP_DNS_T_SRV || type == LDAP_DNS_T_TXT || type == LDAP_DNS_T_CNAME);
}

// resource record: owner(domain-name) type(16) class(16) ttl(32) rdlength(16) rdata.
// Returns 0 with *kept set when the record is one of ours and was added to the answer.
[[nodiscard]] int read_record(Reader &r, LDAPDnsAnswer *answer, bool *kept)
{
    *kept = false;
    LDAPDnsRecord *rec = &answer->records[answer->count];
    *rec = {};
    if (!read_name(r, rec->owner) || !r.has(10))
        return LDAP_DNS_INVALID_DATA;
    rec->type = r.u16();
    uint16_t cls = r.u16();
    uint32_t ttl = r.u32();
    rec->ttl = ttl > 0x7FFFFFFF ? 0 : ttl; // a TTL with the top bit set counts as zero
    size_t rdlen = r.u16();
    if (!r.has(rdlen))
        return LDAP_DNS_INVALID_DATA;
    size_t end = r.pos + rdlen;
    if (!wanted(rec->type, cls)) {
        r.pos = end;
        return 0;
    }
    int rc = read_rdata(r, end, rec);
    if (rc != 0) {
        lber_free(rec->text);
        rec->text = nullptr;
        return rc;
    }
    r.pos = end;
    *kept = true;
    return 0;
}

bool skip_questions(Reader &r, unsigned count)
{
    char name[LDAP_DNS_NAME_MAX];
    for (unsigned i = 0; i < count; ++i) {
        if (!read_name(r, name) || !r.has(4))
            return false;
        r.pos += 4;
    }
    return true;
}

} // namespace

bool ldap_dns_host_name_ok(const char *name)
{
    if (name == nullptr || name[0] == '\0' || name[0] == '.' || name[0] == '-')
        return false;
    for (const char *p = name; *p != '\0'; ++p)
        if (!host_char(static_cast<unsigned char>(*p)) && *p != '.')
            return false;
    return true;
}

int ldap_dns_parse_answer(const unsigned char *msg, size_t len, LDAPDnsAnswer *answer)
{
    *answer = {};
    Reader r{msg, len, 0};
    if (msg == nullptr || !r.has(HEADER_LEN))
        return LDAP_DNS_INVALID_DATA;
    r.pos = 2;
    uint16_t flags = r.u16();
    unsigned questions = r.u16();
    unsigned answers = r.u16();
    r.pos = HEADER_LEN;
    if ((flags & 0x8000) == 0) // not a response
        return LDAP_DNS_INVALID_DATA;
    answer->truncated = (flags & 0x0200) != 0;
    answer->rcode = flags & 0x000F;
    if (!skip_questions(r, questions))
        return answer->truncated ? 0 : LDAP_DNS_INVALID_DATA;
    unsigned keep = answers < LDAP_DNS_MAX_RECORDS ? answers : LDAP_DNS_MAX_RECORDS;
    if (keep == 0)
        return 0;
    answer->records = static_cast<LDAPDnsRecord *>(lber_calloc(keep, sizeof(LDAPDnsRecord)));
    if (answer->records == nullptr)
        return LDAP_NO_MEMORY;
    for (unsigned i = 0; i < answers && answer->count < keep; ++i) {
        bool kept = false;
        int rc = read_record(r, answer, &kept);
        if (rc != 0) // a truncated answer ends where it was cut
            return answer->truncated && rc == LDAP_DNS_INVALID_DATA ? 0 : rc;
        answer->count += kept ? 1 : 0;
    }
    return 0;
}

void ldap_dns_free_answer(LDAPDnsAnswer *answer)
{
    if (answer == nullptr)
        return;
    for (unsigned i = 0; i < answer->count; ++i)
        lber_free(answer->records[i].text);
    lber_free(answer->records);
    *answer = {};
}
