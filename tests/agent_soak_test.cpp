// The agent against a service that dies and comes back, over and over: pelk-emulator is killed
// outright (SIGKILL) while this process's agent sends data synchronously and asynchronously to
// "peer" (a pelk listen process), sends a file to it, and queries the app list from two threads.
// After every restart the agent must register again by itself and every kind of call must work
// again; at the end no thread, descriptor or memory may have piled up, and every call must have
// returned a code that its operation documents within its time-out.
//   PELK_SOAK_CYCLES  kill-and-restart cycles (default 100)
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <set>
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
using pelktest::ChildProcess;

namespace {

// Sanitizers make every process here several times slower; these are generous bounds.
constexpr int kWaitMs = 30000;
// A call may run this much past its time-out before it counts as overrunning it.
constexpr int kOverrunMs = 2000;
// The agent's time-out for each of its requests here.
constexpr int kRequestTimeoutMs = 40000;
// Every fifth cycle the service stays away past the first attempt, so a second one is needed.
constexpr int kLateRestartEvery = 5;
constexpr int kLateRestartMs = 4500;
// After the warm-up (the first quarter of the cycles) the resident size may grow by this much,
// no more: allocator caches and the sanitizers' bookkeeping still settle, a leak keeps climbing.
constexpr long kRssMarginKiB = 16 * 1024;
// How long traffic runs at the least between registering again and the next kill.
constexpr int kMinRegisteredMs = 500;
// With --rate 256K, this file takes two seconds: a transfer is under way at every kill.
constexpr size_t kFileBytes = 512 * 1024;

int cycles() {
    const char* text = getenv("PELK_SOAK_CYCLES");
    const int value = text != nullptr ? atoi(text) : 0;
    return value > 0 ? value : 100;
}

long residentKiB() {
    long pages = 0;
    long resident = 0;
    if (FILE* statm = fopen("/proc/self/statm", "r")) {
        if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        fclose(statm);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void removeFiles(const std::string& folder) {
    if (DIR* dir = opendir(folder.c_str())) {
        while (const dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') {
                unlink((folder + "/" + entry->d_name).c_str());
            }
        }
        closedir(dir);
    }
}

struct Resources {
    size_t threads = 0;
    size_t fds = 0;
    long rssKiB = 0;
};

// Threads and descriptors of a finished link run go a little after the run; the lowest count seen
// until it is no higher than `target` (or the time is up) is what is taken.
Resources settledResources(const Resources& target, int timeoutMs) {
    Resources low = {countEntries("/proc/self/task"), countEntries("/proc/self/fd"), 0};
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while ((low.threads > target.threads || low.fds > target.fds) && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        low.threads = std::min(low.threads, countEntries("/proc/self/task"));
        low.fds = std::min(low.fds, countEntries("/proc/self/fd"));
    }
    low.rssKiB = residentKiB();
    return low;
}

enum Op { kSendData, kAsynSendData, kSendFile, kDeleteFileCallback, kSearchApps, kGetAppList, kOpCount };

struct OpContract {
    const char* name;
    std::set<int> codes;  // what the operation documents
    int timeoutMs;        // 0: it asks the service nothing
};

std::set<int> codes(std::initializer_list<std::pair<int, int>> ranges) {
    std::set<int> all;
    for (const auto& range : ranges) {
        for (int code = range.first; code <= range.second; ++code) {
            all.insert(code);
        }
    }
    return all;
}

// The agent's own codes, the link's (1101..1107) for a request, and the emulator's results that
// apply to that request.
const std::array<OpContract, kOpCount> kContracts = {{
    {"sendData", codes({{0, 0}, {1400, 1405}, {1101, 1107}, {2, 2}, {5, 6}}), kRequestTimeoutMs},
    {"asynSendData", codes({{0, 0}, {1400, 1405}, {1101, 1107}}), kRequestTimeoutMs},
    {"sendFile", codes({{0, 0}, {1700, 1700}, {1702, 1703}, {1800, 1807}, {1101, 1107}, {2, 2}, {5, 7}, {9, 9}}),
     kRequestTimeoutMs},
    {"deleteSendFileCallback", codes({{0, 1}, {1100, 1100}}), 0},
    {"searchInteractionApp", codes({{0, 0}, {2300, 2302}, {1101, 1107}, {2, 2}}), kRequestTimeoutMs},
    {"getInteractionAppList", codes({{0, 0}, {2700, 2701}}), 0},
}};

struct OpFigures {
    size_t calls = 0;
    std::map<int, size_t> codes;
    double slowestSeconds = 0;
    int slowestCode = 0;
    Clock::time_point lastSuccess;
};

class AgentSoakTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, mkdir(dir.file("peer").c_str(), 0755));
        ASSERT_EQ(0, mkdir(dir.file("soak").c_str(), 0755));
        file = dir.write("payload.bin", std::string(kFileBytes, 'p'));
        startService();
        peer.reset(new ChildProcess({PELK_CLI, "listen", "--name", "peer", "--number", "21", "--receive-dir",
                                     dir.file("peer")},
                                    dir.file("peer.out")));
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
        for (ChildProcess* program : {peer.get(), service.get()}) {
            if (program != nullptr) {
                program->signal(SIGTERM);
                EXPECT_EQ(0, program->wait(kWaitMs));
            }
        }
        if (HasFailure() && service != nullptr) {
            std::cout << "--- emulator\n" << service->output();
        }
    }

    void startService() {
        service.reset(new ChildProcess({PELK_EMULATOR, "--rate", "256K"}, dir.file("emulator.log")));
        ASSERT_TRUE(service->awaitOutput("listening on 127.0.0.1:20014", kWaitMs)) << service->output();
    }

    static void onApp(const InteractionApp*, int status, void* user) {
        AgentSoakTest* self = static_cast<AgentSoakTest*>(user);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        if (status == Agent::APP_STATUS_DISCONNECTED) {
            ++self->m_nLost;
        } else if (status == Agent::APP_STATUS_RECONNECTED) {
            ++self->m_nReconnected;
            self->m_reconnectedAt = Clock::now();
        }
        self->m_changed.notify_all();
    }

    static void onSendStatus(data_transfer_event, void* user) { ++static_cast<AgentSoakTest*>(user)->m_nSendStatus; }

    static void onFile(file_transfer_event event, void* user) {
        AgentSoakTest* self = static_cast<AgentSoakTest*>(user);
        std::lock_guard<std::mutex> guard(self->m_mutex);
        const bool last = event.nEventType == Emulator::FILE_EVENT_LIST_DONE ||
                          event.nEventType == Emulator::FILE_EVENT_CANCELLED ||
                          event.nEventType == Emulator::FILE_EVENT_FAILED;
        const uint32_t task = static_cast<uint32_t>(event.nId);
        (last ? self->m_endedTasks : self->m_progressedTasks).insert(task);
        self->m_changed.notify_all();
    }

    // Runs one call, timing it and filing its code under op.
    int call(Op op, const std::function<int()>& action) {
        ++m_nInFlight;
        const Clock::time_point start = Clock::now();
        const int code = action();
        const double seconds = secondsSince(start);
        --m_nInFlight;
        std::lock_guard<std::mutex> guard(m_mutex);
        OpFigures& figures = m_figures[op];
        ++figures.calls;
        ++figures.codes[code];
        if (seconds > figures.slowestSeconds) {
            figures.slowestSeconds = seconds;
            figures.slowestCode = code;
        }
        if (code == 0) {
            figures.lastSuccess = Clock::now();
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
            if (std::string("peer") == app.szAppName) {
                m_peer = app;
            }
        }
        return m_peer;
    }

    void pause(int ms) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::milliseconds(ms), [&] { return m_fStop; });
    }

    bool stopping() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_fStop;
    }

    void dataTraffic() {
        const std::string text = "soak data";
        const unsigned int length = static_cast<unsigned int>(text.size());
        while (!stopping()) {
            const InteractionApp target = currentPeer();
            call(kSendData, [&] { return agent.sendData(text.data(), length, &target, false, 10); });
            call(kAsynSendData,
                 [&] { return agent.asynSendData(text.data(), length, &target, false, onSendStatus, this); });
            pause(20);
        }
    }

    void queryTraffic() {
        while (!stopping()) {
            std::vector<InteractionApp> apps;
            call(kGetAppList, [&] { return agent.getInteractionAppList(&apps); });
            apps.clear();
            call(kSearchApps, [&] { return agent.searchInteractionApp(&apps); });
            pause(30);
        }
    }

    // Sends the file to the peer again and again, waiting for each send's end or the service's
    // loss. A task's callback stays in the agent until the app deletes it, and a restarted
    // service numbers its tasks from 1 again: an entry left behind would take a new task's
    // events, so every one is deleted before the next send.
    void fileTraffic() {
        std::vector<uint32_t> undeleted;
        while (!stopping()) {
            for (auto task = undeleted.begin(); task != undeleted.end();) {
                const int code = call(kDeleteFileCallback, [&] { return agent.deleteSendFileCallback(*task); });
                task = code == 1100 ? task + 1 : undeleted.erase(task);
            }
            if (!undeleted.empty()) {
                pause(50);
                continue;
            }
            const InteractionApp target = currentPeer();
            int lost = 0;
            {
                std::lock_guard<std::mutex> guard(m_mutex);
                lost = m_nLost;
            }
            uint32_t task = 0;
            const int code =
                call(kSendFile, [&] { return agent.sendFile(file.c_str(), &target, onFile, this, &task, false, 0); });
            if (code != 0) {
                pause(50);
                continue;
            }
            undeleted.push_back(task);
            std::unique_lock<std::mutex> lock(m_mutex);
            m_nCurrentTask = task;
            m_changed.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                               [&] { return m_fStop || m_nLost != lost || m_endedTasks.count(task) != 0; });
            m_endedTasks.erase(task);
            m_progressedTasks.erase(task);
            m_nCurrentTask = 0;
        }
    }

    void startTraffic() {
        m_threads.emplace_back([this] { dataTraffic(); });
        m_threads.emplace_back([this] { fileTraffic(); });
        m_threads.emplace_back([this] { queryTraffic(); });
        m_threads.emplace_back([this] { queryTraffic(); });
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

    // Waits until done() holds, under the mutex; false after kWaitMs.
    template <class Done>
    bool await(Done done) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::milliseconds(kWaitMs), done);
    }

    // Every kind of call has succeeded since the agent last came back (or since `since`).
    bool trafficResumedSince(Clock::time_point since) {
        return await([&] {
            const Op ops[] = {kSendData, kAsynSendData, kSendFile, kSearchApps, kGetAppList};
            return std::all_of(std::begin(ops), std::end(ops), [&](Op op) { return m_figures[op].lastSuccess > since; });
        });
    }

    // Kills the service with traffic under way and starts it again; the seconds from the kill
    // until the agent reported itself registered again.
    double killAndRestart(int cycle) {
        int lost = 0;
        int reconnected = 0;
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            lost = m_nLost;
            reconnected = m_nReconnected;
        }
        m_nCallsAtKills += m_nInFlight.load();
        const Clock::time_point killed = Clock::now();
        service->signal(SIGKILL);
        EXPECT_EQ(128 + SIGKILL, service->wait(kWaitMs));
        removeFiles(dir.file("peer"));  // what the peer received, so that the disk does not fill
        EXPECT_TRUE(await([&] { return m_nLost > lost; })) << "cycle " << cycle << ": no status 3";
        if (cycle % kLateRestartEvery == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kLateRestartMs));
        }
        startService();
        EXPECT_TRUE(await([&] { return m_nReconnected > reconnected; })) << "cycle " << cycle << ": no status 4";
        return secondsSince(killed);
    }

    // The figures of the run, and the resident size at the start of every tenth of the cycles: a
    // leak climbs steadily, the allocators' and sanitizers' caches level off.
    void printFigures(int cycleCount, const std::vector<double>& atOnce, const std::vector<double>& late,
                      const Resources& before, const Resources& after, const std::vector<long>& rssByCycle) {
        std::lock_guard<std::mutex> guard(m_mutex);
        printf("soak: %d cycles, %zu calls in flight at the kills, %zu send status events\n", cycleCount,
               m_nCallsAtKills, m_nSendStatus.load());
        for (int op = 0; op < kOpCount; ++op) {
            printf("soak: %-23s %7zu calls, slowest %.3f s (%d), codes", kContracts[op].name, m_figures[op].calls,
                   m_figures[op].slowestSeconds, m_figures[op].slowestCode);
            for (const auto& code : m_figures[op].codes) {
                printf(" %d:%zu", code.first, code.second);
            }
            printf("\n");
        }
        for (const auto& group : {std::make_pair("restarted at once", atOnce), std::make_pair("restarted late", late)}) {
            std::vector<double> times = group.second;
            std::sort(times.begin(), times.end());
            if (!times.empty()) {
                printf("soak: registered again (%s, %zu): min %.2f s, median %.2f s, max %.2f s\n", group.first,
                       times.size(), times.front(), times[times.size() / 2], times.back());
            }
        }
        printf("soak: threads %zu -> %zu, fds %zu -> %zu, RSS %ld -> %ld KiB (margin %ld KiB)\n", before.threads,
               after.threads, before.fds, after.fds, before.rssKiB, after.rssKiB, kRssMarginKiB);
        const size_t step = std::max<size_t>(1, rssByCycle.size() / 10);
        printf("soak: RSS (KiB) by cycle:");
        for (size_t i = 0; i < rssByCycle.size(); i += step) {
            printf(" %zu:%ld", i + 1, rssByCycle[i]);
        }
        printf("\n");
        fflush(stdout);
    }

    pelktest::TempDir dir;
    std::string file;
    std::unique_ptr<ChildProcess> service;
    std::unique_ptr<ChildProcess> peer;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_fStop = false;
    int m_nLost = 0;
    int m_nReconnected = 0;
    Clock::time_point m_reconnectedAt;
    InteractionApp m_peer;
    uint32_t m_nCurrentTask = 0;
    std::set<uint32_t> m_progressedTasks;
    std::set<uint32_t> m_endedTasks;
    std::array<OpFigures, kOpCount> m_figures;
    std::atomic<size_t> m_nSendStatus{0};
    std::atomic<size_t> m_nInFlight{0};
    size_t m_nCallsAtKills = 0;
    std::vector<std::thread> m_threads;
    // Last, so that it goes first: its threads call back into the members above.
    pelktest::TestAgent agent;
};

