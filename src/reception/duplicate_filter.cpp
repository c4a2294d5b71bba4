// duplicate_filter.cpp: check_duplicate and the table of recent messages.

#include "reception/duplicate_filter.h"

#include <cstdint>
#include <cstring>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"

namespace qbsmtp {

namespace {

// Storage that is never destroyed: a detached session thread may still be
// in check_duplicate while the process runs its static destructors at exit.
union RecentMessageStorage {
    RecentMessage slots[recent_message_slots];
    constexpr RecentMessageStorage() : slots() {}
    ~RecentMessageStorage() {}
};
constinit RecentMessageStorage recent_message_storage;

// The last time handed to a slot, as a 64-bit count of 100 ns units.
// Guarded by recent_messages_lock.
std::uint64_t last_stamp = 0;

std::uint64_t as_number(const os::FILETIME& time) {
    return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

os::FILETIME as_file_time(std::uint64_t number) {
    return {static_cast<os::DWORD>(number), static_cast<os::DWORD>(number >> 32)};
}

// The current UTC time for a slot, strictly later than every earlier one:
// the clock's resolution (and a clock set back) must not make a newer
// entry look as old as, or older than, one written before it.
os::FILETIME next_stamp() {
    os::SYSTEMTIME now{};
    os::GetSystemTime(&now);
    os::FILETIME time{};
    os::SystemTimeToFileTime(&now, &time);
    std::uint64_t stamp = as_number(time);
    if (stamp <= last_stamp) stamp = last_stamp + 1;
    last_stamp = stamp;
    return as_file_time(stamp);
}

// The slot holding message_id, or -1. An empty identifier matches nothing.
int find_slot(const char* message_id) {
    for (int i = 0; i < recent_message_slots; ++i) {
        const CountedString& held = recent_messages[i].message_id;
        if (!held.empty() && std::strcmp(held.text, message_id) == 0) return i;
    }
    return -1;
}

// The slot to replace: the highest empty one, else the oldest, the lowest
// index among equal times.
int choose_slot() {
    int candidate = 0;
    os::FILETIME candidate_time = recent_messages[0].time;
    for (int i = 1; i < recent_message_slots; ++i) {
        const RecentMessage& slot = recent_messages[i];
        if (slot.file_name.empty() || os::CompareFileTime(&slot.time, &candidate_time) < 0) {
            candidate = i;
            candidate_time = slot.time;
        }
    }
    return candidate;
}

}  // namespace

RecentMessage (&recent_messages)[recent_message_slots] = recent_message_storage.slots;
// Not constinit: mingw's std::mutex has no constexpr constructor. It is
// still ready before attach: glibc's mutex is constant-initialised, and on
// Windows the runtime runs static constructors before DllMain.
std::mutex recent_messages_lock;

void MessageIdScanner::feed(const char* bytes, std::size_t size) {
    constexpr std::size_t length = sizeof message_id_literal - 1;
    const char* at = bytes;
    const char* const end = bytes + size;
    while (at < end) {
        switch (state_) {
            case State::searching:
                if (matched_ == 0) {
                    // A match can only start at the literal's first byte.
                    const void* first =
                        std::memchr(at, message_id_literal[0], static_cast<std::size_t>(end - at));
                    if (first == nullptr) return;
                    at = static_cast<const char*>(first) + 1;
                    matched_ = 1;
                } else if (*at++ == message_id_literal[matched_]) {
                    ++matched_;
                } else {
                    matched_ = 0;  // no look-back: this byte is not tried as a first byte
                }
                if (matched_ == length) state_ = State::capturing;
                break;
            case State::capturing: {
                const char c = *at++;
                if (c == '>') {
                    id_[stored_] = '\0';
                    state_ = State::valid;
                } else if (stored_ == max_message_id) {
                    state_ = State::invalid;
                } else {
                    id_[stored_++] = c;
                }
                break;
            }
            case State::valid:
            case State::invalid:
                return;
        }
    }
}

MessageIdScanner::Result MessageIdScanner::result() const {
    switch (state_) {
        case State::searching:
            return Result::none;
        case State::valid:
            return Result::valid;
        default:
            return Result::invalid;  // capturing when the file ended, or too long
    }
}

void scan_written_bytes(void* context, const char* bytes, std::size_t size) {
    static_cast<MessageIdScanner*>(context)->feed(bytes, size);
}

int check_duplicate(const char* path, const MessageIdScanner& scan) {
    switch (scan.result()) {
        case MessageIdScanner::Result::none:
            return 1;
        case MessageIdScanner::Result::invalid:
            event_reporter.report(event::message_id_invalid, path);
            return 1;
        case MessageIdScanner::Result::valid:
            break;
    }
    const char* id = scan.id();

    // Search, choice and write are one step, so that two sessions never
    // interleave on a slot; the report waits until the lock is released.
    char first_file[max_path];
    {
        std::lock_guard<std::mutex> hold(recent_messages_lock);
        const os::FILETIME now = next_stamp();
        const int match = find_slot(id);
        if (match < 0) {
            RecentMessage& slot = recent_messages[choose_slot()];
            slot.file_name = path_file_name(path);
            slot.message_id = id;
            slot.time = now;
            return 1;
        }
        RecentMessage& slot = recent_messages[match];
        slot.time = now;
        std::strncpy(first_file, slot.file_name.c_str(), sizeof first_file - 1);
        first_file[sizeof first_file - 1] = '\0';
    }
    event_reporter.report(event::duplicate_dropped, path, first_file);
    return 0;
}

}  // namespace qbsmtp
