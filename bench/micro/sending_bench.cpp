// sending_bench.cpp: the base64 emitter of SMTPSend, from an attachment
// file on tmpfs into a client's send buffer, whose socket another thread
// drains. Bytes are counted on the file side.
#include <benchmark/benchmark.h>

#include "bench_support.h"
#include "frame/stream.h"
#include "sending/body_emitters.h"
#include "sending/smtp_client.h"

namespace qbsmtp::bench {
namespace {

void BM_Base64Emit(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::string path = scratch_path("attachment.bin");
    write_file(path, binary_bytes(size));
    DrainingSocket drain;
    SmtpClient client;
    client.socket = static_cast<os::SOCKET>(drain.socket());
    client.setup_buffers();
    for (auto _ : state) {
        Stream* file = Stream::open(path.c_str(), "rb");
        try {
            emit_base64(client, file, "attachment.bin", "application/octet-stream");
            write_flush(client);
        } catch (Exception) {
            state.SkipWithError("send failed");
        }
        file->close();
    }
    client.socket = os::INVALID_SOCKET;  // the drain closes it
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}
BENCHMARK(BM_Base64Emit)->Arg(100 << 10)->Arg(10 << 20)->UseRealTime();

}  // namespace
}  // namespace qbsmtp::bench
