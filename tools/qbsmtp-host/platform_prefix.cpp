// platform_prefix.cpp: prefix resolution and the services file.
#include "platform_prefix.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <system_error>
#include <vector>

namespace qbsmtp::host {

namespace {

namespace fs = std::filesystem;

// Splits a services line "name port/protocol aliases... # comment" into
// its name and port/protocol; false for blank and comment lines.
bool split_service_line(const std::string& line, std::string& name, std::string& port_protocol) {
    std::istringstream words(line.substr(0, line.find('#')));
    return static_cast<bool>(words >> name >> port_protocol);
}

// The port of an "smtp N/tcp" entry, or nothing for any other line.
std::optional<int> smtp_tcp_port(const std::string& line) {
    std::string name, port_protocol;
    if (!split_service_line(line, name, port_protocol) || name != "smtp") return std::nullopt;
    const auto slash = port_protocol.find('/');
    if (slash == std::string::npos || port_protocol.substr(slash + 1) != "tcp") return std::nullopt;
    const std::string digits = port_protocol.substr(0, slash);
    if (digits.empty() || digits.size() > 5 ||
        digits.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    const int port = std::stoi(digits);
    if (port < 1 || port > 65535) return std::nullopt;
    return port;
}

// The whole file into original, which stays empty when there is no file.
bool keep_original(const fs::path& path, std::optional<std::string>& original, std::string& error) {
    original.reset();
    std::error_code failure;
    if (!fs::exists(path, failure)) return true;
    std::ifstream input(path, std::ios::binary);
    std::stringstream bytes;
    bytes << input.rdbuf();
    if (!input) {
        error = "cannot read " + path.string();
        return false;
    }
    original = bytes.str();
    return true;
}

}  // namespace

Prefix resolve_prefix() {
    Prefix prefix;
    const char* explicit_prefix = std::getenv("QBSMTP_PREFIX");
    if (explicit_prefix != nullptr && *explicit_prefix != '\0') {
        prefix.directory = explicit_prefix;
        return prefix;
    }
    const char* home = std::getenv("HOME");
    prefix.directory = fs::path(home != nullptr && *home != '\0' ? home : ".") / ".qbsmtp";
    prefix.is_default = true;
    return prefix;
}

std::optional<int> read_smtp_port(const fs::path& services) {
    std::ifstream input(services);
    std::string line;
    while (std::getline(input, line)) {
        if (auto port = smtp_tcp_port(line)) return port;
    }
    return std::nullopt;
}

bool write_smtp_port(const fs::path& services, int port, std::string& error) {
    std::vector<std::string> kept;
    {
        std::ifstream input(services);
        std::string line;
        while (std::getline(input, line)) {
            if (!smtp_tcp_port(line)) kept.push_back(line);
        }
    }
    std::error_code failure;
    fs::create_directories(services.parent_path(), failure);
    // Written beside and renamed over, so the module never reads half a file.
    const fs::path temporary = services.string() + ".new";
    {
        std::ofstream output(temporary, std::ios::trunc);
        output << "smtp " << port << "/tcp\n";
        for (const auto& line : kept) output << line << '\n';
        output.flush();
        if (!output) {
            error = "cannot write " + temporary.string();
            return false;
        }
    }
    fs::rename(temporary, services, failure);
    if (failure) {
        error = "cannot replace " + services.string() + ": " + failure.message();
        fs::remove(temporary, failure);
        return false;
    }
    return true;
}

bool TemporarySmtpPort::apply(const fs::path& services, int port, std::string& error) {
    restore();
    if (!keep_original(services, original_, error)) return false;
    if (!write_smtp_port(services, port, error)) return false;
    services_ = services;
    applied_ = true;
    return true;
}

void TemporarySmtpPort::restore() {
    if (!applied_) return;
    applied_ = false;
    std::error_code failure;
    if (!original_) {
        fs::remove(services_, failure);
        return;
    }
    const fs::path temporary = services_.string() + ".new";
    {
        std::ofstream output(temporary, std::ios::binary | std::ios::trunc);
        output << *original_;
    }
    fs::rename(temporary, services_, failure);
}

bool TemporarySettings::apply(const fs::path& registry, const std::string& lines,
                              std::string& error) {
    restore();
    struct stat status {};
    if (::stat(registry.c_str(), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0)
        std::cerr << "qbsmtp-host: warning: " << registry.string()
                  << " is readable by other users (chmod 600 it)\n";
    if (!keep_original(registry, original_, error)) return false;
    std::error_code failure;
    fs::create_directories(registry.parent_path(), failure);
    const int fd = ::open(registry.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string text = (original_ ? *original_ : std::string("REGEDIT4\n")) +
                             "\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM]\n" + lines;
    if (fd < 0 || ::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        if (fd >= 0) ::close(fd);
        error = "cannot write " + registry.string();
        return false;
    }
    ::close(fd);
    registry_ = registry;
    applied_ = true;
    return true;
}

void TemporarySettings::restore() {
    if (!applied_) return;
    applied_ = false;
    std::error_code failure;
    if (!original_) {
        fs::remove(registry_, failure);
        return;
    }
    const int fd = ::open(registry_.c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0) return;
    if (::write(fd, original_->data(), original_->size()) < 0) {
        // Nothing better to do: the file keeps the added lines.
    }
    ::close(fd);
}

std::string registry_text_line(const std::string& name, const std::string& value) {
    std::string escaped;
    for (char c : value) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c;
    }
    return "\"" + name + "\"=\"" + escaped + "\"\n";
}

int effective_smtp_port(const Prefix& prefix) {
    if (auto port = read_smtp_port(prefix.services())) return *port;
    if (auto port = read_smtp_port("/etc/services")) return *port;
    return 25;
}

}  // namespace qbsmtp::host
