// load_peer.cpp: LoadPeer and the silent peers.
#include "support/load_peer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

namespace qbsmtp::test {

namespace {

int connect_bounded(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    // On Linux SO_SNDTIMEO bounds connect too.
    const timeval bound{2, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    const timeval sending{60, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sending, sizeof sending);
    return fd;
}

// Reads what fd has within milliseconds; false once the peer has closed.
bool still_open(int fd, int milliseconds) {
    pollfd watch{fd, POLLIN, 0};
    if (::poll(&watch, 1, milliseconds) <= 0) return true;
    char block[512];
    const ssize_t got = ::recv(fd, block, sizeof block, MSG_DONTWAIT);
    return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

}  // namespace

bool LoadPeer::open(std::uint16_t port, std::chrono::steady_clock::time_point give_up,
                    int& attempts, std::string* greeting) {
    for (int pause_ms = 5;; pause_ms = pause_ms < 200 ? pause_ms * 2 : 200) {
        ++attempts;
        if (try_open(port)) {
            const std::string reply = read_reply(greeting_ms);
            if (reply.rfind("220 ", 0) == 0) {
                if (greeting != nullptr) *greeting = reply;
                return true;
            }
        }
        close();
        if (std::chrono::steady_clock::now() > give_up) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
    }
}

bool LoadPeer::try_open(std::uint16_t port) {
    fd_ = connect_bounded(port);
    return fd_ >= 0;
}

bool LoadPeer::send(std::string_view bytes) {
    if (fd_ < 0) return false;
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::size_t LoadPeer::trickle(std::string_view bytes, int pause_ms) {
    std::size_t sent = 0;
    for (char c : bytes) {
        if (sent > 0) std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
        if (!send(std::string_view(&c, 1))) break;
        ++sent;
    }
    return sent;
}

std::string LoadPeer::read_reply(int milliseconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        for (std::size_t start = 0;;) {
            const std::size_t end = pending_.find("\r\n", start);
            if (end == std::string::npos) break;
            if (end - start < 4 || pending_[start + 3] == ' ') {
                std::string reply = pending_.substr(0, end + 2);
                pending_.erase(0, end + 2);
                return reply;
            }
            start = end + 2;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (fd_ < 0 || left.count() <= 0) break;
        pollfd watch{fd_, POLLIN, 0};
        if (::poll(&watch, 1, static_cast<int>(left.count())) <= 0) break;
        char block[4096];
        const ssize_t got = ::recv(fd_, block, sizeof block, 0);
        if (got <= 0) break;
        pending_.append(block, static_cast<std::size_t>(got));
    }
    std::string partial;
    partial.swap(pending_);
    return partial;
}

std::string LoadPeer::command(std::string_view line) {
    if (!send(std::string(line) + "\r\n")) return {};
    return read_reply();
}

bool LoadPeer::closed_within(int milliseconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (fd_ >= 0) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        if (!still_open(fd_, static_cast<int>(left.count()))) return true;
    }
    return true;
}

void LoadPeer::close(bool abort) {
    if (fd_ < 0) return;
    if (abort) {
        const linger hard{1, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }
    ::close(fd_);
    fd_ = -1;
    pending_.clear();
}

void LoadPeer::drain() {
    closed_within(reply_ms);
}

std::vector<int> open_silent_peers(std::uint16_t port, int count,
                                   std::chrono::steady_clock::time_point give_up) {
    std::vector<int> peers;
    for (int pause_ms = 1; static_cast<int>(peers.size()) < count;) {
        const int fd = connect_bounded(port);
        // Its greeting shows that a session took it, so connects never pile
        // up in the listen backlog.
        pollfd watch{fd, POLLIN, 0};
        char greeting[512];
        if (fd >= 0 && ::poll(&watch, 1, 3000) == 1 &&
            ::recv(fd, greeting, sizeof greeting, 0) > 0) {
            peers.push_back(fd);
            pause_ms = 1;
            continue;
        }
        if (fd >= 0) ::close(fd);
        if (std::chrono::steady_clock::now() > give_up) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
        pause_ms = pause_ms < 100 ? pause_ms * 2 : 100;
    }
    return peers;
}

int count_closed_by_peer(const std::vector<int>& peers, int milliseconds) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    std::vector<bool> closed(peers.size(), false);
    int count = 0;
    while (count < static_cast<int>(peers.size())) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        std::vector<pollfd> watch;
        std::vector<std::size_t> index;
        for (std::size_t i = 0; i < peers.size(); ++i) {
            if (closed[i]) continue;
            watch.push_back({peers[i], POLLIN, 0});
            index.push_back(i);
        }
        if (::poll(watch.data(), watch.size(), static_cast<int>(left.count())) <= 0) break;
        for (std::size_t w = 0; w < watch.size(); ++w) {
            if (watch[w].revents == 0) continue;
            if (!still_open(watch[w].fd, 0)) {
                closed[index[w]] = true;
                ++count;
            }
        }
    }
    return count;
}

void close_silent_peers(std::vector<int>& peers) {
    for (int fd : peers) ::close(fd);
    peers.clear();
}

}  // namespace qbsmtp::test
