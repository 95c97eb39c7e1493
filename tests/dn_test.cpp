// DN parsing: the type and value state machines, unescaping, the tree and its build modes, the
// rebuilt strings (normalized, exploded DN and RDN, user-friendly form), DNS-style names,
// ldap_get_dn, and the traces of the state machines.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "libldap/ldap_dn.h"
#include "libldap/ldap_entry.h"
#include "libldap/ldap_error.h"
#include "libldap/ldap_init.h"
#include "libldap/ldap_unbind.h"
#include "support/msg_builder.h"
#include "support/test_util.h"

namespace {

using Strings = std::vector<std::string>;

Strings take(char **array) // takes the null-terminated array and frees it
{
    Strings out;
    for (char **p = array; p != nullptr && *p != nullptr; ++p)
        out.emplace_back(*p);
    ldap_value_free(array);
    return out;
}

std::string take(char *s)
{
    std::string out = s != nullptr ? s : "<null>";
    ldap_memfree(s);
    return out;
}

struct Parsed {
    int err = -100; // declared first: the parse sets it
    LDAPDN *dn;
    explicit Parsed(const char *s, int mode = LDAP_DN_BUILD_IN_ORDER) : dn(parse_dn(s, mode, &err)) {}
    ~Parsed() { ldap_free_dn(dn); }
    // "type=value" of every pair of RDN `i` (values as stored).
    Strings pairs(int i) const
    {
        const LDAPRDN *r = dn->rdns;
        for (; i > 0 && r != nullptr; --i)
            r = r->next;
        Strings out;
        for (const LDAPAVA *a = r != nullptr ? r->avas : nullptr; a != nullptr; a = a->next)
            out.push_back(std::string(a->pair->type) + "=" + a->pair->value);
        return out;
    }
};

// What each DN parses to: its first RDN's pairs and normalized form, or the parse's error code.
TEST(DnParse, TypesValuesEscapesAndErrorCodes)
{
    const struct {
        const char *dn;
        int err;
        Strings first_rdn;
        const char *normalized = nullptr;
    } cases[] = {
        {"cn=John Smith, o=Acme", 0, {"cn=John Smith"}, "cn=John Smith,o=Acme"},
        // Blanks around types and "=", trailing blanks of values, ";" between RDNs.
        {"  cn = a  ;\tou=b \n", 0, {"cn=a"}, "cn=a,ou=b"},
        {"OID.2.5.4.3=x", 0, {"OID.2.5.4.3=x"}},
        {"oid.2.5=y", 0, {"oid.2.5=y"}},
        {"2.5.4.3=x", 0, {"2.5.4.3=x"}},
        {"cn=a,", 0, {"cn=a"}}, // a trailing separator ends the DN
        {"QRV-KerberosName=alice@EXAMPLE,o=x", 0, {"qrv-kn=alice@EXAMPLE"},
         "qrv-kn=alice@EXAMPLE,o=x"},
        {"qrv-kerberosnames=a", 0, {"qrv-kerberosnames=a"}},
        {"cn=#04024869", 0, {"cn=Hi"}}, // hex values are BER OCTET STRINGs
        {"cn=#0481024869,o=x", 0, {"cn=Hi"}},
        {"cn=#04024869 ,o=x", 0, {"cn=Hi"}},
        {"cn=\\ a", 0, {"cn= a"}},
        {"cn=a\\ ,o=x", 0, {"cn=a "}},
        {"cn=a\\,b\\2Bc\\\\d\\#,o=x", 0, {"cn=a,b+c\\d#"}},
        {"cn=\"Smith, John\" ,o=x", 0, {"cn=Smith, John"}},
        {"cn=\"\"", 0, {"cn="}},
        {"2..5=x", 7, {}}, {"2.=x", 7, {}}, {"OID.x=1", 7, {}},
        {"2a=x", 1, {}}, // after the digits only blanks may come
        {"cn x=y", 1, {}}, {"c_n=y", 1, {}}, {"=x", 1, {}}, {"cn", 1, {}}, {"cn=a,x", 1, {}},
        {"cn=a+", 1, {}},
        {"cn=#05024869", 1, {}}, // not an OCTET STRING
        {"cn=#04894869", 1, {}}, // nine length octets
        {"cn=#", 1, {}}, {"cn=#g0", 4, {}}, {"cn=#0g", 3, {}}, {"cn=#04024869 x", 9, {}},
        {"cn=a\\ b", 1, {}}, // an escaped blank inside the value
        {"cn=\"a\"b", 9, {}}, {"cn=a=b", 6, {}}, {"cn=,o=x", 6, {}}, {"cn=a\"b", 6, {}},
        {"cn=", -1, {}}, {"cn=   ", -1, {}}, {"cn=\\zz", 2, {}}, {"cn=\\4z", 3, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dn);
        Parsed p(c.dn);
        EXPECT_EQ(p.err, c.err);
        if (c.err != 0)
            continue;
        EXPECT_EQ(p.pairs(0), c.first_rdn);
        if (c.normalized != nullptr) {
            EXPECT_STREQ(p.dn->normalized, c.normalized);
        }
    }
    EXPECT_EQ(std::string(Parsed("cn=#04024869").dn->rdns->avas->pair->value), "\x48\x69");
    Parsed p("cn=John Smith, o=Acme");
    EXPECT_EQ(p.dn->count, 2);
    EXPECT_STREQ(p.dn->normalized_upper, "CN=JOHN SMITH,O=ACME");
}

TEST(DnParse, MultiValuedRdnsKeepTheirPairsSortedOnRequest)
{
    Parsed p("cn=a+sn=b,o=c");
    ASSERT_EQ(p.err, 0);
    ASSERT_EQ(p.dn->count, 2);
    EXPECT_EQ(p.dn->rdns->count, 2);
    EXPECT_EQ(p.dn->rdns->next->count, 1);
    EXPECT_EQ(p.pairs(0), (Strings{"cn=a", "sn=b"}));
    EXPECT_EQ(p.pairs(1), (Strings{"o=c"}));
    EXPECT_EQ(p.dn->reserved1, nullptr);
    EXPECT_EQ(p.dn->reserved2, nullptr);
    Parsed sorted("sn=b+cn=z+cn=a+CN=A+Cn=B,o=x", LDAP_DN_BUILD_SORTED);
    ASSERT_EQ(sorted.err, 0);
    // By type then value; equal pairs (cn=a, CN=A) keep their order of arrival.
    EXPECT_EQ(sorted.pairs(0), (Strings{"cn=a", "CN=A", "Cn=B", "cn=z", "sn=b"}));
    Parsed ordered("sn=b+cn=z+cn=a+CN=A+Cn=B,o=x", LDAP_DN_BUILD_IN_ORDER);
    EXPECT_EQ(ordered.pairs(0), (Strings{"sn=b", "cn=z", "cn=a", "CN=A", "Cn=B"}));
}

TEST(DnValues, RebuiltStringsEscapeWhatWouldNotReadBack)
{
    const struct {
        const char *dn;
        int mode; // 0/1: explode_dn with(out) types; 2/3: explode_rdn
        Strings want;
    } cases[] = {
        {"cn=John Smith, o=Acme", 0, {"cn=John Smith", "o=Acme"}},
        {"cn=John Smith, o=Acme", 1, {"John Smith", "Acme"}},
        {"cn=a+sn=b,o=c", 0, {"cn=a+sn=b", "o=c"}},
        {"cn=a+sn=b,o=c", 2, {"cn=a", "sn=b"}},
        {"cn=a+sn=b,o=c", 3, {"a", "b"}},
        {"cn=\\#x+sn=\\ y,o=\"a,b\",ou=c\\ ,l=\"\"", 0,
         {"cn=\\#x+sn=\\ y", "o=a\\,b", "ou=c\\ ", "l=\"\""}},
        {"cn=\"<a>=;+\\\\\"", 0, {"cn=\\<a\\>\\=\\;\\+\\\\"}},
        {"cn=a\\,b+sn=\"q\",o=x", 2, {"cn=a,b", "sn=q"}}, // RDN values come unescaped
        {"user@host.example", 0, {"user", "host", "example"}}, // DNS-style names
        {"", 0, {}}, {"", 2, {}}, {"cn=a,=b", 0, {}}, {"cn=a,=b", 2, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.dn);
        char **got = c.mode < 2 ? ldap_explode_dn(c.dn, c.mode) : ldap_explode_rdn(c.dn, c.mode - 2);
        EXPECT_EQ(got == nullptr, c.want.empty());
        EXPECT_EQ(take(got), c.want);
    }
    EXPECT_EQ(ldap_explode_dn(nullptr, 0), nullptr);
    EXPECT_EQ(take(ldap_dn2ufn("cn=John Smith, o=Acme")), "John Smith,Acme");
    EXPECT_EQ(take(ldap_dn2ufn("cn=a+sn=b,o=c\\,d")), "a+b,c\\,d");
    EXPECT_EQ(take(ldap_dn2ufn("")), "");
    EXPECT_EQ(take(ldap_dn2ufn("host.example")), "host.example");
    EXPECT_EQ(ldap_dn2ufn("cn=a,=b"), nullptr);
}

TEST(DnNames, DnsStyleNamesSplitAtAtSignsAndDots)
{
    EXPECT_EQ(take(ldap_explode_dns("..a..b@@c.")), (Strings{"a", "b", "c"}));
    std::string many;
    Strings want;
    for (int i = 0; i < 40; ++i) {
        many += (i ? "." : "") + std::to_string(i);
        want.push_back(std::to_string(i));
    }
    EXPECT_EQ(take(ldap_explode_dns(many.c_str())), want); // grown past 8, 16 and 32 slots
    char **none = ldap_explode_dns("@.");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none[0], nullptr);
    ldap_value_free(none);
    EXPECT_EQ(ldap_explode_dns(nullptr), nullptr);
}

