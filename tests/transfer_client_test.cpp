// The transfer client against the fake service: calls and their time-outs, the routing of replies
// and events, losses of every kind, lifetimes, calls from inside the callback, and a service that
// misbehaves.
#include "TransferClient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CommonLib/OSAL.h"
#include "support/FakeService.h"
#include "support/LogCapture.h"
#include "support/Waits.h"

using PELK::Agent::TransferClient;
using pelktest::B;
using pelktest::body;
using pelktest::Bytes;
using pelktest::Clock;
using pelktest::FakeService;
using pelktest::FrameRecorder;
using pelktest::secondsSince;
using pelktest::sleepMs;

namespace Frame = PELK::Agent::Frame;

namespace {

using Ids = std::vector<int32_t>;

class TransferClientTest : public ::testing::Test {
protected:
    // Declared first, so that the logger outlives the client's threads.
    pelktest::LogCapture log;
    std::unique_ptr<FakeService> service = std::make_unique<FakeService>();
    FrameRecorder events;
    std::unique_ptr<TransferClient> client = std::make_unique<TransferClient>();

    void SetUp() override { ASSERT_TRUE(service->listening()) << "127.0.0.1:20014 is taken"; }

    // Starts the link and waits until the service has taken this very connection (until then,
    // what the test sends could go to the one that is ending); then installs the recorder.
    void start(FrameRecorder* recorder = nullptr) {
        const int accepted = service->connections();
        ASSERT_TRUE(client->startTransfer());
        ASSERT_TRUE(service->waitForConnections(accepted + 1));
        if (recorder != nullptr) {
            client->setActionCallBack(FrameRecorder::onAction, recorder);
        }
    }

    // serviceCall with a request body; the reply body lands in *reply. Without reply the call is
    // one-way (no response length).
    int call(const Bytes& request, int timeout, Bytes* reply = nullptr) {
        Bytes copy = request;
        char* resp = nullptr;
        int length = 0;
        const int result = client->serviceCall(reinterpret_cast<char*>(copy.data()), static_cast<int>(copy.size()),
                                               resp, reply != nullptr ? &length : nullptr, timeout);
        if (result == 0 && reply != nullptr) {
            reply->assign(resp, resp + length);
        }
        delete[] resp;
        return result;
    }
    int ask(int32_t actionID, int timeout) {
        Bytes ignored;
        return call(body(actionID), timeout, &ignored);
    }

