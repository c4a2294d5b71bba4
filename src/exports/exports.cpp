// exports.cpp: the six exported functions of qbsmtp.h. Each is a thin
// entry that calls into the frame or one side; this layer is the only one
// that knows more than one side.

#include <cstdint>

#include "decomposition/mime_type_map_load.h"
#include "decomposition/pickup.h"
#include "frame/module_state.h"
#include "qbsmtp/qbsmtp.h"
#include "reception/reception_control.h"
#include "sending/relay.h"

extern "C" {

QBSMTP_API void QBSMTP_CALL SMTPSetLogging(uint32_t mask) {
    qbsmtp::event_reporter.logging_mask.store(mask, std::memory_order_relaxed);
}

QBSMTP_API int32_t QBSMTP_CALL SMTPRecvInit(const char* directory) {
    if (qbsmtp::prepare_reception(directory) == 0) return 0;
    // The MIME type map is read once, when reception starts.
    qbsmtp::load_mime_type_map();
    return qbsmtp::start_listener();
}

QBSMTP_API int32_t QBSMTP_CALL SMTPRecvStop(void) {
    return qbsmtp::stop_reception();
}

QBSMTP_API int32_t QBSMTP_CALL SMTPRecvNext(MailRecord* record) {
    return qbsmtp::receive_next(record);
}

QBSMTP_API int32_t QBSMTP_CALL SMTPSendInit(const char* relay_host) {
    return qbsmtp::send_init(relay_host);
}

QBSMTP_API int32_t QBSMTP_CALL SMTPSend(MailRecord* record) {
    return qbsmtp::send_record(record);
}

}  // extern "C"
