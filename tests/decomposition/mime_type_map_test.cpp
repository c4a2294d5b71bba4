// Tests of PtrList and of MimeTypeMap loaded from the registry's MIME
// database (here the emulated registry and a MIME types file of the test).
#include "decomposition/mime_type_map.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "decomposition/mime_type_map_load.h"
#include "support/temp_prefix.h"

namespace qbsmtp {
namespace {

using Entry = std::vector<std::string>;

Entry entry_of(const void* item) {
    Entry out;
    const char* e = static_cast<const MultiString*>(item)->text();
    for (; *e != '\0'; e = MultiString::next_entry(e)) out.emplace_back(e);
    return out;
}

std::vector<Entry> items_of(const MimeTypeMap& map) {
    std::vector<Entry> out;
    PtrList::Position position = nullptr;
    for (void* item = map.first(position); item != nullptr; item = map.next(position))
        out.push_back(entry_of(item));
    return out;
}

class MimeTypeMapTest : public ::testing::Test {
  protected:
    // The system's types file and registry.reg, both under the prefix.
    void install(const std::string& mime_types, const std::string& registry) {
        prefix_.write("mime.types", mime_types);
        ::setenv("QBSMTP_MIME_TYPES", prefix_.file("mime.types").c_str(), 1);
        if (!registry.empty()) prefix_.write("registry.reg", "REGEDIT4\n\n" + registry);
    }

