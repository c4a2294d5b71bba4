// Tests of parse_address and the sender and recipient handlers: the
// record's sender fields, the exact bytes of the recipient lists and their
// name lists, and where the stream is left.
#include "decomposition/address_fields.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "field_run.h"
#include "platform/os_fault.h"

namespace qbsmtp {
namespace {

using testing::field_text;
using testing::FieldRun;
using testing::list_bytes;
using testing::packed;
using testing::visible;

using namespace std::string_literals;

TEST(ParseAddress, SortsAddressAndName) {
    struct Case {
        std::string bytes;
        std::optional<std::string> address;  // none: no address
        std::string name;
        std::string rest;
    };
    const std::vector<Case> cases = {
        {"John Smith <12345/John@faxserver.example>\r\nX", "12345/John@faxserver.example",
         "John Smith", "\r\nX"},
        // Without brackets the text gathers as the name and is the address too.
        {"12345/John@faxserver.example\r\nX", "12345/John@faxserver.example",
         "12345/John@faxserver.example", "\r\nX"},
        {"<12345@faxserver.example>", "12345@faxserver.example", "", ""},
        {"\"Rossi, Mario\" <m@x.example>, b@y.example", "m@x.example", "Rossi, Mario",
         " b@y.example"},
        {"'a;b' <m@x.example>", "m@x.example", "a;b", ""},
        // A leading comma and the white space behind it, line ends too.
        {", b@y.example", "b@y.example", "b@y.example", ""},
        {",\r\n\tb@y.example", "b@y.example", "b@y.example", ""},
        {",,b", std::nullopt, "", "b"},
        {"(the boss) m@x.example", "m@x.example", "m@x.example", ""},
        {"Mario (boss) <m@x.example>", "m@x.example", "Mario", ""},
        {"Mario (a (nested) comment) <m@x.example>", "m@x.example", "Mario", ""},
        // A comma ends the address even inside a comment.
        {"a (x, y) b", "a", "a", " y) b"},
        // A stray ')' takes the depth below 0, which is outside.
        {"a) b <c@d>", "c@d", "a b", ""},
        // Group names are wiped by the colon.
        {"Team: a@x.example, b@y.example;", "a@x.example", "a@x.example", " b@y.example;"},
        {"undisclosed-recipients:;\r\nX", std::nullopt, "", "\r\nX"},
        {"<a:b@x>", "a:b@x", "", ""},
        {"\"a:b\" <c@d>", "c@d", "a:b", ""},
        // A single quote in a name opens a quote that stays open.
        {"O'Brien <a@x.example>, b@y.example", "a@x.example", "OBrien , b@y.example", ""},
        // Quotes act inside brackets too, and are dropped there.
        {"<a@x\"y\".example>", "a@xy.example", "", ""},
        {"<a b@x>", "a b@x", "", ""},
        // A later pair of brackets replaces an earlier one.
        {"<a@x.example> <b@y.example>", "b@y.example", "", ""},
        {"x <a@b> trailing", "a@b", "x  trailing", ""},
        // No escaping: a backslash is a byte like any other.
        {"a\\,b", "a\\", "a\\", "b"},
        {"<>\r\nX", std::nullopt, "", "\r\nX"},
        {"John <>", "John", "John", ""},
        {"<a@x.example", "a@x.example", "", ""},
        // A line end ends the address, whatever is open.
        {"a\r\n b", "a", "a", "\r\n b"},
        {"\"a\r\n b\"", "a", "a", "\r\n b\""},
        {"a\nb", "a", "a", "b"},
        {"\r\nX", std::nullopt, "", "\r\nX"},
        {"", std::nullopt, "", ""},
        // Leading spaces never start a name; trailing spaces are cut, other
        // blanks stay.
        {"   lead", "lead", "lead", ""},
        {"a  b   ,", "a  b", "a  b", ""},
        {"a\t", "a\t", "a\t", ""},
        {"\tb", "\tb", "\tb", ""},
        // Encoded words in names are decoded, other charsets kept.
        {"=?iso-8859-1?Q?Caff=E8?= <c@x.example>", "c@x.example", "Caff\xe8", ""},
        {"=?iso-8859-1?Q?a_?= <c@x.example>", "c@x.example", "a", ""},
        {"=?utf-8?Q?x?= <c@x.example>", "c@x.example", "=?utf-8?Q?x?=", ""},
        {"<=?iso-8859-1?Q?x?=@y>", "=?iso-8859-1?Q?x?=@y", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.bytes));
        FieldRun run(c.bytes);
        std::vector<char> address(address_buffer_size, '#');
        std::vector<char> name(address_buffer_size, '#');
        char* result = parse_address(run.context(), address.data(), name.data());
        if (c.address) {
            EXPECT_EQ(result, address.data());
            EXPECT_EQ(std::string(address.data()), *c.address);
        } else {
            EXPECT_EQ(result, nullptr);
        }
        EXPECT_EQ(std::string(name.data()), c.name);
        EXPECT_EQ(run.rest(), c.rest);
    }
}

TEST(ParseAddress, LongTextsAreCut) {
    struct Case {
        std::string bytes;
        std::string address;
        std::string name;
    };
    const std::string a1500(1500, 'a');
    const std::string n1500(1500, 'n');
    const std::string a999(999, 'a');
    const std::string n999(999, 'n');
    const std::vector<Case> cases = {
        {"<" + a1500 + ">", a999, ""},
        {n1500 + " <a@b>", "a@b", n999},
        {n1500, n999, n999},
        {n1500 + " <" + a1500 + ">", a999, n999},
        // The cut name still ends in spaces to cut.
        {std::string(998, 'n') + "    x <a@b>", "a@b", std::string(998, 'n')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes.size());
        FieldRun run(c.bytes + ", next");
        // Exactly the buffers' size, so that a write behind them shows.
        auto address = std::make_unique<char[]>(address_buffer_size);
        auto name = std::make_unique<char[]>(address_buffer_size);
        ASSERT_NE(parse_address(run.context(), address.get(), name.get()), nullptr);
        EXPECT_EQ(std::string(address.get()), c.address);
        EXPECT_EQ(std::string(name.get()), c.name);
        EXPECT_EQ(run.rest(), " next");
    }
}

struct Sender {
    std::string sender;
    std::string sender_name;
};

Sender senders_of(const std::string& header) {
    FieldRun run(header);
    run.dispatch();
    const MailRecord& r = run.record();
    return {field_text(r.sender_length, r.sender), field_text(r.sender_name_length, r.sender_name)};
}

TEST(SenderField, FromAlwaysWinsReturnPathFillsAnEmptySender) {
    struct Case {
        std::string header;
        std::string sender;
        std::string sender_name;
    };
    const std::vector<Case> cases = {
        {"Return-Path: <>\r\n", "<null>", "<null>"},
        {"Return-Path: <r@x.example>\r\n", "r@x.example", "r@x.example"},
        {"From: m@x.example\r\nReturn-Path: <r@x.example>\r\n", "m@x.example", "m@x.example"},
        {"Return-Path: <r@x.example>\r\nFrom: m@x.example\r\n", "m@x.example", "m@x.example"},
        {"From: Mario <m@x.example>\r\n", "m@x.example", "Mario"},
        {"From: <m@x.example>\r\n", "m@x.example", "m@x.example"},
        {"From: 1/a@x.example\r\n", "1/a@x.example", "1/a@x.example"},
        {"From: a@x.example\r\nFrom: b@y.example\r\n", "b@y.example", "b@y.example"},
        {"Return-Path: <a@x.example>\r\nReturn-Path: <b@y.example>\r\n", "a@x.example",
         "a@x.example"},
        {"Return-Path: <>\r\nReturn-Path: <b@y.example>\r\n", "b@y.example", "b@y.example"},
        // A From without an address leaves what stands.
        {"Return-Path: <r@x.example>\r\nFrom: <>\r\n", "r@x.example", "r@x.example"},
        // Only the first address of the field counts.
        {"From: a@x.example, b@y.example\r\n", "a@x.example", "a@x.example"},
        {"From: =?iso-8859-1?Q?Ren=E9?= <r@x.example>\r\n", "r@x.example", "Ren\xe9"},
        {"From: \"Rossi, Mario\"\r\n <m@x.example>\r\n", "Rossi, Mario", "Rossi, Mario"},
        {"From: m@x.example", "m@x.example", "m@x.example"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.header));
        Sender s = senders_of(c.header);
        EXPECT_EQ(s.sender, c.sender);
        EXPECT_EQ(s.sender_name, c.sender_name);
    }
}

