// smtp_delivery_test.cpp: a message delivered over SMTP to the running
// module, then taken apart by SMTPRecvNext: the whole road in, from the
// dialogue and the spool file to the record and the part files.
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "spool_fixture.h"
#include "support/reception_fixture.h"

namespace qbsmtp {
namespace {

using test::base64;
using test::binary_bytes;
using test::crlf;
using test::ReceptionFixture;

// SMTP transparency (RFC 5321 4.5.2): a line that starts with a dot gets
// another one.
std::string dot_stuffed(const std::string& text) {
    std::string out;
    bool line_start = true;
    for (char c : text) {
        if (line_start && c == '.') out += '.';
        out += c;
        line_start = c == '\n';
    }
    return out;
}

TEST(SmtpDelivery, MessageSentOverSmtpIsTakenApart) {
    ReceptionFixture reception;
    const std::string data = binary_bytes(200000, 5);
    const std::string message =
        crlf(
            "From: Mario Rossi <mario@sender.example>\nTo: 555/Fax@gw.example\n"
            "Subject: Consegna\nMIME-Version: 1.0\n"
            "Content-Type: multipart/mixed; boundary=\"mix\"\n\n"
            "--mix\nContent-Type: multipart/alternative; boundary=\"alt\"\n\n"
            "--alt\nContent-Type: text/plain\nContent-Transfer-Encoding: quoted-printable\n\n"
            ".starts with a dot=\n and goes on\n..two dots\n"
            "--alt\nContent-Type: text/html\n\n<p>html</p>\n--alt--\n"
            "--mix\nContent-Type: application/octet-stream; name=\"data.bin\"\n"
            "Content-Transfer-Encoding: base64\n\n") +
        base64(data) + crlf("--mix--\n");

    auto client = reception.connect();
    EXPECT_EQ(test::transmit(*client, dot_stuffed(message) + ".\r\n").substr(0, 4), "250 ");
    EXPECT_EQ(client->command("QUIT").substr(0, 4), "221 ");

    // The file gets its .822 name behind the 250.
    std::vector<std::string> spooled;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((spooled = reception.spool_files(".822")).empty() &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_EQ(spooled.size(), 1u);

    unsigned char ranks[QBSMTP_SUBTYPE_COUNT] = {};
    ranks[QBSMTP_SUBTYPE_HTML] = 1;
    MailRecord record{};
    record.subtype_rank = ranks;
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    ASSERT_NE(record.file, nullptr);
    EXPECT_EQ(std::string(record.file), spooled[0]);
    ASSERT_NE(record.sender, nullptr);
    EXPECT_EQ(std::string(record.sender), "mario@sender.example");
    ASSERT_NE(record.subject, nullptr);
    EXPECT_EQ(std::string(record.subject), "Consegna");
    ASSERT_NE(record.to, nullptr);
    EXPECT_EQ(std::string(record.to), "555@Fax");

    std::vector<std::string> paths;
    for (const char* p = record.attachments; p != nullptr && *p != '\0';
         p += std::string(p).size() + 1) {
        paths.emplace_back(p);
    }
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(test::read_file(paths[0]), ".starts with a dot and goes on\r\n..two dots\r\n");
    EXPECT_EQ(test::read_file(paths[1]), data);
    EXPECT_EQ(std::string(path_extension(paths[1].c_str())), ".bin");

    for (char* block :
         {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
          record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments}) {
        if (block != nullptr) os::LocalFree(block);
    }
}

}  // namespace
}  // namespace qbsmtp
