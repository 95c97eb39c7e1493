// The scriptable test server: an accept thread and one thread per connection, all woken by
// one stop pipe; requests framed with a BER reader of its own and recorded byte for byte.
#include "support/fake_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace wzrtest {

namespace {
constexpr unsigned OP_ABANDON = 0x50;
constexpr unsigned OP_UNBIND = 0x42;

std::string ber_length(size_t len)
{
    if (len < 0x80)
        return std::string(1, static_cast<char>(len));
    std::string bytes;
    for (size_t v = len; v != 0; v >>= 8)
        bytes.insert(bytes.begin(), static_cast<char>(v & 0xff));
    return std::string(1, static_cast<char>(0x80 | bytes.size())) + bytes;
}

void set_nonblocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

// A copy of a field the server's mutex guards, and an assignment to one.
template <typename T> T read_locked(std::mutex &m, const T &field)
{
    std::lock_guard<std::mutex> lock(m);
    return field;
}
template <typename T> void assign_locked(std::mutex &m, T &field, T value)
{
    std::lock_guard<std::mutex> lock(m);
    field = std::move(value);
}

// Reads the envelope of one request: its message id and the protocolOp tag.
void read_envelope(ReceivedRequest &req)
{
    const std::string &b = req.bytes;
    size_t pos = 1;
    if (b.size() < 2)
        return;
    unsigned char first = static_cast<unsigned char>(b[pos]);
    pos += 1 + ((first & 0x80) ? (first & 0x7f) : 0);
    if (pos + 2 > b.size() || static_cast<unsigned char>(b[pos]) != 0x02)
        return;
    size_t len = static_cast<unsigned char>(b[pos + 1]);
    pos += 2;
    if (len == 0 || len > 4 || pos + len >= b.size())
        return;
    long long id = static_cast<signed char>(b[pos]);
    for (size_t i = 1; i < len; ++i)
        id = (id << 8) | static_cast<unsigned char>(b[pos + i]);
    req.msgid = static_cast<int>(id);
    req.op = static_cast<unsigned char>(b[pos + len]);
}

} // namespace

long ber_frame_length(const std::string &buf)
{
    if (buf.size() < 2)
        return 0;
    if ((static_cast<unsigned char>(buf[0]) & 0x1f) == 0x1f)
        return -1; // LDAP PDUs have one-byte tags
    unsigned char first = static_cast<unsigned char>(buf[1]);
    size_t header = 2;
    size_t len = first;
    if (first & 0x80) {
        size_t n = first & 0x7f;
        if (n == 0 || n > 4)
            return -1;
        if (buf.size() < 2 + n)
            return 0;
        len = 0;
        for (size_t i = 0; i < n; ++i)
            len = (len << 8) | static_cast<unsigned char>(buf[2 + i]);
        header += n;
    }
    return buf.size() < header + len ? 0 : static_cast<long>(header + len);
}

// ---- building responses ----------------------------------------------------------------

std::string ber_tlv(unsigned tag, const std::string &content)
{
    return std::string(1, static_cast<char>(tag)) + ber_length(content.size()) + content;
}

std::string ber_int(long long value, unsigned tag)
{
    std::string bytes;
    long long v = value;
    do {
        bytes.insert(bytes.begin(), static_cast<char>(v & 0xff));
        v >>= 8; // arithmetic: negative values end at -1
    } while (!((v == 0 && !(bytes[0] & 0x80)) || (v == -1 && (bytes[0] & 0x80))));
    return ber_tlv(tag, bytes);
}

std::string ber_str(const std::string &value, unsigned tag) { return ber_tlv(tag, value); }
std::string ber_seq(const std::string &content, unsigned tag) { return ber_tlv(tag, content); }

std::string ldap_message(int msgid, const std::string &protocol_op, const std::string &controls)
{
    return ber_seq(ber_int(msgid) + protocol_op + controls);
}

std::string ldap_result_pdu(int msgid, unsigned op_tag, int code, const std::string &matched,
                            const std::string &text)
{
    return ldap_message(msgid,
                        ber_seq(ber_int(code, 0x0a) + ber_str(matched) + ber_str(text), op_tag));
}

