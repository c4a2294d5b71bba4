// Tests of the port conflict probe, through the listener: who holds the
// SMTP port decides whether reception gives way or takes the port.

#include "reception/port_probe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "platform/os.h"
#include "support/port_holder.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

// Waits until the listener thread has ended; false if it runs on.
bool listener_ends(int seconds) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (listener_running.load() != 0) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// Position of the first event with id in the log, or -1.
int position_of(std::uint32_t id) {
    const auto events = read_events();
    for (std::size_t i = 0; i < events.size(); ++i)
        if (events[i].id == id) return static_cast<int>(i);
    return -1;
}

class ServerOnThePort : public ::testing::TestWithParam<std::string> {};

TEST_P(ServerOnThePort, ReceptionGivesWayAndTheLogQuotesTheServer) {
    ReceptionFixture fixture("", false);
    ScriptedPortHolder holder(fixture.port(), ScriptedPortHolder::Part::greet, GetParam());
    ASSERT_TRUE(holder.listening());
    ASSERT_EQ(fixture.start(), 1);

    const auto refusal = wait_for_event(event::port_owned_by_other_server);
    ASSERT_TRUE(refusal.has_value());
    EXPECT_EQ(refusal->strings, (std::vector<std::string>{"\r\n", "\r\n", GetParam()}));
    EXPECT_EQ(refusal->type, os::EVENTLOG_ERROR_TYPE);
    EXPECT_LT(position_of(event::port_in_use), position_of(event::port_owned_by_other_server));
    EXPECT_TRUE(listener_ends(10));
    EXPECT_EQ(holder.received(), "QUIT\r\n");
    EXPECT_EQ(count_events(event::port_in_use), 1u);
    EXPECT_EQ(count_events(event::bind_failed), 0u);
    EXPECT_EQ(count_events(event::quit_failed), 0u);
}

INSTANTIATE_TEST_SUITE_P(Greetings, ServerOnThePort,
                         ::testing::Values("220 other.example.test ESMTP ready\r\n",
                                           "554 no service here\r\n",
                                           "220-other.example.test\r\n220-second line\r\n"
                                           "220 last line\r\n"));

// A holder that never gives a well-formed reply still holds the port: after
// the bounded wait (ProbeTimeout, one second here) reception gives way, and
// the log says why and quotes whatever came.
struct NoReplyCase {
    const char* what;
    ScriptedPortHolder::Part part;
    std::string words;     // what the holder sends
    std::uint32_t reason;  // the reader's own event
};

void PrintTo(const NoReplyCase& c, std::ostream* out) {
    *out << c.what;
}

class NoReplyOnThePort : public ::testing::TestWithParam<NoReplyCase> {};

TEST_P(NoReplyOnThePort, ReceptionGivesWayAfterABoundedWait) {
    const NoReplyCase& c = GetParam();
    ReceptionFixture fixture("\"ProbeTimeout\"=dword:00000001", false);
    ScriptedPortHolder holder(fixture.port(), c.part, c.words);
    ASSERT_TRUE(holder.listening());
    ASSERT_EQ(fixture.start(), 1);

    // Well within the 30 seconds of the default, but only with the setting.
    const auto refusal = wait_for_event(event::port_owned_by_other_server, 10);
    ASSERT_TRUE(refusal.has_value());
    // The reporter writes an empty insertion string as "null".
    EXPECT_EQ(refusal->strings,
              (std::vector<std::string>{"\r\n", "\r\n", c.words.empty() ? "null" : c.words}));
    EXPECT_EQ(count_events(c.reason), 1u);
    EXPECT_LT(position_of(c.reason), position_of(event::port_owned_by_other_server));
    EXPECT_TRUE(listener_ends(10));
    EXPECT_EQ(holder.received(), "");  // no QUIT to a peer that is not understood
}

INSTANTIATE_TEST_SUITE_P(
    Holders, NoReplyOnThePort,
    ::testing::Values(
        NoReplyCase{"silent", ScriptedPortHolder::Part::silent, "", event::connection_lost},
        NoReplyCase{"closes", ScriptedPortHolder::Part::close_at_once, "", event::connection_lost},
        NoReplyCase{"http", ScriptedPortHolder::Part::greet, "HTTP/1.0 400 Bad Request\r\n\r\n",
                    event::reply_unintelligible}),
    [](const auto& info) { return std::string(info.param.what); });

// A port in TIME_WAIT: the first bind fails, nobody answers the probe, and
// the listener takes the port with SO_REUSEADDR and serves.
TEST(PortProbe, PortInTimeWaitIsTakenOver) {
    ReceptionFixture fixture("", false);
    ASSERT_TRUE(leave_port_in_time_wait(fixture.port()));
    ASSERT_EQ(fixture.start(), 1);
    const auto client = fixture.connect();
    EXPECT_TRUE(client->connected());
    // Where SO_REUSEADDR precedes the first bind, TIME_WAIT never blocks it.
    EXPECT_EQ(count_events(event::port_in_use), os::reuse_address_before_bind ? 0u : 1u);
    EXPECT_EQ(count_events(event::port_owned_by_other_server), 0u);
    EXPECT_EQ(listener_running.load(), 1);
}

// A name that does not resolve, and a port where nothing listens: nobody
// answered, and nothing is reported.
TEST(PortProbe, NobodyThereGivesOne) {
    ReceptionFixture fixture("", false);
    EXPECT_EQ(TestSMTP("no-such-host.invalid", os::htons(fixture.port())), 1);
    EXPECT_EQ(TestSMTP("localhost", os::htons(fixture.port())), 1);
    EXPECT_EQ(count_events(event::port_owned_by_other_server), 0u);
}

}  // namespace
}  // namespace qbsmtp::test
