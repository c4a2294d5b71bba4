// event_reporter_test.cpp: reports, their severities and strings, gated
// reports, error texts, and the registration of the event source.

#include "frame/event_reporter.h"

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "frame/registry_key.h"
#include "frame_fixture.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {
namespace {

using os::Op;
using test::events_with_id;
using test::read_events;
using test::ReportingFrame;
using Strings = std::vector<std::string>;

TEST(SeverityMap, TopTwoBitsSelectTheType) {
    const std::pair<std::uint32_t, os::WORD> cases[] = {
        {0x00000000, 4}, {14, 4},         {0x3FFFFFFF, 4}, {0x40000000, 4},
        {0x400051A3, 4}, {0x7FFFFFFF, 4}, {0x80000000, 2}, {0x800027D8, 2},
        {0xBFFFFFFF, 2}, {0xC0000000, 1}, {0xC0004E85, 1}, {0xFFFFFFFF, 1},
    };
    for (const auto& [id, type] : cases) EXPECT_EQ(event_type_of(id), type) << std::hex << id;
}

class Reports : public ReportingFrame {};

TEST_F(Reports, ReachTheLogWithTypeAndStrings) {
    EXPECT_EQ(event_reporter.report(event::no_recipient), 0);
    EXPECT_EQ(event_reporter.report(event::mail_accepted, "C:/spool/rx000001.822"), 0);
    EXPECT_EQ(event_reporter.report(event::duplicate_dropped, "new", "old"), 0);
    EXPECT_EQ(event_reporter.report(event::port_owned_by_other_server, "\r\n", "\r\n", "554 no"),
              0);
    EXPECT_EQ(event_reporter.report(event::no_memory_for_session), 0);

    const auto events = read_events();
    ASSERT_EQ(events.size(), 5u);
    EXPECT_EQ(events[0].id, event::no_recipient);
    EXPECT_EQ(events[0].type, 1);
    EXPECT_TRUE(events[0].strings.empty());
    EXPECT_EQ(events[0].source, "QBSMTP");
    EXPECT_EQ(events[1].type, 4);
    EXPECT_EQ(events[1].strings, Strings{"C:/spool/rx000001.822"});
    EXPECT_EQ(events[2].type, 2);
    EXPECT_EQ(events[2].strings, (Strings{"new", "old"}));
    EXPECT_EQ(events[3].strings, (Strings{"\r\n", "\r\n", "554 no"}));
    // A plain number below 0x40000000 is information.
    EXPECT_EQ(events[4].id, 14u);
    EXPECT_EQ(events[4].type, 4);
}

TEST_F(Reports, EmptyStringsBecomeNull) {
    event_reporter.report(event::mail_accepted, "");
    event_reporter.report(event::duplicate_dropped, nullptr, "old");
    event_reporter.report(event::copy_file_failed, "a", "", nullptr);
    const auto events = read_events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].strings, Strings{"null"});
    EXPECT_EQ(events[1].strings, (Strings{"null", "old"}));
    EXPECT_EQ(events[2].strings, (Strings{"a", "null", "null"}));
}

TEST_F(Reports, KeepTheLastError) {
    os::SetLastError(os::ERROR_DIRECTORY);
    event_reporter.report(event::mail_accepted, "x");
    EXPECT_EQ(os::GetLastError(), os::ERROR_DIRECTORY);
    // A failing write to the log is passed over, too.
    os::FaultScope fault(Op::ReportEventA, 1, os::ERROR_DISK_FULL);
    EXPECT_EQ(event_reporter.report(event::mail_accepted, "y"), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_DIRECTORY);
}

TEST_F(Reports, ClosedSourceReportsNothing) {
    event_reporter.close();
    EXPECT_EQ(event_reporter.report(event::no_recipient), 0);
    EXPECT_EQ(event_reporter.report_error(event::open_file_failed, "f", 5), 0);
    EXPECT_EQ(os::GetLastError(), 5u);
    EXPECT_TRUE(read_events().empty());
}

