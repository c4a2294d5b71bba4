// spool_fixture.h: a module set up for decomposition, as SMTPRecvInit
// leaves it but without a listener: a fresh prefix with an event source, a
// spool directory with its mime directory, and the MIME type map loaded
// from a small types file of the test's own. For the large-message and
// hostile-spool tests, which write their own spool files; the golden cases
// have a runner of their own (decomposition_cases_test.cpp).
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

#include "decomposition/mime_type_map.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"
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

    // The entries of the record's attachments.
    std::vector<std::string> attachments() const {
        std::vector<std::string> entries;
        for (const char* p = record.attachments; p != nullptr && *p != '\0';
             p += std::string(p).size() + 1) {
            entries.emplace_back(p);
        }
        return entries;
    }
};

}  // namespace qbsmtp::test
