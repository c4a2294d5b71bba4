// transcript.h: the text form of the dialogue and sending cases under
// tests/data/<kind>/NAME.txt, and the matching of what was seen against
// what a case expects.
//
// A case is lines "TAG text": the tag says what the line is, the text
// carries bytes with C escapes (\r \n \t \0 \\ \xHH \{) and repetitions
// ({c*N}: N times the byte c, itself maybe an escape). Lines starting with
// '#' and blank lines are notes. An expected text may hold placeholders for
// what varies from run to run: {n} (decimal digits), {time} (a local time
// as "5 Jun 00 14:03:07", taken from the clock during the case), {boundary}
// (the sending side's boundary, from the same reading of the clock as the
// {time} before it) and {rest} (anything up to the end).
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace qbsmtp::test {

struct TranscriptLine {
    std::string tag;
    std::string text;  // as written, escapes not yet decoded
    int number = 0;    // line number in the file, for messages
};

// The case files (*.txt) in directory, sorted; and the lines of one.
std::vector<std::string> transcript_files(const std::string& directory);
std::vector<TranscriptLine> read_transcript(const std::string& path);
// "NAME" of ".../NAME.txt", for test names.
std::string transcript_name(const std::string& path);

// The byte that text[i] (an escape or a plain byte) stands for; i moves on.
char decode_byte(std::string_view text, std::size_t& i);
// The bytes of a text without placeholders.
std::string decode(std::string_view text);

// Empty when actual is what expected describes; else where they part.
// The clock readings that {time} may show lie from `from` to `to`.
std::string difference(std::string_view expected, std::string_view actual, std::time_t from,
                       std::time_t to);

// The events logged so far, one line each: the id as 0xXXXXXXXX and the
// insertion strings joined by " | ", with `path` shown as `token`. Debug
// texts are left out.
std::vector<std::string> event_lines(const std::string& path = {}, const std::string& token = {});
// Checks the events logged against the expected lines, in order.
void expect_events(const std::vector<std::string>& expected, const std::vector<std::string>& got,
                   std::time_t from, std::time_t to);

// Makes zone (a TZ value) the local zone of the run; false where a running
// program cannot change it: Windows takes its zone from the system (under
// Wine, from the TZ the program started with), never from TZ.
bool set_zone(const std::string& zone);

// Arms the fault that "OP N ERROR [always]" describes (see os::fault_arm).
void arm_fault(const std::string& text);

}  // namespace qbsmtp::test
