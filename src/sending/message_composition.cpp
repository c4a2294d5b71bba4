// message_composition.cpp: prepare_message, send_mail and their helpers.
//
// The record's texts are taken as they come: no address is parsed or
// unquoted. The sender and the joined recipients must fit the client's
// 255-byte fields; a record whose addresses do not fit is refused rather
// than sent to a cut address.

#include "sending/message_composition.h"

#include <cstdio>
#include <cstring>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "frame/registry_key.h"
#include "frame/text_ops.h"
#include "sending/body_emitters.h"

namespace qbsmtp {

namespace {

constexpr std::size_t field_limit = client_field_size - 1;  // 255 bytes of text
constexpr std::size_t attachment_path_size = 261;
constexpr std::size_t unknown_sender_host_limit = 25;
constexpr const char* body_part_name = "message body";

// Plain ASCII classes: the module never changes or consults the locale.
bool is_space(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

unsigned char ascii_lower(unsigned char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

bool equal_ignoring_case(const char* a, const char* b) {
    for (;; ++a, ++b) {
        const unsigned char x = ascii_lower(static_cast<unsigned char>(*a));
        if (x != ascii_lower(static_cast<unsigned char>(*b))) return false;
        if (x == '\0') return true;
    }
}

// Appends at most limit bytes of text to field (which holds length bytes);
// the zero fill of the client terminates it.
std::size_t append_cut(char* field, std::size_t length, const char* text, std::size_t limit) {
    std::size_t n = 0;
    while (n < limit && text[n] != '\0') ++n;
    std::memcpy(field + length, text, n);
    field[length + n] = '\0';
    return length + n;
}

// Copies the record's sender less its blanks and adds "@" and the host
// name when it has no "@". False when the address does not fit.
bool copy_sender(const char* source, char* sender) {
    std::size_t length = 0;
    std::size_t n = 0;  // source bytes, blanks included
    bool has_at = false;
    for (; source[n] != '\0'; ++n) {
        const unsigned char c = static_cast<unsigned char>(source[n]);
        if (is_space(c)) continue;
        if (length == field_limit) return false;
        sender[length++] = static_cast<char>(c);
        if (c == '@') has_at = true;
    }
    sender[length] = '\0';
    if (has_at) return true;
    if (length == field_limit) return false;  // no room for the "@"
    sender[length++] = '@';
    // The host name is cut to 255 - n bytes, and never past the field.
    std::size_t room = n < field_limit ? field_limit - n : 0;
    if (room > field_limit - length) room = field_limit - length;
    append_cut(sender, length, host_name.c_str(), room);
    return true;
}

// Joins the entries of to by ","; false when the list does not fit.
bool join_recipients(const char* to, char* recipients) {
    std::size_t length = 0;
    for (const char* entry = to; *entry != '\0'; entry += std::strlen(entry) + 1) {
        const std::size_t separator = length > 0 ? 1 : 0;
        const std::size_t entry_length = std::strlen(entry);
        if (length + separator + entry_length > field_limit) return false;
        if (separator != 0) recipients[length++] = ',';
        length = append_cut(recipients, length, entry, entry_length);
    }
    return true;
}

// The test on the first attachment: its first "." anywhere in the path
// must begin exactly ".txt".
bool names_text_body(const char* path) {
    const char* dot = std::strchr(path, '.');
    return dot != nullptr && equal_ignoring_case(dot, ".txt");
}

}  // namespace

int prepare_message(const MailRecord& record, SmtpClient& client) {
    client.body_is_text = 0;
    client.sender[0] = client.recipients[0] = client.subject[0] = '\0';

    const bool sender_fits = record.sender == nullptr || copy_sender(record.sender, client.sender);
    if (record.subject != nullptr) append_cut(client.subject, 0, record.subject, field_limit);
    const bool recipients_fit =
        record.to == nullptr || join_recipients(record.to, client.recipients);
    if (record.attachments != nullptr) {
        for (const char* path = record.attachments; *path != '\0'; path += std::strlen(path) + 1) {
            attach_file(client, path);
        }
    }

    if (client.recipients[0] == '\0' || !recipients_fit) {
        return event_reporter.report(event::no_recipient);
    }
    if (!sender_fits) return event_reporter.report(event::no_sender);
    if (client.sender[0] == '\0') {
        const std::size_t length = append_cut(client.sender, 0, "Unknown@", field_limit);
        append_cut(client.sender, length, host_name.c_str(), unknown_sender_host_limit);
    }
    if (client.attachment_count == 0) return event_reporter.report(event::no_attachment);

    client.body_is_text = names_text_body(record.attachments) ? 1 : 0;
    return 1;
}

void attach_file(SmtpClient& client, const char* path) {
    char copy[attachment_path_size];
    const std::size_t length = std::strlen(path);
    if (length >= sizeof copy) {
        event_reporter.report(event::file_name_too_long, path);
        throw Exception::failed_for_good;
    }
    std::memcpy(copy, path, length + 1);
    const std::size_t before = client.attachments.byte_size();
    client.attachments.append(copy);
    if (client.attachments.byte_size() <= before) {
        // Out of memory: nothing is wrong with the record itself.
        event_reporter.report(event::internal_inconsistency, "LocalAlloc");
        throw Exception::failed_for_now;
    }
    ++client.attachment_count;
}

Stream* open_attachment(SmtpClient&, const char* path, const char* mode) {
    Stream* file = Stream::open(path, mode);
    if (file == nullptr) {
        event_reporter.report_error(event::open_file_failed, path, os::GetLastError());
        throw Exception::failed_for_good;
    }
    return file;
}

bool file_has_mime_headers(Stream* file) {
    char line[256];
    const char* got = file->gets(line, sizeof line);
    file->rewind();
    return got != nullptr && std::strncmp(line, "MIME", 4) == 0;
}

namespace {

constexpr const char* month_names[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

}  // namespace

void emit_date(SmtpClient& client) {
    os::SYSTEMTIME now{};
    os::GetLocalTime(&now);
    os::TIME_ZONE_INFORMATION zone{};
    const os::DWORD zone_id = os::GetTimeZoneInformation(&zone);

    // Bias counts from local time to UTC, so a zone east of UTC is negative.
    int offset = 0;
    if (zone_id == os::TIME_ZONE_ID_STANDARD) offset = zone.Bias + zone.StandardBias;
    if (zone_id == os::TIME_ZONE_ID_DAYLIGHT) offset = zone.Bias + zone.DaylightBias;
    const char sign = offset <= 0 ? '+' : '-';
    const int minutes = offset < 0 ? -offset : offset;

    const char* month = (now.wMonth >= 1 && now.wMonth <= 12) ? month_names[now.wMonth - 1] : "???";
    write_format(client, "Date: %d %s %02d %02d:%02d:%02d %c%02d%02d\r\n", now.wDay, month,
                 now.wYear % 100, now.wHour, now.wMinute, now.wSecond, sign, minutes / 60,
                 minutes % 60);
    std::snprintf(client.boundary, sizeof client.boundary, "QBsmtp-part-%d%02d%02d-%02d%02d%02d",
                  now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute, now.wSecond);
}

void emit_boundary(SmtpClient& client, bool final) {
    write_format(client, final ? "\r\n--%s--\r\n" : "\r\n--%s\r\n", client.boundary);
}

int lookup_content_type(const char* extension, char* buffer, std::size_t size) {
    RegistryKey key(os::KEY_READ, os::HKEY_CLASSES_ROOT);
    return key.open_subkey(extension) && key.get_string("Content Type", buffer, size);
}

namespace {

enum class Emitter { text, base64 };

struct ExtensionRule {
    const char* extension;
    const char* mode;
    Emitter emitter;
    const char* content_type;  // for emit_base64
};

// Searched from the top, ignoring case; anything else asks the registry.
constexpr ExtensionRule extension_table[] = {
    {".txt", "r", Emitter::text, nullptr},
    {".tif", "rb", Emitter::base64, "image/tiff"},
    {".dcx", "rb", Emitter::base64, "image/dcx"},
    {".822", "rb", Emitter::base64, "Message/Rfc822"},
    {".pdf", "rb", Emitter::base64, "application/pdf"},
};

void close_current(SmtpClient& client) {
    client.current->close();
    client.current = nullptr;
}

// One attachment after the first: its boundary, then the part.
void send_part(SmtpClient& client, const char* path) {
    emit_boundary(client, false);
    const char* name = path_file_name(path);
    const char* extension = path_extension(path);
    for (const ExtensionRule& rule : extension_table) {
        if (!equal_ignoring_case(extension, rule.extension)) continue;
        client.current = open_attachment(client, path, rule.mode);
        if (rule.emitter == Emitter::text) {
            emit_text(client, client.current, name);
        } else {
            emit_base64(client, client.current, name, rule.content_type);
        }
        close_current(client);
        return;
    }
    char content_type[256];
    if (!lookup_content_type(extension, content_type, sizeof content_type)) {
        event_reporter.report(event::attachment_type_invalid, path);
        throw Exception::failed_for_good;
    }
    client.current = open_attachment(client, path, "rb");
    emit_base64(client, client.current, name, content_type);
    close_current(client);
}

void send_single_text(SmtpClient& client) {
    client.current = open_attachment(client, client.attachments.text(), "r");
    if (file_has_mime_headers(client.current)) {
        // The file's own header lines follow the Subject line directly.
        emit_text_without_adding_mime_headers(client, client.current);
    } else {
        write_format(client, "MIME-Version: 1.0\r\n");
        emit_text(client, client.current, body_part_name);
    }
    close_current(client);
}

void send_multipart(SmtpClient& client) {
    write_format(client, "MIME-Version: 1.0\r\n");
    write_format(client, "Content-Type: multipart/mixed; boundary=\"%s\"\r\n\r\n", client.boundary);
    const char* path = client.attachments.text();
    emit_boundary(client, false);
    if (client.body_is_text == 1) {
        client.current = open_attachment(client, path, "r");
        emit_text(client, client.current, body_part_name);
        close_current(client);
        path = MultiString::next_entry(path);
    } else {
        emit_text(client, nullptr, body_part_name);  // an empty text part opens the message
    }
    for (; *path != '\0'; path = MultiString::next_entry(path)) send_part(client, path);
    emit_boundary(client, true);
}

}  // namespace

void send_mail(SmtpClient& client) {
    set_phase_timeout(client, Phase::command);
    issue_mail(client, client.sender);
    issue_rcpt(client, client.recipients);
    set_phase_timeout(client, Phase::data_initiation);
    issue_data(client);

    set_phase_timeout(client, Phase::data_block);
    emit_date(client);
    write_format(client, "From: %s\r\n", client.sender);
    write_format(client, "To: %s\r\n", client.recipients);
    write_format(client, "Subject: %s\r\n", client.subject);
    if (client.body_is_text == 1 && client.attachment_count == 1) {
        send_single_text(client);
    } else {
        send_multipart(client);
    }

    set_phase_timeout(client, Phase::data_termination);
    write_format(client, "\r\n.\r\n");
    const int code = read_reply(client);
    if (code != 250) {
        report_unexpected_reply(code);
        throw Exception::failed_for_now;
    }
}

}  // namespace qbsmtp
