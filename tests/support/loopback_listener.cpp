// Passive loopback server: one thread polls the listening socket, the clients and a stop pipe.
#include "support/loopback_listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace wzrtest {

LoopbackListener::LoopbackListener(bool ipv6)
{
    listen_fd_ = socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    if (listen_fd_ < 0 || pipe(stop_pipe_) != 0)
        return;
    sockaddr_in a4{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_in6 a6{};
    a6.sin6_family = AF_INET6;
    a6.sin6_addr = in6addr_loopback;
    auto *sa = ipv6 ? reinterpret_cast<sockaddr *>(&a6) : reinterpret_cast<sockaddr *>(&a4);
    socklen_t len = ipv6 ? sizeof a6 : sizeof a4;
    if (bind(listen_fd_, sa, len) != 0 || listen(listen_fd_, 16) != 0 ||
        getsockname(listen_fd_, sa, &len) != 0)
        return;
    port_ = ntohs(ipv6 ? a6.sin6_port : a4.sin_port);
    thread_ = std::thread([this] { run(); });
}

LoopbackListener::~LoopbackListener()
{
    if (thread_.joinable()) {
        char stop = 1;
        (void)!write(stop_pipe_[1], &stop, 1);
        thread_.join();
    }
    for (int fd : {listen_fd_, stop_pipe_[0], stop_pipe_[1]})
        if (fd >= 0)
            close(fd);
}

void LoopbackListener::run()
{
    std::vector<int> clients;
    for (;;) {
        std::vector<pollfd> fds{{stop_pipe_[0], POLLIN, 0}, {listen_fd_, POLLIN, 0}};
        for (int c : clients)
            fds.push_back({c, POLLIN, 0});
        if (poll(fds.data(), fds.size(), -1) < 0)
            continue;
        if (fds[0].revents != 0)
            break;
        if (fds[1].revents & POLLIN) {
            int c = accept(listen_fd_, nullptr, nullptr);
            if (c >= 0) {
                clients.push_back(c);
                std::lock_guard<std::mutex> lock(mutex_);
                ++accepted_;
                changed_.notify_all();
            }
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            if (fds[i].revents == 0)
                continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            std::lock_guard<std::mutex> lock(mutex_);
            if (n > 0) {
                bytes_ += n;
            } else {
                close(fds[i].fd);
                std::erase(clients, fds[i].fd);
                ++closed_;
            }
            changed_.notify_all();
        }
    }
    for (int c : clients)
        close(c);
}

long LoopbackListener::bytes_received() const { std::lock_guard<std::mutex> lock(mutex_); return bytes_; }
int LoopbackListener::accepted() const { std::lock_guard<std::mutex> lock(mutex_); return accepted_; }

bool LoopbackListener::wait_until(const int &count, int n, std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count >= n; });
}

bool LoopbackListener::wait_accepted(int n, std::chrono::milliseconds limit) { return wait_until(accepted_, n, limit); }

bool LoopbackListener::wait_closed(int n, std::chrono::milliseconds limit) { return wait_until(closed_, n, limit); }

} // namespace wzrtest
