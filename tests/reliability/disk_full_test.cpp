// disk_full_test.cpp: a spool that runs out of room. The peer gets a 452 and
// never a 250 for a message that is not wholly on disk, no file of a refused
// message stays, and reception takes mail again once there is room.
//
// Two ways to a full disk: the platform's fault seam (a write or the close
// failing with ERROR_DISK_FULL), which runs everywhere, and a real 2 MiB
// tmpfs on the spool directory where the test may mount one (as root).
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "platform/os_fault.h"
#include "process_probe.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

constexpr int session_timeout = 300;  // the default
const std::string accepted = "250 Mail accepted\r\n";
const std::string no_space = "452 No space left, try again later\r\n";

// A text of about size bytes in CR LF lines, its end marker not included. No
// line starts with a dot, so it is stored without its last line end.
std::string message_of(std::size_t size, const std::string& tag) {
    std::string text = "Message-Id: <" + tag + "@disk.test>\r\n\r\n";
    for (int line = 0; text.size() < size; ++line)
        text += tag + " line " + std::to_string(line) + " of a message that fills the spool\r\n";
    return text;
}
std::string stored_form(const std::string& text) {
    return text.substr(0, text.size() - 2);
}

std::unique_ptr<SmtpTestClient> envelope(const ReceptionFixture& module, const std::string& tag) {
    auto client = module.connect();
    EXPECT_EQ(client->command("HELO " + tag), std::string("250 ") + test_host_name + "\r\n");
    EXPECT_EQ(client->command("MAIL FROM:<" + tag + "@disk.test>"), "250 OK\r\n");
    EXPECT_EQ(client->command("RCPT TO:<fax@example.test>"), "250 recipient OK\r\n");
    return client;
}

// The text and its end marker; the reply to them. data: DATA first.
std::string text_reply(SmtpTestClient& client, const std::string& text) {
    client.send(text + ".\r\n");
    return client.read_reply();
}
std::string data(SmtpTestClient& client, const std::string& text) {
    EXPECT_EQ(client.command("DATA"), "354 Start mail input; end with <CRLF>.<CRLF>\r\n");
    return text_reply(client, text);
}

// The reply to NOOP comes after the session has dealt with the last text.
void expect_idle(SmtpTestClient& client) {
    EXPECT_EQ(client.command("NOOP"), "250 Quillbox SMTP OK\r\n");
}

// The stored bodies of the .822 files in the spool, each with its count.
std::map<std::string, int> bodies_on_disk(const ReceptionFixture& module) {
    std::map<std::string, int> bodies;
    for (const auto& path : module.spool_files(".822"))
        ++bodies[body_behind_trace_headers(read_whole_file(path))];
    return bodies;
}

// Where the disk fills up. The fault is armed once the 354 has come, so
// only the text's own writes and the close count.
struct SeamCase {
    const char* label;
    os::Op op;
    unsigned nth;  // the first call that fails; every later one fails too
    std::size_t text_size;
};
const SeamCase seam_cases[] = {
    {"BufferedTextFailsAtItsOnlyWrite", os::Op::WriteFile, 1, 2000},
    {"LongTextFailsInTheMiddle", os::Op::WriteFile, 3, 600000},
    {"TheCloseReportsTheDiskFull", os::Op::CloseHandle, 1, 2000},
};

void PrintTo(const SeamCase& c, std::ostream* out) {
    *out << c.label;
}

class DiskFullSeam : public ::testing::TestWithParam<SeamCase> {};

TEST_P(DiskFullSeam, RefusesTheMessageAndReceptionRecovers) {
    const SeamCase& c = GetParam();
    ReceptionFixture module;
    module.connect()->command("QUIT");
    ASSERT_TRUE(wait_for_no_sessions(session_timeout));
    const Descriptors before = descriptors();
    auto client = envelope(module, "seam");
    for (int attempt = 0; attempt < 3; ++attempt) {  // refused while the disk stays full
        EXPECT_EQ(client->command("DATA").substr(0, 4), "354 ");
        os::FaultScope disk_full(c.op, c.nth, os::ERROR_DISK_FULL, true);
        EXPECT_EQ(text_reply(*client, message_of(c.text_size, "refused")), no_space) << attempt;
        EXPECT_GE(os::fault_calls(c.op), c.nth) << "the fault was never reached";
    }
    expect_idle(*client);
    EXPECT_TRUE(module.spool_files("").empty());

    // Room again: the sender is still set, so DATA goes on at once.
    const std::string later = message_of(c.text_size, "later");
    EXPECT_EQ(data(*client, later), accepted);
    client->command("QUIT");
    client->read_to_close();
    client->close();
    ASSERT_TRUE(wait_for_no_sessions(session_timeout));
    EXPECT_EQ(bodies_on_disk(module), (std::map<std::string, int>{{stored_form(later), 1}}));
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    EXPECT_EQ(descriptors().count, before.count) << descriptors().list;  // a failed close too
}

