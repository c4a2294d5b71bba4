// parse_context.h: ParseContext, what one SMTPRecvNext carries through the
// header and body readers: the caller's record, the spool file being read
// and the file being written for the current part.
//
// It lives on the stack of the call. Everything starts zeroed: flags 0,
// both streams null, both paths empty. Whoever leaves the analysis closes
// input first and output second; the destructor then frees output_path and
// message_path (members go in reverse order of declaration).
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/counted_string.h"
#include "frame/stream.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {

// Indexes of override_seen, and the recipient classes of the record.
inline constexpr int recipient_to = 0;
inline constexpr int recipient_cc = 1;
inline constexpr int recipient_bcc = 2;

struct ParseContext {
    MailRecord* record = nullptr;               // the caller's record
    std::int32_t override_seen[3] = {0, 0, 0};  // an X-FAX- field replaced that class's list
    CountedString message_path;                 // full path of the spool file
    Stream* input = nullptr;                    // the spool file, "rb"
    CountedString output_path;                  // file of the current part
    Stream* output = nullptr;                   // that file, "wb"; null when none is open
    std::size_t attachments_used = 0;           // byte size of record->attachments; 0: not known
};

}  // namespace qbsmtp
