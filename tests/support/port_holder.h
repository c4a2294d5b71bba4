// port_holder.h: another process's use of the SMTP port, played on
// loopback for the tests of the port conflict probe.
//
// Plain POSIX sockets, not the module's platform layer, so the module's
// fault seam never sees them. Every wait is bounded.
#pragma once

#include <cstdint>
#include <string>
#include <thread>

namespace qbsmtp::test {

// Listens on 127.0.0.1:port, accepts one connection and plays its part.
class ScriptedPortHolder {
  public:
    enum class Part {
        greet,          // sends words, answers the first line with 221, reads to close
        silent,         // says nothing, reads to close
        close_at_once,  // closes the connection it accepted
    };

    ScriptedPortHolder(std::uint16_t port, Part part, std::string words = {});
    ~ScriptedPortHolder();
    ScriptedPortHolder(const ScriptedPortHolder&) = delete;
    ScriptedPortHolder& operator=(const ScriptedPortHolder&) = delete;

    bool listening() const { return listening_; }
    // What the peer sent, once it has closed (or the bound ran out).
    std::string received();

  private:
    void run();

    Part part_;
    std::string words_;
    int listen_fd_ = -1;
    bool listening_ = false;
    std::thread thread_;
    std::string received_;
};

// Leaves port on this machine in TIME_WAIT only: a connection to it on
// loopback whose listening side closed first; nothing listens afterwards.
// The socket had SO_REUSEADDR, as a server's has. False if that could not
// be set up.
bool leave_port_in_time_wait(std::uint16_t port);

}  // namespace qbsmtp::test