    bool waitForLog(const std::string& fragment, size_t count = 1) {
        return pelktest::waitUntil([&] { return log.count(fragment) >= count; }, 5000);
    }
};

TEST_F(TransferClientTest, CallsTimeOutOnlyPastTheirTimeOutAndOneWayRequestsDoNotWait) {
    service->answer(30, body(30, {0}), 1200);
    service->answer(31, body(31, {5}));
    start();
    for (int timeout : {0, 2}) {
        const Clock::time_point begin = Clock::now();
        EXPECT_EQ(1106, ask(33, timeout));
        EXPECT_GE(secondsSince(begin), timeout);
        EXPECT_LT(secondsSince(begin), timeout + 1.5);
    }
    // A reply that comes after its call gave up is discarded by the next call.
    EXPECT_EQ(1106, ask(30, 0));
    sleepMs(1500);
    Bytes reply;
    ASSERT_EQ(0, call(body(31), 5, &reply));
    EXPECT_EQ(body(31, {5}), reply);

    EXPECT_EQ(0, call(body(27), 40));
    ASSERT_TRUE(service->waitForRequests(27, 1));
    EXPECT_EQ(std::vector<Bytes>{body(27)}, service->received(27));
    // A response buffer without a length to report it in is a caller's mistake, found after sending.
    Bytes request = body(27);
    char* preset = new char[8];
    EXPECT_EQ(1102, client->serviceCall(reinterpret_cast<char*>(request.data()), 4, preset, nullptr, 40));
    EXPECT_TRUE(service->waitForRequests(27, 2));
    delete[] preset;
    char* none = nullptr;
    EXPECT_EQ(1102, client->serviceCall(nullptr, 4, none, nullptr, 40));
}

TEST_F(TransferClientTest, LostServiceFailsTheWaitingCallReportsEvent46ThenNullAndCanRestart) {
    service->on(33, [this](const Bytes&) {
        service->closeConnection();
        return std::vector<Bytes>{};
    });
    start(&events);
    EXPECT_EQ(1107, ask(33, 30));
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_EQ((Ids{46, 0}), events.ids());
    EXPECT_EQ(Bytes({4, 0, 0, 0, 46, 0, 0, 0}), events.frames()[0]);
    EXPECT_FALSE(client->isTransferStarted());

    // The same object connects again.
    service->answer(44, body(44, {0, 0}));
    start();
    Bytes reply;
    EXPECT_EQ(0, call(body(44), 5, &reply));
    EXPECT_EQ(body(44, {0, 0}), reply);
}

// Without a callback the receiver queues the events and the loss and waits until a callback takes
// them; calls meanwhile say at once that the link is down. A stop drops what was queued, so that
// the next run starts clean, and the client's end ends the wait too.
TEST_F(TransferClientTest, WithoutACallbackTheLossWaitsToBeTakenUntilAStopOrTheClientsEnd) {
    enum End { kTaken, kStopped, kDestroyed };
    for (End end : {kTaken, kStopped, kDestroyed}) {
        SCOPED_TRACE(end);
        events.clear();
        client = std::make_unique<TransferClient>();  // with no callback yet
        start();
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(service->push(body(20, {i})));
        }
        service->closeConnection();
        ASSERT_TRUE(waitForLog("wait for NetException to be handled", end + 1));  // after every event
        const Clock::time_point begin = Clock::now();
        EXPECT_EQ(1107, ask(44, 5));
        EXPECT_EQ(1107, call(body(27), 5));
        EXPECT_LT(secondsSince(begin), 0.5);
        sleepMs(200);
        EXPECT_TRUE(client->isTransferStarted()) << "still waiting";
        if (end == kTaken) {
            client->setActionCallBack(FrameRecorder::onAction, &events);
            ASSERT_TRUE(events.waitFor(102));
            Ids expected(100, 20);
            expected.insert(expected.end(), {46, 0});
            EXPECT_EQ(expected, events.ids());
        } else if (end == kStopped) {
            client->stopTransfer();
            start(&events);
            ASSERT_TRUE(service->push(body(20, {9})));
            ASSERT_TRUE(events.waitFor(1));
            sleepMs(100);
            ASSERT_EQ(1u, events.frames().size());
            EXPECT_EQ(9, events.frames()[0][8]);
        } else {
            const Clock::time_point destroying = Clock::now();
            client.reset();
            EXPECT_LT(secondsSince(destroying), 2.0);
            return;
        }
        client->stopTransfer();
    }
}

// However a frame's bytes are cut, and however large it is, it arrives whole.
TEST_F(TransferClientTest, AFragmentOfAHeaderIsReportedAndCompletedByWhatFollows) {
    start(&events);
    const Bytes oversized = pelktest::frame(B().i32(20).zeros(70000 - 4));
    ASSERT_TRUE(service->sendRaw(oversized));
    ASSERT_TRUE(events.waitFor(1));
    EXPECT_EQ(oversized, events.frames()[0]);
    const Bytes whole = pelktest::frame(body(45, {1, 2, 3}));
    for (size_t cut = 1; cut < 8; ++cut) {
        SCOPED_TRACE(cut);
        ASSERT_TRUE(service->sendRaw(Bytes(whole.begin(), whole.begin() + cut)));
        sleepMs(20);
        ASSERT_TRUE(service->sendRaw(Bytes(whole.begin() + cut, whole.end())));
        ASSERT_TRUE(events.waitFor(cut + 1));
        EXPECT_EQ(whole, events.frames()[cut]);
    }
}

// A peer that closes with part of a frame read, and a length word that no frame may have, both
// end the connection as a lost service.
TEST_F(TransferClientTest, AClosedPeerOrALengthBeyondTheLimitIsALoss) {
    const Bytes whole = pelktest::frame(body(20, {1, 2, 3}));
    const struct {
        Bytes bytes;
        bool close;
    } rows[] = {
        {Bytes(whole.begin(), whole.begin() + 1), true},
        {Bytes(whole.begin(), whole.begin() + 7), true},
        {Bytes(whole.begin(), whole.begin() + 12), true},
        {B().i32(Frame::kMaxLength + 1).i32(20), false},
        {B().i32(0x7FFFFFFB).i32(20), false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.bytes));
        FrameRecorder lost;
        start(&lost);
        ASSERT_TRUE(service->sendRaw(row.bytes));
        if (row.close) {
            sleepMs(20);
            service->closeConnection();
        }
        ASSERT_TRUE(lost.waitFor(1, 2000));
        EXPECT_EQ(46, lost.ids()[0]) << ::testing::PrintToString(lost.ids());
        client->stopTransfer();
    }
}

