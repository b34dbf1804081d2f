// Cycles the faults of a misbehaving service against the link for PELK_SOAK_SECONDS (30 when
// unset). Run under the sanitizers (tools/soak.sh) it shows that none of them crashes, races,
// leaks memory or descriptors, hangs a call or a stop, or loses the loss event.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "TransferClient.h"
#include "support/FakeService.h"
#include "support/Waits.h"

using PELK::Agent::TransferClient;
using pelktest::body;
using pelktest::Bytes;
using pelktest::FakeService;
using pelktest::Clock;
using pelktest::FrameRecorder;
using pelktest::secondsSince;
using pelktest::sleepMs;

namespace {

// The soak overflows the event queue in every few rounds, so it narrows the bound.
const unsigned int kSoakMaxEvents = 2000;

int soakSeconds() {
    const char* text = getenv("PELK_SOAK_SECONDS");
    return text != nullptr && atoi(text) > 0 ? atoi(text) : 30;
}

// A call with this request; a one-way one gives no length for a response.
int call(TransferClient& client, Bytes request, int timeout, bool oneWay = false) {
    char* resp = nullptr;
    int length = 0;
    const int result = client.serviceCall(reinterpret_cast<char*>(request.data()), static_cast<int>(request.size()),
                                          resp, oneWay ? nullptr : &length, timeout);
    delete[] resp;
    return result;
}

// The link has reported its loss (event 46).
bool lost(FrameRecorder& seen) { return seen.waitFor(46, 1, 5000); }

// One round of one fault; the link is started with the callback set, and stopped afterwards.
void runFault(int fault, FakeService& service, TransferClient& client, FrameRecorder& seen) {
    const Bytes whole = pelktest::frame(body(20, {1, 2, 3}));
    switch (fault) {
        case 0: {  // part of a frame, then the peer closes
            const size_t cut = 1 + static_cast<size_t>(rand()) % (whole.size() - 1);
            service.sendRaw(Bytes(whole.begin(), whole.begin() + cut));
            service.closeConnection();
            EXPECT_TRUE(lost(seen)) << "cut " << cut;
            break;
        }
        case 1: {  // a reply that trickles: calls keep their time-outs, a stop ends the read
            service.sendRaw({104, 0, 0, 0, 44, 0, 0, 0});
            std::atomic<bool> trickling{true};
            std::thread trickle([&] {
                for (; trickling; sleepMs(50)) service.sendRaw({0});
            });
            const Clock::time_point start = Clock::now();
            EXPECT_EQ(1106, call(client, body(44), 0));
            EXPECT_LT(secondsSince(start), 2.0);
            std::thread caller([&] { EXPECT_EQ(1107, call(client, body(44), 30)); });
            sleepMs(50);
            client.stopTransfer();
            caller.join();
            trickling = false;
            trickle.join();
            break;
        }
        case 2: {  // more events than the queue holds, with no callback to take them, then a stop
            client.setActionCallBack(nullptr, nullptr);
            for (int32_t i = 0; i < static_cast<int32_t>(kSoakMaxEvents) + 100; ++i) service.push(body(20, {i}));
            EXPECT_EQ(0, call(client, body(44), 30));
            client.setActionCallBack(FrameRecorder::onAction, &seen);
            seen.waitFor(20, 100, 500);
            break;  // stopped with events still queued
        }
        case 3:  // replies too short for an action ID before the real one
            EXPECT_EQ(0, call(client, body(1), 5));
            break;
        case 4:  // a length word no frame can have
            service.sendRaw({static_cast<uint8_t>(rand()), 0xFF, 0xFF, 0x7F, 20, 0, 0, 0});
            EXPECT_TRUE(lost(seen));
            break;
        case 5: {  // a reset while a call waits
            std::thread caller([&] { EXPECT_EQ(1107, call(client, body(33), 30)); });
            sleepMs(20);
            service.closeConnection(true);
            caller.join();
            EXPECT_TRUE(lost(seen));
            EXPECT_EQ(1107, call(client, body(44), 5));
            break;
        }
        case 6: {  // stop, start and call from inside the callback
            seen.setInside([&, done = false](char* frame) mutable {
                if (frame != nullptr && !done) {
                    done = true;
                    client.stopTransfer();
                    EXPECT_TRUE(client.startTransfer());
                    EXPECT_EQ(0, call(client, body(44), 5));
                }
            });
            service.push(body(20, {1}));
            EXPECT_TRUE(seen.waitFor(20, 1, 5000));
            break;
        }
        case 7:  // a service that stops reading: a send cut by its time-out gives the link up
            service.stallReading(true);
            EXPECT_EQ(1105, call(client, pelktest::B().i32(45).zeros(16 << 20), 5, true));
            EXPECT_TRUE(lost(seen));
            EXPECT_EQ(1107, call(client, body(44), 5));
            service.stallReading(false);
            break;
        default:  // ordinary traffic: calls with events in between
            for (int i = 0; i < 50; ++i) {
                service.push(body(45, {i}));
                EXPECT_EQ(0, call(client, body(44), 5));
            }
            EXPECT_TRUE(seen.waitFor(45, 50, 5000));
            break;
    }
}

TEST(LinkSoak, EveryFaultOverAndOverLeavesNothingBehind) {
    const size_t descriptors = pelktest::countEntries("/proc/self/fd");
    {
        FakeService service;
        ASSERT_TRUE(service.listening()) << "127.0.0.1:20014 is taken";
        service.answer(44, body(44, {0}));
        service.on(1, [](const Bytes&) {
            return std::vector<Bytes>{{1}, {1, 0}, {1, 0, 0}, body(1, {0})};
        });
        FrameRecorder seen;
        PELK::Agent::setQueueBoundsForTesting(kSoakMaxEvents, 0);
        std::unique_ptr<TransferClient> client(new TransferClient);
        const Clock::time_point end = Clock::now() + std::chrono::seconds(soakSeconds());
        int rounds = 0;
        for (; Clock::now() < end && !::testing::Test::HasFatalFailure(); ++rounds) {
            seen.clear();
            const int accepted = service.connections();
            ASSERT_TRUE(client->startTransfer()) << "round " << rounds;
            ASSERT_TRUE(service.waitForConnections(accepted + 1));  // else it may write to the old one
            client->setActionCallBack(FrameRecorder::onAction, &seen);
            runFault(rounds % 9, service, *client, seen);
            client->stopTransfer();
            if (rounds % 5 == 4) {
                client.reset(new TransferClient);  // destruction right after a fault, too
            }
        }
        client.reset();
        PELK::Agent::setQueueBoundsForTesting(0, 0);
        printf("%d rounds in %d s\n", rounds, soakSeconds());
    }
    EXPECT_EQ(descriptors, pelktest::countEntries("/proc/self/fd"));
}

}  // namespace
