// Sockets over loopback: round trips, time-outs, refusals and the Winsock
// codes of their failures.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/os.h"
#include "platform/os_fault.h"

namespace qbsmtp::os {
namespace {

constexpr std::uint32_t loopback = 0x7F000001;

sockaddr_in address_of(std::uint16_t port_host_order) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port_host_order);
    address.sin_addr.s_addr = htonl(loopback);
    return address;
}

const sockaddr* as_generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// A listening socket on 127.0.0.1 with a port of the system's choice.
struct Listener {
    SOCKET socket_ = INVALID_SOCKET;
    std::uint16_t port = 0;

    Listener() {
        socket_ = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_NE(socket_, INVALID_SOCKET);
        sockaddr_in address = address_of(0);
        EXPECT_EQ(bind(socket_, as_generic(address), sizeof address), 0);
        EXPECT_EQ(listen(socket_, 5), 0);
        sockaddr_in bound{};
        int length = sizeof bound;
        EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&bound), &length), 0);
        port = ntohs(bound.sin_port);
    }
    ~Listener() { closesocket(socket_); }
};

SOCKET connect_to(std::uint16_t port) {
    SOCKET client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = address_of(port);
    if (connect(client, as_generic(address), sizeof address) != 0) {
        int error = WSAGetLastError();
        closesocket(client);
        WSASetLastError(error);
        return INVALID_SOCKET;
    }
    return client;
}

TEST(Sockets, LoopbackRoundTripSendsEveryByte) {
    Listener listener;
    std::string payload(300000, 'm');
    payload[123457] = '!';
    std::thread client([&] {
        SOCKET s = connect_to(listener.port);
        ASSERT_NE(s, INVALID_SOCKET);
        EXPECT_EQ(send(s, payload.data(), static_cast<int>(payload.size()), 0),
                  static_cast<int>(payload.size()));
        EXPECT_EQ(shutdown(s, SD_SEND), 0);
        char reply[8] = {};
        EXPECT_EQ(recv(s, reply, sizeof reply, 0), 3);
        EXPECT_STREQ(reply, "250");
        closesocket(s);
    });
    sockaddr_in peer{};
    int length = sizeof peer;
    SOCKET server = accept(listener.socket_, reinterpret_cast<sockaddr*>(&peer), &length);
    ASSERT_NE(server, INVALID_SOCKET);
    EXPECT_EQ(length, 16);
    EXPECT_EQ(peer.sin_family, AF_INET);
    EXPECT_EQ(ntohl(peer.sin_addr.s_addr), loopback);
    std::string received;
    char buffer[1024];
    for (int got; (got = recv(server, buffer, sizeof buffer, 0)) > 0;) received.append(buffer, got);
    EXPECT_EQ(received, payload);
    EXPECT_EQ(send(server, "250", 3, 0), 3);
    client.join();
    EXPECT_EQ(closesocket(server), 0);
}

TEST(Sockets, ReceiveTimeOutGivesTimedOut) {
    Listener listener;
    SOCKET client = connect_to(listener.port);
    ASSERT_NE(client, INVALID_SOCKET);
    SOCKET server = accept(listener.socket_, nullptr, nullptr);
    ASSERT_NE(server, INVALID_SOCKET);
    DWORD milliseconds = 100;
    ASSERT_EQ(setsockopt(server, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<char*>(&milliseconds),
                         sizeof milliseconds),
              0);
    char byte;
    EXPECT_EQ(recv(server, &byte, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT);
    // Data that does come is still delivered after a time-out.
    EXPECT_EQ(send(client, "x", 1, 0), 1);
    EXPECT_EQ(recv(server, &byte, 1, 0), 1);
    closesocket(server);
    closesocket(client);
}

TEST(Sockets, SendTimeOutBoundsConnect) {
    // A listener whose queue is full drops further handshakes, so a connect
    // waits; the send time-out must end the wait.
    SOCKET full = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = address_of(0);
    ASSERT_EQ(bind(full, as_generic(address), sizeof address), 0);
    ASSERT_EQ(listen(full, 0), 0);
    sockaddr_in bound{};
    int length = sizeof bound;
    ASSERT_EQ(getsockname(full, reinterpret_cast<sockaddr*>(&bound), &length), 0);
    std::vector<SOCKET> waiting;
    int result = 0;
    for (int i = 0; i < 8 && result == 0; ++i) {
        SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
        DWORD milliseconds = 200;
        ASSERT_EQ(setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<char*>(&milliseconds), 4),
                  0);
        result = connect(s, as_generic(bound), sizeof bound);
        waiting.push_back(s);
    }
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAETIMEDOUT);
    for (SOCKET s : waiting) closesocket(s);
    closesocket(full);
}