TEST_F(TransferClientTest, OrderlyStopClosesTheSocketBeforeReturningAndEndsWithNull) {
    start(&events);
    EXPECT_FALSE(client->startTransfer());
    client->stopTransfer();
    EXPECT_EQ(OSAL_INVALID_SOCKET, client->getSocket());
    EXPECT_FALSE(client->isReceiverStarted());
    EXPECT_EQ((Ids{0}), events.ids());
    EXPECT_TRUE(service->waitForClientClose());
    EXPECT_FALSE(client->stopTransfer());
    service.reset();  // and with no service, no start
    EXPECT_FALSE(client->startTransfer());
    EXPECT_EQ(OSAL_INVALID_SOCKET, client->getSocket());
    EXPECT_FALSE(client->isTransferStarted());
}

// A class derived from the socket client hears the receiver thread through the three hooks: data,
// then on a lost peer the loss before the stop; an orderly stop calls no loss hook and returns
// only once the thread has stopped and closed the socket.
class HookedClient : public PELK::Agent::SocketClient {
public:
    ~HookedClient() { stopReceiver(); }  // before the hooks go away with this class
    bool onDataReceived() override {
        char buffer[256];
        const ssize_t got = recv(static_cast<int>(getSocket()), buffer, sizeof(buffer), 0);
        return note(got > 0 ? " data" : " end"), got > 0;
    }
    bool onNetException() override { return note(" loss"), SocketClient::onNetException(); }
    bool onReceiverStopped() override { return note(" stopped"), SocketClient::onReceiverStopped(); }
    bool connect() { return createSocket() && connectToServer() && startReceiver(); }
    // The hooks called so far, a hook called again in a row once, e.g. " data end loss stopped".
    std::string calls() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_calls;
    }

private:
    void note(const std::string& call) {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_calls.size() < call.size() || m_calls.substr(m_calls.size() - call.size()) != call) m_calls += call;
    }
    std::mutex m_mutex;
    std::string m_calls;
};

TEST_F(TransferClientTest, ADerivedSocketClientHearsTheReceiverThroughItsHooks) {
    HookedClient hooked;
    ASSERT_TRUE(hooked.connect());
    ASSERT_TRUE(service->waitForConnections(1));
    ASSERT_TRUE(service->push(body(45, {1})));
    ASSERT_TRUE(pelktest::waitUntil([&] { return !hooked.calls().empty(); }, 5000));
    service->closeConnection();
    ASSERT_TRUE(pelktest::waitUntil([&] { return hooked.calls() == " data end loss stopped"; }, 5000))
        << hooked.calls();

    // The stop shuts the socket down, which the receiver may still read as its end.
    HookedClient orderly;
    ASSERT_TRUE(orderly.connect());
    ASSERT_TRUE(orderly.stopReceiver());
    EXPECT_TRUE(orderly.calls() == " stopped" || orderly.calls() == " end stopped") << orderly.calls();
    EXPECT_EQ(OSAL_INVALID_SOCKET, orderly.getSocket());
}

// Lifetime: no thread may outlive the client, whatever the timing.
TEST_F(TransferClientTest, StartThenImmediateStopOrDestroyRepeatedly) {
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(client->startTransfer()) << "iteration " << i;
        client->setActionCallBack(FrameRecorder::onAction, &events);
        client->stopTransfer();
        if (i % 2 == 0) {
            client = std::make_unique<TransferClient>();  // destroy right after a stop
        }
    }
    start(&events);  // destroyed right after the loss is reported
    service->closeConnection(true);
    ASSERT_TRUE(events.waitFor(46, 1, 5000));
    client.reset();
}

// Calls from inside the callback: each would wait for the calling thread itself if it were
// made as from any other thread.
TEST_F(TransferClientTest, ACallbackReplacesOrClearsItselfFromTheNextFrameOn) {
    FrameRecorder replacement;
    events.setInside([&](char*) { client->setActionCallBack(FrameRecorder::onAction, &replacement); });
    start(&events);
    ASSERT_TRUE(service->push(body(20, {1})));
    ASSERT_TRUE(service->push(body(20, {2})));
    ASSERT_TRUE(replacement.waitFor(1));
    EXPECT_EQ((Ids{20}), events.ids());

    FrameRecorder cleared;
    cleared.setInside([&](char*) { client->setActionCallBack(nullptr, nullptr); });
    client->setActionCallBack(FrameRecorder::onAction, &cleared);
    ASSERT_TRUE(service->push(body(20, {3})));
    ASSERT_TRUE(service->push(body(20, {4})));
    ASSERT_TRUE(cleared.waitFor(1));
    sleepMs(100);
    EXPECT_EQ(1u, cleared.frames().size());
    client->setActionCallBack(FrameRecorder::onAction, &replacement);  // the frame that waited
    ASSERT_TRUE(replacement.waitFor(2));
    EXPECT_EQ(4, replacement.frames()[1][8]);
    client.reset();  // before the recorders go
}

