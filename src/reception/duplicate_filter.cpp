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

// Reads the identifier behind the literal into id (NUL-terminated). 1 when
// '>' closed it within max_message_id bytes, else 0.
int read_message_id(SpoolFileReader& file, char (&id)[max_message_id + 1]) {
    std::size_t stored = 0;
    int byte = file.read_file_byte();
    while (byte != -1 && byte != '>' && stored < max_message_id) {
        id[stored++] = static_cast<char>(byte);
        byte = file.read_file_byte();
    }
    id[stored] = '\0';
    return byte == '>';
}

}  // namespace

RecentMessage (&recent_messages)[recent_message_slots] = recent_message_storage.slots;
// Not constinit: mingw's std::mutex has no constexpr constructor. It is
// still ready before attach: glibc's mutex is constant-initialised, and on
// Windows the runtime runs static constructors before DllMain.
std::mutex recent_messages_lock;

bool SpoolFileReader::refill() {
    if (ended_) return false;
    os::DWORD got = 0;
    if (!os::ReadFile(file_, buffer_, buffer_size, &got, nullptr) || got == 0) {
        ended_ = true;
        return false;
    }
    cursor_ = 0;
    count_ = got;
    return true;
}

int SpoolFileReader::read_file_byte() {
    if (cursor_ == count_ && !refill()) return -1;
    return buffer_[cursor_++];
}

int SpoolFileReader::skip_to_byte(unsigned char wanted) {
    for (;;) {
        if (cursor_ == count_ && !refill()) return -1;
        const void* found = std::memchr(buffer_ + cursor_, wanted, count_ - cursor_);
        if (found != nullptr) {
            cursor_ =
                static_cast<std::size_t>(static_cast<const unsigned char*>(found) - buffer_) + 1;
            return wanted;
        }
        cursor_ = count_;
    }
}

int find_in_file(SpoolFileReader& file, const char* literal) {
    const std::size_t length = std::strlen(literal);
    if (length == 0) return 1;
    std::size_t matched = 0;
    while (matched < length) {
        // A match can only start at the literal's first byte: jump there.
        const int byte = matched == 0 ? file.skip_to_byte(static_cast<unsigned char>(literal[0]))
                                      : file.read_file_byte();
        if (byte == -1) break;
        if (byte == static_cast<unsigned char>(literal[matched]))
            ++matched;
        else
            matched = 0;  // no look-back: this byte is not tried as a first byte
    }
    return matched == length;
}

int check_duplicate(const char* path) {
    const os::HANDLE file = os::CreateFileA(path, os::GENERIC_READ, os::FILE_SHARE_READ, nullptr,
                                            os::OPEN_EXISTING, 0, nullptr);
    if (file == os::INVALID_HANDLE_VALUE) return 1;
    char id[max_message_id + 1];
    int valid = 0;
    {
        SpoolFileReader reader(file);
        if (find_in_file(reader, message_id_literal)) {
            valid = read_message_id(reader, id);
            if (!valid) event_reporter.report(event::message_id_invalid, path);
        }
    }
    os::CloseHandle(file);
    if (!valid) return 1;

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
