// address_fields.h: the reader of one address of an RFC 822 address list,
// on which the sender and recipient handlers (field_handlers.h) rest.
//
// parse_address reads byte by byte from the first byte of an address and
// sorts the bytes into two buffers: what stands between '<' and '>' is the
// address, the rest (less comments, quotes and a group name before ':') is
// the display name, whose encoded words are decoded and whose trailing
// spaces are cut. An address without angle brackets is its own name. Each
// buffer keeps at most address_buffer_size - 1 bytes and a NUL; the rest
// of a longer text is read and dropped.
//
// The stream is left behind the ',' or ';' that ended the address, on the
// CR that ended the line, or at the end of the file. There is no escaping,
// and a line end ends the address whatever is still open.
#pragma once

#include <cstddef>

#include "decomposition/parse_context.h"

namespace qbsmtp {

// Size of the address and the name buffer, with the NUL.
inline constexpr std::size_t address_buffer_size = 1000;

// Reads one address into address and name (each address_buffer_size
// bytes, both always NUL-terminated). Result: address if it isn't empty,
// else null.
char* parse_address(ParseContext& context, char* address, char* name);

}  // namespace qbsmtp