TEST_F(Reports, ErrorTexts) {
    // Error 0: "error 0", and the system is not asked.
    {
        os::FaultScope fault(Op::FormatMessageA, 1, os::ERROR_INVALID_PARAMETER);
        os::SetLastError(99);
        EXPECT_EQ(event_reporter.report_error(event::create_directory_failed, "dir", 0), 0);
        EXPECT_EQ(os::GetLastError(), 0u);
        EXPECT_EQ(os::fault_calls(Op::FormatMessageA), 0u);
    }
    // A code the system knows: its text as it comes.
    char* block = nullptr;
    ASSERT_GT(os::FormatMessageA(
                  os::FORMAT_MESSAGE_ALLOCATE_BUFFER | os::FORMAT_MESSAGE_FROM_SYSTEM, nullptr,
                  os::ERROR_ACCESS_DENIED, 0x400, reinterpret_cast<char*>(&block), 0, nullptr),
              0u);
    const std::string denied = block;
    os::LocalFree(block);
    EXPECT_EQ(
        event_reporter.report_error(event::copy_file_failed, "from", "to", os::ERROR_ACCESS_DENIED),
        0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_ACCESS_DENIED);
    // No text from the system: "error %d".
    {
        os::FaultScope fault(Op::FormatMessageA, 1, os::ERROR_INVALID_PARAMETER);
        event_reporter.report_error(event::create_thread_failed, "smtp_listen", 1455);
        EXPECT_EQ(os::GetLastError(), 1455u);
    }
    EXPECT_EQ(only_event(event::create_directory_failed), (Strings{"dir", "error 0"}));
    EXPECT_EQ(only_event(event::copy_file_failed), (Strings{"from", "to", denied}));
    EXPECT_EQ(only_event(event::create_thread_failed), (Strings{"smtp_listen", "error 1455"}));
}

TEST_F(Reports, GatedByTheLoggingMask) {
    EXPECT_EQ(event_reporter.mask_has(0xFFFFFFFF), 0u);  // 0 at load
    event_reporter.report_if(0x80000000, event::session_started);
    event_reporter.report_if(0x100000, event::send_succeeded, "250");

    SMTPSetLogging(0x200000);  // debug copies only
    EXPECT_EQ(event_reporter.mask_has(0x200000), 0x200000u);
    event_reporter.report_if(0x80000000, event::session_started);
    event_reporter.report_if(0x100000, event::send_succeeded, "250");
    EXPECT_TRUE(read_events().empty());

    SMTPSetLogging(0x80100000);
    EXPECT_EQ(event_reporter.mask_has(0x80000000), 0x80000000u);
    EXPECT_EQ(event_reporter.mask_has(0x200000), 0u);  // replaced as a whole
    event_reporter.report_if(0x80000000, event::session_started);
    event_reporter.report_if(0x100000, event::send_succeeded, "250");
    const auto events = read_events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].id, event::session_started);
    EXPECT_EQ(events[1].id, event::send_succeeded);
    EXPECT_EQ(events[1].strings, Strings{"250"});
}

// The registration of the source, named after the file that holds the
// code: here the test program.
class SourceRegistration : public ::testing::Test {
  protected:
    test::TempPrefix prefix;
    std::string path;
    std::string source;

    void SetUp() override {
        setenv("QBSMTP_NO_SYSLOG", "1", 1);
        os::set_module_resources(module_resources());
        module_handle = os::GetModuleHandleA(nullptr);
        char buffer[260];
        ASSERT_GT(os::GetModuleFileNameA(module_handle, buffer, sizeof buffer), 0u);
        path = buffer;
        source = path.substr(path.rfind('/') + 1);
        source = source.substr(0, source.rfind('.'));
    }
    void TearDown() override {
        os::fault_clear();
        process_detach();
    }

