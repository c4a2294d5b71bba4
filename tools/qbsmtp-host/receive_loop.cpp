// receive_loop.cpp: one round of SMTPRecvNext and the disposal of its file.
#include "receive_loop.h"

#include <filesystem>
#include <system_error>

#include "record_json.h"

namespace qbsmtp::host {

namespace fs = std::filesystem;

bool dispose_spool_file(const std::string& path, bool delete_taken, std::string& error,
                        const fs::path& done_directory) {
    std::error_code failure;
    const fs::path source(path);
    // Gone already (removed by hand): the module can't take it again either.
    if (!fs::exists(source, failure) && !failure) return true;
    if (delete_taken) {
        if (fs::remove(path, failure)) return true;
        error = "cannot delete " + path + (failure ? ": " + failure.message() : "");
        return false;
    }
    const fs::path done = done_directory.empty() ? source.parent_path() / "done" : done_directory;
    fs::create_directories(done, failure);
    if (failure) {
        error = "cannot create " + done.string() + ": " + failure.message();
        return false;
    }
    fs::path target = done / source.filename();
    for (int suffix = 1; fs::exists(target, failure); ++suffix)
        target = done / (source.filename().string() + "." + std::to_string(suffix));
    fs::rename(source, target, failure);
    if (failure) {
        error = "cannot move " + path + " to " + target.string() + ": " + failure.message();
        return false;
    }
    return true;
}

std::string json_line(const nlohmann::ordered_json& record) {
    return record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

RecordHandler print_and_dispose(std::ostream& out, bool delete_taken) {
    return [&out, delete_taken](const std::string& spool_file, nlohmann::ordered_json record,
                                std::string& error) {
        out << json_line(record) << '\n' << std::flush;
        return dispose_spool_file(spool_file, delete_taken, error) ? Disposal::disposed
                                                                   : Disposal::stuck;
    };
}

RoundResult receive_one(const Module& module, const SubtypeRank& subtype_rank,
                        const RecordHandler& handle, std::string& error) {
    const Allocator allocator{module.local_alloc, module.local_free};
    MailRecord record;
    prepare_for_receive(record, subtype_rank.data());
    const bool ok = module.recv_next(&record) == 1;
    if (record.file == nullptr || *record.file == '\0') {
        release_record(record, allocator);
        return ok ? RoundResult::empty : RoundResult::failed_empty;
    }
    nlohmann::ordered_json json = record_to_json(record, ok);
    const std::string taken = record.file;
    release_record(record, allocator);
    return round_result(handle(taken, std::move(json), error));
}

RoundResult round_result(Disposal disposal) {
    switch (disposal) {
        case Disposal::disposed:
            return RoundResult::taken;
        case Disposal::stopped:
            return RoundResult::stopped;
        case Disposal::stuck:
            break;
    }
    return RoundResult::stuck;
}

}  // namespace qbsmtp::host
