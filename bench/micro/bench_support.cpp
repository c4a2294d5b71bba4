// bench_support.cpp: scratch files, generated inputs and fed or drained
// sockets for the micro-benchmarks.
#include "bench_support.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace qbsmtp::bench {

namespace {

constexpr char base64_alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

[[noreturn]] void give_up(const char* what) {
    std::perror(what);
    std::abort();
}

}  // namespace

std::string scratch_path(std::string_view name) {
    return scratch_dir() + "/" + std::string(name);
}

void write_file(const std::string& path, std::string_view bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) give_up(path.c_str());
}

std::string mail_text(std::size_t size) {
    std::string text;
    text.reserve(size + 80);
    for (std::size_t line = 0; text.size() < size; ++line) {
        if (line % 16 == 0) text += "..";  // a stuffed dot, as a client sends it
        while (text.size() % 78 < 76 && text.size() < size)
            text += static_cast<char>('a' + line % 26);
        text += "\r\n";
    }
    return text;
}

std::string binary_bytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t x = 2463534242u;  // xorshift32
    for (char& c : bytes) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        c = static_cast<char>(x);
    }
    return bytes;
}

std::string base64_lines(std::string_view binary) {
    std::string text;
    text.reserve(binary.size() * 4 / 3 + binary.size() / 57 * 2 + 8);
    for (std::size_t i = 0; i < binary.size(); i += 3) {
        const std::size_t left = binary.size() - i;
        std::uint32_t v = static_cast<unsigned char>(binary[i]) << 16;
        if (left > 1) v |= static_cast<unsigned char>(binary[i + 1]) << 8;
        if (left > 2) v |= static_cast<unsigned char>(binary[i + 2]);
        text += base64_alphabet[v >> 18 & 63];
        text += base64_alphabet[v >> 12 & 63];
        text += left > 1 ? base64_alphabet[v >> 6 & 63] : '=';
        text += left > 2 ? base64_alphabet[v & 63] : '=';
        if ((i / 3 + 1) % 19 == 0) text += "\r\n";
    }
    return text + "\r\n";
}

std::string quoted_printable_text(std::size_t decoded_size) {
    static constexpr std::string_view words[] = {
        "Gentile",   "cliente,",  "la",       "fattura", "\xe8",     "allegata",
        "e",         "verr\xe0",  "inviata",  "per",     "fax",      "entro",
        "luned\xec", "prossimo;", "citt\xe0", "=",       "perch\xe9"};
    std::string text;
    std::size_t decoded = 0;
    std::size_t line = 0;
    for (std::size_t w = 0; decoded < decoded_size; ++w) {
        std::string encoded;
        for (char c : words[w % std::size(words)]) {
            const auto u = static_cast<unsigned char>(c);
            if (u >= 128 || c == '=') {
                char escape[4];
                std::snprintf(escape, sizeof escape, "=%02X", u);
                encoded += escape;
            } else {
                encoded += c;
            }
            ++decoded;
        }
        if (line + encoded.size() + 2 > 75) {
            // Every third break is a soft one (RFC 2045 6.7 rule 5).
            text += w % 3 == 0 ? "=\r\n" : "\r\n";
            line = 0;
        } else if (line > 0) {
            text += ' ';
            ++line;
            ++decoded;
        }
        text += encoded;
        line += encoded.size();
    }
    return text + "\r\n";
}

std::string uuencoded(std::string_view binary) {
    std::string text = "begin 644 data.bin\r\n";
    auto put = [&](unsigned v) { text += static_cast<char>(v == 0 ? '`' : ' ' + v); };
    for (std::size_t i = 0; i < binary.size(); i += 45) {
        const std::size_t n = std::min<std::size_t>(45, binary.size() - i);
        put(static_cast<unsigned>(n));
        for (std::size_t j = 0; j < n; j += 3) {
            unsigned char b[3] = {};
            for (std::size_t k = 0; k < 3 && j + k < n; ++k)
                b[k] = static_cast<unsigned char>(binary[i + j + k]);
            put(b[0] >> 2);
            put((b[0] << 4 | b[1] >> 4) & 63);
            put((b[1] << 2 | b[2] >> 6) & 63);
            put(b[2] & 63);
        }
        text += "\r\n";
    }
    return text + "`\r\nend\r\n";
}

FeedingSocket::FeedingSocket(std::string text) : text_(std::move(text)) {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) != 0) give_up("socketpair");
    feeder_ = std::thread([this] {
        while (!stop_.load()) {
            for (std::size_t sent = 0; sent < text_.size();) {
                const ssize_t n =
                    ::send(ends_[1], text_.data() + sent, text_.size() - sent, MSG_NOSIGNAL);
                if (n <= 0) return;  // the reading end went away
                sent += static_cast<std::size_t>(n);
            }
        }
    });
}

FeedingSocket::~FeedingSocket() {
    stop_.store(true);
    ::shutdown(ends_[0], SHUT_RDWR);  // a blocked send fails at once
    feeder_.join();
    ::close(ends_[0]);
    ::close(ends_[1]);
}

DrainingSocket::DrainingSocket() {
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends_) != 0) give_up("socketpair");
    drainer_ = std::thread([this] {
        static char sink[1 << 16];
        while (::recv(ends_[1], sink, sizeof sink, 0) > 0) {
        }
    });
}

DrainingSocket::~DrainingSocket() {
    ::shutdown(ends_[0], SHUT_RDWR);  // the drainer reads its end of file
    drainer_.join();
    ::close(ends_[0]);
    ::close(ends_[1]);
}

}  // namespace qbsmtp::bench
