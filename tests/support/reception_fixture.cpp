// reception_fixture.cpp: ReceptionFixture and the message helpers.

#include "support/reception_fixture.h"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <latch>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "frame/module_state.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/smtp_session.h"

namespace qbsmtp::test {

namespace fs = std::filesystem;

ReceptionFixture::ReceptionFixture(std::string_view settings, bool start_now)
    : port_(free_tcp_port()), spool_(prefix_.file("spool")) {
    ::setenv("QBSMTP_NO_SYSLOG", "1", 1);  // events.jsonl is enough
    std::ofstream(prefix_.file("services")) << "smtp " << port_ << "/tcp\n";
    std::ofstream(prefix_.file("registry.reg"))
        << "REGEDIT4\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM]\n"
        << "\"HostName\"=\"" << test_host_name << "\"\n"
        << settings << "\n";
    process_attach(nullptr);
    if (start_now && start() != 1) ADD_FAILURE() << "SMTPRecvInit failed";
}

ReceptionFixture::~ReceptionFixture() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (sessions_running.load() != 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(sessions_running.load(), 0) << "sessions still running";
}

int ReceptionFixture::start() const {
    return SMTPRecvInit(spool_.c_str());
}

std::unique_ptr<SmtpTestClient> ReceptionFixture::connect(std::string* greeting) const {
    auto client = std::make_unique<SmtpTestClient>(port_);
    const std::string text = client->read_reply();
    if (greeting != nullptr) *greeting = text;
    EXPECT_EQ(text.substr(0, 4), "220 ") << text;
    return client;
}

std::vector<std::string> ReceptionFixture::spool_files(std::string_view suffix) const {
    std::vector<std::string> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(spool_, error)) {
        const std::string name = entry.path().filename().string();
        if (entry.is_regular_file() && name.size() >= suffix.size() &&
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
            found.push_back(entry.path().string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::string read_whole_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) return {};
    std::string bytes(static_cast<std::size_t>(in.tellg()), '\0');
    in.seekg(0);
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

std::string body_behind_trace_headers(const std::string& file_text) {
    const std::size_t first = file_text.find("\r\n");
    if (first == std::string::npos) return file_text;
    const std::size_t second = file_text.find("\r\n", first + 2);
    if (second == std::string::npos) return file_text;
    return file_text.substr(second + 2);
}

void run_clients_together(std::uint16_t port, int count,
                          const std::function<void(SmtpTestClient&, int)>& session) {
    std::mutex dialling;
    std::latch all_greeted(count);
    std::vector<std::thread> clients;
    for (int c = 0; c < count; ++c) {
        clients.emplace_back([&, c] {
            std::unique_lock<std::mutex> one_at_a_time(dialling);
            SmtpTestClient client(port);
            const bool greeted = client.read_reply().substr(0, 4) == "220 ";
            one_at_a_time.unlock();
            all_greeted.arrive_and_wait();
            if (greeted) session(client, c);
        });
    }
    for (auto& t : clients) t.join();
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

std::optional<LoggedEvent> wait_for_event(std::uint32_t id, int seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        auto found = events_with_id(id);
        if (!found.empty()) return found.front();
        if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::size_t count_events(std::uint32_t id) {
    return events_with_id(id).size();
}

}  // namespace qbsmtp::test
