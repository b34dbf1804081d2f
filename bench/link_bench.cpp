// Latency of the link's polling design: a request/response round trip with the receiver busy
// and after it has backed off while idle, and the delivery of a pushed event to the callback.
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "CommonLib/LogSink.h"
#include "TransferClient.h"
#include "support/FakeService.h"

namespace {

using Clock = std::chrono::steady_clock;
using PELK::Agent::TransferClient;

int roundTrip(TransferClient& client, pelktest::Bytes request) {
    char* resp = nullptr;
    int length = 0;
    int result = client.serviceCall(reinterpret_cast<char*>(request.data()), static_cast<int>(request.size()), resp,
                                    &length, 5);
    delete[] resp;
    return result;
}

void BM_RoundTrip(benchmark::State& state) {
    const int idleMs = static_cast<int>(state.range(0));
    pelktest::FakeService service;
    service.answer(44, pelktest::body(44, {0, 0}));
    TransferClient client;
    if (!service.listening() || !client.startTransfer()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(idleMs));  // lets the receiver back off
        const Clock::time_point start = Clock::now();
        if (roundTrip(client, pelktest::body(44)) != 0) {
            state.SkipWithError("call failed");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    client.stopTransfer();
}
BENCHMARK(BM_RoundTrip)->Arg(0)->Arg(200)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(50);

std::atomic<int> g_delivered{0};

void countEvent(char* frame, void*) {
    if (frame != nullptr) {
        g_delivered.fetch_add(1);
    }
}

void BM_EventDelivery(benchmark::State& state) {
    pelktest::FakeService service;
    TransferClient client;
    if (!service.listening() || !client.startTransfer()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    client.setActionCallBack(countEvent, nullptr);
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const int before = g_delivered.load();
        const Clock::time_point start = Clock::now();
        service.push(pelktest::body(20, {1, 0}));
        while (g_delivered.load() == before) {
            std::this_thread::yield();
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    client.stopTransfer();
}
BENCHMARK(BM_EventDelivery)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);

}  // namespace

int main(int argc, char** argv) {
    PELK::Common::setPropertyFilePathForTesting("/nonexistent/pelk-bench/log.properties");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
