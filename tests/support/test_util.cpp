// Temporary directories, scoped environment variables and the allocation-failure walk.
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "liblber/ber_memory.h"

namespace {
// Every test program counts allocations from the start, so that leak checks see every block.
const bool accounting_on = (lber_set_accounting(true), true);
} // namespace

namespace wzrtest {

TempDir::TempDir()
{
    const char *base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/wzrt.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr)
        ADD_FAILURE() << "mkdtemp failed";
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

namespace {
void set_or_unset(const char *name, const std::optional<std::string> &value)
{
    value ? setenv(name, value->c_str(), 1) : unsetenv(name);
}
} // namespace

ScopedEnv::ScopedEnv(const char *name, std::optional<std::string> value) : name_(name)
{
    if (const char *old = std::getenv(name))
        old_ = old;
    set_or_unset(name, value);
}

ScopedEnv::~ScopedEnv() { set_or_unset(name_.c_str(), old_); }

int walk_alloc_failures(const std::function<bool()> &attempt, bool failure_must_show)
{
    for (int n = 1; n < 100000; ++n) {
        long live_before = lber_live_blocks();
        long calls_before = lber_alloc_calls();
        lber_fail_nth_alloc(n);
        bool ok = attempt();
        long calls = lber_alloc_calls() - calls_before;
        lber_fail_nth_alloc(0);
        EXPECT_EQ(lber_live_blocks(), live_before) << "leak when allocation " << n << " failed";
        if (calls < n) // the failing allocation was never reached: the walk is complete
            return n - 1;
        EXPECT_FALSE(failure_must_show && ok) << "allocation " << n << " failed but the operation reported success";
    }
    ADD_FAILURE() << "allocation walk did not end";
    return -1;
}

std::string read_file(const std::string &path)
{
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

namespace {
// Field 0 (size) or 1 (resident) of /proc/self/statm, in KiB.
long statm_kib(int field)
{
    long pages[2] = {-1, -1};
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr)
        return -1;
    if (fscanf(f, "%ld %ld", &pages[0], &pages[1]) != 2)
        pages[field] = -1;
    fclose(f);
    return pages[field] < 0 ? -1 : pages[field] * (sysconf(_SC_PAGESIZE) / 1024);
}
} // namespace

long resident_kib() { return statm_kib(1); }
long virtual_kib() { return statm_kib(0); }

} // namespace wzrtest
