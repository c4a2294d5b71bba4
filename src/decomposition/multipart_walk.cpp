// multipart_walk.cpp: boundary scan, parts and multipart levels (RFC 2046
// 5.1), with the choice of one alternative by the host's ranking.
#include "decomposition/multipart_walk.h"

#include <cstring>

#include "decomposition/body_decoders.h"
#include "decomposition/header_scanner.h"
#include "decomposition/mail_record.h"
#include "decomposition/mime_type_map.h"
#include "decomposition/part_output.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "platform/os.h"

namespace qbsmtp {

namespace {

constexpr std::size_t field_buffer_size = 512;  // a field name, then the new file's path
constexpr std::size_t extension_size = 20;      // 19 characters and the NUL
constexpr const char* unknown_extension = ".xxx";

// What a failed match had taken in, by the state it failed in: the first
// bytes of "\r\n--", then the boundary (all of it from state 5 on, as far
// as matched in state 4), then what followed it.
struct HeldBack {
    std::size_t lead;  // bytes of "\r\n--"
    const char* tail;  // behind the boundary
};
constexpr HeldBack held_back[10] = {
    {0, ""}, {1, ""},   {2, ""},  {3, ""},   {4, ""},
    {4, ""}, {4, "\r"}, {4, "-"}, {4, "--"}, {4, "--\r"},
};

void write_held_back(Stream& out, int state, const char* boundary, std::size_t matched) {
    static constexpr const char* who = "skip2boundary";
    const HeldBack& held = held_back[state];
    put_bytes(out, "\r\n--", held.lead, who);
    if (state >= 4) put_bytes(out, boundary, matched, who);
    put_bytes(out, held.tail, std::strlen(held.tail), who);
}

// Bytes that make an extension unusable in a file name on any of our
// platforms: separators, the reserved characters of Windows names, and
// control bytes. The extension comes from the mail: it must not lead out
// of mime_dir nor make the creation fail.
bool usable_extension(const char* extension) {
    static constexpr char reserved[] = "\\/:*?\"<>|";
    for (const char* p = extension; *p != '\0'; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c < ' ' || c == os::path_separator || std::strchr(reserved, c) != nullptr) return false;
    }
    return true;
}

// Copies at most extension_size - 1 bytes of source.
void copy_extension(char* extension, const char* source) {
    std::size_t length = 0;
    while (length < extension_size - 1 && source[length] != '\0') {
        extension[length] = source[length];
        ++length;
    }
    extension[length] = '\0';
}

int rank_of(const ParseContext& context, std::int32_t subtype) {
    const unsigned char* ranks = context.record->subtype_rank;
    // Without a table every alternative ranks alike, and the first stays.
    if (ranks == nullptr || subtype < 0 || subtype >= QBSMTP_SUBTYPE_COUNT) return 0;
    return ranks[subtype];
}

// Makes the part's file under mime_dir and opens it as context.output.
void open_part_file(ParseContext& context, const ContentInfo& info, char* path) {
    char extension[extension_size];
    choose_extension(info, extension);
    os::HANDLE file = create_unique_file(mime_dir, path, field_buffer_size, nullptr, extension);
    if (file == os::INVALID_HANDLE_VALUE) {
        event_reporter.report_error(event::create_file_failed, path, os::GetLastError());
        throw 1;
    }
    context.output_path = path;
    // The new file's own handle becomes the stream: one open per part.
    context.output = Stream::adopt(file, "wb");
    if (context.output == nullptr) {
        event_reporter.report_error(event::open_file_failed, path, os::GetLastError());
        throw 1;
    }
}

}  // namespace

void choose_extension(const ContentInfo& info, char* extension) {
    copy_extension(extension, path_extension(info.name));
    for (char* p = extension; *p != '\0'; ++p) {
        if (is_blank_byte(static_cast<unsigned char>(*p))) {
            *p = '\0';
            break;
        }
    }
    if (!usable_extension(extension)) extension[0] = '\0';
    if (extension[0] == '\0') {
        const char* mapped = mime_type_map.find_extension(info.type_name, info.subtype_name);
        copy_extension(extension, mapped != nullptr ? mapped : "");
        if (!usable_extension(extension)) extension[0] = '\0';
    }
    if (extension[0] == '\0') copy_extension(extension, unknown_extension);
}

