// Expected FBER bytes for the encoding tests: every constructed length is 0x84 and four
// bytes, primitive lengths are short below 128, integers 0..127 take one byte and all others
// four. Built independently of the library's encoder.
#ifndef WZR_TESTS_SUPPORT_FBER_BYTES_H
#define WZR_TESTS_SUPPORT_FBER_BYTES_H

#include <cstdint>
#include <string>

namespace wzrtest::fber {

using Bytes = std::string;

inline Bytes be32(uint32_t n)
{
    Bytes out;
    for (int shift = 24; shift >= 0; shift -= 8)
        out += static_cast<char>(n >> shift & 0xff);
    return out;
}

inline Bytes cons(unsigned char tag, const Bytes &content)
{
    return Bytes(1, static_cast<char>(tag)) + '\x84' + be32(static_cast<uint32_t>(content.size())) +
           content;
}

inline Bytes prim(unsigned char tag, const Bytes &content)
{
    Bytes out(1, static_cast<char>(tag));
    if (content.size() < 128)
        out += static_cast<char>(content.size());
    else
        out += '\x84' + be32(static_cast<uint32_t>(content.size()));
    return out + content;
}

inline Bytes str(const Bytes &s) { return prim(0x04, s); }
inline Bytes seq(const Bytes &content) { return cons(0x30, content); }
inline Bytes set(const Bytes &content) { return cons(0x31, content); }
inline Bytes integer(int v, unsigned char tag = 0x02)
{
    if (v >= 0 && v <= 127)
        return prim(tag, Bytes(1, static_cast<char>(v)));
    return prim(tag, be32(static_cast<uint32_t>(v)));
}
inline Bytes enumerated(int v) { return integer(v, 0x0a); }
inline Bytes boolean(bool b, unsigned char tag = 0x01)
{
    return prim(tag, Bytes(1, b ? '\xff' : '\x00'));
}
// LDAPMessage ::= SEQUENCE { messageID, protocolOp, [0] controls OPTIONAL }
inline Bytes message(int msgid, const Bytes &op, const Bytes &controls = "")
{
    return seq(integer(msgid) + op + controls);
}

inline std::string hex(const Bytes &b)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : b) {
        out += digits[c >> 4];
        out += digits[c & 15];
        out += ' ';
    }
    return out;
}

} // namespace wzrtest::fber

#endif
