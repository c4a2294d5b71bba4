// module_state_test.cpp: start-up: the host name and the settings from the
// registry, and the disabled state after each failure of attach.

#include "frame/module_state.h"

#include <filesystem>
#include <string>

#include "frame/registry_key.h"
#include "frame_fixture.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {
namespace {

using os::Op;
using test::events_with_id;
using test::ReportingFrame;
using Strings = std::vector<std::string>;

class StartModule : public ReportingFrame {
  protected:
    void put_settings_string(const char* name, const std::string& text) {
        RegistryKey key(os::KEY_ALL_ACCESS, os::HKEY_LOCAL_MACHINE);
        ASSERT_EQ(key.open_subkey(settings_key), 1);
        key.set_string(name, text.c_str());
    }
    void put_settings_dword(const char* name, std::uint32_t value) {
        RegistryKey key(os::KEY_ALL_ACCESS, os::HKEY_LOCAL_MACHINE);
        ASSERT_EQ(key.open_subkey(settings_key), 1);
        ASSERT_EQ(os::RegSetValueExA(key.handle, name, 0, os::REG_DWORD,
                                     reinterpret_cast<const os::BYTE*>(&value), 4),
                  0);
    }
    // The settings value as text, or "<missing>".
    static std::string settings_string(const char* name) {
        RegistryKey key(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
        char buffer[256];
        if (!key.open_subkey(settings_key)) return "<no key>";
        return key.get_string(name, buffer, sizeof buffer) ? buffer : "<missing>";
    }
    static std::string machine_name() {
        char name[200] = {};
        EXPECT_EQ(os::gethostname(name, sizeof name), 0);
        return name;
    }
};

TEST_F(StartModule, ConfiguredHostNameOf198Characters) {
    const std::string name(198, 'h');
    put_settings_string("HostName", name);
    start_module();
    EXPECT_EQ(std::string(host_name.c_str()), name);
    EXPECT_EQ(settings_string("ComputedHostName"), "<missing>");
    EXPECT_NE(smtp_service, nullptr);
    EXPECT_TRUE(events_with_id(event::debug_text).empty());
}

TEST_F(StartModule, HostNameOf199CharactersCountsAsMissing) {
    put_settings_string("HostName", std::string(199, 'h'));
    start_module();
    EXPECT_EQ(std::string(host_name.c_str()), machine_name());
    EXPECT_EQ(settings_string("ComputedHostName"), machine_name());
    EXPECT_NE(smtp_service, nullptr);
}

TEST_F(StartModule, EmptyHostNameIsAnEmptyText) {
    put_settings_string("HostName", "");
    start_module();
    ASSERT_NE(host_name.text, nullptr);
    EXPECT_STREQ(host_name.text, "");
    EXPECT_EQ(host_name.length, 0);
    EXPECT_EQ(settings_string("ComputedHostName"), "<missing>");
}

TEST_F(StartModule, MissingSettingsKey) {
    start_module();
    EXPECT_EQ(std::string(host_name.c_str()), machine_name());
    EXPECT_EQ(debug_log, 0u);
    EXPECT_NE(smtp_service, nullptr);
    // The name cannot be written back, and the module creates no key.
    EXPECT_EQ(settings_string("ComputedHostName"), "<no key>");
    const auto events = events_with_id(event::debug_text);
    ASSERT_EQ(events.size(), 1u);
    const std::string text = events[0].strings.at(0);
    EXPECT_EQ(text.rfind("RegPutValue error ", 0), 0u) << text;
    EXPECT_NE(text.find(" on key HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM\\"
                        "ComputedHostName"),
              std::string::npos)
        << text;
}

TEST_F(StartModule, DebugLogAndTimeouts) {
    put_settings_string("HostName", "mail.example");
    put_settings_dword("DebugLog", 1);
    put_settings_dword("SessionTimeout", 0);
    put_settings_dword("SendTimeout", 120);
    start_module();
    EXPECT_EQ(debug_log, 1u);
    EXPECT_EQ(session_timeout, 0u);
    EXPECT_EQ(send_timeout, 120u);
    EXPECT_EQ(probe_timeout, 30u);  // missing: its default
    EXPECT_EQ(listen_backlog, 5u);
}

TEST_F(StartModule, TimeoutDefaults) {
    put_settings_string("HostName", "mail.example");
    put_settings_dword("ProbeTimeout", 5);
    put_settings_dword("ListenBacklog", 128);
    start_module();
    EXPECT_EQ(debug_log, 0u);
    EXPECT_EQ(session_timeout, 300u);
    EXPECT_EQ(send_timeout, 0u);
    EXPECT_EQ(probe_timeout, 5u);
    EXPECT_EQ(listen_backlog, 128u);
}

TEST_F(StartModule, WinsockStartFails) {
    put_settings_string("HostName", "mail.example");
    os::FaultScope fault(Op::WSAStartup, 1, os::WSAENOBUFS);
    start_module();
    EXPECT_EQ(smtp_service, nullptr);
    EXPECT_EQ(host_name.text, nullptr);
    EXPECT_EQ(only_event(event::winsock_start_failed),
              Strings{"errore winsock: nessuno spazio nel buffer disponibile"});
}

TEST_F(StartModule, HostNameUnknown) {
    os::FaultScope fault(Op::gethostname, 1, os::WSAENETDOWN);
    start_module();
    EXPECT_EQ(smtp_service, nullptr);
    EXPECT_EQ(host_name.text, nullptr);
    EXPECT_EQ(only_event(event::host_name_unknown),
              Strings{"errore winsock: rete non disponibile"});
}

TEST_F(StartModule, ServiceUnknownDisablesReception) {
    put_settings_string("HostName", "mail.example");
    put_settings_dword("DebugLog", 1);
    {
        os::FaultScope fault(Op::getservbyname, 1, os::WSANO_DATA);
        start_module();
    }
    EXPECT_EQ(smtp_service, nullptr);
    EXPECT_STREQ(host_name.c_str(), "mail.example");
    EXPECT_EQ(debug_log, 1u);
    EXPECT_EQ(only_event(event::service_unknown),
              (Strings{"smtp/tcp",
                       "errore winsock: nome valido, nessun record di dati del tipo richiesto"}));

    // Disabled: SMTPRecvInit refuses without touching anything.
    os::SetLastError(0);
    EXPECT_EQ(SMTPRecvInit(prefix.file("spool").c_str()), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_INVALID_FUNCTION);
    EXPECT_EQ(spool_dir.text, nullptr);
    EXPECT_FALSE(std::filesystem::exists(prefix.file("spool")));
    // These work in any state.
    SMTPSetLogging(0x80000000);
    EXPECT_EQ(event_reporter.mask_has(0x80000000), 0x80000000u);
    EXPECT_EQ(SMTPRecvStop(), 1);
}

}  // namespace
}  // namespace qbsmtp
