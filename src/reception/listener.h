// listener.h: the listener thread of SMTP reception.
#pragma once

namespace qbsmtp {

// Entry of the listener thread that SMTPRecvInit starts; clears
// listener_running when it ends.
unsigned smtp_listen(void* unused);

}  // namespace qbsmtp
