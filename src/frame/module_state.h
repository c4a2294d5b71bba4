// module_state.h: the module-wide state, process attach and detach, and
// start_module.
//
// All of it is constructed empty before attach runs and lives until the
// process ends. host_name, smtp_service, debug_log and module_handle are
// written once during attach; spool_dir and mime_dir once by SMTPRecvInit
// before the listener starts. A non-null smtp_service is the one sign that
// start-up succeeded.
#pragma once

#include <atomic>
#include <cstdint>

#include "frame/address_list.h"
#include "frame/counted_string.h"
#include "frame/event_reporter.h"
#include "platform/os.h"
#include "platform/os_tls.h"

namespace qbsmtp {

extern os::HMODULE module_handle;
extern EventReporter event_reporter;
extern CountedString& host_name;
extern os::servent* smtp_service;
extern std::uint32_t debug_log;
extern CountedString& spool_dir;
extern CountedString& mime_dir;
// Atomic: after a stop, a second listener may start while the first still
// waits in accept, and each records its socket here.
extern std::atomic<os::SOCKET> listen_socket;
extern std::atomic<std::uint32_t> stop_flag;
// 1 from the moment SMTPRecvInit starts the listener thread until that
// thread ends (the listener clears it); guards against a second listener.
extern std::atomic<int> listener_running;

// Settings of our own beside DebugLog, read once at load from the settings
// key, each a DWORD. The time-outs are in seconds, 0 meaning none.
extern std::uint32_t session_timeout;  // SessionTimeout, default 300
extern std::uint32_t send_timeout;     // SendTimeout, 0 (absent): the RFC 5321 client defaults
extern std::uint32_t probe_timeout;    // ProbeTimeout, default 30
// ListenBacklog: the listening socket's queue; 0 (the default): the system's longest.
extern std::uint32_t listen_backlog;
// SpoolSync, default 1: an accepted spool file is on the disk before its
// 250, and so is its rename to .822. 0 leaves that to the system (a spool
// on tmpfs, measurements).
extern std::uint32_t spool_sync;
// Limits on reception, each off (0 or missing) unless set.
// MaxMessageSize: bytes of message text a spool file may take.
extern std::uint32_t max_message_size;
// MaxSessions: sessions at once; a connection beyond them gets 421.
extern std::uint32_t max_sessions;
// AllowedClients: the peers that get a session; not set, everyone.
extern AddressList& allowed_clients;
// ESMTP and STARTTLS on reception, off unless set. TlsCertificateFile and
// TlsKeyFile (PEM) are loaded by SMTPRecvInit into server_tls; EHLO is
// answered when that loaded or Esmtp is 1. RequireTls: MAIL, RCPT and
// DATA get 530 until STARTTLS has succeeded.
extern CountedString& tls_certificate_file;
extern CountedString& tls_key_file;
extern std::uint32_t require_tls;
extern std::uint32_t esmtp;
// Written by SMTPRecvInit before the listener starts, never freed (sessions
// of an earlier listener may still use it); null while none is loaded.
extern os::TlsContext* server_tls;

// Sending through relays that want TLS and authentication, each off
// (0, missing) unless set. RelayPort: the relay's port, 0 the port of the
// service smtp. RelaySecurity: 0 the documented dialogue, 1 EHLO and
// STARTTLS when offered, 2 STARTTLS required, 3 TLS from the first byte.
// RelayVerify, default 1: the relay's certificate must chain to a trusted
// root and match its name. The texts are file names and the user name;
// the secrets themselves are read from their files at every SMTPSend.
extern std::uint32_t relay_port;
extern std::uint32_t relay_security;
extern std::uint32_t relay_verify;
extern CountedString& relay_user;           // RelayUser
extern CountedString& relay_password_file;  // RelayPasswordFile
extern CountedString& relay_token_file;     // RelayTokenFile, an OAuth2 bearer token
extern CountedString& relay_ca_file;        // RelayCAFile, trusted beside the system's roots

// The settings key under HKEY_LOCAL_MACHINE.
inline constexpr const char* settings_key = "SOFTWARE\\KELTO\\Quillbox32\\SM";

// The loader's entry reasons.
void process_attach(os::HMODULE handle);
void process_detach();
// Starts Winsock, fixes host_name, reads the settings, looks up smtp/tcp.
void start_module();

}  // namespace qbsmtp
