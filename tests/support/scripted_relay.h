// scripted_relay.h: a scripted SMTP peer on loopback for the client tests.
//
// A thread listens on 127.0.0.1 (an ephemeral port), accepts one
// connection and plays a script: each step waits for what the client is to
// send (nothing, one line, or the whole message up to its end marker) and
// then answers, closes, or stays silent. Every byte received is recorded
// (or only counted, for very large messages). It uses the OS directly, not
// the module's platform layer, so the module's fault seam never sees it.
// Every wait is bounded, so a broken client cannot hang a test.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qbsmtp::test {

class ScriptedRelay {
  public:
    enum class Wait { nothing, line, data_end };
    enum class Act {
        reply,   // send the pieces
        close,   // close the connection
        silent,  // answer nothing, but go on reading until the client closes
        stall,   // stop reading too, so the client's sends back up
    };

    struct Step {
        Wait wait = Wait::line;
        std::vector<std::string> pieces;  // the reply; pieces go out 30 ms apart
        Act act = Act::reply;
    };

    // A step that waits for what `wait` says and answers with `reply`.
    static Step answer(Wait wait, std::string reply);
    static Step answer_in_pieces(Wait wait, std::vector<std::string> pieces);
    static Step close_after(Wait wait);
    static Step silent_after(Wait wait);
    static Step stall_after(Wait wait);

    // The usual conversation: greeting, HELO, MAIL, RCPT, DATA, the
    // message, QUIT, with these codes.
    static std::vector<Step> conversation(const std::string& rcpt_reply = "250 ok\r\n",
                                          const std::string& end_reply = "250 queued\r\n",
                                          const std::string& quit_reply = "221 bye\r\n");

    explicit ScriptedRelay(std::vector<Step> script, bool keep_bytes = true);
    ~ScriptedRelay();
    ScriptedRelay(const ScriptedRelay&) = delete;
    ScriptedRelay& operator=(const ScriptedRelay&) = delete;

    std::uint16_t port() const { return port_; }
    // Waits until the peer is done (the client closed, or a bound ran out).
    void finish();
    // Stops waiting for a connection or for bytes, and waits for the thread.
    void stop();
    // All bytes received (after finish).
    std::string received();
    std::size_t received_count();
    // Connections accepted (0 or 1).
    int connections() const { return connections_.load(); }
    // The message between the DATA reply and its end marker, inclusive of
    // the marker; empty if none arrived.
    std::string message();

  private:
    void run();
    bool wait_for(int fd, Wait wait);
    bool receive_some(int fd);

    std::vector<Step> script_;
    bool keep_bytes_;
    int listen_fd_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    std::thread thread_;
    std::mutex mutex_;
    std::string bytes_;         // received, when kept
    std::size_t count_ = 0;     // received, always
    std::size_t consumed_ = 0;  // end of what the script has waited for
    std::string tail_;          // last bytes, for the end marker when bytes are not kept
    std::size_t data_start_ = std::string::npos;
    std::size_t data_end_ = std::string::npos;
};

}  // namespace qbsmtp::test
