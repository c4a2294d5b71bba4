// address_fuzz.cpp: arbitrary address fields through parse_address, then
// the same bytes as a header section through the sender and recipient
// handlers into a record.
//
// parse_address gets heap blocks of exactly its buffers' size, so any write
// behind them is caught; both texts must be terminated within them, and
// the reader must get through the input as parse_recipients drives it.
// The handlers must leave a record whose recipient lists hold no empty
// entry and run in step with their name lists.
//
// The module's Stream is file-based: each input goes to one file on tmpfs.
// NUL bytes are left out of the input.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "decomposition/address_fields.h"
#include "decomposition/field_handlers.h"
#include "decomposition/header_scanner.h"
#include "decomposition/parse_context.h"
#include "frame/multi_string.h"
#include "frame/stream.h"
#include "platform/os.h"

#include "fuzz_support.h"
namespace {

using namespace qbsmtp;

const std::string& input_path() {
    static const std::string path = fuzz::scratch_path("qbsmtp_address_fuzz").string();
    return path;
}

bool terminated(const char* text) {
    return std::memchr(text, '\0', address_buffer_size) != nullptr;
}

std::size_t entries(const char* block) {
    std::size_t count = 0;
    MultiString list;
    list.block = const_cast<char*>(block);
    for (const char* e = list.text(); *e != '\0'; e = MultiString::next_entry(e)) ++count;
    list.release();
    return count;
}

// The address loop of parse_recipients, without the record.
void read_addresses(ParseContext& context) {
    auto address = std::make_unique<char[]>(address_buffer_size);
    auto name = std::make_unique<char[]>(address_buffer_size);
    while (more_in_field(context) == 1 || !context.input->at_end()) {
        char* result = parse_address(context, address.get(), name.get());
        FUZZ_CHECK(terminated(address.get()) && terminated(name.get()));
        FUZZ_CHECK(result == nullptr || (result == address.get() && address[0] != '\0'));
        FUZZ_CHECK(result != nullptr || address[0] == '\0');
        // A name never ends in a space.
        std::size_t length = std::strlen(name.get());
        FUZZ_CHECK(length == 0 || name[length - 1] != ' ');
    }
}

struct Route {
    const char* name;
    int recipient_class;  // -1: sender
    int flag;             // is_from or is_fax
};
constexpr Route routes[] = {
    {"FROM", -1, 1}, {"RETURN-PATH", -1, 0}, {"TO", 0, 0},  {"X-FAX-TO", 0, 1},
    {"CC", 1, 0},    {"X-FAX-TO-CC", 1, 1},  {"BCC", 2, 0}, {"X-FAX-TO-BCC", 2, 1},
};

// The header loop of the dispatcher, for the address fields only; a field
// of another name is read as To, Cc or Bcc by its name's length.
void read_header(ParseContext& context) {
    char name[512];
    while (read_field_name(context, name, sizeof name) == 1) {
        if (more_in_field(context) == 0) continue;
        const Route* route = nullptr;
        for (const Route& r : routes) {
            if (std::strcmp(r.name, name) == 0) route = &r;
        }
        if (route == nullptr) {
            parse_recipients(context, static_cast<int>(std::strlen(name) % 3),
                             std::strlen(name) % 2 == 0);
        } else if (route->recipient_class < 0) {
            parse_sender(context, route->flag);
        } else {
            parse_recipients(context, route->recipient_class, route->flag);
        }
    }
}

void check_record(const MailRecord& r) {
    FUZZ_CHECK((r.sender == nullptr) == (r.sender_length == 0));
    FUZZ_CHECK(r.sender == nullptr ||
               std::strlen(r.sender) == static_cast<std::size_t>(r.sender_length));
    FUZZ_CHECK(r.sender == nullptr || r.sender_name != nullptr);
    const char* lists[3][2] = {{r.to, r.to_names}, {r.cc, r.cc_names}, {r.bcc, r.bcc_names}};
    for (auto& pair : lists) {
        FUZZ_CHECK(entries(pair[0]) == entries(pair[1]));
        for (const char* list : pair) {
            MultiString view;
            view.block = const_cast<char*>(list);
            for (const char* e = view.text(); *e != '\0'; e = MultiString::next_entry(e))
                FUZZ_CHECK(std::strlen(e) < address_buffer_size);
            view.release();
        }
    }
}

void free_record(MailRecord& r) {
    for (char* block :
         {r.sender, r.sender_name, r.to, r.to_names, r.cc, r.cc_names, r.bcc, r.bcc_names}) {
        if (block != nullptr) os::LocalFree(block);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 8192) return 0;
    const std::string& path = input_path();
    FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] != 0) std::fputc(data[i], file);
    }
    std::fclose(file);

    ParseContext context;
    context.input = Stream::open(path.c_str(), "rb");
    FUZZ_CHECK(context.input != nullptr);
    read_addresses(context);
    FUZZ_CHECK(context.input->getc() == Stream::eof);

    MailRecord record{};
    context.record = &record;
    context.input->rewind();
    read_header(context);
    check_record(record);
    free_record(record);
    FUZZ_CHECK(context.input->close() == 0);
    // libFuzzer may end the process without running atexit handlers.
    std::remove(path.c_str());
    return 0;
}
