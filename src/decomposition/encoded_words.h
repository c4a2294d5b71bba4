// encoded_words.h: the decoder of RFC 2047 encoded words in subjects and
// display names.
//
// One character set is understood, iso-8859-1; a word in any other stays
// in the text as it came, and so does anything that only looks like a
// word. Decoded bytes are stored as they are, with no conversion. Every
// operation works in place and never makes its text longer, so a caller's
// buffer needs no room beyond the text it holds.
#pragma once

#include <cstddef>

namespace qbsmtp {

// The only charset whose encoded words are decoded.
inline constexpr char charset_name[] = "iso-8859-1";

// Replaces each encoded word of text (NUL-terminated) by its decoded bytes.
// White space between words is kept (no joining), and a word that fails
// to parse or decodes to nothing stays as literal text: the scan resumes
// right behind its "=?". A decoded NUL ends that word's text.
void decode_encoded_words(char* text);
// Decodes the base64 text of a word in place, two characters at a time;
// characters outside the alphabet (the pad '=' too) are passed over. The
// result is NUL-terminated; the count covers every decoded byte.
std::size_t decode_base64_word(char* word);
// Decodes the Q text of a word in place: "=XX" is a byte, '_' a space, and
// a '=' without two hex digits behind it vanishes with the two bytes that
// follow it. The result is NUL-terminated; the count covers every decoded
// byte, NULs included.
std::size_t decode_q_word(char* word);
// Removes leading TAB, LF, VT, FF, CR and SP.
void trim_left(char* word);

}  // namespace qbsmtp
