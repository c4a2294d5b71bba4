// The SMTP stream over TLS, both ends in this process on loopback: each
// handshake of tests/data/frame/tls_handshakes.txt and, where it succeeds,
// a command and its reply through the channel.

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "frame/smtp_stream.h"
#include "support/case_table.h"

namespace qbsmtp::test {
namespace {

struct Loopback {
    os::SOCKET listener = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
    os::sockaddr_in address{};
    Loopback() {
        address.sin_family = os::AF_INET;
        address.sin_addr.s_addr = os::htonl(0x7F000001);
        int length = sizeof address;
        auto* name = reinterpret_cast<os::sockaddr*>(&address);
        EXPECT_EQ(os::bind(listener, name, sizeof address), 0);
        EXPECT_EQ(os::listen(listener, 1), 0);
        EXPECT_EQ(os::getsockname(listener, name, &length), 0);
    }
    ~Loopback() { os::closesocket(listener); }
};

// The server's end: the handshake, then "PING" answered with a 250.
void serve(os::SOCKET connection, const std::string& certificate, const std::string& key) {
    SmtpStream stream;
    stream.socket = connection;
    char error[200];
    os::TlsContext* context =
        os::tls_server_context(certificate.c_str(), key.c_str(), error, sizeof error);
    ASSERT_NE(context, nullptr) << error;
    if (stream.start_tls(context, true, nullptr, error, sizeof error)) {
        std::string line;
        for (int c; line.size() < 6 && (c = stream.get_byte()) >= 0;) line += static_cast<char>(c);
        EXPECT_EQ(line, "PING\r\n");
        EXPECT_TRUE(stream.put_text("250 pong\r\n") && stream.flush());
        stream.end_tls(true);
    }
    os::closesocket(connection);
    os::tls_free_context(context);
}

TEST(TlsStream, HandshakesChecksAndTraffic) {
    if (!os::tls_supported()) GTEST_SKIP() << "this build has no TLS";
    TempPrefix directory;
    ASSERT_EQ(std::system((std::string(QBSMTP_SOURCE_DIR) + "/tests/support/make_certs.sh " +
                           directory.path())
                              .c_str()),
              0);
    for (const Case& c : read_cases("frame/tls_handshakes.txt", 4)) {
        SCOPED_TRACE(c.where);
        Loopback loopback;
        std::thread server([&] {
            serve(os::accept(loopback.listener, nullptr, nullptr), directory.file(c[0]),
                  directory.file("key.pem"));
        });
        SmtpStream client;
        client.socket = os::socket(os::AF_INET, os::SOCK_STREAM, 0);
        ASSERT_EQ(os::connect(client.socket, reinterpret_cast<os::sockaddr*>(&loopback.address),
                              sizeof loopback.address),
                  0);
        char error[200] = "";
        os::TlsContext* context = os::tls_client_context(directory.file("ca.pem").c_str(),
                                                         c[2] == "1", error, sizeof error);
        ASSERT_NE(context, nullptr) << error;
        const bool started = client.start_tls(context, false, c[1].c_str(), error, sizeof error);
        EXPECT_EQ(started ? "ok" : error, c[3]);
        int code = 0;
        if (started) {
            EXPECT_TRUE(client.put_text("PING\r\n") && client.flush());
            EXPECT_EQ(client.read_reply(code), ReplyRead::complete);
            EXPECT_EQ(code, 250);
        }
        client.end_tls(started);
        os::closesocket(client.socket);
        server.join();
        os::tls_free_context(context);
    }
}

}  // namespace
}  // namespace qbsmtp::test
