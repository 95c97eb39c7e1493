// The installed product: `cmake --install` lays out the library, header, pkg-config file and
// tool; the header compiles alone as strict C and C++; a C program built with pkg-config
// against the installed tree runs, loads the installed library and talks to slapd.
#include "support/slapd_fixture.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace {

using wzrtest::run_capture;

std::string quote(const std::string &s) { return wzrtest::shell_quote(s); }

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Runs `command` (standard error joined to the output); the output, and the status in *status.
std::string output_of(const std::string &command, int *status = nullptr)
{
    std::string out;
    int rc = run_capture(command + " 2>&1", &out);
    if (status != nullptr)
        *status = rc;
    while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
        out.pop_back();
    return out;
}

// One installed tree per test program: installing is the expensive part.
class Installed : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        tmp_ = new wzrtest::TempDir;
        prefix_ = tmp_->path() + "/prefix";
        install_log_ = output_of(quote(WZR_CMAKE_COMMAND) + " --install " + quote(WZR_BINARY_DIR) +
                                     " --prefix " + quote(prefix_), &install_status_);
    }
    static void TearDownTestSuite()
    {
        delete tmp_;
        tmp_ = nullptr;
    }
    void SetUp() override { ASSERT_EQ(install_status_, 0) << install_log_; }
    static std::string pkg_config(const std::string &args)
    {
        int rc = -1;
        std::string out = output_of("PKG_CONFIG_PATH=" + quote(libdir() + "/pkgconfig") +
                                        " pkg-config " + args + " wzrldap", &rc);
        EXPECT_EQ(rc, 0) << "pkg-config " << args << ": " << out;
        return out;
    }
    static std::string libdir()
    {
        for (const char *d : {"/lib", "/lib64", "/lib/x86_64-linux-gnu"})
            if (exists(prefix_ + d + "/pkgconfig/wzrldap.pc"))
                return prefix_ + d;
        return prefix_ + "/lib";
    }
    static wzrtest::TempDir *tmp_;
    static std::string prefix_, install_log_;
    static int install_status_;
};
wzrtest::TempDir *Installed::tmp_ = nullptr;
std::string Installed::prefix_, Installed::install_log_;
int Installed::install_status_ = -1;

// Uses every declaration of the header, so a wrong prototype or type fails to compile.
const char kHeaderUse[] = R"SRC(#include <wzrldap.h>
static int use_all(void)
{
    LDAPMod mod;
    struct berval bv;
    LDAPURLDesc *lud = 0;
    struct timeval tv;
    mod.mod_op = LDAP_MOD_ADD | LDAP_MOD_BVALUES;
    mod.mod_bvalues = 0;
    bv.bv_len = 0;
    bv.bv_val = 0;
    tv.tv_sec = 1;
    tv.tv_usec = 0;
    (void)mod; (void)bv; (void)tv;
    (void)&wzr_ldap_init; (void)&wzr_ldap_set_option; (void)&wzr_ldap_simple_bind_s;
    (void)&wzr_ldap_unbind; (void)&wzr_ldap_get_errno; (void)&wzr_ldap_err2string;
    (void)&wzr_ldap_search_st; (void)&wzr_ldap_msgfree; (void)&wzr_ldap_count_entries;
    (void)&wzr_ldap_first_entry; (void)&wzr_ldap_next_entry; (void)&wzr_ldap_get_dn;
    (void)&wzr_ldap_first_attribute; (void)&wzr_ldap_next_attribute;
    (void)&wzr_ldap_get_values_len; (void)&wzr_ldap_value_free_len; (void)&wzr_ldap_memfree;
    (void)&wzr_ldap_ber_free; (void)&wzr_ldap_add_s; (void)&wzr_ldap_delete_s;
    (void)&wzr_ldap_modify_s; (void)&wzr_ldap_modrdn_s; (void)&wzr_ldap_url_parse;
    (void)&wzr_ldap_free_urldesc; (void)&wzrldap_loaded_from;
    (void)wzr_ldap_version_ident; (void)wzr_ldap_build_ident;
    return lud == 0 ? LDAP_SUCCESS : LDAP_OTHER;
}
int main(void) { return use_all(); }
)SRC";

