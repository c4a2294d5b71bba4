/* qbsmtp.h: the interface of the QBSMTP mail gateway module.
 *
 * A host loads the module (QBSMTP.so on POSIX, QBSMTP.dll on Windows) and
 * calls its six exports. The module runs an SMTP server that spools accepted
 * mail, takes a spooled message apart into a MailRecord plus one file per
 * text or attachment (SMTPRecvNext), and sends a MailRecord with its
 * attachment files to one SMTP relay (SMTPSend).
 *
 * Calling convention: WINAPI (stdcall) on 32-bit Windows, the platform's C
 * convention elsewhere. Results: 1 success, 0 failure; where a function
 * says so, the reason is in the thread's last error.
 *
 * Memory: every text and list in a MailRecord is a block from LocalAlloc
 * (flags 0). What a call leaves in the record belongs to the host, which
 * releases each non-null block with LocalFree. On POSIX the module exports
 * LocalAlloc, LocalFree and LocalSize for that purpose.
 *
 * Layout: on a 32-bit target the record has exactly the offsets of the
 * 32-bit Windows module (76 bytes, pointers 4 bytes wide). On a 64-bit
 * target the fields stand in the same order with natural alignment:
 * 8-byte pointers, so a length is followed by 4 bytes of padding; the
 * record is then 144 bytes. Both layouts are checked at compile time.
 */
#ifndef QBSMTP_QBSMTP_H
#define QBSMTP_QBSMTP_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define QBSMTP_CALL __stdcall
#else
#define QBSMTP_CALL
#endif

#if defined(QBSMTP_BUILDING_MODULE)
#if defined(_WIN32)
#define QBSMTP_API
#else
#define QBSMTP_API __attribute__((visibility("default")))
#endif
#else
#define QBSMTP_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* A FILETIME: 100 ns units since 1 January 1601, UTC, low word first. */
typedef struct QbsmtpFileTime {
    uint32_t low;
    uint32_t high;
} QbsmtpFileTime;

/* The record exchanged with the host. Text fields are counted strings:
 * the length in bytes without the NUL, then the text. Lists (to, cc, bcc,
 * their name lists, attachments) are packed blocks of NUL-terminated
 * entries ended by one more NUL; a null block is the empty list. */
typedef struct MailRecord {
    int32_t file_length;
    char* file;
    int32_t sender_length;
    char* sender;
    int32_t sender_name_length;
    char* sender_name;
    QbsmtpFileTime date;
    char* to;
    char* to_names;
    char* cc;
    char* cc_names;
    char* bcc;
    char* bcc_names;
    int32_t subject_length;
    char* subject;
    char* attachments;
    int32_t temporary_failure;
    const unsigned char* subtype_rank; /* QBSMTP_SUBTYPE_COUNT bytes, the host's */
} MailRecord;

/* Subtype codes: the indexes of subtype_rank. A lower rank is preferred
 * among the parts of a multipart/alternative. */
enum {
    QBSMTP_SUBTYPE_PLAIN = 0,
    QBSMTP_SUBTYPE_ENRICHED = 1,
    QBSMTP_SUBTYPE_HTML = 2,
    QBSMTP_SUBTYPE_MIXED = 3,
    QBSMTP_SUBTYPE_PARALLEL = 4,
    QBSMTP_SUBTYPE_DIGEST = 5,
    QBSMTP_SUBTYPE_ALTERNATIVE = 6,
    QBSMTP_SUBTYPE_RFC822 = 7,
    QBSMTP_SUBTYPE_PARTIAL = 8,
    QBSMTP_SUBTYPE_EXTERNAL_BODY = 9,
    QBSMTP_SUBTYPE_TIFF = 10,
    QBSMTP_SUBTYPE_GIF = 11,
    QBSMTP_SUBTYPE_JPEG = 12,
    QBSMTP_SUBTYPE_BASIC = 13,
    QBSMTP_SUBTYPE_MPEG = 14,
    QBSMTP_SUBTYPE_OCTET_STREAM = 15,
    QBSMTP_SUBTYPE_POSTSCRIPT = 16,
    QBSMTP_SUBTYPE_OTHER = 17,
    QBSMTP_SUBTYPE_COUNT = 18
};

/* Bits of the logging mask given to SMTPSetLogging. */
#define QBSMTP_LOG_SESSIONS 0x80000000u     /* session start/end, accepted mail */
#define QBSMTP_LOG_DEBUG_COPY 0x00200000u   /* copy each accepted file to Debug */
#define QBSMTP_LOG_SEND_SUCCESS 0x00100000u /* report each delivered message */

QBSMTP_API void QBSMTP_CALL SMTPSetLogging(uint32_t mask);
QBSMTP_API int32_t QBSMTP_CALL SMTPRecvInit(const char* spool_dir);
QBSMTP_API int32_t QBSMTP_CALL SMTPRecvStop(void);
QBSMTP_API int32_t QBSMTP_CALL SMTPRecvNext(MailRecord* record);
QBSMTP_API int32_t QBSMTP_CALL SMTPSendInit(const char* relay_host);
QBSMTP_API int32_t QBSMTP_CALL SMTPSend(MailRecord* record);

#if !defined(_WIN32)
/* The Windows local-memory functions, for blocks of the record. */
QBSMTP_API void* LocalAlloc(unsigned int flags, size_t bytes);
QBSMTP_API void* LocalFree(void* block);
QBSMTP_API size_t LocalSize(void* block);
#endif

#ifdef __cplusplus
}
#endif

/* The layout is an external format: check it where it is compiled. */
#if defined(__cplusplus)
#define QBSMTP_LAYOUT_CHECK(e, m) static_assert(e, m)
#else
#define QBSMTP_LAYOUT_CHECK(e, m) _Static_assert(e, m)
#endif
#if UINTPTR_MAX == 0xFFFFFFFFu
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, file_length) == 0, "file length");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, file) == 4, "file");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, sender_length) == 8, "sender length");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, sender) == 12, "sender");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, sender_name_length) == 16, "sender_name length");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, sender_name) == 20, "sender_name");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, date) == 24, "date");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, to) == 32, "to");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, to_names) == 36, "to_names");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, cc) == 40, "cc");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, cc_names) == 44, "cc_names");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, bcc) == 48, "bcc");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, bcc_names) == 52, "bcc_names");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, subject_length) == 56, "subject length");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, subject) == 60, "subject");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, attachments) == 64, "attachments");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, temporary_failure) == 68, "temporary_failure");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, subtype_rank) == 72, "subtype_rank");
QBSMTP_LAYOUT_CHECK(sizeof(MailRecord) == 76, "record size");
#elif UINTPTR_MAX == 0xFFFFFFFFFFFFFFFFu
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, file) == 8, "file");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, sender) == 24, "sender");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, sender_name) == 40, "sender_name");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, date) == 48, "date");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, to) == 56, "to");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, bcc_names) == 96, "bcc_names");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, subject_length) == 104, "subject length");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, subject) == 112, "subject");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, attachments) == 120, "attachments");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, temporary_failure) == 128, "temporary_failure");
QBSMTP_LAYOUT_CHECK(offsetof(MailRecord, subtype_rank) == 136, "subtype_rank");
QBSMTP_LAYOUT_CHECK(sizeof(MailRecord) == 144, "record size");
#endif
#undef QBSMTP_LAYOUT_CHECK

#endif /* QBSMTP_QBSMTP_H */
