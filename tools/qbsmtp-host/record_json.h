// record_json.h: a MailRecord as one JSON object, the host's output format.
//
// Fields, in this order: file, sender, sender_name, sender_name_raw, date,
// to, cc, bcc, subject, subject_raw, attachments, ok. A text the message
// did not give is null; date is ISO-8601 UTC ("2024-05-01T09:30:00Z") or
// null when zero; to, cc and bcc are arrays of {"address", "name",
// "name_raw"} pairing each list with its name list; attachments is an
// array of paths; ok is the call's result.
//
// The module stores mail bytes as they came, in whatever 8-bit character
// set the mail used. JSON wants UTF-8, so a text that is valid UTF-8 goes
// out as it is and any other is read as code page 1252. Subjects and names
// also have their encoded words decoded (header_text.h); the fields with
// _raw hold the module's text with only the UTF-8 conversion.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "qbsmtp/qbsmtp.h"

namespace qbsmtp::host {

nlohmann::ordered_json record_to_json(const MailRecord& record, bool ok);

// The bytes as UTF-8: unchanged if they are valid UTF-8, else each byte
// taken as a code page 1252 character.
std::string text_to_utf8(std::string_view bytes);

// "YYYY-MM-DDTHH:MM:SSZ" for a FILETIME; nothing for the zero time.
// Fractions of a second are dropped: mail dates carry whole seconds.
std::optional<std::string> filetime_to_iso(QbsmtpFileTime time);

}  // namespace qbsmtp::host
