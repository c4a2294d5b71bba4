// Many clients at once: every message that got its 250 is on disk exactly
// once, and no temporary file is left behind.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

constexpr int client_count = 50;
constexpr int messages_per_client = 20;

// The text of one message, unique to its client and number.
std::string message_text(int client, int message) {
    return "Subject: load " + std::to_string(client) + "/" + std::to_string(message) +
           "\r\n\r\nbody of message " + std::to_string(message) + " from client " +
           std::to_string(client) + "\r\n..dotted line\r\n";
}

TEST(Concurrency, FiftyClientsTwentyMessagesEach) {
    ReceptionFixture module;
    // acknowledged[c][m]: the 250 for message m of client c arrived.
    std::vector<std::vector<char>> acknowledged(client_count,
                                                std::vector<char>(messages_per_client, 0));
    run_clients_together(module.port(), client_count, [&](SmtpTestClient& client, int c) {
        client.command("HELO client" + std::to_string(c));
        for (int m = 0; m < messages_per_client; ++m) {
            client.command("MAIL FROM:<c" + std::to_string(c) + "@load>");
            client.command("RCPT TO:<fax@example.test>");
            if (client.command("DATA").substr(0, 4) != "354 ") continue;
            client.send(message_text(c, m) + ".\r\n");
            acknowledged[c][m] = client.read_reply() == "250 Mail accepted\r\n";
        }
        client.command("QUIT");
        client.read_to_close();  // the session has renamed its last file
    });

    std::map<std::string, int> on_disk;
    for (const auto& path : module.spool_files(".822"))
        ++on_disk[body_behind_trace_headers(read_whole_file(path))];
    for (int c = 0; c < client_count; ++c) {
        for (int m = 0; m < messages_per_client; ++m) {
            std::string stored = message_text(c, m);
            stored.replace(stored.find("..dotted"), 2, ".");
            stored.resize(stored.size() - 2);  // the last line end is not stored
            EXPECT_TRUE(acknowledged[c][m]) << c << "/" << m;
            const auto found = on_disk.find(stored);
            EXPECT_EQ(found == on_disk.end() ? 0 : found->second, acknowledged[c][m] ? 1 : 0)
                << c << "/" << m;
        }
    }
    EXPECT_EQ(on_disk.size(), static_cast<std::size_t>(client_count * messages_per_client));
    EXPECT_TRUE(module.spool_files(".tmp").empty());
}

}  // namespace
}  // namespace qbsmtp::test
