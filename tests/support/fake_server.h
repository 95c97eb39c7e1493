// A scriptable LDAP server for the tests: listens on 127.0.0.1 (port 0), records every request
// PDU byte for byte, and answers from a script or a
// callback with well-formed responses, partial PDUs with pauses, garbage, silence or an
// abrupt close. Its BER framing is its own, so it checks the library independently.
#ifndef WZR_TESTS_SUPPORT_FAKE_SERVER_H
#define WZR_TESTS_SUPPORT_FAKE_SERVER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace wzrtest {

// ---- building responses (minimal definite-length BER) -----------------------------------

std::string ber_tlv(unsigned tag, const std::string &content);
// Size of the first whole BER element at the front of `buf`: > 0 its total length, 0 when
// more bytes are needed, -1 when the header is not valid for LDAP.
long ber_frame_length(const std::string &buf);
std::string ber_int(long long value, unsigned tag = 0x02);
std::string ber_str(const std::string &value, unsigned tag = 0x04);
std::string ber_seq(const std::string &content, unsigned tag = 0x30);

// LDAPMessage ::= SEQUENCE { messageID, protocolOp, controls [0] OPTIONAL }; `controls` is
// the encoded [0] element or empty.
std::string ldap_message(int msgid, const std::string &protocol_op,
                         const std::string &controls = "");
// An LDAPResult-shaped response for any operation tag (0x61, 0x65, 0x67, 0x69, ...).
std::string ldap_result_pdu(int msgid, unsigned op_tag, int code, const std::string &matched = "",
                            const std::string &text = "");
struct Attr {
    std::string type;
    std::vector<std::string> values;
};
std::string search_entry_pdu(int msgid, const std::string &dn, const std::vector<Attr> &attrs);
std::string search_reference_pdu(int msgid, const std::vector<std::string> &urls);
// ExtendedResponse (0x78) with an optional responseName [10] and responseValue [11].
std::string extended_response_pdu(int msgid, int code, const std::string &matched,
                                  const std::string &text, const std::string &name = "",
                                  const std::string *value = nullptr);
// The notice of disconnection: message id 0, 0x78, code 2, the notice's OID as name.
std::string notice_of_disconnection_pdu(const std::string &text);

// ---- reading requests --------------------------------------------------------------------

struct ReceivedRequest {
    int connection = -1; // index of the connection it came on
    int msgid = -1;      // -1 when the envelope could not be read
    unsigned op = 0;     // protocolOp tag
    std::string bytes;   // the whole PDU as received
};

// One accepted client. Methods may be called from any thread; a closed connection ignores
// further sends.
class FakeConnection {
public:
    int index() const { return index_; }
    bool send(const std::string &bytes);
    // Sends `bytes` cut at the given offsets, sleeping `pause` between the pieces.
    bool send_pieces(const std::string &bytes, const std::vector<size_t> &cuts,
                     std::chrono::milliseconds pause);
    void close(); // orderly: the client reads end of stream
    void reset(); // abrupt: no linger, the client may see a reset
    bool closed() const { return closed_.load(); }

private:
    friend class FakeServer;
    FakeConnection(int index, int fd, int wake_fd) : index_(index), fd_(fd), wake_fd_(wake_fd) {}
    bool send_locked(const char *data, size_t len);

    int index_;
    int fd_;      // closed only by the server's reader thread or destructor
    int wake_fd_; // the server's stop pipe
    std::mutex send_mutex_;
    std::atomic<bool> closed_{false};
};

// A step of a scripted reply.
struct Action {
    enum class Kind { Send, Pause, Close };
    Kind kind;
    std::string bytes;
    std::chrono::milliseconds pause{0};
    static Action send(std::string bytes) { return {Kind::Send, std::move(bytes), {}}; }
    static Action pause_for(std::chrono::milliseconds ms) { return {Kind::Pause, {}, ms}; }
    static Action close() { return {Kind::Close, {}, {}}; }
};
using Script = std::vector<Action>;
void run_script(FakeConnection &conn, const Script &script);

class FakeServer {
public:
    // Called on the connection's thread for every request, in arrival order.
    using Handler = std::function<void(const ReceivedRequest &, FakeConnection &)>;
    // Called after every request framed from one read was handled: the moment to answer a
    // batch in a shuffled order.
    using IdleHandler = std::function<void(FakeConnection &)>;
    using ConnectHandler = std::function<void(FakeConnection &)>;

    FakeServer();
    ~FakeServer();
    FakeServer(const FakeServer &) = delete;
    FakeServer &operator=(const FakeServer &) = delete;

    int port() const { return port_; }
    std::string host_port() const { return "127.0.0.1:" + std::to_string(port_); }

    // Without a handler, each request other than abandon (0x50) and unbind (0x42) takes the
    // next queued script; with none queued it is not answered.
    void on_request(Handler handler);
    void on_idle(IdleHandler handler);
    void on_connect(ConnectHandler handler);
    void queue_reply(Script script);
    // Off: requests are answered but not kept (for runs of very many requests).
    void keep_requests(bool on);
    // On: nothing more is read from the clients (their writes back up) until it is off again.
    void pause_reading(bool on) { paused_.store(on); }

    std::vector<ReceivedRequest> requests() const;
    size_t request_count() const;
    bool wait_for_requests(size_t count,
                           std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    FakeConnection *connection(int index); // nullptr when there is no such connection

    void stop(); // idempotent; the destructor calls it

private:
    void accept_loop();
    void serve(FakeConnection *conn);
    void handle(const ReceivedRequest &req, FakeConnection &conn);
    int listen_tcp();

    int tcp_fd_ = -1;
    int port_ = 0;
    int wake_[2] = {-1, -1}; // written once by stop(); every thread polls the read end

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    Handler handler_;
    IdleHandler idle_;
    ConnectHandler connect_;
    std::vector<Script> scripts_;
    std::vector<ReceivedRequest> requests_;
    std::vector<std::unique_ptr<FakeConnection>> connections_;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
    bool stopped_ = false;
    bool keep_ = true;
    std::atomic<bool> paused_{false};
};

} // namespace wzrtest

#endif