    // A value of the source's key: its type and bytes, or type ~0 if missing.
    std::pair<os::DWORD, std::string> source_value(const char* name) const {
        const std::string key_name =
            "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\" + source;
        os::HKEY key = nullptr;
        if (os::RegOpenKeyExA(os::HKEY_LOCAL_MACHINE, key_name.c_str(), 0, os::KEY_READ, &key) != 0)
            return {~os::DWORD{0}, ""};
        char data[300] = {};
        os::DWORD type = 0;
        os::DWORD size = sizeof data;
        const os::LONG error = os::RegQueryValueExA(key, name, nullptr, &type,
                                                    reinterpret_cast<os::BYTE*>(data), &size);
        os::RegCloseKey(key);
        if (error != 0) return {~os::DWORD{0}, ""};
        return {type, std::string(data, size)};
    }
};

TEST_F(SourceRegistration, WritesTheSourceKeyAndOpensTheSource) {
    SMTPSetLogging(0x80000000);
    EXPECT_EQ(event_reporter.init(), 1);
    EXPECT_NE(event_reporter.source_handle, nullptr);
    EXPECT_NE(event_reporter.message_library, nullptr);
    EXPECT_EQ(event_reporter.mask_has(0xFFFFFFFF), 0u);  // registration clears the mask
    EXPECT_EQ(source_value("EventMessageFile"),
              (std::pair<os::DWORD, std::string>{os::REG_EXPAND_SZ, path + '\0'}));
    const std::uint32_t seven = 7;
    EXPECT_EQ(source_value("TypesSupported"),
              (std::pair<os::DWORD, std::string>{
                  os::REG_DWORD, std::string(reinterpret_cast<const char*>(&seven), 4)}));

    event_reporter.report(event::no_attachment);
    const auto events = read_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].source, source);
    EXPECT_EQ(events[0].text, "Il messaggio non contiene allegati");

    process_detach();
    EXPECT_EQ(event_reporter.source_handle, nullptr);
    EXPECT_EQ(event_reporter.message_library, nullptr);
    event_reporter.report(event::no_attachment);
    EXPECT_EQ(read_events().size(), 1u);
}

TEST_F(SourceRegistration, FailuresLeaveOneEventOnAFallbackSource) {
    struct Case {
        os::Op op;
        unsigned nth;
        const char* what;
    };
    const Case cases[] = {
        {Op::LoadLibraryA, 1, "module reference"},
        {Op::RegCreateKeyExA, 1, "source key"},
        {Op::RegSetValueExA, 1, "EventMessageFile"},
        {Op::RegSetValueExA, 2, "TypesSupported"},
    };
    std::size_t expected_events = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        {
            os::FaultScope fault(c.op, c.nth, os::ERROR_ACCESS_DENIED);
            EXPECT_EQ(event_reporter.init(), 0);
        }
        EXPECT_EQ(event_reporter.source_handle, nullptr);
        const auto events = read_events();
        ASSERT_EQ(events.size(), ++expected_events);
        EXPECT_EQ(events.back().id, 0u);
        EXPECT_EQ(events.back().type, 1);
        EXPECT_EQ(events.back().source, source);
        EXPECT_EQ(events.back().strings, Strings{path});
        // Later reports vanish.
        event_reporter.report(event::no_attachment);
        EXPECT_EQ(read_events().size(), expected_events);
    }
    // Not even the fallback source: nothing at all.
    os::FaultScope fault(Op::LoadLibraryA, 1, os::ERROR_ACCESS_DENIED);
    os::fault_arm(Op::RegisterEventSourceA, 1, os::ERROR_ACCESS_DENIED);
    EXPECT_EQ(event_reporter.init(), 0);
    EXPECT_EQ(read_events().size(), expected_events);
}

TEST_F(SourceRegistration, AttachRegistersThenStarts) {
    process_attach(os::GetModuleHandleA(nullptr));
    EXPECT_EQ(module_handle, os::GetModuleHandleA(nullptr));
    EXPECT_NE(event_reporter.source_handle, nullptr);
    EXPECT_NE(smtp_service, nullptr);
    EXPECT_FALSE(host_name.empty());
    // No settings key: the failed write-back is the one event, under the
    // registered source.
    const auto events = read_events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].id, event::debug_text);
    EXPECT_EQ(events[0].source, source);
}

}  // namespace
}  // namespace qbsmtp
