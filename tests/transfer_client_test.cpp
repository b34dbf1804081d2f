#include "TransferClient.h"

#include "ActionManager/Struct.h"
#include "CommonLib/OSAL.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <atomic>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/FakeService.h"
#include "support/LogCapture.h"
#include "support/Waits.h"

using PELK::Agent::TransferClient;
using pelktest::body;
using pelktest::Bytes;
using pelktest::FakeService;

namespace Frame = PELK::Agent::Frame;

namespace {

using pelktest::Clock;
using pelktest::secondsSince;

// Records what the action callback receives: whole frames, and null as an empty entry.
class EventRecorder {
public:
    static void onAction(char* frame, void* user) {
        EventRecorder* self = static_cast<EventRecorder*>(user);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        if (frame == nullptr) {
            self->m_frames.emplace_back();
        } else {
            self->m_frames.emplace_back(frame, frame + Frame::MSG_LENGTH_OFFSET + Frame::lengthOf(frame));
        }
        self->m_changed.notify_all();
    }

    bool waitFor(size_t count, int timeoutMs = 8000) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_frames.size() >= count; });
    }

    std::vector<Bytes> frames() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_frames;
    }

    // Action IDs in arrival order; 0 marks the null frame.
    std::vector<int32_t> ids() {
        std::vector<int32_t> result;
        for (const Bytes& frame : frames()) {
            result.push_back(frame.empty() ? 0 : pelktest::actionIdOf(Bytes(frame.begin() + 4, frame.end())));
        }
        return result;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Bytes> m_frames;
};

// Runs a test's code inside the action callback, then records the frame it was given.
struct InsideCallback {
    std::function<void(char* frame)> action;
    EventRecorder* recorder;

    static void onAction(char* frame, void* user) {
        InsideCallback* self = static_cast<InsideCallback*>(user);
        if (self->action) {
            self->action(frame);
        }
        EventRecorder::onAction(frame, self->recorder);
    }
};

class TransferClientTest : public ::testing::Test {
protected:
    // Declared first, so that the logger outlives the client's threads.
    pelktest::LogCapture log;
    std::unique_ptr<FakeService> service = std::make_unique<FakeService>();
    EventRecorder events;
    std::unique_ptr<TransferClient> client = std::make_unique<TransferClient>();

    void SetUp() override { ASSERT_TRUE(service->listening()) << "127.0.0.1:20014 is taken"; }

    // Starts the link and waits until the service has taken this very connection: until then,
    // what the test sends could go to the one that is ending.
    void startAndAwaitAccept() {
        const int accepted = service->connections();
        ASSERT_TRUE(client->startTransfer());
        ASSERT_TRUE(service->waitForConnections(accepted + 1));
    }

    void startWithCallback() {
        ASSERT_TRUE(client->startTransfer());
        client->setActionCallBack(EventRecorder::onAction, &events);
    }

    // serviceCall with a request body; the reply body lands in *reply.
    int call(const Bytes& request, int timeout, Bytes* reply = nullptr) {
        Bytes copy = request;
        char* resp = nullptr;
        int length = 0;
        int result = client->serviceCall(reinterpret_cast<char*>(copy.data()), static_cast<int>(copy.size()), resp,
                                         &length, timeout);
        if (result == 0 && reply != nullptr) {
            reply->assign(resp, resp + length);
        }
        delete[] resp;
        return result;
    }

    // Waits until `count` log lines hold the fragment.
    bool waitForLog(const std::string& fragment, size_t count = 1, int timeoutMs = 5000) {
        return pelktest::waitUntil([&] { return log.count(fragment) >= count; }, timeoutMs);
    }

    // The level letter of the first line holding the fragment ('E', 'W', 'I', 'D').
    char levelOf(const std::string& fragment) {
        for (const std::string& line : log.lines()) {
            if (line.find(fragment) != std::string::npos) {
                return line[0];
            }
        }
        return '?';
    }

    size_t lineIndex(const std::string& fragment) {
        std::vector<std::string> lines = log.lines();
        for (size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].find(fragment) != std::string::npos) {
                return i;
            }
        }
        return lines.size();
    }
};

