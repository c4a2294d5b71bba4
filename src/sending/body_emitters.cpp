// body_emitters.cpp: the text pump and the base64 pump.

#include "sending/body_emitters.h"

#include <cstdint>
#include <cstring>

namespace qbsmtp {

namespace {

constexpr std::size_t text_piece_size = 1024;
constexpr std::size_t base64_block_size = 54;  // one line of 72 characters
constexpr std::size_t base64_line_size = 74;   // with its CR LF
// Lines read from the file at a time; each still ends where a 54-byte read
// would have ended it.
constexpr std::size_t base64_lines_per_read = 64;
constexpr char base64_alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

// Puts count bytes as put_byte would, one after the other: the send
// buffer goes out at the same bytes, so the sends are the same.
void put_run(SmtpClient& client, const char* bytes, std::size_t count) {
    while (count > 0) {
        if (client.write_room < 1) {
            client.put_byte(static_cast<unsigned char>(*bytes++));
            --count;
            continue;
        }
        std::size_t take = static_cast<std::size_t>(client.write_room);
        if (take > count) take = count;
        std::memcpy(client.write_cursor, bytes, take);
        client.write_cursor += take;
        client.write_room -= static_cast<int>(take);
        bytes += take;
        count -= take;
    }
}

// Copies the file's text line by line. A piece is handled as a
// NUL-terminated text, so a NUL byte ends it and the rest is dropped.
void pump_text(SmtpClient& client, Stream* file) {
    char piece[text_piece_size];
    bool at_line_start = true;
    while (file->gets(piece, sizeof piece) != nullptr) {
        if (at_line_start && piece[0] == '.') client.put_byte('.');
        std::size_t length = std::strlen(piece);
        at_line_start = length > 0 && piece[length - 1] == '\n';
        if (at_line_start) --length;
        put_run(client, piece, length);
        if (at_line_start) put_run(client, "\r\n", 2);
    }
}

// One line of base64 for up to 54 bytes, '=' padded, with its CR LF; its
// length.
std::size_t encode_line(const unsigned char* bytes, std::size_t count, char* line) {
    std::size_t out = 0;
    for (std::size_t i = 0; i < count; i += 3) {
        const std::size_t left = count - i;
        std::uint32_t value = static_cast<std::uint32_t>(bytes[i]) << 16;
        if (left >= 2) value |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
        if (left >= 3) value |= bytes[i + 2];
        line[out++] = base64_alphabet[(value >> 18) & 0x3F];
        line[out++] = base64_alphabet[(value >> 12) & 0x3F];
        line[out++] = left >= 2 ? base64_alphabet[(value >> 6) & 0x3F] : '=';
        line[out++] = left >= 3 ? base64_alphabet[value & 0x3F] : '=';
    }
    line[out++] = '\r';
    line[out++] = '\n';
    return out;
}

}  // namespace

void emit_text(SmtpClient& client, Stream* file, const char* name) {
    write_format(client, "Content-Type:text/plain; charset=US-ASCII; name=\"%s\"\r\n", name);
    write_format(client, "Content-Transfer-Encoding:7bit\r\n\r\n");
    if (file != nullptr) pump_text(client, file);
}

void emit_text_without_adding_mime_headers(SmtpClient& client, Stream* file) {
    pump_text(client, file);
}

void emit_base64(SmtpClient& client, Stream* file, const char* name, const char* content_type) {
    write_format(client, "Content-Type:%s; name=\"%s\"\r\n", content_type, name);
    write_format(client, "Content-Transfer-Encoding: base64\r\n\r\n");
    // A read ends short only at the end of the file or at a failed read;
    // its last line is then short, as the 54-byte read there would be.
    unsigned char block[base64_block_size * base64_lines_per_read];
    char line[base64_line_size];
    std::size_t got;
    while ((got = file->read(block, sizeof block)) >= 1) {
        for (std::size_t at = 0; at < got; at += base64_block_size) {
            const std::size_t count = got - at < base64_block_size ? got - at : base64_block_size;
            put_run(client, line, encode_line(block + at, count, line));
        }
    }
}

}  // namespace qbsmtp
