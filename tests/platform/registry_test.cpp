// The emulated registry: registry.reg read and written back, lookups that
// ignore case, enumeration order, Win32 results, and the MIME view.
#include <stdlib.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_registry_tree.h"
#include "support/temp_prefix.h"

namespace qbsmtp::os {
namespace {

const char* const sample_registry =
    "REGEDIT4\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM]\r\n"
    "\"HostName\"=\"mail.example.com\"\r\n"
    "\"DebugLog\"=dword:0000000a\r\n"
    "\"Quoted\"=\"a \\\"b\\\" c:\\\\dir\"\r\n"
    "\"Path\"=hex(2):43,3a,5c,00\r\n"
    "\"Blob\"=hex:01,02,\\\r\n"
    "  03\r\n"
    "@=\"default\"\r\n"
    "; a comment\r\n"
    "\"Broken\"=what\r\n"
    "\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\zeta]\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Alpha]\r\n"
    "[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\beta]\r\n";

class RegistryTest : public ::testing::Test {
  protected:
    test::TempPrefix prefix;
    std::vector<HKEY> opened;

    void SetUp() override {
        prefix.write("registry.reg", sample_registry);
        prefix.write("mime.types",
                     "# test types\n"
                     "application/pdf\t\t\t\tpdf\n"
                     "image/tiff tiff tif\n"
                     "text/plain txt text\n"
                     "text/plain asc\n"
                     "application/x-empty\n"
                     "image/jpeg jpeg jpg\n");
        setenv("QBSMTP_MIME_TYPES", prefix.file("mime.types").c_str(), 1);
    }
    void TearDown() override {
        for (HKEY key : opened) RegCloseKey(key);
    }

    HKEY open(HKEY base, const char* sub_key, REGSAM access = KEY_READ) {
        HKEY key = nullptr;
        LONG result = RegOpenKeyExA(base, sub_key, 0, access, &key);
        EXPECT_EQ(result, ERROR_SUCCESS) << sub_key;
        if (result == ERROR_SUCCESS) opened.push_back(key);
        return key;
    }

    std::string query_string(HKEY key, const char* name) {
        char buffer[300] = {};
        DWORD size = sizeof buffer - 1;
        DWORD type = 0;
        LONG result =
            RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size);
        return result == ERROR_SUCCESS ? std::string(buffer)
                                       : "<error " + std::to_string(result) + ">";
    }

    std::vector<std::string> subkeys(HKEY key) {
        std::vector<std::string> names;
        for (DWORD index = 0;; ++index) {
            char name[300];
            DWORD size = sizeof name;
            LONG result =
                RegEnumKeyExA(key, index, name, &size, nullptr, nullptr, nullptr, nullptr);
            if (result == ERROR_NO_MORE_ITEMS) break;
            EXPECT_EQ(result, ERROR_SUCCESS);
            if (result != ERROR_SUCCESS) break;
            names.emplace_back(name, size);
        }
        return names;
    }
};

TEST_F(RegistryTest, ReadsRegeditTextIgnoringCase) {
    HKEY key = open(HKEY_LOCAL_MACHINE, "software\\kelto\\QUILLBOX32\\sm");
    EXPECT_EQ(query_string(key, "hostname"), "mail.example.com");
    EXPECT_EQ(query_string(key, "Quoted"), "a \"b\" c:\\dir");
    EXPECT_EQ(query_string(key, ""), "default");
    EXPECT_EQ(query_string(key, nullptr), "default");
    EXPECT_EQ(query_string(key, "Broken"), "<error 2>");

    DWORD type = 0;
    BYTE data[16];
    DWORD size = sizeof data;
    ASSERT_EQ(RegQueryValueExA(key, "Path", nullptr, &type, data, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_EXPAND_SZ);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(data), size), std::string("C:\\\0", 4));
    size = sizeof data;
    ASSERT_EQ(RegQueryValueExA(key, "Blob", nullptr, &type, data, &size), ERROR_SUCCESS);
    EXPECT_EQ(type, REG_BINARY);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(data[2], 3);
}

