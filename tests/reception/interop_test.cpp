// Mail from clients that nobody here wrote: Python's smtplib, swaks and
// curl, each speaking HELO to the running module over loopback. Each
// message must land as exactly one .822 file holding what was sent.

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

// The message every client sends: CR LF line ends, a line that starts
// with a dot (which the client stuffs and the module unstuffs), 8-bit text.
const std::string message =
    "From: sender@example.test\r\n"
    "To: fax@example.test\r\n"
    "Subject: interop\r\n"
    "\r\n"
    "first line\r\n"
    ".line with a leading dot\r\n"
    "caf\xe9 cr\xe8me\r\n";
// Stored without the line end in front of the end marker.
const std::string stored = message.substr(0, message.size() - 2);

int run(const std::string& command) {
    return std::system(command.c_str());
}

class Interop : public ::testing::Test {
  protected:
    void SetUp() override {
        message_file_ = module_.prefix().file("message.eml");
        std::ofstream(message_file_, std::ios::binary) << message;
        module_.connect()->command("QUIT");  // the listener answers: clients need no retry
        module_.wait_idle();
    }

    // The one spool file, with its trace headers checked.
    void expect_one_message(const std::string& helo_domain, const std::string& sender,
                            const std::string& body = stored) {
        module_.wait_idle();
        const auto files = module_.spool_files(".822");
        ASSERT_EQ(files.size(), 1u);
        EXPECT_TRUE(module_.spool_files(".tmp").empty());
        const std::string text = read_whole_file(files[0]);
        const std::string head = "Return-Path: <" + sender + ">\r\nReceived: from " + helo_domain +
                                 " by " + test_host_name + " with SMTP ; ";
        EXPECT_EQ(text.substr(0, head.size()), head);
        EXPECT_EQ(body_behind_trace_headers(text), body);
    }

    std::string port() const { return std::to_string(module_.port()); }

    ReceptionFixture module_;
    std::string message_file_;
};

TEST_F(Interop, PythonSmtplib) {
    const std::string script = module_.prefix().file("send.py");
    std::ofstream(script) << "import smtplib, sys\n"
                             "data = open(sys.argv[2], 'rb').read()\n"
                             "with smtplib.SMTP('127.0.0.1', int(sys.argv[1]), timeout=20) as s:\n"
                             "    code, _ = s.helo('python.example.test')\n"
                             "    assert code == 250, code\n"
                             "    s.sendmail('py@example.test', ['fax@example.test'], data)\n";
    ASSERT_EQ(run("/usr/bin/python3 " + script + " " + port() + " " + message_file_), 0);
    expect_one_message("python.example.test", "py@example.test");
}

TEST_F(Interop, PythonSmtplibWithEmailPolicy) {
    // A message built by the email package with the SMTP policy (CR LF).
    const std::string script = module_.prefix().file("send.py");
    const std::string expected = module_.prefix().file("expected.eml");
    std::ofstream(script)
        << "import smtplib, sys, email.policy\n"
           "from email.message import EmailMessage\n"
           "m = EmailMessage(policy=email.policy.SMTP)\n"
           "m['From'] = 'py@example.test'\n"
           "m['To'] = 'fax@example.test'\n"
           "m['Subject'] = 'built by email'\n"
           "m.set_content('hello\\n.dot line\\nbye\\n')\n"
           "data = m.as_bytes()\n"
           "open(sys.argv[2], 'wb').write(data[:-2] if data.endswith(b'\\r\\n') else data)\n"
           "with smtplib.SMTP('127.0.0.1', int(sys.argv[1]), timeout=20) as s:\n"
           "    s.helo('python.example.test')\n"
           "    s.sendmail('py@example.test', ['fax@example.test'], data)\n";
    ASSERT_EQ(run("/usr/bin/python3 " + script + " " + port() + " " + expected), 0);
    module_.wait_idle();
    const auto files = module_.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(body_behind_trace_headers(read_whole_file(files[0])), read_whole_file(expected));
}

TEST_F(Interop, Swaks) {
    ASSERT_EQ(
        run("swaks --protocol SMTP --silent 2 --timeout 20 --server 127.0.0.1 --port " + port() +
            " --helo swaks.example.test --from swaks@example.test"
            " --to fax@example.test --data " +
            message_file_ + " >/dev/null"),
        0);
    // swaks puts a line end of its own in front of the end marker, so the
    // message's last line end is kept.
    expect_one_message("swaks.example.test", "swaks@example.test", message);
}

TEST_F(Interop, Curl) {
    // curl opens with EHLO and falls back to HELO on the 500 reply; the
    // URL's path is the domain it names.
    ASSERT_EQ(run("curl --silent --show-error --max-time 20 --url smtp://127.0.0.1:" + port() +
                  "/curl.example.test --mail-from curl@example.test"
                  " --mail-rcpt fax@example.test --upload-file " +
                  message_file_),
              0);
    expect_one_message("curl.example.test", "curl@example.test");
}

}  // namespace
}  // namespace qbsmtp::test
