// send_driver.cpp: a minimal host for the interop scripts. It loads
// QBSMTP.so as a host does, points it at a relay and sends one message.
//
// usage: qbsmtp_send_driver MODULE RELAY [-f SENDER] [-t RECIPIENT]...
//            [-s SUBJECT] [-l MASK] ATTACHMENT...
// Exit status: 0 delivered, 1 failed for now, 2 failed for good, 3 usage
// or loading trouble.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "module_loader.h"
#include "qbsmtp/qbsmtp.h"

namespace {

std::string pack(const std::vector<std::string>& entries) {
    std::string block;
    for (const std::string& entry : entries) block += entry + '\0';
    return block + '\0';
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s MODULE RELAY [-f S] [-t R]... [-s S] FILE...\n", argv[0]);
        return 3;
    }
    std::string sender;
    bool has_sender = false;
    std::string subject;
    std::vector<std::string> to;
    std::vector<std::string> files;
    unsigned long mask = 0;
    for (int i = 3; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "-f" && has_value) {
            sender = argv[++i];
            has_sender = true;
        } else if (arg == "-t" && has_value) {
            to.push_back(argv[++i]);
        } else if (arg == "-s" && has_value) {
            subject = argv[++i];
        } else if (arg == "-l" && has_value) {
            mask = std::strtoul(argv[++i], nullptr, 0);
        } else {
            files.push_back(arg);
        }
    }

    qbsmtp::host::Module module;
    std::string error;
    if (!module.load({argv[1]}, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 3;
    }
    module.set_logging(static_cast<std::uint32_t>(mask));
    if (module.send_init(argv[2]) != 1) {
        std::fprintf(stderr, "SMTPSendInit failed\n");
        return 1;
    }

    const std::string to_block = pack(to);
    const std::string file_block = pack(files);
    MailRecord record{};
    record.sender = has_sender ? sender.data() : nullptr;
    record.sender_length = static_cast<std::int32_t>(sender.size());
    record.subject = subject.data();
    record.subject_length = static_cast<std::int32_t>(subject.size());
    record.to = to.empty() ? nullptr : const_cast<char*>(to_block.data());
    record.attachments = files.empty() ? nullptr : const_cast<char*>(file_block.data());
    const std::int32_t result = module.send(&record);
    std::printf("result=%d temporary_failure=%d\n", result, record.temporary_failure);
    if (result == 1) return 0;
    return record.temporary_failure != 0 ? 1 : 2;
}
