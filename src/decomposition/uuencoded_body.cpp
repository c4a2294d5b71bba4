// uuencoded_body.cpp: finding and splitting inline uuencoded blocks.
#include "decomposition/uuencoded_body.h"

#include <cstring>

#include "decomposition/mail_record.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"

namespace qbsmtp {

namespace {

// The window of has_uuencoded_block, and what of an unfinished line it
// keeps: a rest of up to carry_whole bytes moves to the front as it is;
// of a longer one only the bytes from carry_from on, so a read always has
// room.
constexpr std::size_t window_size = 512;
constexpr std::size_t carry_whole = 256;
constexpr std::size_t carry_from = 257;

// An unfinished text line longer than this goes out in a piece of
// long_line_piece bytes, so a line never has to fit in_buffer.
constexpr std::size_t long_line_rest = 16384;
constexpr std::size_t long_line_piece = 16385;

constexpr std::size_t name_size = 256;
constexpr std::size_t path_size = 512;
constexpr const char* text_extension = ".txt";
constexpr const char* nameless_extension = ".xxx";

enum SplitResult { split_nothing = 0, split_decoded = 1, split_failed = 2 };

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool starts_end(const char* line, std::size_t length) {
    return length >= 3 && std::memcmp(line, "end", 3) == 0;
}

// The value of one character of a uuencoded line.
unsigned six_bits(char c) {
    return (static_cast<unsigned char>(c) - 32u) & 63u;
}

// Writes all of bytes to file, going on behind what each WriteFile took.
bool write_all(os::HANDLE file, const char* bytes, std::size_t count) {
    while (count > 0) {
        const os::DWORD chunk = count > 0x40000000u ? 0x40000000u : static_cast<os::DWORD>(count);
        os::DWORD written = 0;
        if (!os::WriteFile(file, bytes, chunk, &written, nullptr)) return false;
        if (written == 0 || written > chunk) return false;
        bytes += written;
        count -= written;
    }
    return true;
}

os::HANDLE create_for_writing(const char* path) {
    return os::CreateFileA(path, os::GENERIC_WRITE, 0, nullptr, os::CREATE_ALWAYS,
                           os::FILE_ATTRIBUTE_NORMAL, nullptr);
}

// A new empty file under mime_dir for the split, its name in path; a
// failure is reported with the template that path then holds, and thrown.
void create_split_file(char* path, std::size_t capacity, const char* extension) {
    os::HANDLE file = create_unique_file(mime_dir, path, capacity, nullptr, extension);
    if (file == os::INVALID_HANDLE_VALUE) {
        event_reporter.report_error(event::create_file_failed, path, os::GetLastError());
        throw 1;
    }
    os::CloseHandle(file);
}

}  // namespace

int is_begin_line(const char* line, std::size_t length) {
    if (length < 9) return 0;
    if (std::memcmp(line, "begin ", 6) != 0) return 0;
    if (!is_digit(line[6]) || !is_digit(line[7])) return 0;
    return 8;
}

int has_uuencoded_block(Stream* input) {
    if (input == nullptr) return 0;
    std::int64_t start = 0;
    // Without a position to return to, the body could not be read again.
    if (input->getpos(&start) != 0) return 0;

    char window[window_size];
    std::size_t carry = 0;
    bool begin_seen = false;
    bool skip_line = false;  // the line right behind the begin line
    int answer = 0;
    while (answer == 0) {
        const std::size_t got = input->read(window + carry, window_size - carry);
        if (got == 0) break;
        const std::size_t end = carry + got;
        std::size_t at = 0;
        while (answer == 0) {
            const void* lf = std::memchr(window + at, '\n', end - at);
            if (lf == nullptr) break;
            const std::size_t length =
                static_cast<std::size_t>(static_cast<const char*>(lf) - window) - at;
            const char* line = window + at;
            if (!begin_seen) {
                if (is_begin_line(line, length) != 0) {
                    begin_seen = true;
                    skip_line = true;
                }
            } else if (skip_line) {
                skip_line = false;
            } else if (starts_end(line, length)) {
                answer = 1;
            }
            at += length + 1;
        }
        const std::size_t rest = end - at;
        if (rest <= carry_whole) {
            std::memmove(window, window + at, rest);
            carry = rest;
        } else {
            carry = end - carry_from;
            std::memmove(window, window + carry_from, carry);
        }
    }
    input->setpos(&start);
    return answer;
}

UuSplitter::~UuSplitter() {
    close_text();
    if (out_buffer != nullptr) os::LocalFree(out_buffer);
    if (in_buffer != nullptr) os::LocalFree(in_buffer);
}

int UuSplitter::open(Stream* stream) {
    input = stream;
    out_buffer = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, buffer_size));
    in_buffer = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, buffer_size));
    return out_buffer != nullptr && in_buffer != nullptr ? 1 : 0;
}

