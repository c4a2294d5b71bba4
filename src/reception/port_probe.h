// port_probe.h: asks whoever holds the SMTP port whether it is a server.
#pragma once

#include <cstdint>

namespace qbsmtp {

// port in network byte order. 1: nobody answered, the port counts as
// free; 0: another server answered (and has been reported).
int TestSMTP(const char* host, std::uint16_t port);

}  // namespace qbsmtp
