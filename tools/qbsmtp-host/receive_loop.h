// receive_loop.h: one SMTPRecvNext round, shared by serve and parse.
//
// A round prepares a fresh record, calls SMTPRecvNext, prints the record
// as one JSON line if a spool file was taken, frees every block of the
// record with the module's LocalFree and then disposes of the spool file:
// moved to <spool>/done/ or deleted. The module takes the same file again
// until the host removes it, so a file that can't be disposed of stops
// the host (stuck) rather than being printed over and over.
//
// Rounds must not overlap: the module does nothing to keep two calls from
// taking the same file. serve and parse call from one thread.
#pragma once

#include <ostream>
#include <string>

#include "host_record.h"
#include "module_loader.h"

namespace qbsmtp::host {

struct ReceiveSettings {
    SubtypeRank subtype_rank = default_subtype_rank();
    bool delete_taken = false;  // delete spool files instead of keeping them in done/
};

enum class RoundResult {
    empty,         // no spool file was waiting
    failed_empty,  // SMTPRecvNext gave 0 without taking a file
    printed,       // a record was printed and its spool file disposed of
    stuck,         // a record was printed but its spool file could not be removed
};

RoundResult receive_one(const Module& module, const ReceiveSettings& settings, std::ostream& out,
                        std::string& error);

// Moves a taken spool file into the directory "done" beside it, under a
// free name (a later message can bring the same spool name again), or
// deletes it. False with error set if the file is still in place.
bool dispose_spool_file(const std::string& path, bool delete_taken, std::string& error);

}  // namespace qbsmtp::host
