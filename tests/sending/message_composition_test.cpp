// prepare_message (the record into the client) and send_mail (the exact
// bytes of the three message forms), and the Date line.

#include "sending/message_composition.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>

#include "frame/module_state.h"
#include "platform/os_fault.h"
#include "send_fixture.h"

namespace qbsmtp::test {
namespace {

using Relay = ScriptedRelay;

class PrepareTest : public SendFixture {
  protected:
    RecordBuilder builder;
    SmtpClient client;

    void SetUp() override {
        start_module_on(25);
        builder.sender = "fax@gw.test";
        builder.to = {"a@b.test"};
        builder.attachments = {"/spool/body.txt"};
    }

    // prepare_message on a fresh client; its result, or -1 for a throw.
    int prepare() {
        client.clean_up();
        try {
            return prepare_message(*builder.build(), client);
        } catch (Exception) {
            return -1;
        }
    }
};

TEST_F(PrepareTest, SenderTakesBlanksOutAndAddsTheHostName) {
    struct Case {
        const char* name;
        std::string sender;
        bool null_sender;
        std::string expected;
    };
    const Case cases[] = {
        {"with @ kept as it is, less its blanks", " fax @ here.test\t\r\n", false, "fax@here.test"},
        {"no @ gets @ and the host name", "fax", false, "fax@gw.test"},
        {"blanks only", " \t ", false, "@gw.test"},
        {"empty text", "", false, "@gw.test"},
        {"null pointer", "", true, "Unknown@gw.test"},
        {"angle brackets stay", "<fax@x>", false, "<fax@x>"},
        {"bytes above 127 are no blanks", "f\xa0x", false, "f\xa0x@gw.test"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        builder.sender = c.sender;
        builder.null_sender = c.null_sender;
        ASSERT_EQ(prepare(), 1);
        EXPECT_EQ(std::string(client.sender), c.expected);
    }
}

TEST_F(PrepareTest, HostNameIsCutToFitTheSenderField) {
    // Unknown@ takes at most 25 bytes of the host name.
    host_name = "h234567890123456789012345678901";  // 31 bytes
    builder.null_sender = true;
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.sender), "Unknown@h234567890123456789012345");

    // 255 - n bytes, n counting the blanks of the source too.
    const std::string long_host(198, 'h');
    host_name = long_host.c_str();
    builder.null_sender = false;
    builder.sender = std::string(50, 's') + std::string(50, ' ');  // n = 100
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.sender), std::string(50, 's') + "@" + std::string(155, 'h'));

    // Never past the field: 100 bytes, "@" and 154 bytes make 255.
    builder.sender = std::string(100, 's');
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.sender), std::string(100, 's') + "@" + std::string(154, 'h'));

    // More source bytes than the field: the address keeps an empty domain.
    builder.sender = std::string(100, 's') + std::string(200, ' ');
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.sender), std::string(100, 's') + "@");
}

TEST_F(PrepareTest, AddressesThatDoNotFitRefuseTheRecord) {
    struct Case {
        const char* name;
        std::string sender;
        std::vector<std::string> to;
        int result;
        const char* event;
    };
    const std::string s254(254, 's');
    const Case cases[] = {
        {"sender of 255 bytes with @", s254 + "@", {"a@b"}, 1, nullptr},
        {"sender of 256 bytes", s254 + "@x", {"a@b"}, 0, "0xC0004FD0"},
        {"sender of 255 bytes without room for @", s254 + "s", {"a@b"}, 0, "0xC0004FD0"},
        {"sender of 254 bytes gets @ only", s254, {"a@b"}, 1, nullptr},
        {"recipients of 255 bytes",
         "f@x",
         {std::string(127, 'r'), std::string(127, 'q')},
         1,
         nullptr},
        {"recipients of 256 bytes",
         "f@x",
         {std::string(128, 'r'), std::string(127, 'q')},
         0,
         "0xC0004FCF"},
        {"one recipient of 256 bytes", "f@x", {std::string(256, 'r')}, 0, "0xC0004FCF"},
        {"both too long: recipients first", s254 + "@x", {std::string(256, 'r')}, 0, "0xC0004FCF"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::size_t events_before = events().size();
        builder.sender = c.sender;
        builder.to = c.to;
        EXPECT_EQ(prepare(), c.result);
        const std::vector<std::string> ids = event_ids_since(events_before);
        if (c.event == nullptr) {
            EXPECT_TRUE(ids.empty());
        } else {
            EXPECT_EQ(ids, std::vector<std::string>{c.event});
        }
    }
    builder.sender = s254;
    builder.to = {"a@b"};
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.sender), s254 + "@");
}

