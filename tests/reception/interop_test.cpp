// Mail from clients that nobody here wrote: Python's smtplib (with a text
// of its own and with one its email package built), swaks and curl, each
// speaking HELO to the running module over loopback. Each message must
// land as exactly one .822 file holding what was sent.

#include <gtest/gtest.h>

#include <string>

#include "support/reception_fixture.h"

namespace qbsmtp::test {
namespace {

// The message sent from message.eml: CR LF line ends, a line that starts
// with a dot (which the client stuffs and the module unstuffs), 8-bit text.
const std::string message =
    "From: sender@example.test\r\nTo: fax@example.test\r\nSubject: interop\r\n\r\n"
    "first line\r\n.line with a leading dot\r\ncaf\xe9 cr\xe8me\r\n";

// A Python script that has smtplib greet the module as NAME.example.test.
std::string smtplib(const std::string& name) {
    return "python3 - <<'END'\nimport os, smtplib, email.policy, email.message\n"
           "s = smtplib.SMTP('127.0.0.1', int(os.environ['PORT']), timeout=20)\n"
           "assert s.helo('" +
           name + ".example.test')[0] == 250\n";
}

// A client NAME says HELO NAME.example.test and sends from NAME@example.test.
struct Client {
    const char* name;
    std::string script;  // run in the prefix with $PORT set; expected.eml: what must be stored
};

void PrintTo(const Client& c, std::ostream* out) {
    *out << c.name;
}

class Interop : public ::testing::TestWithParam<Client> {};

TEST_P(Interop, OneFileHoldsTheMessage) {
#ifdef _WIN32
    GTEST_SKIP() << "the clients are Linux programs, which Windows programs cannot start";
#endif
    const Client& c = GetParam();
    ReceptionFixture module;
    module.connect()->command("QUIT");  // the listener answers: clients need no retry
    module.prefix().write("message.eml", message);
    // Stored without the line end in front of the end marker.
    module.prefix().write("expected.eml", message.substr(0, message.size() - 2));
    module.prefix().write("client", c.script);
    ASSERT_EQ(std::system(("cd " + module.prefix().path() +
                           " && PORT=" + std::to_string(module.port()) + " sh client")
                              .c_str()),
              0);
    module.wait_idle();
    const auto files = module.spool_files(".822");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(module.spool_files(".tmp").empty());
    const std::string text = read_whole_file(files[0]);
    const std::string head = "Return-Path: <" + std::string(c.name) +
                             "@example.test>\r\nReceived: from " + c.name + ".example.test by " +
                             test_host_name + " with SMTP ; ";
    EXPECT_EQ(text.substr(0, head.size()), head);
    EXPECT_EQ(body_behind_trace_headers(text), module.prefix().read("expected.eml"));
}

INSTANTIATE_TEST_SUITE_P(
    Clients, Interop,
    ::testing::Values(
        Client{"python", smtplib("python") +
                             "s.sendmail('python@example.test', ['fax@example.test'], "
                             "open('message.eml', 'rb').read())\ns.quit()\nEND\n"},
        // A message built by the email package with the SMTP policy (CR LF).
        Client{"email", smtplib("email") +
                            "m = email.message.EmailMessage(policy=email.policy.SMTP)\n"
                            "m['From'] = 'email@example.test'\nm['To'] = 'fax@example.test'\n"
                            "m['Subject'] = 'built by email'\n"
                            "m.set_content('hello\\n.dot line\\nbye\\n')\n"
                            "open('expected.eml', 'wb').write(m.as_bytes()[:-2])\n"
                            "s.sendmail('email@example.test', ['fax@example.test'], m.as_bytes())\n"
                            "s.quit()\nEND\n"},
        // swaks puts a line end of its own in front of the end marker, so
        // the message's last line end is kept.
        Client{"swaks",
               "cp message.eml expected.eml && swaks --protocol SMTP --silent 2 "
               "--timeout 20 --server 127.0.0.1 --port $PORT --helo swaks.example.test "
               "--from swaks@example.test --to fax@example.test --data message.eml >/dev/null"},
        // curl opens with EHLO and falls back to HELO on the 500 reply; the
        // URL's path is the domain it names.
        Client{"curl",
               "curl --silent --show-error --max-time 20 --mail-from curl@example.test "
               "--url smtp://127.0.0.1:$PORT/curl.example.test "
               "--mail-rcpt fax@example.test --upload-file message.eml"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace qbsmtp::test
