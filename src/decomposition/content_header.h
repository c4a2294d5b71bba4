// content_header.h: ContentInfo, how a message or part is to be treated,
// and parse_content_header, the reader of Content-Type and
// Content-Transfer-Encoding.
//
// A part starts as a full copy of its parent's ContentInfo and the parser
// writes only what its field gives, so every field is inherited unless
// the part's own header sets it. The names are matched against the code
// tables as read_token upper-cased them, exactly, first match winning.
#pragma once

#include <cstdint>

#include "decomposition/parse_context.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {

// Media types; 0 is an unknown type, or none seen.
inline constexpr std::int32_t type_unknown = 0;
inline constexpr std::int32_t type_text = 1;
inline constexpr std::int32_t type_multipart = 2;
inline constexpr std::int32_t type_message = 3;
inline constexpr std::int32_t type_image = 4;
inline constexpr std::int32_t type_audio = 5;
inline constexpr std::int32_t type_video = 6;
inline constexpr std::int32_t type_application = 7;

// Transfer encodings; 1, 2 and 6 are decoded, everything else is copied.
inline constexpr std::int32_t encoding_7bit = 0;
inline constexpr std::int32_t encoding_quoted_printable = 1;
inline constexpr std::int32_t encoding_base64 = 2;
inline constexpr std::int32_t encoding_8bit = 3;
inline constexpr std::int32_t encoding_binary = 4;
inline constexpr std::int32_t encoding_unknown = 5;
inline constexpr std::int32_t encoding_uuencode = 6;

// Subtypes are the QBSMTP_SUBTYPE_* codes of the public header, which
// index the host's subtype_rank table.

struct ContentInfo {
    static constexpr std::size_t boundary_size = 71;  // 70 bytes and the NUL
    static constexpr std::size_t type_name_size = 20;
    static constexpr std::size_t name_size = 261;  // read with 260: 259 bytes

    // The values parse_message starts a message with.
    std::int32_t type = type_unknown;
    std::int32_t subtype = QBSMTP_SUBTYPE_OTHER;
    std::int32_t encoding = encoding_binary;
    char boundary[boundary_size] = {};
    char type_name[type_name_size] = {};     // as written, upper-cased, cut to 19
    char subtype_name[type_name_size] = {};  // likewise; keys of the MIME type map
    char name[name_size] = {};               // the name parameter, verbatim
};

// Reads the value of a CONTENT-TYPE or CONTENT-TRANSFER-ENCODING field
// (name upper-cased, stream on the value's first byte) into info and
// consumes the field: 1. Any other name: 0, and nothing is read.
int parse_content_header(ParseContext& context, ContentInfo& info, const char* name);

}  // namespace qbsmtp
