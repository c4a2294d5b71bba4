// load_peer.h: a loopback SMTP peer for the load tests, which many threads
// run at once.
//
// Plain POSIX sockets (the module's fault seam never sees them), in a file
// of its own so the system's socket macros never meet the platform
// layer's names. Opening retries, within a bound, a connect that fails or
// a connection that brings no greeting in time: with a listen backlog of 5
// the kernel may refuse or drop some of two hundred connects at once, and
// a client is expected to try again. Every wait is bounded.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qbsmtp::test {

class LoadPeer {
  public:
    LoadPeer() = default;
    ~LoadPeer() { close(); }
    LoadPeer(const LoadPeer&) = delete;
    LoadPeer& operator=(const LoadPeer&) = delete;

    // Connects to 127.0.0.1:port and reads the 220, trying again until
    // give_up; attempts counts the tries. The greeting goes to greeting.
    bool open(std::uint16_t port, std::chrono::steady_clock::time_point give_up, int& attempts,
              std::string* greeting = nullptr);
    bool connected() const { return fd_ >= 0; }
    // Sends all bytes; false when the connection refused them.
    bool send(std::string_view bytes);
    // One complete reply (its last line has a blank behind the code), or
    // what came before the connection ended or milliseconds passed.
    std::string read_reply(int milliseconds = reply_ms);
    // Sends a command line (CR LF added) and reads the reply.
    std::string command(std::string_view line);
    // Sends bytes one at a time, pause_ms apart, until count are sent or a
    // send fails; the number sent.
    std::size_t trickle(std::string_view bytes, int pause_ms);
    // True when the peer has closed the connection (or reset it) within
    // milliseconds, after whatever bytes it still had to send.
    bool closed_within(int milliseconds);
    // Ends the connection: an orderly close, or with abort a reset.
    void close(bool abort = false);
    // Waits (bounded) until the peer closes, for a clean end after QUIT.
    void drain();

    static constexpr int greeting_ms = 3000;
    static constexpr int reply_ms = 120000;  // a 5 MB text under a sanitizer

  private:
    bool try_open(std::uint16_t port);

    int fd_ = -1;
    std::string pending_;
};

// Opens count connections to 127.0.0.1:port that send nothing, one after
// the other, each once its greeting has come, retrying connects that fail
// or bring no greeting until give_up.
// Their descriptors; close them with close_silent_peers.
std::vector<int> open_silent_peers(std::uint16_t port, int count,
                                   std::chrono::steady_clock::time_point give_up);
// How many of the descriptors the peer has closed within milliseconds
// (each read to its end).
int count_closed_by_peer(const std::vector<int>& peers, int milliseconds);
void close_silent_peers(std::vector<int>& peers);

}  // namespace qbsmtp::test
