// Socket functions of the OS layer over real connected sockets: closed versus reset peers, pending
// input, time-outs with partial counts, invalid handles, readiness and port probes.
#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <thread>
#include <utility>
#include <vector>

#include "CommonLib/OSAL.h"
#include "support/LogCapture.h"
#include "support/Waits.h"

using Osal = PELK::Common::OSAbstractLayer;

namespace {

// A socket bound to an ephemeral loopback port (*address); unless it listens, connecting is refused.
int boundSocket(bool listening, sockaddr_in* address) {
    const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    socklen_t size = sizeof(*address);
    *address = {};
    address->sin_family = AF_INET;
    address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(sock, reinterpret_cast<sockaddr*>(address), size), 0);
    getsockname(sock, reinterpret_cast<sockaddr*>(address), &size);
    if (listening) listen(sock, 4);
    return sock;
}

// Everything waiting on fd, without blocking.
std::string drain(int fd) {
    std::string all;
    char chunk[65536];
    for (ssize_t got; (got = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT)) > 0;) all.append(chunk, got);
    return all;
}

// Runs call, expects it to take at least `least` seconds but under five, and returns its result.
template <typename Call>
auto timed(double least, Call call) {
    const pelktest::Clock::time_point start = pelktest::Clock::now();
    const auto result = call();
    EXPECT_GE(pelktest::secondsSince(start), least);
    EXPECT_LT(pelktest::secondsSince(start), 5.0);
    return result;
}

// A connected stream pair: `mine` goes to the functions under test, `peer` plays the other side.
// TCP over loopback, as the service link uses; an AF_UNIX pair where only buffer filling matters
// (a TCP peer would need window updates to drain promptly).
struct Link {
    int fds[2] = {-1, -1};
    int &mine = fds[0], &peer = fds[1];