TEST_F(PrepareTest, RecipientsAreJoinedByCommas) {
    builder.to = {"one@x"};
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.recipients), "one@x");
    builder.to = {"one@x", "two@y", "three@z"};
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.recipients), "one@x,two@y,three@z");
}

TEST_F(PrepareTest, SubjectIsCutAt255Bytes) {
    builder.subject = std::string(300, 'x');
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.subject), std::string(255, 'x'));
    builder.null_subject = true;
    ASSERT_EQ(prepare(), 1);
    EXPECT_EQ(std::string(client.subject), "");
}

TEST_F(PrepareTest, FirstAttachmentIsTheTextBodyOnlyWithOneDotBeforeTxt) {
    struct Case {
        std::vector<std::string> attachments;
        int body_is_text;
    };
    const Case cases[] = {
        {{"/spool/body.txt"}, 1},
        {{"/spool/BODY.TXT"}, 1},
        {{"/spool/body.Txt", "/spool/b.tif"}, 1},
        {{"/spool.d/body.txt"}, 0},
        {{"/spool/body.old.txt"}, 0},
        {{"/spool/body.txt.gz"}, 0},
        {{"/spool/body.tif", "/spool/a.txt"}, 0},
        {{"/spool/body"}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.attachments[0]);
        builder.attachments = c.attachments;
        ASSERT_EQ(prepare(), 1);
        EXPECT_EQ(client.body_is_text, c.body_is_text);
        EXPECT_EQ(client.attachment_count, static_cast<int>(c.attachments.size()));
    }
}

TEST_F(PrepareTest, PathsOf260BytesFitAndOf261DoNot) {
    builder.attachments = {"/" + std::string(259, 'p')};
    EXPECT_EQ(prepare(), 1);
    builder.attachments = {"/" + std::string(260, 'p')};
    EXPECT_EQ(prepare(), -1);
}

// ---- The bytes on the wire ---------------------------------------------

class ComposeTest : public SendFixture {
  protected:
    RecordBuilder builder;

    void SetUp() override {
        classes =
            "[HKEY_CLASSES_ROOT\\.qbtype]\r\n\"Content Type\"=\"application/x-qb-test\"\r\n\r\n";
        start(Relay::conversation());
        builder.sender = "fax@gw.test";
        builder.to = {"one@example.test", "two@example.test"};
        builder.subject = "Report 7";
    }

    // Sends the record; the message between DATA and the end marker.
    NormalisedMessage send(int expected_result = 1) {
        MailRecord* record = builder.build();
        EXPECT_EQ(SMTPSend(record), expected_result);
        const std::string wire = relay->received();
        const std::string head =
            "HELO gw.test\r\nMAIL FROM:<fax@gw.test>\r\n"
            "RCPT TO:<one@example.test,two@example.test>\r\nDATA\r\n";
        EXPECT_EQ(wire.substr(0, head.size()), head);
        if (expected_result == 1) {
            EXPECT_TRUE(wire.ends_with("\r\n.\r\nQUIT\r\n"));
            return normalise(relay->message());
        }
        return normalise(wire.substr(std::min(head.size(), wire.size())));
    }