TEST_F(AgentSoakTest, RegistersAgainAfterEveryRestartAndTrafficResumesWithoutGrowth) {
    const int cycleCount = cycles();
    // The sanitizers' caches take a couple of dozen cycles to level off; the plain build's, two.
    const int warmUp = std::max(1, cycleCount / 4);
    startTraffic();
    Resources before;
    std::vector<double> atOnce;
    std::vector<double> late;
    std::vector<long> rssByCycle;
    Clock::time_point back = Clock::now() - std::chrono::hours(1);
    for (int cycle = 1; cycle <= cycleCount && !HasFatalFailure(); ++cycle) {
        ASSERT_TRUE(trafficResumedSince(back)) << "cycle " << cycle << ": not every kind of call succeeded again";
        rssByCycle.push_back(residentKiB());
        if (cycle == warmUp + 1) {
            before = settledResources(Resources(), 1000);
        }
        ASSERT_TRUE(await([&] { return m_progressedTasks.count(m_nCurrentTask) != 0; })) << "cycle " << cycle;
        // Kills land at different points of the traffic and of the transfer.
        std::this_thread::sleep_for(std::chrono::milliseconds(kMinRegisteredMs + cycle * 379 % 1000));
        const double seconds = killAndRestart(cycle);
        (cycle % kLateRestartEvery == 0 ? late : atOnce).push_back(seconds);
        std::lock_guard<std::mutex> guard(m_mutex);
        back = m_reconnectedAt;
    }
    ASSERT_TRUE(trafficResumedSince(back)) << "after the last cycle";
    if (cycleCount <= warmUp) {
        before = settledResources(Resources(), 1000);
    }
    const Resources after = settledResources(before, 10000);
    stopTraffic();
    printFigures(cycleCount, atOnce, late, before, after, rssByCycle);

    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.fds, before.fds);
    EXPECT_LE(after.rssKiB, before.rssKiB + kRssMarginKiB);
    for (int op = 0; op < kOpCount; ++op) {
        for (const auto& code : m_figures[op].codes) {
            EXPECT_EQ(1u, kContracts[op].codes.count(code.first))
                << kContracts[op].name << " returned " << code.first << " (" << code.second << " times)";
        }
        EXPECT_LE(m_figures[op].slowestSeconds * 1000, kContracts[op].timeoutMs + kOverrunMs) << kContracts[op].name;
    }
}

}  // namespace
