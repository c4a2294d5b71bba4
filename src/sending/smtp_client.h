// smtp_client.h: SmtpClient, one client conversation with an SMTP peer
// over its SmtpStream, the reply reader and the five commands.
//
// Every end of a conversation, the good one included, leaves by throwing
// an Exception value after its event has been raised, so that the caller
// has one catch and one clean-up. The record is used by SMTPSend, one per
// call, on the caller's stack.
#pragma once

#include <cstddef>
#include <cstdint>

#include "frame/multi_string.h"
#include "frame/smtp_stream.h"
#include "frame/stream.h"
#include "platform/os.h"

namespace qbsmtp {

// How a conversation ended. Thrown by value.
enum class Exception : int {
    delivered = 0,        // the relay took the message and the conversation ended well
    failed_for_now = 1,   // may be tried again
    failed_for_good = 2,  // record or files unfit, or the peer not understood
};

inline constexpr std::size_t client_buffer_size = smtp_buffer_size;
inline constexpr std::size_t client_field_size = 256;  // 255 bytes and a NUL
inline constexpr std::size_t boundary_size = 72;

class SmtpClient : public SmtpStream {
  public:
    int connected = 0;                        // 1 from a successful connect until the clean-up
    int body_is_text = 0;                     // 1 when the first attachment is the text body
    int attachment_count = 0;                 // paths in attachments
    MultiString attachments;                  // private copies of the attachment paths
    Stream* current = nullptr;                // attachment file now open; the clean-up closes it
    char sender[client_field_size] = {};      // reverse path and From text
    char recipients[client_field_size] = {};  // joined forward path and To text
    char subject[client_field_size] = {};     // Subject text
    char boundary[boundary_size] = {};        // MIME boundary, built by emit_date
    os::TlsContext* tls_context = nullptr;    // made per send when RelaySecurity asks for TLS

    SmtpClient() = default;
    ~SmtpClient();
    SmtpClient(const SmtpClient&) = delete;
    SmtpClient& operator=(const SmtpClient&) = delete;

    // Empty buffers: the first read refills, the first write finds 1024 bytes.
    void setup_buffers();

    // The stream's byte write with the client's failure: may throw
    // failed_for_now (see fail_send) when the buffer goes out.
    void put_byte(int c);

    // Closes the socket (no QUIT) and the open file; frees the paths and
    // the TLS context.
    void clean_up();
};

// A send that failed or went short: a relay that stopped reading (the
// time-out) counts as lost, with its event; other send failures carry no
// event of their own. Throws failed_for_now.
[[noreturn]] void fail_send();
// Sends what waits in the buffer, or fail_send.
void write_flush(SmtpClient& client);

inline void SmtpClient::put_byte(int c) {
    if (!SmtpStream::put_byte(c)) fail_send();
}

// Formats into a 1024-byte buffer, echoes it to the debug log and puts it
// into the send buffer. A text that does not fit throws failed_for_now.
void write_format(SmtpClient& client, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// Flushes, then reads one reply; the code of its last line. With text,
// the reply's lines as SmtpStream::read_reply keeps them.
int read_reply(SmtpClient& client, char* text = nullptr, std::size_t size = 0);

void report_unexpected_reply(int code);
// The address as "%d.%d.%d.%d"; buffer holds at least 16 bytes.
char* format_dotted_quad(char* buffer, const os::in_addr& address);

void issue_helo(SmtpClient& client);
void issue_mail(SmtpClient& client, const char* reverse_path);
void issue_rcpt(SmtpClient& client, const char* forward_path);
void issue_data(SmtpClient& client);
void issue_quit(SmtpClient& client);

// ---- Time-outs ---------------------------------------------------------
// A silent peer must not hold the caller's thread for ever: the client
// limits of RFC 5321 section 4.5.3.2, in seconds, unless the SendTimeout
// setting replaces them all.
enum class Phase { connect, greeting, command, data_initiation, data_block, data_termination };
std::uint32_t phase_timeout(Phase phase);
// Sets the receive and send time-outs of the connection for phase; a
// failure raises 0xC0004E92 and throws failed_for_now. The commands and
// read_reply set none themselves: the conversation sets each phase's bound.
void set_phase_timeout(SmtpClient& client, Phase phase);

}  // namespace qbsmtp
