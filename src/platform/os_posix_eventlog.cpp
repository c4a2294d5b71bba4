// os_posix_eventlog.cpp: the event log: RegisterEventSourceA,
// DeregisterEventSource and ReportEventA.
//
// An event goes two ways, both in UTF-8 converted from code page 1252:
// 1. to syslog, facility LOG_MAIL, ident the source name, priority by the
//    event type, as "[0xC0004E95] bind() fallito: ...";
// 2. as one JSON line appended to $PREFIX/events.jsonl:
//    {"time":"2026-11-18T11:00:00.000Z","source":"QBSMTP","id":"0xC0004E95",
//     "type":"error","strings":["..."],"text":"bind() fallito: ..."}
// The text is the registered catalogue text with %1.. filled in and its
// final line end removed; an id without a catalogue text gives its strings
// joined by blanks. Each line is one write() on an O_APPEND descriptor, so
// lines of concurrent writers (threads or processes) never interleave. When
// the file reaches 16 MiB it is renamed to events.jsonl.1 (replacing an
// older one) before the next line, under a lock.
//
// QBSMTP_NO_SYSLOG=1 turns the syslog half off (the tests set it).
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <string>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_fd.h"
#include "platform/os_posix_internal.h"
#include "platform/os_text.h"

namespace qbsmtp::os {
namespace {

constexpr std::size_t default_rotation_limit = 16 * 1024 * 1024;
std::atomic<std::size_t> rotation_limit{default_rotation_limit};

struct EventSource : posix::HandleObject {
    std::string name;
};

struct EventType {
    WORD type;
    const char* name;
    int priority;
};

constexpr EventType event_types[] = {
    {EVENTLOG_ERROR_TYPE, "error", LOG_ERR},
    {EVENTLOG_WARNING_TYPE, "warning", LOG_WARNING},
    {EVENTLOG_INFORMATION_TYPE, "information", LOG_INFO},
    {0 /* EVENTLOG_SUCCESS */, "information", LOG_INFO},
    {8 /* EVENTLOG_AUDIT_SUCCESS */, "information", LOG_INFO},
    {16 /* EVENTLOG_AUDIT_FAILURE */, "error", LOG_ERR},
};

const EventType* type_of(WORD type) {
    for (const EventType& row : event_types)
        if (row.type == type) return &row;
    return nullptr;
}

std::mutex syslog_lock;
std::mutex file_lock;

bool syslog_enabled() {
    const char* off = std::getenv("QBSMTP_NO_SYSLOG");
    return off == nullptr || std::strcmp(off, "1") != 0;
}

void send_to_syslog(const std::string& ident, int priority, const std::string& line) {
    std::lock_guard lock(syslog_lock);
    // openlog keeps the pointer: idents live as long as the process.
    static auto* idents = new std::set<std::string>;
    static const std::string* current = nullptr;
    if (current == nullptr || *current != ident) {
        current = &*idents->insert(ident).first;
        ::openlog(current->c_str(), LOG_PID, LOG_MAIL);
    }
    std::lock_guard zone_lock(posix::time_zone_lock());  // syslog stamps in local time
    ::syslog(LOG_MAIL | priority, "%s", line.c_str());
}

std::string iso_time_now() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    tm fields;
    {
        std::lock_guard lock(posix::time_zone_lock());
        gmtime_r(&now.tv_sec, &fields);
    }
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
                  fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                  fields.tm_min, fields.tm_sec, static_cast<int>(now.tv_nsec / 1000000));
    return buffer;
}

std::string utf8(const char* text) {
    std::string out;
    if (text != nullptr) os::append_utf8_from_cp1252(out, text, std::strlen(text));
    return out;
}

// Appends one line to events.jsonl; false with errno set on failure.
bool append_event_line(const std::string& line) {
    const std::string& prefix = posix::prefix_directory();
    if (prefix.empty()) {
        errno = ENOENT;
        return false;
    }
    std::string path = prefix + "/events.jsonl";
    std::lock_guard lock(file_lock);
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 &&
        static_cast<std::size_t>(status.st_size) + line.size() > rotation_limit.load() &&
        status.st_size > 0) {
        ::rename(path.c_str(), (path + ".1").c_str());
    }
    int fd = posix::open_retrying(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd < 0) return false;
    std::size_t done = 0;
    const bool written = posix::write_all(fd, line.data(), line.size(), &done);
    const int error_number = errno;
    ::close(fd);
    errno = error_number;
    return written;
}

}  // namespace

HANDLE RegisterEventSourceA(const char* server, const char* source) {
    if (fault_hit(Op::RegisterEventSourceA)) return nullptr;
    if (server != nullptr && *server != '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);  // only the local machine has a log here
        return nullptr;
    }
    if (source == nullptr || *source == '\0') {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto* handle = new (std::nothrow) EventSource;
    if (handle == nullptr) {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    handle->kind = posix::HandleKind::event_source;
    handle->name = source;
    posix::register_handle(handle);
    return static_cast<posix::HandleObject*>(handle);
}

BOOL DeregisterEventSource(HANDLE source) {
    posix::HandleObject* object = posix::take_handle(source, posix::HandleKind::event_source);
    if (object == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    delete static_cast<EventSource*>(object);
    return 1;
}

BOOL ReportEventA(HANDLE source, WORD type, WORD /*category*/, DWORD event_id, void* /*user_sid*/,
                  WORD string_count, DWORD /*data_size*/, const char** strings, void* /*data*/) {
    if (fault_hit(Op::ReportEventA)) return 0;
    auto* handle =
        static_cast<EventSource*>(posix::handle_of(source, posix::HandleKind::event_source));
    if (handle == nullptr) {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    const EventType* event_type = type_of(type);
    if (event_type == nullptr || (string_count != 0 && strings == nullptr)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    event_reported(type, event_id, string_count, strings);
    std::string source_name = utf8(handle->name.c_str());
    std::string text = utf8(posix::expand_event_text(event_id, strings, string_count).c_str());
    char id[16];
    std::snprintf(id, sizeof id, "0x%08X", static_cast<unsigned>(event_id));

    if (syslog_enabled())
        send_to_syslog(source_name, event_type->priority, "[" + std::string(id) + "] " + text);

    std::string line = "{\"time\":\"" + iso_time_now() + "\",\"source\":";
    posix::append_json_string(line, source_name);
    line +=
        ",\"id\":\"" + std::string(id) + "\",\"type\":\"" + event_type->name + "\",\"strings\":[";
    for (WORD i = 0; i < string_count; ++i) {
        if (i != 0) line.push_back(',');
        posix::append_json_string(line, utf8(strings[i]));
    }
    line += "],\"text\":";
    posix::append_json_string(line, text);
    line += "}\n";
    if (!append_event_line(line)) {
        SetLastError(posix::win32_from_errno(errno));
        return 0;
    }
    return 1;
}

namespace posix {

void set_event_log_rotation_limit(std::size_t bytes) {
    rotation_limit.store(bytes == 0 ? default_rotation_limit : bytes);
}

}  // namespace posix
}  // namespace qbsmtp::os
