// os_posix_socket.cpp: blocking IPv4 sockets with Winsock conventions.
//
// A SOCKET is the descriptor itself; every descriptor is close-on-exec.
// Addresses arrive and leave in Winsock's 16-byte sockaddr_in. Failures
// give SOCKET_ERROR or INVALID_SOCKET with the Winsock code in the thread's
// last error (os_posix_error.cpp maps errno). The native calls are in
// os_posix_net_native.cpp.
//
// Platform quirks relied upon:
// - send() loops until every byte is out, as a blocking Winsock send does,
//   with MSG_NOSIGNAL, so a closed peer gives an error and not SIGPIPE.
// - SO_RCVTIMEO and SO_SNDTIMEO take Winsock's DWORD milliseconds (0 = no
//   limit). On Linux SO_SNDTIMEO also bounds connect(), which then fails
//   with EINPROGRESS; that, and a timed-out recv or send (EAGAIN), is
//   WSAETIMEDOUT. The sending side uses this as its connect time-out.
// - closesocket() refuses a descriptor that is not a socket, so a stray
//   value cannot close a file of the host.
#include <cerrno>
#include <climits>
#include <cstring>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"
#include "platform/os_posix_net_native.h"

namespace qbsmtp::os {
namespace {

using posix::net::Option;

constexpr int winsock_ipproto_tcp = 6;
constexpr int winsock_tcp_nodelay = 1;
constexpr int winsock_so_keepalive = 8;
constexpr int winsock_sock_dgram = 2;

int fd_of(SOCKET s) {
    return s > static_cast<SOCKET>(INT_MAX) ? -1 : static_cast<int>(s);
}

int fail(int code) {
    WSASetLastError(code);
    return SOCKET_ERROR;
}

int fail_errno() {
    return fail(posix::winsock_from_errno(errno));
}

// Checks a Winsock address; 0 or the Winsock code to fail with.
int check_address(const sockaddr* address, int length) {
    if (address == nullptr || length < static_cast<int>(sizeof(sockaddr_in))) return WSAEFAULT;
    if (reinterpret_cast<const sockaddr_in*>(address)->sin_family != AF_INET)
        return WSAEAFNOSUPPORT;
    return 0;
}

struct OptionRow {
    int level;
    int option;
    Option native;
};
constexpr OptionRow options[] = {
    {SOL_SOCKET, SO_REUSEADDR, Option::reuse_address},
    {SOL_SOCKET, winsock_so_keepalive, Option::keep_alive},
    {SOL_SOCKET, SO_RCVTIMEO, Option::receive_timeout},
    {SOL_SOCKET, SO_SNDTIMEO, Option::send_timeout},
    {winsock_ipproto_tcp, winsock_tcp_nodelay, Option::no_delay},
};

}  // namespace

SOCKET socket(int family, int type, int protocol) {
    if (fault_hit(Op::socket)) return INVALID_SOCKET;
    int problem = family != AF_INET                                     ? WSAEAFNOSUPPORT
                  : (type != SOCK_STREAM && type != winsock_sock_dgram) ? WSAESOCKTNOSUPPORT
                                                                        : 0;
    if (problem != 0) {
        WSASetLastError(problem);
        return INVALID_SOCKET;
    }
    int fd = posix::net::open_socket(type == SOCK_STREAM, protocol);
    if (fd < 0) {
        fail_errno();
        return INVALID_SOCKET;
    }
    return static_cast<SOCKET>(fd);
}

int bind(SOCKET s, const sockaddr* address, int length) {
    if (fault_hit(Op::bind)) return SOCKET_ERROR;
    if (int problem = check_address(address, length)) return fail(problem);
    const auto* in = reinterpret_cast<const sockaddr_in*>(address);
    return posix::net::bind_ipv4(fd_of(s), in->sin_addr.s_addr, in->sin_port) == 0 ? 0
                                                                                   : fail_errno();
}

int setsockopt(SOCKET s, int level, int option, const char* value, int length) {
    if (fault_hit(Op::setsockopt)) return SOCKET_ERROR;
    if (value == nullptr || length < static_cast<int>(sizeof(DWORD))) return fail(WSAEFAULT);
    const OptionRow* row = nullptr;
    for (const OptionRow& candidate : options)
        if (candidate.level == level && candidate.option == option) row = &candidate;
    if (row == nullptr) return fail(WSAENOPROTOOPT);
    DWORD number;
    std::memcpy(&number, value, sizeof number);
    return posix::net::set_option(fd_of(s), row->native, number) == 0 ? 0 : fail_errno();
}

int listen(SOCKET s, int backlog) {
    if (fault_hit(Op::listen)) return SOCKET_ERROR;
    return posix::net::listen_socket(fd_of(s), backlog) == 0 ? 0 : fail_errno();
}

SOCKET accept(SOCKET s, sockaddr* address, int* length) {
    if (fault_hit(Op::accept)) return INVALID_SOCKET;
    if (address != nullptr &&
        (length == nullptr || *length < static_cast<int>(sizeof(sockaddr_in)))) {
        WSASetLastError(WSAEFAULT);
        return INVALID_SOCKET;
    }
    std::uint32_t peer_address = 0;
    std::uint16_t peer_port = 0;
    int fd = posix::net::accept_ipv4(fd_of(s), &peer_address, &peer_port);
    if (fd < 0) {
        fail_errno();
        return INVALID_SOCKET;
    }
    if (address != nullptr) {
        sockaddr_in peer{};
        peer.sin_family = AF_INET;
        peer.sin_port = peer_port;
        peer.sin_addr.s_addr = peer_address;
        std::memcpy(address, &peer, sizeof peer);
        *length = sizeof peer;
    }
    return static_cast<SOCKET>(fd);
}

int connect(SOCKET s, const sockaddr* address, int length) {
    if (fault_hit(Op::connect)) return SOCKET_ERROR;
    if (int problem = check_address(address, length)) return fail(problem);
    const auto* in = reinterpret_cast<const sockaddr_in*>(address);
    return posix::net::connect_ipv4(fd_of(s), in->sin_addr.s_addr, in->sin_port) == 0
               ? 0
               : fail_errno();
}

int shutdown(SOCKET s, int how) {
    if (how < SD_RECEIVE || how > SD_BOTH) return fail(WSAEINVAL);
    return posix::net::shutdown_socket(fd_of(s), how) == 0 ? 0 : fail_errno();
}

int recv(SOCKET s, char* buffer, int length, int flags) {
    if (fault_hit(Op::recv)) return SOCKET_ERROR;
    if (length < 0 || (buffer == nullptr && length > 0)) return fail(WSAEFAULT);
    long got = posix::net::receive(fd_of(s), buffer, static_cast<std::size_t>(length),
                                   static_cast<unsigned>(flags));
    return got < 0 ? fail_errno() : static_cast<int>(got);
}

int send(SOCKET s, const char* buffer, int length, int flags) {
    if (fault_hit(Op::send)) return SOCKET_ERROR;
    if (length < 0 || (buffer == nullptr && length > 0)) return fail(WSAEFAULT);
    long sent = posix::net::send_all(fd_of(s), buffer, static_cast<std::size_t>(length),
                                     static_cast<unsigned>(flags));
    return sent < 0 ? fail_errno() : static_cast<int>(sent);
}

int getsockname(SOCKET s, sockaddr* address, int* length) {
    if (address == nullptr || length == nullptr || *length < static_cast<int>(sizeof(sockaddr_in)))
        return fail(WSAEFAULT);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    std::uint32_t local_address = 0;
    std::uint16_t local_port = 0;
    if (posix::net::local_ipv4(fd_of(s), &local_address, &local_port) != 0) return fail_errno();
    local.sin_addr.s_addr = local_address;
    local.sin_port = local_port;
    std::memcpy(address, &local, sizeof local);
    *length = sizeof local;
    return 0;
}

int closesocket(SOCKET s) {
    return posix::net::close_socket(fd_of(s)) == 0 ? 0 : fail_errno();
}

}  // namespace qbsmtp::os
