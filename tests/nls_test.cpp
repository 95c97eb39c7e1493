// Message catalogues chosen by the locale variables, the English one built from the library's
// own tables, and the formatter with positional arguments.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "libldap/ldap_error.h"
#include "libldap/ldap_nls.h"
#include "support/test_util.h"

namespace {

using Env = std::optional<std::string>;

class Nls : public ::testing::Test {
protected:
    // Chooses again with these settings (NLSPATH points at the build's catalogues).
    void use(Env lc_all, Env lang)
    {
        lc_all_.emplace("LC_ALL", lc_all);
        lang_.emplace("LANG", lang);
        ldap_nls_reset_for_tests();
    }
    ~Nls() override { ldap_nls_reset_for_tests(); } // the next choice reads the settings again
    wzrtest::ScopedEnv path_{"NLSPATH", "/nonexistent/%N:" WZR_NLS_DIR "/%l/%N.cat"};
    wzrtest::ScopedEnv messages_{"LC_MESSAGES", std::nullopt};
    std::optional<wzrtest::ScopedEnv> lc_all_, lang_;
};

TEST_F(Nls, LocaleVariablesChooseTheCatalogueAndMissingTextsFallBack)
{
    const struct {
        Env lc_all, lang;
        int code;
        const char *text;
    } cases[] = {
        {std::nullopt, "de_DE.UTF-8", LDAP_SERVER_DOWN, "Keine Verbindung zum LDAP-Server"},
        {std::nullopt, "de_DE.UTF-8", 15, "Unbekannter Fehler"},           // no row: as 80
        {std::nullopt, "de_DE.UTF-8", LDAP_LOCK_ERROR, "Could not obtain lock"}, // untranslated
        {"C", "de_DE.UTF-8", LDAP_SERVER_DOWN, "Can't contact LDAP server"},    // LC_ALL first
        {std::nullopt, "en_GB", LDAP_SERVER_DOWN, "Can't contact LDAP server"}, // from the table
    };
    for (const auto &c : cases) {
        use(c.lc_all, c.lang);
        EXPECT_STREQ(ldap_err2string(c.code), c.text) << c.lang.value_or("");
        EXPECT_EQ(ldap_nls_text(LDAP_NLS_SET_PERROR, 2, nullptr) != nullptr,
                  !c.lc_all) << "catalogue opened";
    }
}

TEST(NlsFormat, PositionalArgumentsMayComeInAnyOrder)
{
    const char *args[] = {"one", "two"};
    const struct {
        const char *fmt, *out;
        size_t size;
    } cases[] = {
        {"%2$s (%1$s)", "two (one)", 64},
        {"%s: %s 100%%", "one: two 100%", 64},
        {"[%3$s]%d", "[]%d", 64},
        {"%1$s-%2$s", "one-", 5}, // cut; the whole length is still told
    };
    char buf[64];
    for (const auto &c : cases) {
        EXPECT_EQ(ldap_nls_format(buf, c.size, c.fmt, 2, args),
                  c.size == 5 ? 7 : strlen(c.out));
        EXPECT_STREQ(buf, c.out);
    }
}

} // namespace
