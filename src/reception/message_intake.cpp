// message_intake.cpp: DATA, from the spool file to the rename to .822.

#include "reception/message_intake.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/counted_string.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/duplicate_filter.h"
#include "reception/session_io.h"

namespace qbsmtp {

namespace {

constexpr const char* month_names[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                         "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

void reply(SmtpSession& session, const char* text) {
    session_printf(session, "%s", text);
    session_flush(session);
}

// Closes the open spool stream, whatever its state, and removes the file.
void discard_spool(SmtpSession& session) {
    session.spool->close();
    session.spool = nullptr;
    os::DeleteFileA(session.spool_path);
}

// A copy of the accepted file in the Debug directory beside it, under its
// temporary name. No failure here touches the message.
void make_debug_copy(const SmtpSession& session) {
    CountedString target(session.spool_path);
    if (target.empty()) return;  // no memory for the path
    remove_last_component(target);
    append_component(target, "Debug");
    if (!ensure_directory(target)) {
        const os::DWORD error = os::GetLastError();
        event_reporter.report_error(event::create_directory_failed, target.c_str(), error);
        return;
    }
    append_component(target, path_file_name(session.spool_path));
    if (!os::CopyFileA(session.spool_path, target.c_str(), 0)) {
        const os::DWORD error = os::GetLastError();
        event_reporter.report_error(event::copy_file_failed, session.spool_path, target.c_str(),
                                    error);
    }
}

// Hands the file over to pickup by its final name, on the disk before the
// call returns unless SpoolSync is 0. A failed rename leaves the .tmp file
// where nothing picks it up while the peer gets its 250 all the same: the
// one loss that must not pass in silence, so it has an event of its own.
void publish_spool_file(const SmtpSession& session) {
    char final_path[os::MAX_PATH];
    std::memcpy(final_path, session.spool_path, sizeof final_path);
    // The name ends in ".tmp", so ".822" takes exactly its room.
    char* extension = final_path + (path_extension(session.spool_path) - session.spool_path);
    std::memcpy(extension, ".822", sizeof ".822");
    const bool moved = spool_sync != 0 ? os::MoveFileExA(session.spool_path, final_path,
                                                         os::MOVEFILE_WRITE_THROUGH) != 0
                                       : os::MoveFileA(session.spool_path, final_path) != 0;
    if (moved) return;
    // A failed sync of the directory leaves the file under its final name,
    // where pickup finds it: only a file still under its .tmp name is lost.
    const os::DWORD error = os::GetLastError();
    if (os::GetFileAttributesA(session.spool_path) != os::INVALID_FILE_ATTRIBUTES)
        event_reporter.report_error(event::spool_rename_failed, session.spool_path, final_path,
                                    error);
}

// The message is complete, synced and closed: hand it over (or drop a
// repeat), then answer. The 250 comes last so that a process that ends at
// any moment after it leaves the message under its final name; ending
// before it, the peer has no 250 and sends the message again.
int accept_message(SmtpSession& session, const MessageIdScanner& scan) {
    event_reporter.report_if(QBSMTP_LOG_SESSIONS, event::mail_accepted, session.spool_path);
    if (event_reporter.mask_has(QBSMTP_LOG_DEBUG_COPY)) make_debug_copy(session);
    if (check_duplicate(session.spool_path, scan) != 0)
        publish_spool_file(session);
    else
        os::DeleteFileA(session.spool_path);
    reply(session, "250 Mail accepted\r\n");
    return LINE_CLEAN;
}

enum class TextState { line_start, after_dot, after_dot_cr, in_line, after_cr };

}  // namespace

Stream* open_spool_file(SmtpSession& session) {
    const os::HANDLE file =
        create_unique_file(spool_dir, session.spool_path, sizeof session.spool_path, "rx", ".tmp");
    if (file == os::INVALID_HANDLE_VALUE) {
        const os::DWORD error = os::GetLastError();
        event_reporter.report_error(event::create_file_failed, session.spool_path, error);
        return nullptr;
    }
    // Written through the handle that made the name: opening the file
    // again by its path cost two opens and a close per message.
    Stream* stream = Stream::adopt(file, "wb");
    if (stream == nullptr) {
        // No memory for the stream; the empty file stays behind.
        const os::DWORD error = os::GetLastError();
        event_reporter.report_error(event::open_file_failed, session.spool_path, error);
    }
    return stream;
}

os::LONG zone_bias_minutes(os::DWORD zone_id, const os::TIME_ZONE_INFORMATION& zone) {
    switch (zone_id) {
        case os::TIME_ZONE_ID_STANDARD:
            return zone.Bias + zone.StandardBias;
        case os::TIME_ZONE_ID_DAYLIGHT:
            return zone.Bias + zone.DaylightBias;
        default:
            return 0;
    }
}

int format_time_stamp(char* buffer, std::size_t size, const os::SYSTEMTIME& time, os::LONG bias) {
    // The bias is UTC minus local time: a zone east of Greenwich has a
    // negative one and shows '+'.
    const char sign = bias <= 0 ? '+' : '-';
    const long offset = std::labs(static_cast<long>(bias));
    const char* month =
        time.wMonth >= 1 && time.wMonth <= 12 ? month_names[time.wMonth - 1] : "???";
    return std::snprintf(buffer, size, "%d %s %02d %02d:%02d:%02d %c%02ld%02ld\r\n", time.wDay,
                         month, time.wYear % 100, time.wHour, time.wMinute, time.wSecond, sign,
                         offset / 60, offset % 60);
}

int write_trace_headers(SmtpSession& session) {
    Stream& spool = *session.spool;
    if (spool.printf("Return-Path: <%s>\r\n", session.reverse_path) < 0) return -1;
    os::SYSTEMTIME now{};
    os::GetLocalTime(&now);
    os::TIME_ZONE_INFORMATION zone{};
    const os::DWORD zone_id = os::GetTimeZoneInformation(&zone);
    const os::LONG bias = zone_bias_minutes(zone_id, zone);
    // RFC 3848's names for the extended dialogue, with and without TLS.
    const char* protocol = session.tls != nullptr ? "ESMTPS" : session.esmtp ? "ESMTP" : "SMTP";
    if (spool.printf("Received: from %s by %s with %s ; ", session.helo_domain, host_name.c_str(),
                     protocol) < 0)
        return -1;
    char stamp[64];
    format_time_stamp(stamp, sizeof stamp, now, bias);
    return spool.printf("%s", stamp);
}

int receive_text(SmtpSession& session) {
    Stream& spool = *session.spool;
    bool store_ok = true;       // every write so far succeeded
    bool line_pending = false;  // a line was stored without its CR LF
    // Bytes the text may still take: MaxMessageSize counts the text as
    // stored (dots and the final CR LF undone), not the trace headers.
    std::uint64_t room = max_message_size != 0 ? max_message_size : ~std::uint64_t{0};
    bool too_large = false;
    // After the first failed write, or past the limit, nothing more is
    // written, but the text is read on up to the end marker, so the
    // dialogue stays in step.
    auto put = [&](int c) {
        if (room-- == 0) too_large = true;
        if (store_ok && !too_large && spool.putc(c) == Stream::eof) store_ok = false;
    };
    auto open_line = [&] {
        if (line_pending) {
            put('\r');
            put('\n');
            line_pending = false;
        }
    };
    TextState state = TextState::line_start;
    for (;;) {
        const int c = session_getc(session);
        if (c < 0) return SESSION_GONE;
        switch (state) {
            case TextState::line_start:
                if (c == '.') {  // dropped, whether or not another dot follows
                    state = TextState::after_dot;
                    continue;
                }
                open_line();
                break;
            case TextState::after_dot:
                if (c == '\r') {
                    state = TextState::after_dot_cr;
                    continue;
                }
                open_line();
                break;
            case TextState::after_dot_cr:
                // The end marker: the CR LF in front of it is not stored.
                if (c == '\n')
                    return too_large ? TEXT_TOO_LARGE : store_ok ? LINE_CLEAN : LINE_EXTRA;
                open_line();
                put('\r');
                break;
            case TextState::after_cr:
                if (c == '\n') {
                    line_pending = true;
                    state = TextState::line_start;
                    continue;
                }
                put('\r');  // a lone CR is stored as it came
                if (c == '\r') continue;
                put(c);
                state = TextState::in_line;
                continue;
            case TextState::in_line:
                break;
        }
        // The byte as it stands in a line.
        if (c == '\r') {
            state = TextState::after_cr;
        } else {
            put(c);
            state = TextState::in_line;
        }
    }
}

int receive_message(SmtpSession& session) {
    session.spool = open_spool_file(session);
    if (session.spool == nullptr) {
        // The flags stay: DATA may be tried again at once.
        reply(session, "452 Out of resources, try again later\r\n");
        return LINE_EXTRA;
    }
    reply(session, "354 Start mail input; end with <CRLF>.<CRLF>\r\n");
    // The duplicate filter's search runs over the bytes as they go to the
    // file, so an accepted file is not read again.
    MessageIdScanner scan;
    session.spool->observe_writes(scan_written_bytes, &scan);
    int result = write_trace_headers(session) < 0 ? LINE_EXTRA : receive_text(session);
    if (result == LINE_CLEAN) {
        // With a buffered stream a full disk may show only at the close, and
        // without a sync a crash of the machine may lose what the system
        // still holds: a 250 for a file that is not whole would lose the
        // mail. A failed sync is a failed write.
        Stream* spool = session.spool;
        session.spool = nullptr;
        const bool synced = spool_sync == 0 || spool->sync() == 0;
        if (spool->close() == 0 && synced) return accept_message(session, scan);
        os::DeleteFileA(session.spool_path);
        reply(session, "452 No space left, try again later\r\n");
        return LINE_EXTRA;
    }
    if (result == TEXT_TOO_LARGE) {
        // Refused for good: sending it again would not make it smaller.
        char limit[16];
        std::snprintf(limit, sizeof limit, "%lu", static_cast<unsigned long>(max_message_size));
        event_reporter.report(event::message_too_large, session.reverse_path, limit);
        session_printf(session, "552 Message size exceeds fixed maximum message size\r\n");
        result = LINE_CLEAN;
    }
    if (result == LINE_EXTRA) session_printf(session, "452 No space left, try again later\r\n");
    session_flush(session);
    discard_spool(session);
    return result;
}

}  // namespace qbsmtp
