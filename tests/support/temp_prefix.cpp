// temp_prefix.cpp: the temporary platform prefix of a test.
#include "support/temp_prefix.h"

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qbsmtp::test {

TempPrefix::TempPrefix() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qbsmtp-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
    setenv("QBSMTP_PREFIX", path_.c_str(), 1);
}

TempPrefix::~TempPrefix() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TempPrefix::write(const std::string& name, const std::string& content) const {
    write_file(!name.empty() && name[0] == '/' ? name : file(name), content);
}

std::string TempPrefix::read(const std::string& name) const {
    return read_file(!name.empty() && name[0] == '/' ? name : file(name));
}

void write_file(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + path);
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace qbsmtp::test
