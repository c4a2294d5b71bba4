// The duplicate filter behind real sessions: many clients deliver the same
// message at the same moment, and exactly one copy reaches the spool.

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "frame/message_catalogue.h"
#include "reception/duplicate_filter.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

constexpr int client_count = 20;

TEST(DuplicateDelivery, TwentyClientsSameMessageAtOnceLeaveOneFile) {
    ReceptionFixture module;
    const std::string text =
        "Message-Id: <once@example.test>\r\nSubject: same\r\n\r\nthe same body\r\n.\r\n";
    std::vector<std::string> replies(client_count);
    run_clients_together(module.port(), client_count, [&](SmtpTestClient& client, int c) {
        replies[c] = transmit(client, text);
        client.command("QUIT");
        client.read_to_close();  // the session has kept or dropped its file
    });

    for (const auto& reply : replies) EXPECT_EQ(reply, "250 Mail accepted\r\n");
    EXPECT_EQ(module.spool_files(".822").size(), 1u);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    const auto dropped = events_with_id(event::duplicate_dropped);
    EXPECT_EQ(dropped.size(), client_count - 1u);

    // One slot holds the message whole; the others were never written.
    std::lock_guard<std::mutex> hold(recent_messages_lock);
    EXPECT_STREQ(recent_messages[6].message_id.c_str(), "once@example.test");
    const std::string first = recent_messages[6].file_name.c_str();
    EXPECT_EQ(first.size(), 12u) << first;  // rxNNNNNN.tmp
    for (const auto& event : dropped) EXPECT_EQ(event.strings.at(1), first);
    for (int i = 0; i < 6; ++i) EXPECT_TRUE(recent_messages[i].file_name.empty()) << i;
}

}  // namespace
}  // namespace qbsmtp::test
