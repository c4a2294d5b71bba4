// load_test.cpp: two hundred clients at once on loopback, with messages
// from 0 B to 5 MB, bare LFs and CRs, NUL bytes, lines of 100 KB and lines
// that start with dots; a fifth of the clients drop their connection at a
// random point inside their second message (half of them with a reset).
//
// Afterwards, once every session has ended: every message that got its
// 250 lies in the spool exactly once, byte for byte what an independent
// model of the dot rule makes of what was sent; no message without a 250
// is there; no .tmp file is left; the process holds the descriptors it
// held before, and (without a sanitizer) its resident size is within 8
// MiB of what it was; and the listener still takes a message.
//
// Everything is seeded, so a failure reproduces. Under a sanitizer or as
// a 32-bit program the run has 100 clients and messages up to 1 MB;
// QBSMTP_RELIABILITY_SCALE multiplies the message sizes.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "process_probe.h"
#include "support/load_peer.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

constexpr std::uint32_t seed = 20261123;
constexpr long resident_margin_kib = 8 * 1024;

struct LoadShape {
    int clients;
    std::size_t largest;  // bytes of the largest messages
};

LoadShape shape() {
    return light_run ? LoadShape{100, 1u << 20} : LoadShape{200, 5u << 20};
}

// Bytes of a line body: printable, high and NUL bytes, never CR or LF.
char line_byte(std::mt19937& random) {
    static const char alphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789 .,:;<>-=\t\xe8\xff";
    const unsigned roll = random() % 64;
    if (roll == 0) return '\0';
    return alphabet[roll % (sizeof alphabet - 1)];
}

// One line, without its CR LF, of a kind picked at random. A line is never
// exactly "." (that would end the text) and never holds CR LF.
std::string make_line(std::mt19937& random, std::size_t room) {
    std::string line;
    auto fill = [&](std::size_t n) {
        for (std::size_t i = 0; i < n; ++i) line += line_byte(random);
    };
    switch (random() % 12) {
        case 0:  // a leading dot, dropped on reception
            line = ".";
            fill(1 + random() % 60);
            break;
        case 1:  // a doubled dot, one of them dropped
            line = "..";
            fill(random() % 60);
            break;
        case 2:  // bare LFs, one with a dot behind it (an ordinary byte)
            fill(1 + random() % 30);
            line += "\n.x\n";
            fill(random() % 30);
            break;
        case 3:  // bare CRs, one at the line's end
            fill(1 + random() % 30);
            line += "\rz";
            fill(random() % 30);
            line += '\r';
            break;
        case 4:  // an empty line
            break;
        case 5:  // a dot and a CR: the CR stays
            line = ".\r";
            break;
        case 6:  // a line of 100 KB, where there is room for it
            fill(room > (200u << 10) ? 100u << 10 : 1 + random() % 200);
            break;
        default:
            fill(1 + random() % 120);
            break;
    }
    // A line of one dot byte would be the end marker: the client stuffs it.
    if (line == ".") line = "..";
    return line;
}

// The bytes sent behind the 354, end marker included, for a text of about
// size bytes; tag opens it, so it can be told apart.
std::string wire_text(std::mt19937& random, std::size_t size, const std::string& tag) {
    if (size == 0) return ".\r\n";
    std::string wire = "Message-Id: <" + tag + "@load.test>\r\n";
    while (wire.size() < size) {
        wire += make_line(random, size - wire.size());
        wire += "\r\n";
    }
    return wire + ".\r\n";
}

// What the spool file holds behind its trace headers for wire, by the
// dot rule: the text is cut into lines at each CR LF (and nowhere else),
// a line "." ends it, every other line loses one leading dot, and the
// lines are joined with CR LF (none behind the last).
std::string stored_form(const std::string& wire) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = wire.find("\r\n", start);
        if (end == std::string::npos) break;
        lines.push_back(wire.substr(start, end - start));
        start = end + 2;
    }
    std::string stored;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i] == ".") return stored;
        if (i > 0) stored += "\r\n";
        stored += lines[i][0] == '.' ? lines[i].substr(1) : lines[i];
    }
    ADD_FAILURE() << "no end marker in the model's input";
    return stored;
}

