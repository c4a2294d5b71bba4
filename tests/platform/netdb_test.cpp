// Winsock start-up and the name services: services files, host names.
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"
#include "platform/os_posix_net_native.h"
#include "support/temp_prefix.h"

// After the platform headers: it defines macros that clash with Winsock names.
#include <netdb.h>

namespace qbsmtp::os {
namespace {

TEST(WinsockStartup, FillsTheRecordAndRefusesVersionsBelowOne) {
    WSADATA data;
    EXPECT_EQ(WSAStartup(0x0002, &data), 0);
    EXPECT_EQ(data.wVersion, 0x0002);
    EXPECT_EQ(data.wHighVersion, 0x0202);
    EXPECT_STREQ(data.szSystemStatus, "Running");
    EXPECT_EQ(WSAStartup(0x0303, &data), 0);
    EXPECT_EQ(data.wVersion, 0x0202);
    EXPECT_EQ(WSAStartup(0x0000, &data), WSAVERNOTSUPPORTED);
    FaultScope scope(Op::WSAStartup, 1, WSAENOBUFS);
    EXPECT_EQ(WSAStartup(0x0002, &data), WSAENOBUFS);
}

class ServicesTest : public ::testing::Test {
  protected:
    test::TempPrefix prefix;
    void SetUp() override {
        prefix.write("services", "# the prefix's own\nsmtp\t\t2525/tcp\tmail\n");
        prefix.write("system-services",
                     "tcpmux 1/tcp\n"
                     "smtp 25/tcp mail\n"
                     "http 80/tcp www # WorldWideWeb HTTP\n"
                     "broken x/tcp\n"
                     "domain 53/udp\n");
        setenv("QBSMTP_SYSTEM_SERVICES", prefix.file("system-services").c_str(), 1);
    }
};

TEST_F(ServicesTest, PrefixFileComesBeforeTheSystemsAndMatchesIgnoreCase) {
    struct Row {
        const char* name;
        const char* protocol;
        int port;  // -1: not found
    };
    const Row rows[] = {
        {"smtp", "tcp", 2525}, {"SMTP", "TCP", 2525}, {"mail", "tcp", 2525},
        {"http", "tcp", 80},   {"www", nullptr, 80},  {"domain", "tcp", -1},
        {"domain", "udp", 53}, {"broken", "tcp", -1}, {"nothing", "tcp", -1},
    };
    for (const Row& row : rows) {
        servent* entry = getservbyname(row.name, row.protocol);
        if (row.port < 0) {
            EXPECT_EQ(entry, nullptr) << row.name;
            EXPECT_EQ(WSAGetLastError(), WSANO_DATA);
            continue;
        }
        ASSERT_NE(entry, nullptr) << row.name;
        EXPECT_EQ(ntohs(static_cast<std::uint16_t>(entry->s_port)), row.port) << row.name;
    }
    servent* smtp = getservbyname("smtp", "tcp");
    EXPECT_STREQ(smtp->s_name, "smtp");
    EXPECT_STREQ(smtp->s_proto, "tcp");
    EXPECT_STREQ(smtp->s_aliases[0], "mail");
    EXPECT_EQ(smtp->s_aliases[1], nullptr);
}

TEST_F(ServicesTest, EntriesStayPutAcrossCallsAndThreads) {
    servent* first = getservbyname("smtp", "tcp");
    servent* from_thread = nullptr;
    std::thread([&] { from_thread = getservbyname("Smtp", "tcp"); }).join();
    EXPECT_EQ(first, from_thread);
    EXPECT_EQ(getservbyname("http", "tcp"), getservbyname("www", "tcp"));
    FaultScope scope(Op::getservbyname, 1, WSANO_RECOVERY);
    EXPECT_EQ(getservbyname("smtp", "tcp"), nullptr);
    EXPECT_EQ(WSAGetLastError(), WSANO_RECOVERY);
}

TEST(HostNames, GethostnameIsTheSystemsAndChecksRoom) {
    char own[256];
    ASSERT_EQ(::gethostname(own, sizeof own), 0);
    char name[256];
    EXPECT_EQ(gethostname(name, sizeof name), 0);
    EXPECT_STREQ(name, own);
    EXPECT_EQ(gethostname(name, static_cast<int>(std::strlen(own))), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
}

TEST(HostNames, ResolvesLoopbackNamesIntoThreadLocalEntries) {
    hostent* local = gethostbyname("localhost");
    ASSERT_NE(local, nullptr);
    EXPECT_EQ(local->h_addrtype, AF_INET);
    EXPECT_EQ(local->h_length, 4);
    ASSERT_NE(local->h_addr_list[0], nullptr);
    in_addr first;
    std::memcpy(&first, local->h_addr_list[0], 4);
    EXPECT_EQ(ntohl(first.s_addr), 0x7F000001u);

    hostent* other_thread = nullptr;
    std::string other_name;
    std::thread([&] {
        other_thread = gethostbyname("127.0.0.2");
        if (other_thread != nullptr) other_name = other_thread->h_name;
    }).join();
    EXPECT_NE(other_thread, local);
    EXPECT_EQ(other_name, "127.0.0.2");
    EXPECT_EQ(std::string(local->h_name), "localhost");  // untouched by the other thread

    FaultScope scope(Op::gethostbyname, 1, WSAHOST_NOT_FOUND);
    EXPECT_EQ(gethostbyname("localhost"), nullptr);
    EXPECT_EQ(WSAGetLastError(), WSAHOST_NOT_FOUND);
}

TEST(HostNames, ResolverFailuresBecomeWinsockCodes) {
    struct Row {
        int eai;
        int winsock;
    };
    const Row rows[] = {
        {EAI_NONAME, WSAHOST_NOT_FOUND}, {EAI_AGAIN, WSATRY_AGAIN},    {EAI_NODATA, WSANO_DATA},
        {EAI_FAIL, WSANO_RECOVERY},      {EAI_MEMORY, WSANO_RECOVERY},
    };
    for (const Row& row : rows)
        EXPECT_EQ(posix::net::winsock_from_eai(row.eai), row.winsock) << row.eai;
}

}  // namespace
}  // namespace qbsmtp::os
