// The link against raw loopback sockets moving the same bytes (a 300-byte request, a 12-byte
// reply), measured in one run with interleaved batches so that load from elsewhere hits both:
// round trips back to back and after an idle gap, pushed events, system calls, the idle CPU of a
// connected link and its memory over many calls. Then the Google Benchmark cases, if selected.
// Binds 127.0.0.1:20014: run it inside tools/isolated.sh.
//   link_bench [--calls=N] [--benchmark_filter=...]   N calls for the memory check (1,000,000)
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CommonLib/LogSink.h"
#include "CommonLib/OSALDetail.h"
#include "TransferClient.h"

namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<char>;
using PELK::Agent::TransferClient;

constexpr int kPort = 20014;
constexpr int32_t kRequestAction = 44;
constexpr int32_t kEventAction = 20;
constexpr size_t kRequestBody = 300;
constexpr size_t kReplyBody = 12;
constexpr int kBatches = 20;

double microsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::micro>(to - from).count();
}

void put32(char* at, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        at[i] = static_cast<char>(value >> (8 * i));
    }
}

uint32_t get32(const char* at) {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        value |= static_cast<uint32_t>(static_cast<unsigned char>(at[i])) << (8 * i);
    }
    return value;
}

// A message body of `size` bytes that starts with the action ID.
Bytes message(int32_t action, size_t size) {
    Bytes body(size, 0);
    put32(body.data(), static_cast<uint32_t>(action));
    return body;
}

Bytes framed(const Bytes& body) {
    Bytes frame(4 + body.size());
    put32(frame.data(), static_cast<uint32_t>(body.size()));
    std::copy(body.begin(), body.end(), frame.begin() + 4);
    return frame;
}

