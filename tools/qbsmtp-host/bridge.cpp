// bridge.cpp: one command run per record, and what follows from it.
#include "bridge.h"

#include <chrono>

#include "receive_loop.h"

namespace qbsmtp::host {

namespace {

using nlohmann::ordered_json;

// The exit status that asks for another try later (EX_TEMPFAIL).
constexpr int exit_try_later = 75;

std::int64_t now_seconds() {
    using namespace std::chrono;
    return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

// A text field, empty when null; NULs dropped, as an environment can't hold them.
std::string text_of(const ordered_json& value) {
    std::string text = value.is_string() ? value.get<std::string>() : "";
    std::erase(text, '\0');
    return text;
}

std::string joined(const ordered_json& list, const char* member) {
    std::string out;
    if (!list.is_array()) return out;
    for (const auto& entry : list) {
        if (!out.empty()) out += ',';
        out += text_of(member != nullptr && entry.is_object() ? entry[member] : entry);
    }
    return out;
}

}  // namespace

Environment record_environment(const ordered_json& record) {
    const auto field = [&record](const char* name) {
        return record.contains(name) ? record[name] : ordered_json();
    };
    return {{"QBSMTP_FILE", text_of(field("file"))},
            {"QBSMTP_SENDER", text_of(field("sender"))},
            {"QBSMTP_SUBJECT", text_of(field("subject"))},
            {"QBSMTP_TO", joined(field("to"), "address")},
            {"QBSMTP_ATTACHMENTS", joined(field("attachments"), nullptr)}};
}

Bridge::Bridge(const std::filesystem::path& spool, ExecSettings settings,
               const std::filesystem::path& event_log, bool delete_done)
    : settings_(std::move(settings)), queue_(spool, settings_.schedule, event_log, delete_done) {}

RecordHandler Bridge::handler() {
    return [this](const std::string& spool_file, ordered_json record, std::string& error) {
        QueuedMessage message;
        message.file = spool_file;
        message.record = std::move(record);
        return deliver(std::move(message), error);
    };
}

RecordHandler record_handler(std::unique_ptr<Bridge>& bridge,
                             const std::optional<ExecSettings>& exec,
                             const std::filesystem::path& spool,
                             const std::filesystem::path& event_log, bool delete_taken,
                             std::ostream& out) {
    if (!exec) return print_and_dispose(out, delete_taken);
    bridge = std::make_unique<Bridge>(spool, *exec, event_log, delete_taken);
    bridge->start();
    return bridge->handler();
}

RoundResult Bridge::retry_due(std::string& error, std::int64_t due_by) {
    auto message = queue_.take_due(due_by != 0 ? due_by : now_seconds());
    if (!message) return RoundResult::empty;
    return round_result(deliver(std::move(*message), error));
}

int Bridge::wait_milliseconds(int limit) const {
    const auto due = queue_.seconds_until_due(now_seconds());
    if (!due) return limit;
    return static_cast<int>(std::min<std::int64_t>(*due * 1000, limit));
}

Disposal Bridge::deliver(QueuedMessage message, std::string& error) {
    ++message.tries;
    const CommandRun run =
        run_command(settings_.command, json_line(message.record) + "\n",
                    record_environment(message.record), settings_.timeout_seconds);
    bool disposed = false;
    if (!run.started) {
        // The host's own trouble (no /bin/sh, a full /tmp): the message is not to blame.
        disposed = queue_.defer(message, run.error, now_seconds(), error);
    } else if (run.end.kind == ChildEnd::stopped) {
        return Disposal::stopped;  // left where it was, tried again after the restart
    } else if (run.end.kind == ChildEnd::timed_out) {
        disposed = queue_.defer(
            message, "timed out after " + std::to_string(settings_.timeout_seconds) + " s",
            now_seconds(), error);
    } else if (run.end.status == 0) {
        disposed = queue_.mark_done(message, error);
    } else if (run.end.status == exit_try_later) {
        disposed = queue_.defer(message, "exit status 75", now_seconds(), error);
    } else {
        disposed = queue_.fail(message, "exit status " + std::to_string(run.end.status), error);
    }
    return disposed ? Disposal::disposed : Disposal::stuck;
}

}  // namespace qbsmtp::host