    static constexpr const char* headers =
        "DATE\r\nFrom: fax@gw.test\r\nTo: one@example.test,two@example.test\r\n"
        "Subject: Report 7\r\n";
    static constexpr const char* text_headers =
        "Content-Type:text/plain; charset=US-ASCII; name=\"message body\"\r\n"
        "Content-Transfer-Encoding:7bit\r\n\r\n";
};

TEST_F(ComposeTest, PlainTextForm) {
    builder.attachments = {make_file("body.txt", "Hello\r\n.\r\n.dot\r\nlast")};
    const NormalisedMessage m = send();
    EXPECT_EQ(m.text, std::string(headers) + "MIME-Version: 1.0\r\n" + text_headers +
                          "Hello\r\n..\r\n..dot\r\nlast\r\n.\r\n");
}

TEST_F(ComposeTest, PreparedMimeForm) {
    const std::string file =
        "MIME-Version: 1.0\r\nContent-Type: text/html\r\n\r\n<p>hi</p>\r\n.x\r\n";
    builder.attachments = {make_file("body.txt", file)};
    const NormalisedMessage m = send();
    EXPECT_EQ(m.text, std::string(headers) +
                          "MIME-Version: 1.0\r\nContent-Type: text/html\r\n\r\n<p>hi</p>\r\n..x\r\n"
                          "\r\n.\r\n");
}

TEST_F(ComposeTest, OnlyMimeInCapitalsMakesAPreparedMessage) {
    builder.attachments = {make_file("body.txt", "Mime-Version: 1.0\n")};
    const NormalisedMessage m = send();
    EXPECT_EQ(m.text, std::string(headers) + "MIME-Version: 1.0\r\n" + text_headers +
                          "Mime-Version: 1.0\r\n\r\n.\r\n");
}

TEST_F(ComposeTest, EmptyTextFileIsAPlainTextMessage) {
    builder.attachments = {make_file("body.txt", "")};
    const NormalisedMessage m = send();
    EXPECT_EQ(m.text, std::string(headers) + "MIME-Version: 1.0\r\n" + text_headers + "\r\n.\r\n");
}

TEST_F(ComposeTest, MultipartFormWithEveryKindOfPart) {
    const std::string tif("II*\0\x01\x02\xff", 7);
    builder.attachments = {
        make_file("body.txt", "Dear reader,\n.\nbye\n"),
        make_file("scan.tif", tif),
        make_file("doc.PDF", "%PDF-1.4"),
        make_file("data.qbtype", "abc"),
        make_file("notes.txt", "MIME is just a word here\n"),
        make_file("fax.dcx", ""),
        make_file("mail.822", "Subject: x\r\n\r\nhi\r\n"),
    };
    const NormalisedMessage m = send();
    EXPECT_EQ(m.text, std::string(headers) +
                          "MIME-Version: 1.0\r\n"
                          "Content-Type: multipart/mixed; boundary=\"BOUNDARY\"\r\n\r\n"
                          "\r\n--BOUNDARY\r\n" +
                          text_headers + "Dear reader,\r\n..\r\nbye\r\n" +
                          "\r\n--BOUNDARY\r\n"
                          "Content-Type:image/tiff; name=\"scan.tif\"\r\n"
                          "Content-Transfer-Encoding: base64\r\n\r\n"
                          "SUkqAAEC/w==\r\n"
                          "\r\n--BOUNDARY\r\n"
                          "Content-Type:application/pdf; name=\"doc.PDF\"\r\n"
                          "Content-Transfer-Encoding: base64\r\n\r\n"
                          "JVBERi0xLjQ=\r\n"
                          "\r\n--BOUNDARY\r\n"
                          "Content-Type:application/x-qb-test; name=\"data.qbtype\"\r\n"
                          "Content-Transfer-Encoding: base64\r\n\r\n"
                          "YWJj\r\n"
                          "\r\n--BOUNDARY\r\n"
                          "Content-Type:text/plain; charset=US-ASCII; name=\"notes.txt\"\r\n"
                          "Content-Transfer-Encoding:7bit\r\n\r\n"
                          "MIME is just a word here\r\n"
                          "\r\n--BOUNDARY\r\n"
                          "Content-Type:image/dcx; name=\"fax.dcx\"\r\n"
                          "Content-Transfer-Encoding: base64\r\n\r\n"
                          "\r\n--BOUNDARY\r\n"
                          "Content-Type:Message/Rfc822; name=\"mail.822\"\r\n"
                          "Content-Transfer-Encoding: base64\r\n\r\n"
                          "U3ViamVjdDogeA0KDQpoaQ0K\r\n"
                          "\r\n--BOUNDARY--\r\n"
                          "\r\n.\r\n");
}

