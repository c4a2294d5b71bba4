// smtp_test_client.h: a loopback SMTP client for the tests, and the SMTP
// port held by something that does not serve it.
//
// Built on plain POSIX sockets (in loopback.cpp), not on the module's
// platform layer, so a fault armed for the module never hits the test's
// own traffic. Every read is bounded by a time-out, so a test fails
// instead of hanging.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qbsmtp::test {

class SmtpTestClient {
  public:
    // Connects to 127.0.0.1:port; while nothing listens yet (the listener
    // binds on its own thread) it tries again, for up to connect_seconds.
    explicit SmtpTestClient(std::uint16_t port, int connect_seconds = 10);
    ~SmtpTestClient() { close(); }
    SmtpTestClient(const SmtpTestClient&) = delete;
    SmtpTestClient& operator=(const SmtpTestClient&) = delete;

    bool connected() const { return fd_ >= 0; }
    // The socket, for a TLS channel laid over it (the dialogue's starttls).
    int fd() const { return fd_; }
    // Sends all bytes; false when the connection refused them.
    bool send(std::string_view bytes);
    // One line with its CR LF; what came if the connection ended first.
    std::string read_line();
    // One complete reply, all its lines ("250-...", then "250 ...").
    std::string read_reply();
    // Everything up to the peer's close.
    std::string read_to_close();
    // True when nothing (no byte, no close) arrives within the time.
    bool silent_for(int milliseconds);
    // Sends a command line (CR LF added) and reads the reply.
    std::string command(std::string_view line);
    // Ends our sending direction; the peer's next read gives no byte.
    void shutdown_write();
    void close();
    // Ends the connection with a reset instead of an orderly close.
    void reset();

  private:
    int fd_ = -1;
    std::string pending_;  // received, not yet handed out
};

// A TCP port on which nothing is bound now, outside the ephemeral range.
std::uint16_t free_tcp_port();

// Holds port without serving it, as long as the handle lives: a socket
// bound to it with SO_REUSEADDR that never listens; or with time_wait, an
// end of a loopback connection to it left waiting by the system (its
// listening side, with SO_REUSEADDR as a server's, closed first). Null if
// that could not be set up.
std::shared_ptr<void> hold_port(std::uint16_t port, bool time_wait);

}  // namespace qbsmtp::test
