// port_owner.h: who listens on a TCP port, from Linux's /proc.
//
// The module opens its port on its listener thread after SMTPRecvInit has
// returned, and tells the host nothing when that works. serve learns it
// here instead: a socket of this process in the LISTEN state on the port
// (/proc/net/tcp names the socket's inode, /proc/self/fd holds it) is the
// listener, since Linux lets only one socket listen on a port.
#pragma once

#include <string>

namespace qbsmtp::host {

// A socket of this process listens on the port.
bool this_process_listens(int port);

// Who listens on the port: "" if nobody, else "pid N (NAME)", or "a
// process this user cannot see" when the socket's owner is not found.
std::string port_listener(int port);

}  // namespace qbsmtp::host
