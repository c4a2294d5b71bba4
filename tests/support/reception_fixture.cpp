// reception_fixture.cpp: ReceptionFixture and the message helpers.

#include "support/reception_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <mutex>
#include <thread>

#include "frame/module_state.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/smtp_session.h"

namespace qbsmtp::test {

ReceptionFixture::ReceptionFixture(std::string_view settings, bool start_now)
    : port_(free_tcp_port()), spool_(prefix_.file("spool")) {
    ::setenv("QBSMTP_NO_SYSLOG", "1", 1);  // the tests capture the events
    // The POSIX backend's lookup of smtp needs the service; serve_smtp_on
    // then gives it this test's port on every backend.
    prefix_.write("services", "smtp " + std::to_string(port_) + "/tcp\n");
    write_registry("[HKEY_LOCAL_MACHINE\\" + std::string(settings_key) + "]\n\"HostName\"=\"" +
                   test_host_name + "\"\n" + std::string(settings));
    process_attach(nullptr);
    serve_smtp_on(port_);
    if (start_now && start() != 1) ADD_FAILURE() << "SMTPRecvInit failed";
}

void ReceptionFixture::wait_idle() const {
    EXPECT_TRUE(wait_for([] { return sessions_running.load() == 0; }, 30))
        << "sessions still running";
}

int ReceptionFixture::start() const {
    return SMTPRecvInit(spool_.c_str());
}

std::string body_behind_trace_headers(const std::string& file_text) {
    // With no first line end, the search for the second starts at 1.
    const std::size_t second = file_text.find("\r\n", file_text.find("\r\n") + 2);
    return second == std::string::npos ? file_text : file_text.substr(second + 2);
}

void run_clients_together(std::uint16_t port, int count,
                          const std::function<void(SmtpTestClient&, int)>& session) {
    std::mutex dialling;
    std::latch all_greeted(count);
    std::vector<std::jthread> clients;
    for (int c = 0; c < count; ++c) {
        clients.emplace_back([&, c] {
            std::unique_lock<std::mutex> one_at_a_time(dialling);
            SmtpTestClient client(port);
            const bool greeted = client.read_reply().starts_with("220 ");
            one_at_a_time.unlock();
            all_greeted.arrive_and_wait();
            if (greeted) session(client, c);
        });
    }
}

std::string transmit(SmtpTestClient& client, std::string_view text, std::string_view helo,
                     std::string_view sender) {
    if (!helo.empty()) {
        EXPECT_EQ(client.command("HELO " + std::string(helo)),
                  std::string("250 ") + test_host_name + "\r\n");
    }
    EXPECT_EQ(client.command("MAIL FROM:<" + std::string(sender) + ">"), "250 OK\r\n");
    EXPECT_EQ(client.command("RCPT TO:<fax@example.test>"), "250 recipient OK\r\n");
    EXPECT_EQ(client.command("DATA"), "354 Start mail input; end with <CRLF>.<CRLF>\r\n");
    client.send(text);
    return client.read_reply();
}

bool wait_for(const std::function<bool()>& done, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::optional<LoggedEvent> wait_for_event(std::uint32_t id, int seconds) {
    std::vector<LoggedEvent> found;
    wait_for([&] { return !(found = events_with_id(id)).empty(); }, seconds);
    return found.empty() ? std::nullopt : std::optional(found.front());
}

}  // namespace qbsmtp::test
