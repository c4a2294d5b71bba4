// address_list.h: AddressList, the IPv4 addresses and CIDR ranges of the
// AllowedClients setting, and the test of a peer against them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qbsmtp {

struct AddressRange {
    std::uint32_t network;  // host byte order, masked
    std::uint32_t mask;
};

class AddressList {
  public:
    static constexpr std::size_t capacity = 64;

    // Parses entries "a.b.c.d" or "a.b.c.d/n" separated by blanks, commas
    // or semicolons, and marks the list as set. An entry that is no such
    // address, or one beyond capacity, is skipped and copied (cut to fit)
    // into bad; the result is the number of entries skipped.
    int parse(const char* text, char* bad, std::size_t bad_size);
    // True when no list was set, or when one of its ranges holds address
    // (host byte order). A set list with no valid entry allows nobody.
    bool allows(std::uint32_t address) const;
    bool is_set() const { return set_; }

  private:
    bool set_ = false;
    std::size_t count_ = 0;
    AddressRange ranges_[capacity] = {};
};

// "a.b.c.d" of an address in network byte order, as sockaddr_in holds it;
// text needs 16 bytes. Its host-byte-order value through host_order.
void format_ipv4(std::uint32_t network_order, char (&text)[16], std::uint32_t* host_order);

}  // namespace qbsmtp
