// text_test.cpp: CountedString's blocks, the bounded text helpers, message
// texts and the debug log.

#include <cstring>

#include "frame/counted_string.h"
#include "frame/text_ops.h"
#include "frame_fixture.h"
#include "support/case_table.h"

namespace qbsmtp {
namespace {

using Strings = std::vector<std::string>;

TEST(CountedString, BlocksOfEachAssignment) {
    for (const test::Case& c : test::read_cases("frame/counted_strings.txt", 3)) {
        const std::vector<std::string> steps = test::split(c[0], '>');
        auto text = [&](std::size_t i) { return steps[i] == "-" ? nullptr : steps[i].c_str(); };
        CountedString value(text(0));
        char* before = nullptr;
        for (std::size_t i = 1; i < steps.size(); ++i) {
            before = value.text;
            if (i + 1 == steps.size()) test::arm_faults(c[2]);
            value = text(i);
        }
        os::fault_clear();
        const std::string expected = c[2].empty() && steps.back() != "-" ? steps.back() : "";
        EXPECT_STREQ(value.c_str(), expected.c_str()) << c.where;
        EXPECT_EQ(value.length, static_cast<std::int32_t>(expected.size())) << c.where;
        const std::string block = !value.text ? "none" : value.text == before ? "same" : "new";
        EXPECT_EQ(block, c[1]) << c.where;
        EXPECT_TRUE(block != "new" || os::LocalSize(value.text) == expected.size() + 1) << c.where;
    }
}

TEST(BoundedText, Table) {
    os::set_module_resources(module_resources());
    for (const test::Case& c : test::read_cases("frame/bounded_text.txt", 5)) {
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        const std::size_t size = std::stoul(c[3]);
        const char* second = c[2] == "-" ? nullptr : c[2].c_str();
        if (c[0] == "append") {
            std::strcpy(buffer, c[1].c_str());
            EXPECT_EQ(append_limited(buffer, second, size), buffer) << c.where;
        } else if (c[0] == "compose") {
            EXPECT_EQ(compose_limited(buffer, c[1] == "-" ? nullptr : c[1].c_str(), second, size),
                      buffer)
                << c.where;
        } else {
            os::WSASetLastError(std::stoi(c[1]));
            EXPECT_EQ(winsock_error_text(buffer, size), buffer) << c.where;
            EXPECT_EQ(std::string(buffer + size, 4), "####") << c.where << ": written behind size";
        }
        EXPECT_EQ(std::string(buffer), test::unescape(c[4])) << c.where;
    }
}

class MessageTexts : public test::ReportingFrame {};

TEST_F(MessageTexts, DebugLogFollowsDebugLogAndRegistryFailuresAlwaysLog) {
    debug_log = 0;
    log_debug("not %s", "logged");
    EXPECT_EQ(log_registry_failure("HKEY_LOCAL_MACHINE\\SOFTWARE\\X\\Value", 0x2a), 1);
    debug_log = 1;
    log_debug("QUIT %d", 221);
    log_debug("%s", std::string(2000, 'x').c_str());  // cut at 511 bytes
    debug_log = 0;
    const auto events = test::events_with_id(event::debug_text);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].strings,
              Strings{"RegPutValue error 2a on key HKEY_LOCAL_MACHINE\\SOFTWARE\\X\\Value"});
    EXPECT_EQ(events[1].strings, Strings{"QUIT 221"});
    EXPECT_EQ(events[2].strings, Strings{std::string(511, 'x')});
}

}  // namespace
}  // namespace qbsmtp