// A message size from 0 B to largest: a few empty and a few of the
// largest, the rest spread evenly over the orders of magnitude.
std::size_t message_size(std::mt19937& random, int client, std::size_t largest) {
    if (client % 50 == 1) return 0;
    if (client % 40 == 0) return largest;
    const double exponent = std::uniform_real_distribution<double>(4.0, 20.0)(random);
    return static_cast<std::size_t>(std::min<double>(std::exp2(exponent), largest) * run_scale());
}

struct Message {
    std::string sender;  // unique: it stands in the spool file's Return-Path
    std::string wire;
    std::string stored;
    std::size_t cut = std::string::npos;  // a dropper sends only wire[0, cut)
    bool reset = false;                   // the dropper resets the connection
    std::atomic<bool> acknowledged{false};
    std::atomic<bool> refused{false};  // any other reply to the end marker
    std::string failure;               // a reply of the envelope that was not expected
};

struct Client {
    Message messages[2];
    bool drops = false;  // drops its connection inside the second message
};

// Runs one client: greeting, HELO, then its two messages.
void run_client(std::uint16_t port, int index, Client& client, std::atomic<int>& attempts,
                std::atomic<int>& unreachable) {
    LoadPeer peer;
    int tries = 0;
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    const bool opened = peer.open(port, give_up, tries);
    attempts += tries;
    if (!opened) {
        ++unreachable;
        return;
    }
    peer.command("HELO client" + std::to_string(index));
    for (Message& message : client.messages) {
        // What went wrong, for the failure message.
        auto expect = [&message](const std::string& reply, const std::string& wanted) {
            if (reply.rfind(wanted, 0) == 0) return true;
            message.failure = "got \"" + reply + "\", not " + wanted;
            return false;
        };
        if (!expect(peer.command("MAIL FROM:<" + message.sender + ">"), "250 OK\r\n")) break;
        if (!expect(peer.command("RCPT TO:<fax@example.test>"), "250 recipient OK\r\n")) break;
        if (!expect(peer.command("DATA"), "354 ")) break;
        if (message.cut != std::string::npos) {
            peer.send(std::string_view(message.wire).substr(0, message.cut));
            peer.close(message.reset);
            return;
        }
        if (!peer.send(message.wire)) {
            message.failure = "the text could not be sent";
            break;
        }
        const std::string reply = peer.read_reply();
        (reply == "250 Mail accepted\r\n" ? message.acknowledged : message.refused) = true;
    }
    peer.command("QUIT");
    peer.drain();
}

// Every .822 file in the spool by the sender in its Return-Path line.
std::map<std::string, std::vector<std::string>> spool_by_sender(const ReceptionFixture& module) {
    std::map<std::string, std::vector<std::string>> found;
    for (const auto& path : module.spool_files(".822")) {
        const std::string text = read_whole_file(path);
        const std::size_t open = text.find('<');
        const std::size_t close = text.find(">\r\n");
        const std::string sender =
            open != std::string::npos && close != std::string::npos && open < close
                ? text.substr(open + 1, close - open - 1)
                : path;
        found[sender].push_back(body_behind_trace_headers(text));
    }
    return found;
}

