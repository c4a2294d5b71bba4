// os_posix_message.cpp: message texts: the module's resources, the
// system's texts for error codes, FormatMessageA and LoadStringA.
//
// On Windows the event texts and the string table live in the module's
// file; here the frame registers them with set_module_resources before
// anything reports. FORMAT_MESSAGE_FROM_SYSTEM knows the English texts of
// the Win32 and Winsock codes that this layer produces (one table below),
// and fails with ERROR_MR_MID_NOT_FOUND for any other code, as Windows does
// for a code it has no text for.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace {

constexpr DWORD ERROR_MR_MID_NOT_FOUND = 317;
constexpr DWORD ERROR_RESOURCE_NAME_NOT_FOUND = 1814;
constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x800;
constexpr DWORD FORMAT_MESSAGE_ARGUMENT_ARRAY = 0x2000;

struct SystemText {
    DWORD code;
    const char* text;
};

// The system's texts, as Windows gives them in English.
constexpr SystemText system_texts[] = {
    {0, "The operation completed successfully.\r\n"},
    {1, "Incorrect function.\r\n"},
    {2, "The system cannot find the file specified.\r\n"},
    {3, "The system cannot find the path specified.\r\n"},
    {4, "The system cannot open the file.\r\n"},
    {5, "Access is denied.\r\n"},
    {6, "The handle is invalid.\r\n"},
    {8, "Not enough memory resources are available to process this command.\r\n"},
    {17, "The system cannot move the file to a different disk drive.\r\n"},
    {18, "There are no more files.\r\n"},
    {19, "The media is write protected.\r\n"},
    {29, "The system cannot write to the specified device.\r\n"},
    {30, "The system cannot read from the specified device.\r\n"},
    {31, "A device attached to the system is not functioning.\r\n"},
    {32, "The process cannot access the file because it is being used by another process.\r\n"},
    {38, "Reached the end of the file.\r\n"},
    {80, "The file exists.\r\n"},
    {87, "The parameter is incorrect.\r\n"},
    {104, "Cannot request exclusive semaphores at interrupt time.\r\n"},
    {109, "The pipe has been ended.\r\n"},
    {111, "The file name is too long.\r\n"},
    {112, "There is not enough space on the disk.\r\n"},
    {122, "The data area passed to a system call is too small.\r\n"},
    {123, "The filename, directory name, or volume label syntax is incorrect.\r\n"},
    {126, "The specified module could not be found.\r\n"},
    {131, "An attempt was made to move the file pointer before the beginning of the file.\r\n"},
    {145, "The directory is not empty.\r\n"},
    {161, "The specified path is invalid.\r\n"},
    {183, "Cannot create a file when that file already exists.\r\n"},
    {206, "The filename or extension is too long.\r\n"},
    {223, "The file size exceeds the limit allowed and cannot be saved.\r\n"},
    {234, "More data is available.\r\n"},
    {259, "No more data is available.\r\n"},
    {267, "The directory name is invalid.\r\n"},
    {317,
     "The system cannot find message text for message number 0x%1 in the message file for %2.\r\n"},
    {487, "Attempt to access invalid address.\r\n"},
    {1010, "The configuration registry key is invalid.\r\n"},
    {1247,
     "An attempt was made to perform an initialization operation when initialization has "
     "already been completed.\r\n"},
    {1460, "This operation returned because the timeout period expired.\r\n"},
    {1814, "The specified resource name cannot be found in the image file.\r\n"},
    {1921, "The name of the file cannot be resolved by the system.\r\n"},
    {10004, "A blocking operation was interrupted by a call to WSACancelBlockingCall.\r\n"},
    {10009, "The file handle supplied is not valid.\r\n"},
    {10013,
     "An attempt was made to access a socket in a way forbidden by its access "
     "permissions.\r\n"},
    {10014,
     "The system detected an invalid pointer address in attempting to use a pointer "
     "argument in a call.\r\n"},
    {10022, "An invalid argument was supplied.\r\n"},
    {10024, "Too many open sockets.\r\n"},
    {10035, "A non-blocking socket operation could not be completed immediately.\r\n"},
    {10038, "An operation was attempted on something that is not a socket.\r\n"},
    {10042,
     "An unknown, invalid, or unsupported option or level was specified in a getsockopt "
     "or setsockopt call.\r\n"},
    {10047, "An address incompatible with the requested protocol was used.\r\n"},
    {10048,
     "Only one usage of each socket address (protocol/network address/port) is normally "
     "permitted.\r\n"},
    {10049, "The requested address is not valid in its context.\r\n"},
    {10050, "A socket operation encountered a dead network.\r\n"},
    {10051, "A socket operation was attempted to an unreachable network.\r\n"},
    {10053, "An established connection was aborted by the software in your host machine.\r\n"},
    {10054, "An existing connection was forcibly closed by the remote host.\r\n"},
    {10055,
     "An operation on a socket could not be performed because the system lacked "
     "sufficient buffer space or because a queue was full.\r\n"},
    {10057,
     "A request to send or receive data was disallowed because the socket is not "
     "connected and (when sending on a datagram socket using a sendto call) no address "
     "was supplied.\r\n"},
    {10058,
     "A request to send or receive data was disallowed because the socket had already "
     "been shut down in that direction with a previous shutdown call.\r\n"},
    {10060,
     "A connection attempt failed because the connected party did not properly respond "
     "after a period of time, or established connection failed because connected host has "
     "failed to respond.\r\n"},
    {10061, "No connection could be made because the target machine actively refused it.\r\n"},
    {10065, "A socket operation was attempted to an unreachable host.\r\n"},
    {10092, "The Windows Sockets version requested is not supported.\r\n"},
    {11001, "No such host is known.\r\n"},
    {11002,
     "This is usually a temporary error during hostname resolution and means that the "
     "local server did not receive a response from an authoritative server.\r\n"},
    {11003, "A non-recoverable error occurred during a database lookup.\r\n"},
    {11004, "The requested name is valid, but no data of the requested type was found.\r\n"},
};

