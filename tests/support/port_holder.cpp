// port_holder.cpp: PortHolder, leave_port_in_time_wait and free_tcp_port.

#include "support/port_holder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <random>
#include <stdexcept>

namespace qbsmtp::test {

namespace {

int bound_socket(std::uint16_t port, std::uint32_t host, bool reuse) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (reuse) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(host);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
}

}  // namespace

PortHolder::PortHolder(std::uint16_t port) : fd_(bound_socket(port, INADDR_ANY, true)) {
    bound_ = fd_ >= 0;
}

PortHolder::~PortHolder() {
    if (fd_ >= 0) ::close(fd_);
}

bool leave_port_in_time_wait(std::uint16_t port) {
    const int listen_fd = bound_socket(port, INADDR_LOOPBACK, true);
    const int client_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool done =
        listen_fd >= 0 && ::listen(listen_fd, 1) == 0 &&
        ::connect(client_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int served_fd = done ? ::accept(listen_fd, nullptr, nullptr) : -1;
    if (listen_fd >= 0) ::close(listen_fd);
    // The served side closes first, so its end, on the port, is the one
    // that waits once the client's close has answered.
    if (served_fd >= 0) ::close(served_fd);
    pollfd p{client_fd, POLLIN, 0};
    char byte;
    done = served_fd >= 0 && ::poll(&p, 1, 20000) == 1 && ::recv(client_fd, &byte, 1, 0) == 0;
    ::close(client_fd);
    return done;
}

std::uint16_t free_tcp_port() {
    std::random_device seed;
    std::mt19937 random(seed());
    // Below the usual ephemeral range, so no outgoing connection holds it.
    std::uniform_int_distribution<int> pick(20000, 32000);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = static_cast<std::uint16_t>(pick(random));
        const int fd = bound_socket(port, INADDR_ANY, false);
        if (fd >= 0) {
            ::close(fd);
            return port;
        }
    }
    throw std::runtime_error("no free port");
}

}  // namespace qbsmtp::test
