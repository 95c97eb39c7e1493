// The shared object's exported surface: exactly the expected symbols, all under version wzr9,
// read from the file's own dynamic symbol table; and the exports that have bodies of their own.
#include <gtest/gtest.h>

#include <elf.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "wzrldap.h"

namespace {

// Defined global symbols of the dynamic symbol table with their version names.
struct DynamicExports {
    std::map<std::string, std::string> versions; // symbol -> version ("" when none)
    std::set<std::string> absolute;              // symbols with SHN_ABS
    std::string error;
};

template <typename T> const T *at(const std::vector<char> &file, size_t offset)
{
    if (offset + sizeof(T) > file.size())
        return nullptr;
    return reinterpret_cast<const T *>(file.data() + offset);
}

std::string c_string(const std::vector<char> &file, size_t offset)
{
    if (offset >= file.size())
        return "";
    return std::string(file.data() + offset, strnlen(file.data() + offset, file.size() - offset));
}

DynamicExports read_exports(const char *path)
{
    DynamicExports out;
    std::ifstream in(path, std::ios::binary);
    std::vector<char> file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto *eh = at<Elf64_Ehdr>(file, 0);
    if (eh == nullptr || memcmp(eh->e_ident, ELFMAG, SELFMAG) != 0 ||
        eh->e_ident[EI_CLASS] != ELFCLASS64) {
        out.error = "not a 64-bit ELF file";
        return out;
    }
    std::vector<const Elf64_Shdr *> sections;
    for (unsigned i = 0; i < eh->e_shnum; ++i)
        sections.push_back(at<Elf64_Shdr>(file, eh->e_shoff + size_t{i} * eh->e_shentsize));
    const Elf64_Shdr *dynsym = nullptr;
    const Elf64_Shdr *versym = nullptr;
    const Elf64_Shdr *verdef = nullptr;
    for (const Elf64_Shdr *s : sections) {
        if (s == nullptr) {
            out.error = "truncated section table";
            return out;
        }
        if (s->sh_type == SHT_DYNSYM)
            dynsym = s;
        else if (s->sh_type == SHT_GNU_versym)
            versym = s;
        else if (s->sh_type == SHT_GNU_verdef)
            verdef = s;
    }
    if (dynsym == nullptr || versym == nullptr || verdef == nullptr) {
        out.error = "missing .dynsym, .gnu.version or .gnu.version_d";
        return out;
    }

    // Version index -> name, from the version definitions (the base entry names the file).
    std::map<unsigned, std::string> version_names;
    size_t verdef_strings = sections[verdef->sh_link]->sh_offset;
    size_t offset = verdef->sh_offset;
    for (unsigned i = 0; i < verdef->sh_info; ++i) {
        const auto *vd = at<Elf64_Verdef>(file, offset);
        if (vd == nullptr)
            break;
        const auto *aux = at<Elf64_Verdaux>(file, offset + vd->vd_aux);
        if (aux != nullptr && (vd->vd_flags & VER_FLG_BASE) == 0)
            version_names[vd->vd_ndx] = c_string(file, verdef_strings + aux->vda_name);
        if (vd->vd_next == 0)
            break;
        offset += vd->vd_next;
    }

    size_t strings = sections[dynsym->sh_link]->sh_offset;
    size_t count = dynsym->sh_size / sizeof(Elf64_Sym);
    for (size_t i = 1; i < count; ++i) {
        const auto *sym = at<Elf64_Sym>(file, dynsym->sh_offset + i * sizeof(Elf64_Sym));
        const auto *ver = at<Elf64_Half>(file, versym->sh_offset + i * sizeof(Elf64_Half));
        if (sym == nullptr || ver == nullptr)
            break;
        int bind = ELF64_ST_BIND(sym->st_info);
        if (sym->st_shndx == SHN_UNDEF || (bind != STB_GLOBAL && bind != STB_WEAK))
            continue;
        std::string name = c_string(file, strings + sym->st_name);
        unsigned index = *ver & 0x7fff;
        out.versions[name] = version_names.count(index) ? version_names[index] : "";
        if (sym->st_shndx == SHN_ABS)
            out.absolute.insert(name);
    }
    return out;
}

const std::set<std::string> EXPECTED = {
    "wzr_ldap_init",          "wzr_ldap_unbind",         "wzr_ldap_set_option",
    "wzr_ldap_err2string",    "wzr_ldap_get_errno",      "wzr_ldap_memfree",
    "wzr_ldap_ber_free",      "wzr_ldap_url_parse",      "wzr_ldap_free_urldesc",
    "wzr_ldap_msgfree",       "wzr_ldap_simple_bind_s",  "wzr_ldap_search_st",
    "wzr_ldap_count_entries", "wzr_ldap_first_entry",    "wzr_ldap_next_entry",
    "wzr_ldap_get_dn",        "wzr_ldap_first_attribute", "wzr_ldap_next_attribute",
    "wzr_ldap_get_values_len", "wzr_ldap_value_free_len", "wzr_ldap_add_s",
    "wzr_ldap_delete_s",      "wzr_ldap_modify_s",       "wzr_ldap_modrdn_s",
    "wzr_ldap_url_search_st",
    "wzr_ldap_version_ident", "wzr_ldap_build_ident",    "wzrldap_loaded_from",
    "wzr9"};

} // namespace

