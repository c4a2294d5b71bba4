// exports_test.cpp: SMTPRecvInit, SMTPRecvStop and SMTPSetLogging, in the
// static build and through the loaded QBSMTP.so.

#include <dlfcn.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "frame_fixture.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {
namespace {

namespace fs = std::filesystem;
using os::Op;
using test::events_with_id;
using test::read_events;
using test::ReportingFrame;
using Strings = std::vector<std::string>;

// Port 0: a listener started here binds an ephemeral port, never 25. The
// entry outlives the test, as the platform's does: a listener thread that
// a test started reads it on its own time.
os::servent any_port_service{};

// A started module: smtp_service set as start_module leaves it.
class Reception : public ReportingFrame {
  protected:
    std::string spool = prefix.file("spool");

    void SetUp() override {
        ReportingFrame::SetUp();
        smtp_service = &any_port_service;
    }
};

TEST_F(Reception, InitMakesTheSpoolTreeAndStartsTheListener) {
    os::fault_clear();
    EXPECT_EQ(SMTPRecvInit(spool.c_str()), 1);
    EXPECT_EQ(std::string(spool_dir.c_str()), spool);
    EXPECT_EQ(std::string(mime_dir.c_str()), spool + os::path_separator + "mime");
    EXPECT_TRUE(fs::is_directory(spool + "/mime"));
    EXPECT_EQ(os::fault_calls(Op::BeginThread), 1u);
    EXPECT_TRUE(events_with_id(event::create_directory_failed).empty());
    EXPECT_TRUE(events_with_id(event::create_thread_failed).empty());
}

TEST_F(Reception, TrailingSeparatorTakesNoSecondOne) {
    const std::string given = spool + os::path_separator;
    EXPECT_EQ(SMTPRecvInit(given.c_str()), 1);
    EXPECT_EQ(std::string(spool_dir.c_str()), given);
    EXPECT_EQ(std::string(mime_dir.c_str()), given + "mime");
}

TEST_F(Reception, MimeDirectoryCannotBeMade) {
    std::ofstream(spool).put('x');  // a file where the spool directory should be
    os::fault_clear();
    EXPECT_EQ(SMTPRecvInit(spool.c_str()), 0);
    const std::string mime = spool + os::path_separator + "mime";
    // The new texts stay; no thread was started.
    EXPECT_EQ(std::string(mime_dir.c_str()), mime);
    EXPECT_EQ(std::string(spool_dir.c_str()), spool);
    EXPECT_EQ(os::fault_calls(Op::BeginThread), 0u);
    const os::DWORD error = os::GetLastError();
    EXPECT_NE(error, 0u);
    const auto strings = only_event(event::create_directory_failed);
    ASSERT_EQ(strings.size(), 2u);
    EXPECT_EQ(strings[0], mime);
    EXPECT_NE(strings[1], "null");
}

TEST_F(Reception, ListenerThreadCannotStart) {
    {
        os::FaultScope fault(Op::BeginThread, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(SMTPRecvInit(spool.c_str()), 0);
    }
    EXPECT_EQ(os::GetLastError(), os::ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(listener_running.load(), 0);
    const auto strings = only_event(event::create_thread_failed);
    ASSERT_EQ(strings.size(), 2u);
    EXPECT_EQ(strings[0], "smtp_listen");
    // A new attempt may start it.
    EXPECT_EQ(SMTPRecvInit(spool.c_str()), 1);
}

TEST_F(Reception, SecondInitWhileAListenerRuns) {
    // A listener thread runs for this spool directory.
    spool_dir = spool.c_str();
    listener_running.store(1);
    const std::string other = prefix.file("other");
    os::SetLastError(0);
    EXPECT_EQ(SMTPRecvInit(other.c_str()), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(std::string(spool_dir.c_str()), spool);
    EXPECT_FALSE(fs::exists(other));

    // After a stop the call goes through, and its listener closes at once.
    EXPECT_EQ(SMTPRecvStop(), 1);
    EXPECT_EQ(stop_flag.load(), 1u);
    EXPECT_EQ(SMTPRecvInit(other.c_str()), 1);
    EXPECT_EQ(std::string(spool_dir.c_str()), other);
    EXPECT_TRUE(fs::is_directory(other + "/mime"));
    listener_running.store(0);
}

TEST(Exports, StopBeforeAnyStart) {
    EXPECT_EQ(stop_flag.load(), 0u);
    EXPECT_EQ(SMTPRecvStop(), 1);
    EXPECT_EQ(SMTPRecvStop(), 1);
    EXPECT_EQ(stop_flag.load(), 1u);
}

// The shared object: its exports by their plain names, attach at load.
TEST(SharedModule, LoadsAndExportsItsFunctions) {
    test::TempPrefix prefix;
    setenv("QBSMTP_NO_SYSLOG", "1", 1);
    void* module = dlopen(QBSMTP_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();

    using SetLogging = void (*)(std::uint32_t);
    using Stop = std::int32_t (*)();
    using Alloc = void* (*)(unsigned, std::size_t);
    using Free = void* (*)(void*);
    auto set_logging = reinterpret_cast<SetLogging>(dlsym(module, "SMTPSetLogging"));
    auto stop = reinterpret_cast<Stop>(dlsym(module, "SMTPRecvStop"));
    auto local_alloc = reinterpret_cast<Alloc>(dlsym(module, "LocalAlloc"));
    auto local_free = reinterpret_cast<Free>(dlsym(module, "LocalFree"));
    for (const char* name : {"SMTPRecvInit", "SMTPRecvNext", "SMTPSendInit", "SMTPSend"}) {
        EXPECT_NE(dlsym(module, name), nullptr) << name;
    }
    ASSERT_NE(set_logging, nullptr);
    ASSERT_NE(stop, nullptr);
    ASSERT_NE(local_alloc, nullptr);
    ASSERT_NE(local_free, nullptr);

    set_logging(0x80000000);
    EXPECT_EQ(stop(), 1);
    void* block = local_alloc(0, 64);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(local_free(block), nullptr);

    // Attach ran: with no settings key, the write-back of the computed
    // host name failed and was reported under the module's own source.
    bool attach_reported = false;
    for (const auto& event : read_events()) {
        if (event.id == event::debug_text && event.source == "QBSMTP") attach_reported = true;
    }
    EXPECT_TRUE(attach_reported);
    EXPECT_EQ(dlclose(module), 0);
}

}  // namespace
}  // namespace qbsmtp
