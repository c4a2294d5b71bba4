// message_queue.cpp: the done/, deferred/ and failed/ directories.
#include "message_queue.h"

#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>
#include <vector>

#include "event_log.h"
#include "receive_loop.h"

namespace qbsmtp::host {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using nlohmann::ordered_json;

// A name in directory under which neither NAME, NAME.json nor NAME.files
// exists: base, then base.1, base.2, ...
fs::path free_name(const fs::path& directory, const std::string& base) {
    std::error_code failure;
    std::string name = base;
    for (int suffix = 1; fs::exists(directory / name, failure) ||
                         fs::exists(directory / (name + ".json"), failure) ||
                         fs::exists(directory / (name + ".files"), failure);
         ++suffix)
        name = base + "." + std::to_string(suffix);
    return directory / name;
}

std::uint64_t inode_of(const fs::path& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_ino) : 0;
}

// Writes the sidecar whole under a temporary name and renames it into place.
bool write_sidecar(const fs::path& path, const ordered_json& content, std::string& error) {
    const fs::path temporary = path.string() + ".new";
    {
        std::ofstream output(temporary, std::ios::trunc);
        output << content.dump(1, ' ', false, json::error_handler_t::replace) << '\n';
        output.flush();
        if (!output) {
            error = "cannot write " + temporary.string();
            return false;
        }
    }
    std::error_code failure;
    fs::rename(temporary, path, failure);
    if (failure) error = "cannot write " + path.string() + ": " + failure.message();
    return !failure;
}

// A sidecar's content; nothing unless it has the members this file reads,
// of the right types, so that a damaged one can't throw later.
std::optional<ordered_json> read_sidecar(const fs::path& path) {
    std::ifstream input(path);
    ordered_json content = ordered_json::parse(input, nullptr, false);
    if (content.is_discarded() || !content.is_object() || !content["record"].is_object())
        return std::nullopt;
    for (const char* name : {"source", "deferred_sidecar", "reason"})
        if (content.contains(name) && !content[name].is_string()) return std::nullopt;
    for (const char* name : {"inode", "next_try", "first_deferred", "tries"})
        if (content.contains(name) && !content[name].is_number_integer()) return std::nullopt;
    for (const auto& move : content.value("moves", ordered_json::array()))
        if (!move.is_array() || move.size() != 2 || !move[0].is_string() || !move[1].is_string())
            return std::nullopt;
    return content;
}

bool rename_file(const fs::path& from, const fs::path& to, std::string& error) {
    std::error_code failure;
    fs::rename(from, to, failure);
    if (failure)
        error = "cannot move " + from.string() + " to " + to.string() + ": " + failure.message();
    return !failure;
}

// The source of a sidecar is still the file that was being moved.
bool source_unchanged(const ordered_json& sidecar) {
    const std::string source = sidecar.value("source", "");
    return !source.empty() && inode_of(source) != 0 &&
           inode_of(source) == sidecar.value("inode", std::uint64_t{0});
}