TEST(DnNames, EmptyAndBadDns)
{
    for (const char *s : {"", static_cast<const char *>(nullptr)}) {
        Parsed empty(s);
        ASSERT_NE(empty.dn, nullptr);
        EXPECT_EQ(empty.err, 0);
        EXPECT_EQ(empty.dn->count, 0);
        EXPECT_EQ(empty.dn->rdns, nullptr);
        EXPECT_STREQ(empty.dn->normalized, "");
        EXPECT_STREQ(empty.dn->normalized_upper, "");
    }
    // A bad DN keeps the RDNs read before the error in its normalized form.
    Parsed partial("cn=a,ou=b,x");
    EXPECT_EQ(partial.err, 1);
    EXPECT_EQ(partial.dn->count, 2);
    EXPECT_STREQ(partial.dn->normalized, "cn=a,ou=b");
}

template <typename T> bool made(T *p, void (*release)(T *))
{
    release(p);
    return p != nullptr;
}

TEST(DnMemory, EveryFailedAllocationIsReportedWithoutLeaks)
{
    const char *dn = "cn=a+sn=\\#b,o=#04024869,qrv-kerberosname=k";
    EXPECT_GT(wzrtest::walk_alloc_failures([&] {
                  int err = 0;
                  LDAPDN *tree = parse_dn(dn, LDAP_DN_BUILD_SORTED, &err);
                  bool ok = tree != nullptr && err == 0;
                  EXPECT_TRUE(ok || err == LDAP_NO_MEMORY);
                  ldap_free_dn(tree);
                  return ok;
              }),
              15);
    auto memfree = [](char *p) { ldap_memfree(p); };
    wzrtest::walk_alloc_failures([&] { return made(ldap_explode_dn(dn, 0), ldap_value_free); });
    wzrtest::walk_alloc_failures([&] { return made(ldap_explode_rdn(dn, 1), ldap_value_free); });
    wzrtest::walk_alloc_failures([&] { return made<char>(ldap_dn2ufn(dn), memfree); });
    wzrtest::walk_alloc_failures(
        [&] { return made(ldap_explode_dns("a.b.c.d.e.f.g.h.i.j@k"), ldap_value_free); });
}

