// reception_fixture.h: the module, loaded and receiving on a free loopback
// port, for the tests of SMTP reception.
//
// The fixture makes a fresh QBSMTP_PREFIX with a services file that gives
// smtp its own free port, a registry with a fixed host name (and whatever
// settings the test adds), attaches the module and calls SMTPRecvInit on a
// spool directory inside the prefix.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/event_log.h"
#include "support/smtp_test_client.h"
#include "support/temp_prefix.h"

namespace qbsmtp::test {

inline constexpr const char* test_host_name = "mx.example.test";

class ReceptionFixture {
  public:
    // settings: further lines of .reg text for the settings key, such as
    // "\"SessionTimeout\"=dword:00000001". start: call SMTPRecvInit.
    explicit ReceptionFixture(std::string_view settings = {}, bool start = true);
    // Waits for the session threads, so that none still reads the module's
    // texts when the process destroys them.
    ~ReceptionFixture() { wait_idle(); }
    ReceptionFixture(const ReceptionFixture&) = delete;
    ReceptionFixture& operator=(const ReceptionFixture&) = delete;

    std::uint16_t port() const { return port_; }
    const std::string& spool() const { return spool_; }
    const TempPrefix& prefix() const { return prefix_; }
    // SMTPRecvInit on the spool directory; its result.
    int start() const;
    // Waits until no session thread runs (each has made its last report).
    void wait_idle() const;
    // A connected client that has read the greeting (into greeting).
    std::unique_ptr<SmtpTestClient> connect(std::string* greeting = nullptr) const {
        auto client = std::make_unique<SmtpTestClient>(port_);
        const std::string text = client->read_reply();
        EXPECT_EQ(text.substr(0, 4), "220 ") << text;
        if (greeting != nullptr) *greeting = text;
        return client;
    }
    // Full paths of the files in the spool directory (not below it) whose
    // names end in suffix, sorted.
    std::vector<std::string> spool_files(std::string_view suffix) const {
        std::vector<std::string> found;
        std::error_code error;
        for (const auto& entry : std::filesystem::directory_iterator(spool_, error))
            if (entry.is_regular_file() && entry.path().filename().string().ends_with(suffix))
                found.push_back(entry.path().string());
        std::sort(found.begin(), found.end());
        return found;
    }

  private:
    TempPrefix prefix_;
    std::uint16_t port_;
    std::string spool_;
};

inline std::string read_whole_file(const std::string& path) {
    return read_file(path);
}

// The text of a message file behind its two trace header lines.
std::string body_behind_trace_headers(const std::string& file_text);

// Runs HELO (unless helo is empty), MAIL, RCPT and DATA on client, then
// sends text as it stands (the caller writes the end marker) and gives the
// reply to it. Replies of the envelope are checked with gtest assertions.
std::string transmit(SmtpTestClient& client, std::string_view text,
                     std::string_view helo = "client.example.test",
                     std::string_view sender = "sender@example.test");

// Runs session(client, c) for clients 0..count-1 on threads of their own,
// all at the same moment: the connections are opened one after the other
// (many SYNs at once would overflow the listen backlog of 5), and once
// every client has its greeting they all go on together. Returns when
// every session function has.
void run_clients_together(std::uint16_t port, int count,
                          const std::function<void(SmtpTestClient&, int)>& session);

// Waits, up to seconds, until done() holds (the module's threads tell the
// test nothing else); false if it never did.
bool wait_for(const std::function<bool()>& done, int seconds = 10);
// The first event with id, waited for as above.
std::optional<LoggedEvent> wait_for_event(std::uint32_t id, int seconds = 10);

}  // namespace qbsmtp::test
