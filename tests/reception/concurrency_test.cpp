// Many clients at once: every message that got its 250 is on disk exactly
// once, and the same message delivered by many at the same moment is kept
// once, its repeats reported against the one kept.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "frame/message_catalogue.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

TEST(Concurrency, FiftyClientsTwentyMessagesEach) {
    constexpr int clients = 50, messages = 20;
    ReceptionFixture module;
    // Sent with a stuffed dot; stored with the dot undone, the last line end not.
    const auto text = [](int c, int m, const char* end) {
        return "Subject: load " + std::to_string(c) + "/" + std::to_string(m) + end;
    };
    std::vector<int> acknowledged(clients, 0);
    run_clients_together(module.port(), clients, [&](SmtpTestClient& client, int c) {
        for (int m = 0; m < messages; ++m)
            acknowledged[c] += transmit(client, text(c, m, "\r\n\r\n..dot\r\n.\r\n"),
                                        m == 0 ? "h" : "") == "250 Mail accepted\r\n";
        client.command("QUIT");
        client.read_to_close();  // the session has renamed its last file
    });
    std::map<std::string, int> on_disk;
    for (const auto& path : module.spool_files(".822"))
        ++on_disk[body_behind_trace_headers(read_whole_file(path))];
    for (int c = 0; c < clients; ++c) {
        EXPECT_EQ(acknowledged[c], messages) << c;
        for (int m = 0; m < messages; ++m)
            EXPECT_EQ(on_disk[text(c, m, "\r\n\r\n.dot")], 1) << c << "/" << m;
    }
    EXPECT_EQ(on_disk.size(), static_cast<std::size_t>(clients * messages));
    EXPECT_TRUE(module.spool_files(".tmp").empty());
}

TEST(Concurrency, TwentyClientsSameMessageAtOnceLeaveOneFile) {
    constexpr int clients = 20;
    ReceptionFixture module;
    std::vector<std::string> replies(clients);
    run_clients_together(module.port(), clients, [&](SmtpTestClient& client, int c) {
        replies[c] = transmit(client, "Message-Id: <once@example.test>\r\n\r\nsame\r\n.\r\n");
        client.command("QUIT");
        client.read_to_close();  // the session has kept or dropped its file
    });
    for (const auto& reply : replies) EXPECT_EQ(reply, "250 Mail accepted\r\n");
    const auto kept = module.spool_files(".822");
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    // Every repeat names the kept file, under its temporary name.
    const std::string first = std::filesystem::path(kept[0]).stem().string() + ".tmp";
    const auto dropped = events_with_id(event::duplicate_dropped);
    EXPECT_EQ(dropped.size(), clients - 1u);
    for (const auto& event : dropped) EXPECT_EQ(event.strings.at(1), first);
}

}  // namespace
}  // namespace qbsmtp::test