TEST_F(TransferClientTest, OneWayRequestsDoNotWait) {
    ASSERT_TRUE(client->startTransfer());
    Bytes request = body(27);
    char* resp = nullptr;
    EXPECT_EQ(0, client->serviceCall(reinterpret_cast<char*>(request.data()), 4, resp, nullptr, 40));
    ASSERT_TRUE(service->waitForFrames(1));
    EXPECT_EQ(std::vector<Bytes>{request}, service->received());

    // A response buffer without a length to report it in is a caller's mistake, found after sending.
    char* preset = new char[8];
    EXPECT_EQ(1102, client->serviceCall(reinterpret_cast<char*>(request.data()), 4, preset, nullptr, 40));
    EXPECT_TRUE(service->waitForFrames(2));
    delete[] preset;
    EXPECT_EQ(1102, client->serviceCall(nullptr, 4, resp, nullptr, 40));
}

TEST_F(TransferClientTest, SkipsAReplyWithAnotherActionIdAndReturnsTheMatchingOne) {
    service->on(44, [](const Bytes&) {
        return std::vector<FakeService::Reply>{{body(2, {9})}, {body(44, {1, 2, 3})}};
    });
    ASSERT_TRUE(client->startTransfer());
    Bytes reply;
    ASSERT_EQ(0, call(body(44), 40, &reply));
    EXPECT_EQ(body(44, {1, 2, 3}), reply);
    EXPECT_TRUE(log.contains("requestActionID != responseActionID, requestActionID=44, responseActionID=2"));
    EXPECT_TRUE(log.contains("Request action:44 finish"));
}

TEST_F(TransferClientTest, LateReplyToATimedOutRequestIsDiscardedByTheNextCall) {
    service->answer(30, body(30, {0}), 1200);
    service->answer(31, body(31, {5}));
    ASSERT_TRUE(client->startTransfer());
    EXPECT_EQ(1106, call(body(30), 0));
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the late reply is queued by now
    Bytes reply;
    ASSERT_EQ(0, call(body(31), 5, &reply));
    EXPECT_EQ(body(31, {5}), reply);
    EXPECT_TRUE(log.contains("requestActionID != responseActionID, requestActionID=31, responseActionID=30"));
}

TEST_F(TransferClientTest, TimesOutOnlyOnceMoreThanTheTimeoutHasPassed) {
    ASSERT_TRUE(client->startTransfer());
    Clock::time_point start = Clock::now();
    EXPECT_EQ(1106, call(body(33), 0));
    EXPECT_LT(secondsSince(start), 1.5);
    EXPECT_TRUE(log.contains("timeout 0s for receiving response!"));

    start = Clock::now();
    EXPECT_EQ(1106, call(body(33), 2));
    EXPECT_GE(secondsSince(start), 2.0);
    EXPECT_LT(secondsSince(start), 3.5);
}

TEST_F(TransferClientTest, LostServiceFailsTheWaitingCallReportsEvent46ThenNullAndCanRestart) {
    service->on(33, [this](const Bytes&) {
        service->closeConnection();
        return std::vector<FakeService::Reply>{};
    });
    startWithCallback();
    EXPECT_EQ(1107, call(body(33), 30));
    EXPECT_EQ('W', levelOf("server disconnected!"));
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_EQ((std::vector<int32_t>{46, 0}), events.ids());
    EXPECT_EQ(Bytes({4, 0, 0, 0, 46, 0, 0, 0}), events.frames()[0]);
    EXPECT_EQ(1u, log.count("onNetException called."));
    EXPECT_EQ(1u, log.count("TransferClient: Receiver stopped unexpectedly."));
    EXPECT_LT(lineIndex("onNetException called."), lineIndex("TransferClient: Receiver stopped unexpectedly."));
    EXPECT_FALSE(client->isTransferStarted());

    // The same object connects again.
    service->answer(44, body(44, {0, 0}));
    ASSERT_TRUE(client->startTransfer());
    ASSERT_TRUE(service->waitForConnections(2));
    Bytes reply;
    EXPECT_EQ(0, call(body(44), 5, &reply));
    EXPECT_EQ(body(44, {0, 0}), reply);
}

TEST_F(TransferClientTest, WithoutACallbackTheReceiverWaitsUntilOneTakesTheLossEvent) {
    ASSERT_TRUE(client->startTransfer());
    service->closeConnection();
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_TRUE(log.contains("wait for NetException to be handled"));
    EXPECT_FALSE(log.contains("after waiting"));
    EXPECT_TRUE(client->isTransferStarted());

    client->setActionCallBack(EventRecorder::onAction, &events);
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_EQ((std::vector<int32_t>{46, 0}), events.ids());
}

