// Tests of the Date and Subject handlers: the record's date in UTC (or
// untouched), the subject's bytes, and where the stream is left.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "field_run.h"
#include "platform/os_fault.h"

namespace qbsmtp {
namespace {

using testing::FieldRun;
using testing::utc_ticks;
using testing::visible;

using namespace std::string_literals;

// What the host put in date before the call; a date that doesn't convert
// must leave exactly this.
constexpr QbsmtpFileTime host_date{0x89ABCDEF, 0x01234567};
constexpr std::uint64_t host_ticks = 0x0123456789ABCDEFull;

std::uint64_t run_date(const std::string& value, std::string* rest = nullptr) {
    FieldRun run(value);
    run.record().date = host_date;
    parse_date(run.context());
    if (rest != nullptr) *rest = run.rest();
    return testing::date_ticks(run.record());
}

TEST(DateField, WorkedExample) {
    // 18 November 2026 11:00:00 UTC, counted independently of any helper.
    EXPECT_EQ(run_date("Wed, 18 Nov 2026 12:00:00 +0100"), 134394732000000000ull);
    EXPECT_EQ(utc_ticks(2026, 11, 18, 11, 0, 0), 134394732000000000ull);
}

TEST(DateField, Conversions) {
    struct Case {
        std::string value;
        std::optional<std::uint64_t> utc;  // none: date untouched
    };
    const std::string pad33(33, ' ');
    const std::vector<Case> cases = {
        {"Wed, 18 Nov 2026 12:00:00 +0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        {"18 Nov 98 10:00:00 -0500", utc_ticks(1998, 11, 18, 15, 0, 0)},
        {"Wed, 18 nov 2026 12:00:00 +0000", utc_ticks(2026, 11, 18, 12, 0, 0)},
        {"Wed 18 NOV 2026 12:00:00 +0000", utc_ticks(2026, 11, 18, 12, 0, 0)},
        {"18 Nov 2026 12:00:00 +0530", utc_ticks(2026, 11, 18, 6, 30, 0)},
        {"18 Nov 2026 12:00:00 -0030", utc_ticks(2026, 11, 18, 12, 30, 0)},
        {"18 Nov 2026 12:00:00 -0530", utc_ticks(2026, 11, 18, 17, 30, 0)},
        {"1 Jan 2026 23:30:00 -0100", utc_ticks(2026, 1, 2, 0, 30, 0)},
        {"1 Jan 2026 00:30:00 +0100", utc_ticks(2025, 12, 31, 23, 30, 0)},
        // The zone is hours and minutes as digits: +0090 is 90 minutes.
        {"18 Nov 2026 12:00:00 +0090", utc_ticks(2026, 11, 18, 10, 30, 0)},
        // White space before any number, none needed before the zone.
        {"18   Nov   2026   12:  00:  00   +0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        {"18 Nov 2026 12:00:00+0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        {"18 Nov2026 12:00:00 +0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        {"Wed,\n18 Nov 2026 12:00:00 +0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        {"Wed,\t18\tNov\t2026\t12:00:00\t+0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        // Year completion.
        {"1 Jan 69 00:00:00 +0000", utc_ticks(2069, 1, 1, 0, 0, 0)},
        {"1 Jan 70 00:00:00 +0000", utc_ticks(1970, 1, 1, 0, 0, 0)},
        {"1 Jan 99 00:00:00 +0000", utc_ticks(1999, 1, 1, 0, 0, 0)},
        {"1 Jan 0 00:00:00 +0000", utc_ticks(2000, 1, 1, 0, 0, 0)},
        {"1 Jan -5 00:00:00 +0000", utc_ticks(1995, 1, 1, 0, 0, 0)},
        {"1 Jan 100 00:00:00 +0000", std::nullopt},
        {"29 Feb 2024 12:00:00 +0000", utc_ticks(2024, 2, 29, 12, 0, 0)},
        // A zone in letters, a missing seconds field: 6 conversions.
        {"Wed, 18 Nov 2026 12:00:00 GMT", std::nullopt},
        {"Wed, 18 Nov 2026 12:00 +0100", std::nullopt},
        {"Wed, 18 Nov 2026 12:00:00", std::nullopt},
        {"Wed, 18 Nov 2026 12 :00:00 +0100", std::nullopt},
        // The month is the next 3 bytes: "November" leaves "ember" for the year.
        {"18 November 2026 12:00:00 +0100", std::nullopt},
        {"18 Foo 2026 12:00:00 +0100", std::nullopt},
        {"18 No 2026 12:00:00 +0100", std::nullopt},
        // The first byte picks the format: a blank means a weekday word.
        {" 18 Nov 2026 12:00:00 +0100", std::nullopt},
        {"Wednesday 18 Nov 2026 12:00:00 +0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        // Impossible dates: untouched, and not moved by the zone either.
        {"Wed, 32 Nov 2026 12:00:00 +0100", std::nullopt},
        {"29 Feb 2025 12:00:00 +0100", std::nullopt},
        {"18 Nov 2026 24:00:00 +0100", std::nullopt},
        {"18 Nov 2026 12:60:00 +0100", std::nullopt},
        {"18 Nov 2026 12:00:60 +0100", std::nullopt},
        {"Wed, -1 Nov 2026 12:00:00 +0100", std::nullopt},
        {"18 Nov 2026 65548:00:00 +0000", std::nullopt},  // 12 + 65536: no wrap
        {"0 Nov 2026 12:00:00 +0100", std::nullopt},
        {"18 Nov 67562 12:00:00 +0000", std::nullopt},  // 2026 + 65536: no wrap
        {"18 Nov 65554 12:00:00 +0000", std::nullopt},
        // A correction that leaves the range of FILETIME is no date.
        {"1 Jan 1601 00:00:00 +0100", std::nullopt},
        {"1 Jan 1601 01:00:00 +0100", utc_ticks(1601, 1, 1, 0, 0, 0)},
        {"31 Dec 30827 23:59:59 -99999999", std::nullopt},
        {"18 Nov 2026 12:00:00 +99999999",
         utc_ticks(2026, 11, 18, 12, 0, 0) - 3600002340ull * 10'000'000ull},
        // Only the first 63 bytes count.
        {"Wed, 18 Nov 2026 12:00:00" + pad33 + "+0100", utc_ticks(2026, 11, 18, 11, 0, 0)},
        {"Wed, 18 Nov 2026 12:00:00" + pad33 + " +0100", utc_ticks(2026, 11, 18, 11, 50, 0)},
        {"Wed, 18 Nov 2026 12:00:00" + pad33 + "    +0100", std::nullopt},
        {"Wed, 18 Nov 2026 12:00:00" + pad33 + "     +0100", std::nullopt},
        {"", std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.value));
        std::string rest;
        std::uint64_t ticks = run_date(c.value + "\r\nX: y", &rest);
        EXPECT_EQ(ticks, c.utc.value_or(host_ticks));
        EXPECT_EQ(rest, "X: y");
        // At the end of the file the field ends there, with the same date.
        EXPECT_EQ(run_date(c.value, &rest), c.utc.value_or(host_ticks));
        EXPECT_EQ(rest, "");
    }
}

TEST(DateField, StreamIsLeftOnTheNextLine) {
    struct Case {
        std::string bytes;
        std::optional<std::uint64_t> utc;
        std::string rest;
    };
    const std::string long_tail(200, 'z');
    const std::vector<Case> cases = {
        // A zone behind a fold is lost: the capture stops at the first CR.
        {"Wed, 18 Nov 2026 12:00:00\r\n +0100\r\nX: y", std::nullopt, "X: y"},
        {"Wed, 18 Nov 2026 12:00:00 +0100\r\n (comment)\r\nX: y", utc_ticks(2026, 11, 18, 11, 0, 0),
         "X: y"},
        {"Wed, 18 Nov 2026 12:00:00 +0100 " + long_tail + "\r\nX: y",
         utc_ticks(2026, 11, 18, 11, 0, 0), "X: y"},
        {"Wed, 18 Nov 2026 12:00:00 +0100\r\n\r\nbody", utc_ticks(2026, 11, 18, 11, 0, 0),
         "\r\nbody"},
        {"18 Nov 2026 12:00:00 +0100\r", utc_ticks(2026, 11, 18, 11, 0, 0), ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.bytes));
        std::string rest;
        EXPECT_EQ(run_date(c.bytes, &rest), c.utc.value_or(host_ticks));
        EXPECT_EQ(rest, c.rest);
    }
}

TEST(DateField, RefusedConversionLeavesTheDate) {
    // The platform refusing the calendar fields counts like an impossible date.
    FieldRun run("Wed, 18 Nov 2026 12:00:00 +0100");
    run.record().date = host_date;
    os::FaultScope fault(os::Op::SystemTimeToFileTime, 1, os::ERROR_INVALID_PARAMETER);
    parse_date(run.context());
    EXPECT_EQ(testing::date_ticks(run.record()), host_ticks);
}

TEST(DateField, LaterDateThatConvertsWins) {
    FieldRun run(
        "Date: 18 Nov 2026 12:00:00 +0000\r\n"
        "Date: 19 Nov 2026 12:00:00 +0000\r\n"
        "Date: 20 Nov 2026 12:00:00 GMT\r\n"
        "\r\n");
    run.dispatch();
    EXPECT_EQ(testing::date_ticks(run.record()), utc_ticks(2026, 11, 19, 12, 0, 0));
}

TEST(SubjectField, CapturedAndDecoded) {
    struct Case {
        std::string bytes;
        std::string subject;
        std::string rest;
    };
    const std::string x600(600, 'x');
    const std::string word = "=?iso-8859-1?Q?=E8?=";
    const std::vector<Case> cases = {
        {"Prova\r\nX: y", "Prova", "X: y"},
        {"Prova", "Prova", ""},
        {"Re: a; b\r\nX: y", "Re: a b", "X: y"},
        // Folds stay as they stand.
        {"a\r\n\tb\r\n c\r\nX: y", "a\r\n\tb\r\n c", "X: y"},
        {"=?iso-8859-1?Q?Caff=E8_al_bar?= ok\r\nX", "Caff\xe8 al bar ok", "X"},
        {"=?iso-8859-1?Q?a?=\r\n =?iso-8859-1?Q?b?=\r\nX", "a\r\n b", "X"},
        {"=?utf-8?Q?Caff=C3=A8?=\r\nX", "=?utf-8?Q?Caff=C3=A8?=", "X"},
        {"8-bit \xe8\xff\r\nX", "8-bit \xe8\xff", "X"},
        {"a\0b\r\nX"s, "ab", "X"},
        // 499 bytes are kept, and the rest of the field is passed over.
        {x600 + "\r\nX", std::string(499, 'x'), "X"},
        {x600 + "\r\n " + x600 + "\r\nX", std::string(499, 'x'), "X"},
        // The cut comes before decoding: a word cut in two stays as text.
        {std::string(490, 'x') + word + "\r\nX", std::string(490, 'x') + word.substr(0, 9), "X"},
        {std::string(479, 'x') + word + "\r\nX", std::string(479, 'x') + "\xe8", "X"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.bytes.substr(0, 80)));
        FieldRun run(c.bytes);
        parse_subject(run.context());
        EXPECT_EQ(testing::field_text(run.record().subject_length, run.record().subject),
                  c.subject);
        EXPECT_EQ(run.rest(), c.rest);
    }
}

TEST(SubjectField, LaterSubjectReplaces) {
    struct Case {
        std::string header;
        std::string subject;
    };
    const std::vector<Case> cases = {
        {"Subject: a long first subject\r\nSubject: short\r\n\r\n", "short"},
        {"Subject: short\r\nSubject: a longer second one\r\n\r\n", "a longer second one"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.header));
        FieldRun run(c.header);
        run.dispatch();
        EXPECT_EQ(testing::field_text(run.record().subject_length, run.record().subject),
                  c.subject);
    }
}

}  // namespace
}  // namespace qbsmtp
