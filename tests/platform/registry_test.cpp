// The registry file: REGEDIT4 text read into the tree and written back, and
// registry.reg replaced atomically, or not at all, on every write.
#include <strings.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_posix_registry_tree.h"
#include "support/case_table.h"
#include "support/temp_prefix.h"

namespace qbsmtp::os {
namespace {

using posix::RegistryTree;
using posix::RegistryTreeNode;

RegistryTreeNode* find_key(RegistryTree& tree, const std::string& path) {
    std::size_t slash = path.find('\\');
    RegistryTreeNode* node = nullptr;
    for (std::size_t i = 0; i < posix::registry_root_count; ++i) {
        if (strcasecmp(path.substr(0, slash).c_str(), posix::registry_root_names[i]) == 0)
            node = &tree.roots[i];
    }
    while (node != nullptr && slash != std::string::npos) {
        const std::size_t start = slash + 1;
        slash = path.find('\\', start);
        node = node->find_child(
            path.substr(start, slash == std::string::npos ? slash : slash - start));
    }
    return node;
}

// What a row of regedit.txt finds in tree, in the form of the table.
std::string lookup(RegistryTree& tree, const test::Case& c) {
    RegistryTreeNode* key = find_key(tree, c[1]);
    if (c[3] == "key" || c[3] == "nokey") return key != nullptr ? "key" : "nokey";
    const posix::RegistryValue* value =
        key != nullptr ? key->find_value(c[2] == "@" ? "" : c[2]) : nullptr;
    if (value == nullptr) return "missing";
    const std::string bytes(value->data.begin(), value->data.end());
    if (c[3] == "sz" && value->type == REG_SZ && !bytes.empty() && bytes.back() == '\0')
        return "sz|" + bytes.substr(0, bytes.size() - 1);
    std::string hex;
    for (unsigned char b : bytes)
        hex += "0123456789abcdef"[b >> 4] + std::string(1, "0123456789abcdef"[b & 15]);
    return std::to_string(value->type) + "|" + hex;
}

std::string expected(const test::Case& c) {
    return c.fields.size() < 4 || c[3] == "missing" ? "missing"
           : c[3] == "key" || c[3] == "nokey"       ? c[3]
                                                    : c[3] + "|" + test::unescape(c.fields.at(4));
}

TEST(RegistryText, ValuesReadAndReadAgainAfterWritingBack) {
    for (const test::Case& c : test::read_cases("platform/regedit.txt", 3)) {
        RegistryTree tree;
        posix::parse_registry_text(test::data_file("platform/registry/" + c[0]), tree);
        EXPECT_EQ(lookup(tree, c), expected(c)) << c.where;
        const std::string written = posix::format_registry_text(tree);
        RegistryTree reread;
        posix::parse_registry_text(written, reread);
        EXPECT_EQ(lookup(reread, c), expected(c)) << c.where << " after writing back";
        EXPECT_EQ(posix::format_registry_text(reread), written) << c.where;
    }
}

std::string query(HKEY key, const char* name) {
    char buffer[64] = {};
    DWORD size = sizeof buffer - 1;
    const LONG result =
        RegQueryValueExA(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buffer), &size);
    return result == ERROR_SUCCESS ? buffer : "<error " + std::to_string(result) + ">";
}

TEST(RegistryFile, EachWriteReplacesTheFileWholeOrNotAtAll) {
    test::TempPrefix prefix;
    const std::string original = test::data_file("platform/registry/sample.reg");
    prefix.write("registry.reg", original);
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\KELTO\\Quillbox32\\SM", 0,
                            KEY_ALL_ACCESS, &key),
              ERROR_SUCCESS);
    const BYTE text[] = "other";
    // A directory where the new file is made blocks the write: the value,
    // in memory and on disk, stays as it was.
    ASSERT_EQ(::mkdir(prefix.file("registry.reg.tmp").c_str(), 0700), 0);
    EXPECT_NE(RegSetValueExA(key, "HostName", 0, REG_SZ, text, sizeof text), ERROR_SUCCESS);
    EXPECT_NE(RegSetValueExA(key, "Fresh", 0, REG_SZ, text, sizeof text), ERROR_SUCCESS);
    EXPECT_EQ(query(key, "HostName"), "mail.example.com");
    EXPECT_EQ(query(key, "Fresh"), "<error 2>");
    EXPECT_EQ(prefix.read("registry.reg"), original);

    ASSERT_EQ(::rmdir(prefix.file("registry.reg.tmp").c_str()), 0);
    ASSERT_EQ(RegSetValueExA(key, "Fresh", 0, REG_SZ, text, sizeof text), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    struct stat status;
    EXPECT_NE(::stat(prefix.file("registry.reg.tmp").c_str(), &status), 0);
    // The new file holds the new value and everything the old one held.
    RegistryTree written;
    posix::parse_registry_text(prefix.read("registry.reg"), written);
    test::Case fresh{
        "Fresh",
        {"", "HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM", "Fresh", "sz", "other"}};
    EXPECT_EQ(lookup(written, fresh), expected(fresh));
    for (const test::Case& c : test::read_cases("platform/regedit.txt", 3)) {
        if (c[0] == "sample.reg") {
            EXPECT_EQ(lookup(written, c), expected(c)) << c.where;
        }
    }
}

// Keys come by index in name order; a key made between two calls moves the
// later indexes, as a fresh walk would give them.
TEST(RegistryKeys, EnumerationByIndexFollowsAKeyMadeMeanwhile) {
    test::TempPrefix prefix;
    HKEY key = nullptr, made = nullptr;
    ASSERT_EQ(RegCreateKeyA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Walk", &key), ERROR_SUCCESS);
    for (const char* name : {"b", "d", "f"}) {
        ASSERT_EQ(RegCreateKeyA(key, name, &made), ERROR_SUCCESS);
        RegCloseKey(made);
    }
    auto at = [key](DWORD index) {
        char name[16];
        DWORD size = sizeof name;
        const LONG result =
            RegEnumKeyExA(key, index, name, &size, nullptr, nullptr, nullptr, nullptr);
        return result == ERROR_SUCCESS
                   ? std::string(name)
                   : std::string("<").append(std::to_string(result)).append(">");
    };
    EXPECT_EQ(at(0), "b");
    EXPECT_EQ(at(1), "d");
    ASSERT_EQ(RegCreateKeyA(key, "C", &made), ERROR_SUCCESS);
    RegCloseKey(made);
    EXPECT_EQ(at(2), "d");
    EXPECT_EQ(at(3), "f");
    EXPECT_EQ(at(1), "C");
    EXPECT_EQ(at(4), "<259>");  // ERROR_NO_MORE_ITEMS
    RegCloseKey(key);
}

}  // namespace
}  // namespace qbsmtp::os
