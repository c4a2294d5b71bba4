// os_posix_module.cpp: the module's own file and load references:
// GetModuleFileNameA, GetModuleHandleA, LoadLibraryA, FreeLibrary.
//
// "The module" is the file that holds this code: QBSMTP.so when the module
// is loaded as a library, the program itself when the code is linked in
// statically (the tests). Its HMODULE is a pseudo handle. LoadLibraryA on
// its own file takes a real reference with dlopen(RTLD_NOLOAD) when it is a
// shared object, so the file stays mapped until the matching FreeLibrary;
// for a program it only counts. Other files are loaded with dlopen, and
// their handles are tracked so that FreeLibrary refuses unknown ones.
#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace {

constexpr DWORD ERROR_MOD_NOT_FOUND = 126;

struct SelfModule {
    char tag;  // only its address matters: it is the pseudo handle
} self_module;

HMODULE self_handle() {
    return &self_module;
}

struct Modules {
    std::mutex lock;
    bool known = false;
    std::string path;  // absolute path of the file that holds this code
    bool shared_object = false;
    void* self_reference = nullptr;  // dlopen handle held for LoadLibraryA on ourselves
    unsigned self_references = 0;
    std::map<void*, unsigned> loaded;  // other files: dlopen handle -> references
};

Modules& modules() {
    static auto* instance = new Modules;  // never freed: used until the process ends
    return *instance;
}

std::string absolute(const char* path) {
    char resolved[PATH_MAX];
    return ::realpath(path, resolved) != nullptr ? std::string(resolved) : std::string(path);
}

void find_self(Modules& m) {
    if (m.known) return;
    m.known = true;
    Dl_info info;
    link_map* map = nullptr;
    if (::dladdr1(reinterpret_cast<void*>(&find_self), &info, reinterpret_cast<void**>(&map),
                  RTLD_DL_LINKMAP) != 0 &&
        map != nullptr && map->l_name != nullptr && map->l_name[0] != '\0') {
        m.path = absolute(map->l_name);
        m.shared_object = true;
        return;
    }
    m.path = absolute("/proc/self/exe");
}

bool same_file(const char* a, const std::string& b) {
    struct stat first;
    struct stat second;
    return ::stat(a, &first) == 0 && ::stat(b.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// The file name without directory and extension, folded, for names given
// without a path.
std::string bare_name(const std::string& path) {
    std::size_t slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot != 0) name.resize(dot);
    return posix::fold_ascii(name);
}

bool names_self(Modules& m, const char* name) {
    if (std::strchr(name, '/') != nullptr) return same_file(name, m.path);
    return bare_name(name) == bare_name(m.path);
}

DWORD copy_path(const std::string& path, char* file_name, DWORD size) {
    if (size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    if (path.size() + 1 > size) {
        std::memcpy(file_name, path.data(), size - 1);
        file_name[size - 1] = '\0';
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return size;
    }
    std::memcpy(file_name, path.c_str(), path.size() + 1);
    return static_cast<DWORD>(path.size());
}

}  // namespace

DWORD GetModuleFileNameA(HMODULE module, char* file_name, DWORD size) {
    if (file_name == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    Modules& m = modules();
    std::lock_guard lock(m.lock);
    find_self(m);
    if (module == nullptr || module == self_handle()) return copy_path(m.path, file_name, size);
    if (m.loaded.count(module) != 0) {
        link_map* map = nullptr;
        if (::dlinfo(module, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr &&
            map->l_name != nullptr)
            return copy_path(absolute(map->l_name), file_name, size);
    }
    SetLastError(ERROR_MOD_NOT_FOUND);
    return 0;
}

HMODULE GetModuleHandleA(const char* module_name) {
    if (module_name == nullptr) return self_handle();
    Modules& m = modules();
    std::lock_guard lock(m.lock);
    find_self(m);
    if (names_self(m, module_name)) return self_handle();
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

HMODULE LoadLibraryA(const char* file_name) {
    if (fault_hit(Op::LoadLibraryA)) return nullptr;
    if (file_name == nullptr || *file_name == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    Modules& m = modules();
    std::lock_guard lock(m.lock);
    find_self(m);
    if (names_self(m, file_name)) {
        if (m.shared_object) {
            void* reference = ::dlopen(m.path.c_str(), RTLD_NOW | RTLD_NOLOAD);
            if (reference == nullptr) {
                SetLastError(ERROR_MOD_NOT_FOUND);
                return nullptr;
            }
            m.self_reference = reference;  // the same handle each time
        }
        ++m.self_references;
        return self_handle();
    }
    void* handle = ::dlopen(file_name, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    ++m.loaded[handle];
    return handle;
}

BOOL FreeLibrary(HMODULE module) {
    Modules& m = modules();
    std::lock_guard lock(m.lock);
    if (module == self_handle()) {
        // Only references this layer took are given back.
        if (m.self_references > 0) {
            --m.self_references;
            if (m.self_reference != nullptr) ::dlclose(m.self_reference);
        }
        return 1;
    }
    auto it = m.loaded.find(module);
    if (it == m.loaded.end()) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (--it->second == 0) m.loaded.erase(it);
    ::dlclose(module);
    return 1;
}

}  // namespace qbsmtp::os
