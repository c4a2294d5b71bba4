// spool_parse_fuzz.cpp: whole spool files through SMTPRecvNext: header
// dispatch, multipart walk and decoders. The spool tree is removed after
// every input, so it stays bounded whatever an input makes.
//
// Checked on every input, beside the sanitizers: the result is 0 or 1, the
// record names the spool file, every listed file exists under mime_dir,
// and after a result of 1 the listed files are exactly the files there
// (alternatives that lost are gone, nothing is left unlisted unless an
// inline uuencode split failed part way).
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "decomposition/mime_type_map.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "platform/os.h"
#include "qbsmtp/qbsmtp.h"

#include "fuzz_support.h"
namespace {

namespace fs = std::filesystem;
using namespace qbsmtp;

struct Tree {
    fs::path root;
    fs::path spool;
    fs::path mime;
    fs::path message;
};

// A scratch prefix for the spool tree, on tmpfs where there is one; set up
// as SMTPRecvInit leaves the module, without a listener. The types file is
// read once, when the map loads; the tree itself lives for one input only,
// so nothing is left behind whichever way the fuzzer ends.
const Tree& tree() {
    static const Tree made = [] {
        Tree t;
        t.root = fuzz::scratch_path("qbsmtp_spool_fuzz");
        t.spool = t.root / "spool";
        t.mime = t.spool / "mime";
        t.message = t.spool / "rx000001.822";
        fs::create_directories(t.mime);
        const fs::path types = t.root / "mime.types";
        if (FILE* f = std::fopen(types.c_str(), "w")) {
            std::fputs("text/plain txt\ntext/html html\napplication/pdf pdf\nimage/gif gif\n", f);
            std::fclose(f);
        }
        setenv("QBSMTP_PREFIX", t.root.c_str(), 1);
        setenv("QBSMTP_MIME_TYPES", types.c_str(), 1);
        spool_dir = t.spool.c_str();
        mime_dir = t.mime.c_str();
        mime_type_map.load();
        std::error_code ignored;
        fs::remove_all(t.root, ignored);
        return t;
    }();
    return made;
}

const std::uint8_t begin_line[] = {'b', 'e', 'g', 'i', 'n', ' '};

void free_record(MailRecord& record) {
    for (char* block :
         {record.file, record.sender, record.sender_name, record.to, record.to_names, record.cc,
          record.cc_names, record.bcc, record.bcc_names, record.subject, record.attachments}) {
        if (block != nullptr) os::LocalFree(block);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Tree& t = tree();
    fs::create_directories(t.mime);
    FILE* file = std::fopen(t.message.c_str(), "wb");
    if (file == nullptr) return 0;
    if (size > 0) std::fwrite(data, 1, size, file);
    std::fclose(file);

    // Ranks from the input's last bytes; sometimes no table at all.
    unsigned char ranks[QBSMTP_SUBTYPE_COUNT];
    for (int i = 0; i < QBSMTP_SUBTYPE_COUNT; ++i)
        ranks[i] = size > 0 ? static_cast<unsigned char>(data[(size - 1 - i % size)] & 7) : 0;
    MailRecord record{};
    record.subtype_rank = size > 0 && (data[size - 1] & 0x80) ? nullptr : ranks;

    const int result = SMTPRecvNext(&record);
    FUZZ_CHECK(result == 0 || result == 1);
    FUZZ_CHECK(record.file != nullptr && t.message == record.file);

    std::set<std::string> listed;
    for (const char* p = record.attachments; p != nullptr && *p != '\0'; p += std::strlen(p) + 1) {
        FUZZ_CHECK(fs::path(p).parent_path() == t.mime);
        FUZZ_CHECK(fs::is_regular_file(p));
        FUZZ_CHECK(listed.insert(p).second);
    }
    std::set<std::string> present;
    for (const auto& entry : fs::directory_iterator(t.mime)) present.insert(entry.path().string());
    // A failed inline uuencode split leaves the blocks it decoded before
    // the failure on disk, unlisted; only a text without a begin line is
    // sure to leave nothing behind.
    const bool may_split =
        std::search(data, data + size, begin_line, begin_line + 6) != data + size;
    if (result == 1 && !may_split) FUZZ_CHECK(present == listed);

    free_record(record);
    std::error_code ignored;
    fs::remove_all(t.root, ignored);
    return 0;
}
