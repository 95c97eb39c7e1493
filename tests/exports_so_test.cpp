// The shared object's exported surface: exactly the names the public header declares, all
// under version wzr9, read from the file's dynamic symbol table (by readelf); and the exports
// with bodies of their own.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "wzrldap.h"

namespace {

TEST(Exports, DynamicSymbolTableHoldsExactlyTheHeadersNamesUnderWzr9)
{
    std::set<std::string> expected = {"wzr9 ABS"}, got; // the version node is an absolute symbol
    std::ifstream in(std::string(WZR_SOURCE_DIR) + "/include/wzrldap.h");
    std::string header((std::istreambuf_iterator<char>(in)), {});
    std::regex name(R"(\b(wzr_ldap_|wzrldap_)[a-z0-9_]+\b)");
    for (auto it = std::sregex_iterator(header.begin(), header.end(), name); it != std::sregex_iterator(); ++it)
        expected.insert(it->str() + "@@wzr9");
    EXPECT_GT(expected.size(), 25u);
    FILE *p = popen((std::string("readelf --dyn-syms -W '") + WZR_SHARED_LIB + "'").c_str(), "r");
    ASSERT_NE(p, nullptr);
    char line[1024];
    while (fgets(line, sizeof line, p) != nullptr) {
        std::istringstream fields(line);
        std::string num, value, size, type, bind, vis, ndx, sym;
        if ((fields >> num >> value >> size >> type >> bind >> vis >> ndx >> sym) && ndx != "UND" &&
            (bind == "GLOBAL" || bind == "WEAK"))
            got.insert(ndx == "ABS" ? sym + " ABS" : sym);
    }
    pclose(p);
    EXPECT_EQ(got, expected);
}

TEST(Exports, IdentificationAndForwardersReachTheLibrary)
{
    EXPECT_NE(strstr(wzr_ldap_version_ident, "9.0.0"), nullptr);
    EXPECT_NE(strstr(wzr_ldap_version_ident, "wzr9ldap"), nullptr);
    EXPECT_GT(strlen(wzr_ldap_build_ident), 0u);
    wzr_ldap_memfree(nullptr); // the free functions tolerate null
    wzr_ldap_ber_free(nullptr, 1);
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
    EXPECT_EQ(lud->lud_port, 1389);
    wzr_ldap_free_urldesc(lud);
    EXPECT_EQ(wzr_ldap_unbind(ld), 0);
    // The canonical path is checked against the installed tree by install_test; here: a fresh
    // copy at each call, which the caller frees.
    char *first = wzrldap_loaded_from(), *second = wzrldap_loaded_from();
    ASSERT_TRUE(first != nullptr && second != nullptr);
    EXPECT_STREQ(first, second);
    EXPECT_NE(first, second);
    free(first);
    free(second);
}

} // namespace
