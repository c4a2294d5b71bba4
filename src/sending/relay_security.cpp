// relay_security.cpp: TLS, EHLO and AUTH towards the relay.
//
// The secrets (a password, an OAuth2 token) are read from their files at
// every SMTPSend, go to the wire through a writer that echoes nothing to
// the debug log, and are wiped from the stack before it returns. Events
// name the setting or the file, never its content.

#include "sending/relay_security.h"

#include <cstdio>
#include <cstring>

#include "frame/ascii.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/stream.h"
#include "frame/text_ops.h"

namespace qbsmtp {

namespace {

constexpr std::size_t error_text_size = 200;
constexpr std::size_t ehlo_text_size = 4096;
constexpr std::size_t secret_size = 8192;  // OAuth2 tokens run to a few KB

[[noreturn]] void fail(Exception outcome, std::uint32_t id, const char* a,
                       const char* b = nullptr) {
    if (b != nullptr) {
        event_reporter.report(id, a, b);
    } else {
        event_reporter.report(id, a);
    }
    throw outcome;
}

// A refusal by the relay: 4xx may pass, anything else will not.
Exception for_code(int code) {
    return code >= 400 && code < 500 ? Exception::failed_for_now : Exception::failed_for_good;
}

[[noreturn]] void fail_missing(const char* what, int code) {
    char text[64];
    std::snprintf(text, sizeof text, "%s, codice risposta %d", what, code);
    fail(for_code(code), event::relay_security_missing, text);
}

void start_tls(SmtpClient& client, const char* relay_name) {
    char error[error_text_size];
    if (!client.start_tls(client.tls_context, false, relay_name, error, sizeof error))
        fail(Exception::failed_for_good, event::relay_tls_failed, relay_name, error);
    log_debug("TLS started with %s", relay_name);
}

// What EHLO's reply offers. Lines after the first are a keyword and its
// parameters; RFC 4954 and the older "AUTH=" form both list mechanisms.
struct Extensions {
    bool starttls = false;
    bool plain = false;
    bool login = false;
    bool xoauth2 = false;
};

bool same_word(const char* word, std::size_t length, const char* keyword) {
    if (std::strlen(keyword) != length) return false;
    for (std::size_t i = 0; i < length; ++i)
        if (ascii_upper(static_cast<unsigned char>(word[i])) != keyword[i]) return false;
    return true;
}

Extensions parse_extensions(const char* text) {
    Extensions found;
    const char* line = std::strchr(text, '\n');  // the first line is the relay's name
    while (line != nullptr && *++line != '\0') {
        const char* end = std::strchr(line, '\n');
        const char* p = line;
        bool first = true;
        bool auth = false;
        while (p < end) {
            while (p < end && (*p == ' ' || *p == '=')) ++p;
            const char* word = p;
            while (p < end && *p != ' ' && *p != '=') ++p;
            const auto length = static_cast<std::size_t>(p - word);
            if (length == 0) break;
            if (first) {
                found.starttls |= same_word(word, length, "STARTTLS");
                auth = same_word(word, length, "AUTH");
                first = false;
            } else if (auth) {
                found.plain |= same_word(word, length, "PLAIN");
                found.login |= same_word(word, length, "LOGIN");
                found.xoauth2 |= same_word(word, length, "XOAUTH2");
            }
        }
        line = end;
    }
    return found;
}

// EHLO; the reply's code, with the offers in extensions when it is 250.
int issue_ehlo(SmtpClient& client, Extensions& extensions) {
    write_format(client, "EHLO %s\r\n", host_name.c_str());
    char text[ehlo_text_size];
    const int code = read_reply(client, text, sizeof text);
    if (code == 250) extensions = parse_extensions(text);
    return code;
}

// The secret of the file, without its line end; length, or 0 after the
// event (failed_for_now: the host may be writing a fresh token).
std::size_t read_secret(const CountedString& path, char (&secret)[secret_size]) {
    Stream* file = path.empty() ? nullptr : Stream::open(path.c_str(), "rb");
    if (file == nullptr) {
        if (path.empty()) os::SetLastError(os::ERROR_FILE_NOT_FOUND);
        event_reporter.report_error(event::relay_secret_unreadable, path.c_str(),
                                    os::GetLastError());
        throw Exception::failed_for_now;
    }
    std::size_t length = file->read(secret, sizeof secret - 1);
    file->close();
    while (length > 0 && (secret[length - 1] == '\n' || secret[length - 1] == '\r')) --length;
    secret[length] = '\0';
    if (length == 0 || length == sizeof secret - 1 ||
        std::memchr(secret, '\0', length) != nullptr ||
        std::memchr(secret, '\n', length) != nullptr)
        fail(Exception::failed_for_now, event::relay_secret_unreadable, path.c_str(),
             "vuoto, troppo lungo o di pi\xf9 righe");
    return length;
}

void wipe(void* memory, std::size_t size) {
    volatile unsigned char* p = static_cast<volatile unsigned char*>(memory);
    while (size-- > 0) *p++ = 0;
}

// The AUTH command words, past the debug echo like the secret after them;
// a failed send throws, as for every write of the client.
void put_plain(SmtpClient& client, const char* text) {
    for (; *text != '\0'; ++text) client.put_byte(*text);
}

constexpr char base64_alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Puts data in base64 (RFC 4648, with padding) and CR LF; no debug echo.
void put_base64_line(SmtpClient& client, const char* data, std::size_t length) {
    for (std::size_t i = 0; i < length; i += 3) {
        const std::size_t n = length - i < 3 ? length - i : 3;
        std::uint32_t value = 0;
        for (std::size_t k = 0; k < 3; ++k)
            value = (value << 8) | (k < n ? static_cast<unsigned char>(data[i + k]) : 0u);
        for (std::size_t k = 0; k < 4; ++k)
            client.put_byte(k <= n ? base64_alphabet[(value >> (18 - 6 * k)) & 0x3F] : '=');
    }
    client.put_byte('\r');
    client.put_byte('\n');
}

// A reply to AUTH or to one of its steps: 235 ends it well, 334 asks for
// more, anything else ends the attempt.
int expect_auth(SmtpClient& client, bool more_allowed) {
    const int code = read_reply(client);
    if (code == 235 || (more_allowed && code == 334)) return code;
    char text[16];
    fail(for_code(code), event::relay_auth_failed,
         format_unsigned(text, static_cast<std::uint32_t>(code)));
}

void authenticate(SmtpClient& client, const Extensions& offers) {
    const bool token = !relay_token_file.empty();
    if (token ? !offers.xoauth2 : !offers.plain && !offers.login)
        fail(Exception::failed_for_good, event::relay_security_missing,
             token ? "AUTH XOAUTH2 non offerto" : "AUTH PLAIN o LOGIN non offerto");
    char secret[secret_size];
    char message[secret_size + 300];
    std::size_t length = read_secret(token ? relay_token_file : relay_password_file, secret);
    const char* user = relay_user.c_str();
    const std::size_t user_length = std::strlen(user);
    try {
        if (token) {
            // user=U ^A auth=Bearer T ^A ^A; a refusal comes as a 334 with
            // a JSON text, which an empty line answers to get the final code.
            log_debug("AUTH XOAUTH2 (token of %s)", relay_token_file.c_str());
            const int n = std::snprintf(message, sizeof message,
                                        "user=%s\x01"
                                        "auth=Bearer %s\x01\x01",
                                        user, secret);
            put_plain(client, "AUTH XOAUTH2 ");
            put_base64_line(client, message, static_cast<std::size_t>(n));
            if (expect_auth(client, true) == 334) {
                put_plain(client, "\r\n");
                expect_auth(client, false);
            }
        } else if (offers.plain) {
            log_debug("AUTH PLAIN (password of %s)", relay_password_file.c_str());
            message[0] = '\0';
            std::memcpy(message + 1, user, user_length + 1);
            std::memcpy(message + 2 + user_length, secret, length);
            put_plain(client, "AUTH PLAIN ");
            put_base64_line(client, message, user_length + 2 + length);
            expect_auth(client, false);
        } else {
            log_debug("AUTH LOGIN (password of %s)", relay_password_file.c_str());
            put_plain(client, "AUTH LOGIN\r\n");
            expect_auth(client, true);
            put_base64_line(client, user, user_length);
            expect_auth(client, true);
            put_base64_line(client, secret, length);
            expect_auth(client, false);
        }
    } catch (...) {
        wipe(secret, sizeof secret);
        wipe(message, sizeof message);
        wipe(client.write_buffer, sizeof client.write_buffer);
        throw;
    }
    wipe(secret, sizeof secret);
    wipe(message, sizeof message);
    wipe(client.write_buffer, sizeof client.write_buffer);
}

}  // namespace

void open_relay_security(SmtpClient& client, const char* relay_name) {
    char error[error_text_size];
    client.tls_context =
        os::tls_client_context(relay_ca_file.empty() ? nullptr : relay_ca_file.c_str(),
                               relay_verify != 0, error, sizeof error);
    if (client.tls_context == nullptr)
        fail(Exception::failed_for_good, event::relay_tls_failed, relay_name, error);
    if (relay_verify == 0) event_reporter.report(event::relay_unverified, relay_name);
    if (relay_security == 3) start_tls(client, relay_name);
}

void greet_relay(SmtpClient& client, const char* relay_name) {
    Extensions offers;
    int code = issue_ehlo(client, offers);
    if (code >= 400 && code < 500) {
        report_unexpected_reply(code);
        throw Exception::failed_for_now;
    }
    if (code != 250) {
        // A relay of the documented kind: HELO will do where nothing more is asked.
        if (relay_security == 2) fail_missing("EHLO rifiutato", code);
        if (!relay_user.empty()) fail_missing("EHLO (per AUTH) rifiutato", code);
        issue_helo(client);
        return;
    }
    if (client.tls == nullptr && (offers.starttls || relay_security == 2)) {
        if (!offers.starttls)
            fail(Exception::failed_for_good, event::relay_security_missing, "STARTTLS non offerto");
        write_format(client, "STARTTLS\r\n");
        code = read_reply(client);
        if (code == 220) {
            start_tls(client, relay_name);
            // RFC 3207: what EHLO said in plain text no longer counts.
            offers = Extensions{};
            code = issue_ehlo(client, offers);
            if (code != 250) {
                report_unexpected_reply(code);
                throw for_code(code);
            }
        } else if (relay_security == 2) {
            fail_missing("STARTTLS rifiutato", code);
        } else {
            log_debug("STARTTLS refused (%d): going on in plain text", code);
        }
    }
    if (relay_user.empty()) return;
    if (client.tls == nullptr)
        fail(Exception::failed_for_good, event::relay_security_missing, "AUTH senza TLS");
    authenticate(client, offers);
}

}  // namespace qbsmtp
