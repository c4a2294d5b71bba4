// pickup.cpp: receive_next (SMTPRecvNext), the spool search and the header dispatcher.
#include "decomposition/pickup.h"

#include <cstring>

#include "decomposition/content_header.h"
#include "decomposition/field_handlers.h"
#include "decomposition/header_scanner.h"
#include "decomposition/mail_record.h"
#include "decomposition/multipart_walk.h"
#include "decomposition/part_output.h"
#include "decomposition/uuencoded_body.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {

namespace {

constexpr std::size_t field_name_size = 512;
constexpr const char* spool_pattern = "*.822";

// What the header section of a message has told so far.
struct MessageHeader {
    ParseContext& context;
    ContentInfo info;        // starts as "no usable Content-Type"
    bool mime_seen = false;  // a MIME-Version field was met
};

using FieldHandler = void (*)(MessageHeader& header, int first, int second);

struct FieldRow {
    const char* name;  // upper-cased, as read_field_name gives it
    FieldHandler handle;
    int first;
    int second;
};

void sender_field(MessageHeader& header, int is_from, int) {
    parse_sender(header.context, is_from);
}
void recipients_field(MessageHeader& header, int recipient_class, int is_fax) {
    parse_recipients(header.context, recipient_class, is_fax);
}
void date_field(MessageHeader& header, int, int) {
    parse_date(header.context);
}
void subject_field(MessageHeader& header, int, int) {
    parse_subject(header.context);
}
void mime_version_field(MessageHeader& header, int, int) {
    // The version's value is not looked at.
    skip_field(header.context);
    header.mime_seen = true;
}

// Searched from the top, exactly; a name not here may be a content header.
constexpr FieldRow field_table[] = {
    {"FROM", sender_field, 1, 0},
    {"RETURN-PATH", sender_field, 0, 0},
    {"TO", recipients_field, recipient_to, 0},
    {"RESENT-TO", recipients_field, recipient_to, 0},
    {"APPARENTLY-TO", recipients_field, recipient_to, 0},
    {"X-FAX-TO", recipients_field, recipient_to, 1},
    {"CC", recipients_field, recipient_cc, 0},
    {"RESENT-CC", recipients_field, recipient_cc, 0},
    {"X-FAX-TO-CC", recipients_field, recipient_cc, 1},
    {"BCC", recipients_field, recipient_bcc, 0},
    {"RESENT-BCC", recipients_field, recipient_bcc, 0},
    {"X-FAX-TO-BCC", recipients_field, recipient_bcc, 1},
    {"DATE", date_field, 0, 0},
    {"SUBJECT", subject_field, 0, 0},
    {"MIME-VERSION", mime_version_field, 0, 0},
};

void dispatch_field(MessageHeader& header, const char* name) {
    for (const FieldRow& row : field_table) {
        if (std::strcmp(row.name, name) == 0) {
            row.handle(header, row.first, row.second);
            return;
        }
    }
    if (parse_content_header(header.context, header.info, name) == 0) skip_field(header.context);
}

// A message without MIME-Version, or without a usable Content-Type, is
// plain text; its boundary, if it named one, stays.
void apply_plain_rule(ContentInfo& info) {
    info.type = type_text;
    info.subtype = QBSMTP_SUBTYPE_PLAIN;
    info.encoding = encoding_7bit;
    std::strcpy(info.name, "plaintext.txt");
}

void close_input(ParseContext& context) {
    if (context.input != nullptr) context.input->close();
    context.input = nullptr;
}

}  // namespace

int open_next_message(ParseContext& context) {
    // Before SMTPRecvInit there is no spool to search (the empty text would
    // search the current directory).
    if (spool_dir.empty()) return 0;
    FileFinder finder;
    finder.find_first(spool_dir.c_str(), spool_pattern);
    if (finder.found == 0) return 0;

    context.message_path = spool_dir;
    append_component(context.message_path, finder.data.cFileName);
    set_record_text(context.record->file_length, context.record->file, context.message_path);
    context.input = Stream::open(context.message_path.c_str(), "rb");
    return context.input != nullptr ? 1 : 0;
}

void parse_message(ParseContext& context) {
    MessageHeader header{context, ContentInfo{}, false};
    context.output = nullptr;

    char name[field_name_size];
    // A field with no value ends the header loop too: more_in_field cannot
    // tell it from the end of the file. load_part then reads on from there.
    while (read_field_name(context, name, sizeof name) == 1 && more_in_field(context) == 1) {
        dispatch_field(header, name);
    }

    ContentInfo& info = header.info;
    std::int32_t last_subtype = 0;
    bool body_done = false;
    if (!header.mime_seen || info.type == type_unknown) {
        apply_plain_rule(info);
        // A failed split leaves attachments empty and input where the body
        // starts, so the body is then filed whole as plain text.
        if (has_uuencoded_block(context.input) == 1 &&
            split_uuencoded_body(context.input, context.record->attachments,
                                 &context.attachments_used) != 2) {
            body_done = true;
        }
    }
    if (!body_done) {
        if (info.type == type_multipart) {
            load_multipart(context, info, &last_subtype);
            // The epilogue.
            skip2boundary(context, info, boundary_scan_line_start, false);
        } else {
            load_part(context, info, &last_subtype);
            // Unless the part's own header turned it into a walked multipart,
            // whose level listed its files itself.
            if (context.output != nullptr) {
                close_output(context);
                append_record_list(context.record->attachments, context.output_path.c_str(),
                                   context.attachments_used);
            }
        }
    }
    close_input(context);
    if (context.output != nullptr) close_output(context);
}

int receive_next(MailRecord* record) {
    if (record == nullptr) return 0;
    ParseContext context;
    context.record = record;
    try {
        if (open_next_message(context) == 1) parse_message(context);
    } catch (...) {
        // Whoever threw has reported; files written so far stay.
        if (context.input != nullptr) context.input->close();
        context.input = nullptr;
        if (context.output != nullptr) context.output->close();
        context.output = nullptr;
        return 0;
    }
    return 1;
}

}  // namespace qbsmtp
