// address_fields.cpp: parse_address and the From, Return-Path, To, Cc, Bcc
// and X-FAX-TO handlers.
//
// parse_sender: From always replaces the sender, a Return-Path only fills
// an empty one; only the first address of the field counts.
// parse_recipients: every address of the field goes to the class's list
// and its name to the name list, the two always in step. An ordinary
// recipient loses everything from its last '@' on; then every '/' becomes
// '@', so "12345/John@fax.example" reaches the host as "12345@John". An
// X-FAX- field keeps the domain and replaces the class's list at its first
// address; the ordinary fields of that class are dropped from then on.
#include "decomposition/address_fields.h"

#include <array>
#include <cstring>

#include "decomposition/encoded_words.h"
#include "decomposition/field_handlers.h"
#include "decomposition/header_scanner.h"
#include "decomposition/mail_record.h"
#include "frame/multi_string.h"

namespace qbsmtp {

namespace {

// What a byte does in an address; everything not listed is ordinary text.
enum class ByteKind : unsigned char {
    text,
    double_quote,
    single_quote,
    open_comment,
    close_comment,
    separator,
    colon,
    open_angle,
    close_angle,
};

constexpr std::array<ByteKind, 256> make_byte_kinds() {
    std::array<ByteKind, 256> kinds{};
    for (auto& k : kinds) k = ByteKind::text;
    kinds['"'] = ByteKind::double_quote;
    kinds['\''] = ByteKind::single_quote;
    kinds['('] = ByteKind::open_comment;
    kinds[')'] = ByteKind::close_comment;
    kinds[','] = ByteKind::separator;
    kinds[';'] = ByteKind::separator;
    kinds[':'] = ByteKind::colon;
    kinds['<'] = ByteKind::open_angle;
    kinds['>'] = ByteKind::close_angle;
    return kinds;
}
constexpr std::array<ByteKind, 256> byte_kinds = make_byte_kinds();

// A buffer of address_buffer_size bytes, filled up to one short of its
// end; bytes beyond that are dropped.
struct Collected {
    char* text;
    std::size_t length = 0;

    void add(char c) {
        if (length < address_buffer_size - 1) text[length++] = c;
    }
    void finish() { text[length] = '\0'; }
};

struct AddressScan {
    bool in_angle = false;
    bool in_double = false;
    bool in_single = false;
    int depth = 0;  // comment nesting; a stray ')' takes it below 0, outside
    bool stop = false;
    Collected address;
    Collected name;

    bool quoted() const { return in_double || in_single; }

