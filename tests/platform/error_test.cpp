// The last-error slot and the errno mapping that every backend call relies on.
#include <errno.h>

#include <cstdlib>
#include <map>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_posix_internal.h"
#include "support/case_table.h"

namespace qbsmtp::os {
namespace {

TEST(LastError, WinsockAndWin32ShareOnePerThreadSlot) {
    SetLastError(ERROR_DISK_FULL);
    EXPECT_EQ(WSAGetLastError(), 112);
    WSASetLastError(WSAECONNREFUSED);
    EXPECT_EQ(GetLastError(), 10061u);
    DWORD seen_in_other_thread = 1;
    std::thread([&] { seen_in_other_thread = GetLastError(); }).join();
    EXPECT_EQ(seen_in_other_thread, 0u);
    EXPECT_EQ(GetLastError(), 10061u);
}

#define ERRNO(name) \
    { #name, name }
const std::map<std::string, int> errno_values = {
    ERRNO(EPERM),        ERRNO(EACCES),       ERRNO(ENOENT),       ERRNO(ENOTDIR),
    ERRNO(EISDIR),       ERRNO(EEXIST),       ERRNO(ENOSPC),       ERRNO(EDQUOT),
    ERRNO(EMFILE),       ERRNO(ENFILE),       ERRNO(ENAMETOOLONG), ERRNO(EBADF),
    ERRNO(ENOTSOCK),     ERRNO(ENOMEM),       ERRNO(ENOBUFS),      ERRNO(EINVAL),
    ERRNO(EROFS),        ERRNO(ENOTEMPTY),    ERRNO(EINTR),        ERRNO(EAGAIN),
    ERRNO(ETIMEDOUT),    ERRNO(EINPROGRESS),  ERRNO(EPIPE),        ERRNO(ECONNRESET),
    ERRNO(ECONNREFUSED), ERRNO(ECONNABORTED), ERRNO(EADDRINUSE),   ERRNO(EADDRNOTAVAIL),
    ERRNO(ENETDOWN),     ERRNO(ENETUNREACH),  ERRNO(EHOSTUNREACH), ERRNO(ENOTCONN),
    ERRNO(EISCONN),      ERRNO(EAFNOSUPPORT), ERRNO(EOPNOTSUPP),
};
#undef ERRNO

TEST(ErrnoMapping, FileAndSocketCodesOfTheTable) {
    for (const test::Case& c : test::read_cases("platform/errno.txt", 3)) {
        const auto known = errno_values.find(c[0]);
        const int error_number =
            known != errno_values.end() ? known->second : std::atoi(c[0].c_str());
        ASSERT_NE(error_number, 0) << c.where << ": no errno named " << c[0];
        EXPECT_EQ(posix::win32_from_errno(error_number), std::stoul(c[1])) << c.where;
        EXPECT_EQ(posix::winsock_from_errno(error_number), std::stoi(c[2])) << c.where;
    }
}

TEST(ErrnoMapping, MissingFileOrMissingDirectoryOnTheWay) {
    posix::set_file_error(ENOENT, "/no-such-file-here");
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    posix::set_file_error(ENOENT, "/no-such-directory-here/file");
    EXPECT_EQ(GetLastError(), ERROR_PATH_NOT_FOUND);
}

}  // namespace
}  // namespace qbsmtp::os
