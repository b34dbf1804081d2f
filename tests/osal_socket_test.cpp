// Socket functions of the OS layer against real loopback sockets: whole-buffer send and receive
// with time-outs, the peer liveness probe, closed versus reset peers, invalid handles, port probes.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "CommonLib/OSAL.h"
#include "support/LogCapture.h"

using PELK::Common::OSAbstractLayer;
using pelktest::LogCapture;

namespace {

// Two connected stream sockets: `mine` is handed to the functions under test, `peer` plays the
// other side. Either an AF_UNIX pair or a real TCP connection over 127.0.0.1.
struct Link {
    int mine = -1;
    int peer = -1;

    static Link local() {
        Link link;
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
            link.mine = fds[0];
            link.peer = fds[1];
        }
        return link;
    }

    static Link tcp() {
        Link link;
        int listener = listeningSocket();
        link.mine = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in address = {};
        socklen_t size = sizeof(address);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        if (connect(link.mine, reinterpret_cast<sockaddr*>(&address), size) == 0) {
            link.peer = accept(listener, nullptr, nullptr);
        }
        close(listener);
        return link;
    }

    // Listens on an ephemeral loopback port.
    static int listeningSocket() {
        int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address));
        listen(listener, 4);
        return listener;
    }

    static int portOf(int sock) {
        struct sockaddr_in address = {};
        socklen_t size = sizeof(address);
        getsockname(sock, reinterpret_cast<sockaddr*>(&address), &size);
        return ntohs(address.sin_port);
    }

    Link() = default;
    Link(Link&& other) noexcept : mine(other.mine), peer(other.peer) { other.mine = other.peer = -1; }
    ~Link() {
        closePeer();
        if (mine >= 0) close(mine);
    }

    void closePeer() {
        if (peer >= 0) close(peer);
        peer = -1;
    }
    // Closing with a zero linger time sends a TCP reset instead of a FIN.
    void resetPeer() {
        struct linger abort = {1, 0};
        setsockopt(peer, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
        closePeer();
    }
    // Waits until the peer's close or reset has reached `mine`.
    void awaitHangUp() const {
        struct pollfd entry = {mine, POLLIN, 0};
        poll(&entry, 1, 2000);
    }
    void peerWrites(const std::string& data) const {
        ASSERT_EQ(write(peer, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    }
    // Everything waiting on `fd` without blocking.
    static std::string drain(int fd) {
        std::string all;
        char chunk[65536];
        ssize_t got;
        while ((got = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT)) > 0) {
            all.append(chunk, static_cast<size_t>(got));
        }
        return all;
    }
};

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

TEST(OsalSendn, PeerGoneFailsBeforeSending) {
    LogCapture capture;
    int sent = 77;

    // Half-closed: our side reads end-of-stream, yet the peer could still receive.
    Link local = Link::local();
    shutdown(local.peer, SHUT_WR);
    EXPECT_EQ(OSAbstractLayer::osal_sendn(local.mine, "hello", 5, 0, 1, &sent), -1);
    EXPECT_EQ(Link::drain(local.peer), "");
    EXPECT_EQ(capture.count("the socket is closed.socket=" + std::to_string(local.mine)), 1u);

    Link closed = Link::tcp();
    closed.closePeer();
    closed.awaitHangUp();
    EXPECT_EQ(OSAbstractLayer::osal_sendn(closed.mine, "hello", 5, 0, 1, &sent), -1);

    Link reset = Link::tcp();
    reset.resetPeer();
    reset.awaitHangUp();
    EXPECT_EQ(OSAbstractLayer::osal_sendn(reset.mine, "hello", 5, 0, 1, &sent), -1);
    EXPECT_EQ(sent, 77);
}

TEST(OsalSendn, PendingInputStaysUnreadAndDoesNotStopSending) {
    Link link = Link::local();
    link.peerWrites("abc");
    int sent = 77;
    EXPECT_EQ(OSAbstractLayer::osal_sendn(link.mine, "hello", 5, 0, 1, &sent), 1);
    EXPECT_EQ(OSAbstractLayer::osal_simple_sendn(link.mine, "!", 1, 0, 1, nullptr), 1);
    EXPECT_EQ(OSAbstractLayer::osal_sendn(link.mine, "ignored", 0, 0, 1, nullptr), 1);
    EXPECT_EQ(sent, 77);
    EXPECT_EQ(Link::drain(link.peer), "hello!");
    EXPECT_EQ(Link::drain(link.mine), "abc");
}

TEST(OsalSendn, TimesOutWhenPeerNeverReadsAndReportsBytesSent) {
    LogCapture capture;
    const std::vector<char> big(4 << 20, 'z');
    for (bool simple : {false, true}) {
        SCOPED_TRACE(simple);
        Link link = Link::local();
        int small = 4096;
        setsockopt(link.mine, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        int sent = -1;
        const auto start = std::chrono::steady_clock::now();
        const int result =
            simple ? OSAbstractLayer::osal_simple_sendn(link.mine, big.data(), static_cast<int>(big.size()), 0, 1, &sent)
                   : OSAbstractLayer::osal_sendn(link.mine, big.data(), static_cast<int>(big.size()), 0, 1, &sent);
        EXPECT_EQ(result, 0);
        EXPECT_GE(secondsSince(start), 0.9);
        EXPECT_LT(secondsSince(start), 5.0);
        EXPECT_GT(sent, 0);
        EXPECT_LT(sent, static_cast<int>(big.size()));
        // Every byte reported as sent has arrived; nothing more.
        EXPECT_EQ(static_cast<int>(Link::drain(link.peer).size()), sent);
        const std::string prefix = simple ? "osal_simple_sendn timeout! socket=" : "osal_sendn timeout! socket=";
        EXPECT_EQ(capture.count(prefix + std::to_string(link.mine) + ", error:"), 1u);
    }
}

TEST(OsalRecvn, CompletesOrTimesOutWithBytesSoFar) {
    LogCapture capture;
    Link link = Link::local();
    char buffer[16] = {};
    int received = -1;
    link.peerWrites("abc");
    link.peerWrites("defg");
    EXPECT_EQ(OSAbstractLayer::osal_recvn(link.mine, buffer, 7, 0, 1, &received), 1);
    EXPECT_EQ(received, 7);
    EXPECT_EQ(std::string(buffer, 7), "abcdefg");

    link.peerWrites("xyz");
    received = -1;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(OSAbstractLayer::osal_recvn(link.mine, buffer, 10, 0, 1, &received), 0);
    EXPECT_GE(secondsSince(start), 0.9);
    EXPECT_LT(secondsSince(start), 5.0);
    EXPECT_EQ(received, 3);
    EXPECT_EQ(std::string(buffer, 3), "xyz");
    EXPECT_TRUE(capture.contains("recvn timeout!"));

    // Peeking reads without consuming, and is warned about.
    link.peerWrites("pq");
    EXPECT_EQ(OSAbstractLayer::osal_recvn(link.mine, buffer, 2, MSG_PEEK, 1, nullptr), 1);
    EXPECT_EQ(capture.count("Recvn with MSG_PEEK mode should not be avoided!"), 1u);
    EXPECT_EQ(Link::drain(link.mine), "pq");
    EXPECT_EQ(OSAbstractLayer::osal_recvn(link.mine, buffer, 0, 0, 1, nullptr), 1);
}

TEST(OsalRecvn, TellsClosedPeerFromReset) {
    LogCapture capture;
    char buffer[16];
    int received = -1;
    Link closed = Link::local();
    closed.peerWrites("ab");
    closed.closePeer();
    EXPECT_EQ(OSAbstractLayer::osal_recvn(closed.mine, buffer, 10, 0, 1, &received), -1);
    EXPECT_EQ(received, 2);
    EXPECT_TRUE(capture.contains("socket closed."));

    Link reset = Link::tcp();
    reset.resetPeer();
    EXPECT_EQ(OSAbstractLayer::osal_recvn(reset.mine, buffer, 10, 0, 1, nullptr), -2);
    EXPECT_EQ(capture.count("receive error:" + std::to_string(ECONNRESET) + ", socket=" + std::to_string(reset.mine)),
              1u);
}

TEST(OsalSocketAvailable, HealthyUntilClosedOrReset) {
    LogCapture capture;
    Link link = Link::tcp();
    EXPECT_TRUE(OSAbstractLayer::osal_socketAvailable(link.mine));
    link.peerWrites("k");
    EXPECT_TRUE(OSAbstractLayer::osal_socketAvailable(link.mine));
    EXPECT_EQ(Link::drain(link.mine), "k");
    EXPECT_TRUE(capture.lines().empty());

    Link closed = Link::local();
    closed.closePeer();
    EXPECT_FALSE(OSAbstractLayer::osal_socketAvailable(closed.mine));
    EXPECT_EQ(capture.count("the socket is closed.socket=" + std::to_string(closed.mine) + " \n"), 1u);

    link.resetPeer();
    link.awaitHangUp();
    EXPECT_FALSE(OSAbstractLayer::osal_socketAvailable(link.mine));
    EXPECT_EQ(capture.count("the socket is resetted by other peer, error: no." + std::to_string(ECONNRESET) +
                            ", socket=" + std::to_string(link.mine) + " \n"),
              1u);
}

TEST(OsalSockets, InvalidHandlesGetTheirCodes) {
    LogCapture capture;
    char buffer[4] = {};
    for (long sock : {-1L, -2L, -4096L, LONG_MIN}) {
        SCOPED_TRACE(sock);
        capture.clear();
        int count = 5;
        EXPECT_EQ(OSAbstractLayer::osal_socketReadable(sock, 0, 0), -1);
        EXPECT_EQ(OSAbstractLayer::osal_socketWritable(sock, 0), -1);
        EXPECT_FALSE(OSAbstractLayer::osal_socketAvailable(sock));
        EXPECT_FALSE(OSAbstractLayer::osal_socketConnected(sock, 0));
        EXPECT_EQ(OSAbstractLayer::osal_sendn(sock, "x", 1, 0, 1, &count), -1);
        EXPECT_EQ(OSAbstractLayer::osal_simple_sendn(sock, "x", 1, 0, 1, &count), -1);
        EXPECT_EQ(OSAbstractLayer::osal_recvn(sock, buffer, 1, 0, 1, &count), -2);
        EXPECT_EQ(count, 5);
        EXPECT_EQ(capture.count("OSAL_INVALID_SOCKET == sock!"), 7u);
    }
    // A descriptor number that is not open is an error, not a ready socket.
    int stale = Link::listeningSocket();
    close(stale);
    EXPECT_EQ(OSAbstractLayer::osal_socketReadable(stale, 0, 0), -1);
    EXPECT_EQ(OSAbstractLayer::osal_recvn(stale, buffer, 1, 0, 1, nullptr), -2);
}

TEST(OsalSockets, ReadinessAndConnectedState) {
    LogCapture capture;
    Link link = Link::tcp();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(OSAbstractLayer::osal_socketReadable(link.mine, 0, 200000), 0);
    EXPECT_GE(secondsSince(start), 0.15);
    EXPECT_GT(OSAbstractLayer::osal_socketWritable(link.mine, 1), 0);
    EXPECT_TRUE(OSAbstractLayer::osal_socketConnected(link.mine, 1));
    std::thread writer([&link] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        link.peerWrites("w");
    });
    EXPECT_GT(OSAbstractLayer::osal_socketReadable(link.mine, -1, 0), 0);
    writer.join();
    EXPECT_TRUE(OSAbstractLayer::osal_socketConnected(link.mine, 1));
    EXPECT_EQ(Link::drain(link.mine), "w");

    link.closePeer();
    link.awaitHangUp();
    EXPECT_FALSE(OSAbstractLayer::osal_socketConnected(link.mine, 1));
    EXPECT_TRUE(capture.contains("the socket is closed. \n"));

    // A listener with nobody queued is neither readable nor writable.
    int listener = Link::listeningSocket();
    EXPECT_FALSE(OSAbstractLayer::osal_socketConnected(listener, 0));
    EXPECT_TRUE(capture.contains("Timeout, connection failed!"));
    long unconnected = OSAbstractLayer::osal_create_tcp_socket();
    EXPECT_FALSE(OSAbstractLayer::osal_socketConnected(unconnected, 0));
    close(listener);
    close(static_cast<int>(unconnected));
}

TEST(OsalCheckPortOpen, ProbesLoopbackPortsAndRejectsBadInput) {
    LogCapture capture;
    bool open = true;
    EXPECT_EQ(OSAbstractLayer::osal_checkPortOpen("127.0.0.1", 65536, &open), 1);
    EXPECT_TRUE(open);
    EXPECT_TRUE(capture.contains("Invalid tcp port: 65536!"));
    EXPECT_EQ(OSAbstractLayer::osal_checkPortOpen(nullptr, 80, &open), 1);
    EXPECT_EQ(OSAbstractLayer::osal_checkPortOpen("127.0.0.1", 80, nullptr), 1);
    EXPECT_EQ(capture.count("NULL pointer of input!"), 2u);

    int listener = Link::listeningSocket();
    const int openPort = Link::portOf(listener);
    open = false;
    EXPECT_EQ(OSAbstractLayer::osal_checkLocalPortOpen(openPort, &open), 0);
    EXPECT_TRUE(open);
    EXPECT_TRUE(capture.contains("Connected to 127.0.0.1:" + std::to_string(openPort)));

    // Bound but not listening: the port is ours and refuses connections.
    int bound = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(bound, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    const int closedPort = Link::portOf(bound);
    EXPECT_EQ(OSAbstractLayer::osal_checkPortOpen("127.0.0.1", closedPort, &open), 0);
    EXPECT_FALSE(open);
    EXPECT_TRUE(capture.contains("Cannot connect to 127.0.0.1:" + std::to_string(closedPort)));
    close(bound);
    close(listener);
}

TEST(OsalInetNtoa, ConvertsFromManyThreadsAtOnce) {
    const char* const texts[] = {"127.0.0.1", "0.0.0.0", "255.255.255.255", "10.1.2.3"};
    std::vector<std::thread> threads;
    std::vector<int> mismatches(4, 0);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&texts, &mismatches, i] {
            struct in_addr address;
            inet_pton(AF_INET, texts[i], &address);
            for (int round = 0; round < 500; ++round) {
                mismatches[i] += PELK::Common::Inet_ntoa(address) != texts[i];
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}
