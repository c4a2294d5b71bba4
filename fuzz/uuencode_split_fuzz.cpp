// uuencode_split_fuzz.cpp: plain bodies through the detection of inline
// uuencoded blocks and the split into a text file and block files. The
// scratch tree is removed after every input.
//
// Checked on every input, beside the sanitizers: the detection leaves the
// stream where it stood; the split gives 0, 1 or 2, or throws 1 only after
// reporting a failed creation; after 0 the text file holds the whole body
// (no begin line was met); after 1 the text file comes first and block
// files follow, none larger than the body could decode to; after 2
// nothing is listed and the stream stands at the start of the body again.
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "decomposition/uuencoded_body.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "frame/stream.h"
#include "platform/os.h"

#include "fuzz_support.h"
namespace {

namespace fs = std::filesystem;
using namespace qbsmtp;

struct Tree {
    fs::path root;
    fs::path mime;
    fs::path body;
};

// A scratch prefix with a mime directory, on tmpfs where there is one.
const Tree& tree() {
    static const Tree made = [] {
        Tree t;
        t.root = fuzz::scratch_path("qbsmtp_uusplit_fuzz");
        t.mime = t.root / "spool" / "mime";
        t.body = t.root / "body.bin";
        fs::create_directories(t.mime);
        setenv("QBSMTP_PREFIX", t.root.c_str(), 1);
        mime_dir = t.mime.c_str();
        return t;
    }();
    return made;
}

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> entries(const char* list) {
    std::vector<std::string> out;
    for (const char* p = list; p != nullptr && *p != '\0'; p += std::strlen(p) + 1)
        out.emplace_back(p);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Tree& t = tree();
    fs::create_directories(t.mime);
    const std::string body(reinterpret_cast<const char*>(data), size);
    {
        std::ofstream out(t.body, std::ios::binary | std::ios::trunc);
        out.write(body.data(), static_cast<std::streamsize>(body.size()));
    }
    Stream* input = Stream::open(t.body.c_str(), "rb");
    if (input == nullptr) return 0;

    // Read a little first, as the header section would have.
    const std::size_t skip = size > 0 ? data[0] % 4 : 0;
    for (std::size_t i = 0; i < skip && i < size; ++i) input->getc();
    const std::string rest = body.substr(skip < size ? skip : size);
    std::int64_t start = 0, after = 0;
    FUZZ_CHECK(input->getpos(&start) == 0);
    const int found = has_uuencoded_block(input);
    FUZZ_CHECK(found == 0 || found == 1);
    FUZZ_CHECK(input->getpos(&after) == 0 && after == start);

    char* list = nullptr;
    int result = -1;
    try {
        result = split_uuencoded_body(input, list);
    } catch (int thrown) {
        // Only a file that could not be created: a name too long for a path.
        FUZZ_CHECK(thrown == 1);
    }
    const std::vector<std::string> listed = entries(list);
    if (result == 0) {
        FUZZ_CHECK(listed.size() == 1);
        FUZZ_CHECK(contents(listed[0]) == rest);
    } else if (result == 1) {
        FUZZ_CHECK(listed.size() >= 2);
        FUZZ_CHECK(fs::path(listed[0]).extension() == ".txt");
        FUZZ_CHECK(contents(listed[0]).size() <= rest.size());
        for (const std::string& path : listed) {
            FUZZ_CHECK(fs::path(path).parent_path() == t.mime);
            FUZZ_CHECK(fs::is_regular_file(path));
            FUZZ_CHECK(fs::file_size(path) <= rest.size());
        }
    } else if (result == 2) {
        FUZZ_CHECK(listed.empty());
        FUZZ_CHECK(input->getpos(&after) == 0 && after == start);
        std::string again(rest.size() + 1, '\0');
        again.resize(input->read(again.data(), again.size()));
        FUZZ_CHECK(again == rest);
    }
    input->close();
    if (list != nullptr) os::LocalFree(list);
    // The whole tree goes after every input: libFuzzer may end the process
    // without running exit handlers.
    std::error_code ignored;
    fs::remove_all(t.root, ignored);
    return 0;
}
