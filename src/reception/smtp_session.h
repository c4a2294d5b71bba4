// smtp_session.h: SmtpSession, the record of one accepted SMTP connection,
// and the result codes that its readers and parsers hand back.
//
// A session is allocated by the listener, owned by its own thread from the
// moment the start latch opens, and freed by that thread. Nothing else
// reads or writes it. The socket and the spool stream are closed by
// session_thread, never by the destructor.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include "frame/smtp_stream.h"
#include "frame/stream.h"
#include "frame/thread_handle.h"
#include "platform/os.h"

namespace qbsmtp {

// Results of the readers and parsers beside the command codes 0 to 13.
inline constexpr int SESSION_GONE = 14;  // a read gave no byte
inline constexpr int LINE_CLEAN = 15;    // the line ended at once / the literal matched
inline constexpr int LINE_EXTRA = 16;    // other text, no such command, no match

inline constexpr std::size_t session_field_size = 512;  // helo_domain, reverse_path

// Opened by the listener once ThreadHandle::start has returned, so that
// the session thread never frees the record while start still writes the
// handle and thread id into it. The listener's last touch of the session
// is open(); the waiter cannot leave wait() before open() released the
// mutex, so freeing the latch afterwards is safe.
class StartLatch {
  public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        opened_ = true;
        ready_.notify_one();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [this] { return opened_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable ready_;
    bool opened_ = false;
};

// The stream's socket is the accepted connection.
class SmtpSession : public SmtpStream {
  public:
    ThreadHandle thread;                         // its thread_id stands in the greeting
    Stream* spool = nullptr;                     // open spool file during DATA, else null
    char helo_domain[session_field_size] = {};   // domain of the last HELO; empty at first
    char reverse_path[session_field_size] = {};  // path of the last MAIL; empty at first
    char spool_path[os::MAX_PATH] = {};          // path of the current spool file
    bool esmtp = false;                          // greeted by EHLO: Received says ESMTP(S)
    StartLatch start_latch;                      // see StartLatch

    SmtpSession() = default;
    SmtpSession(const SmtpSession&) = delete;
    SmtpSession& operator=(const SmtpSession&) = delete;
};

// Session threads started and not yet ended: raised before a session's
// thread starts, lowered as the thread's last touch of module state. No
// list of sessions exists; the count lets a test process wait until no
// session reads the module-wide texts any more before they are destroyed.
extern std::atomic<int> sessions_running;

// Allocates a session with LocalAlloc (so a test can make it fail through
// the fault seam); null when there is no memory.
SmtpSession* make_session();
// Destroys and frees a session from make_session.
void free_session(SmtpSession* session);

}  // namespace qbsmtp
