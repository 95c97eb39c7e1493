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

// Takes the array (null-terminated) and frees it.
Strings take(char **array)
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
    explicit Parsed(const char *s, int mode = LDAP_DN_BUILD_IN_ORDER) : dn(parse_dn(s, mode, &err))
    {
    }
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

int parse_error(const char *s) { return Parsed(s).err; }

TEST(DnParse, BlanksAroundComponentsAreNotKept)
{
    Parsed p("cn=John Smith, o=Acme");
    ASSERT_EQ(p.err, 0);
    EXPECT_EQ(p.dn->count, 2);
    EXPECT_STREQ(p.dn->normalized, "cn=John Smith,o=Acme");
    EXPECT_STREQ(p.dn->normalized_upper, "CN=JOHN SMITH,O=ACME");
    EXPECT_EQ(take(ldap_explode_dn("cn=John Smith, o=Acme", 0)),
              (Strings{"cn=John Smith", "o=Acme"}));
    EXPECT_EQ(take(ldap_explode_dn("cn=John Smith, o=Acme", 1)), (Strings{"John Smith", "Acme"}));
    // Blanks around types and "=", trailing blanks of values, ";" between RDNs.
    Parsed q("  cn = a  ;\tou=b \n");
    ASSERT_EQ(q.err, 0);
    EXPECT_STREQ(q.dn->normalized, "cn=a,ou=b");
}

TEST(DnParse, NumericAndOidPrefixedTypes)
{
    Parsed oid("OID.2.5.4.3=x");
    ASSERT_EQ(oid.err, 0);
    EXPECT_EQ(oid.pairs(0), (Strings{"OID.2.5.4.3=x"}));
    Parsed lower("oid.2.5=y");
    ASSERT_EQ(lower.err, 0);
    EXPECT_EQ(lower.pairs(0), (Strings{"oid.2.5=y"}));
    Parsed dotted("2.5.4.3=x");
    ASSERT_EQ(dotted.err, 0);
    EXPECT_EQ(dotted.pairs(0), (Strings{"2.5.4.3=x"}));

    EXPECT_EQ(parse_error("2..5=x"), 7);
    EXPECT_EQ(parse_error("2.=x"), 7);
    EXPECT_EQ(parse_error("OID.x=1"), 7);
    EXPECT_EQ(parse_error("2a=x"), 1); // after the digits only blanks may come
    EXPECT_EQ(parse_error("cn x=y"), 1);
    EXPECT_EQ(parse_error("c_n=y"), 1);
    EXPECT_EQ(parse_error("=x"), 1);
    EXPECT_EQ(parse_error("cn"), 1);
    EXPECT_EQ(parse_error("cn=a,"), 0); // a trailing separator ends the DN
    EXPECT_EQ(parse_error("cn=a,x"), 1);
}

TEST(DnParse, MultiValuedRdnsKeepTheirPairs)
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
    EXPECT_EQ(take(ldap_explode_dn("cn=a+sn=b,o=c", 0)), (Strings{"cn=a+sn=b", "o=c"}));
    EXPECT_EQ(take(ldap_explode_rdn("cn=a+sn=b,o=c", 0)), (Strings{"cn=a", "sn=b"}));
    EXPECT_EQ(take(ldap_explode_rdn("cn=a+sn=b,o=c", 1)), (Strings{"a", "b"}));
    EXPECT_EQ(parse_error("cn=a+"), 1);
}

TEST(DnParse, SortedModeOrdersPairsByTypeThenValue)
{
    Parsed sorted("sn=b+cn=z+cn=a+CN=A+Cn=B,o=x", LDAP_DN_BUILD_SORTED);
    ASSERT_EQ(sorted.err, 0);
    // Equal pairs (cn=a, CN=A) keep their order of arrival.
    EXPECT_EQ(sorted.pairs(0), (Strings{"cn=a", "CN=A", "Cn=B", "cn=z", "sn=b"}));
    Parsed ordered("sn=b+cn=z+cn=a+CN=A+Cn=B,o=x", LDAP_DN_BUILD_IN_ORDER);
    EXPECT_EQ(ordered.pairs(0), (Strings{"sn=b", "cn=z", "cn=a", "CN=A", "Cn=B"}));
}

