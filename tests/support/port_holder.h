// port_holder.h: the SMTP port held by something that does not serve it,
// for the tests of the listener's restart cases. (A port held by a server
// that answers is a ScriptedRelay on that port.)
#pragma once

#include <cstdint>

namespace qbsmtp::test {

// A socket bound to a port with SO_REUSEADDR that never listens.
class PortHolder {
  public:
    explicit PortHolder(std::uint16_t port);
    ~PortHolder();
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;
    bool bound() const { return bound_; }

  private:
    int fd_ = -1;
    bool bound_ = false;
};

// Leaves port held by the system alone: a loopback connection to it whose
// listening side (with SO_REUSEADDR, as a server's) closed first; nothing
// listens afterwards. False if that could not be set up.
bool leave_port_in_time_wait(std::uint16_t port);

// A TCP port on which nothing is bound now, outside the ephemeral range.
std::uint16_t free_tcp_port();

}  // namespace qbsmtp::test
