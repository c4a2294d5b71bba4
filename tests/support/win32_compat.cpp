// win32_compat.cpp: the parts of win32_compat.h that need Windows headers.
#ifdef _WIN32
#include <windows.h>
// (after windows.h)
#include <psapi.h>

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
#endif