std::mutex resources_lock;
ModuleResources registered{};

const char* find_system_text(DWORD code) {
    for (const SystemText& row : system_texts)
        if (row.code == code) return row.text;
    return nullptr;
}

// One insertion argument as text, by its printf-style format ("s" unless
// the message says otherwise with %n!fmt!).
bool format_argument(const std::string& format, std::uintptr_t raw, std::string* out) {
    static const char* const allowed[] = {"s", "d", "i", "u", "x", "X", "c", "lu", "ld", "lx"};
    bool known = false;
    for (const char* f : allowed) known |= format == f;
    if (!known) return false;
    if (format == "s") {
        const char* text = reinterpret_cast<const char*>(raw);
        *out += text != nullptr ? text : "(null)";
        return true;
    }
    char buffer[32];
    std::string conversion = "%" + format;
    if (format[0] == 'l')
        std::snprintf(buffer, sizeof buffer, conversion.c_str(), static_cast<unsigned long>(raw));
    else
        std::snprintf(buffer, sizeof buffer, conversion.c_str(), static_cast<unsigned>(raw));
    *out += buffer;
    return true;
}

// Expands the escapes of a message: %1..%99 (with an optional !fmt!), %0,
// %n, %r, %t, %% and the like. Arguments come from a va_list or, with
// FORMAT_MESSAGE_ARGUMENT_ARRAY, from an array of pointer-sized values.
bool expand_message(const char* text, DWORD flags, va_list* arguments, std::string* out) {
    bool array = (flags & FORMAT_MESSAGE_ARGUMENT_ARRAY) != 0;
    std::vector<std::uintptr_t> taken;  // va_list arguments read so far, in order
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p != '%') {
            out->push_back(*p);
            continue;
        }
        char next = p[1];
        if (next == '\0') break;
        ++p;
        if (next >= '1' && next <= '9') {
            int number = next - '0';
            if (p[1] >= '0' && p[1] <= '9') number = number * 10 + (*++p - '0');
            std::string format = "s";
            if (p[1] == '!') {
                const char* close = std::strchr(p + 2, '!');
                if (close == nullptr) return false;
                format.assign(p + 2, close);
                p = close;
            }
            if (arguments == nullptr) return false;
            std::uintptr_t raw;
            if (array) {
                raw = reinterpret_cast<const std::uintptr_t*>(arguments)[number - 1];
            } else {
                while (taken.size() < static_cast<std::size_t>(number))
                    taken.push_back(va_arg(*arguments, std::uintptr_t));
                raw = taken[static_cast<std::size_t>(number - 1)];
            }
            if (!format_argument(format, raw, out)) return false;
            continue;
        }
        switch (next) {
            case '0':
                return true;  // the message ends here, without a line end
            case 'n':
                *out += "\r\n";
                break;
            case 'r':
                out->push_back('\r');
                break;
            case 't':
                out->push_back('\t');
                break;
            case 'b':
                out->push_back(' ');
                break;
            default:
                out->push_back(next);
                break;  // %% %. %! and the like
        }
    }
    return true;
}

}  // namespace

