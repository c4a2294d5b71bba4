// registry_key.cpp: RegistryKey, a registry key walked down by name.
//
// KEY_READ opens existing keys only; any other access creates what is
// missing. key_path follows every open, good or failed, so that a report
// names the key that was wanted. The last error always carries the
// registry's own code.

#include "frame/registry_key.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "frame/text_ops.h"

namespace qbsmtp {

namespace {

struct RootName {
    os::HKEY key;
    const char* name;
};

const RootName root_names[] = {
    {os::HKEY_CLASSES_ROOT, "HKEY_CLASSES_ROOT"},
    {os::HKEY_CURRENT_USER, "HKEY_CURRENT_USER"},
    {os::HKEY_LOCAL_MACHINE, "HKEY_LOCAL_MACHINE"},
    {os::HKEY_USERS, "HKEY_USERS"},
    {os::HKEY_PERFORMANCE_DATA, "HKEY_PERFORMANCE_DATA"},
    {os::HKEY_CURRENT_CONFIG, "HKEY_CURRENT_CONFIG"},
    {os::HKEY_DYN_DATA, "HKEY_DYN_DATA"},
};

constexpr std::size_t failure_key_size = 500;

// A handle of our own, as opposed to the root or the mark of a failed open.
bool owns(os::HKEY handle, os::HKEY base_key) {
    return handle != nullptr && handle != base_key && handle != os::INVALID_HKEY;
}

}  // namespace

const char* root_key_name(os::HKEY key) {
    for (const RootName& root : root_names) {
        if (root.key == key) return root.name;
    }
    return "";
}

RegistryKey::RegistryKey(os::REGSAM access, os::HKEY base_key)
    : key_path(root_key_name(base_key)), base_key(base_key), access(access), handle(base_key) {}

RegistryKey::~RegistryKey() {
    if (owns(handle, base_key)) os::RegCloseKey(handle);
}

int RegistryKey::open_subkey(const char* name) {
    if (name == nullptr) return 0;

    const std::size_t name_length = std::strlen(name);
    CountedString new_path;
    const std::size_t size = static_cast<std::size_t>(key_path.length) + 1 + name_length + 1;
    auto* block = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, size));
    if (block != nullptr) {
        const int written = std::snprintf(block, size, "%s\\%s", key_path.c_str(), name);
        new_path.adopt(block, written);
    }

    os::HKEY opened = nullptr;
    os::LONG error = 0;
    if (name_length == 0 || name[name_length - 1] == '\\') {
        error = static_cast<os::LONG>(os::ERROR_BADKEY);
    } else if (access == os::KEY_READ) {
        error = os::RegOpenKeyExA(handle, name, 0, access, &opened);
    } else {
        error = os::RegCreateKeyExA(handle, name, 0, nullptr, 0, access, nullptr, &opened, nullptr);
    }

    if (owns(handle, base_key)) os::RegCloseKey(handle);
    const std::int32_t new_length = new_path.length;
    key_path.adopt(new_path.release(), new_length);
    os::SetLastError(static_cast<os::DWORD>(error));
    if (error == 0) {
        handle = opened;
        return 1;
    }
    handle = os::INVALID_HKEY;
    return 0;
}

int RegistryKey::get_string(const char* name, char* buffer, std::size_t size) {
    if (size == 0) {
        os::SetLastError(os::ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    os::DWORD room = static_cast<os::DWORD>(size - 1);
    const os::LONG error = os::RegQueryValueExA(handle, name, nullptr, nullptr,
                                                reinterpret_cast<os::BYTE*>(buffer), &room);
    os::SetLastError(static_cast<os::DWORD>(error));
    if (error != 0) {
        buffer[0] = '\0';
        return 0;
    }
    // A value stored without its NUL still ends inside the buffer.
    buffer[room < size ? room : size - 1] = '\0';
    return 1;
}

int RegistryKey::get_dword(const char* name, std::uint32_t* target) {
    std::uint32_t value = 0;
    os::DWORD room = sizeof value;
    const os::LONG error = os::RegQueryValueExA(handle, name, nullptr, nullptr,
                                                reinterpret_cast<os::BYTE*>(&value), &room);
    os::SetLastError(static_cast<os::DWORD>(error));
    *target = error == 0 ? value : 0;
    return error == 0 ? 1 : 0;
}

void RegistryKey::set_string(const char* name, const char* text) {
    const char* value = text != nullptr ? text : "";
    const os::LONG error =
        os::RegSetValueExA(handle, name, 0, os::REG_SZ, reinterpret_cast<const os::BYTE*>(value),
                           static_cast<os::DWORD>(std::strlen(value) + 1));
    if (error == 0) return;

    char key[failure_key_size];
    compose_limited(key, key_path.empty() ? "nul" : key_path.c_str(), "\\", sizeof key);
    append_limited(key, name == nullptr || name[0] == '\0' ? "nul" : name, sizeof key);
    log_registry_failure(key, static_cast<std::uint32_t>(error));
    os::SetLastError(static_cast<os::DWORD>(error));
}

int RegistryKey::reopen_for_write() {
    os::HKEY writable = nullptr;
    const os::LONG error = os::RegOpenKeyExA(handle, nullptr, 0, os::KEY_ALL_ACCESS, &writable);
    if (error != 0) {
        os::SetLastError(static_cast<os::DWORD>(error));
        return 0;
    }
    access = os::KEY_ALL_ACCESS;
    if (owns(handle, base_key)) os::RegCloseKey(handle);
    handle = writable;
    return 1;
}

RegistryKey* RegistryKey::open_child(std::uint32_t index, char* buffer, std::size_t size) {
    if (size == 0) {
        os::SetLastError(os::ERROR_INSUFFICIENT_BUFFER);
        return nullptr;
    }
    buffer[0] = '\0';
    os::DWORD room = static_cast<os::DWORD>(size - 1);
    const os::LONG error =
        os::RegEnumKeyExA(handle, index, buffer, &room, nullptr, nullptr, nullptr, nullptr);
    if (error != 0) {
        os::SetLastError(static_cast<os::DWORD>(error));
        return nullptr;
    }
    buffer[room < size ? room : size - 1] = '\0';

    auto* child = new (std::nothrow) RegistryKey(access, base_key);
    if (child == nullptr) {
        os::SetLastError(os::ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    os::HKEY same = nullptr;
    child->handle =
        os::RegOpenKeyExA(handle, nullptr, 0, access, &same) == 0 ? same : os::INVALID_HKEY;
    child->key_path = key_path;
    if (!child->open_subkey(buffer)) {
        const os::DWORD saved = os::GetLastError();
        delete child;
        os::SetLastError(saved);
        return nullptr;
    }
    return child;
}

}  // namespace qbsmtp