bool writeAll(int fd, const Bytes& bytes, uint64_t* syscalls = nullptr) {
    size_t done = 0;
    while (done < bytes.size()) {
        if (syscalls != nullptr) {
            ++*syscalls;
        }
        const ssize_t sent = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0) {
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

bool readAll(int fd, char* buffer, size_t size, uint64_t* syscalls = nullptr) {
    size_t done = 0;
    while (done < size) {
        if (syscalls != nullptr) {
            ++*syscalls;
        }
        const ssize_t got = recv(fd, buffer + done, size - done, 0);
        if (got <= 0) {
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

// The service side: one thread per connection with blocking reads and one write per reply, so
// that both clients meet the same, plain responder.
class RawService {
public:
    RawService() {
        m_listenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int one = 1;
        setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(kPort);
        if (bind(m_listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            listen(m_listenFd, 8) != 0) {
            close(m_listenFd);
            m_listenFd = -1;
            return;
        }
        m_acceptor = std::thread(&RawService::acceptLoop, this);
    }

    ~RawService() {
        if (m_listenFd >= 0) {
            shutdown(m_listenFd, SHUT_RDWR);
        }
        if (m_acceptor.joinable()) {
            m_acceptor.join();
        }
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            for (int fd : m_fds) {
                shutdown(fd, SHUT_RDWR);
            }
        }
        for (std::thread& server : m_servers) {
            server.join();
        }
        for (int fd : m_fds) {
            close(fd);
        }
        if (m_listenFd >= 0) {
            close(m_listenFd);
        }
    }

    bool listening() const { return m_listenFd >= 0; }

    // The service side of the index-th connection accepted.
    int connection(size_t index) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::seconds(5), [&] { return m_fds.size() > index; });
        return m_fds.size() > index ? m_fds[index] : -1;
    }

private:
    void acceptLoop() {
        for (;;) {
            const int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            std::lock_guard<std::mutex> guard(m_mutex);
            m_fds.push_back(fd);
            m_servers.emplace_back(&RawService::serve, fd);
            m_changed.notify_all();
        }
    }

    static void serve(int fd) {
        const Bytes reply = framed(message(kRequestAction, kReplyBody));
        Bytes request(4 + kRequestBody);
        char header[4];
        while (readAll(fd, header, sizeof(header))) {
            request.resize(get32(header));
            if (!readAll(fd, request.data(), request.size()) || !writeAll(fd, reply)) {
                return;
            }
        }
    }

    int m_listenFd = -1;
    std::thread m_acceptor;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int> m_fds;
    std::vector<std::thread> m_servers;
};

// The raw client: a write of the request, then reads until the whole reply is in.
class RawClient {
public:
    bool connect() {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(kPort);
        return ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawClient() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }

    bool call() {
        char reply[4 + kReplyBody];
        return writeAll(m_fd, m_request, &m_nSyscalls) && readAll(m_fd, reply, sizeof(reply), &m_nSyscalls);
    }

    int fd() const { return m_fd; }
    uint64_t syscalls() const { return m_nSyscalls; }

private:
    int m_fd = -1;
    Bytes m_request = framed(message(kRequestAction, kRequestBody));
    uint64_t m_nSyscalls = 0;
};

bool linkCall(TransferClient& client) {
    static Bytes request = message(kRequestAction, kRequestBody);
    char* resp = nullptr;
    int length = 0;
    const int result = client.serviceCall(request.data(), static_cast<int>(request.size()), resp, &length, 5);
    delete[] resp;
    return result == 0 && length == static_cast<int>(kReplyBody);
}

// Waits out `micros` microseconds the way an idle app would: asleep.
void idle(int micros) {
    if (micros > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(micros));
    }
}

struct Samples {
    std::vector<double> micros;
    uint64_t syscalls = 0;
    size_t count = 0;

    double percentile(double p) {
        if (micros.empty()) {
            return 0;
        }
        std::sort(micros.begin(), micros.end());
        return micros[std::min(micros.size() - 1, static_cast<size_t>(p * static_cast<double>(micros.size())))];
    }
    double syscallsEach() const { return count == 0 ? 0 : static_cast<double>(syscalls) / static_cast<double>(count); }
};

// Raw and link calls in alternating batches (alternating which goes first), each call timed.
bool compareCalls(TransferClient& client, RawClient& raw, int perBatch, int gapMicros, Samples* rawOut,
                  Samples* linkOut) {
    for (int batch = 0; batch < kBatches; ++batch) {
        for (int turn = 0; turn < 2; ++turn) {
            const bool rawTurn = (turn == 0) == (batch % 2 == 0);
            Samples& out = rawTurn ? *rawOut : *linkOut;
            const uint64_t rawBefore = raw.syscalls();
            const uint64_t linkBefore = PELK::Common::detail::syscallCount();
            for (int i = 0; i < perBatch; ++i) {
                idle(gapMicros);
                const Clock::time_point start = Clock::now();
                if (!(rawTurn ? raw.call() : linkCall(client))) {
                    return false;
                }
                out.micros.push_back(microsBetween(start, Clock::now()));
            }
            out.syscalls += rawTurn ? raw.syscalls() - rawBefore : PELK::Common::detail::syscallCount() - linkBefore;
            out.count += static_cast<size_t>(perBatch);
        }
    }
    return true;
}

// When the last event reached its receiver, and the link's system call count at that moment.
std::mutex g_eventMutex;
std::condition_variable g_eventArrived;
Clock::time_point g_eventAt;
uint64_t g_syscallsAtEvent = 0;
uint64_t g_events = 0;

void noteEvent() {
    const Clock::time_point now = Clock::now();
    const uint64_t syscalls = PELK::Common::detail::syscallCount();
    std::lock_guard<std::mutex> guard(g_eventMutex);
    g_eventAt = now;
    g_syscallsAtEvent = syscalls;
    ++g_events;
    g_eventArrived.notify_all();
}

void onLinkEvent(char* frame, void*) {
    if (frame != nullptr) {
        noteEvent();
    }
}

// Sends one event from the service side and returns its delivery time in microseconds; adds
// the link's system calls between the send and the callback to *syscalls.
double timeEvent(int serviceFd, const Bytes& event, uint64_t* syscalls) {
    std::unique_lock<std::mutex> lock(g_eventMutex);
    const uint64_t before = g_events;
    const uint64_t counted = PELK::Common::detail::syscallCount();
    const Clock::time_point start = Clock::now();
    lock.unlock();
    writeAll(serviceFd, event);
    lock.lock();
    g_eventArrived.wait_for(lock, std::chrono::seconds(5), [&] { return g_events > before; });
    *syscalls += g_syscallsAtEvent - counted;
    return microsBetween(start, g_eventAt);
}

struct EventSamples {
    Samples link;
    Samples rawOneWay;
    Samples rawRoundTrip;
};

// Link events, raw one-way deliveries and raw round trips, interleaved, each after the same gap.
void compareEvents(RawService& service, int linkSide, RawClient& raw, int count, int gapMicros, EventSamples* out) {
    RawClient oneWay;
    oneWay.connect();
    const int oneWaySide = service.connection(2);
    std::atomic<bool> reading{true};
    std::thread reader([&] {
        char frame[4 + kReplyBody];
        while (reading && readAll(oneWay.fd(), frame, sizeof(frame))) {
            noteEvent();
        }
    });
    const Bytes event = framed(message(kEventAction, kReplyBody));
    uint64_t unused = 0;
    for (int i = 0; i < count; ++i) {
        idle(gapMicros);
        out->link.micros.push_back(timeEvent(linkSide, event, &out->link.syscalls));
        idle(gapMicros);
        out->rawOneWay.micros.push_back(timeEvent(oneWaySide, event, &unused));
        idle(gapMicros);
        const Clock::time_point call = Clock::now();
        raw.call();
        out->rawRoundTrip.micros.push_back(microsBetween(call, Clock::now()));
    }
    out->link.count = static_cast<size_t>(count);
    reading = false;
    shutdown(oneWaySide, SHUT_WR);
    reader.join();
}

double processCpuSeconds() {
    struct timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

long residentKiB() {
    long pages = 0;
    long resident = 0;
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm != nullptr) {
        if (fscanf(statm, "%ld %ld", &pages, &resident) != 2) {
            resident = 0;
        }
        fclose(statm);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

void printRow(const char* name, Samples& raw, Samples& link, bool syscalls) {
    const double raw50 = raw.percentile(0.5), raw99 = raw.percentile(0.99);
    const double link50 = link.percentile(0.5), link99 = link.percentile(0.99);
    printf("%-28s %8.1f %8.1f %9.1f %9.1f %7.2fx %7.2fx", name, raw50, raw99, link50, link99, link50 / raw50,
           link99 / raw99);
    if (syscalls) {
        printf("   %5.2f %5.2f", raw.syscallsEach(), link.syscallsEach());
    }
    printf("\n");
}

int runComparison(long memoryCalls) {
    RawService service;
    TransferClient client;
    RawClient raw;
    if (!service.listening() || !client.startTransfer() || service.connection(0) < 0 || !raw.connect() ||
        service.connection(1) < 0) {
        fprintf(stderr, "link_bench: 127.0.0.1:%d unavailable (run inside tools/isolated.sh)\n", kPort);
        return 1;
    }
    client.setActionCallBack(onLinkEvent, nullptr);
    for (int i = 0; i < 2000; ++i) {  // warm both paths up
        raw.call();
        linkCall(client);
    }

    printf("link_bench: the link against raw loopback sockets; %zu-byte request, %zu-byte reply, %d interleaved "
           "batches\n",
           kRequestBody, kReplyBody, kBatches);
    printf("%-28s %8s %8s %9s %9s %8s %8s   %s\n", "microseconds", "raw p50", "raw p99", "link p50", "link p99",
           "p50", "p99", "syscalls/call raw link");
    Samples rawBackToBack, linkBackToBack, rawIdle, linkIdle;
    if (!compareCalls(client, raw, 1000, 0, &rawBackToBack, &linkBackToBack) ||
        !compareCalls(client, raw, 250, 200, &rawIdle, &linkIdle)) {
        fprintf(stderr, "link_bench: a call failed\n");
        return 1;
    }
    printRow("call, back to back", rawBackToBack, linkBackToBack, true);
    printRow("call, after 200 us idle", rawIdle, linkIdle, true);

    const double idleStart = processCpuSeconds();
    const uint64_t idleCalls = PELK::Common::detail::syscallCount();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const double idleCpu = (processCpuSeconds() - idleStart) / 5.0;
    const double idleSyscallsPerSecond = static_cast<double>(PELK::Common::detail::syscallCount() - idleCalls) / 5.0;

    EventSamples events;
    compareEvents(service, service.connection(0), raw, 1000, 1000, &events);
    printRow("event vs raw round trip", events.rawRoundTrip, events.link, false);
    printRow("event vs raw one-way", events.rawOneWay, events.link, false);
    // Counted at entry: the waits that the event ends were counted before it, and each of the two
    // threads enters one wait again after it.
    printf("system calls per event on the link: %.2f from the send to the callback, + 2 waits entered after "
           "(raw one-way: 1)\n",
           events.link.syscallsEach());
    printf("idle connected link: %.3f%% of a core, %.1f system calls a second\n", idleCpu * 100.0,
           idleSyscallsPerSecond);

    const long before = residentKiB();
    for (long i = 0; i < memoryCalls; ++i) {
        if (!linkCall(client)) {
            fprintf(stderr, "link_bench: a call failed\n");
            return 1;
        }
    }
    printf("resident memory over %ld calls: %ld KiB before, %ld KiB after\n", memoryCalls, before, residentKiB());
    client.stopTransfer();
    return 0;
}

// Google Benchmark cases for the two round trips on their own.
void BM_LinkRoundTrip(benchmark::State& state) {
    RawService service;
    TransferClient client;
    if (!service.listening() || !client.startTransfer()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    for (auto _ : state) {
        if (!linkCall(client)) {
            state.SkipWithError("call failed");
            break;
        }
    }
    client.stopTransfer();
}
BENCHMARK(BM_LinkRoundTrip)->Unit(benchmark::kMicrosecond);

void BM_RawRoundTrip(benchmark::State& state) {
    RawService service;
    RawClient raw;
    if (!service.listening() || !raw.connect()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    for (auto _ : state) {
        if (!raw.call()) {
            state.SkipWithError("call failed");
            break;
        }
    }
}
BENCHMARK(BM_RawRoundTrip)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    PELK::Common::setPropertyFilePathForTesting("/nonexistent/pelk-bench/log.properties");
    long memoryCalls = 1000000;
    bool comparison = true;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--calls=", 0) == 0) {
            memoryCalls = std::stol(arg.substr(8));
        } else {
            comparison = comparison && arg.rfind("--benchmark_filter=", 0) != 0;
            rest.push_back(argv[i]);
        }
    }
    if (comparison && runComparison(memoryCalls) != 0) {
        return 1;
    }
    int restCount = static_cast<int>(rest.size());
    benchmark::Initialize(&restCount, rest.data());
    if (!comparison) {
        benchmark::RunSpecifiedBenchmarks();
    }
    benchmark::Shutdown();
    return 0;
}
