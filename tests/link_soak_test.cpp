// Cycles the faults of a misbehaving service against the link for PELK_SOAK_SECONDS (30 when
// unset). Run under the sanitizers (tools/soak.sh) it shows that none of them crashes, races,
// leaks memory or descriptors, hangs a call or a stop, or loses the loss event.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "TransferClient.h"
#include "support/FakeService.h"
#include "support/Waits.h"

using PELK::Agent::TransferClient;
using pelktest::body;
using pelktest::Bytes;
using pelktest::FakeService;

namespace {

using pelktest::Clock;
using pelktest::secondsSince;

// The soak overflows the event queue in every few rounds, so it narrows the bound.
const unsigned int kSoakMaxEvents = 2000;

int soakSeconds() {
    const char* text = getenv("PELK_SOAK_SECONDS");
    return text != nullptr && atoi(text) > 0 ? atoi(text) : 30;
}

// Counts what the callback receives, by kind: the loss event, the null frame, anything else.
// Optionally runs a step inside the callback for the first event it sees.
class Seen {
public:
    static void onAction(char* frame, void* user) {
        Seen* self = static_cast<Seen*>(user);
        std::function<void()> inside;
        {
            std::lock_guard<std::mutex> guard(self->m_mutex);
            if (frame != nullptr) {
                inside.swap(self->m_inside);
            }
        }
        if (inside) {
            inside();
        }
        std::lock_guard<std::mutex> guard(self->m_mutex);
        int& count = frame == nullptr ? self->m_nulls : PELK::Agent::Frame::actionIdOf(frame) == 46 ? self->m_losses
                                                                                                     : self->m_events;
        ++count;
        self->m_changed.notify_all();
    }

    void reset(std::function<void()> inside = nullptr) {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_events = m_losses = m_nulls = 0;
        m_inside = std::move(inside);
    }

    bool waitFor(int Seen::*count, int atLeast, int timeoutMs = 5000) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return this->*count >= atLeast; });
    }

    int m_events = 0;
    int m_losses = 0;
    int m_nulls = 0;

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::function<void()> m_inside;
};

int call(TransferClient& client, int32_t action, int timeout) {
    Bytes request = body(action);
    char* resp = nullptr;
    int length = 0;
    const int result =
        client.serviceCall(reinterpret_cast<char*>(request.data()), static_cast<int>(request.size()), resp, &length,
                           timeout);
    delete[] resp;
    return result;
}

// One round of one fault; the link is started with the callback set, and stopped afterwards.
void runFault(int fault, FakeService& service, TransferClient& client, Seen& seen) {
    const Bytes whole = pelktest::frame(body(20, {1, 2, 3}));
    switch (fault) {
        case 0: {  // part of a frame, then the peer closes
            const size_t cut = 1 + static_cast<size_t>(rand()) % (whole.size() - 1);
            service.sendRaw(Bytes(whole.begin(), whole.begin() + cut));
            service.closeConnection();
            EXPECT_TRUE(seen.waitFor(&Seen::m_losses, 1)) << "cut " << cut;
            break;
        }
        case 1: {  // a reply that trickles: calls keep their time-outs, a stop ends the read
            service.sendRaw({104, 0, 0, 0, 44, 0, 0, 0});
            std::atomic<bool> trickling{true};
            std::thread trickle([&] {
                while (trickling) {
                    service.sendRaw({0});
                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                }
            });
            const Clock::time_point start = Clock::now();
            EXPECT_EQ(1106, call(client, 44, 0));
            EXPECT_LT(secondsSince(start), 2.0);
            std::thread caller([&] { EXPECT_EQ(1107, call(client, 44, 30)); });
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            client.stopTransfer();
            caller.join();
            trickling = false;
            trickle.join();
            break;
        }
        case 2: {  // more events than the queue holds, with no callback to take them, then a stop
            client.setActionCallBack(nullptr, nullptr);
            for (unsigned int i = 0; i < kSoakMaxEvents + 100; ++i) {
                service.push(body(20, {static_cast<int32_t>(i)}));
            }
            EXPECT_EQ(0, call(client, 44, 30));
            client.setActionCallBack(Seen::onAction, &seen);
            seen.waitFor(&Seen::m_events, 100, 500);
            break;  // stopped with events still queued
        }
        case 3:  // replies too short for an action ID before the real one
            EXPECT_EQ(0, call(client, 1, 5));
            break;
        case 4: {  // a length word no frame can have
            service.sendRaw({static_cast<uint8_t>(rand()), 0xFF, 0xFF, 0x7F, 20, 0, 0, 0});
            EXPECT_TRUE(seen.waitFor(&Seen::m_losses, 1));
            break;
        }
        case 5: {  // a reset while a call waits
            std::thread caller([&] { EXPECT_EQ(1107, call(client, 33, 30)); });
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            service.resetConnection();
            caller.join();
            EXPECT_TRUE(seen.waitFor(&Seen::m_losses, 1));
            EXPECT_EQ(1107, call(client, 44, 5));
            break;
        }
        case 6: {  // stop, start and call from inside the callback
            seen.reset([&] {
                client.stopTransfer();
                EXPECT_TRUE(client.startTransfer());
                EXPECT_EQ(0, call(client, 44, 5));
            });
            service.push(body(20, {1}));
            EXPECT_TRUE(seen.waitFor(&Seen::m_events, 1));
            break;
        }
        case 7: {  // a service that stops reading: a send cut by its time-out gives the link up
            service.stallReading(true);
            Bytes huge = pelktest::B().i32(45).zeros(16 << 20);
            char* none = nullptr;
            EXPECT_EQ(1105, client.serviceCall(reinterpret_cast<char*>(huge.data()), static_cast<int>(huge.size()),
                                               none, nullptr, 5));
            EXPECT_TRUE(seen.waitFor(&Seen::m_losses, 1));
            EXPECT_EQ(1107, call(client, 44, 5));
            service.stallReading(false);
            break;
        }
        default: {  // ordinary traffic: calls with events in between
            for (int i = 0; i < 50; ++i) {
                service.push(body(45, {i}));
                EXPECT_EQ(0, call(client, 44, 5));
            }
            EXPECT_TRUE(seen.waitFor(&Seen::m_events, 50));
            break;
        }
    }
}

TEST(LinkSoak, EveryFaultOverAndOverLeavesNothingBehind) {
    const size_t descriptors = pelktest::countEntries("/proc/self/fd");
    {
        FakeService service;
        ASSERT_TRUE(service.listening()) << "127.0.0.1:20014 is taken";
        service.answer(44, body(44, {0}));
        service.on(1, [](const Bytes&) {
            return std::vector<FakeService::Reply>{{Bytes{1}}, {Bytes{1, 0}}, {Bytes{1, 0, 0}}, {body(1, {0})}};
        });
        Seen seen;
        PELK::Agent::setQueueBoundsForTesting(kSoakMaxEvents, 0);
        std::unique_ptr<TransferClient> client(new TransferClient);
        const Clock::time_point end = Clock::now() + std::chrono::seconds(soakSeconds());
        int rounds = 0;
        for (; Clock::now() < end && !::testing::Test::HasFatalFailure(); ++rounds) {
            seen.reset();
            const int accepted = service.connections();
            ASSERT_TRUE(client->startTransfer()) << "round " << rounds;
            ASSERT_TRUE(service.waitForConnections(accepted + 1));  // else it may write to the old one
            client->setActionCallBack(Seen::onAction, &seen);
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