TEST_F(RegistryTest, QuerySizesAndResultsAsWindowsGivesThem) {
    HKEY key = open(HKEY_LOCAL_MACHINE, "SOFTWARE\\KELTO\\Quillbox32\\SM");
    DWORD type = 0;
    DWORD size = 0;
    // Size only: the string's length with its NUL.
    ASSERT_EQ(RegQueryValueExA(key, "HostName", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_EQ(size, 17u);
    EXPECT_EQ(type, REG_SZ);
    char small[8];
    size = sizeof small;
    EXPECT_EQ(
        RegQueryValueExA(key, "HostName", nullptr, &type, reinterpret_cast<BYTE*>(small), &size),
        ERROR_MORE_DATA);
    EXPECT_EQ(size, 17u);
    // A DWORD fits 4 bytes; a longer value does not.
    DWORD number = 0;
    size = 4;
    ASSERT_EQ(
        RegQueryValueExA(key, "DebugLog", nullptr, &type, reinterpret_cast<BYTE*>(&number), &size),
        ERROR_SUCCESS);
    EXPECT_EQ(type, REG_DWORD);
    EXPECT_EQ(number, 10u);
    size = 4;
    EXPECT_EQ(RegQueryValueExA(key, "HostName", nullptr, nullptr, reinterpret_cast<BYTE*>(&number),
                               &size),
              ERROR_MORE_DATA);
    size = 4;
    EXPECT_EQ(
        RegQueryValueExA(key, "Missing", nullptr, nullptr, reinterpret_cast<BYTE*>(&number), &size),
        ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegQueryValueExA(key, "HostName", nullptr, nullptr, reinterpret_cast<BYTE*>(&number),
                               nullptr),
              ERROR_INVALID_PARAMETER);
}

TEST_F(RegistryTest, HandlesAreCheckedAndOpenedKeysMustExist) {
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Missing", 0, KEY_READ, &key),
              ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegOpenKeyExA(INVALID_HKEY, "SOFTWARE", 0, KEY_READ, &key), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegOpenKeyExA(nullptr, "SOFTWARE", 0, KEY_READ, &key), ERROR_INVALID_HANDLE);
    ASSERT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_READ, &key), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(key), ERROR_SUCCESS);
    EXPECT_EQ(RegCloseKey(key), ERROR_INVALID_HANDLE);
    DWORD size = 0;
    EXPECT_EQ(RegQueryValueExA(key, "x", nullptr, nullptr, nullptr, &size), ERROR_INVALID_HANDLE);
    char name[8];
    size = sizeof name;
    EXPECT_EQ(RegEnumKeyExA(key, 0, name, &size, nullptr, nullptr, nullptr, nullptr),
              ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegCloseKey(HKEY_LOCAL_MACHINE), ERROR_SUCCESS);
}

TEST_F(RegistryTest, EnumerationIsSortedIgnoringCaseAndEndsWithNoMoreItems) {
    HKEY key = open(HKEY_LOCAL_MACHINE, "SOFTWARE\\KELTO");
    EXPECT_EQ(subkeys(key), (std::vector<std::string>{"Alpha", "beta", "Quillbox32", "zeta"}));
    char name[5];
    DWORD size = sizeof name;  // "Quillbox32" does not fit
    EXPECT_EQ(RegEnumKeyExA(key, 2, name, &size, nullptr, nullptr, nullptr, nullptr),
              ERROR_MORE_DATA);
    size = sizeof name;
    EXPECT_EQ(RegEnumKeyExA(key, 4, name, &size, nullptr, nullptr, nullptr, nullptr),
              ERROR_NO_MORE_ITEMS);
}

TEST_F(RegistryTest, ReadOnlyHandleCannotWriteButASecondHandleCan) {
    HKEY key = open(HKEY_LOCAL_MACHINE, "SOFTWARE\\KELTO\\Quillbox32\\SM");
    const BYTE text[] = "host";
    EXPECT_EQ(RegSetValueExA(key, "ComputedHostName", 0, REG_SZ, text, sizeof text),
              ERROR_ACCESS_DENIED);
    HKEY writable = open(key, nullptr, KEY_ALL_ACCESS);
    ASSERT_EQ(RegSetValueExA(writable, "ComputedHostName", 0, REG_SZ, text, sizeof text),
              ERROR_SUCCESS);
    EXPECT_EQ(query_string(key, "computedhostname"), "host");
    HKEY created = nullptr;
    EXPECT_EQ(
        RegCreateKeyExA(key, "New", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &created, nullptr),
        ERROR_ACCESS_DENIED);
}

