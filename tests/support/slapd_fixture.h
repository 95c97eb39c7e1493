// A real slapd for the tests: a throwaway server in a short temporary directory, loaded with
// the sample directory (tests/data, through tools/slapd-sandbox.sh), listening on a free
// loopback port and on a local socket, and stopped by its pid.
#ifndef WZR_TESTS_SUPPORT_SLAPD_FIXTURE_H
#define WZR_TESTS_SUPPORT_SLAPD_FIXTURE_H

#include <string>
#include <sys/types.h>
#include <unistd.h>

namespace wzrtest {

struct SlapdOptions {
    int bulk_entries = 0;   // generated uid=bulkNNNNNN,ou=bulk,<base> entries, ~10 attributes
    std::string extra_ldif{}; // appended to the sample tree before loading
    // A throwaway KDC (tools/kdc-sandbox.sh), slapd's key ldap/localhost and a ticket for alice;
    // this process's KRB5_CONFIG, KRB5_KDC_PROFILE, KRB5_KTNAME and KRB5CCNAME then point to it.
    bool kerberos = false;
    std::string default_referral{}; // URL the server refers to for DNs outside its suffix
    bool controls = false; // the overlays, limits and entries of tests/data/controls*
    // TLS: a CA, a server certificate (localhost, 127.0.0.1), another CA and a client
    // certificate (PKCS#12, label "operator", with a stash file) in tls_dir(), and an LDAPS
    // listener on a second free port. verify_client is slapd's TLSVerifyClient.
    bool tls = false;
    std::string verify_client = "try";
    int threads = 0; // slapd's worker pool; 0 leaves slapd's default (16)
    bool operator==(const SlapdOptions &) const = default;
};

// Start-up failures are reported by start() returning false and error() saying why; a test
// that needs the server should skip when available() is false and fail when start() fails.
class SlapdFixture {
public:
    SlapdFixture() = default;
    ~SlapdFixture();
    SlapdFixture(const SlapdFixture &) = delete;
    SlapdFixture &operator=(const SlapdFixture &) = delete;

    // Whether slapd and slapadd are installed where the fixture looks for them.
    static bool available();

    bool start(const SlapdOptions &opts = {});
    // Sends SIGTERM (SIGKILL after a grace period) and waits until the process is gone.
    void stop();
    bool running() const { return pid_ > 0; }
    bool alive() const; // started and not exited since (a crash included)
    const std::string &error() const { return error_; }

    std::string uri() const;       // "ldap://127.0.0.1:PORT"
    std::string host_port() const; // "127.0.0.1:PORT"
    int port() const { return port_; }
    int ldaps_port() const { return ldaps_port_; }
    const std::string &tls_dir() const { return tls_dir_; }
    const std::string &keydb_pw() const { return keydb_pw_; }
    pid_t pid() const { return pid_; }
    const std::string &ldapi_path() const { return ldapi_path_; }
    const std::string &base() const { return base_; }
    const std::string &manager_dn() const { return manager_dn_; }
    const std::string &manager_pw() const { return manager_pw_; }
    const std::string &user_dn() const { return user_dn_; }
    const std::string &user_pw() const { return user_pw_; }
    const std::string &dir() const { return dir_; }

private:
    bool init_directory(const SlapdOptions &opts);
    bool read_env();
    bool launch(int port, int ldaps_port);
    bool wait_listening(int port);
    bool start_kdc();
    void remove_directory();

    pid_t pid_ = -1;
    bool kdc_ = false; // a KDC runs in dir_/krb5
    pid_t owner_ = getpid();
    int port_ = 0;
    int ldaps_port_ = 0;
    std::string tls_dir_, keydb_pw_;
    std::string dir_, error_;
    std::string ldapi_path_, base_, manager_dn_, manager_pw_, user_dn_, user_pw_;
};

// One server per test program and set of options, started on first use and stopped at exit.
// Tests must leave its data as they found it (or use their own fixture).
SlapdFixture &program_slapd(const SlapdOptions &opts = {});
inline SlapdFixture &shared_slapd() { return program_slapd(); } // the sample tree alone
inline SlapdFixture &tls_slapd(const std::string &verify_client = "try")
{
    return program_slapd({.tls = true, .verify_client = verify_client});
}

// Skips the current test when slapd is not installed; fails it when the server will not start.
#define WZR_REQUIRE_SLAPD(fixture)                                                        \
    do {                                                                                 \
        if (!::wzrtest::SlapdFixture::available())                                       \
            GTEST_SKIP() << "slapd is not installed";                                    \
        ASSERT_TRUE((fixture).running()) << "slapd did not start: " << (fixture).error(); \
    } while (0)

// Runs a shell command line, capturing standard output; returns the exit status (or -1).
int run_capture(const std::string &command, std::string *out);
// `s` as one single-quoted shell word.
std::string shell_quote(const std::string &s);

} // namespace wzrtest

#endif