TEST_F(TransferClientTest, AcceptsAnOversizedFrameAfterWarning) {
    startWithCallback();
    Bytes event = pelktest::B().i32(20).zeros(70000 - 4);
    ASSERT_TRUE(service->push(event));
    ASSERT_TRUE(events.waitFor(1));
    EXPECT_EQ(pelktest::frame(event), events.frames()[0]);
    EXPECT_TRUE(log.contains("Wrong data! buffLen=70000"));
}

TEST_F(TransferClientTest, AFragmentOfAHeaderIsReportedAndCompletedByWhatFollows) {
    startWithCallback();
    const Bytes whole = pelktest::frame(body(45, {1, 2, 3}));
    for (size_t cut = 1; cut < 8; ++cut) {
        SCOPED_TRACE(cut);
        ASSERT_TRUE(service->sendRaw(Bytes(whole.begin(), whole.begin() + cut)));
        EXPECT_TRUE(waitForLog("nRead < MSG_LENGTH_OFFSET + sizeof(int)! check the code, use osal_recvn instead!", cut));
        ASSERT_TRUE(service->sendRaw(Bytes(whole.begin() + cut, whole.end())));
        ASSERT_TRUE(events.waitFor(cut));
        EXPECT_EQ(whole, events.frames()[cut - 1]);
    }
}

TEST_F(TransferClientTest, AClosedPeerIsALossWhateverWasHalfRead) {
    const Bytes whole = pelktest::frame(body(20, {1, 2, 3}));
    for (size_t cut : {1, 7, 12}) {
        SCOPED_TRACE(cut);
        EventRecorder lost;
        startAndAwaitAccept();
        client->setActionCallBack(EventRecorder::onAction, &lost);
        ASSERT_TRUE(service->sendRaw(Bytes(whole.begin(), whole.begin() + cut)));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        service->closeConnection();
        ASSERT_TRUE(lost.waitFor(1, 2000));
        EXPECT_EQ(46, lost.ids()[0]) << ::testing::PrintToString(lost.ids());
        client->stopTransfer();
    }
}

TEST_F(TransferClientTest, EventsKeepTheirOrderAmongInterleavedResponses) {
    int next = 0;
    service->on(44, [&](const Bytes&) {
        service->push(body(20, {next++}));
        std::vector<FakeService::Reply> replies{{body(44, {0})}};
        service->push(body(45, {next++}));
        return replies;
    });
    startWithCallback();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(0, call(body(44), 5));
        ASSERT_TRUE(service->push(body(54, {next++})));
    }
    ASSERT_TRUE(events.waitFor(60));
    std::vector<Bytes> frames = events.frames();
    for (int i = 0; i < 60; ++i) {
        const uint8_t* word = frames[i].data() + 8;
        EXPECT_EQ(i, word[0] | word[1] << 8) << "event " << i << " arrived out of order";
    }
}

TEST_F(TransferClientTest, StartStopMisuseAndAMissingService) {
    ASSERT_TRUE(client->startTransfer());
    EXPECT_FALSE(client->startTransfer());
    EXPECT_TRUE(log.contains("TransferClient is already started!"));
    client->stopTransfer();
    EXPECT_FALSE(client->stopTransfer());
    EXPECT_TRUE(log.contains("TransferClient is already stopped!"));

    service.reset();
    EXPECT_FALSE(client->startTransfer());
    EXPECT_TRUE(log.contains("Failed to connect to port :[20014], error=111"));
    EXPECT_EQ(OSAL_INVALID_SOCKET, client->getSocket());
    EXPECT_FALSE(client->isTransferStarted());
}

TEST_F(TransferClientTest, OrderlyStopClosesTheSocketBeforeReturningAndEndsWithNull) {
    startWithCallback();
    client->stopTransfer();
    EXPECT_EQ(OSAL_INVALID_SOCKET, client->getSocket());
    EXPECT_FALSE(client->isReceiverStarted());
    EXPECT_EQ((std::vector<int32_t>{0}), events.ids());
    EXPECT_TRUE(service->waitForClientClose());
    EXPECT_EQ(0u, log.count("onNetException called."));
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
        note(got > 0 ? "data" : "end");
        return got > 0;
    }
    bool onNetException() override { return note("loss"), SocketClient::onNetException(); }
    bool onReceiverStopped() override { return note("stopped"), SocketClient::onReceiverStopped(); }
    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_calls;
    }
    bool connect() { return createSocket() && connectToServer() && startReceiver(); }

