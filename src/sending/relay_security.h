// relay_security.h: what a RelaySecurity above 0 adds to the conversation
// with the relay: TLS (from the first byte, or after STARTTLS), EHLO and
// AUTH. With RelaySecurity 0 none of it runs and the dialogue is the
// documented one, HELO first.
//
// Every refusal ends the attempt as the client's other failures do, by
// throwing an Exception after its event: what asking again cannot mend
// (a required STARTTLS or AUTH the relay lacks, a failed handshake or
// check of the certificate, a 5xx to AUTH) is failed_for_good; 454 and
// other 4xx replies are failed_for_now.
#pragma once

#include "sending/smtp_client.h"

namespace qbsmtp {

// Before the greeting: makes the TLS context, warns when the certificate
// goes unchecked, and with RelaySecurity 3 runs the handshake at once.
void open_relay_security(SmtpClient& client, const char* relay_name);
// After the greeting, in place of HELO: EHLO, STARTTLS, EHLO again, AUTH.
void greet_relay(SmtpClient& client, const char* relay_name);

}  // namespace qbsmtp
