// part_output.h: writing and closing the file of the current part, with
// the failure handling every body reader shares.
//
// A write that the stream refuses is reported as event 0xC0002732 with the
// writer's name and the system's reason, and the integer 1 is thrown for
// SMTPRecvNext to catch. The file stays on disk as far as it got.
#pragma once

#include <cstddef>
#include <cstring>

#include "decomposition/parse_context.h"
#include "frame/stream.h"

namespace qbsmtp {

// Reports the failed write of who and throws 1.
[[noreturn]] void fail_write(const char* who);

inline void put_byte(Stream& out, int c, const char* who) {
    if (out.putc(c) < 0) fail_write(who);
}
inline void put_bytes(Stream& out, const void* bytes, std::size_t count, const char* who) {
    if (count > 0 && out.write(bytes, count) != count) fail_write(who);
}

// Writes count bytes as put_byte would, one at a time: the buffer is
// filled to its end and flushed at the same bytes.
inline void put_run(Stream& out, const char* bytes, std::size_t count, const char* who) {
    while (count > 0) {
        std::size_t room = out.write_view_size();
        if (room == 0) {
            put_byte(out, static_cast<unsigned char>(*bytes++), who);
            --count;
            continue;
        }
        if (room > count) room = count;
        std::memcpy(out.write_view(), bytes, room);
        out.produce(room);
        bytes += room;
        count -= room;
    }
}

// Closes context.output (which must be open) and sets it to null. The last
// buffered bytes are written here, so a close that fails is a failed write
// of the file, reported with its path; then 1 is thrown.
void close_output(ParseContext& context);

}  // namespace qbsmtp
