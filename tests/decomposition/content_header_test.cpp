// Tests of parse_content_header: the code tables, the parameters, what a
// part inherits, and that every field is consumed up to the next line.
#include "decomposition/content_header.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "byte_stream.h"

namespace qbsmtp {
namespace {

using testing::ByteStream;
using testing::visible;

// What a ContentInfo should hold after a field.
struct Expected {
    std::int32_t type;
    std::int32_t subtype;
    std::int32_t encoding;
    std::string boundary;
    std::string type_name;
    std::string subtype_name;
    std::string name;
};

Expected view(const ContentInfo& info) {
    return {info.type,      info.subtype,      info.encoding, info.boundary,
            info.type_name, info.subtype_name, info.name};
}

void expect_info(const ContentInfo& info, const Expected& e) {
    EXPECT_EQ(info.type, e.type);
    EXPECT_EQ(info.subtype, e.subtype);
    EXPECT_EQ(info.encoding, e.encoding);
    EXPECT_EQ(std::string(info.boundary), e.boundary);
    EXPECT_EQ(std::string(info.type_name), e.type_name);
    EXPECT_EQ(std::string(info.subtype_name), e.subtype_name);
    EXPECT_EQ(std::string(info.name), e.name);
}

// A parent as load_part would hand it to a part.
ContentInfo parent_info() {
    ContentInfo info;
    info.type = type_multipart;
    info.subtype = QBSMTP_SUBTYPE_MIXED;
    info.encoding = encoding_base64;
    std::strcpy(info.boundary, "outer");
    std::strcpy(info.type_name, "MULTIPART");
    std::strcpy(info.subtype_name, "MIXED");
    std::strcpy(info.name, "parent.pdf");
    return info;
}

struct Case {
    const char* field;
    std::string value;  // the stream from the value's first byte on
    bool from_parent;   // start from parent_info() instead of the defaults
    Expected expected;
};

void run(const std::vector<Case>& cases) {
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.field) + ": " + visible(c.value));
        // Every field is followed by another, which must stay untouched.
        ByteStream bytes(c.value + "\r\nNext: field");
        ContentInfo info = c.from_parent ? parent_info() : ContentInfo{};
        EXPECT_EQ(parse_content_header(bytes.context(), info, c.field), 1);
        expect_info(info, c.expected);
        EXPECT_EQ(bytes.rest(), "Next: field");
    }
}

constexpr std::int32_t other = QBSMTP_SUBTYPE_OTHER;

TEST(ContentHeader, TransferEncodings) {
    const char* cte = "CONTENT-TRANSFER-ENCODING";
    const std::vector<Case> cases = {
        {cte, "7bit", false, {0, other, encoding_7bit, "", "", "", ""}},
        {cte, "Quoted-Printable", false, {0, other, encoding_quoted_printable, "", "", "", ""}},
        {cte, "BASE64", false, {0, other, encoding_base64, "", "", "", ""}},
        {cte, "8bit", false, {0, other, encoding_8bit, "", "", "", ""}},
        {cte, "binary", false, {0, other, encoding_binary, "", "", "", ""}},
        {cte, "x-uuencode", false, {0, other, encoding_uuencode, "", "", "", ""}},
        {cte, "uuencode", false, {0, other, encoding_uuencode, "", "", "", ""}},
        {cte, "x-gzip", false, {0, other, encoding_unknown, "", "", "", ""}},
        {cte, "base64x", false, {0, other, encoding_unknown, "", "", "", ""}},
        // The rest of the field is passed over.
        {cte, "base64 (comment)\r\n\tmore", false, {0, other, encoding_base64, "", "", "", ""}},
        // A quoted value or a delimiter keeps what was there.
        {cte, "\"base64\"", true, view(parent_info())},
        {cte, "=base64", true, view(parent_info())},
    };
    run(cases);
}