    void take(char c) {
        switch (byte_kinds[static_cast<unsigned char>(c)]) {
            // Quotes and parentheses act everywhere, inside brackets and
            // comments too, and are never stored.
            case ByteKind::double_quote:
                in_double = !in_double;
                return;
            case ByteKind::single_quote:
                in_single = !in_single;
                return;
            case ByteKind::open_comment:
                ++depth;
                return;
            case ByteKind::close_comment:
                --depth;
                return;
            // A comma ends the address even inside a comment.
            case ByteKind::separator:
                if (quoted())
                    name.add(c);
                else
                    stop = true;
                return;
            case ByteKind::colon:
                if (in_angle)
                    address.add(c);
                else if (quoted())
                    name.add(c);
                else
                    name.length = 0;  // what stood before was a group name
                return;
            case ByteKind::open_angle:
                // A later pair of brackets replaces an earlier one.
                in_angle = true;
                address.length = 0;
                return;
            case ByteKind::close_angle:
                in_angle = false;
                return;
            case ByteKind::text:
                break;
        }
        if (depth > 0) return;  // comment text
        if (in_angle) {
            address.add(c);
        } else if (c != ' ' || name.length > 0) {
            name.add(c);
        }
    }
};

void cut_trailing_spaces(char* text) {
    std::size_t length = std::strlen(text);
    while (length > 0 && text[length - 1] == ' ') --length;
    text[length] = '\0';
}

// The address and name lists of a recipient class in the record.
struct ClassLists {
    char* MailRecord::*addresses;
    char* MailRecord::*names;
};
constexpr ClassLists class_lists[] = {
    {&MailRecord::to, &MailRecord::to_names},
    {&MailRecord::cc, &MailRecord::cc_names},
    {&MailRecord::bcc, &MailRecord::bcc_names},
};

std::size_t list_size(char* block) {
    MultiString list;
    list.block = block;
    std::size_t size = list.byte_size();
    list.release();
    return size;
}

// Adds an address and its name. If the name can't be added (no memory),
// the address is taken back out, so that the lists stay in step.
void append_recipient(char*& addresses, char*& names, const char* address, const char* name) {
    std::size_t used = list_size(addresses);
    append_record_list(addresses, address);
    if (list_size(addresses) == used) return;
    std::size_t names_used = list_size(names);
    append_record_list(names, name);
    if (list_size(names) != names_used) return;
    // The old final NUL ends the list again.
    addresses[used > 0 ? used - 1 : 0] = '\0';
}

}  // namespace

char* parse_address(ParseContext& context, char* address, char* name) {
    Stream& in = *context.input;
    AddressScan scan{.address = {address}, .name = {name}};

    int c = in.getc();
    if (c == ',') {
        // Line ends count as white space here: the next address may stand
        // on the next line.
        do {
            c = in.getc();
        } while (c != Stream::eof && is_space_byte(c));
    }
    while (c != Stream::eof && c != '\r' && c != '\n') {
        scan.take(static_cast<char>(c));
        if (scan.stop) break;
        c = in.getc();
    }

    scan.name.finish();
    decode_encoded_words(name);
    cut_trailing_spaces(name);
    if (scan.address.length == 0) {
        std::strcpy(address, name);
    } else {
        scan.address.finish();
    }
    // The CR is left for more_in_field to find the end of the field.
    if (c == '\r') in.ungetc(c);
    return address[0] != '\0' ? address : nullptr;
}

void parse_sender(ParseContext& context, int is_from) {
    if (more_in_field(context) == 0) return;
    char address[address_buffer_size];
    char name[address_buffer_size];
    MailRecord& record = *context.record;
    if (parse_address(context, address, name) != nullptr &&
        (is_from != 0 || record.sender_length == 0)) {
        set_record_text(record.sender_length, record.sender, address);
        set_record_text(record.sender_name_length, record.sender_name,
                        name[0] != '\0' ? name : address);
    }
    skip_field(context);
}

void parse_recipients(ParseContext& context, int recipient_class, int is_fax) {
    if (recipient_class < recipient_to || recipient_class > recipient_bcc) {
        skip_field(context);
        return;
    }
    MailRecord& record = *context.record;
    char*& addresses = record.*class_lists[recipient_class].addresses;
    char*& names = record.*class_lists[recipient_class].names;
    std::int32_t& override_seen = context.override_seen[recipient_class];
    char address[address_buffer_size];
    char name[address_buffer_size];
    for (;;) {
        if (more_in_field(context) == 0) return;
        if (parse_address(context, address, name) == nullptr) {
            skip_field(context);
            return;
        }
        // Once an X-FAX- field has spoken for the class, ordinary fields
        // of the class are read and dropped.
        if (override_seen != 0 && is_fax == 0) continue;
        if (is_fax != 0 && override_seen == 0) {
            clear_record_list(addresses);
            clear_record_list(names);
            override_seen = 1;
        }
        if (is_fax == 0) {
            if (char* at = std::strrchr(address, '@')) *at = '\0';
        }
        for (char* p = address; *p != '\0'; ++p) {
            if (*p == '/') *p = '@';
        }
        // "@x.example" leaves nothing to address: it adds no name either.
        if (address[0] == '\0') continue;
        append_recipient(addresses, names, address, name[0] != '\0' ? name : address);
    }
}

}  // namespace qbsmtp
