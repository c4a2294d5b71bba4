// reply_reader_fuzz.cpp: the sending side's reply reader on whatever a
// peer may send. The input is the whole byte stream of the peer; it is
// written into one end of a connected socket pair and closed, and
// read_reply runs on the other end again and again until it throws.
//
// Checked on every input, beside the sanitizers: the reader ends; the
// codes it returns and the way it finally fails (a lost connection is
// failed_for_now, bytes that are no reply failed_for_good) are those of a
// model of multi-line replies (RFC 5321 4.2: three digits, '-' on every
// line but the last, ' ' on the last, lines ended by CR LF; the code is
// the last line's); after each reply the bytes left in the 1024-byte
// buffer lie inside it and are exactly the input behind that reply.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "sending/smtp_client.h"

#include "fuzz_support.h"
#include "socket_pair.h"
namespace {

using namespace qbsmtp;

struct ModelReply {
    int code;
    std::size_t end;  // input position behind the reply's last LF
};

struct Model {
    std::vector<ModelReply> replies;
    Exception failure;
};

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Reads the input line by line: a line is three digits, a separator and
// text up to CR LF. Anything else at a line start or in the separator's
// place is unintelligible; running out of bytes is a lost connection. The
// byte behind a CR is taken with it whatever it is, so in CR CR LF the LF
// ends nothing (the documented reader goes back to the text after a CR
// that no LF follows, and skips that byte).
Model model_replies(std::string_view in) {
    Model model;
    std::size_t pos = 0;
    for (;;) {
        for (std::size_t k = 0; k < 4; ++k) {
            if (pos + k >= in.size()) {
                model.failure = Exception::failed_for_now;
                return model;
            }
            const char c = in[pos + k];
            if (k < 3 ? !is_digit(c) : c != ' ' && c != '-') {
                model.failure = Exception::failed_for_good;
                return model;
            }
        }
        const int code = (in[pos] - '0') * 100 + (in[pos + 1] - '0') * 10 + (in[pos + 2] - '0');
        const bool last = in[pos + 3] == ' ';
        std::size_t i = pos + 4;
        for (;;) {
            if (i >= in.size() || (in[i] == '\r' && i + 1 >= in.size())) {
                model.failure = Exception::failed_for_now;
                return model;
            }
            if (in[i] != '\r') {
                ++i;
            } else if (in[i + 1] == '\n') {
                break;
            } else {
                i += 2;
            }
        }
        pos = i + 2;
        if (last) model.replies.push_back({code, pos});
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The whole input must fit the socket pair's buffer: it is written
    // before the reader starts.
    if (size > 32 * 1024) return 0;
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const Model model = model_replies(input);

    int pair[2];
    FUZZ_CHECK(fuzz::make_socket_pair(pair));
    FUZZ_CHECK(fuzz::write_all(pair[1], data, size));
    fuzz::shut_write(pair[1]);

    SmtpClient client;
    client.socket = static_cast<os::SOCKET>(pair[0]);
    client.setup_buffers();
    std::size_t returned = 0;
    bool failed = false;
    Exception failure{};
    while (!failed) {
        try {
            const int code = read_reply(client);
            FUZZ_CHECK(returned < model.replies.size());
            const ModelReply& want = model.replies[returned++];
            FUZZ_CHECK(code == want.code);
            // Nothing outside the buffer, and what is left in it is the
            // input that follows the reply.
            FUZZ_CHECK(client.read_count >= 0);
            FUZZ_CHECK(client.read_cursor >= client.read_buffer);
            FUZZ_CHECK(client.read_cursor + client.read_count <=
                       client.read_buffer + client_buffer_size);
            FUZZ_CHECK(static_cast<std::size_t>(client.read_count) <= size - want.end);
            FUZZ_CHECK(std::memcmp(client.read_cursor, data + want.end,
                                   static_cast<std::size_t>(client.read_count)) == 0);
        } catch (Exception thrown) {
            failed = true;
            failure = thrown;
        }
    }
    FUZZ_CHECK(returned == model.replies.size());
    FUZZ_CHECK(failure == model.failure);
    // The client's clean-up closes its end.
    client.clean_up();
    fuzz::close_end(pair[1]);
    return 0;
}
