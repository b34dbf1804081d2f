// The agent against a service that dies and comes back, over and over: pelk-emulator is killed
// outright (SIGKILL) while this process's agent sends data synchronously and asynchronously to
// "peer" (a pelk listen process), sends a file to it, and queries the app list from two threads.
// After every restart the agent must register again by itself and every kind of call must work
// again, no call may outlast its time-out, and at the end no thread, descriptor or memory may
// have piled up.
//   PELK_SOAK_CYCLES  kill-and-restart cycles (default 100)
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ServiceCodes.h"
#include "support/AgentFixture.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"

// Freed memory is held back by ASan for a while; a small quarantine keeps the resident size a
// measure of what the agent holds rather than of the sanitizer's reserve.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=4"; }

using namespace PELK;
using pelktest::Clock;
using pelktest::countEntries;
using pelktest::secondsSince;

namespace {

// Sanitizers make every process here several times slower; these are generous bounds.
constexpr int kWaitMs = 30000;
// The agent's time-out for a request, and how far past it a call may run.
constexpr double kLongestCallSeconds = 40 + 2;
// Every fifth cycle the service stays away past the first attempt, so a second one is needed.
constexpr int kLateRestartEvery = 5;
constexpr int kLateRestartMs = 4500;
// After the warm-up (the first quarter of the cycles) the resident size may grow by this much,
// no more: allocator caches and the sanitizers' bookkeeping still settle, a leak keeps climbing.
constexpr long kRssMarginKiB = 16 * 1024;
// With --rate 256K, this file takes two seconds: a transfer is under way at every kill.
constexpr size_t kFileBytes = 512 * 1024;

struct Resources {
    size_t threads, fds;
    long rssKiB;
};

// Threads and descriptors of a finished link run go a little after the run: the lowest counts
// seen until they are no higher than `target`'s (or the time is up).
Resources settled(const Resources& target, int timeoutMs) {
    Resources low = {countEntries("/proc/self/task"), countEntries("/proc/self/fd"), 0};
    pelktest::waitUntil(
        [&] {
            low.threads = std::min(low.threads, countEntries("/proc/self/task"));
            low.fds = std::min(low.fds, countEntries("/proc/self/fd"));
            return low.threads <= target.threads && low.fds <= target.fds;
        },
        timeoutMs, 50);
    long pages = 0;
    if (FILE* statm = fopen("/proc/self/statm", "r")) {
        const bool read = fscanf(statm, "%ld %ld", &pages, &low.rssKiB) == 2;
        low.rssKiB = read ? low.rssKiB * (sysconf(_SC_PAGESIZE) / 1024) : 0;
        fclose(statm);
    }
    return low;
}

enum Op { kSendData, kAsynSendData, kSendFile, kSearchApps, kGetAppList, kOpCount };
const char* const kOpNames[kOpCount] = {"sendData", "asynSendData", "sendFile", "searchInteractionApp",
                                        "getInteractionAppList"};

struct OpFigures {
    std::map<int, size_t> codes;
    Clock::time_point lastSuccess;
};

class AgentSoakTest : public ::testing::Test {
protected:
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
        stopTraffic();
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
        std::lock_guard<std::mutex> guard(self->m_mutex);
        self->m_nLost += status == Agent::APP_STATUS_DISCONNECTED;
        if (status == Agent::APP_STATUS_RECONNECTED) {
            ++self->m_nReconnected;
            self->m_reconnectedAt = Clock::now();
        }
        self->m_changed.notify_all();
    }

    static void onFile(file_transfer_event event, void* user) {
        AgentSoakTest* self = static_cast<AgentSoakTest*>(user);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        const bool last = event.nEventType == Emulator::FILE_EVENT_LIST_DONE ||
                          event.nEventType == Emulator::FILE_EVENT_CANCELLED ||
                          event.nEventType == Emulator::FILE_EVENT_FAILED;
        (last ? self->m_nEndedTask : self->m_nProgressedTask) = static_cast<uint32_t>(event.nId);
        self->m_changed.notify_all();
    }

