// Plays each dialogue of tests/data/dialogue against the running module
// over loopback, and compares the replies, the files left in the spool
// directory and the events with what the dialogue expects.
//
// Lines of a dialogue (texts as in support/transcript.h):
//   setting LINE     a line of .reg text for the settings key
//   tz ZONE          the TZ of the run (default XXX-1, one hour east)
//   mask HEX         SMTPSetLogging with this mask, before the first client
//   C TEXT / c TEXT  the client sends TEXT with CR LF / as it stands;
//                    consecutive lines go out in one send
//   S TEXT           the next line the server sends is TEXT and CR LF
//   close            the client ends its sending direction
//   connect          the client closes (held ones too); a new one connects
//   hold             the client stays open, untouched, until the next
//                    connect or the end; a new one connects
//   fault OP N ERROR [always] / nofault
//                    the Nth call of OP from now on fails with ERROR
//   file NAME, F TEXT
//                    a file below the spool directory and its lines,
//                    joined by CR LF (the last has none). rx#1, rx#2 ...
//                    stand for the spool names in the order of their
//                    numbers; every file not listed must be absent
//   event TEXT       the next event: its id and insertion strings joined
//                    by " | ", SPOOL for the spool directory; every event
//                    not listed must be absent (debug texts aside)
//   starttls         the client's TLS handshake (trusting the test CA,
//                    checking the name localhost); the connection's
//                    later lines go through it
// {certs} in any line stands for a directory of certificates that
// tests/support/make_certs.sh makes for the case; a case that uses it or
// starttls is skipped in a build without TLS.
// At the end of each connection the client ends its sending direction,
// and the server must then close without a further byte.

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>

#include "frame/smtp_stream.h"
#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "support/reception_fixture.h"
#include "support/transcript.h"

