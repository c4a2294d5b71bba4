// session_dialogue.cpp: commands, parsers, flags and replies of a session.

#include "reception/session_dialogue.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "frame/ascii.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "reception/message_intake.h"
#include "reception/session_io.h"

namespace qbsmtp {

namespace {

// The order of commands within one conversation.
struct DialogueFlags {
    bool greeted = false;     // a HELO was accepted; nothing clears it
    bool sender_set = false;  // a MAIL was accepted for the message being assembled
};

using CommandHandler = int (*)(SmtpSession&, DialogueFlags&);

// Sends one reply and flushes it: every reply of the dialogue goes out
// at once.
void reply(SmtpSession& session, const char* text) {
    session_printf(session, "%s", text);
    session_flush(session);
}

// RequireTls: no envelope and no text before STARTTLS has succeeded.
bool refused_without_tls(SmtpSession& session) {
    if (require_tls == 0 || session.tls != nullptr) return false;
    reply(session, "530 Must issue a STARTTLS command first\r\n");
    return true;
}

int handle_helo(SmtpSession& session, DialogueFlags& flags) {
    const int result = parse_helo(session);
    if (result != cmd_helo) return result;
    session_printf(session, "250 %s\r\n", host_name.c_str());
    session_flush(session);
    flags.greeted = true;
    flags.sender_set = false;
    session.esmtp = false;
    return result;
}

// The first line is HELO's reply; then only what this dialogue really
// does. PIPELINING: every reply goes out as its command is read, and
// input behind a command stays buffered for the next one, so a batch is
// answered in order; STARTTLS drops what came behind it.
int handle_ehlo(SmtpSession& session, DialogueFlags& flags) {
    const int result = parse_helo(session, "EHLO");
    if (result != cmd_helo) return result;
    char size[24] = "SIZE";  // RFC 1870: no number, no fixed limit
    if (max_message_size != 0)
        std::snprintf(size, sizeof size, "SIZE %lu", static_cast<unsigned long>(max_message_size));
    const char* const lines[] = {host_name.c_str(), "8BITMIME", "PIPELINING", size, "STARTTLS"};
    const std::size_t count = server_tls != nullptr && session.tls == nullptr ? 5 : 4;
    for (std::size_t i = 0; i < count; ++i)
        session_printf(session, "250%c%s\r\n", i + 1 < count ? '-' : ' ', lines[i]);
    session_flush(session);
    flags.greeted = true;
    flags.sender_set = false;
    session.esmtp = true;
    return cmd_ehlo;
}

// STARTTLS (RFC 3207); the session time-out bounds the handshake.
int handle_starttls(SmtpSession& session, DialogueFlags& flags) {
    const int result = finish_line(session, false);
    if (result == SESSION_GONE) return result;
    if (result == LINE_EXTRA) {
        reply(session, "501 Syntax error (no parameters allowed)\r\n");
    } else if (server_tls == nullptr) {
        reply(session, "502 command not implemented\r\n");
    } else if (session.tls != nullptr) {
        reply(session, "503 TLS already active\r\n");
    } else if (!session.esmtp) {
        reply(session, "503 Need EHLO command\r\n");
    } else {
        reply(session, "220 Ready to start TLS\r\n");
        // start_tls drops the read buffer: plain text that the client sent
        // behind STARTTLS must never count as a command given under TLS
        // (the command injection of RFC 3207's section 5).
        char error[200] = "";
        if (!session.start_tls(server_tls, true, nullptr, error, sizeof error)) {
            event_reporter.report(event::tls_handshake_failed, session.helo_domain, error);
            throw 1;
        }
        // The session starts over: EHLO again, nothing of before is kept.
        flags = DialogueFlags{};
        session.esmtp = false;
        session.helo_domain[0] = '\0';
        session.reverse_path[0] = '\0';
    }
    return cmd_starttls;
}

int handle_mail(SmtpSession& session, DialogueFlags& flags) {
    const int result = parse_mail(session);
    if (result != cmd_mail) return result;
    if (refused_without_tls(session)) return result;
    if (!flags.sender_set && flags.greeted) {
        reply(session, "250 OK\r\n");
        flags.sender_set = true;
    } else if (flags.greeted) {
        reply(session, "503 Sender already specified\r\n");
    } else {
        reply(session, "503 Need HELO command\r\n");
    }
    return result;
}

int handle_rcpt(SmtpSession& session, DialogueFlags& flags) {
    const int result = parse_rcpt(session);
    if (result != cmd_rcpt || refused_without_tls(session)) return result;
    reply(session, flags.sender_set ? "250 recipient OK\r\n" : "503 Need MAIL command\r\n");
    return result;
}

int handle_data(SmtpSession& session, DialogueFlags& flags) {
    const int result = finish_line(session, true);
    if (result != LINE_CLEAN || refused_without_tls(session)) return result;
    // The extended dialogue keeps RFC 5321's order: no text without a
    // sender (with PIPELINING, a refused MAIL must not lead to a message).
    if (session.esmtp && !flags.sender_set) {
        reply(session, "503 Need MAIL command\r\n");
        return result;
    }
    const int outcome = receive_message(session);
    if (outcome == LINE_CLEAN) flags.sender_set = false;
    return outcome;
}

int handle_rset(SmtpSession& session, DialogueFlags& flags) {
    const int result = finish_line(session, true);
    if (result != LINE_CLEAN) return result;
    reply(session, "250 Reset\r\n");
    flags.sender_set = false;
    return result;
}

int handle_noop(SmtpSession& session, DialogueFlags&) {
    const int result = finish_line(session, true);
    if (result == LINE_CLEAN) reply(session, "250 Quillbox SMTP OK\r\n");
    return result;
}

int handle_quit(SmtpSession& session, DialogueFlags&) {
    const int result = finish_line(session, true);
    return result == LINE_CLEAN ? cmd_quit : result;
}

int handle_help(SmtpSession& session, DialogueFlags&) {
    const int result = finish_line(session, false);
    for (const char* line : help_lines) session_printf(session, "%s\r\n", line);
    session_flush(session);
    return result;
}

int handle_refused(SmtpSession& session, DialogueFlags&) {
    const int result = finish_line(session, false);
    reply(session, "502 command not implemented\r\n");
    return result;
}

int handle_unrecognised(SmtpSession& session, DialogueFlags&) {
    const int result = finish_line(session, false);
    reply(session, "500 Syntax error, command unrecognised\r\n");
    return result;
}

struct CommandRow {
    char word[4];
    CommandCode code;
    CommandHandler handler;
};

// Searched from the top by the four upper-case letters.
constexpr CommandRow command_table[] = {
    {{'H', 'E', 'L', 'O'}, cmd_helo, handle_helo},
    {{'M', 'A', 'I', 'L'}, cmd_mail, handle_mail},
    {{'R', 'C', 'P', 'T'}, cmd_rcpt, handle_rcpt},
    {{'D', 'A', 'T', 'A'}, cmd_data, handle_data},
    {{'R', 'S', 'E', 'T'}, cmd_rset, handle_rset},
    {{'N', 'O', 'O', 'P'}, cmd_noop, handle_noop},
    {{'Q', 'U', 'I', 'T'}, cmd_quit, handle_quit},
    {{'H', 'E', 'L', 'P'}, cmd_help, handle_help},
    {{'S', 'E', 'N', 'D'}, cmd_send, handle_refused},
    {{'S', 'O', 'M', 'L'}, cmd_soml, handle_refused},
    {{'S', 'A', 'M', 'L'}, cmd_saml, handle_refused},
    {{'V', 'R', 'F', 'Y'}, cmd_vrfy, handle_refused},
    {{'E', 'X', 'P', 'N'}, cmd_expn, handle_refused},
    {{'T', 'U', 'R', 'N'}, cmd_turn, handle_refused},
};
static_assert(sizeof command_table / sizeof command_table[0] == cmd_turn + 1);

// Stored bytes at which an argument is refused; each field keeps room
// for its NUL.
constexpr std::size_t helo_domain_limit = session_field_size - 1;  // 511 stored: too long
constexpr std::size_t reverse_path_limit = session_field_size;     // 512 stored: too long

// The n bytes at text are keyword, in either case.
bool is_keyword(const char* text, std::size_t n, const char* keyword) {
    if (std::strlen(keyword) != n) return false;
    for (std::size_t i = 0; i < n; ++i)
        if (ascii_upper(static_cast<unsigned char>(text[i])) != keyword[i]) return false;
    return true;
}

// The parameters behind the reverse path of an EHLO session, up to the
// line's end: SIZE=n (RFC 1870) and BODY=7BIT or 8BITMIME (RFC 6152).
// cmd_mail when they are acceptable; else, after the reply, LINE_EXTRA.
int parse_mail_parameters(SmtpSession& session) {
    char line[session_field_size];
    std::size_t stored = 0;
    bool too_long = false;
    for (int previous = -1;;) {
        const int c = session_getc(session);
        if (c < 0) return SESSION_GONE;
        if (previous == '\r' && c == '\n') break;
        previous = c;
        if (stored < sizeof line) {
            line[stored++] = static_cast<char>(c);
        } else {
            too_long = true;
        }
    }
    if (too_long || std::memchr(line, '\0', stored) != nullptr) {
        reply_syntax_error(session);
        return LINE_EXTRA;
    }
    line[stored - 1] = '\0';  // the CR
    bool too_large = false;
    for (const char* p = line; *p != '\0';) {
        if (*p++ != ' ') {
            reply_syntax_error(session);
            return LINE_EXTRA;
        }
        const std::size_t n = std::strcspn(p, " ");
        if (n > 5 && is_keyword(p, 5, "SIZE=")) {
            std::uint64_t size = 0;
            for (std::size_t i = 5; i < n; ++i) {
                if (p[i] < '0' || p[i] > '9' || n > 5 + 19) {  // 19 digits fit 64 bits
                    reply_syntax_error(session);
                    return LINE_EXTRA;
                }
                size = size * 10 + static_cast<unsigned>(p[i] - '0');
            }
            too_large = too_large || (max_message_size != 0 && size > max_message_size);
        } else if (n != 0 && !is_keyword(p, n, "BODY=7BIT") && !is_keyword(p, n, "BODY=8BITMIME")) {
            reply(session,
                  "555 MAIL FROM/RCPT TO parameters not recognized or not implemented\r\n");
            return LINE_EXTRA;
        }
        p += n;
    }
    if (too_large) {
        reply(session, "552 Message size exceeds fixed maximum message size\r\n");
        return LINE_EXTRA;
    }
    return cmd_mail;
}

}  // namespace

const char* const help_lines[16] = {
    "250-Quillbox SMTP : The following SMTP commands are implemented:",
    "250-",
    "250-   HELO hostname                   - startup and give your hostname",
    "250-   MAIL FROM:<sender-address>      - start transaction from sender",
    "250-   RCPT TO:<recipient-address>     - name recipient for message",
    "250-   DATA                            - start text of mail message",
    "250-   RSET                            - reset state, drop transaction",
    "250-   NOOP                            - do nothing",
    "250-   HELP                            - produce this help message",
    "250-   QUIT                            - close SMTP connection",
    "250-",
    "250-The normal sequence of events in sending a message is to state the",
    "250-sender address with a MAIL FROM command, give the recipients with",
    "250-as many RCPT TO commands as are required (one address per command)",
    "250-and then to specify the mail message text after the DATA command.",
    "250 Multiple messages may be specified.  End the last one with a QUIT.",
};

int read_command(SmtpSession& session) {
    char word[4];
    for (char& letter : word) {
        const int c = session_getc(session);
        if (c < 0) return SESSION_GONE;
        if (!ascii_is_alpha(c)) {
            session_ungetc(c, session);
            return LINE_EXTRA;
        }
        letter = static_cast<char>(ascii_upper(c));
    }
    for (const CommandRow& row : command_table)
        if (std::memcmp(row.word, word, sizeof word) == 0) return row.code;
    if (!extensions_offered()) return LINE_EXTRA;
    if (std::memcmp(word, "EHLO", sizeof word) == 0) return cmd_ehlo;
    if (std::memcmp(word, "STAR", sizeof word) != 0) return LINE_EXTRA;
    const int rest = expect_literal(session, "TTLS");
    return rest == LINE_CLEAN ? cmd_starttls : rest;
}

int finish_line(SmtpSession& session, bool complain) {
    int count = 0;
    int previous = -1;
    for (;;) {
        const int c = session_getc(session);
        if (c < 0) return SESSION_GONE;
        ++count;
        // Only CR LF ends the line; a lone CR or LF is an ordinary byte.
        if (previous == '\r' && c == '\n') break;
        previous = c;
    }
    if (count == 2) return LINE_CLEAN;
    if (complain) reply_syntax_error(session);
    return LINE_EXTRA;
}

void reply_syntax_error(SmtpSession& session) {
    reply(session, "501 Syntax error in parameters or arguments\r\n");
}

int expect_literal(SmtpSession& session, const char* literal) {
    for (const char* p = literal; *p != '\0'; ++p) {
        const int c = session_getc_upper(session);
        if (c == static_cast<unsigned char>(*p)) continue;
        if (c < 0) return SESSION_GONE;
        session_ungetc(c, session);
        return LINE_EXTRA;
    }
    return LINE_CLEAN;
}

bool extensions_offered() {
    return esmtp != 0 || server_tls != nullptr;
}

int parse_helo(SmtpSession& session, const char* word) {
    int c = session_getc(session);
    if (c < 0) return SESSION_GONE;
    if (c != ' ') {
        // "HELOXY" counts as a HELO that names no new domain.
        session_ungetc(c, session);
        const int result = finish_line(session, false);
        if (result == LINE_EXTRA) return cmd_helo;
        if (result == LINE_CLEAN) {
            session_printf(session, "501 %s needs to specify a domain\r\n", word);
            session_flush(session);
        }
        return result;
    }
    // Collected aside, so that a refused domain leaves the earlier one.
    char domain[session_field_size];
    std::size_t stored = 0;
    for (;;) {
        if (stored == helo_domain_limit) {
            session_ungetc(static_cast<unsigned char>(domain[stored - 1]), session);
            const int result = finish_line(session, false);
            reply(session, "500 Line too long\r\n");
            return result;
        }
        c = session_getc(session);
        if (c < 0) return SESSION_GONE;
        if (c == '\r') {
            c = session_getc(session);
            if (c < 0) return SESSION_GONE;
            if (c == '\n') {
                domain[stored] = '\0';
                std::memcpy(session.helo_domain, domain, stored + 1);
                return cmd_helo;
            }
            // The CR is dropped; the byte behind it is stored as it is.
        }
        domain[stored++] = static_cast<char>(c);
    }
}

int parse_mail(SmtpSession& session) {
    const int matched = expect_literal(session, " FROM:<");
    if (matched == SESSION_GONE) {
        reply_syntax_error(session);
        return SESSION_GONE;
    }
    if (matched == LINE_EXTRA) {
        const int result = finish_line(session, false);
        reply_syntax_error(session);
        return result;
    }
    // Only '>' ends the path: CR and LF are stored like any byte.
    char path[session_field_size];
    std::size_t stored = 0;
    for (;;) {
        if (stored == reverse_path_limit) {
            const int result = finish_line(session, false);
            reply(session, "500 Reverse path too long\r\n");
            return result;
        }
        const int c = session_getc(session);
        if (c < 0) return SESSION_GONE;
        if (c == '>') {
            // Stored before the flags are tested: a MAIL refused with 503
            // has still replaced the path.
            path[stored] = '\0';
            std::memcpy(session.reverse_path, path, stored + 1);
            if (session.esmtp) return parse_mail_parameters(session);
            const int result = finish_line(session, true);
            return result == LINE_CLEAN ? cmd_mail : result;
        }
        path[stored++] = static_cast<char>(c);
    }
}

int parse_rcpt(SmtpSession& session) {
    // Recipients come from the message's headers; the line is not read.
    const int result = finish_line(session, false);
    return result == SESSION_GONE ? SESSION_GONE : cmd_rcpt;
}

int smtp_session(SmtpSession& session) {
    DialogueFlags flags;
    session_printf(session, "220 %s Quillbox SMTP Service ready (tid=%ld)\r\n", host_name.c_str(),
                   static_cast<long>(session.thread.thread_id));
    session_flush(session);
    int result = 0;
    do {
        const int code = read_command(session);
        if (code == SESSION_GONE) break;
        const CommandHandler handler = code == LINE_EXTRA     ? handle_unrecognised
                                       : code == cmd_ehlo     ? handle_ehlo
                                       : code == cmd_starttls ? handle_starttls
                                                              : command_table[code].handler;
        result = handler(session, flags);
    } while (result != cmd_quit && result != SESSION_GONE);
    // Tried on every orderly end, towards a peer that is gone as well.
    session_printf(session, "221 %s Service closing transmission\r\n", host_name.c_str());
    session_flush(session);
    return 0;
}

}  // namespace qbsmtp
