// relay.h: the one relay of the sending side. SMTPSendInit resolves it
// into relay_address; SMTPSend (exported, see qbsmtp.h) makes one attempt
// per call over a new connection and ends in one catch.
#pragma once

#include <cstddef>

#include "platform/os.h"
#include "qbsmtp/qbsmtp.h"

namespace qbsmtp {

// All zero until the first SMTPSendInit that succeeds; replaced as a whole
// by each later one; never cleared.
extern os::sockaddr_in relay_address;
// The name given to the same SMTPSendInit: the name its certificate must
// match, and the relay of the TLS events.
inline constexpr std::size_t relay_name_size = 256;
extern char relay_name[relay_name_size];

// SMTPSendInit: resolves relay_host into relay_address. 1, or 0 after the
// event (the module not attached: ERROR_INVALID_FUNCTION, no event).
int send_init(const char* relay_host);
// SMTPSend: one attempt to deliver record; 1 when the relay took it, else
// 0 with record->temporary_failure telling whether a retry may help.
int send_record(MailRecord* record);

}  // namespace qbsmtp
