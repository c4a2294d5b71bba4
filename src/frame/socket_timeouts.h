// socket_timeouts.h: bounds every wait on a socket, the one way the
// session, the port probe and the sending client all use.
#pragma once

#include <cstdint>

#include "platform/os.h"

namespace qbsmtp {

// Sets SO_RCVTIMEO and SO_SNDTIMEO of socket to seconds (capped at what a
// DWORD of milliseconds holds). False, with the Winsock error kept, if
// either cannot be set.
bool set_socket_timeouts(os::SOCKET socket, std::uint32_t seconds);

}  // namespace qbsmtp
