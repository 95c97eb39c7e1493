// Shared by the codec's tests, which link liblber alone: owning element pointers, elements
// over given bytes, what an element holds, and the trace routed to a file for one scope.
#ifndef WZR_TESTS_SUPPORT_LBER_TEST_H
#define WZR_TESTS_SUPPORT_LBER_TEST_H

#include <memory>
#include <string>
#include <vector>

#include "liblber/lber.h"
#include "support/test_util.h"
#include "trace/ldap_trace.h"

namespace wzrtest {

using Bytes = std::vector<unsigned char>;

struct FberDeleter {
    void operator()(BerElement *b) const { fber_free(b); }
};
struct PlainDeleter {
    void operator()(BerElement *b) const { ber_free(b, 1); }
};
using Fber = std::unique_ptr<BerElement, FberDeleter>;
using Plain = std::unique_ptr<BerElement, PlainDeleter>;

inline struct berval berval_of(const Bytes &b)
{
    return {b.size(), reinterpret_cast<char *>(const_cast<unsigned char *>(b.data()))};
}
inline Fber fber_of(const Bytes &b)
{
    struct berval bv = berval_of(b);
    return Fber(fber_init(&bv));
}
inline Plain plain_of(const Bytes &b)
{
    struct berval bv = berval_of(b);
    return Plain(ber_init(&bv));
}
// What an encoder has written so far.
inline Bytes written(const BerElement *ber) { return Bytes(ber->ber_buf, ber->ber_ptr); }

// Routes the trace (every class, or those of `mask`) to a file while it lives and silences it
// afterwards.
class TraceFile {
  public:
    explicit TraceFile(unsigned mask = 0xffff)
    {
        ldap_debug_init();
        (void)ldap_set_debug_file(path_.c_str());
        ldap_set_debug_mask(mask);
    }
    ~TraceFile()
    {
        ldap_set_debug_mask(0);
        (void)ldap_set_debug_file("stderr");
    }
    TraceFile(const TraceFile &) = delete;
    TraceFile &operator=(const TraceFile &) = delete;
    std::string text() const { return read_file(path_); }
    bool contains(const std::string &needle) const { return text().find(needle) != std::string::npos; }
    int count(const std::string &needle) const
    {
        std::string t = text();
        int n = 0;
        for (size_t at = t.find(needle); at != std::string::npos; at = t.find(needle, at + 1))
            ++n;
        return n;
    }

  private:
    TempDir dir_;
    std::string path_ = dir_.file("trace.log");
};

} // namespace wzrtest

#endif
