// decomposition_bench.cpp: the body readers of SMTPRecvNext. The boundary
// scan that copies an unencoded part, and the three decoders, each from a
// spool-like file into a part file, both on tmpfs. Bytes are counted on
// the input side.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>

#include "bench_support.h"
#include "decomposition/body_decoders.h"
#include "decomposition/content_header.h"
#include "decomposition/multipart_walk.h"
#include "decomposition/parse_context.h"
#include "frame/stream.h"

namespace qbsmtp::bench {
namespace {

constexpr const char* boundary = "=_part_boundary_0123456789";

ContentInfo parent_level() {
    ContentInfo info;
    std::strncpy(info.boundary, boundary, sizeof info.boundary - 1);
    return info;
}

// Runs reader over input once per iteration (fresh streams each time) and
// checks that the part file has expected_output bytes.
template <typename Reader>
void run_reader(benchmark::State& state, const std::string& input, std::size_t expected_output,
                Reader reader) {
    const std::string in_path = scratch_path("part.in");
    const std::string out_path = scratch_path("part.out");
    write_file(in_path, input);
    for (auto _ : state) {
        ParseContext context;
        context.input = Stream::open(in_path.c_str(), "rb");
        context.output = Stream::open(out_path.c_str(), "wb");
        reader(context);
        const bool closed = context.output->close() == 0;
        context.input->close();
        if (!closed) {
            state.SkipWithError("part file not written");
            return;
        }
    }
    if (std::filesystem::file_size(out_path) != expected_output)
        state.SkipWithError("part file has the wrong size");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * input.size()));
}

std::string closing_line() {
    return std::string("\r\n--") + boundary + "--\r\n";
}

void BM_Skip2BoundaryCopy(benchmark::State& state) {
    const std::string text = mail_text(static_cast<std::size_t>(state.range(0)));
    const ContentInfo info = parent_level();
    run_reader(state, text + closing_line(), text.size(), [&](ParseContext& context) {
        skip2boundary(context, info, boundary_scan_in_text, true);
    });
}
BENCHMARK(BM_Skip2BoundaryCopy)->Arg(100 << 10)->Arg(10 << 20);

void BM_Base64Decode(benchmark::State& state) {
    const std::string binary = binary_bytes(static_cast<std::size_t>(state.range(0)));
    run_reader(state, base64_lines(binary) + closing_line(), binary.size(),
               [](ParseContext& context) { load_base64(context); });
}
BENCHMARK(BM_Base64Decode)->Arg(100 << 10)->Arg(10 << 20);

void BM_QuotedPrintableDecode(benchmark::State& state) {
    const std::string text = quoted_printable_text(static_cast<std::size_t>(state.range(0)));
    // The decoded size, from a reference decoding of the same text.
    std::size_t decoded = 0;
    for (std::size_t i = 0; i < text.size();) {
        if (text.compare(i, 3, "=\r\n") == 0) {
            i += 3;
        } else if (text[i] == '=') {
            i += 3;
            ++decoded;
        } else {
            ++i;
            ++decoded;
        }
    }
    const ContentInfo parent = parent_level();
    // The empty line in front of the boundary line is text of the part.
    run_reader(state, text + closing_line(), decoded + 2,
               [&](ParseContext& context) { load_quoted_printable(context, parent); });
}
BENCHMARK(BM_QuotedPrintableDecode)->Arg(100 << 10)->Arg(10 << 20);

void BM_UudecodeDecode(benchmark::State& state) {
    const std::string binary = binary_bytes(static_cast<std::size_t>(state.range(0)));
    run_reader(state, uuencoded(binary), binary.size(),
               [](ParseContext& context) { load_uuencode(context); });
}
BENCHMARK(BM_UudecodeDecode)->Arg(100 << 10)->Arg(10 << 20);

}  // namespace
}  // namespace qbsmtp::bench