TEST(Load, TwoHundredClientsWithDropsLoseNothingAndLeakNothing) {
    const LoadShape load = shape();
    ReceptionFixture module("\"SessionTimeout\"=dword:0000003c");  // 60 s

    // The messages, made before the baseline is taken.
    std::vector<Client> clients(static_cast<std::size_t>(load.clients));
    std::size_t total_bytes = 0;
    for (int c = 0; c < load.clients; ++c) {
        std::mt19937 random(seed + static_cast<std::uint32_t>(c));
        Client& client = clients[static_cast<std::size_t>(c)];
        client.drops = c % 5 == 4;
        for (int m = 0; m < 2; ++m) {
            Message& message = client.messages[m];
            message.sender = "c" + std::to_string(c) + "m" + std::to_string(m) + "@load.test";
            const std::size_t size =
                m == 0 || client.drops ? message_size(random, c, load.largest) : random() % 4096;
            message.wire = wire_text(random, size, message.sender);
            message.stored = stored_form(message.wire);
            total_bytes += message.wire.size();
        }
        if (client.drops) {
            Message& dropped = client.messages[1];
            // Anywhere before the last byte of the end marker.
            dropped.cut = random() % (dropped.wire.size() - 1);
            dropped.reset = random() % 2 == 0;
        }
    }

    // Baseline: once a first session has come and gone, the listener's
    // socket is open and the module has made what it keeps.
    {
        auto first = module.connect();
        first->command("QUIT");
        first->read_to_close();
    }
    ASSERT_TRUE(wait_for_no_sessions(30));
    ::malloc_trim(0);
    const int descriptors_before = open_descriptors();
    const long resident_before = resident_kib();

    std::atomic<int> attempts{0};
    std::atomic<int> unreachable{0};
    {
        std::vector<std::thread> threads;
        for (int c = 0; c < load.clients; ++c) {
            threads.emplace_back(run_client, module.port(), c,
                                 std::ref(clients[static_cast<std::size_t>(c)]), std::ref(attempts),
                                 std::ref(unreachable));
        }
        for (auto& t : threads) t.join();
    }
    ASSERT_TRUE(wait_for_no_sessions(120)) << sessions_running.load() << " sessions still run";
    EXPECT_EQ(unreachable.load(), 0) << "clients that never got a greeting";

    // Descriptors and memory, before the test reads the spool itself.
    ::malloc_trim(0);
    EXPECT_EQ(open_descriptors(), descriptors_before) << descriptor_list();
    const long resident_growth = resident_kib() - resident_before;
    if (resident_size_meaningful) {
        EXPECT_LT(resident_growth, resident_margin_kib)
            << "resident size grew by " << resident_growth << " KiB";
    }

    // Exactly once and byte for byte, for every 250; nothing for the rest.
    const auto spool = spool_by_sender(module);
    int acknowledged = 0;
    std::size_t acknowledged_bytes = 0;
    for (const Client& client : clients) {
        for (const Message& message : client.messages) {
            SCOPED_TRACE(message.sender);
            const auto found = spool.find(message.sender);
            const std::size_t copies = found == spool.end() ? 0 : found->second.size();
            if (message.acknowledged) {
                ++acknowledged;
                acknowledged_bytes += message.stored.size();
                ASSERT_EQ(copies, 1u);
                EXPECT_TRUE(found->second[0] == message.stored)
                    << "stored " << found->second[0].size() << " bytes, expected "
                    << message.stored.size();
            } else {
                EXPECT_EQ(copies, 0u);
                // Only the drops go without a 250.
                EXPECT_NE(message.cut, std::string::npos)
                    << "refused: " << message.refused.load() << "; " << message.failure;
            }
        }
    }
    EXPECT_EQ(spool.size(), static_cast<std::size_t>(acknowledged));
    EXPECT_EQ(acknowledged, load.clients * 2 - load.clients / 5);
    EXPECT_TRUE(module.spool_files(".tmp").empty());

    // The listener still answers.
    {
        auto after = module.connect();
        EXPECT_EQ(transmit(*after, "after the load\r\n.\r\n"), "250 Mail accepted\r\n");
        after->command("QUIT");
        after->read_to_close();
    }
    ASSERT_TRUE(wait_for_no_sessions(30));
    EXPECT_EQ(module.spool_files(".822").size(), static_cast<std::size_t>(acknowledged) + 1);

    std::printf(
        "load: %d clients, %d messages acknowledged (%zu bytes stored), %zu bytes sent, "
        "%d dropped, %d connection attempts, resident growth %ld KiB\n",
        load.clients, acknowledged, acknowledged_bytes, total_bytes, load.clients / 5,
        attempts.load(), resident_growth);
    RecordProperty("clients", load.clients);
    RecordProperty("acknowledged", acknowledged);
    RecordProperty("bytes_sent", std::to_string(total_bytes));
    RecordProperty("connection_attempts", attempts.load());
}

}  // namespace
}  // namespace qbsmtp::test