TEST(Exports, DynamicSymbolTableHoldsExactlyTheInterface)
{
    DynamicExports exports = read_exports(WZR_SHARED_LIB);
    ASSERT_EQ(exports.error, "");
    std::set<std::string> found;
    for (const auto &[name, version] : exports.versions)
        found.insert(name);
    for (const std::string &name : EXPECTED)
        EXPECT_TRUE(found.count(name)) << "missing export " << name;
    for (const std::string &name : found)
        EXPECT_TRUE(EXPECTED.count(name)) << "extra export " << name;
    EXPECT_EQ(found.size(), EXPECTED.size());
}

TEST(Exports, EveryExportCarriesVersionWzr9)
{
    DynamicExports exports = read_exports(WZR_SHARED_LIB);
    ASSERT_EQ(exports.error, "");
    for (const auto &[name, version] : exports.versions)
        EXPECT_EQ(version, "wzr9") << name;
    EXPECT_TRUE(exports.absolute.count("wzr9")) << "the version node is an absolute symbol";
}

TEST(Exports, IdentificationRecordsNameTheLibrary)
{
    EXPECT_NE(strstr(wzr_ldap_version_ident, "9.0.0"), nullptr);
    EXPECT_NE(strstr(wzr_ldap_version_ident, "wzr9ldap"), nullptr);
    EXPECT_GT(strlen(wzr_ldap_build_ident), 0u);
}

TEST(Exports, FreeFunctionsTolerateNull)
{
    wzr_ldap_memfree(nullptr);
    wzr_ldap_ber_free(nullptr, 1);
    wzr_ldap_ber_free(nullptr, 0);
    wzr_ldap_value_free_len(nullptr);
    wzr_ldap_free_urldesc(nullptr);
    EXPECT_EQ(wzr_ldap_msgfree(nullptr), 0);
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

TEST(Exports, ForwardersReachTheLibrary)
{
    EXPECT_STREQ(wzr_ldap_err2string(0), "Success");
    EXPECT_STREQ(wzr_ldap_err2string(71), "Affects multiple DSAS");
    LDAP *ld = wzr_ldap_init("localhost", 0);
    ASSERT_NE(ld, nullptr);
    int limit = 10;
    EXPECT_EQ(wzr_ldap_set_option(ld, LDAP_OPT_SIZELIMIT, &limit), 0);
    EXPECT_EQ(wzr_ldap_get_errno(ld), 0);
    int bad = 9;
    EXPECT_EQ(wzr_ldap_set_option(ld, LDAP_OPT_DEREF, &bad), LDAP_PARAM_ERROR);
    EXPECT_EQ(wzr_ldap_get_errno(ld), LDAP_PARAM_ERROR);
    LDAPURLDesc *lud = nullptr;
    ASSERT_EQ(wzr_ldap_url_parse("ldap://h:1389/dc=x", &lud), 0);
    ASSERT_NE(lud, nullptr);
    EXPECT_EQ(lud->lud_port, 1389);
    wzr_ldap_free_urldesc(lud);
    EXPECT_EQ(wzr_ldap_unbind(ld), 0);
}

TEST(Exports, LoadedFromIsTheCanonicalPathFreshEachTime)
{
    char expected[PATH_MAX];
    ASSERT_NE(realpath(WZR_SHARED_LIB, expected), nullptr);
    char *first = wzrldap_loaded_from();
    char *second = wzrldap_loaded_from();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first[0], '/');
    EXPECT_STREQ(first, expected);
    EXPECT_STREQ(second, expected);
    EXPECT_NE(first, second) << "a fresh copy at each call";
    free(first);
    free(second);
}
