// port_owner.cpp: /proc/net/tcp{,6} and the descriptors of processes.
#include "port_owner.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <vector>

namespace qbsmtp::host {

namespace {

namespace fs = std::filesystem;

constexpr const char* listen_state = "0A";  // TCP_LISTEN in /proc/net/tcp

// The inodes of the sockets listening on port, IPv4 and IPv6.
std::vector<std::string> listening_inodes(int port) {
    std::vector<std::string> inodes;
    for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        std::ifstream input(table);
        std::string line;
        std::getline(input, line);  // the heading
        while (std::getline(input, line)) {
            std::istringstream fields(line);
            std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
            if (!(fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >>
                  uid >> timeout >> inode))
                continue;
            const auto colon = local.rfind(':');
            if (state != listen_state || colon == std::string::npos) continue;
            if (std::stoi(local.substr(colon + 1), nullptr, 16) == port) inodes.push_back(inode);
        }
    }
    return inodes;
}

// Some descriptor in directory (a /proc/PID/fd) is one of the sockets.
bool holds_socket(const fs::path& directory, const std::vector<std::string>& inodes) {
    std::error_code failure;
    for (const auto& entry : fs::directory_iterator(directory, failure)) {
        const std::string target = fs::read_symlink(entry.path(), failure).string();
        for (const auto& inode : inodes)
            if (!failure && target == "socket:[" + inode + "]") return true;
    }
    return false;
}

}  // namespace

bool this_process_listens(int port) {
    const auto inodes = listening_inodes(port);
    return !inodes.empty() && holds_socket("/proc/self/fd", inodes);
}

std::string port_listener(int port) {
    const auto inodes = listening_inodes(port);
    if (inodes.empty()) return {};
    std::error_code failure;
    for (const auto& entry : fs::directory_iterator("/proc", failure)) {
        const std::string pid = entry.path().filename().string();
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        if (!holds_socket(entry.path() / "fd", inodes)) continue;
        std::string name;
        std::getline(std::ifstream(entry.path() / "comm"), name);
        return "pid " + pid + " (" + name + ")";
    }
    return "a process this user cannot see";
}

}  // namespace qbsmtp::host
