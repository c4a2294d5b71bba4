// smtp_dialogue_fuzz.cpp: one SMTP session of the receiving side, in
// process. The input is everything a client sends on one connection: a
// thread writes it into one end of a socket pair and closes that
// direction, another collects the replies, and smtp_session runs on the
// other end until the dialogue ends. The duplicate filter's memory is
// emptied before every input and the spool tree removed after it, so an
// input always gives the same outcome and nothing is left behind
// (libFuzzer may end the process without running exit handlers).
//
// Checked on every input, beside the sanitizers:
//   - the session ends, and every reply line is one of the lines the
//     dialogue can give, with its CR LF;
//   - the replies are exactly those of a model of the documented dialogue
//     written here (command words, argument parsers, flags, DATA);
//   - every message that got "250 Mail accepted" has its file (the debug
//     copy, made for every accepted message before the duplicate test),
//     and that file is the two trace headers with the model's reverse path
//     and HELO domain, then the text by a model of the dot rules (only CR
//     LF ends a line, a line of one dot ends the text, a leading dot is
//     dropped, the CR LF before the end marker is not stored; lone CR, lone
//     LF and NUL are text);
//   - no .tmp file is left in the spool directory, and each .822 file
//     there is identical to the debug copy of the same message.
//
// An input whose first byte is 1 or 2 runs the extended dialogue instead
// (Esmtp 1, a certificate for STARTTLS where the build has TLS, with 2
// RequireTls too) on the bytes behind it: EHLO, MAIL parameters and
// STARTTLS, whose handshake then meets the rest of the input. There the
// model is left out; the session must end, every reply line up to the
// handshake be one the extended dialogue can give, and the spool hold no
// .tmp file and only .822 files equal to their debug copies.
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "frame/module_state.h"
#include "platform/os_tls.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/duplicate_filter.h"
#include "reception/session_dialogue.h"
#include "reception/session_io.h"
#include "reception/smtp_session.h"

