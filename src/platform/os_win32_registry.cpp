// os_win32_registry.cpp: the Reg* functions over the Windows registry.
//
// Our HKEY is an opaque pointer with the same values as the system's,
// predefined roots included, so a key passes through by a cast. Sizes and
// types go through native DWORDs. A fault gives its armed code as the
// result, as the Reg* functions report failures.
#include "platform/os_win32_native.h"

namespace qbsmtp::os {
namespace {

bool registry_fault(Op op, LONG* result) {
    if (!fault_hit(op)) return false;
    *result = static_cast<LONG>(GetLastError());
    return true;
}

// A DWORD the caller may leave null, in native form and back.
struct OptionalDword {
    explicit OptionalDword(DWORD* ours) : ours(ours), value(ours != nullptr ? *ours : 0) {}
    ~OptionalDword() {
        if (ours != nullptr) *ours = static_cast<DWORD>(value);
    }
    ::DWORD* get() { return ours != nullptr ? &value : nullptr; }
    OptionalDword(const OptionalDword&) = delete;
    OptionalDword& operator=(const OptionalDword&) = delete;

    DWORD* ours;
    ::DWORD value;
};

}  // namespace

LONG RegOpenKeyExA(HKEY key, const char* sub_key, DWORD options, REGSAM access, HKEY* result) {
    LONG fault;
    if (registry_fault(Op::RegOpenKeyExA, &fault)) return fault;
    ::HKEY opened = nullptr;
    LONG status = ::RegOpenKeyExA(win32::native_key(key), sub_key, options, access, &opened);
    if (result != nullptr) *result = win32::our_key(opened);
    return status;
}

LONG RegCreateKeyExA(HKEY key, const char* sub_key, DWORD reserved, char* class_name, DWORD options,
                     REGSAM access, void* security, HKEY* result, DWORD* disposition) {
    LONG fault;
    if (registry_fault(Op::RegCreateKeyExA, &fault)) return fault;
    ::HKEY opened = nullptr;
    OptionalDword native_disposition(disposition);
    LONG status = ::RegCreateKeyExA(win32::native_key(key), sub_key, reserved, class_name, options,
                                    access, static_cast<LPSECURITY_ATTRIBUTES>(security), &opened,
                                    native_disposition.get());
    if (result != nullptr) *result = win32::our_key(opened);
    return status;
}

LONG RegCreateKeyA(HKEY key, const char* sub_key, HKEY* result) {
    LONG fault;
    if (registry_fault(Op::RegCreateKeyExA, &fault)) return fault;
    ::HKEY opened = nullptr;
    LONG status = ::RegCreateKeyA(win32::native_key(key), sub_key, &opened);
    if (result != nullptr) *result = win32::our_key(opened);
    return status;
}

LONG RegCloseKey(HKEY key) {
    return ::RegCloseKey(win32::native_key(key));
}

LONG RegQueryValueExA(HKEY key, const char* name, DWORD* reserved, DWORD* type, BYTE* data,
                      DWORD* size) {
    LONG fault;
    if (registry_fault(Op::RegQueryValueExA, &fault)) return fault;
    OptionalDword native_reserved(reserved);
    OptionalDword native_type(type);
    OptionalDword native_size(size);
    return ::RegQueryValueExA(win32::native_key(key), name, native_reserved.get(),
                              native_type.get(), data, native_size.get());
}

LONG RegSetValueExA(HKEY key, const char* name, DWORD reserved, DWORD type, const BYTE* data,
                    DWORD size) {
    LONG fault;
    if (registry_fault(Op::RegSetValueExA, &fault)) return fault;
    return ::RegSetValueExA(win32::native_key(key), name, reserved, type, data, size);
}

LONG RegEnumKeyExA(HKEY key, DWORD index, char* name, DWORD* name_size, DWORD* reserved,
                   char* class_name, DWORD* class_size, FILETIME* last_write) {
    LONG fault;
    if (registry_fault(Op::RegEnumKeyExA, &fault)) return fault;
    OptionalDword native_name_size(name_size);
    OptionalDword native_reserved(reserved);
    OptionalDword native_class_size(class_size);
    ::FILETIME native_time{};
    LONG status = ::RegEnumKeyExA(win32::native_key(key), index, name, native_name_size.get(),
                                  native_reserved.get(), class_name, native_class_size.get(),
                                  last_write != nullptr ? &native_time : nullptr);
    if (status == ERROR_SUCCESS && last_write != nullptr)
        *last_write = win32::same_layout<FILETIME>(native_time);
    return status;
}

}  // namespace qbsmtp::os