    // Runs one call, bounding its time and filing its code under op.
    int call(Op op, const std::function<int()>& action) {
        ++m_nInFlight;
        const Clock::time_point start = Clock::now();
        const int code = action();
        EXPECT_LE(secondsSince(start), kLongestCallSeconds) << kOpNames[op] << " returned " << code;
        --m_nInFlight;
        std::lock_guard<std::mutex> guard(m_mutex);
        ++m_figures[op].codes[code];
        if (code == 0) {
            m_figures[op].lastSuccess = Clock::now();
            m_changed.notify_all();
        }
        return code;
    }

    // The peer as the agent last heard of it; an old record while it has not come back.
    InteractionApp currentPeer() {
        std::vector<InteractionApp> apps;
        call(kGetAppList, [&] { return agent.getInteractionAppList(&apps); });
        std::lock_guard<std::mutex> guard(m_mutex);
        for (const InteractionApp& app : apps) {
            m_peer = std::string("peer") == app.szAppName ? app : m_peer;
        }
        return m_peer;
    }

    // Waits until done() holds or the traffic stops (true) or timeoutMs pass (false), under the mutex.
    template <class Done>
    bool await(Done done, int timeoutMs = kWaitMs) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return m_fStop || done(); });
    }
    bool pause(int ms) {
        return await([] { return false; }, ms);
    }

    void dataTraffic() {
        const std::string text = "soak data";
        const unsigned int length = static_cast<unsigned int>(text.size());
        const DataTransferCallback onStatus = [](data_transfer_event, void* user) {
            ++static_cast<AgentSoakTest*>(user)->m_nSendStatus;
        };
        while (!pause(20)) {
            const InteractionApp target = currentPeer();
            call(kSendData, [&] { return agent.sendData(text.data(), length, &target, false, 10); });
            call(kAsynSendData,
                 [&] { return agent.asynSendData(text.data(), length, &target, false, onStatus, this); });
        }
    }

    // Sends the file to the peer again and again, waiting for each send's end or the service's
    // loss. A task's callback stays in the agent until the app deletes it, and a restarted
    // service numbers its tasks from 1 again: an entry left behind would take a new task's
    // events, so each one is deleted (once the agent is registered: not 1100) before the next send.
    void fileTraffic() {
        uint32_t task = 0;
        while (!pause(20)) {
            if (task != 0 && agent.deleteSendFileCallback(task) == 1100) {
                continue;
            }
            const InteractionApp target = currentPeer();
            std::unique_lock<std::mutex> lock(m_mutex);
            const int lost = m_nLost;
            m_nEndedTask = m_nProgressedTask = 0;
            lock.unlock();
            const auto send = [&] { return agent.sendFile(file.c_str(), &target, onFile, this, &task, false, 0); };
            if (call(kSendFile, send) != 0) {
                task = 0;
                continue;
            }
            lock.lock();
            m_nCurrentTask = task;
            m_changed.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                               [&] { return m_fStop || m_nLost != lost || m_nEndedTask == task; });
            m_nCurrentTask = 0;
        }
    }

    void startTraffic() {
        m_threads.emplace_back(&AgentSoakTest::dataTraffic, this);
        m_threads.emplace_back(&AgentSoakTest::fileTraffic, this);
        for (int i = 0; i < 2; ++i) {
            m_threads.emplace_back([this] {
                while (!pause(30)) {
                    std::vector<InteractionApp> apps;
                    call(kGetAppList, [&] { return agent.getInteractionAppList(&apps); });
                    call(kSearchApps, [&] { return agent.searchInteractionApp(&apps); });
                }
            });
        }
    }

    void stopTraffic() {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_fStop = true;
            m_changed.notify_all();
        }
        for (std::thread& thread : m_threads) {
            thread.join();
        }
        m_threads.clear();
    }

    // Every kind of call has succeeded since `since`.
    bool trafficResumedSince(Clock::time_point since) {
        return await([&] {
            return std::all_of(std::begin(m_figures), std::end(m_figures),
                               [&](const OpFigures& figures) { return figures.lastSuccess > since; });
        });
    }

    // Kills the service with traffic under way and starts it again; the seconds from the kill
    // until the agent reported itself registered again.
    double killAndRestart(int cycle) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int lost = m_nLost, reconnected = m_nReconnected;
        lock.unlock();
        m_nCallsAtKills += m_nInFlight.load();
        const Clock::time_point killed = Clock::now();
        service->signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, service->wait(kWaitMs));
        if (DIR* received = opendir(dir.file("peer").c_str())) {  // so that the disk does not fill
            while (const dirent* entry = readdir(received)) {
                unlink(dir.file(std::string("peer/") + entry->d_name).c_str());
            }
            closedir(received);
        }
        EXPECT_TRUE(await([&] { return m_nLost > lost; })) << "cycle " << cycle << ": no status 3";
        if (cycle % kLateRestartEvery == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kLateRestartMs));
        }
        startService();
        EXPECT_TRUE(await([&] { return m_nReconnected > reconnected; })) << "cycle " << cycle << ": no status 4";
        return secondsSince(killed);
    }

    pelktest::TempDir dir;
    std::string file;
    std::unique_ptr<pelktest::ChildProcess> service;
    std::unique_ptr<pelktest::ChildProcess> peer;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_fStop = false;
    int m_nLost = 0;
    int m_nReconnected = 0;
    Clock::time_point m_reconnectedAt;
    InteractionApp m_peer;
    // The file send under way, and the last tasks that progressed and ended.
    uint32_t m_nCurrentTask = 0, m_nProgressedTask = 0, m_nEndedTask = 0;
    OpFigures m_figures[kOpCount];
    std::atomic<size_t> m_nSendStatus{0};
    std::atomic<size_t> m_nInFlight{0};
    size_t m_nCallsAtKills = 0;
    std::vector<std::thread> m_threads;
    // Last, so that it goes first: its threads call back into the members above.
    pelktest::TestAgent agent;
};

