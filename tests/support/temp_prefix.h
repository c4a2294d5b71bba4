// temp_prefix.h: a fresh temporary directory for a test, set as the
// platform prefix (QBSMTP_PREFIX) and removed with everything in it at the
// end of the test; and whole files written and read.
//
// Every TEST runs in a process of its own, and the platform layer reads
// QBSMTP_PREFIX at its first use in the process; so make the TempPrefix
// before the test touches the module. On Windows it also gives the process
// registry roots of its own (HKEY_LOCAL_MACHINE and HKEY_CLASSES_ROOT,
// win32_compat.cpp), so tests that run at once never share settings.
#pragma once

#include <stdlib.h>

#include <cstdint>
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
#ifdef _WIN32
        private_registry(path_.substr(path_.rfind('-') + 1).c_str());
#endif
    }
    ~TempPrefix() {
#ifdef _WIN32
        private_registry(nullptr);
#endif
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempPrefix(const TempPrefix&) = delete;
    TempPrefix& operator=(const TempPrefix&) = delete;

    const std::string& path() const {
        return path_;
    }
    // path() + separator + name (the module's separator, which it looks
    // for in names); an absolute name as it stands.
    std::string file(const std::string& name) const {
#ifdef _WIN32
        if (name.size() > 1 && name[1] == ':') return name;
        return path_ + "\\" + name;
#else
        return name.starts_with('/') ? name : path_ + "/" + name;
#endif
    }
    void write(const std::string& name, const std::string& content) const {
        write_file(file(name), content);
    }
    std::string read(const std::string& name) const {
        return read_file(file(name));
    }

  private:
    std::string path_;
};

// Writes REGEDIT4 text (keys under HKEY_LOCAL_MACHINE or HKEY_CLASSES_ROOT,
// string and dword values) through the module's platform layer, so the
// module reads it back on every backend.
void write_registry(const std::string& text);
// After attach: the module's smtp service on port, whatever the system's
// services file says (Windows has one services file for every process).
void serve_smtp_on(std::uint16_t port);

}  // namespace qbsmtp::test
