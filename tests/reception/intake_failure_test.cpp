// Failure paths of message intake, made real through the platform's fault
// seam: what the peer is told, which events appear, and which files stay.

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "frame/message_catalogue.h"
#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "support/event_log.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

const std::string accepted = "250 Mail accepted\r\n";
const std::string go_ahead = "354 Start mail input; end with <CRLF>.<CRLF>\r\n";
const std::string out_of_resources = "452 Out of resources, try again later\r\n";
const std::string no_space = "452 No space left, try again later\r\n";
const std::string sender_again = "503 Sender already specified\r\n";

// HELO, MAIL and RCPT, accepted.
void envelope(SmtpTestClient& client) {
    EXPECT_EQ(client.command("HELO h"), std::string("250 ") + test_host_name + "\r\n");
    EXPECT_EQ(client.command("MAIL FROM:<s@x>"), "250 OK\r\n");
    EXPECT_EQ(client.command("RCPT TO:<r@x>"), "250 recipient OK\r\n");
}

// A text long enough that the spool stream writes during the text, not
// only when it is closed.
std::string long_text() {
    std::string text;
    while (text.size() < 400000) text += "a line of text that fills the spool stream's buffer\r\n";
    return text + ".\r\n";
}

TEST(IntakeFailure, NoUniqueFileGives452AndKeepsTheSender) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    {
        os::FaultScope create_fails(os::Op::CreateFileA, 1, os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(client->command("DATA"), out_of_resources);
    }
    const auto event = wait_for_event(event::create_file_failed);
    ASSERT_TRUE(event.has_value());
    ASSERT_FALSE(event->strings.empty());
    EXPECT_EQ(event->strings[0], module.spool() + "/rx*.tmp");
    EXPECT_TRUE(module.spool_files("").empty());
    // The sender is still set: a new MAIL is refused, DATA may be retried.
    EXPECT_EQ(client->command("MAIL FROM:<t@x>"), sender_again);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send("retried\r\n.\r\n"));
    EXPECT_EQ(client->read_reply(), accepted);
}

TEST(IntakeFailure, StreamThatCannotOpenLeavesTheEmptyFile) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    {
        // The first creation makes the name, the second opens the stream.
        os::FaultScope open_fails(os::Op::CreateFileA, 2, os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(client->command("DATA"), out_of_resources);
    }
    const auto event = wait_for_event(event::open_file_failed);
    ASSERT_TRUE(event.has_value());
    const auto left = module.spool_files(".tmp");
    ASSERT_EQ(left.size(), 1u);
    ASSERT_FALSE(event->strings.empty());
    EXPECT_EQ(event->strings[0], left[0]);
    EXPECT_EQ(read_whole_file(left[0]), "");
}

TEST(IntakeFailure, WriteFailingMidTextAnswersAtTheEndMarker) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    {
        os::FaultScope write_fails(os::Op::WriteFile, 1, os::ERROR_DISK_FULL);
        EXPECT_EQ(client->command("DATA"), go_ahead);
        ASSERT_TRUE(client->send(long_text()));
        // One reply for the whole text: the rest was read, not taken as commands.
        EXPECT_EQ(client->read_reply(), no_space);
        EXPECT_GE(os::fault_calls(os::Op::WriteFile), 1u);
    }
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    EXPECT_TRUE(module.spool_files("").empty());
    EXPECT_EQ(client->command("MAIL FROM:<t@x>"), sender_again);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send("again\r\n.\r\n"));
    EXPECT_EQ(client->read_reply(), accepted);
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    EXPECT_EQ(module.spool_files(".822").size(), 1u);
}

TEST(IntakeFailure, FailedCloseIsNoAcceptance) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    {
        // A short text sits in the stream's buffer until the close.
        os::FaultScope write_fails(os::Op::WriteFile, 1, os::ERROR_DISK_FULL);
        ASSERT_TRUE(client->send("short\r\n.\r\n"));
        EXPECT_EQ(client->read_reply(), no_space);
    }
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    EXPECT_TRUE(module.spool_files("").empty());
    EXPECT_EQ(client->command("MAIL FROM:<t@x>"), sender_again);
}

TEST(IntakeFailure, SendFailingWhileTheSpoolIsOpenRemovesTheFile) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    {
        os::FaultScope send_fails(os::Op::send, 1, os::WSAECONNRESET);
        ASSERT_TRUE(client->send("DATA\r\n"));
        // The 354 could not go out: the session ends without a word.
        EXPECT_EQ(client->read_to_close(), "");
    }
    EXPECT_TRUE(module.spool_files("").empty());
}

TEST(IntakeFailure, LostConnectionInTheTextRemovesTheFile) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send("half a message\r\nand no end"));
    client->shutdown_write();
    EXPECT_EQ(client->read_to_close(),
              std::string("221 ") + test_host_name + " Service closing transmission\r\n");
    EXPECT_TRUE(module.spool_files("").empty());
}