std::string search_entry_pdu(int msgid, const std::string &dn, const std::vector<Attr> &attrs)
{
    std::string list;
    for (const Attr &a : attrs) {
        std::string values;
        for (const std::string &v : a.values)
            values += ber_str(v);
        list += ber_seq(ber_str(a.type) + ber_seq(values, 0x31));
    }
    return ldap_message(msgid, ber_seq(ber_str(dn) + ber_seq(list), 0x64));
}

std::string search_reference_pdu(int msgid, const std::vector<std::string> &urls)
{
    std::string content;
    for (const std::string &u : urls)
        content += ber_str(u);
    return ldap_message(msgid, ber_seq(content, 0x73));
}

std::string extended_response_pdu(int msgid, int code, const std::string &matched,
                                  const std::string &text, const std::string &name,
                                  const std::string *value)
{
    std::string content = ber_int(code, 0x0a) + ber_str(matched) + ber_str(text);
    if (!name.empty())
        content += ber_str(name, 0x8a);
    if (value != nullptr)
        content += ber_str(*value, 0x8b);
    return ldap_message(msgid, ber_seq(content, 0x78));
}

std::string notice_of_disconnection_pdu(const std::string &text)
{
    return extended_response_pdu(0, 2, "", text, "1.3.6.1.4.1.1466.20036");
}

// ---- connections ---------------------------------------------------------------------------

bool FakeConnection::send_locked(const char *data, size_t len)
{
    while (len > 0) {
        if (closed_.load())
            return false;
        ssize_t n = ::send(fd_, data, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            data += n;
            len -= static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return false;
        struct pollfd fds[2] = {{fd_, POLLOUT, 0}, {wake_fd_, POLLIN, 0}};
        if (poll(fds, 2, 1000) > 0 && (fds[1].revents & POLLIN))
            return false; // the server is stopping
    }
    return true;
}

bool FakeConnection::send(const std::string &bytes)
{
    std::lock_guard<std::mutex> lock(send_mutex_);
    return send_locked(bytes.data(), bytes.size());
}

bool FakeConnection::send_pieces(const std::string &bytes, const std::vector<size_t> &cuts,
                                 std::chrono::milliseconds pause)
{
    size_t from = 0;
    std::vector<size_t> ends = cuts;
    ends.push_back(bytes.size());
    for (size_t end : ends) {
        if (end <= from || end > bytes.size())
            continue;
        if (!send(bytes.substr(from, end - from)))
            return false;
        from = end;
        if (end != bytes.size())
            std::this_thread::sleep_for(pause);
    }
    return true;
}

void FakeConnection::close()
{
    std::lock_guard<std::mutex> lock(send_mutex_);
    if (!closed_.exchange(true))
        shutdown(fd_, SHUT_RDWR); // the reader thread sees the end and closes the descriptor
}

void FakeConnection::reset()
{
    std::lock_guard<std::mutex> lock(send_mutex_);
    if (!closed_.exchange(true)) {
        struct linger no_linger = {1, 0};
        setsockopt(fd_, SOL_SOCKET, SO_LINGER, &no_linger, sizeof no_linger);
        shutdown(fd_, SHUT_RDWR);
    }
}

void run_script(FakeConnection &conn, const Script &script)
{
    for (const Action &a : script) {
        switch (a.kind) {
        case Action::Kind::Send:
            conn.send(a.bytes);
            break;
        case Action::Kind::Pause:
            std::this_thread::sleep_for(a.pause);
            break;
        case Action::Kind::Close:
            conn.close();
            break;
        }
    }
}

// ---- the server ----------------------------------------------------------------------------

FakeServer::FakeServer()
{
    if (pipe2(wake_, O_CLOEXEC) != 0)
        return;
    tcp_fd_ = listen_tcp();
    acceptor_ = std::thread([this] { accept_loop(); });
}

FakeServer::~FakeServer()
{
    stop();
    for (auto &c : connections_)
        if (c->fd_ >= 0)
            ::close(c->fd_);
    for (int fd : {tcp_fd_, wake_[0], wake_[1]})
        if (fd >= 0)
            ::close(fd);
}

int FakeServer::listen_tcp()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0 || listen(fd, 64) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
        ::close(fd);
        return -1;
    }
    port_ = ntohs(addr.sin_port);
    return fd;
}

