// module_state.cpp: the module-wide state, process attach and detach, and
// start_module.
//
// Attach never fails the load: a step that fails reports and leaves the
// module loaded but disabled, which SMTPRecvInit and SMTPSendInit see as a
// null smtp_service. smtp_service is written last, so a non-null value
// means every step before it succeeded.

#include "frame/module_state.h"

#include "frame/message_catalogue.h"
#include "frame/registry_key.h"
#include "frame/text_ops.h"

namespace qbsmtp {

namespace {

// Storage that is never destroyed: detached session threads may still read
// these texts while the process runs its static destructors at exit.
template <class T>
union Immortal {
    T value;
    constexpr Immortal() : value() {}
    ~Immortal() {}
};

constinit Immortal<CountedString> host_name_storage;
constinit Immortal<CountedString> spool_dir_storage;
constinit Immortal<CountedString> mime_dir_storage;
constinit Immortal<AddressList> allowed_clients_storage;
constinit Immortal<CountedString> relay_text_storage[4];
constinit Immortal<CountedString> tls_text_storage[2];

}  // namespace

// Constant-initialised, so they hold their load state before any
// constructor of the module runs (attach runs from one).
constinit os::HMODULE module_handle = nullptr;
constinit EventReporter event_reporter;
CountedString& host_name = host_name_storage.value;
constinit os::servent* smtp_service = nullptr;
constinit std::uint32_t debug_log = 0;
CountedString& spool_dir = spool_dir_storage.value;
CountedString& mime_dir = mime_dir_storage.value;
constinit std::atomic<os::SOCKET> listen_socket{os::INVALID_SOCKET};
constinit std::atomic<std::uint32_t> stop_flag{0};
constinit std::atomic<int> listener_running{0};
constinit std::uint32_t session_timeout = 300;
constinit std::uint32_t send_timeout = 0;
constinit std::uint32_t probe_timeout = 30;
constinit std::uint32_t listen_backlog = 0;
constinit std::uint32_t spool_sync = 1;
constinit std::uint32_t max_message_size = 0;
constinit std::uint32_t max_sessions = 0;
AddressList& allowed_clients = allowed_clients_storage.value;
CountedString& tls_certificate_file = tls_text_storage[0].value;
CountedString& tls_key_file = tls_text_storage[1].value;
constinit std::uint32_t require_tls = 0;
constinit std::uint32_t esmtp = 0;
constinit os::TlsContext* server_tls = nullptr;
constinit std::uint32_t relay_port = 0;
constinit std::uint32_t relay_security = 0;
constinit std::uint32_t relay_verify = 1;
CountedString& relay_user = relay_text_storage[0].value;
CountedString& relay_password_file = relay_text_storage[1].value;
CountedString& relay_token_file = relay_text_storage[2].value;
CountedString& relay_ca_file = relay_text_storage[3].value;

namespace {

constexpr std::size_t host_name_size = 200;  // with its NUL
constexpr std::size_t error_text_size = 200;
constexpr os::WORD winsock_version = 0x0002;  // 2.0

// Our own settings, read beside DebugLog.
struct DwordSetting {
    const char* name;
    std::uint32_t* target;
    std::uint32_t missing;  // the value when the setting is absent
};
const DwordSetting dword_settings[] = {
    {"SessionTimeout", &session_timeout, 300},
    {"SendTimeout", &send_timeout, 0},
    {"ProbeTimeout", &probe_timeout, 30},
    {"ListenBacklog", &listen_backlog, 0},
    {"SpoolSync", &spool_sync, 1},
    {"MaxMessageSize", &max_message_size, 0},
    {"MaxSessions", &max_sessions, 0},
    {"RequireTls", &require_tls, 0},
    {"Esmtp", &esmtp, 0},
    {"RelayPort", &relay_port, 0},
    {"RelaySecurity", &relay_security, 0},
    {"RelayVerify", &relay_verify, 1},
};

struct TextSetting {
    const char* name;
    CountedString* target;
};
const TextSetting text_settings[] = {
    {"TlsCertificateFile", &tls_certificate_file},
    {"TlsKeyFile", &tls_key_file},
    {"RelayUser", &relay_user},
    {"RelayPasswordFile", &relay_password_file},
    {"RelayTokenFile", &relay_token_file},
    {"RelayCAFile", &relay_ca_file},
};

// host_name gets a text even when it is empty, so "%s" gives "".
void set_host_name(const char* name) {
    if (name[0] != '\0') {
        host_name = name;
        return;
    }
    auto* block = static_cast<char*>(os::LocalAlloc(os::LMEM_FIXED, 1));
    if (block != nullptr) block[0] = '\0';
    host_name.adopt(block, 0);
}

// AllowedClients. A list that cannot be read whole, and each entry that
// is no address, is reported; what is skipped allows nobody, so a typing
// error never opens the gateway wider than meant.
void read_allowed_clients(RegistryKey& settings) {
    char text[2048];
    char bad[64];
    if (settings.get_string("AllowedClients", text, sizeof text)) {
        if (allowed_clients.parse(text, bad, sizeof bad) > 0)
            event_reporter.report(event::setting_invalid, "AllowedClients", bad);
    } else if (os::GetLastError() == os::ERROR_MORE_DATA) {
        allowed_clients.parse("", bad, sizeof bad);
        event_reporter.report(event::setting_invalid, "AllowedClients", "troppo lungo");
    }
}

// The file names, then the relay's settings. Each that cannot be used is reported; none of
// them may leave a message in plain text where protection was asked for,
// so an unknown RelaySecurity means STARTTLS required.
void read_relay_settings(RegistryKey& settings) {
    for (const TextSetting& setting : text_settings) {
        char text[260];
        setting.target->clear();
        if (settings.get_string(setting.name, text, sizeof text)) {
            *setting.target = text;
        } else if (os::GetLastError() == os::ERROR_MORE_DATA) {
            event_reporter.report(event::setting_invalid, setting.name, "troppo lungo");
        }
    }
    if (relay_port > 0xFFFF) {
        event_reporter.report(event::setting_invalid, "RelayPort", "oltre 65535");
        relay_port = 0;
    }
    if (relay_security > 3) {
        event_reporter.report(event::setting_invalid, "RelaySecurity", "usato 2");
        relay_security = 2;
    }
    if (!relay_user.empty() && relay_password_file.empty() && relay_token_file.empty())
        event_reporter.report(event::setting_invalid, "RelayUser",
                              "manca RelayPasswordFile o RelayTokenFile");
    if (!relay_user.empty() && relay_security == 0)
        event_reporter.report(event::setting_invalid, "RelayUser",
                              "richiede RelaySecurity 1, 2 o 3");
}

}  // namespace

void process_attach(os::HMODULE handle) {
    module_handle = handle;
    // The platform's event log and LoadStringA take their texts from here.
    os::set_module_resources(module_resources());
    event_reporter.init();
    start_module();
}

void process_detach() {
    event_reporter.close();
}

void start_module() {
    os::WSADATA winsock_data;
    const int startup_error = os::WSAStartup(winsock_version, &winsock_data);
    if (startup_error != 0) {
        // WSAStartup gives its code as its result, not through WSAGetLastError.
        os::WSASetLastError(startup_error);
        char text[error_text_size];
        event_reporter.report(event::winsock_start_failed, winsock_error_text(text, sizeof text));
        return;
    }

    RegistryKey settings(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    char name[host_name_size];
    name[0] = '\0';
    const bool configured =
        settings.open_subkey(settings_key) && settings.get_string("HostName", name, sizeof name);
    if (!configured) {
        if (os::gethostname(name, static_cast<int>(sizeof name)) != 0) {
            event_reporter.report(event::host_name_unknown, winsock_error_text(name, sizeof name));
            return;
        }
        name[sizeof name - 1] = '\0';
        // Only for whoever looks at the registry; the module never reads it.
        settings.reopen_for_write();
        settings.set_string("ComputedHostName", name);
    }
    set_host_name(name);

    settings.get_dword("DebugLog", &debug_log);
    for (const DwordSetting& setting : dword_settings) {
        std::uint32_t value = 0;
        *setting.target = settings.get_dword(setting.name, &value) ? value : setting.missing;
    }
    read_allowed_clients(settings);
    read_relay_settings(settings);

    os::servent* service = os::getservbyname("smtp", "tcp");
    if (service == nullptr) {
        char text[error_text_size];
        event_reporter.report(event::service_unknown, "smtp/tcp",
                              winsock_error_text(text, sizeof text));
        return;
    }
    smtp_service = service;
}

}  // namespace qbsmtp
