// os_posix_fd.h: the robust descriptor calls that every file, directory and
// log access of the POSIX backend goes through.
//
// open, read and fsync are restarted after EINTR (a signal handler of the
// host must not turn into a failed CreateFileA or a lost event); every
// descriptor is opened close-on-exec and never becomes a controlling
// terminal; a write goes on until all bytes are out. close is called once:
// after EINTR Linux has released the descriptor already. stat, rename and
// unlink are called directly: they do not fail with EINTR. Like
// os_posix_internal.h this includes no OS header.
#pragma once

#include <cstddef>

namespace qbsmtp::os::posix {

// open(2) with O_CLOEXEC | O_NOCTTY added; -1 with errno on failure.
int open_retrying(const char* name, int flags, unsigned mode);
// One read(2) of up to length bytes: the count, 0 at the end, -1 with errno.
long read_retrying(int fd, char* buffer, std::size_t length);
// Writes all of buffer; false with errno set on failure (ENOSPC when write
// took nothing). done: the bytes written either way.
bool write_all(int fd, const char* buffer, std::size_t length, std::size_t* done);
// fsync(2): 0, or -1 with errno.
int fsync_retrying(int fd);

}  // namespace qbsmtp::os::posix
