// The listener and the port conflict probe: opening the port and its
// failure branches, who holds the port, the accept loop, stop and a
// second SMTPRecvInit, and the settings that bound a session's waits.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "platform/os.h"
#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/port_probe.h"
#include "reception/smtp_session.h"
#include "support/reception_fixture.h"
#include "support/scripted_relay.h"
#include "support/transcript.h"

namespace qbsmtp::test {
namespace {

const std::string noop_ok = "250 Quillbox SMTP OK\r\n";
const char* const debug_on = "\"DebugLog\"=dword:00000001";

bool has_debug_text(const std::string& prefix) {
    const auto texts = read_events(event::debug_text);
    return std::any_of(texts.begin(), texts.end(),
                       [&](const auto& e) { return e.strings.at(0).starts_with(prefix); });
}

// True once the listener has ended and nothing answers on port any more.
bool port_closes(std::uint16_t port) {
    return wait_for([] { return listener_running.load() == 0; }) &&
           !SmtpTestClient(port, 0).connected();
}

TEST(Listener, ServesWithoutEventsAndWritesDebugTexts) {
    ReceptionFixture module(debug_on);
    EXPECT_EQ(module.connect()->command("NOOP"), noop_ok);
    EXPECT_TRUE(has_debug_text("Starting SMTP listen"));
    EXPECT_TRUE(has_debug_text("accept returned "));
    for (const LoggedEvent& e : read_events()) EXPECT_EQ(e.id & 0xC0000000u, 0x40000000u) << e.id;
}

// A fault while the port is opened: its event, the warning for a taken
// port if the branch passes there, and nothing listening.
struct OpeningFault {
    const char* name;
    os::Op op;
    unsigned nth;
    int error;
    bool taken;  // the port is in use at the first bind
    std::uint32_t reported;
    std::size_t warnings;  // 0x800027D8
    bool serves;
};

class Opening : public ::testing::TestWithParam<OpeningFault> {};

TEST_P(Opening, ReportsAndServesOrNot) {
    const OpeningFault& f = GetParam();
    // On POSIX the listener sets SO_REUSEADDR before its first bind; the
    // probe's socket then sets two options (its time-outs).
    const unsigned before_bind = os::reuse_address_before_bind ? 1 : 0;
    if (!f.taken && f.op == os::Op::setsockopt && !before_bind)
        GTEST_SKIP() << "the first bind takes no option here";
    ReceptionFixture module(debug_on, false);
    if (f.taken) os::fault_arm(os::Op::bind, 1, os::WSAEADDRINUSE);
    os::fault_arm(f.op, f.nth + (f.op == os::Op::setsockopt && f.nth > 1 ? before_bind : 0),
                  static_cast<os::DWORD>(f.error), f.name == std::string("second_bind"));
    ASSERT_EQ(module.start(), 1);  // the thread exists; the port is its own matter
    EXPECT_TRUE(f.reported == 0 || wait_for_event(f.reported).has_value());
    if (f.serves) {
        EXPECT_EQ(module.connect()->command("NOOP"), noop_ok);
        EXPECT_TRUE(has_debug_text("setSocktOpt returned 0"));
    } else {
        EXPECT_TRUE(port_closes(module.port()));
        // A listener that ended on a failure lets SMTPRecvInit start another.
        os::fault_clear();
        ASSERT_EQ(module.start(), 1);
        EXPECT_EQ(module.connect()->command("NOOP"), noop_ok);
    }
    EXPECT_EQ(events_with_id(event::port_in_use).size(), f.warnings);
}

using enum os::Op;
INSTANTIATE_TEST_SUITE_P(
    Faults, Opening,
    ::testing::Values(
        OpeningFault{"socket", socket, 1, os::WSAEMFILE, false, event::socket_failed, 0, false},
        OpeningFault{"bind", bind, 1, os::WSAEACCES, false, event::bind_failed, 0, false},
        OpeningFault{"second_bind", bind, 1, os::WSAEADDRNOTAVAIL, true, event::bind_failed, 1,
                     false},
        OpeningFault{"listen", listen, 1, os::WSAENOBUFS, false, event::listen_failed, 0, false},
        OpeningFault{"setsockopt_before_first_bind", setsockopt, 1, os::WSAEINVAL, false,
                     event::setsockopt_failed, 0, false},
        OpeningFault{"setsockopt_behind_taken_port", setsockopt, 3, os::WSAEINVAL, true,
                     event::setsockopt_failed, 1, false},
        OpeningFault{"in_use_nobody_answers", bind, 1, os::WSAEADDRINUSE, true, 0, 1, true},
        OpeningFault{"not_available_nobody_answers", bind, 1, os::WSAEADDRNOTAVAIL, true, 0, 1,
                     true}),
    [](const auto& info) { return std::string(info.param.name); });

// A port that the system holds (a socket bound but not listening, or an
// end left waiting after a close) is taken over: at the first bind where
// the listener sets SO_REUSEADDR itself, else after the probe.
class PortHeld : public ::testing::TestWithParam<bool> {};

TEST_P(PortHeld, ButNotServedIsTakenOver) {
    ReceptionFixture module({}, false);
    const auto holder = hold_port(module.port(), GetParam());
    ASSERT_TRUE(holder);
    ASSERT_EQ(module.start(), 1);
    EXPECT_EQ(module.connect()->command("NOOP"), noop_ok);
    // A Windows bind passes ends left waiting by itself (os.h).
    const bool first_bind_takes = os::reuse_address_before_bind || GetParam();
    EXPECT_EQ(events_with_id(event::port_in_use).size(), first_bind_takes ? 0u : 1u);
}

INSTANTIATE_TEST_SUITE_P(ByTimeWait, PortHeld, ::testing::Bool());

// Somebody on the port: reception gives way, and the log quotes what came
// (its first reply; the reporter writes an empty insertion string as
// "null"). A holder that
// gives no well-formed reply is left after ProbeTimeout, with no QUIT.
struct Holder {
    const char* name;
    std::vector<ScriptedRelay::Step> script;
    std::string heard;
    std::vector<std::string> events;  // ids, in order
};

class PortOwned : public ::testing::TestWithParam<Holder> {};

TEST_P(PortOwned, ReceptionGivesWay) {
    const Holder& h = GetParam();
    ReceptionFixture module("\"ProbeTimeout\"=dword:00000001", false);
    ScriptedRelay holder(h.script, module.port());
    ASSERT_TRUE(holder.listening());
    ASSERT_EQ(module.start(), 1);
    const auto refusal = wait_for_event(event::port_owned_by_other_server);
    ASSERT_TRUE(refusal.has_value());
    const auto& said = h.script[0].pieces;
    EXPECT_EQ(refusal->strings,
              (std::vector<std::string>{"\r\n", "\r\n", said.empty() ? "null" : said[0]}));
    EXPECT_EQ(holder.received(), h.heard);
    std::vector<std::string> ids;
    for (const std::string& line : event_lines()) ids.push_back(line.substr(0, 10));
    EXPECT_EQ(ids, h.events);
}

const std::string greeting = "220-other.example.test\r\n220 ESMTP ready\r\n";
const std::vector<std::string> gave_way = {"0x800027D8", "0xC00027D9"};
const std::vector<std::string> lost = {"0x800027D8", "0xC0004EF5", "0xC00027D9"};
INSTANTIATE_TEST_SUITE_P(
    Holders, PortOwned,
    ::testing::Values(
        Holder{"greets", {{0, {greeting}}, {1, {"221 bye\r\n"}}}, "QUIT\r\n", gave_way},
        Holder{"refuses", {{0, {"554 no\r\n"}}, {1, {"221 bye\r\n"}}}, "QUIT\r\n", gave_way},
        Holder{"silent", {{0, {}, ScriptedRelay::Act::silent}}, "", lost},
        Holder{"closes", {{0, {}, ScriptedRelay::Act::close}}, "", lost},
        Holder{"http",
               {{0, {"HTTP/1.0 400 Bad\r\n\r\n"}}},
               "",
               {"0x800027D8", "0xC0004EFB", "0xC00027D9"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PortProbe, NobodyThereGivesOne) {
    ReceptionFixture module("", false);
    EXPECT_EQ(TestSMTP("no-such-host.invalid", os::htons(module.port())), 1);
    EXPECT_EQ(TestSMTP("localhost", os::htons(module.port())), 1);
    EXPECT_TRUE(event_lines().empty());
}

// A failure for one connection closes that one only.
TEST(Listener, AcceptAndSessionFailuresCostOneConnection) {
    ReceptionFixture module(debug_on, false);
    os::fault_arm(os::Op::accept, 1, os::WSAECONNABORTED);
    ASSERT_EQ(module.start(), 1);
    EXPECT_EQ(module.connect()->command("NOOP"), noop_ok);
    EXPECT_TRUE(has_debug_text("accept returned ffffffff"));
    for (const auto& [op, reported] :
         {std::pair{os::Op::LocalAlloc, event::no_memory_for_session},
          std::pair{os::Op::BeginThread, event::create_thread_failed}}) {
        {
            os::FaultScope fault(op, 1, os::ERROR_NOT_ENOUGH_MEMORY);
            EXPECT_EQ(SmtpTestClient(module.port()).read_to_close(), "");
        }
        EXPECT_TRUE(wait_for_event(reported).has_value());
        EXPECT_EQ(module.connect()->command("NOOP"), noop_ok);
    }
    EXPECT_EQ(wait_for_event(event::create_thread_failed)->strings.at(0), "smtp_session");
}

TEST(Listener, StopTakesEffectAtTheNextConnection) {
    ReceptionFixture module;
    auto running = module.connect();
    EXPECT_EQ(module.start(), 0);  // a second init while listening
    EXPECT_EQ(os::GetLastError(), os::ERROR_ALREADY_INITIALIZED);
    SMTPRecvStop();
    EXPECT_EQ(running->command("NOOP"), noop_ok);                  // running sessions go on
    EXPECT_EQ(SmtpTestClient(module.port()).read_to_close(), "");  // closed unanswered
    EXPECT_TRUE(port_closes(module.port()));
    EXPECT_EQ(running->command("QUIT"), "221 mx.example.test Service closing transmission\r\n");
    // Reception does not start again in the process once stopped.
    EXPECT_EQ(module.start(), 1);
    EXPECT_EQ(SmtpTestClient(module.port()).read_to_close(), "");
    EXPECT_TRUE(port_closes(module.port()));
}

TEST(Listener, SessionTimeoutEndsIdleSessionsOnly) {
    ReceptionFixture module("\"SessionTimeout\"=dword:00000001");
    auto active = module.connect();
    for (int i = 0; i < 3; ++i) {  // more than the time-out in all, never idle that long
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        EXPECT_EQ(active->command("NOOP"), noop_ok);
    }
    // A peer that never reads: unread HELP texts fill the socket buffers
    // until the session's send blocks, and only its time-out ends it.
    auto deaf = module.connect();
    std::string commands;
    for (int i = 0; i < 20000; ++i) commands += "HELP\r\n";
    deaf->send(commands);  // may fail once the session has gone
    EXPECT_EQ(active->read_to_close(), "221 mx.example.test Service closing transmission\r\n");
    module.wait_idle();
}

// The kernel's queue of the listening socket, as ss shows it (-1: ss
// says nothing here).
long listen_queue_of(std::uint16_t port) {
    const std::string command = "ss -Hltn 'sport = :" + std::to_string(port) + "' 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    long queue = -1;
    if (pipe != nullptr && std::fscanf(pipe, "%*s %*d %ld", &queue) != 1) queue = -1;
    if (pipe != nullptr) ::pclose(pipe);
    return queue;
}

// The system's longest queue, as Linux states it; what a missing or zero
// setting gets.
long system_queue_maximum() {
    std::ifstream in("/proc/sys/net/core/somaxconn");
    long length = -1;
    in >> length;
    return length;
}

class ListenBacklog : public ::testing::TestWithParam<std::pair<const char*, long>> {};

TEST_P(ListenBacklog, FollowsTheSetting) {
    ReceptionFixture module(GetParam().first);
    module.connect();
    const long seen = listen_queue_of(module.port());
    if (seen < 0) GTEST_SKIP() << "ss (iproute2) cannot show the listening socket here";
    EXPECT_EQ(seen, GetParam().second < 0 ? system_queue_maximum() : GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Settings, ListenBacklog,
                         ::testing::Values(std::pair{"", -1L},
                                           std::pair{"\"ListenBacklog\"=dword:00000000", -1L},
                                           std::pair{"\"ListenBacklog\"=dword:00000005", 5L},
                                           std::pair{"\"ListenBacklog\"=dword:00000080", 128L}));

}  // namespace
}  // namespace qbsmtp::test
