// port_holder.cpp: ScriptedPortHolder and leave_port_in_time_wait.

#include "support/port_holder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace qbsmtp::test {

namespace {

constexpr int wait_seconds = 20;

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool readable(int fd, int seconds) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, seconds * 1000) == 1;
}

}  // namespace

ScriptedPortHolder::ScriptedPortHolder(std::uint16_t port, Part part, std::string words)
    : part_(part), words_(std::move(words)) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    listening_ =
        listen_fd_ >= 0 &&
        ::bind(listen_fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(listen_fd_, 1) == 0;
    if (listening_) thread_ = std::thread([this] { run(); });
}

ScriptedPortHolder::~ScriptedPortHolder() {
    if (thread_.joinable()) thread_.join();
    if (listen_fd_ >= 0) ::close(listen_fd_);
}

std::string ScriptedPortHolder::received() {
    if (thread_.joinable()) thread_.join();
    return received_;
}

void ScriptedPortHolder::run() {
    if (!readable(listen_fd_, wait_seconds)) return;
    const int fd = ::accept(listen_fd_, nullptr, nullptr);
    if (fd < 0) return;
    if (part_ == Part::greet) ::send(fd, words_.data(), words_.size(), MSG_NOSIGNAL);
    bool answered = false;
    char buffer[512];
    while (part_ != Part::close_at_once && readable(fd, wait_seconds)) {
        const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got <= 0) break;
        received_.append(buffer, static_cast<std::size_t>(got));
        if (part_ == Part::greet && !answered && received_.find("\r\n") != std::string::npos) {
            ::send(fd, "221 bye\r\n", 9, MSG_NOSIGNAL);
            answered = true;
        }
    }
    ::close(fd);
}

bool leave_port_in_time_wait(std::uint16_t port) {
    const sockaddr_in address = loopback(port);
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    const int listen_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int client_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // As servers do: Linux lets a later SO_REUSEADDR bind share the port
    // with a TIME_WAIT end only if the socket that left it had the option.
    const int one = 1;
    ::setsockopt(listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    bool done = ::bind(listen_fd, name, sizeof address) == 0 && ::listen(listen_fd, 1) == 0 &&
                ::connect(client_fd, name, sizeof address) == 0;
    const int served_fd = done ? ::accept(listen_fd, nullptr, nullptr) : -1;
    ::close(listen_fd);
    if (served_fd >= 0) {
        // The served side sends the first FIN, so its end, on the port,
        // goes to TIME_WAIT once the client's FIN has come back.
        ::close(served_fd);
        char byte;
        done = readable(client_fd, wait_seconds) && ::recv(client_fd, &byte, 1, 0) == 0;
    } else {
        done = false;
    }
    ::close(client_fd);
    // Let the client's FIN and its acknowledgement cross loopback.
    ::usleep(50 * 1000);
    return done;
}

}  // namespace qbsmtp::test
