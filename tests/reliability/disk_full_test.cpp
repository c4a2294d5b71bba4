// disk_full_test.cpp: a spool that runs out of room. The peer gets a 452
// and never a 250 for a message that is not wholly on disk, no file of a
// refused message stays (no .tmp, no .822), and reception takes mail again
// once there is room.
//
// Two ways to a full disk: the platform's fault seam (WriteFile or the
// close failing with ERROR_DISK_FULL), which runs everywhere, and a real
// 2 MiB tmpfs mounted on the spool directory, where this machine lets the
// test mount one (as root in a container that allows it).
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

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

const std::string accepted = "250 Mail accepted\r\n";
const std::string go_ahead = "354 Start mail input; end with <CRLF>.<CRLF>\r\n";
const std::string no_space = "452 No space left, try again later\r\n";
const std::string noop_reply = "250 Quillbox SMTP OK\r\n";

// A message text of about size bytes in CR LF lines, its end marker not
// included; tag makes it unique. No line starts with a dot, so the stored
// form is the text without its last line end.
std::string message_of(std::size_t size, const std::string& tag) {
    std::string text = "Message-Id: <" + tag + "@disk.test>\r\nSubject: " + tag + "\r\n\r\n";
    for (int line = 0; text.size() < size; ++line)
        text += tag + " line " + std::to_string(line) + " of a message that fills the spool\r\n";
    return text;
}

std::string stored_form(const std::string& text) {
    return text.substr(0, text.size() - 2);
}

void envelope(SmtpTestClient& client, const std::string& tag) {
    EXPECT_EQ(client.command("HELO " + tag), std::string("250 ") + test_host_name + "\r\n");
    EXPECT_EQ(client.command("MAIL FROM:<" + tag + "@disk.test>"), "250 OK\r\n");
    EXPECT_EQ(client.command("RCPT TO:<fax@example.test>"), "250 recipient OK\r\n");
}

// The stored bodies of the .822 files in the spool, each with its count.
std::map<std::string, int> bodies_on_disk(const ReceptionFixture& module) {
    std::map<std::string, int> bodies;
    for (const auto& path : module.spool_files(".822"))
        ++bodies[body_behind_trace_headers(read_whole_file(path))];
    return bodies;
}

// Where the disk fills up, through the fault seam. The fault is armed once
// the 354 has come, so only the text's own writes and the close count.
struct SeamCase {
    const char* label;
    os::Op op;
    unsigned nth;  // the first call that fails; every later one fails too
    std::size_t text_size;
};

const SeamCase seam_cases[] = {
    // The text fits the stream's buffer: the disk is found full at the close.
    {"BufferedTextItsOnlyWriteFails", os::Op::WriteFile, 1, 2000},
    // The text is several buffers long: a write in the middle fails.
    {"LongTextAWriteInTheMiddleFails", os::Op::WriteFile, 3, 600000},
    // Every write went through but the close reports the lost data.
    {"TheCloseReportsTheDiskFull", os::Op::CloseHandle, 1, 2000},
};

// One process per case (the module keeps its state for the process).
class DiskFullSeam : public ::testing::TestWithParam<SeamCase> {};

