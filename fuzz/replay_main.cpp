// replay_main.cpp: main() for a fuzz target built without libFuzzer. Runs
// every file named, and every file of every directory named (in name
// order), through LLVMFuzzerTestOneInput once. A broken property aborts
// the process as it does under the fuzzer; an argument that names nothing
// readable, or no input at all, fails the run.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

bool replay(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "replay: cannot read %s\n", file.c_str());
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replay: %s (%zu bytes)\n", file.c_str(), bytes.size());
    // An empty vector's data() may be null; the fuzzer never passes null.
    static const std::uint8_t nothing = 0;
    LLVMFuzzerTestOneInput(
        bytes.empty() ? &nothing : reinterpret_cast<const std::uint8_t*>(bytes.data()),
        bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const fs::path argument = argv[i];
        std::error_code error;
        std::vector<fs::path> files;
        if (fs::is_directory(argument, error)) {
            for (const auto& entry : fs::directory_iterator(argument, error))
                if (entry.is_regular_file()) files.push_back(entry.path());
            std::sort(files.begin(), files.end());
        } else {
            files.push_back(argument);
        }
        for (const fs::path& file : files) {
            if (!replay(file)) return 1;
            ++replayed;
        }
    }
    std::fprintf(stderr, "replay: %zu inputs, all passed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
