// win32_compat.cpp: the parts of win32_compat.h that need Windows headers.
#ifdef _WIN32
#include <windows.h>
// (after windows.h)
#include <psapi.h>

#include <cstdlib>
#include <string>
#include <utility>

#include "support/win32_compat.h"

int getrusage(int, rusage* usage) {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof counters;
    if (!K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return -1;
    usage->ru_maxrss = static_cast<long>(counters.PeakWorkingSetSize / 1024);
    return 0;
}

long open_handle_count() {
    DWORD count = 0;
    return GetProcessHandleCount(GetCurrentProcess(), &count) ? static_cast<long>(count) : -1;
}

bool zone_without_daylight() {
    TIME_ZONE_INFORMATION zone;
    return GetTimeZoneInformation(&zone) == TIME_ZONE_ID_UNKNOWN;
}

namespace {
const char* const private_roots = "Software\\qbsmtp-tests\\";
std::string private_name;
}  // namespace

void private_registry(const char* name) {
    const std::pair<HKEY, const char*> roots[] = {{HKEY_LOCAL_MACHINE, "\\machine"},
                                                  {HKEY_CLASSES_ROOT, "\\classes"}};
    // A process that died before its end may have left keys of the name.
    if (name != nullptr)
        RegDeleteTreeA(HKEY_CURRENT_USER, (private_roots + std::string(name)).c_str());
    // Winsock finds the services file by a value of the machine's (Wine
    // alike), which the private machine key keeps.
    const char* const tcpip = "System\\CurrentControlSet\\Services\\Tcpip\\Parameters";
    char database[MAX_PATH] = "";
    DWORD type = REG_SZ, size = sizeof database;
    if (name != nullptr)
        RegGetValueA(HKEY_LOCAL_MACHINE, tcpip, "DataBasePath", RRF_RT_ANY | RRF_NOEXPAND, &type,
                     database, &size);
    for (const auto& [root, below] : roots) {
        HKEY key = nullptr;
        if (name != nullptr &&
            RegCreateKeyExA(HKEY_CURRENT_USER, (private_roots + std::string(name) + below).c_str(),
                            0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr) != 0)
            std::abort();
        if (key != nullptr && root == HKEY_LOCAL_MACHINE && database[0] != '\0')
            RegSetKeyValueA(key, tcpip, "DataBasePath", type, database, size);
        RegOverridePredefKey(root, key);
        if (key != nullptr) RegCloseKey(key);
    }
    if (name == nullptr && !private_name.empty())
        RegDeleteTreeA(HKEY_CURRENT_USER, (private_roots + private_name).c_str());
    private_name = name != nullptr ? name : "";
}
#endif
