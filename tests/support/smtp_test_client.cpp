// smtp_test_client.cpp: SmtpTestClient and free_tcp_port.

#include "support/smtp_test_client.h"

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
#include <thread>

namespace qbsmtp::test {

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// The reply is complete at a line whose fourth byte is a blank.
bool reply_complete(const std::string& text) {
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find("\r\n", start);
        if (end == std::string::npos) return false;
        if (end - start >= 4 && text[start + 3] == ' ') return true;
        if (end - start == 3) return true;  // a bare code
        start = end + 2;
    }
}

}  // namespace

SmtpTestClient::SmtpTestClient(std::uint16_t port, int connect_seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(connect_seconds);
    for (;;) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) throw std::runtime_error("socket");
        const sockaddr_in address = loopback(port);
        if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) break;
        ::close(fd_);
        fd_ = -1;
        if (std::chrono::steady_clock::now() > deadline) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    timeval timeout{read_timeout_seconds, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

SmtpTestClient::~SmtpTestClient() {
    close();
}

void SmtpTestClient::shutdown_write() {
    if (fd_ >= 0) ::shutdown(fd_, SHUT_WR);
}

void SmtpTestClient::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

void SmtpTestClient::reset() {
    const linger hard{1, 0};
    if (fd_ >= 0) ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    close();
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

int SmtpTestClient::fill() {
    if (fd_ < 0) return -1;
    char block[65536];
    for (;;) {
        const ssize_t got = ::recv(fd_, block, sizeof block, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got > 0) pending_.append(block, static_cast<std::size_t>(got));
        return static_cast<int>(got);
    }
}

std::string SmtpTestClient::read_reply() {
    while (!reply_complete(pending_))
        if (fill() <= 0) break;
    std::size_t start = 0;
    std::size_t taken = pending_.size();
    for (;;) {
        const std::size_t end = pending_.find("\r\n", start);
        if (end == std::string::npos) break;
        if (end - start == 3 || (end - start >= 4 && pending_[start + 3] == ' ')) {
            taken = end + 2;
            break;
        }
        start = end + 2;
    }
    std::string reply = pending_.substr(0, taken);
    pending_.erase(0, taken);
    return reply;
}

std::string SmtpTestClient::read_bytes(std::size_t count) {
    while (pending_.size() < count)
        if (fill() <= 0) break;
    std::string bytes = pending_.substr(0, count);
    pending_.erase(0, bytes.size());
    return bytes;
}

std::string SmtpTestClient::read_to_close() {
    while (fill() > 0) {
    }
    std::string bytes;
    bytes.swap(pending_);
    return bytes;
}

bool SmtpTestClient::silent_for(int milliseconds) {
    if (!pending_.empty()) return false;
    pollfd watch{fd_, POLLIN, 0};
    return ::poll(&watch, 1, milliseconds) == 0;
}

std::string SmtpTestClient::command(std::string_view line) {
    std::string text(line);
    text += "\r\n";
    if (!send(text)) return {};
    return read_reply();
}

PortHolder::PortHolder(std::uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    ::setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address = loopback(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    bound_ = ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

PortHolder::~PortHolder() {
    if (fd_ >= 0) ::close(fd_);
}

std::uint16_t free_tcp_port() {
    std::random_device seed;
    std::mt19937 random(seed());
    // Below the usual ephemeral range, so no outgoing connection holds it.
    std::uniform_int_distribution<int> pick(20000, 32000);
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = static_cast<std::uint16_t>(pick(random));
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = loopback(port);
        address.sin_addr.s_addr = htonl(INADDR_ANY);
        const bool free =
            ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        ::close(fd);
        if (free) return port;
    }
    throw std::runtime_error("no free port");
}

}  // namespace qbsmtp::test
