// os_text.h: the conversion of the module's texts (code page 1252) to
// UTF-8, where they leave for a UTF-8 world: syslog and the JSON event
// file on POSIX, the tests' reading of captured events on every backend.
#pragma once

#include <cstddef>
#include <string>

namespace qbsmtp::os {

// Appends text (code page 1252) to out as UTF-8.
void append_utf8_from_cp1252(std::string& out, const char* text, std::size_t length);

}  // namespace qbsmtp::os
