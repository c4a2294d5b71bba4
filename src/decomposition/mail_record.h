// mail_record.h: writing the fields of the host's MailRecord.
//
// Every text and list block in the record comes from LocalAlloc (flags 0)
// and may be freed and replaced with LocalFree and LocalAlloc; what stands
// there when a call returns belongs to the host. These helpers keep those
// rules in one place: a counted text field keeps its block when the new
// text is not longer, else the block is replaced; a failed allocation
// leaves the field empty (length 0, null text). Values are copies, never
// pointers into the caller's buffers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/counted_string.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {

// Sets a counted text field (length and text) to count bytes of source; a
// null source or a count of 0 frees the text and empties the field.
void set_record_text(std::int32_t& length, char*& text, const char* source, std::int32_t count);
// The same for a NUL-terminated source (null empties).
void set_record_text(std::int32_t& length, char*& text, const char* source);
// The same with the text of a CountedString.
void set_record_text(std::int32_t& length, char*& text, const CountedString& source);

// Adds an entry to a list field of the record (a MultiString block);
// null or empty entries change nothing.
void append_record_list(char*& list, const char* entry);
// The same, with the list's byte size kept by the caller in used (0: not
// known yet), as MultiString::append takes it: for lists that grow long.
void append_record_list(char*& list, const char* entry, std::size_t& used);
// Frees a list field of the record; it is then null.
void clear_record_list(char*& list);

}  // namespace qbsmtp