int UuSplitter::set_text_path(const char* path, std::size_t length) {
    text_path.assign(path, static_cast<std::int32_t>(length));
    return text_path.text != nullptr ? 1 : 0;
}

void UuSplitter::close_text() {
    if (text_file == os::INVALID_HANDLE_VALUE) return;
    os::CloseHandle(text_file);
    text_file = os::INVALID_HANDLE_VALUE;
}

int UuSplitter::write_text(const char* bytes, std::size_t count) {
    // Opened at the first line only: until then the file stands empty, as
    // create_unique_file left it.
    if (text_file == os::INVALID_HANDLE_VALUE) text_file = create_for_writing(text_path.c_str());
    if (text_file != os::INVALID_HANDLE_VALUE && write_all(text_file, bytes, count)) return 1;
    // The split ends here and the record lists what the file holds: a
    // truncated text, which only this event tells.
    event_reporter.report_error(event::uuencode_text_write_failed, text_path.c_str(),
                                os::GetLastError());
    return 0;
}

std::size_t UuSplitter::refill() {
    if (in_pos >= in_count) {
        in_pos = 0;
        in_count = 0;
    } else if (in_pos > 0) {
        std::memmove(in_buffer, in_buffer + in_pos, in_count - in_pos);
        in_count -= in_pos;
        in_pos = 0;
    }
    const std::size_t room = buffer_size - in_count;
    if (room == 0) return 0;
    const std::size_t got = input->read(in_buffer + in_count, room);
    in_count += static_cast<std::uint32_t>(got);
    return got;
}

int UuSplitter::next_block(char* name, std::size_t size) {
    if (input == nullptr) return 0;
    for (;;) {
        while (in_pos < in_count) {
            char* line = in_buffer + in_pos;
            const void* lf = std::memchr(line, '\n', in_count - in_pos);
            if (lf == nullptr) break;
            const std::size_t length =
                static_cast<std::size_t>(static_cast<const char*>(lf) - line);
            if (is_begin_line(line, length) == 0) {
                if (write_text(line, length + 1) == 0) return 0;
                in_pos += static_cast<std::uint32_t>(length + 1);
                continue;
            }
            in_pos += static_cast<std::uint32_t>(length + 1);
            // Past the rest of the mode; a blank then leads to the name.
            std::size_t i = 8;
            while (i < length && line[i] != ' ') ++i;
            if (i < length) {
                while (i < length && line[i] == ' ') ++i;
                std::size_t n = 0;
                while (i < length && line[i] != '\r' && n + 1 < size) name[n++] = line[i++];
                name[n] = '\0';
            }
            return 1;
        }
        // An unfinished line: a very long one goes out in pieces, and what
        // follows a piece counts as a new line start.
        if (in_count - in_pos > long_line_rest) {
            if (write_text(in_buffer + in_pos, long_line_piece) == 0) return 0;
            in_pos += static_cast<std::uint32_t>(long_line_piece);
        }
        if (refill() == 0) {
            // A last line without LF is still text.
            if (in_pos < in_count) {
                const char* rest = in_buffer + in_pos;
                const std::size_t count = in_count - in_pos;
                in_pos = in_count;
                write_text(rest, count);
            }
            return 0;
        }
    }
}