TEST_F(AgentSoakTest, RegistersAgainAfterEveryRestartAndTrafficResumesWithoutGrowth) {
    const char* text = getenv("PELK_SOAK_CYCLES");
    const int cycles = text != nullptr && atoi(text) > 0 ? atoi(text) : 100;
    // The sanitizers' caches take a couple of dozen cycles to level off; the plain build's, two.
    const int warmUp = std::max(1, cycles / 4);
    startTraffic();
    Resources before = {0, 0, 0};
    std::vector<double> times;
    Clock::time_point back = Clock::now() - std::chrono::hours(1);
    for (int cycle = 1; cycle <= cycles && !HasFatalFailure(); ++cycle) {
        ASSERT_TRUE(trafficResumedSince(back)) << "cycle " << cycle << ": not every kind of call succeeded again";
        if (cycle == warmUp + 1) {
            before = settled(before, 1000);
        }
        ASSERT_TRUE(await([&] { return m_nCurrentTask != 0 && m_nProgressedTask == m_nCurrentTask; }))
            << "cycle " << cycle << ": no file send under way";
        // Kills land at different points of the traffic and of the transfer.
        std::this_thread::sleep_for(std::chrono::milliseconds(500 + cycle * 379 % 1000));
        times.push_back(killAndRestart(cycle));
        std::lock_guard<std::mutex> guard(m_mutex);
        back = m_reconnectedAt;
    }
    ASSERT_TRUE(trafficResumedSince(back)) << "after the last cycle";
    if (cycles <= warmUp) {
        before = settled(before, 1000);
    }
    const Resources after = settled(before, 10000);
    stopTraffic();

    std::sort(times.begin(), times.end());
    printf("soak: %d cycles, %zu calls in flight at the kills, %zu send status events; registered again after "
           "%.2f..%.2f s (median %.2f s)\n",
           cycles, m_nCallsAtKills, m_nSendStatus.load(), times.front(), times.back(), times[times.size() / 2]);
    for (int op = 0; op < kOpCount; ++op) {
        printf("soak: %-21s codes", kOpNames[op]);
        for (const auto& code : m_figures[op].codes) {
            printf(" %d:%zu", code.first, code.second);
        }
        printf("\n");
    }
    printf("soak: threads %zu -> %zu, fds %zu -> %zu, RSS %ld -> %ld KiB (margin %ld KiB)\n", before.threads,
           after.threads, before.fds, after.fds, before.rssKiB, after.rssKiB, kRssMarginKiB);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.fds, before.fds);
    EXPECT_LE(after.rssKiB, before.rssKiB + kRssMarginKiB);
}

}  // namespace
