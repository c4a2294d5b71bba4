// os_posix_netdb.cpp: WSAStartup and the name services: gethostname,
// gethostbyname, getservbyname.
//
// gethostbyname resolves through getaddrinfo (IPv4 only), so it is
// thread-safe; its entry lives in thread-local storage until the same
// thread calls again, as Winsock's does. getservbyname reads the services
// files itself, because the C library's getservbyname is not thread-safe:
// first $PREFIX/services, then the system's (QBSMTP_SYSTEM_SERVICES, else
// /etc/services), both in the format of /etc/services, read once. Names and
// protocols compare ignoring ASCII case. Each entry is made once and never
// freed, so the pointer returned for a service stays valid and is the same
// at every call.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"
#include "platform/os_posix_net_native.h"

namespace qbsmtp::os {
namespace {

constexpr std::size_t max_host_addresses = 16;

// ---- Hosts -------------------------------------------------------------------

struct HostEntry {
    std::string name;
    char* aliases[1] = {nullptr};
    std::uint32_t addresses[max_host_addresses] = {};
    char* address_list[max_host_addresses + 1] = {};
    hostent entry{};
};

thread_local HostEntry host_entry;

// ---- Services ----------------------------------------------------------------

struct ServiceRecord {
    std::string name;
    std::vector<std::string> aliases;
    std::string protocol;
    std::vector<char*> alias_pointers;  // null-terminated, into aliases
    servent entry{};
};

struct Services {
    std::once_flag loaded;
    std::deque<ServiceRecord> records;  // a deque keeps every record in place
};

Services& services() {
    static auto* instance = new Services;  // never freed: entries outlive every caller
    return *instance;
}

bool equal_folded(const char* a, const std::string& b) {
    std::size_t length = std::strlen(a);
    if (length != b.size()) return false;
    for (std::size_t i = 0; i < length; ++i)
        if (posix::fold_ascii(a[i]) != posix::fold_ascii(b[i])) return false;
    return true;
}

// "name port/protocol aliases... # comment", one a line.
void read_services_file(const std::string& path, std::deque<ServiceRecord>& records) {
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::size_t hash = line.find('#');
        if (hash != std::string::npos) line.resize(hash);
        std::istringstream words(line);
        std::string name;
        std::string port_protocol;
        if (!(words >> name >> port_protocol)) continue;
        std::size_t slash = port_protocol.find('/');
        if (slash == std::string::npos || slash == 0 || slash + 1 == port_protocol.size()) continue;
        char* end = nullptr;
        long port = std::strtol(port_protocol.c_str(), &end, 10);
        if (end != port_protocol.c_str() + slash || port < 0 || port > 65535) continue;
        ServiceRecord& record = records.emplace_back();
        record.name = name;
        record.protocol = port_protocol.substr(slash + 1);
        for (std::string alias; words >> alias;) record.aliases.push_back(alias);
        for (std::string& alias : record.aliases) record.alias_pointers.push_back(alias.data());
        record.alias_pointers.push_back(nullptr);
        record.entry.s_name = record.name.data();
        record.entry.s_aliases = record.alias_pointers.data();
        record.entry.s_port = static_cast<std::int16_t>(htons(static_cast<std::uint16_t>(port)));
        record.entry.s_proto = record.protocol.data();
    }
}

void load_services(Services& s) {
    read_services_file(posix::prefix_file("services"), s.records);
    const char* system = std::getenv("QBSMTP_SYSTEM_SERVICES");
    read_services_file(system != nullptr && *system != '\0' ? system : "/etc/services", s.records);
}

bool record_matches(const ServiceRecord& record, const char* name, const char* protocol) {
    if (protocol != nullptr && !equal_folded(protocol, record.protocol)) return false;
    if (equal_folded(name, record.name)) return true;
    for (const std::string& alias : record.aliases)
        if (equal_folded(name, alias)) return true;
    return false;
}

}  // namespace

int WSAStartup(WORD version, WSADATA* data) {
    if (fault_hit(Op::WSAStartup)) return static_cast<int>(GetLastError());
    if (data == nullptr) return WSAEFAULT;
    std::memset(data, 0, sizeof *data);
    constexpr WORD highest = 0x0202;  // 2.2
    data->wHighVersion = highest;
    BYTE major = static_cast<BYTE>(version & 0xFF);
    BYTE minor = static_cast<BYTE>(version >> 8);
    if (major < 1) {
        data->wVersion = highest;
        return WSAVERNOTSUPPORTED;
    }
    data->wVersion = (major > 2 || (major == 2 && minor > 2)) ? highest : version;
    std::strcpy(data->szDescription, "WinSock 2.0");
    std::strcpy(data->szSystemStatus, "Running");
    return 0;
}

int gethostname(char* name, int size) {
    if (fault_hit(Op::gethostname)) return SOCKET_ERROR;
    std::string own;
    if (name == nullptr || size <= 0) {
        WSASetLastError(WSAEFAULT);
        return SOCKET_ERROR;
    }
    if (!posix::net::host_name(&own)) {
        WSASetLastError(posix::winsock_from_errno(errno));
        return SOCKET_ERROR;
    }
    if (own.size() + 1 > static_cast<std::size_t>(size)) {
        WSASetLastError(WSAEFAULT);
        return SOCKET_ERROR;
    }
    std::memcpy(name, own.c_str(), own.size() + 1);
    return 0;
}

hostent* gethostbyname(const char* name) {
    if (fault_hit(Op::gethostbyname)) return nullptr;
    std::string own;
    if (name == nullptr || *name == '\0') {
        // Winsock answers for the local machine here.
        if (!posix::net::host_name(&own)) {
            WSASetLastError(WSANO_RECOVERY);
            return nullptr;
        }
        name = own.c_str();
    }
    std::string canonical;
    std::vector<std::uint32_t> addresses;
    int result = posix::net::resolve_ipv4(name, &canonical, &addresses);
    if (result != 0) {
        WSASetLastError(posix::net::winsock_from_eai(result));
        return nullptr;
    }
    if (addresses.empty()) {
        WSASetLastError(WSANO_DATA);
        return nullptr;
    }
    HostEntry& host = host_entry;
    host.name = canonical.empty() ? std::string(name) : canonical;
    std::size_t count =
        addresses.size() < max_host_addresses ? addresses.size() : max_host_addresses;
    for (std::size_t i = 0; i < count; ++i) {
        host.addresses[i] = addresses[i];
        host.address_list[i] = reinterpret_cast<char*>(&host.addresses[i]);
    }
    host.address_list[count] = nullptr;
    host.aliases[0] = nullptr;
    host.entry.h_name = host.name.data();
    host.entry.h_aliases = host.aliases;
    host.entry.h_addrtype = AF_INET;
    host.entry.h_length = 4;
    host.entry.h_addr_list = host.address_list;
    return &host.entry;
}

servent* getservbyname(const char* name, const char* protocol) {
    if (fault_hit(Op::getservbyname)) return nullptr;
    if (name == nullptr) {
        WSASetLastError(WSAEFAULT);
        return nullptr;
    }
    Services& s = services();
    std::call_once(s.loaded, [&s] { load_services(s); });
    for (ServiceRecord& record : s.records)
        if (record_matches(record, name, protocol)) return &record.entry;
    WSASetLastError(WSANO_DATA);
    return nullptr;
}

}  // namespace qbsmtp::os
