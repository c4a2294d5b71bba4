// check.cpp: qbsmtp-host check, what an administrator runs first. One line
// for each thing serve and send depend on, "ok" or "PROBLEM" first; exit 0
// when every line is ok, 1 otherwise. It changes nothing but the module's
// own load-time writes and an empty spool directory it may create.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <string>

#if QBSMTP_HOST_TLS
#include <openssl/err.h>
#include <openssl/ssl.h>
#endif

#include "commands.h"
#include "event_log.h"
#include "module_loader.h"
#include "platform_prefix.h"
#include "port_owner.h"
#include "stop_signals.h"

namespace qbsmtp::host {

namespace {

namespace fs = std::filesystem;

bool all_ok = true;

void say(bool ok, const std::string& what, const std::string& detail) {
    all_ok &= ok;
    std::cout << (ok ? "ok       " : "PROBLEM  ") << what << ": " << detail << '\n';
}

// The lines of registry.reg that its reader would pass over: anything but
// blanks, comments, the header, [key] lines and "name"=value / @=value
// lines with a quoted string, a dword or hex data (hex data may go on over
// lines ending in a backslash).
void check_settings(const Prefix& prefix) {
    std::ifstream input(prefix.registry());
    if (!input) {
        say(true, "settings", prefix.registry().string() + " does not exist yet: defaults apply");
        return;
    }
    static const std::regex understood(
        R"(\s*(|;.*|REGEDIT4|Windows Registry Editor Version 5\.00|\[.+\]|)"
        R"((".*"|@)\s*=\s*(-|"([^"\\]|\\.)*"|dword:[0-9A-Fa-f]{1,8}|hex(\([0-9A-Fa-f]+\))?:[0-9A-Fa-f, ]*\\?))\s*)");
    static const std::regex hex_continuation(R"(\s*[0-9A-Fa-f, ]*\\?\s*)");
    std::string line, problems;
    bool continued = false;
    for (int number = 1; std::getline(input, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        const bool ok = std::regex_match(line, continued ? hex_continuation : understood);
        continued = ok && !line.empty() && line.find_last_not_of(" \t") != std::string::npos &&
                    line[line.find_last_not_of(" \t")] == '\\';
        if (!ok) problems += (problems.empty() ? "" : ", ") + std::to_string(number);
    }
    if (problems.empty())
        say(true, "settings", prefix.registry().string() + " parses");
    else
        say(false, "settings",
            prefix.registry().string() + " lines " + problems +
                " are not understood and are passed over");
}

void check_module(const CheckOptions& options, const Prefix& prefix) {
    EventLogReader events(prefix.events(), true);
    Module module;
    std::string error;
    if (!module.load(module_candidates(options.module_path), error)) {
        say(false, "module", error);
        return;
    }
    std::string said;
    for (const auto& line : events.read_new_lines())
        if (event_type(line) == "error") said += "; " + format_event(line);
    say(said.empty(), "module", module.path + (said.empty() ? " loads" : " loads but says" + said));
}

// The last "name"="text" line of registry.reg (a later line wins), its
// escapes undone; empty when there is none.
std::string registry_text(const Prefix& prefix, const std::string& name) {
    std::ifstream input(prefix.registry());
    const std::regex value("\\s*\"" + name + "\"\\s*=\\s*\"((?:[^\"\\\\]|\\\\.)*)\"\\s*\r?");
    static const std::regex escape(R"(\\(.))");
    std::string line, found;
    std::smatch match;
    while (std::getline(input, line))
        if (std::regex_match(line, match, value))
            found = std::regex_replace(match[1].str(), escape, "$1");
    return found;
}

// STARTTLS's certificate and key, loaded as the module loads them at
// SMTPRecvInit, and the certificate's end of validity.
void check_tls(const Prefix& prefix) {
    const std::string certificate = registry_text(prefix, "TlsCertificateFile");
    const std::string key = registry_text(prefix, "TlsKeyFile");
    const std::string what = "TLS certificate";
    if (certificate.empty() && key.empty()) return say(true, what, "not set: no STARTTLS");
#if QBSMTP_HOST_TLS
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    std::string problem, until;
    if (context == nullptr) {
        problem = "no TLS context";
    } else if (certificate.empty() || key.empty()) {
        problem = "TlsCertificateFile and TlsKeyFile go together: no STARTTLS";
    } else if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1) {
        problem = certificate + " does not load: reception runs without STARTTLS";
    } else if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1 ||
               SSL_CTX_check_private_key(context) != 1) {
        problem = key + " does not load or is not the certificate's key: no STARTTLS";
    } else {
        const ASN1_TIME* end = X509_get0_notAfter(SSL_CTX_get0_certificate(context));
        BIO* text = BIO_new(BIO_s_mem());
        char* data = nullptr;
        if (text != nullptr && ASN1_TIME_print(text, end) == 1) {
            const long length = BIO_get_mem_data(text, &data);
            until.assign(data, static_cast<std::size_t>(length));
        }
        BIO_free(text);
        if (X509_cmp_current_time(end) < 0)
            problem = certificate + " expired " + until + ": clients that check it refuse STARTTLS";
    }
    SSL_CTX_free(context);
    ERR_clear_error();
    say(problem.empty(), what,
        problem.empty() ? certificate + " and its key load and match; valid until " + until
                        : problem);
#else
    say(false, what, "set, but this build has no TLS: reception runs without STARTTLS");
#endif
}

void check_port(const Prefix& prefix) {
    const int port = effective_smtp_port(prefix);
    const std::string what = "port " + std::to_string(port);
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    ::setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);  // as the module binds
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool bound = ::bind(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    const int code = errno;
    ::close(s);
    if (bound) return say(true, what, "free");
    if (code == EACCES)
        return say(false, what, "needs root or CAP_NET_BIND_SERVICE (or --port in serve)");
    const std::string holder = port_listener(port);
    say(false, what,
        "held by " + (holder.empty() ? std::string("a socket that does not listen") : holder));
}

void check_spool(const CheckOptions& options, const Prefix& prefix) {
    std::error_code failure;
    const fs::path spool = options.spool.empty() ? prefix.spool() : fs::path(options.spool);
    fs::create_directories(spool, failure);
    const fs::path probe = spool / ".qbsmtp-check";
    { std::ofstream(probe) << "check\n"; }
    const bool writable = fs::exists(probe, failure) && fs::remove(probe, failure);
    say(writable, "spool " + spool.string(), writable ? "writable" : "not writable");
}

// Reads up to a line end or the time-out; empty on failure.
std::string read_line(int s) {
    std::string text;
    char c;
    while (text.size() < 512 && ::recv(s, &c, 1, 0) == 1 && c != '\n') text += c;
    if (!text.empty() && text.back() == '\r') text.pop_back();
    return text;
}

void check_relay(const CheckOptions& options, const Prefix& prefix) {
    if (options.relay.empty()) return say(true, "relay", "not checked (give --relay HOST)");
    const int port = options.relay_port.value_or(effective_smtp_port(prefix));
    const std::string what = "relay " + options.relay + " port " + std::to_string(port);
    addrinfo hints{}, *found = nullptr;
    hints.ai_family = AF_INET;  // the module sends over IPv4 only
    hints.ai_socktype = SOCK_STREAM;
    if (::getaddrinfo(options.relay.c_str(), nullptr, &hints, &found) != 0 || found == nullptr)
        return say(false, what, "the name does not resolve to an IPv4 address");
    sockaddr_in address = *reinterpret_cast<sockaddr_in*>(found->ai_addr);
    ::freeaddrinfo(found);
    address.sin_port = htons(static_cast<uint16_t>(port));
    char text[INET_ADDRSTRLEN] = "?";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    const int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval timeout{options.timeout_seconds, 0};
    ::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    ::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (::connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const std::string reason = std::strerror(errno);
        ::close(s);
        return say(false, what, std::string("resolves to ") + text + ", connect: " + reason);
    }
    const std::string greeting = read_line(s);
    ::send(s, "QUIT\r\n", 6, MSG_NOSIGNAL);
    ::close(s);
    const bool ready = greeting.size() >= 3 && greeting[0] == '2';
    say(ready, what,
        std::string("resolves to ") + text + ", " +
            (greeting.empty() ? "no greeting" : "greets \"" + greeting + "\""));
}

}  // namespace

int run_check(const CheckOptions& options) {
    const Prefix prefix = resolve_prefix();
    block_stop_signals();
    check_settings(prefix);
    check_port(prefix);  // before the module loads and its listener could appear
    check_module(options, prefix);
    check_spool(options, prefix);
    check_tls(prefix);
    check_relay(options, prefix);
    return all_ok ? 0 : 1;
}

}  // namespace qbsmtp::host
