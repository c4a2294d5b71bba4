// module_main.cpp: the loader's entry of QBSMTP.so. Process attach and
// detach run from the shared object's constructor and destructor; the
// loader has no thread attach or detach to give.

#include "frame/module_state.h"

namespace {

__attribute__((constructor)) void module_loaded() {
    qbsmtp::process_attach(reinterpret_cast<qbsmtp::os::HMODULE>(&module_loaded));
}

__attribute__((destructor)) void module_unloaded() {
    qbsmtp::process_detach();
}

}  // namespace
