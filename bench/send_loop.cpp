// send_loop.cpp: a minimal host for bench/compare's sending rows. It loads
// QBSMTP.so as any host does and calls SMTPSend count times, one message
// (one connection) after the other, each with the same files.
//
//   qbsmtp_send_loop MODULE RELAY COUNT FILE...
//
// The relay's port is the prefix's service "smtp" (QBSMTP_PREFIX/services).
// A first file ending in ".txt" is the text of the message, as for any host.
// Exit status: 0 when every message was delivered, 1 otherwise, 3 for
// usage or loading trouble. Prints nothing on success.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qbsmtp/qbsmtp.h"

namespace {

template <typename F>
F symbol(void* module, const char* name) {
    void* address = dlsym(module, name);
    if (address == nullptr) {
        std::fprintf(stderr, "no symbol %s\n", name);
        std::exit(3);
    }
    return reinterpret_cast<F>(address);
}

// A list as the record holds it: texts one after the other, each with its
// NUL, and one more NUL at the end.
std::string pack(char** first, char** last) {
    std::string block;
    for (char** p = first; p != last; ++p) block += std::string(*p) + '\0';
    return block + '\0';
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s MODULE RELAY COUNT FILE...\n", argv[0]);
        return 3;
    }
    const long count = std::strtol(argv[3], nullptr, 10);
    void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        std::fprintf(stderr, "dlopen: %s\n", dlerror());
        return 3;
    }
    using SetLogging = void (*)(uint32_t);
    using SendInit = int32_t (*)(const char*);
    using Send = int32_t (*)(MailRecord*);
    symbol<SetLogging>(module, "SMTPSetLogging")(0);
    if (symbol<SendInit>(module, "SMTPSendInit")(argv[2]) != 1) {
        std::fprintf(stderr, "SMTPSendInit failed\n");
        return 1;
    }
    const auto send = symbol<Send>(module, "SMTPSend");

    std::string sender = "fax@bench.example";
    std::string recipient = std::string("someone@bench.example") + '\0' + '\0';
    std::string subject = "Benchmark";
    std::string files = pack(&argv[4], &argv[argc]);
    for (long i = 0; i < count; ++i) {
        MailRecord record{};
        record.sender = sender.data();
        record.sender_length = static_cast<std::int32_t>(sender.size());
        record.to = recipient.data();
        record.subject = subject.data();
        record.subject_length = static_cast<std::int32_t>(subject.size());
        record.attachments = files.data();
        if (send(&record) != 1) {
            std::fprintf(stderr, "message %ld not delivered\n", i + 1);
            return 1;
        }
    }
    return 0;
}
