// os_common_text.cpp: code page 1252 to UTF-8, for every backend and for
// the tests that read the module's texts back.
//
// 0x80-0x9F follow the Windows table; the five bytes that table leaves
// undefined map to the C1 controls of the same value, as
// MultiByteToWideChar does.
#include "platform/os_text.h"

namespace qbsmtp::os {
namespace {

constexpr char16_t cp1252_high[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,  // 80-87
    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,  // 88-8F
    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,  // 90-97
    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178,  // 98-9F
};

void append_code_point(std::string& out, char16_t code) {
    if (code < 0x80) {
        out.push_back(static_cast<char>(code));
    } else if (code < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (code >> 6)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xE0 | (code >> 12)));
        out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    }
}

}  // namespace

void append_utf8_from_cp1252(std::string& out, const char* text, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x80 && byte <= 0x9F)
            append_code_point(out, cp1252_high[byte - 0x80]);
        else
            append_code_point(out, byte);  // Latin-1 agrees with 1252 elsewhere
    }
}

}  // namespace qbsmtp::os
