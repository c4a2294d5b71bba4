// os_win32_socket.cpp: Winsock 2: WSAStartup, names and services, and the
// calls of blocking stream sockets. Errors are Winsock's own, read with
// WSAGetLastError. SO_SNDTIMEO bounds send() only: unlike Linux, Windows
// does not apply it to connect(), which keeps the system's own time-out.
//
// Winsock keeps a gethostbyname or getservbyname entry in storage of the
// calling thread, which the next call on that thread overwrites and the
// thread's end frees. That is what os.h promises for gethostbyname; a
// service entry must stay valid for the life of the process (the module
// keeps smtp_service from attach on, and reads it from other threads), so
// getservbyname hands out a copy of its own, made once per distinct entry
// and never freed.
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "platform/os_win32_native.h"

namespace qbsmtp::os {
namespace {

struct ServiceCopy {
    servent entry;
    std::string name;
    std::string protocol;
    std::vector<std::string> aliases;
    std::vector<char*> alias_pointers;  // into aliases, null-terminated
};

std::mutex services_lock;

std::vector<ServiceCopy*>& service_copies() {
    static auto* copies = new std::vector<ServiceCopy*>;  // lives until the process ends
    return *copies;
}

bool same_service(const ServiceCopy& copy, const ::servent& native) {
    return copy.entry.s_port == native.s_port && copy.name == native.s_name &&
           copy.protocol == (native.s_proto != nullptr ? native.s_proto : "");
}

// The lasting copy of a Winsock service entry, or null without memory.
servent* lasting_service(const ::servent& native) {
    std::lock_guard lock(services_lock);
    for (ServiceCopy* copy : service_copies())
        if (same_service(*copy, native)) return &copy->entry;
    auto* copy = new (std::nothrow) ServiceCopy;
    if (copy == nullptr) return nullptr;
    try {
        copy->name = native.s_name != nullptr ? native.s_name : "";
        copy->protocol = native.s_proto != nullptr ? native.s_proto : "";
        for (char** alias = native.s_aliases; alias != nullptr && *alias != nullptr; ++alias)
            copy->aliases.emplace_back(*alias);
        for (std::string& alias : copy->aliases) copy->alias_pointers.push_back(alias.data());
        copy->alias_pointers.push_back(nullptr);
        service_copies().push_back(copy);
    } catch (const std::bad_alloc&) {
        delete copy;
        return nullptr;
    }
    copy->entry.s_name = copy->name.data();
    copy->entry.s_aliases = copy->alias_pointers.data();
    copy->entry.s_port = native.s_port;
    copy->entry.s_proto = copy->protocol.data();
    return &copy->entry;
}

::SOCKET native_socket(SOCKET s) {
    return static_cast<::SOCKET>(s);
}

const ::sockaddr* native_address(const sockaddr* address) {
    return reinterpret_cast<const ::sockaddr*>(address);
}

}  // namespace

int WSAStartup(WORD version, WSADATA* data) {
    if (fault_hit(Op::WSAStartup)) return static_cast<int>(GetLastError());
    ::WSADATA native;
    int result = ::WSAStartup(version, &native);
    if (result == 0 && data != nullptr) *data = win32::same_layout<WSADATA>(native);
    return result;
}

int gethostname(char* name, int size) {
    if (fault_hit(Op::gethostname)) return SOCKET_ERROR;
    return ::gethostname(name, size);
}

hostent* gethostbyname(const char* name) {
    if (fault_hit(Op::gethostbyname)) return nullptr;
    return reinterpret_cast<hostent*>(::gethostbyname(name));
}

servent* getservbyname(const char* name, const char* protocol) {
    if (fault_hit(Op::getservbyname)) return nullptr;
    ::servent* native = ::getservbyname(name, protocol);
    if (native == nullptr) return nullptr;
    servent* entry = lasting_service(*native);
    if (entry == nullptr) WSASetLastError(WSAENOBUFS);
    return entry;
}

SOCKET socket(int family, int type, int protocol) {
    if (fault_hit(Op::socket)) return INVALID_SOCKET;
    return ::socket(family, type, protocol);
}

int bind(SOCKET s, const sockaddr* address, int length) {
    if (fault_hit(Op::bind)) return SOCKET_ERROR;
    return ::bind(native_socket(s), native_address(address), length);
}

int setsockopt(SOCKET s, int level, int option, const char* value, int length) {
    if (fault_hit(Op::setsockopt)) return SOCKET_ERROR;
    return ::setsockopt(native_socket(s), level, option, value, length);
}

int listen(SOCKET s, int backlog) {
    if (fault_hit(Op::listen)) return SOCKET_ERROR;
    return ::listen(native_socket(s), backlog);
}

SOCKET accept(SOCKET s, sockaddr* address, int* length) {
    if (fault_hit(Op::accept)) return INVALID_SOCKET;
    return ::accept(native_socket(s), reinterpret_cast<::sockaddr*>(address), length);
}

int connect(SOCKET s, const sockaddr* address, int length) {
    if (fault_hit(Op::connect)) return SOCKET_ERROR;
    return ::connect(native_socket(s), native_address(address), length);
}

int shutdown(SOCKET s, int how) {
    return ::shutdown(native_socket(s), how);
}

int recv(SOCKET s, char* buffer, int length, int flags) {
    if (fault_hit(Op::recv)) return SOCKET_ERROR;
    return ::recv(native_socket(s), buffer, length, flags);
}

int send(SOCKET s, const char* buffer, int length, int flags) {
    if (fault_hit(Op::send)) return SOCKET_ERROR;
    return ::send(native_socket(s), buffer, length, flags);
}

int getsockname(SOCKET s, sockaddr* address, int* length) {
    return ::getsockname(native_socket(s), reinterpret_cast<::sockaddr*>(address), length);
}

int closesocket(SOCKET s) {
    return ::closesocket(native_socket(s));
}

}  // namespace qbsmtp::os
