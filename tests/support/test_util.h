// Small helpers shared by the tests: temporary directories, scoped environment variables,
// and the walk over every allocation of an operation with the failing-allocation hook.
#ifndef WZR_TESTS_SUPPORT_TEST_UTIL_H
#define WZR_TESTS_SUPPORT_TEST_UTIL_H

#include <functional>
#include <optional>
#include <string>

namespace wzrtest {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Sets (or with nullopt unsets) one environment variable; restores it at destruction.
class ScopedEnv {
public:
    ScopedEnv(const char *name, std::optional<std::string> value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    std::string name_;
    std::optional<std::string> old_;
};

// Runs `attempt` with the 1st, 2nd, ... allocation failing until a run completes without
// reaching the failing allocation. `attempt` must release everything it got, on success
// and failure alike, and return whether it succeeded. Checks after every run that no block
// leaked and (unless a failure may be absorbed, as an optional copy may) that a run whose
// allocation failed reported failure. Returns the number of allocations walked.
int walk_alloc_failures(const std::function<bool()> &attempt, bool failure_must_show = true);

std::string read_file(const std::string &path);
// This process's resident and virtual sizes in KiB (-1 when unknown).
long resident_kib();
long virtual_kib();
void write_file(const std::string &path, const std::string &content);

// Who-am-I (1.3.6.1.4.1.4203.1.11.3) on a handle: "dn:..." for the bound identity, "" for
// anonymous, "error N" on failure; and the calling thread's recorded error message ("" for
// none). In whoami.cpp.
std::string whoami(struct ldap *ld);
std::string recorded_message(struct ldap *ld);

} // namespace wzrtest

#endif
