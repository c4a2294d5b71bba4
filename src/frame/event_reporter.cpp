// event_reporter.cpp: the module's event source and its reports.
//
// init registers the source named after the module's file (the file's name
// without directory and extension) and keeps a load reference on that file,
// which holds the message texts, until close. A report never fails
// visibly: a closed source or a failed write is passed over, and the
// thread's last error is left as the caller had it.

#include "frame/event_reporter.h"

#include <cstdio>
#include <cstring>

#include "frame/counted_string.h"
#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "frame/text_ops.h"

namespace qbsmtp {

namespace {

// The event type by the top two bits of an id.
constexpr os::WORD event_types[4] = {
    os::EVENTLOG_INFORMATION_TYPE,
    os::EVENTLOG_INFORMATION_TYPE,
    os::EVENTLOG_WARNING_TYPE,
    os::EVENTLOG_ERROR_TYPE,
};

constexpr const char* event_log_key =
    "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";
constexpr std::size_t event_log_key_size = 300;
constexpr os::DWORD types_supported = 7;

}  // namespace

os::WORD event_type_of(std::uint32_t id) {
    return event_types[id >> 30];
}

int EventReporter::init() {
    char path[max_path];
    path[0] = '\0';
    const os::DWORD length = os::GetModuleFileNameA(module_handle, path, sizeof path);
    path[length < sizeof path ? length : sizeof path - 1] = '\0';

    CountedString source(path_file_name(path));
    if (source.text != nullptr) {
        const char* dot = std::strrchr(source.text, '.');
        if (dot != nullptr)
            source.assign(source.text, static_cast<std::int32_t>(dot - source.text));
    }
    if (register_source(source.c_str(), path)) return 1;

    // Tell whoever reads the log that the module's own source is missing.
    os::HANDLE fallback = os::RegisterEventSourceA(nullptr, source.c_str());
    if (fallback != nullptr) {
        const char* strings[1] = {path};
        os::ReportEventA(fallback, os::EVENTLOG_ERROR_TYPE, 0, event::source_registration_failed,
                         nullptr, 1, 0, strings, nullptr);
        os::DeregisterEventSource(fallback);
    }
    return 0;
}

int EventReporter::register_source(const char* source, const char* path) {
    logging_mask.store(0, std::memory_order_relaxed);
    close();

    message_library = os::LoadLibraryA(path);
    if (message_library == nullptr) return 0;

    char key_name[event_log_key_size];
    compose_limited(key_name, event_log_key, source, sizeof key_name);
    os::HKEY key = nullptr;
    os::LONG result = os::RegCreateKeyA(os::HKEY_LOCAL_MACHINE, key_name, &key);
    if (result == 0) {
        result = os::RegSetValueExA(key, "EventMessageFile", 0, os::REG_EXPAND_SZ,
                                    reinterpret_cast<const os::BYTE*>(path),
                                    static_cast<os::DWORD>(std::strlen(path) + 1));
        if (result == 0) {
            result = os::RegSetValueExA(key, "TypesSupported", 0, os::REG_DWORD,
                                        reinterpret_cast<const os::BYTE*>(&types_supported),
                                        sizeof types_supported);
        }
        os::RegCloseKey(key);
    }
    if (result != 0) {
        os::SetLastError(static_cast<os::DWORD>(result));
        return 0;
    }
    // A source that cannot be opened leaves reports silent; the module works on.
    source_handle = os::RegisterEventSourceA(nullptr, source);
    return 1;
}

void EventReporter::close() {
    if (source_handle != nullptr) {
        os::DeregisterEventSource(source_handle);
        source_handle = nullptr;
    }
    if (message_library != nullptr) {
        os::FreeLibrary(message_library);
        message_library = nullptr;
    }
}

int EventReporter::report_strings(std::uint32_t id, const char** strings, int count) {
    for (int i = 0; i < count; ++i) {
        if (strings[i] == nullptr || strings[i][0] == '\0') strings[i] = "null";
    }
    if (source_handle == nullptr) return 0;
    const os::DWORD saved = os::GetLastError();
    os::ReportEventA(source_handle, event_type_of(id), 0, id, nullptr, static_cast<os::WORD>(count),
                     0, strings, nullptr);
    os::SetLastError(saved);
    return 0;
}

int EventReporter::report(std::uint32_t id) {
    return report_strings(id, nullptr, 0);
}

int EventReporter::report(std::uint32_t id, const char* a) {
    const char* strings[1] = {a};
    return report_strings(id, strings, 1);
}

int EventReporter::report(std::uint32_t id, const char* a, const char* b) {
    const char* strings[2] = {a, b};
    return report_strings(id, strings, 2);
}

int EventReporter::report(std::uint32_t id, const char* a, const char* b, const char* c) {
    const char* strings[3] = {a, b, c};
    return report_strings(id, strings, 3);
}

namespace {

// The system's text for a Win32 error, allocated by the system, or
// "error %d" in local when there is none (and always for error 0).
class ErrorText {
  public:
    explicit ErrorText(std::uint32_t error) {
        if (error != 0) {
            const os::DWORD length = os::FormatMessageA(
                os::FORMAT_MESSAGE_ALLOCATE_BUFFER | os::FORMAT_MESSAGE_FROM_SYSTEM, nullptr, error,
                0x400, reinterpret_cast<char*>(&system_text_), 0, nullptr);
            if (length > 0 && system_text_ != nullptr) return;
            if (system_text_ != nullptr) os::LocalFree(system_text_);
            system_text_ = nullptr;
        }
        std::snprintf(local_, sizeof local_, "error %d", static_cast<int>(error));
    }
    ~ErrorText() {
        if (system_text_ != nullptr) os::LocalFree(system_text_);
    }
    ErrorText(const ErrorText&) = delete;
    ErrorText& operator=(const ErrorText&) = delete;
    const char* text() const { return system_text_ != nullptr ? system_text_ : local_; }

  private:
    char* system_text_ = nullptr;
    char local_[24];
};

}  // namespace

int EventReporter::report_error(std::uint32_t id, const char* a, std::uint32_t error) {
    {
        const ErrorText text(error);
        report(id, a, text.text());
    }
    os::SetLastError(error);
    return 0;
}

int EventReporter::report_error(std::uint32_t id, const char* a, const char* b,
                                std::uint32_t error) {
    {
        const ErrorText text(error);
        report(id, a, b, text.text());
    }
    os::SetLastError(error);
    return 0;
}

void EventReporter::report_if(std::uint32_t bits, std::uint32_t id) {
    if (mask_has(bits) != 0) report(id);
}

void EventReporter::report_if(std::uint32_t bits, std::uint32_t id, const char* a) {
    if (mask_has(bits) != 0) report(id, a);
}

}  // namespace qbsmtp