TEST_F(ComposeTest, MultipartFormOpensWithAnEmptyTextPartWithoutATextBody) {
    builder.attachments = {make_file("scan.tif", "abc")};
    const NormalisedMessage m = send();
    EXPECT_EQ(m.text, std::string(headers) +
                          "MIME-Version: 1.0\r\n"
                          "Content-Type: multipart/mixed; boundary=\"BOUNDARY\"\r\n\r\n"
                          "\r\n--BOUNDARY\r\n" +
                          text_headers +
                          "\r\n--BOUNDARY\r\n"
                          "Content-Type:image/tiff; name=\"scan.tif\"\r\n"
                          "Content-Transfer-Encoding: base64\r\n\r\n"
                          "YWJj\r\n"
                          "\r\n--BOUNDARY--\r\n"
                          "\r\n.\r\n");
}

TEST_F(ComposeTest, MimeFirstLineCountsOnlyForASingleAttachment) {
    builder.attachments = {make_file("body.txt", "MIME-Version: 1.0\n"), make_file("b.pdf", "")};
    const NormalisedMessage m = send();
    const std::string first_part = "\r\n--BOUNDARY\r\n" + std::string(text_headers) +
                                   "MIME-Version: 1.0\r\n\r\n--BOUNDARY\r\n";
    EXPECT_NE(m.text.find(first_part), std::string::npos) << m.text;
}

TEST_F(ComposeTest, UnknownTypeEndsAfterItsBoundary) {
    debug_log = 1;  // the debug echo shows the order of what was written
    static const std::regex boundary_line("\r\n--QBsmtp-part-[0-9]{8}-[0-9]{6}\r\n");
    for (const char* name : {"data.qbz", "noextension"}) {
        SCOPED_TRACE(name);
        const std::size_t events_before = events().size();
        ScriptedRelay peer(Relay::conversation());
        aim_at(peer);
        const std::string path = make_file(name, "xyz");
        builder.attachments = {make_file("body.txt", "text\n"), make_file("a.pdf", "a"), path,
                               make_file("z.pdf", "z")};
        MailRecord* record = builder.build();
        EXPECT_EQ(SMTPSend(record), 0);
        EXPECT_EQ(record->temporary_failure, 0);
        EXPECT_EQ(event_ids_since(events_before), std::vector<std::string>{"0xC0004EF7"});

        // Written last: a.pdf's part, then the boundary of the failing part.
        const std::vector<ReportedEvent> all = events();
        ASSERT_GE(all.size(), 3u);
        const ReportedEvent& failed = all.back();
        EXPECT_EQ(failed.strings, std::vector<std::string>{path});
        const ReportedEvent& boundary = all[all.size() - 2];
        EXPECT_EQ(boundary.id, "0x400051A3");
        ASSERT_EQ(boundary.strings.size(), 1u);
        EXPECT_TRUE(std::regex_match(boundary.strings[0], boundary_line)) << boundary.strings[0];
        EXPECT_EQ(all[all.size() - 3].strings,
                  std::vector<std::string>{"Content-Transfer-Encoding: base64\r\n\r\n"});

        // The message is abandoned: no end marker, no QUIT.
        const std::string wire = peer.received();
        EXPECT_EQ(wire.find("\r\n.\r\n"), std::string::npos) << wire;
        EXPECT_EQ(wire.find("QUIT"), std::string::npos) << wire;
    }
}

