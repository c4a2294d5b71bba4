// slow_peers_test.cpp: peers that hold connections without using them. Five
// hundred connections that never send a byte keep no client from its
// message, and the session time-out closes every one of them; a peer that
// sends a byte a second is served, and others are served between its bytes.
//
// The time-out comes from the settings key, long enough that opening the
// connections and one delivery fit into it many times over.

#include "reliability.h"

namespace qbsmtp::test {
namespace {

TEST(SlowPeers, FiveHundredSilentConnectionsDoNotBlockOthersAndAreTimedOut) {
    const int timeout = light_run ? 30 : 10;  // seconds, in hexadecimal below
    ReceptionFixture module(light_run ? "\"SessionTimeout\"=dword:1e"
                                      : "\"SessionTimeout\"=dword:a");
    module.connect()->command("QUIT");
    ASSERT_TRUE(wait_for_no_sessions(timeout));
    const long descriptors = open_descriptors();

    // One at a time, each once its greeting has come: the backlog never fills.
    std::vector<std::unique_ptr<SmtpTestClient>> silent;
    for (int i = 0; i < 500; ++i) silent.push_back(module.connect());
    auto normal = module.connect();
    EXPECT_EQ(transmit(*normal, "Subject: among the silent\r\n\r\nhi\r\n.\r\n"),
              "250 Mail accepted\r\n");
    EXPECT_GE(sessions_running.load(), 501) << "silent sessions ended before their time-out";
    normal.reset();

    // Each silent session ends within its time-out, and its peer sees the close.
    EXPECT_TRUE(wait_for_no_sessions(timeout)) << sessions_running.load() << " sessions still run";
    for (auto& peer : silent) EXPECT_FALSE(peer->silent_for(timeout * 1000));
    silent.clear();
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(module.spool_files(".822").size(), 1u);
}

TEST(SlowPeers, OneByteASecondIsServedWithoutHoldingTheListener) {
    ReceptionFixture module(light_run ? "\"SessionTimeout\"=dword:a"
                                      : "\"SessionTimeout\"=dword:3");
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