#include "fuzz_support.h"
#include "socket_pair.h"
namespace {

namespace fs = std::filesystem;
using namespace qbsmtp;

constexpr const char* fuzz_host = "mx.fuzz.example";

struct Tree {
    fs::path root;
    fs::path spool;
    fs::path debug;
};

const Tree& tree() {
    static const Tree made = [] {
        Tree t;
        t.root = fuzz::scratch_path("qbsmtp_dialogue_fuzz");
        t.spool = t.root / "spool";
        t.debug = t.spool / "Debug";
        setenv("QBSMTP_PREFIX", t.root.c_str(), 1);
        host_name = fuzz_host;
        spool_dir = t.spool.c_str();
        // A debug copy of every accepted message, duplicates included.
        event_reporter.logging_mask.store(QBSMTP_LOG_DEBUG_COPY);
        return t;
    }();
    return made;
}

// A self-signed certificate for STARTTLS, made once by the openssl
// command; null where that or TLS is missing (the extended dialogue then
// runs without STARTTLS).
os::TlsContext* fuzz_tls_context() {
    if (!os::tls_supported()) return nullptr;
    const fs::path directory = fuzz::scratch_path("qbsmtp_dialogue_fuzz_tls");
    std::error_code ignored;
    fs::create_directories(directory, ignored);
    const std::string key = (directory / "key.pem").string();
    const std::string certificate = (directory / "cert.pem").string();
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
        "-subj /CN=localhost -days 1 -keyout '" +
        key + "' -out '" + certificate + "' >/dev/null 2>&1";
    char error[200];
    os::TlsContext* context =
        std::system(command.c_str()) == 0
            ? os::tls_server_context(certificate.c_str(), key.c_str(), error, sizeof error)
            : nullptr;
    fs::remove_all(directory, ignored);
    return context;
}

// The lines only the extended dialogue gives.
std::set<std::string> extended_lines() {
    std::set<std::string> lines;
    for (const char* line :
         {"250-8BITMIME", "250-PIPELINING", "250-SIZE", "250 SIZE", "250 STARTTLS",
          "501 EHLO needs to specify a domain", "502 command not implemented",
          "503 TLS already active", "503 Need EHLO command", "503 Need MAIL command",
          "530 Must issue a STARTTLS command first",
          "555 MAIL FROM/RCPT TO parameters not recognized or not implemented",
          "552 Message size exceeds fixed maximum message size",
          "501 Syntax error (no parameters allowed)", "220 Ready to start TLS"})
        lines.insert(std::string(line) + "\r\n");
    lines.insert("250-" + std::string(fuzz_host) + "\r\n");
    return lines;
}

// ---- A model of the dialogue ----------------------------------------------

struct Message {
    std::string reverse_path;
    std::string helo_domain;
    std::string text;
};

const std::string reply_accepted = "250 Mail accepted\r\n";

// Every line the dialogue can send, for the first, coarse check.
std::set<std::string> reply_lines() {
    std::set<std::string> lines = {
        "250 " + std::string(fuzz_host) + "\r\n",
        "250 OK\r\n",
        "503 Sender already specified\r\n",
        "503 Need HELO command\r\n",
        "250 recipient OK\r\n",
        "503 Need MAIL command\r\n",
        "250 Reset\r\n",
        "250 Quillbox SMTP OK\r\n",
        "500 Syntax error, command unrecognised\r\n",
        "502 command not implemented\r\n",
        "501 Syntax error in parameters or arguments\r\n",
        "501 HELO needs to specify a domain\r\n",
        "500 Line too long\r\n",
        "500 Reverse path too long\r\n",
        "221 " + std::string(fuzz_host) + " Service closing transmission\r\n",
        "220 " + std::string(fuzz_host) + " Quillbox SMTP Service ready (tid=0)\r\n",
        "354 Start mail input; end with <CRLF>.<CRLF>\r\n",
        reply_accepted,
    };
    for (const char* line : help_lines) lines.insert(std::string(line) + "\r\n");
    return lines;
}

const std::string help_text = [] {
    std::string text;
    for (const char* line : help_lines) text.append(line).append("\r\n");
    return text;
}();

// The documented dialogue over the whole input, by positions in it. A
// pushed-back byte is a step back: the dialogue only ever pushes back the
// byte it has just read (or its upper-case form where only CR and LF
// matter next).
class DialogueModel {
  public:
    explicit DialogueModel(std::string_view input) : in_(input) {}

    std::string replies;
    std::vector<Message> accepted;

    void run() {
        replies = "220 " + std::string(fuzz_host) + " Quillbox SMTP Service ready (tid=0)\r\n";
        for (;;) {
            const Outcome outcome = command();
            if (outcome == Outcome::gone || outcome == Outcome::quit) break;
        }
        replies += "221 " + std::string(fuzz_host) + " Service closing transmission\r\n";
    }

  private:
    enum class Outcome { go_on, clean, extra, gone, quit };

    std::string_view in_;
    std::size_t pos_ = 0;
    bool greeted_ = false;
    bool sender_set_ = false;
    std::string helo_domain_;
    std::string reverse_path_;

