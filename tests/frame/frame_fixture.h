// frame_fixture.h: a fresh prefix, the catalogue registered and an open
// event source, as after attach, without the rest of start-up.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "platform/os.h"
#include "platform/os_fault.h"
#include "support/event_log.h"
#include "support/temp_prefix.h"

namespace qbsmtp::test {

class ReportingFrame : public ::testing::Test {
  protected:
    TempPrefix prefix;

    void SetUp() override {
        setenv("QBSMTP_NO_SYSLOG", "1", 1);
        os::set_module_resources(module_resources());
        event_reporter.source_handle = os::RegisterEventSourceA(nullptr, "QBSMTP");
        ASSERT_NE(event_reporter.source_handle, nullptr);
    }
    void TearDown() override {
        os::fault_clear();
        event_reporter.close();
    }

    // The insertion strings of the one event with this id.
    static std::vector<std::string> only_event(std::uint32_t id) {
        const auto events = events_with_id(id);
        EXPECT_EQ(events.size(), 1u) << "events with id " << std::hex << id;
        return events.empty() ? std::vector<std::string>{} : events.front().strings;
    }
};

}  // namespace qbsmtp::test
