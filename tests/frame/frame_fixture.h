// frame_fixture.h: a fresh prefix, the catalogue registered and an open
// event source, as after attach, without the rest of start-up.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "platform/os.h"
#include "platform/os_fault.h"
#include "support/case_table.h"
#include "support/event_log.h"
#include "support/temp_prefix.h"

namespace qbsmtp::test {

// Arms the faults of a table's field: "Op nth error" items separated by
// ';', with "nth+" for that call and every later one.
inline void arm_faults(const std::string& field) {
    using os::Op;
    static const std::map<std::string, Op> ops = {{"CreateFileA", Op::CreateFileA},
                                                  {"CreateDirectoryA", Op::CreateDirectoryA},
                                                  {"GetFileAttributesA", Op::GetFileAttributesA},
                                                  {"LocalAlloc", Op::LocalAlloc},
                                                  {"WSAStartup", Op::WSAStartup},
                                                  {"gethostname", Op::gethostname},
                                                  {"getservbyname", Op::getservbyname}};
    for (const std::string& item : split(field, ';')) {
        std::istringstream in(item);
        std::string op, nth;
        os::DWORD error = 0;
        if (in >> op >> nth >> error)
            os::fault_arm(ops.at(op), static_cast<unsigned>(std::stoul(nth)), error,
                          nth.back() == '+');
    }
}

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
};

}  // namespace qbsmtp::test
