// Tests of the host's JSON form of a MailRecord: field mapping, address
// pairing, text conversion and FILETIME formatting.
#include "record_json.h"

#include <gtest/gtest.h>

#include <string>

namespace qbsmtp::host {
namespace {

using nlohmann::ordered_json;

TEST(RecordJson, FullRecordMapsEveryFieldInOrder) {
    MailRecord record{};
    char file[] = "/spool/rx000001.822";
    char sender[] = "anna@example.org";
    char sender_name[] = "=?utf-8?q?Anna_R=C3=B2ssi?=";
    char to[] = "bob@example.org\0carl@example.org\0";
    char to_names[] = "Bob\0";           // shorter than the addresses: the last name is null
    char subject[] = "Caff\xE8 \x80 5";  // code page 1252: the euro sign
    char attachments[] = "/spool/mime/body.txt\0/spool/mime/f.pdf\0";
    record.file = file;
    record.sender = sender;
    record.sender_name = sender_name;
    record.to = to;
    record.to_names = to_names;
    record.subject = subject;
    record.attachments = attachments;
    const std::uint64_t ticks = 125911584000000000ull;  // 2000-01-01T00:00:00Z
    record.date = {static_cast<std::uint32_t>(ticks), static_cast<std::uint32_t>(ticks >> 32)};

    const ordered_json expected = ordered_json::parse(R"({
        "file": "/spool/rx000001.822", "sender": "anna@example.org",
        "sender_name": "Anna R\u00f2ssi", "sender_name_raw": "=?utf-8?q?Anna_R=C3=B2ssi?=",
        "date": "2000-01-01T00:00:00Z",
        "to": [{"address": "bob@example.org", "name": "Bob", "name_raw": "Bob"},
               {"address": "carl@example.org", "name": null, "name_raw": null}],
        "cc": [], "bcc": [],
        "subject": "Caff\u00e8 \u20ac 5", "subject_raw": "Caff\u00e8 \u20ac 5",
        "attachments": ["/spool/mime/body.txt", "/spool/mime/f.pdf"], "ok": false})");
    EXPECT_EQ(record_to_json(record, false).dump(), expected.dump());  // the order of the keys too

    MailRecord empty{};
    char nothing[] = "";
    empty.subject = nothing;  // an allocated empty text reads as none
    EXPECT_EQ(
        record_to_json(empty, true).dump(),
        R"({"file":null,"sender":null,"sender_name":null,"sender_name_raw":null,"date":null,)"
        R"("to":[],"cc":[],"bcc":[],"subject":null,"subject_raw":null,"attachments":[],"ok":true})");
}

TEST(TextToUtf8, KeepsUtf8AndConvertsEverythingElseAsCodePage1252) {
    const struct {
        std::string in, out;
    } cases[] = {
        {"", ""},
        {"gi\xC3\xA0 UTF-8 \xE2\x82\xAC \xF0\x9F\x93\xA0",
         "gi\xC3\xA0 UTF-8 \xE2\x82\xAC \xF0\x9F\x93\xA0"},
        {"caf\xE9", "caf\xC3\xA9"},                        // Latin-1 letter
        {"\x80\x9F", "\xE2\x82\xAC\xC5\xB8"},              // euro, Y diaeresis
        {"\x81", "\xC2\x81"},                              // a hole of the code page
        {"\xC3", "\xC3\x83"},                              // a sequence cut short
        {"\xC0\xAF", "\xC3\x80\xC2\xAF"},                  // overlong '/'
        {"\xED\xA0\x80", "\xC3\xAD\xC2\xA0\xE2\x82\xAC"},  // a surrogate
        {"\xF4\x90\x80\x80", "\xC3\xB4\xC2\x90\xE2\x82\xAC\xE2\x82\xAC"},  // past U+10FFFF
    };
    for (const auto& c : cases) EXPECT_EQ(text_to_utf8(c.in), c.out) << c.in;
}

TEST(FiletimeToIso, FormatsUtcSecondsAndTreatsZeroAsNone) {
    const struct {
        std::uint64_t ticks;
        const char* iso;
    } cases[] = {
        {1, "1601-01-01T00:00:00Z"},
        {116444736000000000ull, "1970-01-01T00:00:00Z"},
        {116444735990000000ull, "1969-12-31T23:59:59Z"},
        {133536836960000000ull + 9'999'999, "2024-02-29T12:34:56Z"},  // fraction dropped
        {2650467743990000000ull, "9999-12-31T23:59:59Z"},
    };
    for (const auto& c : cases) {
        const QbsmtpFileTime time{static_cast<std::uint32_t>(c.ticks),
                                  static_cast<std::uint32_t>(c.ticks >> 32)};
        EXPECT_EQ(filetime_to_iso(time), std::optional<std::string>(c.iso)) << c.ticks;
    }
    EXPECT_EQ(filetime_to_iso({0, 0}), std::nullopt);
}

}  // namespace
}  // namespace qbsmtp::host
