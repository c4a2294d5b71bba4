// body_decoders.h: the decoders of a MIME part's body: quoted-printable,
// base64 and uuencode.
//
// Each reads context.input and writes context.output, which the walk has
// opened; they are never entered without an output file. Where a decoder
// leaves the input is its contract, since the walk's next boundary scan
// starts there:
//   load_quoted_printable  on the first byte of the boundary line, which it
//                          has taken back whole; or at the end.
//   load_base64            behind the two dashes that open a line; or at
//                          the end.
//   load_uuencode          at the start of the line behind the "end" line.
// A failed write is reported (0xC0002732, with the decoder's name) and the
// integer 1 is thrown; so are a missing begin or end line of a uuencoded
// body (0xC0004FB0, 0xC0004FB1). Malformed input is no failure: what cannot
// be used is passed over, and the end of the file ends the body.
#pragma once

#include "decomposition/content_header.h"
#include "decomposition/parse_context.h"

namespace qbsmtp {

// The quoted-printable line buffer: 100 bytes, so a line of up to 99 bytes
// with its line end is taken whole; a longer one is decoded in pieces of
// qp_piece_size bytes (see load_quoted_printable).
inline constexpr std::size_t qp_line_size = 100;
inline constexpr std::size_t qp_piece_size = qp_line_size - 2;
// The uuencode line buffer; longer lines arrive in pieces.
inline constexpr std::size_t uu_line_size = 512;

// Decodes up to the first line that begins with "--" and parent.boundary.
void load_quoted_printable(ParseContext& context, const ContentInfo& parent);
// Decodes up to the first line behind CR LF that begins with "--".
void load_base64(ParseContext& context);
// Decodes from the "begin" line to the "end" line.
void load_uuencode(ParseContext& context);
// The value of a hexadecimal digit, either case: 0 to 15.
int hex_value(int digit);

}  // namespace qbsmtp
