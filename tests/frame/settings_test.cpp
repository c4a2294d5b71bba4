// settings_test.cpp: start-up: the host name and the settings read through
// RegistryKey, and the disabled state after each failure.

#include <cstring>

#include "frame/module_state.h"
#include "frame/registry_key.h"
#include "frame_fixture.h"
#include "support/case_table.h"

namespace qbsmtp {
namespace {

// The text of a table's field: "machine" for the machine's name.
std::string named(const std::string& field) {
    char machine[200] = {};
    EXPECT_EQ(os::gethostname(machine, sizeof machine), 0);
    return field == "machine" ? machine : field;
}

// One process for each row, as each start-up needs a module of its own.
class StartModule : public test::ReportingFrame,
                    public ::testing::WithParamInterface<test::Case> {};

TEST_P(StartModule, Row) {
    const test::Case& c = GetParam();
    if (c[0] != "nokey") {
        std::string text = "[HKEY_LOCAL_MACHINE\\" + std::string(settings_key) + "]\n";
        for (const std::string& line : test::split(c[0], ';')) text += line + "\n";
        test::write_registry(text);
    }
    test::arm_faults(c[1]);
    start_module();
    os::fault_clear();
    EXPECT_EQ(host_name.text == nullptr ? "-" : host_name.c_str(), named(c[2]));
    RegistryKey key(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    char computed[256] = "-";
    const bool has_key = key.open_subkey(settings_key);
    if (has_key && !key.get_string("ComputedHostName", computed, sizeof computed))
        std::strcpy(computed, "-");
    EXPECT_EQ(has_key ? std::string(computed) : "nokey", named(c[3]));
    std::string numbers, expected;
    for (std::uint32_t n :
         {debug_log, session_timeout, send_timeout, probe_timeout, listen_backlog})
        numbers += std::to_string(n) + " ";
    for (std::size_t i = 4; i <= 8; ++i) expected += c[i] + " ";
    EXPECT_EQ(numbers, expected);
    EXPECT_EQ(smtp_service != nullptr, c[9] == "1");
    const auto events = test::read_events();
    ASSERT_EQ(events.size(), c.fields.size() > 11 ? 1u : 0u);
    if (events.empty()) return;
    EXPECT_EQ(events[0].id, std::stoul(c[10], nullptr, 16));
    std::string strings;
    for (const std::string& text : events[0].strings)
        strings += (strings.empty() ? "" : " ; ") + text;
    EXPECT_EQ(strings, c[11]);
}

INSTANTIATE_TEST_SUITE_P(Table, StartModule,
                         ::testing::ValuesIn(test::read_cases("frame/settings.txt", 11)),
                         [](const auto& info) {
                             return "line" +
                                    info.param.where.substr(info.param.where.rfind(':') + 1);
                         });

}  // namespace
}  // namespace qbsmtp