    int next() { return pos_ < in_.size() ? static_cast<unsigned char>(in_[pos_++]) : -1; }
    static bool letter(int c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
    static int upper(int c) { return c >= 'a' && c <= 'z' ? c - 32 : c; }

    // Up to and through the next CR LF: clean if it came at once.
    Outcome rest_of_line(bool complain) {
        const std::size_t end = in_.find("\r\n", pos_);
        if (end == std::string_view::npos) {
            pos_ = in_.size();
            return Outcome::gone;
        }
        const bool at_once = end == pos_;
        pos_ = end + 2;
        if (at_once) return Outcome::clean;
        if (complain) replies += "501 Syntax error in parameters or arguments\r\n";
        return Outcome::extra;
    }

    Outcome command() {
        std::string word;
        for (int i = 0; i < 4; ++i) {
            const int c = next();
            if (c < 0) return Outcome::gone;
            if (!letter(c)) {
                --pos_;
                return unrecognised();
            }
            word += static_cast<char>(upper(c));
        }
        if (word == "HELO") return helo();
        if (word == "MAIL") return mail();
        if (word == "RCPT") {
            const Outcome line = rest_of_line(false);
            if (line == Outcome::gone) return line;
            replies += sender_set_ ? "250 recipient OK\r\n" : "503 Need MAIL command\r\n";
            return Outcome::go_on;
        }
        if (word == "DATA") {
            const Outcome line = rest_of_line(true);
            return line == Outcome::clean ? data() : line;
        }
        if (word == "RSET" || word == "NOOP" || word == "QUIT") {
            const Outcome line = rest_of_line(true);
            if (line != Outcome::clean) return line;
            if (word == "QUIT") return Outcome::quit;
            replies += word == "RSET" ? "250 Reset\r\n" : "250 Quillbox SMTP OK\r\n";
            if (word == "RSET") sender_set_ = false;
            return Outcome::go_on;
        }
        if (word == "HELP") {
            const Outcome line = rest_of_line(false);
            replies += help_text;
            return line;
        }
        for (const char* refused : {"SEND", "SOML", "SAML", "VRFY", "EXPN", "TURN"}) {
            if (word == refused) {
                const Outcome line = rest_of_line(false);
                replies += "502 command not implemented\r\n";
                return line;
            }
        }
        return unrecognised();
    }

    Outcome unrecognised() {
        const Outcome line = rest_of_line(false);
        replies += "500 Syntax error, command unrecognised\r\n";
        return line;
    }

    Outcome helo() {
        const int first = next();
        if (first < 0) return Outcome::gone;
        if (first != ' ') {
            --pos_;
            const Outcome line = rest_of_line(false);
            if (line == Outcome::clean) {
                replies += "501 HELO needs to specify a domain\r\n";
                return line;
            }
            if (line == Outcome::gone) return line;
            return accept_helo();  // "HELOXY": accepted, the domain stays
        }
        std::string domain;
        for (;;) {
            if (domain.size() == 511) {
                --pos_;
                const Outcome line = rest_of_line(false);
                replies += "500 Line too long\r\n";
                return line;
            }
            int c = next();
            if (c < 0) return Outcome::gone;
            if (c == '\r') {
                c = next();
                if (c < 0) return Outcome::gone;
                if (c == '\n') {
                    helo_domain_ = domain;
                    return accept_helo();
                }
            }
            domain += static_cast<char>(c);
        }
    }

    Outcome accept_helo() {
        replies += "250 " + std::string(fuzz_host) + "\r\n";
        greeted_ = true;
        sender_set_ = false;
        return Outcome::go_on;
    }

    Outcome mail() {
        for (const char expected : std::string_view(" FROM:<")) {
            const int c = next();
            if (upper(c) == expected) continue;
            if (c < 0) {
                replies += "501 Syntax error in parameters or arguments\r\n";
                return Outcome::gone;
            }
            --pos_;
            const Outcome line = rest_of_line(false);
            replies += "501 Syntax error in parameters or arguments\r\n";
            return line;
        }
        std::string path;
        for (;;) {
            if (path.size() == 512) {
                const Outcome line = rest_of_line(false);
                replies += "500 Reverse path too long\r\n";
                return line;
            }
            const int c = next();
            if (c < 0) return Outcome::gone;
            if (c == '>') break;
            path += static_cast<char>(c);
        }
        reverse_path_ = path;
        const Outcome line = rest_of_line(true);
        if (line != Outcome::clean) return line;
        if (greeted_ && !sender_set_) {
            replies += "250 OK\r\n";
            sender_set_ = true;
        } else {
            replies += greeted_ ? "503 Sender already specified\r\n" : "503 Need HELO command\r\n";
        }
        return Outcome::go_on;
    }

    // The text as lines that only CR LF ends: a line of one dot ends it,
    // a leading dot is dropped, lines are joined by CR LF (so the one in
    // front of the end marker is not stored). Anything else is text.
    Outcome data() {
        replies += "354 Start mail input; end with <CRLF>.<CRLF>\r\n";
        std::string text;
        for (bool first = true;; first = false) {
            const std::size_t end = in_.find("\r\n", pos_);
            if (end == std::string_view::npos) {
                pos_ = in_.size();
                return Outcome::gone;
            }
            std::string_view line = in_.substr(pos_, end - pos_);
            pos_ = end + 2;
            if (line == ".") break;
            if (!first) text += "\r\n";
            if (!line.empty() && line[0] == '.') line.remove_prefix(1);
            text += line;
        }
        replies += reply_accepted;
        accepted.push_back({reverse_path_, helo_domain_, text});
        sender_set_ = false;
        return Outcome::go_on;
    }
};

// ---- The session --------------------------------------------------------------

std::string run_session(const std::uint8_t* data, std::size_t size, bool extended) {
    int pair[2];
    FUZZ_CHECK(fuzz::make_socket_pair(pair));
    const int client = pair[1];
    // An input that fits the pair's buffer goes in before the session
    // starts; a larger one needs a thread of its own.
    const bool fits = size <= 64 * 1024;
    if (fits) {
        FUZZ_CHECK(fuzz::write_all(client, data, size));
        fuzz::shut_write(client);
    }
    std::thread writer;
    if (!fits) {
        writer = std::thread([&] {
            fuzz::write_all(client, data, size);  // fails only once the session has gone
            fuzz::shut_write(client);
        });
    }
    std::string replies;
    std::thread reader([&] {
        char block[4096];
        for (long n; (n = fuzz::read_some(client, block, sizeof block)) > 0;)
            replies.append(block, static_cast<std::size_t>(n));
    });

    SmtpSession* session = make_session();
    FUZZ_CHECK(session != nullptr);
    session->socket = static_cast<os::SOCKET>(pair[0]);
    session_reset_buffers(*session);
    bool threw = false;
    try {
        FUZZ_CHECK(smtp_session(*session) == 0);
    } catch (int) {
        threw = true;
    }
    // The reader takes every reply; only a failed handshake throws.
    FUZZ_CHECK(!threw || extended);
    FUZZ_CHECK(session->spool == nullptr);  // no message is left open

    // Replies are over; then let the writer finish into the void.
    os::shutdown(session->socket, os::SD_SEND);
    reader.join();
    char sink[4096];
    while (fuzz::read_some(pair[0], sink, sizeof sink) > 0) {
    }
    if (writer.joinable()) writer.join();
    fuzz::close_end(pair[0]);
    fuzz::close_end(pair[1]);
    free_session(session);
    return replies;
}

std::string read_file(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// "5 Jun 00 14:03:07 +0200" and CR LF at text[at]; its length, or 0.
std::size_t time_stamp_length(const std::string& text, std::size_t at) {
    static constexpr std::string_view months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    auto digits = [&](std::size_t& p, std::size_t n) {
        for (std::size_t i = 0; i < n; ++i, ++p)
            if (p >= text.size() || text[p] < '0' || text[p] > '9') return false;
        return true;
    };
    auto literal = [&](std::size_t& p, std::string_view s) {
        if (text.compare(p, s.size(), s) != 0) return false;
        p += s.size();
        return true;
    };
    std::size_t p = at;
    if (!digits(p, 1)) return 0;
    if (p < text.size() && text[p] != ' ' && !digits(p, 1)) return 0;
    if (!literal(p, " ")) return 0;
    const bool month = std::any_of(std::begin(months), std::end(months),
                                   [&](std::string_view m) { return text.compare(p, 3, m) == 0; });
    p += 3;
    if (!month || !literal(p, " ") || !digits(p, 2) || !literal(p, " ") || !digits(p, 2) ||
        !literal(p, ":") || !digits(p, 2) || !literal(p, ":") || !digits(p, 2) || !literal(p, " "))
        return 0;
    if (p >= text.size() || (text[p] != '+' && text[p] != '-')) return 0;
    ++p;
    if (!digits(p, 4) || !literal(p, "\r\n")) return 0;
    return p - at;
}

// A field as "%s" prints it: up to its first NUL.
std::string printed(const std::string& field) {
    return field.substr(0, field.find('\0'));
}

void check_message_file(const std::string& file, const Message& message) {
    const std::string head = "Return-Path: <" + printed(message.reverse_path) +
                             ">\r\nReceived: from " + printed(message.helo_domain) + " by " +
                             fuzz_host + " with SMTP ; ";
    FUZZ_CHECK(file.compare(0, head.size(), head) == 0);
    const std::size_t stamp = time_stamp_length(file, head.size());
    FUZZ_CHECK(stamp > 0);
    FUZZ_CHECK(file.compare(head.size() + stamp, std::string::npos, message.text) == 0);
}

// The six digits of rxNNNNNN; the spool names count up by one from
// message to message, wrapping at a million.
long spool_number(const fs::path& path) {
    return std::strtol(path.filename().string().c_str() + 2, nullptr, 10);
}

// Debug copies in the order their messages were accepted: by number, the
// cycle cut at its widest gap.
std::vector<fs::path> accepted_files(const fs::path& directory) {
    std::vector<fs::path> files;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(directory, ignored))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) {
        return spool_number(a) < spool_number(b);
    });
    if (files.size() < 2) return files;
    std::size_t start = 0;
    long widest = spool_number(files.front()) + 1000000 - spool_number(files.back());
    for (std::size_t i = 1; i < files.size(); ++i) {
        const long gap = spool_number(files[i]) - spool_number(files[i - 1]);
        if (gap > widest) {
            widest = gap;
            start = i;
        }
    }
    std::rotate(files.begin(), files.begin() + static_cast<long>(start), files.end());
    return files;
}

