// Waiting and counting for tests that watch other threads and processes: a pause, a poll until a
// condition holds, the time since a start, and the entries of a folder (/proc/self/fd, say).
// Header-only and stateless; any thread may use them.
#ifndef PELK_TESTS_WAITS_H
#define PELK_TESTS_WAITS_H

#include <dirent.h>

#include <chrono>
#include <cstddef>
#include <thread>

namespace pelktest {

using Clock = std::chrono::steady_clock;

inline double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

inline void sleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

// Polls done() every pollMs until it holds (true) or timeoutMs have passed (false).
template <class Done>
bool waitUntil(Done done, int timeoutMs, int pollMs = 2) {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (Clock::now() > deadline) {
            return false;
        }
        sleepMs(pollMs);
    }
    return true;
}

// The entries of a folder that do not start with a dot; 0 when it cannot be read.
inline size_t countEntries(const char* folder) {
    size_t count = 0;
    if (DIR* dir = opendir(folder)) {
        while (const dirent* entry = readdir(dir)) count += entry->d_name[0] == '.' ? 0 : 1;
        closedir(dir);
    }
    return count;
}

}  // namespace pelktest

#endif  // PELK_TESTS_WAITS_H