TEST(IntakeFailure, FailedSendOfThe250LeavesTheCompleteTemporaryFile) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    {
        os::FaultScope send_fails(os::Op::send, 1, os::WSAECONNRESET);
        ASSERT_TRUE(client->send("body\r\n.\r\n"));
        EXPECT_EQ(client->read_to_close(), "");
    }
    EXPECT_TRUE(module.spool_files(".822").empty());
    const auto left = module.spool_files(".tmp");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(body_behind_trace_headers(read_whole_file(left[0])), "body");
}

TEST(IntakeFailure, FailedRenameLeavesTheTemporaryFileAfterThe250) {
    ReceptionFixture module;
    auto client = module.connect();
    envelope(*client);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    {
        os::FaultScope rename_fails(os::Op::MoveFileA, 1, os::ERROR_ACCESS_DENIED);
        ASSERT_TRUE(client->send("body\r\n.\r\n"));
        EXPECT_EQ(client->read_reply(), accepted);
        EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    }
    EXPECT_TRUE(module.spool_files(".822").empty());
    const auto left = module.spool_files(".tmp");
    ASSERT_EQ(left.size(), 1u);
    // The 250 stands; the file that nobody will pick up is told.
    const auto event = wait_for_event(event::spool_rename_failed);
    ASSERT_TRUE(event.has_value());
    ASSERT_GE(event->strings.size(), 2u);
    EXPECT_EQ(event->strings[0], left[0]);
    EXPECT_EQ(event->strings[1], left[0].substr(0, left[0].size() - 4) + ".822");
}

// The spool file is synced before its 250 and the rename to .822 after it
// (two syncs a message), unless SpoolSync is 0. A failed sync of the file
// is a failed write; one of the directory comes too late to change a reply.
struct SyncCase {
    const char* name;
    const char* settings;
    unsigned failing_sync;  // 0: none
    const char* reply;
    std::size_t kept;  // .822 files afterwards
    unsigned syncs;
};
void PrintTo(const SyncCase& c, std::ostream* out) {
    *out << c.name;
}
class SpoolSync : public ::testing::TestWithParam<SyncCase> {};

TEST_P(SpoolSync, BeforeAndAfterThe250) {
    const SyncCase& c = GetParam();
    ReceptionFixture module(c.settings);
    auto client = module.connect();
    envelope(*client);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    os::FaultScope sync_fails(os::Op::FlushFileBuffers, c.failing_sync == 0 ? 1000 : c.failing_sync,
                              os::ERROR_DISK_FULL);
    ASSERT_TRUE(client->send("body\r\n.\r\n"));
    EXPECT_EQ(client->read_reply(), c.reply);
    // Its reply comes once the accepted file has its final name.
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    EXPECT_EQ(module.spool_files(".822").size(), c.kept);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    EXPECT_EQ(os::fault_calls(os::Op::FlushFileBuffers), c.syncs);
    // A late sync leaves the file under its final name: nothing is lost.
    EXPECT_EQ(count_events(event::spool_rename_failed), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    IntakeFailure, SpoolSync,
    ::testing::Values(SyncCase{"file_and_directory", "", 0, "250 Mail accepted\r\n", 1, 2},
                      SyncCase{"off", "\"SpoolSync\"=dword:00000000", 0, "250 Mail accepted\r\n", 1,
                               0},
                      SyncCase{"file_fails", "", 1, "452 No space left, try again later\r\n", 0, 1},
                      SyncCase{"directory_fails", "", 2, "250 Mail accepted\r\n", 1, 2}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(IntakeFailure, DebugCopyFailureDoesNotTouchTheMessage) {
    ReceptionFixture module;
    SMTPSetLogging(QBSMTP_LOG_DEBUG_COPY);
    auto client = module.connect();
    envelope(*client);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    {
        os::FaultScope copy_fails(os::Op::CopyFileA, 1, os::ERROR_DISK_FULL);
        ASSERT_TRUE(client->send("body\r\n.\r\n"));
        EXPECT_EQ(client->read_reply(), accepted);
        EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    }
    const auto event = wait_for_event(event::copy_file_failed);
    ASSERT_TRUE(event.has_value());
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(body_behind_trace_headers(read_whole_file(files[0])), "body");
}

TEST(IntakeFailure, SilentPeerInTheTextIsEndedByTheSessionTimeout) {
    ReceptionFixture module("\"SessionTimeout\"=dword:00000001");
    auto client = module.connect();
    envelope(*client);
    EXPECT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send("the peer stops here\r\n"));
    EXPECT_EQ(client->read_to_close(),
              std::string("221 ") + test_host_name + " Service closing transmission\r\n");
    EXPECT_TRUE(module.spool_files("").empty());
}

}  // namespace
}  // namespace qbsmtp::test
