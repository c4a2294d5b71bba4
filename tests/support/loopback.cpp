// loopback.cpp: SmtpTestClient, ScriptedRelay and the port helpers.

#ifdef _WIN32
// Winsock under the POSIX names used below. The time-outs of a socket are
// a DWORD of milliseconds there; a stall waits for any readiness.
#include <winsock2.h>
#include <ws2tcpip.h>
#define poll WSAPoll
#define accept4(s, a, l, f) accept(s, a, l)
#define SOCK_CLOEXEC 0
#define MSG_NOSIGNAL 0
#define POLLRDHUP POLLRDNORM
#define SHUT_WR SD_SEND
#define SHUT_RDWR SD_BOTH
static const bool winsock_started = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data) == 0;
}();
#else
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#define closesocket close
#endif

#include <cerrno>
#include <chrono>
#include <random>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "support/scripted_relay.h"
#include "support/smtp_test_client.h"

namespace qbsmtp::test {

namespace {

using Clock = std::chrono::steady_clock;
const int bound_seconds = 20;  // on every wait of a peer

// Bounds the waits of option (SO_RCVTIMEO, SO_SNDTIMEO) on fd.
void bound_waits(int fd, int option) {
#ifdef _WIN32
    const DWORD bound = bound_seconds * 1000;
#else
    const timeval bound{bound_seconds, 0};
#endif
    ::setsockopt(fd, SOL_SOCKET, option, reinterpret_cast<const char*>(&bound), sizeof bound);
}

sockaddr_in address_of(std::uint16_t port, std::uint32_t host = INADDR_LOOPBACK) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(host);
    return address;
}

void close_socket(int fd) {
    ::closesocket(fd);
}

pollfd watching(int fd, short events) {
    pollfd watch{};
    watch.fd = fd;
    watch.events = events;
    return watch;
}

// A TCP socket bound to port on host; -1 if the bind fails.
int bound_socket(std::uint16_t port, std::uint32_t host, bool reuse) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    if (reuse)
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char*>(&one), sizeof one);
    const sockaddr_in address = address_of(port, host);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return fd;
    close_socket(fd);
    return -1;
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
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&one), sizeof one);
    bound_waits(fd_, SO_RCVTIMEO);
    bound_waits(fd_, SO_SNDTIMEO);
}

void SmtpTestClient::shutdown_write() {
    if (fd_ >= 0) ::shutdown(fd_, SHUT_WR);
}

void SmtpTestClient::close() {
    if (fd_ >= 0) close_socket(fd_);
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

void SmtpTestClient::reset() {
    const linger hard{1, 0};
    if (fd_ >= 0)
        ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&hard), sizeof hard);
    close();
}

bool SmtpTestClient::silent_for(int milliseconds) {
    if (!pending_.empty()) return false;
    pollfd watch = watching(fd_, POLLIN);
    return ::poll(&watch, 1, milliseconds) == 0;
}

std::string SmtpTestClient::command(std::string_view line) {
    return send(std::string(line) + "\r\n") ? read_reply() : std::string();
}

std::uint16_t free_tcp_port() {
    std::mt19937 random(std::random_device{}());
    for (int attempt = 0; attempt < 1000; ++attempt) {
        // Below the usual ephemeral range, so no outgoing connection holds it.
        const auto port = static_cast<std::uint16_t>(20000 + random() % 12000);
        if (const int fd = bound_socket(port, INADDR_ANY, false); fd >= 0)
            return close_socket(fd), port;
    }
    throw std::runtime_error("no free port");
}

std::shared_ptr<void> hold_port(std::uint16_t port, bool time_wait) {
    if (!time_wait) {
        const int fd = bound_socket(port, INADDR_ANY, true);
        if (fd < 0) return nullptr;
        return std::shared_ptr<int>(new int(fd), [](int* p) { close_socket(*p), delete p; });
    }
    const int listen_fd = bound_socket(port, INADDR_LOOPBACK, true);
    const int client_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = address_of(port);
    const bool connected =
        listen_fd >= 0 && ::listen(listen_fd, 1) == 0 &&
        ::connect(client_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int served_fd = connected ? ::accept(listen_fd, nullptr, nullptr) : -1;
    close_socket(listen_fd);
    // The served side closes first, so its end, on the port, is the one
    // that waits once the client's close has answered.
    close_socket(served_fd);
    pollfd p = watching(client_fd, POLLIN);
    char byte;
    const bool done =
        served_fd >= 0 && ::poll(&p, 1, 20000) == 1 && ::recv(client_fd, &byte, 1, 0) == 0;
    close_socket(client_fd);
    return done ? std::make_shared<int>(0) : nullptr;
}

ScriptedRelay::ScriptedRelay(std::vector<Step> script, std::uint16_t port)
    : script_(std::move(script)), listen_fd_(bound_socket(port, INADDR_LOOPBACK, false)) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (listen_fd_ >= 0 && ::listen(listen_fd_, 1) == 0 &&
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        port_ = ntohs(address.sin_port);
        bound_waits(listen_fd_, SO_RCVTIMEO);  // accept too
        thread_ = std::thread([this] { run(); });
    }
}

int ScriptedRelay::stop() {
#ifdef _WIN32
    // Winsock ends a wait in accept at the socket's close, not at shutdown.
    if (listen_fd_ >= 0) close_socket(std::exchange(listen_fd_, -1));
#endif
    if (listen_fd_ >= 0) ::shutdown(listen_fd_, SHUT_RDWR);  // ends a wait in accept
    if (thread_.joinable()) thread_.join();
    if (listen_fd_ >= 0) close_socket(std::exchange(listen_fd_, -1));
    return connections_.load();
}

void ScriptedRelay::run() {
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    ++connections_;
    bound_waits(fd, SO_RCVTIMEO);
    std::size_t lines = 0;
    // Reads what came; false at the peer's close, an error or the bound.
    const auto receive = [&] {
        char chunk[65536];
        const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
        if (got <= 0) return false;
        for (const char c : std::string_view(chunk, static_cast<std::size_t>(got)))
            lines += (bytes_ += c).ends_with("\r\n");
        return true;
    };
    bool open = true;
    for (const Step& step : script_) {
        while (open && lines < step.lines) open = receive();
        if (!open || step.act == Act::silent) break;
        if (step.act == Act::close) return (void)close_socket(fd);
        if (step.act == Act::stall) {
            // Reads nothing more until the peer has closed its side.
            pollfd hangup = watching(fd, POLLRDHUP);
            ::poll(&hangup, 1, bound_seconds * 1000);
            break;
        }
        for (std::size_t i = 0; i < step.pieces.size(); ++i) {
            // Apart, so that each piece is likely a recv of its own.
            if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
            ::send(fd, step.pieces[i].data(), step.pieces[i].size(), MSG_NOSIGNAL);
        }
    }
    while (open && receive()) {
    }
    close_socket(fd);
}

}  // namespace qbsmtp::test
