// text_ops_test.cpp: bounded string helpers, message texts, Winsock error
// texts and the debug log.

#include "frame/text_ops.h"

#include <cstring>
#include <string>

#include "frame_fixture.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {
namespace {

using os::Op;
using test::events_with_id;
using test::ReportingFrame;

const std::string prefix_text = "errore winsock: ";

TEST(BoundedText, AppendLimited) {
    struct Case {
        const char* held;
        const char* text;
        std::size_t size;
        const char* result;
    };
    const Case cases[] = {
        {"abc", "def", 10, "abcdef"}, {"abc", "def", 7, "abcdef"},  // exactly fits with its NUL
        {"abc", "def", 6, "abcde"},   {"abc", "def", 4, "abc"},  // held text already fills the room
        {"abc", "def", 3, "abc"},  // held text as long as size: untouched
        {"abc", nullptr, 10, "abc"},  {"", "def", 1, ""},          {"", "", 5, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.held) + "+" + (c.text ? c.text : "null"));
        char buffer[16] = {};
        std::strcpy(buffer, c.held);
        EXPECT_EQ(append_limited(buffer, c.text, c.size), buffer);
        EXPECT_STREQ(buffer, c.result);
    }
}

TEST(BoundedText, ComposeLimited) {
    char buffer[8];
    std::strcpy(buffer, "old");
    EXPECT_STREQ(compose_limited(buffer, nullptr, nullptr, sizeof buffer), "");
    EXPECT_STREQ(compose_limited(buffer, "key", "\\name", sizeof buffer), "key\\nam");
    EXPECT_STREQ(compose_limited(buffer, "longer than eight", "x", sizeof buffer), "longer ");
    EXPECT_STREQ(compose_limited(buffer, "a", nullptr, sizeof buffer), "a");
    os::SetLastError(os::ERROR_DISK_FULL);
    compose_limited(buffer, "a", "b", sizeof buffer);
    EXPECT_EQ(os::GetLastError(), os::ERROR_DISK_FULL);
}

TEST(BoundedText, FormatUnsigned) {
    char buffer[16];
    EXPECT_STREQ(format_unsigned(buffer, 0), "0");
    EXPECT_STREQ(format_unsigned(buffer, 250), "250");
    EXPECT_STREQ(format_unsigned(buffer, 4294967295u), "4294967295");
}

class MessageTexts : public ReportingFrame {};

TEST_F(MessageTexts, ModuleStringsAndTheirFallback) {
    CountedString text("previous");
    os::SetLastError(os::ERROR_FILE_EXISTS);
    load_message(text, 0x20000001);
    EXPECT_STREQ(text.c_str(), "errore winsock: ");
    EXPECT_EQ(text.length, 16);
    load_message(text, 0x20000000 | 60);
    EXPECT_STREQ(text.c_str(), "connessione scaduta ");
    // No such string: the whole id in hexadecimal.
    load_message(text, 0x20000999);
    EXPECT_STREQ(text.c_str(), "Error 20000999");
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_EXISTS);
}

TEST_F(MessageTexts, SystemTextsAndTheirFallback) {
    CountedString text;
    load_message(text, os::ERROR_FILE_NOT_FOUND);
    EXPECT_GT(text.length, 0);
    EXPECT_NE(std::string(text.c_str()).rfind("Error ", 0), 0u) << text.c_str();
    {
        os::FaultScope fault(Op::FormatMessageA, 1, os::ERROR_NOT_ENOUGH_MEMORY);
        os::SetLastError(7);
        load_message(text, 0xC0DE);
        EXPECT_STREQ(text.c_str(), "Error 0000C0DE");
        EXPECT_EQ(os::GetLastError(), 7u);
    }
}