TEST(ContentHeader, ContentTypes) {
    const char* ct = "CONTENT-TYPE";
    const std::string long_boundary(80, 'b');
    const std::string long_name(300, 'n');
    const std::vector<Case> cases = {
        {ct, "text/plain", false, {type_text, QBSMTP_SUBTYPE_PLAIN, 4, "", "TEXT", "PLAIN", ""}},
        {ct,
         "Multipart/Mixed; Boundary=\"a b\"",
         false,
         {type_multipart, QBSMTP_SUBTYPE_MIXED, 4, "a b", "MULTIPART", "MIXED", ""}},
        {ct,
         "application/x-thing; name=report.pdf",
         false,
         {type_application, other, 4, "", "APPLICATION", "X-THING", "report.pdf"}},
        {ct,
         "message/rfc822",
         false,
         {type_message, QBSMTP_SUBTYPE_RFC822, 4, "", "MESSAGE", "RFC822", ""}},
        {ct, "image/tiff", false, {type_image, QBSMTP_SUBTYPE_TIFF, 4, "", "IMAGE", "TIFF", ""}},
        {ct, "audio/basic", false, {type_audio, QBSMTP_SUBTYPE_BASIC, 4, "", "AUDIO", "BASIC", ""}},
        {ct, "video/mpeg", false, {type_video, QBSMTP_SUBTYPE_MPEG, 4, "", "VIDEO", "MPEG", ""}},
        // One subtype list for all types.
        {ct, "text/tiff", false, {type_text, QBSMTP_SUBTYPE_TIFF, 4, "", "TEXT", "TIFF", ""}},
        {ct,
         "multipart/alternative;\r\n boundary=\"=_x\"",
         false,
         {type_multipart, QBSMTP_SUBTYPE_ALTERNATIVE, 4, "=_x", "MULTIPART", "ALTERNATIVE", ""}},
        // An unknown type reads neither subtype nor parameters.
        {ct, "foo/bar; boundary=x", false, {type_unknown, other, 4, "", "FOO", "", ""}},
        {ct, "foo/bar; boundary=x", true,
         [] {
             Expected e = view(parent_info());
             e.type = type_unknown;
             e.type_name = "FOO";
             return e;
         }()},
        // Names cut to 19 bytes; the lookup used the whole token.
        {ct,
         "textxxxxxxxxxxxxxxxxxxxx/octet-streamyyyyyyyyyy",
         false,
         {type_unknown, other, 4, "", "TEXTXXXXXXXXXXXXXXX", "", ""}},
        {ct,
         "image/octet-streamyyyyyyyyyy",
         false,
         {type_image, other, 4, "", "IMAGE", "OCTET-STREAMYYYYYYY", ""}},
        // An unquoted value stops at the first delimiter, and the field ends.
        {ct,
         "multipart/mixed; boundary=----=_Part; name=x",
         false,
         {type_multipart, QBSMTP_SUBTYPE_MIXED, 4, "----", "MULTIPART", "MIXED", ""}},
        {ct,
         "multipart/mixed; boundary=" + long_boundary,
         false,
         {type_multipart, QBSMTP_SUBTYPE_MIXED, 4, long_boundary.substr(0, 70), "MULTIPART",
          "MIXED", ""}},
        {ct,
         "application/pdf; name=\"" + long_name + "\"",
         false,
         {type_application, other, 4, "", "APPLICATION", "PDF", long_name.substr(0, 259)}},
        {ct, "text", false, {type_text, other, 4, "", "TEXT", "", ""}},
        {ct,
         "text/plain;\r\n\tname=\"a.txt\"",
         false,
         {type_text, 0, 4, "", "TEXT", "PLAIN", "a.txt"}},
        {ct, "text/plain; name", false, {type_text, 0, 4, "", "TEXT", "PLAIN", ""}},
        {ct, "text/plain; name=", false, {type_text, 0, 4, "", "TEXT", "PLAIN", ""}},
        // A later parameter of the same kind wins.
        {ct,
         "text/plain; name=a; name=\"b c\"",
         false,
         {type_text, 0, 4, "", "TEXT", "PLAIN", "b c"}},
        // A parameter other than name and boundary ends the scan.
        {ct,
         "text/plain; charset=us-ascii; name=a.txt",
         false,
         {type_text, 0, 4, "", "TEXT", "PLAIN", ""}},
        {ct,
         "text/plain; name=a.txt; charset=us-ascii",
         false,
         {type_text, 0, 4, "", "TEXT", "PLAIN", "a.txt"}},
        {ct, "text/plain; name x", false, {type_text, 0, 4, "", "TEXT", "PLAIN", ""}},
        // A name without '=' is passed, and the next parameter still read.
        {ct,
         "multipart/mixed; name x; boundary=y",
         false,
         {type_multipart, 3, 4, "y", "MULTIPART", "MIXED", ""}},
        {ct, "text/plain; name=;x", true,
         [] {
             Expected e = view(parent_info());
             e.type = type_text;
             e.subtype = 0;
             e.type_name = "TEXT";
             e.subtype_name = "PLAIN";
             e.name = "";  // the delimiter empties the value
             return e;
         }()},
        {ct, "image/gif; name=\"\"", true,
         [] {
             Expected e = view(parent_info());
             e.type = type_image;
             e.subtype = QBSMTP_SUBTYPE_GIF;
             e.type_name = "IMAGE";
             e.subtype_name = "GIF";
             e.name = "";
             return e;
         }()},
        {ct, "text/plain; name=\"cut\r\n\toff\"", true,
         [] {
             Expected e = view(parent_info());
             e.type = type_text;
             e.subtype = 0;
             e.type_name = "TEXT";
             e.subtype_name = "PLAIN";
             e.name = "";
             return e;
         }()},
    };
    run(cases);
}

