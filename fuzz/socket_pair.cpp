// socket_pair.cpp: AF_UNIX stream pairs for the fuzz targets.
#include "socket_pair.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace qbsmtp::fuzz {

bool make_socket_pair(int (&ends)[2]) {
    return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0;
}

bool write_all(int end, const void* bytes, std::size_t size) {
    const char* p = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t n = ::send(end, p, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

long read_some(int end, void* buffer, std::size_t size) {
    for (;;) {
        const ssize_t n = ::recv(end, buffer, size, 0);
        if (n < 0 && errno == EINTR) continue;
        return static_cast<long>(n);
    }
}

void shut_write(int end) {
    ::shutdown(end, SHUT_WR);
}

void close_end(int end) {
    ::close(end);
}

}  // namespace qbsmtp::fuzz
