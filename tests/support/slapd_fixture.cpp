// The slapd test fixture: prepares the server directory through tools/slapd-sandbox.sh (the
// one place that knows the configuration and the sample tree), runs slapd in the foreground as
// our child so it is stopped and reaped by its pid, and finds a free loopback port for it.
#include "support/slapd_fixture.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace wzrtest {

namespace {

std::string sbin_dir()
{
    const char *dir = std::getenv("WZR_SLAPD_SBIN");
    return dir != nullptr && *dir != '\0' ? dir : "/usr/sbin";
}

std::string sandbox_script() { return std::string(WZR_SOURCE_DIR) + "/tools/slapd-sandbox.sh"; }
std::string kdc_script() { return std::string(WZR_SOURCE_DIR) + "/tools/kdc-sandbox.sh"; }

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// The ldapi socket path must fit in sun_path, so prefer a short temporary root.
std::string make_short_tempdir()
{
    const char *t = std::getenv("TMPDIR");
    std::string templ = (t != nullptr && *t != '\0' && std::strlen(t) < 60 ? t : "/tmp");
    templ += "/wzs.XXXXXX";
    return mkdtemp(templ.data()) != nullptr ? templ : std::string();
}

// With `port` 0: binds an ephemeral port and returns its number; otherwise whether `port`
// accepts a connection (1) or not (0). -1 on failure.
int probe_loopback(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    socklen_t len = sizeof sa;
    auto *addr = reinterpret_cast<sockaddr *>(&sa);
    int out = port != 0 ? connect(fd, addr, sizeof sa) == 0
              : bind(fd, addr, sizeof sa) == 0 && getsockname(fd, addr, &len) == 0 ? ntohs(sa.sin_port)
                                                                                 : -1;
    close(fd);
    return out;
}

bool is_socket(const std::string &path)
{
    struct stat st{};
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// Reaps `pid` if it is our child; otherwise looks at its state (gone once it has no /proc
// entry or is a zombie). True once it is gone.
bool reap_or_gone(pid_t pid)
{
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid)
        return true;
    if (r >= 0 || errno != ECHILD)
        return false;
    std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    return paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] == 'Z';
}

bool wait_gone(pid_t pid, int millis)
{
    for (int waited = 0; waited < millis; waited += 10) {
        if (reap_or_gone(pid))
            return true;
        usleep(10 * 1000);
    }
    return reap_or_gone(pid);
}

std::string tail_of(const std::string &path)
{
    std::string s = slurp(path);
    return s.size() > 2000 ? s.substr(s.size() - 2000) : s;
}

} // namespace

std::string shell_quote(const std::string &s)
{
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

int run_capture(const std::string &command, std::string *out)
{
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr)
        return -1;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;)
        if (out != nullptr)
            out->append(buf, n);
    int status = pclose(p);
    return status < 0 || !WIFEXITED(status) ? -1 : WEXITSTATUS(status);
}

bool SlapdFixture::available()
{
    std::string sbin = sbin_dir();
    return access((sbin + "/slapd").c_str(), X_OK) == 0 &&
           access((sbin + "/slapadd").c_str(), X_OK) == 0;
}

SlapdFixture::~SlapdFixture()
{
    // A forked child of the test program (a death test) must not stop the parent's server.
    if (getpid() != owner_)
        return;
    stop();
    remove_directory();
}

std::string SlapdFixture::uri() const { return "ldap://" + host_port(); }
std::string SlapdFixture::host_port() const { return "127.0.0.1:" + std::to_string(port_); }

bool SlapdFixture::init_directory(const SlapdOptions &opts)
{
    dir_ = make_short_tempdir();
    if (dir_.empty()) {
        error_ = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    std::string cmd = "bash " + shell_quote(sandbox_script()) + " init " + shell_quote(dir_) +
                      " --bulk " + std::to_string(opts.bulk_entries);
    if (!opts.extra_ldif.empty()) {
        std::ofstream(dir_ + "/extra.ldif", std::ios::binary) << opts.extra_ldif;
        cmd += " --extra " + shell_quote(dir_ + "/extra.ldif");
    }
    if (opts.controls)
        cmd += " --controls";
    if (opts.tls)
        cmd += " --tls --verify-client " + shell_quote(opts.verify_client);
    std::string out;
    if (run_capture(cmd + " 2>&1", &out) != 0) {
        error_ = "slapd-sandbox.sh init failed: " + out;
        return false;
    }
    std::ofstream global(dir_ + "/global-extra.conf", std::ios::app); // global directives
    if (!opts.default_referral.empty())
        global << "referral " << opts.default_referral << "\n";
    if (opts.threads > 0)
        global << "threads " << opts.threads << "\n";
    return read_env();
}

bool SlapdFixture::read_env()
{
    const std::pair<const char *, std::string SlapdFixture::*> keys[] = {
        {"BASE", &SlapdFixture::base_},           {"MANAGER_DN", &SlapdFixture::manager_dn_},
        {"MANAGER_PW", &SlapdFixture::manager_pw_}, {"USER_DN", &SlapdFixture::user_dn_},
        {"USER_PW", &SlapdFixture::user_pw_},     {"LDAPI_PATH", &SlapdFixture::ldapi_path_},
        {"TLS_DIR", &SlapdFixture::tls_dir_},     {"KEYDB_PW", &SlapdFixture::keydb_pw_}};
    std::ifstream in(dir_ + "/sandbox.env");
    for (std::string line; std::getline(in, line);) {
        size_t eq = line.find('=');
        for (const auto &[key, field] : keys)
            if (eq != std::string::npos && line.compare(0, eq, key) == 0)
                this->*field = line.substr(eq + 1);
    }
    if (base_.empty() || ldapi_path_.empty()) {
        error_ = "sandbox.env is incomplete in " + dir_;
        return false;
    }
    return true;
}

bool SlapdFixture::launch(int port, int ldaps_port)
{
    // Everything the child needs is prepared before fork: only async-signal-safe calls follow.
    std::string script = sandbox_script(), port_s = std::to_string(port), log = dir_ + "/slapd.log";
    std::string ldaps_s = std::to_string(ldaps_port);
    const char *argv[] = {"bash", script.c_str(), "run", dir_.c_str(), port_s.c_str(),
                          ldaps_port > 0 ? ldaps_s.c_str() : nullptr, nullptr};
    // The death signal follows the thread that forks; only the main thread lives as long as
    // the process, so only then can the server be tied to us should the test program crash.
    bool tie_to_parent = syscall(SYS_gettid) == getpid();
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid < 0) {
        error_ = std::string("fork: ") + std::strerror(errno);
        return false;
    }
    if (pid == 0) {
        if (tie_to_parent && (prctl(PR_SET_PDEATHSIG, SIGTERM), getppid() != parent))
            _exit(127);
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int devnull = open("/dev/null", O_RDONLY);
        const int moves[][2] = {{fd, 1}, {fd, 2}, {devnull, 0}};
        for (const auto &[from, to] : moves)
            if (from >= 0)
                dup2(from, to);
        for (int f : {fd, devnull})
            if (f > 2)
                close(f);
        execvp("bash", const_cast<char *const *>(argv));
        _exit(127);
    }
    pid_ = pid;
    port_ = port;
    ldaps_port_ = ldaps_port;
    return true;
}