TEST_F(Installed, LaysOutLibraryHeaderPkgConfigAndToolAndTheHeaderCompilesAlone)
{
    for (const std::string &path : {prefix_ + "/include/wzrldap.h", libdir() + "/libwzr9ldap_64.so",
                                    libdir() + "/pkgconfig/wzrldap.pc", prefix_ + "/bin/wzrldap"})
        EXPECT_TRUE(exists(path)) << path;
    EXPECT_EQ(pkg_config("--modversion"), "9.0.0");
    std::string flags = pkg_config("--cflags --libs");
    EXPECT_NE(flags.find("-lwzr9ldap_64"), std::string::npos) << flags;
    EXPECT_NE(flags.find("/include"), std::string::npos) << flags;
    // The tool finds the installed library by itself (no LD_LIBRARY_PATH).
    int rc = -1;
    std::string out = output_of("env -u LD_LIBRARY_PATH " + quote(prefix_ + "/bin/wzrldap") +
                                " search --help", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_NE(out.find("usage: wzrldap search"), std::string::npos) << out;

    wzrtest::write_file(tmp_->file("use.c"), kHeaderUse);
    wzrtest::write_file(tmp_->file("use.cpp"), kHeaderUse);
    const std::string strict = " -Wall -Wextra -pedantic -Werror -fsyntax-only -I" +
                               quote(prefix_ + "/include") + " ";
    const char *builds[][3] = {{WZR_C_COMPILER, "-std=c99", "use.c"},
                               {WZR_CXX_COMPILER, "-std=c++11", "use.cpp"}};
    for (const auto &[compiler, std, file] : builds) {
        out = output_of(quote(compiler) + " " + std + strict + quote(tmp_->file(file)), &rc);
        EXPECT_EQ(rc, 0) << std << ": " << out;
    }
}

const char kProgram[] = R"SRC(#include <stdio.h>
#include <stdlib.h>
#include <wzrldap.h>

int main(int argc, char **argv)
{
    char *from = wzrldap_loaded_from();
    printf("loaded from %s\n", from != NULL ? from : "?");
    free(from);
    if (argc < 3)
        return 0;
    LDAP *ld = wzr_ldap_init(argv[1], 0);
    int version = LDAP_VERSION3;
    LDAPMessage *res = NULL;
    if (ld == NULL || wzr_ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version) != 0)
        return 1;
    int rc = wzr_ldap_simple_bind_s(ld, NULL, NULL);
    if (rc == LDAP_SUCCESS)
        rc = wzr_ldap_search_st(ld, argv[2], LDAP_SCOPE_SUBTREE, "(uid=user1*)", NULL, 0, NULL,
                                &res);
    printf("search: %s, %d entries\n", wzr_ldap_err2string(rc), wzr_ldap_count_entries(ld, res));
    wzr_ldap_msgfree(res);
    wzr_ldap_unbind(ld);
    return rc;
}
)SRC";

TEST_F(Installed, CProgramBuiltWithPkgConfigRunsAgainstTheInstalledLibrary)
{
    wzrtest::write_file(tmp_->file("prog.c"), kProgram);
    const std::string sanitize = WZR_SANITIZE_FLAGS;
    int rc = -1;
    std::string out = output_of(quote(WZR_C_COMPILER) + " " + sanitize + " -std=c99 -c -o " +
                                    quote(tmp_->file("prog.o")) + " " + quote(tmp_->file("prog.c")) +
                                    " " + pkg_config("--cflags"), &rc);
    ASSERT_EQ(rc, 0) << out;
    // A plain C consumer links with the C driver; a sanitized library needs the C++ runtime
    // parts of the sanitizers, which only the C++ driver brings.
    const std::string linker = sanitize.empty() ? WZR_C_COMPILER : WZR_CXX_COMPILER;
    out = output_of(quote(linker) + " " + sanitize + " -o " + quote(tmp_->file("prog")) + " " +
                        quote(tmp_->file("prog.o")) + " " + pkg_config("--libs"), &rc);
    ASSERT_EQ(rc, 0) << out;
    std::string run = "LD_LIBRARY_PATH=" + quote(libdir()) + " " + quote(tmp_->file("prog"));
    char real[PATH_MAX];
    ASSERT_NE(realpath(libdir().c_str(), real), nullptr);
    out = output_of(run, &rc);
    ASSERT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("loaded from " + std::string(real) + "/libwzr9ldap_64.so"), std::string::npos)
        << out;
    wzrtest::SlapdFixture &s = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(s);
    out = output_of(run + " " + quote(s.uri()) + " " + quote(s.base()), &rc);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_NE(out.find(", 100 entries"), std::string::npos) << out; // uid=user1*: user100..user199
}

} // namespace
