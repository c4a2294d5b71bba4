// uuencoded_body_test.cpp: inline uuencoded blocks in plain bodies, from
// spool file to text and block files, and the split's pieces one by one.
//
// The blocks come from encoders nobody here wrote: sharutils' uuencode
// (count 0 as '`') and Python's binascii.b2a_uu without backticks (count 0
// as ' '), run at test time; decoded files must equal the originals.
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "decomposition/uuencoded_body.h"
#include "spool_fixture.h"

namespace qbsmtp {
namespace {

using test::binary_bytes;
using test::crlf;
using test::read_file;
using test::SpoolFixture;
using test::visible;
using test::write_file;
using Strings = std::vector<std::string>;

// What a command prints on its standard output.
std::string command_output(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        out.append(buffer, n);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return out;
}

std::string shell_quoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

class UuencodedBody : public SpoolFixture {
  protected:
    int inputs = 0;

    std::string scratch_file(const std::string& bytes) {
        const std::string path = prefix.file("plain" + std::to_string(++inputs) + ".bin");
        write_file(path, bytes);
        return path;
    }
    // The whole block as sharutils' uuencode writes it, LF line ends.
    std::string sharutils_block(const std::string& bytes, const std::string& name) {
        const std::string out = command_output("uuencode " + shell_quoted(scratch_file(bytes)) +
                                               " " + shell_quoted(name));
        EXPECT_EQ(out.rfind("begin ", 0), 0u) << "is sharutils installed?";
        return out;
    }
    // The data lines of Python's binascii.b2a_uu, backticks off, ending with
    // its line of count 0; LF line ends.
    std::string python_lines(const std::string& bytes) {
        const char* script =
            "import sys, binascii\n"
            "d = open(sys.argv[1], \"rb\").read()\n"
            "o = sys.stdout.buffer\n"
            "for i in range(0, len(d), 45): o.write(binascii.b2a_uu(d[i:i+45], backtick=False))\n"
            "o.write(binascii.b2a_uu(b\"\", backtick=False))\n";
        const std::string out = command_output("/usr/bin/python3 -c " + shell_quoted(script) + " " +
                                               shell_quoted(scratch_file(bytes)));
        EXPECT_FALSE(out.empty());
        return out;
    }