void forget_recent_messages() {
    for (RecentMessage& slot : recent_messages) {
        slot.time = {};
        slot.file_name.clear();
        slot.message_id.clear();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > 256 * 1024) return 0;
    const Tree& t = tree();
    static const std::set<std::string> known_lines = reply_lines();
    fs::create_directories(t.spool);
    forget_recent_messages();

    static os::TlsContext* const tls = fuzz_tls_context();
    static const std::set<std::string> more_lines = extended_lines();
    const bool extended = size > 0 && (data[0] == 1 || data[0] == 2);
    esmtp = extended ? 1 : 0;
    require_tls = extended && data[0] == 2 ? 1 : 0;
    server_tls = extended ? tls : nullptr;
    if (extended) {
        ++data;
        --size;
    }

    std::string replies = run_session(data, size, extended);
    // Behind the 220 of STARTTLS comes the handshake, no line.
    const std::size_t handshake = replies.find("220 Ready to start TLS\r\n");
    if (extended && handshake != std::string::npos) replies.resize(handshake + 24);

    // Well-formed lines from the known set.
    for (std::size_t at = 0; at < replies.size();) {
        const std::size_t end = replies.find("\r\n", at);
        FUZZ_CHECK(end != std::string::npos);
        const std::string line = replies.substr(at, end + 2 - at);
        FUZZ_CHECK(known_lines.count(line) == 1 || (extended && more_lines.count(line) == 1));
        at = end + 2;
    }
    if (!extended) {
        DialogueModel model(std::string_view(reinterpret_cast<const char*>(data), size));
        model.run();
        FUZZ_CHECK(replies == model.replies);
        const std::vector<fs::path> copies = accepted_files(t.debug);
        FUZZ_CHECK(copies.size() == model.accepted.size());
        for (std::size_t i = 0; i < copies.size(); ++i)
            check_message_file(read_file(copies[i]), model.accepted[i]);
    }

    for (const auto& entry : fs::directory_iterator(t.spool)) {
        const fs::path& path = entry.path();
        if (path == t.debug) continue;
        FUZZ_CHECK(path.extension() == ".822");
        fs::path copy = t.debug / path.filename();
        copy.replace_extension(".tmp");
        FUZZ_CHECK(read_file(path) == read_file(copy));
    }
    std::error_code ignored;
    fs::remove_all(t.root, ignored);
    return 0;
}
