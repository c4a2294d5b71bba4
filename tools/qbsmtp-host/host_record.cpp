// host_record.cpp: preparing, filling and releasing the host's MailRecord.
#include "host_record.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <numeric>
#include <sstream>

namespace qbsmtp::host {

namespace {

// Frees one block and nulls the pointer.
template <typename Pointer>
void release_block(Pointer& block, const Allocator& allocator) {
    if (block != nullptr) allocator.free(const_cast<char*>(block));
    block = nullptr;
}

constexpr std::array<const char*, QBSMTP_SUBTYPE_COUNT> names = {
    "plain",       "enriched", "html",    "mixed",         "parallel",   "digest",
    "alternative", "rfc822",   "partial", "external-body", "tiff",       "gif",
    "jpeg",        "basic",    "mpeg",    "octet-stream",  "postscript", "other"};

// Behind the three text subtypes every other one takes the same rank: the
// first of equally ranked alternatives wins, which is the sender's order.
constexpr unsigned char rank_of_others = 3;

}  // namespace

void prepare_for_receive(MailRecord& record, const unsigned char* subtype_rank) {
    record = MailRecord{};
    record.subtype_rank = subtype_rank;
}

void release_record(MailRecord& record, const Allocator& allocator) {
    release_block(record.file, allocator);
    release_block(record.sender, allocator);
    release_block(record.sender_name, allocator);
    release_block(record.to, allocator);
    release_block(record.to_names, allocator);
    release_block(record.cc, allocator);
    release_block(record.cc_names, allocator);
    release_block(record.bcc, allocator);
    release_block(record.bcc_names, allocator);
    release_block(record.subject, allocator);
    release_block(record.attachments, allocator);
    prepare_for_receive(record, record.subtype_rank);
}

char* allocate_text(const std::string& text, std::int32_t& length, const Allocator& allocator) {
    length = 0;
    auto* block = static_cast<char*>(allocator.alloc(0, text.size() + 1));
    if (block == nullptr) return nullptr;
    std::memcpy(block, text.c_str(), text.size() + 1);
    length = static_cast<std::int32_t>(text.size());
    return block;
}

char* allocate_list(const std::vector<std::string>& entries, const Allocator& allocator,
                    bool& failed) {
    failed = false;
    if (entries.empty()) return nullptr;
    const std::size_t bytes = std::accumulate(
        entries.begin(), entries.end(), std::size_t{1},
        [](std::size_t sum, const std::string& entry) { return sum + entry.size() + 1; });
    auto* block = static_cast<char*>(allocator.alloc(0, bytes));
    if (block == nullptr) {
        failed = true;
        return nullptr;
    }
    char* position = block;
    for (const auto& entry : entries) {
        std::memcpy(position, entry.c_str(), entry.size() + 1);
        position += entry.size() + 1;
    }
    *position = '\0';
    return block;
}

std::vector<std::string> list_entries(const char* block) {
    std::vector<std::string> entries;
    if (block == nullptr) return entries;
    for (const char* entry = block; *entry != '\0'; entry += std::strlen(entry) + 1)
        entries.emplace_back(entry);
    return entries;
}

SubtypeRank default_subtype_rank() {
    SubtypeRank rank;
    rank.fill(rank_of_others);
    rank[QBSMTP_SUBTYPE_PLAIN] = 0;
    rank[QBSMTP_SUBTYPE_ENRICHED] = 1;
    rank[QBSMTP_SUBTYPE_HTML] = 2;
    return rank;
}

bool parse_subtype_preference(const std::string& list, SubtypeRank& rank, std::string& error) {
    std::vector<int> chosen;
    std::istringstream items(list);
    std::string item;
    while (std::getline(items, item, ',')) {
        std::transform(item.begin(), item.end(), item.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        const auto found = std::find(names.begin(), names.end(), item);
        if (found == names.end()) {
            error = "unknown subtype \"" + item + "\" (known: ";
            for (std::size_t i = 0; i < names.size(); ++i)
                error += std::string(i ? ", " : "") + names[i];
            error += ")";
            return false;
        }
        const int code = static_cast<int>(found - names.begin());
        if (std::find(chosen.begin(), chosen.end(), code) != chosen.end()) {
            error = "subtype \"" + item + "\" named twice";
            return false;
        }
        chosen.push_back(code);
    }
    // The named subtypes take ranks 0, 1, ...; the others follow, shifted
    // behind them, in their default order.
    const SubtypeRank defaults = default_subtype_rank();
    const auto count = static_cast<unsigned char>(chosen.size());
    SubtypeRank result;
    for (int code = 0; code < QBSMTP_SUBTYPE_COUNT; ++code)
        result[code] = static_cast<unsigned char>(count + defaults[code]);
    for (std::size_t i = 0; i < chosen.size(); ++i)
        result[chosen[i]] = static_cast<unsigned char>(i);
    rank = result;
    return true;
}

const std::array<const char*, QBSMTP_SUBTYPE_COUNT>& subtype_names() {
    return names;
}

}  // namespace qbsmtp::host
