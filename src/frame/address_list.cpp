// address_list.cpp: parsing and matching of AllowedClients.

#include "frame/address_list.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qbsmtp {

namespace {

bool is_separator(char c) {
    return c == ' ' || c == '\t' || c == ',' || c == ';' || c == '\r' || c == '\n';
}

// A decimal number of at most max with at most digits digits; advances p.
bool read_number(const char*& p, const char* end, std::uint32_t max, std::uint32_t& value) {
    const char* start = p;
    value = 0;
    while (p < end && *p >= '0' && *p <= '9' && p - start < 3) {
        value = value * 10 + static_cast<std::uint32_t>(*p++ - '0');
    }
    return p > start && value <= max;
}

bool parse_range(const char* p, const char* end, AddressRange& range) {
    std::uint32_t address = 0;
    for (int i = 0; i < 4; ++i) {
        std::uint32_t part = 0;
        if (i > 0 && (p == end || *p++ != '.')) return false;
        if (!read_number(p, end, 255, part)) return false;
        address = (address << 8) | part;
    }
    std::uint32_t bits = 32;
    if (p < end && *p == '/') {
        ++p;
        if (!read_number(p, end, 32, bits)) return false;
    }
    if (p != end) return false;
    range.mask = bits == 0 ? 0 : 0xFFFFFFFFu << (32 - bits);
    range.network = address & range.mask;
    return true;
}

}  // namespace

int AddressList::parse(const char* text, char* bad, std::size_t bad_size) {
    set_ = true;
    count_ = 0;
    int skipped = 0;
    for (const char* p = text; *p != '\0';) {
        if (is_separator(*p)) {
            ++p;
            continue;
        }
        const char* end = p;
        while (*end != '\0' && !is_separator(*end)) ++end;
        AddressRange range{};
        if (count_ < capacity && parse_range(p, end, range)) {
            ranges_[count_++] = range;
        } else {
            if (skipped == 0 && bad_size > 0) {
                const std::size_t length = std::min<std::size_t>(end - p, bad_size - 1);
                std::memcpy(bad, p, length);
                bad[length] = '\0';
            }
            ++skipped;
        }
        p = end;
    }
    return skipped;
}

bool AddressList::allows(std::uint32_t address) const {
    if (!set_) return true;
    for (std::size_t i = 0; i < count_; ++i)
        if ((address & ranges_[i].mask) == ranges_[i].network) return true;
    return false;
}

void format_ipv4(std::uint32_t network_order, char (&text)[16], std::uint32_t* host_order) {
    unsigned char bytes[4];
    std::memcpy(bytes, &network_order, sizeof bytes);
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    *host_order = std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
                  std::uint32_t{bytes[2]} << 8 | bytes[3];
}

}  // namespace qbsmtp