// A stop from inside the callback returns at once and no frame of its connection follows: the null
// frame ends the link, or nothing does when the callback starts the link again and calls on it.
TEST_F(TransferClientTest, AStopFromInsideACallbackEndsItsConnectionAndMayStartANewOne) {
    service->answer(44, body(44, {7}));
    for (bool restart : {false, true}) {
        SCOPED_TRACE(restart);
        client = std::make_unique<TransferClient>();
        FrameRecorder seen;
        std::atomic<double> stopSeconds{-1};
        std::atomic<int> called{-1};
        Bytes reply;
        seen.setInside([&](char* frame) {
            if (frame != nullptr && frame[8] == 1) {
                sleepMs(100);  // the later events are queued
                const Clock::time_point begin = Clock::now();
                client->stopTransfer();
                stopSeconds = secondsSince(begin);
                called = restart && client->startTransfer() ? call(body(44), 5, &reply) : -2;
            }
        });
        start(&seen);
        for (int i = 1; i <= 3; ++i) ASSERT_TRUE(service->push(body(20, {i})));
        ASSERT_TRUE(seen.waitFor(restart ? 1 : 2));
        EXPECT_GE(stopSeconds.load(), 0.0);
        EXPECT_LT(stopSeconds.load(), 1.0);
        if (restart) {
            EXPECT_EQ(0, called.load());
            EXPECT_EQ(body(44, {7}), reply);
            ASSERT_TRUE(service->push(body(20, {4})));  // on the new connection
            ASSERT_TRUE(seen.waitFor(2));
        } else {
            EXPECT_TRUE(service->waitForClientClose());
        }
        sleepMs(100);
        EXPECT_EQ(restart ? Ids({20, 20}) : Ids({20, 0}), seen.ids());
        if (restart) {
            EXPECT_EQ(4, seen.frames()[1][8]) << "the old connection's queued frames were dropped";
        }
        EXPECT_EQ(restart, client->isTransferStarted());
        client.reset();  // before the recorder's step goes
    }
}

TEST_F(TransferClientTest, AStopFromAnotherThreadWaitsForTheRunningCallback) {
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
    events.setInside([&](char* frame) {
        if (frame != nullptr) {
            entered = true;
            sleepMs(300);
            finished = true;
        }
    });
    start(&events);
    ASSERT_TRUE(service->push(body(20, {1})));
    while (!entered) {
        std::this_thread::yield();
    }
    client->stopTransfer();
    EXPECT_TRUE(finished.load());
    EXPECT_EQ((Ids{20, 0}), events.ids());
}

// ---------------------------------------------------------------------------------------------
// A service that misbehaves

TEST_F(TransferClientTest, ASlowPeerHoldsNoCallPastItsTimeoutAndAStopEndsTheRead) {
    start();
    ASSERT_TRUE(service->sendRaw({104, 0, 0, 0, 44, 0, 0, 0}));  // a reply of 100 bytes that trickles
    std::atomic<bool> trickling{true};
    std::thread trickle([&] {
        while (trickling) {
            service->sendRaw({0});
            sleepMs(100);
        }
    });
    for (int timeout : {0, 1}) {
        const Clock::time_point begin = Clock::now();
        EXPECT_EQ(1106, ask(44, timeout));
        EXPECT_LT(secondsSince(begin), timeout + 1.5);
    }
    std::atomic<int> reading{-1};
    std::thread caller([&] { reading = ask(44, 30); });
    sleepMs(300);
    const Clock::time_point begin = Clock::now();
    client->stopTransfer();
    EXPECT_LT(secondsSince(begin), 1.0);
    caller.join();
    EXPECT_LT(secondsSince(begin), 1.0);
    EXPECT_EQ(1107, reading.load());
    trickling = false;
    trickle.join();
}

