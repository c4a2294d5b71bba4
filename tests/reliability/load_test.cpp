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
#include <gtest/gtest.h>
#include <malloc.h>

#include <cmath>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "process_probe.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

constexpr int session_timeout = 60;
const int client_count = light_run ? 100 : 200;
const std::size_t largest = light_run ? 1u << 20 : 5u << 20;

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

std::string random_bytes(std::mt19937& random, std::size_t count) {
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789 ,:;<>-=\t\xe8\xff";
    std::string bytes;
    while (bytes.size() < count)
        bytes += random() % 64 == 0 ? '\0' : alphabet[random() % (sizeof alphabet - 1)];
    return bytes;
}

// The bytes sent behind the 354 for a text of about size bytes, end marker
// included; tag opens it.
std::string wire_text(std::mt19937& random, std::size_t size, const std::string& tag) {
    if (size == 0) return ".\r\n";
    std::string wire = "Message-Id: <" + tag + ">\r\n";
    while (wire.size() < size) {
        for (const char* p = line_kinds[random() % std::size(line_kinds)]; *p != '\0'; ++p) {
            if (*p == '*')
                wire += random_bytes(random, 1 + random() % 60);
            else if (*p == '#')
                wire += random_bytes(random, size - wire.size() > (200u << 10) ? 100u << 10 : 60);
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

// A size from 0 B to largest: a few empty, a few of the largest, the rest
// spread evenly over the orders of magnitude.
std::size_t message_size(std::mt19937& random, int client) {
    if (client % 50 == 1) return 0;
    if (client % 40 == 0) return largest;
    return static_cast<std::size_t>(std::min<double>(
        std::exp2(std::uniform_real_distribution<double>(4.0, 20.0)(random)), largest));
}

struct Message {
    std::string sender;  // unique: it stands in the spool file's Return-Path
    std::string wire;
    std::size_t cut = std::string::npos;  // a dropper sends only wire[0, cut)
    bool reset = false;                   // and then resets the connection
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
            message.sender = "c" + std::to_string(c) + "m" + std::to_string(m) + "@load.test";
            const std::size_t size = m == 0 || drops ? message_size(random, c) : random() % 4096;
            message.wire = wire_text(random, size, message.sender);
            if (m == 1 && drops) {
                message.cut =
                    random() % (message.wire.size() - 1);  // before the marker's last byte
                message.reset = random() % 2 == 0;
            }
        }
    }

    // Baseline: once a first session has come and gone, the listener's socket
    // is open and the module has made what it keeps.
    module.connect()->command("QUIT");
    ASSERT_TRUE(wait_for_no_sessions(session_timeout));
    ::malloc_trim(0);
    const Descriptors before = descriptors();
    const long resident_before = resident_kib();

    run_clients_together(module.port(), client_count, [&](SmtpTestClient& peer, int c) {
        peer.command("HELO client" + std::to_string(c));
        for (int m = 0; m < 2; ++m) {
            Message& message = messages[static_cast<std::size_t>(2 * c + m)];
            std::string envelope = peer.command("MAIL FROM:<" + message.sender + ">");
            envelope += peer.command("RCPT TO:<fax@example.test>");
            envelope += peer.command("DATA");
            if (envelope.rfind("250 OK\r\n250 recipient OK\r\n354 ", 0) != 0) {
                message.reply = "envelope: " + envelope;
                break;
            }
            if (message.cut != std::string::npos) {
                peer.send(std::string_view(message.wire).substr(0, message.cut));
                return message.reset ? peer.reset() : peer.close();
            }
            message.reply = peer.send(message.wire) ? peer.read_reply() : "text not sent";
        }
        peer.command("QUIT");
        peer.read_to_close();
    });
    ASSERT_TRUE(wait_for_no_sessions(session_timeout)) << sessions_running.load() << " sessions";

    ::malloc_trim(0);
    EXPECT_EQ(descriptors().count, before.count) << descriptors().list;
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
        if (message.reply == "250 Mail accepted\r\n") {
            ++acknowledged;
            ASSERT_EQ(copies.size(), 1u);
            EXPECT_TRUE(copies[0] == stored_form(message.wire))
                << copies[0].size() << " bytes stored";
        } else {
            EXPECT_TRUE(copies.empty());
            EXPECT_NE(message.cut, std::string::npos)
                << "only drops go without a 250: " << message.reply;
        }
    }
    EXPECT_EQ(acknowledged, 2 * client_count - client_count / 5);
    EXPECT_EQ(module.spool_files(".822").size(), static_cast<std::size_t>(acknowledged));
    EXPECT_TRUE(module.spool_files(".tmp").empty());

    auto after = module.connect();
    EXPECT_EQ(transmit(*after, "after the load\r\n.\r\n"), "250 Mail accepted\r\n");
}

}  // namespace
}  // namespace qbsmtp::test
