// catalogue_resources.cpp: writes the Windows resources of QBSMTP.dll from
// the message catalogue (src/frame/message_catalogue.cpp), so the texts
// have one source.
//
//   catalogue_resources MC_FILE RC_FILE LISTING_FILE MESSAGES_RC
//
// MC_FILE: the events as a message-compiler file for windmc, language
// Italian (0x410), code page 1252, with CR LF line ends: windmc -a -A keeps
// each text 8-bit and ends it with the line end the file has. RC_FILE: the resource script that
// includes MESSAGES_RC (windmc's output) and holds the string table of the Winsock strings,
// language 0x410. LISTING_FILE: what the DLL must hold, one line per entry ("message 0xID HEX" /
// "string N HEX", the text's bytes in hexadecimal), for the check of the built DLL.
//
// It refuses (exit 1) an event whose text a message table cannot carry as
// it is: an id with bits between the severity and the message number, a
// text that does not end in CR LF or holds another line end, or a line of
// a lone dot, which ends a message in the compiler's syntax.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "frame/message_catalogue.h"

namespace {

struct Severity {
    std::uint32_t bits;  // the top two bits of the id
    const char* name;
};

constexpr Severity severities[] = {
    {0, "Success"},
    {1, "Informational"},
    {2, "Warning"},
    {3, "Error"},
};

constexpr std::uint32_t code_mask = 0xFFFF;
constexpr std::uint32_t severity_shift = 30;

const char* severity_name(std::uint32_t id) {
    for (const Severity& severity : severities)
        if (severity.bits == id >> severity_shift) return severity.name;
    return nullptr;
}

std::string hex_of(const char* text) {
    std::string out;
    char digits[3];
    for (const char* p = text; *p != '\0'; ++p) {
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(*p));
        out += digits;
    }
    return out;
}

// The text without its final CR LF, or false if the compiler cannot take it.
bool message_body(const char* text, std::string* body) {
    std::size_t length = std::strlen(text);
    if (length < 2 || text[length - 2] != '\r' || text[length - 1] != '\n') return false;
    body->assign(text, length - 2);
    if (body->find_first_of("\r\n") != std::string::npos) return false;
    return *body != ".";
}

bool write_mc(std::FILE* out) {
    std::fprintf(out,
                 "; The event texts of QBSMTP.dll, generated from the message catalogue.\r\n"
                 "MessageIdTypedef=DWORD\r\n"
                 "SeverityNames=(Success=0x0 Informational=0x1 Warning=0x2 Error=0x3)\r\n"
                 "LanguageNames=(Italian=0x410:MSG00410)\r\n");
    for (std::size_t i = 0; i < qbsmtp::event_text_count; ++i) {
        const qbsmtp::os::MessageResource& event = qbsmtp::event_texts[i];
        std::string body;
        const char* severity = severity_name(event.id);
        if ((event.id & ~code_mask & ~(3u << severity_shift)) != 0 || severity == nullptr ||
            !message_body(event.text, &body)) {
            std::fprintf(stderr, "catalogue_resources: event 0x%08X cannot be a message\n",
                         static_cast<unsigned>(event.id));
            return false;
        }
        std::fprintf(out, "\r\nMessageId=0x%04X\r\nSeverity=%s\r\nLanguage=Italian\r\n%s\r\n.\r\n",
                     static_cast<unsigned>(event.id & code_mask), severity, body.c_str());
    }
    return true;
}

// A string as a resource-script literal: quotes doubled, backslashes
// escaped, the bytes of code page 1252 as they are.
std::string rc_literal(const char* text) {
    std::string out = "\"";
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '"')
            out += "\"\"";
        else if (*p == '\\')
            out += "\\\\";
        else
            out += *p;
    }
    return out + "\"";
}

void write_rc(std::FILE* out, const char* messages_rc) {
    std::fprintf(out,
                 "// The resources of QBSMTP.dll, generated from the message catalogue.\n"
                 "#pragma code_page(1252)\n"
                 "#include \"%s\"\n\n"
                 "LANGUAGE 0x10, 0x1\n"
                 "STRINGTABLE\n"
                 "BEGIN\n",
                 messages_rc);
    for (std::size_t i = 0; i < qbsmtp::winsock_string_count; ++i) {
        const qbsmtp::os::StringResource& string = qbsmtp::winsock_strings[i];
        std::fprintf(out, "    %u, %s\n", static_cast<unsigned>(string.number),
                     rc_literal(string.text).c_str());
    }
    std::fprintf(out, "END\n");
}

void write_listing(std::FILE* out) {
    for (std::size_t i = 0; i < qbsmtp::event_text_count; ++i)
        std::fprintf(out, "message 0x%08X %s\n", static_cast<unsigned>(qbsmtp::event_texts[i].id),
                     hex_of(qbsmtp::event_texts[i].text).c_str());
    for (std::size_t i = 0; i < qbsmtp::winsock_string_count; ++i)
        std::fprintf(out, "string %u %s\n",
                     static_cast<unsigned>(qbsmtp::winsock_strings[i].number),
                     hex_of(qbsmtp::winsock_strings[i].text).c_str());
}

// Opens path for writing in binary mode, so line ends are written as given.
std::FILE* open_output(const char* path) {
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr) std::fprintf(stderr, "catalogue_resources: cannot write %s\n", path);
    return file;
}

bool close_output(std::FILE* file, const char* path) {
    bool good = std::ferror(file) == 0;
    good = std::fclose(file) == 0 && good;
    if (!good) std::fprintf(stderr, "catalogue_resources: writing %s failed\n", path);
    return good;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: %s MC_FILE RC_FILE LISTING_FILE MESSAGES_RC\n", argv[0]);
        return 2;
    }
    std::FILE* mc = open_output(argv[1]);
    if (mc == nullptr) return 1;
    bool good = write_mc(mc);
    good = close_output(mc, argv[1]) && good;
    if (!good) return 1;

    std::FILE* rc = open_output(argv[2]);
    if (rc == nullptr) return 1;
    write_rc(rc, argv[4]);
    if (!close_output(rc, argv[2])) return 1;

    std::FILE* listing = open_output(argv[3]);
    if (listing == nullptr) return 1;
    write_listing(listing);
    return close_output(listing, argv[3]) ? 0 : 1;
}