TEST_P(DiskFullSeam, RefusesTheMessageAndReceptionRecovers) {
    const SeamCase& c = GetParam();
    {
        ReceptionFixture module;
        // Once a first session has come and gone, the listener's socket is
        // open and the descriptors stand as they will after the test.
        module.connect()->command("QUIT");
        ASSERT_TRUE(wait_for_no_sessions(10));
        const int descriptors_before = open_descriptors();
        auto client = module.connect();
        envelope(*client, "seam");
        const std::string refused = message_of(c.text_size, "refused");
        // Three tries while the disk stays full: each is refused.
        for (int attempt = 0; attempt < 3; ++attempt) {
            ASSERT_EQ(client->command("DATA"), go_ahead);
            os::FaultScope disk_full(c.op, c.nth, os::ERROR_DISK_FULL, true);
            ASSERT_TRUE(client->send(refused + ".\r\n"));
            EXPECT_EQ(client->read_reply(), no_space) << "attempt " << attempt;
            EXPECT_GE(os::fault_calls(c.op), c.nth) << "the fault was never reached";
        }
        // The reply to NOOP comes after the session has removed the file.
        EXPECT_EQ(client->command("NOOP"), noop_reply);
        EXPECT_TRUE(module.spool_files(".822").empty());
        EXPECT_TRUE(module.spool_files(".tmp").empty());

        // Room again: the sender is still set, so DATA goes on at once.
        const std::string later = message_of(c.text_size, "later");
        ASSERT_EQ(client->command("DATA"), go_ahead);
        ASSERT_TRUE(client->send(later + ".\r\n"));
        EXPECT_EQ(client->read_reply(), accepted);
        EXPECT_EQ(client->command("QUIT").substr(0, 4), "221 ");
        client->read_to_close();
        client.reset();
        ASSERT_TRUE(wait_for_no_sessions(10));
        const auto bodies = bodies_on_disk(module);
        ASSERT_EQ(bodies.size(), 1u);
        EXPECT_EQ(bodies.begin()->first, stored_form(later));
        EXPECT_TRUE(module.spool_files(".tmp").empty());
        // A failed close still gave its descriptor back.
        EXPECT_EQ(open_descriptors(), descriptors_before) << descriptor_list();
    }
}

void PrintTo(const SeamCase& c, std::ostream* out) {
    *out << c.label;
}

INSTANTIATE_TEST_SUITE_P(Cases, DiskFullSeam, ::testing::ValuesIn(seam_cases),
                         [](const auto& info) { return std::string(info.param.label); });

// Eight sessions send at once while the disk fills: whichever got a 250
// has its whole message on disk, whichever got a 452 has nothing there,
// and once there is room again every refused message gets through.
TEST(DiskFull, SeamDuringConcurrentMessagesNeverAcknowledgesAPartialFile) {
    ReceptionFixture module;
    constexpr int senders = 8;
    std::vector<std::unique_ptr<SmtpTestClient>> clients;
    std::vector<std::string> texts;
    for (int s = 0; s < senders; ++s) {
        clients.push_back(module.connect());
        envelope(*clients.back(), "c" + std::to_string(s));
        texts.push_back(message_of(300000, "concurrent" + std::to_string(s)));
        ASSERT_EQ(clients.back()->command("DATA"), go_ahead);
    }
    std::vector<std::string> replies(senders);
    {
        // About a third of all the writes the eight texts need succeed.
        os::FaultScope disk_full(os::Op::WriteFile, senders * 5 / 3, os::ERROR_DISK_FULL, true);
        std::vector<std::thread> threads;
        for (int s = 0; s < senders; ++s) {
            threads.emplace_back([&, s] {
                clients[s]->send(texts[s] + ".\r\n");
                replies[s] = clients[s]->read_reply();
            });
        }
        for (auto& t : threads) t.join();
        for (auto& client : clients) EXPECT_EQ(client->command("NOOP"), noop_reply);
    }
    int refused = 0;
    auto bodies = bodies_on_disk(module);
    for (int s = 0; s < senders; ++s) {
        SCOPED_TRACE("sender " + std::to_string(s));
        ASSERT_TRUE(replies[s] == accepted || replies[s] == no_space) << replies[s];
        EXPECT_EQ(bodies.count(stored_form(texts[s])), replies[s] == accepted ? 1u : 0u);
        refused += replies[s] == no_space;
    }
    EXPECT_GT(refused, 0) << "the disk never filled up";
    EXPECT_EQ(bodies.size(), static_cast<std::size_t>(senders - refused));
    EXPECT_TRUE(module.spool_files(".tmp").empty());

    // Room again: each refused sender tries once more and is accepted.
    for (int s = 0; s < senders; ++s) {
        if (replies[s] != no_space) continue;
        ASSERT_EQ(clients[s]->command("DATA"), go_ahead);
        ASSERT_TRUE(clients[s]->send(texts[s] + ".\r\n"));
        EXPECT_EQ(clients[s]->read_reply(), accepted) << "sender " << s;
    }
    for (auto& client : clients) {
        client->command("QUIT");
        client->read_to_close();
    }
    bodies = bodies_on_disk(module);
    EXPECT_EQ(bodies.size(), static_cast<std::size_t>(senders));
    for (int s = 0; s < senders; ++s) EXPECT_EQ(bodies[stored_form(texts[s])], 1) << s;
}

