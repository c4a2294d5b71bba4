// Tests of the duplicate filter: the slot rules, what counts as an
// identifier, and concurrent callers.

#include "reception/duplicate_filter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "frame/frame_fixture.h"
#include "frame/message_catalogue.h"
#include "platform/os_fault.h"

namespace qbsmtp::test {
namespace {

class DuplicateFilter : public ReportingFrame {
  protected:
    // Writes a spool file named name with content; its full path.
    std::string spool(const std::string& name, const std::string& content) {
        prefix.write(name, content);
        return prefix.file(name);
    }
    std::string message(const std::string& id) {
        return "Return-Path: <a@b>\r\nReceived: from x by y with SMTP ; 1 Jan 00 00:00:00 +0000\r\n"
               "Message-Id: <" +
               id + ">\r\nSubject: s\r\n\r\nbody";
    }
    static std::string slot_id(int i) { return recent_messages[i].message_id.c_str(); }
    static std::string slot_file(int i) { return recent_messages[i].file_name.c_str(); }
    static int filled_slots() {
        int filled = 0;
        for (const auto& slot : recent_messages) filled += !slot.file_name.empty();
        return filled;
    }
};

TEST_F(DuplicateFilter, EmptyTableFillsFromTheTopAndTheEighthReplacesTheFirstWritten) {
    for (int n = 1; n <= 7; ++n) {
        const std::string name = "rx00000" + std::to_string(n) + ".tmp";
        ASSERT_EQ(check_duplicate(spool(name, message("id" + std::to_string(n))).c_str()), 1);
        EXPECT_EQ(slot_id(7 - n), "id" + std::to_string(n));
        EXPECT_EQ(slot_file(7 - n), name);
    }
    EXPECT_EQ(slot_id(0), "id7");

    ASSERT_EQ(check_duplicate(spool("rx000008.tmp", message("id8")).c_str()), 1);
    EXPECT_EQ(slot_id(6), "id8");
    EXPECT_EQ(slot_file(6), "rx000008.tmp");

    // A repeat refreshes its slot (id2, slot 5, now the oldest), so the
    // next new identifier replaces the one after it (id3, slot 4).
    ASSERT_EQ(check_duplicate(spool("rx000009.tmp", message("id2")).c_str()), 0);
    ASSERT_EQ(check_duplicate(spool("rx000010.tmp", message("id10")).c_str()), 1);
    EXPECT_EQ(slot_id(5), "id2");
    EXPECT_EQ(slot_id(4), "id10");
    EXPECT_EQ(check_duplicate(spool("rx000011.tmp", message("id3")).c_str()), 1);
    EXPECT_TRUE(events_with_id(event::message_id_invalid).empty());
}

TEST_F(DuplicateFilter, RepeatsAreDroppedAndNameTheFirstFile) {
    const std::string first = spool("rx000001.tmp", message("same@x"));
    const std::string second = spool("rx000002.tmp", message("same@x"));
    const std::string third = spool("rx000003.tmp", message("same@x"));
    EXPECT_EQ(check_duplicate(first.c_str()), 1);
    EXPECT_EQ(check_duplicate(second.c_str()), 0);
    EXPECT_EQ(check_duplicate(third.c_str()), 0);

    const auto events = events_with_id(event::duplicate_dropped);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].strings, (std::vector<std::string>{second, "rx000001.tmp"}));
    EXPECT_EQ(events[1].strings, (std::vector<std::string>{third, "rx000001.tmp"}));
    EXPECT_EQ(events[0].type, os::EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(filled_slots(), 1);
    EXPECT_EQ(slot_file(6), "rx000001.tmp");
}

TEST_F(DuplicateFilter, IdentifiersDifferingInCaseAreDifferentMessages) {
    EXPECT_EQ(check_duplicate(spool("rx1.tmp", message("Abc@X")).c_str()), 1);
    EXPECT_EQ(check_duplicate(spool("rx2.tmp", message("abc@x")).c_str()), 1);
    EXPECT_EQ(filled_slots(), 2);
}

TEST_F(DuplicateFilter, EmptyIdentifierTakesASlotButNeverMatches) {
    EXPECT_EQ(check_duplicate(spool("rx1.tmp", message("")).c_str()), 1);
    EXPECT_EQ(check_duplicate(spool("rx2.tmp", message("")).c_str()), 1);
    EXPECT_EQ(filled_slots(), 2);
    EXPECT_EQ(recent_messages[6].message_id.text, nullptr);
    EXPECT_EQ(slot_file(5), "rx2.tmp");
    EXPECT_TRUE(events_with_id(event::duplicate_dropped).empty());
}

// What the file holds, and the identifier that the filter takes from it
// (nullopt: none, the table is untouched), and whether it reports the
// identifier as invalid.
struct IdentifierCase {
    const char* what;
    std::string content;
    std::optional<std::string> id;
    bool invalid;
};

TEST_F(DuplicateFilter, WhatCountsAsTheIdentifier) {
    const std::string at_limit(max_message_id, 'a');
    const std::string over_limit(max_message_id + 1, 'b');
    const std::string past_buffer(5000, 'x');
    const std::vector<IdentifierCase> cases = {
        {"plain", "Message-Id: <p@x>\r\n", "p@x", false},
        {"1000 bytes", "Message-Id: <" + at_limit + ">", at_limit, false},
        {"1001 bytes", "Message-Id: <" + over_limit + ">", std::nullopt, true},
        {"no closing bracket", "Message-Id: <open@x\r\n\r\nbody", std::nullopt, true},
        {"over a line end", "Message-Id: <a@\r\n b>", "a@\r\n b", false},
        {"capital D", "Message-ID: <c@x>\r\n", std::nullopt, false},
        {"two blanks", "Message-Id:  <c@x>\r\n", std::nullopt, false},
        {"quoted in the body", "Subject: s\r\n\r\nsee Message-Id: <q@x> here", "q@x", false},
        {"longer field name", "X-Original-Message-Id: <o@x>\r\n", "o@x", false},
        {"first occurrence wins", "Message-Id: <1>\r\nMessage-Id: <2>", "1", false},
        {"broken partial match", "MMessage-Id: <m@x>\r\n", std::nullopt, false},
        {"found after a broken match", "MMessage-Id: <m>\r\nMessage-Id: <n>", "n", false},
        {"0xFF bytes", "\xffMessage-Id: <\xff\xfe@x>", "\xff\xfe@x", false},
        {"ends at a NUL", std::string("Message-Id: <ab\0cd>", 19), "ab", false},
        {"across the read buffer", past_buffer + "Message-Id: <far@x>", "far@x", false},
        {"none at all", past_buffer, std::nullopt, false},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string path = spool("rx" + std::to_string(++n) + ".tmp", c.content);
        const auto invalid_before = events_with_id(event::message_id_invalid).size();
        EXPECT_EQ(check_duplicate(path.c_str()), 1);
        const auto invalid = events_with_id(event::message_id_invalid);
        ASSERT_EQ(invalid.size(), invalid_before + (c.invalid ? 1 : 0));
        if (c.invalid) {
            EXPECT_EQ(invalid.back().strings, std::vector<std::string>{path});
        }
        // The file's slot, if it got one, holds the identifier taken.
        const std::string name = "rx" + std::to_string(n) + ".tmp";
        std::optional<std::string> taken;
        for (int i = 0; i < recent_message_slots; ++i)
            if (slot_file(i) == name) taken = slot_id(i);
        EXPECT_EQ(taken, c.id);
    }
}

TEST_F(DuplicateFilter, UnreadableFilesAreKeptAndLeaveNoTrace) {
    EXPECT_EQ(check_duplicate(prefix.file("missing.tmp").c_str()), 1);
    const std::string path = spool("rx1.tmp", message("r@x"));
    os::fault_arm(os::Op::ReadFile, 1, 23);
    EXPECT_EQ(check_duplicate(path.c_str()), 1);
    os::fault_clear();
    EXPECT_EQ(filled_slots(), 0);
    EXPECT_TRUE(read_events().empty());
}

TEST_F(DuplicateFilter, FindInFileDoesNotLookBack) {
    const struct {
        std::string content;
        int found;
        int next;  // the byte behind the match, or -1
    } cases[] = {
        {"abcX", 1, 'X'}, {"aabcY", 0, -1}, {"ababcZ", 0, -1}, {"xabc", 1, -1}, {"ab", 0, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        const std::string path = spool("f.txt", c.content);
        const os::HANDLE file = os::CreateFileA(path.c_str(), os::GENERIC_READ, os::FILE_SHARE_READ,
                                                nullptr, os::OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(file, os::INVALID_HANDLE_VALUE);
        {
            SpoolFileReader reader(file);
            EXPECT_EQ(find_in_file(reader, "abc"), c.found);
            EXPECT_EQ(reader.read_file_byte(), c.next);
            EXPECT_EQ(reader.read_file_byte(), -1);
        }
        os::CloseHandle(file);
    }
}

// Many sessions finishing the same message at once: exactly one keeps it,
// and the one slot written holds a whole identifier and file name.
TEST_F(DuplicateFilter, ConcurrentCallersKeepExactlyOneCopy) {
    constexpr int callers = 20;
    std::vector<std::string> paths;
    for (int i = 0; i < callers; ++i)
        paths.push_back(spool("rx" + std::to_string(100 + i) + ".tmp", message("race@x")));
    std::atomic<int> kept{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i)
        threads.emplace_back([&, i] {
            while (!go.load()) std::this_thread::yield();
            kept += check_duplicate(paths[i].c_str());
        });
    go = true;
    for (auto& t : threads) t.join();
    EXPECT_EQ(kept.load(), 1);
    EXPECT_EQ(filled_slots(), 1);
    EXPECT_EQ(slot_id(6), "race@x");
    EXPECT_EQ(recent_messages[6].file_name.length, 9);
    EXPECT_EQ(events_with_id(event::duplicate_dropped).size(), callers - 1u);
}

}  // namespace
}  // namespace qbsmtp::test
