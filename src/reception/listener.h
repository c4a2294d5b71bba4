// listener.h: the listener thread and the session threads it starts.
//
// smtp_listen opens the port of smtp_service on all local IPv4 addresses
// and accepts connections until it sees stop_flag after an accept; each
// connection gets a SmtpSession and a detached thread running
// session_thread, which owns the session from then on and is the one
// place where a session ends. Failures reach the outside only as events.
#pragma once

#include "platform/os.h"

namespace qbsmtp {

// Entry of the listener thread; the argument is ignored, the result is 0.
// Clears listener_running when it ends.
unsigned smtp_listen(void* argument);
// Entry of a session thread; takes over the SmtpSession it is given.
unsigned session_thread(void* argument);
// Bounds every recv and send on the socket by session_timeout seconds (0:
// no bound), so a silent peer ends like one that closed.
void apply_session_timeout(os::SOCKET socket);

}  // namespace qbsmtp