private:
    void note(const char* call) {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_calls.empty() || m_calls.back() != call) {
            m_calls.push_back(call);
        }
    }
    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

TEST_F(TransferClientTest, ADerivedSocketClientHearsTheReceiverThroughItsHooks) {
    HookedClient hooked;
    ASSERT_TRUE(hooked.connect());
    ASSERT_TRUE(service->waitForConnections(1));
    ASSERT_TRUE(service->push(body(45, {1})));
    ASSERT_TRUE(pelktest::waitUntil([&] { return !hooked.calls().empty(); }, 5000));
    service->closeConnection();
    ASSERT_TRUE(pelktest::waitUntil([&] { return hooked.calls().size() == 4; }, 5000));
    EXPECT_EQ((std::vector<std::string>{"data", "end", "loss", "stopped"}), hooked.calls());

    HookedClient orderly;
    ASSERT_TRUE(orderly.connect());
    ASSERT_TRUE(orderly.stopReceiver());
    // The stop shuts the socket down, which the receiver may still read as its end.
    const std::vector<std::string> calls = orderly.calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ("stopped", calls.back());
    EXPECT_EQ(calls.end(), std::find(calls.begin(), calls.end(), "loss"));
    EXPECT_EQ(OSAL_INVALID_SOCKET, orderly.getSocket());
}

// Lifetime: no thread may outlive the client, whatever the timing.
TEST_F(TransferClientTest, StartThenImmediateStopRepeatedly) {
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(client->startTransfer()) << "iteration " << i;
        client->setActionCallBack(EventRecorder::onAction, &events);
        client->stopTransfer();
        if (i % 2 == 0) {
            client = std::make_unique<TransferClient>();  // destroy right after a stop
        }
    }
}

TEST_F(TransferClientTest, DestroyRightAfterTheLossIsReported) {
    startWithCallback();
    service->resetConnection();
    ASSERT_TRUE(events.waitFor(2));
    client.reset();
    EXPECT_TRUE(log.contains("TransferClient destroyed."));
}

TEST_F(TransferClientTest, DestroyWhileTheReceiverWaitsForACallbackThatNeverComes) {
    ASSERT_TRUE(client->startTransfer());
    service->closeConnection();
    waitForLog("wait for NetException to be handled", 1, 1000);
    Clock::time_point start = Clock::now();
    client.reset();
    EXPECT_LT(secondsSince(start), 2.0);
}

