// temp_prefix.h: a fresh temporary directory for a test, set as the
// platform prefix (QBSMTP_PREFIX) and removed with everything in it at the
// end of the test.
//
// Every TEST runs in a process of its own, and the platform layer reads
// QBSMTP_PREFIX at its first use in the process; so make the TempPrefix
// before the test touches the module.
#pragma once

#include <string>

namespace qbsmtp::test {

class TempPrefix {
  public:
    TempPrefix();
    ~TempPrefix();
    TempPrefix(const TempPrefix&) = delete;
    TempPrefix& operator=(const TempPrefix&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + name.
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Writes a file below the prefix (or anywhere, given an absolute name).
    void write(const std::string& name, const std::string& content) const;
    // The content of a file below the prefix; empty if it cannot be read.
    std::string read(const std::string& name) const;

  private:
    std::string path_;
};

// Writes content to path, replacing the file.
void write_file(const std::string& path, const std::string& content);
// The content of the file at path; empty if it cannot be read.
std::string read_file(const std::string& path);

}  // namespace qbsmtp::test
