// spool_parse_driver.cpp: runs SMTPRecvNext once over a spool directory and
// prints the record, for script tests that compare the files with other
// programs' idea of the message.
//
//   spool_parse_driver <spool-dir> [rank0,rank1,...,rank17]
//
// As SMTPRecvInit leaves the module, without a listener: spool_dir, mime_dir
// (<spool-dir>/mime, made if missing) and the MIME type map. Without ranks
// the record's subtype_rank is null. Output lines: "result N", then
// "file PATH" if a file was taken and one "attachment PATH" per entry.
// QBSMTP_PREFIX should name a scratch directory, as for the tests.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "decomposition/mime_type_map.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "platform/os.h"
#include "qbsmtp/qbsmtp.h"

int main(int argc, char** argv) {
    using namespace qbsmtp;
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: %s <spool-dir> [ranks]\n", argv[0]);
        return 2;
    }
    unsigned char ranks[QBSMTP_SUBTYPE_COUNT] = {};
    MailRecord record{};
    if (argc == 3) {
        const char* p = argv[2];
        for (int i = 0; i < QBSMTP_SUBTYPE_COUNT && *p != '\0'; ++i) {
            char* end = nullptr;
            ranks[i] = static_cast<unsigned char>(std::strtoul(p, &end, 10));
            p = *end == ',' ? end + 1 : end;
        }
        record.subtype_rank = ranks;
    }

    spool_dir = argv[1];
    mime_dir = argv[1];
    append_component(mime_dir, "mime");
    if (!ensure_directory(mime_dir)) {
        std::fprintf(stderr, "cannot make %s\n", mime_dir.c_str());
        return 2;
    }
    mime_type_map.load();

    const int result = SMTPRecvNext(&record);
    std::printf("result %d\n", result);
    if (record.file != nullptr) std::printf("file %s\n", record.file);
    for (const char* p = record.attachments; p != nullptr && *p != '\0';
         p += std::string(p).size() + 1) {
        std::printf("attachment %s\n", p);
    }
    for (char* block :
         {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
          record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments}) {
        if (block != nullptr) os::LocalFree(block);
    }
    return 0;
}
