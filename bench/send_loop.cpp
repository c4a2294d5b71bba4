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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host_record.h"
#include "module_loader.h"
#include "qbsmtp/qbsmtp.h"

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s MODULE RELAY COUNT FILE...\n", argv[0]);
        return 3;
    }
    const long count = std::strtol(argv[3], nullptr, 10);
    qbsmtp::host::Module module;
    std::string error;
    if (!module.load({argv[1]}, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 3;
    }
    module.set_logging(0);
    if (module.send_init(argv[2]) != 1) {
        std::fprintf(stderr, "SMTPSendInit failed\n");
        return 1;
    }

    std::string sender = "fax@bench.example";
    std::string recipient = std::string("someone@bench.example") + '\0' + '\0';
    std::string subject = "Benchmark";
    // The record's packed list: each path with its NUL, then one more NUL.
    std::string files;
    for (int i = 4; i < argc; ++i) files += std::string(argv[i]) + '\0';
    files += '\0';
    for (long i = 0; i < count; ++i) {
        MailRecord record{};
        record.sender = sender.data();
        record.sender_length = static_cast<std::int32_t>(sender.size());
        record.to = recipient.data();
        record.subject = subject.data();
        record.subject_length = static_cast<std::int32_t>(subject.size());
        record.attachments = files.data();
        if (module.send(&record) != 1) {
            std::fprintf(stderr, "message %ld not delivered\n", i + 1);
            return 1;
        }
    }
    return 0;
}
