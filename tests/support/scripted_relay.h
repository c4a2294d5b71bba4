// scripted_relay.h: a scripted SMTP peer on loopback: the relay of the
// sending tests, and whoever holds the port in the tests of the probe.
//
// A thread listens on 127.0.0.1, accepts one connection and plays its
// steps: each waits until so many lines (CR LF) have come in all, then
// sends its pieces (one send each), or closes, or goes silent, or stalls
// (stops reading until the peer closes). It keeps every byte received up
// to the peer's close. Plain POSIX sockets (in loopback.cpp), so the
// module's fault seam never sees them; every wait is bounded.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace qbsmtp::test {

class ScriptedRelay {
  public:
    enum class Act { reply, close, silent, stall };
    struct Step {
        std::size_t lines = 0;  // lines received in all before the step
        std::vector<std::string> pieces;
        Act act = Act::reply;
    };

    // port 0: one the system chooses.
    explicit ScriptedRelay(std::vector<Step> script, std::uint16_t port = 0);
    ~ScriptedRelay() { stop(); }
    ScriptedRelay(const ScriptedRelay&) = delete;
    ScriptedRelay& operator=(const ScriptedRelay&) = delete;

    bool listening() const { return port_ != 0; }
    std::uint16_t port() const { return port_; }
    // Waits until the peer has closed (or the bound ran out); all it sent.
    std::string received() {
        if (thread_.joinable()) thread_.join();
        return bytes_;
    }
    // Stops waiting for a connection; connections accepted (0 or 1).
    int stop();

  private:
    void run();

    std::vector<Step> script_;
    int listen_fd_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<int> connections_{0};
    std::thread thread_;
    std::string bytes_;  // the thread's until it ends
};

}  // namespace qbsmtp::test
