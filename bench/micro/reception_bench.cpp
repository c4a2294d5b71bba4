// reception_bench.cpp: the receiving side's hot paths. The DATA text
// through the dot rule into a spool file (receive_text, fed from a local
// socket by another thread), and the duplicate filter's scan of a whole
// message's bytes for its identifier.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <filesystem>
#include <memory>

#include "bench_support.h"
#include "frame/stream.h"
#include "reception/duplicate_filter.h"
#include "reception/message_intake.h"
#include "reception/session_io.h"
#include "reception/smtp_session.h"

namespace qbsmtp::bench {
namespace {

// One message per iteration: a new spool file, the text up to its end
// marker, the close. The feeder keeps the socket full, so the session's
// reads (8 KB each) are what the loop waits on, as in a session.
void BM_ReceiveText(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    std::string text = mail_text(size);
    const std::size_t stored =
        text.size() - text.size() / (16 * 78) - 2;  // rough: dots, last CR LF
    text += ".\r\n";
    const std::size_t wire_size = text.size();
    FeedingSocket feed(std::move(text));
    auto session = std::make_unique<SmtpSession>();
    session->socket = static_cast<os::SOCKET>(feed.socket());
    session_reset_buffers(*session);
    const std::string path = scratch_path("receive.tmp");
    for (auto _ : state) {
        session->spool = Stream::open(path.c_str(), "wb");
        const int result = receive_text(*session);
        if (session->spool->close() != 0 || result != LINE_CLEAN) {
            state.SkipWithError("receive_text failed");
            break;
        }
    }
    session->spool = nullptr;
    if (std::filesystem::file_size(path) + 64 < stored) state.SkipWithError("text lost");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * wire_size));
}
BENCHMARK(BM_ReceiveText)->Arg(1 << 10)->Arg(100 << 10)->Arg(10 << 20)->UseRealTime();

// The worst case of the scan: a message with no identifier is searched to
// its end, in the 64 KB blocks the spool stream writes.
void BM_DuplicateScan(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::string path = scratch_path("duplicate.822");
    const std::string text = mail_text(size);
    for (auto _ : state) {
        MessageIdScanner scan;
        for (std::size_t at = 0; at < text.size(); at += Stream::buffer_size)
            scan.feed(text.data() + at, std::min(Stream::buffer_size, text.size() - at));
        if (check_duplicate(path.c_str(), scan) != 1) {
            state.SkipWithError("a file without identifier was called a duplicate");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}
BENCHMARK(BM_DuplicateScan)->Arg(1 << 10)->Arg(100 << 10)->Arg(10 << 20);

}  // namespace
}  // namespace qbsmtp::bench
