// The listener and the session threads: opening the port and its failure
// branches, the accept loop, stop, a second SMTPRecvInit, the session
// events and the session time-out.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <ostream>
#include <string>
#include <thread>

#include "frame/message_catalogue.h"
#include "platform/os.h"
#include "platform/os_fault.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/smtp_session.h"
#include "support/event_log.h"
#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

const std::string closing =
    std::string("221 ") + test_host_name + " Service closing transmission\r\n";
const char* const debug_on = "\"DebugLog\"=dword:00000001";

// True once a connection to port is refused, within seconds.
bool port_closes(std::uint16_t port, int seconds = 10) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        SmtpTestClient probe(port, 0);
        if (!probe.connected()) return true;
        probe.read_to_close();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool has_debug_text(const std::string& text) {
    for (const LoggedEvent& e : read_events())
        if (e.id == event::debug_text && !e.strings.empty() && e.strings[0] == text) return true;
    return false;
}

TEST(Listener, ServesWithoutEventsAndWritesDebugTexts) {
    ReceptionFixture module(debug_on);
    auto client = module.connect();
    EXPECT_EQ(client->command("QUIT"), closing);
    EXPECT_TRUE(has_debug_text("Starting SMTP listen"));
    bool accept_logged = false;
    for (const LoggedEvent& e : read_events()) {
        if (e.id == event::debug_text && !e.strings.empty() &&
            e.strings[0].rfind("accept returned ", 0) == 0)
            accept_logged = true;
        EXPECT_EQ(e.id & 0xC0000000u, 0x40000000u) << "unexpected event " << std::hex << e.id;
    }
    EXPECT_TRUE(accept_logged);
}

struct OpeningFault {
    const char* name;
    os::Op op;
    unsigned nth;
    int error;
    bool every_after;
    std::uint32_t reported;  // the event that ends the listener
    const char* error_text;  // its Winsock text
};

// Test names say what a case is; its bytes say nothing.
void PrintTo(const OpeningFault& c, std::ostream* out) {
    *out << c.name;
}

class OpeningFailure : public ::testing::TestWithParam<OpeningFault> {};

TEST_P(OpeningFailure, ReportsAndNothingListens) {
    const OpeningFault& f = GetParam();
    ReceptionFixture module({}, false);
    os::FaultScope fault(f.op, f.nth, static_cast<os::DWORD>(f.error), f.every_after);
    ASSERT_EQ(module.start(), 1);  // the thread exists; the port is its own matter
    const auto event = wait_for_event(f.reported);
    ASSERT_TRUE(event.has_value());
    ASSERT_EQ(event->strings.size(), 1u);
    EXPECT_EQ(event->strings[0], std::string("errore winsock: ") + f.error_text);
    SmtpTestClient client(module.port(), 0);
    EXPECT_FALSE(client.connected());
}

