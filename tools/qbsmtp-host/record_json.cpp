// record_json.cpp: MailRecord to JSON, with the text and time conversions.
#include "record_json.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "header_text.h"
#include "host_record.h"

namespace qbsmtp::host {

namespace {

using nlohmann::ordered_json;

// Unicode of code page 1252 bytes 0x80 to 0x9F; the five holes of the code
// page keep their C1 code points, as Windows' own conversion does.
constexpr std::array<char16_t, 32> cp1252_high = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

bool is_valid_utf8(std::string_view bytes) {
    std::size_t i = 0;
    while (i < bytes.size()) {
        const auto lead = static_cast<unsigned char>(bytes[i]);
        std::size_t extra;
        std::uint32_t code;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if (lead >= 0xC2 && lead <= 0xDF) {
            extra = 1, code = lead & 0x1F;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            extra = 2, code = lead & 0x0F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            extra = 3, code = lead & 0x07;
        } else {
            return false;
        }
        if (i + extra >= bytes.size()) return false;  // truncated sequence
        for (std::size_t k = 1; k <= extra; ++k) {
            const auto next = static_cast<unsigned char>(bytes[i + k]);
            if ((next & 0xC0) != 0x80) return false;
            code = (code << 6) | (next & 0x3F);
        }
        // Overlong forms, surrogates and code points past U+10FFFF.
        static constexpr std::array<std::uint32_t, 4> smallest = {0, 0x80, 0x800, 0x10000};
        if (code < smallest[extra] || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF)
            return false;
        i += extra + 1;
    }
    return true;
}

void append_utf8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// A counted text field: null when the message gave none (a null or empty
// text reads alike).
ordered_json text_field(const char* text) {
    if (text == nullptr || *text == '\0') return nullptr;
    return text_to_utf8(text);
}

// A subject or name as a person reads it; null like text_field.
ordered_json header_field(const char* text) {
    if (text == nullptr || *text == '\0') return nullptr;
    return decode_header_text(text);
}

// Pairs an address list with its name list; a name missing at the end of
// a shorter name list is null.
ordered_json address_list(const char* addresses, const char* names) {
    const auto address_entries = list_entries(addresses);
    const auto name_entries = list_entries(names);
    ordered_json list = ordered_json::array();
    for (std::size_t i = 0; i < address_entries.size(); ++i) {
        ordered_json entry;
        const char* name = i < name_entries.size() ? name_entries[i].c_str() : nullptr;
        entry["address"] = text_to_utf8(address_entries[i]);
        entry["name"] = header_field(name);
        entry["name_raw"] = text_field(name);
        list.push_back(std::move(entry));
    }
    return list;
}

}  // namespace

std::string text_to_utf8(std::string_view bytes) {
    if (is_valid_utf8(bytes)) return std::string(bytes);
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80 && byte < 0xA0)
            append_utf8(out, cp1252_high[byte - 0x80]);
        else
            append_utf8(out, byte);
    }
    return out;
}

std::optional<std::string> filetime_to_iso(QbsmtpFileTime time) {
    const std::uint64_t ticks = (static_cast<std::uint64_t>(time.high) << 32) | time.low;
    if (ticks == 0) return std::nullopt;
    using namespace std::chrono;
    // FILETIME counts 100 ns from 1601-01-01; the Unix epoch is 11644473600
    // seconds later.
    constexpr std::int64_t epoch_offset = 11644473600;
    const auto seconds_since_epoch = static_cast<std::int64_t>(ticks / 10'000'000) - epoch_offset;
    const sys_seconds point{seconds{seconds_since_epoch}};
    const auto day = floor<days>(point);
    const year_month_day date{day};
    const hh_mm_ss clock{point - day};
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ",
                  static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                  static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
                  static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return std::string(text);
}

ordered_json record_to_json(const MailRecord& record, bool ok) {
    ordered_json json;
    json["file"] = text_field(record.file);
    json["sender"] = text_field(record.sender);
    json["sender_name"] = header_field(record.sender_name);
    json["sender_name_raw"] = text_field(record.sender_name);
    const auto date = filetime_to_iso(record.date);
    json["date"] = date ? ordered_json(*date) : ordered_json(nullptr);
    json["to"] = address_list(record.to, record.to_names);
    json["cc"] = address_list(record.cc, record.cc_names);
    json["bcc"] = address_list(record.bcc, record.bcc_names);
    json["subject"] = header_field(record.subject);
    json["subject_raw"] = text_field(record.subject);
    ordered_json attachments = ordered_json::array();
    for (const auto& path : list_entries(record.attachments))
        attachments.push_back(text_to_utf8(path));
    json["attachments"] = std::move(attachments);
    json["ok"] = ok;
    return json;
}

}  // namespace qbsmtp::host