INSTANTIATE_TEST_SUITE_P(Cases, DiskFullSeam, ::testing::ValuesIn(seam_cases),
                         [](const auto& info) { return std::string(info.param.label); });

// Eight sessions send at once while the disk fills: whichever got a 250 has
// its whole message on disk, whichever got a 452 has nothing there, and each
// refused message gets through once there is room again.
TEST(DiskFull, SeamDuringConcurrentMessagesNeverAcknowledgesAPartialFile) {
    ReceptionFixture module;
    constexpr int senders = 8;
    std::vector<std::unique_ptr<SmtpTestClient>> clients;
    std::vector<std::string> texts, replies(senders);
    for (int s = 0; s < senders; ++s) {
        clients.push_back(envelope(module, "c" + std::to_string(s)));
        texts.push_back(message_of(300000, "concurrent" + std::to_string(s)));
        EXPECT_EQ(clients.back()->command("DATA").substr(0, 4), "354 ");
    }
    {
        // About a third of the writes the eight texts need succeed.
        os::FaultScope disk_full(os::Op::WriteFile, senders * 5 / 3, os::ERROR_DISK_FULL, true);
        std::vector<std::thread> threads;
        for (int s = 0; s < senders; ++s)
            threads.emplace_back([&, s] { replies[s] = text_reply(*clients[s], texts[s]); });
        for (auto& t : threads) t.join();
        for (auto& client : clients) expect_idle(*client);
    }
    int refused = 0;
    const auto bodies = bodies_on_disk(module);
    for (int s = 0; s < senders; ++s) {
        ASSERT_TRUE(replies[s] == accepted || replies[s] == no_space) << s << ": " << replies[s];
        EXPECT_EQ(bodies.count(stored_form(texts[s])), replies[s] == accepted ? 1u : 0u) << s;
        refused += replies[s] == no_space;
    }
    EXPECT_GT(refused, 0) << "the disk never filled up";
    EXPECT_EQ(bodies.size(), static_cast<std::size_t>(senders - refused));
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    for (int s = 0; s < senders; ++s)  // room again
        EXPECT_EQ(replies[s] == no_space ? data(*clients[s], texts[s]) : accepted, accepted) << s;
    for (int s = 0; s < senders; ++s)
        EXPECT_EQ(bodies_on_disk(module)[stored_form(texts[s])], 1) << s;
}

TEST(DiskFull, RealSmallFileSystemRefusesWhatDoesNotFitAndRecovers) {
    ReceptionFixture module({}, false);
    std::filesystem::create_directories(module.spool());
    if (::mount("tmpfs", module.spool().c_str(), "tmpfs", 0, "size=2m") != 0)
        GTEST_SKIP() << "no tmpfs on the spool here (" << std::strerror(errno) << ")";
    struct Unmount {
        std::string path;
        ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }  // lazily, should a file be open
    } unmount{module.spool()};
    ASSERT_EQ(module.start(), 1);
    auto client = envelope(module, "tmpfs");

    EXPECT_EQ(data(*client, message_of(3 << 20, "toobig")), no_space);  // more than the disk
    expect_idle(*client);
    EXPECT_TRUE(module.spool_files("").empty());

    // Nearly full: a filler leaves about 100 KiB.
    const std::string filler = module.spool() + "/filler.bin";
    write_file(filler, std::string((2 << 20) - (100 << 10), 'f'));
    const std::string no_fit = message_of(400 << 10, "nofit"), fits = message_of(20 << 10, "fits");
    EXPECT_EQ(data(*client, no_fit), no_space);
    expect_idle(*client);
    EXPECT_EQ(module.spool_files("").size(), 1u) << "only the filler";
    EXPECT_EQ(data(*client, fits), accepted);

    std::filesystem::remove(filler);  // room returns
    EXPECT_EQ(client->command("MAIL FROM:<again@disk.test>"), "250 OK\r\n");
    EXPECT_EQ(data(*client, no_fit), accepted);
    client->command("QUIT");
    client->read_to_close();
    EXPECT_EQ(bodies_on_disk(module),
              (std::map<std::string, int>{{stored_form(fits), 1}, {stored_form(no_fit), 1}}));
    EXPECT_TRUE(module.spool_files(".tmp").empty());
}

}  // namespace
}  // namespace qbsmtp::test