void FakeServer::accept_loop()
{
    for (;;) {
        struct pollfd fds[2] = {{wake_[0], POLLIN, 0}, {tcp_fd_, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            return;
        if (fds[0].revents != 0)
            return;
        if ((fds[1].revents & POLLIN) == 0)
            continue;
        int fd = accept4(tcp_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        set_nonblocking(fd);
        std::unique_lock<std::mutex> lock(mutex_);
        if (stopped_) {
            ::close(fd);
            return;
        }
        int index = static_cast<int>(connections_.size());
        connections_.emplace_back(new FakeConnection(index, fd, wake_[0]));
        FakeConnection *conn = connections_.back().get();
        threads_.emplace_back([this, conn] { serve(conn); });
        changed_.notify_all();
    }
}

void FakeServer::serve(FakeConnection *conn)
{
    ConnectHandler on_connect = read_locked(mutex_, connect_);
    if (on_connect)
        on_connect(*conn);
    std::string buffer;
    char chunk[65536];
    for (;;) {
        struct pollfd fds[2] = {{conn->fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR)
            break;
        if (fds[1].revents != 0)
            return; // stopping: the destructor closes the descriptor
        if (paused_.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            continue;
        }
        ssize_t n = read(conn->fd_, chunk, sizeof chunk);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n <= 0)
            break;
        buffer.append(chunk, static_cast<size_t>(n));
        long frame;
        while ((frame = ber_frame_length(buffer)) > 0) {
            ReceivedRequest req;
            req.connection = conn->index();
            req.bytes = buffer.substr(0, static_cast<size_t>(frame));
            buffer.erase(0, static_cast<size_t>(frame));
            read_envelope(req);
            handle(req, *conn);
        }
        if (frame < 0)
            break; // a client that sends garbage is hung up on
        IdleHandler idle = read_locked(mutex_, idle_);
        if (idle)
            idle(*conn);
    }
    conn->closed_.store(true);
    std::lock_guard<std::mutex> lock(conn->send_mutex_);
    std::lock_guard<std::mutex> server_lock(mutex_);
    ::close(conn->fd_);
    conn->fd_ = -1;
}

void FakeServer::keep_requests(bool on) { assign_locked(mutex_, keep_, on); }

void FakeServer::handle(const ReceivedRequest &req, FakeConnection &conn)
{
    Handler handler;
    Script script;
    bool scripted = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (keep_)
            requests_.push_back(req);
        changed_.notify_all();
        handler = handler_;
        if (!handler && req.op != OP_ABANDON && req.op != OP_UNBIND && !scripts_.empty()) {
            script = std::move(scripts_.front());
            scripts_.erase(scripts_.begin());
            scripted = true;
        }
    }
    if (handler)
        handler(req, conn);
    else if (scripted)
        run_script(conn, script);
}

void FakeServer::on_request(Handler handler) { assign_locked(mutex_, handler_, std::move(handler)); }
void FakeServer::on_idle(IdleHandler handler) { assign_locked(mutex_, idle_, std::move(handler)); }
void FakeServer::on_connect(ConnectHandler handler) { assign_locked(mutex_, connect_, std::move(handler)); }

void FakeServer::queue_reply(Script script)
{
    std::lock_guard<std::mutex> lock(mutex_);
    scripts_.push_back(std::move(script));
}

std::vector<ReceivedRequest> FakeServer::requests() const { return read_locked(mutex_, requests_); }
size_t FakeServer::request_count() const { return read_locked(mutex_, requests_).size(); }

bool FakeServer::wait_for_requests(size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return requests_.size() >= count; });
}

FakeConnection *FakeServer::connection(int index)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (index < 0 || static_cast<size_t>(index) >= connections_.size())
        return nullptr;
    return connections_[static_cast<size_t>(index)].get();
}

void FakeServer::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_)
            return;
        stopped_ = true;
    }
    if (wake_[1] >= 0) {
        char byte = 1;
        (void)!write(wake_[1], &byte, 1);
    }
    if (acceptor_.joinable())
        acceptor_.join();
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        threads.swap(threads_);
    }
    for (std::thread &t : threads)
        t.join();
}

} // namespace wzrtest