void set_module_resources(const ModuleResources& resources) {
    std::lock_guard lock(resources_lock);
    registered = resources;
}

namespace posix {

const char* find_message_text(DWORD id) {
    std::lock_guard lock(resources_lock);
    for (std::size_t i = 0; i < registered.message_count; ++i)
        if (registered.messages[i].id == id) return registered.messages[i].text;
    return nullptr;
}

std::string expand_event_text(DWORD id, const char* const* strings, std::size_t count) {
    std::string text;
    const char* message = find_message_text(id);
    if (message == nullptr) {
        for (std::size_t i = 0; i < count; ++i) {
            if (i != 0) text.push_back(' ');
            text += strings[i] != nullptr ? strings[i] : "";
        }
        return text;
    }
    for (const char* p = message; *p != '\0'; ++p) {
        if (*p == '%' && p[1] >= '1' && p[1] <= '9') {
            std::size_t number = static_cast<std::size_t>(p[1] - '0');
            const char* digits_end = p + 2;
            if (*digits_end >= '0' && *digits_end <= '9') {
                number = number * 10 + static_cast<std::size_t>(*digits_end - '0');
                ++digits_end;
            }
            if (number <= count) {
                text += strings[number - 1] != nullptr ? strings[number - 1] : "";
                p = digits_end - 1;
                continue;
            }
        }
        text.push_back(*p);
    }
    // The catalogue's texts end in CR LF; a log line carries no line end.
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

}  // namespace posix

DWORD FormatMessageA(DWORD flags, const void* source, DWORD message_id, DWORD /*language_id*/,
                     char* buffer, DWORD size, va_list* arguments) {
    if (fault_hit(Op::FormatMessageA)) return 0;
    if (buffer == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const char* text = nullptr;
    if ((flags & FORMAT_MESSAGE_FROM_STRING) != 0) {
        text = static_cast<const char*>(source);
    } else {
        if ((flags & FORMAT_MESSAGE_FROM_HMODULE) != 0) text = posix::find_message_text(message_id);
        if (text == nullptr && (flags & FORMAT_MESSAGE_FROM_SYSTEM) != 0)
            text = find_system_text(message_id);
        if (text == nullptr) {
            SetLastError(ERROR_MR_MID_NOT_FOUND);
            return 0;
        }
    }
    if (text == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::string result;
    if ((flags & FORMAT_MESSAGE_IGNORE_INSERTS) != 0) {
        result = text;
    } else if (!expand_message(text, flags, arguments, &result)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    auto length = static_cast<DWORD>(result.size());
    if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
        std::size_t room = length + 1 > size ? length + 1 : size;
        auto* block = static_cast<char*>(LocalAlloc(LMEM_FIXED, room));
        if (block == nullptr) return 0;
        std::memcpy(block, result.c_str(), length + 1);
        *reinterpret_cast<char**>(buffer) = block;
        return length;
    }
    if (length + 1 > size) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    std::memcpy(buffer, result.c_str(), length + 1);
    return length;
}

int LoadStringA(HINSTANCE /*instance*/, UINT id, char* buffer, int buffer_max) {
    if (fault_hit(Op::LoadStringA)) return 0;
    if (buffer == nullptr || buffer_max <= 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const char* text = nullptr;
    {
        std::lock_guard lock(resources_lock);
        for (std::size_t i = 0; i < registered.string_count; ++i)
            if (registered.strings[i].number == id) text = registered.strings[i].text;
    }
    if (text == nullptr) {
        buffer[0] = '\0';
        SetLastError(ERROR_RESOURCE_NAME_NOT_FOUND);
        return 0;
    }
    std::size_t length = std::strlen(text);
    std::size_t room = static_cast<std::size_t>(buffer_max) - 1;
    if (length > room) length = room;
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace qbsmtp::os
