/* Loads the module the qbsmtp::qbsmtp target names and calls into it. */
#include <dlfcn.h>
#include <qbsmtp/qbsmtp.h>
#include <stdio.h>
int main(void) {
    void* module = dlopen(MODULE, RTLD_NOW | RTLD_LOCAL);
    if (!module) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    int32_t (*stop)(void) = (int32_t(*)(void))dlsym(module, "SMTPRecvStop");
    return stop && stop() == 1 ? 0 : 1;
}
