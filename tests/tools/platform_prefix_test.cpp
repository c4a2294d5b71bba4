// Tests of the services file the host shares with the module.
#include "platform_prefix.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>

namespace qbsmtp::host {
namespace {

namespace fs = std::filesystem;

std::string read(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(ServicesFile, OnlyTheFirstSmtpTcpEntryCountsAndOnlyItIsReplaced) {
    char pattern[] = "/tmp/qbsmtp-prefix-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const fs::path services = fs::path(pattern) / "sub" / "services";
    const struct {
        const char* text;
        std::optional<int> port;
    } cases[] = {
        {"", std::nullopt},
        {"# smtp 25/tcp\n", std::nullopt},
        {"smtp 25/udp\nsmtp\t2525/tcp   mail # comment\n", 2525},
        {"smtps 465/tcp\nsmtp 0/tcp\nsmtp 70000/tcp\nsmtp x/tcp\n", std::nullopt},
        {"smtp 2525/tcp\nsmtp 2626/tcp\n", 2525},  // the first entry, as the resolver takes it
    };
    std::string error;
    ASSERT_TRUE(write_smtp_port(services, 2525, error)) << error;  // creates the directory
    EXPECT_EQ(read(services), "smtp 2525/tcp\n");
    for (const auto& c : cases) {
        std::ofstream(services, std::ios::trunc) << c.text;
        EXPECT_EQ(read_smtp_port(services), c.port) << c.text;
    }
    std::ofstream(services, std::ios::trunc) << "smtp 2525/tcp\n# local\nsmtp 2626/udp\n";
    {
        TemporarySmtpPort port;
        ASSERT_TRUE(port.apply(services, 25, error)) << error;
        EXPECT_EQ(read(services), "smtp 25/tcp\n# local\nsmtp 2626/udp\n");
    }
    EXPECT_EQ(read(services), "smtp 2525/tcp\n# local\nsmtp 2626/udp\n");  // put back
    fs::remove_all(pattern);
}

}  // namespace
}  // namespace qbsmtp::host
