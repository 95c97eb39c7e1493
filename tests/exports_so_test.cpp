// The shared object's exported surface: exactly the expected symbols, all under version wzr9,
// read from the file's dynamic symbol table (by readelf); and the exports with bodies of their own.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>

#include "wzrldap.h"

namespace {

// "name@@version" (or "name ABS" for absolute symbols) of every defined global symbol.
std::set<std::string> dynamic_exports()
{
    std::set<std::string> out;
    FILE *p = popen((std::string("readelf --dyn-syms -W '") + WZR_SHARED_LIB + "'").c_str(), "r");
    if (p == nullptr)
        return out;
    char line[1024];
    while (fgets(line, sizeof line, p) != nullptr) {
        std::istringstream in(line);
        std::string num, value, size, type, bind, vis, ndx, name;
        if (!(in >> num >> value >> size >> type >> bind >> vis >> ndx >> name) || ndx == "UND" ||
            (bind != "GLOBAL" && bind != "WEAK"))
            continue;
        out.insert(ndx == "ABS" ? name + " ABS" : name);
    }
    pclose(p);
    return out;
}

TEST(Exports, DynamicSymbolTableHoldsExactlyTheInterfaceUnderWzr9)
{
    std::set<std::string> expected = {"wzr9 ABS"}; // the version node is an absolute symbol
    for (const char *name :
         {"wzr_ldap_init", "wzr_ldap_unbind", "wzr_ldap_set_option", "wzr_ldap_err2string",
          "wzr_ldap_get_errno", "wzr_ldap_memfree", "wzr_ldap_ber_free", "wzr_ldap_url_parse",
          "wzr_ldap_free_urldesc", "wzr_ldap_msgfree", "wzr_ldap_simple_bind_s",
          "wzr_ldap_search_st", "wzr_ldap_count_entries", "wzr_ldap_first_entry",
          "wzr_ldap_next_entry", "wzr_ldap_get_dn", "wzr_ldap_first_attribute",
          "wzr_ldap_next_attribute", "wzr_ldap_get_values_len", "wzr_ldap_value_free_len",
          "wzr_ldap_add_s", "wzr_ldap_delete_s", "wzr_ldap_modify_s", "wzr_ldap_modrdn_s",
          "wzr_ldap_url_search_st", "wzr_ldap_version_ident", "wzr_ldap_build_ident",
          "wzrldap_loaded_from"})
        expected.insert(std::string(name) + "@@wzr9");
    EXPECT_EQ(dynamic_exports(), expected);
}

TEST(Exports, IdentificationAndForwardersReachTheLibrary)
{
    EXPECT_NE(strstr(wzr_ldap_version_ident, "9.0.0"), nullptr);
    EXPECT_NE(strstr(wzr_ldap_version_ident, "wzr9ldap"), nullptr);
    EXPECT_GT(strlen(wzr_ldap_build_ident), 0u);
    wzr_ldap_memfree(nullptr); // the free functions tolerate null
    wzr_ldap_ber_free(nullptr, 1);
    wzr_ldap_ber_free(nullptr, 0);
    wzr_ldap_value_free_len(nullptr);
    wzr_ldap_free_urldesc(nullptr);
    EXPECT_EQ(wzr_ldap_msgfree(nullptr), 0);
    EXPECT_STREQ(wzr_ldap_err2string(0), "Success");
    LDAP *ld = wzr_ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    int limit = 10, bad = 9;
    EXPECT_EQ(wzr_ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &limit), 0);
    EXPECT_EQ(wzr_ldap_get_errno(ld), 0);
    EXPECT_EQ(wzr_ldap_set_option(ld, LDAP_OPT_DEREF, &bad), LDAP_PARAM_ERROR);
    EXPECT_EQ(wzr_ldap_get_errno(ld), LDAP_PARAM_ERROR);
    LDAPURLDesc *lud = nullptr;
    ASSERT_EQ(wzr_ldap_url_parse("ldap://h:1389/dc=x", &lud), 0);
    ASSERT_NE(lud, nullptr);
    EXPECT_EQ(lud->lud_port, 1389);
    wzr_ldap_free_urldesc(lud);
    EXPECT_EQ(wzr_ldap_unbind(ld), 0);
}

TEST(Exports, GetErrnoOnAnInvalidHandleIsMinusOne)
{
    // Only the eyecatcher is read before the handle is refused; the buffer is ours and large.
    alignas(16) static char garbage[8192];
    memset(garbage, 0x5a, sizeof garbage);
    EXPECT_EQ(wzr_ldap_get_errno(reinterpret_cast<LDAP *>(garbage)), -1);
    memcpy(garbage, "EYEDEADL", 8);
    EXPECT_EQ(wzr_ldap_get_errno(reinterpret_cast<LDAP *>(garbage)), -1);
    EXPECT_EQ(wzr_ldap_get_errno(nullptr), -1);
    EXPECT_EQ(wzr_ldap_unbind(reinterpret_cast<LDAP *>(garbage)), LDAP_PARAM_ERROR);
}

// The canonical path, checked against the installed tree by install_test; here: a fresh copy
// at each call, which the caller frees.
TEST(Exports, LoadedFromIsAFreshCopyEachTime)
{
    char *first = wzrldap_loaded_from(), *second = wzrldap_loaded_from();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(first, second);
    EXPECT_NE(first, second);
    free(first);
    free(second);
}

} // namespace
