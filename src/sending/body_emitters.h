// body_emitters.h: an open file into the bytes of one message body or
// MIME part, on a client's connection.
//
// The emitters never open, close or rewind the file and never read a
// reply. Text goes out line by line in pieces of at most 1023 bytes, each
// LF as CR LF, with the SMTP dot rule (RFC 5321 section 4.5.2) applied at
// every line start; other files go out as base64 in lines of 72
// characters (54 bytes), each ending in CR LF. A failed send throws
// failed_for_now from inside a byte write; a read error ends the part.
#pragma once

#include "frame/stream.h"
#include "sending/smtp_client.h"

namespace qbsmtp {

// The two headers of a text part, then the file's text (none for null).
void emit_text(SmtpClient& client, Stream* file, const char* name);
// The file's text alone: the file brings its own headers.
void emit_text_without_adding_mime_headers(SmtpClient& client, Stream* file);
// The two headers of a base64 part, then the file in base64.
void emit_base64(SmtpClient& client, Stream* file, const char* name, const char* content_type);

}  // namespace qbsmtp
