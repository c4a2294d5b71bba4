// os_posix_net_native.h: the native socket and resolver calls of the POSIX
// backend, behind plain types.
//
// The system's socket headers define AF_INET, SOL_SOCKET, SO_REUSEADDR,
// INADDR_ANY and htons as macros, which clash with the Winsock names of
// os_types.h. So the files that speak Winsock (os_posix_socket.cpp,
// os_posix_netdb.cpp) never include them, and the one file that does
// (os_posix_net_native.cpp) never includes os.h. Results follow POSIX:
// -1 (or false) with errno set; addresses and ports in network byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qbsmtp::os::posix::net {

enum class Option { reuse_address, keep_alive, no_delay, receive_timeout, send_timeout };
enum class Flag : unsigned { out_of_band = 1, peek = 2, dont_route = 4, wait_all = 8 };

// Close-on-exec IPv4 socket; stream or datagram.
int open_socket(bool stream, int protocol);
int bind_ipv4(int fd, std::uint32_t address, std::uint16_t port);
int listen_socket(int fd, int backlog);
// Accepts (close-on-exec, retrying EINTR) and gives the peer's address.
int accept_ipv4(int fd, std::uint32_t* address, std::uint16_t* port);
// Connects; one interrupted by a signal is awaited, bounded by SO_SNDTIMEO.
int connect_ipv4(int fd, std::uint32_t address, std::uint16_t port);
// Boolean options take value != 0; time-outs take milliseconds, 0 = none.
int set_option(int fd, Option option, std::uint32_t value);
// how: 0 receive, 1 send, 2 both.
int shutdown_socket(int fd, int how);
// Flags are Flag bits; -1 with EOPNOTSUPP for one that does not apply.
long receive(int fd, char* buffer, std::size_t length, unsigned flags);
// Sends every byte (MSG_NOSIGNAL, EINTR retried).
long send_all(int fd, const char* buffer, std::size_t length, unsigned flags);
int local_ipv4(int fd, std::uint32_t* address, std::uint16_t* port);
// Closes fd if it is a socket; -1 with ENOTSOCK otherwise.
int close_socket(int fd);

// The machine's name; false with errno set.
bool host_name(std::string* name);
// IPv4 addresses of a name (getaddrinfo, so thread-safe). Returns 0 or the
// EAI_* code; the canonical name when there is one.
int resolve_ipv4(const char* name, std::string* canonical, std::vector<std::uint32_t>* addresses);

// Winsock's code for a getaddrinfo failure.
int winsock_from_eai(int eai);

}  // namespace qbsmtp::os::posix::net
