// field_run.h: running the field handlers on given bytes, one field from
// its value, or a header section through a small dispatch loop of the
// address, date and subject fields (everything else is skipped).
#pragma once

#include <cstring>
#include <memory>
#include <string>

#include "byte_stream.h"
#include "decomposition/field_handlers.h"
#include "decomposition/header_scanner.h"
#include "record_fields.h"
#include "support/temp_prefix.h"

namespace qbsmtp::testing {

class FieldRun {
  public:
    explicit FieldRun(const std::string& bytes) : bytes_(bytes) {
        bytes_.context().record = &owned_.record;
    }

    ParseContext& context() { return bytes_.context(); }
    MailRecord& record() { return owned_.record; }
    std::string rest() { return bytes_.rest(); }

    // Reads fields until the header section ends, as the dispatcher does.
    void dispatch() {
        char name[512];
        while (read_field_name(context(), name, sizeof name) == 1) {
            if (more_in_field(context()) == 0) break;
            dispatch_one(name);
        }
    }

  private:
    void dispatch_one(const char* name) {
        struct Route {
            const char* name;
            int kind;  // 0 sender, 1 recipients, 2 date, 3 subject
            int a;
            int b;
        };
        static constexpr Route routes[] = {
            {"FROM", 0, 1, 0},     {"RETURN-PATH", 0, 0, 0},  {"TO", 1, 0, 0},
            {"X-FAX-TO", 1, 0, 1}, {"CC", 1, 1, 0},           {"X-FAX-TO-CC", 1, 1, 1},
            {"BCC", 1, 2, 0},      {"X-FAX-TO-BCC", 1, 2, 1}, {"DATE", 2, 0, 0},
            {"SUBJECT", 3, 0, 0},
        };
        for (const Route& r : routes) {
            if (std::strcmp(r.name, name) != 0) continue;
            switch (r.kind) {
                case 0:
                    parse_sender(context(), r.a);
                    return;
                case 1:
                    parse_recipients(context(), r.a, r.b);
                    return;
                case 2:
                    parse_date(context());
                    return;
                default:
                    parse_subject(context());
                    return;
            }
        }
        skip_field(context());
    }

    test::TempPrefix prefix_;
    OwnedRecord owned_;
    ByteStream bytes_;
};

}  // namespace qbsmtp::testing
