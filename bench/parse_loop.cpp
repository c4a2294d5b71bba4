// parse_loop.cpp: a minimal host for bench/compare's decomposition rows. It
// loads QBSMTP.so, starts it on a spool directory and calls SMTPRecvNext
// until the spool is empty, deleting each spool file once its record is
// read, as a host does. Prints the seconds the calls took (start-up, the
// module's load and the listener excluded), so that every system in the
// comparison is timed on its own work only.
//
//   qbsmtp_parse_loop MODULE SPOOL PORT
//
// PORT is the prefix's smtp port: the listener that SMTPRecvInit starts is
// stopped at the end with one connection there. Prints "SECONDS MESSAGES
// FAILED". Exit status 0, or 3 for usage or loading trouble.
#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

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

// Wakes the listener, which sees the stop flag when a connection arrives.
void poke(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    char ignored[256];
    while (::recv(fd, ignored, sizeof ignored, 0) > 0) {
    }
    ::close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s MODULE SPOOL PORT\n", argv[0]);
        return 3;
    }
    void* module = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        std::fprintf(stderr, "dlopen: %s\n", dlerror());
        return 3;
    }
    using SetLogging = void (*)(uint32_t);
    using RecvInit = int32_t (*)(const char*);
    using RecvStop = int32_t (*)();
    using RecvNext = int32_t (*)(MailRecord*);
    using Free = void* (*)(void*);
    symbol<SetLogging>(module, "SMTPSetLogging")(0);
    if (symbol<RecvInit>(module, "SMTPRecvInit")(argv[2]) != 1) {
        std::fprintf(stderr, "SMTPRecvInit failed\n");
        return 3;
    }
    const auto next = symbol<RecvNext>(module, "SMTPRecvNext");
    const auto local_free = symbol<Free>(module, "LocalFree");

    static const unsigned char ranks[QBSMTP_SUBTYPE_COUNT] = {0, 1, 2};
    long messages = 0;
    long failed = 0;
    const auto started = std::chrono::steady_clock::now();
    for (;;) {
        MailRecord record{};
        record.subtype_rank = ranks;
        const int32_t result = next(&record);
        if (record.file == nullptr || record.file_length == 0) break;
        ++messages;
        if (result != 1) ++failed;
        std::remove(record.file);
        for (char* block :
             {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
              record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments})
            if (block != nullptr) local_free(block);
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    std::printf("%.6f %ld %ld\n", took.count(), messages, failed);
    symbol<RecvStop>(module, "SMTPRecvStop")();
    poke(std::atoi(argv[3]));
    return 0;
}
