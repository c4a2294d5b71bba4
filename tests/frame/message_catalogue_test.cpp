// message_catalogue_test.cpp: the shape of the catalogue data, which the
// event log and winsock_error_text rely on.

#include "frame/message_catalogue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

namespace qbsmtp {
namespace {

TEST(MessageCatalogue, EventTexts) {
    ASSERT_EQ(event_text_count, 47u);
    int by_severity[4] = {};
    for (std::size_t i = 0; i < event_text_count; ++i) {
        const std::uint32_t id = event_texts[i].id;
        const std::string text = event_texts[i].text;
        SCOPED_TRACE(text);
        if (i > 0) {
            EXPECT_LT(event_texts[i - 1].id, id);  // ascending, no repeats
        }
        EXPECT_EQ(id & 0x3FFF0000u, 0u);  // only severity and number
        ++by_severity[id >> 30];
        ASSERT_GE(text.size(), 2u);
        EXPECT_EQ(text.substr(text.size() - 2), "\r\n");
        EXPECT_EQ(text.find("%4"), std::string::npos);
    }
    EXPECT_EQ(by_severity[1], 10);
    EXPECT_EQ(by_severity[2], 4);
    EXPECT_EQ(by_severity[3], 33);
}

TEST(MessageCatalogue, WinsockTable) {
    ASSERT_EQ(winsock_string_count, 44u);
    ASSERT_EQ(winsock_code_count, 43u);
    std::map<std::uint32_t, std::string> strings;
    for (std::size_t i = 0; i < winsock_string_count; ++i) {
        EXPECT_TRUE(strings.emplace(winsock_strings[i].number, winsock_strings[i].text).second);
    }
    EXPECT_EQ(strings.at(1), "errore winsock: ");
    for (std::size_t i = 0; i < winsock_code_count; ++i) {
        const WinsockCodeString& row = winsock_code_table[i];
        SCOPED_TRACE(row.code);
        if (i > 0) {
            EXPECT_LT(winsock_code_table[i - 1].code, row.code);
        }
        // Numbers follow the code up to 10093; the later codes have their own.
        if (row.code <= 10093) {
            EXPECT_EQ(row.string_number, row.code - 10000);
        }
        ASSERT_EQ(strings.count(row.string_number), 1u);
        EXPECT_LE(strings.at(row.string_number).size(), 64u);
    }
    EXPECT_EQ(strings.at(60), "connessione scaduta ");
}

}  // namespace
}  // namespace qbsmtp
