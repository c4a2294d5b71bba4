// socket_timeouts.cpp: set_socket_timeouts.

#include "frame/socket_timeouts.h"

#include <algorithm>

namespace qbsmtp {

bool set_socket_timeouts(os::SOCKET socket, std::uint32_t seconds) {
    const os::DWORD milliseconds =
        static_cast<os::DWORD>(std::min<std::uint64_t>(std::uint64_t{seconds} * 1000, 0xFFFFFFFFu));
    const char* value = reinterpret_cast<const char*>(&milliseconds);
    return os::setsockopt(socket, os::SOL_SOCKET, os::SO_RCVTIMEO, value, sizeof milliseconds) ==
               0 &&
           os::setsockopt(socket, os::SOL_SOCKET, os::SO_SNDTIMEO, value, sizeof milliseconds) == 0;
}

}  // namespace qbsmtp
