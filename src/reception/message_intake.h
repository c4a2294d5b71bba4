// message_intake.h: DATA: the spool file, its trace headers, the text with
// its dots undone, and the acceptance that hands the file to pickup.
//
// A message is written to rxNNNNNN.tmp in spool_dir and renamed to
// rxNNNNNN.822 only after the 250 has gone out; pickup searches "*.822"
// alone, so it never sees a file under reception. Any failure before the
// stream is closed removes the file. While session.spool is open, a thrown
// send failure leaves the removal to session_thread.
#pragma once

#include <cstddef>

#include "platform/os.h"
#include "reception/smtp_session.h"

namespace qbsmtp {

// receive_text's result for a text longer than MaxMessageSize.
inline constexpr int TEXT_TOO_LARGE = 17;

// Runs DATA after its clean command line: LINE_CLEAN when the message was
// accepted or refused for good with a 552 (the caller clears sender_set),
// LINE_EXTRA when it was refused with a 452, SESSION_GONE when the peer
// went away during the text.
int receive_message(SmtpSession& session);

// Creates the spool file and opens it for writing; null on failure, after
// an event. spool_path is filled in both cases (with the "*" template when
// no name could be made).
Stream* open_spool_file(SmtpSession& session);
// Writes Return-Path and Received; negative when a write failed.
int write_trace_headers(SmtpSession& session);
// Stores the text up to the end marker: LINE_CLEAN, LINE_EXTRA (a write
// failed; the rest was read and dropped), TEXT_TOO_LARGE (more than
// MaxMessageSize bytes to store; the rest was read and dropped) or
// SESSION_GONE.
int receive_text(SmtpSession& session);

// The zone's offset in minutes (UTC minus local time) from the result of
// GetTimeZoneInformation; 0 for an unknown zone or a failure.
os::LONG zone_bias_minutes(os::DWORD zone_id, const os::TIME_ZONE_INFORMATION& zone);
// The time stamp of the Received line, "5 Jun 00 14:03:07 +0200" and CR LF;
// the number of characters, as snprintf gives it.
int format_time_stamp(char* buffer, std::size_t size, const os::SYSTEMTIME& time, os::LONG bias);

}  // namespace qbsmtp
