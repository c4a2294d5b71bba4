// scripted_relay.cpp: the scripted loopback SMTP peer.

#include "support/scripted_relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <stdexcept>

namespace qbsmtp::test {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto accept_bound = std::chrono::seconds(20);
constexpr auto wait_bound = std::chrono::seconds(20);
constexpr const char* end_marker = "\r\n.\r\n";

}  // namespace

ScriptedRelay::Step ScriptedRelay::answer(Wait wait, std::string reply) {
    return Step{wait, {std::move(reply)}, Act::reply};
}

ScriptedRelay::Step ScriptedRelay::answer_in_pieces(Wait wait, std::vector<std::string> pieces) {
    return Step{wait, std::move(pieces), Act::reply};
}

ScriptedRelay::Step ScriptedRelay::close_after(Wait wait) {
    return Step{wait, {}, Act::close};
}

ScriptedRelay::Step ScriptedRelay::silent_after(Wait wait) {
    return Step{wait, {}, Act::silent};
}

ScriptedRelay::Step ScriptedRelay::stall_after(Wait wait) {
    return Step{wait, {}, Act::stall};
}

std::vector<ScriptedRelay::Step> ScriptedRelay::conversation(const std::string& rcpt_reply,
                                                             const std::string& end_reply,
                                                             const std::string& quit_reply) {
    return {
        answer(Wait::nothing, "220 relay.test ready\r\n"),
        answer(Wait::line, "250 relay.test\r\n"),
        answer(Wait::line, "250 sender ok\r\n"),
        answer(Wait::line, rcpt_reply),
        answer(Wait::line, "354 go ahead\r\n"),
        answer(Wait::data_end, end_reply),
        answer(Wait::line, quit_reply),
    };
}

ScriptedRelay::ScriptedRelay(std::vector<Step> script, bool keep_bytes)
    : script_(std::move(script)), keep_bytes_(keep_bytes) {
    listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0) throw std::runtime_error("relay: socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = 0;
    socklen_t length = sizeof address;
    if (::bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listen_fd_, 1) != 0 ||
        ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        ::close(listen_fd_);
        throw std::runtime_error("relay: bind/listen");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

ScriptedRelay::~ScriptedRelay() {
    stop();
    if (listen_fd_ >= 0) ::close(listen_fd_);
}

void ScriptedRelay::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

void ScriptedRelay::finish() {
    if (thread_.joinable()) thread_.join();
}

std::string ScriptedRelay::received() {
    finish();
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
}

std::size_t ScriptedRelay::received_count() {
    finish();
    std::lock_guard<std::mutex> lock(mutex_);
    return count_;
}

std::string ScriptedRelay::message() {
    finish();
    std::lock_guard<std::mutex> lock(mutex_);
    if (data_start_ == std::string::npos || data_end_ == std::string::npos) return {};
    return bytes_.substr(data_start_, data_end_ - data_start_);
}

// One recv; false at the end of the stream, on an error or when stopped.
bool ScriptedRelay::receive_some(int fd) {
    char chunk[64 * 1024];
    for (;;) {
        if (stop_) return false;
        pollfd p{fd, POLLIN, 0};
        const int ready = ::poll(&p, 1, 50);
        if (ready == 0) return true;  // nothing yet; the caller checks its bound
        if (ready < 0) return false;
        const ssize_t got = ::recv(fd, chunk, sizeof chunk, 0);
        if (got <= 0) return false;
        std::lock_guard<std::mutex> lock(mutex_);
        count_ += static_cast<std::size_t>(got);
        if (keep_bytes_ || data_start_ == std::string::npos || data_end_ != std::string::npos) {
            bytes_.append(chunk, static_cast<std::size_t>(got));
        } else {
            tail_.append(chunk, static_cast<std::size_t>(got));
            if (tail_.size() > 8) tail_.erase(0, tail_.size() - 8);
        }
        return true;
    }
}

bool ScriptedRelay::wait_for(int fd, Wait wait) {
    if (wait == Wait::nothing) return true;
    const auto deadline = Clock::now() + wait_bound;
    if (wait == Wait::data_end) {
        std::lock_guard<std::mutex> lock(mutex_);
        data_start_ = consumed_;
    }
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (wait == Wait::line) {
                const std::size_t end = bytes_.find("\r\n", consumed_);
                if (end != std::string::npos) {
                    consumed_ = end + 2;
                    return true;
                }
            } else if (keep_bytes_) {
                const std::size_t end = bytes_.find(end_marker, consumed_);
                if (end != std::string::npos) {
                    consumed_ = data_end_ = end + 5;
                    return true;
                }
            } else if (tail_.size() >= 5 && tail_.compare(tail_.size() - 5, 5, end_marker) == 0) {
                consumed_ = data_end_ = bytes_.size();
                return true;
            }
        }
        if (Clock::now() > deadline || !receive_some(fd)) return false;
    }
}

void ScriptedRelay::run() {
    const auto accept_deadline = Clock::now() + accept_bound;
    int fd = -1;
    while (!stop_ && Clock::now() < accept_deadline) {
        pollfd p{listen_fd_, POLLIN, 0};
        if (::poll(&p, 1, 50) > 0) {
            fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) break;
        }
    }
    if (fd < 0) return;
    ++connections_;
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    for (const Step& step : script_) {
        if (!wait_for(fd, step.wait)) break;
        if (step.act == Act::close) {
            ::close(fd);
            return;
        }
        if (step.act == Act::silent) break;
        if (step.act == Act::stall) {
            const auto deadline = Clock::now() + wait_bound;
            while (!stop_ && Clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            ::close(fd);
            return;
        }
        if (step.act == Act::stall) {
            const auto deadline = Clock::now() + wait_bound;
            while (!stop_ && Clock::now() < deadline) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            ::close(fd);
            return;
        }
        for (std::size_t i = 0; i < step.pieces.size(); ++i) {
            if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(30));
            const std::string& piece = step.pieces[i];
            if (::send(fd, piece.data(), piece.size(), MSG_NOSIGNAL) < 0) break;
        }
    }
    // Record whatever else comes until the client closes.
    const auto deadline = Clock::now() + wait_bound;
    while (Clock::now() < deadline && receive_some(fd)) {
    }
    ::close(fd);
}

}  // namespace qbsmtp::test
