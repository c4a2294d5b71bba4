// os_posix_text.cpp: text conversions at the edge of the backend.
//
// The JSON form of the event file's texts; their conversion from code page
// 1252 to UTF-8 is shared by every backend (os_common_text.cpp).
#include <cstdio>
#include <string>

#include "platform/os_posix_internal.h"

namespace qbsmtp::os::posix {

void append_json_string(std::string& out, const std::string& text) {
    out.push_back('"');
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            default:
                if (byte < 0x20) {
                    char escape[8];
                    std::snprintf(escape, sizeof escape, "\\u%04x", byte);
                    out += escape;
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back('"');
}

}  // namespace qbsmtp::os::posix
