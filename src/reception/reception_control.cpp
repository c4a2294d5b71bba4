// reception_control.cpp: prepare_reception, start_listener, stop_reception.

#include "reception/reception_control.h"

#include <cstddef>

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "frame/paths.h"
#include "frame/thread_handle.h"
#include "reception/listener.h"

namespace qbsmtp {

namespace {

// Texts of spool_dir and mime_dir that a later SMTPRecvInit replaced while
// session threads of an earlier listener may still read them: they stay
// allocated (and reachable) for the life of the process.
constexpr std::size_t max_retired_texts = 32;
char* retired_texts[max_retired_texts];
std::size_t retired_count = 0;
bool reception_started = false;

// STARTTLS's certificate and key. Loaded once: sessions of an earlier
// listener may still use the context, so it is never freed. A failure
// leaves reception running as documented, without STARTTLS, after an
// event; a build without TLS fails here too, never falling back in
// silence. RequireTls without a certificate refuses every message rather
// than take one in plain text.
void load_server_tls() {
    if (server_tls != nullptr) return;
    const bool certificate = !tls_certificate_file.empty();
    const bool key = !tls_key_file.empty();
    if (certificate != key) {
        event_reporter.report(event::setting_invalid,
                              certificate ? "TlsCertificateFile" : "TlsKeyFile",
                              certificate ? "manca TlsKeyFile" : "manca TlsCertificateFile");
    } else if (certificate) {
        char error[200] = "";
        server_tls = os::tls_server_context(tls_certificate_file.c_str(), tls_key_file.c_str(),
                                            error, sizeof error);
        if (server_tls == nullptr)
            event_reporter.report(event::tls_certificate_unusable, tls_certificate_file.c_str(),
                                  tls_key_file.c_str(), error);
    }
    if (require_tls != 0 && server_tls == nullptr)
        event_reporter.report(event::setting_invalid, "RequireTls",
                              "nessun certificato TLS: ogni messaggio rifiutato con 530");
}

void replace_directory_text(CountedString& target, const char* text) {
    if (reception_started && target.text != nullptr && retired_count < max_retired_texts) {
        retired_texts[retired_count++] = target.release();
    }
    target = text;
}

}  // namespace

int prepare_reception(const char* directory) {
    if (smtp_service == nullptr) {
        os::SetLastError(os::ERROR_INVALID_FUNCTION);
        return 0;
    }
    // Two listeners would share listen_socket: refuse while one runs.
    if (listener_running.load() != 0 && stop_flag.load() == 0) {
        os::SetLastError(os::ERROR_ALREADY_INITIALIZED);
        return 0;
    }

    replace_directory_text(spool_dir, directory);
    replace_directory_text(mime_dir, directory);
    append_component(mime_dir, "mime");
    // Makes the spool directory too, as the parent.
    if (!ensure_directory(mime_dir)) {
        return event_reporter.report_error(event::create_directory_failed, mime_dir.c_str(),
                                           os::GetLastError());
    }
    load_server_tls();
    return 1;
}

int start_listener() {
    ThreadHandle listener;
    listener_running.store(1);
    if (!listener.start(smtp_listen, nullptr)) {
        const os::DWORD error = os::GetLastError();
        listener_running.store(0);
        return event_reporter.report_error(event::create_thread_failed, "smtp_listen", error);
    }
    reception_started = true;
    listener.close();
    return 1;
}

int stop_reception() {
    stop_flag.store(1);
    return 1;
}

}  // namespace qbsmtp
