// The agent against a service that dies and comes back, over and over: pelk-emulator is killed
// outright (SIGKILL) while this process's agent sends a file to "peer" (a pelk listen process)
// and, from two threads, lists and searches apps and sends data to it, synchronously and not.
// After every restart the agent must register again by itself and every kind of call must work
// again, no call may outlast its time-out, and at the end no thread, descriptor or memory may
// have piled up.
//   PELK_SOAK_CYCLES  kill-and-restart cycles (default 100)
#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/AgentFixture.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/Waits.h"

// Defined when a sanitizer's allocator serves malloc.
extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

using namespace PELK;
using pelktest::Clock;
using pelktest::countEntries;
using pelktest::secondsSince;
using pelktest::waitUntil;

namespace {

// Sanitizers make every process here several times slower; these are generous bounds.
constexpr int kWaitMs = 30000;
// The agent's time-out for a request, and how far past it a call may run.
constexpr double kLongestCallSeconds = 40 + 2;
// Every fifth cycle the service stays away past the first attempt, so a second one is needed.
constexpr int kLateRestartEvery = 5;
constexpr int kLateRestartMs = 4500;
// What the heap may grow by after the first cycle: requests, replies and events in flight when it
// is counted. A link's 64 KiB read buffer lost per reconnection, or a request lost per call, adds
// far more within ten cycles.
constexpr size_t kHeapMarginBytes = 64 * 1024;
// With --rate 256K, this file takes two seconds: a transfer is under way at every kill.
constexpr size_t kFileBytes = 512 * 1024;
constexpr char kData[] = "soak data";
// The kinds of call that run all along: getInteractionAppList, sendData, asynSendData and
// searchInteractionApp.
constexpr size_t kOpCount = 4;

// The bytes the program holds on the heap. The resident size counts the sanitizers' own memory
// too (shadow and bookkeeping), which under ThreadSanitizer grows by megabytes over ten cycles
// while the heap stays level; a leak is heap, and this counts nothing else.
size_t heapBytes() {
    if (__sanitizer_get_current_allocated_bytes != nullptr) {
        return __sanitizer_get_current_allocated_bytes();
    }
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

struct Resources {
    size_t threads, fds, heapBytes;
};

Resources held() {
    return {countEntries("/proc/self/task"), countEntries("/proc/self/fd"), heapBytes()};
}

class AgentSoakTest : public ::testing::Test {
public:
    void SetUp() override {
        ASSERT_EQ(0, mkdir(dir.file("peer").c_str(), 0755));
        ASSERT_EQ(0, mkdir(dir.file("soak").c_str(), 0755));
        file = dir.write("payload.bin", std::string(kFileBytes, 'p'));
        startService();
        ASSERT_FALSE(HasFailure());
        peer = std::make_unique<pelktest::ChildProcess>(
            std::vector<std::string>{PELK_CLI, "listen", "--name", "peer", "--number", "21", "--receive-dir",
                                     dir.file("peer")},
            dir.file("peer.out"));
        ASSERT_TRUE(peer->awaitOutput("listening as", kWaitMs)) << peer->output();
        ASSERT_EQ(0, agent.registerApp("soak", 22, this, onApp, nullptr));
        ReceiveOption option;
        Wire::CopyText(option.directory, dir.file("soak").c_str());
        ASSERT_EQ(0, agent.setReceiveOption(&option));
    }

    void TearDown() override {
        m_fStop = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        agent.unregisterApp();
        // Both end cleanly on SIGTERM; a sanitizer's report would change their status.
        for (pelktest::ChildProcess* program : {peer.get(), service.get()}) {
            if (program != nullptr) {
                program->signal(SIGTERM);
                EXPECT_EQ(0, program->wait(kWaitMs));
            }
        }
        if (HasFailure() && service != nullptr) {
            std::cout << "--- emulator\n" << service->output();
        }
    }

    // The emulator at the rate that kFileBytes is sized for.
    void startService() {
        service = pelktest::startEmulator({PELK_EMULATOR, "--rate", "256K"}, dir.file("emulator.log"));
    }

    static void onApp(const InteractionApp*, int status, void* user) {
        AgentSoakTest* self = static_cast<AgentSoakTest*>(user);
        self->m_nLost += status == Agent::APP_STATUS_DISCONNECTED;
        self->m_nReconnected += status == Agent::APP_STATUS_RECONNECTED;
    }

    static void onFile(file_transfer_event event, void* user) {
        static_cast<AgentSoakTest*>(user)->m_nProgressedTask = static_cast<uint32_t>(event.nId);
    }

    // Makes one call, bounding its time and noting its success.
    int call(const char* name, const std::function<int()>& action) {
        const Clock::time_point start = Clock::now();
        const int code = action();
        EXPECT_LE(secondsSince(start), kLongestCallSeconds) << name << " returned " << code;
        if (code == 0) {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_succeeded.insert(name);
        }
        return code;
    }

    // Given, so that the agent keeps its status entry for the peer, counted up and down, through the kills.
    static void onStatus(data_transfer_event, void*) {}

    // The app list (noting the peer's record: an old one while it has not come back), data to the
    // peer both ways, and a search, in turn.
    void callTraffic() {
        for (; !m_fStop; pelktest::sleepMs(20)) {
            std::vector<InteractionApp> apps;  // both calls append to it
            call("getInteractionAppList", [&] { return agent.getInteractionAppList(&apps); });
            std::unique_lock<std::mutex> lock(m_mutex);
            for (const InteractionApp& app : apps) {
                m_peer = std::string("peer") == app.szAppName ? app : m_peer;
            }
            const InteractionApp target = m_peer;
            lock.unlock();
            call("sendData", [&] { return agent.sendData(kData, sizeof(kData) - 1, &target, false, 10); });
            call("asynSendData",
                 [&] { return agent.asynSendData(kData, sizeof(kData) - 1, &target, false, onStatus, this); });
            call("searchInteractionApp", [&] { return agent.searchInteractionApp(&apps); });
        }
    }

    pelktest::TempDir dir;
    std::string file;
    std::unique_ptr<pelktest::ChildProcess> service;
    std::unique_ptr<pelktest::ChildProcess> peer;

    std::atomic<bool> m_fStop{false};
    std::atomic<int> m_nLost{0}, m_nReconnected{0};
    std::atomic<uint32_t> m_nProgressedTask{0};  // the file send that last reported
    std::mutex m_mutex;  // guards the two below
    InteractionApp m_peer;
    std::set<std::string> m_succeeded;  // the kinds of call that succeeded since the last restart
    std::vector<std::thread> m_threads;
    // Last, so that it goes first: its threads call back into the members above.
    pelktest::TestAgent agent;
};

TEST_F(AgentSoakTest, RegistersAgainAfterEveryRestartAndTrafficResumesWithoutGrowth) {
    const char* text = getenv("PELK_SOAK_CYCLES");
    const int cycles = text != nullptr && atoi(text) > 0 ? atoi(text) : 100;
    for (int i = 0; i < 2; ++i) {
        m_threads.emplace_back(&AgentSoakTest::callTraffic, this);
    }
    const auto resumed = [&] {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_succeeded.size() == kOpCount;
    };
    Resources before = {0, 0, 0};
    uint32_t task = 0;
    // Each cycle checks that the agent works, then kills the service; the last only checks.
    for (int cycle = 1; !HasFatalFailure(); ++cycle) {
        ASSERT_TRUE(waitUntil(resumed, kWaitMs, 5)) << "cycle " << cycle << ": not every kind of call succeeded again";
        // A file send to the peer, under way at the kill. The agent keeps a send's callback entry,
        // a refused send's too, until the app deletes it, and a restarted service numbers its
        // tasks from 1 again: an entry left behind would take a new task's events.
        m_nProgressedTask = 0;
        const auto sent = [&] {
            agent.deleteSendFileCallback(task);
            std::unique_lock<std::mutex> lock(m_mutex);
            const InteractionApp target = m_peer;
            lock.unlock();
            const auto send = [&] { return agent.sendFile(file.c_str(), &target, onFile, this, &task, false, 0); };
            return call("sendFile", send) == 0;
        };
        ASSERT_TRUE(waitUntil(sent, kWaitMs, 20)) << "cycle " << cycle << ": no file send taken";
        ASSERT_TRUE(waitUntil([&] { return m_nProgressedTask == task; }, kWaitMs, 5))
            << "cycle " << cycle << ": no file send under way";
        if (cycle == 1) {
            before = held();
        }
        if (cycle > cycles) {
            break;
        }
        // Kills land at different points of the traffic and of the transfer.
        pelktest::sleepMs(500 + cycle * 379 % 1000);
        const int lost = m_nLost, reconnected = m_nReconnected;
        service->signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, service->wait(kWaitMs));
        if (DIR* received = opendir(dir.file("peer").c_str())) {  // so that the disk does not fill
            while (const dirent* entry = readdir(received)) {
                unlink(dir.file(std::string("peer/") + entry->d_name).c_str());
            }
            closedir(received);
        }
        EXPECT_TRUE(waitUntil([&] { return m_nLost > lost; }, kWaitMs, 5)) << "cycle " << cycle << ": no status 3";
        if (cycle % kLateRestartEvery == 0) {
            pelktest::sleepMs(kLateRestartMs);
        }
        startService();
        EXPECT_TRUE(waitUntil([&] { return m_nReconnected > reconnected; }, kWaitMs, 5))
            << "cycle " << cycle << ": no status 4";
        std::lock_guard<std::mutex> guard(m_mutex);
        m_succeeded.clear();
    }
    // A finished link run's threads and descriptors go a little after it.
    Resources after = {};
    waitUntil(
        [&] {
            after = held();
            return after.threads <= before.threads && after.fds <= before.fds;
        },
        10000, 50);
    printf("soak: %d cycles; threads %zu -> %zu, descriptors %zu -> %zu, heap %zu -> %zu KiB\n", cycles,
           before.threads, after.threads, before.fds, after.fds, before.heapBytes / 1024, after.heapBytes / 1024);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.fds, before.fds);
    EXPECT_LE(after.heapBytes, before.heapBytes + kHeapMarginBytes);
}

}  // namespace
