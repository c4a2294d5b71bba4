// spool_fixture.h: a module set up for decomposition, as SMTPRecvInit
// leaves it but without a listener: a fresh prefix with an event source, a
// spool directory with its mime directory, and the MIME type map loaded
// from a small types file of the test's own. Helpers write spool files,
// run the body readers over given bytes and read back what they made.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "decomposition/mime_type_map.h"
#include "decomposition/parse_context.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "frame/stream.h"
#include "platform/os.h"
#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "support/event_log.h"
#include "support/temp_prefix.h"

namespace qbsmtp::test {

// The types the map knows in these tests; nothing else has an extension.
inline constexpr const char* test_mime_types =
    "text/plain txt asc\n"
    "text/html html htm\n"
    "application/pdf pdf\n"
    "image/gif gif\n";

// Message text with "\n" line ends turned into CR LF.
inline std::string crlf(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '\n') out += '\r';
        out += c;
    }
    return out;
}

// RFC 2045 base64 of bytes, in lines of 76 characters ended by CR LF.
inline std::string base64(const std::string& bytes) {
    static const char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = bytes.size() - i < 3 ? bytes.size() - i : 3;
        unsigned bits = 0;
        for (std::size_t j = 0; j < 3; ++j)
            bits = bits << 8 | (j < n ? static_cast<unsigned char>(bytes[i + j]) : 0u);
        for (std::size_t j = 0; j < 4; ++j)
            encoded += j <= n ? alphabet[(bits >> (18 - 6 * j)) & 63] : '=';
        if (i % 57 == 54 || i + 3 >= bytes.size()) encoded += "\r\n";
    }
    return encoded;
}

// Bytes of every value, in a pattern of the given length.
inline std::string binary_bytes(std::size_t length, unsigned seed = 1) {
    std::string bytes(length, '\0');
    unsigned state = seed;
    for (char& c : bytes) {
        state = state * 1103515245u + 12345u;
        c = static_cast<char>(state >> 16);
    }
    return bytes;
}

class SpoolFixture : public ::testing::Test {
  protected:
    TempPrefix prefix;
    std::string spool = prefix.file("spool");
    std::string mime = spool + os::path_separator + "mime";
    unsigned char ranks[QBSMTP_SUBTYPE_COUNT] = {};
    MailRecord record{};

    void SetUp() override {
        prefix.write("mime.types", test_mime_types);
        setenv("QBSMTP_MIME_TYPES", prefix.file("mime.types").c_str(), 1);
        os::set_module_resources(module_resources());
        event_reporter.source_handle = os::RegisterEventSourceA(nullptr, "QBSMTP");
        ASSERT_NE(event_reporter.source_handle, nullptr);
        spool_dir = spool.c_str();
        mime_dir = mime.c_str();
        ASSERT_EQ(ensure_directory(mime_dir), 1);
        mime_type_map.load();
        for (int i = 0; i < QBSMTP_SUBTYPE_COUNT; ++i) ranks[i] = 10;
        record.subtype_rank = ranks;
    }
    void TearDown() override {
        os::fault_clear();
        free_record();
        event_reporter.close();
    }

    void free_record() {
        for (char* block :
             {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
              record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments}) {
            if (block != nullptr) os::LocalFree(block);
        }
        const unsigned char* kept = record.subtype_rank;
        record = MailRecord{};
        record.subtype_rank = kept;
    }

    // A spool file as intake writes it: the two trace lines, then the
    // message; CR LF line ends and no line end behind the last line.
    std::string spool_message(const std::string& message, const std::string& name = "rx000001") {
        const std::string path = spool + os::path_separator + name + ".822";
        write_file(path,
                   "Return-Path: <bounce@sender.example>\r\n"
                   "Received: from a by b with SMTP ; 18 Nov 2026 12:00:05 +0100\r\n" +
                       message);
        return path;
    }

    // The entries of the record's attachments.
    std::vector<std::string> attachments() const {
        std::vector<std::string> entries;
        for (const char* p = record.attachments; p != nullptr && *p != '\0';
             p += std::string(p).size() + 1) {
            entries.emplace_back(p);
        }
        return entries;
    }
    std::vector<std::string> attachment_contents() const {
        std::vector<std::string> contents;
        for (const std::string& path : attachments()) contents.push_back(read_file(path));
        return contents;
    }
    // Every file now under mime_dir.
    std::vector<std::string> mime_files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(mime))
            names.push_back(entry.path().string());
        return names;
    }

    // The insertion strings of the one event with this id.
    static std::vector<std::string> only_event(std::uint32_t id) {
        const auto events = events_with_id(id);
        EXPECT_EQ(events.size(), 1u) << "events with id " << std::hex << id;
        return events.empty() ? std::vector<std::string>{} : events.front().strings;
    }
};

// A ParseContext over given input bytes with an open output file under the
// mime directory, for the body readers one by one.
class BodyContext {
  public:
    BodyContext(const std::string& directory, const std::string& input)
        : input_path_(directory + "/input.bin"), output_path_(directory + "/output.bin") {
        write_file(input_path_, input);
        context.record = &record_;
        context.message_path = input_path_.c_str();
        context.input = Stream::open(input_path_.c_str(), "rb");
        context.output_path = output_path_.c_str();
        context.output = Stream::open(output_path_.c_str(), "wb");
        EXPECT_NE(context.input, nullptr);
        EXPECT_NE(context.output, nullptr);
    }
    ~BodyContext() { close(); }

    void close() {
        if (context.input != nullptr) context.input->close();
        if (context.output != nullptr) context.output->close();
        context.input = nullptr;
        context.output = nullptr;
    }
    // What was written, once the output is closed.
    std::string output() {
        if (context.output != nullptr) context.output->close();
        context.output = nullptr;
        return read_file(output_path_);
    }
    // What the reader left in the input.
    std::string rest() {
        std::string out;
        for (int c; (c = context.input->getc()) != Stream::eof;) out += static_cast<char>(c);
        return out;
    }

    ParseContext context;

  private:
    std::string input_path_;
    std::string output_path_;
    MailRecord record_{};
};

// Shows control bytes in failure messages.
inline std::string visible(const std::string& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : bytes) {
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 32 || c >= 127) {
            out += "\\x";
            out += digits[c >> 4];
            out += digits[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

}  // namespace qbsmtp::test
