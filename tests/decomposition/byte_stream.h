// byte_stream.h: a ParseContext whose input is a Stream over given bytes
// (a temporary file opened "rb"), for tests of the header readers.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "decomposition/parse_context.h"
#include "frame/stream.h"

namespace qbsmtp::testing {

class ByteStream {
  public:
    explicit ByteStream(const std::string& bytes) {
        path_ = std::filesystem::temp_directory_path() /
                ("qbsmtp_bytes_" + std::to_string(std::random_device{}()) + "_" +
                 std::to_string(counter_++));
        std::ofstream(path_, std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        context_.input = Stream::open(path_.string().c_str(), "rb");
        EXPECT_NE(context_.input, nullptr) << path_;
    }
    ~ByteStream() {
        if (context_.input != nullptr) context_.input->close();
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    ByteStream(const ByteStream&) = delete;
    ByteStream& operator=(const ByteStream&) = delete;

    ParseContext& context() { return context_; }
    // Everything the readers left in the stream.
    std::string rest() {
        std::string out;
        for (int c; (c = context_.input->getc()) != Stream::eof;) out += static_cast<char>(c);
        return out;
    }

  private:
    static inline int counter_ = 0;
    std::filesystem::path path_;
    ParseContext context_;
};

// Shows control bytes in failure messages.
inline std::string visible(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c == '\r')
            out += "\\r";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (c < 32 || c >= 127)
            out += "\\x" + std::to_string(c);
        else
            out += static_cast<char>(c);
    }
    return out;
}

}  // namespace qbsmtp::testing
