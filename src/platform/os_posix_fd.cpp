// os_posix_fd.cpp: open_retrying, read_retrying, write_all, fsync_retrying.
#include "platform/os_posix_fd.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

namespace qbsmtp::os::posix {

int open_retrying(const char* name, int flags, unsigned mode) {
    int fd;
    do {
        fd = ::open(name, flags | O_CLOEXEC | O_NOCTTY, static_cast<mode_t>(mode));
    } while (fd < 0 && errno == EINTR);
    return fd;
}

long read_retrying(int fd, char* buffer, std::size_t length) {
    ssize_t got;
    do {
        got = ::read(fd, buffer, length);
    } while (got < 0 && errno == EINTR);
    return static_cast<long>(got);
}

bool write_all(int fd, const char* buffer, std::size_t length, std::size_t* done) {
    *done = 0;
    while (*done < length) {
        const ssize_t written = ::write(fd, buffer + *done, length - *done);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (written == 0) {
            errno = ENOSPC;
            return false;
        }
        *done += static_cast<std::size_t>(written);
    }
    return true;
}

int fsync_retrying(int fd) {
    // fsync is not restarted after EINTR on every file system: try again.
    int result;
    do {
        result = ::fsync(fd);
    } while (result != 0 && errno == EINTR);
    return result;
}

}  // namespace qbsmtp::os::posix
