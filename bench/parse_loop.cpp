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
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host_record.h"
#include "module_loader.h"
#include "qbsmtp/qbsmtp.h"

namespace {

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
    qbsmtp::host::Module module;
    std::string error;
    if (!module.load({argv[1]}, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 3;
    }
    module.set_logging(0);
    if (module.recv_init(argv[2]) != 1) {
        std::fprintf(stderr, "SMTPRecvInit failed\n");
        return 3;
    }
    const qbsmtp::host::Allocator allocator{module.local_alloc, module.local_free};

    static const unsigned char ranks[QBSMTP_SUBTYPE_COUNT] = {0, 1, 2};
    long messages = 0;
    long failed = 0;
    const auto started = std::chrono::steady_clock::now();
    for (;;) {
        MailRecord record{};
        qbsmtp::host::prepare_for_receive(record, ranks);
        const std::int32_t result = module.recv_next(&record);
        const bool found = record.file != nullptr && record.file_length != 0;
        if (found) {
            ++messages;
            if (result != 1) ++failed;
            std::remove(record.file);
        }
        qbsmtp::host::release_record(record, allocator);
        if (!found) break;
    }
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - started;
    std::printf("%.6f %ld %ld\n", took.count(), messages, failed);
    module.recv_stop();
    poke(std::atoi(argv[3]));
    return 0;
}
