// The installed product: `cmake --install` lays out the library, header, pkg-config file and
// tool; the header compiles alone as strict C++; a strict C program built with pkg-config
// against the installed tree runs, loads the installed library and talks to slapd.
#include "support/slapd_fixture.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <unistd.h>

namespace {

using wzrtest::shell_quote;

// The output of `command` (standard error joined, trailing blanks cut), its status in *status.
std::string output_of(const std::string &command, int *status)
{
    std::string out;
    *status = wzrtest::run_capture(command + " 2>&1", &out);
    while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
        out.pop_back();
    return out;
}

// Uses the header's types and functions: built as C99 with every warning an error.
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

TEST(Installed, TreeHoldsLibraryHeaderPkgConfigAndToolAndACProgramBuiltOnItRuns)
{
    wzrtest::TempDir tmp;
    const std::string prefix = tmp.path() + "/prefix";
    int rc = -1;
    std::string out = output_of(shell_quote(WZR_CMAKE_COMMAND) + " --install " +
                                shell_quote(WZR_BINARY_DIR) + " --prefix " + shell_quote(prefix), &rc);
    ASSERT_EQ(rc, 0) << out;
    std::string libdir = prefix + "/lib";
    for (const char *d : {"/lib64", "/lib/x86_64-linux-gnu"})
        if (access((prefix + d + "/pkgconfig/wzrldap.pc").c_str(), F_OK) == 0)
            libdir = prefix + d;
    for (const std::string &path : {prefix + "/include/wzrldap.h", libdir + "/libwzr9ldap_64.so"})
        EXPECT_EQ(access(path.c_str(), F_OK), 0) << path;
    const std::string pkg_config = "PKG_CONFIG_PATH=" + shell_quote(libdir + "/pkgconfig") + " pkg-config ";
    EXPECT_EQ(output_of(pkg_config + "--modversion wzrldap", &rc), "9.0.0");
    const std::string cflags = output_of(pkg_config + "--cflags wzrldap", &rc),
                      libs = output_of(pkg_config + "--libs wzrldap", &rc);
    EXPECT_NE(libs.find("-lwzr9ldap_64"), std::string::npos) << libs;
    // The tool finds the installed library by itself (no LD_LIBRARY_PATH).
    out = output_of("env -u LD_LIBRARY_PATH " + shell_quote(prefix + "/bin/wzrldap") + " search --help", &rc);
    EXPECT_EQ(rc, 0);
    EXPECT_NE(out.find("usage: wzrldap search"), std::string::npos) << out;

    wzrtest::write_file(tmp.file("alone.cpp"), "#include <wzrldap.h>\n");
    out = output_of(shell_quote(WZR_CXX_COMPILER) + " -std=c++11 -Wall -Wextra -pedantic -Werror "
                    "-fsyntax-only " + cflags + " " + tmp.file("alone.cpp"), &rc);
    EXPECT_EQ(rc, 0) << out;
    wzrtest::write_file(tmp.file("prog.c"), kProgram);
    const std::string sanitize = WZR_SANITIZE_FLAGS;
    out = output_of(shell_quote(WZR_C_COMPILER) + " " + sanitize + " -std=c99 -Wall -Wextra -pedantic "
                    "-Werror -c -o " + tmp.file("prog.o") + " " + tmp.file("prog.c") + " " + cflags, &rc);
    ASSERT_EQ(rc, 0) << out;
    // A plain C consumer links with the C driver; a sanitized library needs the C++ runtime
    // parts of the sanitizers, which only the C++ driver brings.
    const std::string linker = sanitize.empty() ? WZR_C_COMPILER : WZR_CXX_COMPILER;
    out = output_of(shell_quote(linker) + " " + sanitize + " -o " + tmp.file("prog") + " " +
                    tmp.file("prog.o") + " " + libs, &rc);
    ASSERT_EQ(rc, 0) << out;
    const std::string run = "LD_LIBRARY_PATH=" + shell_quote(libdir) + " " + tmp.file("prog");
    char real[PATH_MAX];
    ASSERT_NE(realpath(libdir.c_str(), real), nullptr);
    out = output_of(run, &rc);
    ASSERT_EQ(rc, 0) << out;
    EXPECT_NE(out.find("loaded from " + std::string(real) + "/libwzr9ldap_64.so"), std::string::npos) << out;
    wzrtest::SlapdFixture &s = wzrtest::shared_slapd();
    WZR_REQUIRE_SLAPD(s);
    out = output_of(run + " " + shell_quote(s.uri()) + " " + shell_quote(s.base()), &rc);
    EXPECT_EQ(rc, 0) << out;
    EXPECT_NE(out.find(", 100 entries"), std::string::npos) << out; // uid=user1*: user100..user199
}

} // namespace