int skip2boundary(ParseContext& context, const ContentInfo& info, int start_state, bool copy) {
    static constexpr const char* who = "skip2boundary";
    Stream& in = *context.input;
    Stream* out = copy ? context.output : nullptr;
    const char* boundary = info.boundary;
    const std::size_t length = std::strlen(boundary);

    // States: 0 in the text, 1 behind CR, 2 at a line start, 3 behind a
    // dash there, 4 in the boundary, 5 behind it, 6 behind it and CR, 7 and
    // 8 behind one and two closing dashes, 9 behind those and CR.
    int state = start_state;
    std::size_t index = 0;
    for (;;) {
        if (state == 0) {
            // In the text nothing but a CR can start a match: the bytes up
            // to the next one are passed in one go.
            const char* text = in.read_view();
            const std::size_t held = in.read_view_size();
            const void* cr = std::memchr(text, '\r', held);
            const std::size_t run =
                cr != nullptr ? static_cast<std::size_t>(static_cast<const char*>(cr) - text)
                              : held;
            if (out != nullptr) put_run(*out, text, run, who);
            in.consume(run);
        }
        const int c = in.getc();
        if (c == Stream::eof) return 0;
        int next = 0;
        switch (state) {
            case 0:
                if (c == '\r') next = 1;
                break;
            case 1:
                if (c == '\n') next = 2;
                break;
            case 2:
                if (c == '-') next = 3;
                break;
            case 3:
                if (c == '-') {
                    next = 4;
                    index = 0;
                }
                break;
            case 4:
                // An empty boundary matches nothing.
                if (index < length && c == static_cast<unsigned char>(boundary[index])) {
                    ++index;
                    next = index == length ? 5 : 4;
                }
                break;
            case 5:
                if (c == '\r') next = 6;
                if (c == '-') next = 7;
                break;
            case 6:
                if (c == '\n') return 1;
                break;
            case 7:
                if (c == '-') next = 8;
                break;
            case 8:
                if (c == '\r') next = 9;
                break;
            case 9:
                if (c == '\n') return 0;
                break;
        }
        if (next > 0) {
            state = next;
            continue;
        }
        if (state > 0) {
            // The match failed: the byte is read again in the text.
            in.ungetc(c);
            if (out != nullptr) write_held_back(*out, state, boundary, index);
            state = 0;
            continue;
        }
        if (out != nullptr) put_byte(*out, c, who);
    }
}

int load_part(ParseContext& context, const ContentInfo& parent, std::int32_t* subtype_out,
              int level) {
    ContentInfo info = parent;
    char buffer[field_buffer_size];
    while (read_field_name(context, buffer, sizeof buffer) == 1) {
        if (more_in_field(context) == 0) break;
        if (parse_content_header(context, info, buffer) == 0) skip_field(context);
    }

    const bool walk = info.type == type_multipart && level < max_multipart_depth;
    if (walk) {
        load_multipart(context, info, subtype_out, level + 1);
        return skip2boundary(context, parent, boundary_scan_line_start, false);
    }

    if (!context.input->at_end()) eat_crlf(context);
    open_part_file(context, info, buffer);
    *subtype_out = info.subtype;

    // A multipart part too deep to walk is kept as it stands.
    const std::int32_t encoding = info.type == type_multipart ? encoding_binary : info.encoding;
    switch (encoding) {
        case encoding_quoted_printable:
            load_quoted_printable(context, parent);
            return skip2boundary(context, parent, boundary_scan_line_start, false);
        case encoding_base64:
            load_base64(context);
            return skip2boundary(context, parent, boundary_scan_behind_dashes, false);
        case encoding_uuencode:
            load_uuencode(context);
            return skip2boundary(context, parent, boundary_scan_line_start, false);
        default:
            return skip2boundary(context, parent, boundary_scan_in_text, true);
    }
}

void load_multipart(ParseContext& context, const ContentInfo& info, std::int32_t* subtype_out,
                    int level) {
    if (!context.input->at_end()) eat_crlf(context);
    // The preamble is dropped; without a first boundary there is no part.
    if (skip2boundary(context, info, boundary_scan_line_start, false) == 0) return;

    if (info.subtype == QBSMTP_SUBTYPE_MIXED) {
        int more = 1;
        while (more == 1) {
            more = load_part(context, info, subtype_out, level);
            if (context.output == nullptr) continue;  // a nested level listed its own
            close_output(context);
            append_record_list(context.record->attachments, context.output_path.c_str(),
                               context.attachments_used);
        }
        return;
    }
    if (info.subtype != QBSMTP_SUBTYPE_ALTERNATIVE) {
        event_reporter.report(event::mime_type_unsupported, info.type_name, info.subtype_name);
        throw 1;
    }

    // One file survives: the strictly lowest rank, the first on a tie.
    char best[max_path] = {};
    std::int32_t best_subtype = 0;
    bool first = true;
    int more = 1;
    while (more == 1) {
        more = load_part(context, info, subtype_out, level);
        if (context.output == nullptr) continue;
        close_output(context);
        const char* path = context.output_path.c_str();
        if (first) {
            best_subtype = *subtype_out;
            std::strncpy(best, path, sizeof best - 1);
            first = false;
        } else if (rank_of(context, *subtype_out) < rank_of(context, best_subtype)) {
            os::DeleteFileA(best);
            best_subtype = *subtype_out;
            std::strncpy(best, path, sizeof best - 1);
        } else {
            os::DeleteFileA(path);
        }
    }
    if (!first) append_record_list(context.record->attachments, best, context.attachments_used);
}

}  // namespace qbsmtp