TEST_F(MessageTexts, WinsockCodesOfTheTable) {
    const std::pair<int, const char*> cases[] = {
        {10004, "chiamata a funzione interrotta"},
        {10060, "connessione scaduta "},         // its blank belongs to it
        {10101, "chiusura soft in esecuzione"},  // string 94, not 101
        {11001, "host non trovato"},             // string 111
        {11004, "nome valido, nessun record di dati del tipo richiesto"},
        {10048, "indirizzo gi\xe0 in uso"},
    };
    for (const auto& [code, text] : cases) {
        os::WSASetLastError(code);
        char buffer[200];
        EXPECT_EQ(winsock_error_text(buffer, sizeof buffer), buffer);
        EXPECT_EQ(std::string(buffer), prefix_text + text) << code;
    }
    // Every pair of the table resolves to a string of the catalogue.
    for (std::size_t i = 0; i < winsock_code_count; ++i) {
        os::WSASetLastError(static_cast<int>(winsock_code_table[i].code));
        char buffer[200];
        winsock_error_text(buffer, sizeof buffer);
        EXPECT_EQ(std::string(buffer).find("Error "), std::string::npos) << buffer;
        EXPECT_GT(std::strlen(buffer), prefix_text.size());
    }
}

TEST_F(MessageTexts, WinsockCodesOutsideTheTable) {
    // 10059 lies between two codes of the table: the system's own text.
    char system_text[200] = {};
    char* block = nullptr;
    const os::DWORD length =
        os::FormatMessageA(os::FORMAT_MESSAGE_IGNORE_INSERTS | os::FORMAT_MESSAGE_ALLOCATE_BUFFER |
                               os::FORMAT_MESSAGE_FROM_SYSTEM,
                           nullptr, 10059, 0x400, reinterpret_cast<char*>(&block), 1, nullptr);
    if (length > 0) {
        std::strncpy(system_text, block, sizeof system_text - 1);
        os::LocalFree(block);
    } else {
        std::strcpy(system_text, "Error 0000274B");
    }
    char buffer[200];
    os::WSASetLastError(10059);
    EXPECT_EQ(std::string(winsock_error_text(buffer, sizeof buffer)),
              (prefix_text + system_text).substr(0, 199));

    // Unknown to the system as well: "Error" and eight hexadecimal digits.
    os::FaultScope fault(Op::FormatMessageA, 2, os::ERROR_INVALID_PARAMETER);
    os::WSASetLastError(0x1ABCD);
    EXPECT_EQ(std::string(winsock_error_text(buffer, sizeof buffer)),
              prefix_text + "Error 0001ABCD");
}

TEST_F(MessageTexts, WinsockTextStaysWithinSize) {
    const std::pair<std::size_t, const char*> cases[] = {
        {1, ""},
        {5, "erro"},
        {17, "errore winsock: "},
        {20, "errore winsock: con"},
    };
    for (const auto& [size, text] : cases) {
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        os::WSASetLastError(10060);
        winsock_error_text(buffer, size);
        EXPECT_STREQ(buffer, text);
        for (std::size_t i = size; i < sizeof buffer; ++i) EXPECT_EQ(buffer[i], '#');
    }
}

TEST_F(MessageTexts, DebugLogFollowsDebugLogAlone) {
    debug_log = 0;
    log_debug("not %s", "logged");
    EXPECT_TRUE(events_with_id(event::debug_text).empty());

    debug_log = 1;
    SMTPSetLogging(0);
    log_debug("QUIT %d", 221);
    const std::string long_text(2000, 'x');
    log_debug("%s", long_text.c_str());
    const auto events = events_with_id(event::debug_text);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].strings, std::vector<std::string>{"QUIT 221"});
    EXPECT_EQ(events[1].strings, std::vector<std::string>{long_text.substr(0, 511)});
    debug_log = 0;
}

TEST_F(MessageTexts, RegistryFailuresAreAlwaysLogged) {
    debug_log = 0;
    EXPECT_EQ(log_registry_failure("HKEY_LOCAL_MACHINE\\SOFTWARE\\X\\Value", 0x2a), 1);
    EXPECT_EQ(log_registry_failure(nullptr, 5), 1);
    const auto events = events_with_id(event::debug_text);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].strings,
              std::vector<std::string>{
                  "RegPutValue error 2a on key HKEY_LOCAL_MACHINE\\SOFTWARE\\X\\Value"});
    EXPECT_EQ(events[1].strings, std::vector<std::string>{"RegPutValue error 5 on key <>"});
}

}  // namespace
}  // namespace qbsmtp
