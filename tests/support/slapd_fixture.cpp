// The slapd test fixture: prepares the server directory through tools/slapd-sandbox.sh (the
// one place that knows the configuration and the sample tree), runs slapd in the foreground as
// our child so it is stopped and reaped by its pid, and finds a free loopback port for it.
#include "support/slapd_fixture.h"
#include "support/test_util.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace wzrtest {

namespace {

std::string sbin_dir()
{
    const char *dir = std::getenv("WZR_SLAPD_SBIN");
    return dir != nullptr && *dir != '\0' ? dir : "/usr/sbin";
}

std::string sandbox_script() { return std::string(WZR_SOURCE_DIR) + "/tools/slapd-sandbox.sh"; }
std::string kdc_script() { return std::string(WZR_SOURCE_DIR) + "/tools/kdc-sandbox.sh"; }

std::string shell_quote(const std::string &s)
{
    std::string out = "'";
    for (char c : s) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

// The ldapi socket path must fit in sun_path, so prefer a short temporary root.
std::string make_short_tempdir()
{
    std::string root = "/tmp";
    if (const char *t = std::getenv("TMPDIR"); t != nullptr && *t != '\0' && std::strlen(t) < 60)
        root = t;
    std::string templ = root + "/wzs.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr)
        return {};
    return templ;
}

int free_loopback_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len) == 0)
        port = ntohs(sa.sin_port);
    close(fd);
    return port;
}

bool port_accepts(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
    close(fd);
    return ok;
}

bool is_socket(const std::string &path)
{
    struct stat st{};
    return stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

// A process counts as gone once it has no /proc entry or is a zombie.
bool proc_gone(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!in || !std::getline(in, stat))
        return true;
    size_t paren = stat.rfind(')');
    return paren == std::string::npos || paren + 2 >= stat.size() || stat[paren + 2] == 'Z';
}

// Reaps `pid` if it is our child; otherwise looks at its state. True once it is gone.
bool reap_or_gone(pid_t pid)
{
    int status = 0;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid)
        return true;
    if (r < 0 && errno == ECHILD)
        return proc_gone(pid);
    return false;
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
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    std::string s = ss.str();
    return s.size() > 2000 ? s.substr(s.size() - 2000) : s;
}

} // namespace

int run_capture(const std::string &command, std::string *out)
{
    FILE *p = popen(command.c_str(), "r");
    if (p == nullptr)
        return -1;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) {
        if (out != nullptr)
            out->append(buf, n);
    }
    int status = pclose(p);
    if (status < 0 || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
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
std::string SlapdFixture::ldaps_uri() const
{
    return "ldaps://127.0.0.1:" + std::to_string(ldaps_port_);
}
std::string SlapdFixture::host_port() const { return "127.0.0.1:" + std::to_string(port_); }

std::string SlapdFixture::loaded_ldif() const
{
    std::ifstream in(dir_ + "/data.ldif", std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

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
        std::string extra = dir_ + "/extra.ldif";
        std::ofstream(extra, std::ios::binary) << opts.extra_ldif;
        cmd += " --extra " + shell_quote(extra);
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
    if (!opts.default_referral.empty()) // a global directive: the global additions take it
        std::ofstream(dir_ + "/global-extra.conf", std::ios::app)
            << "referral " << opts.default_referral << "\n";
    return read_env();
}

bool SlapdFixture::read_env()
{
    std::ifstream in(dir_ + "/sandbox.env");
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = line.substr(0, eq), value = line.substr(eq + 1);
        if (key == "BASE")
            base_ = value;
        else if (key == "MANAGER_DN")
            manager_dn_ = value;
        else if (key == "MANAGER_PW")
            manager_pw_ = value;
        else if (key == "USER_DN")
            user_dn_ = value;
        else if (key == "USER_PW")
            user_pw_ = value;
        else if (key == "EXTERNAL_DN")
            external_dn_ = value;
        else if (key == "LDAPI_PATH")
            ldapi_path_ = value;
        else if (key == "LDAPI_URI")
            ldapi_uri_ = value;
        else if (key == "TLS_DIR")
            tls_dir_ = value;
        else if (key == "KEYDB_PW")
            keydb_pw_ = value;
    }
    if (base_.empty() || ldapi_uri_.empty()) {
        error_ = "sandbox.env is incomplete in " + dir_;
        return false;
    }
    return true;
}

bool SlapdFixture::launch(int port, int ldaps_port)
{
    // Everything the child needs is prepared before fork: only async-signal-safe calls follow.
    std::string script = sandbox_script(), port_s = std::to_string(port), log = dir_ + "/slapd.log";
    std::string ldaps_s = ldaps_port > 0 ? std::to_string(ldaps_port) : "";
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
        if (tie_to_parent) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != parent)
                _exit(127);
        }
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            close(fd);
        }
        int devnull = open("/dev/null", O_RDONLY);
        if (devnull >= 0) {
            dup2(devnull, 0);
            close(devnull);
        }
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
                        " 2>&1",
                    &out) != 0) {
        error_ = "kdc-sandbox.sh start failed: " + out;
        return false;
    }
    kdc_ = true;
    std::ifstream env(dir_ + "/krb5/kdc.env");
    std::string line;
    while (std::getline(env, line)) {
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
        if (port_accepts(port) && is_socket(ldapi_path_) &&
            (ldaps_port_ <= 0 || port_accepts(ldaps_port_)))
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
        int port = free_loopback_port();
        int ldaps_port = 0;
        while (opts.tls && (ldaps_port == 0 || ldaps_port == port))
            ldaps_port = free_loopback_port();
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
    port_ = 0;
    ldaps_port_ = 0;
}

void SlapdFixture::remove_directory()
{
    if (dir_.empty())
        return;
    if (kdc_)
        (void)run_capture("bash " + shell_quote(kdc_script()) + " stop " +
                              shell_quote(dir_ + "/krb5") + " 2>&1",
                          nullptr);
    kdc_ = false;
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
    dir_.clear();
}

SlapdFixture &shared_slapd()
{
    // Destroyed at exit, which stops the server.
    struct Shared {
        SlapdFixture fixture;
        Shared()
        {
            if (SlapdFixture::available())
                fixture.start();
        }
    };
    static Shared shared;
    return shared.fixture;
}

SlapdFixture &tls_slapd(const std::string &verify_client)
{
    static SlapdFixture fixture;
    if (SlapdFixture::available() && !fixture.running()) {
        SlapdOptions opts;
        opts.tls = true;
        opts.verify_client = verify_client;
        (void)fixture.start(opts);
    }
    return fixture;
}

} // namespace wzrtest
