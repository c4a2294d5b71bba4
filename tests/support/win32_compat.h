// win32_compat.h: the few POSIX calls of the tests, over the C runtime of
// Windows; put in front of every test source of a Windows build (no
// Windows header here: os.h must come before those).
#pragma once

#include <direct.h>
#include <errno.h>
#include <io.h>
#include <stdlib.h>
#include <time.h>

#include <cstring>
#include <string>

inline int setenv(const char* name, const char* value, int overwrite) {
    if (!overwrite && getenv(name) != nullptr) return 0;
    return _putenv_s(name, value);
}
inline int unsetenv(const char* name) {
    return _putenv_s(name, "");
}
inline char* mkdtemp(char* pattern) {
    if (_mktemp_s(pattern, std::strlen(pattern) + 1) != 0 || _mkdir(pattern) != 0) return nullptr;
    return pattern;
}
inline int mkdir(const char* path, int /*mode*/) {
    return _mkdir(path);
}
inline tm* localtime_r(const time_t* time, tm* result) {
    return localtime_s(result, time) == 0 ? result : nullptr;
}

// No trim of the heap in the C runtime; nothing to give back.
inline int malloc_trim(size_t) {
    return 0;
}

// No tmpfs to mount: the test that needs one skips, saying so.
#define MNT_DETACH 2
inline int mount(const char*, const char*, const char*, unsigned long, const void*) {
    errno = ENOSYS;
    return -1;
}
inline int umount2(const char*, int) {
    return -1;
}

// The peak working set, in KiB, as the peak resident size (win32_compat.cpp).
#define RUSAGE_SELF 0
struct rusage {
    long ru_maxrss;
};
int getrusage(int who, rusage* usage);
// The handles the process holds, as its open descriptors.
long open_handle_count();

// With a name: HKEY_LOCAL_MACHINE and HKEY_CLASSES_ROOT of this process
// become fresh keys of that name under HKEY_CURRENT_USER; with null, they
// are the system's again and those keys are deleted.
void private_registry(const char* name);
// Whether the system's zone has no daylight saving (GetTimeZoneInformation
// answers TIME_ZONE_ID_UNKNOWN).
bool zone_without_daylight();