TEST(DnValues, HexValuesAreBerOctetStrings)
{
    Parsed hi("cn=#04024869");
    ASSERT_EQ(hi.err, 0);
    EXPECT_EQ(hi.pairs(0), (Strings{"cn=Hi"}));
    EXPECT_EQ(std::string(hi.dn->rdns->avas->pair->value), "\x48\x69");
    Parsed long_form("cn=#0481024869,o=x");
    ASSERT_EQ(long_form.err, 0);
    EXPECT_EQ(long_form.pairs(0), (Strings{"cn=Hi"}));
    Parsed blank_after("cn=#04024869 ,o=x");
    EXPECT_EQ(blank_after.err, 0);
    EXPECT_EQ(parse_error("cn=#05024869"), 1);     // not an OCTET STRING
    EXPECT_EQ(parse_error("cn=#04894869"), 1);     // nine length octets
    EXPECT_EQ(parse_error("cn=#"), 1);
    EXPECT_EQ(parse_error("cn=#g0"), 4);           // not hexadecimal
    EXPECT_EQ(parse_error("cn=#0g"), 3);           // half a pair
    EXPECT_EQ(parse_error("cn=#04024869 x"), 9);   // garbage after the value
}

TEST(DnValues, EscapesQuotesAndBlanks)
{
    Parsed leading("cn=\\ a");
    ASSERT_EQ(leading.err, 0);
    EXPECT_EQ(leading.pairs(0), (Strings{"cn= a"}));
    Parsed trailing("cn=a\\ ,o=x");
    ASSERT_EQ(trailing.err, 0);
    EXPECT_EQ(trailing.pairs(0), (Strings{"cn=a "}));
    EXPECT_EQ(parse_error("cn=a\\ b"), 1); // an escaped blank inside the value

    Parsed escaped("cn=a\\,b\\2Bc\\\\d\\#,o=x");
    ASSERT_EQ(escaped.err, 0);
    EXPECT_EQ(escaped.pairs(0), (Strings{"cn=a,b+c\\d#"}));
    Parsed quoted("cn=\"Smith, John\" ,o=x");
    ASSERT_EQ(quoted.err, 0);
    EXPECT_EQ(quoted.pairs(0), (Strings{"cn=Smith, John"}));
    Parsed empty("cn=\"\"");
    ASSERT_EQ(empty.err, 0);
    EXPECT_EQ(empty.pairs(0), (Strings{"cn="}));

    EXPECT_EQ(parse_error("cn=\"a\"b"), 9);
    EXPECT_EQ(parse_error("cn=a=b"), 6);
    EXPECT_EQ(parse_error("cn=,o=x"), 6);
    EXPECT_EQ(parse_error("cn=a\"b"), 6);
    EXPECT_EQ(parse_error("cn="), -1);
    EXPECT_EQ(parse_error("cn=   "), -1);
    EXPECT_EQ(parse_error("cn=\\zz"), 2);
    EXPECT_EQ(parse_error("cn=\\4z"), 3);
}

TEST(DnValues, RebuiltStringsEscapeWhatWouldNotReadBack)
{
    EXPECT_EQ(take(ldap_explode_dn("cn=\\#x+sn=\\ y,o=\"a,b\",ou=c\\ ,l=\"\"", 0)),
              (Strings{"cn=\\#x+sn=\\ y", "o=a\\,b", "ou=c\\ ", "l=\"\""}));
    EXPECT_EQ(take(ldap_explode_dn("cn=\"<a>=;+\\\\\"", 0)),
              (Strings{"cn=\\<a\\>\\=\\;\\+\\\\"}));
    // Values of an exploded RDN are handed out unescaped.
    EXPECT_EQ(take(ldap_explode_rdn("cn=a\\,b+sn=\"q\",o=x", 0)), (Strings{"cn=a,b", "sn=q"}));
}

TEST(DnTypes, KerberosNameTypeIsShortened)
{
    Parsed p("QRV-KerberosName=alice@EXAMPLE,o=x");
    ASSERT_EQ(p.err, 0);
    EXPECT_EQ(p.pairs(0), (Strings{"qrv-kn=alice@EXAMPLE"}));
    EXPECT_STREQ(p.dn->normalized, "qrv-kn=alice@EXAMPLE,o=x");
    Parsed longer("qrv-kerberosnames=a");
    EXPECT_EQ(longer.pairs(0), (Strings{"qrv-kerberosnames=a"}));
}

