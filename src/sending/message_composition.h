// message_composition.h: from a MailRecord to the bytes behind DATA.
//
// prepare_message copies the record's sender, recipients, subject and
// attachment paths into the client and refuses a record that cannot be
// sent, before any connection exists. send_mail runs MAIL, RCPT and DATA,
// writes the headers and the message in one of three forms (plain text,
// a file with its own MIME headers, multipart/mixed) and ends it; it
// returns only if the relay took the message with 250.
#pragma once

#include "frame/stream.h"
#include "qbsmtp/qbsmtp.h"
#include "sending/smtp_client.h"

namespace qbsmtp {

// 1, or 0 after the event that says why the record is refused. A path
// too long for a buffer of 261 bytes throws failed_for_good.
int prepare_message(const MailRecord& record, SmtpClient& client);
// Adds a private copy of path to the client's attachments.
void attach_file(SmtpClient& client, const char* path);
void send_mail(SmtpClient& client);

// Opens path with mode ("r" or "rb"); a failure raises 0xC0002730 and
// throws failed_for_good. The caller keeps the stream in current.
Stream* open_attachment(SmtpClient& client, const char* path, const char* mode);
// Whether the first line starts with "MIME"; the stream is rewound.
bool file_has_mime_headers(Stream* file);
// Writes the Date line and fills boundary from the same clock reading.
void emit_date(SmtpClient& client);
void emit_boundary(SmtpClient& client, bool final);

// The type text of an extension (with its dot) from the "Content Type"
// value of its key under HKEY_CLASSES_ROOT; 0 when there is none.
int lookup_content_type(const char* extension, char* buffer, std::size_t size);

}  // namespace qbsmtp
