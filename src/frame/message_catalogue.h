// message_catalogue.h: the ids of the module's events and the data behind
// their texts: 58 events, and the 44 strings with the 43-pair table that
// turns a Winsock code into a string number.
//
// The texts are Italian, in code page 1252, each ending in CR LF, with
// insertion places %1 to %3. On Windows they are the message table and the
// string table of the module's file; on POSIX the frame hands them to the
// platform layer, which fills the event log from them. The ids marked
// "ours" are this module's own additions, for failures that would
// otherwise pass in silence.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/os.h"

namespace qbsmtp::event {

inline constexpr std::uint32_t session_started = 0x40004EA3;             // 20131
inline constexpr std::uint32_t session_ended = 0x40004EAB;               // 20139
inline constexpr std::uint32_t send_module_started = 0x40004EFE;         // 20222
inline constexpr std::uint32_t send_module_found_file = 0x40004F00;      // 20224
inline constexpr std::uint32_t send_succeeded = 0x40004F05;              // 20229
inline constexpr std::uint32_t mime_started = 0x40004F11;                // 20241
inline constexpr std::uint32_t mime_ending = 0x40004F18;                 // 20248
inline constexpr std::uint32_t mime_ended = 0x40004F19;                  // 20249
inline constexpr std::uint32_t mail_accepted = 0x40004F4F;               // 20303
inline constexpr std::uint32_t debug_text = 0x400051A3;                  // 20899
inline constexpr std::uint32_t port_in_use = 0x800027D8;                 // 10200
inline constexpr std::uint32_t client_refused = 0x80004EAC;              // 20140, ours
inline constexpr std::uint32_t session_limit_reached = 0x80004EAD;       // 20141, ours
inline constexpr std::uint32_t message_too_large = 0x80004EAE;           // 20142, ours
inline constexpr std::uint32_t tls_certificate_unusable = 0x80004EAF;    // 20143, ours
inline constexpr std::uint32_t tls_handshake_failed = 0x80004EB0;        // 20144, ours
inline constexpr std::uint32_t relay_unverified = 0x80004F06;            // 20230, ours
inline constexpr std::uint32_t mime_reinitialised = 0x80004F13;          // 20243
inline constexpr std::uint32_t duplicate_dropped = 0x80004F39;           // 20281
inline constexpr std::uint32_t address_domain_mismatch = 0x80004FD8;     // 20440
inline constexpr std::uint32_t create_directory_failed = 0xC0002719;     // 10009
inline constexpr std::uint32_t create_thread_failed = 0xC000271B;        // 10011
inline constexpr std::uint32_t create_file_failed = 0xC000272E;          // 10030
inline constexpr std::uint32_t open_file_failed = 0xC0002730;            // 10032
inline constexpr std::uint32_t write_failed = 0xC0002732;                // 10034
inline constexpr std::uint32_t copy_file_failed = 0xC0002738;            // 10040
inline constexpr std::uint32_t spool_rename_failed = 0xC0002739;         // 10041, ours
inline constexpr std::uint32_t delete_file_failed = 0xC0002788;          // 10120
inline constexpr std::uint32_t port_owned_by_other_server = 0xC00027D9;  // 10201
inline constexpr std::uint32_t file_name_too_long = 0xC0004E33;          // 20019
inline constexpr std::uint32_t winsock_start_failed = 0xC0004E85;        // 20101
inline constexpr std::uint32_t host_name_unknown = 0xC0004E87;           // 20103
inline constexpr std::uint32_t relay_address_unknown = 0xC0004E8A;       // 20106
inline constexpr std::uint32_t service_unknown = 0xC0004E8F;             // 20111
inline constexpr std::uint32_t setting_invalid = 0xC0004E90;             // 20112, ours
inline constexpr std::uint32_t socket_failed = 0xC0004E91;               // 20113
inline constexpr std::uint32_t setsockopt_failed = 0xC0004E92;           // 20114
inline constexpr std::uint32_t connect_failed = 0xC0004E94;              // 20116
inline constexpr std::uint32_t bind_failed = 0xC0004E95;                 // 20117
inline constexpr std::uint32_t listen_failed = 0xC0004E96;               // 20118
inline constexpr std::uint32_t unexpected_reply = 0xC0004EF4;            // 20212
inline constexpr std::uint32_t connection_lost = 0xC0004EF5;             // 20213
inline constexpr std::uint32_t attachment_type_invalid = 0xC0004EF7;     // 20215
inline constexpr std::uint32_t reply_unintelligible = 0xC0004EFB;        // 20219
inline constexpr std::uint32_t quit_failed = 0xC0004F04;                 // 20228
inline constexpr std::uint32_t relay_tls_failed = 0xC0004F07;            // 20231, ours
inline constexpr std::uint32_t relay_security_missing = 0xC0004F08;      // 20232, ours
inline constexpr std::uint32_t relay_auth_failed = 0xC0004F09;           // 20233, ours
inline constexpr std::uint32_t relay_secret_unreadable = 0xC0004F0A;     // 20234, ours
inline constexpr std::uint32_t mime_type_unsupported = 0xC0004F14;       // 20244
inline constexpr std::uint32_t message_id_invalid = 0xC0004F31;          // 20273
inline constexpr std::uint32_t uuencode_begin_missing = 0xC0004FB0;      // 20400
inline constexpr std::uint32_t uuencode_end_missing = 0xC0004FB1;        // 20401
inline constexpr std::uint32_t uuencode_text_write_failed = 0xC0004FB2;  // 20402, ours
inline constexpr std::uint32_t no_recipient = 0xC0004FCF;                // 20431
inline constexpr std::uint32_t no_sender = 0xC0004FD0;                   // 20432
inline constexpr std::uint32_t no_attachment = 0xC0004FD1;               // 20433
inline constexpr std::uint32_t internal_inconsistency = 0xC0005207;      // 20999

// Reported though the catalogue holds no text for them.
inline constexpr std::uint32_t no_memory_for_session = 14;
inline constexpr std::uint32_t source_registration_failed = 0;

}  // namespace qbsmtp::event

namespace qbsmtp {

// The 58 events with their texts, in ascending order of id.
extern const os::MessageResource event_texts[];
extern const std::size_t event_text_count;

// The 44 strings: number 1 is the prefix "errore winsock: ".
extern const os::StringResource winsock_strings[];
extern const std::size_t winsock_string_count;

// A Winsock code and the number of its string.
struct WinsockCodeString {
    std::uint32_t code;
    std::uint32_t string_number;
};
extern const WinsockCodeString winsock_code_table[];
extern const std::size_t winsock_code_count;  // 43

// The catalogue as the platform layer takes it.
os::ModuleResources module_resources();

}  // namespace qbsmtp
