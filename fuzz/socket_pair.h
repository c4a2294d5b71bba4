// socket_pair.h: a connected pair of stream sockets for the targets that
// run one side of a conversation in-process: one end goes to the module
// (a SOCKET is the descriptor on POSIX), the target works the other. Kept
// in a file of its own because the system's socket headers define names
// (AF_INET, SOL_SOCKET) that the platform layer's types also define.
#pragma once

#include <cstddef>

namespace qbsmtp::fuzz {

// Both ends, or false.
bool make_socket_pair(int (&ends)[2]);
// Writes all bytes; false when the other end is gone (no SIGPIPE).
bool write_all(int end, const void* bytes, std::size_t size);
// The bytes read, 0 at the end, negative on an error.
long read_some(int end, void* buffer, std::size_t size);
// No more bytes will be written to this end.
void shut_write(int end);
void close_end(int end);

}  // namespace qbsmtp::fuzz
