// module_setup.cpp: settings written and events read through the module's
// own platform layer, the same on every backend (temp_prefix.h,
// event_log.h).

#include <stdexcept>

#include "frame/module_state.h"
#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_text.h"
#include "support/event_log.h"
#include "support/temp_prefix.h"

namespace qbsmtp::test {

namespace {

// Every program with these helpers captures its events from the start.
const bool capturing = (os::event_capture(true), true);

std::string utf8(const std::string& text) {
    std::string out;
    os::append_utf8_from_cp1252(out, text.data(), text.size());
    return out;
}

// The text of a .reg string that starts at text[at] (after its quote);
// at moves past the closing quote.
std::string quoted(const std::string& text, std::size_t& at) {
    std::string value;
    for (; at < text.size() && text[at] != '"'; ++at)
        value += text[at] == '\\' && at + 1 < text.size() ? text[++at] : text[at];
    ++at;
    return value;
}

}  // namespace

std::vector<LoggedEvent> read_events(std::uint32_t id) {
    std::vector<LoggedEvent> events;
    for (const os::ReportedEvent& reported : os::events_captured()) {
        if (id != 0 && reported.id != id) continue;
        events.push_back({reported.id, {}});
        for (const std::string& text : reported.strings)
            events.back().strings.push_back(utf8(text));
    }
    return events;
}

void write_registry(const std::string& text) {
    os::HKEY key = nullptr;
    std::size_t end = 0;
    for (std::size_t start = 0; start < text.size(); start = end + 1) {
        end = std::min(text.find('\n', start), text.size());
        const std::string line = text.substr(start, end - start);
        if (line.starts_with('[')) {
            if (key != nullptr) os::RegCloseKey(key);
            const std::size_t slash = line.find('\\');
            const std::string root = line.substr(1, slash - 1);
            const os::HKEY root_key =
                root == "HKEY_CLASSES_ROOT" ? os::HKEY_CLASSES_ROOT : os::HKEY_LOCAL_MACHINE;
            if (root != "HKEY_CLASSES_ROOT" && root != "HKEY_LOCAL_MACHINE")
                throw std::runtime_error("no root " + root);
            const std::string path = line.substr(slash + 1, line.size() - slash - 2);
            if (os::RegCreateKeyExA(root_key, path.c_str(), 0, nullptr, 0, os::KEY_ALL_ACCESS,
                                    nullptr, &key, nullptr) != 0)
                throw std::runtime_error("cannot create " + line);
        } else if (line.starts_with('"')) {
            std::size_t at = 1;
            const std::string name = quoted(line, at);
            if (key == nullptr || line.compare(at, 1, "=") != 0)
                throw std::runtime_error("not a value of a key: " + line);
            os::LONG result;
            if (line.compare(at + 1, 6, "dword:") == 0) {
                const os::DWORD number = std::stoul(line.substr(at + 7), nullptr, 16);
                result =
                    os::RegSetValueExA(key, name.c_str(), 0, os::REG_DWORD,
                                       reinterpret_cast<const os::BYTE*>(&number), sizeof number);
            } else {
                at += 2;
                const std::string value = quoted(line, at);
                result = os::RegSetValueExA(key, name.c_str(), 0, os::REG_SZ,
                                            reinterpret_cast<const os::BYTE*>(value.c_str()),
                                            static_cast<os::DWORD>(value.size() + 1));
            }
            if (result != 0) throw std::runtime_error("cannot set " + line);
        }
    }
    if (key != nullptr) os::RegCloseKey(key);
}

void serve_smtp_on(std::uint16_t port) {
    if (smtp_service != nullptr) smtp_service->s_port = os::htons(port);
}

}  // namespace qbsmtp::test
