// fuzz_support.h: what the fuzz targets share: a check that says which
// property broke before it aborts, and a scratch location on tmpfs (the
// module reads files, so each input is written to one first).
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

namespace qbsmtp::fuzz {

[[noreturn]] inline void check_failed(const char* expression, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: check failed: %s\n", file, line, expression);
    std::abort();
}

// tmpfs where there is one; a name of its own per process, so that targets
// running side by side never share files.
inline std::filesystem::path scratch_path(const std::string& stem) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::path base =
        fs::is_directory("/dev/shm", ignored) ? fs::path("/dev/shm") : fs::temp_directory_path();
    return base / (stem + "_" + std::to_string(std::random_device{}()));
}

}  // namespace qbsmtp::fuzz

#define FUZZ_CHECK(condition)           \
    ((condition) ? static_cast<void>(0) \
                 : ::qbsmtp::fuzz::check_failed(#condition, __FILE__, __LINE__))