TEST(DnOfEntry, ReturnedAsTheServerSentIt)
{
    LDAP *ld = ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    LDAPMessage *e = wzrtest::make_msg(wzrtest::entry_pdu("CN=Ann , O=Acme", {{"cn", {"Ann"}}}));
    EXPECT_EQ(take(ldap_get_dn(ld, e)), "CN=Ann , O=Acme");
    EXPECT_EQ(ldap_get_errno(ld), 0);
    EXPECT_EQ(ldap_get_dn(ld, nullptr), nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_PARAM_ERROR);
    wzrtest::free_msgs(e);
    wzrtest::PduBuilder b(1);
    b.add("t{}", static_cast<ber_tag_t>(LDAP_RES_SEARCH_ENTRY));
    LDAPMessage *broken = wzrtest::make_msg(b.bytes());
    EXPECT_EQ(ldap_get_dn(ld, broken), nullptr);
    EXPECT_EQ(ldap_get_errno(ld), LDAP_DECODING_ERROR);
    wzrtest::free_msgs(broken);
    (void)ldap_unbind(ld);
}

TEST(DnTrace, StateMachinesTraceTheirTransitions)
{
    wzrtest::TempDir dir;
    std::string path = dir.file("trace.log");
    ASSERT_EQ(ldap_set_debug_file(path.c_str()), 0);
    ldap_set_debug_mask(0x0800); // the DN class only
    Parsed p("cn=a,2..5=b");
    ldap_set_debug_mask(0);
    (void)ldap_set_debug_file("stderr");
    std::string log = wzrtest::read_file(path);
    for (const char *line :
         {"Start in state B4TYPE.\n", "State tx B4TYPE -> INIDENT.\n",
          "End of DN component, found ,.\n", "BAD RDN type, code=7.\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    EXPECT_EQ(log.find("ldap_"), std::string::npos) << "only DN lines at this mask";
}

} // namespace
