// SMTPSendInit and SMTPSend: how each end of a conversation reaches the
// host (result, temporary_failure, events) and what the relay saw.

#include "sending/relay.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "platform/os_fault.h"
#include "send_fixture.h"

namespace qbsmtp::test {
namespace {

using Relay = ScriptedRelay;
using Wait = ScriptedRelay::Wait;

class SendTest : public SendFixture {
  protected:
    RecordBuilder builder;

    void SetUp() override {
        builder.sender = "fax@gw.test";
        builder.to = {"someone@example.test"};
    }

    // A record with one plain text attachment.
    MailRecord* text_record() {
        builder.attachments = {make_file("body.txt", "Hello\n")};
        return builder.build();
    }

    std::string commands_until_data() const {
        return "HELO gw.test\r\nMAIL FROM:<fax@gw.test>\r\nRCPT TO:<someone@example.test>\r\n"
               "DATA\r\n";
    }
};

TEST_F(SendTest, DeliveredMessageReturnsOne) {
    start(Relay::conversation());
    MailRecord* record = text_record();
    EXPECT_EQ(SMTPSend(record), 1);
    EXPECT_EQ(record->temporary_failure, 0);
    const std::string wire = relay->received();
    EXPECT_EQ(wire.substr(0, commands_until_data().size()), commands_until_data());
    EXPECT_TRUE(wire.ends_with("\r\n.\r\nQUIT\r\n"));
    EXPECT_EQ(event_ids(), std::vector<std::string>{});
}

struct EndCase {
    const char* name;
    std::vector<Relay::Step> script;
    int result;
    int temporary_failure;
    std::vector<std::string> events;  // ids, in order
    const char* wire_ends_with;       // what the relay saw last
};

std::vector<Relay::Step> until_quit(const std::string& greeting, Relay::Step quit) {
    return {Relay::answer(Wait::nothing, greeting),
            Relay::answer(Wait::line, "250 hi\r\n"),
            Relay::answer(Wait::line, "250 ok\r\n"),
            Relay::answer(Wait::line, "250 ok\r\n"),
            Relay::answer(Wait::line, "354 go\r\n"),
            Relay::answer(Wait::data_end, "250 ok\r\n"),
            quit};
}

TEST_F(SendTest, EachEndOfTheConversationReachesTheHost) {
    const EndCase cases[] = {
        {"421 to QUIT is as good as 221",
         Relay::conversation("250 ok\r\n", "250 ok\r\n", "421 bye\r\n"),
         1,
         0,
         {},
         "QUIT\r\n"},
        {"550 to RCPT",
         Relay::conversation("550 no such user\r\n"),
         0,
         1,
         {"0xC0004EF4"},
         "RCPT TO:<someone@example.test>\r\n"},
        {"451 to the end of the message",
         Relay::conversation("250 ok\r\n", "451 later\r\n"),
         0,
         1,
         {"0xC0004EF4"},
         "\r\n.\r\n"},
        {"500 to QUIT",
         Relay::conversation("250 ok\r\n", "250 ok\r\n", "500 what\r\n"),
         0,
         1,
         {"0xC0004F04"},
         "QUIT\r\n"},
        {"greeting 554",
         {Relay::answer(Wait::nothing, "554 go away\r\n")},
         0,
         1,
         {"0xC0004EF4"},
         ""},
        {"greeting of several lines",
         until_quit("220-one\r\n220-two\r\n220 three\r\n",
                    Relay::answer(Wait::line, "221 bye\r\n")),
         1,
         0,
         {},
         "QUIT\r\n"},
        {"unintelligible greeting",
         {Relay::answer(Wait::nothing, "hello there\r\n")},
         0,
         0,
         {"0xC0004EFB"},
         ""},
        {"closes instead of greeting",
         {Relay::close_after(Wait::nothing)},
         0,
         1,
         {"0xC0004EF5"},
         ""},
        {"closes after HELO",
         {Relay::answer(Wait::nothing, "220 ready\r\n"), Relay::close_after(Wait::line)},
         0,
         1,
         {"0xC0004EF5"},
         "HELO gw.test\r\n"},
        {"closes instead of answering QUIT",
         until_quit("220 ready\r\n", Relay::close_after(Wait::line)),
         0,
         1,
         {"0xC0004EF5"},
         "QUIT\r\n"},
    };
    start_module_on(25);
    for (const EndCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t events_before = events().size();
        ScriptedRelay peer(c.script);
        aim_at(peer);
        MailRecord* record = text_record();
        EXPECT_EQ(SMTPSend(record), c.result);
        EXPECT_EQ(record->temporary_failure, c.temporary_failure);
        EXPECT_EQ(event_ids_since(events_before), c.events);
        const std::string wire = peer.received();
        EXPECT_TRUE(wire.ends_with(c.wire_ends_with)) << wire;
        // QUIT goes out on the good way only, never after a failure.
        EXPECT_EQ(wire.find("QUIT") != std::string::npos,
                  std::string(c.wire_ends_with) == "QUIT\r\n");
    }
}

TEST_F(SendTest, UnexpectedCodeIsReported) {
    start(Relay::conversation("550 no such user\r\n"));
    SMTPSend(text_record());
    EXPECT_EQ(event("0xC0004EF4").strings, std::vector<std::string>{"550"});
    EXPECT_EQ(relay->received().find("DATA"), std::string::npos);
}

TEST_F(SendTest, RefusedRecordsNeverConnect) {
    struct RefusalCase {
        const char* name;
        std::vector<std::string> to;
        std::vector<std::string> attachments;
        std::string event;
    };
    const std::string long_path = "/" + std::string(260, 'p');  // 261 bytes
    const RefusalCase cases[] = {
        {"no recipient", {}, {"/x/body.txt"}, "0xC0004FCF"},
        {"no attachment", {"a@b"}, {}, "0xC0004FD1"},
        {"neither: the recipient test comes first", {}, {}, "0xC0004FCF"},
        {"path too long comes before both", {}, {long_path}, "0xC0004E33"},
        {"path too long behind a good one", {"a@b"}, {"/x/body.txt", long_path}, "0xC0004E33"},
    };
    start(Relay::conversation());
    for (const RefusalCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t events_before = events().size();
        builder.to = c.to;
        builder.attachments = c.attachments;
        MailRecord* record = builder.build();
        EXPECT_EQ(SMTPSend(record), 0);
        EXPECT_EQ(record->temporary_failure, 0);
        EXPECT_EQ(event_ids_since(events_before), std::vector<std::string>{c.event});
    }
    EXPECT_EQ(event("0xC0004E33").strings, std::vector<std::string>{long_path});
    relay->stop();
    EXPECT_EQ(relay->connections(), 0);
    EXPECT_EQ(SMTPSend(nullptr), 0);
}

TEST_F(SendTest, SilentRelayEndsBySendTimeout) {
    settings = "\"SendTimeout\"=dword:00000001\r\n";
    start_module_on(25);
    for (const bool greets : {false, true}) {
        SCOPED_TRACE(greets ? "silent after HELO" : "silent before the greeting");
        const std::size_t events_before = events().size();
        std::vector<Relay::Step> script;
        if (greets) script.push_back(Relay::answer(Wait::nothing, "220 ready\r\n"));
        script.push_back(Relay::silent_after(greets ? Wait::line : Wait::nothing));
        ScriptedRelay peer(script);
        aim_at(peer);
        const auto started = std::chrono::steady_clock::now();
        MailRecord* record = text_record();
        EXPECT_EQ(SMTPSend(record), 0);
        EXPECT_EQ(record->temporary_failure, 1);
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
        EXPECT_EQ(event_ids_since(events_before), std::vector<std::string>{"0xC0004EF5"});
    }
}

TEST_F(SendTest, RelayThatStopsReadingEndsBySendTimeout) {
    settings = "\"SendTimeout\"=dword:00000001\r\n";
    std::vector<Relay::Step> script = Relay::conversation();
    script.resize(5);                                     // up to the 354 to DATA
    script.push_back(Relay::stall_after(Wait::nothing));  // then it reads no more
    start(script);
    // More than the loopback socket buffers hold; zeros cost no disk.
    const std::string path = prefix.file("big.tif");
    make_file("big.tif", "");
    std::filesystem::resize_file(path, 64u * 1024 * 1024);
    builder.attachments = {path};
    MailRecord* record = builder.build();
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(SMTPSend(record), 0);
    EXPECT_EQ(record->temporary_failure, 1);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
    EXPECT_EQ(event_ids(), std::vector<std::string>{"0xC0004EF5"});
}

TEST_F(SendTest, SetsockoptFailureEndsForNow) {
    start(Relay::conversation());
    os::FaultScope fault(os::Op::setsockopt, 1, os::WSAENOBUFS);
    MailRecord* record = text_record();
    EXPECT_EQ(SMTPSend(record), 0);
    EXPECT_EQ(record->temporary_failure, 1);
    EXPECT_EQ(event_ids(), std::vector<std::string>{"0xC0004E92"});
}

TEST_F(SendTest, SocketFailureEndsForNow) {
    start(Relay::conversation());
    os::FaultScope fault(os::Op::socket, 1, os::WSAEMFILE);
    MailRecord* record = text_record();
    EXPECT_EQ(SMTPSend(record), 0);
    EXPECT_EQ(record->temporary_failure, 1);
    EXPECT_EQ(event_ids(), std::vector<std::string>{"0xC0004E91"});
}

TEST_F(SendTest, WithoutSendInitTheAllZeroAddressIsTried) {
    start_module_on(25);
    MailRecord* record = text_record();
    EXPECT_EQ(SMTPSend(record), 0);
    EXPECT_EQ(record->temporary_failure, 1);
    const ReportedEvent failed = event("0xC0004E94");
    ASSERT_EQ(failed.strings.size(), 2u);
    EXPECT_EQ(failed.strings[0], "0.0.0.0");
}

TEST_F(SendTest, FailedSendInitKeepsTheEarlierRelay) {
    start(Relay::conversation());
    {
        os::FaultScope fault(os::Op::gethostbyname, 1, os::WSAHOST_NOT_FOUND);
        EXPECT_EQ(SMTPSendInit("relay.invalid"), 0);
    }
    const ReportedEvent failed = event("0xC0004E8A");
    ASSERT_EQ(failed.strings.size(), 2u);
    EXPECT_EQ(failed.strings[0], "relay.invalid");
    EXPECT_EQ(SMTPSend(text_record()), 1);
    EXPECT_EQ(relay_address.sin_port, os::htons(relay->port()));
}

TEST(SendInit, DisabledModuleRefusesWithLastError1) {
    TempPrefix prefix;
    os::fault_arm(os::Op::getservbyname, 1, os::WSANO_DATA);
    process_attach(nullptr);
    os::fault_clear();
    ASSERT_EQ(smtp_service, nullptr);
    const std::size_t events_before = reported_events().size();
    EXPECT_EQ(SMTPSendInit("127.0.0.1"), 0);
    EXPECT_EQ(os::GetLastError(), 1u);
    EXPECT_EQ(reported_events().size(), events_before);
}

// Peak resident memory of the process, in KiB.
long peak_rss_kib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST_F(SendTest, FiftyMegabyteAttachmentRunsInFlatMemory) {
    constexpr std::size_t size = 50u * 1024 * 1024;
    const std::string path = prefix.file("big.pdf");
    {
        std::ofstream out(path, std::ios::binary);
        std::mt19937 random(7);
        std::string chunk(64 * 1024, '\0');
        for (char& c : chunk) c = static_cast<char>(random());
        for (std::size_t written = 0; written < size; written += chunk.size()) {
            out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        }
    }
    start(Relay::conversation(), /*keep_bytes=*/false);
    builder.attachments = {make_file("body.txt", "See attachment.\n"), path};
    MailRecord* record = builder.build();
    const long before = peak_rss_kib();
    EXPECT_EQ(SMTPSend(record), 1);
    const long growth = peak_rss_kib() - before;
    EXPECT_LT(growth, 8 * 1024) << "peak RSS grew by " << growth << " KiB";
    // 54 bytes make a line of 72 characters and CR LF.
    const std::size_t base64_bytes = (size / 54) * 74 + ((size % 54) + 2) / 3 * 4 + 2;
    EXPECT_GT(relay->received_count(), base64_bytes);
    EXPECT_LT(relay->received_count(), base64_bytes + 2048);
}

}  // namespace
}  // namespace qbsmtp::test
