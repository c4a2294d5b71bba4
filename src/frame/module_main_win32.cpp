// module_main_win32.cpp: the loader's entry of QBSMTP.dll.
//
// The system calls DllMain with the module's own handle: process attach
// runs the module's start-up, process detach closes the event source, and
// thread attach and detach do nothing. The load itself never fails, so the
// result is always TRUE. Declared without <windows.h> (only the platform
// layer includes OS headers): the C runtime's DLL start-up finds the
// __stdcall symbol DllMain with three 4-byte arguments.

#include "frame/module_state.h"

namespace {

constexpr qbsmtp::os::DWORD process_detach = 0;
constexpr qbsmtp::os::DWORD process_attach = 1;

}  // namespace

extern "C" qbsmtp::os::BOOL __stdcall DllMain(qbsmtp::os::HINSTANCE instance,
                                              qbsmtp::os::DWORD reason, void* /*reserved*/) {
    if (reason == process_attach)
        qbsmtp::process_attach(instance);
    else if (reason == process_detach)
        qbsmtp::process_detach();
    return 1;
}
