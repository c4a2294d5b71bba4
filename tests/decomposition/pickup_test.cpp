// pickup_test.cpp: SMTPRecvNext from spool file to record and files: each
// shape of message, the plain rule, and the outcomes of the search and the
// open, with the exact bytes of every file made.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "decomposition/multipart_walk.h"
#include "spool_fixture.h"

namespace qbsmtp {
namespace {

using test::base64;
using test::binary_bytes;
using test::crlf;
using test::SpoolFixture;
using test::visible;
using Strings = std::vector<std::string>;

class Pickup : public SpoolFixture {
  protected:
    // The extensions of the listed files, in order.
    Strings extensions() const {
        Strings list;
        for (const std::string& path : attachments())
            list.emplace_back(path_extension(path.c_str()));
        return list;
    }
    void expect_under_mime() const {
        for (const std::string& path : attachments()) {
            EXPECT_EQ(path.rfind(mime + os::path_separator, 0), 0u) << path;
        }
    }
};

TEST_F(Pickup, PlainTextMessage) {
    const std::string path = spool_message(
        crlf("From: Mario Rossi <mario@sender.example>\nTo: 12345/John@faxserver.example\n"
             "Subject: Prova\nDate: Wed, 18 Nov 2026 12:00:00 +0100\n\nHello\n\nWorld"));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    ASSERT_NE(record.file, nullptr);
    EXPECT_EQ(std::string(record.file), path);
    EXPECT_EQ(record.file_length, static_cast<std::int32_t>(path.size()));
    EXPECT_EQ(attachment_contents(), Strings{"Hello\r\n\r\nWorld"});
    EXPECT_EQ(extensions(), Strings{".txt"});
    expect_under_mime();
    // The header fields went to their handlers: From overwrote Return-Path.
    ASSERT_NE(record.sender, nullptr);
    EXPECT_EQ(std::string(record.sender), "mario@sender.example");
    ASSERT_NE(record.sender_name, nullptr);
    EXPECT_EQ(std::string(record.sender_name), "Mario Rossi");
    ASSERT_NE(record.to, nullptr);
    EXPECT_EQ(std::string(record.to), "12345@John");
    ASSERT_NE(record.to_names, nullptr);
    EXPECT_EQ(std::string(record.to_names), "12345/John@faxserver.example");
    ASSERT_NE(record.subject, nullptr);
    EXPECT_EQ(std::string(record.subject), "Prova");
    // 18 November 2026, 11:00:00 UTC.
    EXPECT_EQ((std::uint64_t{record.date.high} << 32 | record.date.low), 0x1DD774BF48B3800u);
    // The spool file stays for the host to remove.
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(Pickup, SinglePartBodies) {
    const std::string pdf = binary_bytes(5000);
    struct SingleCase {
        const char* label;
        std::string headers;
        std::string body;
        std::string content;
        const char* extension;
    };
    const SingleCase cases[] = {
        {"base64 with a name",
         "Content-Type: application/pdf; name=\"doc.pdf\"\nContent-Transfer-Encoding: base64\n",
         base64(pdf), pdf, ".pdf"},
        {"quoted-printable html",
         "Content-Type: text/html\nContent-Transfer-Encoding: quoted-printable\n",
         "<p>caf=C3=A9 =\r\nau lait</p>\r\n<p>x</p>", "<p>caf\xC3\xA9 au lait</p>\r\n<p>x</p>\r\n",
         ".html"},
        {"8bit text",
         "Content-Type: text/plain; charset=iso-8859-1\nContent-Transfer-Encoding: 8bit\n",
         "gr\xFC\xDF\r\n--\r\nend\r\n", "gr\xFC\xDF\r\n--\r\nend", ".txt"},
        {"unknown type", "Content-Type: application/x-unheard-of\n", "raw", "raw", ".xxx"},
    };
    int n = 0;
    for (const SingleCase& c : cases) {
        spool_message(crlf("MIME-Version: 1.0\n" + c.headers + "\n") + c.body,
                      "rx00000" + std::to_string(++n));
        EXPECT_EQ(SMTPRecvNext(&record), 1) << c.label;
        EXPECT_EQ(visible(attachment_contents().at(0)), visible(c.content)) << c.label;
        EXPECT_EQ(extensions(), Strings{c.extension}) << c.label;
        std::filesystem::remove(record.file);
        free_record();
    }
}

TEST_F(Pickup, MultipartMixedWithNamedUnnamedAndUnknownParts) {
    const std::string gif = binary_bytes(3000, 7);
    const std::string zip = binary_bytes(70000, 9);
    spool_message(crlf("MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"=_b 1\"\n"
                       "\nThis is the preamble.\n"
                       "--=_b 1\nContent-Type: text/plain\n\nFirst line\nsecond line\n\n"
                       "--=_b 1\nContent-Type: image/gif\nContent-Transfer-Encoding: base64\n\n") +
                  base64(gif) +
                  crlf("--=_b 1\nContent-Type: application/zip; name=\"archive.zip\"\n"
                       "Content-Transfer-Encoding: base64\n\n") +
                  base64(zip) +
                  crlf("--=_b 1\nContent-Type: application/x-strange\n\nodd\n"
                       "--=_b 1--\nThe epilogue.\n"));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(attachment_contents(), (Strings{"First line\r\nsecond line\r\n", gif, zip, "odd"}));
    EXPECT_EQ(extensions(), (Strings{".txt", ".gif", ".zip", ".xxx"}));
    EXPECT_EQ(mime_files().size(), 4u);
    expect_under_mime();
}

// The mixed message with a nested alternative and a pdf, ranked PLAIN
// before HTML.
TEST_F(Pickup, NestedAlternativeInsideMixed) {
    const std::string pdf = binary_bytes(1000, 3);
    ranks[QBSMTP_SUBTYPE_PLAIN] = 1;
    ranks[QBSMTP_SUBTYPE_HTML] = 2;
    spool_message(crlf("MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=outer\n\n"
                       "preamble\n--outer\n"
                       "Content-Type: multipart/alternative; boundary=inner\n\n"
                       "--inner\nContent-Type: text/plain\n\nplain text\n"
                       "--inner\nContent-Type: text/html\n\n<p>html</p>\n--inner--\n"
                       "--outer\nContent-Type: application/pdf; name=a.pdf\n"
                       "Content-Transfer-Encoding: base64\n\n") +
                  base64(pdf) + crlf("--outer--\n"));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(attachment_contents(), (Strings{"plain text", pdf}));
    EXPECT_EQ(extensions(), (Strings{".txt", ".pdf"}));
    // The html alternative's file was removed.
    EXPECT_EQ(mime_files().size(), 2u);

    // Ranked the other way, the html part survives in the same place.
    std::filesystem::remove(attachments()[0]);
    std::filesystem::remove(attachments()[1]);
    free_record();
    ranks[QBSMTP_SUBTYPE_HTML] = 0;
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(attachment_contents(), (Strings{"<p>html</p>", pdf}));
    EXPECT_EQ(extensions(), (Strings{".html", ".pdf"}));
}

TEST_F(Pickup, PartsInheritTheEnclosingNameAndEncoding) {
    spool_message(
        crlf("MIME-Version: 1.0\n"
             "Content-Type: multipart/mixed; boundary=b; name=\"letter.doc\"\n"
             "Content-Transfer-Encoding: base64\n\n"
             "--b\nContent-Type: application/octet-stream\n\nQUJD\n"
             "--b\nContent-Type: text/plain; name=own.txt\n"
             "Content-Transfer-Encoding: 7bit\n\nQUJD\n--b--\n"));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(attachment_contents(), (Strings{"ABC", "QUJD"}));
    EXPECT_EQ(extensions(), (Strings{".doc", ".txt"}));
}

TEST_F(Pickup, UnsupportedMultipartSubtype) {
    const std::string path =
        spool_message(crlf("MIME-Version: 1.0\nContent-Type: multipart/related; boundary=r\n\n"
                           "--r\nContent-Type: text/html\n\n<img>\n--r--\n"));
    EXPECT_EQ(SMTPRecvNext(&record), 0);
    EXPECT_EQ(std::string(record.file), path);
    EXPECT_EQ(record.attachments, nullptr);
    EXPECT_TRUE(mime_files().empty());
    EXPECT_EQ(only_event(event::mime_type_unsupported), (Strings{"MULTIPART", "RELATED"}));
}

TEST_F(Pickup, MessageWithoutBody) {
    // The last field ends at the end of the file and counts in full.
    spool_message(crlf("From: a@b.example\nSubject: nothing\nMIME-Version: 1.0"));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(attachment_contents(), Strings{""});
    EXPECT_EQ(extensions(), Strings{".txt"});
}

TEST_F(Pickup, EmptySpoolLeavesTheRecordUntouched) {
    // Nothing is read from the record: not even its text fields.
    MailRecord untouched;
    std::memset(&untouched, 0xA5, sizeof untouched);
    MailRecord probe = untouched;
    EXPECT_EQ(SMTPRecvNext(&probe), 1);
    EXPECT_EQ(std::memcmp(&probe, &untouched, sizeof probe), 0);
    // Other files in the spool are not messages.
    test::write_file(spool + "/rx000001.tmp", "Subject: x\r\n\r\nbody");
    EXPECT_EQ(SMTPRecvNext(&probe), 1);
    EXPECT_EQ(std::memcmp(&probe, &untouched, sizeof probe), 0);
}

TEST_F(Pickup, SpoolFileThatCannotBeOpened) {
    const std::string path = spool_message(crlf("Subject: x\n\nbody"));
    {
        os::FaultScope fault(os::Op::CreateFileA, 1, os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(SMTPRecvNext(&record), 1);
    }
    ASSERT_NE(record.file, nullptr);
    EXPECT_EQ(std::string(record.file), path);
    EXPECT_EQ(record.attachments, nullptr);
    EXPECT_TRUE(mime_files().empty());
    EXPECT_TRUE(test::read_events().empty());
    // The next call meets it again.
    free_record();
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(attachment_contents(), Strings{"body"});
}

TEST_F(Pickup, OneFilePerCallUntilTheHostRemovesIt) {
    const std::string first = spool_message(crlf("\none"), "rx000001");
    const std::string second = spool_message(crlf("\ntwo"), "rx000002");
    Strings taken;
    for (int call = 0; call < 2; ++call) {
        EXPECT_EQ(SMTPRecvNext(&record), 1);
        taken.emplace_back(record.file);
        EXPECT_EQ(attachment_contents().size(), 1u);
        // Taken again while it stays.
        free_record();
        EXPECT_EQ(SMTPRecvNext(&record), 1);
        EXPECT_EQ(taken.back(), record.file);
        std::filesystem::remove(record.file);
        free_record();
    }
    std::sort(taken.begin(), taken.end());
    EXPECT_EQ(taken, (Strings{first, second}));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(record.file, nullptr);
}

// Which body a message has once its header section is read.
TEST_F(Pickup, PlainRule) {
    struct PlainCase {
        const char* label;
        std::string message;
        std::string content;
        const char* extension;
    };
    const PlainCase cases[] = {
        {"MIME-Version without Content-Type", "MIME-Version: 1.0\n\nQUJD", "QUJD", ".txt"},
        {"Content-Type without MIME-Version: base64 is copied",
         "Content-Type: image/gif\nContent-Transfer-Encoding: base64\n\nQUJD", "QUJD", ".txt"},
        {"unknown top-level type", "MIME-Version: 1.0\nContent-Type: foo/bar; name=x.gif\n\nfoo",
         "foo", ".txt"},
        {"boundary without MIME-Version stops the copy",
         "Content-Type: multipart/mixed; boundary=b\n\ntext\n--b\nmore\n", "text", ".txt"},
        {"folded and unknown fields have no effect",
         "Received: from x\n\tby y\nX-Other: z\nMIME-Version: 1.0\n"
         "Content-Type: text/html\n\nhi",
         "hi", ".html"},
        {"a control byte ends the header section", "Subject: x\n\x01line\nrest", "\x01line\r\nrest",
         ".txt"},
        // A field with no value ends the dispatch: the fields behind it
        // are read as the part's header, where only content fields count.
        {"field with no value",
         "Subject:\nMIME-Version: 1.0\nContent-Type: application/x-thing; name=x.bin\n"
         "Content-Transfer-Encoding: base64\n\nQUJD",
         "ABC", ".bin"},
    };
    int n = 0;
    for (const PlainCase& c : cases) {
        spool_message(crlf(c.message), "rx00000" + std::to_string(++n));
        EXPECT_EQ(SMTPRecvNext(&record), 1) << c.label;
        EXPECT_EQ(visible(attachment_contents().at(0)), visible(c.content)) << c.label;
        EXPECT_EQ(extensions(), Strings{c.extension}) << c.label;
        std::filesystem::remove(record.file);
        free_record();
    }
}

TEST_F(Pickup, FailedDecodingKeepsWhatWasDone) {
    spool_message(
        crlf("MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n"
             "--b\nContent-Type: text/plain\n\nfirst\n--b\nContent-Type: text/plain\n"
             "Content-Transfer-Encoding: x-uuencode\n\nno begin line\n--b--\n"));
    EXPECT_EQ(SMTPRecvNext(&record), 0);
    ASSERT_NE(record.file, nullptr);
    // The first part is listed; the second stays on disk, unlisted.
    EXPECT_EQ(attachment_contents(), Strings{"first"});
    EXPECT_EQ(mime_files().size(), 2u);
    EXPECT_EQ(test::events_with_id(event::uuencode_begin_missing).size(), 1u);
}

TEST_F(Pickup, CloseThatFailsIsAWriteFailure) {
    spool_message(crlf("\nsome text"));
    // The part file's only write happens when it is closed.
    os::FaultScope fault(os::Op::WriteFile, 1, os::ERROR_DISK_FULL);
    EXPECT_EQ(SMTPRecvNext(&record), 0);
    EXPECT_EQ(record.attachments, nullptr);
    const auto strings = only_event(event::write_failed);
    ASSERT_EQ(strings.size(), 2u);
    EXPECT_EQ(strings[0], mime_files().at(0));
}

TEST_F(Pickup, NoRecordOrNoSpoolDirectory) {
    spool_message(crlf("\nbody"));
    EXPECT_EQ(SMTPRecvNext(nullptr), 0);
    spool_dir = nullptr;
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(record.file, nullptr);
}

}  // namespace
}  // namespace qbsmtp