    // A plain message with this body (CR LF already in place) in the spool.
    std::string spool_body(const std::string& body, const std::string& name = "rx000001") {
        return spool_message(crlf("From: a@b.example\nSubject: files\n\n") + body, name);
    }
    // Takes the waiting message and removes the spool file, as a host does.
    int receive() {
        free_record();
        const int result = SMTPRecvNext(&record);
        if (record.file != nullptr) std::filesystem::remove(record.file);
        return result;
    }
    static std::string extension(const std::string& path) { return path_extension(path.c_str()); }
    // A generated name: digits, then the extension.
    static bool digits_then(const std::string& path, const std::string& ext) {
        const std::string name = path_file_name(path.c_str());
        if (name.size() <= ext.size() || name.compare(name.size() - ext.size(), ext.size(), ext))
            return false;
        for (std::size_t i = 0; i < name.size() - ext.size(); ++i)
            if (name[i] < '0' || name[i] > '9') return false;
        return true;
    }
};

TEST(IsBeginLine, Table) {
    struct Case {
        const char* line;  // as it stands in front of the LF
        int expected;
    };
    const Case cases[] = {
        {"begin 644 x.doc\r", 8},
        {"begin 644 x.doc", 8},
        {"begin 64\r", 8},
        {"begin 64", 0},
        {"begin 6443", 8},
        {"begin 12x", 8},
        {"begin\t644 a", 0},
        {"begin x44 a", 0},
        {"begin 6x4 a", 0},
        {"Begin 644 a", 0},
        {"begin  644 a", 0},
        {"", 0},
        {"begin", 0},
        {"egin 644 a", 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(is_begin_line(c.line, std::string(c.line).size()), c.expected) << c.line;
    }
}

TEST_F(UuencodedBody, DetectionLooksForABeginLineAndALaterEnd) {
    const std::string data = "M86)C9&5F9VAI:FML;6YO<'%R<W1U=G=X>7I!0D-$149'2$E*2TQ-3D]045)3\n";
    struct Case {
        const char* label;
        std::string body;
        int expected;
    };
    const Case cases[] = {
        {"block", "\r\nhi\r\nbegin 644 a.bin\r\n" + data + "`\r\nend\r\nbye", 1},
        {"LF line ends", "\nbegin 644 a\n" + data + "`\nend\n", 1},
        {"no end line", "\r\nbegin 644 a\r\n" + data + "`\r\n", 0},
        {"end only as the last line, without LF", "\r\nbegin 644 a\r\n" + data + "`\r\nend", 0},
        {"end right behind the begin line is not looked at", "\r\nbegin 644 a\r\nend\r\nx", 0},
        {"any later line starting end", "\r\nbegin 644 a\r\nx\r\nending\r\n", 1},
        {"end before the begin line", "\r\nend\r\nbegin 644 a\r\nx\r\ny", 0},
        {"capital Begin", "\r\nBegin 644 a\r\n" + data + "`\r\nend\r\n", 0},
        {"mode not digits", "\r\nbegin abc a\r\n" + data + "`\r\nend\r\n", 0},
        {"empty body", "", 0},
    };
    for (const Case& c : cases) {
        Stream* input = Stream::open(scratch_file("head" + c.body).c_str(), "rb");
        ASSERT_NE(input, nullptr);
        for (int i = 0; i < 4; ++i) input->getc();
        EXPECT_EQ(has_uuencoded_block(input), c.expected) << c.label;
        // The stream stands where it stood.
        std::string rest(c.body.size() + 1, '\0');
        rest.resize(input->read(rest.data(), rest.size()));
        EXPECT_EQ(rest, c.body) << c.label;
        input->close();
    }
    EXPECT_EQ(has_uuencoded_block(nullptr), 0);
}

TEST_F(UuencodedBody, DetectionAcrossWindowEdgesAndLongLines) {
    const std::string block = sharutils_block(binary_bytes(300), "a.bin");
    // The begin and end lines at every offset around the first window's
    // end, behind text lines and behind one line far longer than the window.
    for (std::size_t pad = 440; pad < 560; ++pad) {
        for (const std::string& lead :
             {std::string(pad, 'x') + "\n", std::string(pad * 7, 'y') + "\n",
              "short\n" + std::string(pad, 'z') + "\n"}) {
            const std::string body = "\n" + lead + block + "tail\n";
            Stream* input = Stream::open(scratch_file(body).c_str(), "rb");
            ASSERT_NE(input, nullptr);
            EXPECT_EQ(has_uuencoded_block(input), 1) << "pad " << pad << " lead " << lead.size();
            EXPECT_EQ(input->getc(), '\n');
            input->close();
        }
    }
}

TEST_F(UuencodedBody, OneBlockThroughPickup) {
    const std::string gif = binary_bytes(5000, 7);
    spool_body(crlf("Hello,\nthe picture:\n\n" + sharutils_block(gif, "photo.gif") + "\nbye"));
    ASSERT_EQ(receive(), 1);
    const Strings files = attachments();
    ASSERT_EQ(files.size(), 2u);
    // The text file begins with the blank line that ended the headers.
    EXPECT_EQ(read_file(files[0]), "\r\nHello,\r\nthe picture:\r\n\r\n\r\nbye");
    EXPECT_TRUE(digits_then(files[0], ".txt")) << files[0];
    EXPECT_EQ(read_file(files[1]), gif);
    EXPECT_TRUE(digits_then(files[1], ".gif")) << files[1];
    EXPECT_EQ(mime_files().size(), 2u);
    EXPECT_TRUE(test::read_events().empty());
}

TEST_F(UuencodedBody, TwoBlocksFromTwoEncodersWithTextBetween) {
    const std::string first = binary_bytes(45 * 40 + 7, 3);  // a last line of 7 bytes
    const std::string second = binary_bytes(45 * 12, 4);     // full lines only
    const std::string python_block = "begin 600 README\n" + python_lines(second) + "end\n";
    spool_body(crlf("intro\n" + sharutils_block(first, "my file.txt") + "between\n\n" +
                    python_block + "after"));
    ASSERT_EQ(receive(), 1);
    const Strings files = attachments();
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(read_file(files[0]), "\r\nintro\r\nbetween\r\n\r\nafter");
    EXPECT_EQ(read_file(files[1]), first);
    EXPECT_EQ(extension(files[1]), ".txt");
    EXPECT_EQ(read_file(files[2]), second);
    // No dot in the name: digits alone, not ".xxx".
    EXPECT_TRUE(digits_then(files[2], "")) << files[2];
}

TEST_F(UuencodedBody, NamesOfBlockFiles) {
    const std::string bytes = binary_bytes(100, 9);
    const std::string data = sharutils_block(bytes, "x").substr(sizeof "begin 644 x" - 1);
    struct Case {
        const char* begin_line;
        const char* extension;
    };
    const Case cases[] = {
        {"begin 644 my file.txt", ".txt"},
        {"begin 644 README", ""},
        {"begin 644", ".xxx"},
        {"begin 644 ", ".xxx"},
        {"begin 600 archive.tar.gz", ".gz"},
        {"begin 644    spaced out.pdf", ".pdf"},
        {"begin 0644 a.Doc", ".Doc"},
        {"begin 64", ".xxx"},
        {"begin 644 dir/sub.d/name", ""},
        {"begin 644 ends with dot.", "."},
    };
    for (const Case& c : cases) {
        spool_body(crlf(std::string("t\n") + c.begin_line + data + "z"));
        ASSERT_EQ(receive(), 1) << c.begin_line;
        const Strings files = attachments();
        ASSERT_EQ(files.size(), 2u) << c.begin_line;
        EXPECT_EQ(read_file(files[0]), "\r\nt\r\nz") << c.begin_line;
        EXPECT_EQ(read_file(files[1]), bytes) << c.begin_line;
        EXPECT_TRUE(digits_then(files[1], c.extension)) << c.begin_line << " gave " << files[1];
    }
}

TEST_F(UuencodedBody, DataLineEndingOnTheReadBufferEdge) {
    // The first read of the split takes 32,768 bytes from the blank line
    // on. Place the LF of the 300th data line (63 bytes with CR LF) on the
    // last byte of that read, and also one byte before and behind it.
    const std::string bytes = binary_bytes(45 * 400, 11);
    const std::string block = crlf(sharutils_block(bytes, "edge.bin"));
    const std::size_t begin_length = block.find('\n') + 1;
    for (int shift : {-2, -1, 0, 1, 2}) {
        const std::size_t lead = 32768 - 300 * 63 - 2 - begin_length + shift;
        const std::string text = std::string(lead - 2, 'p') + "\r\n";
        spool_body(text + block + "after");
        ASSERT_EQ(receive(), 1) << shift;
        const Strings files = attachments();
        ASSERT_EQ(files.size(), 2u) << shift;
        EXPECT_EQ(read_file(files[0]), "\r\n" + text + "after") << shift;
        EXPECT_EQ(read_file(files[1]), bytes) << shift;
    }
}

TEST_F(UuencodedBody, LargeBlockAcrossManyReads) {
    const std::string bytes = binary_bytes(300000, 5);
    spool_body(crlf("see attached\n" + sharutils_block(bytes, "big.bin") + "-- \nsig"));
    ASSERT_EQ(receive(), 1);
    const Strings files = attachments();
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(read_file(files[0]), "\r\nsee attached\r\n-- \r\nsig");
    EXPECT_TRUE(read_file(files[1]) == bytes);
}

TEST_F(UuencodedBody, VeryLongTextLinesReachTheTextFileWhole) {
    std::string long_line;
    for (int i = 0; long_line.size() < 40000; ++i) long_line += std::to_string(i) + ",";
    long_line.resize(40000);
    const std::string bytes = binary_bytes(1000, 2);
    spool_body(long_line + "\r\n" + crlf(sharutils_block(bytes, "a.bin")) + long_line + "x" +
               long_line);
    ASSERT_EQ(receive(), 1);
    const Strings files = attachments();
    ASSERT_EQ(files.size(), 2u);
    const std::string text = read_file(files[0]);
    EXPECT_TRUE(text == "\r\n" + long_line + "\r\n" + long_line + "x" + long_line)
        << "text of " << text.size() << " bytes";
    EXPECT_EQ(read_file(files[1]), bytes);
}

TEST_F(UuencodedBody, BlockRunningToTheEndOfTheMessage) {
    const std::string first = binary_bytes(500, 1);
    const std::string last = binary_bytes(45 * 20 + 10, 2);
    // The second block has neither its line of count 0 nor its end line;
    // its last data line ends with CR LF, and an unfinished line follows.
    std::string open_block = sharutils_block(last, "tail.dat");
    open_block.resize(open_block.rfind("`\nend\n"));
    spool_body(crlf("a\n" + sharutils_block(first, "one.dat") + "b\n" + open_block) + "M(((");
    ASSERT_EQ(receive(), 1);
    const Strings files = attachments();
    ASSERT_EQ(files.size(), 3u);
    EXPECT_EQ(read_file(files[0]), "\r\na\r\nb\r\n");
    EXPECT_EQ(read_file(files[1]), first);
    EXPECT_EQ(read_file(files[2]), last);
}

TEST_F(UuencodedBody, EndLineWithoutItsLineOfCountZero) {
    const std::string bytes = binary_bytes(200, 6);
    std::string block = sharutils_block(bytes, "a.bin");
    block.replace(block.rfind("`\nend\n"), 6, "end\n");
    spool_body(crlf("x\n" + block + "y"));
    ASSERT_EQ(receive(), 1);
    ASSERT_EQ(attachments().size(), 2u);
    EXPECT_EQ(read_file(attachments()[0]), "\r\nx\r\ny");
    EXPECT_EQ(read_file(attachments()[1]), bytes);
}

TEST_F(UuencodedBody, WithoutAnyEndLineTheBodyIsPlainText) {
    // Nothing behind the end line: the spool file's last line has no line
    // end, and a last line without LF is not looked at.
    std::string ends_on_end = crlf("x\n" + sharutils_block("abc", "a.bin"));
    ends_on_end.resize(ends_on_end.size() - 2);
    for (const std::string& body : {crlf("x\nbegin 644 a.bin\n#86)C\n`\n") + "z", ends_on_end}) {
        spool_body(body);
        ASSERT_EQ(receive(), 1);
        // As any plain body: its file starts behind the blank line.
        EXPECT_EQ(attachment_contents(), Strings{body}) << visible(body);
    }
}

TEST_F(UuencodedBody, FailingBlockFilesTheWholeBodyAsPlainText) {
    const std::string good = binary_bytes(700, 8);
    struct Case {
        const char* label;
        std::string tail;
    };
    const Case cases[] = {
        // Text that only looks like a block: "Dear" has count 36.
        {"a begin line in a letter",
         "begin 644 of the letter\nDear John,\nthanks.\nend of story\nregards"},
        {"text behind the line of count 0", "begin 644 a\n#86)C\n`\nnot the end\nend\nz"},
        {"empty line behind the line of count 0", "begin 644 a\n#86)C\n`\n\nend\nz"},
        {"too few groups", "begin 644 a\nM86)C\nend\nz"},
    };
    for (const Case& c : cases) {
        const std::string body = crlf("first\n" + sharutils_block(good, "good.bin") + c.tail);
        spool_body(body);
        ASSERT_EQ(receive(), 1) << c.label;
        // Filed whole, as a plain body without blocks is.
        EXPECT_EQ(attachment_contents(), Strings{body}) << c.label;
        // The block decoded before the failure stays, unlisted; the split's
        // text file and the failed block's file are gone.
        const Strings present = mime_files();
        ASSERT_EQ(present.size(), 2u) << c.label;
        for (const std::string& path : present) {
            if (path != attachments()[0]) {
                EXPECT_EQ(read_file(path), good) << c.label;
            }
            std::filesystem::remove(path);
        }
    }
}

TEST_F(UuencodedBody, BlockFileThatCannotBeWrittenFailsTheBlock) {
    const std::string bytes = binary_bytes(100, 3);
    const std::string body = crlf("one\n" + sharutils_block(bytes, "a.bin") + "two");
    spool_body(body);
    // WriteFile calls: the blank line, "one", then the block's flush.
    os::FaultScope fault(os::Op::WriteFile, 3, os::ERROR_DISK_FULL);
    ASSERT_EQ(receive(), 1);
    EXPECT_EQ(attachment_contents(), Strings{body});
    EXPECT_EQ(mime_files().size(), 1u);
}

TEST_F(UuencodedBody, TextFileThatCannotBeWrittenEndsTheSplit) {
    spool_body(crlf("one\n" + sharutils_block("abc", "a.bin") + "two"));
    os::FaultScope fault(os::Op::WriteFile, 2, os::ERROR_DISK_FULL);
    ASSERT_EQ(receive(), 1);
    // The text file stays listed with what reached it; the rest is unread.
    const Strings files = attachments();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(read_file(files[0]), "\r\n");
    EXPECT_EQ(only_event(event::uuencode_text_write_failed).at(0), files[0]);
}

TEST_F(UuencodedBody, ExtensionThatCannotMakeANameIsAFailedCreation) {
    const std::string name = "a." + std::string(300, 'e');
    spool_body(crlf("one\n" + sharutils_block("abc", name) + "two"));
    EXPECT_EQ(receive(), 0);
    const auto strings = only_event(event::create_file_failed);
    ASSERT_EQ(strings.size(), 2u);
    EXPECT_EQ(strings[0].rfind(mime + os::path_separator + "*.eee", 0), 0u) << strings[0];
    // The text file was listed before the block met its name.
    const Strings files = attachments();
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(extension(files[0]), ".txt");
}

TEST_F(UuencodedBody, SplitFunctionResults) {
    const std::string bytes = binary_bytes(90, 4);
    const std::string with_block = "\r\nt\r\n" + crlf(sharutils_block(bytes, "a.b")) + "u";
    const std::string failing = "\r\nt\r\nbegin 644 a\r\nM\r\nend\r\nu";
    struct Case {
        const char* label;
        std::string body;
        bool no_memory;
        int expected;
        std::size_t listed;
    };
    const Case cases[] = {
        {"a block", with_block, false, 1, 2},
        {"begin line without a block behind it", "\r\nbegin 644 a\r\n", false, 1, 2},
        {"no begin line", "\r\nonly text\r\nend\r\n", false, 0, 1},
        {"failing block", failing, false, 2, 0},
        {"no buffers", with_block, true, 2, 0},
    };
    for (const Case& c : cases) {
        Stream* input = Stream::open(scratch_file(c.body).c_str(), "rb");
        ASSERT_NE(input, nullptr);
        char* list = nullptr;
        int result;
        {
            os::FaultScope fault;
            if (c.no_memory) os::fault_arm(os::Op::LocalAlloc, 1, os::ERROR_NOT_ENOUGH_MEMORY);
            result = split_uuencoded_body(input, list);
        }
        EXPECT_EQ(result, c.expected) << c.label;
        std::size_t listed = 0;
        for (const char* p = list; p != nullptr && *p != '\0'; p += std::string(p).size() + 1)
            ++listed;
        EXPECT_EQ(listed, c.listed) << c.label;
        if (result == 2) {
            // Back at the start: the whole body can be read again.
            std::string rest(c.body.size() + 1, '\0');
            rest.resize(input->read(rest.data(), rest.size()));
            EXPECT_EQ(rest, c.body) << c.label;
            EXPECT_TRUE(mime_files().empty()) << c.label;
        }
        input->close();
        if (list != nullptr) os::LocalFree(list);
        for (const std::string& path : mime_files()) std::filesystem::remove(path);
    }
}

TEST_F(UuencodedBody, DecoderLineGeometry) {
    // Hand-made blocks for what the encoders never write: groups aligned on
    // the end of the text, empty lines inside the data, an end line with
    // trailing text.
    struct Case {
        const char* label;
        std::string block;  // behind the begin line
        int decoded;
        std::string bytes;
    };
    const std::string abc = "86)C";  // "abc"
    const Case cases[] = {
        {"one group", "#" + abc + "\n`\nend\n", 1, "abc"},
        {"62 text bytes start at position 2", "#!" + abc + std::string(56, 'Z') + "\n \nend\n", 1,
         "abc"},
        {"count 2 keeps two bytes", "\"" + abc + "\n`\nend\n", 1, "ab"},
        {"empty lines inside the data", "#" + abc + "\n\n\r\n#" + abc + "\n`\nend\n", 1, "abcabc"},
        {"backticks as zero bits", "#````\n`\nend\n", 1, std::string(3, '\0')},
        {"end line with more text", "#" + abc + "\n`\nend.\n", 0, ""},
        {"end line with CR LF", "#" + abc + "\r\n`\r\nend\r\n", 1, "abc"},
        {"end of input without end line", "#" + abc + "\n#" + abc, 1, "abc"},
    };
    for (const Case& c : cases) {
        Stream* input = Stream::open(scratch_file(c.block).c_str(), "rb");
        ASSERT_NE(input, nullptr);
        const std::string target = mime + "/block.bin";
        {
            UuSplitter splitter;
            ASSERT_EQ(splitter.open(input), 1);
            EXPECT_EQ(splitter.decode_block(target.c_str()), c.decoded) << c.label;
            if (c.decoded == 1) {
                EXPECT_EQ(read_file(target), c.bytes) << c.label;
            } else {
                EXPECT_FALSE(std::filesystem::exists(target)) << c.label;
            }
        }
        input->close();
        std::filesystem::remove(target);
    }
}

}  // namespace
}  // namespace qbsmtp
