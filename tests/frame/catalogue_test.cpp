// catalogue_test.cpp: the event ids, severities and texts, and the Winsock
// texts, against the tables in tests/data/frame that log readers rely on.

#include "frame/message_catalogue.h"

#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "frame/event_reporter.h"
#include "frame/text_ops.h"
#include "platform/os_fault.h"
#include "platform/os_posix_internal.h"
#include "platform/os_text.h"
#include "support/case_table.h"

namespace qbsmtp {
namespace {

std::string utf8(const char* cp1252) {
    std::string out;
    os::append_utf8_from_cp1252(out, cp1252, std::strlen(cp1252));
    return out;
}

// The code's event names and their ids, from one list of the names.
#define NAMED_IDS(...) named_ids(#__VA_ARGS__, {__VA_ARGS__})
std::map<std::string, std::uint32_t> named_ids(const std::string& names,
                                               std::initializer_list<std::uint32_t> ids) {
    std::map<std::string, std::uint32_t> result;
    std::istringstream in(names);
    auto id = ids.begin();
    for (std::string name; in >> name; ++id) result[name.substr(0, name.find(','))] = *id;
    return result;
}

std::map<std::string, std::uint32_t> code_ids() {
    using namespace event;
    return NAMED_IDS(
        session_started, session_ended, send_module_started, send_module_found_file, send_succeeded,
        mime_started, mime_ending, mime_ended, mail_accepted, debug_text, port_in_use,
        mime_reinitialised, duplicate_dropped, address_domain_mismatch, create_directory_failed,
        create_thread_failed, create_file_failed, open_file_failed, write_failed, copy_file_failed,
        delete_file_failed, port_owned_by_other_server, file_name_too_long, winsock_start_failed,
        host_name_unknown, relay_address_unknown, service_unknown, socket_failed, setsockopt_failed,
        connect_failed, bind_failed, listen_failed, unexpected_reply, connection_lost,
        attachment_type_invalid, reply_unintelligible, quit_failed, mime_type_unsupported,
        message_id_invalid, uuencode_begin_missing, uuencode_end_missing, no_recipient, no_sender,
        no_attachment, internal_inconsistency, no_memory_for_session, source_registration_failed,
        spool_rename_failed, uuencode_text_write_failed, client_refused, session_limit_reached,
        message_too_large, setting_invalid, relay_unverified, relay_tls_failed,
        relay_security_missing, relay_auth_failed, relay_secret_unreadable,
        tls_certificate_unusable, tls_handshake_failed);
}

TEST(EventCatalogue, IdsSeveritiesAndTextsAreThoseLogReadersKnow) {
    // The catalogue as the platform's event log finds it.
    os::set_module_resources(module_resources());
    const std::map<std::string, os::WORD> types = {
        {"information", 4}, {"warning", 2}, {"error", 1}};
    const auto code = code_ids();
    std::set<std::uint32_t> listed;
    for (const test::Case& c : test::read_cases("frame/events.txt", 5)) {
        const auto id = static_cast<std::uint32_t>(std::stoul(c[1], nullptr, 16));
        EXPECT_EQ(id & 0xFFFF, std::stoul(c[2])) << c.where;
        ASSERT_EQ(code.count(c[0]), 1u) << c.where << ": the code has no event " << c[0];
        EXPECT_EQ(code.at(c[0]), id) << c.where << ": " << c[0];
        EXPECT_EQ(c[3] == "-" ? 0 : event_type_of(id), c[3] == "-" ? 0 : types.at(c[3])) << c.where;
        const char* text = os::posix::find_message_text(id);
        EXPECT_EQ(text == nullptr ? "-" : utf8(text), c[4] == "-" ? "-" : test::unescape(c[4]))
            << c.where;
        listed.insert(id);
    }
    EXPECT_EQ(listed.size(), code.size());
    for (std::size_t i = 0; i < event_text_count; ++i) {
        EXPECT_EQ(listed.count(event_texts[i].id), 1u) << std::hex << event_texts[i].id;
    }
}

TEST(WinsockTexts, EachCodeOfTheTableAndOneThatNobodyKnows) {
    os::set_module_resources(module_resources());
    char buffer[200];
    for (const test::Case& c : test::read_cases("frame/winsock.txt", 3)) {
        os::WSASetLastError(std::stoi(c[0]));
        EXPECT_EQ(utf8(winsock_error_text(buffer, sizeof buffer)),
                  "errore winsock: " + test::unescape(c[2]))
            << c.where;
    }
    // Unknown to the table and to the system: the code in hexadecimal.
    os::FaultScope fault(os::Op::FormatMessageA, 2,
                         os::ERROR_INVALID_PARAMETER);  // the first gives the prefix
    os::WSASetLastError(0x1ABCD);
    EXPECT_STREQ(winsock_error_text(buffer, sizeof buffer), "errore winsock: Error 0001ABCD");
}

}  // namespace
}  // namespace qbsmtp
