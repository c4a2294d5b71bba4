// temp_prefix.h: a fresh temporary directory for a test, set as the
// platform prefix (QBSMTP_PREFIX) and removed with everything in it at the
// end of the test; and whole files written and read.
//
// Every TEST runs in a process of its own, and the platform layer reads
// QBSMTP_PREFIX at its first use in the process; so make the TempPrefix
// before the test touches the module.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace qbsmtp::test {

// Writes content to path, replacing the file.
inline void write_file(const std::string& path, const std::string& content) {
    if (!(std::ofstream(path, std::ios::binary | std::ios::trunc) << content))
        throw std::runtime_error("cannot write " + path);
}

// The content of the file at path; empty if it cannot be read.
inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class TempPrefix {
  public:
    TempPrefix() : path_((std::filesystem::temp_directory_path() / "qbsmtp-test-XXXXXX").string()) {
        if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        ::setenv("QBSMTP_PREFIX", path_.c_str(), 1);
    }
    ~TempPrefix() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempPrefix(const TempPrefix&) = delete;
    TempPrefix& operator=(const TempPrefix&) = delete;

    const std::string& path() const { return path_; }
    // path() + "/" + name; an absolute name as it stands.
    std::string file(const std::string& name) const {
        return name.starts_with('/') ? name : path_ + "/" + name;
    }
    void write(const std::string& name, const std::string& content) const {
        write_file(file(name), content);
    }
    std::string read(const std::string& name) const { return read_file(file(name)); }

  private:
    std::string path_;
};

}  // namespace qbsmtp::test
