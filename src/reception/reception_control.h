// reception_control.h: starting and stopping reception, the work behind
// SMTPRecvInit and SMTPRecvStop.
//
// Starting is two steps so that the exports layer can load the MIME type
// map between them: prepare_reception checks the module and makes the
// directories, start_listener starts the listener thread. Reception cannot
// be restarted in the same process: after stop_reception a new listener
// sees the stop flag at once.
#pragma once

namespace qbsmtp {

// Takes directory as spool_dir (and its "mime" child as mime_dir) and makes
// both. 1, or 0 with the last error set (and the event raised where the
// failure has one).
int prepare_reception(const char* directory);
// 1 once the listener thread exists; whether the port could be bound
// reaches the outside only as events. 0 with the event raised otherwise.
int start_listener();
// Raises the stop flag; always 1.
int stop_reception();

}  // namespace qbsmtp