TEST(DnNames, DnsStyleNamesSplitAtAtSignsAndDots)
{
    EXPECT_EQ(take(ldap_explode_dn("user@host.example", 0)),
              (Strings{"user", "host", "example"}));
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
    EXPECT_EQ(take(ldap_dn2ufn("host.example")), "host.example");
}

TEST(DnNames, EmptyAndBadDns)
{
    Parsed empty("");
    ASSERT_NE(empty.dn, nullptr);
    EXPECT_EQ(empty.err, 0);
    EXPECT_EQ(empty.dn->count, 0);
    EXPECT_EQ(empty.dn->rdns, nullptr);
    EXPECT_STREQ(empty.dn->normalized, "");
    EXPECT_STREQ(empty.dn->normalized_upper, "");
    Parsed null_dn(nullptr);
    EXPECT_EQ(null_dn.err, 0);
    EXPECT_STREQ(null_dn.dn->normalized, "");
    EXPECT_EQ(ldap_explode_dn("", 0), nullptr);
    EXPECT_EQ(ldap_explode_dn(nullptr, 0), nullptr);
    EXPECT_EQ(ldap_explode_rdn("", 0), nullptr);
    EXPECT_EQ(ldap_explode_dn("cn=a,=b", 0), nullptr);
    EXPECT_EQ(ldap_explode_rdn("cn=a,=b", 0), nullptr);

    // A bad DN keeps the RDNs read before the error in its normalized form.
    Parsed partial("cn=a,ou=b,x");
    EXPECT_EQ(partial.err, 1);
    EXPECT_EQ(partial.dn->count, 2);
    EXPECT_STREQ(partial.dn->normalized, "cn=a,ou=b");
}

TEST(DnNames, UserFriendlyFormHasValuesOnly)
{
    EXPECT_EQ(take(ldap_dn2ufn("cn=John Smith, o=Acme")), "John Smith,Acme");
    EXPECT_EQ(take(ldap_dn2ufn("cn=a+sn=b,o=c\\,d")), "a+b,c\\,d");
    EXPECT_EQ(take(ldap_dn2ufn("")), "");
    EXPECT_EQ(ldap_dn2ufn("cn=a,=b"), nullptr);
}

TEST(DnMemory, EveryFailedAllocationIsReportedWithoutLeaks)
{
    const char *dn = "cn=a+sn=\\#b,o=#04024869,qrv-kerberosname=k";
    int walked = wzrtest::walk_alloc_failures([&] {
        int err = 0;
        LDAPDN *tree = parse_dn(dn, LDAP_DN_BUILD_SORTED, &err);
        bool ok = tree != nullptr && err == 0;
        if (!ok) {
            EXPECT_EQ(err, LDAP_NO_MEMORY);
        }
        ldap_free_dn(tree);
        return ok;
    });
    EXPECT_GT(walked, 15);
    wzrtest::walk_alloc_failures([&] {
        char **parts = ldap_explode_dn(dn, 0);
        bool ok = parts != nullptr;
        ldap_value_free(parts);
        return ok;
    });
    wzrtest::walk_alloc_failures([&] {
        char **parts = ldap_explode_rdn(dn, 1);
        bool ok = parts != nullptr;
        ldap_value_free(parts);
        return ok;
    });
    wzrtest::walk_alloc_failures([&] {
        char *ufn = ldap_dn2ufn(dn);
        bool ok = ufn != nullptr;
        ldap_memfree(ufn);
        return ok;
    });
    wzrtest::walk_alloc_failures([&] {
        char **parts = ldap_explode_dns("a.b.c.d.e.f.g.h.i.j@k");
        bool ok = parts != nullptr;
        ldap_value_free(parts);
        return ok;
    });
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
          "State tx INIDENT -> TYPEDONE.\n", "Start in state B4Value.\n",
          "End of DN component, found ,.\n", "Parsed DN element 0.\n",
          "Found bad type spec, bad oid . not digit.\n", "BAD RDN type, code=7.\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    EXPECT_EQ(log.find("ldap_"), std::string::npos) << "only DN lines at this mask";
}

} // namespace
