// slow_peers_test.cpp: peers that hold connections without using them.
// Five hundred connections that never send a byte do not keep a normal
// client from its message, and the session time-out closes every one of
// them; a peer that sends one byte a second is served (each byte comes
// within the time-out) without holding the listener or the other clients.
//
// Results and order are checked, never durations: the time-out is set
// low in the settings key (longer under a sanitizer or emulation, where
// opening five hundred sessions takes longer), yet seconds longer than
// what the other clients need.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include "process_probe.h"
#include "support/load_peer.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

constexpr int silent_count = 500;

std::string timeout_setting(int seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "\"SessionTimeout\"=dword:%08x", seconds);
    return text;
}

// A whole message from a fresh connection; the reply to its end marker.
std::string deliver(std::uint16_t port, const std::string& sender, const std::string& text) {
    LoadPeer peer;
    int attempts = 0;
    if (!peer.open(port, std::chrono::steady_clock::now() + std::chrono::seconds(60), attempts))
        return "no greeting";
    peer.command("HELO normal.example.test");
    if (peer.command("MAIL FROM:<" + sender + ">") != "250 OK\r\n") return "MAIL refused";
    if (peer.command("RCPT TO:<fax@example.test>") != "250 recipient OK\r\n") return "RCPT refused";
    if (peer.command("DATA").rfind("354 ", 0) != 0) return "DATA refused";
    peer.send(text + "\r\n.\r\n");
    const std::string reply = peer.read_reply();
    peer.command("QUIT");
    peer.drain();
    return reply;
}

TEST(SlowPeers, FiveHundredSilentConnectionsDoNotBlockOthersAndAreTimedOut) {
    const int timeout_seconds = light_run ? 20 : 8;
    ReceptionFixture module(timeout_setting(timeout_seconds));
    {
        auto first = module.connect();
        first->command("QUIT");
        first->read_to_close();
    }
    ASSERT_TRUE(wait_for_no_sessions(30));
    const int descriptors_before = open_descriptors();

    auto silent = open_silent_peers(module.port(), silent_count,
                                    std::chrono::steady_clock::now() + std::chrono::seconds(120));
    ASSERT_EQ(silent.size(), static_cast<std::size_t>(silent_count));
    const int sessions_while_silent = sessions_running.load();

    // A normal client among them gets its message through.
    EXPECT_EQ(deliver(module.port(), "normal@example.test", "Subject: among the silent\r\n\r\nhi"),
              "250 Mail accepted\r\n");
    // ... while every silent session still stood (each holds its thread).
    EXPECT_GE(sessions_running.load(), silent_count);
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(body_behind_trace_headers(read_whole_file(files[0])),
              "Subject: among the silent\r\n\r\nhi");

    // The time-out ends every silent session: each peer sees its close.
    EXPECT_EQ(count_closed_by_peer(silent, (timeout_seconds + 60) * 1000), silent_count);
    EXPECT_TRUE(wait_for_no_sessions(30)) << sessions_running.load() << " sessions still run";
    close_silent_peers(silent);
    EXPECT_EQ(open_descriptors(), descriptors_before) << descriptor_list();
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    RecordProperty("sessions_while_silent", sessions_while_silent);
}

TEST(SlowPeers, OneByteASecondIsServedWithoutHoldingTheListener) {
    ReceptionFixture module(timeout_setting(light_run ? 10 : 3));
    std::atomic<bool> trickling{false};
    std::atomic<bool> slow_done{false};
    std::string trickled_reply;
    std::size_t trickled = 0;
    std::thread slow([&] {
        LoadPeer peer;
        int attempts = 0;
        if (!peer.open(module.port(), std::chrono::steady_clock::now() + std::chrono::seconds(60),
                       attempts)) {
            trickling = true;
            return;
        }
        trickling = true;
        trickled = peer.trickle("NOOP\r\n", 1000);
        trickled_reply = peer.read_reply();
        slow_done = true;
        peer.command("QUIT");
        peer.drain();
    });
    while (!trickling) std::this_thread::sleep_for(std::chrono::milliseconds(1));

    // Three normal clients, one after the other, while the slow one sends.
    for (int i = 0; i < 3; ++i) {
        const std::string sender = "quick" + std::to_string(i) + "@example.test";
        EXPECT_EQ(deliver(module.port(), sender, "message " + std::to_string(i)),
                  "250 Mail accepted\r\n")
            << sender;
    }
    EXPECT_EQ(module.spool_files(".822").size(), 3u);
    // They were served while the slow peer was still in its line.
    EXPECT_FALSE(slow_done.load());
    slow.join();
    EXPECT_EQ(trickled, 6u);
    EXPECT_EQ(trickled_reply, "250 Quillbox SMTP OK\r\n");
}

}  // namespace
}  // namespace qbsmtp::test
