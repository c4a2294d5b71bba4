// The MailRecord as a host sees it: a block of bytes with fields at fixed
// offsets. On a 32-bit build (the i386 preset) these are the offsets of the
// 32-bit Windows module; on 64 bits the same order with natural alignment.
// The module writes a record with its own writers, and the test reads it
// back by offset alone, as a host compiled from another header would; then
// the other way round.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "decomposition/mail_record.h"
#include "platform/os.h"
#include "qbsmtp/qbsmtp.h"

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
std::vector<std::string> list_at(const unsigned char* bytes, const char* name) {
    std::vector<std::string> entries;
    for (const char* entry = pointer_at(bytes, name); entry != nullptr && *entry != '\0';
         entry += std::strlen(entry) + 1)
        entries.emplace_back(entry);
    return entries;
}

void free_record(MailRecord& record) {
    for (char** block : {&record.file, &record.sender, &record.sender_name, &record.to,
                         &record.to_names, &record.cc, &record.cc_names, &record.bcc,
                         &record.bcc_names, &record.subject, &record.attachments}) {
        if (*block != nullptr) os::LocalFree(*block);
        *block = nullptr;
    }
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

TEST(RecordLayout, RecordWrittenByTheModuleReadsRightByOffset) {
    MailRecord record{};
    set_record_text(record.file_length, record.file, "C:\\spool\\rx000001.822");
    set_record_text(record.sender_length, record.sender, "mario@example.it");
    set_record_text(record.sender_name_length, record.sender_name, "Mario Rossi");
    set_record_text(record.subject_length, record.subject, "Fattura n\xb0 12");
    append_record_list(record.to, "0612345678");
    append_record_list(record.to, "0698765432");
    append_record_list(record.cc_names, "Ufficio");
    append_record_list(record.attachments, "C:\\spool\\mime\\part1.txt");
    record.date = {0x89ABCDEFu, 0x01D9F00Du};
    record.temporary_failure = 1;
    const unsigned char rank[QBSMTP_SUBTYPE_COUNT] = {3};
    record.subtype_rank = rank;

    unsigned char bytes[sizeof(MailRecord)];
    std::memcpy(bytes, &record, sizeof bytes);

    EXPECT_EQ(int_at(bytes, "file_length"), 21);
    EXPECT_STREQ(pointer_at(bytes, "file"), "C:\\spool\\rx000001.822");
    EXPECT_EQ(int_at(bytes, "sender_length"), 16);
    EXPECT_STREQ(pointer_at(bytes, "sender"), "mario@example.it");
    EXPECT_EQ(int_at(bytes, "sender_name_length"), 11);
    EXPECT_STREQ(pointer_at(bytes, "sender_name"), "Mario Rossi");
    EXPECT_EQ(int_at(bytes, "subject_length"), 13);
    EXPECT_STREQ(pointer_at(bytes, "subject"), "Fattura n\xb0 12");
    EXPECT_EQ(list_at(bytes, "to"), (std::vector<std::string>{"0612345678", "0698765432"}));
    EXPECT_EQ(list_at(bytes, "cc_names"), std::vector<std::string>{"Ufficio"});
    EXPECT_EQ(list_at(bytes, "attachments"),
              std::vector<std::string>{"C:\\spool\\mime\\part1.txt"});
    for (const char* empty : {"to_names", "cc", "bcc", "bcc_names"})
        EXPECT_EQ(pointer_at(bytes, empty), nullptr) << empty;
    // The date is low word first, then high word.
    EXPECT_EQ(static_cast<std::uint32_t>(int_at(bytes, "date")), 0x89ABCDEFu);
    std::uint32_t high;
    std::memcpy(&high, bytes + offset_of(field_named("date")) + 4, sizeof high);
    EXPECT_EQ(high, 0x01D9F00Du);
    EXPECT_EQ(int_at(bytes, "temporary_failure"), 1);
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(pointer_at(bytes, "subtype_rank")), rank);

    // The blocks are the host's to release with LocalFree.
    EXPECT_GE(os::LocalSize(record.file), 22u);
    free_record(record);
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

}  // namespace
}  // namespace qbsmtp
