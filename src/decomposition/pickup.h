// pickup.h: taking the next spooled message apart (SMTPRecvNext, exported
// from qbsmtp.h): the search for a waiting .822 file, the dispatch of its
// header fields, and the choice of how its body is read.
//
// One call takes at most one file; the spool file itself is never changed,
// moved or deleted here, so the host meets it again until it removes it.
#pragma once

#include "decomposition/parse_context.h"

namespace qbsmtp {

// Sets message_path, record->file (before the open) and input on the first
// "*.822" file that the directory search reports: 1 if input is open.
int open_next_message(ParseContext& context);
// Reads the header section into the record and the body into files under
// mime_dir, then closes input and output. Failures leave as a thrown 1.
void parse_message(ParseContext& context);
// SMTPRecvNext: takes the next waiting message, if any, apart into record.
// 0 when that failed (reported where it failed), else 1.
int receive_next(MailRecord* record);

}  // namespace qbsmtp
