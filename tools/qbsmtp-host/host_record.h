// host_record.h: the host's side of a MailRecord's life.
//
// Every text and list in a record is a block from the module's LocalAlloc,
// and what a call leaves in the record belongs to the host, which frees
// each non-null block with the module's LocalFree. The allocator is passed
// in, so the same code serves the loaded module and the tests.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

#include "qbsmtp/qbsmtp.h"

namespace qbsmtp::host {

struct Allocator {
    void* (*alloc)(unsigned int flags, std::size_t bytes) = nullptr;
    void* (*free)(void* block) = nullptr;
};

using SubtypeRank = std::array<unsigned char, QBSMTP_SUBTYPE_COUNT>;

// The state SMTPRecvNext expects: every text empty with a null pointer,
// every list null, date zero, subtype_rank set. The module clears nothing
// itself, so a record must go through this before each call.
void prepare_for_receive(MailRecord& record, const unsigned char* subtype_rank);

// Frees every non-null text and list block with allocator.free and leaves
// the record as prepare_for_receive would (subtype_rank is kept: the host
// owns that table). Safe to call on a record that holds nothing.
void release_record(MailRecord& record, const Allocator& allocator);

// A NUL-terminated copy of text in a fresh block; null if the allocation
// failed. length receives the byte count without the NUL.
char* allocate_text(const std::string& text, std::int32_t& length, const Allocator& allocator);

// A packed list: each entry with its NUL, then one further NUL. An empty
// list gives null (the record's empty list). Entries must not be empty,
// since an empty entry would end the list early; the caller checks that.
// Null also if the allocation failed, with failed set.
char* allocate_list(const std::vector<std::string>& entries, const Allocator& allocator,
                    bool& failed);

// The entries of a packed list; a null block is the empty list.
std::vector<std::string> list_entries(const char* block);

// Preference among the parts of a multipart/alternative: plain text first,
// then enriched text, then HTML, and every other subtype behind them.
SubtypeRank default_subtype_rank();

// A rank table from a preference list such as "html,plain": the named
// subtypes in that order before all others, which keep their relative
// order from the default table. Names are those of subtype_names(). False
// with error set for an unknown or repeated name.
bool parse_subtype_preference(const std::string& list, SubtypeRank& rank, std::string& error);

// The subtype names, indexed by subtype code.
const std::array<const char*, QBSMTP_SUBTYPE_COUNT>& subtype_names();

}  // namespace qbsmtp::host
