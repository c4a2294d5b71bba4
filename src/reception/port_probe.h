// port_probe.h: asks whoever holds the SMTP port whether it is a server.
//
// TestSMTP runs on the listener thread when the port cannot be bound. It
// connects as a small SMTP client, reads one reply and says QUIT. It never
// throws and always releases its socket; every wait on the peer is bounded
// by probe_timeout (seconds, 0 = none), so the listener always gets its
// answer.
#pragma once

#include <cstdint>

namespace qbsmtp {

// port in network byte order. 1: nobody answered (no connection), the port
// counts as free; 0: something accepted the connection, which is reported
// with event 0xC00027D9 and what it said.
int TestSMTP(const char* host, std::uint16_t port);

}  // namespace qbsmtp