TEST(SenderField, StreamIsLeftOnTheNextLine) {
    const std::vector<std::string> values = {
        "a@x.example, b@y.example\r\n c@z.example\r\nX: y",
        "<>\r\nX: y",
        "undisclosed:;\r\nX: y",
        "a@x.example\r\nX: y",
    };
    for (int is_from : {0, 1}) {
        for (const std::string& value : values) {
            SCOPED_TRACE(visible(value));
            FieldRun run(value);
            parse_sender(run.context(), is_from);
            EXPECT_EQ(run.rest(), "X: y");
        }
    }
}

struct Lists {
    std::string to, to_names, cc, cc_names, bcc, bcc_names;
};

Lists lists_of(FieldRun& run) {
    const MailRecord& r = run.record();
    return {list_bytes(r.to),       list_bytes(r.to_names), list_bytes(r.cc),
            list_bytes(r.cc_names), list_bytes(r.bcc),      list_bytes(r.bcc_names)};
}

TEST(RecipientFields, WorkedExamples) {
    struct Case {
        std::string field;
        std::string addresses;
        std::string names;
    };
    const std::vector<Case> cases = {
        {"To: 12345/John@faxserver.example", packed({"12345@John"}),
         packed({"12345/John@faxserver.example"})},
        {"X-FAX-TO: 12345/John@faxserver.example", packed({"12345@John@faxserver.example"}),
         packed({"12345/John@faxserver.example"})},
        {"To: John Smith <12345/John@faxserver.example>", packed({"12345@John"}),
         packed({"John Smith"})},
        {"X-FAX-TO: John Smith <12345/John@faxserver.example>",
         packed({"12345@John@faxserver.example"}), packed({"John Smith"})},
        {"To: <12345@faxserver.example>", packed({"12345"}), packed({"12345"})},
        {"To: 12345", packed({"12345"}), packed({"12345"})},
        {"To: \"Rossi, Mario\" <m@x.example>, b@y.example", packed({"m", "b"}),
         packed({"Rossi, Mario", "b@y.example"})},
        {"To: (the boss) m@x.example", packed({"m"}), packed({"m@x.example"})},
        {"To: Team: a@x.example, b@y.example;", packed({"a", "b"}),
         packed({"a@x.example", "b@y.example"})},
        // The cut is at the last '@'.
        {"To: a@b@c.example", packed({"a@b"}), packed({"a@b@c.example"})},
        {"To: 1/2/3", packed({"1@2@3"}), packed({"1/2/3"})},
        {"To: undisclosed-recipients:;", "", ""},
        {"To: O'Brien <a@x.example>, b@y.example", packed({"a"}), packed({"OBrien , b@y.example"})},
        // Nothing left after the cut: neither address nor name.
        {"To: @x.example", "", ""},
        {"To: Someone <@x.example>, b@y.example", packed({"b"}), packed({"b@y.example"})},
        // Lists run over commas, folds and line ends inside the field.
        {"To: a@x.example,\r\n b@y.example", packed({"a", "b"}),
         packed({"a@x.example", "b@y.example"})},
        {"To: a@x.example\r\n b@y.example", packed({"a", "b"}),
         packed({"a@x.example", "b@y.example"})},
        {"To: a@x.example , b@y.example", packed({"a", "b"}),
         packed({"a@x.example", "b@y.example"})},
        // A separator ends each address and a comma may open one, so it
        // takes three commas to make an empty address, which ends the field.
        {"To: a@x.example,, b@y.example", packed({"a", "b"}),
         packed({"a@x.example", "b@y.example"})},
        {"To: a@x.example,,, b@y.example", packed({"a"}), packed({"a@x.example"})},
        {"To: a@x.example; b@y.example", packed({"a", "b"}),
         packed({"a@x.example", "b@y.example"})},
        {"To: =?iso-8859-1?Q?Andr=E9?= <a@x.example>", packed({"a"}), packed({"Andr\xe9"})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.field));
        FieldRun run(c.field + "\r\nCc: c@x.example\r\n\r\n");
        run.dispatch();
        Lists l = lists_of(run);
        EXPECT_EQ(visible(l.to), visible(c.addresses));
        EXPECT_EQ(visible(l.to_names), visible(c.names));
        // The field ended where it should: the next one was read.
        EXPECT_EQ(visible(l.cc), visible(packed({"c"})));
        EXPECT_EQ(run.rest(), "\r\n");
    }
}

