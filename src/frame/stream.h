// stream.h: Stream, the module's buffered file stream (its FILE).
//
// The module reads and writes spool, mime and attachment files through
// this type rather than the C library's, so that every byte goes through
// the platform layer (and its fault seam) and the byte operations are an
// inlined count test in the usual case.
//
// Modes as fopen's: "rb", "wb", "ab", and "r" (text mode: CR LF is
// delivered as LF and byte 26 ends the input, on every platform).
// Reads can be taken back with ungetc, at least max_pushback bytes in a
// row, whatever the buffer held. Errors are sticky (error()); a failed
// open returns null with the reason in the thread's last error.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/os.h"

namespace qbsmtp {

class Stream {
  public:
    static constexpr int eof = -1;
    static constexpr std::size_t buffer_size = 64 * 1024;
    static constexpr std::size_t max_pushback = 64 * 1024;

    // Opens path; null with the last error set on failure.
    static Stream* open(const char* path, const char* mode);
    // Takes over file, open with the access that mode needs, as a stream of
    // that mode standing at the file's start ("ab": at its end). The stream
    // closes it; so does a failure, which returns null as open does.
    static Stream* adopt(os::HANDLE file, const char* mode);
    // Flushes, closes and frees the stream: 0, or eof if a write or the
    // close failed (the last error says why).
    int close();

    int getc() {
        if (read_cursor_ < read_end_) return static_cast<unsigned char>(*read_cursor_++);
        return getc_slow();
    }
    // Takes back one byte: the next getc gives c. Result c, or eof.
    int ungetc(int c);
    int putc(int c) {
        if (write_cursor_ < write_end_) {
            *write_cursor_++ = static_cast<char>(c);
            return static_cast<unsigned char>(c);
        }
        return putc_slow(c);
    }
    std::size_t read(void* buffer, std::size_t size);
    std::size_t write(const void* buffer, std::size_t size);
    // As fgets: up to size - 1 bytes, ending behind an LF; null at the end.
    char* gets(char* buffer, int size);
    // As fprintf: bytes written, or negative on failure.
    int printf(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int flush();
    // Flushes, then has the system put the file's data on the disk: 0, or
    // eof with the last error set (the failure is sticky, as a write's).
    int sync();
    // Position as seen by the reader (pushback included); 0 or -1.
    int getpos(std::int64_t* position);
    int setpos(const std::int64_t* position);
    void rewind();
    // Bulk access, for readers and writers that work on runs of bytes.
    // The unread bytes held now, in reading order (taken-back ones first);
    // consume(n) reads the first n of them. An empty view is no end of the
    // input: getc refills the buffer.
    const char* read_view() const { return read_cursor_; }
    std::size_t read_view_size() const {
        return static_cast<std::size_t>(read_end_ - read_cursor_);
    }
    void consume(std::size_t count) { read_cursor_ += count; }
    // The free room of a writing stream's buffer (none on a reading or
    // failed stream); produce(n) keeps the first n bytes stored there. A
    // full buffer is flushed by the next putc or write, as usual.
    char* write_view() const { return write_cursor_; }
    std::size_t write_view_size() const {
        return static_cast<std::size_t>(write_end_ - write_cursor_);
    }
    void produce(std::size_t count) { write_cursor_ += count; }
    bool error() const { return error_; }
    bool at_end() const { return at_end_; }
    // A writing stream hands every run of bytes to observer just before it
    // goes to the file, in file order: whoever must know the file's
    // content need not read it back.
    using WriteObserver = void (*)(void* context, const char* bytes, std::size_t size);
    void observe_writes(WriteObserver observer, void* context);

    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

  private:
    Stream() = default;
    ~Stream();
    int getc_slow();
    int putc_slow(int c);

    char* read_cursor_ = nullptr;
    char* read_end_ = nullptr;
    char* write_cursor_ = nullptr;
    char* write_end_ = nullptr;
    bool error_ = false;
    bool at_end_ = false;
    // The rest is the implementation's.
    struct Impl;
    Impl* impl_ = nullptr;
    friend struct Impl;
};

}  // namespace qbsmtp