TEST_F(ComposeTest, MissingFileEndsForGood) {
    const std::string missing = prefix.file("gone.pdf");
    builder.attachments = {make_file("body.txt", "text\n"), missing};
    MailRecord* record = builder.build();
    EXPECT_EQ(SMTPSend(record), 0);
    EXPECT_EQ(record->temporary_failure, 0);
    const ReportedEvent failed = event("0xC0002730");
    ASSERT_EQ(failed.strings.size(), 2u);
    EXPECT_EQ(failed.strings[0], missing);
}

TEST_F(ComposeTest, RelayRefusingTheMessageIsTemporary) {
    relay = std::make_unique<ScriptedRelay>(Relay::conversation("250 ok\r\n", "554 no\r\n"));
    aim_at(*relay);
    builder.attachments = {make_file("body.txt", "text\n")};
    MailRecord* record = builder.build();
    EXPECT_EQ(SMTPSend(record), 0);
    EXPECT_EQ(record->temporary_failure, 1);
    EXPECT_EQ(event("0xC0004EF4").strings, std::vector<std::string>{"554"});
    EXPECT_TRUE(relay->received().ends_with("text\r\n\r\n.\r\n"));
}

// ---- The Date line -------------------------------------------------------

class DateTest : public SendFixture {
  protected:
    void SetUp() override { start_module_on(25); }

    // The Date line for the zone tz as a relay receives it, with the
    // boundary of the same call behind it.
    std::string date_line(const char* tz) {
        ::setenv("TZ", tz, 1);
        ::tzset();
        return capture([this](SmtpClient& client) {
            emit_date(client);
            boundary = client.boundary;
        });
    }

    std::string boundary;
};

// The zone as the C library sees it now: "+hhmm" or "-hhmm".
std::string library_zone() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const long east = local.tm_gmtoff / 60;
    char text[40];
    std::snprintf(text, sizeof text, "%c%02ld%02ld", east < 0 ? '-' : '+', std::labs(east) / 60,
                  std::labs(east) % 60);
    return text;
}

TEST_F(DateTest, ZoneFollowsBiasAndDaylightSaving) {
    struct Case {
        const char* tz;
        const char* zone;  // null: as the C library says for now
    };
    const Case cases[] = {
        {"UTC", "+0000"},
        {"XXX-1", "+0100"},  // one hour east, no daylight saving
        {"EST5", "-0500"},   // five hours west, no daylight saving
        {"IST-5:30", "+0530"},
        {"NPT-5:45", "+0545"},
        {"CET-1CEST,M3.5.0,M10.5.0/3", nullptr},
        {"EST5EDT,M3.2.0,M11.1.0", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.tz);
        const std::string line = date_line(c.tz);
        const std::string zone = c.zone != nullptr ? c.zone : library_zone();
        EXPECT_TRUE(line.ends_with(" " + zone + "\r\n")) << line;
        EXPECT_EQ(boundary.size(), 27u);
        const NormalisedMessage m = normalise(line + boundary);  // checks the two agree
        EXPECT_EQ(m.date_line, line);
        EXPECT_EQ(m.boundary, boundary);
    }
}

TEST_F(DateTest, UnknownZoneGivesPlusZero) {
    os::FaultScope fault(os::Op::GetTimeZoneInformation, 1, os::ERROR_INVALID_FUNCTION, true);
    const std::string line = date_line("EST5");
    EXPECT_TRUE(line.ends_with(" +0000\r\n")) << line;
}

TEST_F(DateTest, DateLineShowsTheLocalDay) {
    const std::string line = date_line("NZST-12");
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    // The day has no leading zero.
    EXPECT_TRUE(line.starts_with("Date: " + std::to_string(local.tm_mday) + " ")) << line;
}

}  // namespace
}  // namespace qbsmtp::test
