// record_fields.h: a MailRecord that frees what the module put in it, and
// readers of its fields for comparisons (lists as their exact bytes).
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

#include "frame/multi_string.h"
#include "platform/os.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp::testing {

// A record in the state a host hands it over: everything zero.
struct OwnedRecord {
    MailRecord record{};

    OwnedRecord() = default;
    ~OwnedRecord() {
        for (char* block :
             {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
              record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments}) {
            if (block != nullptr) os::LocalFree(block);
        }
    }
    OwnedRecord(const OwnedRecord&) = delete;
    OwnedRecord& operator=(const OwnedRecord&) = delete;
};

// The bytes a list uses: its entries with their NULs and the final NUL;
// "" for either form of the empty list.
inline std::string list_bytes(const char* block) {
    MultiString list;
    list.block = const_cast<char*>(block);
    std::string bytes(list.text(), list.byte_size());
    list.release();
    return bytes;
}

// The bytes of a list holding entries, in the layout list_bytes gives.
inline std::string packed(std::initializer_list<std::string> entries) {
    std::string bytes;
    for (const std::string& e : entries) bytes += e + '\0';
    if (!bytes.empty()) bytes += '\0';
    return bytes;
}

// A counted text field as a string, checking that length and text agree;
// "<null>" for a null text.
inline std::string field_text(std::int32_t length, const char* text) {
    if (text == nullptr) return length == 0 ? "<null>" : "<null with length>";
    std::string value(text);
    if (static_cast<std::int32_t>(value.size()) != length)
        return "<length mismatch: " + value + ">";
    return value;
}

inline std::uint64_t date_ticks(const MailRecord& record) {
    return (static_cast<std::uint64_t>(record.date.high) << 32) | record.date.low;
}

// 100 ns ticks since 1601 of a UTC calendar time (proleptic Gregorian),
// computed here rather than by the platform, for independent expectations.
inline std::uint64_t utc_ticks(int year, int month, int day, int hour, int minute, int second) {
    // Days from 1601-01-01 by the civil-from-days inverse.
    int y = year - (month <= 2 ? 1 : 0);
    int era = y / 400;
    int yoe = y - era * 400;
    int doy = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    std::int64_t days_from_0000_03_01 = static_cast<std::int64_t>(era) * 146097 + doe;
    // 1601-01-01 is day 584694 counted from 0000-03-01.
    std::int64_t days = days_from_0000_03_01 - 584694;
    std::int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second;
    return static_cast<std::uint64_t>(seconds) * 10'000'000u;
}

}  // namespace qbsmtp::testing
