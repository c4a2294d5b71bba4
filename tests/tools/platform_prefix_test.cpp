// Tests of the prefix the host shares with the module, and of its
// services file.
#include "platform_prefix.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>

namespace qbsmtp::host {
namespace {

namespace fs = std::filesystem;

class PrefixTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/qbsmtp-prefix-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
    }
    void TearDown() override { fs::remove_all(directory); }

    std::string read(const fs::path& path) {
        std::ifstream input(path);
        std::stringstream text;
        text << input.rdbuf();
        return text.str();
    }

    fs::path directory;
};

TEST_F(PrefixTest, EnvironmentNamesThePrefixElseHome) {
    setenv("QBSMTP_PREFIX", directory.c_str(), 1);
    Prefix prefix = resolve_prefix();
    EXPECT_EQ(prefix.directory, directory);
    EXPECT_FALSE(prefix.is_default);
    EXPECT_EQ(prefix.spool(), directory / "spool");
    EXPECT_EQ(prefix.events(), directory / "events.jsonl");

    for (const char* unset_form : {"", static_cast<const char*>(nullptr)}) {
        if (unset_form)
            setenv("QBSMTP_PREFIX", unset_form, 1);
        else
            unsetenv("QBSMTP_PREFIX");
        setenv("HOME", "/home/fax", 1);
        prefix = resolve_prefix();
        EXPECT_EQ(prefix.directory, fs::path("/home/fax/.qbsmtp"));
        EXPECT_TRUE(prefix.is_default);
    }
}

TEST_F(PrefixTest, WritingThePortReplacesOnlyTheSmtpTcpLine) {
    const fs::path services = directory / "sub" / "services";
    std::string error;
    ASSERT_TRUE(write_smtp_port(services, 2525, error)) << error;  // creates the directory
    EXPECT_EQ(read(services), "smtp 2525/tcp\n");

    {
        std::ofstream edit(services, std::ios::app);
        edit << "# local\nsmtp 2626/udp\nsubmission 587/tcp\n";
    }
    ASSERT_TRUE(write_smtp_port(services, 2727, error)) << error;
    EXPECT_EQ(read(services), "smtp 2727/tcp\n# local\nsmtp 2626/udp\nsubmission 587/tcp\n");
    EXPECT_EQ(read_smtp_port(services), 2727);
    EXPECT_FALSE(fs::exists(services.string() + ".new"));
}

TEST_F(PrefixTest, ReadingThePortSkipsWhatIsNotAnSmtpTcpEntry) {
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
    const fs::path services = directory / "services";
    for (const auto& c : cases) {
        std::ofstream(services, std::ios::trunc) << c.text;
        EXPECT_EQ(read_smtp_port(services), c.port) << c.text;
    }
    EXPECT_EQ(read_smtp_port(directory / "missing"), std::nullopt);
}

TEST_F(PrefixTest, ATemporaryPortLeavesTheFileAsItWas) {
    const fs::path services = directory / "services";
    std::string error;
    {
        TemporarySmtpPort port;  // no file before: none after
        ASSERT_TRUE(port.apply(services, 2626, error)) << error;
        EXPECT_EQ(read_smtp_port(services), 2626);
    }
    EXPECT_FALSE(fs::exists(services));

    const std::string before = "# mine\nsmtp 2525/tcp\n";
    std::ofstream(services) << before;
    TemporarySmtpPort port;
    ASSERT_TRUE(port.apply(services, 25, error)) << error;
    EXPECT_EQ(read_smtp_port(services), 25);
    port.restore();
    EXPECT_EQ(read(services), before);
    port.restore();  // once only: a later change is not undone
    std::ofstream(services, std::ios::trunc) << "smtp 2727/tcp\n";
    port.restore();
    EXPECT_EQ(read_smtp_port(services), 2727);
}

TEST_F(PrefixTest, EffectivePortComesFromThePrefixFirst) {
    setenv("QBSMTP_PREFIX", directory.c_str(), 1);
    const Prefix prefix = resolve_prefix();
    std::ofstream(prefix.services()) << "smtp 3535/tcp\n";
    EXPECT_EQ(effective_smtp_port(prefix), 3535);
    fs::remove(prefix.services());
    // The system's entry, or the standard port where it has none.
    EXPECT_EQ(effective_smtp_port(prefix), read_smtp_port("/etc/services").value_or(25));
}

}  // namespace
}  // namespace qbsmtp::host
