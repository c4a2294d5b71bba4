// duplicate_filter.h: recognises a message that repeats one of the last
// seven by its message identifier, so that its spool file can be dropped.
//
// check_duplicate judges a complete spool file by the identifier its
// scanner found: 1 keep it, 0 it repeats a remembered message (the caller
// deletes the file; the filter deletes nothing). recent_messages is module-wide and
// remembered in memory only; every read or write of it holds
// recent_messages_lock, so concurrent sessions may call check_duplicate.
#pragma once

#include <cstddef>
#include <mutex>

#include "frame/counted_string.h"
#include "platform/os.h"

namespace qbsmtp {

// One remembered message. A slot is empty while file_name has no text;
// slots are overwritten, never emptied again.
class RecentMessage {
  public:
    os::FILETIME time{};       // last written or matched, UTC; zero when empty
    CountedString file_name;   // name without directory when first seen (.tmp)
    CountedString message_id;  // without angle brackets; no text when empty
};

inline constexpr int recent_message_slots = 7;
inline constexpr std::size_t max_message_id = 1000;  // bytes, without the NUL
inline constexpr const char message_id_literal[] = "Message-Id: <";

extern RecentMessage (&recent_messages)[recent_message_slots];
extern std::mutex recent_messages_lock;

// Finds the message identifier in a spool file's bytes as they are
// written, so that the file need not be read again: the identifier is what
// follows the first "Message-Id: <" up to '>'. The search has no
// look-back: a byte that breaks a partial match is not tried as a new
// first byte. Fed with every byte of the file, in order.
class MessageIdScanner {
  public:
    enum class Result {
        none,     // no "Message-Id: <" in the file
        valid,    // '>' came within max_message_id bytes: id() holds it
        invalid,  // it did not, or the file ended first
    };

    void feed(const char* bytes, std::size_t size);
    Result result() const;
    const char* id() const { return id_; }

  private:
    enum class State { searching, capturing, valid, invalid };
    State state_ = State::searching;
    std::size_t matched_ = 0;  // bytes of the literal matched so far
    std::size_t stored_ = 0;   // bytes of the identifier so far
    char id_[max_message_id + 1] = {};
};

// For Stream::observe_writes: feeds the bytes to the scanner at context.
void scan_written_bytes(void* context, const char* bytes, std::size_t size);

int check_duplicate(const char* path, const MessageIdScanner& scan);

}  // namespace qbsmtp
