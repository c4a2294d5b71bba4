// disk_full_test.cpp: a spool that runs out of room. The peer gets a 452 and
// never a 250 for a message that is not wholly on disk, no file of a refused
// message stays, and reception takes mail again once there is room.
//
// Two ways to a full disk: the platform's fault seam (a write or the close
// failing with ERROR_DISK_FULL), which runs everywhere, and a real 2 MiB
// tmpfs on the spool directory where the test may mount one (as root).
#ifndef _WIN32
#include <sys/mount.h>
#endif

#include <cerrno>
#include <cstring>

#include "platform/os_fault.h"
#include "reliability.h"

namespace qbsmtp::test {
namespace {

const std::string accepted = "250 Mail accepted\r\n";
const std::string no_space = "452 No space left, try again later\r\n";

// A text of about size bytes in CR LF lines, without its last line end. No
// line starts with a dot, so it is stored as it stands.
std::string message_of(std::size_t size, const std::string& tag) {
    std::string text = "Message-Id: <" + tag + "@disk.test>\r\n";
    for (int line = 0; text.size() < size; ++line)
        text +=
            "\r\n" + tag + " line " + std::to_string(line) + " of a message that fills the spool";
    return text;
}

// A client that has given HELO, MAIL and RCPT.
std::unique_ptr<SmtpTestClient> envelope(const ReceptionFixture& module, const std::string& tag) {
    auto client = module.connect();
    EXPECT_EQ(client->command("HELO " + tag), std::string("250 ") + test_host_name + "\r\n");
    EXPECT_EQ(client->command("MAIL FROM:<" + tag + "@disk.test>"), "250 OK\r\n");
    EXPECT_EQ(client->command("RCPT TO:<fax@example.test>"), "250 recipient OK\r\n");
    return client;
}

// The text and the end marker; the reply to them. data: DATA first.
std::string text_reply(SmtpTestClient& client, const std::string& text) {
    client.send(text + "\r\n.\r\n");
    return client.read_reply();
}
std::string data(SmtpTestClient& client, const std::string& text) {
    EXPECT_EQ(client.command("DATA"), "354 Start mail input; end with <CRLF>.<CRLF>\r\n");
    return text_reply(client, text);
}

// The stored bodies of the .822 files in the spool, each with its count. The
// reply to NOOP comes after a session has dealt with its last text.
std::map<std::string, int> bodies_on_disk(const ReceptionFixture& module,
                                          std::vector<std::unique_ptr<SmtpTestClient>>& clients) {
    for (auto& client : clients) EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    std::map<std::string, int> bodies;
    for (const auto& path : module.spool_files(".822"))
        ++bodies[body_behind_trace_headers(read_whole_file(path))];
    return bodies;
}

// Where the disk fills up while senders send at once. The fault is armed
// once every 354 has come, so only the texts' own writes and closes count.
struct SeamCase {
    const char* label;
    os::Op op;
    unsigned nth;  // the first call that fails; every later one fails too
    std::size_t text_size;
    int senders;
};
const SeamCase seam_cases[] = {
    {"BufferedTextFailsAtItsOnlyWrite", os::Op::WriteFile, 1, 2000, 1},
    {"LongTextFailsInTheMiddle", os::Op::WriteFile, 3, 600000, 1},
    {"TheCloseReportsTheDiskFull", os::Op::CloseHandle, 1, 2000, 1},
    // About a third of the writes the eight texts need succeed.
    {"EightSendersAtOnce", os::Op::WriteFile, 13, 300000, 8},
};

void PrintTo(const SeamCase& c, std::ostream* out) {
    *out << c.label;
}

class DiskFullSeam : public ::testing::TestWithParam<SeamCase> {};

TEST_P(DiskFullSeam, RefusesWhatIsNotWhollyOnDiskAndRecovers) {
    const SeamCase& c = GetParam();
    ReceptionFixture module;
    module.connect()->command("QUIT");
    ASSERT_TRUE(wait_for_no_sessions(300));  // the default time-out
    const long descriptors = open_descriptors();
    std::vector<std::unique_ptr<SmtpTestClient>> clients;
    std::vector<std::string> texts, replies(static_cast<std::size_t>(c.senders));
    for (int s = 0; s < c.senders; ++s) {
        clients.push_back(envelope(module, std::string("c").append(std::to_string(s))));
        texts.push_back(message_of(c.text_size, "sender" + std::to_string(s)));
        EXPECT_EQ(clients.back()->command("DATA").substr(0, 4), "354 ");
    }
    {
        os::FaultScope disk_full(c.op, c.nth, os::ERROR_DISK_FULL, true);
        std::vector<std::thread> threads;
        for (int s = 0; s < c.senders; ++s)
            threads.emplace_back([&, s] { replies[s] = text_reply(*clients[s], texts[s]); });
        for (auto& t : threads) t.join();
    }
    std::map<std::string, int> expected;  // what got a 250, once
    for (int s = 0; s < c.senders; ++s) {
        ASSERT_TRUE(replies[s] == accepted || replies[s] == no_space) << s << ": " << replies[s];
        if (replies[s] == accepted) expected[texts[s]] = 1;
    }
    EXPECT_LT(expected.size(), texts.size()) << "the disk never filled up";
    EXPECT_EQ(bodies_on_disk(module, clients), expected);
    EXPECT_TRUE(module.spool_files(".tmp").empty());

    // Room again: each refused sender sends again (its envelope stands).
    for (int s = 0; s < c.senders; ++s) {
        EXPECT_EQ(expected[texts[s]] == 1 ? accepted : data(*clients[s], texts[s]), accepted);
        expected[texts[s]] = 1;
    }
    EXPECT_EQ(bodies_on_disk(module, clients), expected);
    clients.clear();
    ASSERT_TRUE(wait_for_no_sessions(300));
    EXPECT_EQ(open_descriptors(), descriptors);  // a failed close too gives its descriptor back
}

INSTANTIATE_TEST_SUITE_P(Cases, DiskFullSeam, ::testing::ValuesIn(seam_cases),
                         [](const auto& info) { return std::string(info.param.label); });

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
    std::vector<std::unique_ptr<SmtpTestClient>> client;
    client.push_back(envelope(module, "tmpfs"));

    // More than the disk holds: the part written must go, or nothing fits after.
    EXPECT_EQ(data(*client[0], message_of(3 << 20, "toobig")), no_space);
    EXPECT_TRUE(bodies_on_disk(module, client).empty());
    EXPECT_TRUE(module.spool_files("").empty());
    const std::string fits = message_of(1 << 20, "fits");
    EXPECT_EQ(data(*client[0], fits), accepted);
    EXPECT_EQ(bodies_on_disk(module, client), (std::map<std::string, int>{{fits, 1}}));
}

}  // namespace
}  // namespace qbsmtp::test
