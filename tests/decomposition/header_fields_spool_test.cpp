// header_fields_spool_test.cpp: the address, date and subject fields of
// real spool files through SMTPRecvNext: the record's sender, lists (exact
// bytes), subject and date, as the dispatcher and the handlers make them
// together.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "record_fields.h"
#include "spool_fixture.h"

namespace qbsmtp {
namespace {

using test::crlf;
using test::SpoolFixture;
using test::visible;
using testing::date_ticks;
using testing::field_text;
using testing::list_bytes;
using testing::packed;
using testing::utc_ticks;

class HeaderFields : public SpoolFixture {
  protected:
    // Writes rx123456.822 as intake does, with the given reverse path,
    // and takes it apart.
    void receive(const std::string& message, const std::string& reverse_path) {
        test::write_file(
            spool + os::path_separator + "rx123456.822",
            "Return-Path: <" + reverse_path +
                ">\r\nReceived: from a by b with SMTP ; 18 Nov 2026 12:00:05 +0100\r\n" + message);
        ASSERT_EQ(SMTPRecvNext(&record), 1);
    }
};

// The plain message that shows the whole road from file to record.
TEST_F(HeaderFields, PlainMessageWalkthrough) {
    receive(crlf("From: Mario Rossi <mario@sender.example>\n"
                 "To: 12345/John@faxserver.example\n"
                 "Subject: Prova\n"
                 "Date: Wed, 18 Nov 2026 12:00:00 +0100\n"
                 "\n"
                 "Hello\n"
                 "World"),
            "bounce@sender.example");
    const std::string path = spool + os::path_separator + "rx123456.822";
    EXPECT_EQ(field_text(record.file_length, record.file), path);
    EXPECT_EQ(field_text(record.sender_length, record.sender), "mario@sender.example");
    EXPECT_EQ(field_text(record.sender_name_length, record.sender_name), "Mario Rossi");
    EXPECT_EQ(date_ticks(record), 134394732000000000ull);  // 18 Nov 2026 11:00:00 UTC
    EXPECT_EQ(visible(list_bytes(record.to)), visible(packed({"12345@John"})));
    EXPECT_EQ(visible(list_bytes(record.to_names)),
              visible(packed({"12345/John@faxserver.example"})));
    EXPECT_EQ(record.cc, nullptr);
    EXPECT_EQ(record.cc_names, nullptr);
    EXPECT_EQ(record.bcc, nullptr);
    EXPECT_EQ(record.bcc_names, nullptr);
    EXPECT_EQ(field_text(record.subject_length, record.subject), "Prova");
    EXPECT_EQ(record.temporary_failure, 0);
    const auto files = attachments();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].rfind(mime + os::path_separator, 0), 0u) << files[0];
    EXPECT_EQ(files[0].substr(files[0].size() - 4), ".txt");
    EXPECT_EQ(test::read_file(files[0]), "Hello\r\nWorld");
}

struct Expected {
    std::string sender;
    std::string sender_name;
    std::string to, to_names, cc, cc_names, bcc, bcc_names;  // list bytes
    std::string subject;
    std::optional<std::uint64_t> date;  // none: the host's zero stays
};

