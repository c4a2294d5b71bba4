// smtp_test_client.cpp: SmtpTestClient.

#include "support/smtp_test_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>

namespace qbsmtp::test {

SmtpTestClient::SmtpTestClient(std::uint16_t port, int connect_seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(connect_seconds);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (;;) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0) throw std::runtime_error("socket");
        if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) break;
        close();
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
    std::string reply;
    for (;;) {
        const std::string line = read_line();
        reply += line;
        // The last line has a blank (or nothing) behind its code.
        if (!line.ends_with("\r\n") || line.size() == 5 || (line.size() > 5 && line[3] == ' '))
            return reply;
    }
}

std::string SmtpTestClient::read_to_close() {
    std::string bytes;
    for (std::string line; !(line = read_line()).empty();) bytes += line;
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

}  // namespace qbsmtp::test
