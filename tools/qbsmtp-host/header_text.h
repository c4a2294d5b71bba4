// header_text.h: a subject or display name as a person reads it.
//
// The module decodes encoded words of one character set, iso-8859-1, into
// their bytes, and leaves every other word as it came. The host finishes
// the job: each remaining RFC 2047 encoded word is decoded and converted
// to UTF-8 with iconv, whatever character set iconv knows; adjacent words
// of one character set are converted together (a multi-byte character or
// an iso-2022-jp escape may span them), and the white space between two
// encoded words goes (RFC 2047 section 6.2). The text around the words
// goes through text_to_utf8, and folds (CR LF before a blank) are undone.
// A word whose character set iconv does not know, or whose bytes are not
// valid in it, stays as literal text.
#pragma once

#include <string>
#include <string_view>

namespace qbsmtp::host {

std::string decode_header_text(std::string_view bytes);

}  // namespace qbsmtp::host