TEST_F(RegistryTest, CreatePersistsAtomicallyAndSurvivesARereading) {
    HKEY key = nullptr;
    DWORD disposition = 0;
    ASSERT_EQ(RegCreateKeyExA(HKEY_LOCAL_MACHINE,
                              "SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\QBSMTP",
                              0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, &disposition),
              ERROR_SUCCESS);
    opened.push_back(key);
    EXPECT_EQ(disposition, 1u);
    const char path[] = "/opt/qbsmtp/QBSMTP.so";
    ASSERT_EQ(RegSetValueExA(key, "EventMessageFile", 0, REG_EXPAND_SZ,
                             reinterpret_cast<const BYTE*>(path), sizeof path),
              ERROR_SUCCESS);
    DWORD seven = 7;
    ASSERT_EQ(
        RegSetValueExA(key, "TypesSupported", 0, REG_DWORD, reinterpret_cast<BYTE*>(&seven), 4),
        ERROR_SUCCESS);
    const BYTE raw[] = {'a', 0, 'b'};  // a string with a NUL inside stays exact
    ASSERT_EQ(RegSetValueExA(key, "Odd", 0, REG_SZ, raw, sizeof raw), ERROR_SUCCESS);
    HKEY again = nullptr;
    ASSERT_EQ(
        RegCreateKeyA(HKEY_LOCAL_MACHINE,
                      "system\\currentcontrolset\\services\\eventlog\\application\\qbsmtp", &again),
        ERROR_SUCCESS);
    opened.push_back(again);

    std::string text = prefix.read("registry.reg");
    EXPECT_NE(text.find("[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\"
                        "Application\\QBSMTP]\n\"EventMessageFile\"=hex(2):2f,6f,70,74"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\"TypesSupported\"=dword:00000007\n"), std::string::npos);
    EXPECT_NE(text.find("\"Quoted\"=\"a \\\"b\\\" c:\\\\dir\"\n"), std::string::npos);
    EXPECT_EQ(text.find("Broken"), std::string::npos);  // unreadable lines are not kept
    struct stat status;
    EXPECT_NE(::stat(prefix.file("registry.reg.tmp").c_str(), &status), 0);

    // Reading the text back gives the same text: nothing is lost.
    posix::RegistryTree reread;
    posix::parse_registry_text(text, reread);
    EXPECT_EQ(posix::format_registry_text(reread), text);
    // And the values, read back, are the ones written.
    posix::RegistryTreeNode* node = reread.roots[2].find_child("SYSTEM");
    for (const char* name : {"CurrentControlSet", "Services", "EventLog", "Application", "QBSMTP"})
        node = node != nullptr ? node->find_child(name) : nullptr;
    ASSERT_NE(node, nullptr);
    ASSERT_NE(node->find_value("Odd"), nullptr);
    EXPECT_EQ(node->find_value("Odd")->data, (std::vector<BYTE>{'a', 0, 'b'}));
    EXPECT_EQ(node->find_value("EventMessageFile")->data.size(), sizeof path);
}

TEST_F(RegistryTest, FailedWriteLeavesTheValueAsItWas) {
    HKEY key = open(HKEY_LOCAL_MACHINE, "SOFTWARE\\KELTO\\Quillbox32\\SM", KEY_ALL_ACCESS);
    ASSERT_EQ(::mkdir(prefix.file("registry.reg.tmp").c_str(), 0700), 0);  // blocks the write
    const BYTE text[] = "other";
    EXPECT_NE(RegSetValueExA(key, "HostName", 0, REG_SZ, text, sizeof text), ERROR_SUCCESS);
    EXPECT_NE(RegSetValueExA(key, "Fresh", 0, REG_SZ, text, sizeof text), ERROR_SUCCESS);
    EXPECT_EQ(query_string(key, "HostName"), "mail.example.com");
    EXPECT_EQ(query_string(key, "Fresh"), "<error 2>");
    EXPECT_EQ(prefix.read("registry.reg"), sample_registry);
}

