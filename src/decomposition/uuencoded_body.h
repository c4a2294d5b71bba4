// uuencoded_body.h: uuencoded blocks inline in a plain text body, as mail
// without MIME structure carries files. The body is split: all text goes
// into one .txt file under mime_dir, each block is decoded into a file of
// its own, and all of them are listed in the record's attachments, the
// text file first.
//
// Both entry points read the message's input from where it stands, which
// is in front of the blank line that ends the headers, so the text file
// begins with that blank line. The decoder here is stricter than
// load_uuencode, which serves MIME parts; the two are kept apart on
// purpose.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/counted_string.h"
#include "frame/stream.h"
#include "platform/os.h"

namespace qbsmtp {

// 8 (the offset behind the two mode digits) when line, of length bytes in
// front of its LF (a CR included), starts "begin " and two decimal digits
// with at least one more byte behind them; else 0.
int is_begin_line(const char* line, std::size_t length);

// 1 when the body from input's position holds a begin line and, on a
// later line (not the one right behind it), a line that starts "end";
// else 0. Lines are taken from a 512-byte window, so a line longer than
// that is only seen from a later start; a last line without LF is not
// looked at. The position is restored either way; null input gives 0.
int has_uuencoded_block(Stream* input);

// The state of one split: the read-ahead shared by the text stretches and
// the decoder, so that each goes on exactly where the other stopped.
class UuSplitter {
  public:
    static constexpr std::size_t buffer_size = 32768;

    char* out_buffer = nullptr;                       // decoded bytes waiting to be written
    char* in_buffer = nullptr;                        // bytes read ahead from input
    std::uint32_t in_count = 0;                       // end of the valid bytes in in_buffer
    std::uint32_t in_pos = 0;                         // where the unprocessed bytes begin
    CountedString text_path;                          // the text file
    os::HANDLE text_file = os::INVALID_HANDLE_VALUE;  // open from the first text line on
    Stream* input = nullptr;                          // the message; not owned

    UuSplitter() = default;
    ~UuSplitter();
    UuSplitter(const UuSplitter&) = delete;
    UuSplitter& operator=(const UuSplitter&) = delete;

    // Takes input and allocates both buffers: 1, or 0 without them.
    int open(Stream* stream);
    // 1, or 0 if the path cannot be allocated.
    int set_text_path(const char* path, std::size_t length);
    // Appends bytes to the text file, creating (and truncating) it at the
    // first call: 1 when all were written.
    int write_text(const char* bytes, std::size_t count);
    // Copies text up to the next begin line and puts the line's file name
    // (up to size - 1 bytes) into name, which stays as it was when the line
    // names none. 1 at a begin line; 0 at the end of input, when the last
    // bytes have gone out as text, or when the text file fails.
    int next_block(char* name, std::size_t size);
    // Decodes the block behind a begin line into a new file at path. 1 when
    // its end line or the end of input came; 0 when the block is malformed
    // or the file fails, and the file is then gone.
    int decode_block(const char* path);

    // Closes the text file if it is open.
    void close_text();

  private:
    // Keeps the unprocessed bytes at the start of in_buffer and reads
    // behind them: the bytes read, 0 at the end of input or with no room.
    std::size_t refill();
};

// Splits the body into a text file and block files, all listed in
// attachments (a record list). 0: no block was decoded; 1: blocks were
// decoded; 2: no buffers, or a block failed: attachments is then empty,
// the text file gone, and input back where it stood at the call, so the
// whole body can be read again as plain text. A file that cannot be
// created is reported (0xC000272E) and 1 is thrown.
// attachments_used, when given, keeps the list's byte size across calls
// (see append_record_list).
int split_uuencoded_body(Stream* input, char*& attachments,
                         std::size_t* attachments_used = nullptr);

}  // namespace qbsmtp
