// A passive loopback TCP server for tests: accepts every connection on an ephemeral port,
// reads and counts what clients send, answers nothing, and notes when each client closes.
#ifndef WZR_TESTS_SUPPORT_LOOPBACK_LISTENER_H
#define WZR_TESTS_SUPPORT_LOOPBACK_LISTENER_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace wzrtest {

class LoopbackListener {
public:
    // Binds 127.0.0.1 (or ::1 with ipv6) port 0; ok() tells whether it is listening.
    explicit LoopbackListener(bool ipv6 = false);
    ~LoopbackListener();
    LoopbackListener(const LoopbackListener &) = delete;
    LoopbackListener &operator=(const LoopbackListener &) = delete;

    bool ok() const { return port_ > 0; }
    int port() const { return port_; }
    long bytes_received() const;
    int accepted() const;

    // Wait until at least n clients were accepted / have closed; false on time-out.
    bool wait_accepted(int n, std::chrono::milliseconds limit = std::chrono::seconds(10));
    bool wait_closed(int n, std::chrono::milliseconds limit = std::chrono::seconds(10));

private:
    void run();
    bool wait_until(const int &count, int n, std::chrono::milliseconds limit);

    int listen_fd_ = -1;
    int stop_pipe_[2] = {-1, -1};
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    long bytes_ = 0;
    int accepted_ = 0;
    int closed_ = 0;
};

} // namespace wzrtest

#endif
