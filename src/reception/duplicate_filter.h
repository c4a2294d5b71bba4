// duplicate_filter.h: recognises a message that repeats one of the last
// seven by its message identifier, so that its spool file can be dropped.
//
// check_duplicate looks at a complete spool file: 1 keep it, 0 it repeats a
// remembered message (the caller deletes the file; the filter deletes
// nothing). The identifier is what follows the first "Message-Id: <"
// anywhere in the file, up to '>'. recent_messages is module-wide and
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

// A file opened for reading, read through a buffer. Its bytes come out one
// at a time by read_file_byte, exactly as one ReadFile per byte would give
// them; only the number of system calls differs.
class SpoolFileReader {
  public:
    explicit SpoolFileReader(os::HANDLE file) : file_(file) {}
    SpoolFileReader(const SpoolFileReader&) = delete;
    SpoolFileReader& operator=(const SpoolFileReader&) = delete;

    // Next byte as 0..255, or -1 at the end of the file and on a failed
    // read (and from then on).
    int read_file_byte();
    // Reads on up to and including the next byte equal to wanted: the
    // same bytes as read_file_byte until it returns wanted, found by
    // memchr. wanted, or -1 as read_file_byte gives it.
    int skip_to_byte(unsigned char wanted);

  private:
    bool refill();

    static constexpr std::size_t buffer_size = 16 * 1024;
    os::HANDLE file_;
    unsigned char buffer_[buffer_size];
    std::size_t cursor_ = 0;
    std::size_t count_ = 0;
    bool ended_ = false;
};

// Single pass with no look-back: a byte that breaks a partial match is not
// tried as a new first byte. 1 when literal was found (the reader then
// stands behind it), 0 when the file ended first.
int find_in_file(SpoolFileReader& file, const char* literal);

int check_duplicate(const char* path);

}  // namespace qbsmtp
