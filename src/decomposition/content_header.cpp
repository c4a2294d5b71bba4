// content_header.cpp: the two MIME fields that decide how a body is read.
//
// Every way out of a field ends alike: if the last more_in_field said the
// field goes on, the rest of it is skipped. So a field that stops being
// readable keeps what was read up to there and the next field is intact.
#include "decomposition/content_header.h"

#include <cstring>

#include "decomposition/header_scanner.h"

namespace qbsmtp {

namespace {

struct CodeEntry {
    const char* name;
    std::int32_t code;
};

// RFC 2045 transfer encodings and the uuencode names seen in the wild.
constexpr CodeEntry encoding_table[] = {
    {"7BIT", encoding_7bit},         {"QUOTED-PRINTABLE", encoding_quoted_printable},
    {"BASE64", encoding_base64},     {"8BIT", encoding_8bit},
    {"BINARY", encoding_binary},     {"X-UUENCODE", encoding_uuencode},
    {"UUENCODE", encoding_uuencode},
};

constexpr CodeEntry type_table[] = {
    {"TEXT", type_text},
    {"MULTIPART", type_multipart},
    {"MESSAGE", type_message},
    {"IMAGE", type_image},
    {"AUDIO", type_audio},
    {"VIDEO", type_video},
    {"APPLICATION", type_application},
};

// One list for every media type: a subtype is known whatever its type.
constexpr CodeEntry subtype_table[] = {
    {"PLAIN", QBSMTP_SUBTYPE_PLAIN},
    {"ENRICHED", QBSMTP_SUBTYPE_ENRICHED},
    {"HTML", QBSMTP_SUBTYPE_HTML},
    {"MIXED", QBSMTP_SUBTYPE_MIXED},
    {"PARALLEL", QBSMTP_SUBTYPE_PARALLEL},
    {"DIGEST", QBSMTP_SUBTYPE_DIGEST},
    {"ALTERNATIVE", QBSMTP_SUBTYPE_ALTERNATIVE},
    {"RFC822", QBSMTP_SUBTYPE_RFC822},
    {"PARTIAL", QBSMTP_SUBTYPE_PARTIAL},
    {"EXTERNAL-BODY", QBSMTP_SUBTYPE_EXTERNAL_BODY},
    {"TIFF", QBSMTP_SUBTYPE_TIFF},
    {"GIF", QBSMTP_SUBTYPE_GIF},
    {"JPEG", QBSMTP_SUBTYPE_JPEG},
    {"BASIC", QBSMTP_SUBTYPE_BASIC},
    {"MPEG", QBSMTP_SUBTYPE_MPEG},
    {"OCTET-STREAM", QBSMTP_SUBTYPE_OCTET_STREAM},
    {"POSTSCRIPT", QBSMTP_SUBTYPE_POSTSCRIPT},
};

template <std::size_t N>
std::int32_t find_code(const CodeEntry (&table)[N], const char* token, std::int32_t missing) {
    for (const CodeEntry& entry : table)
        if (std::strcmp(entry.name, token) == 0) return entry.code;
    return missing;
}

// The token, cut to fit a name field of the ContentInfo.
void copy_cut(char* target, std::size_t size, const char* token) {
    std::size_t length = std::strlen(token);
    if (length > size - 1) length = size - 1;
    std::memcpy(target, token, length);
    target[length] = '\0';
}

// Scratch room for one token; longer tokens are cut by read_token.
constexpr std::int32_t scratch_size = 256;

class FieldReader {
  public:
    FieldReader(ParseContext& context) : context_(context) {}

    // more_in_field, remembered for the end of the field.
    bool more() { return (more_ = more_in_field(context_)) != 0; }
    int token(bool upper) { return read_token(context_, scratch_, scratch_size, upper); }
    // The token just read is the single delimiter byte wanted.
    bool is_delimiter(int result, char wanted) const {
        return result == token_delimiter && scratch_[0] == wanted;
    }
    // The field goes on with that delimiter (which is then consumed).
    bool delimiter(char wanted) { return more() && is_delimiter(token(false), wanted); }
    const char* text() const { return scratch_; }
    void finish() {
        if (more_) skip_field(context_);
    }

  private:
    ParseContext& context_;
    int more_ = 1;
    char scratch_[scratch_size] = {};
};

void read_transfer_encoding(FieldReader& field, ContentInfo& info) {
    if (!field.more()) return;
    // A quoted value is not taken: the encoding stays as it was.
    if (field.token(true) != token_plain) return;
    info.encoding = find_code(encoding_table, field.text(), encoding_unknown);
}

// One parameter value, verbatim, straight into its field.
void read_parameter_value(ParseContext& context, char* target, std::int32_t size) {
    int result = read_token(context, target, size, false);
    if (result != token_plain && result != token_quoted) target[0] = '\0';
}

void read_content_type(ParseContext& context, FieldReader& field, ContentInfo& info) {
    // The type; a value that is no plain token leaves the inherited one.
    if (!field.more()) return;
    if (field.token(true) == token_plain) {
        copy_cut(info.type_name, sizeof info.type_name, field.text());
        info.type = find_code(type_table, field.text(), type_unknown);
    }
    // An unknown type changes neither the subtype nor the parameters.
    if (info.type == type_unknown) return;

    if (!field.delimiter('/')) return;
    if (!field.more() || field.token(true) != token_plain) return;
    copy_cut(info.subtype_name, sizeof info.subtype_name, field.text());
    info.subtype = find_code(subtype_table, field.text(), QBSMTP_SUBTYPE_OTHER);

    for (;;) {
        if (!field.delimiter(';')) return;
        if (!field.more() || field.token(true) != token_plain) return;
        char* target = nullptr;
        std::int32_t size = 0;
        if (std::strcmp(field.text(), "NAME") == 0) {
            target = info.name;
            size = ContentInfo::name_size - 1;
        } else if (std::strcmp(field.text(), "BOUNDARY") == 0) {
            target = info.boundary;
            size = ContentInfo::boundary_size;
        }
        // Any other parameter: its value is not passed over, so its '='
        // stands where the next ';' is wanted and the field ends there.
        if (target == nullptr) continue;
        if (!field.more()) return;
        if (!field.is_delimiter(field.token(false), '=')) continue;
        if (!field.more()) return;
        read_parameter_value(context, target, size);
    }
}

}  // namespace

int parse_content_header(ParseContext& context, ContentInfo& info, const char* name) {
    FieldReader field(context);
    if (std::strcmp(name, "CONTENT-TRANSFER-ENCODING") == 0)
        read_transfer_encoding(field, info);
    else if (std::strcmp(name, "CONTENT-TYPE") == 0)
        read_content_type(context, field, info);
    else
        return 0;
    field.finish();
    return 1;
}

}  // namespace qbsmtp
