// bench_main.cpp: main of the micro-benchmarks. Makes a fresh scratch
// directory on tmpfs (a new one per run: creating files beside thousands of
// recently deleted ones can be slow for minutes), points QBSMTP_PREFIX into
// it, runs the benchmarks and removes it.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench_support.h"

namespace qbsmtp::bench {

namespace {
std::string scratch;
}

const std::string& scratch_dir() {
    return scratch;
}

}  // namespace qbsmtp::bench

int main(int argc, char** argv) {
    const char* base = std::getenv("QBSMTP_BENCH_DIR");
    std::string pattern = std::string(base != nullptr ? base : "/dev/shm") + "/qbsmtp-bench.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        std::perror(pattern.c_str());
        return 1;
    }
    qbsmtp::bench::scratch = pattern;
    std::filesystem::create_directory(pattern + "/prefix");
    setenv("QBSMTP_PREFIX", (pattern + "/prefix").c_str(), 1);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(pattern);
    return 0;
}