TEST(RecipientFields, OverridesPerClass) {
    struct Case {
        std::string header;
        Lists lists;
    };
    const std::vector<Case> cases = {
        {"To: a@x.example\r\nX-FAX-TO: 1/b@y.example\r\nTo: c@x.example\r\n",
         {packed({"1@b@y.example"}), packed({"1/b@y.example"}), "", "", "", ""}},
        // Ordinary fields of the class are dropped after the override,
        // further X-FAX- fields add.
        {"X-FAX-TO: 1@f\r\nTo: a@x\r\nX-FAX-TO: 2@g, 3@h\r\n",
         {packed({"1@f", "2@g", "3@h"}), packed({"1@f", "2@g", "3@h"}), "", "", "", ""}},
        // The override belongs to its class alone.
        {"Cc: a@x\r\nBcc: b@y\r\nX-FAX-TO: 1@f\r\nCc: c@z\r\n",
         {packed({"1@f"}), packed({"1@f"}), packed({"a", "c"}), packed({"a@x", "c@z"}),
          packed({"b"}), packed({"b@y"})}},
        {"Cc: a@x\r\nX-FAX-TO-CC: 1@f\r\nCc: c@z\r\nTo: t@x\r\n",
         {packed({"t"}), packed({"t@x"}), packed({"1@f"}), packed({"1@f"}), "", ""}},
        {"Bcc: a@x\r\nX-FAX-TO-BCC: Fax <1/f@g>\r\nBcc: c@z\r\n",
         {"", "", "", "", packed({"1@f@g"}), packed({"Fax"})}},
        // An X-FAX- field without an address overrides nothing.
        {"To: a@x\r\nX-FAX-TO: <>\r\nTo: b@y\r\n",
         {packed({"a", "b"}), packed({"a@x", "b@y"}), "", "", "", ""}},
        {"X-FAX-TO: undisclosed:;\r\nTo: b@y\r\n",
         {packed({"b"}), packed({"b@y"}), "", "", "", ""}},
        // Ordinary lists grow over several fields.
        {"To: a@x\r\nTo: b@y, c@z\r\n",
         {packed({"a", "b", "c"}), packed({"a@x", "b@y", "c@z"}), "", "", "", ""}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(visible(c.header));
        FieldRun run(c.header + "\r\n");
        run.dispatch();
        Lists l = lists_of(run);
        EXPECT_EQ(visible(l.to), visible(c.lists.to));
        EXPECT_EQ(visible(l.to_names), visible(c.lists.to_names));
        EXPECT_EQ(visible(l.cc), visible(c.lists.cc));
        EXPECT_EQ(visible(l.cc_names), visible(c.lists.cc_names));
        EXPECT_EQ(visible(l.bcc), visible(c.lists.bcc));
        EXPECT_EQ(visible(l.bcc_names), visible(c.lists.bcc_names));
    }
}

TEST(RecipientFields, ListsStayInStepWhenMemoryFails) {
    // With no lists yet, the first address allocates (call 1), then its
    // name (call 2). Whichever fails, the first pair is lost whole, and
    // the second pair goes in behind whatever the first left.
    for (unsigned failing_alloc : {1u, 2u}) {
        SCOPED_TRACE(failing_alloc);
        FieldRun run("a@x, b@y");
        {
            os::FaultScope fault(os::Op::LocalAlloc, failing_alloc, os::ERROR_NOT_ENOUGH_MEMORY);
            parse_recipients(run.context(), recipient_to, 0);
        }
        const MailRecord& r = run.record();
        EXPECT_EQ(visible(list_bytes(r.to)), visible(packed({"b"})));
        EXPECT_EQ(visible(list_bytes(r.to_names)), visible(packed({"b@y"})));
    }
}

TEST(RecipientFields, UnknownClassSkipsTheField) {
    FieldRun run("a@x.example\r\nX: y");
    parse_recipients(run.context(), 3, 0);
    EXPECT_EQ(lists_of(run).to, "");
    EXPECT_EQ(run.rest(), "X: y");
}

}  // namespace
}  // namespace qbsmtp
