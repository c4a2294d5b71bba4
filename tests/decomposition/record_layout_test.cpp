// The MailRecord as a host sees it: a block of bytes with fields at fixed
// offsets. On a 32-bit build (the i386 preset) these are the offsets of the
// 32-bit Windows module; on 64 bits the same order with natural alignment.
// A host compiled from another header prepares a record by offset alone,
// SMTPRecvNext fills it, and the host reads every field back by offset.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "qbsmtp/qbsmtp.h"
#include "spool_fixture.h"

namespace qbsmtp {
namespace {

constexpr bool narrow = sizeof(void*) == 4;

enum class Kind { length, pointer, file_time };

struct FieldPlace {
    const char* name;
    std::size_t offset32;
    std::size_t offset64;
    Kind kind;
    const void* (*address)(const MailRecord&);
};

#define QBSMTP_FIELD(field, o32, o64, kind)                                                 \
    {                                                                                       \
#field, o32, o64, kind, [](const MailRecord& r) -> const void* { return &r.field; } \
    }

const FieldPlace fields[] = {
    QBSMTP_FIELD(file_length, 0, 0, Kind::length),
    QBSMTP_FIELD(file, 4, 8, Kind::pointer),
    QBSMTP_FIELD(sender_length, 8, 16, Kind::length),
    QBSMTP_FIELD(sender, 12, 24, Kind::pointer),
    QBSMTP_FIELD(sender_name_length, 16, 32, Kind::length),
    QBSMTP_FIELD(sender_name, 20, 40, Kind::pointer),
    QBSMTP_FIELD(date, 24, 48, Kind::file_time),
    QBSMTP_FIELD(to, 32, 56, Kind::pointer),
    QBSMTP_FIELD(to_names, 36, 64, Kind::pointer),
    QBSMTP_FIELD(cc, 40, 72, Kind::pointer),
    QBSMTP_FIELD(cc_names, 44, 80, Kind::pointer),
    QBSMTP_FIELD(bcc, 48, 88, Kind::pointer),
    QBSMTP_FIELD(bcc_names, 52, 96, Kind::pointer),
    QBSMTP_FIELD(subject_length, 56, 104, Kind::length),
    QBSMTP_FIELD(subject, 60, 112, Kind::pointer),
    QBSMTP_FIELD(attachments, 64, 120, Kind::pointer),
    QBSMTP_FIELD(temporary_failure, 68, 128, Kind::length),
    QBSMTP_FIELD(subtype_rank, 72, 136, Kind::pointer),
};
#undef QBSMTP_FIELD

std::size_t offset_of(const FieldPlace& field) {
    return narrow ? field.offset32 : field.offset64;
}

std::size_t width_of(Kind kind) {
    switch (kind) {
        case Kind::length:
            return 4;
        case Kind::pointer:
            return sizeof(void*);
        case Kind::file_time:
            return 8;
    }
    return 0;
}

const FieldPlace& field_named(const char* name) {
    for (const FieldPlace& field : fields)
        if (std::strcmp(field.name, name) == 0) return field;
    ADD_FAILURE() << "no field " << name;
    return fields[0];
}

// What a host reads at a field's offset in the record's bytes.
std::int32_t int_at(const unsigned char* bytes, const char* name) {
    std::int32_t value;
    std::memcpy(&value, bytes + offset_of(field_named(name)), sizeof value);
    return value;
}
const char* pointer_at(const unsigned char* bytes, const char* name) {
    const char* value;
    std::memcpy(&value, bytes + offset_of(field_named(name)), sizeof value);
    return value;
}
std::string text_at(const unsigned char* bytes, const char* name) {
    const char* text = pointer_at(bytes, name);
    return text != nullptr ? text : "(null)";
}
std::vector<std::string> list_at(const unsigned char* bytes, const char* name) {
    std::vector<std::string> entries;
    for (const char* entry = pointer_at(bytes, name); entry != nullptr && *entry != '\0';
         entry += std::strlen(entry) + 1)
        entries.emplace_back(entry);
    return entries;
}

TEST(RecordLayout, FieldsStandAtTheirOffsetsWithoutGapsOrOverlaps) {
    MailRecord record{};
    const auto* base = reinterpret_cast<const unsigned char*>(&record);
    std::size_t expected_next = 0;
    for (const FieldPlace& field : fields) {
        const auto* at = static_cast<const unsigned char*>(field.address(record));
        EXPECT_EQ(static_cast<std::size_t>(at - base), offset_of(field)) << field.name;
        // Fields follow one another; on 64 bits a length is padded to the
        // pointer behind it.
        EXPECT_GE(offset_of(field), expected_next) << field.name;
        if (narrow) {
            EXPECT_EQ(offset_of(field), expected_next) << field.name;
        }
        expected_next = offset_of(field) + width_of(field.kind);
    }
    EXPECT_EQ(sizeof(MailRecord), narrow ? 76u : 144u);
    EXPECT_EQ(expected_next, sizeof(MailRecord));
}

TEST(RecordLayout, RecordWrittenByOffsetReadsRightByField) {
    alignas(MailRecord) unsigned char bytes[sizeof(MailRecord)] = {};
    char sender[] = "anna@example.it";
    char subject[] = "Ordine";
    char to[] =
        "021234\0"
        "025678\0";
    const unsigned char rank[QBSMTP_SUBTYPE_COUNT] = {};
    auto put_int = [&](const char* name, std::int32_t value) {
        std::memcpy(bytes + offset_of(field_named(name)), &value, sizeof value);
    };
    auto put_pointer = [&](const char* name, const void* value) {
        std::memcpy(bytes + offset_of(field_named(name)), &value, sizeof value);
    };
    put_int("sender_length", 15);
    put_pointer("sender", sender);
    put_int("subject_length", 6);
    put_pointer("subject", subject);
    put_pointer("to", to);
    put_int("temporary_failure", 7);
    put_pointer("subtype_rank", rank);

    MailRecord record;
    std::memcpy(&record, bytes, sizeof record);
    EXPECT_EQ(record.sender_length, 15);
    EXPECT_EQ(record.sender, sender);
    EXPECT_EQ(record.subject_length, 6);
    EXPECT_EQ(record.subject, subject);
    EXPECT_EQ(record.to, to);
    EXPECT_EQ(record.temporary_failure, 7);
    EXPECT_EQ(record.subtype_rank, rank);
    EXPECT_EQ(record.file, nullptr);
    EXPECT_EQ(record.attachments, nullptr);
}

using RecordByOffset = test::SpoolFixture;

TEST_F(RecordByOffset, RecordFilledByTheModuleReadsRightByOffset) {
    const std::string path = spool_message(
        test::crlf("From: Mario Rossi <mario@sender.example>\n"
                   "To: 12345/John@faxserver.example, 678/Anna@faxserver.example\n"
                   "Cc: 999/Ufficio@faxserver.example\n"
                   "Subject: Fattura\nDate: Wed, 18 Nov 2026 12:00:00 +0100\n\nIn allegato."));

    // The host clears the record and sets its rank table and a marker in
    // temporary_failure, which SMTPRecvNext leaves alone, all by offset.
    alignas(MailRecord) unsigned char bytes[sizeof(MailRecord)] = {};
    const unsigned char* rank = ranks;
    std::memcpy(bytes + offset_of(field_named("subtype_rank")), &rank, sizeof rank);
    const std::int32_t marker = 0x5A5A;
    std::memcpy(bytes + offset_of(field_named("temporary_failure")), &marker, sizeof marker);
    std::memcpy(&record, bytes, sizeof record);

    ASSERT_EQ(SMTPRecvNext(&record), 1);
    std::memcpy(bytes, &record, sizeof bytes);

    EXPECT_EQ(text_at(bytes, "file"), path);
    EXPECT_EQ(int_at(bytes, "file_length"), static_cast<std::int32_t>(path.size()));
    EXPECT_EQ(text_at(bytes, "sender"), "mario@sender.example");
    EXPECT_EQ(int_at(bytes, "sender_length"), 20);
    EXPECT_EQ(text_at(bytes, "sender_name"), "Mario Rossi");
    EXPECT_EQ(int_at(bytes, "sender_name_length"), 11);
    EXPECT_EQ(text_at(bytes, "subject"), "Fattura");
    EXPECT_EQ(int_at(bytes, "subject_length"), 7);
    EXPECT_EQ(list_at(bytes, "to"), (std::vector<std::string>{"12345@John", "678@Anna"}));
    EXPECT_EQ(list_at(bytes, "to_names"), (std::vector<std::string>{"12345/John@faxserver.example",
                                                                    "678/Anna@faxserver.example"}));
    EXPECT_EQ(list_at(bytes, "cc"), std::vector<std::string>{"999@Ufficio"});
    EXPECT_EQ(pointer_at(bytes, "bcc"), nullptr);
    EXPECT_EQ(pointer_at(bytes, "bcc_names"), nullptr);
    EXPECT_EQ(list_at(bytes, "attachments").size(), 1u);
    // 18 November 2026, 11:00:00 UTC: low word, then high word.
    std::uint32_t date[2];
    std::memcpy(date, bytes + offset_of(field_named("date")), sizeof date);
    EXPECT_EQ(date[0], 0xF48B3800u);
    EXPECT_EQ(date[1], 0x1DD774Bu);
    EXPECT_EQ(int_at(bytes, "temporary_failure"), marker);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(pointer_at(bytes, "subtype_rank")), rank);
}

}  // namespace
}  // namespace qbsmtp