TEST_F(RegistryTest, MimeViewFillsClassesRootAndRegistryFileWins) {
    prefix.write("registry.reg",
                 "REGEDIT4\n\n"
                 "[HKEY_CLASSES_ROOT\\MIME\\Database\\Content Type\\image/TIFF]\n"
                 "\"Extension\"=\".tiff-from-file\"\n\n"
                 "[HKEY_CLASSES_ROOT\\MIME\\Database\\Content Type\\model/x-own]\n"
                 "\"Extension\"=\".own\"\n");
    HKEY database = open(HKEY_CLASSES_ROOT, "MIME\\Database\\Content Type");
    EXPECT_EQ(subkeys(database),
              (std::vector<std::string>{"application/pdf", "application/x-empty", "image/jpeg",
                                        "image/TIFF", "model/x-own", "text/plain"}));
    EXPECT_EQ(query_string(open(database, "APPLICATION/PDF"), "Extension"), ".pdf");
    EXPECT_EQ(query_string(open(database, "image/tiff"), "Extension"), ".tiff-from-file");
    EXPECT_EQ(query_string(open(database, "text/plain"), "Extension"), ".txt");
    EXPECT_EQ(query_string(open(database, "application/x-empty"), "Extension"), "<error 2>");
    EXPECT_EQ(query_string(open(HKEY_CLASSES_ROOT, ".tif"), "Content Type"), "image/tiff");
    EXPECT_EQ(query_string(open(HKEY_CLASSES_ROOT, ".ASC"), "Content Type"), "text/plain");

    // A write under the root keeps the view out of registry.reg.
    HKEY jpeg = open(database, "image/jpeg", KEY_ALL_ACCESS);
    const BYTE text[] = "Joint";
    ASSERT_EQ(RegSetValueExA(jpeg, "Note", 0, REG_SZ, text, sizeof text), ERROR_SUCCESS);
    std::string file = prefix.read("registry.reg");
    EXPECT_NE(file.find("\"Note\"=\"Joint\""), std::string::npos);
    EXPECT_EQ(file.find(".jpeg"), std::string::npos);
    EXPECT_EQ(file.find("application/pdf"), std::string::npos);
}

TEST_F(RegistryTest, InjectedFaultsReturnTheArmedCode) {
    HKEY key = nullptr;
    {
        FaultScope scope(Op::RegOpenKeyExA, 1, ERROR_ACCESS_DENIED);
        EXPECT_EQ(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE", 0, KEY_READ, &key),
                  ERROR_ACCESS_DENIED);
    }
    key = open(HKEY_LOCAL_MACHINE, "SOFTWARE\\KELTO\\Quillbox32\\SM");
    {
        FaultScope scope(Op::RegQueryValueExA, 1, ERROR_MORE_DATA);
        EXPECT_EQ(query_string(key, "HostName"), "<error 234>");
        EXPECT_EQ(query_string(key, "HostName"), "mail.example.com");
    }
    {
        FaultScope scope(Op::RegCreateKeyExA, 1, ERROR_DISK_FULL);
        HKEY created = nullptr;
        EXPECT_EQ(RegCreateKeyA(HKEY_LOCAL_MACHINE, "SOFTWARE\\X", &created), ERROR_DISK_FULL);
    }
}

TEST_F(RegistryTest, ConcurrentWritersAllLand) {
    HKEY key = nullptr;
    ASSERT_EQ(RegCreateKeyA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Threads", &key), ERROR_SUCCESS);
    opened.push_back(key);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([key, t] {
            for (int i = 0; i < 10; ++i) {
                std::string name = "v" + std::to_string(t) + "_" + std::to_string(i);
                DWORD value = static_cast<DWORD>(t * 100 + i);
                RegSetValueExA(key, name.c_str(), 0, REG_DWORD, reinterpret_cast<BYTE*>(&value), 4);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    posix::RegistryTree reread;
    posix::parse_registry_text(prefix.read("registry.reg"), reread);
    posix::RegistryTreeNode* node = reread.roots[2].find_child("software");
    node = node != nullptr ? node->find_child("threads") : nullptr;
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->values.size(), 40u);
}

}  // namespace
}  // namespace qbsmtp::os
