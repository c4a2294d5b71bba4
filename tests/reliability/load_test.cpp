// load_test.cpp: two hundred clients at once on loopback, with messages from
// 0 B to 5 MB, bare LFs and CRs, NUL bytes, lines of 100 KB and lines that
// start with dots; a fifth of the clients drop their connection at a random
// point inside their second message (half of them with a reset).
//
// Afterwards every message that got its 250 lies in the spool exactly once,
// byte for byte what an independent model of the dot rule makes of what was
// sent; nothing else is there, no .tmp file is left, the process holds the
// descriptors it held before, its resident size is within 8 MiB of what it
// was, and the listener still takes a message. Everything is seeded; under
// a sanitizer or as a 32-bit program the run has 100 clients and 1 MB.
#include <malloc.h>

#include <cmath>
#include <iterator>

#include "reliability.h"

namespace qbsmtp::test {
namespace {

constexpr int session_timeout = 60;
const int client_count = light_run ? 100 : 200;
const double largest = light_run ? 1 << 20 : 5 << 20;

// The kinds of line (without its CR LF) a text is made of: '*' stands for
// 1 to 60 random bytes (printable, high or NUL; never a dot, CR or LF), '#'
// for 100 KB of them where the text has room. None is the end marker ".".
const char* const line_kinds[] = {
    ".*",        // a leading dot, dropped on reception
    "..*",       // a doubled dot, one of them dropped
    "*\n.x\n*",  // bare LFs, one with a dot behind it (an ordinary byte)
    "*\rz*\r",   // bare CRs, one at the line's end
    "",          // an empty line
    ".\r",       // a dot and a CR: the CR stays
    "#",        "*", "*", "*", "*", "*",
};

// The bytes sent behind the 354 for a text of about size bytes, end marker
// included; tag opens it.
std::string wire_text(std::mt19937& random, std::size_t size, const std::string& tag) {
    auto bytes = [&random](std::size_t count) {
        static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789 ,:;<>-=\t\xe8\xff";
        std::string run;
        while (run.size() < count)
            run += random() % 64 == 0 ? '\0' : alphabet[random() % (sizeof alphabet - 1)];
        return run;
    };
    if (size == 0) return ".\r\n";
    std::string wire = "Message-Id: <" + tag + ">\r\n";
    while (wire.size() < size) {
        for (const char* p = line_kinds[random() % std::size(line_kinds)]; *p != '\0'; ++p) {
            if (*p == '*')
                wire += bytes(1 + random() % 60);
            else if (*p == '#')
                wire += bytes(size - wire.size() > (200u << 10) ? 100u << 10 : 60);
            else
                wire += *p;
        }
        wire += "\r\n";
    }
    return wire + ".\r\n";
}

// What the spool file holds behind its trace headers, by the dot rule: the
// text is cut into lines at each CR LF (nowhere else), a line "." ends it,
// every other line loses one leading dot, and the lines are joined with CR
// LF (none behind the last).
std::string stored_form(const std::string& wire) {
    std::string stored;
    for (std::size_t start = 0, end; (end = wire.find("\r\n", start)) != std::string::npos;
         start = end + 2) {
        const std::string line = wire.substr(start, end - start);
        if (line == ".") return stored;
        if (start > 0) stored += "\r\n";
        stored += line[0] == '.' ? line.substr(1) : line;
    }
    ADD_FAILURE() << "no end marker in the model's input";
    return stored;
}

struct Message {
    std::string sender;  // unique: it stands in the spool file's Return-Path
    std::string wire;
    std::size_t cut = std::string::npos;  // a dropper sends only wire[0, cut)
    std::string reply;                    // to the end marker, or what went wrong
};

TEST(Load, TwoHundredClientsWithDropsLoseNothingAndLeakNothing) {
    ReceptionFixture module("\"SessionTimeout\"=dword:0000003c");
    std::vector<Message> messages(static_cast<std::size_t>(2 * client_count));
    for (int c = 0; c < client_count; ++c) {
        std::mt19937 random(20261123u + static_cast<unsigned>(c));
        const bool drops = c % 5 == 4;
        for (int m = 0; m < 2; ++m) {
            Message& message = messages[static_cast<std::size_t>(2 * c + m)];
            message.sender = std::string("c")
                                 .append(std::to_string(c))
                                 .append("m")
                                 .append(std::to_string(m))
                                 .append("@load.test");
            // From 0 B to largest: a few empty, a few of the largest, the rest
            // spread evenly over the orders of magnitude.
            const double spread = std::exp2(std::uniform_real_distribution<>(4.0, 20.0)(random));
            const std::size_t size =
                m == 1 && !drops ? random() % 4096
                : c % 50 == 1    ? 0
                                 : static_cast<std::size_t>(
                                    std::min(c % 40 ? spread : largest, largest) * run_scale);
            message.wire = wire_text(random, size, message.sender);
            if (m == 1 && drops)  // anywhere before the end marker's last byte
                message.cut = random() % (message.wire.size() - 1);
        }
    }

    // Baseline: once a first session has come and gone, the listener's socket
    // is open and the module has made what it keeps.
    module.connect()->command("QUIT");
    ASSERT_TRUE(wait_for_no_sessions(session_timeout));
    ::malloc_trim(0);
    const long descriptors = open_descriptors();
    const long resident_before = resident_kib();

    run_clients_together(module.port(), client_count, [&](SmtpTestClient& peer, int c) {
        peer.command("HELO client" + std::to_string(c));
        for (int m = 0; m < 2; ++m) {
            Message& message = messages[static_cast<std::size_t>(2 * c + m)];
            EXPECT_EQ(peer.command("MAIL FROM:<" + message.sender + ">"), "250 OK\r\n");
            EXPECT_EQ(peer.command("RCPT TO:<fax@example.test>"), "250 recipient OK\r\n");
            EXPECT_EQ(peer.command("DATA").substr(0, 4), "354 ");
            if (message.cut != std::string::npos) {
                peer.send(std::string_view(message.wire).substr(0, message.cut));
                return message.cut % 2 == 0 ? peer.reset() : peer.close();  // half of them
            }
            message.reply = peer.send(message.wire) ? peer.read_reply() : "text not sent";
        }
        peer.command("QUIT");
        peer.read_to_close();
    });
    ASSERT_TRUE(wait_for_no_sessions(session_timeout)) << sessions_running.load() << " sessions";

    ::malloc_trim(0);
    EXPECT_EQ(open_descriptors(), descriptors);
    if (resident_size_meaningful) {
        EXPECT_LT(resident_kib() - resident_before, 8 * 1024) << "KiB more resident";
    }

    // Exactly once and byte for byte for every 250; nothing for the rest.
    std::map<std::string, std::vector<std::string>> spool;  // by Return-Path line
    for (const auto& path : module.spool_files(".822")) {
        const std::string text = read_whole_file(path);
        spool[text.substr(0, text.find("\r\n"))].push_back(body_behind_trace_headers(text));
    }
    int acknowledged = 0;
    for (const Message& message : messages) {
        SCOPED_TRACE(message.sender);
        const auto& copies = spool["Return-Path: <" + message.sender + ">"];
        const bool accepted = message.reply == "250 Mail accepted\r\n";
        acknowledged += accepted;
        EXPECT_TRUE(accepted || message.cut != std::string::npos) << "refused: " << message.reply;
        EXPECT_TRUE(copies == (accepted ? std::vector{stored_form(message.wire)}
                                        : std::vector<std::string>{}))
            << copies.size() << " copies";
    }
    EXPECT_EQ(acknowledged, 2 * client_count - client_count / 5);
    EXPECT_EQ(module.spool_files(".822").size(), static_cast<std::size_t>(acknowledged));
    EXPECT_TRUE(module.spool_files(".tmp").empty());

    auto after = module.connect();
    EXPECT_EQ(transmit(*after, "after the load\r\n.\r\n"), "250 Mail accepted\r\n");
}

}  // namespace
}  // namespace qbsmtp::test