    explicit Link(bool tcp = true) {
        if (!tcp) {
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
            return;
        }
        sockaddr_in address;
        const int listener = boundSocket(true, &address);
        mine = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(connect(mine, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        close(listener);
    }
    Link(const Link&) = delete;
    ~Link() {
        for (int fd : fds) close(fd);  // -1 once the peer is closed: refused, harmless
    }
    // Without reset the peer only shuts its sending side: we read end-of-stream, yet it could still
    // receive. With reset it closes with input left unread, which sends a reset.
    void closePeer(bool reset = false) {
        if (reset) {
            send(mine, "?", 1, 0);
            close(std::exchange(peer, -1));
        } else {
            shutdown(peer, SHUT_WR);
        }
    }
    void peerWrites(const std::string& data) const {
        ASSERT_EQ(write(peer, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    }
};

TEST(OsalSockets, ClosedAndResetPeersAreToldApart) {
    pelktest::LogCapture capture;
    const std::string error = std::to_string(ECONNRESET);
    for (bool reset : {false, true}) {
        SCOPED_TRACE(reset);
        Link probed, sending, receiving;  // a reset is reported once per socket
        if (!reset) receiving.peerWrites("ab");
        for (Link* link : {&probed, &sending, &receiving}) link->closePeer(reset);
        int sent = 77, received = -1;
        char buffer[16];
        const std::vector<int> results = {
            Osal::osal_socketAvailable(probed.mine), Osal::osal_sendn(sending.mine, "hello", 5, 0, 1, &sent),
            Osal::osal_recvn(receiving.mine, buffer, 10, 0, 1, &received), sent, received};
        EXPECT_EQ(results, (std::vector<int>{false, -1, reset ? -2 : -1, 77, reset ? -1 : 2}));
        EXPECT_EQ(drain(sending.peer), "");  // failed before sending anything
        const std::string probe = reset ? "the socket is resetted by other peer, error: no." + error + ", socket="
                                        : "the socket is closed.socket=";
        EXPECT_EQ(capture.count(probe + std::to_string(probed.mine) + " \n"), 1u);
        EXPECT_EQ(capture.count(reset ? "receive error:" + error + ", socket=" + std::to_string(receiving.mine)
                                      : "socket closed."), 1u);
    }
}

TEST(OsalSockets, SendAndReceiveTimeOutReportingBytesSoFar) {
    const std::vector<char> big(4 << 20, 'z');
    const int size = static_cast<int>(big.size());
    for (auto sendAll : {&Osal::osal_sendn, &Osal::osal_simple_sendn}) {
        Link link(false);
        int small = 4096, sent = -1;
        setsockopt(link.mine, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
        EXPECT_EQ(timed(0.9, [&] { return sendAll(link.mine, big.data(), size, 0, 1, &sent); }), 0);
        EXPECT_GT(sent, 0);
        EXPECT_EQ(static_cast<int>(drain(link.peer).size()), sent);  // all reported bytes, no more
    }

    Link link;
    char buffer[16] = {};
    auto receive = [&](int length) {  // the result, the count and the bytes received
        int received = -1;
        const int result = Osal::osal_recvn(link.mine, buffer, length, 0, 1, &received);
        return std::to_string(result) + " " + std::to_string(received) + " " +
               std::string(buffer, std::max(received, 0));
    };
    link.peerWrites("xyz");
    EXPECT_EQ(timed(0.9, [&] { return receive(10); }), "0 3 xyz");
    link.peerWrites("pq");  // peeking reads without consuming
    EXPECT_EQ(Osal::osal_recvn(link.mine, buffer, 2, MSG_PEEK, 1, nullptr), 1);
    EXPECT_EQ(drain(link.mine), "pq");
    EXPECT_EQ(Osal::osal_recvn(link.mine, buffer, 0, 0, 1, nullptr), 1);
}

TEST(OsalSockets, InvalidHandlesGetTheirCodes) {
    char buffer[4] = {};
    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);  // a descriptor that is no longer open
    close(stale);
    for (long sock : {-1L, LONG_MIN, static_cast<long>(stale)}) {  // LONG_MIN would be descriptor 0 if cut to an int
        SCOPED_TRACE(sock);
        int count = 5;
        const std::vector<int> results = {
            Osal::osal_socketReadable(sock, 0, 0), Osal::osal_socketWritable(sock, 0),
            Osal::osal_socketAvailable(sock), Osal::osal_socketConnected(sock, 0),
            Osal::osal_sendn(sock, "x", 1, 0, 1, &count), Osal::osal_simple_sendn(sock, "x", 1, 0, 1, &count),
            Osal::osal_recvn(sock, buffer, 1, 0, 1, &count)};
        EXPECT_EQ(results, (std::vector<int>{-1, -1, false, false, -1, -1, -2}));
        EXPECT_EQ(count, 5);
    }
}

// Pending input is neither consumed by the checks nor in the way of sending.
TEST(OsalSockets, ReadinessConnectedStateAndPendingInput) {
    Link link;
    EXPECT_TRUE(Osal::osal_socketConnected(link.mine, 1));
    std::thread writer([&link] { pelktest::sleepMs(100); link.peerWrites("w"); });
    EXPECT_GT(Osal::osal_socketReadable(link.mine, -1, 0), 0);
    writer.join();
    EXPECT_TRUE(Osal::osal_socketConnected(link.mine, 1));
    EXPECT_EQ(Osal::osal_sendn(link.mine, "hello", 5, 0, 1, nullptr), 1);
    EXPECT_EQ(Osal::osal_simple_sendn(link.mine, "!", 1, 0, 1, nullptr), 1);
    EXPECT_EQ(drain(link.peer), "hello!");
    EXPECT_EQ(drain(link.mine), "w");
    link.closePeer();
    EXPECT_FALSE(Osal::osal_socketConnected(link.mine, 1));
}

// The probe tells a listening port from a closed one; neither socket counts as connected (a
// listener with nobody queued is neither readable nor writable).
TEST(OsalSockets, PortProbeTellsOpenFromClosedAndNeitherSideCountsAsConnected) {
    bool open = true;
    EXPECT_EQ(Osal::osal_checkPortOpen("127.0.0.1", 65536, &open), 1);
    EXPECT_TRUE(open);  // left untouched
    EXPECT_EQ(Osal::osal_checkPortOpen(nullptr, 80, &open), 1);
    EXPECT_EQ(Osal::osal_checkPortOpen("127.0.0.1", 80, nullptr), 1);
    for (bool listening : {true, false}) {
        sockaddr_in address;
        const int sock = boundSocket(listening, &address);
        open = !listening;
        EXPECT_EQ(Osal::osal_checkLocalPortOpen(ntohs(address.sin_port), &open), 0);
        EXPECT_EQ(open, listening);
        EXPECT_FALSE(Osal::osal_socketConnected(sock, 0));
        close(sock);
    }
}

// A signal handled without SA_RESTART interrupts a blocked wait or receive with EINTR; the call
// must go on waiting for its data rather than fail.
TEST(OsalSockets, ASignalDoesNotEndAWaitForData) {
    struct sigaction quiet = {}, previous = {};
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &quiet, &previous), 0);
    for (bool some : {false, true}) {
        SCOPED_TRACE(some ? "osal_recv_some" : "osal_recvn");
        Link link;
        Osal::osal_set_receive_timeout(link.mine, 5000);
        char buffer[4] = {};
        std::atomic<int> result{-5};
        std::thread reader([&] {
            result = some ? Osal::osal_recv_some(link.mine, buffer, 4, false)
                          : Osal::osal_recvn(link.mine, buffer, 4, 0, 5, nullptr);
        });
        for (int i = 0; i < 20; ++i) {
            pthread_kill(reader.native_handle(), SIGUSR1);
            pelktest::sleepMs(5);
        }
        link.peerWrites("abcd");
        reader.join();
        EXPECT_EQ(result.load(), some ? 4 : 1);
        EXPECT_EQ(std::string(buffer, 4), "abcd");
    }
    sigaction(SIGUSR1, &previous, nullptr);
}

}  // namespace
