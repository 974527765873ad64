// What the tests of interception share: the device's model, values as at the start of a process, and two ends of a
// connection. Owner: the test. Thread: the test's. Failure: fails the test.
#pragma once

#include <gtest/gtest.h>
#include <velt/streams/Qxtrans.h>
#include <velt/streams/TCPStream.h>

#include <string>

#include "testing/DeviceModel.h"
#include "testing/Sockets.h"

namespace velt_testing {

inline std::string TextOf(sockaddr_in const& address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string(text) + ':' + std::to_string(ntohs(address.sin_port));
}

inline sockaddr_in NameOf(int socket) {
    sockaddr_in name{};
    socklen_t length = sizeof name;
    EXPECT_EQ(::getsockname(socket, Generic(name), &length), 0);
    return name;
}

class InterceptionTest : public testing::Test {
protected:
    InterceptionTest() { Begin(VELT::Interception::Device); }
    ~InterceptionTest() override { Begin(VELT::Interception::Device); }

    static void Begin(VELT::Interception chosen) {
        VELT::qxtrans_select(chosen);
        VELT::qxtrans_initialised = 0;
        VELT::qxtrans_active = 0;
        VELT::qxtrans_ipaddrs[0] = VELT::qxtrans_ipaddrs[1] = 0;
    }

    // The entry names 127.0.0.1 and then an address that nobody uses.
    void Initialise(std::string const& interfaces = "7f000001 c0000263\n") {
        device.WriteInterfaces(interfaces);
        VELT::qxtrans_init();
    }

    // Who connected to `listener`, and the socket accepted from there.
    struct Accepted {
        Listener listener;
        Fd client{::socket(AF_INET, SOCK_STREAM, 0)};
        Fd server;
        Accepted() {
            EXPECT_EQ(::connect(client.get(), Generic(listener.address()), sizeof(sockaddr_in)), 0);
            server = listener.Accept();
        }
    };

    // What the functions answer about an accepted socket.
    struct Info {
        int answer;
        sockaddr_in peer, destination, local;
    };
    Info Ask(int& handle) {
        Info info{};
        info.answer =
            VELT::qxtrans_connection_info(connection.server.get(), &info.peer, &info.destination, &info.local, &handle);
        return info;
    }
    int Ask(VELT::TCPStream& stream, bool& flag) {
        sockaddr_in peer{}, local{}, destination{};
        return stream.GetConnectionInfo(peer, local, destination, flag);
    }

    DeviceModel device;
    Accepted connection;
};

// Owns what it was told, for handles that a test asks for itself.
struct Handle {
    int fd = -1;
    ~Handle() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace velt_testing