TEST_F(HeaderFields, FieldsOfSpoolFiles) {
    struct Case {
        std::string reverse_path;
        std::string header;  // "\n" line ends; the file ends behind it
        Expected expected;
    };
    const std::uint64_t noon_utc = utc_ticks(2026, 11, 18, 12, 0, 0);
    const std::vector<Case> cases = {
        // Without From the reverse path of the dialogue is the sender.
        {"bounce@sender.example",
         "To: a@x.example\n\nbody",
         {"bounce@sender.example", "bounce@sender.example", packed({"a"}), packed({"a@x.example"}),
          "", "", "", "", "<null>", std::nullopt}},
        // The mail's own Return-Path counts only behind an empty reverse path.
        {"bounce@sender.example",
         "Return-Path: <r@x.example>\n\nbody",
         {"bounce@sender.example", "bounce@sender.example", "", "", "", "", "", "", "<null>",
          std::nullopt}},
        {"",
         "Return-Path: <r@x.example>\n\nbody",
         {"r@x.example", "r@x.example", "", "", "", "", "", "", "<null>", std::nullopt}},
        {"", "\n\nbody", {"<null>", "<null>", "", "", "", "", "", "", "<null>", std::nullopt}},
        {"bounce@sender.example",
         "From: =?iso-8859-1?Q?Ren=E9?= <r@x.example>\nFrom: Mario <m@x.example>\n\nbody",
         {"m@x.example", "Mario", "", "", "", "", "", "", "<null>", std::nullopt}},
        // Every recipient field reaches its class.
        {"b@s",
         "Resent-To: r@x\nApparently-To: p@x\nResent-Cc: c@x\nResent-Bcc: d@x\n\nbody",
         {"b@s", "b@s", packed({"r", "p"}), packed({"r@x", "p@x"}), packed({"c"}), packed({"c@x"}),
          packed({"d"}), packed({"d@x"}), "<null>", std::nullopt}},
        // An X-FAX- field replaces its class's list, in whatever order.
        {"b@s",
         "To: a@x.example\nX-FAX-TO: 1/b@y.example\nTo: c@x.example\n\nbody",
         {"b@s", "b@s", packed({"1@b@y.example"}), packed({"1/b@y.example"}), "", "", "", "",
          "<null>", std::nullopt}},
        {"b@s",
         "Cc: a@x\nx-fax-to-cc: Fax <1/f@g>\nBcc: b@y\nX-FAX-TO-BCC: 2@h\nX-Fax-To-Bcc: 3@i\n"
         "Cc: c@z\n\nbody",
         {"b@s", "b@s", "", "", packed({"1@f@g"}), packed({"Fax"}), packed({"2@h", "3@i"}),
          packed({"2@h", "3@i"}), "<null>", std::nullopt}},
        // Folded lists, groups and an empty group.
        {"b@s",
         "to: \"Rossi, Mario\" <m@x.example>,\n b@y.example\nCC: undisclosed-recipients:;\n"
         "Bcc: Team: a@x.example, (boss) c@y.example;\n\nbody",
         {"b@s", "b@s", packed({"m", "b"}), packed({"Rossi, Mario", "b@y.example"}), "", "",
          packed({"a", "c"}), packed({"a@x.example", "c@y.example"}), "<null>", std::nullopt}},
        {"b@s",
         "To: @x.example, Someone <@y.example>, 12345\n\nbody",
         {"b@s", "b@s", packed({"12345"}), packed({"12345"}), "", "", "", "", "<null>",
          std::nullopt}},
        // Subjects: decoded, folds kept, the last one stays.
        {"b@s",
         "Subject: first\nSubject: =?iso-8859-1?Q?Caff=E8?= e\n =?ISO-8859-1?B?TWFu?=; ok\n\nbody",
         {"b@s", "b@s", "", "", "", "", "", "", "Caff\xe8 e\r\n Man ok", std::nullopt}},
        // The space ends the name; the colon is the first byte of the value.
        {"b@s",
         "Subject : hi\n\nbody",
         {"b@s", "b@s", "", "", "", "", "", "", ": hi", std::nullopt}},
        // Dates: the last one that converts stays.
        {"b@s",
         "Date: Wed, 18 Nov 2026 13:00:00 +0100\nDate: Wed, 18 Nov 2026 09:00:00 GMT\n\nbody",
         {"b@s", "b@s", "", "", "", "", "", "", "<null>", noon_utc}},
        {"b@s",
         "Date: Wed, 18 Nov 2026 12:00:00\n +0100\n\nbody",
         {"b@s", "b@s", "", "", "", "", "", "", "<null>", std::nullopt}},
        {"b@s",
         "Date: 18 Nov 98 10:00:00 -0500\nDate: 32 Nov 2026 12:00:00 +0100\n\nbody",
         {"b@s", "b@s", "", "", "", "", "", "", "<null>", utc_ticks(1998, 11, 18, 15, 0, 0)}},
        // Messages without body: the last field ends at the end of the file.
        {"b@s",
         "Date: 18 Nov 2026 12:00:00 +0000\nTo: a@x.example, b@y.example",
         {"b@s", "b@s", packed({"a", "b"}), packed({"a@x.example", "b@y.example"}), "", "", "", "",
          "<null>", noon_utc}},
        {"b@s",
         "From: m@x.example\nSubject: last",
         {"m@x.example", "m@x.example", "", "", "", "", "", "", "last", std::nullopt}},
        {"b@s",
         "Subject: s\nDate: 18 Nov 2026 12:00:00 +0000",
         {"b@s", "b@s", "", "", "", "", "", "", "s", noon_utc}},
        {"b@s",
         "Subject: s\nFrom: Mario <m@x.example",
         {"m@x.example", "Mario", "", "", "", "", "", "", "s", std::nullopt}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.header));
        receive(crlf(c.header), c.reverse_path);
        const Expected& e = c.expected;
        EXPECT_EQ(field_text(record.sender_length, record.sender), e.sender);
        EXPECT_EQ(field_text(record.sender_name_length, record.sender_name), e.sender_name);
        EXPECT_EQ(visible(list_bytes(record.to)), visible(e.to));
        EXPECT_EQ(visible(list_bytes(record.to_names)), visible(e.to_names));
        EXPECT_EQ(visible(list_bytes(record.cc)), visible(e.cc));
        EXPECT_EQ(visible(list_bytes(record.cc_names)), visible(e.cc_names));
        EXPECT_EQ(visible(list_bytes(record.bcc)), visible(e.bcc));
        EXPECT_EQ(visible(list_bytes(record.bcc_names)), visible(e.bcc_names));
        EXPECT_EQ(visible(field_text(record.subject_length, record.subject)), visible(e.subject));
        EXPECT_EQ(date_ticks(record), e.date.value_or(0));
        EXPECT_EQ(attachments().size(), 1u);
        std::filesystem::remove(record.file);
        free_record();
    }
}

}  // namespace
}  // namespace qbsmtp
