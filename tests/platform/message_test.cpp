// Message texts: the system's texts, FormatMessageA's buffers and inserts,
// LoadStringA from the registered table, and the text conversions.
#include <cstdarg>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"

namespace qbsmtp::os {
namespace {

const MessageResource test_messages[] = {
    {0xC0004E95, "bind() fallito: %1\r\n"},
    {0xC0002738, "Errore in copia file %1 to %2: %3\r\n"},
};
const StringResource test_strings[] = {
    {1, "errore winsock: "},
    {61, "connessione rifiutata"},
};

void register_test_resources() {
    set_module_resources({test_messages, 2, test_strings, 2});
}

std::string system_text(DWORD code, DWORD* error = nullptr) {
    char* text = nullptr;
    SetLastError(0);
    DWORD length = FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM,
                                  nullptr, code, 0x400, reinterpret_cast<char*>(&text), 0, nullptr);
    if (error != nullptr) *error = GetLastError();
    if (length == 0) return "<none>";
    std::string result(text, length);
    EXPECT_EQ(std::strlen(text), length);
    LocalFree(text);
    return result;
}

TEST(FormatMessage, SystemTextsOfTheCodesTheLayerProduces) {
    struct Row {
        DWORD code;
        const char* text;
    };
    const Row rows[] = {
        {2, "The system cannot find the file specified.\r\n"},
        {3, "The system cannot find the path specified.\r\n"},
        {5, "Access is denied.\r\n"},
        {80, "The file exists.\r\n"},
        {112, "There is not enough space on the disk.\r\n"},
        {183, "Cannot create a file when that file already exists.\r\n"},
        {10061, "No connection could be made because the target machine actively refused it.\r\n"},
        {10054, "An existing connection was forcibly closed by the remote host.\r\n"},
        {11001, "No such host is known.\r\n"},
    };
    for (const Row& row : rows) EXPECT_EQ(system_text(row.code), row.text) << row.code;
}

TEST(FormatMessage, UnknownCodesFailSoCallersFallBack) {
    for (DWORD code : {10059u, 0xC0004E95u, 0x400051A3u, 99999u}) {
        DWORD error = 0;
        EXPECT_EQ(system_text(code, &error), "<none>") << code;
        EXPECT_EQ(error, 317u) << code;
    }
}

TEST(FormatMessage, FromStringCopiesWithIgnoreInserts) {
    char* text = nullptr;
    const char* source = "bind() fallito: %1\r\n";
    DWORD length = FormatMessageA(
        FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING,
        source, 0, 0, reinterpret_cast<char*>(&text), 1, nullptr);
    ASSERT_EQ(length, std::strlen(source));
    EXPECT_STREQ(text, source);
    EXPECT_EQ(LocalSize(text), length + 1);
    LocalFree(text);
    // The size is a minimum for the allocation.
    length = FormatMessageA(
        FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING,
        "", 0, 0, reinterpret_cast<char*>(&text), 64, nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(LocalSize(text), 64u);
    LocalFree(text);
}

TEST(FormatMessage, CallersBufferMustHoldTextAndNul) {
    char buffer[10];
    EXPECT_EQ(
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 5, 0, buffer, sizeof buffer, nullptr),
        0u);
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    char room[20];
    EXPECT_EQ(FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 5, 0, room, sizeof room, nullptr),
              19u);
    EXPECT_STREQ(room, "Access is denied.\r\n");
}

std::string format_with(const char* source, ...) {
    va_list arguments;
    va_start(arguments, source);
    char buffer[200];
    DWORD length =
        FormatMessageA(FORMAT_MESSAGE_FROM_STRING, source, 0, 0, buffer, sizeof buffer, &arguments);
    va_end(arguments);
    return length == 0 ? "<failed>" : std::string(buffer, length);
}

TEST(FormatMessage, InsertsAndEscapesWithoutIgnoreInserts) {
    EXPECT_EQ(format_with("%2 then %1%n", "one", "two"), "two then one\r\n");
    EXPECT_EQ(format_with("%1!u! items, 100%% done%0 and more", 42u), "42 items, 100% done");
    EXPECT_EQ(format_with("%1!q! bad format", 1), "<failed>");
}

TEST(FormatMessage, ModuleTextsWithFromHmodule) {
    register_test_resources();
    char buffer[64];
    EXPECT_EQ(FormatMessageA(0x800 | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, 0xC0004E95, 0, buffer,
                             sizeof buffer, nullptr),
              20u);
    EXPECT_STREQ(buffer, "bind() fallito: %1\r\n");
}

TEST(LoadString, CopiesWithinTheBufferAndFailsForUnknownNumbers) {
    register_test_resources();
    char buffer[500];
    EXPECT_EQ(LoadStringA(nullptr, 1, buffer, sizeof buffer), 16);
    EXPECT_STREQ(buffer, "errore winsock: ");
    char small[5];
    EXPECT_EQ(LoadStringA(nullptr, 61, small, sizeof small), 4);
    EXPECT_STREQ(small, "conn");
    SetLastError(0);
    EXPECT_EQ(LoadStringA(nullptr, 7, buffer, sizeof buffer), 0);
    EXPECT_EQ(GetLastError(), 1814u);
    FaultScope scope(Op::LoadStringA, 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(LoadStringA(nullptr, 1, buffer, sizeof buffer), 0);
}

TEST(EventText, CatalogueTextFilledOrStringsJoined) {
    register_test_resources();
    const char* one[] = {"Address already in use"};
    EXPECT_EQ(posix::expand_event_text(0xC0004E95, one, 1),
              "bind() fallito: Address already in use");
    const char* three[] = {"a", "b", "%1"};
    EXPECT_EQ(posix::expand_event_text(0xC0002738, three, 3), "Errore in copia file a to b: %1");
    const char* two[] = {"x", "y"};
    EXPECT_EQ(posix::expand_event_text(0xC0002738, two, 2), "Errore in copia file x to y: %3");
    EXPECT_EQ(posix::expand_event_text(14, two, 2), "x y");
    EXPECT_EQ(posix::expand_event_text(0, nullptr, 0), "");
}

TEST(TextConversion, Cp1252BecomesUtf8) {
    struct Row {
        std::string input;
        std::string utf8;
    };
    const Row rows[] = {
        {"plain", "plain"},
        {"gi\xe0 \xe8", "gi\xc3\xa0 \xc3\xa8"},
        {"\x80", "\xe2\x82\xac"},
        {"\x93quoted\x94", "\xe2\x80\x9cquoted\xe2\x80\x9d"},
        {"\x9f\x81", "\xc5\xb8\xc2\x81"},
        {"\xff", "\xc3\xbf"},
    };
    for (const Row& row : rows) {
        std::string out;
        posix::append_utf8_from_cp1252(out, row.input.data(), row.input.size());
        EXPECT_EQ(out, row.utf8) << row.input;
    }
}

TEST(TextConversion, JsonEscapes) {
    std::string out;
    posix::append_json_string(out, std::string("a\"b\\c\r\n\t\x01\x1f\x7f", 11));
    EXPECT_EQ(out, "\"a\\\"b\\\\c\\r\\n\\t\\u0001\\u001f\x7f\"");
}

}  // namespace
}  // namespace qbsmtp::os
