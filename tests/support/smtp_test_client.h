// smtp_test_client.h: a loopback SMTP peer for the tests.
//
// Built on plain POSIX sockets, not on the module's platform layer, so a
// fault armed for the module never hits the test's own traffic. Every
// read is bounded by a time-out, so a test fails instead of hanging.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qbsmtp::test {

class SmtpTestClient {
  public:
    // Connects to 127.0.0.1:port; while nothing listens yet (the listener
    // binds on its own thread) it tries again, for up to connect_seconds.
    explicit SmtpTestClient(std::uint16_t port, int connect_seconds = 10);
    ~SmtpTestClient();
    SmtpTestClient(const SmtpTestClient&) = delete;
    SmtpTestClient& operator=(const SmtpTestClient&) = delete;

    bool connected() const { return fd_ >= 0; }
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

    // Seconds a read waits before it gives up.
    static constexpr int read_timeout_seconds = 20;

  private:
    int fd_ = -1;
    std::string pending_;  // received, not yet handed out
};

}  // namespace qbsmtp::test