std::vector<fs::path> sidecars_in(const fs::path& directory) {
    std::vector<fs::path> found;
    std::error_code failure;
    for (const auto& entry : fs::directory_iterator(directory, failure)) {
        const fs::path path = entry.path();
        if (path.extension() == ".new" && path.stem().extension() == ".json")
            fs::remove(path, failure);  // a sidecar never renamed into place
        else if (path.extension() == ".json")
            found.push_back(path);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// The data file a sidecar belongs to: its name without .json.
fs::path data_of(const fs::path& sidecar) {
    return sidecar.parent_path() / sidecar.stem();
}

}  // namespace

long RetrySchedule::delay_after(int deferrals) const {
    long delay = first_seconds;
    for (int n = 1; n < deferrals && delay < cap_seconds; ++n) delay *= 2;
    return std::min(delay, std::max(cap_seconds, first_seconds));
}

MessageQueue::MessageQueue(const fs::path& spool, RetrySchedule schedule, fs::path event_log,
                           bool delete_done)
    : done_(spool / "done"),
      deferred_(spool / "deferred"),
      failed_(spool / "failed"),
      log_(std::move(event_log)),
      schedule_(schedule),
      delete_done_(delete_done) {}

void MessageQueue::repair_and_load() {
    std::string error;
    std::error_code failure;
    // A failing move first: its source may be a deferred message.
    for (const fs::path& sidecar : sidecars_in(failed_)) {
        const fs::path data = data_of(sidecar);
        const auto content = read_sidecar(sidecar);
        if (fs::exists(data, failure) || !content || !source_unchanged(*content)) continue;
        for (const auto& move : content->value("moves", ordered_json::array()))
            if (fs::exists(move[0].get<std::string>(), failure))
                rename_file(move[0].get<std::string>(), move[1].get<std::string>(), error);
        if (rename_file((*content)["source"].get<std::string>(), data, error)) {
            const std::string deferred_sidecar = content->value("deferred_sidecar", "");
            if (!deferred_sidecar.empty()) fs::remove(deferred_sidecar, failure);
            report_host_event(
                log_, host_event::queue_repaired,
                "finished moving " + content->value("source", "") + " to " + data.string());
        }
    }
    for (const fs::path& sidecar : sidecars_in(deferred_)) {
        const fs::path data = data_of(sidecar);
        const auto content = read_sidecar(sidecar);
        if (!content) {
            report_host_event(log_, host_event::queue_repaired,
                              "unreadable " + sidecar.string() + " left alone");
            continue;
        }
        if (!fs::exists(data, failure)) {
            if (source_unchanged(*content) &&
                rename_file((*content)["source"].get<std::string>(), data, error)) {
                report_host_event(log_, host_event::queue_repaired,
                                  "finished deferring " + content->value("source", ""));
            } else {
                // The message left before its sidecar did: nothing waits here.
                fs::remove(sidecar, failure);
                continue;
            }
        }
        due_[sidecar] = content->value("next_try", std::int64_t{0});
    }
}

std::optional<QueuedMessage> MessageQueue::take_due(std::int64_t now) {
    while (!due_.empty()) {
        const auto first =
            std::min_element(due_.begin(), due_.end(),
                             [](const auto& a, const auto& b) { return a.second < b.second; });
        if (first->second > now) return std::nullopt;
        const fs::path sidecar = first->first;
        const auto content = read_sidecar(sidecar);
        if (!content) {
            due_.erase(first);
            report_host_event(log_, host_event::queue_repaired,
                              sidecar.string() + " is gone or unreadable; not retried");
            continue;
        }
        QueuedMessage message;
        message.file = data_of(sidecar);
        message.record = (*content)["record"];
        message.sidecar = sidecar;
        message.tries = content->value("tries", 0);
        message.first_deferred = content->value("first_deferred", std::int64_t{0});
        return message;
    }
    return std::nullopt;
}

std::optional<std::int64_t> MessageQueue::seconds_until_due(std::int64_t now) const {
    std::optional<std::int64_t> soonest;
    for (const auto& [sidecar, next] : due_) soonest = std::min(soonest.value_or(next), next);
    if (!soonest) return std::nullopt;
    return std::max<std::int64_t>(*soonest - now, 0);
}

bool MessageQueue::mark_done(const QueuedMessage& message, std::string& error) {
    if (!dispose_spool_file(message.file.string(), delete_done_, error, done_)) return false;
    if (!message.sidecar.empty()) {
        std::error_code failure;
        fs::remove(message.sidecar, failure);
        due_.erase(message.sidecar);
    }
    return true;
}

bool MessageQueue::defer(QueuedMessage& message, const std::string& reason, std::int64_t now,
                         std::string& error) {
    if (message.first_deferred == 0) message.first_deferred = now;
    if (now - message.first_deferred >= schedule_.max_seconds)
        return fail(message,
                    reason + "; given up after " + std::to_string(message.tries) + " tries in " +
                        std::to_string(now - message.first_deferred) + " s",
                    error);
    const std::int64_t next = now + schedule_.delay_after(message.tries);
    ordered_json content;
    const bool fresh = message.sidecar.empty();
    fs::path target = message.file;
    if (fresh) {
        std::error_code failure;
        fs::create_directories(deferred_, failure);
        target = free_name(deferred_, message.file.filename().string());
        message.record["file"] = target.string();
        message.sidecar = target.string() + ".json";
    }
    content["record"] = message.record;
    content["tries"] = message.tries;
    content["first_deferred"] = message.first_deferred;
    content["next_try"] = next;
    content["reason"] = reason;
    content["source"] = message.file.string();
    content["inode"] = inode_of(message.file);
    if (!write_sidecar(message.sidecar, content, error)) return false;
    if (fresh && !rename_file(message.file, target, error)) {
        std::error_code failure;
        fs::remove(message.sidecar, failure);
        return false;
    }
    message.file = target;
    due_[message.sidecar] = next;
    report_host_event(log_, host_event::message_deferred,
                      target.string() + " deferred (" + reason + "), try " +
                          std::to_string(message.tries + 1) + " in " + std::to_string(next - now) +
                          " s");
    return true;
}

bool MessageQueue::fail(const QueuedMessage& message, const std::string& reason,
                        std::string& error) {
    std::error_code failure;
    fs::create_directories(failed_, failure);
    const fs::path target = free_name(failed_, message.file.filename().string());
    const fs::path files = target.string() + ".files";
    ordered_json record = message.record;
    ordered_json moves = ordered_json::array();
    ordered_json kept = ordered_json::array();
    std::set<std::string> taken;
    for (const auto& attachment : record.value("attachments", ordered_json::array())) {
        if (!attachment.is_string()) continue;
        const fs::path from = attachment.get<std::string>();
        fs::path to = files / from.filename();
        for (int suffix = 1; taken.count(to.string()) != 0; ++suffix)
            to = files / fs::path(from.filename()).concat(".").concat(std::to_string(suffix));
        taken.insert(to.string());
        moves.push_back({from.string(), to.string()});
        kept.push_back(to.string());
    }
    record["file"] = target.string();
    record["attachments"] = kept;
    ordered_json content;
    content["record"] = record;
    content["reason"] = reason;
    content["tries"] = message.tries;
    content["source"] = message.file.string();
    content["inode"] = inode_of(message.file);
    content["moves"] = moves;
    content["deferred_sidecar"] = message.sidecar.string();
    if (!write_sidecar(target.string() + ".json", content, error)) return false;
    fs::create_directories(files, failure);
    std::string ignored;
    for (const auto& move : moves)
        rename_file(move[0].get<std::string>(), move[1].get<std::string>(), ignored);
    if (!rename_file(message.file, target, error)) return false;
    if (!message.sidecar.empty()) {
        fs::remove(message.sidecar, failure);
        due_.erase(message.sidecar);
    }
    report_host_event(
        log_, host_event::message_failed,
        message.file.string() + " failed (" + reason + "); kept in " + target.string());
    return true;
}

}  // namespace qbsmtp::host