// Calls from inside the callback: each would wait for the calling thread itself if it were
// made as from any other thread.
TEST_F(TransferClientTest, ACallbackReplacesOrClearsItselfFromTheNextFrameOn) {
    EventRecorder replacement;
    InsideCallback first{nullptr, &events};
    first.action = [&](char*) { client->setActionCallBack(EventRecorder::onAction, &replacement); };
    ASSERT_TRUE(client->startTransfer());
    client->setActionCallBack(InsideCallback::onAction, &first);
    ASSERT_TRUE(service->push(body(20, {1})));
    ASSERT_TRUE(service->push(body(20, {2})));
    ASSERT_TRUE(replacement.waitFor(1));
    EXPECT_EQ((std::vector<int32_t>{20}), events.ids());

    EventRecorder cleared;
    InsideCallback clearing{[&](char*) { client->setActionCallBack(nullptr, nullptr); }, &cleared};
    client->setActionCallBack(InsideCallback::onAction, &clearing);
    ASSERT_TRUE(service->push(body(20, {3})));
    ASSERT_TRUE(service->push(body(20, {4})));
    ASSERT_TRUE(cleared.waitFor(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(1u, cleared.frames().size());
    client->setActionCallBack(EventRecorder::onAction, &replacement);  // the frame that waited
    ASSERT_TRUE(replacement.waitFor(2));
    EXPECT_EQ(4, replacement.frames()[1][8]);
    client.reset();  // before the callbacks' objects go
}

TEST_F(TransferClientTest, AStopFromInsideACallbackReturnsAndNoFrameOfThatConnectionFollows) {
    std::atomic<double> stopSeconds{-1};
    InsideCallback stopping{nullptr, &events};
    stopping.action = [&](char* frame) {
        if (frame != nullptr && frame[8] == 1) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the later events are queued
            const Clock::time_point start = Clock::now();
            client->stopTransfer();
            stopSeconds = secondsSince(start);
        }
    };
    ASSERT_TRUE(client->startTransfer());
    client->setActionCallBack(InsideCallback::onAction, &stopping);
    ASSERT_TRUE(service->push(body(20, {1})));
    ASSERT_TRUE(service->push(body(20, {2})));
    ASSERT_TRUE(service->push(body(20, {3})));
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_LT(stopSeconds.load(), 1.0);
    EXPECT_GE(stopSeconds.load(), 0.0);
    EXPECT_TRUE(service->waitForClientClose());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ((std::vector<int32_t>{20, 0}), events.ids());  // the null frame last, once
    EXPECT_FALSE(client->isTransferStarted());
}

TEST_F(TransferClientTest, AStopStartAndCallFromInsideACallbackRunOnTheNewLink) {
    service->answer(44, body(44, {7}));
    std::atomic<int> restarted{-1};
    std::atomic<int> called{-1};
    Bytes reply;
    InsideCallback restarting{nullptr, &events};
    restarting.action = [&](char* frame) {
        if (frame != nullptr && restarted < 0) {
            client->stopTransfer();
            restarted = client->startTransfer() ? 1 : 0;
            called = call(body(44), 5, &reply);
        }
    };
    ASSERT_TRUE(client->startTransfer());
    client->setActionCallBack(InsideCallback::onAction, &restarting);
    ASSERT_TRUE(service->push(body(20, {1})));
    ASSERT_TRUE(events.waitFor(1));
    EXPECT_EQ(1, restarted.load());
    EXPECT_EQ(0, called.load());
    EXPECT_EQ(body(44, {7}), reply);
    EXPECT_EQ(2, service->connections());

    ASSERT_TRUE(service->push(body(20, {2})));  // on the new connection
    ASSERT_TRUE(events.waitFor(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ((std::vector<int32_t>{20, 20}), events.ids());  // the replaced link ended silently
    EXPECT_TRUE(client->isTransferStarted());
    client.reset();  // before the callback's object goes
}

TEST_F(TransferClientTest, AStopFromAnotherThreadWaitsForTheRunningCallback) {
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
    InsideCallback slow{nullptr, &events};
    slow.action = [&](char* frame) {
        if (frame != nullptr) {
            entered = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            finished = true;
        }
    };
    startWithCallback();
    client->setActionCallBack(InsideCallback::onAction, &slow);
    ASSERT_TRUE(service->push(body(20, {1})));
    while (!entered) {
        std::this_thread::yield();
    }
    client->stopTransfer();
    EXPECT_TRUE(finished.load());
    EXPECT_EQ((std::vector<int32_t>{20, 0}), events.ids());
}

// ---------------------------------------------------------------------------------------------
// A service that misbehaves

TEST_F(TransferClientTest, ASlowPeerHoldsNoCallPastItsTimeoutAndAStopEndsTheRead) {
    ASSERT_TRUE(client->startTransfer());
    ASSERT_TRUE(service->sendRaw({104, 0, 0, 0, 44, 0, 0, 0}));  // a reply of 100 bytes that trickles
    std::atomic<bool> trickling{true};
    std::thread trickle([&] {
        while (trickling) {
            service->sendRaw({0});
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    Clock::time_point start = Clock::now();
    EXPECT_EQ(1106, call(body(44), 0));
    EXPECT_LT(secondsSince(start), 1.5);
    start = Clock::now();
    EXPECT_EQ(1106, call(body(44), 1));
    EXPECT_LT(secondsSince(start), 2.5);

    std::atomic<int> reading{-1};
    std::thread caller([&] { reading = call(body(44), 30); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    start = Clock::now();
    client->stopTransfer();
    EXPECT_LT(secondsSince(start), 1.0);
    caller.join();
    EXPECT_LT(secondsSince(start), 1.0);
    EXPECT_EQ(1107, reading.load());
    trickling = false;
    trickle.join();
}

TEST_F(TransferClientTest, AStopDropsWhatItsConnectionQueuedAndTheNextRunStartsClean) {
    ASSERT_TRUE(client->startTransfer());
    for (int i = 0; i < 3000; ++i) {
        ASSERT_TRUE(service->push(body(20, {i})));
    }
    service->closeConnection();
    ASSERT_TRUE(waitForLog("wait for NetException to be handled"));  // every event is queued, then 46
    client->stopTransfer();
    EXPECT_TRUE(log.contains("Dropped 3001 frames of the closed connection"));

    startAndAwaitAccept();
    client->setActionCallBack(EventRecorder::onAction, &events);
    ASSERT_TRUE(service->push(body(20, {9})));
    ASSERT_TRUE(events.waitFor(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(1u, events.frames().size());
    EXPECT_EQ(9, events.frames()[0][8]);
}

TEST_F(TransferClientTest, AFrameTooShortForAnActionIdIsDroppedAndTheLinkGoesOn) {
    service->on(1, [](const Bytes&) {
        return std::vector<FakeService::Reply>{{Bytes{1}}, {Bytes{1, 0}}, {Bytes{1, 0, 0}}, {body(1, {5})}};
    });
    startWithCallback();
    Bytes reply;
    ASSERT_EQ(0, call(body(1), 5, &reply));
    EXPECT_EQ(body(1, {5}), reply);
    EXPECT_EQ(3u, log.count("too short for an action ID"));
    ASSERT_TRUE(service->push(body(20, {1})));
    ASSERT_TRUE(events.waitFor(1));
    EXPECT_EQ(20, events.ids()[0]);
}

TEST_F(TransferClientTest, ALengthBeyondTheLimitGivesTheLinkUp) {
    for (uint32_t claimed : {Frame::kMaxLength + 1, 0x7FFFFFFBu}) {
        SCOPED_TRACE(claimed);
        EventRecorder lost;
        startAndAwaitAccept();
        client->setActionCallBack(EventRecorder::onAction, &lost);
        Bytes header = pelktest::B().i32(static_cast<int32_t>(claimed)).i32(20);
        ASSERT_TRUE(service->sendRaw(header));
        ASSERT_TRUE(lost.waitFor(1, 2000));
        EXPECT_EQ(46, lost.ids()[0]) << ::testing::PrintToString(lost.ids());
        EXPECT_TRUE(log.contains("-byte limit: giving the link up"));
        client->stopTransfer();
    }
}

TEST_F(TransferClientTest, QueuesAreBoundedAndLoseTheirOldestFrames) {
    const unsigned int maxEvents = 200, maxReplies = 8;
    PELK::Agent::setQueueBoundsForTesting(maxEvents, maxReplies);
    service->answer(44, body(44));
    const bool started = client->startTransfer();
    PELK::Agent::setQueueBoundsForTesting(0, 0);
    ASSERT_TRUE(started);
    for (unsigned int i = 0; i < maxEvents + 5; ++i) {
        ASSERT_TRUE(service->push(body(20, {static_cast<int32_t>(i)})));
    }
    ASSERT_EQ(0, call(body(44), 30));  // its reply follows every event
    EXPECT_EQ(5u, log.count("Event queue full: dropped the oldest"));
    EventRecorder delivered;
    client->setActionCallBack(EventRecorder::onAction, &delivered);
    ASSERT_TRUE(delivered.waitFor(maxEvents));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const std::vector<Bytes> frames = delivered.frames();
    ASSERT_EQ(maxEvents, frames.size());
    EXPECT_EQ(pelktest::frame(body(20, {5})), frames[0]);

    for (unsigned int i = 0; i < maxReplies + 3; ++i) {
        ASSERT_TRUE(service->push(body(2, {static_cast<int32_t>(i)})));
    }
    ASSERT_TRUE(waitForLog("Receive service response action:2", maxReplies + 3));
    // A reply is logged as received before it is queued, and the queue logs its drop then.
    ASSERT_TRUE(waitForLog("Reply queue full: dropped the oldest", 3));
    EXPECT_EQ(3u, log.count("Reply queue full: dropped the oldest"));
    ASSERT_EQ(0, call(body(44), 5));
    client->stopTransfer();
}

TEST_F(TransferClientTest, OnceTheLossIsKnownCallsSayDisconnected) {
    ASSERT_TRUE(client->startTransfer());  // no callback: the loss event stays untaken
    service->closeConnection();
    ASSERT_TRUE(waitForLog("onNetException called."));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(1107, call(body(44), 5));
    Bytes request = body(27);
    char* none = nullptr;
    EXPECT_EQ(1107, client->serviceCall(reinterpret_cast<char*>(request.data()), 4, none, nullptr, 5));
    EXPECT_LT(secondsSince(start), 0.5);
    EXPECT_FALSE(log.contains("Send data fail!"));
}

// ---------------------------------------------------------------------------------------------
// Paths the faults above do not reach

// A send that times out with nothing of its frame written leaves the connection framed; one that
// cut its frame gives the connection up as a lost service, and nothing more is written on it.
TEST_F(TransferClientTest, ASendTimeOutKeepsTheConnectionUnlessItCutItsFrame) {
    EXPECT_EQ(1105, call(body(44), 1));  // no connection yet
    EXPECT_EQ('W', levelOf("Send data fail!"));
    service->answer(44, body(44));
    startWithCallback();
    ASSERT_EQ(0, call(body(44), 5));
    char* none = nullptr;
    const auto oneWay = [&](Bytes request) {
        return client->serviceCall(reinterpret_cast<char*>(request.data()), static_cast<int>(request.size()), none,
                                   nullptr, 5);
    };

    // Frames of a few bytes go whole or not at all: the one that times out wrote nothing.
    service->stallReading(true);
    size_t sent = 0;
    int code = 0;
    while ((code = oneWay(body(43))) == 0) {
        ++sent;
    }
    EXPECT_EQ(1105, code);
    EXPECT_EQ(0u, log.count("A frame was cut"));
    service->stallReading(false);
    EXPECT_TRUE(service->waitForRequests(43, sent, 20000));
    EXPECT_EQ(0, call(body(44), 5)) << "the connection stayed framed";
    EXPECT_EQ(1, service->connections());

    service->stallReading(true);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(1105, oneWay(pelktest::B().i32(45).zeros(16 << 20)));
    EXPECT_GE(secondsSince(start), 4.5);
    EXPECT_TRUE(log.contains("A frame was cut"));
    EXPECT_EQ(1107, call(body(44), 5));
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_EQ((std::vector<int32_t>{46, 0}), events.ids()) << "the loss, then the link's end";
    service->stallReading(false);
    EXPECT_TRUE(service->waitForClientClose());
    EXPECT_EQ(2u, service->received(44).size()) << "no frame followed the cut one";
    ASSERT_TRUE(client->startTransfer());
    EXPECT_EQ(0, call(body(44), 5));
}

void ignoreSignal(int) {}

TEST_F(TransferClientTest, ASignalWhileACallWaitsDoesNotEndIt) {
    struct sigaction quiet = {};
    quiet.sa_handler = ignoreSignal;  // no SA_RESTART: interrupted calls fail with EINTR
    struct sigaction previous = {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &quiet, &previous));
    service->answer(44, body(44, {1}), 300);
    ASSERT_TRUE(client->startTransfer());
    std::atomic<int> result{-1};
    std::atomic<bool> started{false};
    std::thread caller([&] {
        started = true;
        result = call(body(44), 5);
    });
    while (!started) {
        std::this_thread::yield();
    }
    while (result < 0) {
        pthread_kill(caller.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    caller.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(0, result.load());
}

TEST_F(TransferClientTest, AReplyAndEventsArrivingInOneReadAreEachRouted) {
    service->on(44, [this](const Bytes&) {
        Bytes burst = pelktest::frame(body(20, {1}));
        for (const Bytes& more : {pelktest::frame(body(44, {7})), pelktest::frame(body(45, {2}))}) {
            burst.insert(burst.end(), more.begin(), more.end());
        }
        service->sendRaw(burst);
        return std::vector<FakeService::Reply>{};
    });
    startWithCallback();
    Bytes reply;
    ASSERT_EQ(0, call(body(44), 5, &reply));
    EXPECT_EQ(body(44, {7}), reply);
    ASSERT_TRUE(events.waitFor(2));
    EXPECT_EQ((std::vector<int32_t>{20, 45}), events.ids());
}

}  // namespace