TEST_F(TransferClientTest, QueuesAreBoundedAndLoseTheirOldestFrames) {
    const unsigned int maxEvents = 200, maxReplies = 8;
    PELK::Agent::setQueueBoundsForTesting(maxEvents, maxReplies);
    service->answer(44, body(44));
    const bool started = client->startTransfer();
    PELK::Agent::setQueueBoundsForTesting(0, 0);
    ASSERT_TRUE(started);
    for (int32_t i = 0; i < static_cast<int32_t>(maxEvents) + 5; ++i) {
        ASSERT_TRUE(service->push(body(20, {i})));
    }
    ASSERT_EQ(0, ask(44, 30));  // its reply follows every event
    client->setActionCallBack(FrameRecorder::onAction, &events);
    ASSERT_TRUE(events.waitFor(maxEvents));
    sleepMs(50);
    const std::vector<Bytes> frames = events.frames();
    ASSERT_EQ(maxEvents, frames.size());
    EXPECT_EQ(pelktest::frame(body(20, {5})), frames[0]);

    for (int32_t i = 0; i < static_cast<int32_t>(maxReplies) + 3; ++i) {
        ASSERT_TRUE(service->push(body(2, {i})));
    }
    ASSERT_TRUE(waitForLog("Receive service response action:2", maxReplies + 3));
    // A reply is logged as received before it is queued, and the queue logs its drop then.
    ASSERT_TRUE(waitForLog("Reply queue full: dropped the oldest", 3));
    EXPECT_EQ(3u, log.count("Reply queue full: dropped the oldest"));
    ASSERT_EQ(0, ask(44, 5));
    client->stopTransfer();
}

// A send that times out with nothing of its frame written leaves the connection framed; one that
// cut its frame gives the connection up as a lost service, and nothing more is written on it.
TEST_F(TransferClientTest, ASendTimeOutKeepsTheConnectionUnlessItCutItsFrame) {
    EXPECT_EQ(1105, ask(44, 1));  // no connection yet
    service->answer(44, body(44));
    start(&events);
    ASSERT_EQ(0, ask(44, 5));
    // A small send buffer fills after a few thousand frames rather than a few hundred thousand.
    int small = 4096;
    ASSERT_EQ(0, setsockopt(static_cast<int>(client->getSocket()), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small)));

    // Frames of a few bytes go whole or not at all: the one that times out wrote nothing.
    service->stallReading(true);
    size_t sent = 0;
    int code = 0;
    while ((code = call(body(43), 5)) == 0) {
        ++sent;
    }
    EXPECT_EQ(1105, code);
    service->stallReading(false);
    EXPECT_TRUE(service->waitForRequests(43, sent, 20000));
    EXPECT_EQ(0, ask(44, 5)) << "the connection stayed framed";
    EXPECT_EQ(1, service->connections());

    service->stallReading(true);
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(1105, call(B().i32(45).zeros(16 << 20), 5));
    EXPECT_GE(secondsSince(begin), 4.5);
    EXPECT_EQ(1107, ask(44, 5));
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_EQ((Ids{46, 0}), events.ids()) << "the loss, then the link's end";
    service->stallReading(false);
    EXPECT_TRUE(service->waitForClientClose());
    EXPECT_EQ(2u, service->received(44).size()) << "no frame followed the cut one";
    ASSERT_TRUE(client->startTransfer());
    EXPECT_EQ(0, ask(44, 5));
}

void ignoreSignal(int) {}

TEST_F(TransferClientTest, ASignalWhileACallWaitsDoesNotEndIt) {
    struct sigaction quiet = {};
    quiet.sa_handler = ignoreSignal;  // no SA_RESTART: interrupted calls fail with EINTR
    struct sigaction previous = {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &quiet, &previous));
    service->answer(44, body(44, {1}), 300);
    start();
    std::atomic<int> result{-1};
    std::thread caller([&] { result = ask(44, 5); });
    while (result < 0) {
        pthread_kill(caller.native_handle(), SIGUSR1);
        sleepMs(5);
    }
    caller.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(0, result.load());
}

// One read that holds events, frames too short for an action ID, a reply to another call and the
// awaited reply: each goes its way, the short frames and the stray reply are dropped.
TEST_F(TransferClientTest, FramesArrivingInOneReadAreEachRoutedAndStrayOnesDropped) {
    service->on(44, [this](const Bytes&) {
        B burst;
        for (const Bytes& one : {body(20, {1}), Bytes{1}, Bytes{1, 0}, Bytes{1, 0, 0}, body(2, {9}), body(44, {7}),
                                 body(45, {2})}) {
            burst.add(pelktest::frame(one));
        }
        service->sendRaw(burst);
        return std::vector<Bytes>{};
    });
    start(&events);
    Bytes reply;
    ASSERT_EQ(0, call(body(44), 5, &reply));
    EXPECT_EQ(body(44, {7}), reply);
    ASSERT_TRUE(events.waitFor(2));
    sleepMs(50);
    EXPECT_EQ((Ids{20, 45}), events.ids());
}

}  // namespace
