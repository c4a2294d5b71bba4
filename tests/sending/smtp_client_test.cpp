// The client connection: the reply reader, the send buffer, the formatted
// writer and the commands, over a real loopback connection.

#include "sending/smtp_client.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/os_fault.h"
#include "send_fixture.h"

namespace qbsmtp::test {
namespace {

using Relay = ScriptedRelay;
using Wait = ScriptedRelay::Wait;

class ClientTest : public SendFixture {
  protected:
    void SetUp() override { start_module_on(25); }

    // Connects client to relay on loopback.
    static void connect(SmtpClient& client, const ScriptedRelay& peer) {
        client.setup_buffers();
        client.socket = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
        ASSERT_NE(client.socket, os::INVALID_SOCKET);
        os::sockaddr_in address{};
        address.sin_family = os::AF_INET;
        address.sin_port = os::htons(peer.port());
        address.sin_addr.s_addr = os::htonl(0x7F000001);
        ASSERT_EQ(os::connect(client.socket, reinterpret_cast<const os::sockaddr*>(&address),
                              sizeof address),
                  0);
        client.connected = 1;
    }
};

struct ReplyCase {
    const char* name;
    std::vector<std::string> pieces;  // as the relay sends them
    int code;                         // expected, or -1 for a throw
    Exception thrown;
    const char* event;
};

TEST_F(ClientTest, ReadReplyFollowsTheStateTable) {
    const ReplyCase cases[] = {
        {"one line", {"220 ready\r\n"}, 220, {}, nullptr},
        {"empty text", {"250 \r\n"}, 250, {}, nullptr},
        {"continuation", {"220-first\r\n220 second\r\n"}, 220, {}, nullptr},
        {"last line decides", {"220-first\r\n554 second\r\n"}, 554, {}, nullptr},
        {"three lines", {"250-a\r\n250-b\r\n251 c\r\n"}, 251, {}, nullptr},
        {"bare LF is text", {"220-a\n250 b\r\n221 c\r\n"}, 221, {}, nullptr},
        {"CR CR LF is text", {"220-a\r\r\n221 b\r\n250 c\r\n"}, 250, {}, nullptr},
        {"CR then text", {"220 a\rb\r\n"}, 220, {}, nullptr},
        {"split over blocks", {"2", "20-a\r", "\n220 b\r\n"}, 220, {}, nullptr},
        {"three digits then CR", {"220\r\n"}, -1, Exception::failed_for_good, "0xC0004EFB"},
        {"two digits then blank", {"22 x\r\n"}, -1, Exception::failed_for_good, "0xC0004EFB"},
        {"letters", {"hello\r\n"}, -1, Exception::failed_for_good, "0xC0004EFB"},
        {"bad second line", {"220-a\r\nxyz\r\n"}, -1, Exception::failed_for_good, "0xC0004EFB"},
        {"closed mid line", {"220 rea"}, -1, Exception::failed_for_now, "0xC0004EF5"},
        {"closed mid code", {"22"}, -1, Exception::failed_for_now, "0xC0004EF5"},
        {"closed at once", {}, -1, Exception::failed_for_now, "0xC0004EF5"},
    };
    for (const ReplyCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t events_before = events().size();
        std::vector<Relay::Step> script;
        if (!c.pieces.empty()) script.push_back(Relay::answer_in_pieces(Wait::nothing, c.pieces));
        script.push_back(Relay::close_after(Wait::nothing));
        ScriptedRelay peer(script);
        SmtpClient client;
        connect(client, peer);
        try {
            const int code = read_reply(client);
            EXPECT_EQ(code, c.code);
        } catch (Exception thrown) {
            EXPECT_EQ(c.code, -1) << "threw " << static_cast<int>(thrown);
            EXPECT_EQ(thrown, c.thrown);
        }
        const std::vector<ReportedEvent> after = events();
        if (c.event == nullptr) {
            EXPECT_EQ(after.size(), events_before);
        } else {
            ASSERT_EQ(after.size(), events_before + 1);
            EXPECT_EQ(after.back().id, c.event);
        }
    }
}

TEST_F(ClientTest, BytesBehindAReplyBeginTheNextOne) {
    ScriptedRelay peer({Relay::answer(Wait::nothing, "250 a\r\n251-b\r\n252 c\r\n")});
    SmtpClient client;
    connect(client, peer);
    EXPECT_EQ(read_reply(client), 250);
    EXPECT_EQ(read_reply(client), 252);
    // The whole block stays in the buffer until the next refill.
    EXPECT_EQ(std::string(client.read_buffer), "250 a\r\n251-b\r\n252 c\r\n");
}

TEST_F(ClientTest, SendBufferGoesOutInBlocksOf1024) {
    os::FaultScope counting(os::Op::send, 1000000, os::WSAENOBUFS);
    ScriptedRelay peer({Relay::answer(Wait::line, "250 ok\r\n")});
    SmtpClient client;
    connect(client, peer);
    for (int i = 0; i < 1023; ++i) client.put_byte('x');
    client.put_byte('\r');
    EXPECT_EQ(os::fault_calls(os::Op::send), 0u) << "a full buffer stays until one more byte";
    EXPECT_EQ(client.write_room, 0);
    client.put_byte('\n');
    EXPECT_EQ(os::fault_calls(os::Op::send), 1u);
    EXPECT_EQ(client.write_room, 1023);
    EXPECT_EQ(read_reply(client), 250);  // flushes the LF first
    EXPECT_EQ(os::fault_calls(os::Op::send), 2u);
    client.clean_up();
    EXPECT_EQ(peer.received(), std::string(1023, 'x') + "\r\n");
}

TEST_F(ClientTest, FailedSendEndsForNowWithoutEvent) {
    ScriptedRelay peer({});
    SmtpClient client;
    connect(client, peer);
    const std::size_t events_before = events().size();
    os::FaultScope fault(os::Op::send, 1, os::WSAECONNRESET);
    write_format(client, "NOOP\r\n");
    try {
        write_flush(client);
        ADD_FAILURE() << "no throw";
    } catch (Exception thrown) {
        EXPECT_EQ(thrown, Exception::failed_for_now);
    }
    EXPECT_EQ(events().size(), events_before);
}

TEST_F(ClientTest, WriteFormatRefusesATextOver1023Bytes) {
    ScriptedRelay peer({});
    SmtpClient client;
    connect(client, peer);
    const std::string fits(1023, 'a');
    write_format(client, "%s", fits.c_str());
    EXPECT_EQ(client.write_room, 1);
    const std::string too_long(1024, 'b');
    EXPECT_THROW(write_format(client, "%s", too_long.c_str()), Exception);
    EXPECT_EQ(client.write_room, 1) << "nothing of a refused text is written";
    client.clean_up();
    EXPECT_EQ(peer.received(), "");  // nothing was flushed
}

TEST_F(ClientTest, CommandsAcceptTheirCodesOnly) {
    struct CommandCase {
        const char* name;
        void (*issue)(SmtpClient&);
        const char* line;
        const char* reply;
        bool accepted;
        const char* event;
    };
    const CommandCase cases[] = {
        {"HELO", issue_helo, "HELO gw.test\r\n", "250 hi\r\n", true, nullptr},
        {"HELO refused", issue_helo, "HELO gw.test\r\n", "251 hi\r\n", false, "0xC0004EF4"},
        {"MAIL", [](SmtpClient& c) { issue_mail(c, "a@b"); }, "MAIL FROM:<a@b>\r\n", "250 ok\r\n",
         true, nullptr},
        {"MAIL 452", [](SmtpClient& c) { issue_mail(c, "a@b"); }, "MAIL FROM:<a@b>\r\n",
         "452 full\r\n", false, "0xC0004EF4"},
        {"RCPT 251", [](SmtpClient& c) { issue_rcpt(c, "x@y,z@w"); }, "RCPT TO:<x@y,z@w>\r\n",
         "251 forwarded\r\n", true, nullptr},
        {"RCPT 550", [](SmtpClient& c) { issue_rcpt(c, "x@y"); }, "RCPT TO:<x@y>\r\n",
         "550 no such user\r\n", false, "0xC0004EF4"},
        {"DATA", issue_data, "DATA\r\n", "354 go\r\n", true, nullptr},
        {"DATA 250", issue_data, "DATA\r\n", "250 go\r\n", false, "0xC0004EF4"},
        {"QUIT 221", issue_quit, "QUIT\r\n", "221 bye\r\n", true, nullptr},
        {"QUIT 421", issue_quit, "QUIT\r\n", "421 closing\r\n", true, nullptr},
        {"QUIT 250", issue_quit, "QUIT\r\n", "250 what\r\n", false, "0xC0004F04"},
    };
    for (const CommandCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t events_before = events().size();
        ScriptedRelay peer({Relay::answer(Wait::line, c.reply)});
        SmtpClient client;
        connect(client, peer);
        bool threw = false;
        try {
            c.issue(client);
        } catch (Exception thrown) {
            threw = true;
            EXPECT_EQ(thrown, Exception::failed_for_now);
        }
        EXPECT_EQ(threw, !c.accepted);
        client.clean_up();
        EXPECT_EQ(peer.received(), c.line);
        const std::vector<ReportedEvent> after = events();
        if (c.event == nullptr) {
            EXPECT_EQ(after.size(), events_before);
        } else {
            ASSERT_EQ(after.size(), events_before + 1);
            EXPECT_EQ(after.back().id, c.event);
            const std::string reply(c.reply);
            EXPECT_EQ(after.back().strings, std::vector<std::string>{reply.substr(0, 3)});
        }
    }
}

TEST_F(ClientTest, AcceptedQuitReportsSuccessOnlyUnderItsMaskBit) {
    for (const std::uint32_t mask : {0u, static_cast<std::uint32_t>(QBSMTP_LOG_SEND_SUCCESS)}) {
        SMTPSetLogging(mask);
        const std::size_t events_before = events().size();
        ScriptedRelay peer({Relay::answer(Wait::line, "421 closing\r\n")});
        SmtpClient client;
        connect(client, peer);
        issue_quit(client);
        const std::vector<ReportedEvent> after = events();
        if (mask == 0) {
            EXPECT_EQ(after.size(), events_before);
        } else {
            ASSERT_EQ(after.size(), events_before + 1);
            EXPECT_EQ(after.back().id, "0x40004F05");
            EXPECT_EQ(after.back().strings, std::vector<std::string>{"421"});
        }
    }
}

TEST_F(ClientTest, PhaseTimeoutsAreTheRfcLimitsUnlessSendTimeoutIsSet) {
    EXPECT_EQ(phase_timeout(Phase::connect), 120u);
    EXPECT_EQ(phase_timeout(Phase::greeting), 300u);
    EXPECT_EQ(phase_timeout(Phase::command), 300u);
    EXPECT_EQ(phase_timeout(Phase::data_initiation), 120u);
    EXPECT_EQ(phase_timeout(Phase::data_block), 180u);
    EXPECT_EQ(phase_timeout(Phase::data_termination), 600u);
    send_timeout = 7;
    EXPECT_EQ(phase_timeout(Phase::data_termination), 7u);
    EXPECT_EQ(phase_timeout(Phase::connect), 7u);
}

TEST(DottedQuad, FormatsTheFourAddressBytesInOrder) {
    struct {
        unsigned char bytes[4];
        const char* text;
    } const cases[] = {
        {{0, 0, 0, 0}, "0.0.0.0"},
        {{127, 0, 0, 1}, "127.0.0.1"},
        {{255, 255, 255, 255}, "255.255.255.255"},
        {{10, 200, 3, 41}, "10.200.3.41"},
    };
    for (const auto& c : cases) {
        os::in_addr address{};
        std::memcpy(&address.s_addr, c.bytes, 4);
        char buffer[16];
        EXPECT_STREQ(format_dotted_quad(buffer, address), c.text);
    }
}

}  // namespace
}  // namespace qbsmtp::test