namespace qbsmtp::test {
namespace {

// Spool names rxNNNNNN as rx#1, rx#2 ... in the order of their numbers,
// which count up from a start drawn at random (and may wrap at a million).
void label_spool_names(std::initializer_list<std::vector<std::string>*> lists) {
    const std::regex name("rx(\\d{6})");
    std::vector<long> numbers;
    for (const auto* list : lists)
        for (const std::string& text : *list)
            for (std::sregex_iterator m(text.begin(), text.end(), name), end; m != end; ++m)
                numbers.push_back(std::stol((*m)[1]));
    const auto [low, high] = std::minmax_element(numbers.begin(), numbers.end());
    const long wrap = !numbers.empty() && *high - *low > 500000 ? 500000 : 0;
    std::set<long> order;
    for (long& n : numbers) order.insert(n += n < wrap ? 1000000 : 0);
    auto number = numbers.begin();
    for (auto* list : lists)
        for (std::string& text : *list)
            for (std::size_t at = 0; (at = text.find("rx", at)) != std::string::npos; at += 2)
                if (std::regex_match(text.substr(at, 8), name))
                    text.replace(
                        at, 8,
                        "rx#" + std::to_string(std::distance(order.begin(), order.find(*number++)) +
                                               1));
}

class Dialogue : public ::testing::TestWithParam<std::string> {};

// The client's end of TLS over a test client's socket.
struct TlsClient {
    SmtpStream stream;
    os::TlsContext* context = nullptr;
    TlsClient(const SmtpTestClient& client, const std::string& ca_file) {
        char error[200] = "";
        stream.socket = static_cast<os::SOCKET>(client.fd());
        context = os::tls_client_context(ca_file.c_str(), true, error, sizeof error);
        EXPECT_TRUE(context != nullptr &&
                    stream.start_tls(context, false, "localhost", error, sizeof error))
            << error;
    }
    ~TlsClient() {
        stream.end_tls(false);
        os::tls_free_context(context);
    }
    std::string read_line() {
        std::string line;
        for (int c; !line.ends_with("\r\n") && (c = stream.get_byte()) >= 0;) line += char(c);
        return line;
    }
};

TEST_P(Dialogue, RepliesFilesAndEvents) {
    std::vector<TranscriptLine> lines = read_transcript(GetParam());
    std::unique_ptr<TempPrefix> certs;
    for (TranscriptLine& line : lines) {
        std::size_t at = line.text.find("{certs}");
        if (at == std::string::npos && line.tag != "starttls") continue;
        if (!os::tls_supported()) GTEST_SKIP() << "this build has no TLS";
        if (!certs) {
            certs = std::make_unique<TempPrefix>();
            ASSERT_EQ(
                std::system(
                    (QBSMTP_SOURCE_DIR "/tests/support/make_certs.sh " + certs->path()).c_str()),
                0);
        }
        for (; at != std::string::npos; at = line.text.find("{certs}"))
            line.text.replace(at, 7, certs->path());
    }
    std::string settings, zone = "XXX-1";
    for (const TranscriptLine& line : lines) {
        if (line.tag == "setting") settings += line.text + "\n";
        if (line.tag == "tz") zone = line.text;
    }
    if (!set_zone(zone)) GTEST_SKIP() << "the zone " << zone << " is not the system's";
    const std::time_t from = std::time(nullptr);
    ReceptionFixture module(settings);
    for (const TranscriptLine& line : lines)
        if (line.tag == "mask") SMTPSetLogging(std::stoul(line.text, nullptr, 16));
    std::map<std::string, std::string> expected_files;
    std::vector<std::string> expected_events;
    std::string* file = nullptr;
    auto client = std::make_unique<SmtpTestClient>(module.port());
    std::unique_ptr<TlsClient> tls;  // once the connection's starttls ran
    std::vector<std::unique_ptr<SmtpTestClient>> held;
    std::string pending;  // client lines not sent yet
    const auto flush = [&] {
        EXPECT_TRUE(pending.empty() ||
                    (tls ? tls->stream.put_text(pending.c_str()) && tls->stream.flush()
                         : client->send(pending)));
        pending.clear();
    };
    const auto end_connection = [&] {
        flush();
        // Under TLS, the server's close alert and then nothing.
        EXPECT_EQ(tls ? tls->read_line() : "", "") << "replies nobody expected";
        tls.reset();
        client->shutdown_write();
        EXPECT_EQ(client->read_to_close(), "") << "replies nobody expected";
    };
    for (const TranscriptLine& line : lines) {
        SCOPED_TRACE("line " + std::to_string(line.number) + ": " + line.tag + " " + line.text);
        if (line.tag == "C" || line.tag == "c") {
            pending += decode(line.text) + (line.tag == "C" ? "\r\n" : "");
        } else if (line.tag == "S") {
            flush();
            EXPECT_EQ(difference(line.text + "\\r\\n", tls ? tls->read_line() : client->read_line(),
                                 from, std::time(nullptr)),
                      "");
        } else if (line.tag == "starttls") {
            flush();
            tls = std::make_unique<TlsClient>(*client, certs->file("ca.pem"));
        } else if (line.tag == "close") {
            flush();
            client->shutdown_write();
        } else if (line.tag == "connect") {
            end_connection();
            held.clear();
            module.wait_idle();  // so that the sessions' events come in order
            client = std::make_unique<SmtpTestClient>(module.port());
        } else if (line.tag == "hold") {
            flush();
            held.push_back(std::move(client));
            client = std::make_unique<SmtpTestClient>(module.port());
        } else if (line.tag == "fault") {
            flush();
            arm_fault(line.text);
        } else if (line.tag == "nofault") {
            flush();
            os::fault_clear();
        } else if (line.tag == "file") {
            file = &expected_files[line.text];
        } else if (line.tag == "F") {
            ASSERT_NE(file, nullptr) << "F line before any file line";
            *file += line.text + "\\r\\n";
        } else if (line.tag == "event") {
            expected_events.push_back(line.text);
        }
    }
    end_connection();
    held.clear();
    module.wait_idle();
    os::fault_clear();
    const std::time_t to = std::time(nullptr);

    std::vector<std::string> events = event_lines(module.spool(), "SPOOL");
    std::vector<std::string> names, contents;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(module.spool())) {
        if (!entry.is_regular_file()) continue;
        names.push_back(std::filesystem::relative(entry.path(), module.spool()).generic_string());
        contents.push_back(read_file(entry.path().string()));
    }
    label_spool_names({&names, &events});
    for (std::size_t i = 0; i < names.size(); ++i) {
        SCOPED_TRACE("file " + names[i]);
        ASSERT_EQ(expected_files.count(names[i]), 1u) << "a file nobody expected";
        // The last line of a file has no CR LF of its own.
        const std::string& expected = expected_files[names[i]];
        EXPECT_EQ(difference(expected.substr(0, expected.size() - 4), contents[i], from, to), "");
    }
    EXPECT_EQ(names.size(), expected_files.size()) << "files expected but absent";
    expect_events(expected_events, events, from, to);
}

INSTANTIATE_TEST_SUITE_P(Data, Dialogue,
                         ::testing::ValuesIn(transcript_files(QBSMTP_SOURCE_DIR
                                                              "/tests/data/dialogue")),
                         [](const auto& info) { return transcript_name(info.param); });

}  // namespace
}  // namespace qbsmtp::test