TEST(ContentHeader, APartInheritsWhatItsFieldDoesNotSet) {
    const char* ct = "CONTENT-TYPE";
    const std::vector<Case> cases = {
        // Nothing but a subtype changes: the rest is the parent's.
        {ct, "text/html", true,
         [] {
             Expected e = view(parent_info());
             e.type = type_text;
             e.subtype = QBSMTP_SUBTYPE_HTML;
             e.type_name = "TEXT";
             e.subtype_name = "HTML";
             return e;
         }()},
        // A quoted type keeps the parent's type and still reads on.
        {ct, "\"text\"/html; boundary=in", true,
         [] {
             Expected e = view(parent_info());
             e.subtype = QBSMTP_SUBTYPE_HTML;
             e.subtype_name = "HTML";
             e.boundary = "in";
             return e;
         }()},
        // A type without subtype keeps the parent's subtype.
        {ct, "image", true,
         [] {
             Expected e = view(parent_info());
             e.type = type_image;
             e.type_name = "IMAGE";
             return e;
         }()},
        {ct, "image/\"gif\"", true,
         [] {
             Expected e = view(parent_info());
             e.type = type_image;
             e.type_name = "IMAGE";
             return e;
         }()},
        {"CONTENT-TRANSFER-ENCODING", "quoted-printable", true,
         [] {
             Expected e = view(parent_info());
             e.encoding = encoding_quoted_printable;
             return e;
         }()},
    };
    run(cases);
}

TEST(ContentHeader, OtherNamesReadNothing) {
    for (const char* name : {"CONTENT-DISPOSITION", "Content-Type", "CONTENT-TYPE ", "", "TO"}) {
        SCOPED_TRACE(name);
        ByteStream bytes("text/plain\r\nNext: field");
        ContentInfo info = parent_info();
        EXPECT_EQ(parse_content_header(bytes.context(), info, name), 0);
        expect_info(info, view(parent_info()));
        EXPECT_EQ(bytes.rest(), "text/plain\r\nNext: field");
    }
}

TEST(ContentHeader, AFieldCutByTheEndOfTheFile) {
    struct Case {
        std::string value;
        Expected expected;
    };
    const std::vector<Case> cases = {
        {"text/pla", {type_text, other, 4, "", "TEXT", "", ""}},
        {"text/plain; name=\"a.t", {type_text, 0, 4, "", "TEXT", "PLAIN", ""}},
        {"multipart/mixed; boundary=abc", {type_multipart, 3, 4, "", "MULTIPART", "MIXED", ""}},
        {"multipart/mixed; boundary=\"abc\"",
         {type_multipart, 3, 4, "abc", "MULTIPART", "MIXED", ""}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        ByteStream bytes(c.value);
        ContentInfo info;
        EXPECT_EQ(parse_content_header(bytes.context(), info, "CONTENT-TYPE"), 1);
        expect_info(info, c.expected);
        EXPECT_EQ(bytes.rest(), "");
    }
}

}  // namespace
}  // namespace qbsmtp
