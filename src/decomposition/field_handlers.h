// field_handlers.h: the handlers parse_message's dispatch table calls for
// the originator, recipient, date and subject fields of a message header.
//
// Each is entered with the input stream just behind the field name (the SP
// or colon that ended it) and leaves it on the first byte of the line behind
// the field, as skip_field does. They fill context.record; a deep failure
// (allocation, output) throws the integer 1.
#pragma once

#include "decomposition/parse_context.h"

namespace qbsmtp {

// From, Sender, Reply-To and friends: is_from is 1 for From itself.
void parse_sender(ParseContext& context, int is_from);
// To, Cc, Bcc and the X-FAX- overrides: recipient_class is recipient_to,
// recipient_cc or recipient_bcc; is_fax is 1 for the X-FAX- forms.
void parse_recipients(ParseContext& context, int recipient_class, int is_fax);
// Date.
void parse_date(ParseContext& context);
// Subject.
void parse_subject(ParseContext& context);

}  // namespace qbsmtp
