// loopback.cpp: SmtpTestClient, ScriptedRelay and the port helpers.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <random>
#include <stdexcept>

#include "support/scripted_relay.h"
#include "support/smtp_test_client.h"

namespace qbsmtp::test {

namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in address_of(std::uint16_t port, std::uint32_t host = INADDR_LOOPBACK) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(host);
    return address;
}

// A TCP socket bound to port on host; -1 if the bind fails.
int bound_socket(std::uint16_t port, std::uint32_t host, bool reuse) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (reuse) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    const sockaddr_in address = address_of(port, host);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
}

// Waits until fd has something to read; false after the bound or a stop.
bool readable(int fd, Clock::time_point until, const std::atomic<bool>& stop, short what = POLLIN) {
    pollfd p{fd, what, 0};
    while (::poll(&p, 1, 50) == 0)
        if (stop || Clock::now() > until) return false;
    return true;
}

}  // namespace

SmtpTestClient::SmtpTestClient(std::uint16_t port, int connect_seconds) {
    const auto deadline = Clock::now() + std::chrono::seconds(connect_seconds);
    const sockaddr_in address = address_of(port);
    while ((fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) >= 0 &&
           ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        close();
        if (Clock::now() > deadline) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const timeval timeout{read_timeout_seconds, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

void SmtpTestClient::shutdown_write() {
    if (fd_ >= 0) ::shutdown(fd_, SHUT_WR);
}

void SmtpTestClient::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool SmtpTestClient::send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::string SmtpTestClient::read_line() {
    char block[65536];
    std::size_t end;
    while ((end = pending_.find("\r\n")) == std::string::npos && fd_ >= 0) {
        const ssize_t got = ::recv(fd_, block, sizeof block, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        pending_.append(block, static_cast<std::size_t>(got));
    }
    const std::size_t taken = end == std::string::npos ? pending_.size() : end + 2;
    std::string line = pending_.substr(0, taken);
    pending_.erase(0, taken);
    return line;
}

std::string SmtpTestClient::read_reply() {
    std::string reply, line;
    // The last line has a blank (or nothing) behind its code.
    do reply += line = read_line();
    while (line.ends_with("\r\n") && line.size() != 5 && (line.size() < 5 || line[3] != ' '));
    return reply;
}

std::string SmtpTestClient::read_to_close() {
    std::string bytes;
    for (std::string line; !(line = read_line()).empty();) bytes += line;
    return bytes;
}

std::string SmtpTestClient::command(std::string_view line) {
    return send(std::string(line) + "\r\n") ? read_reply() : std::string();
}

std::uint16_t free_tcp_port() {
    std::mt19937 random(std::random_device{}());
    // Below the usual ephemeral range, so no outgoing connection holds it.
    std::uniform_int_distribution<int> pick(20000, 32000);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = static_cast<std::uint16_t>(pick(random));
        const int fd = bound_socket(port, INADDR_ANY, false);
        if (fd >= 0) return ::close(fd), port;
    }
    throw std::runtime_error("no free port");
}

std::shared_ptr<void> hold_port(std::uint16_t port, bool time_wait) {
    if (!time_wait) {
        const int fd = bound_socket(port, INADDR_ANY, true);
        if (fd < 0) return nullptr;
        return std::shared_ptr<int>(new int(fd), [](int* p) { ::close(*p), delete p; });
    }
    const int listen_fd = bound_socket(port, INADDR_LOOPBACK, true);
    const int client_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = address_of(port);
    const bool connected =
        listen_fd >= 0 && ::listen(listen_fd, 1) == 0 &&
        ::connect(client_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int served_fd = connected ? ::accept(listen_fd, nullptr, nullptr) : -1;
    ::close(listen_fd);
    // The served side closes first, so its end, on the port, is the one
    // that waits once the client's close has answered.
    ::close(served_fd);
    pollfd p{client_fd, POLLIN, 0};
    char byte;
    const bool done =
        served_fd >= 0 && ::poll(&p, 1, 20000) == 1 && ::recv(client_fd, &byte, 1, 0) == 0;
    ::close(client_fd);
    return done ? std::make_shared<int>(0) : nullptr;
}

ScriptedRelay::ScriptedRelay(std::vector<Step> script, std::uint16_t port)
    : script_(std::move(script)), listen_fd_(bound_socket(port, INADDR_LOOPBACK, false)) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (listen_fd_ >= 0 && ::listen(listen_fd_, 1) == 0 &&
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { run(); });
    }
}

ScriptedRelay::~ScriptedRelay() {
    stop();
    ::close(listen_fd_);
}

int ScriptedRelay::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    return connections_.load();
}

std::string ScriptedRelay::received() {
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
}

bool ScriptedRelay::receive(int fd) {
    char chunk[65536];
    const ssize_t got = readable(fd, Clock::now() + std::chrono::seconds(20), stop_)
                            ? ::recv(fd, chunk, sizeof chunk, 0)
                            : 0;
    if (got <= 0) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t from = bytes_.empty() ? 0 : bytes_.size() - 1;
    bytes_.append(chunk, static_cast<std::size_t>(got));
    for (std::size_t at = from; (at = bytes_.find("\r\n", at)) != std::string::npos; at += 2)
        ++lines_;
    return true;
}

void ScriptedRelay::run() {
    const auto until = Clock::now() + std::chrono::seconds(20);
    if (!readable(listen_fd_, until, stop_)) return;
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    ++connections_;
    bool open = true;
    for (const Step& step : script_) {
        while (open && lines_ < step.lines) open = receive(fd);
        if (!open || step.act == Act::silent) break;
        if (step.act == Act::close) return (void)::close(fd);
        if (step.act == Act::stall) {
            // Reads nothing more until the peer has closed its side.
            readable(fd, until, stop_, POLLRDHUP);
            break;
        }
        for (std::size_t i = 0; i < step.pieces.size(); ++i) {
            // Apart, so that each piece is likely a recv of its own.
            if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
            ::send(fd, step.pieces[i].data(), step.pieces[i].size(), MSG_NOSIGNAL);
        }
    }
    while (open && receive(fd)) {
    }
    ::close(fd);
}

}  // namespace qbsmtp::test
