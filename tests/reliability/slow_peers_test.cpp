// slow_peers_test.cpp: peers that hold connections without using them. Five
// hundred connections that never send a byte keep no client from its
// message, and the session time-out closes every one of them; a peer that
// sends a byte a second is served, and others are served between its bytes.
//
// The time-out comes from the settings key, long enough that opening the
// connections and one delivery fit into it many times over.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "process_probe.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

std::string timeout_setting(int seconds) {
    char text[64];
    std::snprintf(text, sizeof text, "\"SessionTimeout\"=dword:%08x", seconds);
    return text;
}

TEST(SlowPeers, FiveHundredSilentConnectionsDoNotBlockOthersAndAreTimedOut) {
    const int timeout = light_run ? 30 : 10;
    ReceptionFixture module(timeout_setting(timeout));
    module.connect()->command("QUIT");
    ASSERT_TRUE(wait_for_no_sessions(timeout));
    const Descriptors before = descriptors();

    // One at a time, each once its greeting has come: the backlog never fills.
    std::vector<std::unique_ptr<SmtpTestClient>> silent;
    for (int i = 0; i < 500; ++i) silent.push_back(module.connect());
    auto normal = module.connect();
    EXPECT_EQ(transmit(*normal, "Subject: among the silent\r\n\r\nhi\r\n.\r\n"),
              "250 Mail accepted\r\n");
    EXPECT_GE(sessions_running.load(), 501) << "silent sessions ended before their time-out";
    normal.reset();

    // Each silent session ends within its time-out; its peer sees the close.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2 * timeout);
    for (auto& peer : silent) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        EXPECT_FALSE(peer->silent_for(static_cast<int>(std::max<long>(left.count(), 0))));
        peer->read_to_close();
    }
    EXPECT_TRUE(wait_for_no_sessions(timeout)) << sessions_running.load() << " sessions still run";
    silent.clear();
    EXPECT_EQ(descriptors().count, before.count) << descriptors().list;
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(body_behind_trace_headers(read_whole_file(files[0])),
              "Subject: among the silent\r\n\r\nhi");
    EXPECT_TRUE(module.spool_files(".tmp").empty());
}

TEST(SlowPeers, OneByteASecondIsServedWithoutHoldingTheListener) {
    ReceptionFixture module(timeout_setting(light_run ? 10 : 3));
    auto slow = module.connect();
    const std::string line = "NOOP\r\n";
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (i > 0) std::this_thread::sleep_for(std::chrono::seconds(1));  // the peer's pace
        ASSERT_TRUE(slow->send(line.substr(i, 1)));
        if (i >= 3) continue;
        // Another client, served while the slow one is inside its line.
        auto quick = module.connect();
        EXPECT_EQ(transmit(*quick, "message " + std::to_string(i) + "\r\n.\r\n"),
                  "250 Mail accepted\r\n");
    }
    EXPECT_EQ(slow->read_reply(), "250 Quillbox SMTP OK\r\n");
    EXPECT_EQ(module.spool_files(".822").size(), 3u);
}

}  // namespace
}  // namespace qbsmtp::test
