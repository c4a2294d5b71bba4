// receive_loop.h: one SMTPRecvNext round, shared by serve and parse.
//
// A round prepares a fresh record, calls SMTPRecvNext, turns the record
// into JSON if a spool file was taken, frees every block of the record
// with the module's LocalFree, and hands the JSON to a handler: the plain
// one prints it as one line and moves the spool file to <spool>/done/ (or
// deletes it); the bridge runs a command (bridge.h). The module takes the
// same file again until the host removes it, so a file that can't be
// disposed of stops the host (stuck) rather than being handled over and
// over.
//
// Rounds must not overlap: the module does nothing to keep two calls from
// taking the same file. serve and parse call from one thread.
#pragma once

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "host_record.h"
#include "module_loader.h"

namespace qbsmtp::host {

enum class Disposal {
    disposed,  // the spool file has left the queue's head
    stuck,     // it is still in place (error says why)
    stopped,   // a stop signal came first; the file is where it was
};

// spool_file is the record's file as the module gave it (the JSON has it
// converted to UTF-8).
using RecordHandler = std::function<Disposal(const std::string& spool_file,
                                             nlohmann::ordered_json record, std::string& error)>;

enum class RoundResult {
    empty,         // no spool file was waiting
    failed_empty,  // SMTPRecvNext gave 0 without taking a file
    taken,         // a record was handled and its spool file disposed of
    stuck,         // a record was handled but its spool file could not be removed
    stopped,       // a stop signal came while the record was handled
};

// What a round makes of its handler's outcome.
RoundResult round_result(Disposal disposal);

RoundResult receive_one(const Module& module, const SubtypeRank& subtype_rank,
                        const RecordHandler& handle, std::string& error);

// The handler without a command: one JSON line on out, then
// dispose_spool_file.
RecordHandler print_and_dispose(std::ostream& out, bool delete_taken);

// The JSON line of a record, invalid UTF-8 replaced.
std::string json_line(const nlohmann::ordered_json& record);

// Moves a taken spool file into done_directory (default: "done" beside
// it), under a free name (a later message can bring the same spool name
// again), or deletes it. False with error set if the file is still in place.
bool dispose_spool_file(const std::string& path, bool delete_taken, std::string& error,
                        const std::filesystem::path& done_directory = {});

}  // namespace qbsmtp::host
