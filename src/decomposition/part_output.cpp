// part_output.cpp: failed writes of part files, and their closing.
#include "decomposition/part_output.h"

#include "frame/message_catalogue.h"
#include "frame/module_state.h"
#include "platform/os.h"

namespace qbsmtp {

void fail_write(const char* who) {
    event_reporter.report_error(event::write_failed, who, os::GetLastError());
    throw 1;
}

void close_output(ParseContext& context) {
    Stream* output = context.output;
    context.output = nullptr;
    if (output->close() != 0) fail_write(context.output_path.c_str());
}

}  // namespace qbsmtp