INSTANTIATE_TEST_SUITE_P(
    Branches, OpeningFailure,
    ::testing::Values(OpeningFault{"socket", os::Op::socket, 1, os::WSAEMFILE, false,
                                   event::socket_failed, "troppi file aperti"},
                      OpeningFault{"bind", os::Op::bind, 1, os::WSAEACCES, false,
                                   event::bind_failed, "permesso negato"},
                      OpeningFault{"second_bind", os::Op::bind, 1, os::WSAEADDRNOTAVAIL, true,
                                   event::bind_failed,
                                   "impossibile assegnare gli indirizzi richiesti"},
                      OpeningFault{"listen", os::Op::listen, 1, os::WSAENOBUFS, false,
                                   event::listen_failed, "nessuno spazio nel buffer disponibile"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Listener, SetsockoptFailingBehindATakenPort) {
    ReceptionFixture module({}, false);
    os::fault_arm(os::Op::bind, 1, os::WSAEADDRINUSE);
    // After the listener's own SO_REUSEADDR before the first bind (POSIX),
    // the probe's socket takes two (its time-outs); the next is the retry's.
    os::fault_arm(os::Op::setsockopt, os::reuse_address_before_bind ? 4 : 3, os::WSAEINVAL);
    ASSERT_EQ(module.start(), 1);
    const auto event = wait_for_event(event::setsockopt_failed);
    os::fault_clear();
    ASSERT_TRUE(event.has_value());
    ASSERT_EQ(event->strings.size(), 1u);
    EXPECT_EQ(event->strings[0], "errore winsock: argomento non valido");
    EXPECT_EQ(count_events(event::port_in_use), 1u);
    SmtpTestClient client(module.port(), 0);
    EXPECT_FALSE(client.connected());
}

// The option set before the first bind cannot be set: reception is off,
// and the port was never found taken.
TEST(Listener, SetsockoptFailingBeforeTheFirstBind) {
    if (!os::reuse_address_before_bind) GTEST_SKIP() << "the first bind takes no option here";
    ReceptionFixture module({}, false);
    os::fault_arm(os::Op::setsockopt, 1, os::WSAEINVAL);
    ASSERT_EQ(module.start(), 1);
    ASSERT_TRUE(wait_for_event(event::setsockopt_failed).has_value());
    os::fault_clear();
    EXPECT_EQ(count_events(event::port_in_use), 0u);
    SmtpTestClient client(module.port(), 0);
    EXPECT_FALSE(client.connected());
}

struct TakenPort {
    const char* name;
    int error;
};

// Test names say what a case is; its bytes say nothing.
void PrintTo(const TakenPort& c, std::ostream* out) {
    *out << c.name;
}

class PortTakenByNobody : public ::testing::TestWithParam<TakenPort> {};

TEST_P(PortTakenByNobody, WarnsRebindsAndServes) {
    ReceptionFixture module(debug_on, false);
    {
        os::FaultScope taken(os::Op::bind, 1, static_cast<os::DWORD>(GetParam().error));
        ASSERT_EQ(module.start(), 1);
        auto client = module.connect();
        EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    }
    EXPECT_EQ(count_events(event::port_in_use), 1u);
    EXPECT_TRUE(has_debug_text("setSocktOpt returned 0"));
}

INSTANTIATE_TEST_SUITE_P(Codes, PortTakenByNobody,
                         ::testing::Values(TakenPort{"in_use", os::WSAEADDRINUSE},
                                           TakenPort{"not_available", os::WSAEADDRNOTAVAIL}),
                         [](const auto& info) { return std::string(info.param.name); });

// A socket bound with SO_REUSEADDR but not listening: taken over, at the
// first bind where the listener sets the option itself.
TEST(Listener, PortHeldByASocketThatDoesNotListen) {
    ReceptionFixture module({}, false);
    PortHolder holder(module.port());
    ASSERT_TRUE(holder.bound());
    ASSERT_EQ(module.start(), 1);
    auto client = module.connect();
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    EXPECT_EQ(count_events(event::port_in_use), os::reuse_address_before_bind ? 0u : 1u);
}

TEST(Listener, FailedAcceptIsRetriedAtOnce) {
    ReceptionFixture module(debug_on, false);
    os::fault_arm(os::Op::accept, 1, os::WSAECONNABORTED);
    ASSERT_EQ(module.start(), 1);
    auto client = module.connect();
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    EXPECT_TRUE(has_debug_text("accept returned ffffffff"));
}

TEST(Listener, NoMemoryForASessionClosesThatConnectionOnly) {
    ReceptionFixture module;
    auto first = module.connect();  // the listener is in accept now
    {
        os::FaultScope no_memory(os::Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        SmtpTestClient refused(module.port());
        EXPECT_EQ(refused.read_to_close(), "");
    }
    ASSERT_TRUE(wait_for_event(event::no_memory_for_session).has_value());
    auto next = module.connect();
    EXPECT_EQ(next->command("NOOP"), "250 Quillbox SMTP OK\r\n");
}

TEST(Listener, SessionThreadThatCannotStart) {
    ReceptionFixture module;
    auto first = module.connect();
    {
        os::FaultScope no_thread(os::Op::BeginThread, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        SmtpTestClient refused(module.port());
        EXPECT_EQ(refused.read_to_close(), "");
    }
    const auto event = wait_for_event(event::create_thread_failed);
    ASSERT_TRUE(event.has_value());
    ASSERT_FALSE(event->strings.empty());
    EXPECT_EQ(event->strings[0], "smtp_session");
    auto next = module.connect();
    EXPECT_EQ(next->command("NOOP"), "250 Quillbox SMTP OK\r\n");
}

TEST(Listener, StopTakesEffectAtTheNextConnection) {
    ReceptionFixture module;
    auto running = module.connect();
    SMTPRecvStop();
    // Running sessions go on.
    EXPECT_EQ(running->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    SmtpTestClient woke(module.port());
    EXPECT_EQ(woke.read_to_close(), "");  // closed without a greeting
    EXPECT_TRUE(port_closes(module.port()));
    EXPECT_EQ(running->command("QUIT"), closing);
}

TEST(Listener, SecondInitWhileListeningIsRefused) {
    ReceptionFixture module;
    auto client = module.connect();
    EXPECT_EQ(module.start(), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_ALREADY_INITIALIZED);
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    auto another = module.connect();
    EXPECT_EQ(another->command("NOOP"), "250 Quillbox SMTP OK\r\n");
}

TEST(Listener, InitAfterStopStartsNothingThatListens) {
    ReceptionFixture module;
    module.connect();
    SMTPRecvStop();
    EXPECT_EQ(module.start(), 1);
    SmtpTestClient woke(module.port());
    EXPECT_EQ(woke.read_to_close(), "");
    EXPECT_TRUE(port_closes(module.port()));
}

TEST(Listener, InitAgainOnceTheListenerHasEnded) {
    ReceptionFixture module({}, false);
    {
        os::FaultScope bind_fails(os::Op::bind, 1, os::WSAEACCES);
        ASSERT_EQ(module.start(), 1);
        ASSERT_TRUE(wait_for_event(event::bind_failed).has_value());
    }
    // The ended listener clears its mark; until then the call is refused.
    int result = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((result = module.start()) == 0 && std::chrono::steady_clock::now() < deadline) {
        EXPECT_EQ(os::GetLastError(), os::ERROR_ALREADY_INITIALIZED);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(result, 1);
    auto client = module.connect();
    EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
}

TEST(Listener, SessionEventsComeInPairsUnderTheMask) {
    ReceptionFixture module;
    SMTPSetLogging(QBSMTP_LOG_SESSIONS);
    {
        auto quitting = module.connect();
        EXPECT_EQ(quitting->command("QUIT"), closing);
    }
    {
        SmtpTestClient vanishing(module.port());
        vanishing.close();  // gone before the greeting
    }
    auto last = module.connect();
    EXPECT_EQ(transmit(*last, "x\r\n.\r\n"), "250 Mail accepted\r\n");
    EXPECT_EQ(last->command("QUIT"), closing);
    last->read_to_close();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (count_events(event::session_ended) < 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(count_events(event::session_started), 3u);
    EXPECT_EQ(count_events(event::session_ended), 3u);
    const auto mail = wait_for_event(event::mail_accepted);
    ASSERT_TRUE(mail.has_value());
    ASSERT_FALSE(mail->strings.empty());
    EXPECT_EQ(mail->strings[0].substr(mail->strings[0].size() - 4), ".tmp");
}

TEST(Listener, NoSessionEventsWithoutTheMask) {
    ReceptionFixture module;
    auto client = module.connect();
    EXPECT_EQ(transmit(*client, "x\r\n.\r\n"), "250 Mail accepted\r\n");
    EXPECT_EQ(client->command("QUIT"), closing);
    client->read_to_close();
    EXPECT_EQ(count_events(event::session_started), 0u);
    EXPECT_EQ(count_events(event::session_ended), 0u);
    EXPECT_EQ(count_events(event::mail_accepted), 0u);
}

TEST(Listener, SilentSessionEndsAfterTheTimeout) {
    ReceptionFixture module("\"SessionTimeout\"=dword:00000001");
    auto client = module.connect();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client->read_to_close(), closing);
    // Ended by the module, not by the client's own (much longer) time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - start,
              std::chrono::seconds(SmtpTestClient::read_timeout_seconds / 2));
}

TEST(Listener, PeerThatNeverReadsIsEndedByTheTimeout) {
    ReceptionFixture module("\"SessionTimeout\"=dword:00000001");
    auto client = module.connect();
    // Each HELP draws 976 bytes; unread, they fill the socket buffers until
    // the session's send blocks. Only the send time-out can end it then.
    std::string commands;
    for (int i = 0; i < 20000; ++i) commands += "HELP\r\n";
    client->send(commands);  // may fail once the session has gone
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (sessions_running.load() != 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(sessions_running.load(), 0);
}

TEST(Listener, ActivityKeepsASessionWithATimeout) {
    ReceptionFixture module("\"SessionTimeout\"=dword:00000001");
    auto client = module.connect();
    for (int i = 0; i < 3; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        EXPECT_EQ(client->command("NOOP"), "250 Quillbox SMTP OK\r\n");
    }
}

// The kernel's view of the listening socket's queue: ss gives it as the
// Send-Q of a socket in LISTEN. -1 when ss is not there or says nothing.
long listen_queue_of(std::uint16_t port) {
    const std::string command = "ss -Hltn 'sport = :" + std::to_string(port) + "' 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    char state[32] = {};
    long received = 0;
    long queue = -1;
    if (std::fscanf(pipe, "%31s %ld %ld", state, &received, &queue) != 3) queue = -1;
    ::pclose(pipe);
    return queue;
}

struct BacklogCase {
    const char* name;
    const char* settings;
    long queue;
};

void PrintTo(const BacklogCase& c, std::ostream* out) {
    *out << c.name;
}

class ListenQueue : public ::testing::TestWithParam<BacklogCase> {};

TEST_P(ListenQueue, FollowsTheSetting) {
    ReceptionFixture module(GetParam().settings);
    module.connect();  // listening by now
    const long queue = listen_queue_of(module.port());
    if (queue < 0) GTEST_SKIP() << "ss (iproute2) cannot show the listening socket here";
    EXPECT_EQ(queue, GetParam().queue);
}

INSTANTIATE_TEST_SUITE_P(
    Settings, ListenQueue,
    ::testing::Values(BacklogCase{"absent", "", 5},
                      BacklogCase{"zero", "\"ListenBacklog\"=dword:00000000", 5},
                      BacklogCase{"raised", "\"ListenBacklog\"=dword:00000080", 128}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace qbsmtp::test
