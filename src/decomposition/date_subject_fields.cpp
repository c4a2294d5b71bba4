// date_subject_fields.cpp: the Date and Subject handlers.
//
// parse_subject captures the field (folds kept, ';' dropped), decodes its
// encoded words and replaces the record's subject. parse_date reads the
// first 63 bytes of the line, converts them with one of two sscanf
// formats and, if every part converted, stores the time corrected by its
// numeric zone as UTC. A date that doesn't convert leaves the record's
// date as it was. Both leave the stream on the first byte of the next
// line, or at the end of the file.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "decomposition/encoded_words.h"
#include "decomposition/field_handlers.h"
#include "decomposition/header_scanner.h"
#include "decomposition/mail_record.h"
#include "platform/os.h"

namespace qbsmtp {

namespace {

// 499 bytes of subject and the NUL; skip_field cuts a longer one.
constexpr std::size_t subject_buffer_size = 500;
// 63 bytes of date and the NUL.
constexpr std::size_t date_buffer_size = 64;

constexpr const char* month_table[] = {"JAN", "FEB", "MAR", "APR", "MAY", "JUN",
                                       "JUL", "AUG", "SEP", "OCT", "NOV", "DEC"};

constexpr std::int64_t ticks_per_second = 10'000'000;
// FILETIME values with the top bit set are refused by the system's own
// conversions, so a corrected time must stay below it.
constexpr std::uint64_t filetime_limit = 0x8000000000000000u;

struct DateFields {
    int day = 0;
    char month[4] = {};
    int year = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int zone = 0;  // hours and minutes as decimal digits: +0100 is 100
};

// RFC 822 dates, with or without the weekday: "18 Nov 2026 12:00:00 +0100"
// or "Wed, 18 Nov 2026 12:00:00 +0100". The C library's conversions are
// the contract here: numbers may have white space before them, the month
// is the next 3 bytes that aren't white space, and a zone in letters or a
// time without seconds fails the last conversion.
bool scan_date(const char* text, DateFields& f) {
    int converted = 0;
    if (text[0] >= '0' && text[0] <= '9') {
        converted = std::sscanf(text, "%d%3s%d%d:%d:%d%d", &f.day, f.month, &f.year, &f.hour,
                                &f.minute, &f.second, &f.zone);
    } else {
        converted = std::sscanf(text, "%*s%d%3s%d%d:%d:%d%d", &f.day, f.month, &f.year, &f.hour,
                                &f.minute, &f.second, &f.zone);
    }
    return converted == 7;
}

int month_number(char* month) {
    for (char* c = month; *c != '\0'; ++c) *c = ascii_upper(*c);
    for (int i = 0; i < 12; ++i) {
        if (std::strcmp(month, month_table[i]) == 0) return i + 1;
    }
    return 0;
}

// A SYSTEMTIME field is 16 bits wide: a number beyond that is no date,
// rather than a date that wraps around.
bool fits_word(int value) {
    return value >= 0 && value <= 0xFFFF;
}

// The date as a FILETIME in UTC; false if the text is no date.
bool convert_date(const char* text, std::uint64_t& ticks) {
    DateFields f;
    if (!scan_date(text, f)) return false;
    int month = month_number(f.month);
    if (month == 0) return false;
    // Two-digit years: 70 to 99 are 19xx, the rest 20xx.
    if (f.year < 100) f.year += f.year < 70 ? 2000 : 1900;
    if (!fits_word(f.year) || !fits_word(f.day) || !fits_word(f.hour) || !fits_word(f.minute) ||
        !fits_word(f.second)) {
        return false;
    }
    os::SYSTEMTIME local{};
    local.wYear = static_cast<os::WORD>(f.year);
    local.wMonth = static_cast<os::WORD>(month);
    local.wDay = static_cast<os::WORD>(f.day);
    local.wHour = static_cast<os::WORD>(f.hour);
    local.wMinute = static_cast<os::WORD>(f.minute);
    local.wSecond = static_cast<os::WORD>(f.second);
    local.wMilliseconds = 0;
    os::FILETIME converted{};
    if (!os::SystemTimeToFileTime(&local, &converted)) return false;
    ticks = (static_cast<std::uint64_t>(converted.dwHighDateTime) << 32) | converted.dwLowDateTime;

    // The sender's local time is now read as UTC: take the zone's offset
    // away. Both divisions truncate toward zero, so -0530 is -19800 s.
    std::int64_t offset = static_cast<std::int64_t>(f.zone / 100) * 3600 + (f.zone % 100) * 60;
    if (offset >= 0) {
        auto delta = static_cast<std::uint64_t>(offset * ticks_per_second);
        if (delta > ticks) return false;
        ticks -= delta;
    } else {
        auto delta = static_cast<std::uint64_t>(-offset * ticks_per_second);
        if (delta >= filetime_limit - ticks) return false;
        ticks += delta;
    }
    return true;
}

}  // namespace

void parse_subject(ParseContext& context) {
    char subject[subject_buffer_size];
    skip_field(context, subject, sizeof subject);
    decode_encoded_words(subject);
    MailRecord& record = *context.record;
    set_record_text(record.subject_length, record.subject, subject);
}

void parse_date(ParseContext& context) {
    Stream& in = *context.input;
    char text[date_buffer_size];
    std::size_t length = 0;
    bool file_ended = false;
    // The date is taken from its first line only: a fold ends it.
    while (length < date_buffer_size - 1) {
        int c = in.getc();
        if (c == Stream::eof) {
            file_ended = true;
            break;
        }
        if (c == '\r') {
            in.ungetc(c);
            break;
        }
        text[length++] = static_cast<char>(c);
    }
    text[length] = '\0';

    std::uint64_t ticks = 0;
    if (convert_date(text, ticks)) {
        MailRecord& record = *context.record;
        record.date.low = static_cast<std::uint32_t>(ticks);
        record.date.high = static_cast<std::uint32_t>(ticks >> 32);
    }
    if (!file_ended) skip_field(context);
}

}  // namespace qbsmtp
