// Last error slot and the errno mapping that every backend call relies on.
#include <errno.h>

#include <thread>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_posix_internal.h"

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

TEST(ErrnoMapping, SocketErrorsBecomeWinsockCodes) {
    struct Row {
        int error_number;
        int winsock;
    };
    const Row rows[] = {
        {EADDRINUSE, 10048}, {EADDRNOTAVAIL, 10049}, {ECONNREFUSED, 10061}, {ECONNRESET, 10054},
        {ETIMEDOUT, 10060},  {EAGAIN, 10060},        {ENOTCONN, 10057},     {EPIPE, 10054},
        {ENOTSOCK, 10038},   {EMFILE, 10024},        {EACCES, 10013},       {12345, 10022},
    };
    for (const Row& row : rows)
        EXPECT_EQ(posix::winsock_from_errno(row.error_number), row.winsock) << row.error_number;
}

TEST(ErrnoMapping, FileErrorsBecomeWin32Codes) {
    struct Row {
        int error_number;
        DWORD win32;
    };
    const Row rows[] = {
        {ENOENT, 2},  {ENOTDIR, 3},  {EACCES, 5}, {EPERM, 5},          {EISDIR, 5},
        {EEXIST, 80}, {ENOSPC, 112}, {EMFILE, 4}, {ENAMETOOLONG, 206}, {EBADF, 6},
        {ENOMEM, 8},  {EAGAIN, 8},   {12345, 1},
    };
    for (const Row& row : rows)
        EXPECT_EQ(posix::win32_from_errno(row.error_number), row.win32) << row.error_number;
}

}  // namespace
}  // namespace qbsmtp::os
