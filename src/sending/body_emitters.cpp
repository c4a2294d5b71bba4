// body_emitters.cpp: the text pump and the base64 pump.

#include "sending/body_emitters.h"

#include <cstdint>
#include <cstring>

namespace qbsmtp {

namespace {

constexpr std::size_t text_piece_size = 1024;
constexpr std::size_t base64_block_size = 54;  // one line of 72 characters
constexpr char base64_alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

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
        for (std::size_t i = 0; i < length; ++i) client.put_byte(piece[i]);
        if (at_line_start) {
            client.put_byte('\r');
            client.put_byte('\n');
        }
    }
}

void put_sextet(SmtpClient& client, std::uint32_t value, int shift) {
    client.put_byte(base64_alphabet[(value >> shift) & 0x3F]);
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
    unsigned char block[base64_block_size];
    std::size_t got;
    while ((got = file->read(block, sizeof block)) >= 1) {
        for (std::size_t i = 0; i < got; i += 3) {
            const std::size_t left = got - i;
            std::uint32_t value = static_cast<std::uint32_t>(block[i]) << 16;
            if (left >= 2) value |= static_cast<std::uint32_t>(block[i + 1]) << 8;
            if (left >= 3) value |= block[i + 2];
            put_sextet(client, value, 18);
            put_sextet(client, value, 12);
            if (left == 1) {
                client.put_byte('=');
                client.put_byte('=');
            } else if (left == 2) {
                put_sextet(client, value, 6);
                client.put_byte('=');
            } else {
                put_sextet(client, value, 6);
                put_sextet(client, value, 0);
            }
        }
        client.put_byte('\r');
        client.put_byte('\n');
    }
}

}  // namespace qbsmtp
