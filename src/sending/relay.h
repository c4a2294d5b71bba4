// relay.h: the one relay of the sending side. SMTPSendInit resolves it
// into relay_address; SMTPSend (exported, see qbsmtp.h) makes one attempt
// per call over a new connection and ends in one catch.
#pragma once

#include "platform/os.h"

namespace qbsmtp {

// All zero until the first SMTPSendInit that succeeds; replaced as a whole
// by each later one; never cleared.
extern os::sockaddr_in relay_address;

}  // namespace qbsmtp
