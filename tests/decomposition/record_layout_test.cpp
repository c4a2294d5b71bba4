// The MailRecord as a host compiled from another header sees it: fields at
// fixed offsets. The 32-bit offsets are those of the 32-bit Windows module
// (the i386 preset checks them); 64 bits keep the order with natural
// alignment.
#include <gtest/gtest.h>

#include <cstddef>

#include "qbsmtp/qbsmtp.h"

namespace {

struct Place {
    const char* name;
    std::size_t actual, offset32, offset64;
};

#define QBSMTP_AT(field, o32, o64) \
    { #field, offsetof(MailRecord, field), o32, o64 }
const Place places[] = {
    QBSMTP_AT(file_length, 0, 0),
    QBSMTP_AT(file, 4, 8),
    QBSMTP_AT(sender_length, 8, 16),
    QBSMTP_AT(sender, 12, 24),
    QBSMTP_AT(sender_name_length, 16, 32),
    QBSMTP_AT(sender_name, 20, 40),
    QBSMTP_AT(date, 24, 48),
    QBSMTP_AT(to, 32, 56),
    QBSMTP_AT(to_names, 36, 64),
    QBSMTP_AT(cc, 40, 72),
    QBSMTP_AT(cc_names, 44, 80),
    QBSMTP_AT(bcc, 48, 88),
    QBSMTP_AT(bcc_names, 52, 96),
    QBSMTP_AT(subject_length, 56, 104),
    QBSMTP_AT(subject, 60, 112),
    QBSMTP_AT(attachments, 64, 120),
    QBSMTP_AT(temporary_failure, 68, 128),
    QBSMTP_AT(subtype_rank, 72, 136),
};
#undef QBSMTP_AT

TEST(Record, LayoutAsTheHostSeesIt) {
    const bool narrow = sizeof(void*) == 4;
    for (const Place& place : places)
        EXPECT_EQ(place.actual, narrow ? place.offset32 : place.offset64) << place.name;
    EXPECT_EQ(sizeof(MailRecord), narrow ? 76u : 144u);
    EXPECT_EQ(sizeof(QbsmtpFileTime), 8u);
}

}  // namespace
