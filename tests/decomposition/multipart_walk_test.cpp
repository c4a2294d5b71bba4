// multipart_walk_test.cpp: the boundary scan with its copy, the choice of
// a part file's extension, and the walk of multipart levels: alternatives,
// nesting, the depth limit and the failures of part files.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "decomposition/multipart_walk.h"
#include "spool_fixture.h"

namespace qbsmtp {
namespace {

using test::BodyContext;
using test::crlf;
using test::read_file;
using test::SpoolFixture;
using test::visible;

ContentInfo with_boundary(const char* boundary) {
    ContentInfo info;
    std::snprintf(info.boundary, sizeof info.boundary, "%s", boundary);
    return info;
}

struct ScanCase {
    const char* label;
    std::string input;
    std::string copied;
    int result;
    std::string rest;
};

class Walk : public SpoolFixture {};

// In copy mode the text reaches the file unchanged but for the CR LF in
// front of the boundary line; whatever a failed match took in is written.
TEST_F(Walk, Skip2boundaryCopiesAllButTheBoundaryLine) {
    const ScanCase cases[] = {
        {"boundary line", "text\r\n--bnd\r\nnext", "text", 1, "next"},
        {"closing delimiter", "text\r\n--bnd--\r\nepilogue", "text", 0, "epilogue"},
        {"part of the boundary", "a\r\n--bn\r\nb", "a\r\n--bn\r\nb", 0, ""},
        {"last character differs", "a\r\n--bne\r\nb", "a\r\n--bne\r\nb", 0, ""},
        {"other characters behind it", "a\r\n--bndX\r\nb", "a\r\n--bndX\r\nb", 0, ""},
        {"one dash behind it", "a\r\n--bnd-x", "a\r\n--bnd-x", 0, ""},
        {"two dashes behind it", "a\r\n--bnd--x", "a\r\n--bnd--x", 0, ""},
        {"CR without LF behind it", "a\r\n--bnd\rx", "a\r\n--bnd\rx", 0, ""},
        {"closing dashes, CR without LF", "a\r\n--bnd--\rx", "a\r\n--bnd--\rx", 0, ""},
        {"a blank behind it is no padding", "a\r\n--bnd \r\nb", "a\r\n--bnd \r\nb", 0, ""},
        {"case counts", "a\r\n--BND\r\nb", "a\r\n--BND\r\nb", 0, ""},
        {"three dashes", "a\r\n---bnd\r\nb", "a\r\n---bnd\r\nb", 0, ""},
        {"one dash line", "a\r\n-\r\n--bnd\r\nz", "a\r\n-", 1, "z"},
        {"CR CR LF", "a\r\r\n--bnd\r\nz", "a\r", 1, "z"},
        {"last CR lost at end of file", "abc\r", "abc", 0, ""},
        {"last CR LF lost at end of file", "abc\r\n", "abc", 0, ""},
        {"held-back match dropped at end of file", "abc\r\n--bn", "abc", 0, ""},
        {"closing delimiter without CR LF at end of file", "a\r\n--bnd--", "a", 0, ""},
        {"boundary first needs a CR before it", "--bnd\r\nx", "--bnd\r\nx", 0, ""},
    };
    for (const ScanCase& c : cases) {
        BodyContext body(mime, c.input);
        EXPECT_EQ(skip2boundary(body.context, with_boundary("bnd"), boundary_scan_in_text, true),
                  c.result)
            << c.label;
        EXPECT_EQ(visible(body.rest()), visible(c.rest)) << c.label;
        EXPECT_EQ(visible(body.output()), visible(c.copied)) << c.label;
    }
}

TEST_F(Walk, Skip2boundaryStartStatesAndEmptyBoundary) {
    struct StartCase {
        const char* label;
        const char* boundary;
        int start;
        std::string input;
        int result;
        std::string rest;
    };
    const StartCase cases[] = {
        {"line start: boundary at once", "bnd", boundary_scan_line_start, "--bnd\r\nz", 1, "z"},
        {"behind dashes", "bnd", boundary_scan_behind_dashes, "bnd--\r\nz", 0, "z"},
        {"behind dashes, not it", "bnd", boundary_scan_behind_dashes, "x\r\n--bnd\r\nz", 1, "z"},
        {"preamble passed", "bnd", boundary_scan_line_start, "pre\r\namble\r\n--bnd\r\nz", 1, "z"},
        {"empty boundary matches nothing", "", boundary_scan_line_start, "--\r\n--\r\n", 0, ""},
    };
    for (const StartCase& c : cases) {
        BodyContext body(mime, c.input);
        EXPECT_EQ(skip2boundary(body.context, with_boundary(c.boundary), c.start, false), c.result)
            << c.label;
        EXPECT_EQ(visible(body.rest()), visible(c.rest)) << c.label;
        EXPECT_EQ(body.output(), "") << c.label;
    }
}

TEST_F(Walk, ExtensionFromNameTypeMapOrDefault) {
    struct ExtensionCase {
        std::string name;
        const char* type_name;
        const char* subtype_name;
        const char* extension;
    };
    const ExtensionCase cases[] = {
        {"report.pdf", "APPLICATION", "X-THING", ".pdf"},
        {"report.doc final", "TEXT", "PLAIN", ".doc"},
        {"a.tab\there", "TEXT", "PLAIN", ".tab"},
        {"noext", "TEXT", "PLAIN", ".txt"},
        {"", "IMAGE", "GIF", ".gif"},
        {"", "text", "html", ".html"},
        {"", "APPLICATION", "X-THING", ".xxx"},
        {"trailing.", "TEXT", "PLAIN", "."},
        {"a. b", "TEXT", "PLAIN", "."},
        {"a.verylongextensionnamehere", "TEXT", "PLAIN", ".verylongextensionn"},
        {"dir.d/file", "IMAGE", "GIF", ".gif"},
        {"../../../etc/passwd", "APPLICATION", "X-THING", ".xxx"},
        {"a.b|c", "TEXT", "HTML", ".html"},
        {"a.x:y", "TEXT", "HTML", ".html"},
        {"a.\x01z", "TEXT", "HTML", ".html"},
        {"x.a\\..\\b", "APPLICATION", "PDF", ".pdf"},
        {"x.a*", "APPLICATION", "X-THING", ".xxx"},
    };
    for (const ExtensionCase& c : cases) {
        ContentInfo info;
        std::snprintf(info.name, sizeof info.name, "%s", c.name.c_str());
        std::snprintf(info.type_name, sizeof info.type_name, "%s", c.type_name);
        std::snprintf(info.subtype_name, sizeof info.subtype_name, "%s", c.subtype_name);
        char extension[20];
        std::fill(std::begin(extension), std::end(extension), '#');
        choose_extension(info, extension);
        EXPECT_STREQ(extension, c.extension) << visible(c.name);
    }
}

// A multipart/alternative message whose parts have the given subtypes.
std::string alternatives(const std::vector<std::string>& subtypes) {
    std::string message =
        "MIME-Version: 1.0\nContent-Type: multipart/alternative; boundary=alt\n\n";
    for (std::size_t i = 0; i < subtypes.size(); ++i) {
        message +=
            "--alt\nContent-Type: text/" + subtypes[i] + "\n\npart " + std::to_string(i) + "\n";
    }
    return crlf(message + "--alt--\n");
}

TEST_F(Walk, AlternativeKeepsTheStrictlyLowestRankFirstOnATie) {
    struct RankCase {
        const char* label;
        std::vector<std::string> subtypes;
        std::vector<std::pair<int, int>> ranks;  // subtype code, rank
        bool null_table;
        std::string survivor;
    };
    const RankCase cases[] = {
        {"ranks 2, 1, 3", {"plain", "html", "enriched"}, {{0, 2}, {2, 1}, {1, 3}}, false, "part 1"},
        {"equal ranks: the first", {"html", "plain"}, {{0, 5}, {2, 5}}, false, "part 0"},
        {"lower later wins",
         {"html", "enriched", "plain"},
         {{0, 1}, {1, 2}, {2, 3}},
         false,
         "part 2"},
        {"one part", {"html"}, {}, false, "part 0"},
        {"no table: the first", {"html", "plain"}, {{0, 1}, {2, 9}}, true, "part 0"},
    };
    for (const RankCase& c : cases) {
        for (auto& rank : ranks) rank = 10;
        for (auto [code, rank] : c.ranks) ranks[code] = static_cast<unsigned char>(rank);
        record.subtype_rank = c.null_table ? nullptr : ranks;
        const std::string spooled = spool_message(alternatives(c.subtypes));
        EXPECT_EQ(SMTPRecvNext(&record), 1) << c.label;
        EXPECT_EQ(attachment_contents(), std::vector<std::string>{c.survivor}) << c.label;
        // The losers' files are gone.
        EXPECT_EQ(mime_files(), attachments()) << c.label;
        std::filesystem::remove(spooled);
        for (const std::string& path : attachments()) std::filesystem::remove(path);
        free_record();
    }
}

// Parts without a Content-Type inherit multipart and nest one level each;
// past the deepest level a part is copied whole as one file.
TEST_F(Walk, NestingBeyondTheLimitIsCopiedAsParts) {
    const int parts = max_multipart_depth + 3;
    std::string message = "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n";
    for (int i = 0; i < parts; ++i) message += "--b\nX-Part: " + std::to_string(i) + "\n\nbody\n";
    spool_message(crlf(message + "--b--\n"));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    // The levels above the limit took the first parts' bodies as preamble;
    // each part at the limit is one file with the rest of its part.
    const auto contents = attachment_contents();
    ASSERT_EQ(contents.size(), static_cast<std::size_t>(parts - max_multipart_depth + 1));
    for (const std::string& content : contents) EXPECT_EQ(content, "body");
    for (const std::string& path : attachments())
        EXPECT_EQ(path_extension(path.c_str()), std::string(".xxx"));
}

TEST_F(Walk, DeeplyNestedMultipartsStayWithinTheLimit) {
    // 200 explicitly nested levels with a text at the bottom.
    const int depth = 200;
    std::string message = "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b0\n\n";
    for (int i = 1; i < depth; ++i) {
        message += "--b" + std::to_string(i - 1) + "\nContent-Type: multipart/mixed; boundary=b" +
                   std::to_string(i) + "\n\n";
    }
    message += "--b" + std::to_string(depth - 1) + "\nContent-Type: text/plain\n\ndeep\n";
    for (int i = depth - 1; i >= 0; --i) message += "--b" + std::to_string(i) + "--\n";
    spool_message(crlf(message));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    const auto contents = attachment_contents();
    ASSERT_EQ(contents.size(), 1u);
    // The level at the limit keeps its part whole, nested boundaries and all.
    EXPECT_NE(contents[0].find("deep"), std::string::npos);
    EXPECT_NE(contents[0].find("--b199--"), std::string::npos);
}

TEST_F(Walk, NestedLevelDirectlyFollowedByTheOuterBoundary) {
    spool_message(
        crlf("MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=outer\n\n"
             "--outer\nContent-Type: multipart/mixed; boundary=inner\n\n"
             "--inner\nContent-Type: text/plain\n\none\n--inner--\n"
             "--outer\nContent-Type: text/plain\n\ntwo\n--outer--\n"));
    EXPECT_EQ(SMTPRecvNext(&record), 1);
    EXPECT_EQ(attachment_contents(), (std::vector<std::string>{"one", "two"}));
}

TEST_F(Walk, LevelWithoutBoundaryOrWithEmptyBoundaryMakesNoFile) {
    const std::string messages[] = {
        "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"\"\n\n--\ntext\n--\n",
        "MIME-Version: 1.0\nContent-Type: multipart/related; boundary=x\n\nno boundary line\n",
    };
    for (const std::string& message : messages) {
        const std::string spooled = spool_message(crlf(message));
        EXPECT_EQ(SMTPRecvNext(&record), 1);
        EXPECT_EQ(record.attachments, nullptr);
        EXPECT_TRUE(mime_files().empty());
        EXPECT_TRUE(test::read_events().empty() ||
                    test::events_with_id(event::mime_type_unsupported).empty());
        std::filesystem::remove(spooled);
    }
}

TEST_F(Walk, PartFileThatCannotBeCreatedOrOpened) {
    const std::string message = crlf(
        "MIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=b\n\n"
        "--b\nContent-Type: text/plain\n\none\n"
        "--b\nContent-Type: text/plain\n\ntwo\n--b--\n");
    spool_message(message);
    {
        // The spool file's open is the first CreateFileA, the first part's
        // file the second; the second part's file cannot be created.
        os::FaultScope fault(os::Op::CreateFileA, 4, os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(SMTPRecvNext(&record), 0);
    }
    EXPECT_EQ(attachment_contents(), std::vector<std::string>{"one"});
    const auto created = only_event(event::create_file_failed);
    ASSERT_EQ(created.size(), 2u);
    EXPECT_EQ(created[0], mime + "/*.txt");
    free_record();
    for (const std::string& path : mime_files()) std::filesystem::remove(path);

    {
        // create_unique_file makes the file; reopening it for writing fails.
        os::FaultScope fault(os::Op::CreateFileA, 3, os::ERROR_ACCESS_DENIED);
        EXPECT_EQ(SMTPRecvNext(&record), 0);
    }
    EXPECT_EQ(record.attachments, nullptr);
    const auto opened = only_event(event::open_file_failed);
    ASSERT_EQ(opened.size(), 2u);
    ASSERT_EQ(mime_files().size(), 1u);
    EXPECT_EQ(opened[0], mime_files()[0]);
}

}  // namespace
}  // namespace qbsmtp