    test::TempPrefix prefix_;
};

const char* const database = "[HKEY_CLASSES_ROOT\\MIME\\Database\\Content Type\\";

TEST_F(MimeTypeMapTest, LoadsEntriesInEnumerationOrder) {
    install(
        "# types of the test\n"
        "text/plain txt asc\n"
        "application/x-empty\n"
        "application/vnd/two two\n"
        "image/TIFF tif tiff\n",
        std::string(database) + "plainkey]\n\"Extension\"=\".pk\"\n\n" + database +
            "text/html]\n\"Extension\"=\".htm\"\n\"Other\"=\"x\"\n\n" + database +
            "text/none]\n\"Other\"=\".no\"\n");
    MimeTypeMap map;
    EXPECT_EQ(map.load(), 1);
    // The registry's own order (case folded); keys without "Extension"
    // add nothing and the keys behind them are still read.
    EXPECT_EQ(items_of(map), (std::vector<Entry>{
                                 {"application", "vnd/two", ".two"},
                                 {"image", "TIFF", ".tif"},
                                 {"plainkey", " ", ".pk"},
                                 {"text", "html", ".htm"},
                                 {"text", "plain", ".txt"},
                             }));

    struct Lookup {
        const char* type;
        const char* subtype;
        const char* extension;  // null: no match
    };
    const std::vector<Lookup> lookups = {
        {"IMAGE", "TIFF", ".tif"},
        {"image", "tiff", ".tif"},
        {"Text", "PLAIN", ".txt"},
        {"TEXT", "HTML", ".htm"},
        {"APPLICATION", "VND/TWO", ".two"},
        {"application", "vnd", nullptr},
        {"PLAINKEY", " ", ".pk"},
        {"plainkey", "", nullptr},
        {"application", "x-empty", nullptr},
        {"text", "none", nullptr},
        {"text", "plai", nullptr},
        {"tex", "plain", nullptr},
        {"", "", nullptr},
    };
    for (const Lookup& l : lookups) {
        SCOPED_TRACE(std::string(l.type) + "/" + l.subtype);
        const char* found = map.find_extension(l.type, l.subtype);
        if (l.extension == nullptr)
            EXPECT_EQ(found, nullptr);
        else
            EXPECT_STREQ(found, l.extension);
    }
}

TEST_F(MimeTypeMapTest, ASecondLoadAppendsAndTheFirstMatchWins) {
    install("image/gif gif\n", "");
    MimeTypeMap map;
    map.load();
    const char* first = map.find_extension("image", "gif");
    ASSERT_NE(first, nullptr);
    map.load();
    EXPECT_EQ(items_of(map).size(), 2u);
    EXPECT_EQ(map.find_extension("IMAGE", "GIF"), first);
    // The pointer lies in the first item's block.
    PtrList::Position position = nullptr;
    const auto* item = static_cast<const MultiString*>(map.first(position));
    EXPECT_EQ(first, item->text() + 10);  // "image\0gif\0.gif"
}

TEST_F(MimeTypeMapTest, ALongNameEndsTheLoadAndALongValueOnlyItsEntry) {
    // Names hold up to 299 characters: a longer one stops the enumeration,
    // an "Extension" longer than 299 drops only its own entry.
    const std::string long_name = "b/" + std::string(298, 'x');
    const std::string long_value(300, 'v');
    install("a/one one\nc/three three\n", std::string(database) + "a/long]\n\"Extension\"=\"" +
                                              long_value + "\"\n\n" + database + long_name +
                                              "]\n\"Extension\"=\".b\"\n");
    MimeTypeMap map;
    EXPECT_EQ(map.load(), 1);
    EXPECT_EQ(items_of(map), (std::vector<Entry>{{"a", "one", ".one"}}));
    EXPECT_EQ(map.find_extension("c", "three"), nullptr);
}

TEST_F(MimeTypeMapTest, NoDatabaseLeavesTheMapEmpty) {
    ::setenv("QBSMTP_MIME_TYPES", prefix_.file("missing").c_str(), 1);
    MimeTypeMap map;
    EXPECT_EQ(map.load(), 1);
    EXPECT_EQ(map.head, nullptr);
    EXPECT_EQ(map.find_extension("text", "plain"), nullptr);
    EXPECT_EQ(map.find_extension(nullptr, nullptr), nullptr);
}

TEST_F(MimeTypeMapTest, TheModuleMapIsFilledByItsLoader) {
    install("application/pdf pdf\n", "");
    EXPECT_EQ(mime_type_map.find_extension("APPLICATION", "PDF"), nullptr);
    load_mime_type_map();
    EXPECT_STREQ(mime_type_map.find_extension("APPLICATION", "PDF"), ".pdf");
}

TEST(PtrList, AddWalkAndRemove) {
    int values[4] = {0, 1, 2, 3};
    PtrList list;
    PtrList::Position position = nullptr;
    EXPECT_EQ(list.first(position), nullptr);
    EXPECT_EQ(position, nullptr);
    EXPECT_EQ(list.next(position), nullptr);
    for (int& v : values) ASSERT_TRUE(list.add_tail(&v));

    auto walk = [&list] {
        std::vector<int> seen;
        PtrList::Position p = nullptr;
        for (void* item = list.first(p); item != nullptr; item = list.next(p))
            seen.push_back(*static_cast<int*>(item));
        // Backwards through prev as well.
        std::vector<int> back;
        for (PtrList::Node* n = list.tail; n != nullptr; n = n->prev)
            back.insert(back.begin(), *static_cast<int*>(n->item));
        EXPECT_EQ(seen, back);
        return seen;
    };
    EXPECT_EQ(walk(), (std::vector<int>{0, 1, 2, 3}));

    // A middle node, then the head, then the tail.
    list.first(position);
    list.next(position);
    EXPECT_EQ(list.remove(position), &values[1]);
    EXPECT_EQ(position->item, &values[2]);
    EXPECT_EQ(walk(), (std::vector<int>{0, 2, 3}));
    list.first(position);
    EXPECT_EQ(list.remove(position), &values[0]);
    EXPECT_EQ(walk(), (std::vector<int>{2, 3}));
    PtrList::Position last = list.tail;
    EXPECT_EQ(list.remove(last), &values[3]);
    EXPECT_EQ(last, nullptr);
    EXPECT_EQ(walk(), (std::vector<int>{2}));
    EXPECT_EQ(list.head, list.tail);
    list.first(position);
    list.remove(position);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.tail, nullptr);
    EXPECT_EQ(list.remove(position), nullptr);
    ASSERT_TRUE(list.add_tail(&values[3]));
    EXPECT_EQ(walk(), (std::vector<int>{3}));
}

}  // namespace
}  // namespace qbsmtp
