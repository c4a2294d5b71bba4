// send_fixture.h: what the sending tests share: a fresh prefix with the
// settings and the services file, the module started over it, a scripted
// relay, attachment files, records, and the events the module reported.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "frame/module_state.h"
#include "qbsmtp/qbsmtp.h"
#include "sending/relay.h"
#include "sending/smtp_client.h"
#include "support/event_log.h"
#include "support/scripted_relay.h"
#include "support/temp_prefix.h"

namespace qbsmtp::test {

inline constexpr const char* test_host_name = "gw.test";

// One reported event: its id as "0xC0004EF5" and its insertion strings.
struct ReportedEvent {
    std::string id;
    std::vector<std::string> strings;
};

// The events logged under the current prefix, oldest first.
inline std::vector<ReportedEvent> reported_events() {
    std::vector<ReportedEvent> events;
    for (LoggedEvent& logged : read_events()) {
        char id[16];
        std::snprintf(id, sizeof id, "0x%08X", static_cast<unsigned>(logged.id));
        events.push_back({id, std::move(logged.strings)});
    }
    return events;
}

// A record as a host fills it for SMTPSend; the blocks live here.
class RecordBuilder {
  public:
    std::string sender;
    bool null_sender = false;
    std::string subject = "Test";
    bool null_subject = false;
    std::vector<std::string> to;
    std::vector<std::string> attachments;

    MailRecord* build() {
        to_block_ = pack(to);
        attachment_block_ = pack(attachments);
        record_ = MailRecord{};
        record_.sender = null_sender ? nullptr : sender.data();
        record_.sender_length = static_cast<int32_t>(sender.size());
        record_.subject = null_subject ? nullptr : subject.data();
        record_.subject_length = static_cast<int32_t>(subject.size());
        record_.to = to.empty() ? nullptr : to_block_.data();
        record_.attachments = attachments.empty() ? nullptr : attachment_block_.data();
        record_.temporary_failure = 7;  // so that a test sees it written
        return &record_;
    }

  private:
    static std::string pack(const std::vector<std::string>& entries) {
        std::string block;
        for (const std::string& entry : entries) block += entry + '\0';
        return block + '\0';
    }
    std::string to_block_;
    std::string attachment_block_;
    MailRecord record_{};
};

class SendFixture : public ::testing::Test {
  protected:
    TempPrefix prefix;
    std::unique_ptr<ScriptedRelay> relay;
    std::string settings;  // extra lines for the settings key
    std::string classes;   // extra sections for registry.reg

    // Starts the relay, writes the prefix, starts the module and points it
    // at the relay.
    void start(std::vector<ScriptedRelay::Step> script, bool keep_bytes = true) {
        relay = std::make_unique<ScriptedRelay>(std::move(script), keep_bytes);
        start_module_on(relay->port());
        ASSERT_EQ(SMTPSendInit("127.0.0.1"), 1);
    }

    void start_module_on(std::uint16_t port) {
        write_text(prefix.file("services"), "smtp " + std::to_string(port) + "/tcp\n");
        write_text(prefix.file("registry.reg"),
                   "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\KELTO\\Quillbox32\\SM]\r\n"
                   "\"HostName\"=\"" +
                       std::string(test_host_name) + "\"\r\n" + settings + "\r\n" + classes);
        process_attach(nullptr);
    }

    // Points the started module at peer, as SMTPSendInit("127.0.0.1") would
    // with peer's port as the smtp service.
    static void aim_at(const ScriptedRelay& peer) {
        relay_address = os::sockaddr_in{};
        relay_address.sin_family = os::AF_INET;
        relay_address.sin_port = os::htons(peer.port());
        relay_address.sin_addr.s_addr = os::htonl(0x7F000001);
    }

    // What a fresh peer receives when emit runs on a client connected to it
    // (and its buffer is flushed).
    static std::string capture(const std::function<void(SmtpClient&)>& emit) {
        ScriptedRelay peer({});
        aim_at(peer);
        SmtpClient client;
        client.setup_buffers();
        client.socket = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
        EXPECT_EQ(os::connect(client.socket, reinterpret_cast<const os::sockaddr*>(&relay_address),
                              sizeof relay_address),
                  0);
        emit(client);
        write_flush(client);
        client.clean_up();
        return peer.received();
    }

    static void write_text(const std::string& path, const std::string& bytes) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << bytes;
    }

    // An attachment file under the prefix; its full path.
    std::string make_file(const std::string& name, const std::string& bytes) {
        const std::string path = prefix.file(name);
        write_text(path, bytes);
        return path;
    }

    std::vector<ReportedEvent> events() const { return reported_events(); }

    // The ids reported from the nth event on, leaving out the debug texts.
    std::vector<std::string> event_ids_since(std::size_t first) const {
        std::vector<std::string> ids;
        const std::vector<ReportedEvent> all = events();
        for (std::size_t i = first; i < all.size(); ++i) {
            if (all[i].id != "0x400051A3") ids.push_back(all[i].id);
        }
        return ids;
    }

    // The ids reported, in order, leaving out the debug texts.
    std::vector<std::string> event_ids() const { return event_ids_since(0); }

    // The first event with this id; fails the test if there is none.
    ReportedEvent event(const std::string& id) const {
        for (const ReportedEvent& e : events()) {
            if (e.id == id) return e;
        }
        ADD_FAILURE() << "no event " << id;
        return {};
    }
};

// Splits the message into its Date line (checked against the boundary
// when there is one) and the rest with the Date line replaced by "DATE\r\n"
// and the boundary by "BOUNDARY".
struct NormalisedMessage {
    std::string date_line;
    std::string boundary;
    std::string text;
};

inline NormalisedMessage normalise(const std::string& message) {
    NormalisedMessage result;
    static const std::regex date(
        "^Date: ([0-9]{1,2}) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) ([0-9]{2}) "
        "([0-9]{2}):([0-9]{2}):([0-9]{2}) ([+-][0-9]{4})\r\n");
    std::smatch match;
    if (!std::regex_search(message, match, date)) {
        ADD_FAILURE() << "no Date line at the start of: " << message.substr(0, 80);
        return result;
    }
    result.date_line = match.str(0);
    std::string text = "DATE\r\n" + std::string(match.suffix());

    static const std::regex boundary("QBsmtp-part-([0-9]{4})([0-9]{2})([0-9]{2})-([0-9]{6})");
    std::smatch b;
    if (std::regex_search(text, b, boundary)) {
        static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        result.boundary = b.str(0);
        // Same reading of the clock as the Date line.
        EXPECT_EQ(std::stoi(b.str(1)) % 100, std::stoi(match.str(3)));
        EXPECT_EQ(months[std::stoi(b.str(2)) - 1], match.str(2));
        EXPECT_EQ(std::stoi(b.str(3)), std::stoi(match.str(1)));
        EXPECT_EQ(b.str(4), match.str(4) + match.str(5) + match.str(6));
        std::size_t at;
        while ((at = text.find(result.boundary)) != std::string::npos) {
            text.replace(at, result.boundary.size(), "BOUNDARY");
        }
    }
    result.text = text;
    return result;
}

}  // namespace qbsmtp::test
