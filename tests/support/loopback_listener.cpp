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
    sockaddr_storage ss{};
    socklen_t len;
    if (ipv6) {
        auto *a = reinterpret_cast<sockaddr_in6 *>(&ss);
        a->sin6_family = AF_INET6;
        a->sin6_addr = in6addr_loopback;
        len = sizeof *a;
    } else {
        auto *a = reinterpret_cast<sockaddr_in *>(&ss);
        a->sin_family = AF_INET;
        a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        len = sizeof *a;
    }
    if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&ss), len) != 0 ||
        listen(listen_fd_, 16) != 0)
        return;
    len = sizeof ss;
    if (getsockname(listen_fd_, reinterpret_cast<sockaddr *>(&ss), &len) != 0)
        return;
    port_ = ntohs(ipv6 ? reinterpret_cast<sockaddr_in6 *>(&ss)->sin6_port
                       : reinterpret_cast<sockaddr_in *>(&ss)->sin_port);
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

long LoopbackListener::bytes_received() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
}

int LoopbackListener::accepted() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return accepted_;
}

bool LoopbackListener::wait_until(const int &count, int n, std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return count >= n; });
}

bool LoopbackListener::wait_accepted(int n, std::chrono::milliseconds limit) { return wait_until(accepted_, n, limit); }

bool LoopbackListener::wait_closed(int n, std::chrono::milliseconds limit) { return wait_until(closed_, n, limit); }

} // namespace wzrtest