int UuSplitter::decode_block(const char* path) {
    os::HANDLE file = create_for_writing(path);
    if (file == os::INVALID_HANDLE_VALUE) return 0;

    std::size_t out_count = 0;
    const auto flush = [&] {
        const bool written = write_all(file, out_buffer, out_count);
        out_count = 0;
        return written;
    };
    const auto finish = [&] {
        os::CloseHandle(file);
        return 1;
    };
    const auto fail = [&] {
        os::CloseHandle(file);
        os::DeleteFileA(path);
        return 0;
    };

    bool zero_seen = false;
    for (;;) {
        char* line = in_buffer + in_pos;
        const void* lf = in_pos < in_count ? std::memchr(line, '\n', in_count - in_pos) : nullptr;
        if (lf == nullptr) {
            // in_buffer is used up: what is decoded goes out before the
            // next read.
            if (!flush()) return fail();
            if (refill() == 0) {
                // The end of input (or a line that fills in_buffer alone)
                // ends the block; a part line there is dropped.
                in_pos = in_count;
                return finish();
            }
            continue;
        }
        const std::size_t line_length =
            static_cast<std::size_t>(static_cast<const char*>(lf) - line) + 1;
        std::size_t text_length = line_length - 1;
        if (text_length > 0 && line[text_length - 1] == '\r') --text_length;
        std::memset(line + text_length, 0, line_length - text_length);
        const std::uint32_t behind = in_pos + static_cast<std::uint32_t>(line_length);
        const bool end_line = text_length == 3 && starts_end(line, text_length);

        if (zero_seen) {
            if (!end_line) return fail();
            if (!flush()) return fail();
            in_pos = behind;
            return finish();
        }
        for (std::size_t i = 0; i < text_length; ++i) {
            if (line[i] == '`') line[i] = ' ';
        }
        in_pos = behind;
        if (text_length == 0) continue;
        int count = static_cast<int>(six_bits(line[0]));
        if (count == 0) {
            zero_seen = true;
            continue;
        }
        if (static_cast<std::size_t>(count) + out_count + 1 >= buffer_size && !flush())
            return fail();
        // The groups are aligned on the end of the text: any bytes between
        // the count and the first group are passed over.
        std::size_t position = 1 + (text_length - 1) % 4;
        while (count > 0) {
            if (position + 4 > line_length) {
                // Fewer groups than the count asks for: only an "end" line
                // that came without its line of count 0 may do that.
                if (!flush()) return fail();
                if (!end_line) return fail();
                return finish();
            }
            const unsigned a = six_bits(line[position]);
            const unsigned b = six_bits(line[position + 1]);
            const unsigned c = six_bits(line[position + 2]);
            const unsigned d = six_bits(line[position + 3]);
            out_buffer[out_count++] = static_cast<char>((a << 2 | b >> 4) & 0xFF);
            if (count >= 2) out_buffer[out_count++] = static_cast<char>((b << 4 | c >> 2) & 0xFF);
            if (count >= 3) out_buffer[out_count++] = static_cast<char>((c << 6 | d) & 0xFF);
            count -= 3;
            position += 4;
        }
    }
}

int split_uuencoded_body(Stream* input, char*& attachments, std::size_t* attachments_used) {
    std::size_t own_used = 0;
    std::size_t& used = attachments_used != nullptr ? *attachments_used : own_used;
    char name[name_size] = {};
    char path[path_size] = {};
    const char* extension = nullptr;
    int result = split_nothing;

    // Where the body starts, so that a failed split can hand it on whole.
    std::int64_t body_start = 0;
    const bool have_start = input != nullptr && input->getpos(&body_start) == 0;

    {
        UuSplitter splitter;
        if (splitter.open(input) == 0) return split_failed;
        create_split_file(name, sizeof name, text_extension);
        if (splitter.set_text_path(name, std::strlen(name)) == 0) {
            // Nothing listed it yet, and the body goes on as plain text.
            os::DeleteFileA(name);
            return split_failed;
        }
        append_record_list(attachments, name, used);
        name[0] = '\0';

        while (result != split_failed && splitter.next_block(name, sizeof name) == 1) {
            // A name without a dot gives a file without an extension.
            extension = name[0] != '\0' ? path_extension(name) : nameless_extension;
            create_split_file(path, sizeof path, extension);
            if (splitter.decode_block(path) == 1) {
                result = split_decoded;
                append_record_list(attachments, path, used);
            } else {
                os::DeleteFileA(path);
                result = split_failed;
            }
            name[0] = '\0';
        }
        if (result == split_failed) {
            splitter.close_text();
            os::DeleteFileA(splitter.text_path.c_str());
            clear_record_list(attachments);
            used = 0;
        }
    }
    if (result == split_failed && have_start) input->setpos(&body_start);
    return result;
}

}  // namespace qbsmtp
