// header_readers_fuzz.cpp: arbitrary header sections through the header
// readers and parse_content_header, as the dispatcher and load_part drive
// them. Buffers are heap blocks of the callers' exact sizes, so that any
// write behind them is caught; every reader must end on every input.
//
// The module's Stream is file-based: each input goes to one file on tmpfs.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "decomposition/content_header.h"
#include "decomposition/header_scanner.h"
#include "decomposition/parse_context.h"
#include "frame/stream.h"

#include "fuzz_support.h"
namespace {

using namespace qbsmtp;

const std::string& input_path() {
    static const std::string path = fuzz::scratch_path("qbsmtp_header_readers_fuzz").string();
    return path;
}

bool terminated(const char* text, std::size_t size) {
    return std::memchr(text, '\0', size);
}

void check_info(const ContentInfo& info) {
    FUZZ_CHECK(terminated(info.boundary, sizeof info.boundary));
    FUZZ_CHECK(terminated(info.type_name, sizeof info.type_name));
    FUZZ_CHECK(terminated(info.subtype_name, sizeof info.subtype_name));
    FUZZ_CHECK(terminated(info.name, sizeof info.name));
    FUZZ_CHECK(std::strlen(info.boundary) <= 70 && std::strlen(info.name) <= 259);
}

// The header loop of the dispatcher: names, then content headers or a skip
// with or without capture.
void read_header_section(ParseContext& context, ContentInfo& info, unsigned variant) {
    const std::size_t name_size = variant & 1 ? 512 : 8;
    auto name = std::make_unique<char[]>(name_size);
    auto capture = std::make_unique<char[]>(500);
    unsigned field = 0;
    while (read_field_name(context, name.get(), name_size) == 1) {
        FUZZ_CHECK(terminated(name.get(), name_size));
        if (more_in_field(context) == 0) continue;
        if (parse_content_header(context, info, name.get()) == 1) {
            check_info(info);
            continue;
        }
        if (++field % 2 == 0)
            skip_field(context, capture.get(), 500);
        else
            skip_field(context);
        FUZZ_CHECK(field % 2 != 0 || std::strlen(capture.get()) < 500);
    }
    eat_crlf(context);
}

// The rest as a run of tokens of varying sizes.
void read_tokens(ParseContext& context, unsigned variant) {
    Stream& in = *context.input;
    const std::int32_t sizes[] = {0, 1, 2, 3, 71, 256};
    for (unsigned round = 0;; ++round) {
        std::int32_t size = sizes[(round + variant) % 6];
        auto token = std::make_unique<char[]>(size > 0 ? size : 1);
        std::int64_t before = 0;
        std::int64_t after = 0;
        FUZZ_CHECK(in.getpos(&before) == 0);
        int result = read_token(context, token.get(), size, (round & 1) != 0);
        FUZZ_CHECK(result >= token_none && result <= token_delimiter);
        if (result != token_none)
            FUZZ_CHECK(terminated(token.get(), static_cast<std::size_t>(size)));
        if (result == token_delimiter) FUZZ_CHECK(is_token_delimiter(token[0] & 0xFF) && !token[1]);
        if (more_in_field(context) == 0 && in.at_end()) break;
        FUZZ_CHECK(in.getpos(&after) == 0);
        // An empty token leaves its stopping byte: step over it.
        if (after == before && in.getc() == Stream::eof) break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string& path = input_path();
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return 0;
    if (size > 0) std::fwrite(data, 1, size, file);
    std::fclose(file);

    unsigned variant = size > 0 ? data[0] : 0;
    ParseContext context;
    context.input = Stream::open(path.c_str(), "rb");
    FUZZ_CHECK(context.input != nullptr);

    // A message header from the start values, then a part inheriting it.
    ContentInfo message;
    read_header_section(context, message, variant);
    check_info(message);
    ContentInfo part = message;
    read_header_section(context, part, variant >> 1);
    check_info(part);
    read_tokens(context, variant);
    FUZZ_CHECK(context.input->getc() == Stream::eof);
    FUZZ_CHECK(context.input->close() == 0);
    // libFuzzer may end the process without running atexit handlers.
    std::remove(path.c_str());
    return 0;
}
