// registry_key.h: RegistryKey, a key of the registry that is walked down by
// open_subkey and read or written by value name.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/counted_string.h"
#include "platform/os.h"

namespace qbsmtp {

class RegistryKey {
  public:
    CountedString key_path;       // root name, backslash, path below it; for reports
    os::HKEY base_key = nullptr;  // the root the object was made on
    os::REGSAM access = 0;        // KEY_READ opens, anything else creates
    os::HKEY handle = nullptr;  // key now open; base_key at first; INVALID_HKEY after a failed open

    RegistryKey(os::REGSAM access, os::HKEY base_key);
    ~RegistryKey();
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    int open_subkey(const char* name);
    int get_string(const char* name, char* buffer, std::size_t size);
    int get_dword(const char* name, std::uint32_t* target);
    void set_string(const char* name, const char* text);
    int reopen_for_write();
    // A new key on the child with this index, owned by the caller; null
    // behind the last child or on failure.
    RegistryKey* open_child(std::uint32_t index, char* buffer, std::size_t size);
};

// "HKEY_LOCAL_MACHINE" and the like; the empty text for any other key.
const char* root_key_name(os::HKEY key);

}  // namespace qbsmtp
