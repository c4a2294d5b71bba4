// session_dialogue.h: the server side of the SMTP conversation on one
// connection: command words, argument parsers, the flags that order the
// commands, and every reply.
//
// The dialogue reads byte by byte and never buffers a line, so no line
// length limit exists beyond the two stored arguments (helo_domain, at
// most 510 bytes; reverse_path, at most 511). The only line end it knows
// is CR LF. Readers and parsers return a command code (0 to 13, or
// cmd_ehlo and cmd_starttls), SESSION_GONE, LINE_CLEAN or LINE_EXTRA.
#pragma once

#include "reception/smtp_session.h"

namespace qbsmtp {

// Command codes: the rows of the command table.
enum CommandCode : int {
    cmd_helo = 0,
    cmd_mail = 1,
    cmd_rcpt = 2,
    cmd_data = 3,
    cmd_rset = 4,
    cmd_noop = 5,
    cmd_quit = 6,
    cmd_help = 7,
    cmd_send = 8,
    cmd_soml = 9,
    cmd_saml = 10,
    cmd_vrfy = 11,
    cmd_expn = 12,
    cmd_turn = 13,
};

// The extended commands, read only while extensions_offered(); numbered
// beyond the other results, so the table's codes stay as they are.
inline constexpr int cmd_ehlo = 18;
inline constexpr int cmd_starttls = 19;

// EHLO is answered (and MAIL parameters and STARTTLS known) when Esmtp is
// 1 or a certificate for STARTTLS loaded; else EHLO stays unrecognised.
bool extensions_offered();

// Greets, runs the dialogue until QUIT or a lost connection, and tries the
// 221 at the end. Result 0; throws the integer 1 when a send fails, and
// after a failed TLS handshake (no 221: the connection is in no state for
// plain text).
int smtp_session(SmtpSession& session);

// Reads a four-letter command word: its code, SESSION_GONE, or LINE_EXTRA
// (a byte that is no letter, pushed back, or a word not in the table).
int read_command(SmtpSession& session);
// Reads up to and including the next CR LF: LINE_CLEAN if the CR LF came at
// once, else LINE_EXTRA (after a 501 reply when complain is set), or
// SESSION_GONE.
int finish_line(SmtpSession& session, bool complain);
void reply_syntax_error(SmtpSession& session);
// Matches literal (upper case) against the input in either case:
// LINE_CLEAN, LINE_EXTRA (the differing byte is pushed back) or
// SESSION_GONE.
int expect_literal(SmtpSession& session, const char* literal);
// word: the command, for its 501 ("HELO" or "EHLO").
int parse_helo(SmtpSession& session, const char* word = "HELO");
int parse_mail(SmtpSession& session);
int parse_rcpt(SmtpSession& session);

// The HELP reply, sixteen lines of one multi-line 250 reply.
extern const char* const help_lines[16];

}  // namespace qbsmtp