// The KDC (a daemon of the sandbox script, stopped by its pid file) with the user's ticket;
// then this process's Kerberos variables point into the sandbox, so slapd (started next)
// finds its key and the tests' binds the ticket.
bool SlapdFixture::start_kdc()
{
    std::string out;
    if (run_capture("bash " + shell_quote(kdc_script()) + " start " + shell_quote(dir_ + "/krb5") +
                        " 2>&1", &out) != 0) {
        error_ = "kdc-sandbox.sh start failed: " + out;
        return false;
    }
    kdc_ = true;
    std::ifstream env(dir_ + "/krb5/kdc.env");
    for (std::string line; std::getline(env, line);) {
        size_t eq = line.find('=');
        if (line.rfind("KRB5", 0) == 0 && eq != std::string::npos)
            setenv(line.substr(0, eq).c_str(), line.substr(eq + 1).c_str(), 1);
    }
    // The service key is ldap/localhost: clients name the server "localhost".
    std::ofstream(dir_ + "/global-extra.conf", std::ios::app) << "sasl-host localhost\n";
    return true;
}

bool SlapdFixture::wait_listening(int port)
{
    for (int waited = 0; waited < 20000; waited += 10) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            error_ = "slapd exited at start-up: " + tail_of(dir_ + "/slapd.log");
            return false;
        }
        if (probe_loopback(port) == 1 && is_socket(ldapi_path_) &&
            (ldaps_port_ <= 0 || probe_loopback(ldaps_port_) == 1))
            return true;
        usleep(10 * 1000);
    }
    error_ = "slapd did not listen within 20 s: " + tail_of(dir_ + "/slapd.log");
    return false;
}

bool SlapdFixture::start(const SlapdOptions &opts)
{
    if (running())
        return true;
    error_.clear();
    remove_directory();
    owner_ = getpid();
    if (!available()) {
        error_ = "slapd is not installed in " + sbin_dir();
        return false;
    }
    if (!init_directory(opts) || (opts.kerberos && !start_kdc())) {
        stop();
        remove_directory();
        return false;
    }
    // Another process may take the port between our probe and slapd's bind: try again.
    for (int attempt = 0; attempt < 5; attempt++) {
        int port = probe_loopback(0), ldaps_port = 0;
        while (opts.tls && (ldaps_port == 0 || ldaps_port == port))
            ldaps_port = probe_loopback(0);
        if (port <= 0 || ldaps_port < 0) {
            error_ = std::string("no free loopback port: ") + std::strerror(errno);
            break;
        }
        if (!launch(port, ldaps_port))
            break;
        if (wait_listening(port))
            return true;
        stop();
    }
    remove_directory();
    return false;
}

bool SlapdFixture::alive() const
{
    siginfo_t info{};
    return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0; // left to be reaped by stop()
}

void SlapdFixture::stop()
{
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        if (!wait_gone(pid_, 10000)) {
            kill(pid_, SIGKILL);
            wait_gone(pid_, 10000);
        }
        pid_ = -1;
    }
    port_ = ldaps_port_ = 0;
}

void SlapdFixture::remove_directory()
{
    if (dir_.empty())
        return;
    if (kdc_)
        (void)run_capture("bash " + shell_quote(kdc_script()) + " stop " +
                              shell_quote(dir_ + "/krb5") + " 2>&1", nullptr);
    kdc_ = false;
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    dir_.clear();
}

SlapdFixture &program_slapd(const SlapdOptions &opts)
{
    // Destroyed at exit, which stops the servers.
    static std::vector<std::pair<SlapdOptions, std::unique_ptr<SlapdFixture>>> servers;
    for (auto &[started_with, fixture] : servers)
        if (started_with == opts)
            return *fixture;
    SlapdFixture &fixture = *servers.emplace_back(opts, std::make_unique<SlapdFixture>()).second;
    if (SlapdFixture::available())
        (void)fixture.start(opts);
    return fixture;
}

} // namespace wzrtest