TEST(Sockets, RefusedAndTakenPorts) {
    std::uint16_t free_port;
    {
        Listener probe;
        free_port = probe.port;
    }
    EXPECT_EQ(connect_to(free_port), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAECONNREFUSED);

    Listener holder;
    SOCKET second = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = address_of(holder.port);
    EXPECT_EQ(bind(second, as_generic(address), sizeof address), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRINUSE);
    closesocket(second);
    sockaddr_in foreign = address_of(0);
    foreign.sin_addr.s_addr = htonl(0xC0000201);  // 192.0.2.1, not on this machine
    second = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(bind(second, as_generic(foreign), sizeof foreign), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEADDRNOTAVAIL);
    closesocket(second);
}

TEST(Sockets, SendToAClosedPeerFailsWithoutASignal) {
    Listener listener;
    SOCKET client = connect_to(listener.port);
    SOCKET server = accept(listener.socket_, nullptr, nullptr);
    ASSERT_NE(server, INVALID_SOCKET);
    closesocket(server);
    std::string block(65536, 'z');
    int result = 0;
    for (int i = 0; i < 50 && result != SOCKET_ERROR; ++i)
        result = send(client, block.data(), static_cast<int>(block.size()), 0);
    EXPECT_EQ(result, SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAECONNRESET);
    closesocket(client);
}

TEST(Sockets, ArgumentsAndHandlesAreChecked) {
    SOCKET s = socket(AF_INET, SOCK_STREAM, 0);
    DWORD one = 1;
    EXPECT_EQ(setsockopt(s, SOL_SOCKET, 0x7777, reinterpret_cast<char*>(&one), 4), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOPROTOOPT);
    EXPECT_EQ(setsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<char*>(&one), 2),
              SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_EQ(setsockopt(s, SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<char*>(&one), 4), 0);
    sockaddr_in address = address_of(0);
    EXPECT_EQ(bind(s, as_generic(address), 8), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
    EXPECT_EQ(shutdown(s, 7), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
    EXPECT_EQ(shutdown(s, SD_BOTH), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTCONN);
    EXPECT_EQ(socket(23, SOCK_STREAM, 0), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAEAFNOSUPPORT);
    EXPECT_EQ(closesocket(s), 0);
    EXPECT_EQ(closesocket(s), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_EQ(closesocket(INVALID_SOCKET), SOCKET_ERROR);

    // A descriptor that is not a socket is never closed by closesocket.
    int file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(file, 0);
    EXPECT_EQ(closesocket(static_cast<SOCKET>(file)), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    EXPECT_EQ(::close(file), 0);

    Listener listener;
    sockaddr_in peer;
    int short_length = 8;
    EXPECT_EQ(accept(listener.socket_, reinterpret_cast<sockaddr*>(&peer), &short_length),
              INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSAEFAULT);
}

TEST(Sockets, InjectedFaults) {
    {
        FaultScope scope(Op::socket, 1, WSAEMFILE);
        EXPECT_EQ(socket(AF_INET, SOCK_STREAM, 0), INVALID_SOCKET);
        EXPECT_EQ(WSAGetLastError(), WSAEMFILE);
    }
    Listener listener;
    SOCKET client = connect_to(listener.port);
    SOCKET server = accept(listener.socket_, nullptr, nullptr);
    {
        FaultScope scope(Op::recv, 1, WSAECONNRESET);
        char byte;
        EXPECT_EQ(recv(server, &byte, 1, 0), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAECONNRESET);
    }
    {
        FaultScope scope(Op::send, 2, WSAECONNABORTED);
        EXPECT_EQ(send(client, "a", 1, 0), 1);
        EXPECT_EQ(send(client, "b", 1, 0), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAECONNABORTED);
    }
    char byte = 0;
    EXPECT_EQ(recv(server, &byte, 1, 0), 1);
    EXPECT_EQ(byte, 'a');
    closesocket(client);
    closesocket(server);
}

}  // namespace
}  // namespace qbsmtp::os
