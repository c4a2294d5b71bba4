// ascii.h: character classes and case folding of plain ASCII.
//
// The dialogue matches command words and literals by these, never by the
// C library's locale-dependent classes: bytes from 128 up are no letters,
// whatever the process locale says.
#pragma once

namespace qbsmtp {

constexpr bool ascii_is_upper(int c) {
    return c >= 'A' && c <= 'Z';
}
constexpr bool ascii_is_lower(int c) {
    return c >= 'a' && c <= 'z';
}
constexpr bool ascii_is_alpha(int c) {
    return ascii_is_upper(c) || ascii_is_lower(c);
}
constexpr int ascii_upper(int c) {
    return ascii_is_lower(c) ? c - 'a' + 'A' : c;
}

}  // namespace qbsmtp
