// scripted_relay.cpp: the scripted loopback SMTP peer.

#include "support/scripted_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace qbsmtp::test {

namespace {
using Clock = std::chrono::steady_clock;
constexpr auto bound = std::chrono::seconds(20);
}  // namespace

ScriptedRelay::ScriptedRelay(std::vector<Step> script, std::uint16_t port)
    : script_(std::move(script)) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    socklen_t length = sizeof address;
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        ::listen(listen_fd_, 1) == 0 &&
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
    const auto until = Clock::now() + bound;
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, 50) == 0)
        if (stop_ || Clock::now() > until) return false;
    char chunk[65536];
    const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
    if (got <= 0) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    const std::size_t from = bytes_.empty() ? 0 : bytes_.size() - 1;
    bytes_.append(chunk, static_cast<std::size_t>(got));
    for (std::size_t at = from; (at = bytes_.find("\r\n", at)) != std::string::npos; at += 2)
        ++lines_;
    return true;
}

void ScriptedRelay::run() {
    const auto until = Clock::now() + bound;
    pollfd p{listen_fd_, POLLIN, 0};
    while (::poll(&p, 1, 50) == 0)
        if (stop_ || Clock::now() > until) return;
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    ++connections_;
    bool open = true;
    for (const Step& step : script_) {
        while (open && lines_ < step.lines) open = receive(fd);
        if (!open || step.act == Act::silent) break;
        if (step.act == Act::close) {
            ::close(fd);
            return;
        }
        if (step.act == Act::stall) {
            // Reads nothing more until the peer has closed its side.
            pollfd hangup{fd, POLLRDHUP, 0};
            while (::poll(&hangup, 1, 50) == 0 && !stop_ && Clock::now() < until) {
            }
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
