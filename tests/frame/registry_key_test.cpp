// registry_key_test.cpp: opening, reading and writing keys, and the
// failures that leave a key unusable.

#include "frame/registry_key.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "frame_fixture.h"

namespace qbsmtp {
namespace {

using os::Op;
using test::events_with_id;
using test::ReportingFrame;

// Writes a value below HKEY_LOCAL_MACHINE through the platform directly.
void put_value(const char* key_name, const char* name, os::DWORD type, const void* data,
               os::DWORD size) {
    os::HKEY key = nullptr;
    ASSERT_EQ(os::RegCreateKeyExA(os::HKEY_LOCAL_MACHINE, key_name, 0, nullptr, 0,
                                  os::KEY_ALL_ACCESS, nullptr, &key, nullptr),
              0);
    ASSERT_EQ(os::RegSetValueExA(key, name, 0, type, static_cast<const os::BYTE*>(data), size), 0);
    os::RegCloseKey(key);
}

void put_string(const char* key_name, const char* name, const std::string& text) {
    put_value(key_name, name, os::REG_SZ, text.c_str(), static_cast<os::DWORD>(text.size() + 1));
}

class Registry : public ReportingFrame {};

TEST(RegistryRoots, NamesOfThePredefinedKeys) {
    const std::pair<os::HKEY, const char*> cases[] = {
        {os::HKEY_CLASSES_ROOT, "HKEY_CLASSES_ROOT"},
        {os::HKEY_CURRENT_USER, "HKEY_CURRENT_USER"},
        {os::HKEY_LOCAL_MACHINE, "HKEY_LOCAL_MACHINE"},
        {os::HKEY_USERS, "HKEY_USERS"},
        {os::HKEY_PERFORMANCE_DATA, "HKEY_PERFORMANCE_DATA"},
        {os::HKEY_CURRENT_CONFIG, "HKEY_CURRENT_CONFIG"},
        {os::HKEY_DYN_DATA, "HKEY_DYN_DATA"},
        {nullptr, ""},
        {reinterpret_cast<os::HKEY>(std::uintptr_t{0x80000007}), ""},
    };
    for (const auto& [key, name] : cases) {
        EXPECT_STREQ(root_key_name(key), name);
        const RegistryKey registry_key(os::KEY_READ, key);
        EXPECT_STREQ(registry_key.key_path.c_str(), name);
        EXPECT_EQ(registry_key.handle, key);
    }
}

TEST_F(Registry, OpenSubkeyReadsOrCreates) {
    RegistryKey reader(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    EXPECT_EQ(reader.open_subkey("SOFTWARE\\Missing"), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(reader.handle, os::INVALID_HKEY);
    EXPECT_STREQ(reader.key_path.c_str(), "HKEY_LOCAL_MACHINE\\SOFTWARE\\Missing");

    // Any access but KEY_READ creates the key with its parents.
    RegistryKey writer(os::KEY_ALL_ACCESS, os::HKEY_LOCAL_MACHINE);
    EXPECT_EQ(writer.open_subkey("SOFTWARE\\Missing"), 1);
    EXPECT_EQ(os::GetLastError(), 0u);
    EXPECT_EQ(writer.open_subkey("Child"), 1);
    EXPECT_STREQ(writer.key_path.c_str(), "HKEY_LOCAL_MACHINE\\SOFTWARE\\Missing\\Child");

    RegistryKey again(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    EXPECT_EQ(again.open_subkey("SOFTWARE\\Missing\\Child"), 1);
    EXPECT_NE(again.handle, os::INVALID_HKEY);
    // Null: nothing happens at all.
    EXPECT_EQ(again.open_subkey(nullptr), 0);
    EXPECT_STREQ(again.key_path.c_str(), "HKEY_LOCAL_MACHINE\\SOFTWARE\\Missing\\Child");
}

TEST_F(Registry, BadKeyNames) {
    for (const char* name : {"SOFTWARE\\", ""}) {
        RegistryKey key(os::KEY_ALL_ACCESS, os::HKEY_LOCAL_MACHINE);
        os::fault_arm(Op::RegCreateKeyExA, 1, os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(key.open_subkey(name), 0) << name;
        EXPECT_EQ(os::GetLastError(), os::ERROR_BADKEY);
        EXPECT_EQ(key.handle, os::INVALID_HKEY);
        EXPECT_EQ(os::fault_calls(Op::RegCreateKeyExA), 0u);
        EXPECT_EQ(std::string(key.key_path.c_str()), std::string("HKEY_LOCAL_MACHINE\\") + name);
        // Everything below an invalid key fails.
        EXPECT_EQ(key.open_subkey("Below"), 0);
        os::fault_clear();
    }
}

TEST_F(Registry, GetStringWithinTheBuffer) {
    put_string("SOFTWARE\\T", "Name198", std::string(198, 'n'));
    put_string("SOFTWARE\\T", "Name199", std::string(199, 'n'));
    put_string("SOFTWARE\\T", "Empty", "");
    RegistryKey key(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(key.open_subkey("SOFTWARE\\T"), 1);

    char buffer[200];
    EXPECT_EQ(key.get_string("Name198", buffer, sizeof buffer), 1);
    EXPECT_EQ(std::string(buffer), std::string(198, 'n'));
    std::strcpy(buffer, "stale");
    EXPECT_EQ(key.get_string("Name199", buffer, sizeof buffer), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_MORE_DATA);
    EXPECT_STREQ(buffer, "");
    std::strcpy(buffer, "stale");
    EXPECT_EQ(key.get_string("Empty", buffer, sizeof buffer), 1);
    EXPECT_STREQ(buffer, "");
    std::strcpy(buffer, "stale");
    EXPECT_EQ(key.get_string("Missing", buffer, sizeof buffer), 0);
    EXPECT_EQ(os::GetLastError(), os::ERROR_FILE_NOT_FOUND);
    EXPECT_STREQ(buffer, "");
}

TEST_F(Registry, GetDwordReadsFourBytes) {
    const std::uint32_t four = 0x01020304;
    const std::uint64_t eight = 1;
    put_value("SOFTWARE\\T", "Four", os::REG_DWORD, &four, 4);
    put_value("SOFTWARE\\T", "Eight", os::REG_BINARY, &eight, 8);
    put_string("SOFTWARE\\T", "Text", "ab");  // type not examined: three bytes
    RegistryKey key(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(key.open_subkey("SOFTWARE\\T"), 1);

    std::uint32_t value = 7;
    EXPECT_EQ(key.get_dword("Four", &value), 1);
    EXPECT_EQ(value, four);
    value = 7;
    EXPECT_EQ(key.get_dword("Eight", &value), 0);
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(os::GetLastError(), os::ERROR_MORE_DATA);
    EXPECT_EQ(key.get_dword("Text", &value), 1);
    EXPECT_EQ(value, 0x6261u);
    value = 7;
    EXPECT_EQ(key.get_dword("Missing", &value), 0);
    EXPECT_EQ(value, 0u);
}

TEST_F(Registry, SetStringAndItsFailureReport) {
    RegistryKey key(os::KEY_ALL_ACCESS, os::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(key.open_subkey("SOFTWARE\\T"), 1);
    key.set_string("Written", "value");
    key.set_string("Null", nullptr);
    char buffer[32];
    EXPECT_EQ(key.get_string("Written", buffer, sizeof buffer), 1);
    EXPECT_STREQ(buffer, "value");
    EXPECT_EQ(key.get_string("Null", buffer, sizeof buffer), 1);
    EXPECT_STREQ(buffer, "");
    EXPECT_TRUE(events_with_id(event::debug_text).empty());

    {
        os::FaultScope fault(Op::RegSetValueExA, 1, os::ERROR_ACCESS_DENIED, true);
        key.set_string("Value", "x");
        key.set_string("", "x");
        RegistryKey unnamed(os::KEY_ALL_ACCESS, nullptr);
        unnamed.set_string("Value", "x");
    }
    const auto events = events_with_id(event::debug_text);
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].strings.at(0),
              "RegPutValue error 5 on key HKEY_LOCAL_MACHINE\\SOFTWARE\\T\\Value");
    EXPECT_EQ(events[1].strings.at(0),
              "RegPutValue error 5 on key HKEY_LOCAL_MACHINE\\SOFTWARE\\T\\nul");
    EXPECT_EQ(events[2].strings.at(0), "RegPutValue error 5 on key nul\\Value");
}

TEST_F(Registry, ReopenForWrite) {
    put_string("SOFTWARE\\T", "Old", "1");
    RegistryKey key(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(key.open_subkey("SOFTWARE\\T"), 1);
    EXPECT_EQ(key.reopen_for_write(), 1);
    EXPECT_EQ(key.access, os::KEY_ALL_ACCESS);
    key.set_string("New", "2");
    EXPECT_TRUE(events_with_id(event::debug_text).empty());

    RegistryKey missing(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(missing.open_subkey("SOFTWARE\\Nothing"), 0);
    EXPECT_EQ(missing.reopen_for_write(), 0);
    EXPECT_EQ(missing.handle, os::INVALID_HKEY);
    EXPECT_EQ(missing.access, os::KEY_READ);
}

TEST_F(Registry, OpenChildWalksTheSubkeys) {
    put_string("SOFTWARE\\Types\\text", "v", "1");
    put_string("SOFTWARE\\Types\\image", "v", "2");
    RegistryKey parent(os::KEY_READ, os::HKEY_LOCAL_MACHINE);
    ASSERT_EQ(parent.open_subkey("SOFTWARE\\Types"), 1);

    std::vector<std::string> names;
    char name[64];
    for (std::uint32_t index = 0;; ++index) {
        std::unique_ptr<RegistryKey> child(parent.open_child(index, name, sizeof name));
        if (!child) {
            EXPECT_EQ(os::GetLastError(), os::ERROR_NO_MORE_ITEMS);
            break;
        }
        names.emplace_back(name);
        EXPECT_EQ(std::string(child->key_path.c_str()),
                  std::string("HKEY_LOCAL_MACHINE\\SOFTWARE\\Types\\") + name);
        EXPECT_EQ(child->access, os::KEY_READ);
        EXPECT_EQ(child->base_key, os::HKEY_LOCAL_MACHINE);
        char value[8];
        EXPECT_EQ(child->get_string("v", value, sizeof value), 1);
        ASSERT_LT(index, 5u);
    }
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"image", "text"}));
    // The parent is still usable.
    EXPECT_NE(parent.handle, os::INVALID_HKEY);
    std::unique_ptr<RegistryKey> first(parent.open_child(0, name, sizeof name));
    EXPECT_NE(first, nullptr);
}

}  // namespace
}  // namespace qbsmtp
