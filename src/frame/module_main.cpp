// module_main.cpp: the loader's entry of QBSMTP.so. Process attach and
// detach run from the shared object's constructor and destructor; the
// loader has no thread attach or detach to give.

#include "frame/module_state.h"

namespace {

__attribute__((constructor)) void module_loaded() {
    // The platform's handle of the file that holds this code.
    qbsmtp::process_attach(qbsmtp::os::GetModuleHandleA(nullptr));
}

__attribute__((destructor)) void module_unloaded() {
    qbsmtp::process_detach();
}

}  // namespace
