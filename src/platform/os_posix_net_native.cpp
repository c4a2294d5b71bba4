// os_posix_net_native.cpp: the native socket and resolver calls behind
// os_posix_net_native.h. Nothing here speaks Winsock; see that header for
// why this file stands apart.
#include "platform/os_posix_net_native.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

namespace qbsmtp::os::posix::net {
namespace {

sockaddr_in make_address(std::uint32_t address, std::uint16_t port) {
    sockaddr_in native{};
    native.sin_family = AF_INET;
    native.sin_port = port;
    native.sin_addr.s_addr = address;
    return native;
}

struct FlagRow {
    Flag flag;
    int native;
};
constexpr FlagRow receive_flags[] = {
    {Flag::out_of_band, MSG_OOB}, {Flag::peek, MSG_PEEK}, {Flag::wait_all, MSG_WAITALL}};
constexpr FlagRow send_flags[] = {{Flag::out_of_band, MSG_OOB}, {Flag::dont_route, MSG_DONTROUTE}};

template <std::size_t N>
int native_flags(unsigned flags, const FlagRow (&table)[N]) {
    int native = 0;
    for (const FlagRow& row : table) {
        auto bit = static_cast<unsigned>(row.flag);
        if ((flags & bit) != 0) {
            native |= row.native;
            flags &= ~bit;
        }
    }
    return flags == 0 ? native : -1;
}

// Waits for a connect that a signal interrupted; 0 or an errno value.
int finish_interrupted_connect(int fd) {
    timeval limit{};
    socklen_t size = sizeof limit;
    ::getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &size);
    int timeout = limit.tv_sec == 0 && limit.tv_usec == 0
                      ? -1
                      : static_cast<int>(limit.tv_sec * 1000 + limit.tv_usec / 1000);
    pollfd waiting{fd, POLLOUT, 0};
    int ready;
    do {
        ready = ::poll(&waiting, 1, timeout);
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) return ETIMEDOUT;
    if (ready < 0) return errno;
    int error_number = 0;
    size = sizeof error_number;
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error_number, &size);
    return error_number;
}

struct EaiRow {
    int eai;
    int winsock;
};
constexpr EaiRow eai_table[] = {
    {EAI_NONAME, 11001},  // WSAHOST_NOT_FOUND
    {EAI_AGAIN, 11002},   // WSATRY_AGAIN
    {EAI_NODATA, 11004},  // WSANO_DATA: the name exists, without an IPv4 address
    {EAI_ADDRFAMILY, 11004},
};

}  // namespace

int open_socket(bool stream, int protocol) {
    return ::socket(AF_INET, (stream ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, protocol);
}

int bind_ipv4(int fd, std::uint32_t address, std::uint16_t port) {
    sockaddr_in native = make_address(address, port);
    return ::bind(fd, reinterpret_cast<sockaddr*>(&native), sizeof native);
}

int listen_socket(int fd, int backlog) {
    return ::listen(fd, backlog);
}

int accept_ipv4(int fd, std::uint32_t* address, std::uint16_t* port) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    int accepted;
    do {
        accepted = ::accept4(fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
    } while (accepted < 0 && errno == EINTR);
    if (accepted >= 0) {
        *address = peer.sin_addr.s_addr;
        *port = peer.sin_port;
    }
    return accepted;
}

int connect_ipv4(int fd, std::uint32_t address, std::uint16_t port) {
    sockaddr_in native = make_address(address, port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&native), sizeof native) == 0) return 0;
    if (errno != EINTR) return -1;
    int error_number = finish_interrupted_connect(fd);
    if (error_number == 0) return 0;
    errno = error_number;
    return -1;
}

int set_option(int fd, Option option, std::uint32_t value) {
    if (option == Option::receive_timeout || option == Option::send_timeout) {
        timeval limit{static_cast<time_t>(value / 1000),
                      static_cast<suseconds_t>(value % 1000) * 1000};
        int native = option == Option::receive_timeout ? SO_RCVTIMEO : SO_SNDTIMEO;
        return ::setsockopt(fd, SOL_SOCKET, native, &limit, sizeof limit);
    }
    int flag = value != 0 ? 1 : 0;
    switch (option) {
        case Option::reuse_address:
            return ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &flag, sizeof flag);
        case Option::keep_alive:
            return ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &flag, sizeof flag);
        case Option::no_delay:
            return ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &flag, sizeof flag);
        default:
            errno = ENOPROTOOPT;
            return -1;
    }
}

int shutdown_socket(int fd, int how) {
    static constexpr int native_how[] = {SHUT_RD, SHUT_WR, SHUT_RDWR};
    if (how < 0 || how > 2) {
        errno = EINVAL;
        return -1;
    }
    return ::shutdown(fd, native_how[how]);
}

long receive(int fd, char* buffer, std::size_t length, unsigned flags) {
    int native = native_flags(flags, receive_flags);
    if (native < 0) {
        errno = EOPNOTSUPP;
        return -1;
    }
    ssize_t got;
    do {
        got = ::recv(fd, buffer, length, native);
    } while (got < 0 && errno == EINTR);
    return static_cast<long>(got);
}

long send_all(int fd, const char* buffer, std::size_t length, unsigned flags) {
    int native = native_flags(flags, send_flags);
    if (native < 0) {
        errno = EOPNOTSUPP;
        return -1;
    }
    std::size_t done = 0;
    while (done < length) {
        ssize_t sent = ::send(fd, buffer + done, length - done, native | MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        done += static_cast<std::size_t>(sent);
    }
    return static_cast<long>(done);
}

int local_ipv4(int fd, std::uint32_t* address, std::uint16_t* port) {
    sockaddr_in local{};
    socklen_t length = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return -1;
    if (local.sin_family != AF_INET) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    *address = local.sin_addr.s_addr;
    *port = local.sin_port;
    return 0;
}

int close_socket(int fd) {
    struct stat status;
    if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISSOCK(status.st_mode)) {
        errno = ENOTSOCK;
        return -1;
    }
    // No retry on EINTR: Linux has released the descriptor either way.
    if (::close(fd) != 0 && errno != EINTR) return -1;
    return 0;
}

bool host_name(std::string* name) {
    char buffer[256];
    if (::gethostname(buffer, sizeof buffer) != 0) return false;
    buffer[sizeof buffer - 1] = '\0';
    *name = buffer;
    return true;
}

int resolve_ipv4(const char* name, std::string* canonical, std::vector<std::uint32_t>* addresses) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    int result = ::getaddrinfo(name, nullptr, &hints, &found);
    if (result != 0) return result;
    canonical->clear();
    addresses->clear();
    for (addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_canonname != nullptr && canonical->empty()) *canonical = entry->ai_canonname;
        if (entry->ai_family != AF_INET || entry->ai_addr == nullptr) continue;
        std::uint32_t address = reinterpret_cast<sockaddr_in*>(entry->ai_addr)->sin_addr.s_addr;
        bool seen = false;
        for (std::uint32_t known : *addresses) seen |= known == address;
        if (!seen) addresses->push_back(address);
    }
    ::freeaddrinfo(found);
    return 0;
}

int winsock_from_eai(int eai) {
    for (const EaiRow& row : eai_table)
        if (row.eai == eai) return row.winsock;
    return 11003;  // WSANO_RECOVERY
}

}  // namespace qbsmtp::os::posix::net
