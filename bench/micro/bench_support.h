// bench_support.h: what the micro-benchmarks share: a fresh scratch
// directory on tmpfs for the run, the generated inputs, and a local socket
// with a thread that feeds or drains its other end.
//
// The scratch directory is made by main (bench_main.cpp) before any
// benchmark runs and removed after the last; QBSMTP_PREFIX points into it,
// so the module's settings and events stay inside too. Files are written on
// tmpfs (/dev/shm) so that the numbers show the code, not the disk.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <string_view>
#include <thread>

namespace qbsmtp::bench {

// The run's scratch directory, set by main.
const std::string& scratch_dir();
// scratch_dir() / name.
std::string scratch_path(std::string_view name);
// Writes bytes to path, replacing it; aborts the run on failure.
void write_file(const std::string& path, std::string_view bytes);

// Deterministic inputs of about size bytes (their sizes are exact where
// the name says so).
// Mail text lines of 76 bytes with CR LF, every 16th starting with a dot.
std::string mail_text(std::size_t size);
// size random-looking bytes.
std::string binary_bytes(std::size_t size);
// binary in base64, lines of 76 characters with CR LF.
std::string base64_lines(std::string_view binary);
// Italian text with accents (Latin-1) as quoted-printable: escapes, soft
// breaks and hard line ends, lines within 76 bytes.
std::string quoted_printable_text(std::size_t decoded_size);
// binary uuencoded: "begin 644 data.bin", lines of 45 bytes, "`", "end".
std::string uuencoded(std::string_view binary);

// One end of a local stream socket pair, whose other end a thread feeds
// with copies of text (FeedingSocket) or drains (DrainingSocket) until the
// object goes. socket() is the descriptor, which is what a SOCKET is on
// POSIX.
class FeedingSocket {
  public:
    explicit FeedingSocket(std::string text);
    ~FeedingSocket();
    FeedingSocket(const FeedingSocket&) = delete;
    FeedingSocket& operator=(const FeedingSocket&) = delete;
    int socket() const { return ends_[0]; }

  private:
    std::string text_;
    int ends_[2];
    std::atomic<bool> stop_{false};
    std::thread feeder_;
};

class DrainingSocket {
  public:
    DrainingSocket();
    ~DrainingSocket();
    DrainingSocket(const DrainingSocket&) = delete;
    DrainingSocket& operator=(const DrainingSocket&) = delete;
    int socket() const { return ends_[0]; }

  private:
    int ends_[2];
    std::thread drainer_;
};

}  // namespace qbsmtp::bench