// A small tmpfs on the spool directory, unmounted (lazily, should a file
// still be open) when the test ends.
class SmallSpoolFileSystem {
  public:
    SmallSpoolFileSystem(const std::string& directory, const char* size) : directory_(directory) {
        std::filesystem::create_directories(directory);
        const std::string options = std::string("size=") + size;
        if (::mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) == 0)
            mounted_ = true;
        else
            error_ = std::strerror(errno);
    }
    ~SmallSpoolFileSystem() {
        if (mounted_) ::umount2(directory_.c_str(), MNT_DETACH);
    }
    SmallSpoolFileSystem(const SmallSpoolFileSystem&) = delete;
    SmallSpoolFileSystem& operator=(const SmallSpoolFileSystem&) = delete;
    bool mounted() const { return mounted_; }
    const std::string& error() const { return error_; }

  private:
    std::string directory_;
    bool mounted_ = false;
    std::string error_;
};

TEST(DiskFull, RealSmallFileSystemRefusesWhatDoesNotFitAndRecovers) {
    ReceptionFixture module({}, false);
    SmallSpoolFileSystem disk(module.spool(), "2m");
    if (!disk.mounted())
        GTEST_SKIP() << "cannot mount a tmpfs on the spool here (" << disk.error()
                     << "); the fault seam tests cover a full disk";
    ASSERT_EQ(module.start(), 1);
    auto client = module.connect();
    envelope(*client, "tmpfs");

    // Bigger than the whole file system.
    const std::string too_big = message_of(3 << 20, "toobig");
    ASSERT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send(too_big + ".\r\n"));
    EXPECT_EQ(client->read_reply(), no_space);
    EXPECT_EQ(client->command("NOOP"), noop_reply);
    EXPECT_TRUE(module.spool_files("").empty());

    // Nearly full: a filler leaves about 100 KiB.
    const std::string filler_path = module.spool() + "/filler.bin";
    write_file(filler_path, std::string((2 << 20) - (100 << 10), 'f'));
    const std::string does_not_fit = message_of(400 << 10, "nofit");
    ASSERT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send(does_not_fit + ".\r\n"));
    EXPECT_EQ(client->read_reply(), no_space);
    EXPECT_EQ(client->command("NOOP"), noop_reply);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    EXPECT_TRUE(module.spool_files(".822").empty());

    // What still fits is taken.
    const std::string fits = message_of(20 << 10, "fits");
    ASSERT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send(fits + ".\r\n"));
    EXPECT_EQ(client->read_reply(), accepted);

    // Room returns: the refused message now gets through whole.
    std::filesystem::remove(filler_path);
    EXPECT_EQ(client->command("MAIL FROM:<again@disk.test>"), "250 OK\r\n");
    ASSERT_EQ(client->command("DATA"), go_ahead);
    ASSERT_TRUE(client->send(does_not_fit + ".\r\n"));
    EXPECT_EQ(client->read_reply(), accepted);
    client->command("QUIT");
    client->read_to_close();
    const auto bodies = bodies_on_disk(module);
    EXPECT_EQ(bodies.size(), 2u);
    EXPECT_EQ(bodies.count(stored_form(fits)), 1u);
    EXPECT_EQ(bodies.count(stored_form(does_not_fit)), 1u);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
}

}  // namespace
}  // namespace qbsmtp::test
